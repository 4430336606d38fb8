// The message bus within one process: registration, the peer, the queue and its bounds.
#include "msgbus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus_test_support.h"
#include "log_capture.h"

namespace {

using namespace platform_test;

TEST_F(bus_test, registering_creates_the_socket_file_and_leaving_removes_it)
{
    ASSERT_EQ(InitLibParams(MSGBUS_MODULE_RRM, nullptr, 0), 0);
    EXPECT_TRUE(file_exists(socket_path(MSGBUS_MODULE_RRM)));
    FreeLibParams();
    EXPECT_FALSE(file_exists(socket_path(MSGBUS_MODULE_RRM)));
}

TEST_F(bus_test, the_parameter_block_is_ignored)
{
    const signed char params[] = {1, 2, 3};
    EXPECT_EQ(InitLibParams(5, params, sizeof params), 0);
}

TEST_F(bus_test, a_process_is_one_module_at_a_time)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    EXPECT_EQ(InitLibParams(6, nullptr, 0), -1);
    EXPECT_EQ(InitLibParams(5, nullptr, 0), -1);
}

TEST_F(bus_test, module_numbers_outside_the_bus_are_refused)
{
    EXPECT_EQ(InitLibParams(0, nullptr, 0), -1);
    EXPECT_EQ(InitLibParams(-3, nullptr, 0), -1);
    EXPECT_EQ(InitLibParams(70000, nullptr, 0), -1);
    EXPECT_EQ(send_text("x", 0), -1);
    EXPECT_EQ(send_text("x", 70000), -1);
}

TEST_F(bus_test, registering_again_after_leaving_works)
{
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(InitLibParams(7, nullptr, 0), 0) << round;
        ASSERT_EQ(ModulePeerStart(), 0);
        ASSERT_EQ(send_text("{\"round\": \"" + std::to_string(round) + "\"}", 7), 0);
        owned_message message = receive();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(payload_of(message.get()), "{\"round\": \"" + std::to_string(round) + "\"}");
        FreeLibParams();
        EXPECT_EQ(GetModuleLoop(), 0);
    }
}

TEST_F(bus_test, an_unusable_bus_directory_fails_registration)
{
    write_file(root.path() + "/run/msgbus", "a file, not a directory");
    EXPECT_EQ(InitLibParams(5, nullptr, 0), -1);
}

TEST_F(bus_test, a_message_to_self_is_laid_out_as_a_message_block)
{
    ASSERT_EQ(InitLibParams(MSGBUS_MODULE_CONFIGD, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    const std::string payload = "{\"command\": \"get-status\"}";
    ASSERT_EQ(send_text(payload, MSGBUS_MODULE_CONFIGD), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    const auto* bytes = reinterpret_cast<const unsigned char*>(message.get());
    uint32_t length = 0;
    std::memcpy(&length, bytes + 4, sizeof length);
    EXPECT_EQ(length, payload.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes) + 17, length), payload);
    EXPECT_EQ(bytes[17 + length], 0);
    EXPECT_EQ(message->source, MSGBUS_MODULE_CONFIGD);
    EXPECT_EQ(message->destination, MSGBUS_MODULE_CONFIGD);
    EXPECT_EQ(message->sender_pid, static_cast<unsigned>(::getpid()));
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
}

TEST_F(bus_test, the_queue_is_empty_without_messages)
{
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
}

TEST_F(bus_test, sequence_numbers_grow)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    ASSERT_EQ(send_text("a", 5), 0);
    ASSERT_EQ(send_text("b", 5), 0);
    owned_message first = receive();
    owned_message second = receive();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(payload_of(first.get()), "a");
    EXPECT_EQ(payload_of(second.get()), "b");
    EXPECT_GT(second->sequence, first->sequence);
}

TEST_F(bus_test, the_loop_flag_follows_the_peer)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    EXPECT_EQ(GetModuleLoop(), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    EXPECT_EQ(GetModuleLoop(), 1);
    EXPECT_EQ(ModulePeerStart(), 0);  // already running
    SetModuleLoop(0);
    EXPECT_EQ(GetModuleLoop(), 0);
    SetModuleLoop(1);
    EXPECT_EQ(GetModuleLoop(), 1);
    auto start = std::chrono::steady_clock::now();
    ModulePeerStop();
    EXPECT_LT(elapsed_ms(start), 200);
    EXPECT_EQ(GetModuleLoop(), 0);
    ModulePeerStop();  // stopping twice is harmless
}

// The descriptor of this process's socket bound at `path`, or -1.
int find_bound_socket(const std::string& path)
{
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_un address{};
        socklen_t length = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            continue;
        if (address.sun_family == AF_UNIX && path == address.sun_path)
            return fd;
    }
    return -1;
}

TEST_F(bus_test, a_receiver_that_loses_its_socket_clears_the_loop_flag)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    int fd = find_bound_socket(socket_path(5));
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::shutdown(fd, SHUT_RDWR), 0);
    auto start = std::chrono::steady_clock::now();
    while (GetModuleLoop() != 0 && elapsed_ms(start) < 3000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(GetModuleLoop(), 0);
    // The worker's way back: leave and register again.
    ModulePeerStop();
    FreeLibParams();
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    ASSERT_EQ(send_text("again", 5), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "again");
}

TEST_F(bus_test, starting_the_peer_needs_registration)
{
    EXPECT_EQ(ModulePeerStart(), -1);
}

TEST_F(bus_test, messages_sent_while_the_peer_is_stopped_are_read_on_the_next_start)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(send_text("early", 5), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
    ASSERT_EQ(ModulePeerStart(), 0);
    ModulePeerStop();
    ASSERT_EQ(send_text("while stopped", 5), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    owned_message first = receive();
    owned_message second = receive();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(payload_of(first.get()), "early");
    EXPECT_EQ(payload_of(second.get()), "while stopped");
}

TEST_F(bus_test, large_messages_pass_unchanged)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    std::string payload = binary_payload(4 * 1024 * 1024 + 7);
    ASSERT_EQ(MsgSend(payload.data(), 5, static_cast<unsigned>(payload.size())), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    ASSERT_EQ(message->length, payload.size());
    EXPECT_TRUE(payload_of(message.get()) == payload);
}

TEST_F(bus_test, a_message_longer_than_the_limit_is_refused)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    std::vector<char> payload(16 * 1024 * 1024 + 1, 'x');
    EXPECT_EQ(MsgSend(payload.data(), 5, static_cast<unsigned>(payload.size())), -1);
    EXPECT_EQ(MsgSend(nullptr, 5, 3), -1);
    EXPECT_EQ(MsgSend(nullptr, 5, 0), 0);  // an empty message needs no bytes
}

TEST_F(bus_test, a_sender_gives_up_when_the_receiver_never_reads)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);  // registered, but the peer never runs
    std::string payload(1024 * 1024, 'w');
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MsgSend(payload.data(), 5, static_cast<unsigned>(payload.size())), -1);
    long long took = elapsed_ms(start);
    EXPECT_GE(took, 1500);
    EXPECT_LT(took, 5000);
}

TEST_F(bus_test, a_full_queue_drops_the_newest_and_logs_an_error)
{
    log_capture log;
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    constexpr int sent = 1030;
    for (int i = 0; i < sent; ++i)
        ASSERT_EQ(send_text(std::to_string(i), 5), 0) << i;
    // Wait for the receiver to take in everything that was sent.
    auto start = std::chrono::steady_clock::now();
    while (elapsed_ms(start) < 5000) {
        size_t dropped = 0;
        for (const auto& line : log.lines())
            dropped += line.text.find("queue full") != std::string::npos;
        if (dropped == static_cast<size_t>(sent - 1024))
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "receive queue full"));
    int count = 0;
    while (owned_message message = owned_message(GetMsgFromQueueNoWait())) {
        EXPECT_EQ(payload_of(message.get()), std::to_string(count));  // the oldest were kept
        ++count;
    }
    EXPECT_EQ(count, 1024);
}

TEST_F(bus_test, a_malformed_datagram_is_dropped_and_traced_with_the_trace_name)
{
    log_capture log;
    InitTrace("unit");
    SetTraceOpt(1, 2, 3);
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    int raw = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(raw, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = socket_path(5);
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const char garbage[] = "not a frame at all, just bytes";
    EXPECT_EQ(
        ::sendto(raw, garbage, sizeof garbage, 0, reinterpret_cast<sockaddr*>(&address), sizeof address),
        static_cast<ssize_t>(sizeof garbage));
    ::close(raw);
    ASSERT_EQ(send_text("valid", 5), 0);
    owned_message message = receive();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(payload_of(message.get()), "valid");
    EXPECT_TRUE(log.mentions(VLR_LOG_WARNING, "unit: msgbus: dropped a fragment"));
}

TEST_F(bus_test, concurrent_senders_all_arrive_intact)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    constexpr int sender_count = 4;
    constexpr int messages_each = 5;
    std::vector<std::thread> senders;
    std::atomic<int> failures{0};
    for (int t = 0; t < sender_count; ++t) {
        senders.emplace_back([t, &failures] {
            for (int i = 0; i < messages_each; ++i) {
                std::string payload(100 * 1024 + static_cast<size_t>(t * 10 + i), static_cast<char>('A' + t));
                if (send_text(payload, 5) != 0)
                    ++failures;
            }
        });
    }
    int received = 0;
    while (received < sender_count * messages_each) {
        owned_message message = receive();
        ASSERT_NE(message, nullptr) << "after " << received;
        std::string payload = payload_of(message.get());
        ASSERT_GE(payload.size(), 100u * 1024);
        size_t extra = payload.size() - 100 * 1024;
        int t = payload[0] - 'A';
        EXPECT_EQ(static_cast<int>(extra) / 10, t);
        EXPECT_EQ(payload, std::string(payload.size(), payload[0]));
        ++received;
    }
    for (auto& sender : senders)
        sender.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST_F(bus_test, wait_answer_without_a_peer_returns_at_once_and_logs)
{
    log_capture log;
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_answer("get-response", "get: no peer\n", 100), nullptr);
    EXPECT_LT(elapsed_ms(start), 100);
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "get: no peer\n"));
}

TEST_F(bus_test, wait_answer_wakes_as_soon_as_the_reply_arrives)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    std::thread replier([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        send_text("not json", 5);
        send_text("{\"command\": \"other\"}", 5);
        send_text("{\"command\": \"set-response\", \"status\": \"ok\"}", 5);
    });
    auto start = std::chrono::steady_clock::now();
    owned_tree reply(wait_answer("set-response", "set: no answer\n", 500));
    long long took = elapsed_ms(start);
    replier.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "status")), "ok");
    EXPECT_LT(took, 2000);
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);  // the others were dropped
}

TEST_F(bus_test, wait_answer_returns_when_the_peer_stops)
{
    log_capture log;
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    std::thread stopper([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ModulePeerStop();
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_answer("x-response", "x: no answer\n", 500), nullptr);
    stopper.join();
    EXPECT_LT(elapsed_ms(start), 2000);
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "x: no answer\n"));
}

}  // namespace

namespace {

using namespace platform_test;

TEST_F(bus_test, a_wait_after_a_send_to_an_absent_module_ends_at_once)
{
    log_capture log;
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    EXPECT_EQ(send_text("{\"command\": \"get\"}", 9), -1);  // nobody is module 9
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_answer("get-response", "get: nobody\n", 200), nullptr);
    EXPECT_LT(elapsed_ms(start), 500);
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "get: nobody\n"));
    ModulePeerStop();
}

TEST_F(bus_test, a_wait_after_a_send_to_an_absent_module_still_takes_a_queued_reply)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    ASSERT_EQ(send_text("{\"command\": \"get-response\", \"value\": \"1\"}", 5), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the receiver queues it
    EXPECT_EQ(send_text("{\"command\": \"get\"}", 9), -1);
    owned_tree reply(wait_answer("get-response", "get: nobody\n", 200));
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(cfg_get_value(cfg_get_param(reply.get(), "value")), "1");
    ModulePeerStop();
}

TEST_F(bus_test, only_the_next_wait_after_a_send_to_an_absent_module_is_cut_short)
{
    ASSERT_EQ(InitLibParams(5, nullptr, 0), 0);
    ASSERT_EQ(ModulePeerStart(), 0);
    EXPECT_EQ(send_text("{\"command\": \"get\"}", 9), -1);
    EXPECT_EQ(wait_answer("get-response", nullptr, 200), nullptr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_answer("get-response", nullptr, 20), nullptr);  // 100 ms, waited in full
    EXPECT_GE(elapsed_ms(start), 95);
    EXPECT_EQ(send_text("{\"command\": \"get\"}", 9), -1);
    ASSERT_EQ(send_text("{\"command\": \"other\"}", 5), 0);  // a later send that arrives
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_answer("get-response", nullptr, 20), nullptr);
    EXPECT_GE(elapsed_ms(start), 95);
    ModulePeerStop();
}

}  // namespace
