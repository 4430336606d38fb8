// The message bus between two real processes: this test program and bus_peer.
#include "msgbus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus_test_support.h"

namespace {

using namespace platform_test;

constexpr int kSelf = 1;
constexpr int kPeer = 2;

class TwoProcessBusTest : public BusTest {
protected:
    // Registers this process as kSelf with its peer running.
    void join_bus() {
        ASSERT_EQ(InitLibParams(kSelf, nullptr, 0), 0);
        ASSERT_EQ(ModulePeerStart(), 0);
    }
    // Starts bus_peer and waits until it is on the bus.
    void start_peer(Child& child, const std::vector<std::string>& arguments) {
        ASSERT_TRUE(child.start_bus_peer(arguments));
        ASSERT_TRUE(child.wait_ready()) << "bus_peer did not come up";
    }
    // Leaves a socket file behind whose owner is dead (a peer killed without cleaning up).
    void leave_stale_socket(int module) {
        Child child;
        start_peer(child, {"--module", std::to_string(module), "--silent"});
        child.kill_and_reap();
        ASSERT_TRUE(file_exists(socket_path(module)));
    }
};

TEST_F(TwoProcessBusTest, RequestIsAnsweredByAnotherProcess) {
    join_bus();
    Child peer;
    start_peer(peer, {"--module", std::to_string(kPeer), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "get-status", "radio": "wlan0"})", kPeer), 0);
    Message reply = receive();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->source, kPeer);
    EXPECT_EQ(reply->destination, kSelf);
    EXPECT_EQ(reply->sender_pid, static_cast<unsigned>(peer.pid()));
    Tree tree(cfg_parse_buffer(reply->payload));
    ASSERT_NE(tree, nullptr) << reply->payload;
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "command")), "get-status-response");
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "status")), "ok");
    EXPECT_STREQ(cfg_get_value(cfg_get_param(tree.get(), "radio")), "wlan0");
}

TEST_F(TwoProcessBusTest, WaitAnswerReturnsReplyAndDropsOtherMessages) {
    join_bus();
    Child peer;
    start_peer(peer, {"--module", std::to_string(kPeer), "--echo", "--noise"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", kPeer), 0);
    // Generous for sanitizer builds; the answer comes in milliseconds.
    Tree reply(wait_answer("get-status-response", "get-status: no answer\n", 300));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "status")), "ok");
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);  // the noise before the reply is gone
}

TEST_F(TwoProcessBusTest, SilentPeerTimesOutAfterTwentyUnitsAndLogs) {
    LogCapture log;
    join_bus();
    Child peer;
    start_peer(peer, {"--module", std::to_string(MSGBUS_MODULE_WIDSD), "--silent"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", MSGBUS_MODULE_WIDSD), 0);
    auto start = std::chrono::steady_clock::now();
    cfg_t* reply = wait_answer("get-status-response", "get-status: no answer from widsd\n", 20);
    long long took = elapsed_ms(start);
    EXPECT_EQ(reply, nullptr);
    cfg_release(reply);
    EXPECT_GE(took, 195);  // 20 units of MSGBUS_WAIT_UNIT_MS
    EXPECT_LT(took, 1000);
    EXPECT_TRUE(log.contains(VLR_LOG_ERROR, "get-status: no answer from widsd\n"));
}

TEST_F(TwoProcessBusTest, ModuleNotOnBusFailsAtOnce) {
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

TEST_F(TwoProcessBusTest, EmptyAndLargePayloadsPassUnchangedToThePeer) {
    for (size_t size : {static_cast<size_t>(0), static_cast<size_t>(256 * 1024)}) {
        SCOPED_TRACE(size);
        std::string out = root_.path() + "/received-" + std::to_string(size);
        Child peer;
        start_peer(peer, {"--module", std::to_string(kPeer), "--receive-count", "1", "--out", out});
        std::string payload = binary_payload(size);
        ASSERT_EQ(MsgSend(payload.data(), kPeer, static_cast<unsigned>(payload.size())), 0);
        ASSERT_EQ(peer.wait_exit(), 0);
        std::string received;
        ASSERT_TRUE(read_file(out, &received));
        EXPECT_EQ(received.size(), payload.size());
        EXPECT_TRUE(received == payload);
    }
}

TEST_F(TwoProcessBusTest, EmptyAndLargePayloadsPassUnchangedFromThePeer) {
    join_bus();
    for (size_t size : {static_cast<size_t>(0), static_cast<size_t>(256 * 1024)}) {
        SCOPED_TRACE(size);
        std::string file = root_.path() + "/to-send-" + std::to_string(size);
        std::string payload = binary_payload(size);
        write_file(file, payload);
        Child peer;
        ASSERT_TRUE(peer.start_bus_peer({"--send-to", std::to_string(kSelf), "--file", file}));
        ASSERT_EQ(peer.wait_exit(), 0);
        Message message = receive();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->source, 0);  // the sender never registered
        ASSERT_EQ(message->length, payload.size());
        EXPECT_TRUE(payload_of(message.get()) == payload);
        EXPECT_EQ(message->payload[message->length], '\0');
    }
}

TEST_F(TwoProcessBusTest, BinaryPayloadRoundTripsThroughEcho) {
    join_bus();
    Child peer;
    start_peer(peer, {"--module", std::to_string(kPeer), "--echo"});
    std::string payload = binary_payload(256 * 1024);
    ASSERT_EQ(MsgSend(payload.data(), kPeer, static_cast<unsigned>(payload.size())), 0);
    Message echo = receive();
    ASSERT_NE(echo, nullptr);
    EXPECT_EQ(echo->source, kPeer);
    EXPECT_TRUE(payload_of(echo.get()) == payload);
}

TEST_F(TwoProcessBusTest, SecondProcessCannotTakeLiveModule) {
    // The peer holds the module: this process cannot take it.
    {
        Child peer;
        start_peer(peer, {"--module", std::to_string(kPeer), "--silent"});
        EXPECT_EQ(InitLibParams(kPeer, nullptr, 0), -1);
        EXPECT_TRUE(file_exists(socket_path(kPeer)));
        ASSERT_EQ(send_text("still reachable", kPeer), 0);
    }
    // This process holds the module: the peer cannot take it.
    join_bus();
    Child second;
    ASSERT_TRUE(second.start_bus_peer({"--module", std::to_string(kSelf), "--try-register"}));
    EXPECT_EQ(second.wait_exit(), 3);
    ASSERT_EQ(send_text("mine", kSelf), 0);
    Message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "mine");
}

TEST_F(TwoProcessBusTest, StaleSocketFileIsTakenOver) {
    leave_stale_socket(kSelf);
    join_bus();  // takes over the file of the dead process
    std::string file = root_.path() + "/hello";
    write_file(file, "hello");
    Child sender;
    ASSERT_TRUE(sender.start_bus_peer(
        {"--module", std::to_string(kPeer), "--send-to", std::to_string(kSelf), "--file", file}));
    ASSERT_EQ(sender.wait_exit(), 0);
    Message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "hello");
    EXPECT_EQ(message->source, kPeer);

    // And the other way round: the peer takes over a file this process left behind.
    leave_stale_socket(kPeer + 1);
    Child peer;
    start_peer(peer, {"--module", std::to_string(kPeer + 1), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "ping"})", kPeer + 1), 0);
    Tree reply(wait_answer("ping-response", "ping: no answer\n", 300));
    EXPECT_NE(reply, nullptr);
}

TEST_F(TwoProcessBusTest, LongRootPathStillWorks) {
    std::string deep;
    for (int i = 0; i < 8; ++i) deep += "a-rather-long-directory-name-" + std::to_string(i) + "/";
    root_.use_subdirectory(deep);
    std::string real = root_.path() + "/" + deep + "run/msgbus/module-1";
    ASSERT_GT(real.size(), sizeof(sockaddr_un::sun_path));

    join_bus();
    EXPECT_TRUE(file_exists(real));
    Child peer;
    start_peer(peer, {"--module", std::to_string(kPeer), "--echo"});
    ASSERT_EQ(send_text(R"({"command": "get-status"})", kPeer), 0);
    Tree reply(wait_answer("get-status-response", "get-status: no answer\n", 300));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "status")), "ok");
    peer.kill_and_reap();
    FreeLibParams();
    EXPECT_FALSE(file_exists(real));
}

}  // namespace
