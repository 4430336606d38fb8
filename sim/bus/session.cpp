#include "session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "escape.h"

namespace {

// Received messages are picked from the library's queue at this interval while it is empty.
constexpr std::chrono::milliseconds queue_poll_interval(1);

}  // namespace

bool bus_membership::join(int module, bool receive)
{
    if (InitLibParams(module, nullptr, 0) != 0) {
        std::fprintf(stderr,
                     "orvd-bus: cannot register as module %d: it is taken, or the bus cannot be used\n",
                     module);
        return false;
    }
    joined = true;
    if (receive && ModulePeerStart() != 0) {
        std::fprintf(stderr, "orvd-bus: cannot start receiving as module %d\n", module);
        leave();
        return false;
    }
    return true;
}

void bus_membership::leave()
{
    if (!joined)
        return;
    ModulePeerStop();
    FreeLibParams();
    joined = false;
}

message_ptr next_message(std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        if (message_s* message = GetMsgFromQueueNoWait())
            return message_ptr(message);
        if (stop_requested() || std::chrono::steady_clock::now() >= deadline)
            return nullptr;
        std::this_thread::sleep_for(queue_poll_interval);
    }
}

bool print_message(std::string_view payload, bool escaped)
{
    if (escaped) {
        const std::string line = bus_escape::escape(payload);
        std::fwrite(line.data(), 1, line.size(), stdout);
    } else {
        std::fwrite(payload.data(), 1, payload.size(), stdout);
    }
    std::fputc('\n', stdout);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "orvd-bus: cannot write to standard output: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}
