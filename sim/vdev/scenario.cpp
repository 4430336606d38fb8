#include "scenario.h"

#include <algorithm>
#include <set>

#include "mac_address.h"

namespace {

// Radio wlanN takes base + 16·N and its VAP i base + 16·N + i (VAP 0 shares the radio's address):
// the BSSID and R1 key holder orvd derives for a VAP, so what peers are told matches the air.
constexpr uint64_t radio_mac_stride = 16;
constexpr int max_vaps_per_radio = 15;
constexpr int chains = 4;

uint64_t mac_at(json_object* object, const char* key, const std::string& where)
{
    const std::string text = json_string(object, key, where);
    uint64_t mac = 0;
    if (!parse_mac(text, &mac))
        throw scenario_error(json_where(where, key) + ": \"" + text + "\" is not a MAC address");
    return mac;
}

// The configuration tree holds text only: numbers and booleans become their text, objects
// keep their shape; anything else has no place in the tree.
json_ptr settings_copy(json_object* value, const std::string& where)
{
    json_ptr copy(json_object_new_object());
    json_object_object_foreach(value, key, child)
    {
        const std::string at = json_where(where, key);
        json_object* leaf = nullptr;
        switch (json_object_get_type(child)) {
        case json_type_object:
            leaf = settings_copy(child, at).release();
            break;
        case json_type_string:
        case json_type_int:
        case json_type_double:
        case json_type_boolean:
            leaf = json_object_new_string(json_object_get_string(child));
            break;
        default:
            throw scenario_error(at + ": a setting is text or an object of settings");
        }
        json_object_object_add(copy.get(), key, leaf);
    }
    return copy;
}

json_ptr settings_at(json_object* object, const std::string& where)
{
    json_object* settings = json_object_or_null(object, "settings", where);
    if (settings == nullptr)
        throw scenario_error(json_where(where, "settings") + ": missing");
    return settings_copy(settings, json_where(where, "settings"));
}

factory_record read_factory(json_object* root)
{
    json_object* factory = json_object_or_null(root, "factory", "");
    if (factory == nullptr)
        throw scenario_error("factory: missing");
    factory_record record;
    record.board = json_string(factory, "board", "factory");
    record.hw = json_string(factory, "hw", "factory");
    record.serial = json_string(factory, "serial", "factory");
    record.mac = json_string(factory, "mac", "factory");
    return record;
}

std::vector<int> read_channels(json_object* list, const std::string& where, int band)
{
    std::vector<int> channels;
    for (size_t i = 0; i < json_object_array_length(list); ++i) {
        const std::string at = json_where(where, i);
        const int channel = json_int_value(json_object_array_get_idx(list, i), at);
        if (band_of_channel(channel) != band)
            throw scenario_error(at + ": " + std::to_string(channel) +
                                 " is not a channel of the radio's band");
        if (std::find(channels.begin(), channels.end(), channel) != channels.end())
            throw scenario_error(at + ": channel " + std::to_string(channel) + " listed twice");
        channels.push_back(channel);
    }
    if (channels.empty())
        throw scenario_error(where + ": no channel");
    return channels;
}

station read_station(json_object* object, const std::string& where)
{
    station entry;
    entry.mac = mac_at(object, "mac", where);
    json_object* rssi = json_array(object, "rssi", where);
    if (json_object_array_length(rssi) != chains)
        throw scenario_error(json_where(where, "rssi") + ": one reading per receive chain, four in all");
    for (size_t i = 0; i < chains; ++i) {
        const std::string at = json_where(json_where(where, "rssi"), i);
        const int reading = json_int_value(json_object_array_get_idx(rssi, i), at);
        if (reading < -100 || reading > 0)
            throw scenario_error(at + ": a reading in dBm between -100 and 0");
        entry.rssi.push_back(reading);
    }
    return entry;
}

vap read_vap(json_object* object, const std::string& where, const radio& owner, int index, uint64_t base)
{
    vap entry;
    entry.name = owner.name + "-va" + std::to_string(index);
    entry.up = json_bool_or(object, "up", where, true);
    entry.mac = json_member(object, "mac") != nullptr
                    ? mac_at(object, "mac", where)
                    : mac_plus(base, radio_mac_stride * static_cast<uint64_t>(owner.number) +
                                         static_cast<uint64_t>(index));
    entry.settings = settings_at(object, where);
    if (json_object* list = json_array_or_null(object, "stations", where)) {
        for (size_t i = 0; i < json_object_array_length(list); ++i)
            entry.stations.push_back(read_station(json_object_array_get_idx(list, i),
                                                  json_where(json_where(where, "stations"), i)));
    }
    return entry;
}

int radio_number(const std::string& name)
{
    if (name.size() < 5 || name.size() > 6 || name.compare(0, 4, "wlan") != 0)
        return -1;
    int number = 0;
    for (size_t i = 4; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9')
            return -1;
        number = number * 10 + (name[i] - '0');
    }
    return number;
}

radio read_radio(json_object* object, const std::string& where, uint64_t base)
{
    radio entry;
    entry.name = json_string(object, "name", where);
    entry.number = radio_number(entry.name);
    if (entry.number < 0)
        throw scenario_error(json_where(where, "name") + ": a radio is named wlan0, wlan1, ...");
    entry.band = json_int(object, "band", where);
    if (entry.band != 2 && entry.band != 5)
        throw scenario_error(json_where(where, "band") + ": 2 (2.4 GHz) or 5 (5 GHz)");
    entry.up = json_bool_or(object, "up", where, true);
    entry.mac = json_member(object, "mac") != nullptr
                    ? mac_at(object, "mac", where)
                    : mac_plus(base, radio_mac_stride * static_cast<uint64_t>(entry.number));
    entry.coexist = json_int_or(object, "coexist", where, 0);
    if (entry.coexist != 0 && entry.coexist != 1)
        throw scenario_error(json_where(where, "coexist") + ": 0 or 1");

    json_object* limits = json_array(object, "tx-power-limits", where);
    const std::string limits_at = json_where(where, "tx-power-limits");
    if (json_object_array_length(limits) != 2)
        throw scenario_error(limits_at + ": [min, max] in dBm");
    entry.tx_power_min =
        json_int_value(json_object_array_get_idx(limits, 0), json_where(limits_at, size_t{0}));
    entry.tx_power_max =
        json_int_value(json_object_array_get_idx(limits, 1), json_where(limits_at, size_t{1}));
    if (entry.tx_power_min > entry.tx_power_max)
        throw scenario_error(limits_at + ": min above max");

    entry.available_channels = read_channels(json_array(object, "available-channels", where),
                                             json_where(where, "available-channels"), entry.band);
    entry.settings = settings_at(object, where);

    entry.mibs.reset(json_object_new_object());
    json_object_object_add(entry.mibs.get(), "rrm_scan_chan", json_object_new_string("0"));
    json_object_object_add(entry.mibs.get(), "rrm_scan_started", json_object_new_string("0"));
    if (json_object* mibs = json_object_or_null(object, "mibs", where)) {
        json_object_object_foreach(mibs, key, value)
        {
            json_object_object_add(entry.mibs.get(), key, json_object_get(value));
        }
    }

    json_object* vaps = json_array(object, "vaps", where);
    const size_t count = json_object_array_length(vaps);
    if (count == 0 || count > max_vaps_per_radio)
        throw scenario_error(json_where(where, "vaps") + ": between 1 and " +
                             std::to_string(max_vaps_per_radio) + " VAPs");
    for (size_t i = 0; i < count; ++i)
        entry.vaps.push_back(read_vap(json_object_array_get_idx(vaps, i),
                                      json_where(json_where(where, "vaps"), i), entry, static_cast<int>(i),
                                      base));
    return entry;
}

void read_scans(json_object* object, const std::string& where, neighbour* entry)
{
    json_object* scans = json_array_or_null(object, "scans", where);
    if (scans == nullptr)
        return;
    entry->standard_scan = entry->rrm_scan = false;
    for (size_t i = 0; i < json_object_array_length(scans); ++i) {
        json_object* kind = json_object_array_get_idx(scans, i);
        const std::string text =
            json_object_is_type(kind, json_type_string) ? json_object_get_string(kind) : "";
        if (text == "standard")
            entry->standard_scan = true;
        else if (text == "rrm")
            entry->rrm_scan = true;
        else
            throw scenario_error(json_where(json_where(where, "scans"), i) + ": \"standard\" or \"rrm\"");
    }
}

neighbour read_neighbour(json_object* object, const std::string& where, const scenario& owner)
{
    neighbour entry;
    entry.bssid = mac_at(object, "bssid", where);
    entry.ssid = json_string_or(object, "ssid", where, "");
    entry.use.channel = json_int(object, "channel", where);
    entry.band = band_of_channel(entry.use.channel);
    if (entry.band == 0)
        throw scenario_error(json_where(where, "channel") + ": not a Wi-Fi channel");
    entry.use.bandwidth = json_int_or(object, "bandwidth", where, 20);
    const std::string sideband = json_string_or(object, "control-sideband", where, "lower");
    if (!parse_sideband(sideband, &entry.use.upper))
        throw scenario_error(json_where(where, "control-sideband") + ": lower or upper");
    std::vector<int> occupied;
    std::string reason;
    if (!make_chanspec(entry.band, entry.use, &entry.chanspec, &occupied, &reason))
        throw scenario_error(where + ": " + reason);
    entry.tx_power = json_int_or(object, "tx-power", where, 20);

    json_object* heard = json_object_or_null(object, "rssi", where);
    if (heard == nullptr)
        throw scenario_error(json_where(where, "rssi") + ": missing");
    json_object_object_foreach(heard, name, value)
    {
        const std::string at = json_where(json_where(where, "rssi"), name);
        const radio* listener = owner.find_radio(name);
        if (listener == nullptr)
            throw scenario_error(at + ": no such radio");
        if (listener->band != entry.band)
            throw scenario_error(at + ": a " + std::to_string(listener->band) +
                                 " GHz radio cannot hear this neighbour's channel");
        const int rssi = json_int_value(value, at);
        if (rssi < -100 || rssi > 0)
            throw scenario_error(at + ": a reading in dBm between -100 and 0");
        entry.rssi[name] = rssi;
    }
    read_scans(object, where, &entry);
    return entry;
}

// The neighbours of a JSON array, each checked against the radios of `owner`.
std::vector<neighbour> read_neighbours(json_object* list, const std::string& where, const scenario& owner)
{
    std::vector<neighbour> entries;
    for (size_t i = 0; i < json_object_array_length(list); ++i)
        entries.push_back(read_neighbour(json_object_array_get_idx(list, i), json_where(where, i), owner));
    return entries;
}

}  // namespace

const radio* scenario::find_radio(const std::string& name) const
{
    for (const radio& entry : radios) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

const vap* scenario::find_vap(const std::string& name) const
{
    for (const radio& owner : radios) {
        for (const vap& entry : owner.vaps) {
            if (entry.name == name)
                return &entry;
        }
    }
    return nullptr;
}

scenario load_scenario(const std::string& path)
{
    std::string error;
    json_ptr root = json_read_file(path, &error);
    if (root == nullptr)
        throw scenario_error(error);
    if (!json_object_is_type(root.get(), json_type_object))
        throw scenario_error("the scenario is one JSON object");

    scenario result;
    result.factory = read_factory(root.get());
    uint64_t base = 0;
    if (!parse_mac(result.factory.mac, &base))
        throw scenario_error("factory.mac: \"" + result.factory.mac + "\" is not a MAC address");

    json_object* radios = json_array(root.get(), "radios", "");
    std::set<std::string> names;
    for (size_t i = 0; i < json_object_array_length(radios); ++i) {
        result.radios.push_back(
            read_radio(json_object_array_get_idx(radios, i), json_where("radios", i), base));
        if (!names.insert(result.radios.back().name).second)
            throw scenario_error(json_where("radios", i) + ": radio " + result.radios.back().name +
                                 " listed twice");
    }
    if (result.radios.empty())
        throw scenario_error("radios: no radio");

    if (json_object* neighbours = json_array_or_null(root.get(), "neighbours", ""))
        result.neighbours = read_neighbours(neighbours, "neighbours", result);

    if (json_object* services = json_object_or_null(root.get(), "services", "")) {
        result.hostapd_running = json_bool_or(services, "hostapd", "services", true);
        result.widsd_running = json_bool_or(services, "widsd", "services", false);
    }
    return result;
}

std::vector<neighbour> load_neighbours(const std::string& path, const scenario& owner)
{
    std::string error;
    json_ptr root = json_read_file(path, &error);
    if (root == nullptr)
        throw scenario_error(error);
    if (!json_object_is_type(root.get(), json_type_array))
        throw scenario_error(path + ": expected a JSON array of neighbours");
    try {
        return read_neighbours(root.get(), "", owner);
    } catch (const scenario_error& problem) {
        throw scenario_error(path + ": " + problem.what());
    }
}
