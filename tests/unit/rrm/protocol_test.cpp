// The envelope, the version rule, dispatch and deferral of service messages, and the
// subscription with its retry back-off.
#include <cstring>

#include "rrm_fixture.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgReferee;

namespace {

const char subscribe_success[] =
    R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"success"})";

class protocol_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_radios_off();
        allow_state(true);
        make_agent();
    }

    // Sends "connected" and takes the subscribe-request it causes.
    void connect()
    {
        deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"connected"})");
        ASSERT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
    }
};

TEST_F(protocol_test, the_unsubscribe_request_and_the_unlink_notice_have_their_exact_texts)
{
    agent->post_unsubscribe_request();
    agent->post_ipc_disconnect();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0],
              R"({"version":"2.2","service":"rrm","cmd":"unsubscribe-request","ap-mac":"A4:5E:60:00:10:00",)"
              R"("domain":"default-rrm-domain","factory":{"board":"VX-3100","hw":"rev B",)"
              R"("serial":"VX31B0012345","mac":"A4:5E:60:00:10:00"}})");
    EXPECT_EQ(texts[1], R"({"version":"2.2","service":"internal-ipc","cmd":"unlink"})");
    EXPECT_TRUE(log.contains("Unsubscribe from RRM service\n"));
}

TEST_F(protocol_test, factory_texts_that_fill_their_whole_field_are_cut_at_32_characters)
{
    std::memset(factory.board, 'B', sizeof factory.board);  // no terminator
    agent->post_unsubscribe_request();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_NE(texts[0].find(R"("board":")" + std::string(32, 'B') + R"(","hw":"rev B")"), std::string::npos);
}

TEST_F(protocol_test, version_2_1_unsubscribes_and_drops_the_link_without_handling_the_message)
{
    connect();
    ASSERT_TRUE(is_armed(rrm_worker::TIMER_SUBSCRIBE));
    deliver(R"({"version":"2.1","service":"rrm","cmd":"subscribe-response","status":"success"})");
    const std::vector<std::string> texts = sent();
    EXPECT_EQ(commands(texts), (std::vector<std::string>{"unsubscribe-request", "unlink"}));
    EXPECT_FALSE(agent->subscribed);
    EXPECT_TRUE(agent->subscribing);
    EXPECT_TRUE(armed().empty());  // every timer stopped
    EXPECT_TRUE(log.contains("Unsubscribe from RRM service: incorrect version\n"));
}

TEST_F(protocol_test, versions_are_compared_as_major_and_minor_numbers)
{
    const std::vector<std::pair<std::string, bool>> cases = {
        {"2.2", true}, {"2.10", true}, {"3.0", true},   {"2.1", false},
        {"2", false},  {"two", false}, {"1.99", false}, {"2.2.7", true},
    };
    for (const auto& item : cases) {
        json_reader message(("{\"version\":\"" + item.first + "\"}").c_str());
        EXPECT_EQ(agent->validate_version(message), item.second) << item.first;
    }
    json_reader without(R"({"cmd":"rrm-info"})");
    EXPECT_FALSE(agent->validate_version(without));
    json_reader number(R"({"version":2.5})");
    EXPECT_TRUE(agent->validate_version(number)) << "a number is read through its text";
}

TEST_F(protocol_test, a_message_without_a_version_is_refused_like_an_old_one)
{
    deliver(R"({"service":"rrm","cmd":"rrm-request-mode"})");
    EXPECT_EQ(commands(sent()), (std::vector<std::string>{"unsubscribe-request", "unlink"}));
}

TEST_F(protocol_test, a_subscribe_response_without_status_leaves_the_retry_running)
{
    connect();
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
    deliver(R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","code":200})");
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
    EXPECT_TRUE(agent->subscribing);
    EXPECT_FALSE(agent->subscribed);

    ASSERT_TRUE(fire(rrm_worker::TIMER_SUBSCRIBE));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
}

TEST_F(protocol_test, silent_intervals_retry_after_30_60_and_then_120_seconds)
{
    connect();
    std::vector<int> intervals = {delay_of(rrm_worker::TIMER_SUBSCRIBE)};
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(fire(rrm_worker::TIMER_SUBSCRIBE));
        EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
        intervals.push_back(delay_of(rrm_worker::TIMER_SUBSCRIBE));
        EXPECT_EQ(armed().size(), 1u);
    }
    EXPECT_EQ(intervals, (std::vector<int>{30, 60, 120, 120, 120}));
}

TEST_F(protocol_test, a_503_refusal_doubles_the_interval_before_the_retry)
{
    connect();
    deliver(R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"fail","code":503})");
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 60);
    EXPECT_EQ(armed().size(), 1u);
    EXPECT_TRUE(agent->subscribing);
    EXPECT_TRUE(log.contains("Reconnect after 60 sec\n"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SUBSCRIBE));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"subscribe-request"});
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 120);
}

TEST_F(protocol_test, any_other_refusal_stops_retrying_until_the_next_connection)
{
    connect();
    deliver(R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"fail","code":403})");
    EXPECT_TRUE(armed().empty());
    EXPECT_FALSE(agent->subscribing);
    EXPECT_FALSE(agent->subscribed);
    connect();
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SUBSCRIBE), 30);
}

TEST_F(protocol_test, success_subscribes_takes_the_domain_and_stops_the_retry)
{
    connect();
    agent->load_balancer_active = true;
    agent->no_balance_enterprise = true;
    deliver(
        R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"SUCCESS","domain":"site-7"})");
    EXPECT_TRUE(agent->subscribed);
    EXPECT_FALSE(agent->subscribing);
    EXPECT_FALSE(agent->load_balancer_active);
    EXPECT_FALSE(agent->no_balance_enterprise);
    EXPECT_EQ(agent->domain, "site-7");
    EXPECT_TRUE(armed().empty());
    agent->post_unsubscribe_request();
    EXPECT_NE(sent().at(0).find(R"("domain":"site-7")"), std::string::npos);
}

TEST_F(protocol_test, success_without_a_domain_keeps_the_configured_one)
{
    deliver(subscribe_success);
    EXPECT_TRUE(agent->subscribed);
    EXPECT_EQ(agent->domain, "default-rrm-domain");
}

TEST_F(protocol_test, a_command_in_capitals_is_dispatched_like_its_lower_case_name)
{
    EXPECT_CALL(driver, get_max_vap()).Times(AnyNumber()).WillRepeatedly(Return(7));
    EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    deliver(R"({"version":"2.2","service":"RRM","cmd":"RRM-INFO","use-80211r":1})");
    EXPECT_TRUE(agent->use_80211r);
    EXPECT_TRUE(log.contains("apply_config quillon_use_80211r = 1\n"));
}

TEST_F(protocol_test, an_unknown_command_or_service_is_dropped_silently)
{
    log.clear();
    deliver(R"({"version":"2.2","service":"rrm","cmd":"rrm-something"})");
    deliver(R"({"version":"2.2","service":"roaming","cmd":"rrm-info"})");
    deliver(R"({"version":"2.2","service":"rrm"})");
    deliver(R"({"cmd":"rrm-info"})");
    deliver("not json at all");
    deliver("");
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.texts().empty());
}

TEST_F(protocol_test, ignored_load_balancing_messages_only_trace)
{
    const char* const messages[] = {"rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request",
                                    "rrm-client-assoc-ack"};
    for (const char* cmd : messages) {
        deliver(std::string(R"({"version":"2.2","service":"rrm","cmd":")") + cmd + "\"}");
        EXPECT_TRUE(
            log.contains(std::string("Ignoring ") + cmd + " because load balancer is not yet supported\n"))
            << cmd;
    }
    EXPECT_TRUE(sent().empty());
}

class deferral_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_radios_off();
        allow_state(true);
        make_agent();
    }

    // A driver RRM scan on channel 1, started at once; the driver then reports it in progress.
    void start_scan()
    {
        EXPECT_CALL(driver, stop(true)).WillOnce(Return(0));
        EXPECT_CALL(driver, start(false, std::set<unsigned>{1}, std::set<unsigned>{}, _))
            .WillOnce(DoAll(SetArgReferee<3>(6), Return(0)));
        deliver(R"({"version":"2.2","service":"rrm","cmd":"rrm-update","vorna-rrm-scanning":1,)"
                R"("rrm-scan-delay":0,"rrm-scan-channels":"1"})");
        ASSERT_TRUE(driver.is_in_progress());
    }

    // The scan's time is up: the driver stops it and its results are read.
    void end_scan()
    {
        EXPECT_CALL(driver, stop(true)).WillOnce(Return(0));
        EXPECT_CALL(driver, fill_ap_table_vorna_rrm(_)).WillOnce(Return(0));
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
        ASSERT_FALSE(driver.is_in_progress());
    }
};

const char delayed_update[] =
    R"({"version":"2.2","service":"rrm","cmd":"rrm-update","rrm-scan-delay":5,"rrm-scan-channels":"1 6"})";

TEST_F(deferral_test, an_rrm_update_during_a_scan_waits_until_the_scan_ends)
{
    deliver(subscribe_success);
    ASSERT_TRUE(agent->subscribed);
    start_scan();
    log.clear();

    EXPECT_EQ(process(delayed_update), 1);
    deliver(delayed_update);
    EXPECT_TRUE(log.contains("Pending message for delayed processing\n"));
    EXPECT_FALSE(log.contains("process_rrm_update:\n"));
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_SCAN_DELAY));
    agent->execute();
    EXPECT_FALSE(log.contains("From pended\n"));

    end_scan();
    agent->execute();
    EXPECT_TRUE(log.contains("From pended\n"));
    EXPECT_TRUE(log.contains("process_rrm_update:\n"));
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SCAN_DELAY), 5);
    EXPECT_EQ(agent->scan_channels_24, (std::set<unsigned>{1, 6}));
}

TEST_F(deferral_test, disconnected_during_a_scan_is_handled_at_once_and_ends_the_scan)
{
    deliver(subscribe_success);
    ASSERT_TRUE(agent->subscribed);
    start_scan();
    deliver(delayed_update);
    ASSERT_TRUE(log.contains("Pending message for delayed processing\n"));
    log.clear();

    EXPECT_CALL(driver, get_max_vap()).Times(AnyNumber()).WillRepeatedly(Return(7));
    EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    EXPECT_CALL(driver, stop(false)).WillOnce(Return(0));
    EXPECT_CALL(driver, reset_quillon(RESET_QUILLON_FULL));
    EXPECT_CALL(driver, init());
    deliver(R"({"version":"2.2","service":"internal-ipc","cmd":"disconnected"})");
    EXPECT_FALSE(agent->subscribed);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_EQ(log.texts().at(0), "Disconnected from RRM service - stop all scans and timers\n");

    // The scan is over: the waiting update is taken up in the same iteration.
    EXPECT_TRUE(log.contains("From pended\n"));
    EXPECT_EQ(delay_of(rrm_worker::TIMER_SCAN_DELAY), 5);
    EXPECT_TRUE(sent().empty());
}

TEST_F(deferral_test, a_new_message_is_served_before_an_older_deferred_one)
{
    start_scan();
    deliver(R"({"version":"2.2","service":"rrm","cmd":"rrm-request-mode"})");
    ASSERT_TRUE(log.contains("Pending message for delayed processing\n"));
    end_scan();
    log.clear();
    deliver(R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"fail","code":503})");
    const std::vector<std::string> lines = log.texts();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Reconnect after 60 sec\n");
    EXPECT_EQ(lines[1], "From pended\n");
}

}  // namespace
