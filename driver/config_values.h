// What the driver makes of text it reads from outside: the value in a configd reply, the
// configuration values behind the radio and VAP settings, and the driver's procfs text
// (mib_11n). Pure text-to-value rules without state or logging, shared by driver_realtek
// (which logs what it cannot use) and the fuzz targets.
#ifndef ORVD_DRIVER_CONFIG_VALUES_H
#define ORVD_DRIVER_CONFIG_VALUES_H

#include <regex.h>

#include <cstdio>
#include <optional>
#include <set>
#include <string>

#include "cfg_tree.h"

namespace config_values {

// Chanspec bandwidth bits of the configured bandwidth.
constexpr unsigned bandwidth_20 = 0x1000;
constexpr unsigned bandwidth_40 = 0x1800;
constexpr unsigned bandwidth_80 = 0x2000;
// Longest SSID text the driver keeps.
constexpr size_t ssid_limit = 129;
// Longest procfs line read at once, terminator included; a longer line is read in pieces,
// each taken as a line of its own.
constexpr size_t procfs_line_size = 512;

// The answer in a configd "get" reply, whatever its "status": a plain value as its text (a
// JSON null as empty text), a subtree as readable JSON, a reply without "value" as empty text.
std::string reply_value(const cfg_t* reply);

// "ssid": at most the first ssid_limit characters.
std::string ssid(const std::string& value);

// "security-mode": WPA2 or WPA3; "WPA_" marks the mixed WPA/WPA2 modes, which are not.
bool is_wpa23(const std::string& value);

// "security-mode": 802.1X ("1X" anywhere in the text).
bool is_enterprise(const std::string& value);

// A flag such as "captive-portal/enabled" is on only when it is exactly "true".
bool is_true(const std::string& value);

// "bandwidth": the number (atoi) 20, 40 or 80 as bandwidth bits; none for anything else.
std::optional<unsigned> bandwidth_bits(const std::string& value);

// "control-sideband": "lower" and "upper" both give 0, because the configured sideband never
// sets sideband bits; none for anything else.
std::optional<unsigned> sideband_bits(const std::string& value);

// "limit-channels": space-separated channel numbers (atoi, so a token that is not a number
// counts as 0) as an ordered set; none for an empty text, an empty set when it has no token.
std::optional<std::set<unsigned>> channel_list(const std::string& value);

// The procfs value of `key`: the text after ": " on the first line that contains `key` and
// matches `expression` (": .*", extended); empty when no line does. Lines are read as
// described for procfs_line_size, their line end removed.
std::string procfs_value(FILE* file, const char* key, const regex_t& expression);

// The "coexist" value turns OBSS coexistence on when it is a non-zero number (atoi).
bool coexist_on(const std::string& value);

}  // namespace config_values

#endif
