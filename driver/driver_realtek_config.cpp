// Configuration values read through configd, and what the driver derives from them.
#include "core/trace.h"
#include "driver/config_values.h"
#include "driver/driver_realtek.h"
#include "driver/ioctl_ops.h"

namespace {

using config_values::bandwidth_20;

std::optional<std::string> identity(const interface_context*, const std::string&, const std::string& value)
{
    return value;
}

std::optional<std::string> ssid_text(const interface_context*, const std::string&, const std::string& value)
{
    return config_values::ssid(value);
}

std::optional<bool> wpa23(const interface_context*, const std::string&, const std::string& value)
{
    return config_values::is_wpa23(value);
}

const char* radio_name(const interface_context* radio, const std::string& ifname)
{
    return radio != nullptr ? radio->ifname.c_str() : ifname.c_str();
}

std::optional<unsigned> bandwidth_bits(const interface_context* radio, const std::string& ifname,
                                       const std::string& value)
{
    const std::optional<unsigned> bits = config_values::bandwidth_bits(value);
    if (!bits)
        trace.warn("<%s:%d> cannot handle bandwidth of the %s interface(value == %s)\n",
                   "get_config_bandwidth_cb", __LINE__, radio_name(radio, ifname), value.c_str());
    return bits;
}

std::optional<unsigned> sideband_bits(const interface_context* radio, const std::string& ifname,
                                      const std::string& value)
{
    const std::optional<unsigned> bits = config_values::sideband_bits(value);
    if (!bits)
        trace.warn("<%s:%d> cannot handle control sideband of the %s interface(value == %s)\n",
                   "get_config_primary_cb", __LINE__, radio_name(radio, ifname), value.c_str());
    return bits;
}

std::optional<std::set<unsigned>> parse_channel_list(const interface_context*, const std::string&,
                                                     const std::string& value)
{
    return config_values::channel_list(value);
}

}  // namespace

std::string driver_realtek::get_vap_config_path(const std::string& name, const std::string& key) const
{
    std::string path = "/interface/" + name + "/vap/";
    if (!key.empty())
        path += key;
    return path;
}

std::string driver_realtek::get_radio_config_path(const std::string& ifname, const std::string& key) const
{
    const interface_context* radio = radio_by_ifname(ifname);
    if (radio == nullptr || radio->band == RRM_BAND_UNKNOWN)
        return "";
    std::string path = "/interface/" + ifname + "/wlan/";
    if (radio->band == RRM_BAND_2G)
        path += "radio-2g/";
    else if (radio->band == RRM_BAND_5G)
        path += "radio-5g/";
    return path + key;
}

template <typename T>
std::optional<T> driver_realtek::getconf(const char* function, const std::string& ifname,
                                         const std::string& path, const converter_t<T>& convert) const
{
    std::string value;
    const int result = configd_get(path, value);
    trace.debug("<%s:%d> ifname == %s path == %s value %s\n", function, __LINE__, ifname.c_str(),
                path.c_str(), value.c_str());
    if (result != 0) {
        // The value is empty after a failure, so that placeholder prints nothing.
        trace.debug("<%s:%d> cannot take %s value of the %s interface\n", function, __LINE__, value.c_str(),
                    ifname.c_str());
        return std::nullopt;
    }
    return convert(radio_by_ifname(ifname), ifname, value);
}

template <typename T>
std::optional<T> driver_realtek::getconf_radio(const std::string& ifname, const char* key,
                                               const converter_t<T>& convert) const
{
    return getconf<T>("getconf_radio", ifname, get_radio_config_path(ifname, key), convert);
}

template <typename T>
std::optional<T> driver_realtek::getconf_vap(const std::string& name, const char* key,
                                             const converter_t<T>& convert) const
{
    return getconf<T>("getconf_vap", name, get_vap_config_path(name, key), convert);
}

template std::optional<int> driver_realtek::getconf_radio<int>(const std::string&, const char*,
                                                               const converter_t<int>&) const;
template std::optional<bool> driver_realtek::getconf_radio<bool>(const std::string&, const char*,
                                                                 const converter_t<bool>&) const;
template std::optional<std::string>
driver_realtek::getconf_radio<std::string>(const std::string&, const char*,
                                           const converter_t<std::string>&) const;
template std::optional<std::set<unsigned>>
driver_realtek::getconf_radio<std::set<unsigned>>(const std::string&, const char*,
                                                  const converter_t<std::set<unsigned>>&) const;
template std::optional<int> driver_realtek::getconf_vap<int>(const std::string&, const char*,
                                                             const converter_t<int>&) const;
template std::optional<bool> driver_realtek::getconf_vap<bool>(const std::string&, const char*,
                                                               const converter_t<bool>&) const;
template std::optional<std::string>
driver_realtek::getconf_vap<std::string>(const std::string&, const char*,
                                         const converter_t<std::string>&) const;
template std::optional<std::set<unsigned>>
driver_realtek::getconf_vap<std::set<unsigned>>(const std::string&, const char*,
                                                const converter_t<std::set<unsigned>>&) const;

std::string driver_realtek::get_country(char const* ifname) const
{
    if (!usable() || ifname == nullptr || *ifname == '\0')
        return "RU";
    return getconf_radio<std::string>(ifname, "country", identity).value_or("RU");
}

std::string driver_realtek::get_ssid(const std::string& name) const
{
    if (!usable() || name.empty())
        return "";
    return getconf_vap<std::string>(name, "ssid", ssid_text).value_or("");
}

bool driver_realtek::get_captive_portal_state(const std::string& name) const
{
    if (!usable() || name.empty())
        return false;
    return config_values::is_true(
        getconf_vap<std::string>(name, "captive-portal/enabled", identity).value_or(""));
}

bool driver_realtek::get_802dot11k_vap(const std::string& name) const
{
    if (!usable() || name.empty())
        return false;
    return config_values::is_true(
        getconf_vap<std::string>(name, "w80211kv-config/enabled", identity).value_or(""));
}

bool driver_realtek::get_enterprise_vap(const std::string& name) const
{
    if (!usable() || name.empty())
        return false;
    return config_values::is_enterprise(
        getconf_vap<std::string>(name, "security-mode", identity).value_or(""));
}

bool driver_realtek::is_wpa23_vap(const std::string& name) const
{
    return getconf_vap<bool>(name, "security-mode", wpa23).value_or(false);
}

bool driver_realtek::is_fbt_enabled(int radio, int vap) const
{
    if (!is_vap_enabled(radio, vap))
        return false;
    const std::string name = fill_vap_name(radio, vap);
    const auto enabled = getconf_vap<std::string>(name, "ft-config/enabled", identity);
    if (!enabled || !config_values::is_true(*enabled))
        return false;
    return is_wpa23_vap(name);
}

unsigned driver_realtek::get_config_bandwidth(char const* ifname) const
{
    if (!usable() || ifname == nullptr)
        return 0;
    return getconf_radio<unsigned>(ifname, "bandwidth", bandwidth_bits).value_or(bandwidth_20);
}

// Without a usable "control-sideband" the answer is the 20 MHz bit, like the bandwidth's
// default, and the caller ORs it into the radio's configured chanspec bits.
unsigned driver_realtek::get_config_primary(char const* ifname) const
{
    if (!usable() || ifname == nullptr)
        return 0;
    return getconf_radio<unsigned>(ifname, "control-sideband", sideband_bits).value_or(bandwidth_20);
}

void driver_realtek::fill_chanspecs(char const* ifname, std::string& out) const
{
    if (ifname == nullptr)
        return;
    const int radio = get_radio_id(ifname);
    if (!is_enabled(radio) || is_wds_enabled(radio) || is_mesh_enabled(radio) || is_wids_enabled(radio) ||
        is_wgb_enabled(radio))
        return;
    std::set<unsigned> channels;
    ioctl_ops ops(*this, ifname);
    if (ops.get_available_channels(channels) != 0)
        return;
    if (config_values::is_true(
            getconf_radio<std::string>(ifname, "use-limit-channels", identity).value_or(""))) {
        // The configured list replaces the driver's entirely.
        if (auto limited = getconf_radio<std::set<unsigned>>(ifname, "limit-channels", parse_channel_list))
            channels = *limited;
    }
    out.clear();
    for (unsigned channel : channels)
        out += std::to_string(channel) + " ";
    trace.debug("<%s:%d> chanspecs == %s\n", "fill_chanspecs", __LINE__, out.c_str());
}
