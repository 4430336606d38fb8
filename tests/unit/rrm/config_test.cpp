// Applying the service's radio configuration (channel, bandwidth, power, steering reset, 802.11k
// neighbour lists) and the two radio-state reports, "rrm-mode-response" and "rrm-config-changed".
#include <string>

#include "rrm_fixture.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrEq;

namespace {

std::string rrm_info(const std::string& body)
{
    return R"({"version":"2.2","service":"rrm","cmd":"rrm-info")" + (body.empty() ? "" : "," + body) + "}";
}

class config_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_identity();
        allow_state(true);
        make_agent();
        // No VAP carries 802.11k unless a test says so.
        EXPECT_CALL(driver, get_max_vap()).Times(AnyNumber()).WillRepeatedly(Return(2));
        EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    }

    void radio_state(int radio, bool enabled, bool vaps_enabled = true)
    {
        EXPECT_CALL(driver, is_enabled(radio)).Times(AnyNumber()).WillRepeatedly(Return(enabled));
        EXPECT_CALL(driver, has_enabled_vaps(radio)).Times(AnyNumber()).WillRepeatedly(Return(vaps_enabled));
    }

    // The steering reset of one radio, in the order the agent does it.
    void expect_steering_reset(const char* ifname)
    {
        InSequence order;
        EXPECT_CALL(driver, probsup_rrm_max_age(StrEq(ifname), 0));
        EXPECT_CALL(driver, set_vorna_sta_rssi_thr_high(StrEq(ifname), 0));
        EXPECT_CALL(driver, set_vorna_sta_rssi_thr_low(StrEq(ifname), 0));
        EXPECT_CALL(driver, unblock_all_sta(StrEq(ifname)));
    }

    void allow_steering_reset()
    {
        EXPECT_CALL(driver, probsup_rrm_max_age(_, 0)).Times(AnyNumber());
        EXPECT_CALL(driver, set_vorna_sta_rssi_thr_high(_, 0)).Times(AnyNumber());
        EXPECT_CALL(driver, set_vorna_sta_rssi_thr_low(_, 0)).Times(AnyNumber());
        EXPECT_CALL(driver, unblock_all_sta(_)).Times(AnyNumber());
    }

    // An 802.11k VAP whose neighbour list is cleared by every configuration.
    void dot11k_vap(unsigned vap, int radio, const char* ifname, bool dot11k = true)
    {
        EXPECT_CALL(driver, VapIdToVap(vap, radio)).Times(AnyNumber()).WillRepeatedly(Return(ifname));
        EXPECT_CALL(driver, is_802dot11k(radio, static_cast<int>(vap)))
            .Times(AnyNumber())
            .WillRepeatedly(Return(dot11k));
    }

    // Applies a one-radio configuration on radio 0 and expects set_chanspec with these values.
    void expect_chanspec(const std::string& radio_keys, int channel, int bandwidth, primary_channel_mode mode)
    {
        EXPECT_CALL(driver, set_chanspec(StrEq("wlan0"), channel, bandwidth, mode));
        deliver(rrm_info(R"("use-tpc":1,"use-dca":1,"radios":[{"id":0,)" + radio_keys + "}]"));
    }

    bool has_error(const std::string& text) const
    {
        for (const auto& line : log.lines())
            if (line.level == VLR_LOG_ERROR && line.text == text)
                return true;
        return false;
    }
};

TEST_F(config_test, channel_bandwidth_and_power_are_set_when_allowed)
{
    radio_state(0, true);
    expect_steering_reset("wlan0");
    {
        InSequence order;
        EXPECT_CALL(driver, set_tx_power(StrEq("wlan0"), 14));
        EXPECT_CALL(driver, set_chanspec(StrEq("wlan0"), 11, 20, PRIMARY_NONE));
    }
    deliver(
        rrm_info(R"("use-tpc":1,"use-dca":1,"radios":[{"id":0,"channel":11,"bandwidth":20,"power":14}])"));
}

TEST_F(config_test, use_dca_0_keeps_the_channel_but_still_resets_steering_of_that_radio)
{
    radio_state(0, true);
    agent->load_balancer_active = true;
    expect_steering_reset("wlan0");
    // The strict driver refuses set_chanspec: none is expected.
    deliver(rrm_info(R"("use-tpc":0,"use-dca":0,"radios":[{"id":0,"channel":36,"bandwidth":40}])"));
    EXPECT_FALSE(agent->load_balancer_active);
}

TEST_F(config_test, forty_mhz_with_a_lower_primary_selects_the_lower_side)
{
    radio_state(0, true);
    allow_steering_reset();
    expect_chanspec(R"("channel":36,"bandwidth":40,"primary-channel":"lower")", 36, 40, PRIMARY_LOWER);
}

TEST_F(config_test, forty_mhz_with_upper_in_capitals_selects_the_upper_side)
{
    radio_state(0, true);
    allow_steering_reset();
    expect_chanspec(R"("channel":40,"bandwidth":40,"primary-channel":"UPPER")", 40, 40, PRIMARY_UPPER);
}

TEST_F(config_test, forty_mhz_without_a_primary_selects_the_lower_side)
{
    radio_state(0, true);
    allow_steering_reset();
    expect_chanspec(R"("channel":6,"bandwidth":40)", 6, 40, PRIMARY_LOWER);
}

TEST_F(config_test, eighty_and_twenty_mhz_never_name_a_primary_side)
{
    radio_state(0, true);
    allow_steering_reset();
    expect_chanspec(R"("channel":36,"bandwidth":80,"primary-channel":"upper")", 36, 80, PRIMARY_NONE);
    expect_chanspec(R"("channel":1,"bandwidth":20,"primary-channel":"upper")", 1, 20, PRIMARY_NONE);
}

TEST_F(config_test, bandwidth_0_or_absent_means_20_mhz)
{
    radio_state(0, true);
    allow_steering_reset();
    expect_chanspec(R"("channel":1,"bandwidth":0)", 1, 20, PRIMARY_NONE);
    expect_chanspec(R"("channel":11,"primary-channel":"upper")", 11, 20, PRIMARY_NONE);
}

TEST_F(config_test, power_0_never_changes_power_even_with_use_tpc)
{
    radio_state(0, true);
    expect_steering_reset("wlan0");
    // The strict driver refuses set_tx_power: none is expected.
    deliver(rrm_info(R"("use-tpc":1,"use-dca":0,"radios":[{"id":0,"power":0}])"));
}

TEST_F(config_test, a_power_without_use_tpc_is_not_set)
{
    radio_state(0, true);
    expect_steering_reset("wlan0");
    deliver(rrm_info(R"("use-dca":1,"radios":[{"id":0,"power":12}])"));
}

TEST_F(config_test, radio_id_3_on_a_two_radio_device_is_rejected_and_the_others_applied)
{
    radio_state(0, true);
    radio_state(1, true);
    expect_steering_reset("wlan0");
    expect_steering_reset("wlan1");
    EXPECT_CALL(driver, set_tx_power(StrEq("wlan0"), 10));
    EXPECT_CALL(driver, set_tx_power(StrEq("wlan1"), 18));
    deliver(
        rrm_info(R"("use-tpc":1,"radios":[{"id":0,"power":10},{"id":3,"power":12},{"id":1,"power":18}])"));
    EXPECT_TRUE(has_error("apply_config() Wrong id value"));
}

TEST_F(config_test, a_negative_radio_id_is_rejected_with_the_error_line)
{
    expect_steering_reset("wlan1");
    radio_state(1, true);
    deliver(rrm_info(R"("radios":[{"id":-1,"power":10},{"id":2},{"id":1}])"));
    int errors = 0;
    for (const auto& line : log.lines())
        if (line.text == "apply_config() Wrong id value") {
            EXPECT_EQ(line.level, VLR_LOG_ERROR);
            ++errors;
        }
    EXPECT_EQ(errors, 2);
}

TEST_F(config_test, null_radio_elements_are_skipped_and_missing_keys_read_as_0)
{
    radio_state(0, true);
    // {} is radio 0 with nothing to set but its steering reset.
    expect_steering_reset("wlan0");
    deliver(rrm_info(R"("use-tpc":1,"use-dca":1,"radios":[null,{},null])"));
    EXPECT_FALSE(has_error("apply_config() Wrong id value"));
}

TEST_F(config_test, a_radio_that_is_off_or_has_no_enabled_vap_is_skipped_silently)
{
    radio_state(0, false);
    radio_state(1, true, false);
    // Neither the steering reset nor any setting reaches the strict driver.
    deliver(rrm_info(R"("use-tpc":1,"use-dca":1,"radios":[{"id":0,"channel":6,"power":10},)"
                     R"({"id":1,"channel":36,"power":10}])"));
    EXPECT_FALSE(has_error("apply_config() Wrong id value"));
}

TEST_F(config_test, no_balance_enterprise_is_set_only_by_exactly_1)
{
    radio_state(0, true);
    allow_steering_reset();
    deliver(rrm_info(R"("radios":[{"id":0,"no-balance-enterprise":1}])"));
    EXPECT_TRUE(agent->no_balance_enterprise);
    deliver(rrm_info(R"("radios":[{"id":0,"no-balance-enterprise":2}])"));
    EXPECT_FALSE(agent->no_balance_enterprise);
    agent->no_balance_enterprise = true;
    deliver(rrm_info(R"("radios":[{"id":0}])"));
    EXPECT_FALSE(agent->no_balance_enterprise);
}

TEST_F(config_test, use_80211r_is_taken_when_present_and_kept_when_absent)
{
    deliver(rrm_info(R"("use-80211r":1)"));
    EXPECT_TRUE(agent->use_80211r);
    EXPECT_TRUE(log.contains("apply_config quillon_use_80211r = 1\n"));
    log.clear();
    deliver(rrm_info(R"("use-tpc":1)"));
    EXPECT_TRUE(agent->use_80211r);
    EXPECT_TRUE(log.contains("apply_config quillon_use_80211r = 1\n"));
    deliver(rrm_info(R"("use-80211r":0)"));
    EXPECT_FALSE(agent->use_80211r);
    EXPECT_TRUE(log.contains("apply_config quillon_use_80211r = 0\n"));
    EXPECT_TRUE(log.mentions(VLR_LOG_INFO, "apply_config quillon_use_80211r = 0\n"));
}

TEST_F(config_test, neighbour_lists_of_802dot11k_vaps_only_are_cleared)
{
    dot11k_vap(0, 0, "wlan0-va0");
    dot11k_vap(1, 0, "wlan0-va1", false);
    dot11k_vap(1, 1, "wlan1-va1");
    EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
    EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va1")));
    agent->clear_802dot11k();
}

TEST_F(config_test, an_rrm_info_without_radios_still_clears_and_rewrites_the_neighbour_lists)
{
    dot11k_vap(0, 0, "wlan0-va0");
    dot11k_vap(1, 1, "wlan1-va1");
    {
        InSequence order;
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va1")));
        EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("A4:5E:60:00:20:01"), StrEq("Orion-Corp"), 6));
        EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("A4:5E:60:00:20:02"), StrEq("Orion-Guest"), 6));
        EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("A4:5E:60:00:30:11"), StrEq("Orion-Corp"), 36));
    }
    deliver(rrm_info(
        R"("use-tpc":1,"use-dca":1,"802dot11k":[)"
        R"({"neighbour-mac":"a4:5e:60:00:20:00","channel":6,)"
        R"("vaps":[{"id":1,"ssid":"Orion-Corp"},{"id":2,"ssid":"Orion-Guest"}]},)"
        R"({"neighbour-mac":"A4:5E:60:00:30:10","channel":36,"vaps":[{"id":1,"ssid":"Orion-Corp"}]}])"));
}

TEST_F(config_test, a_neighbour_vap_id_replaces_only_the_low_four_bits_of_the_last_byte)
{
    EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("00:11:22:33:44:53"), StrEq("Corp"), 11)).Times(2);
    EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("00:11:22:33:44:5F"), StrEq("Guest"), 11));
    EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("A4:5E:60:00:10:F5"), StrEq("Lab"), 44));
    deliver(
        rrm_info(R"("802dot11k":[{"neighbour-mac":"00:11:22:33:44:50","channel":11,"vaps":[)"
                 R"({"id":3,"ssid":"Corp"},{"id":19,"ssid":"Corp"},{"id":15,"ssid":"Guest"}]},)"
                 R"({"neighbour-mac":"a4:5e:60:00:10:f0","channel":44,"vaps":[{"id":5,"ssid":"Lab"}]}])"));
}

TEST_F(config_test, neighbours_without_a_usable_mac_or_vaps_add_nothing)
{
    EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("00:11:22:33:44:52"), StrEq("Corp"), 1));
    deliver(rrm_info(
        R"("802dot11k":[null,{"channel":6,"vaps":[{"id":1,"ssid":"Corp"}]},)"
        R"({"neighbour-mac":"not a mac","channel":6,"vaps":[{"id":1,"ssid":"Corp"}]},)"
        R"({"neighbour-mac":"00:11:22:33:44:50","channel":6},)"
        R"({"neighbour-mac":"00:11:22:33:44:50","channel":1,"vaps":[null,{"id":4},{"id":2,"ssid":"Corp"}]}])"));
}

TEST_F(config_test, rrm_info_is_ignored_while_hostapd_is_not_running)
{
    allow_state(false);
    radio_state(0, true);
    // The strict driver refuses every setting and every neighbour-list call.
    deliver(rrm_info(R"("use-tpc":1,"use-dca":1,"use-80211r":1,"radios":[{"id":0,"channel":6,"power":10}])"));
    EXPECT_FALSE(agent->use_80211r);
    EXPECT_TRUE(log.mentions(VLR_LOG_INFO, "Ignoring rrm-info because hostapd is not running\n"));
    EXPECT_TRUE(log.contains("Ignoring rrm-info because hostapd is not running\n"));
}

TEST_F(config_test, the_config_of_a_subscribe_response_is_applied_even_without_hostapd)
{
    allow_state(false);
    radio_state(0, true);
    expect_steering_reset("wlan0");
    EXPECT_CALL(driver, set_tx_power(StrEq("wlan0"), 9));
    deliver(R"({"version":"2.2","service":"rrm","cmd":"subscribe-response","status":"success",)"
            R"("config":{"use-tpc":1,"use-80211r":1,"radios":[{"id":0,"power":9}]}})");
    EXPECT_TRUE(agent->subscribed);
    EXPECT_TRUE(agent->use_80211r);
}

// The radio reports: one radio serving on 40 MHz, one off.
class config_report_test : public config_test {
protected:
    void SetUp() override
    {
        config_test::SetUp();
        fake_radio serving;
        serving.chanspec = 0x1824;  // channel 36, 40 MHz, lower primary
        serving.channels = "36 40 ";
        serving.vaps = {{1, "Orion-Corp", "a4:5e:60:00:10:11", true, true}};
        fake_radio off;
        off.enabled = false;
        off.mac_offset = 8;
        allow_description({serving, off});
        agent->subscribed = true;
    }

    static std::string expected(const char* cmd)
    {
        return std::string(R"({"version":"2.2","service":"rrm","cmd":")") + cmd +
               R"(","ap-mac":"A4:5E:60:00:10:00","domain":"default-rrm-domain","radios":[)"
               R"({"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,)"
               R"("locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":36,"bandwidth":40,)"
               R"("primary-channel":"lower","available-channels":"36 40 ",)"
               R"("vaps":[{"id":1,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:11","802dot11k":1,"802dot11r":1}]},)"
               R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,)"
               R"("locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,)"
               R"("primary-channel":"none"}]})";
    }
};

TEST_F(config_report_test, rrm_request_mode_is_answered_with_the_exact_mode_response)
{
    deliver(R"({"version":"2.2","service":"rrm","cmd":"rrm-request-mode"})");
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], expected("rrm-mode-response"));
}

TEST_F(config_report_test, rrm_request_mode_is_ignored_while_hostapd_is_not_running)
{
    allow_state(false);
    deliver(R"({"version":"2.2","service":"rrm","cmd":"rrm-request-mode"})");
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.mentions(VLR_LOG_INFO, "Ignoring rrm-request-mode because hostapd is not running\n"));
    EXPECT_TRUE(log.contains("Ignoring rrm-request-mode because hostapd is not running\n"));
}

TEST_F(config_report_test, the_mode_response_is_not_sent_while_hostapd_is_not_running)
{
    allow_state(false);
    agent->post_mode_response();
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.mentions(VLR_LOG_INFO, "Not sending rrm-mode-response because hostapd is not running\n"));
    EXPECT_TRUE(log.contains("Not sending rrm-mode-response because hostapd is not running\n"));
}

TEST_F(config_report_test, the_config_changed_report_has_its_exact_text_with_or_without_hostapd)
{
    agent->post_config_changed();
    allow_state(false);
    agent->post_config_changed();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], expected("rrm-config-changed"));
    EXPECT_EQ(texts[1], expected("rrm-config-changed"));
}

}  // namespace
