#include "rrm/sta_table.h"

#include <cstdio>
#include <cstring>

bool MacAddr::parse(const char* text)
{
    unsigned values[6];
    char rest = 0;
    if (text == nullptr || sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &values[0], &values[1], &values[2],
                                  &values[3], &values[4], &values[5], &rest) != 6) {
        std::memset(bytes, 0, sizeof bytes);
        return false;
    }
    for (int i = 0; i < 6; ++i)
        bytes[i] = static_cast<unsigned char>(values[i]);
    return true;
}

std::string MacAddr::to_string() const
{
    char text[18];
    snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2], bytes[3],
             bytes[4], bytes[5]);
    return text;
}

bool MacAddr::operator==(const MacAddr& other) const
{
    return std::memcmp(bytes, other.bytes, sizeof bytes) == 0;
}

size_t MacAddr_hash::operator()(const MacAddr& mac) const
{
    return (static_cast<size_t>(mac.bytes[4]) << 8 | mac.bytes[3]) ^ (static_cast<size_t>(mac.bytes[5]) << 4);
}
