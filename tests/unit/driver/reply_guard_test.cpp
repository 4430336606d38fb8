// The reply parsers trust the driver's count only as far as the block reaches. The block is
// allocated at its exact size, so a sanitizer build also catches any read past it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/trace.h"
#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"

namespace {

using ::testing::_;
using ::testing::Return;

struct block_deleter {
    void operator()(vorna_command_t* block) const { std::free(block); }
};
using owned_block = std::unique_ptr<vorna_command_t, block_deleter>;

// A block whose every record byte is 0x5A, answering with `count`.
owned_block reply_with_count(uint32_t count)
{
    owned_block block(static_cast<vorna_command_t*>(std::malloc(sizeof(vorna_command_t))));
    std::memset(block.get(), 0x5A, sizeof(vorna_command_t));
    block->cmd = 0;
    block->count = count;
    return block;
}

class reply_guard_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        trace.set_log_level(7);  // no debug line per station
        ON_CALL(driver, chanspec_channel(_)).WillByDefault(Return(1));
        ON_CALL(driver, chanspec_bw(_)).WillByDefault(Return(20));
    }

    ::testing::NiceMock<mock_driver> driver;
};

TEST_F(reply_guard_test, a_scan_reply_claiming_more_records_than_fit_yields_4680)
{
    for (const uint32_t count : {4681u, 9360u, 65535u, 65536u + 3u, 0xFFFFFFFFu}) {
        const owned_block block = reply_with_count(count);
        ap_table table;
        ioctl_ops::parse_scan_result(driver, *block, table);
        EXPECT_EQ(table.size(), 4680u) << count;
        ap_table rrm;
        ioctl_ops::parse_rrm_scan_result(driver, *block, rrm);
        EXPECT_EQ(rrm.size(), 4680u) << count;
    }
}

TEST_F(reply_guard_test, a_station_reply_claiming_more_records_than_fit_yields_5460)
{
    for (const uint32_t count : {5461u, 10920u, 0xFFFFFFFFu}) {
        const owned_block block = reply_with_count(count);
        std::vector<rrm_sta_realtek> stations;
        ioctl_ops::parse_assoc_sta(*block, stations);
        EXPECT_EQ(stations.size(), 5460u) << count;
    }
}

TEST_F(reply_guard_test, a_channel_reply_claiming_more_records_than_fit_reads_32765)
{
    owned_block block = reply_with_count(0xFFFFFFFFu);
    // Distinct channels, so that the set's size shows how many records were read.
    for (uint32_t i = 0; i < 32765; ++i)
        std::memcpy(block->data + 4 * i, &i, sizeof i);
    std::set<unsigned> channels;
    ioctl_ops::parse_available_channels(*block, channels);
    EXPECT_EQ(channels.size(), 32765u);
    EXPECT_EQ(*channels.rbegin(), 32764u);
}

TEST_F(reply_guard_test, a_count_within_the_block_is_taken_as_it_is)
{
    const owned_block block = reply_with_count(3);
    ap_table table(1);
    ioctl_ops::parse_scan_result(driver, *block, table);
    EXPECT_EQ(table.size(), 4u);
    EXPECT_EQ(table[1].rssi, 0x5A5A5A5A);
    std::vector<rrm_sta_realtek> stations;
    ioctl_ops::parse_assoc_sta(*block, stations);
    EXPECT_EQ(stations.size(), 3u);
}

TEST_F(reply_guard_test, a_count_of_0_reads_nothing)
{
    const owned_block block = reply_with_count(0);
    ap_table table;
    ioctl_ops::parse_scan_result(driver, *block, table);
    ioctl_ops::parse_rrm_scan_result(driver, *block, table);
    std::vector<rrm_sta_realtek> stations;
    ioctl_ops::parse_assoc_sta(*block, stations);
    std::set<unsigned> channels;
    ioctl_ops::parse_available_channels(*block, channels);
    EXPECT_TRUE(table.empty());
    EXPECT_TRUE(stations.empty());
    EXPECT_TRUE(channels.empty());
}

}  // namespace
