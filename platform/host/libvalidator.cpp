// Host transmit-power limits library: reads device_path("/etc/tx-power-limits"), one limit
// per line, fields separated by blanks:
//   # ifname band min max
//   wlan0 2 0 20
//   wlan1 5 3 23
// '#' starts a comment. The first line whose interface and band match gives the limits.
#include "libvalidator.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "device_root.h"

extern "C" int libvalidator_fill_min_max_tx_power(const char* ifname, int* min, int* max, int band)
{
    if (min != nullptr)
        *min = 0;
    if (max != nullptr)
        *max = 0;
    if (ifname == nullptr || min == nullptr || max == nullptr)
        return -1;

    std::string path = device_path("/etc/tx-power-limits");
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr)
        return -1;

    int result = -1;
    std::string line;
    int c;
    bool done = false;
    while (!done && result != 0) {
        line.clear();
        while ((c = std::fgetc(file)) != EOF && c != '\n')
            line.push_back(static_cast<char>(c));
        if (c == EOF)
            done = true;
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.erase(hash);
        std::istringstream fields(line);
        std::string name;
        long line_band = 0;
        long low = 0;
        long high = 0;
        if (!(fields >> name >> line_band >> low >> high))
            continue;  // blank or malformed
        if (name != ifname || line_band != band)
            continue;
        *min = static_cast<int>(low);
        *max = static_cast<int>(high);
        result = 0;
    }
    std::fclose(file);
    return result;
}
