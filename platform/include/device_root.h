/* Resolves the device's absolute paths (/proc, /sys/class/net, /var/run, /tmp markers, the
 * bus directory) below the environment variable ORVD_ROOT. On a device the variable is unset
 * or empty and paths stay unchanged. This is the only place that reads it. */
#ifndef ORVD_PLATFORM_DEVICE_ROOT_H
#define ORVD_PLATFORM_DEVICE_ROOT_H

#include <string>

/* device_path("/proc/wlan0/mib_11n") is "$ORVD_ROOT/proc/wlan0/mib_11n". */
std::string device_path(const std::string& absolute_path);

#endif
