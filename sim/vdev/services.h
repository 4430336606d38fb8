// hostapd and widsd as the agent sees them: pid files in /var/run and the notify markers in /tmp
// (a specific marker first, then the master marker ".quillon_notify" that says "look").
#ifndef ORVD_SIM_VDEV_SERVICES_H
#define ORVD_SIM_VDEV_SERVICES_H

#include <sys/types.h>

#include <string>

class service_player {
public:
    // `pid` goes into the pid files: the simulator's own, so the pid is alive while it runs.
    explicit service_player(pid_t pid) : pid_(pid) {}

    static bool known(const std::string& service);

    // Removes the markers of an earlier run and makes the pid files say which services run.
    bool prepare(bool hostapd_running, bool widsd_running, std::string* error);

    bool start(const std::string& service, std::string* error);
    bool stop(const std::string& service, std::string* error);
    bool restart(const std::string& service, std::string* error);
    bool running(const std::string& service) const;

    // "config_updated" or "timezone_changed": the event's marker, then the master marker.
    bool notify(const std::string& event, std::string* error);

private:
    pid_t pid_;
};

#endif
