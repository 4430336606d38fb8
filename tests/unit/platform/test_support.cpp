#include "test_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace platform_test {

namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

}  // namespace

TempRoot::TempRoot() {
    const char* previous = std::getenv("ORVD_ROOT");
    if (previous != nullptr) {
        had_previous_ = true;
        previous_ = previous;
    }
    char pattern[] = "/tmp/orvd-platform-XXXXXX";
    char* made = ::mkdtemp(pattern);
    if (made == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    path_ = made;
    ::setenv("ORVD_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
    if (had_previous_) {
        ::setenv("ORVD_ROOT", previous_.c_str(), 1);
    } else {
        ::unsetenv("ORVD_ROOT");
    }
    if (!path_.empty()) ::nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void TempRoot::use_subdirectory(const std::string& relative) {
    std::string full = path_ + "/" + relative;
    make_directories(full);
    ::setenv("ORVD_ROOT", full.c_str(), 1);
}

void make_directories(const std::string& path) {
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/') continue;
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

void write_file(const std::string& path, const std::string& content) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) make_directories(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(out.good()) << path;
}

bool read_file(const std::string& path, std::string* content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    *content = text.str();
    return true;
}

bool file_exists(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

LogCapture::LogCapture() { vorna_log_host_set_writer(&LogCapture::receive, this); }

LogCapture::~LogCapture() { vorna_log_host_set_writer(nullptr, nullptr); }

void LogCapture::receive(vlr_log_level_t level, const char* text, void* context) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(level, text);
}

std::vector<std::pair<vlr_log_level_t, std::string>> LogCapture::lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

bool LogCapture::contains(vlr_log_level_t level, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& line : lines_) {
        if (line.first == level && line.second.find(text) != std::string::npos) return true;
    }
    return false;
}

void log(vlr_log_level_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vvorna_log_msg_timed_new(level, format, args);
    va_end(args);
}

std::string bus_peer_path() {
    char self[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return "bus_peer";
    self[length] = '\0';
    std::string path(self);
    return path.substr(0, path.rfind('/') + 1) + "bus_peer";
}

std::string binary_payload(size_t size) {
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<char>((i * 131 + i / 256) & 0xFF);
    }
    return payload;
}

Child::~Child() { kill_and_reap(); }

bool Child::start_bus_peer(const std::vector<std::string>& arguments) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
    std::string program = bus_peer_path();
    std::vector<std::string> all{program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) argv.push_back(&argument[0]);
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    int result = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_fds[1]);
    if (result != 0) {
        ::close(pipe_fds[0]);
        pid_ = -1;
        ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(result);
        return false;
    }
    out_fd_ = pipe_fds[0];
    return true;
}

bool Child::wait_ready(int timeout_ms) {
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        size_t newline = pending_.find('\n');
        if (newline != std::string::npos) {
            std::string line = pending_.substr(0, newline);
            pending_.erase(0, newline + 1);
            return line == "ready";
        }
        long long left = timeout_ms - elapsed_ms(start);
        if (left <= 0 || out_fd_ < 0) return false;
        pollfd wait_for_output = {out_fd_, POLLIN, 0};
        if (::poll(&wait_for_output, 1, static_cast<int>(left)) <= 0) continue;
        char buffer[256];
        ssize_t got = ::read(out_fd_, buffer, sizeof buffer);
        if (got <= 0) return false;
        pending_.append(buffer, static_cast<size_t>(got));
    }
}

int Child::wait_exit(int timeout_ms) {
    if (pid_ < 0) return -1;
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            if (out_fd_ >= 0) ::close(out_fd_);
            out_fd_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (elapsed_ms(start) >= timeout_ms) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Child::kill_and_reap() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (out_fd_ >= 0) {
        ::close(out_fd_);
        out_fd_ = -1;
    }
}

}  // namespace platform_test
