// The commands of the control interface, each answered by one line: "ok", "ok <text>" or
// "error <reason>".
#ifndef ORVD_SIM_VDEV_CONTROL_COMMANDS_H
#define ORVD_SIM_VDEV_CONTROL_COMMANDS_H

#include <string>

#include "requests.h"
#include "services.h"
#include "virtual_device.h"

struct control_context {
    virtual_device& device;
    service_player& services;
    daemon_voices& voices;
    bool quit = false;  // set by "quit"
};

// The reply to one command line, without its newline.
std::string run_control_command(const std::string& line, control_context* context);

#endif
