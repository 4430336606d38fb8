// Scans on request and the "rrm-response": the delay before scanning, the channel sets, the
// five passes of a standard scan, the driver's own RRM scan with its second delay, and the
// exact text of the report.
#include <set>
#include <string>
#include <vector>

#include "core/json_reader.h"
#include "rrm_fixture.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::DoAll;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Return;
using ::testing::SetArgReferee;

namespace {

using channel_set = std::set<unsigned>;

fake_radio serving_radio()
{
    fake_radio radio;
    radio.chanspec = 0x1006;
    radio.vaps = {{0, "Orion-Corp", "a4:5e:60:00:10:01", true, false}};
    return radio;
}

fake_radio radio_off()
{
    fake_radio radio;
    radio.enabled = false;
    radio.mac_offset = 8;
    return radio;
}

scan_result_entry neighbour(std::vector<unsigned char> bssid, int rssi, int channel, int bandwidth,
                            int tx_power, int primary)
{
    scan_result_entry entry;
    for (size_t i = 0; i < 6; ++i)
        entry.bssid[i] = bssid[i];
    entry.rssi = rssi;
    entry.channel = channel;
    entry.bandwidth = bandwidth;
    entry.tx_power = tx_power;
    entry.primary = primary;
    return entry;
}

const scan_result_entry corner_cafe = neighbour({0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}, -61, 6, 20, 17, 0x000);
const scan_result_entry office_5g = neighbour({0xF0, 0x9F, 0xC2, 0xAA, 0xBB, 0xCC}, -75, 36, 40, 20, 0x100);
const scan_result_entry far_printer = neighbour({0x3C, 0x22, 0xFB, 0x01, 0x02, 0x0D}, -82, 11, 20, 0, 0x000);

const char radios_text[] =
    R"("radios":[{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,)"
    R"("locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":6,"bandwidth":20,)"
    R"("primary-channel":"none","available-channels":"1 6 11 ",)"
    R"("vaps":[{"id":0,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:01","802dot11k":1,"802dot11r":0}]},)"
    R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,)"
    R"("locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,)"
    R"("primary-channel":"none"}])";

const char response_head[] =
    R"({"version":"2.2","service":"rrm","cmd":"rrm-response","ap-mac":"A4:5E:60:00:10:00",)"
    R"("domain":"default-rrm-domain",)";

std::string update(const std::string& body)
{
    return R"({"version":"2.2","service":"rrm","cmd":"rrm-update")" + (body.empty() ? "" : "," + body) + "}";
}

// The number of inner lists of "rf-environment" and their sizes.
std::vector<int> environment_shape(const std::string& text)
{
    json_reader message(text.c_str());
    const json_reader lists = message.get_subobject("rf-environment");
    std::vector<int> shape;
    for (int i = 0; i < lists.length(); ++i)
        shape.push_back(lists.get_array_element(i).length());
    return shape;
}

class scan_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_identity();
        allow_description({serving_radio(), radio_off()});
        EXPECT_CALL(driver, is_hostapd_initialized()).Times(AnyNumber()).WillRepeatedly(Invoke([this] {
            return hostapd;
        }));
        EXPECT_CALL(driver, is_widsd_sentry_mode()).Times(AnyNumber()).WillRepeatedly(Return(false));
        EXPECT_CALL(driver, primary_channel_to_string(0x000, 20))
            .Times(AnyNumber())
            .WillRepeatedly(Return("none"));
        EXPECT_CALL(driver, primary_channel_to_string(0x100, 40))
            .Times(AnyNumber())
            .WillRepeatedly(Return("upper"));
        make_agent();
        // The service asks for scans once it has accepted the agent.
        agent->subscribed = true;
    }

    // The driver stops any scan and then starts the new one, which takes `duration` seconds.
    void expect_start(bool active, const channel_set& chans24, const channel_set& chans5, int duration)
    {
        EXPECT_CALL(driver, stop(true)).WillOnce(Return(0));
        EXPECT_CALL(driver, start(active, chans24, chans5, _))
            .WillOnce(DoAll(SetArgReferee<3>(duration), Return(0)));
    }

    // The end of one standard pass: the scan is stopped and its table read.
    void expect_pass_end(const ap_table& heard)
    {
        EXPECT_CALL(driver, stop(true)).WillOnce(Return(0));
        EXPECT_CALL(driver, fill_ap_table(_)).WillOnce(Invoke([heard](ap_table& table) {
            table.insert(table.end(), heard.begin(), heard.end());
            return 0;
        }));
    }

    void expect_rrm_scan_end(const ap_table& heard)
    {
        EXPECT_CALL(driver, stop(true)).WillOnce(Return(0));
        EXPECT_CALL(driver, fill_ap_table_vorna_rrm(_)).WillOnce(Invoke([heard](ap_table& table) {
            table.insert(table.end(), heard.begin(), heard.end());
            return 0;
        }));
    }

    bool environment_empty() const
    {
        for (const ap_table& table : agent->rf_environment)
            if (!table.empty())
                return false;
        return true;
    }

    bool hostapd = true;
};

TEST_F(scan_test, a_delay_of_0_starts_the_scan_within_the_same_message)
{
    {
        InSequence order;
        expect_start(true, {1, 6, 11}, {36, 40}, 10);
    }
    deliver(update(R"("rrm-scan-delay":0,"rrm-scan-channels":"1 6 11 36 40")"));
    EXPECT_TRUE(log.contains("process_rrm_update:\n"));
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_SCAN_DELAY));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 10}}));
    EXPECT_EQ(agent->scan_pass, 0u);
    EXPECT_TRUE(agent->standard_scan);
    EXPECT_TRUE(sent().empty());
}

TEST_F(scan_test, a_negative_delay_also_scans_at_once)
{
    expect_start(true, {}, {}, 10);
    deliver(update(R"("rrm-scan-delay":-3)"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 10}}));
}

TEST_F(scan_test, a_positive_delay_waits_on_timer_0_and_then_scans_for_the_drivers_duration)
{
    deliver(update(R"("rrm-scan-delay":7,"rrm-scan-channels":"11")"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_DELAY, 7}}));

    {
        InSequence order;
        expect_start(true, {11}, {}, 12);
    }
    agent->scan_pass = 3;  // left over from an earlier scan
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 12}}));
    EXPECT_EQ(agent->scan_pass, 0u);
}

TEST_F(scan_test, channels_below_36_are_scanned_at_2_4_ghz_and_the_others_at_5_ghz)
{
    agent->fill_scan_channels("1 6 11 36 40");
    EXPECT_EQ(agent->scan_channels_24, (channel_set{1, 6, 11}));
    EXPECT_EQ(agent->scan_channels_5, (channel_set{36, 40}));
}

TEST_F(scan_test, two_spaces_in_a_row_add_channel_0_to_the_2_4_ghz_set)
{
    agent->fill_scan_channels("1  6");
    EXPECT_EQ(agent->scan_channels_24, (channel_set{0, 1, 6}));
    EXPECT_TRUE(agent->scan_channels_5.empty());
}

TEST_F(scan_test, repeated_channels_collapse_and_a_trailing_space_adds_nothing)
{
    agent->fill_scan_channels("165 6 6 35 36 ");
    EXPECT_EQ(agent->scan_channels_24, (channel_set{6, 35}));
    EXPECT_EQ(agent->scan_channels_5, (channel_set{36, 165}));
}

TEST_F(scan_test, each_request_replaces_the_channels_of_the_one_before)
{
    agent->fill_scan_channels("1 36");
    agent->fill_scan_channels("");
    EXPECT_TRUE(agent->scan_channels_24.empty());
    EXPECT_TRUE(agent->scan_channels_5.empty());

    // A request without channels lets the driver choose.
    agent->fill_scan_channels("1 36");
    expect_start(true, {}, {}, 10);
    deliver(update(R"("rrm-scan-delay":0)"));
    EXPECT_TRUE(agent->scan_channels_24.empty());
    EXPECT_TRUE(agent->scan_channels_5.empty());
}

TEST_F(scan_test, a_standard_scan_answers_only_after_the_fifth_pass)
{
    {
        InSequence order;
        expect_start(true, {6}, {36}, 10);
        for (unsigned pass = 0; pass < 4; ++pass) {
            expect_pass_end(pass == 1 ? ap_table{corner_cafe, far_printer} : ap_table{});
            EXPECT_CALL(driver, start(true, channel_set{6}, channel_set{36}, _))
                .WillOnce(DoAll(SetArgReferee<3>(10), Return(0)));
        }
        expect_pass_end({office_5g});
    }
    deliver(update(R"("rrm-scan-delay":0,"rrm-scan-channels":"6 36")"));

    for (unsigned pass = 0; pass < 4; ++pass) {
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS)) << "pass " << pass;
        EXPECT_EQ(agent->scan_pass, pass + 1);
        EXPECT_TRUE(sent().empty()) << "pass " << pass;
    }
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    EXPECT_TRUE(log.contains("scan_finished\n"));

    const std::vector<std::string> texts = sent();
    ASSERT_EQ(commands(texts), std::vector<std::string>{"rrm-response"});
    // Passes 0, 2 and 3 heard nothing: only the lists of passes 1 and 4 are reported.
    EXPECT_EQ(environment_shape(texts[0]), (std::vector<int>{2, 1}));
    EXPECT_TRUE(environment_empty());
    EXPECT_TRUE(armed().empty());
}

TEST_F(scan_test, each_pass_rearms_timer_1_with_the_duration_its_own_start_reported)
{
    {
        InSequence order;
        expect_start(true, {1}, {}, 10);
        for (int duration : {11, 12, 13, 14}) {
            expect_pass_end({});
            EXPECT_CALL(driver, start(true, channel_set{1}, channel_set{}, _))
                .WillOnce(DoAll(SetArgReferee<3>(duration), Return(0)));
        }
    }
    deliver(update(R"("rrm-scan-delay":0,"rrm-scan-channels":"1")"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 10}}));
    for (int duration : {11, 12, 13, 14}) {
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
        // Exactly one pass timer, with the new duration.
        EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, duration}}));
    }
}

TEST_F(scan_test, a_standard_scan_in_which_nothing_was_heard_reports_an_empty_environment)
{
    {
        InSequence order;
        expect_start(true, {}, {}, 10);
        for (unsigned pass = 0; pass < 4; ++pass) {
            expect_pass_end({});
            EXPECT_CALL(driver, start(true, channel_set{}, channel_set{}, _))
                .WillOnce(DoAll(SetArgReferee<3>(10), Return(0)));
        }
        expect_pass_end({});
    }
    deliver(update(R"("rrm-scan-delay":0)"));
    for (unsigned pass = 0; pass < 5; ++pass)
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], std::string(response_head) + radios_text + R"(,"rf-environment":[]})");
}

TEST_F(scan_test, the_rrm_response_has_its_exact_text)
{
    agent->rf_environment[1] = {corner_cafe};
    agent->rf_environment[3] = {office_5g, far_printer};
    agent->post_rrm_response();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(
        texts[0],
        std::string(response_head) + radios_text +
            R"(,"rf-environment":[)"
            R"([{"bssid":"00:1a:2b:3c:4d:5e","rssi":-61,"channel":6,"tx-power":17,"primary-channel":"none",)"
            R"("bandwidth":20}],)"
            R"([{"bssid":"f0:9f:c2:aa:bb:cc","rssi":-75,"channel":36,"tx-power":20,"primary-channel":"upper",)"
            R"("bandwidth":40},)"
            R"({"bssid":"3c:22:fb:01:02:0d","rssi":-82,"channel":11,"tx-power":0,"primary-channel":"none",)"
            R"("bandwidth":20}]]})");
    // Sending does not empty the tables; whoever sends does that afterwards.
    EXPECT_EQ(agent->rf_environment[3].size(), 2u);
}

TEST_F(scan_test, the_primary_position_is_named_by_the_driver_from_the_entrys_own_bits)
{
    const scan_result_entry wide = neighbour({0x02, 0, 0, 0, 0, 0x01}, -70, 42, 80, 14, 0x300);
    EXPECT_CALL(driver, primary_channel_to_string(0x300, 80)).WillOnce(Return("uu"));
    agent->rf_environment[0] = {wide};
    agent->post_rrm_response();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_NE(texts[0].find(R"("channel":42,"tx-power":14,"primary-channel":"uu","bandwidth":80)"),
              std::string::npos)
        << texts[0];
}

TEST_F(scan_test, with_the_drivers_rrm_scan_and_a_delay_of_5_the_response_follows_5_seconds_after_the_scan)
{
    deliver(update(R"("rrm-scan-delay":5,"vorna-rrm-scanning":1,"rrm-scan-channels":"44 36")"));
    EXPECT_FALSE(agent->standard_scan);
    EXPECT_EQ(agent->response_delay, 5);
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_DELAY, 5}}));

    {
        InSequence order;
        expect_start(false, {}, {36, 44}, 6);
        expect_rrm_scan_end({office_5g});
    }
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 6}}));

    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(agent->rf_environment[0].size(), 1u);
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_RESPONSE_DELAY, 5}}));

    ASSERT_TRUE(fire(rrm_worker::TIMER_RESPONSE_DELAY));
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(commands(texts), std::vector<std::string>{"rrm-response"});
    EXPECT_EQ(environment_shape(texts[0]), std::vector<int>{1});
    EXPECT_TRUE(environment_empty());
    EXPECT_TRUE(armed().empty());
}

TEST_F(scan_test, with_the_drivers_rrm_scan_and_no_delay_the_response_follows_the_scan_at_once)
{
    {
        InSequence order;
        expect_start(false, {1}, {}, 6);
        expect_rrm_scan_end({corner_cafe});
    }
    deliver(update(R"("vorna-rrm-scanning":2,"rrm-scan-channels":"1")"));
    EXPECT_EQ(agent->response_delay, 0);
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(commands(texts), std::vector<std::string>{"rrm-response"});
    EXPECT_EQ(environment_shape(texts[0]), std::vector<int>{1});
    EXPECT_TRUE(environment_empty());
    EXPECT_TRUE(armed().empty());
}

TEST_F(scan_test, a_standard_scan_never_waits_before_answering_whatever_the_delay)
{
    agent->response_delay = 9;
    deliver(update(R"("rrm-scan-delay":5,"vorna-rrm-scanning":0)"));
    EXPECT_TRUE(agent->standard_scan);
    EXPECT_EQ(agent->response_delay, 0);
}

TEST_F(scan_test, no_rrm_response_is_sent_when_hostapd_stopped_before_it_was_due)
{
    {
        InSequence order;
        expect_start(false, {}, {36}, 6);
        expect_rrm_scan_end({office_5g});
    }
    deliver(update(R"("rrm-scan-delay":5,"vorna-rrm-scanning":1,"rrm-scan-channels":"36")"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    ASSERT_TRUE(is_armed(rrm_worker::TIMER_RESPONSE_DELAY));

    hostapd = false;
    ASSERT_TRUE(fire(rrm_worker::TIMER_RESPONSE_DELAY));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.contains("Not sending rrm-response because hostapd is not running\n"));
    EXPECT_TRUE(environment_empty());
}

TEST_F(scan_test, hostapd_gone_at_the_last_pass_sends_nothing_and_still_empties_the_tables)
{
    {
        InSequence order;
        expect_start(true, {}, {}, 10);
        for (unsigned pass = 0; pass < 4; ++pass) {
            expect_pass_end({corner_cafe});
            EXPECT_CALL(driver, start(true, channel_set{}, channel_set{}, _))
                .WillOnce(DoAll(SetArgReferee<3>(10), Return(0)));
        }
        expect_pass_end({corner_cafe});
    }
    deliver(update(R"("rrm-scan-delay":0)"));
    for (unsigned pass = 0; pass < 4; ++pass)
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    hostapd = false;
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.contains("Not sending rrm-response because hostapd is not running\n"));
    EXPECT_TRUE(environment_empty());
}

TEST_F(scan_test, hostapd_stopping_while_a_response_waits_cancels_it_and_empties_the_tables)
{
    {
        InSequence order;
        expect_start(false, {}, {}, 6);
        expect_rrm_scan_end({office_5g});
    }
    deliver(update(R"("rrm-scan-delay":3,"vorna-rrm-scanning":1)"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    ASSERT_TRUE(is_armed(rrm_worker::TIMER_RESPONSE_DELAY));

    EXPECT_CALL(driver, set_hostapd_initialized(false)).WillOnce(Invoke([this](bool) { hostapd = false; }));
    EXPECT_CALL(driver, close_vapcontext());
    agent->process_hostapd_stopped();
    EXPECT_TRUE(armed().empty());
    EXPECT_TRUE(environment_empty());
    EXPECT_TRUE(sent().empty());
}

TEST_F(scan_test, rrm_update_is_ignored_while_hostapd_is_not_running)
{
    hostapd = false;
    agent->fill_scan_channels("1 36");
    deliver(update(R"("rrm-scan-delay":0,"vorna-rrm-scanning":1,"rrm-scan-channels":"6")"));
    EXPECT_TRUE(log.contains("Ignoring rrm-update because hostapd is not running\n"));
    EXPECT_FALSE(log.contains("process_rrm_update:\n"));
    EXPECT_TRUE(armed().empty());
    // Nothing of the request was taken.
    EXPECT_TRUE(agent->standard_scan);
    EXPECT_EQ(agent->scan_channels_24, channel_set{1});
    EXPECT_EQ(agent->scan_channels_5, channel_set{36});
}

TEST_F(scan_test, a_second_rrm_update_supersedes_a_waiting_one)
{
    deliver(update(R"("rrm-scan-delay":30,"rrm-scan-channels":"1")"));
    deliver(update(R"("rrm-scan-delay":10,"rrm-scan-channels":"6")"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_DELAY, 10}}));
    EXPECT_EQ(agent->scan_channels_24, channel_set{6});
}

TEST_F(scan_test, a_new_rrm_update_supersedes_a_waiting_scan_and_waits_for_a_running_one)
{
    {
        InSequence order;
        expect_start(false, {}, {36}, 6);
        expect_rrm_scan_end({office_5g});
        expect_start(true, {}, {}, 10);
    }
    deliver(update(R"("vorna-rrm-scanning":1,"rrm-scan-delay":20,"rrm-scan-channels":"36")"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    ASSERT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_RESPONSE_DELAY, 20}}));

    // A scan waiting on its delay is superseded, the complete one keeps its response.
    deliver(update(R"("rrm-scan-delay":40)"));
    deliver(update(R"("rrm-scan-delay":15)"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_DELAY, 15},
                                                         {rrm_worker::TIMER_RESPONSE_DELAY, 20}}));

    // A running scan is not: the driver reports it in progress, so the update waits for its end
    // and neither the scan nor the response is touched.
    ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_DELAY));
    ASSERT_TRUE(driver.is_in_progress());
    log.clear();
    deliver(update(R"("rrm-scan-delay":25)"));
    EXPECT_TRUE(log.contains("Pending message for delayed processing\n"));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_SCAN_PASS, 10},
                                                         {rrm_worker::TIMER_RESPONSE_DELAY, 20}}));
    EXPECT_FALSE(agent->pending_queue.empty());
}

const char request_mode[] = R"({"version":"2.2","service":"rrm","cmd":"rrm-request-mode"})";
const char disconnected[] = R"({"version":"2.2","service":"internal-ipc","cmd":"disconnected"})";

// A scan running when the link or hostapd goes away; the parameter: a standard scan (true) or
// the driver's RRM scan (false).
class running_scan_test : public scan_test, public ::testing::WithParamInterface<bool> {
protected:
    bool standard() const { return GetParam(); }

    // The service asks for a scan of 1 6 11 36 40 at once; the driver then reports it running
    // and service messages wait.
    void start_running_scan()
    {
        expect_start(standard(), {1, 6, 11}, {36, 40}, standard() ? 4 : 6);
        deliver(update(standard() ? R"("rrm-scan-delay":0,"rrm-scan-channels":"1 6 11 36 40")"
                                  : R"("rrm-scan-delay":0,"vorna-rrm-scanning":1,"rrm-scan-channels":"1 6 11 36 40")"));
        ASSERT_TRUE(driver.is_in_progress());
        ASSERT_TRUE(is_armed(rrm_worker::TIMER_SCAN_PASS));
        ASSERT_EQ(process(request_mode), 1);
        log.clear();
    }

    // The next service message is taken up at once rather than deferred.
    void expect_served_at_once(const char* trace_line = nullptr)
    {
        EXPECT_EQ(process(request_mode), 0);
        EXPECT_FALSE(log.contains("Pending message for delayed processing\n"));
        if (trace_line != nullptr) {
            EXPECT_TRUE(log.contains(trace_line));
        }
    }
};

TEST_P(running_scan_test, disconnected_while_subscribed_stops_the_driver_scan)
{
    start_running_scan();
    EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    {
        InSequence order;
        EXPECT_CALL(driver, stop(standard())).WillOnce(Return(0));
        EXPECT_CALL(driver, reset_quillon(RESET_QUILLON_FULL));
        EXPECT_CALL(driver, init());
    }
    deliver(disconnected);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_TRUE(armed().empty());
    EXPECT_EQ(log.texts().at(0), "Disconnected from RRM service - stop all scans and timers\n");
    EXPECT_FALSE(agent->subscribed);
    log.clear();
    deliver(request_mode);
    EXPECT_FALSE(log.contains("Pending message for delayed processing\n"));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"rrm-mode-response"});
}

TEST_P(running_scan_test, disconnected_before_the_subscription_was_answered_stops_the_driver_scan)
{
    agent->subscribed = false;
    agent->subscribing = true;
    start_running_scan();
    EXPECT_CALL(driver, stop(standard())).WillOnce(Return(0));
    deliver(disconnected);
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_TRUE(armed().empty());
    EXPECT_FALSE(agent->subscribing);
    log.clear();
    deliver(request_mode);
    EXPECT_FALSE(log.contains("Pending message for delayed processing\n"));
    EXPECT_EQ(commands(sent()), std::vector<std::string>{"rrm-mode-response"});
}

TEST_P(running_scan_test, hostapd_stopping_stops_the_driver_scan_while_hostapd_still_counts_as_initialised)
{
    start_running_scan();
    {
        InSequence order;
        EXPECT_CALL(driver, stop(standard())).WillOnce(Return(0));
        EXPECT_CALL(driver, set_hostapd_initialized(false)).WillOnce(Invoke([this](bool) { hostapd = false; }));
        EXPECT_CALL(driver, close_vapcontext());
    }
    agent->process_hostapd_stopped();
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_TRUE(armed().empty());
    EXPECT_TRUE(environment_empty());
    EXPECT_EQ(log.texts().at(0), "process_hostapd_stopped : deinitializing\n");
    log.clear();
    expect_served_at_once("Ignoring rrm-request-mode because hostapd is not running\n");
    EXPECT_TRUE(sent().empty());
}

TEST_P(running_scan_test, stopping_the_timers_stops_the_driver_scan)
{
    start_running_scan();
    EXPECT_CALL(driver, stop(standard())).WillOnce(Return(0));
    agent->stop_timers();
    EXPECT_FALSE(driver.is_in_progress());
    EXPECT_TRUE(armed().empty());
    expect_served_at_once();
}

// Each of the agent's six timers armed once more beside the scan's own, each recording whether
// it ran: after stop_timers none is left and none runs, however far the clock moves on.
TEST_P(running_scan_test, stopping_the_timers_cancels_each_of_the_six_timer_ids)
{
    start_running_scan();
    const std::vector<int> ids = {rrm_worker::TIMER_SCAN_DELAY,     rrm_worker::TIMER_SCAN_PASS,
                                  rrm_worker::TIMER_SUBSCRIBE,      rrm_worker::TIMER_RESPONSE_DELAY,
                                  rrm_worker::TIMER_PROBE_RESPONSE, rrm_worker::TIMER_BLACKLIST};
    ASSERT_EQ(ids, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    std::vector<int> ran;
    for (int id : ids)
        agent->timers.add_timer([&ran, id] { ran.push_back(id); }, id, 1 + id);
    for (int id : ids)
        ASSERT_TRUE(is_armed(id)) << "timer " << id;

    EXPECT_CALL(driver, stop(standard())).WillOnce(Return(0));
    agent->stop_timers();
    for (int id : ids)
        EXPECT_FALSE(is_armed(id)) << "timer " << id << " is still armed";
    EXPECT_TRUE(armed().empty());

    // An hour later: whatever was left would be overdue and run now.
    agent->timers.process_once(agent->timers.time_monotonic() + 3600);
    EXPECT_EQ(ran, std::vector<int>{}) << "timers that ran after stop_timers";
}

INSTANTIATE_TEST_SUITE_P(scan_kinds, running_scan_test, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& kind) {
                             return kind.param ? std::string("standard_scan") : std::string("driver_rrm_scan");
                         });

TEST_F(scan_test, clearing_the_environment_empties_all_five_tables_and_gives_up_their_memory)
{
    for (ap_table& table : agent->rf_environment)
        table.assign(4, corner_cafe);
    agent->clear_rf_environment();
    EXPECT_TRUE(environment_empty());
    for (const ap_table& table : agent->rf_environment)
        EXPECT_EQ(table.capacity(), 0u);
}

TEST_F(scan_test, the_tables_hold_no_memory_once_the_fifth_pass_has_been_reported)
{
    {
        InSequence order;
        expect_start(true, {}, {}, 10);
        for (unsigned pass = 0; pass < 4; ++pass) {
            expect_pass_end({corner_cafe, office_5g});
            EXPECT_CALL(driver, start(true, channel_set{}, channel_set{}, _))
                .WillOnce(DoAll(SetArgReferee<3>(10), Return(0)));
        }
        expect_pass_end({far_printer});
    }
    deliver(update(R"("rrm-scan-delay":0)"));
    for (unsigned pass = 0; pass < 5; ++pass)
        ASSERT_TRUE(fire(rrm_worker::TIMER_SCAN_PASS));
    EXPECT_EQ(environment_shape(sent().at(0)), (std::vector<int>{2, 2, 2, 2, 1}));
    for (const ap_table& table : agent->rf_environment)
        EXPECT_EQ(table.capacity(), 0u);
}

}  // namespace
