// orvd-vdev: the device side of the virtual access point. See docs/virtual-ap.md.
#include <cstdio>
#include <string>

#include "control_client.h"
#include "options.h"
#include "simulator.h"

int main(int argc, char** argv)
{
    vdev_options options;
    std::string error;
    if (!parse_options(argc, argv, &options, &error)) {
        std::fprintf(stderr, "orvd-vdev: %s\n", error.c_str());
        print_usage(stderr);
        return vdev_exit_bad_input;
    }
    switch (options.mode) {
    case vdev_mode::help:
        print_usage(stdout);
        return vdev_exit_ok;
    case vdev_mode::control:
        return run_control_client(options);
    case vdev_mode::run:
        return run_simulator(options);
    }
    return vdev_exit_bad_input;
}
