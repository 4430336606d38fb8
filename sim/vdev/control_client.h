// `orvd-vdev --root DIR ctl COMMAND...`: sends one command to the simulator running on DIR.
#ifndef ORVD_SIM_VDEV_CONTROL_CLIENT_H
#define ORVD_SIM_VDEV_CONTROL_CLIENT_H

#include "options.h"

// Prints the text of an "ok" answer on standard output and exits 0; an "error" answer, or no
// simulator to ask, goes to standard error with status 1.
int run_control_client(const vdev_options& options);

#endif
