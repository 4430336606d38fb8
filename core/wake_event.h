// Ends a worker's pacing wait early when there is work for it. The consumer of a queue puts
// signal() in the queue's notifier; the code that paces the worker's loop waits for the
// descriptor to become readable (or its pacing time to pass) and then takes one wake-up.
//
// Wake-ups are counted, one per signal, and each take() consumes one. With one signal per
// queued message and one message handled per loop round, the descriptor stays readable exactly
// while a message is still waiting, so a round never waits with work queued, and an idle
// worker still sleeps its whole pacing time.
#ifndef ORVD_CORE_WAKE_EVENT_H
#define ORVD_CORE_WAKE_EVENT_H

class wake_event {
public:
    wake_event();
    ~wake_event();
    wake_event(const wake_event&) = delete;
    wake_event& operator=(const wake_event&) = delete;

    // Readable while a wake-up is pending; -1 when the event could not be made (a waiter then
    // just sleeps its pacing time, as it would without one).
    int descriptor() const { return fd; }
    // Adds one wake-up. Safe from any thread and under any lock: one write that never blocks.
    void signal() const;
    // Consumes one wake-up; false when none was pending. Never blocks.
    bool take() const;
    // Waits at most timeout_ms for a wake-up and consumes it: 1 when woken, 0 when the time
    // passed, -1 on an error or a signal (as poll reports them).
    int wait(int timeout_ms) const;

private:
    int fd;
};

#endif
