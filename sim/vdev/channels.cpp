#include "channels.h"

namespace {

// The 5 GHz 80 MHz blocks by their lowest 20 MHz channel; the centre is 6 above it.
constexpr int blocks_80[] = {36, 52, 100, 116, 132, 149};

bool is_5g_channel(int channel)
{
    if (channel >= 36 && channel <= 144)
        return channel % 4 == 0;
    if (channel >= 149 && channel <= 177)
        return (channel - 149) % 4 == 0;
    return false;
}

}  // namespace

int band_of_channel(int channel)
{
    if (channel >= 1 && channel <= 14)
        return 2;
    if (is_5g_channel(channel))
        return 5;
    return 0;
}

bool make_chanspec(int band, const channel_use& use, int* chanspec, std::vector<int>* occupied,
                   std::string* reason)
{
    const std::string name = "channel " + std::to_string(use.channel);
    if (band_of_channel(use.channel) != band) {
        *reason = name + " is not a " + (band == 2 ? "2.4" : "5") + " GHz channel";
        return false;
    }
    occupied->assign(1, use.channel);
    switch (use.bandwidth) {
    case 20:
        // Channel 14 exists only at 20 MHz, like every channel at this width.
        *chanspec = chanspec_bandwidth_20 | use.channel;
        return true;
    case 40: {
        if (use.channel == 14) {
            *reason = "channel 14 allows only 20 MHz";
            return false;
        }
        const int secondary = use.upper ? use.channel - 4 : use.channel + 4;
        if (band_of_channel(secondary) != band || secondary == 14) {
            *reason = "the 40 MHz channel of " + name + " with the control sideband " +
                      sideband_name(use.upper) + " needs channel " + std::to_string(secondary) +
                      ", which does not exist";
            return false;
        }
        occupied->push_back(secondary);
        const int centre = use.upper ? use.channel - 2 : use.channel + 2;
        *chanspec = chanspec_bandwidth_40 | ((use.upper ? 1 : 0) << chanspec_position_shift) | centre;
        return true;
    }
    case 80: {
        if (band != 5) {
            *reason = "80 MHz is not available at 2.4 GHz";
            return false;
        }
        for (const int low : blocks_80) {
            if (use.channel < low || use.channel > low + 12)
                continue;
            for (int member = low; member <= low + 12; member += 4) {
                if (member != use.channel)
                    occupied->push_back(member);
            }
            const int position = (use.channel - low) / 4;
            *chanspec = chanspec_bandwidth_80 | (position << chanspec_position_shift) | (low + 6);
            return true;
        }
        *reason = name + " lies in no 80 MHz block";
        return false;
    }
    default:
        *reason = "bandwidth " + std::to_string(use.bandwidth) + " MHz is not one of 20, 40, 80";
        return false;
    }
}

bool parse_sideband(const std::string& text, bool* upper)
{
    if (text == "lower" || text == "upper") {
        *upper = text == "upper";
        return true;
    }
    return false;
}

const char* sideband_name(bool upper)
{
    return upper ? "upper" : "lower";
}
