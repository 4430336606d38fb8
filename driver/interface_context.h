// The driver's snapshot of one radio and its virtual access points.
#ifndef ORVD_DRIVER_INTERFACE_CONTEXT_H
#define ORVD_DRIVER_INTERFACE_CONTEXT_H

#include <string>

#include "driver/radio_types.h"

struct vap_context_s {
    std::string name;  // "wlan%d-va%d", fixed at construction
    std::string mac;   // read once at construction
    std::string ssid;
    bool captive_portal = false;
    bool enabled = false;  // interface up
    bool enterprise = false;
    bool dot11k = false;
};

struct interface_context {
    static constexpr int max_vaps = 7;

    vap_context_s vaps[max_vaps];
    std::string ifname;  // "wlan" and the radio index
    bool enabled = false;
    int mac_offset = 0;
    int mac_count = 0;
    bool wds = false;
    bool mesh = false;
    bool wids = false;
    bool wgb = false;
    bool obss_coex = false;
    std::string country;
    int tx_power_max = 0;
    int tx_power_min = 0;
    unsigned config_spec = 0;
    rrm_band_t band = RRM_BAND_UNKNOWN;

    // The VAP record of id 0..6; null (and a log line) for any other id.
    vap_context_s* get_vap(int id);
    const vap_context_s* get_vap(int id) const;
};

#endif
