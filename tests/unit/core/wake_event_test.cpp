// The wake-up that ends a worker's pacing wait: counted signals, each taken once, from any
// thread. Waits are bounded generously; nothing here depends on how fast the machine is.
#include "core/wake_event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using clock_type = std::chrono::steady_clock;

TEST(wake_event, a_pending_signal_ends_the_wait_at_once_and_is_taken)
{
    wake_event wake;
    ASSERT_GE(wake.descriptor(), 0);
    wake.signal();
    EXPECT_EQ(wake.wait(10000), 1);
    EXPECT_FALSE(wake.take());
}

TEST(wake_event, each_signal_is_one_wake_up)
{
    wake_event wake;
    wake.signal();
    wake.signal();
    EXPECT_EQ(wake.wait(10000), 1);
    EXPECT_EQ(wake.wait(10000), 1);
    EXPECT_EQ(wake.wait(1), 0);
}

TEST(wake_event, without_a_signal_the_wait_lasts_its_time)
{
    wake_event wake;
    const clock_type::time_point start = clock_type::now();
    EXPECT_EQ(wake.wait(100), 0);
    EXPECT_GE(clock_type::now() - start, std::chrono::milliseconds(90));
}

TEST(wake_event, a_signal_from_another_thread_ends_a_wait_under_way)
{
    wake_event wake;
    std::atomic<bool> waiting{false};
    std::thread producer([&] {
        while (!waiting.load())
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        wake.signal();
    });
    waiting.store(true);
    // Far longer than the producer needs, so that only the signal can end it.
    const int woken = wake.wait(60000);
    producer.join();
    EXPECT_EQ(woken, 1);
    EXPECT_FALSE(wake.take());
}

TEST(wake_event, taking_with_nothing_pending_does_not_block)
{
    wake_event wake;
    EXPECT_FALSE(wake.take());
    wake.signal();
    EXPECT_TRUE(wake.take());
    EXPECT_FALSE(wake.take());
}

}  // namespace
