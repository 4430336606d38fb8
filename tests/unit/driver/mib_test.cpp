// MIB writes and reads and the RRM scan start and stop, through the real ioctl() path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"
#include "vrtl_state.h"

namespace {

using driver_test::count_lines;
using driver_test::request_recorder;

class mib_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan1", R"({"chanspec": 59438, "actual_tx_power": 17,
                                 "available_channels": [36, 40, 44, 48],
                                 "mibs": {"rrm_scan_chan": "0", "rrm_scan_started": "0", "ssid": "office"}})");
    }

    void refuse(const std::string& mib)
    {
        write_state("wlan1", R"({"available_channels": [36], "mibs": {}, "refuse_mibs": [")" + mib + "\"]}");
    }

    ::testing::StrictMock<mock_driver> driver;
};

TEST_F(mib_test, a_mib_write_sends_name_equals_value_with_its_terminator)
{
    ioctl_ops ops(driver, "wlan1");
    request_recorder recorder;
    ASSERT_EQ(ops.set_mib("rrm_scan_chan", "36"), 0);
    const auto requests = recorder.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].request, 0x89F1ul);
    EXPECT_EQ(requests[0].ifname, "wlan1");
    EXPECT_EQ(requests[0].length, 17u);
    EXPECT_EQ(std::string(requests[0].data.begin(), requests[0].data.end()),
              std::string("rrm_scan_chan=36\0", 17));
    EXPECT_EQ(vrtl::read_value("wlan1", "mibs.rrm_scan_chan"), "\"36\"");
}

TEST_F(mib_test, a_refused_write_is_an_error_naming_the_mib_and_errno)
{
    refuse("rrm_scan_chan");
    ioctl_ops ops(driver, "wlan1");
    driver_test::stderr_capture errors;
    log_capture log;
    EXPECT_EQ(ops.set_mib("rrm_scan_chan", "36"), -1);
    EXPECT_EQ(
        count_lines(
            log, VLR_LOG_ERROR,
            R"(<set_mib:\d+> cannot set MIB parametr 'rrm_scan_chan=36'\(errno = Operation not permitted\)\(\)\n)"),
        1u);
    EXPECT_EQ(vrtl::read_value("wlan1", "mibs.rrm_scan_chan"), "");
}

TEST_F(mib_test, a_mib_read_sends_the_name_in_a_2048_byte_buffer)
{
    ioctl_ops ops(driver, "wlan1");
    request_recorder recorder;
    uint32_t chanspec = 0;
    ASSERT_EQ(ops.get_mib("chanspec", &chanspec), 0);
    EXPECT_EQ(chanspec, 59438u);
    const auto requests = recorder.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].request, 0x89F2ul);
    EXPECT_EQ(requests[0].length, 2048u);
    ASSERT_EQ(requests[0].data.size(), 2048u);
    EXPECT_EQ(std::string(requests[0].data.begin(), requests[0].data.begin() + 9),
              std::string("chanspec\0", 9));
    // The driver leaves the value's size in the length field.
    EXPECT_EQ(ops.req.u.data.length, 4u);
}

TEST_F(mib_test, a_mib_read_copies_only_the_bytes_the_driver_reports)
{
    ioctl_ops ops(driver, "wlan1");
    unsigned char value[8];
    std::memset(value, 0xAA, sizeof value);
    ASSERT_EQ(ops.get_mib("actual_tx_power", value), 0);
    int32_t power = 0;
    std::memcpy(&power, value, sizeof power);
    EXPECT_EQ(power, 17);
    EXPECT_EQ(value[4], 0xAA);
    char text[16];
    std::memset(text, 'x', sizeof text);
    ASSERT_EQ(ops.get_mib("ssid", text), 0);
    EXPECT_EQ(std::string(text, 7), std::string("office\0", 7));
    EXPECT_EQ(text[7], 'x');
}

TEST_F(mib_test, a_failed_read_logs_name_errno_and_result)
{
    ioctl_ops ops(driver, "wlan1");
    driver_test::stderr_capture errors;
    log_capture log;
    uint32_t value = 7;
    EXPECT_EQ(ops.get_mib("no_such_mib", &value), -1);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(
        count_lines(
            log, VLR_LOG_ERROR,
            R"(<get_mib:\d+> cannot get MIB parametr 'no_such_mib'\(errno = \(22\)Invalid argument\)\(rc == -1\)\n)"),
        1u);
}

TEST_F(mib_test, an_rrm_scan_sets_the_channel_then_triggers_the_scan)
{
    ioctl_ops ops(driver, "wlan1");
    request_recorder recorder;
    ASSERT_EQ(ops.start_rrm_scan(40), 0);
    const auto requests = recorder.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].request, 0x89F1ul);
    EXPECT_EQ(std::string(requests[0].data.begin(), requests[0].data.end()),
              std::string("rrm_scan_chan=40\0", 17));
    EXPECT_EQ(requests[1].request, 0x8B18ul);
    EXPECT_TRUE(requests[1].data_null);
    EXPECT_EQ(requests[1].length, 0u);
    EXPECT_EQ(requests[1].flags, 0u);
    EXPECT_EQ(vrtl::read_value("wlan1", "counters.rrm_scan_trigger"), "1");
    EXPECT_EQ(vrtl::read_value("wlan1", "mibs.rrm_scan_started"), "\"1\"");
}

TEST_F(mib_test, a_refused_scan_channel_returns_0_without_triggering_a_scan)
{
    refuse("rrm_scan_chan");
    ioctl_ops ops(driver, "wlan1");
    driver_test::stderr_capture errors;
    request_recorder recorder;
    EXPECT_EQ(ops.start_rrm_scan(36), 0);
    const auto requests = recorder.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].request, 0x89F1ul);
    EXPECT_EQ(vrtl::read_value("wlan1", "counters.rrm_scan_trigger"), "");
    EXPECT_EQ(vrtl::read_value("wlan1", "mibs.rrm_scan_started"), "");
}

TEST_F(mib_test, a_refused_trigger_is_an_error)
{
    ioctl_ops ops(driver, "wlan1");
    driver_test::stderr_capture errors;
    log_capture log;
    // Channel 6 is not one of this radio's channels.
    EXPECT_EQ(ops.start_rrm_scan(6), -1);
    EXPECT_EQ(count_lines(log, VLR_LOG_ERROR,
                          R"(<start_rrm_scan:\d+> cannot start RRM scanning\(errno = Invalid argument\)\n)"),
              1u);
    EXPECT_NE(errors.text().find("vrtl: wlan1: SIOCSIWSCAN (0x8b18): rrm_scan_chan \"6\""),
              std::string::npos);
}

TEST_F(mib_test, stopping_an_rrm_scan_clears_the_started_mib)
{
    ioctl_ops ops(driver, "wlan1");
    ASSERT_EQ(ops.start_rrm_scan(36), 0);
    request_recorder recorder;
    ASSERT_EQ(ops.stop_rrm_scan(), 0);
    const auto requests = recorder.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(std::string(requests[0].data.begin(), requests[0].data.end()),
              std::string("rrm_scan_started=0\0", 19));
    EXPECT_EQ(vrtl::read_value("wlan1", "mibs.rrm_scan_started"), "\"0\"");
}

TEST_F(mib_test, a_refused_stop_is_an_error)
{
    refuse("rrm_scan_started");
    ioctl_ops ops(driver, "wlan1");
    driver_test::stderr_capture errors;
    log_capture log;
    EXPECT_EQ(ops.stop_rrm_scan(), -1);
    EXPECT_EQ(count_lines(log, VLR_LOG_ERROR, R"(<stop_rrm_scan:\d+> cannot stop RRM scanning\n)"), 1u);
}

}  // namespace
