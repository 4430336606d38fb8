// The station list of a VAP read through the real ioctl() path from the emulated driver.
#include <cstdint>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/trace.h"
#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"

namespace {

using driver_test::count_lines;

class assoc_sta_test : public driver_test::driver_fixture {
protected:
    void write_stations(const std::string& list)
    {
        write_state("wlan0",
                    R"({"chanspec": 4358, "stations": {"wlan0-va0": )" + list + R"(, "wlan0-va1": []}})");
    }

    ::testing::StrictMock<mock_driver> driver;  // parsing stations asks the driver nothing
};

TEST_F(assoc_sta_test, readings_become_chains_and_the_strongest_one_is_the_rssi)
{
    write_stations(R"([{"mac": "A4:5E:60:01:02:03", "rssi": [40, 60, 50, -100]},
                       {"mac": "a4:5e:60:01:02:04", "rssi": [-41, -44, -52, -60]}])");
    ioctl_ops ops(driver, "wlan0-va0");
    log_capture log;
    std::vector<rrm_sta_realtek> stations;
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    ASSERT_EQ(stations.size(), 2u);
    EXPECT_EQ(stations[0].mac, "a4:5e:60:01:02:03");
    EXPECT_EQ(stations[0].rssi_chain[0], 40);
    EXPECT_EQ(stations[0].rssi_chain[1], 60);
    EXPECT_EQ(stations[0].rssi_chain[2], 50);
    EXPECT_EQ(stations[0].rssi_chain[3], -100);
    EXPECT_EQ(stations[0].rssi, 60);
    EXPECT_EQ(stations[1].rssi, -41);
    EXPECT_TRUE(log.contains("mac == a4:5e:60:01:02:03\n"));
    EXPECT_TRUE(log.contains("mac == a4:5e:60:01:02:04\n"));
    EXPECT_EQ(count_lines(log, VLR_LOG_DEBUG, "mac == .*\n"), 2u);
}

TEST_F(assoc_sta_test, stations_are_appended_to_the_list)
{
    write_stations(R"([{"mac": "a4:5e:60:01:02:03", "rssi": [-41]}])");
    ioctl_ops ops(driver, "wlan0-va0");
    sta_info_t first{};
    std::vector<rrm_sta_realtek> stations{rrm_sta_realtek(first)};
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    ASSERT_EQ(stations.size(), 2u);
    EXPECT_EQ(stations[0].mac, "00:00:00:00:00:00");
    EXPECT_EQ(stations[1].rssi, -41);
    // Chains the state leaves out read 0, that is -100 dBm.
    EXPECT_EQ(stations[1].rssi_chain[1], -100);
}

TEST(rrm_sta_realtek_test, readings_at_the_ends_of_the_range_wrap_as_32_bit_arithmetic_does)
{
    // A driver reporting garbage must not make the agent's arithmetic undefined: the reading
    // less 100 is taken modulo 2^32, as the device's own 32-bit code computes it.
    sta_info_t info{};
    info.rssi[0] = INT32_MIN;
    info.rssi[1] = INT32_MIN + 99;
    info.rssi[2] = INT32_MAX;
    info.rssi[3] = 100;
    const rrm_sta_realtek station(info);
    EXPECT_EQ(station.rssi_chain[0], INT32_MAX - 99);
    EXPECT_EQ(station.rssi_chain[1], INT32_MAX);
    EXPECT_EQ(station.rssi_chain[2], INT32_MAX - 100);
    EXPECT_EQ(station.rssi_chain[3], 0);
    EXPECT_EQ(station.rssi, INT32_MAX);
}

TEST_F(assoc_sta_test, no_stations_is_an_info_line_only)
{
    write_stations("[]");
    ioctl_ops ops(driver, "wlan0-va1");
    log_capture log;
    std::vector<rrm_sta_realtek> stations;
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    EXPECT_TRUE(stations.empty());
    EXPECT_EQ(count_lines(log, VLR_LOG_INFO, R"(<parse_assoc_sta:\d+> associated clients are absent\n)"), 1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(assoc_sta_test, a_full_block_of_5460_stations_is_read_whole)
{
    write_stations(driver_test::stations_json(5460));
    ioctl_ops ops(driver, "wlan0-va0");
    trace.set_log_level(7);  // no debug line per station
    std::vector<rrm_sta_realtek> stations;
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    ASSERT_EQ(stations.size(), 5460u);
    // The last one: index 5459 = 0x1553.
    EXPECT_EQ(stations.back().mac, "a4:11:22:00:15:53");
    EXPECT_EQ(stations.back().rssi, -41);
}

TEST_F(assoc_sta_test, the_driver_answers_no_more_stations_than_the_block_holds)
{
    write_stations(driver_test::stations_json(5461));
    ioctl_ops ops(driver, "wlan0-va0");
    trace.set_log_level(7);
    std::vector<rrm_sta_realtek> stations;
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    EXPECT_EQ(stations.size(), 5460u);
}

TEST_F(assoc_sta_test, a_failed_command_leaves_the_list_as_it_was)
{
    write_stations(R"([{"mac": "a4:5e:60:01:02:03", "rssi": [-41]}])");
    // Stations are asked of a VAP; the radio interface refuses the command.
    driver_test::stderr_capture errors;
    ioctl_ops ops(driver, "wlan0");
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops.get_assoc_sta(stations), -1);
    EXPECT_TRUE(stations.empty());
    EXPECT_NE(errors.text().find("vrtl: wlan0: "), std::string::npos);
}

}  // namespace
