// Framing of bus messages into datagrams, and their reassembly. Private to the host message
// bus; kept apart from the socket code so that the tests and the fuzzer can drive it directly.
//
// A message of N payload bytes travels as ceil(N / kChunkSize) datagrams (one for N = 0).
// Each datagram is a kHeaderSize-byte header followed by one chunk of the payload:
//   bytes  0-3   magic "OBS1"
//   bytes  4-5   source module (0 when the sender has not registered)
//   bytes  6-7   destination module
//   bytes  8-11  sender pid
//   bytes 12-15  sender's message sequence number
//   bytes 16-19  total payload length of the message
//   bytes 20-23  offset of this chunk in the payload
// Integers are in host byte order (both ends are on the same machine). Every chunk but the
// last is exactly kChunkSize bytes and starts at a multiple of kChunkSize.
#ifndef ORVD_PLATFORM_HOST_MSGBUS_FRAME_H
#define ORVD_PLATFORM_HOST_MSGBUS_FRAME_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "msgbus.h"

namespace msgbus_frame {

constexpr unsigned char kMagic[4] = {'O', 'B', 'S', '1'};
constexpr size_t kHeaderSize = 24;
constexpr size_t kChunkSize = 32 * 1024;
constexpr size_t kMaxDatagramSize = kHeaderSize + kChunkSize;
// The largest payload the bus carries; MsgSend refuses longer ones.
constexpr size_t kMaxMessageSize = 16 * 1024 * 1024;
// Offset of the payload in a received message block (see message_s).
constexpr size_t kMessagePayloadOffset = 17;

struct Header {
    uint16_t source = 0;
    uint16_t destination = 0;
    uint32_t sender_pid = 0;
    uint32_t sequence = 0;
    uint32_t total_length = 0;
    uint32_t offset = 0;
};

// Writes the kHeaderSize bytes of `header` to `out`.
void encode_header(const Header& header, unsigned char* out);

// Reads the header of a datagram; false when it is too short or the magic does not match.
bool decode_header(const unsigned char* datagram, size_t length, Header* header);

// Allocates a message block as handed out by GetMsgFromQueueNoWait: header fields, `length`
// payload bytes (left uninitialised) and the terminating zero byte. Null when out of memory.
message_s* allocate_message(const Header& header);

struct Limits {
    size_t max_message_size = kMaxMessageSize;
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
class Reassembler {
public:
    enum class Status {
        kPartial,   // accepted; the message is not complete yet
        kComplete,  // accepted; *message is the completed message
        kDropped,   // refused; *reason says why
    };

    explicit Reassembler(Limits limits = Limits());
    ~Reassembler();
    Reassembler(const Reassembler&) = delete;
    Reassembler& operator=(const Reassembler&) = delete;

    // Feeds one datagram received at `now_ms` (a monotonic clock). On kComplete, *message is a
    // heap block laid out as message_s that the caller frees with free(). On kDropped,
    // *reason is a static text.
    Status feed(const unsigned char* datagram, size_t length, int64_t now_ms, message_s** message,
                const char** reason);

    // Drops incomplete messages that have waited longer than the expiry time.
    void expire(int64_t now_ms);

    // Drops every incomplete message.
    void clear();

    size_t pending_messages() const { return pending_.size(); }
    size_t pending_bytes() const { return pending_bytes_; }
    // Incomplete messages dropped so far (expired or pushed out by the bounds).
    uint64_t dropped_incomplete() const { return dropped_incomplete_; }

private:
    using Key = std::tuple<uint32_t, uint16_t, uint32_t>;  // sender pid, source, sequence
    struct Pending {
        message_s* message = nullptr;  // payload being filled in
        uint16_t destination = 0;
        uint32_t total_length = 0;
        std::vector<uint8_t> received;  // one flag per chunk
        size_t chunks_missing = 0;
        uint64_t arrival = 0;  // order of arrival, for dropping the oldest first
        int64_t last_ms = 0;
    };

    void drop(std::map<Key, Pending>::iterator it);
    void make_room(size_t bytes);

    Limits limits_;
    std::map<Key, Pending> pending_;
    size_t pending_bytes_ = 0;
    uint64_t arrivals_ = 0;
    uint64_t dropped_incomplete_ = 0;
};

}  // namespace msgbus_frame

#endif
