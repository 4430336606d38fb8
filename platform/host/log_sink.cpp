#include "log_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

enum sink_kind : int { sink_unknown = 0, sink_blocking, sink_nonblocking_fd, sink_socket };

std::atomic<int> kind{sink_unknown};
std::atomic<int> nonblocking_fd{-1};
std::atomic<unsigned> dropped{0};

// Once a line has begun it is finished if the reader frees room within this time, so that a
// slow reader does not get half lines; a reader that takes nothing for this long loses the rest.
constexpr int finish_line_ms = 1000;

// A second open file description of standard error with O_NONBLOCK of its own: setting the
// flag on descriptor 2 itself would change it for every process that shares it (the shell).
int open_nonblocking_stderr()
{
    return open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

int decide_kind()
{
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0)
        return sink_blocking;
    if (S_ISSOCK(status.st_mode))
        return sink_socket;
    if (S_ISFIFO(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(STDERR_FILENO))) {
        int fd = open_nonblocking_stderr();
        if (fd < 0)
            return sink_blocking;
        int expected = -1;
        if (!nonblocking_fd.compare_exchange_strong(expected, fd))
            close(fd);  // another thread got there first
        return sink_nonblocking_fd;
    }
    return sink_blocking;
}

int current_kind()
{
    int known = kind.load(std::memory_order_acquire);
    if (known != sink_unknown)
        return known;
    int decided = decide_kind();
    int expected = sink_unknown;
    kind.compare_exchange_strong(expected, decided, std::memory_order_acq_rel);
    return kind.load(std::memory_order_acquire);
}

ssize_t write_some(int sink, const char* data, size_t length)
{
    if (sink == sink_socket)
        return send(STDERR_FILENO, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sink == sink_nonblocking_fd)
        return write(nonblocking_fd.load(std::memory_order_acquire), data, length);
    return write(STDERR_FILENO, data, length);
}

int writable_fd(int sink)
{
    return sink == sink_nonblocking_fd ? nonblocking_fd.load(std::memory_order_acquire) : STDERR_FILENO;
}

}  // namespace

namespace log_sink {

bool write_line(const char* line, size_t length)
{
    const int saved_errno = errno;
    const int sink = current_kind();
    int waited_ms = 0;
    bool begun = false;
    while (length > 0) {
        ssize_t written = write_some(sink, line, length);
        if (written > 0) {
            begun = true;
            line += written;
            length -= static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR)
            continue;
        const bool full = written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        // Nothing of the line went out: drop it whole. Part of it went out: give the reader a
        // moment to take the rest.
        if (!full || !begun || waited_ms >= finish_line_ms) {
            if (full)
                dropped.fetch_add(1, std::memory_order_relaxed);
            errno = saved_errno;
            return false;
        }
        pollfd wait_for_room{writable_fd(sink), POLLOUT, 0};
        poll(&wait_for_room, 1, 50);
        waited_ms += 50;
    }
    errno = saved_errno;
    return true;
}

unsigned take_dropped()
{
    return dropped.exchange(0, std::memory_order_relaxed);
}

void add_dropped(unsigned count)
{
    dropped.fetch_add(count, std::memory_order_relaxed);
}

}  // namespace log_sink
