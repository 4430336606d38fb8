// The bus side of orvd-vdev. The host bus library holds one module per process, so networkd and
// configd each run in a child process of their own: a relay that registers as the module, hands
// every received message to the simulator over a socket pair and sends the simulator's reply
// back to the message's source. All state stays in the simulator, in one process.
#ifndef ORVD_SIM_VDEV_BUS_RELAY_H
#define ORVD_SIM_VDEV_BUS_RELAY_H

#include <sys/types.h>

#include <string>

#include "requests.h"

struct relay_process {
    bus_role role = bus_role::configd;
    pid_t pid = -1;  // -1 once reaped
    int fd = -1;     // the simulator's end of the socket pair
    bool ready = false;
    std::string inbox;  // bytes received from the relay, not yet a whole frame
};

// Forks the relay. Call it while the simulator has no other thread; the child keeps only its
// end of the socket pair and the standard streams.
bool start_relay(relay_process* relay, std::string* error);

#endif
