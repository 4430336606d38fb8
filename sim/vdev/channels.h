// Channel numbers and the driver's channel descriptor ("chanspec"): the centre channel in the
// low byte, the primary 20 MHz channel's position in bits 0x700 and the bandwidth in 0x3800.
#ifndef ORVD_SIM_VDEV_CHANNELS_H
#define ORVD_SIM_VDEV_CHANNELS_H

#include <string>
#include <vector>

constexpr int chanspec_bandwidth_20 = 0x1000;
constexpr int chanspec_bandwidth_40 = 0x1800;
constexpr int chanspec_bandwidth_80 = 0x2000;
constexpr int chanspec_position_shift = 8;  // 0 ll (or lower), 1 lu (or upper), 2 ul, 3 uu

// What a radio or a neighbour transmits on: its primary 20 MHz channel, its bandwidth in MHz
// and, at 40 MHz, whether the primary is the upper of the two channels.
struct channel_use {
    int channel = 0;
    int bandwidth = 20;
    bool upper = false;
};

// 2 for 2.4 GHz channels (1-14), 5 for 5 GHz channels, 0 for numbers that are neither.
int band_of_channel(int channel);

// The chanspec of `use` in `band`, and the 20 MHz channels it occupies (primary first). False
// with the reason when the combination does not exist: 80 MHz at 2.4 GHz, a secondary channel
// outside the band, a channel outside the 80 MHz blocks.
bool make_chanspec(int band, const channel_use& use, int* chanspec, std::vector<int>* occupied,
                   std::string* reason);

// "lower" / "upper" as the configuration tree writes the control sideband.
bool parse_sideband(const std::string& text, bool* upper);
const char* sideband_name(bool upper);

#endif
