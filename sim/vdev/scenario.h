// The scenario: what the simulated access point is made of, read once from a JSON file. The
// format is described in docs/virtual-ap.md ("Scenario format").
#ifndef ORVD_SIM_VDEV_SCENARIO_H
#define ORVD_SIM_VDEV_SCENARIO_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "channels.h"
#include "json_util.h"

struct factory_record {
    std::string board, hw, serial, mac;
};

struct station {
    uint64_t mac = 0;
    std::vector<int> rssi;  // dBm, one per receive chain
};

struct vap {
    std::string name;  // "wlan0-va1"
    bool up = true;
    uint64_t mac = 0;
    json_ptr settings;  // the VAP's node of the configuration tree; every leaf a string
    std::vector<station> stations;
};

struct radio {
    std::string name;  // "wlan0"
    int number = 0;    // the 0 of "wlan0"
    int band = 2;      // 2 or 5
    bool up = true;
    uint64_t mac = 0;
    int coexist = 0;
    int tx_power_min = 0, tx_power_max = 0;
    std::vector<int> available_channels;
    json_ptr settings;  // the radio's node of the configuration tree; every leaf a string
    json_ptr mibs;      // MIB values the radio starts with
    std::vector<vap> vaps;

    // "radio-2g" or "radio-5g": the name of the settings node below /interface/<radio>/wlan.
    const char* settings_key() const { return band == 2 ? "radio-2g" : "radio-5g"; }
};

struct neighbour {
    uint64_t bssid = 0;
    std::string ssid;
    int band = 2;
    channel_use use;
    int chanspec = 0;
    int tx_power = 0;                 // dBm
    std::map<std::string, int> rssi;  // by the name of each radio that hears it
    bool standard_scan = true, rrm_scan = true;
};

struct scenario {
    factory_record factory;
    std::vector<radio> radios;
    std::vector<neighbour> neighbours;
    bool hostapd_running = true;
    bool widsd_running = false;

    const radio* find_radio(const std::string& name) const;
    const vap* find_vap(const std::string& name) const;
};

// Reads and checks a scenario file; throws scenario_error naming the value that does not hold.
scenario load_scenario(const std::string& path);

// Reads a file holding a JSON array of neighbours in the scenario's format, each checked as the
// scenario's own against the radios of `owner`; throws scenario_error whose text names the file
// and, for a bad entry, where in it ("[2].rssi.wlan0: ...").
std::vector<neighbour> load_neighbours(const std::string& path, const scenario& owner);

#endif
