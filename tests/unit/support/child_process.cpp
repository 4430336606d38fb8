#include "child_process.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <thread>

#include "emulator.h"

extern char** environ;

namespace {

// How often a wait for the end looks whether the child has gone.
constexpr auto exit_poll_interval = std::chrono::milliseconds(1);

void close_all(std::initializer_list<int> fds)
{
    for (int fd : fds)
        if (fd >= 0)
            ::close(fd);
}

}  // namespace

// ---- pipe_reader ---------------------------------------------------------------------------

void pipe_reader::reset(int new_fd)
{
    close();
    fd = new_fd;
    at_end = false;
    pending.clear();
}

void pipe_reader::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

bool pipe_reader::fill(clock_type::time_point deadline)
{
    if (fd < 0 || at_end)
        return false;
    for (;;) {
        const long long left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now()).count();
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
        if (got <= 0) {
            at_end = true;
            return false;
        }
        pending.append(chunk, static_cast<size_t>(got));
        return true;
    }
}

bool pipe_reader::read_line(std::string* line, clock_type::time_point deadline)
{
    for (;;) {
        const size_t newline = pending.find('\n');
        if (newline != std::string::npos) {
            *line = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            return true;
        }
        if (!fill(deadline))
            return false;
    }
}

std::string pipe_reader::take()
{
    std::string all;
    all.swap(pending);
    return all;
}

// ---- child_process -------------------------------------------------------------------------

bool child_process::start(const std::vector<std::string>& command, const child_streams& streams)
{
    kill_and_reap();
    why.clear();
    status = -1;
    if (command.empty()) {
        why = "no program to start";
        return false;
    }
    int out_pipe[2] = {-1, -1};
    int err_pipe[2] = {-1, -1};
    int in_pipe[2] = {-1, -1};
    if (::pipe2(out_pipe, O_CLOEXEC) != 0 || (streams.error_pipe && ::pipe2(err_pipe, O_CLOEXEC) != 0) ||
        (streams.input_pipe && ::pipe2(in_pipe, O_CLOEXEC) != 0)) {
        why = std::string("pipe: ") + std::strerror(errno);
        close_all({out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1], in_pipe[0], in_pipe[1]});
        return false;
    }
    // In a target build the program runs on the target CPU through the emulator (a host
    // program, which the kernel runs directly when an emulated test starts it).
    std::vector<std::string> arguments = emulator_words();
    const bool emulated = !arguments.empty();
    arguments.insert(arguments.end(), command.begin(), command.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(&argument[0]);
    argv.push_back(nullptr);

    // A child that ends before it has read its input must not take this process with it when
    // the test writes on; the child itself starts with the default action again, whatever
    // this process has set.
    if (streams.input_pipe)
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
    if (streams.input_pipe)
        posix_spawn_file_actions_adddup2(&actions, in_pipe[0], STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
    if (streams.error_pipe)
        posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
    else if (!streams.error_file.empty())
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, streams.error_file.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int result = emulated ? ::posix_spawnp(&process_id, argv[0], &actions, &attributes, argv.data(), environ)
                                : ::posix_spawn(&process_id, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close_all({out_pipe[1], err_pipe[1], in_pipe[0]});
    if (result != 0) {
        process_id = -1;
        close_all({out_pipe[0], err_pipe[0], in_pipe[1]});
        why = "cannot start " + command[0] + ": " + std::strerror(result);
        return false;
    }
    out.reset(out_pipe[0]);
    err.reset(err_pipe[0]);
    input_fd = in_pipe[1];
    return true;
}

bool child_process::wait_ready(std::chrono::milliseconds limit)
{
    std::string line;
    return out.read_line(&line, pipe_reader::clock_type::now() + limit) && line == "ready";
}

bool child_process::write_input(const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(input_fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

void child_process::close_input()
{
    close_all({input_fd});
    input_fd = -1;
}

bool child_process::collect(bool block)
{
    int result = 0;
    pid_t done = 0;
    do {
        done = ::waitpid(process_id, &result, block ? 0 : WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done == 0)
        return false;
    // Anything but our child (it cannot be waited for any more) counts as an end unknown.
    status = done == process_id ? result : -1;
    process_id = -1;
    return true;
}

int child_process::wait_exit(std::chrono::milliseconds limit)
{
    if (process_id <= 0)
        return -1;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!collect(false)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(exit_poll_interval);
    }
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool child_process::stop(int signal_number, std::chrono::milliseconds limit)
{
    if (process_id <= 0)
        return true;
    if (signal_number != 0)
        ::kill(process_id, signal_number);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!collect(false)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(process_id, SIGKILL);
            collect(true);
            return false;
        }
        std::this_thread::sleep_for(exit_poll_interval);
    }
    return true;
}

void child_process::kill_and_reap()
{
    if (process_id > 0) {
        ::kill(process_id, SIGKILL);
        collect(true);
    }
    out.close();
    err.close();
    close_input();
}

std::string program_beside_self(const std::string& name)
{
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return name;
    const std::string path(self, static_cast<size_t>(length));
    return path.substr(0, path.rfind('/') + 1) + name;
}
