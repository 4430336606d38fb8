// Where the host log library's lines go: standard error, without ever stalling the caller.
//
// A daemon must not stop because nobody reads its log: a pipe that is not drained, a slow
// terminal or a serial console would otherwise block every thread that logs, and with them
// the service loop. When standard error is a pipe, a FIFO, a terminal or a socket, lines are
// written without blocking; a line that finds no room is dropped and counted. Regular files
// and /dev/null are written as before.
#ifndef ORVD_PLATFORM_HOST_LOG_SINK_H
#define ORVD_PLATFORM_HOST_LOG_SINK_H

#include <cstddef>

namespace log_sink {

// Writes one whole line. False when it was dropped (counted) for want of room. Takes no lock
// and allocates nothing, so it may run in a signal handler.
bool write_line(const char* line, size_t length);

// The lines dropped since the last call, and resets the count.
unsigned take_dropped();

// Puts back a count taken when the notice that reported it was dropped too.
void add_dropped(unsigned count);

}  // namespace log_sink

#endif
