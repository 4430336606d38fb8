#include "transport/websock_worker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "core/trace.h"
#include "core/websock_cfg.h"
#include "heap_probe.h"
#include "log_capture.h"

namespace {

using buffer_ptr = std::shared_ptr<buffer_info_t>;

buffer_ptr text_buffer(const std::string& text)
{
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text.data(), static_cast<unsigned>(text.size()));
    return buffer;
}

std::vector<std::string> drain(safe_queue& queue)
{
    std::vector<std::string> texts;
    while (queue.dequeue([&](const buffer_ptr& item) {
        texts.emplace_back(item->data != nullptr ? std::string(item->data, item->size) : std::string());
    })) {
    }
    return texts;
}

const char connected_notice[] = R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})";
const char disconnected_notice[] = R"({"version":"2.2","service":"internal-ipc","cmd":"disconnected"})";

class websock_worker_test : public ::testing::Test {
protected:
    // Workers take the process-wide level when they are made.
    void SetUp() override
    {
        orvd_log_level = orv_trace::MASK_ERROR | orv_trace::MASK_DEBUG;
        trace.set_log_level(orvd_log_level);
    }
    void TearDown() override
    {
        orvd_log_level = 0;
        trace.set_log_level(0);
    }

    websock_worker make(unsigned initial, unsigned maximum, ws_service_type type = WS_SERVICE_ROAMING)
    {
        return websock_worker(to_server, from_server, "127.0.0.1", "/x", 1, run, initial, maximum, type);
    }

    safe_queue to_server;
    safe_queue from_server;
    volatile bool run = true;
};

TEST_F(websock_worker_test, the_worker_and_protocol_name_follow_the_service_type)
{
    EXPECT_STREQ(make(0, 0, WS_SERVICE_ROAMING).get_service_name(), "websock-roaming");
    EXPECT_EQ(make(0, 0, WS_SERVICE_RRM).get_name(), "websock-rrm");
    EXPECT_STREQ(make(0, 0, WS_SERVICE_WIDS).get_service_name(), "websock-wids");
    EXPECT_EQ(make(0, 0, static_cast<ws_service_type>(7)).get_name(), "websock-wids");
}

TEST_F(websock_worker_test, delays_0_and_0_always_wait_1_or_2_seconds)
{
    auto worker = make(0, 0);
    for (int i = 0; i < 500; ++i) {
        const unsigned delay = worker.get_connect_delay();
        EXPECT_TRUE(delay == 1 || delay == 2) << delay;
    }
}

TEST_F(websock_worker_test, delays_10_and_5_start_in_5_to_15_then_stay_in_2_to_7)
{
    for (int round = 0; round < 200; ++round) {
        auto worker = make(10, 5);
        const unsigned first = worker.get_connect_delay();
        EXPECT_GE(first, 5u);
        EXPECT_LT(first, 15u);
        for (int i = 0; i < 5; ++i) {
            const unsigned later = worker.get_connect_delay();
            EXPECT_GE(later, 2u);
            EXPECT_LT(later, 7u);
        }
    }
}

TEST_F(websock_worker_test, the_base_doubles_up_to_the_maximum)
{
    auto worker = make(5, 60);
    log_capture log;
    for (int i = 0; i < 7; ++i)
        worker.get_connect_delay();
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "Generate delay into [2;7) range\n",
                               "Generate delay into [5;15) range\n",
                               "Generate delay into [10;30) range\n",
                               "Generate delay into [20;60) range\n",
                               "Generate delay into [30;90) range\n",
                               "Generate delay into [30;90) range\n",
                               "Generate delay into [30;90) range\n",
                           }));
}

TEST_F(websock_worker_test, drawn_delays_cover_their_whole_range)
{
    auto worker = make(4, 4);
    worker.get_connect_delay();
    std::vector<int> seen(8, 0);
    for (int i = 0; i < 2000; ++i) {
        const unsigned delay = worker.get_connect_delay();
        ASSERT_LT(delay, 8u);
        ++seen[delay];
    }
    for (unsigned delay = 0; delay < 8; ++delay)
        EXPECT_EQ(seen[delay] > 0, delay >= 2 && delay < 6) << delay;
}

TEST_F(websock_worker_test, a_huge_maximum_does_not_wrap_the_base)
{
    auto worker = make(0x80000000u, 0xFFFFFFFFu);
    worker.get_connect_delay();
    log_capture log;
    worker.get_connect_delay();
    ASSERT_EQ(log.lines().size(), 1u);
    // Doubling 2^31 in 32 bits would wrap to 0 and start again at [1;3).
    EXPECT_EQ(log.lines()[0].text.rfind("Generate delay into [2147483647;", 0), 0u) << log.lines()[0].text;
}

TEST_F(websock_worker_test, status_before_the_handshake_answers_disconnected)
{
    auto worker = make(0, 0);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"internal-ipc","cmd":"status"})")), 1);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{disconnected_notice});
    EXPECT_FALSE(worker.is_established());
}

TEST_F(websock_worker_test, service_and_command_are_compared_without_case)
{
    auto worker = make(0, 0);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"Internal-IPC","cmd":"STATUS"})")), 1);
    EXPECT_EQ(drain(from_server).size(), 1u);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"INTERNAL-ipc","cmd":"UnLink"})")), 1);
    EXPECT_TRUE(worker.is_unlinked());
}

TEST_F(websock_worker_test, an_internal_message_written_with_escapes_is_still_recognised)
{
    auto worker = make(0, 0);
    EXPECT_EQ(worker.process_internal_message(
                  text_buffer(R"({"service":"internal\u002dipc","cmd":"st\u0061tus"})")),
              1);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{disconnected_notice});
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"internal-ipcs","cmd":"status"})")), 0);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"rrm","cmd":"internal-ipc"})")), 0);
}

TEST_F(websock_worker_test, other_internal_commands_are_consumed_and_ignored)
{
    auto worker = make(0, 0);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"internal-ipc","cmd":"reboot"})")), 1);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"service":"internal-ipc"})")), 1);
    EXPECT_TRUE(drain(from_server).empty());
    EXPECT_FALSE(worker.is_unlinked());
}

TEST_F(websock_worker_test, messages_that_are_not_internal_are_left_for_the_server)
{
    auto worker = make(0, 0);
    for (const char* text : {"not json", "", "5", "[1,2]", R"({"service":"rrm","cmd":"status"})",
                             R"({"cmd":"unlink"})", R"({"service":null,"cmd":"unlink"})"}) {
        EXPECT_EQ(worker.process_internal_message(text_buffer(text)), 0) << text;
    }
    EXPECT_EQ(worker.process_internal_message(std::make_shared<buffer_info_t>()), 0);
    EXPECT_TRUE(drain(from_server).empty());
    EXPECT_FALSE(worker.is_unlinked());
}

TEST_F(websock_worker_test, update_timezone_reloads_the_time_zone_and_the_message_still_goes_out)
{
    auto worker = make(0, 0);
    setenv("TZ", "UTC0", 1);
    tzset();
    ASSERT_EQ(timezone, 0);
    setenv("TZ", "XYZ-5", 1);  // five hours east of UTC
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"command":"update-timezone","zone":"x"})")), 0);
    EXPECT_EQ(timezone, -5 * 3600);

    // The command is compared exactly.
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(worker.process_internal_message(text_buffer(R"({"command":"UPDATE-TIMEZONE"})")), 0);
    EXPECT_EQ(timezone, -5 * 3600);

    // An internal message carrying the command reloads and is consumed.
    EXPECT_EQ(worker.process_internal_message(
                  text_buffer(R"({"service":"internal-ipc","cmd":"x","command":"update-timezone"})")),
              1);
    EXPECT_EQ(timezone, 0);
    unsetenv("TZ");
    tzset();
}

TEST_F(websock_worker_test, fragments_are_delivered_as_one_buffer_after_the_final_one)
{
    auto worker = make(0, 0);
    char a[] = "ab", b[] = "cd", c[] = "ef";
    EXPECT_EQ(worker.process_client_receive_fragment(a, 2, false, 0), 0);
    EXPECT_EQ(worker.process_client_receive_fragment(b, 2, true, 3), 0);  // final, more payload follows
    EXPECT_TRUE(drain(from_server).empty());
    EXPECT_EQ(worker.process_client_receive_fragment(c, 2, true, 0), 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"abcdef"});

    char d[] = "next";
    worker.process_client_receive_fragment(d, 4, true, 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"next"});  // a fresh buffer each time
}

TEST_F(websock_worker_test, a_zero_length_final_fragment_delivers_the_earlier_pieces)
{
    auto worker = make(0, 0);
    char a[] = "first-", b[] = "second", empty[] = "";
    worker.process_client_receive_fragment(a, 6, false, 0);
    worker.process_client_receive_fragment(b, 6, false, 0);
    EXPECT_EQ(worker.process_client_receive_fragment(empty, 0, true, 0), 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"first-second"});
}

// A message is gathered in one heap block, grown in place or moved by realloc, and that block
// is what the partner gets: a copy would be a second block made while the first still lives,
// so its address could never be the gathered block's.
TEST_F(websock_worker_test, the_delivered_buffer_is_the_reassembled_object_itself)
{
    auto worker = make(0, 0);
    std::vector<char> first_piece(64 * 1024, 'a');
    std::vector<char> last_piece(64 * 1024, 'b');
    buffer_ptr delivered;
    const void* gathered = nullptr;
    {
        block_tracker blocks(first_piece.size());
        worker.process_client_receive_fragment(first_piece.data(), first_piece.size(), false, 0);
        ASSERT_NE(blocks.block(), nullptr) << "the first piece was not put into a block of its own";
        worker.process_client_receive_fragment(last_piece.data(), last_piece.size(), true, 0);
        gathered = blocks.block();
        from_server.dequeue([&](const buffer_ptr& item) { delivered = item; });
    }
    ASSERT_TRUE(delivered);
    ASSERT_EQ(delivered->size, first_piece.size() + last_piece.size());
    EXPECT_EQ(static_cast<const void*>(delivered->data), gathered) << "the message was copied before delivery";
    EXPECT_EQ(delivered.use_count(), 1);  // the worker kept no reference: it made a new buffer
}

TEST_F(websock_worker_test, an_empty_message_is_dropped_with_an_error)
{
    auto worker = make(0, 0);
    log_capture log;
    char empty[] = "";
    EXPECT_EQ(worker.process_client_receive_fragment(empty, 0, true, 0), -1);
    EXPECT_TRUE(drain(from_server).empty());
    EXPECT_TRUE(log.contains("websock-roaming->process_client_receive: can't receive message\n"));
    char next[] = "ok";
    worker.process_client_receive_fragment(next, 2, true, 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"ok"});
}

TEST_F(websock_worker_test, a_final_piece_without_data_keeps_what_was_gathered)
{
    auto worker = make(0, 0);
    log_capture log;
    char a[] = "kept";
    worker.process_client_receive_fragment(a, 4, false, 0);
    EXPECT_EQ(worker.process_client_receive_fragment(nullptr, 0, true, 0), -1);
    EXPECT_TRUE(log.contains("process_client_receive: Bad Input data\n"));
    EXPECT_TRUE(drain(from_server).empty());
    char b[] = "!";
    worker.process_client_receive_fragment(b, 1, true, 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"kept!"});
}

// Feeds `total` bytes of 'x' as pieces of at most 1 MiB, the last one final.
void feed_message(websock_worker& worker, size_t total)
{
    static std::vector<char> piece(1024 * 1024, 'x');
    size_t left = total;
    do {
        const size_t n = left < piece.size() ? left : piece.size();
        left -= n;
        worker.process_client_receive_fragment(piece.data(), n, left == 0, 0);
    } while (left > 0);
}

TEST_F(websock_worker_test, a_message_of_the_largest_accepted_size_is_delivered)
{
    auto worker = make(0, 0);
    feed_message(worker, websock_worker::max_received_message);
    std::vector<std::string> got = drain(from_server);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), websock_worker::max_received_message);
}

TEST_F(websock_worker_test, a_longer_message_is_dropped_with_an_error_and_the_next_one_is_delivered)
{
    auto worker = make(0, 0);
    log_capture log;
    feed_message(worker, websock_worker::max_received_message + 1);
    EXPECT_TRUE(drain(from_server).empty());
    EXPECT_TRUE(log.contains("websock-roaming->process_client_receive: message longer than 16777216 bytes dropped\n"));
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "message longer than"));
    const auto texts = log.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [](const std::string& text) { return text.find("message longer than") != std::string::npos; }),
              1);  // once per message, not per piece

    char next[] = "next";
    worker.process_client_receive_fragment(next, 4, true, 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"next"});
}

TEST_F(websock_worker_test, the_pieces_after_the_limit_are_skipped_up_to_the_end_of_that_message)
{
    auto worker = make(0, 0);
    feed_message(worker, websock_worker::max_received_message);
    drain(from_server);
    std::vector<char> big(websock_worker::max_received_message, 'y');
    char tail[] = "tail", next[] = "next";
    worker.process_client_receive_fragment(big.data(), big.size(), false, 0);
    worker.process_client_receive_fragment(tail, 4, false, 0);  // past the limit
    worker.process_client_receive_fragment(tail, 4, false, 0);  // skipped
    EXPECT_TRUE(drain(from_server).empty());
    worker.process_client_receive_fragment(tail, 4, true, 0);  // ends the dropped message
    EXPECT_TRUE(drain(from_server).empty());
    worker.process_client_receive_fragment(next, 4, true, 0);
    EXPECT_EQ(drain(from_server), std::vector<std::string>{"next"});
}

TEST_F(websock_worker_test, notices_carry_the_envelope_only)
{
    auto worker = make(0, 0);
    worker.notify_connected();
    worker.notify_disconnected();
    EXPECT_EQ(drain(from_server), (std::vector<std::string>{connected_notice, disconnected_notice}));
}

TEST_F(websock_worker_test, a_worker_of_an_unknown_type_never_connects)
{
    volatile bool flag = false;  // no reconnect delay is waited
    websock_worker worker(to_server, from_server, "127.0.0.1", "/x", 1, flag, 0, 0,
                          static_cast<ws_service_type>(9));
    EXPECT_FALSE(worker.connect());
}

}  // namespace
