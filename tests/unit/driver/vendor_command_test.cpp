// The exact vendor command blocks the daemon sends, as the emulated driver receives them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"
#include "vrtl_state.h"

namespace {

using driver_test::request_recorder;
using driver_test::seen_request;

class vendor_command_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan0", R"({"chanspec": 4358, "available_channels": [1, 6, 11],
                                 "stations": {"wlan0-va0": []}})");
    }

    // The one request the recorder saw; checks what every vendor command has in common.
    seen_request only_command(const request_recorder& recorder, const char* ifname)
    {
        const auto requests = recorder.requests();
        EXPECT_EQ(requests.size(), 1u);
        if (requests.empty())
            return {};
        const seen_request& seen = requests[0];
        EXPECT_EQ(seen.request, 0x8BBFul);
        EXPECT_EQ(seen.ifname, ifname);
        EXPECT_FALSE(seen.data_null);
        EXPECT_EQ(seen.length, 0xFFFEu);  // the block's size cut to 16 bits
        EXPECT_EQ(seen.flags, 0u);
        EXPECT_EQ(seen.data.size(), 131070u);
        return seen;
    }

    ::testing::NiceMock<mock_driver> driver;
};

// True when every byte of the block from `offset` on is zero.
bool zero_from(const seen_request& seen, size_t offset)
{
    for (size_t i = offset; i < seen.data.size(); ++i)
        if (seen.data[i] != 0)
            return false;
    return true;
}

TEST_F(vendor_command_test, a_start_over_no_channels_sends_count_0)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    ASSERT_EQ(ops.start_scan({}), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 0u);
    EXPECT_EQ(seen.u32_at(4), 0u);
    EXPECT_TRUE(zero_from(seen, 8));
    EXPECT_EQ(vrtl::read_value("wlan0", "last_scan_channels"), "[]");
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.start_scan"), "1");
}

TEST_F(vendor_command_test, a_start_sends_its_channels_ascending_as_16_bit_values)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    ASSERT_EQ(ops.start_scan({11, 1, 6}), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 0u);
    EXPECT_EQ(seen.u32_at(4), 3u);
    EXPECT_EQ(seen.u16_at(8), 1u);
    EXPECT_EQ(seen.u16_at(10), 6u);
    EXPECT_EQ(seen.u16_at(12), 11u);
    EXPECT_TRUE(zero_from(seen, 14));
    EXPECT_EQ(vrtl::read_value("wlan0", "last_scan_channels"), "[1,6,11]");
}

TEST_F(vendor_command_test, a_stop_sends_command_1_with_count_0)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    ASSERT_EQ(ops.stop_scan(), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 1u);
    EXPECT_EQ(seen.u32_at(4), 0u);
    EXPECT_TRUE(zero_from(seen, 8));
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.stop_scan"), "1");
}

TEST_F(vendor_command_test, a_standard_scan_result_request_asks_for_twice_the_room_9360)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    ap_table table;
    ASSERT_EQ(ops.get_scan_result(table), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 2u);
    EXPECT_EQ(seen.u32_at(4), 9360u);
    EXPECT_TRUE(zero_from(seen, 8));
}

TEST_F(vendor_command_test, an_rrm_scan_result_request_asks_for_twice_the_room_9360)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    ap_table table;
    ASSERT_EQ(ops.get_rrm_scan_result(table), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 3u);
    EXPECT_EQ(seen.u32_at(4), 9360u);
    EXPECT_TRUE(zero_from(seen, 8));
}

TEST_F(vendor_command_test, a_station_request_asks_for_twice_the_room_10920)
{
    ioctl_ops ops(driver, "wlan0-va0");
    request_recorder recorder;
    std::vector<rrm_sta_realtek> stations;
    ASSERT_EQ(ops.get_assoc_sta(stations), 0);
    const seen_request seen = only_command(recorder, "wlan0-va0");
    EXPECT_EQ(seen.u32_at(0), 4u);
    EXPECT_EQ(seen.u32_at(4), 10920u);
    EXPECT_TRUE(zero_from(seen, 8));
}

TEST_F(vendor_command_test, a_channel_request_asks_for_twice_the_room_65530)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    std::set<unsigned> channels;
    ASSERT_EQ(ops.get_available_channels(channels), 0);
    const seen_request seen = only_command(recorder, "wlan0");
    EXPECT_EQ(seen.u32_at(0), 5u);
    EXPECT_EQ(seen.u32_at(4), 65530u);
    EXPECT_TRUE(zero_from(seen, 8));
}

TEST_F(vendor_command_test, the_fillers_multiply_the_room_by_what_execute_passes)
{
    std::unique_ptr<vorna_command_t, decltype(&std::free)> block(
        static_cast<vorna_command_t*>(std::calloc(1, sizeof(vorna_command_t))), &std::free);
    ioctl_ops::fill_scan_result(*block, 1, 131070);
    EXPECT_EQ(block->count, 4680u);
    ioctl_ops::fill_scan_result(*block, 2, 131070);
    EXPECT_EQ(block->count, 9360u);
    ioctl_ops::fill_assoc_sta(*block, 1, 131070);
    EXPECT_EQ(block->count, 5460u);
    ioctl_ops::fill_available_channels(*block, 1, 131070);
    EXPECT_EQ(block->count, 32765u);
}

TEST_F(vendor_command_test, execute_hands_the_fill_function_the_block_multiplier_and_size)
{
    ioctl_ops ops(driver, "wlan0");
    request_recorder recorder;
    int multiplier = 0;
    unsigned size = 0;
    bool parsed = false;
    const int result = ops.execute(
        CMD_GET_SCAN_RESULT,
        [&](vorna_command_t& block, int given_multiplier, unsigned given_size) {
            multiplier = given_multiplier;
            size = given_size;
            EXPECT_EQ(block.cmd, 2u);
            block.count = 9360;
        },
        [&] { parsed = true; });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(multiplier, 2);
    EXPECT_EQ(size, 131070u);
    EXPECT_TRUE(parsed);
    ASSERT_EQ(recorder.requests().size(), 1u);
}

TEST_F(vendor_command_test, a_refused_command_is_logged_with_its_number_and_nothing_is_parsed)
{
    ioctl_ops ops(driver, "wlan0");
    driver_test::stderr_capture errors;
    log_capture log;
    bool parsed = false;
    // Count 1 is not what the driver expects for command 2.
    const int result = ops.execute(
        CMD_GET_SCAN_RESULT, [](vorna_command_t& block, int, unsigned) { block.count = 1; },
        [&] { parsed = true; });
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(parsed);
    EXPECT_EQ(driver_test::count_lines(
                  log, VLR_LOG_ERROR,
                  R"(<execute:\d+> cannot execute command\(errno = Invalid argument\)\(command = 2\)\n)"),
              1u);
    EXPECT_NE(errors.text().find("vrtl: wlan0: "), std::string::npos);
}

}  // namespace
