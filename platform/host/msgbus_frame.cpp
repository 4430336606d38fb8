#include "msgbus_frame.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

namespace msgbus_frame {

namespace {

// memcpy rather than a cast: the fields of a datagram are not aligned.
template <typename T>
void put(unsigned char* out, size_t at, T value)
{
    std::memcpy(out + at, &value, sizeof value);
}

template <typename T>
T get(const unsigned char* in, size_t at)
{
    T value;
    std::memcpy(&value, in + at, sizeof value);
    return value;
}

unsigned char* payload_of(message_s* message)
{
    return reinterpret_cast<unsigned char*>(message) + message_payload_offset;
}

}  // namespace

void encode_header(const frame_header& header, unsigned char* out)
{
    std::memcpy(out, magic, sizeof magic);
    put(out, 4, header.source);
    put(out, 6, header.destination);
    put(out, 8, header.sender_pid);
    put(out, 12, header.sequence);
    put(out, 16, header.total_length);
    put(out, 20, header.offset);
}

bool decode_header(const unsigned char* datagram, size_t length, frame_header* header)
{
    if (datagram == nullptr || length < header_size)
        return false;
    if (std::memcmp(datagram, magic, sizeof magic) != 0)
        return false;
    header->source = get<uint16_t>(datagram, 4);
    header->destination = get<uint16_t>(datagram, 6);
    header->sender_pid = get<uint32_t>(datagram, 8);
    header->sequence = get<uint32_t>(datagram, 12);
    header->total_length = get<uint32_t>(datagram, 16);
    header->offset = get<uint32_t>(datagram, 20);
    return true;
}

message_s* allocate_message(const frame_header& header)
{
    size_t size = message_payload_offset + static_cast<size_t>(header.total_length) + 1;
    auto* message = static_cast<message_s*>(std::malloc(size));
    if (message == nullptr)
        return nullptr;
    message->source = header.source;
    message->destination = header.destination;
    message->length = header.total_length;
    message->sequence = header.sequence;
    message->sender_pid = header.sender_pid;
    message->flags = 0;
    payload_of(message)[header.total_length] = 0;
    return message;
}

reassembler::reassembler(reassembly_limits bounds) : limits(bounds)
{
    // A single message must always fit in the pending bounds.
    if (limits.max_pending_bytes < limits.max_message_size)
        limits.max_pending_bytes = limits.max_message_size;
    if (limits.max_pending_messages == 0)
        limits.max_pending_messages = 1;
}

reassembler::~reassembler()
{
    clear();
}

void reassembler::drop(pending_map::iterator it)
{
    held_bytes -= it->second.total_length;
    std::free(it->second.message);
    pending.erase(it);
}

void reassembler::clear()
{
    while (!pending.empty())
        drop(pending.begin());
}

void reassembler::expire(int64_t now_ms)
{
    for (auto it = pending.begin(); it != pending.end();) {
        auto next = std::next(it);
        if (now_ms - it->second.last_ms > limits.pending_expiry_ms) {
            drop(it);
            ++dropped_count;
        }
        it = next;
    }
}

void reassembler::make_room(size_t bytes)
{
    while (!pending.empty() && (pending.size() + 1 > limits.max_pending_messages ||
                                held_bytes + bytes > limits.max_pending_bytes)) {
        // A linear search: there are at most a few dozen incomplete messages.
        auto oldest = pending.begin();
        for (auto it = pending.begin(); it != pending.end(); ++it) {
            if (it->second.arrival < oldest->second.arrival)
                oldest = it;
        }
        drop(oldest);
        ++dropped_count;
    }
}

reassembler::feed_result reassembler::feed(const unsigned char* datagram, size_t length, int64_t now_ms,
                                           message_s** message, const char** reason)
{
    *message = nullptr;
    *reason = nullptr;
    frame_header header;
    if (!decode_header(datagram, length, &header)) {
        *reason = "datagram without a frame header";
        return feed_result::dropped;
    }
    // Every check on the header comes before any allocation: the sender is not trusted.
    const size_t chunk_length = length - header_size;
    const size_t total = header.total_length;
    const size_t offset = header.offset;
    if (total > limits.max_message_size) {
        *reason = "message longer than the bus carries";
        return feed_result::dropped;
    }
    if (offset % chunk_size != 0 || (total > 0 && offset >= total) || (total == 0 && offset != 0)) {
        *reason = "fragment offset outside its message";
        return feed_result::dropped;
    }
    const size_t expected_chunk = total - offset < chunk_size ? total - offset : chunk_size;
    if (chunk_length != expected_chunk) {
        *reason = "fragment length does not match its message";
        return feed_result::dropped;
    }
    const unsigned char* chunk = datagram + header_size;

    // A message that fits in one datagram needs no bookkeeping.
    if (offset == 0 && chunk_length == total) {
        message_s* whole = allocate_message(header);
        if (whole == nullptr) {
            *reason = "out of memory";
            return feed_result::dropped;
        }
        if (total > 0)
            std::memcpy(payload_of(whole), chunk, total);
        *message = whole;
        return feed_result::complete;
    }

    expire(now_ms);
    const message_key key(header.sender_pid, header.source, header.sequence);
    auto it = pending.find(key);
    if (it == pending.end()) {
        make_room(total);
        pending_message fresh;
        fresh.message = allocate_message(header);
        if (fresh.message == nullptr) {
            *reason = "out of memory";
            return feed_result::dropped;
        }
        fresh.destination = header.destination;
        fresh.total_length = header.total_length;
        const size_t chunks = (total + chunk_size - 1) / chunk_size;
        fresh.received.assign(chunks, 0);
        fresh.chunks_missing = chunks;
        fresh.arrival = ++arrivals;
        it = pending.emplace(key, std::move(fresh)).first;
        held_bytes += total;
    } else if (it->second.total_length != header.total_length ||
               it->second.destination != header.destination) {
        *reason = "fragment disagrees with the rest of its message";
        return feed_result::dropped;
    }

    pending_message& incomplete = it->second;
    const size_t index = offset / chunk_size;
    if (incomplete.received[index] != 0) {
        *reason = "duplicate fragment";
        return feed_result::dropped;
    }
    std::memcpy(payload_of(incomplete.message) + offset, chunk, chunk_length);
    incomplete.received[index] = 1;
    incomplete.last_ms = now_ms;
    if (--incomplete.chunks_missing > 0)
        return feed_result::partial;

    *message = incomplete.message;
    incomplete.message = nullptr;
    held_bytes -= incomplete.total_length;
    pending.erase(it);
    return feed_result::complete;
}

}  // namespace msgbus_frame
