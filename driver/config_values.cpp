#include "driver/config_values.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace config_values {

std::string reply_value(const cfg_t* reply)
{
    const cfg_t* found = cfg_get_param(reply, "value");
    if (cfg_get_type(found) == CFG_TYPE_VALUE) {
        const char* text = cfg_get_value(found);
        return text != nullptr ? text : "";
    }
    std::unique_ptr<char, decltype(&std::free)> text(cfg_serialize(found), &std::free);
    return text != nullptr ? text.get() : "";
}

std::string ssid(const std::string& value)
{
    return value.substr(0, ssid_limit);
}

bool is_wpa23(const std::string& value)
{
    if (value.find("WPA_") != std::string::npos)
        return false;
    return value.find("WPA2") != std::string::npos || value.find("WPA3") != std::string::npos;
}

bool is_enterprise(const std::string& value)
{
    return value.find("1X") != std::string::npos;
}

bool is_true(const std::string& value)
{
    return value == "true";
}

std::optional<unsigned> bandwidth_bits(const std::string& value)
{
    switch (atoi(value.c_str())) {
    case 20:
        return bandwidth_20;
    case 40:
        return bandwidth_40;
    case 80:
        return bandwidth_80;
    default:
        return std::nullopt;
    }
}

std::optional<unsigned> sideband_bits(const std::string& value)
{
    if (value == "lower" || value == "upper")
        return 0u;
    return std::nullopt;
}

std::optional<std::set<unsigned>> channel_list(const std::string& value)
{
    if (value.empty())
        return std::nullopt;
    std::set<unsigned> channels;
    std::string copy = value;
    char* saved = nullptr;
    for (char* token = strtok_r(&copy[0], " ", &saved); token != nullptr;
         token = strtok_r(nullptr, " ", &saved))
        channels.insert(static_cast<unsigned>(atoi(token)));
    return channels;
}

std::string procfs_value(FILE* file, const char* key, const regex_t& expression)
{
    char line[procfs_line_size];
    while (fgets(line, sizeof(line), file) != nullptr) {
        line[strcspn(line, "\r\n")] = '\0';
        if (strstr(line, key) == nullptr)
            continue;
        regmatch_t match;
        if (regexec(&expression, line, 1, &match, 0) == 0)
            return std::string(line + match.rm_so + 2, line + match.rm_eo);
    }
    return "";
}

bool coexist_on(const std::string& value)
{
    return !value.empty() && atoi(value.c_str()) != 0;
}

}  // namespace config_values
