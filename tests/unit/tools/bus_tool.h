// Test helpers for the programs on the message bus: a private device root, and orvd-bus run as
// a child process (found at the top of the build folder, one level above the test programs).
#ifndef ORVD_TESTS_UNIT_TOOLS_BUS_TOOL_H
#define ORVD_TESTS_UNIT_TOOLS_BUS_TOOL_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "temp_root.h"

extern char** environ;

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

inline std::string orvd_bus_path()
{
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return "orvd-bus";
    self[length] = '\0';
    const std::string path(self);
    return path.substr(0, path.rfind('/')) + "/../orvd-bus";
}

// One orvd-bus process with its standard output and error read through pipes and, on request,
// its standard input written through one. Killed and reaped with the object in every case.
class bus_tool {
public:
    bus_tool() = default;
    ~bus_tool() { kill_and_reap(); }
    bus_tool(const bus_tool&) = delete;
    bus_tool& operator=(const bus_tool&) = delete;

    bool start(const std::vector<std::string>& arguments, bool with_input = false)
    {
        int out[2] = {-1, -1};
        int err[2] = {-1, -1};
        int in[2] = {-1, -1};
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0 ||
            (with_input && ::pipe2(in, O_CLOEXEC) != 0)) {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            close_all({out[0], out[1], err[0], err[1], in[0], in[1]});
            return false;
        }
        std::vector<std::string> all{orvd_bus_path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& argument : all)
            argv.push_back(&argument[0]);
        argv.push_back(nullptr);

        // A child that ends before it has read its input must not take this process with it;
        // the child itself starts with the default action again.
        ::signal(SIGPIPE, SIG_IGN);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (with_input)
            posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        else
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        const int result = ::posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), ::environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close_all({out[1], err[1], in[0]});
        out_fd = out[0];
        err_fd = err[0];
        in_fd = in[1];
        if (result != 0) {
            pid = -1;
            ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(result);
            return false;
        }
        return true;
    }

    // Waits for the line that says the module is on the bus and receiving.
    bool wait_ready(std::chrono::milliseconds limit = 5000ms)
    {
        const steady::time_point end = steady::now() + limit;
        std::string line;
        while (read_line_from(err_fd, &err_pending, &line, end)) {
            diagnostics += line + "\n";
            if (line.find("orvd-bus: listening as module") != std::string::npos)
                return true;
        }
        return false;
    }

    // The next line of standard output without its newline.
    bool read_line(std::string* line, std::chrono::milliseconds limit = 3000ms)
    {
        return read_line_from(out_fd, &out_pending, line, steady::now() + limit);
    }

    // Everything on standard output up to its end.
    std::string read_all(std::chrono::milliseconds limit = 5000ms)
    {
        const steady::time_point end = steady::now() + limit;
        while (fill(out_fd, &out_pending, end)) {
        }
        std::string all;
        all.swap(out_pending);
        return all;
    }

    // True when nothing at all shows up on standard output within `limit`.
    bool output_quiet(std::chrono::milliseconds limit)
    {
        if (!out_pending.empty())
            return false;
        return !fill(out_fd, &out_pending, steady::now() + limit) && out_pending.empty();
    }

    // False when the process has stopped reading (it ended); its exit status tells why.
    bool write_input(const std::string& text)
    {
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t written = ::write(in_fd, text.data() + done, text.size() - done);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return false;
            done += static_cast<size_t>(written);
        }
        return true;
    }

    void close_input() { close_fd(&in_fd); }

    // The exit status, or -1 when the process is still running after `limit` or was killed.
    int wait_exit(std::chrono::milliseconds limit = 5000ms)
    {
        if (pid <= 0)
            return -1;
        const steady::time_point end = steady::now() + limit;
        for (;;) {
            int status = 0;
            const pid_t done = ::waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            if (steady::now() >= end)
                return -1;
            std::this_thread::sleep_for(2ms);
        }
    }

    // Sends the signal and waits for the end; the exit status as wait_exit gives it.
    int stop_with(int signal_number)
    {
        if (pid > 0)
            ::kill(pid, signal_number);
        return wait_exit();
    }
    int terminate() { return stop_with(SIGTERM); }

    void kill_and_reap()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            int status = 0;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            pid = -1;
        }
        close_fd(&out_fd);
        close_fd(&err_fd);
        close_fd(&in_fd);
    }

    // What the process said on standard error so far, for failure messages.
    std::string errors()
    {
        while (fill(err_fd, &err_pending, steady::now())) {
        }
        return diagnostics + err_pending;
    }

private:
    static void close_fd(int* fd)
    {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }

    static void close_all(std::initializer_list<int> fds)
    {
        for (int fd : fds)
            if (fd >= 0)
                ::close(fd);
    }

    // Reads what is there, waiting until `end` for something; false at the end of the output
    // or when nothing came in time.
    static bool fill(int fd, std::string* pending, steady::time_point end)
    {
        if (fd < 0)
            return false;
        for (;;) {
            const long long left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now()).count();
            pollfd readable = {fd, POLLIN, 0};
            const int ready = ::poll(&readable, 1, left > 0 ? static_cast<int>(left) : 0);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return false;
            char chunk[65536];
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return false;
            pending->append(chunk, static_cast<size_t>(got));
            return true;
        }
    }

    static bool read_line_from(int fd, std::string* pending, std::string* line, steady::time_point end)
    {
        for (;;) {
            const size_t newline = pending->find('\n');
            if (newline != std::string::npos) {
                *line = pending->substr(0, newline);
                pending->erase(0, newline + 1);
                return true;
            }
            if (!fill(fd, pending, end))
                return false;
        }
    }

    pid_t pid = -1;
    int out_fd = -1;
    int err_fd = -1;
    int in_fd = -1;
    std::string out_pending;
    std::string err_pending;
    std::string diagnostics;
};

}  // namespace bus_test

#endif
