#include "core/wake_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

// A semaphore eventfd: every write adds to the count, every read takes exactly one.
// Non-blocking, so neither the signalling producer nor a taker with nothing pending can hang.
wake_event::wake_event() : fd(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC)) {}

wake_event::~wake_event()
{
    if (fd >= 0)
        close(fd);
}

void wake_event::signal() const
{
    if (fd < 0)
        return;
    const uint64_t one = 1;
    // Cannot fail short of 2^64 - 2 pending wake-ups; a lost one only costs one pacing wait.
    ssize_t written = write(fd, &one, sizeof one);
    (void)written;
}

bool wake_event::take() const
{
    if (fd < 0)
        return false;
    uint64_t value = 0;
    return read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}

int wake_event::wait(int timeout_ms) const
{
    if (fd < 0)
        return poll(nullptr, 0, timeout_ms);
    pollfd waiting{fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, timeout_ms);
    if (ready <= 0)
        return ready;
    take();
    return 1;
}
