// driver_realtek when configd is silent or gone, on the largest access point it serves
// (sim/vdev/scenarios/full.json: two radios with seven VAPs each, all up). The snapshot there
// makes the most configd exchanges the driver makes in one go; against a silent configd each
// of them ends by its time-out. The agent's worker takes the snapshot between two readings of
// its clock, so it must stay inside the clock guard. The guard is real here: a timer_processor
// is read before and after the snapshot, and a gap of more than 10 s ends this test program
// with status 255.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/timer_processor.h"
#include "driver/driver_realtek.h"
#include "log_capture.h"
#include "vdev_fixture.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int radios = 2;
constexpr int vaps_per_radio = 7;
// Per radio country, bandwidth and sideband; per VAP ssid, captive portal, security mode and
// 802.11k. A configd that never answers leaves the bandwidth at its 20 MHz default, which
// makes the sideband read on both radios.
constexpr size_t reads_when_silent = radios * (3 + vaps_per_radio * 4);

std::string full_scenario()
{
    const std::string default_path = ORVD_VDEV_SCENARIO;
    std::ifstream in(default_path.substr(0, default_path.rfind('/') + 1) + "full.json");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string vap_name(int radio, int vap)
{
    return "wlan" + std::to_string(radio) + "-va" + std::to_string(vap);
}

// The SSIDs of full.json, radio by radio.
const char* const scenario_ssids[radios][vaps_per_radio] = {
    {"Orion-Corp", "Orion-Staff", "Orion-Guest", "Orion-Voice", "Orion-IoT", "Orion-Legacy", "Orion-Events"},
    {"Orion-Corp-5G", "Orion-Secure", "Orion-Staff-5G", "Orion-Guest-5G", "Orion-Voice-5G", "Orion-Video",
     "Orion-Lab"},
};

class driver_faults_test : public driver_test::vdev_fixture {
protected:
    void SetUp() override { ASSERT_TRUE(start_vdev(full_scenario())); }

    // One command on the simulator's control socket; its one-line answer without the newline.
    std::string control(const std::string& command) const
    {
        const std::string path = root_path() + "/sim/vdev/control";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path)
            return "error control path too long";
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            if (fd >= 0)
                close(fd);
            return std::string("error cannot connect: ") + std::strerror(errno);
        }
        const std::string line = command + "\n";
        std::string answer;
        if (write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
            char c = 0;
            while (read(fd, &c, 1) == 1 && c != '\n')
                answer += c;
        }
        close(fd);
        return answer;
    }

    // The configd requests served so far, answered or not.
    std::vector<driver_test::served_request> configd_gets() const
    {
        std::vector<driver_test::served_request> gets;
        for (const driver_test::served_request& request : served())
            if (request.as == "configd" && request.command == "get")
                gets.push_back(request);
        return gets;
    }

    // Takes the snapshot between two checked readings of a worker's clock, as the agent's
    // worker does; the time it took in seconds.
    double snapshot_under_the_clock_guard(driver_realtek& driver)
    {
        timer_processor timers;
        timers.time_monotonic();
        const clock_type::time_point started = clock_type::now();
        driver.set_vapcontext();
        const double seconds = std::chrono::duration<double>(clock_type::now() - started).count();
        timers.time_monotonic();  // ends the process when the snapshot took more than 10 s
        return seconds;
    }

    void expect_radios_up_on_their_bands(const driver_realtek& driver) const
    {
        EXPECT_TRUE(driver.is_enabled(0));
        EXPECT_TRUE(driver.is_enabled(1));
        EXPECT_TRUE(driver.is_band(0, RRM_BAND_2G));
        EXPECT_TRUE(driver.is_band(1, RRM_BAND_5G));
    }

    // Every VAP is up (from sysfs) but nothing configd would have said is known.
    void expect_vaps_up_without_configuration(const driver_realtek& driver) const
    {
        for (int radio = 0; radio < radios; ++radio) {
            // Without an answer the bandwidth defaults to 20 MHz and the sideband adds nothing.
            EXPECT_EQ(driver.get_config_spec(radio), 0x1000u) << radio;
            for (int vap = 0; vap < vaps_per_radio; ++vap) {
                SCOPED_TRACE(vap_name(radio, vap));
                EXPECT_TRUE(driver.is_vap_enabled(radio, vap));
                EXPECT_STREQ(driver.VapIdToSsid(static_cast<unsigned>(vap), radio), "");
                EXPECT_FALSE(driver.is_802dot11k(radio, vap));
            }
        }
    }
};

TEST_F(driver_faults_test, the_full_access_point_has_fourteen_vaps_up)
{
    for (int radio = 0; radio < radios; ++radio)
        for (int vap = 0; vap < vaps_per_radio; ++vap)
            EXPECT_EQ(read_device_file("/sys/class/net/" + vap_name(radio, vap) + "/flags"), "0x1003\n");
    EXPECT_FALSE(device_path_exists("/sys/class/net/wlan0-va7"));
}

TEST_F(driver_faults_test, a_silent_configd_leaves_the_snapshot_unconfigured_within_the_clock_guard)
{
    ASSERT_EQ(control("configd mute"), "ok");
    driver_realtek driver(run);
    driver.set_hostapd_initialized(true);
    log_capture log;
    enable_logs();
    const double seconds = snapshot_under_the_clock_guard(driver);
    std::printf("set_vapcontext, full access point, configd silent: %.3f s for %zu reads\n", seconds,
                configd_gets().size());

    expect_radios_up_on_their_bands(driver);
    expect_vaps_up_without_configuration(driver);
    const std::vector<driver_test::served_request> gets = configd_gets();
    EXPECT_EQ(gets.size(), reads_when_silent);
    for (const driver_test::served_request& get : gets)
        EXPECT_EQ(get.reply, "") << get.path << " was answered: " << get.reply;
    for (int radio = 0; radio < radios; ++radio)
        for (int vap = 0; vap < vaps_per_radio; ++vap)
            EXPECT_EQ(times_read("/interface/" + vap_name(radio, vap) + "/vap/ssid"), 1u);
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/control-sideband"), 1u);
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_ERROR, "Error: can't get config\n"), reads_when_silent);
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_ERROR,
                                       "Error: path \\(/interface/.*\\) reason \\(not found\\)\n"),
              reads_when_silent);
}

TEST_F(driver_faults_test, an_absent_configd_fails_every_read_at_once)
{
    // The simulator's end takes configd and networkd off the bus; the device tree and the
    // radio state that vrtl serves stay.
    ASSERT_EQ(vdev.stop(), 0);
    ASSERT_FALSE(device_path_exists("/run/msgbus/module-1"));
    driver_realtek driver(run);
    driver.set_hostapd_initialized(true);
    log_capture log;
    enable_logs();
    const double seconds = snapshot_under_the_clock_guard(driver);
    std::printf("set_vapcontext, full access point, configd absent: %.3f s for %zu reads\n", seconds,
                reads_when_silent);

    expect_radios_up_on_their_bands(driver);
    expect_vaps_up_without_configuration(driver);
    EXPECT_TRUE(served().empty());
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_ERROR, "Error: can't get config\n"), reads_when_silent);
}

TEST_F(driver_faults_test, an_answering_configd_fills_the_whole_snapshot_within_the_clock_guard)
{
    driver_realtek driver(run);
    driver.set_hostapd_initialized(true);
    const double seconds = snapshot_under_the_clock_guard(driver);
    const std::vector<driver_test::served_request> gets = configd_gets();
    std::printf("set_vapcontext, full access point, configd answering: %.3f s for %zu reads\n", seconds,
                gets.size());
    EXPECT_EQ(gets.size(), reads_when_silent - 1);  // wlan1's sideband is not read at 80 MHz
    for (const driver_test::served_request& get : gets)
        EXPECT_NE(get.reply, "") << get.path;

    expect_radios_up_on_their_bands(driver);
    EXPECT_EQ(driver.get_config_spec(0), 0x1800u);  // 40 MHz; the sideband adds no bits
    EXPECT_EQ(driver.get_config_spec(1), 0x2000u);  // 80 MHz: the sideband is not read
    for (int radio = 0; radio < radios; ++radio)
        for (int vap = 0; vap < vaps_per_radio; ++vap)
            EXPECT_STREQ(driver.VapIdToSsid(static_cast<unsigned>(vap), radio), scenario_ssids[radio][vap]);
    EXPECT_TRUE(driver.is_802dot11k(0, 3));
    EXPECT_FALSE(driver.is_802dot11k(0, 4));
    EXPECT_TRUE(driver.is_fbt_enabled(1, 6));   // WPA2_1X with 802.11r
    EXPECT_FALSE(driver.is_fbt_enabled(1, 5));  // no 802.11r
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/control-sideband"), 0u);
}

TEST_F(driver_faults_test, configd_answers_again_once_unmuted)
{
    ASSERT_EQ(control("configd mute"), "ok");
    driver_realtek driver(run);
    driver.set_hostapd_initialized(true);
    log_capture quiet;  // the bus library's time-out lines
    driver.set_vapcontext();
    EXPECT_STREQ(driver.VapIdToSsid(0, 0), "");
    ASSERT_EQ(control("configd unmute"), "ok");
    driver.set_vapcontext();
    EXPECT_STREQ(driver.VapIdToSsid(0, 0), "Orion-Corp");
    EXPECT_STREQ(driver.VapIdToSsid(6, 1), "Orion-Lab");
}

}  // namespace
