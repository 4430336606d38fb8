// The agent's wake-up: every message put on its incoming queue ends the driver's pacing wait,
// so that a request is handled at once rather than after up to 100 ms.
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "core/wake_event.h"
#include "rrm_fixture.h"

using ::testing::_;
using ::testing::Invoke;
using ::testing::IsNull;
using ::testing::NotNull;
using ::testing::SaveArg;

namespace {

const char connected[] = R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})";

class wake_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_identity();
        allow_radios_off();
        allow_state(true);
    }

    void make_woken_agent()
    {
        EXPECT_CALL(driver, set_wake_event(NotNull())).WillOnce(SaveArg<0>(&wake));
        make_agent();
        ASSERT_NE(wake, nullptr);
    }

    void queue(const std::string& text)
    {
        auto buffer = std::make_shared<buffer_info_t>();
        buffer->append(text.data(), static_cast<unsigned>(text.size()));
        incoming.enqueue(buffer);
    }

    wake_event* wake = nullptr;
};

TEST_F(wake_test, the_agent_hands_the_driver_its_wake_up_and_takes_it_back_when_it_ends)
{
    make_woken_agent();
    EXPECT_CALL(driver, set_wake_event(IsNull()));
    destroy_agent();
}

TEST_F(wake_test, each_message_for_the_agent_is_one_pending_wake_up)
{
    make_woken_agent();
    EXPECT_FALSE(wake->take());
    queue(connected);
    queue(connected);
    EXPECT_TRUE(wake->take());
    EXPECT_TRUE(wake->take());
    EXPECT_FALSE(wake->take());
}

TEST_F(wake_test, after_the_agent_ends_its_queue_no_longer_wakes_it)
{
    make_woken_agent();
    destroy_agent();
    queue(connected);  // would reach a destroyed wake-up if the notifier had stayed
    EXPECT_TRUE(incoming.dequeue([](const std::shared_ptr<buffer_info_t>&) {}));
}

TEST_F(wake_test, a_message_arriving_during_the_pacing_wait_ends_it_and_is_handled_in_the_next_round)
{
    make_woken_agent();
    std::atomic<bool> pacing{false};
    int first_wait = -1;
    // The first round finds nothing and waits as the driver does, but for up to a minute: only
    // the message can end it in time.
    EXPECT_CALL(driver, process_driver_events(_))
        .WillOnce(Invoke([&](std::function<void(const driver_event_desc&)>) {
            pacing.store(true);
            first_wait = wake->wait(60000);
            return first_wait;
        }))
        .WillRepeatedly(Invoke([&](std::function<void(const driver_event_desc&)>) { return wake->wait(0); }));
    std::thread websock([&] {
        while (!pacing.load())
            std::this_thread::yield();
        queue(connected);
    });
    agent->execute();
    websock.join();
    EXPECT_EQ(first_wait, 1);
    EXPECT_TRUE(sent().empty());
    agent->execute();
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
}

}  // namespace
