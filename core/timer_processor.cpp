#include "core/timer_processor.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "core/trace.h"

namespace {

// Largest accepted step between two clock readings. A worker checks the clock at least every
// few seconds, so a longer gap means it hung or the clock jumped.
constexpr long max_clock_step_s = 10;
// Readings retried before giving up on the clock.
constexpr int max_clock_errors = 11;

}  // namespace

timer_desc::timer_desc(const std::function<void()>& callback, int timer_id, int expiry_s)
    : function(callback), id(timer_id), expiry(expiry_s)
{
}

timer_desc_list::iterator timer_desc_list::sorted_insert(const timer_desc& timer)
{
    iterator it = begin();
    while (it != end() && it->expiry <= timer.expiry)
        ++it;
    return insert(it, timer);
}

void timer_desc_list::del_timer(int id)
{
    remove_if([id](const timer_desc& timer) { return timer.id == id; });
}

timer_desc_list::iterator timer_desc_list::get_next_event(long now)
{
    for (iterator it = begin(); it != end(); ++it)
        if (it->expiry >= now)
            return it;
    return end();
}

void timer_desc_list::process_once(long now)
{
    std::list<timer_desc> due;
    for (iterator it = begin(); it != end();) {
        iterator next = std::next(it);
        if (it->expiry <= now)
            due.splice(due.end(), *this, it);
        it = next;
    }
    for (timer_desc& timer : due)
        timer.function();
}

timer_processor::timer_processor() : last_time{}
{
    clock_gettime(CLOCK_MONOTONIC, &last_time);
}

long timer_processor::time_monotonic()
{
    int counter = 0;
    for (;;) {
        timespec reading{};
        clock_gettime(CLOCK_MONOTONIC, &reading);
        long now = reading.tv_sec;
        long last = last_time.tv_sec;
        if (now <= last + max_clock_step_s && now >= last) {
            last_time = reading;
            return now;
        }
        trace.debug("%s: Time error, need restart, expired [%u] [%u] cnt %d\n", "time_monotonic",
                    static_cast<unsigned>(now), static_cast<unsigned>(last), counter);
        ++counter;
        // A stalled worker or a broken clock is only cured by a restart.
        if (counter >= max_clock_errors)
            exit(-1);
    }
}

void timer_processor::add_timer(const std::function<void()>& function, int id, int delay_s)
{
    sorted_insert(timer_desc(function, id, static_cast<int>(time_monotonic() + delay_s)));
}

void timer_processor::process_once()
{
    process_once(time_monotonic());
}

void timer_processor::process()
{
    long now = time_monotonic();
    iterator next = get_next_event(now);
    if (next == end())
        return;
    timeval wait{};
    wait.tv_sec = next->expiry - now;
    wait.tv_usec = 0;
    // Linux leaves the remaining time in `wait` when a signal cuts the sleep short.
    while (select(0, nullptr, nullptr, nullptr, &wait) < 0 && errno == EINTR) {
    }
    process_once(time_monotonic());
}

bool timer_processor::delay_with_periodic(int seconds, const std::function<bool()>& keep_waiting)
{
    long start = time_monotonic();
    for (;;) {
        usleep(100 * 1000);
        if (!keep_waiting())
            return false;
        if (time_monotonic() >= start + seconds)
            return false;
    }
}

bool timer_processor::delay_with_condition(const std::function<bool()>& keep_waiting)
{
    while (keep_waiting()) {
        time_monotonic();
        sleep(1);
    }
    return false;
}
