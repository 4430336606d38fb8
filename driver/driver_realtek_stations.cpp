// Station control (not supported by this driver), 802.11k neighbour reports through procfs,
// and the driver event pump.
#include <sys/select.h>

#include <cstdio>
#include <cstdlib>

#include "core/trace.h"
#include "core/wake_event.h"
#include "device_root.h"
#include "driver/driver_realtek.h"

namespace {

// The longest the agent's loop waits for work between two rounds.
const int pacing_ms = 100;

// The per-VAP command file of the driver's neighbour-report list.
std::string neighbour_report_file(const char* vap)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%s/rm_neighbor_report", vap);
    return device_path(path);
}

// Six hexadecimal numbers, each followed by one separator of any kind; false with fewer.
bool parse_bssid(const char* text, unsigned char bytes[6])
{
    int count = 0;
    const char* at = text;
    while (count < 6 && *at != '\0') {
        char* end = nullptr;
        bytes[count++] = static_cast<unsigned char>(strtoul(at, &end, 16) & 0xFF);
        if (*end == '\0')
            break;
        at = end + 1;
    }
    return count == 6;
}

}  // namespace

#define ORVD_NOT_SUPPORTED(operation, ...)                                                                   \
    void driver_realtek::operation(__VA_ARGS__) const                                                        \
    {                                                                                                        \
        trace.debug("%s: not supported\n", #operation);                                                      \
    }

ORVD_NOT_SUPPORTED(block_sta, char const*, char const*)
ORVD_NOT_SUPPORTED(block_sta_data, char const*, char const*)
ORVD_NOT_SUPPORTED(unblock_sta, char const*, char const*)
ORVD_NOT_SUPPORTED(unblock_all_sta, char const*)
ORVD_NOT_SUPPORTED(set_vorna_sta_rssi_thr_high, char const*, int)
ORVD_NOT_SUPPORTED(set_vorna_sta_rssi_thr_low, char const*, int)
ORVD_NOT_SUPPORTED(probsup_rrm_max_age, char const*, int)
ORVD_NOT_SUPPORTED(probsup_rrm_client_try_no_balance, char const*, int)
ORVD_NOT_SUPPORTED(rssi_renew_interval, char const*, int)
ORVD_NOT_SUPPORTED(disassoc_sta, char const*, char const*)

bool driver_realtek::probsup_find(char const*, char const*) const
{
    trace.debug("%s: not supported\n", "probsup_find");
    return false;
}

void driver_realtek::set_rrm_nbr_ap_list(char const* bssid, char const* ssid, int channel) const
{
    if (!usable() || bssid == nullptr)
        return;
    unsigned char bytes[6];
    if (!parse_bssid(bssid, bytes))
        return;
    const bool two_ghz = channel < 30;
    for (int r = 0; r < get_max_radios(); ++r) {
        if (!is_band(r, channel_band(channel)))
            continue;
        const int vap = SsidToVapId(ssid, r);
        if (!is_802dot11k(r, vap))
            continue;
        const char* name = SsidToVap(ssid, r);
        if (name == nullptr)
            continue;
        trace.debug("Execute rrm_nbr_add_nbr '%s' - '%s' - '%s'\n", name, ssid, bssid);
        FILE* file = fopen(neighbour_report_file(name).c_str(), "w+");
        if (file == nullptr) {
            trace.debug("Error rrm_nbr_add_nbr\n");
            return;
        }
        // The BSSID goes last byte first, each byte through a signed char: 0x80 and above
        // print as eight hex digits, which the driver's parser expects.
        fprintf(file, "add %02x%02x%02x%02x%02x%02x 0x%04X %d %d %d ssid \"%s\" bssload %d %d",
                static_cast<signed char>(bytes[5]), static_cast<signed char>(bytes[4]),
                static_cast<signed char>(bytes[3]), static_cast<signed char>(bytes[2]),
                static_cast<signed char>(bytes[1]), static_cast<signed char>(bytes[0]),
                two_ghz ? 0x0867 : 0x1867, 255, channel, two_ghz ? 7 : 9, ssid, 0, 0);
        fclose(file);
    }
}

void driver_realtek::clear_rrm_nbr_ap_list(char const* ifname) const
{
    // Unlike the add, the run flag is not tested: lists are cleared during shutdown too.
    if (!hostapd_initialized || ifname == nullptr)
        return;
    trace.debug("Execute rrm_nbr_del_nbr '%s'\n", ifname);
    FILE* file = fopen(neighbour_report_file(ifname).c_str(), "w+");
    if (file == nullptr) {
        trace.debug("Error rrm_nbr_del_nbr\n");
        return;
    }
    fputs("delall", file);
    fclose(file);
}

// This driver delivers no events: the call only paces the agent's loop. It waits 100 ms, or
// less when the agent has been woken (a message arrived), so that a message is handled at once
// while an idle agent still runs only ten rounds a second.
int driver_realtek::process_driver_events(std::function<void(const driver_event_desc&)>) const
{
    if (wake != nullptr)
        return wake->wait(pacing_ms);
    timeval pause{0, pacing_ms * 1000};
    return select(0, nullptr, nullptr, nullptr, &pause);
}

void driver_realtek::set_wake_event(wake_event* event)
{
    wake = event;
}
