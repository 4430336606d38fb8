// orvd-bus: a command-line module on the device message bus, for tests, the lab and debugging.
// See docs/orvd-bus.md.
#include <cstdio>
#include <string>

#include "commands.h"
#include "options.h"
#include "session.h"
#include "vorna_log.h"

int main(int argc, char** argv)
{
    // First of all, so that a stop request never leaves a module's socket file behind.
    catch_stop_signals();

    bus_options options;
    std::string error;
    if (!parse_options(argc, argv, &options, &error)) {
        std::fprintf(stderr, "orvd-bus: %s\n", error.c_str());
        print_usage(stderr, false);
        return exit_bad_input;
    }
    // The bus library's own lines then read "... orvd-bus error: msgbus: ...".
    vorna_log_set_daemonname("orvd-bus");
    switch (options.command) {
    case bus_command::help:
        print_usage(stdout, true);
        return exit_ok;
    case bus_command::send:
        return run_send(options);
    case bus_command::listen:
        return run_listen(options);
    case bus_command::peer:
        return run_peer(options);
    }
    return exit_bad_input;
}
