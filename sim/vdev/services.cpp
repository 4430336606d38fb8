#include "services.h"

#include <ctime>

#include "device_root.h"
#include "files.h"

namespace {

const char* const services[] = {"hostapd", "widsd"};
const char* const events[] = {"hostapd_started", "widsd_started", "config_updated", "timezone_changed"};

std::string pid_file(const std::string& service)
{
    return device_path("/var/run/" + service + ".pid");
}

std::string marker(const std::string& event)
{
    return device_path(event.empty() ? "/tmp/.quillon_notify" : "/tmp/.quillon_notify_" + event);
}

// A marker says when it was written; its presence is what counts.
bool touch_marker(const std::string& event, std::string* error)
{
    return replace_file(marker(event), std::to_string(std::time(nullptr)) + "\n", error);
}

}  // namespace

bool service_player::known(const std::string& service)
{
    return service == services[0] || service == services[1];
}

bool service_player::prepare(bool hostapd_running, bool widsd_running, std::string* error)
{
    if (!remove_file(marker(""), error))
        return false;
    for (const char* event : events) {
        if (!remove_file(marker(event), error))
            return false;
    }
    const bool run[] = {hostapd_running, widsd_running};
    for (size_t i = 0; i < 2; ++i) {
        const bool ok = run[i] ? replace_file(pid_file(services[i]), std::to_string(pid_) + "\n", error)
                               : remove_file(pid_file(services[i]), error);
        if (!ok)
            return false;
    }
    return true;
}

bool service_player::start(const std::string& service, std::string* error)
{
    return replace_file(pid_file(service), std::to_string(pid_) + "\n", error) &&
           touch_marker(service + "_started", error) && touch_marker("", error);
}

bool service_player::stop(const std::string& service, std::string* error)
{
    return remove_file(pid_file(service), error);
}

bool service_player::restart(const std::string& service, std::string* error)
{
    return stop(service, error) && start(service, error);
}

bool service_player::running(const std::string& service) const
{
    return file_exists(pid_file(service));
}

bool service_player::notify(const std::string& event, std::string* error)
{
    return touch_marker(event, error) && touch_marker("", error);
}
