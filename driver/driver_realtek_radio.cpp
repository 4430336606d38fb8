// Chanspecs, channel and power, transmit-power limits and OBSS coexistence.
#include <regex.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/trace.h"
#include "device_root.h"
#include "driver/config_values.h"
#include "driver/driver_realtek.h"
#include "driver/ioctl_ops.h"
#include "libvalidator.h"

namespace {

constexpr unsigned channel_mask = 0x00FF;
constexpr unsigned sideband_mask = 0x0700;
constexpr unsigned bandwidth_mask = 0x3800;
constexpr int default_tx_power = 16;

// A 32-bit MIB. The value is read into a buffer as large as any the driver can return, so a
// driver answering more than 4 bytes cannot overrun the caller.
bool read_mib_u32(const driver_interface& driver, const char* ifname, const char* name, uint32_t& value)
{
    unsigned char reply[2048] = {};
    ioctl_ops ops(driver, ifname);
    if (ops.get_mib(name, reply) < 0)
        return false;
    memcpy(&value, reply, sizeof(value));
    return true;
}

}  // namespace

int driver_realtek::chanspec_bw(unsigned chanspec) const
{
    switch (chanspec & bandwidth_mask) {
    case 0x1000:
        return 20;
    case 0x1800:
        return 40;
    case 0x2000:
        return 80;
    default:
        trace.warn("<%s:%d> bandwidth aren't set in chanspec\n", "chanspec_bw", __LINE__);
        return 20;
    }
}

// The primary channel from the centre channel and the primary's position in the bandwidth.
int driver_realtek::chanspec_channel(unsigned chanspec) const
{
    const int centre = static_cast<int>(chanspec & channel_mask);
    const unsigned sideband = chanspec & sideband_mask;
    switch (chanspec_bw(chanspec)) {
    case 40:
        if (sideband == 0x000)
            return centre - 2;
        if (sideband == 0x100)
            return centre + 2;
        return centre;
    case 80:
        switch (sideband) {
        case 0x000:
            return centre - 6;
        case 0x100:
            return centre - 2;
        case 0x200:
            return centre + 2;
        case 0x300:
            return centre + 6;
        default:
            return centre;
        }
    default:
        return centre;
    }
}

rrm_band_t driver_realtek::channel_band(int channel) const
{
    return channel < 30 ? RRM_BAND_2G : RRM_BAND_5G;
}

rrm_band_t driver_realtek::chanspec_band(unsigned chanspec) const
{
    return channel_band(chanspec_channel(chanspec));
}

const char* driver_realtek::chanspec_primary(unsigned chanspec) const
{
    if (chanspec_bw(chanspec) != 40)
        return "none";
    return (chanspec & sideband_mask) == 0x100 ? "upper" : "lower";
}

const char* driver_realtek::primary_channel_to_string(int sideband, int bandwidth) const
{
    if (bandwidth == 40) {
        if (sideband == 0x000)
            return "lower";
        if (sideband == 0x100)
            return "upper";
    } else if (bandwidth == 80) {
        switch (sideband) {
        case 0x000:
            return "ll";
        case 0x100:
            return "lu";
        case 0x200:
            return "ul";
        case 0x300:
            return "uu";
        default:
            break;
        }
    }
    return "none";
}

// 'u' is looked for first, so "lu" is upper.
primary_channel_mode driver_realtek::chanspec_primary_40(char const* text) const
{
    if (text == nullptr)
        return PRIMARY_NONE;
    if (strchr(text, 'u') != nullptr)
        return PRIMARY_UPPER;
    if (strchr(text, 'l') != nullptr)
        return PRIMARY_LOWER;
    return PRIMARY_NONE;
}

unsigned driver_realtek::get_chanspec(char const* ifname) const
{
    if (!usable())
        return 0;
    if (ifname == nullptr) {
        trace.warn("<%s:%d> interface aren't set\n", "get_chanspec", __LINE__);
        return 0;
    }
    uint32_t chanspec = 0;
    if (!read_mib_u32(*this, ifname, "chanspec", chanspec))
        chanspec = 0;
    trace.debug("<%s:%d> ifname == %s chanspec == %0x\n", "get_chanspec", __LINE__, ifname, chanspec);
    return chanspec;
}

int driver_realtek::get_tx_power(char const* ifname) const
{
    if (!usable() || ifname == nullptr)
        return default_tx_power;
    uint32_t power = default_tx_power;
    if (!read_mib_u32(*this, ifname, "actual_tx_power", power))
        return default_tx_power;
    return static_cast<int32_t>(power);
}

int driver_realtek::set_tx_power(char const* ifname, int power) const
{
    if (!usable())
        return 0;
    return update_quillon(ifname != nullptr ? ifname : "", {{"tx-power", std::to_string(power)}});
}

int driver_realtek::set_chanspec(char const* ifname, int channel, int bandwidth,
                                 primary_channel_mode primary) const
{
    if (!usable())
        return 0;
    daemon_requests::param_list params = {
        {"auto-channel", "false"},
        {"channel", std::to_string(channel)},
        {"bandwidth", std::to_string(bandwidth)},
    };
    if (primary != PRIMARY_NONE)
        params.emplace_back("control-sideband", primary == PRIMARY_UPPER ? "upper" : "lower");
    return update_quillon(ifname != nullptr ? ifname : "", params);
}

void driver_realtek::get_min_max_tx_power(char const* ifname, int* min, int* max, rrm_band_t band) const
{
    libvalidator_fill_min_max_tx_power(ifname, min, max, band);
    // The limits library leaves 0 where it knows nothing.
    if (*min == 0)
        *min = 10;
    if (*max == 0)
        *max = 16;
    trace.debug("<%s:%d> tx_power_min == %d tx_power_max == %d\n", "get_min_max_tx_power", __LINE__, *min,
                *max);
}

std::string driver_realtek::get_from_driver(const std::string& ifname, const char* key) const
{
    const std::string path = device_path("/proc/" + ifname + "/mib_11n");
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        trace.warn("<%s:%d> cannot open procfs entry(%s)\n", "get_from_driver", __LINE__, path.c_str());
        return "";
    }
    regex_t expression;
    const int code = regcomp(&expression, ": .*", REG_EXTENDED);
    if (code != 0) {
        trace.error("<%s:%d> cannot create regular expression(errcode == %d)\n", "get_from_driver", __LINE__,
                    code);
        fclose(file);
        return "";
    }
    const std::string value = config_values::procfs_value(file, key, expression);
    regfree(&expression);
    fclose(file);
    trace.debug("<%s:%d> %s == %s\n", "get_from_driver", __LINE__, key, value.c_str());
    return value;
}

bool driver_realtek::get_obss_coex(char const* ifname) const
{
    if (ifname == nullptr)
        return false;
    return config_values::coexist_on(get_from_driver(ifname, "coexist"));
}
