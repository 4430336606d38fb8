// Framing of bus messages into datagrams, and their reassembly. Private to the host message
// bus; kept apart from the socket code so that the tests and the fuzzer can drive it directly.
//
// A message of N payload bytes travels as ceil(N / chunk_size) datagrams (one for N = 0).
// Each datagram is a header_size-byte header followed by one chunk of the payload:
//   bytes  0-3   magic "OBS1"
//   bytes  4-5   source module (0 when the sender has not registered)
//   bytes  6-7   destination module
//   bytes  8-11  sender pid
//   bytes 12-15  sender's message sequence number
//   bytes 16-19  total payload length of the message
//   bytes 20-23  offset of this chunk in the payload
// Integers are in host byte order (both ends are on the same machine). Every chunk but the
// last is exactly chunk_size bytes and starts at a multiple of chunk_size.
#ifndef ORVD_PLATFORM_HOST_MSGBUS_FRAME_H
#define ORVD_PLATFORM_HOST_MSGBUS_FRAME_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "msgbus.h"

namespace msgbus_frame {

constexpr unsigned char magic[4] = {'O', 'B', 'S', '1'};
constexpr size_t header_size = 24;
// Small enough that a whole datagram fits the default socket buffer many times over.
constexpr size_t chunk_size = 32 * 1024;
constexpr size_t max_datagram_size = header_size + chunk_size;
// MsgSend refuses longer payloads.
constexpr size_t max_message_size = 16 * 1024 * 1024;
// Where the payload starts in a received message block (see message_s).
constexpr size_t message_payload_offset = 17;

struct frame_header {
    uint16_t source = 0;
    uint16_t destination = 0;
    uint32_t sender_pid = 0;
    uint32_t sequence = 0;
    uint32_t total_length = 0;
    uint32_t offset = 0;
};

// Writes the header_size bytes of `header` to `out`.
void encode_header(const frame_header& header, unsigned char* out);

// False when the datagram is too short for a header or the magic does not match.
bool decode_header(const unsigned char* datagram, size_t length, frame_header* header);

// A block as GetMsgFromQueueNoWait hands it out: the header fields, total_length payload bytes
// (left uninitialised) and the terminating zero byte. Null when out of memory.
message_s* allocate_message(const frame_header& header);

struct reassembly_limits {
    size_t max_message_size = msgbus_frame::max_message_size;
    // Memory held by incomplete messages (payload sizes added up), and their number; when a new
    // message would pass either bound the oldest incomplete messages are dropped first.
    size_t max_pending_bytes = 32 * 1024 * 1024;
    size_t max_pending_messages = 64;
    // An incomplete message that gets no fragment for this long is dropped.
    int64_t pending_expiry_ms = 5000;
};

// Puts messages back together from their datagrams, in any order and from any number of
// senders at once (messages are told apart by sender pid, source module and sequence number).
// Malformed or inconsistent datagrams are dropped. Not thread-safe: one receiver owns it.
class reassembler {
public:
    enum class feed_result {
        partial,   // accepted; the message is not complete yet
        complete,  // accepted; *message is the completed message
        dropped,   // refused; *reason says why
    };

    explicit reassembler(reassembly_limits bounds = reassembly_limits());
    ~reassembler();
    reassembler(const reassembler&) = delete;
    reassembler& operator=(const reassembler&) = delete;

    // `now_ms` is a monotonic clock. On complete, *message is a heap block laid out as
    // message_s that the caller frees with free(). On dropped, *reason is a static text.
    feed_result feed(const unsigned char* datagram, size_t length, int64_t now_ms, message_s** message,
                     const char** reason);

    // Drops incomplete messages that have waited longer than the expiry time.
    void expire(int64_t now_ms);

    // Drops every incomplete message.
    void clear();

    size_t pending_messages() const { return pending.size(); }
    size_t pending_bytes() const { return held_bytes; }
    // Incomplete messages dropped so far (expired or pushed out by the bounds).
    uint64_t dropped_incomplete() const { return dropped_count; }

private:
    using message_key = std::tuple<uint32_t, uint16_t, uint32_t>;  // sender pid, source, sequence
    struct pending_message {
        message_s* message = nullptr;  // payload being filled in
        uint16_t destination = 0;
        uint32_t total_length = 0;
        std::vector<uint8_t> received;  // one flag per chunk
        size_t chunks_missing = 0;
        uint64_t arrival = 0;  // order of arrival, for dropping the oldest first
        int64_t last_ms = 0;
    };
    using pending_map = std::map<message_key, pending_message>;

    void drop(pending_map::iterator it);
    void make_room(size_t bytes);

    reassembly_limits limits;
    pending_map pending;
    size_t held_bytes = 0;
    uint64_t arrivals = 0;
    uint64_t dropped_count = 0;
};

}  // namespace msgbus_frame

#endif
