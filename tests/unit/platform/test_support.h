// Helpers shared by the platform tests: a private device root per test, files, captured log
// lines and child processes.
#ifndef ORVD_TESTS_UNIT_PLATFORM_TEST_SUPPORT_H
#define ORVD_TESTS_UNIT_PLATFORM_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vorna_log_host.h"

namespace platform_test {

// A fresh directory that ORVD_ROOT points at for the object's life; removed with everything
// below it afterwards, and ORVD_ROOT restored to what it was.
class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return path_; }
    // Points ORVD_ROOT at a subdirectory (created) of this root instead.
    void use_subdirectory(const std::string& relative);

private:
    std::string path_;
    bool had_previous_ = false;
    std::string previous_;
};

void write_file(const std::string& path, const std::string& content);
bool read_file(const std::string& path, std::string* content);
bool file_exists(const std::string& path);
void make_directories(const std::string& path);

// Installs a log writer for the object's life and keeps what it receives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::pair<vlr_log_level_t, std::string>> lines();
    bool contains(vlr_log_level_t level, const std::string& text);

private:
    static void receive(vlr_log_level_t level, const char* text, void* context);
    std::mutex mutex_;
    std::vector<std::pair<vlr_log_level_t, std::string>> lines_;
};

// Logs through the library's va_list entry point.
void log(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A child process (bus_peer) whose standard output is read through a pipe. Killed and reaped
// when the object goes away, whatever happened in between.
class Child {
public:
    Child() = default;
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Starts bus_peer (found next to this test program) with the given arguments.
    bool start_bus_peer(const std::vector<std::string>& arguments);
    // Waits for the line "ready" on its output; false on any other line, end or time-out.
    bool wait_ready(int timeout_ms = 5000);
    // Waits for the process to end; its exit code, or -1 on time-out or a signal.
    int wait_exit(int timeout_ms = 5000);
    void kill_and_reap();
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int out_fd_ = -1;
    std::string pending_;
};

std::string bus_peer_path();

// A payload of `size` bytes that runs through every byte value, 0x00 and 0x80-0xFF included.
std::string binary_payload(size_t size);

inline long long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now() - since)
        .count();
}

}  // namespace platform_test

#endif
