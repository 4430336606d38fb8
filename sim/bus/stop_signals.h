// How a program on the device message bus stops: SIGTERM and SIGINT only ask it to, so that it
// can leave the bus cleanly (its module's socket file removed) before it ends. orvd-bus and the
// bus relays of orvd-vdev both work this way.
#ifndef ORVD_SIM_BUS_STOP_SIGNALS_H
#define ORVD_SIM_BUS_STOP_SIGNALS_H

// Lets SIGTERM and SIGINT set the flag stop_requested() reads, and unblocks the two, which a
// parent may have left blocked. SIGPIPE is ignored: a closed output or peer shows up as a
// failed write instead.
void catch_stop_signals();
bool stop_requested();

// ModulePeerStart(), its result, with the bus library's receiving thread shielded from SIGTERM
// and SIGINT. A signal delivered to that thread while it waits in the kernel may not run the
// handler until a message arrives (a sanitizer runtime defers it), and a main loop waiting for
// stop_requested() would never stop. The thread inherits the mask in force when it is made.
int start_receiving();

#endif
