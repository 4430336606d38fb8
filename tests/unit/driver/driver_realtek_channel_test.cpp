// driver_realtek's chanspec decoders, the configured bandwidth, the list of usable channels and
// the OBSS coexistence flag of mib_11n.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "driver/driver_realtek.h"
#include "log_capture.h"
#include "msgbus.h"
#include "vdev_fixture.h"
#include "vrtl_state.h"

namespace {

using driver_test::radio_json;
using driver_test::scenario_json;
using driver_test::vap_json;

// The decoders need no device: a private root keeps the driver's start-up off the host's.
class driver_realtek_chanspec_test : public driver_test::driver_fixture {
protected:
    volatile bool run = true;
};

TEST_F(driver_realtek_chanspec_test, the_primary_channel_follows_its_position_in_the_bandwidth)
{
    driver_realtek driver(run);
    EXPECT_EQ(driver.chanspec_channel(0x1800 | 0x100 | 38), 40);
    EXPECT_EQ(driver.chanspec_channel(0x1800 | 38), 36);
    EXPECT_EQ(driver.chanspec_channel(0x2000 | 0x300 | 42), 48);
    EXPECT_EQ(driver.chanspec_channel(0x1000 | 6), 6);

    EXPECT_EQ(driver.chanspec_channel(0x2000 | 0x000 | 42), 36);
    EXPECT_EQ(driver.chanspec_channel(0x2000 | 0x100 | 42), 40);
    EXPECT_EQ(driver.chanspec_channel(0x2000 | 0x200 | 42), 44);
    EXPECT_EQ(driver.chanspec_channel(0x2000 | 0x400 | 42), 42);  // no such position: the centre
    EXPECT_EQ(driver.chanspec_channel(0x1800 | 0x200 | 38), 38);
    EXPECT_EQ(driver.chanspec_channel(0x1000 | 0x100 | 6), 6);  // 20 MHz ignores the position
}

TEST_F(driver_realtek_chanspec_test, a_chanspec_without_bandwidth_bits_counts_as_20_mhz_with_a_warning)
{
    driver_realtek driver(run);
    log_capture log;
    EXPECT_EQ(driver.chanspec_bw(0), 20);
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_WARNING,
                                       R"(<chanspec_bw:\d+> bandwidth aren't set in chanspec\n)"),
              1u);
    EXPECT_EQ(log.lines().size(), 1u);

    log.clear();
    EXPECT_EQ(driver.chanspec_bw(0x1000 | 6), 20);
    EXPECT_EQ(driver.chanspec_bw(0x1800 | 38), 40);
    EXPECT_EQ(driver.chanspec_bw(0x2000 | 42), 80);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(driver.chanspec_bw(0x3800 | 42), 20);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(driver_realtek_chanspec_test, only_a_40_mhz_chanspec_names_its_primary)
{
    driver_realtek driver(run);
    EXPECT_STREQ(driver.chanspec_primary(0x2000 | 0x100 | 42), "none");
    EXPECT_STREQ(driver.chanspec_primary(0x2000 | 42), "none");
    EXPECT_STREQ(driver.chanspec_primary(0x1000 | 6), "none");
    EXPECT_STREQ(driver.chanspec_primary(0x1800 | 0x100 | 38), "upper");
    EXPECT_STREQ(driver.chanspec_primary(0x1800 | 38), "lower");
    EXPECT_STREQ(driver.chanspec_primary(0x1800 | 0x200 | 38), "lower");
}

TEST_F(driver_realtek_chanspec_test, sideband_names_depend_on_the_bandwidth)
{
    driver_realtek driver(run);
    EXPECT_STREQ(driver.primary_channel_to_string(0x200, 40), "none");
    EXPECT_STREQ(driver.primary_channel_to_string(0, 80), "ll");
    EXPECT_STREQ(driver.primary_channel_to_string(0x100, 80), "lu");
    EXPECT_STREQ(driver.primary_channel_to_string(0x200, 80), "ul");
    EXPECT_STREQ(driver.primary_channel_to_string(0x300, 80), "uu");
    EXPECT_STREQ(driver.primary_channel_to_string(0x400, 80), "none");
    EXPECT_STREQ(driver.primary_channel_to_string(0, 40), "lower");
    EXPECT_STREQ(driver.primary_channel_to_string(0x100, 40), "upper");
    EXPECT_STREQ(driver.primary_channel_to_string(0, 20), "none");
}

TEST_F(driver_realtek_chanspec_test, the_band_follows_the_primary_channel)
{
    driver_realtek driver(run);
    EXPECT_EQ(driver.chanspec_band(0x1000 | 14), RRM_BAND_2G);
    EXPECT_EQ(driver.chanspec_band(0x1000 | 36), RRM_BAND_5G);
    EXPECT_EQ(driver.chanspec_band(0x1800 | 0x100 | 38), RRM_BAND_5G);
    EXPECT_EQ(driver.channel_band(29), RRM_BAND_2G);
    EXPECT_EQ(driver.channel_band(30), RRM_BAND_5G);
}

// A bandwidth of 160 MHz cannot be put in a scenario (the simulator refuses it), so configd
// is a daemon_responder here that answers every read with "160"; wlan0 is up on channel 6.
TEST_F(driver_realtek_chanspec_test, a_bandwidth_of_160_is_logged_and_read_as_20_mhz)
{
    {
        const std::string interface = root.path() + "/sys/class/net/wlan0";
        std::filesystem::create_directories(interface);
        std::ofstream(interface + "/flags") << "0x1003\n";
    }
    write_state("wlan0", R"({"chanspec": 4102, "actual_tx_power": 17, "available_channels": [1, 6, 11]})");
    const std::string record = root.path() + "/configd-requests";
    driver_test::responder_process configd;
    ASSERT_TRUE(configd.start({"--module", std::to_string(MSGBUS_MODULE_CONFIGD), "--record", record,
                               "--reply", R"({"command":"get-response","status":"ok","value":"160"})"}));

    driver_realtek driver(run);
    driver.set_vapcontext();
    ASSERT_TRUE(driver.is_band(0, RRM_BAND_2G));
    EXPECT_EQ(driver.get_config_spec(0), 0x1000u);

    log_capture log;
    EXPECT_EQ(driver.get_config_bandwidth("wlan0"), 0x1000u);
    EXPECT_EQ(
        driver_test::count_lines(
            log, VLR_LOG_WARNING,
            R"(<get_config_bandwidth_cb:\d+> cannot handle bandwidth of the wlan0 interface\(value == 160\)\n)"),
        1u);

    std::ifstream recorded(record);
    std::string line;
    std::vector<std::string> lines;
    while (std::getline(recorded, line))
        lines.push_back(line);
    ASSERT_FALSE(lines.empty());
    std::string request = lines.back();
    for (size_t at = request.find("\\/"); at != std::string::npos; at = request.find("\\/", at))
        request.erase(at, 1);  // the compact text may escape slashes
    EXPECT_EQ(request, R"({"command":"get","path":"/interface/wlan0/wlan/radio-2g/bandwidth"})");
}

class driver_realtek_channel_test : public driver_test::vdev_fixture {};

TEST_F(driver_realtek_channel_test, a_configured_limit_list_replaces_the_drivers_channels_without_repeats)
{
    ASSERT_TRUE(start_vdev(scenario_json(
        {radio_json(0, 2, {vap_json("Orion-Corp")}, R"({"settings": {"limit-channels": "1 6 11"}})"),
         radio_json(1, 5, {vap_json("Orion-Corp-5G")},
                    R"({"available-channels": [36, 40, 48, 52],
                        "settings": {"use-limit-channels": "true", "limit-channels": "36 40 40 44"}})")})));
    driver_realtek driver(run);
    driver.set_vapcontext();

    enable_logs();
    log_capture log;
    std::string channels = "untouched";
    driver.fill_chanspecs("wlan1", channels);
    EXPECT_EQ(channels, "36 40 44 ");  // 44 is not among the driver's channels, 48 and 52 are
    EXPECT_EQ(
        driver_test::count_lines(log, VLR_LOG_DEBUG, R"(<fill_chanspecs:\d+> chanspecs == 36 40 44 \n)"), 1u);
    EXPECT_EQ(times_read("/interface/wlan1/wlan/radio-5g/limit-channels"), 1u);

    // Without "use-limit-channels" set to "true" the driver's own channels stand and the
    // list is not read.
    driver.fill_chanspecs("wlan0", channels);
    EXPECT_EQ(channels, "1 2 3 4 5 6 7 8 9 10 11 12 13 ");
    EXPECT_EQ(times_read("/interface/wlan0/wlan/radio-2g/limit-channels"), 0u);
}

TEST_F(driver_realtek_channel_test, the_coexist_line_of_mib_11n_decides_obss_coexistence)
{
    ASSERT_TRUE(
        start_vdev(scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")}, R"({"coexist": 1})"),
                                  radio_json(1, 5, {vap_json("Orion-Corp-5G")}, R"({"coexist": 0})")})));
    ASSERT_NE(read_device_file("/proc/wlan0/mib_11n").find("coexist: 1\n"), std::string::npos);
    driver_realtek driver(run);
    driver.set_vapcontext();
    EXPECT_TRUE(driver.get_obss_coex("wlan0"));
    EXPECT_TRUE(driver.is_obss_coex(0));
    EXPECT_FALSE(driver.get_obss_coex("wlan1"));
    EXPECT_FALSE(driver.is_obss_coex(1));

    // The same file without its coexist line.
    std::istringstream lines(read_device_file("/proc/wlan0/mib_11n"));
    std::string without, line;
    while (std::getline(lines, line))
        if (line.find("coexist") == std::string::npos)
            without += line + "\n";
    ASSERT_FALSE(without.empty());
    write_device_file("/proc/wlan0/mib_11n", without);
    enable_logs();
    log_capture log;
    EXPECT_FALSE(driver.get_obss_coex("wlan0"));
    EXPECT_EQ(driver_test::count_lines(log, VLR_LOG_DEBUG, R"(<get_from_driver:\d+> coexist == \n)"), 1u);

    write_device_file("/proc/wlan0/mib_11n", without + "coexist: 1\n");
    EXPECT_TRUE(driver.get_obss_coex("wlan0"));
}

TEST_F(driver_realtek_channel_test, a_power_change_asks_networkd_with_the_power_as_text)
{
    ASSERT_TRUE(start_vdev(scenario_json({radio_json(0, 2, {vap_json("Orion-Corp")}),
                                          radio_json(1, 5, {vap_json("Orion-Corp-5G")})})));
    driver_realtek driver(run);
    driver.set_vapcontext();
    EXPECT_EQ(driver.set_tx_power("wlan0", 14), 0);

    std::vector<driver_test::served_request> updates;
    for (const auto& request : served())
        if (request.as == "networkd")
            updates.push_back(request);
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].module, MSGBUS_MODULE_NETWORKD);
    EXPECT_EQ(updates[0].request, R"({"command":"update-quillon","ifname":"wlan0","params":{"tx-power":"14"}})");
    EXPECT_EQ(updates[0].reply, R"({"command":"update-quillon-response","status":"ok"})");
    EXPECT_EQ(driver.get_tx_power("wlan0"), 14);
}

}  // namespace
