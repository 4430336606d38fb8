// The request socket: naming the interface, opening and closing, and what every operation
// does without a socket.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"

namespace {

using driver_test::count_lines;
using driver_test::request_recorder;

class ioctl_ops_socket_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan0", R"({"chanspec": 4358, "scan_results": [], "available_channels": [1]})");
    }

    ::testing::StrictMock<mock_driver> driver;
};

TEST_F(ioctl_ops_socket_test, a_new_object_names_the_interface_and_opens_a_socket)
{
    ioctl_ops ops(driver, "wlan0-va1");
    EXPECT_GE(ops.sock, 0);
    EXPECT_STREQ(ops.req.ifr_name, "wlan0-va1");
    EXPECT_EQ(ops.driver, &driver);
}

TEST_F(ioctl_ops_socket_test, a_long_name_is_cut_to_fit_with_its_terminator)
{
    ioctl_ops ops(driver, "wlan0-va1-much-too-long");
    EXPECT_EQ(std::string(ops.req.ifr_name), std::string("wlan0-va1-much-too-long").substr(0, IFNAMSIZ - 1));
}

TEST_F(ioctl_ops_socket_test, reset_and_destruction_close_the_socket)
{
    int fd = -1;
    {
        ioctl_ops ops(driver, "wlan0");
        fd = ops.sock;
        ASSERT_GE(fd, 0);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    ioctl_ops ops(driver, "wlan0");
    fd = ops.sock;
    ops.reset();
    EXPECT_EQ(ops.sock, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    ops.reset();  // twice is harmless
    EXPECT_EQ(ops.sock, -1);
}

TEST_F(ioctl_ops_socket_test, assign_replaces_socket_and_name)
{
    ioctl_ops ops(driver, "wlan0-va3");
    ::testing::StrictMock<mock_driver> other;
    ASSERT_EQ(ops.assign(other, "wlan0"), 0);
    EXPECT_GE(ops.sock, 0);
    EXPECT_STREQ(ops.req.ifr_name, "wlan0");
    EXPECT_EQ(ops.driver, &other);
    std::set<unsigned> channels;
    EXPECT_EQ(ops.get_available_channels(channels), 0);
}

TEST_F(ioctl_ops_socket_test, without_a_socket_every_command_returns_minus_2_and_sends_nothing)
{
    ioctl_ops ops(driver, "wlan0");
    ops.reset();
    request_recorder recorder;
    log_capture log;
    ap_table table(2);
    std::vector<rrm_sta_realtek> stations;
    std::set<unsigned> channels{9};
    EXPECT_EQ(ops.start_scan({1, 6}), -2);
    EXPECT_EQ(ops.stop_scan(), -2);
    EXPECT_EQ(ops.get_scan_result(table), -2);
    EXPECT_EQ(ops.get_rrm_scan_result(table), -2);
    EXPECT_EQ(ops.get_assoc_sta(stations), -2);
    EXPECT_EQ(ops.get_available_channels(channels), -2);
    bool filled = false;
    EXPECT_EQ(ops.execute(
                  CMD_STOP_SCAN, [&](vorna_command_t&, int, unsigned) { filled = true; }, [] {}),
              -2);
    EXPECT_FALSE(filled);
    EXPECT_EQ(
        count_lines(log, VLR_LOG_WARNING, R"(<execute:\d+> socket for action by ioctl aren't created\n)"),
        7u);
    EXPECT_EQ(ops.start_rrm_scan(36), -2);
    EXPECT_EQ(count_lines(log, VLR_LOG_WARNING,
                          R"(<start_rrm_scan:\d+> socket for action by ioctl aren't created\n)"),
              1u);
    EXPECT_EQ(ops.stop_rrm_scan(), -2);
    EXPECT_EQ(count_lines(log, VLR_LOG_WARNING,
                          R"(<stop_rrm_scan:\d+> socket for action by ioctl aren't created\n)"),
              1u);
    EXPECT_TRUE(recorder.requests().empty());
    EXPECT_EQ(table.size(), 2u);
    EXPECT_TRUE(stations.empty());
    EXPECT_EQ(channels, std::set<unsigned>{9});
    EXPECT_EQ(log.lines().size(), 9u);
}

TEST_F(ioctl_ops_socket_test, without_a_socket_mib_requests_fail_in_the_ioctl)
{
    ioctl_ops ops(driver, "wlan0");
    ops.reset();
    log_capture log;
    EXPECT_EQ(ops.set_mib("rrm_scan_chan", "1"), -1);
    uint32_t value = 0;
    EXPECT_EQ(ops.get_mib("chanspec", &value), -1);
    EXPECT_EQ(
        count_lines(
            log, VLR_LOG_ERROR,
            R"(<set_mib:\d+> cannot set MIB parametr 'rrm_scan_chan=1'\(errno = Bad file descriptor\)\(\)\n)"),
        1u);
    EXPECT_EQ(
        count_lines(
            log, VLR_LOG_ERROR,
            R"(<get_mib:\d+> cannot get MIB parametr 'chanspec'\(errno = \(9\)Bad file descriptor\)\(rc == -1\)\n)"),
        1u);
}

// In a child process: limits the descriptors so that no socket can be made, then checks what
// a new object logs and does. The exit code tells.
void run_without_descriptors(const driver_interface& driver)
{
    // The lowest free descriptor is the first one socket() would get.
    const int lowest = open("/dev/null", O_RDONLY);
    close(lowest);
    const rlimit limit{static_cast<rlim_t>(lowest), static_cast<rlim_t>(lowest)};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        std::_Exit(2);
    log_capture log;
    ioctl_ops ops(driver, "wlan0");
    // Plain string checks: nothing here may need a descriptor (a sanitizer's checks of the
    // regex library would).
    const auto lines = log.lines();
    const std::string tail = "> cannot create socket for the ioctl call(errno = Too many open files)\n";
    const bool logged = lines.size() == 1 && lines[0].level == VLR_LOG_ERROR &&
                        lines[0].text.rfind("<assign:", 0) == 0 && lines[0].text.size() > tail.size() &&
                        lines[0].text.compare(lines[0].text.size() - tail.size(), tail.size(), tail) == 0;
    ap_table table;
    const bool refused = ops.sock == -1 && ops.get_scan_result(table) == -2;
    std::_Exit(logged && refused ? 0 : 1);
}

TEST_F(ioctl_ops_socket_test, a_socket_that_cannot_be_made_is_an_error_and_leaves_no_socket)
{
    EXPECT_EXIT(run_without_descriptors(driver), ::testing::ExitedWithCode(0), "");
}

}  // namespace
