#include "control_commands.h"

#include <sstream>
#include <utility>
#include <vector>

namespace {

const char* const help_text =
    "commands: hostapd start|stop|restart, widsd start|stop|restart, configd mute|unmute, "
    "networkd mute|unmute, neighbours FILE, config-updated, timezone-changed, state, quit";

std::vector<std::string> words_of(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

std::string outcome(bool ok, const std::string& error)
{
    return ok ? "ok" : "error " + error;
}

std::string service_command(const std::string& service, const std::string& action, service_player& services)
{
    std::string error;
    if (action == "start")
        return outcome(services.start(service, &error), error);
    if (action == "stop")
        return outcome(services.stop(service, &error), error);
    if (action == "restart")
        return outcome(services.restart(service, &error), error);
    return "error " + service + " takes start, stop or restart";
}

std::string daemon_command(bus_role role, const std::string& action, daemon_voices& voices)
{
    if (action != "mute" && action != "unmute")
        return std::string("error ") + name_of(role) + " takes mute or unmute";
    voices.set_muted(role, action == "mute");
    return "ok";
}

// The neighbours the access point hears beyond its scenario's, from a file the whole of which
// is checked before any radio's state changes.
std::string neighbours_command(const std::vector<std::string>& words, virtual_device& device)
{
    if (words.size() != 2)
        return "error neighbours takes one file: neighbours /absolute/path.json";
    const std::string& path = words[1];
    // The simulator's working directory is not the caller's.
    if (path[0] != '/')
        return "error " + path + ": not an absolute path";
    std::vector<neighbour> added;
    try {
        added = load_neighbours(path, device.setup());
    } catch (const scenario_error& problem) {
        return std::string("error ") + problem.what();
    }
    std::string error;
    return outcome(device.replace_neighbours(std::move(added), &error), error);
}

std::string state_of(control_context* context)
{
    json_ptr state(json_object_new_object());
    json_object_object_add(state.get(), "radios", context->device.radios_state().release());
    json_object* services = json_object_new_object();
    for (const char* service : {"hostapd", "widsd"})
        json_object_object_add(services, service,
                               json_object_new_boolean(context->services.running(service)));
    json_object_object_add(state.get(), "services", services);
    json_object* muted = json_object_new_object();
    for (bus_role role : {bus_role::configd, bus_role::networkd})
        json_object_object_add(muted, name_of(role), json_object_new_boolean(context->voices.muted(role)));
    json_object_object_add(state.get(), "muted", muted);
    return "ok " + json_text(state.get());
}

}  // namespace

std::string run_control_command(const std::string& line, control_context* context)
{
    const std::vector<std::string> words = words_of(line);
    if (words.empty())
        return "error empty command";
    const std::string& command = words[0];
    std::string error;
    if (service_player::known(command) && words.size() == 2)
        return service_command(command, words[1], context->services);
    bus_role role;
    if (role_named(command, &role) && words.size() == 2)
        return daemon_command(role, words[1], context->voices);
    if (command == "neighbours")
        return neighbours_command(words, context->device);
    if (words.size() != 1)
        return "error unknown command: " + line + " (" + help_text + ")";
    if (command == "config-updated")
        return outcome(context->services.notify("config_updated", &error), error);
    if (command == "timezone-changed")
        return outcome(context->services.notify("timezone_changed", &error), error);
    if (command == "state")
        return state_of(context);
    if (command == "quit") {
        context->quit = true;
        return "ok";
    }
    if (command == "help")
        return std::string("ok ") + help_text;
    return "error unknown command: " + line + " (" + help_text + ")";
}
