#include "virtual_device.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "device_tree.h"
#include "radio_state.h"

namespace {

struct text_deleter {
    void operator()(char* text) const { std::free(text); }
};

json_ptr json_from_cfg(const cfg_t* node)
{
    std::unique_ptr<char, text_deleter> text(node == nullptr ? nullptr : cfg_serialize_compact(node));
    return json_ptr(text == nullptr ? nullptr : json_tokener_parse(text.get()));
}

std::string setting(json_object* settings, const char* key)
{
    json_object* value = json_member(settings, key);
    return value == nullptr || !json_object_is_type(value, json_type_string) ? std::string()
                                                                             : json_object_get_string(value);
}

// A whole decimal number, as the configuration tree writes numbers.
bool parse_number(const std::string& text, int* number)
{
    if (text.empty() || text.size() > 6)
        return false;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || !(std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-'))
        return false;
    *number = static_cast<int>(value);
    return true;
}

bool plain_text(json_object* value, std::string* text)
{
    switch (json_object_get_type(value)) {
    case json_type_string:
    case json_type_int:
    case json_type_double:
    case json_type_boolean:
        *text = json_object_get_string(value);
        return true;
    default:
        return false;
    }
}

// Copies every plain value of `params` into `target` as text; false when one is not plain.
bool merge_plain(json_object* target, json_object* params, std::string* reason)
{
    json_object_object_foreach(params, key, value)
    {
        std::string text;
        if (!plain_text(value, &text)) {
            *reason = std::string("parameter ") + key + " is not a plain value";
            return false;
        }
    }
    json_object_object_foreach(params, name, child)
    {
        std::string text;
        plain_text(child, &text);
        json_object_object_add(target, name, json_object_new_string(text.c_str()));
    }
    return true;
}

}  // namespace

virtual_device::virtual_device(scenario setup)
    : scenario_(std::move(setup)), config_(build_config_tree(scenario_))
{
}

bool virtual_device::check_settings(const radio& entry, json_object* settings, radio_settings* result,
                                    std::string* reason) const
{
    const std::string channel = setting(settings, "channel");
    if (!parse_number(channel, &result->use.channel)) {
        *reason = "channel \"" + channel + "\" is not a channel number";
        return false;
    }
    const std::string bandwidth = setting(settings, "bandwidth");
    if (!parse_number(bandwidth, &result->use.bandwidth)) {
        *reason = "bandwidth \"" + bandwidth + "\" is not 20, 40 or 80";
        return false;
    }
    const std::string sideband = setting(settings, "control-sideband");
    if (!sideband.empty() && !parse_sideband(sideband, &result->use.upper)) {
        *reason = "control-sideband \"" + sideband + "\" is not lower or upper";
        return false;
    }
    const std::string power = setting(settings, "tx-power");
    if (!parse_number(power, &result->tx_power)) {
        *reason = "tx-power \"" + power + "\" is not a number of dBm";
        return false;
    }
    if (result->tx_power < entry.tx_power_min || result->tx_power > entry.tx_power_max) {
        *reason = "tx-power " + power + " is outside the limits " + std::to_string(entry.tx_power_min) +
                  ".." + std::to_string(entry.tx_power_max) + " of " + entry.name;
        return false;
    }
    const std::string auto_channel = setting(settings, "auto-channel");
    if (!auto_channel.empty() && auto_channel != "true" && auto_channel != "false") {
        *reason = "auto-channel \"" + auto_channel + "\" is not true or false";
        return false;
    }
    const auto& available = entry.available_channels;
    if (std::find(available.begin(), available.end(), result->use.channel) == available.end()) {
        *reason = "channel " + channel + " is not available on " + entry.name;
        return false;
    }
    std::vector<int> occupied;
    if (!make_chanspec(entry.band, result->use, &result->chanspec, &occupied, reason))
        return false;
    for (const int member : occupied) {
        if (std::find(available.begin(), available.end(), member) == available.end()) {
            *reason = "channel " + std::to_string(member) + " is not available on " + entry.name;
            if (member != result->use.channel)
                *reason += " (needed for " + std::to_string(result->use.bandwidth) + " MHz on channel " +
                           std::to_string(result->use.channel) + ")";
            return false;
        }
    }
    return true;
}

bool virtual_device::build(std::string* error, bool* bad_scenario)
{
    *bad_scenario = false;
    for (radio& entry : scenario_.radios) {
        radio_settings settings;
        std::string reason;
        if (!check_settings(entry, entry.settings.get(), &settings, &reason)) {
            *bad_scenario = true;
            *error = "radio " + entry.name + ": " + reason;
            return false;
        }
        // The tree names the control sideband even when the scenario leaves it to its default.
        if (json_member(entry.settings.get(), "control-sideband") == nullptr) {
            json_object_object_add(entry.settings.get(), "control-sideband",
                                   json_object_new_string(sideband_name(settings.use.upper)));
            cfg_replace(config_.get(), "/interface/" + entry.name + "/wlan", entry.settings_key(),
                        entry.settings.get());
        }
    }
    if (!write_device_files(scenario_, error))
        return false;
    for (const radio& entry : scenario_.radios) {
        radio_settings settings;
        check_settings(entry, entry.settings.get(), &settings, error);
        json_ptr state =
            initial_radio_state(scenario_, added_neighbours_, entry, settings.chanspec, settings.tx_power);
        if (!write_radio_state(entry, state.get(), error) || !write_mib_11n(entry, settings.use, error))
            return false;
    }
    return true;
}

json_ptr virtual_device::current_settings(const radio& entry)
{
    return json_from_cfg(cfg_find(config_.get(), radio_settings_path(entry)));
}

bool virtual_device::apply(const radio& entry, json_object* candidate, const radio_settings& settings,
                           std::string* reason)
{
    std::string error;
    if (!update_radio_state(scenario_, added_neighbours_, entry, settings.chanspec, settings.tx_power,
                            &error) ||
        !write_mib_11n(entry, settings.use, &error)) {
        *reason = error;
        return false;
    }
    if (!cfg_replace(config_.get(), "/interface/" + entry.name + "/wlan", entry.settings_key(), candidate)) {
        *reason = "cannot store the settings of " + entry.name;
        return false;
    }
    return true;
}

bool virtual_device::update_radio(const radio& entry, json_object* params, std::string* reason)
{
    json_ptr candidate = current_settings(entry);
    if (candidate == nullptr) {
        *reason = "the settings of " + entry.name + " are missing";
        return false;
    }
    radio_settings settings;
    return merge_plain(candidate.get(), params, reason) &&
           check_settings(entry, candidate.get(), &settings, reason) &&
           apply(entry, candidate.get(), settings, reason);
}

bool virtual_device::reset_radio(const radio& entry, std::string* reason)
{
    radio_settings settings;
    return check_settings(entry, entry.settings.get(), &settings, reason) &&
           apply(entry, entry.settings.get(), settings, reason);
}

bool virtual_device::update_fast_transition(const vap& entry, json_object* params, std::string* reason)
{
    json_ptr candidate = json_from_cfg(cfg_find(config_.get(), vap_settings_path(entry) + "/ft-config"));
    if (candidate == nullptr)
        candidate.reset(json_object_new_object());
    // orvd sends its whole fast-transition document: the envelope ("version", "service") and
    // an "ft-config" object whose members, the "mac" object of roaming peers among them, go
    // over the VAP's. Plain parameters without that object are merged as for a radio.
    json_object* document = json_member(params, "ft-config");
    if (document != nullptr && json_object_is_type(document, json_type_object)) {
        json_object_object_foreach(document, key, value)
        {
            json_object_object_add(candidate.get(), key, json_object_get(value));
        }
    } else if (!merge_plain(candidate.get(), params, reason)) {
        return false;
    }
    if (!cfg_replace(config_.get(), vap_settings_path(entry), "ft-config", candidate.get())) {
        *reason = "cannot store the fast-transition settings of " + entry.name;
        return false;
    }
    return true;
}

bool virtual_device::reset_fast_transition(const vap& entry, std::string* reason)
{
    json_object* original = json_member(entry.settings.get(), "ft-config");
    json_ptr empty(json_object_new_object());
    if (!cfg_replace(config_.get(), vap_settings_path(entry), "ft-config",
                     original != nullptr ? original : empty.get())) {
        *reason = "cannot store the fast-transition settings of " + entry.name;
        return false;
    }
    return true;
}

bool virtual_device::replace_neighbours(std::vector<neighbour> added, std::string* reason)
{
    added_neighbours_ = std::move(added);
    // One radio that cannot be rewritten does not keep the others from hearing the new set.
    bool all = true;
    for (const radio& entry : scenario_.radios) {
        std::string error;
        if (!replace_scan_results(scenario_, added_neighbours_, entry, &error) && all) {
            *reason = error;
            all = false;
        }
    }
    return all;
}

json_ptr virtual_device::radios_state()
{
    json_ptr radios(json_object_new_object());
    for (const radio& entry : scenario_.radios) {
        json_ptr settings_now = current_settings(entry);
        radio_settings settings;
        std::string reason;
        check_settings(entry, settings_now.get(), &settings, &reason);
        json_object* item = json_object_new_object();
        json_object_object_add(item, "band", json_object_new_int(entry.band));
        json_object_object_add(item, "chanspec", json_object_new_int(settings.chanspec));
        json_object_object_add(item, "actual_tx_power", json_object_new_int(settings.tx_power));
        json_object_object_add(item, "settings", settings_now.release());
        json_object_object_add(radios.get(), entry.name.c_str(), item);
    }
    return radios;
}
