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

using msgbus_frame::Header;
using msgbus_frame::kChunkSize;
using msgbus_frame::kHeaderSize;
using msgbus_frame::Limits;
using msgbus_frame::Reassembler;
using Status = Reassembler::Status;

struct FreeDeleter {
    void operator()(message_s* message) const { std::free(message); }
};
using Message = std::unique_ptr<message_s, FreeDeleter>;

std::vector<unsigned char> datagram(const Header& header, const std::string& payload,
                                    size_t offset, size_t length) {
    std::vector<unsigned char> bytes(kHeaderSize + length);
    Header copy = header;
    copy.offset = static_cast<uint32_t>(offset);
    msgbus_frame::encode_header(copy, bytes.data());
    if (length > 0) std::memcpy(bytes.data() + kHeaderSize, payload.data() + offset, length);
    return bytes;
}

// The datagrams a sender makes for `payload`.
std::vector<std::vector<unsigned char>> split(const Header& header, const std::string& payload) {
    std::vector<std::vector<unsigned char>> parts;
    size_t offset = 0;
    do {
        size_t length = std::min(kChunkSize, payload.size() - offset);
        parts.push_back(datagram(header, payload, offset, length));
        offset += length;
    } while (offset < payload.size());
    return parts;
}

Header header_for(const std::string& payload, uint32_t pid = 100, uint16_t source = 2,
                  uint32_t sequence = 1) {
    Header header;
    header.source = source;
    header.destination = 1;
    header.sender_pid = pid;
    header.sequence = sequence;
    header.total_length = static_cast<uint32_t>(payload.size());
    return header;
}

struct Fed {
    Status status;
    Message message;
    const char* reason;
};

Fed feed(Reassembler& reassembler, const std::vector<unsigned char>& bytes, int64_t now = 0) {
    message_s* message = nullptr;
    const char* reason = nullptr;
    Status status = reassembler.feed(bytes.data(), bytes.size(), now, &message, &reason);
    return Fed{status, Message(message), reason};
}

std::string payload_of(const message_s* message) {
    return std::string(message->payload, message->length);
}

TEST(MsgbusFrameTest, HeaderRoundTrips) {
    Header header = header_for("abc", 4242, 28, 77);
    header.offset = 65536;
    unsigned char bytes[kHeaderSize];
    msgbus_frame::encode_header(header, bytes);
    EXPECT_EQ(std::memcmp(bytes, "OBS1", 4), 0);
    Header read;
    ASSERT_TRUE(msgbus_frame::decode_header(bytes, sizeof bytes, &read));
    EXPECT_EQ(read.source, 28);
    EXPECT_EQ(read.destination, 1);
    EXPECT_EQ(read.sender_pid, 4242u);
    EXPECT_EQ(read.sequence, 77u);
    EXPECT_EQ(read.total_length, 3u);
    EXPECT_EQ(read.offset, 65536u);
    EXPECT_FALSE(msgbus_frame::decode_header(bytes, kHeaderSize - 1, &read));
}

TEST(MsgbusFrameTest, SingleDatagramMessageIsLaidOutAsMessageBlock) {
    Reassembler reassembler;
    std::string payload = "{\"command\": \"get\"}";
    Fed fed = feed(reassembler, split(header_for(payload, 4242, 3, 9), payload)[0]);
    ASSERT_EQ(fed.status, Status::kComplete);
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
    EXPECT_EQ(reassembler.pending_messages(), 0u);
}

TEST(MsgbusFrameTest, EmptyMessageIsOneDatagram) {
    Reassembler reassembler;
    auto parts = split(header_for(""), "");
    ASSERT_EQ(parts.size(), 1u);
    Fed fed = feed(reassembler, parts[0]);
    ASSERT_EQ(fed.status, Status::kComplete);
    EXPECT_EQ(fed.message->length, 0u);
    EXPECT_EQ(fed.message->payload[0], '\0');
}

TEST(MsgbusFrameTest, FragmentsInAnyOrderMakeTheMessage) {
    Reassembler reassembler;
    std::string payload = platform_test::binary_payload(5 * kChunkSize + 123);
    auto parts = split(header_for(payload), payload);
    ASSERT_EQ(parts.size(), 6u);
    const size_t order[] = {3, 5, 0, 4, 1, 2};
    for (size_t i = 0; i < 5; ++i) {
        Fed fed = feed(reassembler, parts[order[i]]);
        ASSERT_EQ(fed.status, Status::kPartial) << i;
    }
    EXPECT_EQ(reassembler.pending_messages(), 1u);
    EXPECT_EQ(reassembler.pending_bytes(), payload.size());
    Fed fed = feed(reassembler, parts[order[5]]);
    ASSERT_EQ(fed.status, Status::kComplete);
    EXPECT_EQ(payload_of(fed.message.get()), payload);
    EXPECT_EQ(fed.message->payload[payload.size()], '\0');
    EXPECT_EQ(reassembler.pending_messages(), 0u);
    EXPECT_EQ(reassembler.pending_bytes(), 0u);
}

TEST(MsgbusFrameTest, InterleavedSendersAreKeptApart) {
    Reassembler reassembler;
    std::string first = std::string(3 * kChunkSize, 'a');
    std::string second = std::string(2 * kChunkSize + 1, 'b');
    std::string third = std::string(2 * kChunkSize, 'c');
    // Same sequence number from two processes, and a second message of the first process.
    auto a = split(header_for(first, 100, 2, 7), first);
    auto b = split(header_for(second, 200, 2, 7), second);
    auto c = split(header_for(third, 100, 2, 8), third);
    std::vector<Message> done;
    for (size_t i = 0; i < 3; ++i) {
        for (auto* parts : {&a, &b, &c}) {
            if (i >= parts->size()) continue;
            Fed fed = feed(reassembler, (*parts)[i]);
            ASSERT_NE(fed.status, Status::kDropped) << fed.reason;
            if (fed.status == Status::kComplete) done.push_back(std::move(fed.message));
        }
    }
    ASSERT_EQ(done.size(), 3u);
    EXPECT_EQ(payload_of(done[0].get()), third);
    EXPECT_EQ(payload_of(done[1].get()), first);
    EXPECT_EQ(payload_of(done[2].get()), second);
}

TEST(MsgbusFrameTest, MalformedDatagramsAreDropped) {
    Reassembler reassembler;
    std::string payload = std::string(2 * kChunkSize, 'x');
    Header header = header_for(payload);
    std::vector<std::vector<unsigned char>> bad;
    bad.push_back({});                                          // empty
    bad.push_back({'O', 'B', 'S', '1', 0, 0});                  // short header
    auto wrong_magic = datagram(header, payload, 0, kChunkSize);
    wrong_magic[0] = 'X';
    bad.push_back(wrong_magic);
    bad.push_back(datagram(header, payload, 100, kChunkSize));            // unaligned offset
    bad.push_back(datagram(header, payload, 2 * kChunkSize, 0));          // past the end
    bad.push_back(datagram(header, payload, 0, kChunkSize - 1));          // short chunk
    bad.push_back(datagram(header, payload + "y", 0, kChunkSize + 1));    // long chunk
    Header empty = header_for("");
    bad.push_back(datagram(empty, payload, 0, 1));                        // bytes in an empty one
    Header inverted = header;
    inverted.total_length = 10;
    bad.push_back(datagram(inverted, payload, kChunkSize, 0));            // offset beyond total
    for (size_t i = 0; i < bad.size(); ++i) {
        Fed fed = feed(reassembler, bad[i]);
        EXPECT_EQ(fed.status, Status::kDropped) << i;
        EXPECT_NE(fed.reason, nullptr) << i;
        EXPECT_EQ(fed.message, nullptr) << i;
    }
    EXPECT_EQ(reassembler.pending_messages(), 0u);
}

TEST(MsgbusFrameTest, OversizedMessageIsRefusedBeforeAnyAllocation) {
    Reassembler reassembler;
    Header header = header_for("");
    header.total_length = static_cast<uint32_t>(msgbus_frame::kMaxMessageSize + 1);
    std::string chunk(kChunkSize, 'z');
    Fed fed = feed(reassembler, datagram(header, chunk, 0, kChunkSize));
    EXPECT_EQ(fed.status, Status::kDropped);
    header.total_length = 0xFFFFFFFFu;
    fed = feed(reassembler, datagram(header, chunk, 0, kChunkSize));
    EXPECT_EQ(fed.status, Status::kDropped);
    EXPECT_EQ(reassembler.pending_bytes(), 0u);
}

TEST(MsgbusFrameTest, InconsistentAndDuplicateFragmentsAreDropped) {
    Reassembler reassembler;
    std::string payload = platform_test::binary_payload(3 * kChunkSize);
    Header header = header_for(payload);
    auto parts = split(header, payload);
    ASSERT_EQ(feed(reassembler, parts[0]).status, Status::kPartial);
    EXPECT_EQ(feed(reassembler, parts[0]).status, Status::kDropped);  // duplicate

    std::string longer = payload + std::string(kChunkSize, 'q');
    Header other_total = header;
    other_total.total_length = static_cast<uint32_t>(longer.size());
    EXPECT_EQ(feed(reassembler, datagram(other_total, longer, kChunkSize, kChunkSize)).status,
              Status::kDropped);
    Header other_destination = header;
    other_destination.destination = 9;
    EXPECT_EQ(feed(reassembler, datagram(other_destination, payload, kChunkSize, kChunkSize)).status,
              Status::kDropped);

    ASSERT_EQ(feed(reassembler, parts[1]).status, Status::kPartial);
    Fed fed = feed(reassembler, parts[2]);
    ASSERT_EQ(fed.status, Status::kComplete);
    EXPECT_EQ(payload_of(fed.message.get()), payload);
}

TEST(MsgbusFrameTest, IncompleteMessagesAreBoundedOldestFirst) {
    Limits limits;
    limits.max_message_size = 4 * kChunkSize;
    limits.max_pending_bytes = 6 * kChunkSize;
    limits.max_pending_messages = 2;
    Reassembler reassembler(limits);
    std::string payload(4 * kChunkSize, 'p');
    std::string small(2 * kChunkSize, 's');
    // First halves of three messages: the third pushes out the first (count bound).
    ASSERT_EQ(feed(reassembler, split(header_for(small, 1), small)[0]).status, Status::kPartial);
    ASSERT_EQ(feed(reassembler, split(header_for(small, 2), small)[0]).status, Status::kPartial);
    ASSERT_EQ(feed(reassembler, split(header_for(small, 3), small)[0]).status, Status::kPartial);
    EXPECT_EQ(reassembler.pending_messages(), 2u);
    EXPECT_EQ(reassembler.dropped_incomplete(), 1u);
    // The first one is gone: its second half starts a new incomplete message.
    EXPECT_EQ(feed(reassembler, split(header_for(small, 1), small)[1]).status, Status::kPartial);
    EXPECT_EQ(reassembler.dropped_incomplete(), 2u);
    // A large one needs room for its whole size (byte bound).
    ASSERT_EQ(feed(reassembler, split(header_for(payload, 4), payload)[0]).status,
              Status::kPartial);
    EXPECT_LE(reassembler.pending_bytes(), limits.max_pending_bytes);
    EXPECT_EQ(reassembler.pending_messages(), 2u);
    // Too large for the limits at all.
    std::string huge(5 * kChunkSize, 'h');
    EXPECT_EQ(feed(reassembler, split(header_for(huge, 5), huge)[0]).status, Status::kDropped);
    reassembler.clear();
    EXPECT_EQ(reassembler.pending_messages(), 0u);
    EXPECT_EQ(reassembler.pending_bytes(), 0u);
}

TEST(MsgbusFrameTest, IncompleteMessageExpires) {
    Limits limits;
    limits.pending_expiry_ms = 5000;
    Reassembler reassembler(limits);
    std::string payload(2 * kChunkSize, 'e');
    auto parts = split(header_for(payload), payload);
    ASSERT_EQ(feed(reassembler, parts[0], 1000).status, Status::kPartial);
    reassembler.expire(5000);
    EXPECT_EQ(reassembler.pending_messages(), 1u);
    reassembler.expire(6001);
    EXPECT_EQ(reassembler.pending_messages(), 0u);
    EXPECT_EQ(reassembler.dropped_incomplete(), 1u);
    // The late second half does not complete anything.
    EXPECT_EQ(feed(reassembler, parts[1], 6002).status, Status::kPartial);
}

}  // namespace
