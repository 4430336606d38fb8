// What the orvd-bus subcommands share: stop requests, membership on the bus, received messages
// and printing them.
#ifndef ORVD_SIM_BUS_SESSION_H
#define ORVD_SIM_BUS_SESSION_H

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "msgbus.h"
#include "stop_signals.h"

// Registration as one module for the object's life. Leaving stops the peer and frees the
// module, so its socket file is gone afterwards.
class bus_membership {
public:
    bus_membership() = default;
    ~bus_membership() { leave(); }
    bus_membership(const bus_membership&) = delete;
    bus_membership& operator=(const bus_membership&) = delete;

    // Registers as `module`, and with `receive` also starts the peer. Prints the reason on
    // standard error when it fails.
    bool join(int module, bool receive);
    void leave();

private:
    bool joined = false;
};

struct message_deleter {
    void operator()(message_s* message) const { std::free(message); }
};
using message_ptr = std::unique_ptr<message_s, message_deleter>;

// The next received message, waiting until `deadline` at most; null when none came in time or
// a stop was requested.
message_ptr next_message(std::chrono::steady_clock::time_point deadline);

inline std::string_view payload_of(const message_s& message)
{
    return std::string_view(message.payload, message.length);
}

// Writes one received message to standard output, raw (the payload and a newline) or as one
// escaped line, and flushes it. False when standard output is gone.
bool print_message(std::string_view payload, bool escaped);

#endif
