// build/libvrtl.so preloaded into a program that knows nothing of vrtl: the way the unchanged
// daemon runs against the virtual access point.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "driver_test_support.h"
#include "vdev_fixture.h"
#include "emulator.h"

extern char** environ;

namespace {

struct run_result {
    int status = -1;
    std::string output;
};

// A sanitizer runtime that this test program is linked with (and so the probe, built alike),
// which must come first in LD_PRELOAD; "" in a normal build.
std::string sanitizer_runtime()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const size_t slash = line.find('/');
        if (slash == std::string::npos)
            continue;
        const std::string path = line.substr(slash);
        const std::string name = path.substr(path.rfind('/') + 1);
        if (name.rfind("libasan.so", 0) == 0 || name.rfind("libtsan.so", 0) == 0)
            return path;
    }
    return "";
}

// Runs the probe with one argument and the given extra environment; its exit status and
// standard output.
run_result run_probe(const std::string& argument_text, const std::vector<std::string>& extra_environment)
{
    // Under the emulator the probe runs through it, and LD_PRELOAD, meant for the target's
    // loader, reaches the probe through qemu's -E instead of the emulator's environment.
    std::vector<std::string> arguments = emulator_words();
    const bool emulated = !arguments.empty();
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (std::string(*entry).rfind("LD_PRELOAD=", 0) != 0)
            environment.push_back(*entry);
    for (const std::string& entry : extra_environment) {
        if (emulated && entry.rfind("LD_PRELOAD=", 0) == 0)
            arguments.insert(arguments.end(), {"-E", entry});
        else
            environment.push_back(entry);
    }
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    arguments.insert(arguments.end(), {VRTL_PRELOAD_PROBE, argument_text});
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(&argument[0]);
    argv.push_back(nullptr);

    run_result result;
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    if (spawned == 0) {
        char buffer[4096];
        ssize_t got;
        while ((got = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
            result.output.append(buffer, static_cast<size_t>(got));
        int status = 0;
        waitpid(pid, &status, 0);
        result.status = status;
    }
    close(pipe_fds[0]);
    return result;
}

// LD_PRELOAD for a program built like this one: the sanitizer runtime first when there is one.
std::string preload()
{
    const std::string runtime = sanitizer_runtime();
    return "LD_PRELOAD=" + (runtime.empty() ? "" : runtime + ":") + VRTL_PRELOAD_LIBRARY;
}

class preload_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan0", R"({"chanspec": 4358,
            "scan_results": [
              {"bssid": "02:11:22:33:44:01", "rssi": -61, "channel": 6, "bandwidth": 20, "chanspec": 4102},
              {"bssid": "02:11:22:33:44:9a", "rssi": -80, "channel": 11, "bandwidth": 40, "chanspec": 6411}]})");
    }
};

TEST_F(preload_test, the_preloaded_library_answers_a_program_that_knows_nothing_of_it)
{
    const run_result result = run_probe("wlan0", {"ORVD_ROOT=" + root.path(), preload()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.output, "chanspec 0 4358\n"
                             "scan 0 2\n"
                             "ap 02:11:22:33:44:01 -61 6 20 0\n"
                             "ap 02:11:22:33:44:9a -80 11 40 256\n");
}

TEST_F(preload_test, without_the_library_the_probe_reaches_the_kernel_and_fails)
{
    const run_result result = run_probe("wlan0", {"ORVD_ROOT=" + root.path()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    EXPECT_EQ(result.output, "chanspec -1 0\nscan -1 0\n");
}

// The real driver in a program that knows nothing of vrtl, against orvd-vdev playing the
// default scenario: every MIB and association list comes through the preloaded ioctl(), every
// configuration value from orvd-vdev as configd.
using preload_vdev_test = driver_test::vdev_fixture;

TEST_F(preload_vdev_test, the_real_driver_sees_the_default_scenario_through_the_preloaded_library)
{
    ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
    const run_result result = run_probe("--driver", {"ORVD_ROOT=" + root_path(), preload()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    // VAP addresses follow the base MAC a4:5e:60:00:10:00: radio N's VAP i is base + 16N + i.
    // Station readings are the scenario's dBm, which vrtl hands over as dBm + 100.
    EXPECT_EQ(result.output, "radio wlan0 enabled 1 band 2 channel 6 bandwidth 20 tx_power 17\n"
                             "vap wlan0-va0 ssid Orion-Corp mac a4:5e:60:00:10:00 dot11k 1\n"
                             "vap wlan0-va1 ssid Orion-Staff mac a4:5e:60:00:10:01 dot11k 1\n"
                             "vap wlan0-va2 ssid Orion-Guest mac a4:5e:60:00:10:02 dot11k 0\n"
                             "station wlan0 f0:18:98:3c:21:4a Orion-Corp -48 -51 -55 -60\n"
                             "station wlan0 3c:a9:f4:12:7e:90 Orion-Corp -62 -64 -67 -71\n"
                             "station wlan0 8c:f5:a3:44:02:1d Orion-Corp -70 -72 -75 -78\n"
                             "station wlan0 dc:a6:32:9b:10:07 Orion-Staff -55 -57 -61 -66\n"
                             "station wlan0 a4:83:e7:5d:c8:31 Orion-Staff -44 -46 -50 -53\n"
                             "station wlan0 60:f2:62:0a:b3:5e Orion-Guest -67 -69 -73 -77\n"
                             "radio wlan1 enabled 1 band 5 channel 36 bandwidth 80 tx_power 20\n"
                             "vap wlan1-va0 ssid Orion-Corp-5G mac a4:5e:60:00:10:10 dot11k 1\n"
                             "vap wlan1-va1 ssid Orion-Secure mac a4:5e:60:00:10:11 dot11k 1\n"
                             "vap wlan1-va2 ssid Orion-Legacy mac a4:5e:60:00:10:12 dot11k 0\n"
                             "station wlan1 f0:18:98:3c:21:4b Orion-Corp-5G -52 -54 -58 -63\n"
                             "station wlan1 3c:a9:f4:12:7e:91 Orion-Corp-5G -58 -61 -63 -68\n"
                             "station wlan1 b0:be:83:71:9a:c2 Orion-Corp-5G -41 -43 -47 -52\n"
                             "station wlan1 4c:79:6e:2f:55:e8 Orion-Secure -60 -63 -66 -70\n");
    // The values came from orvd-vdev: it served the probe's reads.
    EXPECT_EQ(times_read("/interface/wlan1-va1/vap/ssid"), 1u);
    EXPECT_EQ(times_read("/interface/wlan0/wlan/radio-2g/country"), 1u);
}

TEST_F(preload_vdev_test, without_the_library_the_real_driver_reads_no_radio_state)
{
    ASSERT_TRUE(start_vdev(driver_test::default_scenario()));
    const run_result result = run_probe("--driver", {"ORVD_ROOT=" + root_path()});
    ASSERT_TRUE(WIFEXITED(result.status)) << result.output;
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
    // The interfaces are up in sysfs and configd answers, but the MIB reads reach the kernel and
    // fail: chanspec 0 is channel 0, which the band rule puts at 2.4 GHz even for the 5 GHz
    // radio, and the power is the default. No association list can be read either.
    EXPECT_NE(result.output.find("radio wlan0 enabled 1 band 2 channel 0 bandwidth 20 tx_power 16\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("radio wlan1 enabled 1 band 2 channel 0 bandwidth 20 tx_power 16\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("vap wlan1-va0 ssid Orion-Corp-5G "), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("station "), std::string::npos) << result.output;
}

}  // namespace
