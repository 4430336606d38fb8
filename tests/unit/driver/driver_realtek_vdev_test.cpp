// driver_realtek against the virtual access point: orvd-vdev (default scenario) answers as
// networkd and configd on the bus and writes the radio state that vrtl, linked into this
// program, serves through the real ioctl() path.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/trace.h"
#include "core/websock_cfg.h"
#include "driver/driver_realtek.h"
#include "log_capture.h"

namespace {

class driver_realtek_vdev_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/orvd-driver-vdev-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        setenv("ORVD_ROOT", root.c_str(), 1);
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        simulator = fork();
        ASSERT_GE(simulator, 0);
        if (simulator == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            execl(ORVD_VDEV_PROGRAM, ORVD_VDEV_PROGRAM, "--root", root.c_str(), "--scenario",
                  ORVD_VDEV_SCENARIO, static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        FILE* stream = fdopen(out[0], "r");
        char line[256];
        bool ready = false;
        while (!ready && fgets(line, sizeof(line), stream) != nullptr)
            ready = std::string(line).find("orvd-vdev: ready") != std::string::npos;
        fclose(stream);
        ASSERT_TRUE(ready) << "orvd-vdev did not start";
        orvd_log_level = 15;
        trace.set_log_level(15);
    }

    void TearDown() override
    {
        trace.set_log_level(0);
        orvd_log_level = 0;
        if (simulator > 0) {
            kill(simulator, SIGTERM);
            waitpid(simulator, nullptr, 0);
        }
        const std::string command = "rm -rf '" + root + "'";
        EXPECT_EQ(system(command.c_str()), 0);
        unsetenv("ORVD_ROOT");
    }

    std::string root;
    pid_t simulator = -1;
    volatile bool run = true;
};

TEST_F(driver_realtek_vdev_test, the_snapshot_describes_the_scenario)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    ASSERT_TRUE(driver.is_enabled(0));
    ASSERT_TRUE(driver.is_enabled(1));
    EXPECT_TRUE(driver.is_band(0, RRM_BAND_2G));
    EXPECT_TRUE(driver.is_band(1, RRM_BAND_5G));
    EXPECT_EQ(driver.get_country("wlan0"), "RU");
    EXPECT_EQ(driver.get_config_spec(1), 0x2000u);  // 80 MHz: no sideband bits
    EXPECT_EQ(driver.get_config_spec(0), 0x1000u);
    EXPECT_STREQ(driver.VapIdToSsid(0, 0), "Orion-Corp");
    EXPECT_STREQ(driver.VapIdToSsid(1, 1), "Orion-Secure");
    EXPECT_TRUE(driver.is_802dot11k(0, 0));
    EXPECT_FALSE(driver.is_802dot11k(0, 2));
    EXPECT_EQ(driver.SsidToVapId("Orion-Guest", 0), 2);
    EXPECT_STREQ(driver.SsidToVap("Orion-Corp-5G", 1), "wlan1-va0");
    EXPECT_TRUE(driver.is_fbt_enabled(1, 1));   // WPA3 with 802.11r
    EXPECT_FALSE(driver.is_fbt_enabled(1, 2));  // WPA_WPA2 is not WPA2/3
    EXPECT_EQ(driver.get_chanspec("wlan0") & 0xFF, 6u);
    EXPECT_EQ(driver.chanspec_channel(driver.get_chanspec("wlan1")), 36);

    std::string channels;
    driver.fill_chanspecs("wlan0", channels);
    EXPECT_EQ(channels, "1 6 11 ");  // the configured limit list replaces the driver's

    int stations = 0;
    driver.get_assoclist("wlan0", [&](const rrm_sta_s& station) {
        ++stations;
        EXPECT_FALSE(station.ssid.empty());
    });
    EXPECT_EQ(stations, 6);

    driver.close_vapcontext();
    EXPECT_FALSE(driver.is_enabled(0));
    EXPECT_EQ(driver.get_tx_power_min(0), 10);
}

TEST_F(driver_realtek_vdev_test, power_and_channel_updates_become_visible_through_the_driver)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    EXPECT_EQ(driver.get_tx_power("wlan0"), 17);
    EXPECT_EQ(driver.set_tx_power("wlan0", 14), 0);
    EXPECT_EQ(driver.get_tx_power("wlan0"), 14);

    EXPECT_EQ(driver.set_chanspec("wlan1", 44, 80, PRIMARY_NONE), 0);
    const unsigned chanspec = driver.get_chanspec("wlan1");
    EXPECT_EQ(driver.chanspec_bw(chanspec), 80);
    EXPECT_EQ(driver.chanspec_channel(chanspec), 44);

    log_capture log;
    EXPECT_EQ(driver.set_chanspec("wlan1", 14, 20, PRIMARY_NONE), -1);  // refused by networkd
    EXPECT_EQ(driver.chanspec_channel(driver.get_chanspec("wlan1")), 44);
}

TEST_F(driver_realtek_vdev_test, a_scan_reports_the_scenarios_neighbours)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    int timeout = 5;
    EXPECT_EQ(driver.start(true, {1, 6, 11}, {}, timeout), 0);
    EXPECT_TRUE(driver.is_in_progress());
    EXPECT_EQ(timeout, 15);  // wlan1 scans every channel: 15 s on 5 GHz
    ap_table table;
    EXPECT_EQ(driver.fill_ap_table(table), 0);
    EXPECT_EQ(table.size(), 30u);
    EXPECT_EQ(driver.stop(true), 0);
    EXPECT_FALSE(driver.is_in_progress());

    timeout = 0;
    driver.start(false, {44, 36}, {}, timeout);
    EXPECT_EQ(timeout, 6);
    EXPECT_EQ(driver.fill_ap_table_vorna_rrm(table), 0);
    EXPECT_FALSE(table.empty());
    driver.stop(false);
}

TEST_F(driver_realtek_vdev_test, the_full_snapshot_takes_well_under_the_clock_guard)
{
    driver_realtek driver(run);
    const auto started = std::chrono::steady_clock::now();
    driver.set_vapcontext();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf("set_vapcontext on the default scenario: %.3f s\n", seconds);
    EXPECT_LT(seconds, 5.0);
}

}  // namespace
