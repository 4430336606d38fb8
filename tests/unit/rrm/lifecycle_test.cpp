// How the agent follows hostapd and widsd through pid files and notice markers, and how it
// reacts to the WebSocket worker's "connected" and "disconnected" notices.
#include <chrono>

#include "core/run_flags.h"
#include "rrm_fixture.h"
#include "usleep_probe.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::InSequence;
using ::testing::Return;

namespace {

const char hostapd_pid[] = "/var/run/hostapd.pid";
const char widsd_pid[] = "/var/run/widsd.pid";
const char notify[] = "/tmp/.quillon_notify";
const char hostapd_started[] = "/tmp/.quillon_notify_hostapd_started";
const char widsd_started[] = "/tmp/.quillon_notify_widsd_started";
const char config_updated[] = "/tmp/.quillon_notify_config_updated";
const char timezone_changed[] = "/tmp/.quillon_notify_timezone_changed";

class lifecycle_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_radios_off();
        EXPECT_CALL(driver, is_widsd_sentry_mode()).Times(AnyNumber()).WillRepeatedly([this] {
            return sentry;
        });
        EXPECT_CALL(driver, is_hostapd_initialized()).Times(AnyNumber()).WillRepeatedly([this] {
            return hostapd_initialized;
        });
        EXPECT_CALL(driver, set_hostapd_initialized(_)).Times(AnyNumber()).WillRepeatedly([this](bool value) {
            hostapd_initialized = value;
        });
        EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    }

    // The start notice as hostapd leaves it: pid file, start marker, master marker.
    void hostapd_starts()
    {
        root.create(hostapd_pid, "1");
        root.create(hostapd_started, "1");
        root.create(notify, "1");
    }

    void expect_hostapd_initialisation()
    {
        InSequence order;
        EXPECT_CALL(driver, set_hostapd_initialized(true)).WillOnce([this](bool) {
            hostapd_initialized = true;
        });
        EXPECT_CALL(driver, set_vapcontext());
        EXPECT_CALL(driver, init());
    }

    bool hostapd_initialized = false;
    bool sentry = false;
};

TEST_F(lifecycle_test, construction_deletes_stale_configuration_and_timezone_markers_only)
{
    root.create(config_updated);
    root.create(timezone_changed);
    root.create(hostapd_started);
    root.create(notify);
    make_agent();
    EXPECT_FALSE(root.exists(config_updated));
    EXPECT_FALSE(root.exists(timezone_changed));
    EXPECT_TRUE(root.exists(hostapd_started));
    EXPECT_TRUE(root.exists(notify));
}

TEST_F(lifecycle_test, the_agent_is_connected_while_hostapd_or_widsd_runs)
{
    make_agent();
    EXPECT_FALSE(agent->__connect());
    root.create(widsd_pid);
    EXPECT_TRUE(agent->__connect());
    EXPECT_TRUE(log.contains("Connected to widsd\n"));
    root.create(hostapd_pid);
    EXPECT_TRUE(agent->__connect());
    EXPECT_TRUE(log.contains("Connected to hostapd\n"));
}

TEST_F(lifecycle_test, a_start_marker_without_the_master_marker_waits_for_it)
{
    make_agent();
    root.create(hostapd_pid, "1");
    root.create(hostapd_started, "1");
    // No master marker: the start notice is not looked at, and with hostapd's pid file the
    // worker stays connected without initialising anything.
    EXPECT_TRUE(agent->condition(run));
    EXPECT_TRUE(root.exists(hostapd_started));
    EXPECT_FALSE(log.contains("process_hostapd_started : initializing\n"));

    expect_hostapd_initialisation();
    root.create(notify, "1");
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(root.exists(hostapd_started));
    EXPECT_FALSE(root.exists(notify));
    EXPECT_TRUE(log.contains("process_hostapd_started : initializing\n"));
}

TEST_F(lifecycle_test, a_widsd_start_marker_while_hostapd_runs_is_only_deleted)
{
    make_agent();
    hostapd_initialized = true;
    root.create(hostapd_pid);
    root.create(widsd_pid);
    root.create(widsd_started);
    root.create(notify);
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(root.exists(widsd_started));
    EXPECT_FALSE(root.exists(notify));
    EXPECT_FALSE(log.contains("process_widsd_started : initializing\n"));
    EXPECT_TRUE(hostapd_initialized);
}

TEST_F(lifecycle_test, a_hostapd_start_marker_also_drops_a_widsd_start_marker)
{
    make_agent();
    expect_hostapd_initialisation();
    hostapd_starts();
    root.create(widsd_started);
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(root.exists(widsd_started));
    EXPECT_FALSE(log.contains("process_widsd_started : initializing\n"));
}

TEST_F(lifecycle_test, widsd_starting_without_hostapd_stops_the_radios_then_takes_widsd)
{
    make_agent();
    hostapd_initialized = true;
    sentry = true;
    root.create(widsd_pid);
    root.create(widsd_started);
    root.create(notify);
    {
        InSequence order;
        EXPECT_CALL(driver, set_hostapd_initialized(false)).WillOnce([this](bool) {
            hostapd_initialized = false;
        });
        EXPECT_CALL(driver, close_vapcontext());
        EXPECT_CALL(driver, set_vapcontext());
    }
    EXPECT_TRUE(agent->condition(run));
    EXPECT_TRUE(log.contains("process_hostapd_stopped : deinitializing\n"));
    EXPECT_TRUE(log.contains("process_widsd_started : initializing\n"));
    EXPECT_EQ(agent->hostapd_stop_time, 0);
}

TEST_F(lifecycle_test, hostapd_may_stay_away_60_seconds_and_is_given_up_at_61)
{
    make_agent();
    hostapd_initialized = true;
    agent->subscribing = true;
    agent->timers.add_timer([] {}, rrm_worker::TIMER_SUBSCRIBE, 30);
    EXPECT_CALL(driver, close_vapcontext());
    // The pid file is gone while the radios are initialised: hostapd stopped.
    EXPECT_TRUE(agent->condition(run));
    EXPECT_TRUE(log.contains("Hostapd is not running, waiting for restart\n"));
    EXPECT_TRUE(log.contains("process_hostapd_stopped : deinitializing\n"));
    EXPECT_FALSE(hostapd_initialized);
    EXPECT_TRUE(armed().empty());
    EXPECT_NE(agent->hostapd_stop_time, 0);

    const long now = agent->timers.time_monotonic();
    agent->hostapd_stop_time = now - 60;
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(log.contains("Hostapd has not restarted\n"));

    agent->hostapd_stop_time = now - 61;
    EXPECT_FALSE(agent->condition(run));
    EXPECT_TRUE(log.contains("Hostapd has not restarted\n"));

    // The worker then disconnects: nothing to put back, hostapd is no longer initialised.
    agent->__disconnect();
    EXPECT_TRUE(log.contains("Disconnected from hostapd\n"));
}

TEST_F(lifecycle_test, hostapd_back_within_the_grace_is_initialised_again)
{
    make_agent();
    agent->hostapd_stop_time = agent->timers.time_monotonic() - 20;
    agent->subscribed = true;
    expect_hostapd_initialisation();
    hostapd_starts();
    EXPECT_TRUE(agent->condition(run));
    EXPECT_EQ(agent->hostapd_stop_time, 0);
    // Subscribed: the fresh description goes to the service at once.
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"rrm-config-changed"});
    EXPECT_TRUE(log.contains("process_started : subscribed\n"));
}

TEST_F(lifecycle_test, connected_before_hostapd_waits_and_the_start_notice_subscribes)
{
    make_agent();
    deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})");
    EXPECT_TRUE(agent->subscribing);
    EXPECT_TRUE(sent().empty());
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_SUBSCRIBE));
    EXPECT_TRUE(log.contains("Waiting for hostapd to start before sending subscribe-request\n"));

    expect_hostapd_initialisation();
    hostapd_starts();
    EXPECT_TRUE(agent->condition(run));
    EXPECT_TRUE(log.contains("process_started : subscribing\n"));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
}

TEST_F(lifecycle_test, connected_with_widsd_in_sentry_mode_subscribes_at_once)
{
    make_agent();
    sentry = true;
    deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"CONNECTED"})");
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
}

TEST_F(lifecycle_test, connected_stops_a_waiting_response_and_an_old_retry)
{
    make_agent();
    hostapd_initialized = true;
    agent->timers.add_timer([] {}, rrm_worker::TIMER_RESPONSE_DELAY, 5);
    agent->timers.add_timer([] {}, rrm_worker::TIMER_SUBSCRIBE, 120);
    agent->timers.add_timer([] {}, rrm_worker::TIMER_SCAN_PASS, 10);
    deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})");
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_RESPONSE_DELAY));
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
    EXPECT_TRUE(is_armed(rrm_worker::TIMER_SCAN_PASS));
}

TEST_F(lifecycle_test, disconnected_while_subscribed_puts_the_radios_back_and_forgets_the_subscription)
{
    make_agent();
    agent->subscribed = true;
    agent->rf_environment[2].emplace_back();
    agent->probe_tables[1][MacAddr()] = sta_prob_info();
    agent->timers.add_timer([] {}, rrm_worker::TIMER_SCAN_PASS, 10);
    {
        InSequence order;
        EXPECT_CALL(driver, reset_quillon(RESET_QUILLON_FULL));
        EXPECT_CALL(driver, init());
    }
    deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"disconnected"})");
    EXPECT_FALSE(agent->subscribed);
    EXPECT_FALSE(agent->subscribing);
    EXPECT_TRUE(armed().empty());
    EXPECT_TRUE(agent->rf_environment[2].empty());
    EXPECT_TRUE(agent->probe_tables[1].empty());
}

TEST_F(lifecycle_test, the_config_updated_notice_is_reported_only_while_subscribed)
{
    make_agent();
    root.create(hostapd_pid);
    root.create(config_updated);
    root.create(notify);
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(root.exists(config_updated));
    EXPECT_TRUE(sent().empty());

    agent->subscribed = true;
    root.create(config_updated);
    root.create(notify);
    EXPECT_TRUE(agent->condition(run));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"rrm-config-changed"});
}

TEST_F(lifecycle_test, the_timezone_notice_is_taken_and_deleted)
{
    make_agent();
    root.create(hostapd_pid);
    root.create(timezone_changed);
    root.create(notify);
    EXPECT_TRUE(agent->condition(run));
    EXPECT_FALSE(root.exists(timezone_changed));
    EXPECT_FALSE(root.exists(notify));
}

TEST_F(lifecycle_test, a_cleared_run_flag_ends_the_loop_before_any_marker_is_read)
{
    make_agent();
    root.create(notify);
    run = false;
    EXPECT_FALSE(agent->condition(run));
    EXPECT_TRUE(root.exists(notify));
}

TEST_F(lifecycle_test, disconnecting_while_subscribed_resets_the_radios_and_fast_transition)
{
    make_agent();
    agent->subscribed = true;
    agent->use_80211r = true;
    hostapd_initialized = true;
    {
        InSequence order;
        EXPECT_CALL(driver, init());
        EXPECT_CALL(driver, reset_quillon(RESET_QUILLON_FULL));
        EXPECT_CALL(driver, reset_quillon_fbt(RESET_QUILLON_FULL)).WillOnce(Return(0));
        EXPECT_CALL(driver, set_hostapd_initialized(false)).WillOnce([this](bool) {
            hostapd_initialized = false;
        });
        EXPECT_CALL(driver, close_vapcontext());
    }
    agent->__disconnect();
    EXPECT_TRUE(
        log.contains("Not sending rrm-disassoc-all-clients because load balancer is not yet supported\n"));
    EXPECT_TRUE(agent->subscribed) << "the subscription flags are left to the service link";
}

TEST_F(lifecycle_test, disconnecting_during_shutdown_resets_with_cause_1)
{
    make_agent();
    agent->subscribed = true;
    agent->use_80211r = true;
    run = false;
    EXPECT_CALL(driver, init());
    EXPECT_CALL(driver, reset_quillon(static_cast<ResetQuillonCause>(1)));
    EXPECT_CALL(driver, reset_quillon_fbt(static_cast<ResetQuillonCause>(1))).WillOnce(Return(0));
    agent->__disconnect();
}

TEST_F(lifecycle_test, driver_events_are_never_reported)
{
    make_agent();
    driver_event_desc event{1, "wlan0", "aa:bb:cc:dd:ee:ff", 0};
    agent->process_driver_event(event);
    EXPECT_FALSE(log.mentions(VLR_LOG_DEBUG, "Not sending"));
    // Even with balancing switched on by hand nothing is sent, only traced.
    agent->load_balancer_active = true;
    agent->subscribed = true;
    agent->process_driver_event(event);
    event.type = 0;
    agent->process_driver_event(event);
    EXPECT_TRUE(log.contains("Not sending rrm-client-assoc because load balancer is not yet supported\n"));
    EXPECT_TRUE(log.contains("Not sending rrm-client-disassoc because load balancer is not yet supported\n"));
    EXPECT_TRUE(sent().empty());
}

TEST_F(lifecycle_test, destruction_stops_everything_and_puts_the_radios_back)
{
    make_agent();
    agent->timers.add_timer([] {}, rrm_worker::TIMER_BLACKLIST, 1);
    agent->blacklist_tables[0][MacAddr()] = 3;
    EXPECT_CALL(driver, VapIdToVap(0u, 1)).WillRepeatedly(Return("wlan1-va0"));
    EXPECT_CALL(driver, is_802dot11k(1, 0)).WillOnce(Return(true));
    EXPECT_CALL(driver, is_802dot11k(testing::Ne(1), 0)).Times(0);
    {
        InSequence order;
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(testing::StrEq("wlan1-va0")));
        EXPECT_CALL(driver, init());
        EXPECT_CALL(driver, close_vapcontext());
    }
    agent.reset();
    EXPECT_TRUE(log.contains("rrm_worker: stop\n"));
}

// The worker's own thread: with widsd running outside sentry mode and no hostapd, each connect
// succeeds and the next check gives up; the worker loop then pauses exactly 300 ms (recorded
// as the loop asks usleep for it) before it connects again.
TEST_F(lifecycle_test, widsd_outside_sentry_mode_cycles_through_connect_every_300_ms)
{
    make_agent();
    root.create(widsd_pid);
    usleep_recorder pauses("orvd:rrm");
    agent->start();
    const bool three_rounds = pauses.wait_for(3, std::chrono::seconds(20));
    write_run_flag(run, false);
    agent->join();
    ASSERT_TRUE(three_rounds) << "the agent paused fewer than three times";

    const std::vector<useconds_t> asked = pauses.pauses();
    for (size_t i = 0; i < asked.size(); ++i)
        EXPECT_EQ(asked[i], 300000u) << "pause " << i;
    size_t connects = 0;
    size_t give_ups = 0;
    for (const std::string& line : log.texts()) {
        connects += line == "Connected to widsd\n";
        give_ups += line == "Hostapd is not init and widsd is not sentry mode\n";
    }
    // One pause after each round that gave up, except perhaps the last one, which may have
    // ended with the run flag instead.
    EXPECT_GE(give_ups, asked.size());
    EXPECT_LE(give_ups, asked.size() + 1);
    EXPECT_GE(connects, give_ups);
    EXPECT_LE(connects, give_ups + 1);
}

}  // namespace
