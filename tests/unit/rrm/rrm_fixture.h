// The agent under test: a real rrm_worker driven by hand (no thread) against a strict mock
// driver, with its queues, timers and state in reach, marker files under a private device
// root and every trace line captured.
#ifndef ORVD_TESTS_UNIT_RRM_RRM_FIXTURE_H
#define ORVD_TESTS_UNIT_RRM_RRM_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_chanspec.h"
#include "log_capture.h"
#include "mock_driver.h"
#include "rrm/rrm_worker.h"
#include "temp_root.h"

// rrm_worker with its hooks, state and timers opened up for the tests.
class rrm_worker_under_test : public rrm_worker {
public:
    using rrm_worker::rrm_worker;

    using rrm_worker::__connect;
    using rrm_worker::__disconnect;
    using rrm_worker::condition;
    using rrm_worker::execute;

    using rrm_worker::blacklist_tables;
    using rrm_worker::domain;
    using rrm_worker::fbt_over_ds;
    using rrm_worker::fbt_reassoc_deadline;
    using rrm_worker::hostapd_restart_wait;
    using rrm_worker::hostapd_stop_time;
    using rrm_worker::load_balancer_active;
    using rrm_worker::mobility_domain;
    using rrm_worker::no_balance_enterprise;
    using rrm_worker::pending_queue;
    using rrm_worker::probe_tables;
    using rrm_worker::response_delay;
    using rrm_worker::rf_environment;
    using rrm_worker::scan_channels_24;
    using rrm_worker::scan_channels_5;
    using rrm_worker::scan_pass;
    using rrm_worker::standard_scan;
    using rrm_worker::subscribe_timeout;
    using rrm_worker::subscribed;
    using rrm_worker::subscribing;
    using rrm_worker::timers;
    using rrm_worker::use_80211r;
};

// What the mock driver reports about one VAP, one station and one radio.
struct fake_vap {
    int id = 0;
    std::string ssid;
    std::string mac;
    bool dot11k = false;
    bool fbt = false;
};

struct fake_station {
    std::string mac;
    std::string ssid;
    int rssi = -50;
};

struct fake_radio {
    bool enabled = true;
    bool vaps_enabled = true;
    bool obss_coex = false;
    bool wds = false;
    bool mesh = false;
    bool wids = false;
    bool wgb = false;
    int mac_offset = 0;
    int mac_count = 8;
    int power = 17;
    int power_max = 20;
    int power_min = 10;
    unsigned chanspec = 0x1006;     // channel 6, 20 MHz
    unsigned config_spec = 0x1000;  // 20 MHz configured
    std::string channels = "1 6 11 ";
    std::vector<fake_vap> vaps;
    std::vector<fake_station> stations;
};

class rrm_fixture : public ::testing::Test {
protected:
    rrm_fixture();
    ~rrm_fixture() override;

    // Builds the agent (the driver is asked for the number of radios, 2 unless set before).
    void make_agent(const char* domain = "default-rrm-domain");
    // Destroys the agent, letting its destructor put the radios back.
    void destroy_agent();

    // The factory record and base MAC the envelope and "factory" objects carry, any number of
    // times.
    void allow_identity(const std::string& mac = "A4:5E:60:00:10:00", const std::string& board = "VX-3100",
                        const std::string& hw = "rev B", const std::string& serial = "VX31B0012345");
    // Every query of the radio description, any number of times, answered from `radios`
    // (index = radio id). Also allows get_max_radios and get_max_vap.
    void allow_description(const std::vector<fake_radio>& radios);
    // allow_identity() and a description of two radios, both switched off, for tests that do
    // not look at the radios.
    void allow_radios_off();
    // hostapd initialised or not and sentry mode or not, any number of times. Whether a scan
    // runs is the mock driver's own state: a test starts one through the agent.
    void allow_state(bool hostapd_initialized, bool sentry = false);

    // Hands the text to the agent as the WebSocket worker would (through the incoming queue)
    // and runs one iteration of the agent's message handling.
    void deliver(const std::string& text);
    // Calls process_ipc_message directly; its result.
    int process(const std::string& text);

    // Takes every message the agent queued for the WebSocket worker, oldest first.
    std::vector<std::string> sent();
    // The commands ("cmd") of sent(), oldest first.
    static std::vector<std::string> commands(const std::vector<std::string>& texts);

    // The armed timers as (id, delay in seconds from now), in firing order.
    std::vector<std::pair<int, int>> armed() const;
    bool is_armed(int id) const;
    // The delay of the first timer with the id; -1 when none.
    int delay_of(int id) const;
    // Takes the first timer with the id out of the list and runs it; false when none.
    bool fire(int id);

    ::testing::StrictMock<mock_driver> driver;
    safe_queue incoming;
    safe_queue outgoing;
    volatile bool run = true;
    temp_root root{"orvd-rrm"};
    log_capture log;
    std::unique_ptr<rrm_worker_under_test> agent;
    int radios = 2;
    factory_record_s factory{};
    std::string base_mac;
};

#endif
