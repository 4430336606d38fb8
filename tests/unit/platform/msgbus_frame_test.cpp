// The datagram framing and reassembly of the bus, without sockets.
#include "msgbus_frame.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using msgbus_frame::chunk_size;
using msgbus_frame::frame_header;
using msgbus_frame::header_size;
using msgbus_frame::reassembler;
using msgbus_frame::reassembly_limits;
using platform_test::owned_message;
using platform_test::payload_of;
using feed_result = reassembler::feed_result;

std::vector<unsigned char> datagram(const frame_header& header, const std::string& payload, size_t offset,
                                    size_t length)
{
    std::vector<unsigned char> bytes(header_size + length);
    frame_header copy = header;
    copy.offset = static_cast<uint32_t>(offset);
    msgbus_frame::encode_header(copy, bytes.data());
    if (length > 0)
        std::memcpy(bytes.data() + header_size, payload.data() + offset, length);
    return bytes;
}

// The datagrams a sender makes for `payload`.
std::vector<std::vector<unsigned char>> split(const frame_header& header, const std::string& payload)
{
    std::vector<std::vector<unsigned char>> parts;
    size_t offset = 0;
    do {
        size_t length = std::min(chunk_size, payload.size() - offset);
        parts.push_back(datagram(header, payload, offset, length));
        offset += length;
    } while (offset < payload.size());
    return parts;
}

frame_header header_for(const std::string& payload, uint32_t pid = 100, uint16_t source = 2,
                        uint32_t sequence = 1)
{
    frame_header header;
    header.source = source;
    header.destination = 1;
    header.sender_pid = pid;
    header.sequence = sequence;
    header.total_length = static_cast<uint32_t>(payload.size());
    return header;
}

struct fed_datagram {
    feed_result status;
    owned_message message;
    const char* reason;
};

fed_datagram feed(reassembler& frames, const std::vector<unsigned char>& bytes, int64_t now = 0)
{
    message_s* message = nullptr;
    const char* reason = nullptr;
    feed_result status = frames.feed(bytes.data(), bytes.size(), now, &message, &reason);
    return fed_datagram{status, owned_message(message), reason};
}

TEST(msgbus_frame_test, a_header_reads_back_as_written)
{
    frame_header header = header_for("abc", 4242, 28, 77);
    header.offset = 65536;
    unsigned char bytes[header_size];
    msgbus_frame::encode_header(header, bytes);
    EXPECT_EQ(std::memcmp(bytes, "OBS1", 4), 0);
    frame_header read;
    ASSERT_TRUE(msgbus_frame::decode_header(bytes, sizeof bytes, &read));
    EXPECT_EQ(read.source, 28);
    EXPECT_EQ(read.destination, 1);
    EXPECT_EQ(read.sender_pid, 4242u);
    EXPECT_EQ(read.sequence, 77u);
    EXPECT_EQ(read.total_length, 3u);
    EXPECT_EQ(read.offset, 65536u);
    EXPECT_FALSE(msgbus_frame::decode_header(bytes, header_size - 1, &read));
}

TEST(msgbus_frame_test, a_single_datagram_message_is_laid_out_as_a_message_block)
{
    reassembler frames;
    std::string payload = "{\"command\": \"get\"}";
    fed_datagram fed = feed(frames, split(header_for(payload, 4242, 3, 9), payload)[0]);
    ASSERT_EQ(fed.status, feed_result::complete);
    const auto* bytes = reinterpret_cast<const unsigned char*>(fed.message.get());
    uint32_t length = 0;
    std::memcpy(&length, bytes + 4, 4);
    EXPECT_EQ(length, payload.size());
    EXPECT_EQ(std::memcmp(bytes + 17, payload.data(), payload.size()), 0);
    EXPECT_EQ(bytes[17 + payload.size()], 0);
    EXPECT_EQ(fed.message->source, 3);
    EXPECT_EQ(fed.message->destination, 1);
    EXPECT_EQ(fed.message->sequence, 9u);
    EXPECT_EQ(fed.message->sender_pid, 4242u);
    EXPECT_EQ(fed.message->flags, 0);
    EXPECT_EQ(frames.pending_messages(), 0u);
}

TEST(msgbus_frame_test, an_empty_message_is_one_datagram)
{
    reassembler frames;
    auto parts = split(header_for(""), "");
    ASSERT_EQ(parts.size(), 1u);
    fed_datagram fed = feed(frames, parts[0]);
    ASSERT_EQ(fed.status, feed_result::complete);
    EXPECT_EQ(fed.message->length, 0u);
    EXPECT_EQ(fed.message->payload[0], '\0');
}

TEST(msgbus_frame_test, fragments_in_any_order_make_the_message)
{
    reassembler frames;
    std::string payload = platform_test::binary_payload(5 * chunk_size + 123);
    auto parts = split(header_for(payload), payload);
    ASSERT_EQ(parts.size(), 6u);
    const size_t order[] = {3, 5, 0, 4, 1, 2};
    for (size_t i = 0; i < 5; ++i) {
        fed_datagram fed = feed(frames, parts[order[i]]);
        ASSERT_EQ(fed.status, feed_result::partial) << i;
    }
    EXPECT_EQ(frames.pending_messages(), 1u);
    EXPECT_EQ(frames.pending_bytes(), payload.size());
    fed_datagram fed = feed(frames, parts[order[5]]);
    ASSERT_EQ(fed.status, feed_result::complete);
    EXPECT_EQ(payload_of(fed.message.get()), payload);
    EXPECT_EQ(fed.message->payload[payload.size()], '\0');
    EXPECT_EQ(frames.pending_messages(), 0u);
    EXPECT_EQ(frames.pending_bytes(), 0u);
}

TEST(msgbus_frame_test, interleaved_senders_are_kept_apart)
{
    reassembler frames;
    std::string first = std::string(3 * chunk_size, 'a');
    std::string second = std::string(2 * chunk_size + 1, 'b');
    std::string third = std::string(2 * chunk_size, 'c');
    // Same sequence number from two processes, and a second message of the first process.
    auto a = split(header_for(first, 100, 2, 7), first);
    auto b = split(header_for(second, 200, 2, 7), second);
    auto c = split(header_for(third, 100, 2, 8), third);
    std::vector<owned_message> done;
    for (size_t i = 0; i < 3; ++i) {
        for (auto* parts : {&a, &b, &c}) {
            if (i >= parts->size())
                continue;
            fed_datagram fed = feed(frames, (*parts)[i]);
            ASSERT_NE(fed.status, feed_result::dropped) << fed.reason;
            if (fed.status == feed_result::complete)
                done.push_back(std::move(fed.message));
        }
    }
    ASSERT_EQ(done.size(), 3u);
    EXPECT_EQ(payload_of(done[0].get()), third);
    EXPECT_EQ(payload_of(done[1].get()), first);
    EXPECT_EQ(payload_of(done[2].get()), second);
}

TEST(msgbus_frame_test, malformed_datagrams_are_dropped)
{
    reassembler frames;
    std::string payload = std::string(2 * chunk_size, 'x');
    frame_header header = header_for(payload);
    std::vector<std::vector<unsigned char>> bad;
    bad.push_back({});                          // empty
    bad.push_back({'O', 'B', 'S', '1', 0, 0});  // short header
    auto wrong_magic = datagram(header, payload, 0, chunk_size);
    wrong_magic[0] = 'X';
    bad.push_back(wrong_magic);
    bad.push_back(datagram(header, payload, 100, chunk_size));          // unaligned offset
    bad.push_back(datagram(header, payload, 2 * chunk_size, 0));        // past the end
    bad.push_back(datagram(header, payload, 0, chunk_size - 1));        // short chunk
    bad.push_back(datagram(header, payload + "y", 0, chunk_size + 1));  // long chunk
    frame_header empty = header_for("");
    bad.push_back(datagram(empty, payload, 0, 1));  // bytes in an empty one
    frame_header inverted = header;
    inverted.total_length = 10;
    bad.push_back(datagram(inverted, payload, chunk_size, 0));  // offset beyond total
    for (size_t i = 0; i < bad.size(); ++i) {
        fed_datagram fed = feed(frames, bad[i]);
        EXPECT_EQ(fed.status, feed_result::dropped) << i;
        EXPECT_NE(fed.reason, nullptr) << i;
        EXPECT_EQ(fed.message, nullptr) << i;
    }
    EXPECT_EQ(frames.pending_messages(), 0u);
}

TEST(msgbus_frame_test, an_oversized_message_is_refused_before_any_allocation)
{
    reassembler frames;
    frame_header header = header_for("");
    header.total_length = static_cast<uint32_t>(msgbus_frame::max_message_size + 1);
    std::string chunk(chunk_size, 'z');
    fed_datagram fed = feed(frames, datagram(header, chunk, 0, chunk_size));
    EXPECT_EQ(fed.status, feed_result::dropped);
    header.total_length = 0xFFFFFFFFu;
    fed = feed(frames, datagram(header, chunk, 0, chunk_size));
    EXPECT_EQ(fed.status, feed_result::dropped);
    EXPECT_EQ(frames.pending_bytes(), 0u);
}

TEST(msgbus_frame_test, inconsistent_and_duplicate_fragments_are_dropped)
{
    reassembler frames;
    std::string payload = platform_test::binary_payload(3 * chunk_size);
    frame_header header = header_for(payload);
    auto parts = split(header, payload);
    ASSERT_EQ(feed(frames, parts[0]).status, feed_result::partial);
    EXPECT_EQ(feed(frames, parts[0]).status, feed_result::dropped);  // duplicate

    std::string longer = payload + std::string(chunk_size, 'q');
    frame_header other_total = header;
    other_total.total_length = static_cast<uint32_t>(longer.size());
    EXPECT_EQ(feed(frames, datagram(other_total, longer, chunk_size, chunk_size)).status,
              feed_result::dropped);
    frame_header other_destination = header;
    other_destination.destination = 9;
    EXPECT_EQ(feed(frames, datagram(other_destination, payload, chunk_size, chunk_size)).status,
              feed_result::dropped);

    ASSERT_EQ(feed(frames, parts[1]).status, feed_result::partial);
    fed_datagram fed = feed(frames, parts[2]);
    ASSERT_EQ(fed.status, feed_result::complete);
    EXPECT_EQ(payload_of(fed.message.get()), payload);
}

TEST(msgbus_frame_test, incomplete_messages_are_bounded_oldest_first)
{
    reassembly_limits limits;
    limits.max_message_size = 4 * chunk_size;
    limits.max_pending_bytes = 6 * chunk_size;
    limits.max_pending_messages = 2;
    reassembler frames(limits);
    std::string payload(4 * chunk_size, 'p');
    std::string small(2 * chunk_size, 's');
    // First halves of three messages: the third pushes out the first (count bound).
    ASSERT_EQ(feed(frames, split(header_for(small, 1), small)[0]).status, feed_result::partial);
    ASSERT_EQ(feed(frames, split(header_for(small, 2), small)[0]).status, feed_result::partial);
    ASSERT_EQ(feed(frames, split(header_for(small, 3), small)[0]).status, feed_result::partial);
    EXPECT_EQ(frames.pending_messages(), 2u);
    EXPECT_EQ(frames.dropped_incomplete(), 1u);
    // The first one is gone: its second half starts a new incomplete message.
    EXPECT_EQ(feed(frames, split(header_for(small, 1), small)[1]).status, feed_result::partial);
    EXPECT_EQ(frames.dropped_incomplete(), 2u);
    // A large one needs room for its whole size (byte bound).
    ASSERT_EQ(feed(frames, split(header_for(payload, 4), payload)[0]).status, feed_result::partial);
    EXPECT_LE(frames.pending_bytes(), limits.max_pending_bytes);
    EXPECT_EQ(frames.pending_messages(), 2u);
    // Too large for the limits at all.
    std::string huge(5 * chunk_size, 'h');
    EXPECT_EQ(feed(frames, split(header_for(huge, 5), huge)[0]).status, feed_result::dropped);
    frames.clear();
    EXPECT_EQ(frames.pending_messages(), 0u);
    EXPECT_EQ(frames.pending_bytes(), 0u);
}

TEST(msgbus_frame_test, an_incomplete_message_expires)
{
    reassembly_limits limits;
    limits.pending_expiry_ms = 5000;
    reassembler frames(limits);
    std::string payload(2 * chunk_size, 'e');
    auto parts = split(header_for(payload), payload);
    ASSERT_EQ(feed(frames, parts[0], 1000).status, feed_result::partial);
    frames.expire(5000);
    EXPECT_EQ(frames.pending_messages(), 1u);
    frames.expire(6001);
    EXPECT_EQ(frames.pending_messages(), 0u);
    EXPECT_EQ(frames.dropped_incomplete(), 1u);
    // The late second half does not complete anything.
    EXPECT_EQ(feed(frames, parts[1], 6002).status, feed_result::partial);
}

}  // namespace
