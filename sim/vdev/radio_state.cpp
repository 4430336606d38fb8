#include "radio_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "device_root.h"
#include "files.h"
#include "mac_address.h"

namespace {

// The driver reports a neighbour's transmit power in quarters of a dBm.
constexpr int tx_power_quarters_per_dbm = 4;

// vrtl holds an flock on sim/vrtl/<radio>.lock for every access to the radio's file, and so does
// the simulator: neither side's read-modify-write can then lose a change of the other.
class radio_lock {
public:
    explicit radio_lock(const radio& entry)
    {
        const std::string path = device_path("/sim/vrtl/" + entry.name + ".lock");
        if (!make_directories(path.substr(0, path.rfind('/')), &problem))
            return;
        fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        while (fd >= 0 && ::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                ::close(fd);
                fd = -1;
            }
        }
        if (fd < 0)
            problem = "cannot lock " + path + ": " + std::strerror(errno);
    }
    ~radio_lock()
    {
        if (fd >= 0)
            ::close(fd);  // releases the lock
    }
    radio_lock(const radio_lock&) = delete;
    radio_lock& operator=(const radio_lock&) = delete;

    // False with the reason when the lock could not be taken.
    bool held(std::string* error) const
    {
        if (fd < 0)
            *error = problem;
        return fd >= 0;
    }

private:
    int fd = -1;
    std::string problem;
};

json_object* new_int_array(const std::vector<int>& values)
{
    json_object* array = json_object_new_array();
    for (const int value : values)
        json_object_array_add(array, json_object_new_int(value));
    return array;
}

json_object* standard_scan_entry(const neighbour& heard, int rssi)
{
    json_object* entry = json_object_new_object();
    json_object_object_add(entry, "bssid", json_object_new_string(format_mac(heard.bssid).c_str()));
    json_object_object_add(entry, "rssi", json_object_new_int(rssi));
    json_object_object_add(entry, "channel", json_object_new_int(heard.use.channel));
    json_object_object_add(entry, "bandwidth", json_object_new_int(heard.use.bandwidth));
    json_object_object_add(entry, "chanspec", json_object_new_int(heard.chanspec));
    return entry;
}

json_object* rrm_scan_entry(const neighbour& heard, int rssi)
{
    json_object* entry = json_object_new_object();
    json_object_object_add(entry, "bssid", json_object_new_string(format_mac(heard.bssid).c_str()));
    json_object_object_add(entry, "rssi", json_object_new_int(rssi));
    json_object_object_add(entry, "tx_power",
                           json_object_new_int(heard.tx_power * tx_power_quarters_per_dbm));
    json_object_object_add(entry, "chanspec", json_object_new_int(heard.chanspec));
    return entry;
}

// Adds what the radio hears of `neighbours` to the two scan lists, in their order.
void add_heard(const std::vector<neighbour>& neighbours, const radio& entry, json_object* standard,
               json_object* rrm)
{
    for (const neighbour& heard : neighbours) {
        const auto rssi = heard.rssi.find(entry.name);
        if (rssi == heard.rssi.end())
            continue;
        if (heard.standard_scan)
            json_object_array_add(standard, standard_scan_entry(heard, rssi->second));
        if (heard.rrm_scan)
            json_object_array_add(rrm, rrm_scan_entry(heard, rssi->second));
    }
}

// Sets scan_results and rrm_scan_results of `state`: the scenario's neighbours the radio hears,
// then the added ones. Replacing a key keeps its place in the object.
void put_scan_results(json_object* state, const scenario& setup, const std::vector<neighbour>& added,
                      const radio& entry)
{
    json_object* standard = json_object_new_array();
    json_object* rrm = json_object_new_array();
    add_heard(setup.neighbours, entry, standard, rrm);
    add_heard(added, entry, standard, rrm);
    json_object_object_add(state, "scan_results", standard);
    json_object_object_add(state, "rrm_scan_results", rrm);
}

json_object* stations_of(const radio& entry)
{
    json_object* by_vap = json_object_new_object();
    for (const vap& member : entry.vaps) {
        json_object* list = json_object_new_array();
        for (const station& client : member.stations) {
            json_object* item = json_object_new_object();
            json_object_object_add(item, "mac", json_object_new_string(format_mac(client.mac).c_str()));
            json_object_object_add(item, "rssi", new_int_array(client.rssi));
            json_object_array_add(list, item);
        }
        json_object_object_add(by_vap, member.name.c_str(), list);
    }
    return by_vap;
}

// Each entry of a list of objects (scan results), and each list of an object of lists
// (stations by VAP), on a line of its own: readable, and easy to compare with the scenario.
std::string entries_text(json_object* value)
{
    if (json_object_is_type(value, json_type_array)) {
        const size_t count = json_object_array_length(value);
        if (count == 0 || !json_object_is_type(json_object_array_get_idx(value, 0), json_type_object))
            return json_text(value);
        std::string text = "[";
        for (size_t i = 0; i < count; ++i)
            text +=
                std::string(i == 0 ? "\n" : ",\n") + "    " + json_text(json_object_array_get_idx(value, i));
        return text + "\n  ]";
    }
    std::string text = "{";
    const char* separator = "\n";
    json_object_object_foreach(value, key, member)
    {
        if (!json_object_is_type(member, json_type_array))
            return json_text(value);
        json_ptr name(json_object_new_string(key));
        text += separator + std::string("    ") + json_text(name.get()) + ": " + json_text(member);
        separator = ",\n";
    }
    return text == "{" ? json_text(value) : text + "\n  }";
}

std::string state_text(json_object* state)
{
    std::string text = "{";
    const char* separator = "\n";
    json_object_object_foreach(state, key, value)
    {
        json_ptr name(json_object_new_string(key));
        text += separator + std::string("  ") + json_text(name.get()) + ": ";
        separator = ",\n";
        const bool nested =
            json_object_is_type(value, json_type_array) || json_object_is_type(value, json_type_object);
        text += nested ? entries_text(value) : json_text(value);
    }
    return text + "\n}\n";
}

}  // namespace

std::string radio_state_path(const radio& entry)
{
    return device_path("/sim/vrtl/" + entry.name + ".json");
}

json_ptr initial_radio_state(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                             int chanspec, int tx_power)
{
    json_ptr state(json_object_new_object());
    json_object_object_add(state.get(), "chanspec", json_object_new_int(chanspec));
    json_object_object_add(state.get(), "actual_tx_power", json_object_new_int(tx_power));
    json_object_object_add(state.get(), "available_channels", new_int_array(entry.available_channels));
    put_scan_results(state.get(), setup, added, entry);
    json_object_object_add(state.get(), "stations", stations_of(entry));
    json_object* mibs = nullptr;
    json_object_deep_copy(entry.mibs.get(), &mibs, nullptr);
    json_object_object_add(state.get(), "mibs", mibs);
    return state;
}

bool write_radio_state(const radio& entry, json_object* state, std::string* error)
{
    radio_lock lock(entry);
    return lock.held(error) && replace_file(radio_state_path(entry), state_text(state), error);
}

bool update_radio_state(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                        int chanspec, int tx_power, std::string* error)
{
    radio_lock lock(entry);
    if (!lock.held(error))
        return false;
    std::string unreadable;
    json_ptr state = json_read_file(radio_state_path(entry), &unreadable);
    if (state == nullptr || !json_object_is_type(state.get(), json_type_object)) {
        state = initial_radio_state(setup, added, entry, chanspec, tx_power);
    } else {
        // Replacing a key keeps its place in the object.
        json_object_object_add(state.get(), "chanspec", json_object_new_int(chanspec));
        json_object_object_add(state.get(), "actual_tx_power", json_object_new_int(tx_power));
    }
    return replace_file(radio_state_path(entry), state_text(state.get()), error);
}

bool replace_scan_results(const scenario& setup, const std::vector<neighbour>& added, const radio& entry,
                          std::string* error)
{
    radio_lock lock(entry);
    if (!lock.held(error))
        return false;
    // A radio without a file has no interface as far as vrtl is concerned; a test that removed
    // it wants it to stay away.
    const std::string path = radio_state_path(entry);
    if (!file_exists(path))
        return true;
    json_ptr state = json_read_file(path, error);
    if (state == nullptr)
        return false;
    if (!json_object_is_type(state.get(), json_type_object)) {
        *error = path + ": not a JSON object";
        return false;
    }
    put_scan_results(state.get(), setup, added, entry);
    return replace_file(path, state_text(state.get()), error);
}
