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

// A child process (bus_peer) whose standard output is read through a pipe. Killed and reaped
// when the object goes away, whatever happened in between.
class child_process {
public:
    child_process() = default;
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // Starts bus_peer (found next to this test program) with the given arguments.
    bool start_bus_peer(const std::vector<std::string>& arguments);
    // Waits for the line "ready" on its output; false on any other line, end or time-out.
    bool wait_ready(int timeout_ms = 5000);
    // Waits for the process to end; its exit code, or -1 on time-out or a signal.
    int wait_exit(int timeout_ms = 5000);
    void kill_and_reap();
    pid_t pid() const { return process_id; }

private:
    pid_t process_id = -1;
    int output_fd = -1;
    std::string unread_output;
};

std::string bus_peer_path();

// A payload of `size` bytes that runs through every byte value, 0x00 and 0x80-0xFF included.
std::string binary_payload(size_t size);

inline long long elapsed_ms(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since)
        .count();
}

}  // namespace platform_test

#endif
