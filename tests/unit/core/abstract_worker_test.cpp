#include "core/abstract_worker.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/run_flags.h"
#include "emulator.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// A worker whose four hooks are scripted by the test; it counts and time-stamps the calls.
class scripted_worker : public abstract_worker {
public:
    scripted_worker(volatile bool& run_flag, const char* worker_name, int execute_pause, int reconnect_pause)
        : abstract_worker(run_flag, worker_name, execute_pause, reconnect_pause), flag(run_flag)
    {
    }
    ~scripted_worker() override { join(); }

    std::function<bool(int attempt)> on_connect = [](int) { return true; };
    std::function<bool(int round)> on_execute = [](int) { return true; };
    std::function<bool()> on_condition = [] { return true; };

    std::atomic<int> connects{0};
    std::atomic<int> executes{0};
    std::atomic<int> disconnects{0};
    std::vector<double> connect_times;  // written by the worker, read after join
    std::string thread_name;
    bool signals_blocked = false;
    clock_type::time_point created = clock_type::now();

    void stop() { write_run_flag(flag, false); }
    void clear_alive() { alive = false; }

protected:
    bool __connect() override
    {
        connect_times.push_back(seconds_since(created));
        char current_name[32] = {};
        prctl(PR_GET_NAME, current_name, 0, 0, 0);
        thread_name = current_name;
        sigset_t current;
        pthread_sigmask(SIG_SETMASK, nullptr, &current);
        signals_blocked = sigismember(&current, SIGTERM) == 1 && sigismember(&current, SIGINT) == 1;
        return on_connect(++connects);
    }
    bool execute() override { return on_execute(++executes); }
    void __disconnect() override { ++disconnects; }
    bool condition(const volatile bool& run_flag) override
    {
        return read_run_flag(run_flag) && on_condition();
    }

private:
    volatile bool& flag;
};

TEST(abstract_worker_test, a_worker_whose_connect_always_fails_retries_every_reconnect_pause)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 50000);
    worker.on_connect = [&](int attempt) {
        if (attempt == 6)
            worker.stop();
        return false;
    };
    worker.start();
    worker.join();
    EXPECT_EQ(worker.connects.load(), 6);
    EXPECT_EQ(worker.disconnects.load(), 0);  // no __disconnect after a failed connect
    EXPECT_EQ(worker.executes.load(), 0);
    ASSERT_EQ(worker.connect_times.size(), 6u);
    for (size_t i = 1; i < worker.connect_times.size(); ++i)
        EXPECT_GE(worker.connect_times[i] - worker.connect_times[i - 1], 0.045) << i;
}

TEST(abstract_worker_test, a_cleared_run_flag_ends_the_worker_without_a_further_pause)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 3000000);
    worker.on_connect = [&](int) {
        worker.stop();
        return false;
    };
    const auto start = clock_type::now();
    worker.start();
    worker.join();
    EXPECT_LT(seconds_since(start), 2.0);  // the 3-second reconnect pause is not taken
    EXPECT_EQ(worker.connects.load(), 1);
}

TEST(abstract_worker_test, a_worker_whose_flag_is_clear_never_connects)
{
    volatile bool run = false;
    scripted_worker worker(run, "test", 0, 0);
    worker.start();
    worker.join();
    EXPECT_EQ(worker.connects.load(), 0);
}

TEST(abstract_worker_test, busy_rounds_run_back_to_back_and_idle_rounds_pause)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 300000, 0);
    std::vector<double> times;
    worker.on_execute = [&](int round) {
        times.push_back(seconds_since(worker.created));
        if (round == 8)
            worker.stop();
        return round > 5;  // rounds 1..5 did work, 6..8 were idle
    };
    worker.start();
    worker.join();
    ASSERT_EQ(times.size(), 8u);
    EXPECT_LT(times[4] - times[0], 0.25);  // no pause after a busy round
    EXPECT_GE(times[6] - times[5], 0.29);  // a pause after an idle one
    EXPECT_GE(times[7] - times[6], 0.29);
    EXPECT_EQ(worker.disconnects.load(), 1);
}

TEST(abstract_worker_test, a_false_condition_disconnects_and_reconnects_after_the_pause)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 100000);
    std::atomic<int> conditions{0};
    worker.on_condition = [&] {
        const int n = ++conditions;
        if (n == 3)
            return false;  // ends the first link after two rounds
        if (n == 5)
            worker.stop();
        return true;
    };
    worker.start();
    worker.join();
    EXPECT_EQ(worker.connects.load(), 2);
    EXPECT_EQ(worker.disconnects.load(), 2);
    EXPECT_EQ(worker.executes.load(), 4);  // rounds 1, 2, then 3, 4 on the second link
    ASSERT_EQ(worker.connect_times.size(), 2u);
    EXPECT_GE(worker.connect_times[1] - worker.connect_times[0], 0.095);
}

TEST(abstract_worker_test, execute_clearing_alive_forces_a_reconnect)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 10000);
    worker.on_execute = [&](int round) {
        if (round == 1)
            worker.clear_alive();
        if (round == 2)
            worker.stop();
        return false;
    };
    worker.start();
    worker.join();
    EXPECT_EQ(worker.connects.load(), 2);
    EXPECT_EQ(worker.disconnects.load(), 2);
}

TEST(abstract_worker_test, the_thread_is_named_after_the_worker_within_fifteen_characters)
{
    volatile bool run = true;
    scripted_worker worker(run, "websock-roaming", 0, 0);
    worker.on_connect = [&](int) {
        worker.stop();
        return false;
    };
    worker.start();
    worker.join();
    EXPECT_EQ(worker.thread_name, "orvd:websock-ro");
}

TEST(abstract_worker_test, termination_signals_are_left_to_the_main_thread)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 0);
    worker.on_connect = [&](int) {
        worker.stop();
        return false;
    };
    worker.start();
    worker.join();
    EXPECT_TRUE(worker.signals_blocked);
    sigset_t current;
    pthread_sigmask(SIG_SETMASK, nullptr, &current);
    EXPECT_EQ(sigismember(&current, SIGTERM), 0);  // the caller's mask is restored
}

TEST(abstract_worker_test, join_of_a_worker_never_started_returns_at_once)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 0);
    worker.join();
    EXPECT_EQ(worker.connects.load(), 0);
}

TEST(abstract_worker_test, connect_and_disconnect_call_the_hooks_only_after_a_successful_connect)
{
    volatile bool run = true;
    scripted_worker worker(run, "test", 0, 0);
    worker.on_connect = [](int attempt) { return attempt == 2; };
    EXPECT_FALSE(worker.connect());
    worker.disconnect();
    EXPECT_EQ(worker.disconnects.load(), 0);
    EXPECT_TRUE(worker.connect());
    worker.disconnect();
    worker.disconnect();
    EXPECT_EQ(worker.disconnects.load(), 1);
}

TEST(abstract_worker_death_test, an_exception_escaping_execute_ends_the_process_with_255)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);  // the message goes to standard output
            volatile bool run = true;
            scripted_worker worker(run, "boom", 0, 0);
            worker.on_execute = [](int) -> bool { throw std::runtime_error("lost"); };
            worker.start();
            worker.join();
            exit(0);
        },
        ::testing::ExitedWithCode(255), "^Unhandled exception at worker 'boom'\n$");
}

TEST(abstract_worker_death_test, an_exception_of_any_type_is_caught_the_same_way)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            volatile bool run = true;
            scripted_worker worker(run, "rrm", 0, 0);
            worker.on_execute = [](int) -> bool { throw 42; };
            worker.start();
            worker.join();
            exit(0);
        },
        ::testing::ExitedWithCode(255), "Unhandled exception at worker 'rrm'");
}

}  // namespace
