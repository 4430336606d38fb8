#include "driver/radio_types.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "driver/driver_interface.h"
#include "driver/vorna_command.h"

namespace {

// The bits of a chanspec that tell where the primary channel lies.
constexpr unsigned primary_position_mask = 0x700;

}  // namespace

rrm_sta_realtek::rrm_sta_realtek(const sta_info_t& info)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", info.mac[0], info.mac[1], info.mac[2],
                  info.mac[3], info.mac[4], info.mac[5]);
    mac = text;
    for (int i = 0; i < 4; ++i) {
        // The driver reports each chain as dBm + 100. Taken modulo 2^32, as the device's 32-bit
        // code computes it, so that a garbage reading near INT32_MIN is not undefined here.
        rssi_chain[i] = static_cast<int32_t>(static_cast<uint32_t>(info.rssi[i]) - 100u);
        // Only a strictly greater reading replaces the first one seen.
        if (i == 0 || rssi_chain[i] > rssi)
            rssi = rssi_chain[i];
    }
}

scan_result_entry::scan_result_entry(const driver_interface& driver, const ap_info_t& ap, scan_kind kind)
{
    std::memcpy(bssid, ap.bssid, sizeof bssid);
    rssi = ap.rssi;
    const unsigned chanspec = ap.chanspec;
    switch (kind) {
    case STANDARD_SCAN:
        channel = ap.channel;
        bandwidth = ap.bandwidth;
        primary = static_cast<int>(chanspec & primary_position_mask);
        break;
    case RRM_SCAN:
        channel = driver.chanspec_channel(chanspec);
        bandwidth = driver.chanspec_bw(chanspec);
        // Quarter units; C++ division rounds toward zero (-5 gives -1).
        tx_power = ap.tx_power / 4;
        primary = static_cast<int>(chanspec & primary_position_mask);
        break;
    }
}
