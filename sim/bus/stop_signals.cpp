#include "stop_signals.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace {

std::atomic<bool> stop_flag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler writes the flag");

void request_stop(int)
{
    stop_flag.store(true);
}

void stop_signal_set(sigset_t* set)
{
    sigemptyset(set);
    sigaddset(set, SIGTERM);
    sigaddset(set, SIGINT);
}

}  // namespace

void catch_stop_signals()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop_signals;
    stop_signal_set(&stop_signals);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
}

bool stop_requested()
{
    if (stop_flag.load())
        return true;
    sigset_t stop_signals;
    stop_signal_set(&stop_signals);
    const timespec now = {0, 0};
    int taken;
    do {
        taken = sigtimedwait(&stop_signals, nullptr, &now);
    } while (taken < 0 && errno == EINTR);
    if (taken > 0)
        stop_flag.store(true);
    return stop_flag.load();
}
