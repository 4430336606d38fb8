// Per-radio tables of stations keyed by MAC address: the probe table and the blacklist of the
// (not yet active) load-balancing feature.
#ifndef ORVD_RRM_STA_TABLE_H
#define ORVD_RRM_STA_TABLE_H

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>

// A station's MAC address as the agent keys it: six bytes in transmission order.
struct MacAddr {
    unsigned char bytes[6] = {0, 0, 0, 0, 0, 0};

    MacAddr() = default;
    // Parses "xx:xx:xx:xx:xx:xx" (either case); false leaves the address all zero.
    bool parse(const char* text);
    // Upper case "%02X:%02X:%02X:%02X:%02X:%02X", unlike the lower-case MACs of the driver.
    std::string to_string() const;

    bool operator==(const MacAddr& other) const;
    bool operator!=(const MacAddr& other) const { return !(*this == other); }
};

struct MacAddr_hash {
    // (byte 4 << 8 | byte 3) ^ (byte 5 << 4): cheap, and the low bytes differ most between
    // stations.
    size_t operator()(const MacAddr& mac) const;
};

// A station that probed on a radio, to be reported to the RRM service.
struct sta_prob_info {
    int rssi = 0;       // 0 until known
    int countdown = 0;  // seconds until the entry is due
    unsigned vap_id = 0;
};

template <typename T>
class _sta_table : public std::unordered_map<MacAddr, T, MacAddr_hash> {
public:
    using predicate = std::function<bool(const MacAddr&, T&)>;

    // Visits every entry once and erases, at once, those the predicate answers true for. An
    // empty predicate throws std::bad_function_call.
    void if_remove(const predicate& remove)
    {
        for (auto entry = this->begin(); entry != this->end();) {
            if (remove(entry->first, entry->second))
                entry = this->erase(entry);
            else
                ++entry;
        }
    }
};

#endif
