#include "session.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "escape.h"

namespace {

std::atomic<bool> stop_flag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler writes the flag");

// Received messages are picked from the library's queue at this interval while it is empty.
constexpr std::chrono::milliseconds queue_poll_interval(1);

void request_stop(int)
{
    stop_flag.store(true);
}

}  // namespace

void install_signal_handlers()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    // A parent may have started this process with the signals blocked.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigprocmask(SIG_UNBLOCK, &stop_signals, nullptr);
}

bool stop_requested()
{
    return stop_flag.load();
}

bool bus_membership::join(int module, bool receive)
{
    if (InitLibParams(module, nullptr, 0) != 0) {
        std::fprintf(stderr,
                     "orvd-bus: cannot register as module %d: it is taken, or the bus cannot be used\n",
                     module);
        return false;
    }
    joined = true;
    // The bus library receives on a thread of its own. It must not take SIGTERM or SIGINT:
    // a signal delivered there, while it waits in the kernel, may not run the handler until a
    // message arrives (a sanitizer runtime defers it), and the main loop would never stop.
    // The thread inherits the mask in force when it is made.
    sigset_t stop_signals;
    sigset_t previous;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, &previous);
    const int started = receive ? ModulePeerStart() : 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (started != 0) {
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
