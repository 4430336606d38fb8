// Scans on both radios through driver_realtek: the scan time-out, the channels each radio is
// asked to scan (vrtl's counters and last_scan_channels show what reached the driver), the
// scanning state, and the result tables.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "driver/driver_realtek.h"
#include "driver/vorna_command.h"
#include "log_capture.h"
#include "vdev_fixture.h"
#include "vrtl_state.h"

namespace {

using driver_test::radio_json;
using driver_test::scenario_json;
using driver_test::vap_json;

// Three access points on 2.4 GHz heard by wlan0 (last byte: the channel) ...
const std::string neighbours_2g = R"(
    {"bssid": "02:00:00:00:24:01", "ssid": "Near-1", "channel": 1, "rssi": {"wlan0": -60}},
    {"bssid": "02:00:00:00:24:06", "ssid": "Near-6", "channel": 6, "rssi": {"wlan0": -65}},
    {"bssid": "02:00:00:00:24:0b", "ssid": "Near-11", "channel": 11, "rssi": {"wlan0": -70}})";
// ... and two on 5 GHz heard by wlan1.
const std::string neighbours_5g = R"(
    {"bssid": "02:00:00:00:50:24", "ssid": "Near-36", "channel": 36, "rssi": {"wlan1": -62}},
    {"bssid": "02:00:00:00:50:2c", "ssid": "Near-44", "channel": 44, "bandwidth": 40, "rssi": {"wlan1": -72}})";

std::string two_radios(const std::string& wlan1_overrides = "{}")
{
    return scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")}),
                          radio_json(1, 5, {vap_json("Orion-Corp-5G")}, wlan1_overrides)},
                         "[" + neighbours_2g + "," + neighbours_5g + "]");
}

std::string only_wlan0()
{
    return scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")})}, "[" + neighbours_2g + "]");
}

const std::set<unsigned> all_2g_channels = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};

// The last byte of each BSSID in the table, in order.
std::vector<int> last_bytes(const ap_table& table)
{
    std::vector<int> bytes;
    for (const scan_result_entry& entry : table)
        bytes.push_back(entry.bssid[5]);
    return bytes;
}

size_t requests_to(const driver_test::request_recorder& recorder, const std::string& ifname)
{
    size_t count = 0;
    for (const driver_test::seen_request& request : recorder.requests())
        count += request.ifname == ifname ? 1 : 0;
    return count;
}

using driver_realtek_scan_test = driver_test::vdev_fixture;

TEST_F(driver_realtek_scan_test, thirteen_channels_raise_an_active_scan_time_out_of_5_to_10)
{
    ASSERT_TRUE(start_vdev(only_wlan0()));
    driver_realtek driver(run);
    driver.set_vapcontext();

    int timeout = 5;
    EXPECT_EQ(driver.start(true, all_2g_channels, {}, timeout), 0);
    EXPECT_EQ(timeout, 10);  // 13 × 7 / 10 + 1
    EXPECT_TRUE(driver.is_in_progress());
    EXPECT_EQ(state_value("wlan0", "last_scan_channels"), "[1,2,3,4,5,6,7,8,9,10,11,12,13]");
    EXPECT_EQ(state_value("wlan0", "counters.stop_scan"), "1");  // a running scan is stopped first
    EXPECT_EQ(state_value("wlan0", "counters.start_scan"), "1");
}

TEST_F(driver_realtek_scan_test, three_channels_leave_an_active_scan_time_out_of_5_unchanged)
{
    ASSERT_TRUE(start_vdev(only_wlan0()));
    driver_realtek driver(run);
    driver.set_vapcontext();

    int timeout = 5;
    EXPECT_EQ(driver.start(true, {1, 6, 11}, {}, timeout), 0);
    EXPECT_EQ(timeout, 5);  // 3 × 7 / 10 + 1 = 3
    EXPECT_EQ(state_value("wlan0", "last_scan_channels"), "[1,6,11]");
    EXPECT_EQ(state_value("wlan0", "counters.start_scan"), "1");
}

TEST_F(driver_realtek_scan_test, an_active_scan_of_every_channel_takes_15_s_on_5_ghz_and_10_s_on_2_4_ghz)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();

    int timeout_2g = 0;
    EXPECT_EQ(driver.start_active_scan("wlan0", {}, timeout_2g), 0);
    EXPECT_EQ(timeout_2g, 10);
    int timeout_5g = 0;
    EXPECT_EQ(driver.start_active_scan("wlan1", {}, timeout_5g), 0);
    EXPECT_EQ(timeout_5g, 15);
    EXPECT_EQ(state_value("wlan0", "last_scan_channels"), "[]");
    EXPECT_EQ(state_value("wlan1", "last_scan_channels"), "[]");

    int longer = 20;  // only ever raised
    EXPECT_EQ(driver.start_active_scan("wlan1", {}, longer), 0);
    EXPECT_EQ(longer, 20);

    int both = 0;
    EXPECT_EQ(driver.start(true, {}, {}, both), 0);
    EXPECT_EQ(both, 15);
}

TEST_F(driver_realtek_scan_test, an_rrm_scan_measures_only_the_smallest_channel_for_at_least_6_s)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();

    int timeout = 0;
    EXPECT_EQ(driver.start(false, {6}, {44, 36}, timeout), 0);
    EXPECT_EQ(timeout, 6);
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_chan"), "\"36\"");
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_started"), "\"1\"");
    EXPECT_EQ(state_value("wlan1", "counters.rrm_scan_trigger"), "1");
    EXPECT_EQ(state_value("wlan1", "counters.start_scan"), "");  // no standard scan
    EXPECT_EQ(state_value("wlan0", "mibs.rrm_scan_chan"), "\"6\"");
    EXPECT_EQ(state_value("wlan0", "counters.rrm_scan_trigger"), "1");

    EXPECT_EQ(driver.stop(false), 0);
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_started"), "\"0\"");

    timeout = 9;
    EXPECT_EQ(driver.start(false, {1}, {52, 40}, timeout), 0);
    EXPECT_EQ(timeout, 9);
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_chan"), "\"40\"");
    EXPECT_EQ(state_value("wlan1", "counters.rrm_scan_trigger"), "2");
}

TEST_F(driver_realtek_scan_test, a_second_start_while_scanning_does_nothing)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    int timeout = 0;
    ASSERT_EQ(driver.start(true, {1, 6, 11}, {36}, timeout), 0);
    ASSERT_TRUE(driver.is_in_progress());
    ASSERT_EQ(timeout, 3);
    const std::string wlan0_before = radio_state("wlan0");
    const std::string wlan1_before = radio_state("wlan1");

    driver_test::request_recorder recorder;
    enable_logs();
    log_capture log;
    int second = 0;
    EXPECT_EQ(driver.start(true, all_2g_channels, {}, second), 0);
    EXPECT_EQ(driver.start(false, {6}, {36}, second), 0);
    EXPECT_EQ(second, 0);
    EXPECT_TRUE(driver.is_in_progress());
    EXPECT_TRUE(recorder.requests().empty());
    EXPECT_EQ(radio_state("wlan0"), wlan0_before);
    EXPECT_EQ(radio_state("wlan1"), wlan1_before);
    EXPECT_EQ(state_value("wlan0", "last_scan_channels"), "[1,6,11]");
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"Attempt to start active scanning...\n",
                                                     "Attempt to start RRM scanning...\n"}));
}

TEST_F(driver_realtek_scan_test, a_stop_during_shutdown_reaches_both_radios)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    int timeout = 0;
    ASSERT_EQ(driver.start(true, {1, 6}, {36}, timeout), 0);
    ASSERT_EQ(state_value("wlan0", "counters.stop_scan"), "1");  // the one before the start

    run = false;  // the daemon is stopping
    EXPECT_EQ(driver.stop(true), 0);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_EQ(state_value("wlan0", "counters.stop_scan"), "2");
    EXPECT_EQ(state_value("wlan1", "counters.stop_scan"), "2");
}

TEST_F(driver_realtek_scan_test, an_rrm_scan_stopped_during_shutdown_is_stopped_on_both_radios)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    int timeout = 0;
    ASSERT_EQ(driver.start(false, {6}, {36}, timeout), 0);
    ASSERT_EQ(state_value("wlan0", "mibs.rrm_scan_started"), "\"1\"");
    ASSERT_EQ(state_value("wlan1", "mibs.rrm_scan_started"), "\"1\"");

    run = false;
    EXPECT_EQ(driver.stop(false), 0);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_EQ(state_value("wlan0", "mibs.rrm_scan_started"), "\"0\"");
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_started"), "\"0\"");
}

TEST_F(driver_realtek_scan_test, a_stop_after_the_radios_were_let_go_sends_nothing)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    int timeout = 0;
    ASSERT_EQ(driver.start(true, {1}, {36}, timeout), 0);
    driver.close_vapcontext();
    run = false;
    EXPECT_EQ(driver.stop(true), 0);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_EQ(state_value("wlan0", "counters.stop_scan"), "1");
    EXPECT_EQ(state_value("wlan1", "counters.stop_scan"), "1");
}

TEST_F(driver_realtek_scan_test, stopping_while_idle_does_nothing)
{
    ASSERT_TRUE(start_vdev(two_radios(R"({"mibs": {"rrm_scan_started": "1"}})")));
    driver_realtek driver(run);
    driver.set_vapcontext();
    const std::string wlan0_before = radio_state("wlan0");
    const std::string wlan1_before = radio_state("wlan1");

    driver_test::request_recorder recorder;
    enable_logs();
    log_capture log;
    EXPECT_EQ(driver.stop(true), 0);
    EXPECT_EQ(driver.stop(false), 0);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_TRUE(recorder.requests().empty());
    EXPECT_EQ(radio_state("wlan0"), wlan0_before);
    EXPECT_EQ(radio_state("wlan1"), wlan1_before);
    EXPECT_EQ(state_value("wlan0", "counters.stop_scan"), "");
    EXPECT_EQ(state_value("wlan1", "mibs.rrm_scan_started"), "\"1\"");
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"Attempt to stop active scanning...\n",
                                                     "Attempt to stop RRM scanning...\n"}));

    // While scanning, the same stop reaches both radios.
    int timeout = 0;
    driver.start(true, {1}, {36}, timeout);
    EXPECT_EQ(driver.stop(true), 0);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_EQ(state_value("wlan0", "counters.stop_scan"), "2");  // one before the start, one now
    EXPECT_EQ(state_value("wlan1", "counters.stop_scan"), "2");
}

// wlan0's scan results hold an entry without a signal value, which the emulated driver
// refuses with EIO, as it refuses any state it cannot answer from.
TEST_F(driver_realtek_scan_test, a_failed_wlan0_result_read_leaves_wlan1_unread)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    ap_table table;
    ASSERT_EQ(driver.fill_ap_table(table), 0);
    ASSERT_EQ(last_bytes(table), (std::vector<int>{0x01, 0x06, 0x0b, 0x24, 0x2c}));  // wlan0's, then wlan1's

    std::string state = radio_state("wlan0");
    const std::string list = "\"scan_results\":[";
    ASSERT_NE(state.find(list), std::string::npos) << state;
    state.replace(state.find(list), list.size(), list + R"({"bssid":"02:00:00:00:24:99"},)");
    ASSERT_TRUE(vrtl::write_state("wlan0", state));

    driver_test::request_recorder recorder;
    driver_test::stderr_capture errors;
    enable_logs();
    log_capture log;
    EXPECT_EQ(driver.fill_ap_table(table), -1);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(requests_to(recorder, "wlan0"), 1u);
    EXPECT_EQ(requests_to(recorder, "wlan1"), 0u);
    EXPECT_NE(
        errors.text().find("vrtl: wlan0: VENDOR_COMMAND (0x8bbf): state: scan_results[0] needs \"bssid\", "
                           "\"rssi\" and \"chanspec\"\n"),
        std::string::npos)
        << errors.text();
    EXPECT_EQ(driver_test::count_lines(
                  log, VLR_LOG_ERROR,
                  R"(<execute:\d+> cannot execute command\(errno = Input/output error\)\(command = 2\)\n)"),
              1u);
}

TEST_F(driver_realtek_scan_test, a_failed_wlan0_rrm_result_read_leaves_wlan1_unread)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    ap_table table;
    ASSERT_EQ(driver.fill_ap_table_vorna_rrm(table), 0);
    ASSERT_EQ(last_bytes(table), (std::vector<int>{0x01, 0x06, 0x0b, 0x24, 0x2c}));

    std::string state = radio_state("wlan0");
    const std::string list = "\"rrm_scan_results\":[";
    ASSERT_NE(state.find(list), std::string::npos) << state;
    state.replace(state.find(list), list.size(),
                  list + R"({"bssid":"02:00:00:00:24:99","rssi":-50,"chanspec":4102},)");
    ASSERT_TRUE(vrtl::write_state("wlan0", state));

    driver_test::request_recorder recorder;
    driver_test::stderr_capture errors;
    EXPECT_EQ(driver.fill_ap_table_vorna_rrm(table), -1);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(requests_to(recorder, "wlan1"), 0u);
    EXPECT_NE(errors.text().find("rrm_scan_results[0] needs \"tx_power\""), std::string::npos)
        << errors.text();
}

// The driver never finds a radio in WDS mode by itself; the snapshot flag is set by hand.
TEST_F(driver_realtek_scan_test, a_wds_radio_is_never_scanned_and_contributes_no_results)
{
    ASSERT_TRUE(start_vdev(two_radios()));
    driver_realtek driver(run);
    driver.set_vapcontext();
    driver.get_radio(0)->wds = true;
    ASSERT_TRUE(driver.is_wds_enabled(0));

    int timeout = 0;
    EXPECT_EQ(driver.start(true, {1, 6, 11}, {36, 44}, timeout), 0);
    EXPECT_EQ(timeout, 2);  // wlan1's two channels only; wlan0's three would make it 3
    EXPECT_EQ(state_value("wlan0", "counters"), "");
    EXPECT_EQ(state_value("wlan0", "last_scan_channels"), "");
    EXPECT_EQ(state_value("wlan1", "last_scan_channels"), "[36,44]");

    ap_table table;
    EXPECT_EQ(driver.fill_ap_table(table), 0);
    EXPECT_EQ(last_bytes(table), (std::vector<int>{0x24, 0x2c}));
    EXPECT_EQ(driver.fill_ap_table_vorna_rrm(table), 0);
    EXPECT_EQ(last_bytes(table), (std::vector<int>{0x24, 0x2c}));

    driver.stop(true);
    timeout = 0;
    EXPECT_EQ(driver.start(false, {6}, {36}, timeout), 0);
    EXPECT_EQ(state_value("wlan0", "counters.rrm_scan_trigger"), "");
    EXPECT_EQ(state_value("wlan0", "mibs.rrm_scan_chan"), "\"0\"");
    EXPECT_EQ(state_value("wlan1", "counters.rrm_scan_trigger"), "1");

    std::string channels = "untouched";
    driver.fill_chanspecs("wlan0", channels);
    EXPECT_EQ(channels, "untouched");
}

}  // namespace
