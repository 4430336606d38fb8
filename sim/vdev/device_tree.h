// The files the driver and the device libraries read below the device root: interface flags
// and addresses (sysfs), the 802.11n MIB and the neighbour reports (procfs), the factory record
// and the transmit-power limits (etc).
#ifndef ORVD_SIM_VDEV_DEVICE_TREE_H
#define ORVD_SIM_VDEV_DEVICE_TREE_H

#include <string>

#include "channels.h"
#include "scenario.h"

// Everything but the radio state files, which virtual_device writes with the radio settings.
bool write_device_files(const scenario& setup, std::string* error);

// proc/<radio>/mib_11n for the radio transmitting on `use`; rewritten on every channel change.
bool write_mib_11n(const radio& entry, const channel_use& use, std::string* error);

#endif
