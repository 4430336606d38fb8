// What a bus relay and the simulator say to each other over their socket pair: frames of a
// kind, a module number and a payload (1 + 2 + 4 header bytes in host order, then the payload).
#ifndef ORVD_SIM_VDEV_RELAY_FRAME_H
#define ORVD_SIM_VDEV_RELAY_FRAME_H

#include <cstdint>
#include <string>

enum class frame_kind : uint8_t {
    ready = 1,    // relay → simulator: registered and receiving
    failed = 2,   // relay → simulator: could not register; the payload says why
    request = 3,  // relay → simulator: a message from `module`
    reply = 4,    // simulator → relay: the answer to the last request
    silence = 5,  // simulator → relay: the last request goes unanswered (a muted daemon)
};

struct relay_frame {
    frame_kind kind = frame_kind::ready;
    uint16_t module = 0;
    std::string payload;
};

constexpr size_t relay_frame_header = 7;

std::string encode_frame(const relay_frame& frame);

// Takes the first whole frame off `buffer`; false while it is incomplete.
bool take_frame(std::string* buffer, relay_frame* frame);

// Writes a whole frame, waiting for room when the socket is full. False when the peer is gone.
bool write_frame(int fd, const relay_frame& frame);

// Reads one whole frame, blocking. False at the end of the connection, or when a signal
// interrupts the wait and `interrupted()` says to give up.
bool read_frame(int fd, relay_frame* frame, bool (*interrupted)());

#endif
