// `orvd-vdev --root DIR --scenario FILE`: builds the device tree, starts the two bus relays and
// serves requests and control commands until SIGTERM, SIGINT or "quit".
#ifndef ORVD_SIM_VDEV_SIMULATOR_H
#define ORVD_SIM_VDEV_SIMULATOR_H

#include "options.h"

int run_simulator(const vdev_options& options);

#endif
