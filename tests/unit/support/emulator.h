// A target build runs its test programs on the target CPU through an emulator (qemu-user), and
// every program a test starts must go through it too: a target program cannot execute another
// target program by itself (the kernel knows no such binaries without binfmt_misc).
#ifndef ORVD_TESTS_UNIT_SUPPORT_EMULATOR_H
#define ORVD_TESTS_UNIT_SUPPORT_EMULATOR_H

#include <string>
#include <vector>

// The words of $ORVD_TEST_EMULATOR ("qemu-mips -L SYSROOT" in a target build); none on the
// host. The emulator itself is a host program, which the kernel runs for an emulated caller.
std::vector<std::string> emulator_words();

// The death-test style for tests that need a process of their own from the start: "threadsafe"
// (GoogleTest executes the test program again) on the host, "fast" (a fork of this process,
// before any thread of the test has started) under the emulator.
const char* fresh_process_death_test_style();

#endif
