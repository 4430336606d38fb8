#include "mac_address.h"

#include <cstdio>

#include "mac_text.h"

namespace {

constexpr uint64_t mac_mask = (uint64_t{1} << 48) - 1;

}  // namespace

bool parse_mac(const std::string& text, uint64_t* mac)
{
    unsigned char octets[6];
    if (!parse_mac_text(text.data(), text.size(), octets))
        return false;
    uint64_t value = 0;
    for (const unsigned char octet : octets)
        value = (value << 8) | octet;
    *mac = value;
    return true;
}

std::string format_mac(uint64_t mac)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x",
                  static_cast<unsigned>((mac >> 40) & 0xff), static_cast<unsigned>((mac >> 32) & 0xff),
                  static_cast<unsigned>((mac >> 24) & 0xff), static_cast<unsigned>((mac >> 16) & 0xff),
                  static_cast<unsigned>((mac >> 8) & 0xff), static_cast<unsigned>(mac & 0xff));
    return text;
}

uint64_t mac_plus(uint64_t base, uint64_t offset)
{
    return (base + offset) & mac_mask;
}
