#include "device_tree.h"

#include "device_root.h"
#include "files.h"
#include "mac_address.h"

namespace {

// Interface flags as sysfs shows them: IFF_UP (0x1) | IFF_BROADCAST (0x2) | IFF_MULTICAST (0x1000).
const char* interface_flags(bool up)
{
    return up ? "0x1003\n" : "0x1002\n";
}

bool write_interface(const std::string& name, bool up, uint64_t mac, std::string* error)
{
    const std::string directory = "/sys/class/net/" + name + "/";
    return replace_file(device_path(directory + "flags"), interface_flags(up), error) &&
           replace_file(device_path(directory + "address"), format_mac(mac) + "\n", error);
}

bool write_factory(const factory_record& factory, std::string* error)
{
    const std::string text = "# factory record of the simulated access point\n"
                             "board=" +
                             factory.board + "\n" + "hw=" + factory.hw + "\n" + "serial=" + factory.serial +
                             "\n" + "mac=" + factory.mac + "\n";
    return replace_file(device_path("/etc/factory"), text, error);
}

// One line for each radio and each of its VAPs: the limits belong to the radio, and the daemon
// may ask by either name.
bool write_tx_power_limits(const scenario& setup, std::string* error)
{
    std::string text = "# ifname band min max\n";
    for (const radio& entry : setup.radios) {
        const std::string limits = " " + std::to_string(entry.band) + " " +
                                   std::to_string(entry.tx_power_min) + " " +
                                   std::to_string(entry.tx_power_max) + "\n";
        text += entry.name + limits;
        for (const vap& member : entry.vaps)
            text += member.name + limits;
    }
    return replace_file(device_path("/etc/tx-power-limits"), text, error);
}

// The driver's secondary channel offset: 0 none, 1 below the primary, 2 above it.
int secondary_offset(const channel_use& use, int chanspec)
{
    if (use.bandwidth == 20)
        return 0;
    const int position = (chanspec >> chanspec_position_shift) & 0x7;
    return position % 2 == 1 ? 1 : 2;
}

}  // namespace

bool write_mib_11n(const radio& entry, const channel_use& use, std::string* error)
{
    int chanspec = 0;
    std::vector<int> occupied;
    std::string reason;
    make_chanspec(entry.band, use, &chanspec, &occupied, &reason);
    const int use40 = use.bandwidth == 80 ? 2 : use.bandwidth == 40 ? 1 : 0;
    const std::string text = "supportedmcs: 0000ffff\n"
                             "basicmcs: 00000000\n"
                             "use40M: " +
                             std::to_string(use40) + "\n" +
                             "2ndchoffset: " + std::to_string(secondary_offset(use, chanspec)) + "\n" +
                             "shortGI20M: 1\n"
                             "shortGI40M: 1\n" +
                             "shortGI80M: " + (entry.band == 5 ? "1" : "0") + "\n" +
                             "stbc: 1\n"
                             "ldpc: 1\n"
                             "ampdu: 1\n"
                             "amsdu: 0\n"
                             "ampduSndSz: 65535\n"
                             "coexist: " +
                             std::to_string(entry.coexist) + "\n" + "txnoack: 0\n";
    return replace_file(device_path("/proc/" + entry.name + "/mib_11n"), text, error);
}

bool write_device_files(const scenario& setup, std::string* error)
{
    if (!write_factory(setup.factory, error) || !write_tx_power_limits(setup, error))
        return false;
    for (const radio& entry : setup.radios) {
        if (!write_interface(entry.name, entry.up, entry.mac, error))
            return false;
        for (const vap& member : entry.vaps) {
            // The driver fills the neighbour report; it starts empty.
            if (!write_interface(member.name, member.up, member.mac, error) ||
                !replace_file(device_path("/proc/" + member.name + "/rm_neighbor_report"), "", error))
                return false;
        }
    }
    return true;
}
