#include "core/abstract_worker.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "core/run_flags.h"

abstract_worker::abstract_worker(const volatile bool& run_flag, const char* worker_name, int execute_pause,
                                 int reconnect_pause)
    : started(false), alive(false), run(run_flag), name(worker_name), execute_pause_us(execute_pause),
      reconnect_pause_us(reconnect_pause), connected(false)
{
}

abstract_worker::~abstract_worker() = default;

void abstract_worker::start()
{
    // SIGTERM and SIGINT are taken by the main thread only: the handler writes to the log
    // under its lock, which a worker interrupted in the middle of a log line would hold.
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    thread = std::thread(std::bind(&abstract_worker::func, this));
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    started = true;
}

void abstract_worker::join()
{
    if (started && thread.joinable())
        thread.join();
}

bool abstract_worker::connect()
{
    connected = __connect();
    return connected;
}

void abstract_worker::disconnect()
{
    if (connected) {
        __disconnect();
        connected = false;
    }
}

void abstract_worker::func()
{
    // The kernel keeps 15 characters: "websock-roaming" shows as orvd:websock-ro.
    const std::string thread_name = "orvd:" + name;
    prctl(PR_SET_NAME, thread_name.c_str(), 0, 0, 0);

    while (read_run_flag(run)) {
        alive = connect();
        while (alive) {
            if (!condition(run))
                break;
            try {
                if (execute() && execute_pause_us > 0)
                    usleep(static_cast<useconds_t>(execute_pause_us));
            } catch (...) {
                printf("Unhandled exception at worker '%s'\n", name.c_str());
                exit(-1);
            }
        }
        disconnect();
        if (!read_run_flag(run)) {
            alive = false;
            break;
        }
        usleep(static_cast<useconds_t>(reconnect_pause_us));
        alive = false;
    }
}
