// The Realtek driver delivers no events: process_driver_events only paces the agent's loop.
// It waits 100 ms, unless the agent's wake-up says a message is waiting, in which case it ends
// at once. Time bounds here are generous; what is asserted is how the wait ended.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/wake_event.h"
#include "driver/driver_realtek.h"
#include "driver_test_support.h"

namespace {

using clock_type = std::chrono::steady_clock;

class driver_realtek_pacing_test : public driver_test::driver_fixture {
protected:
    int pace(const driver_realtek& driver)
    {
        bool called = false;
        const int result =
            driver.process_driver_events([&called](const driver_event_desc&) { called = true; });
        EXPECT_FALSE(called);
        return result;
    }

    volatile bool run = true;
};

TEST_F(driver_realtek_pacing_test, without_a_wake_up_the_pacing_step_waits_its_100_ms)
{
    driver_realtek driver(run);
    const clock_type::time_point start = clock_type::now();
    EXPECT_EQ(pace(driver), 0);
    EXPECT_GE(clock_type::now() - start, std::chrono::milliseconds(90));
}

TEST_F(driver_realtek_pacing_test, an_idle_agent_still_waits_100_ms_a_round)
{
    driver_realtek driver(run);
    wake_event wake;
    driver.set_wake_event(&wake);
    const clock_type::time_point start = clock_type::now();
    EXPECT_EQ(pace(driver), 0);
    EXPECT_GE(clock_type::now() - start, std::chrono::milliseconds(90));
    driver.set_wake_event(nullptr);
}

TEST_F(driver_realtek_pacing_test, a_message_already_waiting_is_not_waited_for)
{
    driver_realtek driver(run);
    wake_event wake;
    driver.set_wake_event(&wake);
    // Two messages queued: two rounds go without waiting, the third waits again.
    wake.signal();
    wake.signal();
    EXPECT_EQ(pace(driver), 1);
    EXPECT_EQ(pace(driver), 1);
    EXPECT_EQ(pace(driver), 0);
    driver.set_wake_event(nullptr);
}

TEST_F(driver_realtek_pacing_test, a_message_arriving_during_the_wait_ends_it)
{
    driver_realtek driver(run);
    wake_event wake;
    driver.set_wake_event(&wake);
    std::atomic<bool> pacing{false};
    std::thread producer([&] {
        while (!pacing.load())
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        wake.signal();
    });
    pacing.store(true);
    // 1: a round ended by the wake-up, 0: by its time-out. The signal comes 20 ms into the first
    // round; a machine too loaded for that gets a few more rounds before the test gives up.
    int result = 0;
    for (int round = 0; round < 20 && result == 0; ++round)
        result = pace(driver);
    EXPECT_EQ(result, 1);
    producer.join();
    EXPECT_FALSE(wake.take());
    driver.set_wake_event(nullptr);
}

}  // namespace
