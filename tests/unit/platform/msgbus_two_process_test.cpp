// The message bus between two real processes: this test program and bus_peer.
#include "msgbus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus_test_support.h"
#include "log_capture.h"

namespace {

using namespace platform_test;

constexpr int self_module = 1;
constexpr int peer_module = 2;
// Three seconds for a reply that an answering peer sends within milliseconds.
constexpr int generous_wait_units = 3000 / MSGBUS_WAIT_UNIT_MS;

class two_process_bus_test : public bus_test {
protected:
    // Registers this process as self_module with its peer running.
    void join_bus()
    {
        ASSERT_EQ(InitLibParams(self_module, nullptr, 0), 0);
        ASSERT_EQ(ModulePeerStart(), 0);
    }
    // Starts bus_peer and waits until it is on the bus.
    void start_peer(child_process& child, const std::vector<std::string>& arguments)
    {
        ASSERT_TRUE(start_bus_peer(child, arguments));
        ASSERT_TRUE(child.wait_ready()) << "bus_peer did not come up";
    }
    // Leaves a socket file behind whose owner is dead (a peer killed without cleaning up).
    void leave_stale_socket(int module)
    {
        child_process child;
        start_peer(child, {"--module", std::to_string(module), "--silent"});
        child.kill_and_reap();
        ASSERT_TRUE(file_exists(socket_path(module)));
    }
};

TEST_F(two_process_bus_test, a_request_is_answered_by_another_process)
{
    join_bus();
    child_process peer;
    start_peer(peer, {"--module", std::to_string(peer_module), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "get-status", "radio": "wlan0"})", peer_module), 0);
    owned_message reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->source, peer_module);
    EXPECT_EQ(reply->destination, self_module);
    EXPECT_EQ(reply->sender_pid, static_cast<unsigned>(peer.pid()));
    owned_tree tree(cfg_parse_buffer(reply->payload));
    ASSERT_NE(tree, nullptr) << reply->payload;
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "command")), "get-status-response");
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "status")), "ok");
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "radio")), "wlan0");
}

TEST_F(two_process_bus_test, wait_answer_returns_the_reply_and_drops_other_messages)
{
    join_bus();
    child_process peer;
    start_peer(peer, {"--module", std::to_string(peer_module), "--echo", "--noise"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", peer_module), 0);
    // Generous for sanitizer builds; the answer comes in milliseconds.
    owned_tree reply(wait_answer("get-status-response", "get-status: no answer\n", generous_wait_units));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "status")), "ok");
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);  // the noise before the reply is gone
}

TEST_F(two_process_bus_test, a_silent_peer_times_out_after_twenty_units_and_logs)
{
    log_capture log;
    join_bus();
    child_process peer;
    start_peer(peer, {"--module", std::to_string(MSGBUS_MODULE_WIDSD), "--silent"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", MSGBUS_MODULE_WIDSD), 0);
    auto start = std::chrono::steady_clock::now();
    cfg_t* reply = wait_answer("get-status-response", "get-status: no answer from widsd\n", 20);
    long long took = elapsed_ms(start);
    EXPECT_EQ(reply, nullptr);
    cfg_release(reply);
    EXPECT_GE(took, 20 * MSGBUS_WAIT_UNIT_MS - 5);  // 100 ms; never early
    EXPECT_LT(took, 20 * MSGBUS_WAIT_UNIT_MS + 800);
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "get-status: no answer from widsd\n"));
}

TEST_F(two_process_bus_test, a_module_not_on_the_bus_fails_at_once)
{
    // No socket file at all.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(send_text(R"({"command": "get-status"})", 9), -1);
    EXPECT_LT(elapsed_ms(start), 100);
    // A socket file whose process has died.
    leave_stale_socket(9);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(send_text(R"({"command": "get-status"})", 9), -1);
    EXPECT_LT(elapsed_ms(start), 100);
}

TEST_F(two_process_bus_test, empty_and_large_payloads_pass_unchanged_to_the_peer)
{
    for (size_t size : {static_cast<size_t>(0), static_cast<size_t>(256 * 1024)}) {
        SCOPED_TRACE(size);
        std::string out = root.path() + "/received-" + std::to_string(size);
        child_process peer;
        start_peer(peer, {"--module", std::to_string(peer_module), "--receive-count", "1", "--out", out});
        std::string payload = binary_payload(size);
        ASSERT_EQ(MsgSend(payload.data(), peer_module, static_cast<unsigned>(payload.size())), 0);
        ASSERT_EQ(peer.wait_exit(), 0);
        std::string received;
        ASSERT_TRUE(read_file(out, &received));
        EXPECT_EQ(received.size(), payload.size());
        EXPECT_TRUE(received == payload);
    }
}

TEST_F(two_process_bus_test, empty_and_large_payloads_pass_unchanged_from_the_peer)
{
    join_bus();
    for (size_t size : {static_cast<size_t>(0), static_cast<size_t>(256 * 1024)}) {
        SCOPED_TRACE(size);
        std::string file = root.path() + "/to-send-" + std::to_string(size);
        std::string payload = binary_payload(size);
        write_file(file, payload);
        child_process peer;
        ASSERT_TRUE(start_bus_peer(peer, {"--send-to", std::to_string(self_module), "--file", file}));
        ASSERT_EQ(peer.wait_exit(), 0);
        owned_message message = receive();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->source, 0);  // the sender never registered
        ASSERT_EQ(message->length, payload.size());
        EXPECT_TRUE(payload_of(message.get()) == payload);
        EXPECT_EQ(message->payload[message->length], '\0');
    }
}

TEST_F(two_process_bus_test, a_binary_payload_round_trips_through_echo)
{
    join_bus();
    child_process peer;
    start_peer(peer, {"--module", std::to_string(peer_module), "--echo"});
    std::string payload = binary_payload(256 * 1024);
    ASSERT_EQ(MsgSend(payload.data(), peer_module, static_cast<unsigned>(payload.size())), 0);
    owned_message echo = receive();
    ASSERT_NE(echo, nullptr);
    EXPECT_EQ(echo->source, peer_module);
    EXPECT_TRUE(payload_of(echo.get()) == payload);
}

TEST_F(two_process_bus_test, a_second_process_cannot_take_a_live_module)
{
    // The peer holds the module: this process cannot take it.
    {
        child_process peer;
        start_peer(peer, {"--module", std::to_string(peer_module), "--silent"});
        EXPECT_EQ(InitLibParams(peer_module, nullptr, 0), -1);
        EXPECT_TRUE(file_exists(socket_path(peer_module)));
        ASSERT_EQ(send_text("still reachable", peer_module), 0);
    }
    // This process holds the module: the peer cannot take it.
    join_bus();
    child_process second;
    ASSERT_TRUE(start_bus_peer(second, {"--module", std::to_string(self_module), "--try-register"}));
    EXPECT_EQ(second.wait_exit(), 3);
    ASSERT_EQ(send_text("mine", self_module), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "mine");
}

TEST_F(two_process_bus_test, a_stale_socket_file_is_taken_over)
{
    leave_stale_socket(self_module);
    join_bus();  // takes over the file of the dead process
    std::string file = root.path() + "/hello";
    write_file(file, "hello");
    child_process sender;
    ASSERT_TRUE(start_bus_peer(sender, {"--module", std::to_string(peer_module), "--send-to",
                                        std::to_string(self_module), "--file", file}));
    ASSERT_EQ(sender.wait_exit(), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "hello");
    EXPECT_EQ(message->source, peer_module);

    // And the other way round: the peer takes over a file this process left behind.
    leave_stale_socket(peer_module + 1);
    child_process peer;
    start_peer(peer, {"--module", std::to_string(peer_module + 1), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "ping"})", peer_module + 1), 0);
    owned_tree reply(wait_answer("ping-response", "ping: no answer\n", generous_wait_units));
    EXPECT_NE(reply, nullptr);
}

TEST_F(two_process_bus_test, a_long_root_path_still_works)
{
    std::string deep;
    for (int i = 0; i < 8; ++i)
        deep += "a-rather-long-directory-name-" + std::to_string(i) + "/";
    root.use_subdirectory(deep);
    std::string real = root.path() + "/" + deep + "run/msgbus/module-1";
    ASSERT_GT(real.size(), sizeof(sockaddr_un::sun_path));

    join_bus();
    EXPECT_TRUE(file_exists(real));
    child_process peer;
    start_peer(peer, {"--module", std::to_string(peer_module), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", peer_module), 0);
    owned_tree reply(wait_answer("get-status-response", "get-status: no answer\n", generous_wait_units));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "status")), "ok");
    peer.kill_and_reap();
    FreeLibParams();
    EXPECT_FALSE(file_exists(real));
}

}  // namespace
