// driver_realtek against the virtual access point: orvd-vdev (default scenario) answers as
// networkd and configd on the bus and writes the radio state that vrtl, linked into this
// program, serves through the real ioctl() path.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "driver/driver_realtek.h"
#include "log_capture.h"
#include "vdev_fixture.h"

namespace {

class driver_realtek_vdev_test : public driver_test::vdev_fixture {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
        enable_logs();
    }
};

using driver_vdev_fixture_test = driver_test::vdev_fixture;

TEST_F(driver_vdev_fixture_test, a_scenario_that_does_not_hold_fails_with_the_simulators_own_message)
{
    const std::string scenario = driver_test::scenario_json({driver_test::radio_json(
        0, 2, {driver_test::vap_json("Orion-Corp", R"({"stations": [{"mac": "f0:18:98:3c:21:4a",
                                                                      "rssi": [-48, -51]}]})")})});
    const ::testing::AssertionResult started = start_vdev(scenario);
    ASSERT_FALSE(started);
    EXPECT_NE(std::string(started.message()).find("exit status 2"), std::string::npos) << started.message();
    EXPECT_NE(std::string(started.message())
                  .find("radios[0].vaps[0].stations[0].rssi: one reading per receive chain, four in all"),
              std::string::npos)
        << started.message();
    EXPECT_FALSE(vdev.running());
}

TEST_F(driver_vdev_fixture_test, a_built_scenario_runs_and_its_requests_are_logged)
{
    ASSERT_TRUE(start_vdev(driver_test::scenario_json({driver_test::radio_json(
        0, 2, {driver_test::vap_json("Lab-2G")}, R"({"settings": {"channel": "11"}})")})));
    EXPECT_TRUE(device_path_exists("/sys/class/net/wlan0-va0/flags"));
    EXPECT_FALSE(device_path_exists("/sys/class/net/wlan0-va1"));
    EXPECT_FALSE(device_path_exists("/sys/class/net/wlan1"));
    EXPECT_EQ(state_value("wlan0", "chanspec"), std::to_string(0x1000 | 11));

    driver_realtek driver(run);
    driver.set_vapcontext();
    EXPECT_STREQ(driver.VapIdToSsid(0, 0), "Lab-2G");
    EXPECT_EQ(times_read("/interface/wlan0-va0/vap/ssid"), 1u);
    const std::vector<driver_test::served_request> requests = served();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.front().as, "configd");
    EXPECT_EQ(requests.front().command, "get");
}

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

}  // namespace
