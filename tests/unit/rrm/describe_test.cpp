// The radio objects of "radios": key order, the conditions on each key, VAPs and clients.
#include "rrm_fixture.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::Return;

namespace {

fake_radio serving_radio()
{
    fake_radio radio;
    radio.chanspec = 0x1006;
    radio.vaps = {{0, "Orion-Corp", "a4:5e:60:00:10:01", true, true},
                  {2, "Orion-Guest", "a4:5e:60:00:10:03", false, false}};
    radio.stations = {{"f0:18:98:3c:21:4a", "Orion-Corp", -48}, {"3c:22:fb:10:20:30", "Orion-Guest", -1000}};
    return radio;
}

fake_radio radio_off()
{
    fake_radio radio;
    radio.enabled = false;
    radio.mac_offset = 8;
    radio.vaps = {{0, "never-asked", "a4:5e:60:00:10:11", true, true}};
    return radio;
}

const char serving_radio_text[] =
    R"({"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,)"
    R"("locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":6,"bandwidth":20,)"
    R"("primary-channel":"none","available-channels":"1 6 11 ",)"
    R"("vaps":[{"id":0,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:01","802dot11k":1,"802dot11r":1},)"
    R"({"id":2,"ssid":"Orion-Guest","mac":"a4:5e:60:00:10:03","802dot11k":0,"802dot11r":0}])";

const char assoclist_text[] = R"(,"assoclist":[{"mac":"f0:18:98:3c:21:4a","ssid":"Orion-Corp","rssi":-48},)"
                              R"({"mac":"3c:22:fb:10:20:30","ssid":"Orion-Guest","rssi":0}])";

const char radio_off_text[] =
    R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,)"
    R"("locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,)"
    R"("primary-channel":"none"})";

class describe_test : public rrm_fixture {
protected:
    void describe(const std::vector<fake_radio>& fakes, bool hostapd = true)
    {
        allow_identity();
        allow_description(fakes);
        allow_state(hostapd);
        make_agent();
    }

    // The "radios" array of a freshly built message.
    std::string radios_text()
    {
        json_writer message("rrm", "probe", "", "");
        agent->insert_radios(message);
        const std::string text = message.serialize();
        const std::string prefix = R"({"service":"rrm","cmd":"probe","radios":)";
        EXPECT_EQ(text.rfind(prefix, 0), 0u) << text;
        return text.substr(prefix.size(), text.size() - prefix.size() - 1);
    }
};

TEST_F(describe_test, the_subscribe_request_has_its_exact_text)
{
    describe({serving_radio(), radio_off()});
    agent->post_subscribe_request();
    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0],
              std::string(R"({"version":"2.2","service":"rrm","cmd":"subscribe-request",)"
                          R"("ap-mac":"A4:5E:60:00:10:00","domain":"default-rrm-domain","ap-mac-count":16,)"
                          R"("factory":{"board":"VX-3100","hw":"rev B","serial":"VX31B0012345",)"
                          R"("mac":"A4:5E:60:00:10:00"},"radios":[)") +
                  serving_radio_text + assoclist_text + "}," + radio_off_text + "]}");
    EXPECT_TRUE(log.contains("Subscribe to RRM service\n"));
}

TEST_F(describe_test, without_hostapd_or_sentry_mode_no_subscribe_request_is_sent)
{
    describe({serving_radio(), radio_off()}, false);
    agent->post_subscribe_request();
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(log.contains("Not sending subscribe-request because hostapd is not running\n"));
}

TEST_F(describe_test, a_disabled_radio_reports_status_0_power_16_chanspec_0_and_a_lock)
{
    describe({radio_off(), radio_off()});
    // Only what a radio that is off may be asked: no power, chanspec, lock, VAP or client walk.
    EXPECT_CALL(driver, get_tx_power(_)).Times(0);
    EXPECT_CALL(driver, get_chanspec(_)).Times(0);
    EXPECT_CALL(driver, get_config_spec(_)).Times(0);
    EXPECT_CALL(driver, is_wds_enabled(_)).Times(0);
    EXPECT_CALL(driver, fill_chanspecs(_, _)).Times(0);
    EXPECT_CALL(driver, get_ssidlist(_, _)).Times(0);
    EXPECT_CALL(driver, get_assoclist(_, _)).Times(0);
    EXPECT_CALL(driver, has_enabled_vaps(_)).Times(0);
    const std::string text = radios_text();
    std::string expected_first = radio_off_text;
    expected_first.replace(expected_first.find(R"("id":1)"), 6, R"("id":0)");
    EXPECT_EQ(text, "[" + expected_first + "," + radio_off_text + "]");
}

TEST_F(describe_test, a_radio_whose_vaps_are_all_down_is_described_like_one_that_is_off)
{
    fake_radio idle = serving_radio();
    idle.vaps_enabled = false;
    idle.mac_offset = 8;
    describe({serving_radio(), idle});
    EXPECT_CALL(driver, get_tx_power(testing::StrEq("wlan1"))).Times(0);
    EXPECT_CALL(driver, get_ssidlist(testing::StrEq("wlan1"), _)).Times(0);
    const std::string text = radios_text();
    EXPECT_NE(text.find(radio_off_text), std::string::npos) << text;
}

TEST_F(describe_test, a_station_of_unknown_strength_is_listed_with_rssi_0)
{
    describe({serving_radio(), radio_off()});
    EXPECT_NE(radios_text().find(R"({"mac":"3c:22:fb:10:20:30","ssid":"Orion-Guest","rssi":0})"),
              std::string::npos);
}

TEST_F(describe_test, once_subscribed_the_radio_carries_no_client_list)
{
    describe({serving_radio(), radio_off()});
    agent->subscribed = true;
    EXPECT_CALL(driver, get_assoclist(_, _)).Times(0);
    EXPECT_EQ(radios_text(), std::string("[") + serving_radio_text + "}," + radio_off_text + "]");
}

TEST_F(describe_test, with_balancing_active_the_client_list_comes_back_after_subscription)
{
    describe({serving_radio(), radio_off()});
    agent->subscribed = true;
    agent->load_balancer_active = true;
    EXPECT_NE(radios_text().find(R"("assoclist":[)"), std::string::npos);
}

TEST_F(describe_test, with_obss_coexistence_bandwidth_and_primary_are_the_configured_ones)
{
    fake_radio radio = serving_radio();
    radio.obss_coex = true;
    radio.chanspec = 0x1000 | 36;        // running at 20 MHz on 36
    radio.config_spec = 0x1800 | 0x100;  // configured 40 MHz, upper primary
    describe({radio, radio_off()});
    const std::string text = radios_text();
    EXPECT_NE(text.find(R"("channel":36,"bandwidth":40,"primary-channel":"upper")"), std::string::npos)
        << text;
}

TEST_F(describe_test, without_obss_coexistence_everything_comes_from_the_current_chanspec)
{
    fake_radio radio = serving_radio();
    radio.chanspec = 0x1800 | 38;
    radio.config_spec = 0x2000;
    describe({radio, radio_off()});
    const std::string text = radios_text();
    EXPECT_NE(text.find(R"("channel":38,"bandwidth":40,"primary-channel":"lower")"), std::string::npos)
        << text;
}

TEST_F(describe_test, a_radio_in_any_special_mode_is_locked)
{
    for (int mode = 0; mode < 4; ++mode) {
        fake_radio radio = serving_radio();
        radio.wds = mode == 0;
        radio.mesh = mode == 1;
        radio.wids = mode == 2;
        radio.wgb = mode == 3;
        describe({radio, radio_off()});
        EXPECT_NE(radios_text().find(R"("locked-for-dca":1,"locked-for-tpc":1,"locked-for-balancer":1)"),
                  std::string::npos)
            << "mode " << mode;
        destroy_agent();
    }
}

}  // namespace
