#include "test_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace platform_test {

void make_directories(const std::string& path)
{
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/')
            continue;
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

void write_file(const std::string& path, const std::string& content)
{
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        make_directories(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(out.good()) << path;
}

bool file_exists(const std::string& path)
{
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

void log(vlr_log_level_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vvorna_log_msg_timed_new(level, format, args);
    va_end(args);
}

std::string bus_peer_path()
{
    char self[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return "bus_peer";
    self[length] = '\0';
    std::string path(self);
    return path.substr(0, path.rfind('/') + 1) + "bus_peer";
}

std::string binary_payload(size_t size)
{
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<char>((i * 131 + i / 256) & 0xFF);
    }
    return payload;
}

child_process::~child_process()
{
    kill_and_reap();
}

bool child_process::start_bus_peer(const std::vector<std::string>& arguments)
{
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0)
        return false;
    std::string program = bus_peer_path();
    std::vector<std::string> all{program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all)
        argv.push_back(&argument[0]);
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    int result = ::posix_spawn(&process_id, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_fds[1]);
    if (result != 0) {
        ::close(pipe_fds[0]);
        process_id = -1;
        ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(result);
        return false;
    }
    output_fd = pipe_fds[0];
    return true;
}

bool child_process::wait_ready(int timeout_ms)
{
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        size_t newline = unread_output.find('\n');
        if (newline != std::string::npos) {
            std::string line = unread_output.substr(0, newline);
            unread_output.erase(0, newline + 1);
            return line == "ready";
        }
        long long left = timeout_ms - elapsed_ms(start);
        if (left <= 0 || output_fd < 0)
            return false;
        pollfd wait_for_output = {output_fd, POLLIN, 0};
        if (::poll(&wait_for_output, 1, static_cast<int>(left)) <= 0)
            continue;
        char buffer[256];
        ssize_t got = ::read(output_fd, buffer, sizeof buffer);
        if (got <= 0)
            return false;
        unread_output.append(buffer, static_cast<size_t>(got));
    }
}

int child_process::wait_exit(int timeout_ms)
{
    if (process_id < 0)
        return -1;
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(process_id, &status, WNOHANG);
        if (done == process_id) {
            process_id = -1;
            if (output_fd >= 0)
                ::close(output_fd);
            output_fd = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (elapsed_ms(start) >= timeout_ms)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void child_process::kill_and_reap()
{
    if (process_id > 0) {
        ::kill(process_id, SIGKILL);
        int status = 0;
        while (::waitpid(process_id, &status, 0) < 0 && errno == EINTR) {
        }
        process_id = -1;
    }
    if (output_fd >= 0) {
        ::close(output_fd);
        output_fd = -1;
    }
}

}  // namespace platform_test
