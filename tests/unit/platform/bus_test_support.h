// Shared pieces of the message-bus tests.
#ifndef ORVD_TESTS_UNIT_PLATFORM_BUS_TEST_SUPPORT_H
#define ORVD_TESTS_UNIT_PLATFORM_BUS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "cfg_tree.h"
#include "msgbus.h"
#include "test_support.h"

namespace platform_test {

struct MessageDeleter {
    void operator()(message_s* message) const { std::free(message); }
};
using Message = std::unique_ptr<message_s, MessageDeleter>;

struct TreeDeleter {
    void operator()(cfg_t* tree) const { cfg_release(tree); }
};
using Tree = std::unique_ptr<cfg_t, TreeDeleter>;

// The next message from this process's receive queue, waiting up to `timeout_ms`.
inline Message receive(int timeout_ms = 5000) {
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (message_s* message = GetMsgFromQueueNoWait()) return Message(message);
        if (elapsed_ms(start) >= timeout_ms) return nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

inline std::string payload_of(const message_s* message) {
    return std::string(message->payload, message->length);
}

inline int send_text(const std::string& text, int module) {
    return MsgSend(text.data(), module, static_cast<unsigned>(text.size()));
}

// Every bus test gets its own device root and leaves the bus afterwards.
class BusTest : public ::testing::Test {
protected:
    void TearDown() override {
        FreeLibParams();
        InitTrace("");
    }
    std::string socket_path(int module) const {
        return root_.path() + "/run/msgbus/module-" + std::to_string(module);
    }
    TempRoot root_;
};

}  // namespace platform_test

#endif
