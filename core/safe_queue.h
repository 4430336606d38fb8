// The locked FIFO through which two workers hand each other messages.
#ifndef ORVD_CORE_SAFE_QUEUE_H
#define ORVD_CORE_SAFE_QUEUE_H

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "core/buffer_info.h"

class json_writer;

template <typename T>
class _safe_queue {
public:
    // Called after each enqueue, on the producer's thread and under the queue's lock, so it
    // must not touch this queue. The consumer may replace it (the WebSocket worker puts its
    // wake-up call here).
    std::function<void()> notifier;

    explicit _safe_queue(const std::function<void()>& notify) : notifier(notify) {}

    void enqueue(const T& item)
    {
        std::lock_guard<std::mutex> guard(lock);
        items.push_back(item);
        if (notifier)
            notifier();
    }

    // Replaces the notifier under the lock, so that a producer never runs the old one once this
    // returns (the WebSocket worker relies on it before it destroys its connection).
    void replace_notifier(const std::function<void()>& notify)
    {
        std::lock_guard<std::mutex> guard(lock);
        notifier = notify;
    }

    bool empty()
    {
        std::lock_guard<std::mutex> guard(lock);
        return items.empty();
    }

    // Hands the front item to consume outside the lock; false when the queue was empty.
    bool dequeue(const std::function<void(const T&)>& consume)
    {
        T item;
        {
            std::lock_guard<std::mutex> guard(lock);
            if (items.empty())
                return false;
            item = items.front();
            items.pop_front();
        }
        consume(item);
        return true;
    }

private:
    std::deque<T> items;
    std::mutex lock;
};

class safe_queue : public _safe_queue<std::shared_ptr<buffer_info_t>> {
public:
    safe_queue() : _safe_queue([] {}) {}

    // Serializes the message and queues its text as a new buffer.
    void enqueue_json(json_writer& message);
};

#endif
