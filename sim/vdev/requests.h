// The answers of networkd and configd. Each request is a configuration tree with a "command";
// its reply names "<command>-response" and a "status" of "ok" or "fail" (with a "reason").
#ifndef ORVD_SIM_VDEV_REQUESTS_H
#define ORVD_SIM_VDEV_REQUESTS_H

#include <string>
#include <string_view>

#include "virtual_device.h"

enum class bus_role { configd, networkd };

int module_of(bus_role role);
const char* name_of(bus_role role);
// The role named "configd" or "networkd"; false for any other name.
bool role_named(const std::string& name, bus_role* role);

// Whether each daemon answers. A muted daemon still receives every request and has it logged,
// but neither acts on it nor replies: to the daemon's driver it looks like a peer that hangs,
// which is what the driver's exchange time-out is there for.
class daemon_voices {
public:
    bool muted(bus_role role) const { return silent[index(role)]; }
    void set_muted(bus_role role, bool muted) { silent[index(role)] = muted; }

private:
    static int index(bus_role role) { return role == bus_role::configd ? 0 : 1; }
    bool silent[2] = {false, false};
};

// The reply text to one request received as `role`.
std::string answer_request(virtual_device& device, bus_role role, std::string_view payload);

#endif
