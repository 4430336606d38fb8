#include "driver/driver_realtek.h"

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/run_flags.h"
#include "core/trace.h"
#include "device_root.h"
#include "libfactory.h"
#include "msgbus.h"

namespace {

// What the bus library expects from the driver's module.
const signed char bus_params[] = {static_cast<signed char>(0xFE), 0x00};
constexpr int vap_count = interface_context::max_vaps;
const char zero_mac[] = "00:00:00:00:00:00";

std::string sysfs_entry(const std::string& name, const char* entry)
{
    return device_path("/sys/class/net/" + name + "/" + entry);
}

// The first line of a file, without its line end; false when it cannot be opened or read.
bool read_first_line(const std::string& path, std::string& line, bool& opened)
{
    FILE* file = fopen(path.c_str(), "r");
    opened = file != nullptr;
    if (file == nullptr)
        return false;
    char buffer[256];
    const bool read = fgets(buffer, sizeof(buffer), file) != nullptr;
    fclose(file);
    if (!read)
        return false;
    buffer[strcspn(buffer, "\r\n")] = '\0';
    line = buffer;
    return true;
}

}  // namespace

vap_context_s* interface_context::get_vap(int id)
{
    return const_cast<vap_context_s*>(static_cast<const interface_context*>(this)->get_vap(id));
}

const vap_context_s* interface_context::get_vap(int id) const
{
    if (id < 0 || id >= max_vaps) {
        trace.debug("<%s:%d> vap_id %d are absence: %s\n", "get_vap", __LINE__, id, "array::at");
        return nullptr;
    }
    return &vaps[id];
}

driver_realtek::driver_realtek(volatile bool& run_flag)
    : running(run_flag), factory{}, in_progress(false), hostapd_initialized(true), wake(nullptr)
{
    factory_data_t data{};
    if (libfactory_load(&data) == 0) {
        memcpy(factory.board, data.board, sizeof(factory.board));
        memcpy(factory.hw, data.hw, sizeof(factory.hw));
        memcpy(factory.serial, data.serial, sizeof(factory.serial));
        memcpy(factory.mac, data.mac, sizeof(factory.mac));
    }
    for (int r = 0; r < context_count; ++r) {
        interface_context& radio = contexts[r];
        radio.mac_offset = r * 8;
        radio.mac_count = 8;
        radio.tx_power_max = 16;
        radio.tx_power_min = 11;
        radio.ifname = "wlan" + std::to_string(r);
        for (int v = 0; v < vap_count; ++v) {
            vap_context_s& vap = radio.vaps[v];
            vap.name = fill_vap_name(r, v);
            vap.mac = interface_is_up(vap.name) ? get_mac_from_driver(vap.name) : zero_mac;
        }
    }
    InitLibParams(MSGBUS_MODULE_RRM, bus_params, sizeof(bus_params));
}

driver_realtek::~driver_realtek()
{
    FreeLibParams();
}

driver_interface& make_driver(volatile bool& running)
{
    static driver_realtek driver(running);
    return driver;
}

bool driver_realtek::usable() const
{
    return hostapd_initialized && read_run_flag(running);
}

bool driver_realtek::interface_is_up(const std::string& name) const
{
    std::string line;
    bool opened = false;
    const std::string path = sysfs_entry(name, "flags");
    if (!read_first_line(path, line, opened)) {
        trace.debug(opened ? "<%s:%d> cannot read entry from sysfs(%s)\n"
                           : "<%s:%d> cannot open entry from sysfs(%s)\n",
                    "interface_is_up", __LINE__, path.c_str());
        return false;
    }
    const long flags = strtol(line.c_str(), nullptr, 16);
    trace.debug("<%s:%d> /sys/class/net/%s/flags == 0x%0x\n", "interface_is_up", __LINE__, name.c_str(),
                static_cast<unsigned>(flags));
    return flags != -1 && (flags & 1) != 0;
}

std::string driver_realtek::get_mac_from_driver(const std::string& name) const
{
    std::string line;
    bool opened = false;
    const std::string path = sysfs_entry(name, "address");
    if (!read_first_line(path, line, opened)) {
        trace.debug(opened ? "<%s:%d> cannot read entry from sysfs(%s)\n"
                           : "<%s:%d> cannot open entry from sysfs(%s)\n",
                    "get_mac_from_driver", __LINE__, path.c_str());
        return zero_mac;
    }
    trace.debug("<%s:%d> %s == %s\n", "get_mac_from_driver", __LINE__, path.c_str(), line.c_str());
    return line;
}

bool driver_realtek::is_if_exists(const std::string& name) const
{
    DIR* dir = opendir(device_path("/sys/class/net/" + name).c_str());
    if (dir == nullptr) {
        trace.debug("<%s:%d> %s interface aren't exist\n", "is_if_exists", __LINE__, name.c_str());
        return false;
    }
    closedir(dir);
    return true;
}

// ---- look-ups and naming ---------------------------------------------------------------

interface_context* driver_realtek::get_radio(int radio)
{
    return const_cast<interface_context*>(static_cast<const driver_realtek*>(this)->get_radio(radio));
}

const interface_context* driver_realtek::get_radio(int radio) const
{
    if (radio < 0 || radio >= context_count) {
        trace.debug("<%s:%d> radio_id %d are absence: %s\n", "get_radio", __LINE__, radio, "array::at");
        return nullptr;
    }
    return &contexts[radio];
}

interface_context* driver_realtek::radio_by_ifname(const std::string& ifname)
{
    return const_cast<interface_context*>(static_cast<const driver_realtek*>(this)->radio_by_ifname(ifname));
}

const interface_context* driver_realtek::radio_by_ifname(const std::string& ifname) const
{
    int radio = -1;
    if (sscanf(ifname.c_str(), "wlan%d", &radio) != 1) {
        trace.debug("<%s:%d> cannot parse interface name(%s)\n", "radio_by_ifname", __LINE__, ifname.c_str());
        return nullptr;
    }
    if (radio < 0 || radio >= context_count) {
        trace.debug("<%s:%d> radio_id %d are absence: %s\n", "radio_by_ifname", __LINE__, radio, "array::at");
        return nullptr;
    }
    return &contexts[radio];
}

int driver_realtek::get_radio_id(const std::string& ifname) const
{
    int radio = -1;
    if (ifname.empty() || sscanf(ifname.c_str(), "wlan%d", &radio) != 1)
        return -1;
    return radio;
}

std::string driver_realtek::fill_vap_name(int radio, int vap) const
{
    return "wlan" + std::to_string(radio) + "-va" + std::to_string(vap);
}

int driver_realtek::fill_vap_name(int radio, int vap, char* buf, unsigned size) const
{
    return snprintf(buf, size, "wlan%d-va%d", radio, vap);
}

int driver_realtek::get_max_radios() const
{
    return max_radios;
}

int driver_realtek::get_max_vap() const
{
    return vap_count;
}

const factory_record_s* driver_realtek::get_factory() const
{
    return &factory;
}

const char* driver_realtek::get_mac() const
{
    return factory.mac;
}

// ---- interface state ------------------------------------------------------------------

bool driver_realtek::get_status(char const* ifname) const
{
    if (!usable() || ifname == nullptr)
        return false;
    return interface_is_up(ifname);
}

bool driver_realtek::get_vap_status(const std::string& name) const
{
    if (!usable() || name.empty())
        return false;
    return interface_is_up(name);
}

bool driver_realtek::get_vap_status(char const* ifname, int vap) const
{
    if (ifname == nullptr)
        return false;
    const interface_context* radio = radio_by_ifname(ifname);
    if (radio == nullptr)
        return false;
    const vap_context_s* record = radio->get_vap(vap);
    return record != nullptr && get_vap_status(record->name);
}

bool driver_realtek::get_wds_enabled(char const*) const
{
    return false;
}

bool driver_realtek::get_mesh_enabled(char const*) const
{
    return false;
}

bool driver_realtek::get_config_wids() const
{
    return false;
}

int driver_realtek::get_config_wids_interface() const
{
    return -1;
}

bool driver_realtek::get_config_wgb() const
{
    return false;
}

int driver_realtek::get_config_wgb_interface() const
{
    return -1;
}

bool driver_realtek::is_widsd_sentry_mode() const
{
    return false;
}

void driver_realtek::set_hostapd_initialized(bool initialized)
{
    hostapd_initialized = initialized;
}

bool driver_realtek::is_hostapd_initialized() const
{
    return hostapd_initialized;
}

bool driver_realtek::is_in_progress() const
{
    return in_progress;
}

// ---- the snapshot ---------------------------------------------------------------------

void driver_realtek::init()
{
    if (!hostapd_initialized)
        return;
    unblock_all_sta("wlan0");
    unblock_all_sta("wlan1");
    stop(true);
    stop(false);
}

void driver_realtek::set_vapcontext()
{
    if (!read_run_flag(running))
        return;
    trace.info("Attempt to initialize interface_context...\n");
    for (int r = 0; r < get_max_radios(); ++r) {
        interface_context& radio = contexts[r];
        const char* ifname = radio.ifname.c_str();
        trace.info("Initializing %s radio...\n", ifname);
        radio.enabled = get_status(ifname);
        if (!is_enabled(r))
            continue;
        radio.wds = get_wds_enabled(ifname);
        radio.mesh = get_mesh_enabled(ifname);
        radio.band = chanspec_band(get_chanspec(ifname));
        radio.country = get_country(ifname);
        radio.obss_coex = get_obss_coex(ifname);
        radio.config_spec = get_config_bandwidth(ifname);
        if ((radio.config_spec & 0x1800) != 0)
            radio.config_spec |= get_config_primary(ifname);
        get_min_max_tx_power(ifname, &radio.tx_power_min, &radio.tx_power_max, radio.band);

        if (radio.wds || radio.mesh || radio.wids || radio.wgb || !hostapd_initialized)
            continue;
        for (int v = 0; v < get_max_vap(); ++v) {
            vap_context_s& vap = radio.vaps[v];
            if (!is_if_exists(vap.name))
                continue;
            trace.info("Initializing %s vap...\n", vap.name.c_str());
            vap.enabled = get_vap_status(vap.name);
            if (!is_vap_enabled(r, v))
                continue;
            vap.ssid = get_ssid(vap.name);
            vap.captive_portal = get_captive_portal_state(vap.name);
            vap.enterprise = get_enterprise_vap(vap.name);
            vap.dot11k = get_802dot11k_vap(vap.name);
        }
    }
}

void driver_realtek::close_vapcontext()
{
    for (interface_context& radio : contexts) {
        radio.enabled = false;
        radio.wds = radio.mesh = radio.wids = radio.wgb = radio.obss_coex = false;
        radio.tx_power_max = 16;
        radio.tx_power_min = 10;  // one less than at construction, as the device does
        radio.config_spec = 0;
        radio.band = RRM_BAND_UNKNOWN;
        for (int v = 0; v < get_max_vap(); ++v) {
            vap_context_s& vap = radio.vaps[v];
            vap.ssid.clear();
            vap.captive_portal = vap.enabled = vap.enterprise = vap.dot11k = false;
        }
    }
}

// Snapshot flags: false unless hostapd is initialised and the process still runs.
#define ORVD_RADIO_FLAG(operation, field)                                                                    \
    bool driver_realtek::operation(int radio) const                                                          \
    {                                                                                                        \
        if (!usable())                                                                                       \
            return false;                                                                                    \
        const interface_context* context = get_radio(radio);                                                 \
        return context != nullptr && context->field;                                                         \
    }

ORVD_RADIO_FLAG(is_enabled, enabled)
ORVD_RADIO_FLAG(is_wds_enabled, wds)
ORVD_RADIO_FLAG(is_mesh_enabled, mesh)
ORVD_RADIO_FLAG(is_wids_enabled, wids)
ORVD_RADIO_FLAG(is_wgb_enabled, wgb)

bool driver_realtek::has_enabled_vaps(int radio) const
{
    if (!usable())
        return false;
    const interface_context* context = get_radio(radio);
    if (context == nullptr)
        return false;
    for (const vap_context_s& vap : context->vaps)
        if (vap.enabled)
            return true;
    return false;
}

bool driver_realtek::is_vap_enabled(int radio, int vap) const
{
    if (!usable())
        return false;
    const interface_context* context = get_radio(radio);
    const vap_context_s* record = context != nullptr ? context->get_vap(vap) : nullptr;
    return record != nullptr && record->enabled;
}

bool driver_realtek::is_802dot11k(int radio, int vap) const
{
    if (!is_enabled(radio) || !is_vap_enabled(radio, vap))
        return false;
    return contexts[radio].vaps[vap].dot11k;
}

bool driver_realtek::is_band(int radio, rrm_band_t band) const
{
    return is_enabled(radio) && contexts[radio].band == band;
}

#define ORVD_RADIO_VALUE(operation, field, neutral)                                                          \
    int driver_realtek::operation(int radio) const                                                           \
    {                                                                                                        \
        const interface_context* context = get_radio(radio);                                                 \
        return context != nullptr ? context->field : (neutral);                                              \
    }

ORVD_RADIO_VALUE(get_tx_power_max, tx_power_max, 16)
ORVD_RADIO_VALUE(get_tx_power_min, tx_power_min, 11)
ORVD_RADIO_VALUE(get_mac_offset, mac_offset, 0)
ORVD_RADIO_VALUE(get_radio_mac_count, mac_count, 0)

unsigned driver_realtek::get_config_spec(int radio) const
{
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->config_spec : 0;
}

bool driver_realtek::is_obss_coex(int radio) const
{
    const interface_context* context = get_radio(radio);
    return context != nullptr && context->obss_coex;
}

// ---- SSID and VAP look-ups --------------------------------------------------------------

int driver_realtek::SsidToVapId(char const* ssid, int radio) const
{
    if (ssid == nullptr || *ssid == '\0' || !is_enabled(radio))
        return -1;
    for (int v = 0; v < vap_count; ++v)
        if (contexts[radio].vaps[v].ssid == ssid)
            return v;
    return -1;
}

const char* driver_realtek::SsidToVap(char const* ssid, int radio) const
{
    const int vap = SsidToVapId(ssid, radio);
    return vap < 0 ? nullptr : contexts[radio].vaps[vap].name.c_str();
}

const char* driver_realtek::VapIdToVap(unsigned vap, int radio) const
{
    if (!is_enabled(radio) || vap >= static_cast<unsigned>(vap_count))
        return nullptr;
    return contexts[radio].vaps[vap].name.c_str();
}

const char* driver_realtek::VapIdToSsid(unsigned vap, int radio) const
{
    if (!is_enabled(radio) || vap >= static_cast<unsigned>(vap_count) ||
        !is_vap_enabled(radio, static_cast<int>(vap)))
        return nullptr;
    return contexts[radio].vaps[vap].ssid.c_str();
}

const char* driver_realtek::VapIdToMac(unsigned vap, int radio) const
{
    if (!is_enabled(radio) || radio < 0 || radio >= get_max_radios() ||
        vap >= static_cast<unsigned>(get_max_vap()) || !is_vap_enabled(radio, static_cast<int>(vap)))
        return nullptr;
    return contexts[radio].vaps[vap].mac.c_str();
}

// ---- exchanges with networkd and configd ------------------------------------------------

int driver_realtek::update_quillon(const std::string& ifname, const daemon_requests::param_list& params) const
{
    return daemons.update_quillon(ifname, params);
}

int driver_realtek::configd_get(const std::string& path, std::string& value) const
{
    return daemons.configd_get(path, value);
}

int driver_realtek::set_quillon_fbt_params(std::string const& ifname, std::string const& params)
{
    return daemons.set_quillon_fbt_params(ifname, params);
}

int driver_realtek::send_reset_quillon(const std::string& ifname) const
{
    return daemons.send_reset_quillon(ifname);
}

void driver_realtek::reset_quillon(ResetQuillonCause cause)
{
    daemons.reset_quillon(cause);
}

int driver_realtek::reset_quillon_fbt(ResetQuillonCause cause) const
{
    return daemons.reset_quillon_fbt(cause);
}

int driver_realtek::__reset_quillon_fbt(ResetQuillonCause) const
{
    return daemons.reset_quillon_fbt_all(get_max_vap());
}
