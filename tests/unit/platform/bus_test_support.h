// Shared pieces of the message-bus tests.
#ifndef ORVD_TESTS_UNIT_PLATFORM_BUS_TEST_SUPPORT_H
#define ORVD_TESTS_UNIT_PLATFORM_BUS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "msgbus.h"
#include "test_support.h"

namespace platform_test {

// The next message from this process's receive queue, waiting up to `timeout_ms`.
inline owned_message receive(int timeout_ms = 5000)
{
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (message_s* message = GetMsgFromQueueNoWait())
            return owned_message(message);
        if (elapsed_ms(start) >= timeout_ms)
            return nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

inline int send_text(const std::string& text, int module)
{
    return MsgSend(text.data(), module, static_cast<unsigned>(text.size()));
}

// Every bus test gets its own device root and leaves the bus afterwards.
class bus_test : public ::testing::Test {
protected:
    void TearDown() override
    {
        FreeLibParams();
        InitTrace("");
    }
    std::string socket_path(int module) const
    {
        return root.path() + "/run/msgbus/module-" + std::to_string(module);
    }
    temp_root root;
};

}  // namespace platform_test

#endif
