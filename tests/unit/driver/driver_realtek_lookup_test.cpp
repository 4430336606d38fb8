// driver_realtek's look-ups and snapshot against the virtual access point: radio and VAP
// names, the hostapd gate, VAPs that are missing or down, the configured chanspec bits,
// security modes and the transmit-power limits of the snapshot.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "driver/driver_realtek.h"
#include "log_capture.h"
#include "vdev_fixture.h"

namespace {

using driver_test::radio_json;
using driver_test::scenario_json;
using driver_test::vap_json;

class driver_realtek_lookup_test : public driver_test::vdev_fixture {
protected:
    // The configd paths read so far that lie below `prefix`.
    size_t reads_below(const std::string& prefix) const
    {
        const std::vector<std::string> paths = configd_paths();
        return static_cast<size_t>(std::count_if(paths.begin(), paths.end(), [&](const std::string& path) {
            return path.compare(0, prefix.size(), prefix) == 0;
        }));
    }
};

TEST_F(driver_realtek_lookup_test, an_unknown_radio_name_logs_its_absence_and_finds_no_radio)
{
    ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
    driver_realtek driver(run);
    driver.set_vapcontext();

    enable_logs();
    log_capture log;
    EXPECT_EQ(driver.radio_by_ifname("wlan5"), nullptr);
    const driver_realtek& constant = driver;
    EXPECT_EQ(constant.radio_by_ifname("wlan5"), nullptr);
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_DEBUG,
                                       R"(<radio_by_ifname:\d+> radio_id 5 are absence: array::at\n)"),
              2u);
    EXPECT_EQ(log.lines().size(), 2u);

    EXPECT_EQ(driver.get_radio_id("eth0"), -1);
    EXPECT_EQ(driver.get_radio_id(""), -1);
    EXPECT_EQ(log.lines().size(), 2u);  // get_radio_id logs nothing

    // Names that do resolve: a VAP name leads to its radio.
    EXPECT_EQ(driver.get_radio_id("wlan1"), 1);
    EXPECT_EQ(driver.radio_by_ifname("wlan0-va3"), driver.get_radio(0));
    EXPECT_EQ(driver.radio_by_ifname("wlan1"), driver.get_radio(1));

    // What is built on the look-up answers its neutral value for the unknown radio.
    EXPECT_FALSE(driver.get_vap_status("wlan5", 0));
    EXPECT_EQ(driver.get_radio_config_path("wlan5", "channel"), "");
}

TEST_F(driver_realtek_lookup_test, a_name_that_is_not_a_radio_name_logs_that_it_cannot_be_parsed)
{
    ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
    driver_realtek driver(run);

    enable_logs();
    log_capture log;
    EXPECT_EQ(driver.radio_by_ifname("eth0"), nullptr);
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_DEBUG,
                                       R"(<radio_by_ifname:\d+> cannot parse interface name\(eth0\)\n)"),
              1u);
}

TEST_F(driver_realtek_lookup_test, without_hostapd_no_radio_is_enabled_or_up)
{
    ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    ASSERT_TRUE(driver.is_enabled(0));
    ASSERT_TRUE(driver.is_enabled(1));
    ASSERT_TRUE(driver.get_status("wlan0"));
    ASSERT_TRUE(driver.get_status("wlan1"));

    driver.set_hostapd_initialized(false);
    EXPECT_FALSE(driver.is_hostapd_initialized());
    for (int radio = 0; radio < driver_realtek::context_count; ++radio) {
        EXPECT_FALSE(driver.is_enabled(radio)) << radio;
        EXPECT_FALSE(driver.get_status(driver.get_radio(radio)->ifname.c_str())) << radio;
        EXPECT_FALSE(driver.has_enabled_vaps(radio)) << radio;
        EXPECT_FALSE(driver.is_vap_enabled(radio, 0)) << radio;
    }
    EXPECT_FALSE(driver.get_vap_status("wlan0-va0"));

    // The stored flags are untouched: they show again once hostapd is back.
    driver.set_hostapd_initialized(true);
    EXPECT_TRUE(driver.is_enabled(0));
    EXPECT_TRUE(driver.is_enabled(1));

    // A snapshot taken without hostapd finds every radio down.
    driver.set_hostapd_initialized(false);
    driver.set_vapcontext();
    driver.set_hostapd_initialized(true);
    EXPECT_FALSE(driver.is_enabled(0));
    EXPECT_FALSE(driver.is_enabled(1));
}

TEST_F(driver_realtek_lookup_test, a_vap_without_a_sysfs_directory_keeps_an_empty_ssid_and_no_flags)
{
    // wlan0-va1 is configured with every flag on, but its interface is gone; VAPs 2 to 6 are
    // not in the scenario at all.
    ASSERT_TRUE(start_vdev(scenario_json({radio_json(
        0, 2, {vap_json("Orion-Corp"), vap_json("Orion-Staff", R"({"settings": {"security-mode": "WPA2_1X",
                                                   "captive-portal": {"enabled": "true"}}})")})})));
    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1/flags").c_str()), 0);
    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1/address").c_str()), 0);
    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1").c_str()), 0);
    driver_realtek driver(run);

    enable_logs();
    log_capture log;
    driver.set_vapcontext();
    ASSERT_TRUE(driver.is_enabled(0));
    EXPECT_STREQ(driver.VapIdToSsid(0, 0), "Orion-Corp");
    for (int vap = 1; vap < driver.get_max_vap(); ++vap) {
        const vap_context_s* record = driver.get_radio(0)->get_vap(vap);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->ssid, "") << vap;
        EXPECT_FALSE(record->enabled) << vap;
        EXPECT_FALSE(record->captive_portal) << vap;
        EXPECT_FALSE(record->enterprise) << vap;
        EXPECT_FALSE(record->dot11k) << vap;
        const std::string name = "wlan0-va" + std::to_string(vap);
        EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_DEBUG,
                                           "<is_if_exists:\\d+> " + name + " interface aren't exist\n"),
                  1u)
            << name;
        EXPECT_FALSE(log.contains("Initializing " + name + " vap...\n")) << name;
        EXPECT_EQ(reads_below("/interface/" + name + "/"), 0u) << name;
    }
    EXPECT_TRUE(log.contains("Initializing wlan0-va0 vap...\n"));
    EXPECT_EQ(driver.SsidToVapId("Orion-Staff", 0), -1);
}

TEST_F(driver_realtek_lookup_test, a_vap_whose_interface_is_down_is_not_read)
{
    ASSERT_TRUE(start_vdev(scenario_json(
        {radio_json(0, 2, {vap_json("Orion-Corp"), vap_json("Orion-Night", R"({"up": false})")})})));
    driver_realtek driver(run);
    enable_logs();
    log_capture log;
    driver.set_vapcontext();

    EXPECT_TRUE(log.contains("Initializing wlan0-va1 vap...\n"));
    EXPECT_FALSE(driver.is_vap_enabled(0, 1));
    EXPECT_EQ(driver.get_radio(0)->get_vap(1)->ssid, "");
    EXPECT_FALSE(driver.get_radio(0)->get_vap(1)->dot11k);
    EXPECT_EQ(reads_below("/interface/wlan0-va1/"), 0u);
    EXPECT_EQ(driver.VapIdToSsid(1, 0), nullptr);
}

TEST_F(driver_realtek_lookup_test, a_vap_that_disappears_between_snapshots_keeps_what_the_last_one_saw)
{
    ASSERT_TRUE(
        start_vdev(scenario_json({radio_json(0, 2, {vap_json("Orion-Corp"), vap_json("Orion-Staff")})})));
    driver_realtek driver(run);
    driver.set_vapcontext();
    ASSERT_STREQ(driver.VapIdToSsid(1, 0), "Orion-Staff");

    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1/flags").c_str()), 0);
    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1/address").c_str()), 0);
    ASSERT_EQ(std::remove((root_path() + "/sys/class/net/wlan0-va1").c_str()), 0);
    driver.set_vapcontext();
    EXPECT_TRUE(driver.is_vap_enabled(0, 1));
    EXPECT_STREQ(driver.VapIdToSsid(1, 0), "Orion-Staff");
    EXPECT_TRUE(driver.is_802dot11k(0, 1));
    EXPECT_EQ(times_read("/interface/wlan0-va1/vap/ssid"), 1u);  // the first snapshot's only
}

TEST_F(driver_realtek_lookup_test, at_80_mhz_the_configured_bits_carry_no_sideband_and_it_is_not_read)
{
    ASSERT_TRUE(
        start_vdev(scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")}),
                                  radio_json(1, 5, {vap_json("Orion-Corp-5G")},
                                             R"({"settings": {"channel": "44", "bandwidth": "80"}})")})));
    driver_realtek driver(run);
    driver.set_vapcontext();

    EXPECT_EQ(driver.get_config_spec(1), 0x2000u);
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/bandwidth"), 1u);
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/control-sideband"), 0u);

    // 20 MHz: the sideband is read and ORed in ("lower" sets no bits).
    EXPECT_EQ(driver.get_config_spec(0), 0x1000u);
    EXPECT_EQ(times_read("/interface/wlan0/wlan/radio-2g/bandwidth"), 1u);
    EXPECT_EQ(times_read("/interface/wlan0/wlan/radio-2g/control-sideband"), 1u);
}

TEST_F(driver_realtek_lookup_test, at_40_mhz_the_configured_sideband_is_read_and_sets_no_bits)
{
    ASSERT_TRUE(start_vdev(scenario_json(
        {radio_json(0, 2, {vap_json("Orion-Corp")},
                    R"({"settings": {"bandwidth": "40", "control-sideband": "upper"}})"),
         radio_json(1, 5, {vap_json("Orion-Corp-5G")}, R"({"settings": {"bandwidth": "40"}})")})));
    driver_realtek driver(run);
    driver.set_vapcontext();

    EXPECT_EQ(driver.get_config_spec(0), 0x1800u);
    EXPECT_EQ(driver.get_config_spec(1), 0x1800u);
    EXPECT_EQ(times_read("/interface/wlan0/wlan/radio-2g/control-sideband"), 1u);
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/control-sideband"), 1u);
    EXPECT_EQ(driver.get_config_primary("wlan0"), 0u);  // "upper"
    EXPECT_EQ(driver.get_config_primary("wlan1"), 0u);  // "lower"
    EXPECT_EQ(driver.get_config_bandwidth("wlan0"), 0x1800u);
}

TEST_F(driver_realtek_lookup_test, mixed_wpa_is_not_wpa2_or_3_and_wpa2_enterprise_is_both)
{
    ASSERT_TRUE(start_vdev(scenario_json({radio_json(
        0, 2,
        {vap_json("Orion-Legacy",
                  R"({"settings": {"security-mode": "WPA_WPA2", "ft-config": {"enabled": "true"}}})"),
         vap_json("Orion-Corp",
                  R"({"settings": {"security-mode": "WPA2_1X", "ft-config": {"enabled": "true"}}})"),
         vap_json("Orion-Staff", R"({"settings": {"security-mode": "WPA2_PSK"}})")})})));
    driver_realtek driver(run);
    driver.set_vapcontext();

    EXPECT_FALSE(driver.is_wpa23_vap("wlan0-va0"));
    EXPECT_FALSE(driver.get_enterprise_vap("wlan0-va0"));
    EXPECT_FALSE(driver.get_radio(0)->get_vap(0)->enterprise);
    EXPECT_FALSE(driver.is_fbt_enabled(0, 0));  // fast transition on, but not WPA2/3

    EXPECT_TRUE(driver.is_wpa23_vap("wlan0-va1"));
    EXPECT_TRUE(driver.get_enterprise_vap("wlan0-va1"));
    EXPECT_TRUE(driver.get_radio(0)->get_vap(1)->enterprise);
    EXPECT_TRUE(driver.is_fbt_enabled(0, 1));

    EXPECT_TRUE(driver.is_wpa23_vap("wlan0-va2"));
    EXPECT_FALSE(driver.get_enterprise_vap("wlan0-va2"));
    EXPECT_FALSE(driver.is_fbt_enabled(0, 2));  // fast transition off
}

TEST_F(driver_realtek_lookup_test, the_minimum_power_is_11_when_built_and_10_after_the_snapshot_closes)
{
    ASSERT_TRUE(start_vdev(
        scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")}, R"({"tx-power-limits": [12, 19]})"),
                       radio_json(1, 5, {vap_json("Orion-Corp-5G")}, R"({"tx-power-limits": [13, 22]})")})));
    driver_realtek driver(run);
    for (int radio = 0; radio < driver_realtek::context_count; ++radio) {
        EXPECT_EQ(driver.get_tx_power_min(radio), 11) << radio;
        EXPECT_EQ(driver.get_tx_power_max(radio), 16) << radio;
    }

    driver.set_vapcontext();
    EXPECT_EQ(driver.get_tx_power_min(0), 12);
    EXPECT_EQ(driver.get_tx_power_max(0), 19);
    EXPECT_EQ(driver.get_tx_power_min(1), 13);
    EXPECT_EQ(driver.get_tx_power_max(1), 22);

    driver.close_vapcontext();
    for (int radio = 0; radio < driver_realtek::context_count; ++radio) {
        EXPECT_EQ(driver.get_tx_power_min(radio), 10) << radio;
        EXPECT_EQ(driver.get_tx_power_max(radio), 16) << radio;
    }
    // Out of range: the neutral values.
    EXPECT_EQ(driver.get_tx_power_min(3), 11);
    EXPECT_EQ(driver.get_tx_power_max(-1), 16);
}

}  // namespace
