// The command line of orvd-vdev.
#ifndef ORVD_SIM_VDEV_OPTIONS_H
#define ORVD_SIM_VDEV_OPTIONS_H

#include <cstdio>
#include <string>
#include <vector>

enum class vdev_mode { help, run, control };

enum vdev_exit_status {
    vdev_exit_ok = 0,
    vdev_exit_failed = 1,     // the tree, the bus or the control socket could not be used
    vdev_exit_bad_input = 2,  // bad arguments or a scenario that does not hold
};

struct vdev_options {
    vdev_mode mode = vdev_mode::help;
    std::string root;
    std::string scenario;
    std::vector<std::string> words;  // the control command, one word per argument
};

// Fills *options from argv; on bad arguments returns false with the problem in *error.
bool parse_options(int argc, char** argv, vdev_options* options, std::string* error);

void print_usage(FILE* out);

#endif
