// Helpers shared by the platform tests: a private device root per test, files, owned messages
// and trees, and child processes.
#ifndef ORVD_TESTS_UNIT_PLATFORM_TEST_SUPPORT_H
#define ORVD_TESTS_UNIT_PLATFORM_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cfg_tree.h"
#include "child_process.h"
#include "temp_root.h"
#include "msgbus.h"
#include "vorna_log.h"

namespace platform_test {

// A private device root per test (shared with the other test programs).
using ::root_variable_restorer;
using ::temp_root;

void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);
void make_directories(const std::string& path);

// Inline because bus_peer, which has no GoogleTest, reads files too.
inline bool read_file(const std::string& path, std::string* content)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream text;
    text << in.rdbuf();
    *content = text.str();
    return true;
}

// Logs through the library's va_list entry point.
void log(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

struct message_deleter {
    void operator()(message_s* message) const { std::free(message); }
};
using owned_message = std::unique_ptr<message_s, message_deleter>;

struct tree_deleter {
    void operator()(cfg_t* tree) const { cfg_release(tree); }
};
using owned_tree = std::unique_ptr<cfg_t, tree_deleter>;

inline std::string payload_of(const message_s* message)
{
    return std::string(message->payload, message->length);
}

// Child processes (shared with the other test programs).
using ::child_process;

// Starts bus_peer, found next to this test program, with the given arguments; a failure to
// start fails the test.
bool start_bus_peer(child_process& peer, const std::vector<std::string>& arguments);

// A payload of `size` bytes that runs through every byte value, 0x00 and 0x80-0xFF included.
std::string binary_payload(size_t size);

inline long long elapsed_ms(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since)
        .count();
}

}  // namespace platform_test

#endif
