// vrtl's state files and its pass-through of every other request to the C library.
#include <dirent.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "driver/ioctl_ops.h"
#include "driver_test_support.h"
#include "mock_driver.h"
#include "vrtl_state.h"

namespace {

using driver_test::raw_socket;

class vrtl_state_test : public driver_test::driver_fixture {
protected:
    std::vector<std::string> state_directory_entries() const
    {
        std::vector<std::string> names;
        DIR* directory = opendir((root.path() + "/sim/vrtl").c_str());
        if (directory == nullptr)
            return names;
        while (const dirent* entry = readdir(directory))
            if (entry->d_name[0] != '.')
                names.push_back(entry->d_name);
        closedir(directory);
        std::sort(names.begin(), names.end());
        return names;
    }

    ::testing::StrictMock<mock_driver> driver;
};

TEST_F(vrtl_state_test, interfaces_map_to_their_radio)
{
    EXPECT_EQ(vrtl::radio_of("wlan0"), "wlan0");
    EXPECT_EQ(vrtl::radio_of("wlan0-va3"), "wlan0");
    EXPECT_EQ(vrtl::radio_of("wlan1-va0"), "wlan1");
    EXPECT_FALSE(vrtl::is_vap("wlan0"));
    EXPECT_TRUE(vrtl::is_vap("wlan0-va3"));
    EXPECT_EQ(vrtl::state_path("wlan1"), root.path() + "/sim/vrtl/wlan1.json");
}

TEST_F(vrtl_state_test, a_written_state_reads_back_in_its_key_order)
{
    write_state("wlan0", R"({"chanspec": 4358, "mibs": {"b": "2", "a": "1"}, "available_channels": [1, 6]})");
    EXPECT_EQ(vrtl::read_state("wlan0"),
              R"({"chanspec":4358,"mibs":{"b":"2","a":"1"},"available_channels":[1,6]})");
    EXPECT_EQ(vrtl::read_value("wlan0", "mibs.a"), "\"1\"");
    EXPECT_EQ(vrtl::read_value("wlan0", "available_channels"), "[1,6]");
    EXPECT_EQ(vrtl::read_value("wlan0", "mibs.c"), "");
    EXPECT_EQ(vrtl::read_value("wlan0", "chanspec.x"), "");
    EXPECT_EQ(vrtl::read_state("wlan9"), "");
}

TEST_F(vrtl_state_test, only_one_json_object_is_a_state)
{
    EXPECT_FALSE(vrtl::write_state("wlan0", "[1, 2]"));
    EXPECT_FALSE(vrtl::write_state("wlan0", "{\"a\": 1"));
    EXPECT_FALSE(vrtl::write_state("wlan0", "{\"a\": 1} {}"));
    EXPECT_EQ(vrtl::read_state("wlan0"), "");
}

TEST_F(vrtl_state_test, a_mib_write_rewrites_the_file_keeping_everything_else)
{
    write_state("wlan0", R"({"chanspec": 4358, "scan_results": [], "mibs": {"rrm_scan_chan": "0"}})");
    ioctl_ops ops(driver, "wlan0-va2");
    ASSERT_EQ(ops.set_mib("rrm_scan_chan", "6"), 0);
    ASSERT_EQ(ops.set_mib("beacon_interval", "100"), 0);
    EXPECT_EQ(vrtl::read_state("wlan0"),
              R"({"chanspec":4358,"scan_results":[],"mibs":{"rrm_scan_chan":"6","beacon_interval":"100"}})");
    // Only the state and its lock: the temporary file was renamed over the state.
    EXPECT_EQ(state_directory_entries(), (std::vector<std::string>{"wlan0.json", "wlan0.lock"}));
}

TEST_F(vrtl_state_test, a_removed_state_takes_the_interface_away)
{
    write_state("wlan0", R"({"chanspec": 4358})");
    ioctl_ops ops(driver, "wlan0");
    uint32_t value = 0;
    ASSERT_EQ(ops.get_mib("chanspec", &value), 0);
    vrtl::remove_state("wlan0");
    log_capture log;
    EXPECT_EQ(ops.get_mib("chanspec", &value), -1);
    EXPECT_TRUE(log.mentions(VLR_LOG_ERROR, "No such device"));
}

TEST_F(vrtl_state_test, a_state_change_shows_in_the_next_request)
{
    write_state("wlan0", R"({"chanspec": 4358})");
    ioctl_ops ops(driver, "wlan0");
    uint32_t value = 0;
    ASSERT_EQ(ops.get_mib("chanspec", &value), 0);
    EXPECT_EQ(value, 4358u);
    write_state("wlan0", R"({"chanspec": 4102})");
    ASSERT_EQ(ops.get_mib("chanspec", &value), 0);
    EXPECT_EQ(value, 4102u);
}

TEST_F(vrtl_state_test, other_requests_go_to_the_c_library)
{
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    ASSERT_EQ(write(pipe_fds[1], "hello", 5), 5);
    int pending = 0;
    EXPECT_EQ(ioctl(pipe_fds[0], FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 5);
    close(pipe_fds[0]);
    close(pipe_fds[1]);

    raw_socket sock;
    struct ifreq request;
    std::memset(&request, 0, sizeof request);
    std::strcpy(request.ifr_name, "lo");
    ASSERT_EQ(ioctl(sock.fd(), SIOCGIFFLAGS, &request), 0);
    EXPECT_NE(request.ifr_flags & IFF_LOOPBACK, 0);
    std::strcpy(request.ifr_name, "no-such-if0");
    EXPECT_EQ(ioctl(sock.fd(), SIOCGIFFLAGS, &request), -1);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(vrtl_state_test, threads_may_use_emulated_and_passed_on_requests_at_once)
{
    write_state("wlan0", R"({"chanspec": 4358, "mibs": {}})");
    write_state("wlan1", R"({"chanspec": 59438, "mibs": {}})");
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([t, &failures, this] {
            const std::string ifname = t % 2 == 0 ? "wlan0" : "wlan1-va0";
            ioctl_ops ops(driver, ifname);
            for (int i = 0; i < 40; ++i) {
                uint32_t value = 0;
                if (ops.get_mib("chanspec", &value) != 0)
                    ++failures;
                if (ops.set_mib("thread_" + std::to_string(t), std::to_string(i)) != 0)
                    ++failures;
                int pending = -1;
                if (ioctl(ops.sock, FIONREAD, &pending) != 0)
                    ++failures;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    // The lock keeps every writer's last value: no read-modify-write lost another's change.
    for (int t = 0; t < 6; ++t)
        EXPECT_EQ(vrtl::read_value(t % 2 == 0 ? "wlan0" : "wlan1", "mibs.thread_" + std::to_string(t)),
                  "\"39\"");
}

}  // namespace
