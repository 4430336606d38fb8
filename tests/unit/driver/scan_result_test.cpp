// Standard and RRM scan results read through the real ioctl() path from the emulated driver.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"
#include "vrtl_state.h"

namespace {

using driver_test::count_lines;
using ::testing::_;
using ::testing::Invoke;

class scan_result_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        // The fake decodes a chanspec's channel as its low byte and its bandwidth as 20 MHz.
        ON_CALL(driver, chanspec_channel(_)).WillByDefault(Invoke([](unsigned chanspec) {
            return int(chanspec & 0xFF);
        }));
        ON_CALL(driver, chanspec_bw(_)).WillByDefault(Invoke([](unsigned) { return 20; }));
    }

    void write_neighbours(const std::string& standard, const std::string& rrm)
    {
        write_state("wlan0", R"({"chanspec": 4358, "scan_results": )" + standard +
                                 R"(, "rrm_scan_results": )" + rrm + "}");
    }

    ::testing::NiceMock<mock_driver> driver;
};

TEST_F(scan_result_test, standard_records_give_bssid_rssi_channel_bandwidth_and_primary)
{
    write_neighbours(
        R"([{"bssid": "02:11:22:33:44:01", "rssi": -61, "channel": 6, "bandwidth": 20, "chanspec": 4102},
                         {"bssid": "fe:dc:ba:98:76:54", "rssi": -75, "channel": 40, "bandwidth": 80, "chanspec": 59982}])",
        "[]");
    ioctl_ops ops(driver, "wlan0");
    ap_table table;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    ASSERT_EQ(table.size(), 2u);
    const unsigned char first[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x01};
    EXPECT_EQ(std::memcmp(table[0].bssid, first, 6), 0);
    EXPECT_EQ(table[0].rssi, -61);
    EXPECT_EQ(table[0].channel, 6);
    EXPECT_EQ(table[0].bandwidth, 20);
    EXPECT_EQ(table[0].tx_power, 0);
    EXPECT_EQ(table[0].primary, 0);
    const unsigned char second[6] = {0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54};
    EXPECT_EQ(std::memcmp(table[1].bssid, second, 6), 0);
    EXPECT_EQ(table[1].rssi, -75);
    EXPECT_EQ(table[1].channel, 40);
    EXPECT_EQ(table[1].bandwidth, 80);
    EXPECT_EQ(table[1].primary, 59982 & 0x700);
}

TEST_F(scan_result_test, results_are_appended_to_what_the_table_holds)
{
    write_neighbours(
        R"([{"bssid": "02:11:22:33:44:01", "rssi": -61, "channel": 6, "bandwidth": 20, "chanspec": 4102}])",
        "[]");
    ioctl_ops ops(driver, "wlan0");
    ap_table table(1);
    table[0].rssi = -1;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].rssi, -1);
    EXPECT_EQ(table[1].rssi, -61);
}

TEST_F(scan_result_test, an_rrm_record_with_power_minus_5_quarters_gives_minus_1)
{
    write_neighbours("[]", R"([{"bssid": "02:11:22:33:44:01", "rssi": -61, "tx_power": -5, "chanspec": 4102},
                              {"bssid": "02:11:22:33:44:02", "rssi": -70, "tx_power": 68, "chanspec": 53540}])");
    ioctl_ops ops(driver, "wlan0");
    ap_table table;
    ASSERT_EQ(ops.get_rrm_scan_result(table), 0);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].tx_power, -1);
    EXPECT_EQ(table[0].channel, 6);
    EXPECT_EQ(table[0].bandwidth, 20);
    EXPECT_EQ(table[1].tx_power, 17);
    EXPECT_EQ(table[1].channel, 53540 & 0xFF);
    EXPECT_EQ(table[1].primary, 53540 & 0x700);
    EXPECT_EQ(table[1].rssi, -70);
}

TEST_F(scan_result_test, an_empty_standard_result_is_an_info_line_only)
{
    write_neighbours("[]", "[]");
    ioctl_ops ops(driver, "wlan0");
    log_capture log;
    ap_table table;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(count_lines(log, VLR_LOG_INFO, R"(<parse_scan_result:\d+> scanning result are absent\n)"), 1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(scan_result_test, an_empty_rrm_result_is_an_info_line_only)
{
    write_neighbours("[]", "[]");
    ioctl_ops ops(driver, "wlan0");
    log_capture log;
    ap_table table;
    ASSERT_EQ(ops.get_rrm_scan_result(table), 0);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(
        count_lines(log, VLR_LOG_INFO, R"(<parse_rrm_scan_result:\d+> rrm scanning result are absent\n)"),
        1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(scan_result_test, a_full_block_of_4680_standard_records_is_read_whole)
{
    write_neighbours(driver_test::neighbours_json(4680, false), "[]");
    ioctl_ops ops(driver, "wlan0");
    ap_table table;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    ASSERT_EQ(table.size(), 4680u);
    // The last record: index 4679 = 0x1247.
    EXPECT_EQ(table.back().bssid[4], 0x12);
    EXPECT_EQ(table.back().bssid[5], 0x47);
    EXPECT_EQ(table.back().channel, 1 + 4679 % 13);
}

TEST_F(scan_result_test, a_full_block_of_4680_rrm_records_is_read_whole)
{
    write_neighbours("[]", driver_test::neighbours_json(4680, true));
    ioctl_ops ops(driver, "wlan0");
    ap_table table;
    ASSERT_EQ(ops.get_rrm_scan_result(table), 0);
    ASSERT_EQ(table.size(), 4680u);
    EXPECT_EQ(table.back().tx_power, (4679 % 100) / 4);
}

TEST_F(scan_result_test, the_driver_answers_no_more_records_than_the_block_holds)
{
    write_neighbours(driver_test::neighbours_json(4700, false), "[]");
    ioctl_ops ops(driver, "wlan0");
    ap_table table;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    EXPECT_EQ(table.size(), 4680u);
}

TEST_F(scan_result_test, a_failed_command_leaves_the_table_as_it_was)
{
    // No state file: the interface does not exist.
    ioctl_ops ops(driver, "wlan1");
    log_capture log;
    ap_table table(3);
    EXPECT_EQ(ops.get_scan_result(table), -1);
    EXPECT_EQ(ops.get_rrm_scan_result(table), -1);
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(
        count_lines(log, VLR_LOG_ERROR,
                    R"(<execute:\d+> cannot execute command\(errno = No such device\)\(command = 2\)\n)"),
        1u);
    EXPECT_EQ(
        count_lines(log, VLR_LOG_ERROR,
                    R"(<execute:\d+> cannot execute command\(errno = No such device\)\(command = 3\)\n)"),
        1u);
}

}  // namespace
