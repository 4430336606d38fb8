// How a program on the device message bus stops: SIGTERM and SIGINT only ask it to, so that it
// can leave the bus cleanly (its module's socket file removed) before it ends. orvd-bus and the
// bus relays of orvd-vdev both work this way.
#ifndef ORVD_SIM_BUS_STOP_SIGNALS_H
#define ORVD_SIM_BUS_STOP_SIGNALS_H

// Blocks SIGTERM and SIGINT in the calling thread, and so in every thread it makes afterwards:
// call it first, before any thread exists. The two then stay pending until stop_requested()
// takes them. Taking them synchronously, rather than in a handler, means no runtime in between
// (a sanitizer's defers handlers) can lose one. A handler is installed all the same, for a
// thread that unblocks them. SIGPIPE is ignored: a closed output or peer shows up as a failed
// write instead.
void catch_stop_signals();

// True once SIGTERM or SIGINT has come. Never blocks; callers look at least every few
// milliseconds and do not wait in the kernel for long, since a blocked signal does not
// interrupt a waiting call.
bool stop_requested();

#endif
