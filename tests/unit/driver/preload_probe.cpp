// vrtl_preload_probe: a program linked with the driver library only, not with vrtl. Run with
// LD_PRELOAD=libvrtl.so it reads the radio's chanspec MIB and its standard scan result
// through ioctl_ops and prints them; without the preload the requests reach the kernel.
//
//   vrtl_preload_probe IFNAME
//
// Prints "chanspec <rc> <value>", "scan <rc> <records>", then one line per record:
// "ap <bssid> <rssi> <channel> <bandwidth> <primary>".
#include <cstdint>
#include <cstdio>

#include "driver/ioctl_ops.h"
#include "neutral_driver.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: vrtl_preload_probe IFNAME\n");
        return 2;
    }
    const neutral_driver driver;
    ioctl_ops ops(driver, argv[1]);
    uint32_t chanspec = 0;
    const int mib_result = ops.get_mib("chanspec", &chanspec);
    std::printf("chanspec %d %u\n", mib_result, chanspec);
    ap_table table;
    const int scan_result = ops.get_scan_result(table);
    std::printf("scan %d %zu\n", scan_result, table.size());
    for (const scan_result_entry& entry : table)
        std::printf("ap %02x:%02x:%02x:%02x:%02x:%02x %d %d %d %d\n", entry.bssid[0], entry.bssid[1],
                    entry.bssid[2], entry.bssid[3], entry.bssid[4], entry.bssid[5], entry.rssi, entry.channel,
                    entry.bandwidth, entry.primary);
    return 0;
}
