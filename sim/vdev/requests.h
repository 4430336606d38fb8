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

// The reply text to one request received as `role`.
std::string answer_request(virtual_device& device, bus_role role, std::string_view payload);

#endif
