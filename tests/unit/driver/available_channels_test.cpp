// The radio's channel list read through the real ioctl() path from the emulated driver.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"

namespace {

using driver_test::count_lines;

class available_channels_test : public driver_test::driver_fixture {
protected:
    ::testing::StrictMock<mock_driver> driver;
};

TEST_F(available_channels_test, the_channels_are_added_to_the_set)
{
    write_state("wlan1", R"({"available_channels": [36, 40, 44, 48, 149, 165]})");
    ioctl_ops ops(driver, "wlan1");
    std::set<unsigned> channels{1};
    ASSERT_EQ(ops.get_available_channels(channels), 0);
    EXPECT_EQ(channels, (std::set<unsigned>{1, 36, 40, 44, 48, 149, 165}));
}

TEST_F(available_channels_test, no_channels_is_an_error_line)
{
    write_state("wlan1", R"({"available_channels": []})");
    ioctl_ops ops(driver, "wlan1");
    log_capture log;
    std::set<unsigned> channels;
    ASSERT_EQ(ops.get_available_channels(channels), 0);
    EXPECT_TRUE(channels.empty());
    EXPECT_EQ(count_lines(log, VLR_LOG_ERROR,
                          R"(<parse_available_channels:\d+> available channels data are absent\n)"),
              1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(available_channels_test, a_full_block_of_32765_channels_is_read_whole)
{
    std::string list = "[";
    for (int channel = 1; channel <= 32770; ++channel)
        list += (channel == 1 ? "" : ",") + std::to_string(channel);
    write_state("wlan1", R"({"available_channels": )" + list + "]}");
    ioctl_ops ops(driver, "wlan1");
    std::set<unsigned> channels;
    ASSERT_EQ(ops.get_available_channels(channels), 0);
    EXPECT_EQ(channels.size(), 32765u);
    EXPECT_EQ(*channels.rbegin(), 32765u);
}

}  // namespace
