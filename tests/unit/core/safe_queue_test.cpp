#include "core/safe_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/json_writer.h"

namespace {

using buffer_ptr = std::shared_ptr<buffer_info_t>;

buffer_ptr text_buffer(const char* text)
{
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text, static_cast<unsigned>(strlen(text)));
    return buffer;
}

TEST(safe_queue_test, dequeue_on_an_empty_queue_returns_false_without_calling_the_consumer)
{
    safe_queue queue;
    bool called = false;
    EXPECT_FALSE(queue.dequeue([&](const buffer_ptr&) { called = true; }));
    EXPECT_FALSE(called);
}

TEST(safe_queue_test, items_come_out_first_in_first_out_and_are_the_same_objects)
{
    safe_queue queue;
    auto first = text_buffer("one");
    auto second = text_buffer("two");
    queue.enqueue(first);
    queue.enqueue(second);
    buffer_ptr seen;
    EXPECT_TRUE(queue.dequeue([&](const buffer_ptr& item) { seen = item; }));
    EXPECT_EQ(seen, first);  // moved by pointer, never copied
    EXPECT_TRUE(queue.dequeue([&](const buffer_ptr& item) { seen = item; }));
    EXPECT_EQ(seen, second);
    EXPECT_FALSE(queue.dequeue([&](const buffer_ptr&) {}));
}

TEST(safe_queue_test, the_notifier_runs_after_each_enqueue)
{
    int notified = 0;
    _safe_queue<buffer_ptr> queue([&] { ++notified; });
    queue.enqueue(text_buffer("a"));
    queue.enqueue(text_buffer("b"));
    EXPECT_EQ(notified, 2);
}

TEST(safe_queue_test, the_notifier_can_be_replaced_by_the_consumer)
{
    safe_queue queue;
    int notified = 0;
    queue.notifier = [&] { ++notified; };
    queue.enqueue(text_buffer("a"));
    EXPECT_EQ(notified, 1);
    queue.notifier = nullptr;  // an empty notifier is simply not called
    queue.enqueue(text_buffer("b"));
    EXPECT_EQ(notified, 1);
}

TEST(safe_queue_test, the_notifier_runs_under_the_lock_and_the_consumer_outside_it)
{
    safe_queue queue;
    std::atomic<bool> other_dequeued{false};
    std::thread other;
    // While the notifier holds the lock another thread cannot take the item.
    queue.notifier = [&] {
        other = std::thread([&] { other_dequeued = queue.dequeue([](const buffer_ptr&) {}); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(other_dequeued.load());
    };
    queue.enqueue(text_buffer("a"));
    other.join();
    queue.notifier = nullptr;
    EXPECT_TRUE(other_dequeued.load());

    // The consumer may use the queue again: it runs without the lock.
    queue.enqueue(text_buffer("b"));
    EXPECT_TRUE(queue.dequeue([&](const buffer_ptr&) { queue.enqueue(text_buffer("c")); }));
    buffer_ptr last;
    EXPECT_TRUE(queue.dequeue([&](const buffer_ptr& item) { last = item; }));
    EXPECT_STREQ(last->data, "c");
}

TEST(safe_queue_test, a_notifier_that_throws_still_releases_the_lock)
{
    safe_queue queue;
    queue.notifier = [] { throw std::runtime_error("notifier"); };
    EXPECT_THROW(queue.enqueue(text_buffer("a")), std::runtime_error);
    queue.notifier = nullptr;
    EXPECT_TRUE(queue.dequeue([](const buffer_ptr&) {}));  // would deadlock if still locked
}

TEST(safe_queue_test, an_empty_consumer_raises_bad_function_call_after_taking_the_item)
{
    safe_queue queue;
    queue.enqueue(text_buffer("a"));
    EXPECT_THROW(queue.dequeue(std::function<void(const buffer_ptr&)>()), std::bad_function_call);
    EXPECT_FALSE(queue.dequeue([](const buffer_ptr&) {}));
}

TEST(safe_queue_test, enqueue_json_queues_the_serialized_text_without_its_zero_byte)
{
    safe_queue queue;
    json_writer message("internal-ipc", "connected", "", "2.2");
    queue.enqueue_json(message);
    buffer_ptr seen;
    ASSERT_TRUE(queue.dequeue([&](const buffer_ptr& item) { seen = item; }));
    const std::string expected = R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})";
    EXPECT_EQ(seen->size, expected.size());
    EXPECT_EQ(std::string(seen->data), expected);
}

TEST(safe_queue_test, one_producer_and_one_consumer_on_two_threads_lose_nothing)
{
    safe_queue queue;
    constexpr int count = 20000;
    std::atomic<int> notified{0};
    queue.notifier = [&] { notified.fetch_add(1, std::memory_order_relaxed); };
    std::thread producer([&] {
        for (int i = 0; i < count; ++i)
            queue.enqueue(text_buffer(std::to_string(i).c_str()));
    });
    int expected = 0;
    bool in_order = true;
    while (expected < count) {
        queue.dequeue([&](const buffer_ptr& item) {
            in_order = in_order && std::to_string(expected) == item->data;
            ++expected;
        });
    }
    producer.join();
    EXPECT_TRUE(in_order);
    EXPECT_EQ(notified.load(), count);
}

}  // namespace
