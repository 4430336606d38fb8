#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "core/timer_processor.h"
#include "core/trace.h"
#include "vorna_log_host.h"
#include "emulator.h"

namespace {

long monotonic_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Returns early in a second, so that a test has at least half a second before the clock
// ticks on.
void wait_for_early_in_a_second()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_nsec > 500 * 1000 * 1000)
        usleep(static_cast<useconds_t>((1000 * 1000 * 1000 - now.tv_nsec) / 1000 + 1000));
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::vector<int> ids_of(const timer_desc_list& list)
{
    std::vector<int> ids;
    for (const timer_desc& timer : list)
        ids.push_back(timer.id);
    return ids;
}

void count_line(vlr_log_level_t, const char*, void* context)
{
    ++*static_cast<int*>(context);
}

// --- timer_desc_list --------------------------------------------------------------------

TEST(timer_desc_list, sorted_insert_orders_by_expiry_and_keeps_ties_in_arrival_order)
{
    timer_desc_list list;
    auto none = [] {};
    list.sorted_insert(timer_desc(none, 1, 50));
    list.sorted_insert(timer_desc(none, 2, 20));
    list.sorted_insert(timer_desc(none, 3, 50));
    list.sorted_insert(timer_desc(none, 4, 10));
    timer_desc_list::iterator it = list.sorted_insert(timer_desc(none, 5, 20));
    list.sorted_insert(timer_desc(none, 6, 99));

    EXPECT_EQ(it->id, 5);
    EXPECT_EQ(std::next(it)->id, 1);
    EXPECT_EQ(ids_of(list), (std::vector<int>{4, 2, 5, 1, 3, 6}));
}

TEST(timer_desc_list, next_event_is_the_first_timer_not_yet_overdue)
{
    timer_desc_list list;
    auto none = [] {};
    EXPECT_EQ(list.get_next_event(0), list.end());

    list.sorted_insert(timer_desc(none, 1, 10));
    list.sorted_insert(timer_desc(none, 2, 20));
    list.sorted_insert(timer_desc(none, 3, 20));

    EXPECT_EQ(list.get_next_event(5)->id, 1);
    EXPECT_EQ(list.get_next_event(10)->id, 1);
    EXPECT_EQ(list.get_next_event(11)->id, 2);
    EXPECT_EQ(list.get_next_event(20)->id, 2);
    EXPECT_EQ(list.get_next_event(21), list.end());
}

TEST(timer_desc_list, del_timer_removes_every_timer_with_the_id)
{
    timer_desc_list list;
    auto none = [] {};
    list.sorted_insert(timer_desc(none, 7, 1));
    list.sorted_insert(timer_desc(none, 8, 2));
    list.sorted_insert(timer_desc(none, 7, 3));
    list.sorted_insert(timer_desc(none, 7, 4));
    list.sorted_insert(timer_desc(none, 9, 5));

    list.del_timer(7);
    EXPECT_EQ(ids_of(list), (std::vector<int>{8, 9}));
    list.del_timer(42);
    EXPECT_EQ(list.size(), 2u);
}

TEST(timer_desc_list, process_once_runs_due_timers_in_order_and_keeps_later_ones)
{
    timer_desc_list list;
    std::vector<int> ran;
    for (int id : {1, 2, 3, 4})
        list.sorted_insert(timer_desc([&ran, id] { ran.push_back(id); }, id, id * 10));

    list.process_once(20);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_EQ(ids_of(list), (std::vector<int>{3, 4}));

    list.process_once(100);
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(list.empty());
}

TEST(timer_desc_list, cancelled_timer_of_the_same_batch_still_runs)
{
    // Every due timer leaves the list before the first callback runs, so cancelling a timer
    // that is due in the same batch comes too late for it; it only stops later ones.
    timer_desc_list list;
    std::vector<int> ran;
    list.sorted_insert(timer_desc(
        [&] {
            ran.push_back(1);
            list.del_timer(2);
        },
        1, 5));
    list.sorted_insert(timer_desc([&] { ran.push_back(2); }, 2, 5));
    list.sorted_insert(timer_desc([&] { ran.push_back(22); }, 2, 9));

    list.process_once(5);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_TRUE(list.empty());
}

TEST(timer_desc_list, empty_function_throws_bad_function_call)
{
    timer_desc_list list;
    bool later_ran = false;
    list.sorted_insert(timer_desc(std::function<void()>(), 1, 1));
    list.sorted_insert(timer_desc([&] { later_ran = true; }, 2, 1));
    EXPECT_THROW(list.process_once(1), std::bad_function_call);
    // The batch was taken out of the list before the throw and is gone with it.
    EXPECT_FALSE(later_ran);
    EXPECT_TRUE(list.empty());
}

// --- timer_processor --------------------------------------------------------------------

TEST(timer_processor, constructor_reads_the_clock)
{
    long before = monotonic_seconds();
    timer_processor timers;
    EXPECT_GE(timers.last_time.tv_sec, before);
    EXPECT_LE(timers.last_time.tv_sec, monotonic_seconds());
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, timers_armed_together_run_in_the_order_armed)
{
    timer_processor timers;
    std::vector<int> ran;
    for (int id = 1; id <= 5; ++id)
        timers.add_timer([&ran, id] { ran.push_back(id); }, id, 0);
    timers.process_once();
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, add_timer_sets_expiry_from_the_clock)
{
    timer_processor timers;
    long before = monotonic_seconds();
    timers.add_timer([] {}, 1, 30);
    long after = monotonic_seconds();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_GE(timers.front().expiry, before + 30);
    EXPECT_LE(timers.front().expiry, after + 30);
    EXPECT_EQ(timers.front().id, 1);
}

TEST(timer_processor, del_timer_removes_all_timers_of_an_id)
{
    timer_processor timers;
    bool ran = false;
    timers.add_timer([&] { ran = true; }, 3, 0);
    timers.add_timer([&] { ran = true; }, 3, 0);
    timers.add_timer([&] { ran = true; }, 3, 100);
    timers.add_timer([] {}, 4, 100);
    timers.del_timer(3);
    EXPECT_EQ(ids_of(timers), (std::vector<int>{4}));
    timers.process_once();
    EXPECT_FALSE(ran);
}

TEST(timer_processor, zero_delay_timer_runs_at_next_process_once)
{
    timer_processor timers;
    int runs = 0;
    timers.add_timer([&] { ++runs; }, 1, 0);
    EXPECT_EQ(runs, 0);
    timers.process_once();
    EXPECT_EQ(runs, 1);
    timers.process_once();
    EXPECT_EQ(runs, 1);
}

TEST(timer_processor, zero_delay_timer_armed_by_a_callback_waits_for_the_following_call)
{
    timer_processor timers;
    std::vector<std::string> ran;
    timers.add_timer(
        [&] {
            ran.push_back("first");
            timers.add_timer([&] { ran.push_back("re-armed"); }, 1, 0);
        },
        1, 0);

    timers.process_once();
    EXPECT_EQ(ran, (std::vector<std::string>{"first"}));
    EXPECT_EQ(timers.size(), 1u);

    timers.process_once();
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "re-armed"}));
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, callback_may_cancel_its_own_id)
{
    timer_processor timers;
    int runs = 0;
    timers.add_timer(
        [&] {
            ++runs;
            timers.del_timer(1);
        },
        1, 0);
    timers.add_timer([&] { runs += 100; }, 1, 50);
    timers.process_once();
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, process_returns_without_running_when_all_timers_are_overdue)
{
    timer_processor timers;
    int runs = 0;
    timers.add_timer([&] { ++runs; }, 1, -5);
    timers.add_timer([&] { ++runs; }, 2, -1);

    auto start = std::chrono::steady_clock::now();
    timers.process();
    EXPECT_LT(seconds_since(start), 0.5);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(timers.size(), 2u);

    timers.process_once();
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, process_returns_at_once_without_timers)
{
    timer_processor timers;
    auto start = std::chrono::steady_clock::now();
    timers.process();
    EXPECT_LT(seconds_since(start), 0.5);
}

TEST(timer_processor, process_waits_for_the_next_timer_and_runs_what_is_due)
{
    timer_processor timers;
    std::vector<int> ran;
    // A tick between arming and process() would make the timer due at once.
    wait_for_early_in_a_second();
    timers.add_timer([&] { ran.push_back(1); }, 1, -3);
    timers.add_timer([&] { ran.push_back(2); }, 2, 1);
    timers.add_timer([&] { ran.push_back(3); }, 3, 60);

    auto start = std::chrono::steady_clock::now();
    timers.process();
    double elapsed = seconds_since(start);
    EXPECT_GE(elapsed, 0.5);
    EXPECT_LT(elapsed, 3.0);
    // The overdue timer goes along with the one that was waited for.
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_EQ(ids_of(timers), (std::vector<int>{3}));
}

TEST(timer_processor, time_monotonic_accepts_a_step_of_ten_seconds)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            trace.set_log_level(orv_trace::MASK_DEBUG);
            int lines = 0;
            vorna_log_host_set_writer(count_line, &lines);
            timer_processor timers;
            wait_for_early_in_a_second();
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            timers.last_time.tv_sec = now.tv_sec - 10;
            long reading = timers.time_monotonic();
            bool accepted = reading == now.tv_sec && timers.last_time.tv_sec == now.tv_sec;
            vorna_log_host_set_writer(nullptr, nullptr);
            exit(accepted && lines == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(timer_processor, time_monotonic_exits_after_eleven_errors_when_the_worker_stalled)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    // Eleven lines, cnt 0 to cnt 10, in that order; nothing with digits follows the last one,
    // so there is no cnt 11.
    std::string pattern;
    for (int count = 0; count <= 10; ++count)
        pattern += "time_monotonic: Time error, need restart, expired \\[[0-9]+\\] \\[[0-9]+\\] "
                   "cnt " +
                   std::to_string(count) + (count < 10 ? "[^0-9].*" : "[^0-9]*$");
    EXPECT_EXIT(
        {
            trace.set_log_level(orv_trace::MASK_DEBUG);
            timer_processor timers;
            timers.last_time.tv_sec -= 11;
            timers.time_monotonic();
        },
        ::testing::ExitedWithCode(255), pattern);
}

TEST(timer_processor, time_monotonic_exits_when_the_clock_went_back)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            trace.set_log_level(orv_trace::MASK_DEBUG);
            timer_processor timers;
            timers.last_time.tv_sec += 5;
            timers.time_monotonic();
        },
        ::testing::ExitedWithCode(255), "cnt 0[^0-9].*cnt 10[^0-9]*$");
}

TEST(timer_processor, time_monotonic_keeps_the_accepted_reading)
{
    timer_processor timers;
    timers.last_time.tv_sec -= 3;
    timers.last_time.tv_nsec = 0;
    long reading = timers.time_monotonic();
    EXPECT_EQ(timers.last_time.tv_sec, reading);
    EXPECT_LE(reading, monotonic_seconds());
}

TEST(timer_processor, delay_with_periodic_waits_the_seconds_asking_every_tenth)
{
    timer_processor timers;
    int calls = 0;
    auto start = std::chrono::steady_clock::now();
    bool result = timers.delay_with_periodic(5, [&] {
        ++calls;
        return true;
    });
    double elapsed = seconds_since(start);
    EXPECT_FALSE(result);
    // The start is counted in whole seconds, so the wait is 4 to 5 s; slow machines stretch
    // each 100 ms step.
    EXPECT_GE(elapsed, 3.5);
    EXPECT_LE(elapsed, 7.0);
    EXPECT_GE(calls, 30);
    EXPECT_LE(calls, 52);
}

TEST(timer_processor, delay_with_periodic_ends_when_told_to_stop)
{
    timer_processor timers;
    int calls = 0;
    auto start = std::chrono::steady_clock::now();
    bool result = timers.delay_with_periodic(5, [&] {
        ++calls;
        return false;
    });
    EXPECT_FALSE(result);
    EXPECT_EQ(calls, 1);
    EXPECT_LT(seconds_since(start), 1.0);
}

TEST(timer_processor, delay_with_condition_waits_while_the_condition_holds)
{
    timer_processor timers;
    // Far enough back to see the refresh, near enough to pass the clock check.
    timers.last_time.tv_sec -= 5;
    long stale = timers.last_time.tv_sec;
    int calls = 0;
    auto start = std::chrono::steady_clock::now();
    bool result = timers.delay_with_condition([&] { return ++calls <= 2; });
    double elapsed = seconds_since(start);
    EXPECT_FALSE(result);
    EXPECT_EQ(calls, 3);
    EXPECT_GE(elapsed, 1.9);
    EXPECT_LE(elapsed, 4.0);
    EXPECT_GE(timers.last_time.tv_sec, stale + 5);
}

TEST(timer_processor, delay_with_condition_returns_at_once_when_the_condition_is_false)
{
    timer_processor timers;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(timers.delay_with_condition([] { return false; }));
    EXPECT_LT(seconds_since(start), 0.5);
}

TEST(timer_processor, empty_function_throws_from_process_once)
{
    timer_processor timers;
    timers.add_timer(std::function<void()>(), 1, 0);
    EXPECT_THROW(timers.process_once(), std::bad_function_call);
    EXPECT_TRUE(timers.empty());
}

TEST(timer_processor, remaining_timers_are_dropped_without_running)
{
    int runs = 0;
    {
        timer_processor timers;
        timers.add_timer([&] { ++runs; }, 1, 0);
        timers.add_timer([&] { ++runs; }, 2, 100);
    }
    EXPECT_EQ(runs, 0);
}

}  // namespace
