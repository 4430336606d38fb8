// MAC addresses as text, "a4:5e:60:00:10:00" in either case: one reader for the radio state
// files (vrtl) and the scenarios (orvd-vdev), which must agree on what an address is. Header
// only and free of any library: libvrtl.so is preloaded into processes and takes nothing along.
#ifndef ORVD_SIM_VRTL_MAC_TEXT_H
#define ORVD_SIM_VRTL_MAC_TEXT_H

#include <cstddef>

// The value of a hex digit of either case; -1 for any other character.
inline int mac_hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads the `size` characters at `text`, which must be six pairs of hex digits joined by
// colons and nothing else, into six bytes, the first pair first; false for anything else.
inline bool parse_mac_text(const char* text, size_t size, unsigned char octets[6])
{
    constexpr size_t mac_text_size = 6 * 3 - 1;
    if (text == nullptr || size != mac_text_size)
        return false;
    for (size_t octet = 0; octet < 6; ++octet) {
        const char* pair = text + 3 * octet;
        const int high = mac_hex_digit(pair[0]);
        const int low = mac_hex_digit(pair[1]);
        if (high < 0 || low < 0 || (octet < 5 && pair[2] != ':'))
            return false;
        octets[octet] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}

#endif
