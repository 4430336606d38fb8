// Scans on both radios, their result tables, and the SSID and station lists.
#include <vector>

#include "core/trace.h"
#include "driver/driver_realtek.h"
#include "driver/ioctl_ops.h"

namespace {

// An RRM scan takes at least this long.
constexpr int rrm_scan_time_s = 6;

}  // namespace

bool driver_realtek::snapshot_enabled(int radio) const
{
    const interface_context* context = get_radio(radio);
    return context != nullptr && context->enabled;
}

bool driver_realtek::scannable(int radio) const
{
    return is_enabled(radio) && !is_wds_enabled(radio) && !is_mesh_enabled(radio) &&
           !is_wids_enabled(radio) && !is_wgb_enabled(radio);
}

int driver_realtek::start(bool active, const std::set<unsigned>& chans0, const std::set<unsigned>& chans1,
                          int& timeout)
{
    trace.info("Attempt to start %s scanning...\n", active ? "active" : "RRM");
    if (!usable() || in_progress)
        return 0;
    if (active) {
        start_active_scan("wlan0", chans0, timeout);
        start_active_scan("wlan1", chans1, timeout);
    } else {
        start_rrm_scan("wlan0", chans0, timeout);
        start_rrm_scan("wlan1", chans1, timeout);
    }
    in_progress = true;
    return 0;
}

// The run flag is not tested, so that scans can be stopped during shutdown: neither here nor
// in stop_active_scan and stop_rrm_scan, which send the stop to every radio that was up at the
// last snapshot.
int driver_realtek::stop(bool active)
{
    trace.info("Attempt to stop %s scanning...\n", active ? "active" : "RRM");
    if (!hostapd_initialized || !in_progress)
        return 0;
    if (active) {
        stop_active_scan("wlan0");
        stop_active_scan("wlan1");
    } else {
        stop_rrm_scan("wlan0");
        stop_rrm_scan("wlan1");
    }
    in_progress = false;
    return 0;
}

int driver_realtek::start_active_scan(char const* ifname, const std::set<unsigned>& chans, int& timeout) const
{
    const int radio = get_radio_id(ifname != nullptr ? ifname : "");
    if (radio < 0) {
        trace.error("<%s:%d> cannot parse ifname(ifname == %s)\n", "start_active_scan", __LINE__,
                    ifname != nullptr ? ifname : "");
        return -1;
    }
    if (!scannable(radio))
        return 0;
    ioctl_ops ops(*this, ifname);
    ops.stop_scan();
    int scan_time = 0;
    if (!chans.empty())
        scan_time = static_cast<int>(chans.size()) * 7 / 10 + 1;
    else
        scan_time = chanspec_band(get_chanspec(ifname)) == RRM_BAND_5G ? 15 : 10;
    if (timeout < scan_time)
        timeout = scan_time;
    return ops.start_scan(chans) != 0 ? -1 : 0;
}

// The RRM scan measures one channel: the smallest asked for (0 when none was).
int driver_realtek::start_rrm_scan(char const* ifname, const std::set<unsigned>& chans, int& timeout) const
{
    const int radio = get_radio_id(ifname != nullptr ? ifname : "");
    if (radio < 0) {
        trace.error("<%s:%d> cannot parse ifname(ifname == %s)\n", "start_rrm_scan", __LINE__,
                    ifname != nullptr ? ifname : "");
        return -1;
    }
    if (!scannable(radio))
        return 0;
    ioctl_ops ops(*this, ifname);
    ops.stop_rrm_scan();
    if (timeout < rrm_scan_time_s)
        timeout = rrm_scan_time_s;
    const unsigned channel = chans.empty() ? 0 : *chans.begin();
    return ops.start_rrm_scan(channel) != 0 ? -1 : 0;
}

int driver_realtek::stop_active_scan(char const* ifname) const
{
    const int radio = get_radio_id(ifname != nullptr ? ifname : "");
    if (radio < 0) {
        trace.error("<%s:%d> cannot parse ifname(ifname == %s)\n", "stop_active_scan", __LINE__,
                    ifname != nullptr ? ifname : "");
        return -1;
    }
    if (snapshot_enabled(radio))
        ioctl_ops(*this, ifname).stop_scan();
    return 0;
}

int driver_realtek::stop_rrm_scan(char const* ifname) const
{
    const int radio = get_radio_id(ifname != nullptr ? ifname : "");
    if (radio < 0) {
        trace.error("<%s:%d> cannot parse ifname(ifname == %s)\n", "stop_rrm_scan", __LINE__,
                    ifname != nullptr ? ifname : "");
        return -1;
    }
    if (snapshot_enabled(radio))
        ioctl_ops(*this, ifname).stop_rrm_scan();
    return 0;
}

int driver_realtek::_fill_ap_table(char const* ifname, ap_table& table) const
{
    if (!scannable(get_radio_id(ifname)))
        return 0;
    return ioctl_ops(*this, ifname).get_scan_result(table);
}

int driver_realtek::_fill_ap_table_vorna_rrm(char const* ifname, ap_table& table) const
{
    if (!scannable(get_radio_id(ifname)))
        return 0;
    return ioctl_ops(*this, ifname).get_rrm_scan_result(table);
}

// wlan0's results, then wlan1's; a failed read of wlan0 leaves wlan1 unread.
int driver_realtek::fill_ap_table(ap_table& table) const
{
    trace.info("Attempt to fill a scanning result table...\n");
    table.clear();
    if (_fill_ap_table("wlan0", table) != 0)
        return -1;
    return _fill_ap_table("wlan1", table) != 0 ? -1 : 0;
}

int driver_realtek::fill_ap_table_vorna_rrm(ap_table& table) const
{
    trace.info("Attempt to fill a rrm scanning result table...\n");
    table.clear();
    if (_fill_ap_table_vorna_rrm("wlan0", table) != 0)
        return -1;
    return _fill_ap_table_vorna_rrm("wlan1", table) != 0 ? -1 : 0;
}

int driver_realtek::get_ssidlist(
    char const* ifname,
    std::function<void(int vap, char const* ssid, char const* mac, bool dot11k)> callback) const
{
    if (!usable() || ifname == nullptr)
        return 0;
    const int radio = get_radio_id(ifname);
    if (!is_enabled(radio))
        return 0;
    for (int v = 0; v < interface_context::max_vaps; ++v) {
        const char* ssid = VapIdToSsid(static_cast<unsigned>(v), radio);
        const char* mac = VapIdToMac(static_cast<unsigned>(v), radio);
        if (ssid != nullptr && mac != nullptr)
            callback(v, ssid, mac, is_802dot11k(radio, v));
    }
    return 0;
}

// Every VAP record is asked, enabled or not; a failed read simply yields no stations.
int driver_realtek::get_assoclist(char const* ifname, std::function<void(const rrm_sta_s&)> callback) const
{
    if (!usable() || ifname == nullptr)
        return 0;
    const int radio = get_radio_id(ifname);
    if (!is_enabled(radio))
        return 0;
    for (const vap_context_s& vap : contexts[radio].vaps) {
        std::vector<rrm_sta_realtek> stations;
        ioctl_ops(*this, vap.name).get_assoc_sta(stations);
        for (rrm_sta_realtek& station : stations) {
            station.ssid = vap.ssid;
            callback(station);
        }
    }
    return 0;
}
