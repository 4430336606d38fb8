#include "mac_address.h"

#include <cstdio>

namespace {

constexpr uint64_t mac_mask = (uint64_t{1} << 48) - 1;

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

bool parse_mac(const std::string& text, uint64_t* mac)
{
    if (text.size() != 17)
        return false;
    uint64_t value = 0;
    for (size_t octet = 0; octet < 6; ++octet) {
        const size_t at = octet * 3;
        const int high = hex_digit(text[at]);
        const int low = hex_digit(text[at + 1]);
        if (high < 0 || low < 0 || (octet < 5 && text[at + 2] != ':'))
            return false;
        value = (value << 8) | static_cast<uint64_t>(high * 16 + low);
    }
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
