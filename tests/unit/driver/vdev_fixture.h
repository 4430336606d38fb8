// driver_realtek against the virtual access point: a test gives a scenario as JSON text,
// orvd-vdev runs it on a private device root (answering configd and networkd on the bus and
// writing the device tree), and vrtl, linked into the test program, serves the driver's real
// ioctl() calls from the radio state files under that root.
#ifndef ORVD_TESTS_UNIT_DRIVER_VDEV_FIXTURE_H
#define ORVD_TESTS_UNIT_DRIVER_VDEV_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver_test_support.h"

namespace driver_test {

// The text of sim/vdev/scenarios/default.json.
std::string default_scenario();

// A whole scenario: the factory record and these radios and neighbours (JSON texts).
std::string scenario_json(const std::vector<std::string>& radios, const std::string& neighbours = "[]");

// Radio wlan<number>. Band 2: channel 6 at 20 MHz, channels 1-13, limits [10, 20]; band 5:
// channel 36 at 20 MHz, channels 36-64 and 100-140, limits [10, 23]. `overrides` is a JSON
// object merged over the radio member by member (objects such as "settings" are merged in
// turn), so a test names only what matters to it.
std::string radio_json(int number, int band, const std::vector<std::string>& vaps,
                       const std::string& overrides = "{}");

// A VAP carrying `ssid`: WPA2_PSK, 802.11k on, captive portal and fast transition off, up, no
// stations; `overrides` is merged over it as for a radio.
std::string vap_json(const std::string& ssid, const std::string& overrides = "{}");

// One orvd-vdev process on a device root.
class vdev_process {
public:
    vdev_process() = default;
    ~vdev_process();
    vdev_process(const vdev_process&) = delete;
    vdev_process& operator=(const vdev_process&) = delete;

    // Writes the scenario into the root, starts the simulator and waits for "orvd-vdev: ready".
    // When it ends first (a scenario that does not hold ends it with status 2), the failure
    // carries its status and what it wrote on standard error.
    ::testing::AssertionResult start(const std::string& root, const std::string& scenario_text);
    // SIGTERM, then waits for the end (SIGKILL after 5 s) and answers the waitpid() status;
    // -1 when it was not running.
    int stop();
    bool running() const { return process.running(); }
    // The status of the last run as waitpid() gave it; -1 while running or before a start.
    int exit_status() const { return process.wait_status(); }
    std::string error_output() const;

private:
    ::testing::AssertionResult wait_ready();
    void reap(int signal_number);

    child_process process;
    std::string error_path;
};

// One line of $ROOT/sim/vdev/requests.log.
struct served_request {
    std::string as;  // "configd" or "networkd"
    int module = 0;
    std::string command;
    std::string path;     // "get" only
    std::string ifname;   // updates and resets
    std::string request;  // the request as compact JSON
    std::string reply;    // the reply as compact JSON
};

// A private device root (ORVD_ROOT) per test and the simulator on it, stopped before the root
// is removed; log levels and vrtl's request observer are put back after every test.
class vdev_fixture : public ::testing::Test {
protected:
    void TearDown() override;

    ::testing::AssertionResult start_vdev(const std::string& scenario_text);
    const std::string& root_path() const { return root.path(); }

    // Every log level on, for tests that check log lines (back to silent after the test).
    void enable_logs();

    // The requests the simulator served so far, in order.
    std::vector<served_request> served() const;
    // The paths of the configd "get" requests served so far, in order.
    std::vector<std::string> configd_paths() const;
    // How many served "get" requests asked for `path`.
    size_t times_read(const std::string& path) const;

    // vrtl's state of a radio (compact JSON) and one member of it ("counters.start_scan").
    std::string radio_state(const std::string& radio) const;
    std::string state_value(const std::string& radio, const std::string& dotted_path) const;

    // A file of the device tree by its device path ("/proc/wlan0-va0/rm_neighbor_report").
    std::string read_device_file(const std::string& absolute_path) const;
    void write_device_file(const std::string& absolute_path, const std::string& text) const;
    bool device_path_exists(const std::string& absolute_path) const;

    temp_root root;
    vdev_process vdev;
    volatile bool run = true;
};

}  // namespace driver_test

#endif
