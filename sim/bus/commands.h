// The subcommands of orvd-bus; each returns the process's exit status.
#ifndef ORVD_SIM_BUS_COMMANDS_H
#define ORVD_SIM_BUS_COMMANDS_H

#include "options.h"

enum exit_status {
    exit_ok = 0,
    exit_failed = 1,     // not delivered, module taken, output closed
    exit_bad_input = 2,  // bad arguments, malformed escaped line
};

int run_send(const bus_options& options);
int run_listen(const bus_options& options);
int run_peer(const bus_options& options);

#endif
