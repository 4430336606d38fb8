// Types the agent and the radio drivers share: bands, stations, scan results, driver events
// and the factory record.
#ifndef ORVD_DRIVER_RADIO_TYPES_H
#define ORVD_DRIVER_RADIO_TYPES_H

#include <string>
#include <vector>

class driver_interface;
struct ap_info_t;
struct sta_info_t;

// The band's nominal frequency in GHz: a channel below 30 is 2, any other 5.
enum rrm_band_t { RRM_BAND_UNKNOWN = 0, RRM_BAND_2G = 2, RRM_BAND_5G = 5 };

// Where the primary 20 MHz channel lies in a 40 MHz channel.
enum primary_channel_mode { PRIMARY_NONE = 0, PRIMARY_LOWER = 1, PRIMARY_UPPER = 2 };

// Why the radios are reset; other values than these are accepted too.
enum ResetQuillonCause : int { RESET_QUILLON_FULL = 0 };  // both radios

// A station as the agent sees it. Polymorphic so that each driver can keep its own kind.
struct rrm_sta_s {
    static constexpr int rssi_unknown = -1000;

    rrm_sta_s() = default;
    rrm_sta_s(const rrm_sta_s&) = default;
    rrm_sta_s(rrm_sta_s&&) = default;
    rrm_sta_s& operator=(const rrm_sta_s&) = default;
    rrm_sta_s& operator=(rrm_sta_s&&) = default;
    virtual ~rrm_sta_s() = default;

    std::string mac;  // "%02x:%02x:..." lower case
    std::string ssid;
    int rssi_chain[4] = {0, 0, 0, 0};  // dBm per chain
    int rssi = rssi_unknown;           // dBm
    int packets_tx = 0;
    int packets_rx = 0;
    bool authorized = false;
    bool associated = false;
    bool ht = false;
    bool vht = false;
};

// A station from the Realtek driver's association list: MAC and the four chain readings
// only; the ssid, the counters and the flags stay empty.
struct rrm_sta_realtek : rrm_sta_s {
    explicit rrm_sta_realtek(const sta_info_t& info);
};

// An event a driver reports asynchronously (the Realtek driver never produces one).
struct driver_event_desc {
    int type;
    std::string ifname;
    std::string mac;
    int value;
};

// One neighbour found by a scan.
struct scan_result_entry {
    // A fixed underlying type, so that a value of any other kind is well-defined (and ignored).
    enum scan_kind : int { STANDARD_SCAN = 0, RRM_SCAN = 1 };

    scan_result_entry() = default;
    // bssid and rssi come from every kind of record. A standard record carries channel and
    // bandwidth itself; an RRM record carries a chanspec that the driver decodes and a transmit
    // power in quarter units. The fields of any other kind stay zero.
    scan_result_entry(const driver_interface& driver, const ap_info_t& ap, scan_kind kind);

    unsigned char bssid[6] = {0, 0, 0, 0, 0, 0};
    int rssi = 0;
    int channel = 0;
    int bandwidth = 0;
    int tx_power = 0;
    int primary = 0;  // the chanspec's primary position bits (0x700), not shifted
};

using ap_table = std::vector<scan_result_entry>;

// The device's factory data. The texts are NUL-padded and not terminated when they fill all
// 32 characters.
struct factory_record_s {
    char board[32];
    char hw[32];
    char serial[32];
    char mac[32];
};

#endif
