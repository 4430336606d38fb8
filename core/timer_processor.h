// One-shot timers for one worker thread, at one-second resolution on the monotonic clock.
#ifndef ORVD_CORE_TIMER_PROCESSOR_H
#define ORVD_CORE_TIMER_PROCESSOR_H

#include <ctime>
#include <functional>
#include <list>

struct timer_desc {
    std::function<void()> function;
    int id;
    // Absolute second of CLOCK_MONOTONIC at which the timer is due.
    int expiry;

    timer_desc(const std::function<void()>& function, int id, int expiry);
};

// Timers in ascending expiry; timers with the same expiry stay in the order they were added,
// so callbacks armed together run in the order they were armed.
class timer_desc_list : public std::list<timer_desc> {
public:
    iterator sorted_insert(const timer_desc& timer);
    // Removes every timer carrying the id.
    void del_timer(int id);
    // The first timer that is not yet overdue at `now`, or end().
    iterator get_next_event(long now);
    // Runs every timer due at `now`, in list order. The due timers are taken out of the list
    // before the first one runs, so a callback may cancel or re-arm anything (its own id
    // included), a cancelled timer of the same batch still runs, and a timer armed by a
    // callback runs at the next call at the earliest. An empty function throws
    // std::bad_function_call out of here; the rest of the batch is then dropped.
    void process_once(long now);
};

// Not locked: a processor belongs to the one worker thread that arms and runs its timers.
class timer_processor : public timer_desc_list {
public:
    // The last clock reading that passed the check in time_monotonic(). Public so that a
    // stalled worker can be simulated by moving it back.
    timespec last_time;

    timer_processor();
    // Remaining timers are dropped without running.
    ~timer_processor() = default;

    // The monotonic second, checked against the previous reading. A reading more than 10 s
    // after the previous one, or before it, means the worker stalled or the clock is broken;
    // the reading is retried a few times and then the process exits so that it is restarted.
    long time_monotonic();

    void add_timer(const std::function<void()>& function, int id, int delay_s);
    using timer_desc_list::del_timer;
    using timer_desc_list::process_once;
    // Runs the timers due now.
    void process_once();
    // Sleeps until the next pending timer is due and runs what is due then. Returns at once,
    // running nothing, when no timer is pending at or after the current second (which includes
    // the case where every remaining timer is overdue; process_once() picks those up).
    void process();

    // Waits up to `seconds`, asking keep_waiting every 100 ms; ends early once it answers
    // false. Always returns false.
    bool delay_with_periodic(int seconds, const std::function<bool()>& keep_waiting);
    // Waits in 1 s steps for as long as keep_waiting answers true, keeping the clock check
    // fed meanwhile. Always returns false.
    bool delay_with_condition(const std::function<bool()>& keep_waiting);
};

#endif
