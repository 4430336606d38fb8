// Test helpers for the programs on the message bus: a private device root, and orvd-bus run as
// a child process (found at the top of the build folder, one level above the test programs).
#ifndef ORVD_TESTS_UNIT_TOOLS_BUS_TOOL_H
#define ORVD_TESTS_UNIT_TOOLS_BUS_TOOL_H

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "temp_root.h"

namespace bus_test {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

inline long long elapsed_ms(steady::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - since).count();
}

// Polls `done` every few milliseconds for up to `limit`.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds limit = 3000ms)
{
    const steady::time_point end = steady::now() + limit;
    for (;;) {
        if (done())
            return true;
        if (steady::now() >= end)
            return false;
        std::this_thread::sleep_for(2ms);
    }
}

inline bool file_exists(const std::string& path)
{
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

// A fresh device root that ORVD_ROOT names while the object lives, removed afterwards, with
// the socket path of each bus module below it.
class bus_root : public ::temp_root {
public:
    bus_root() : ::temp_root("orvd-bus-test") {}

    std::string module_socket(int module) const
    {
        return path() + "/run/msgbus/module-" + std::to_string(module);
    }
};

// One orvd-bus process (found at the top of the build folder) with its standard output and
// error read through pipes and, on request, its standard input written through one. Killed and
// reaped with the object in every case.
class bus_tool {
public:
    bool start(const std::vector<std::string>& arguments, bool with_input = false)
    {
        std::vector<std::string> command{program_beside_self("../orvd-bus")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        child_streams streams;
        streams.input_pipe = with_input;
        streams.error_pipe = true;
        if (process.start(command, streams))
            return true;
        ADD_FAILURE() << process.failure();
        return false;
    }

    // Waits for the line that says the module is on the bus and receiving.
    bool wait_ready(std::chrono::milliseconds limit = 5000ms)
    {
        const steady::time_point end = steady::now() + limit;
        std::string line;
        while (process.errors().read_line(&line, end)) {
            diagnostics += line + "\n";
            if (line.find("orvd-bus: listening as module") != std::string::npos)
                return true;
        }
        return false;
    }

    // The next line of standard output without its newline.
    bool read_line(std::string* line, std::chrono::milliseconds limit = 3000ms)
    {
        return process.output().read_line(line, steady::now() + limit);
    }

    // Everything on standard output up to its end.
    std::string read_all(std::chrono::milliseconds limit = 5000ms)
    {
        const steady::time_point end = steady::now() + limit;
        while (process.output().fill(end)) {
        }
        return process.output().take();
    }

    // True when nothing at all shows up on standard output within `limit`.
    bool output_quiet(std::chrono::milliseconds limit)
    {
        return process.output().unread().empty() && !process.output().fill(steady::now() + limit);
    }

    // False when the process has stopped reading (it ended); its exit status tells why.
    bool write_input(const std::string& text) { return process.write_input(text); }
    void close_input() { process.close_input(); }

    // The exit status, or -1 when the process is still running after `limit` or was killed.
    int wait_exit(std::chrono::milliseconds limit = 5000ms) { return process.wait_exit(limit); }

    // Sends the signal and waits for the end; the exit status as wait_exit gives it.
    int stop_with(int signal_number)
    {
        if (process.running())
            ::kill(process.pid(), signal_number);
        return wait_exit();
    }
    int terminate() { return stop_with(SIGTERM); }

    void kill_and_reap() { process.kill_and_reap(); }

    // What the process said on standard error so far, for failure messages.
    std::string errors()
    {
        while (process.errors().fill(steady::now())) {
        }
        return diagnostics + process.errors().unread();
    }

private:
    child_process process;
    std::string diagnostics;
};

}  // namespace bus_test

#endif
