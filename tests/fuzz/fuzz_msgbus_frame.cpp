// Fuzzes the bus's datagram reassembly (no sockets). The input is a list of records, each one
// datagram handed to the reassembler:
//   byte 0: kind, modulo 3:
//     0: a raw datagram follows as a 2-byte length and that many bytes;
//     1: 24 header bytes from the input (bit 1 of kind forces the magic), then a 2-byte chunk
//        length (modulo chunk size + 2) whose bytes are generated;
//     2: a well-formed fragment built from 4 bytes: sender (pid, source and sequence from a few
//        values each), total length (2 bytes, times 8), chunk index; bit 6 of kind makes its
//        length one byte short. The chunk bytes are generated, so that small inputs complete
//        multi-chunk messages from several senders at once.
//   byte 1: clock step in units of 64 ms.
// Bit 7 of kind also runs the expiry after the datagram.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "msgbus_frame.h"

namespace {

void check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

struct input_reader {
    const uint8_t* data;
    size_t size;
    size_t at = 0;

    bool take(void* out, size_t length)
    {
        if (size - at < length)
            return false;
        if (length == 0)
            return true;
        std::memcpy(out, data + at, length);
        at += length;
        return true;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace msgbus_frame;
    reassembly_limits limits;
    limits.max_message_size = 8 * chunk_size;  // keeps memory per run small
    limits.max_pending_bytes = 12 * chunk_size;
    limits.max_pending_messages = 4;
    limits.pending_expiry_ms = 5000;
    reassembler frames(limits);

    input_reader input{data, size};
    std::vector<unsigned char> datagram;
    int64_t now = 0;
    uint8_t kind = 0;
    uint8_t step = 0;
    while (input.take(&kind, 1) && input.take(&step, 1)) {
        now += static_cast<int64_t>(step) * 64;
        uint16_t length = 0;
        if (kind % 3 == 0) {
            if (!input.take(&length, sizeof length))
                break;
            datagram.resize(length);
            if (!input.take(datagram.data(), length))
                break;
        } else if (kind % 3 == 1) {
            datagram.resize(header_size);
            if (!input.take(datagram.data(), header_size))
                break;
            if ((kind & 2) != 0)
                std::memcpy(datagram.data(), magic, sizeof magic);
            if (!input.take(&length, sizeof length))
                break;
            size_t chunk = length % (chunk_size + 2);
            datagram.resize(header_size + chunk, static_cast<unsigned char>(kind));
        } else {
            uint8_t sender = 0;
            uint16_t total = 0;
            uint8_t index = 0;
            if (!input.take(&sender, 1) || !input.take(&total, sizeof total) || !input.take(&index, 1)) {
                break;
            }
            frame_header header;
            header.sender_pid = 100 + (sender & 3);
            header.source = static_cast<uint16_t>((sender >> 2) & 3);
            header.sequence = (sender >> 4) & 3;
            header.destination = static_cast<uint16_t>(1 + (sender >> 6));
            header.total_length = static_cast<uint32_t>(total) * 8;
            size_t offset = static_cast<size_t>(index % 16) * chunk_size;
            header.offset = static_cast<uint32_t>(offset);
            size_t chunk = 0;
            if (offset < header.total_length) {
                chunk = header.total_length - offset < chunk_size ? header.total_length - offset : chunk_size;
            }
            if ((kind & 0x40) != 0 && chunk > 0)
                --chunk;
            datagram.resize(header_size);
            encode_header(header, datagram.data());
            datagram.resize(header_size + chunk, static_cast<unsigned char>(offset / chunk_size));
        }
        message_s* message = nullptr;
        const char* reason = nullptr;
        auto result = frames.feed(datagram.data(), datagram.size(), now, &message, &reason);
        if (result == reassembler::feed_result::complete) {
            check(message != nullptr && message->length <= limits.max_message_size);
            check(message->payload[message->length] == '\0');
            std::free(message);
        } else if (result == reassembler::feed_result::dropped) {
            check(reason != nullptr && message == nullptr);
        } else {
            check(message == nullptr);
        }
        check(frames.pending_bytes() <= limits.max_pending_bytes);
        check(frames.pending_messages() <= limits.max_pending_messages);
        if ((kind & 0x80) != 0)
            frames.expire(now);
    }
    return 0;
}
