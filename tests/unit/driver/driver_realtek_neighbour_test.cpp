// 802.11k neighbour reports: driver_realtek writes one command per call into the procfs file
// /proc/<vap>/rm_neighbor_report of each VAP that carries the neighbour's SSID on a radio of
// the neighbour's band.
#include <gtest/gtest.h>

#include <string>

#include "driver/driver_realtek.h"
#include "log_capture.h"
#include "vdev_fixture.h"

namespace {

using driver_test::radio_json;
using driver_test::scenario_json;
using driver_test::vap_json;

// wlan0 (2.4 GHz): va0 "Orion-Corp" with 802.11k, va1 "Orion-Staff" without, va2
// "Orion-Night" with 802.11k but down. wlan1 (5 GHz): va0 "Orion-Corp" with 802.11k.
class driver_realtek_neighbour_test : public driver_test::vdev_fixture {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(start_vdev(scenario_json(
            {radio_json(
                 0, 2,
                 {vap_json("Orion-Corp"),
                  vap_json("Orion-Staff", R"({"settings": {"w80211kv-config": {"enabled": "false"}}})"),
                  vap_json("Orion-Night", R"({"up": false})")}),
             radio_json(1, 5, {vap_json("Orion-Corp")})})));
    }

    std::string report(const std::string& vap) const
    {
        return read_device_file("/proc/" + vap + "/rm_neighbor_report");
    }

    // True when no VAP's file holds anything.
    bool no_report_written() const
    {
        for (const char* vap : {"wlan0-va0", "wlan0-va1", "wlan0-va2", "wlan1-va0"})
            if (!report(vap).empty())
                return false;
        return true;
    }
};

TEST_F(driver_realtek_neighbour_test, a_2g_neighbour_is_added_to_the_802_11k_vap_carrying_its_ssid)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    enable_logs();
    log_capture log;
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 6);

    EXPECT_EQ(report("wlan0-va0"), "add 554433221100 0x0867 255 6 7 ssid \"Orion-Corp\" bssload 0 0");
    EXPECT_EQ(report("wlan1-va0"), "");  // same SSID, other band
    EXPECT_EQ(log.texts(), std::vector<std::string>{
                               "Execute rrm_nbr_add_nbr 'wlan0-va0' - 'Orion-Corp' - '00:11:22:33:44:55'\n"});
}

TEST_F(driver_realtek_neighbour_test, a_5g_neighbour_carries_its_own_bssid_information_and_phy_type)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 36);

    EXPECT_EQ(report("wlan1-va0"), "add 554433221100 0x1867 255 36 9 ssid \"Orion-Corp\" bssload 0 0");
    EXPECT_EQ(report("wlan0-va0"), "");
}

TEST_F(driver_realtek_neighbour_test, a_5g_neighbour_finds_no_vap_when_the_5g_radio_is_down)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.get_radio(1)->enabled = false;
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 36);
    EXPECT_TRUE(no_report_written());
}

TEST_F(driver_realtek_neighbour_test, an_ssid_without_an_enabled_802_11k_vap_writes_nothing)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    enable_logs();
    log_capture log;
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Unknown-Net", 6);  // no VAP carries it
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Staff", 6);  // 802.11k off
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Night", 6);  // VAP down
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "", 6);
    EXPECT_TRUE(no_report_written());
    for (const std::string& text : log.texts())
        EXPECT_EQ(text.find("rrm_nbr_add_nbr"), std::string::npos) << text;
}

TEST_F(driver_realtek_neighbour_test, a_bssid_of_five_groups_writes_nothing_and_logs_nothing)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    enable_logs();
    log_capture log;
    driver.set_rrm_nbr_ap_list("00:11:22:33:44", "Orion-Corp", 6);
    EXPECT_TRUE(no_report_written());
    EXPECT_TRUE(log.lines().empty());
}

// The driver's parser reads each BSSID byte as printed from a signed char: from 0x80 up a
// byte takes eight hexadecimal digits.
TEST_F(driver_realtek_neighbour_test, bssid_bytes_from_0x80_print_as_eight_hex_digits)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_rrm_nbr_ap_list("a4:5e:60:80:ff:7f", "Orion-Corp", 11);
    EXPECT_EQ(report("wlan0-va0"),
              "add 7fffffffffffffff80605effffffa4 0x0867 255 11 7 ssid \"Orion-Corp\" bssload 0 0");
}

TEST_F(driver_realtek_neighbour_test, any_separator_between_bssid_groups_is_skipped)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_rrm_nbr_ap_list("0-11.22 33/44_55", "Orion-Corp", 1);
    EXPECT_EQ(report("wlan0-va0"), "add 554433221100 0x0867 255 1 7 ssid \"Orion-Corp\" bssload 0 0");
}

TEST_F(driver_realtek_neighbour_test, each_add_replaces_the_files_previous_command)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 6);
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:66", "Orion-Corp", 1);
    EXPECT_EQ(report("wlan0-va0"), "add 664433221100 0x0867 255 1 7 ssid \"Orion-Corp\" bssload 0 0");
}

TEST_F(driver_realtek_neighbour_test, clearing_a_vaps_list_writes_delall)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 6);
    enable_logs();
    log_capture log;
    driver.clear_rrm_nbr_ap_list("wlan0-va0");
    EXPECT_EQ(report("wlan0-va0"), "delall");
    EXPECT_EQ(log.texts(), std::vector<std::string>{"Execute rrm_nbr_del_nbr 'wlan0-va0'\n"});
}

TEST_F(driver_realtek_neighbour_test, after_the_run_flag_clears_lists_are_still_cleared_but_nothing_is_added)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    run = false;
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 6);
    EXPECT_EQ(report("wlan0-va0"), "");
    driver.clear_rrm_nbr_ap_list("wlan1-va0");
    EXPECT_EQ(report("wlan1-va0"), "delall");
}

TEST_F(driver_realtek_neighbour_test, without_hostapd_nothing_is_added_or_cleared)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.set_hostapd_initialized(false);
    driver.set_rrm_nbr_ap_list("00:11:22:33:44:55", "Orion-Corp", 6);
    driver.clear_rrm_nbr_ap_list("wlan0-va0");
    EXPECT_TRUE(no_report_written());
}

TEST_F(driver_realtek_neighbour_test, probe_suppression_never_finds_a_station)
{
    driver_realtek driver(run);
    driver.set_vapcontext();
    enable_logs();
    log_capture log;
    EXPECT_FALSE(driver.probsup_find("wlan0-va0", "f0:18:98:3c:21:4a"));
    EXPECT_FALSE(driver.probsup_find(nullptr, nullptr));
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_DEBUG, "probsup_find: not supported\n"), 2u);
}

}  // namespace
