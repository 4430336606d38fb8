// vrtl_preload_probe: a program linked with the driver library only, not with vrtl. Run with
// LD_PRELOAD=libvrtl.so its ioctl() requests are answered by the emulated driver; without the
// preload they reach the kernel.
//
//   vrtl_preload_probe IFNAME
//     Reads the radio's chanspec MIB and its standard scan result through ioctl_ops.
//     Prints "chanspec <rc> <value>", "scan <rc> <records>", then one line per record:
//     "ap <bssid> <rssi> <channel> <bandwidth> <primary>".
//
//   vrtl_preload_probe --driver
//     Builds the process's driver (make_driver) as the daemon does, with hostapd initialised,
//     takes its snapshot (set_vapcontext: sysfs, the driver's MIBs, configd on the bus) and
//     prints what the agent would see, radio by radio:
//       "radio <ifname> enabled <0|1> band <0|2|5> channel <n> bandwidth <MHz> tx_power <dBm>"
//       "vap <name> ssid <ssid> mac <mac> dot11k <0|1>"           for each enabled VAP
//       "station <ifname> <mac> <ssid> <rssi> <rssi> <rssi> <rssi>" for each associated client
//
//   vrtl_preload_probe --time-snapshot RUNS
//     The same driver; takes the snapshot RUNS times (each from a closed one) and prints
//     "snapshot <seconds>" for each, for bench/snapshot_bench.py.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/trace.h"
#include "driver/driver_realtek.h"
#include "driver/ioctl_ops.h"
#include "neutral_driver.h"

namespace {

int print_radio(const char* ifname)
{
    const neutral_driver driver;
    ioctl_ops ops(driver, ifname);
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

const char* text_or_dash(const char* text)
{
    return text != nullptr && *text != '\0' ? text : "-";
}

// The process's driver as the agent holds it, with hostapd initialised.
driver_interface& snapshot_driver()
{
    // Errors only: the snapshot's debug lines would bury a real problem on standard error.
    trace.set_log_level(orv_trace::MASK_ERROR);
    static volatile bool running = true;
    driver_interface& driver = make_driver(running);
    driver.set_hostapd_initialized(true);
    return driver;
}

int time_snapshot(int runs)
{
    driver_interface& driver = snapshot_driver();
    for (int run = 0; run < runs; ++run) {
        driver.close_vapcontext();
        const auto started = std::chrono::steady_clock::now();
        driver.set_vapcontext();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
        std::printf("snapshot %.6f\n", took.count());
    }
    return 0;
}

int print_snapshot()
{
    driver_interface& driver = snapshot_driver();
    driver.set_vapcontext();
    for (int radio = 0; radio < driver.get_max_radios(); ++radio) {
        char ifname[16];
        std::snprintf(ifname, sizeof ifname, "wlan%d", radio);
        const unsigned chanspec = driver.get_chanspec(ifname);
        const int band = driver.is_band(radio, RRM_BAND_2G) ? 2 : driver.is_band(radio, RRM_BAND_5G) ? 5 : 0;
        std::printf("radio %s enabled %d band %d channel %d bandwidth %d tx_power %d\n", ifname,
                    driver.is_enabled(radio) ? 1 : 0, band, driver.chanspec_channel(chanspec),
                    driver.chanspec_bw(chanspec), driver.get_tx_power(ifname));
        for (int vap = 0; vap < driver.get_max_vap(); ++vap) {
            if (!driver.is_vap_enabled(radio, vap))
                continue;
            std::printf("vap %s ssid %s mac %s dot11k %d\n", text_or_dash(driver.VapIdToVap(vap, radio)),
                        text_or_dash(driver.VapIdToSsid(vap, radio)),
                        text_or_dash(driver.VapIdToMac(vap, radio)), driver.is_802dot11k(radio, vap) ? 1 : 0);
        }
        driver.get_assoclist(ifname, [ifname](const rrm_sta_s& station) {
            std::printf("station %s %s %s %d %d %d %d\n", ifname, station.mac.c_str(),
                        text_or_dash(station.ssid.c_str()), station.rssi_chain[0], station.rssi_chain[1],
                        station.rssi_chain[2], station.rssi_chain[3]);
        });
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--driver") == 0)
        return print_snapshot();
    if (argc == 3 && std::strcmp(argv[1], "--time-snapshot") == 0 && std::atoi(argv[2]) > 0)
        return time_snapshot(std::atoi(argv[2]));
    if (argc == 2 && argv[1][0] != '-')
        return print_radio(argv[1]);
    std::fprintf(stderr, "usage: vrtl_preload_probe IFNAME | --driver | --time-snapshot RUNS\n");
    return 2;
}
