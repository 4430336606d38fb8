// The per-radio probe and blacklist tables: aging on timers 4 and 5, the "rrm-probe-response"
// report, unblocking expired stations, and the load-balancing messages the agent ignores.
// Nothing in the agent fills the tables yet, so the tests put entries in and arm the timers
// themselves, as the load-balancing feature will.
#include <set>
#include <string>
#include <vector>

#include "core/json_reader.h"
#include "rrm_fixture.h"

using ::testing::_;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrEq;

namespace {

const char envelope[] =
    R"({"version":"2.2","service":"rrm","cmd":"rrm-probe-response","ap-mac":"A4:5E:60:00:10:00",)"
    R"("domain":"default-rrm-domain","radios":[)";

MacAddr mac_of(const char* text)
{
    MacAddr mac;
    EXPECT_TRUE(mac.parse(text)) << text;
    return mac;
}

// A MAC whose hash differs from entry to entry: the index goes into the bytes the hash reads.
MacAddr numbered_mac(unsigned index)
{
    MacAddr mac;
    mac.bytes[0] = 0x02;
    mac.bytes[3] = static_cast<unsigned char>(index & 0xFF);
    mac.bytes[4] = static_cast<unsigned char>((index >> 8) & 0xFF);
    mac.bytes[5] = 0x5A;
    return mac;
}

class tables_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_identity();
        allow_state(true);
    }

    void add_probe(unsigned radio, const char* mac, int countdown, unsigned vap_id, int rssi)
    {
        sta_prob_info info;
        info.countdown = countdown;
        info.vap_id = vap_id;
        info.rssi = rssi;
        agent->probe_tables.at(radio)[mac_of(mac)] = info;
    }

    void add_blocked(unsigned radio, const char* mac, int lifetime)
    {
        agent->blacklist_tables.at(radio)[mac_of(mac)] = lifetime;
    }

    // Arms the two table timers the way the feature that fills the tables would.
    void arm_probe_timer()
    {
        rrm_worker_under_test* worker = agent.get();
        agent->timers.add_timer([worker] { worker->rrm_probe_response_timeout(); },
                                rrm_worker::TIMER_PROBE_RESPONSE, 1);
    }

    void arm_blacklist_timer()
    {
        rrm_worker_under_test* worker = agent.get();
        agent->timers.add_timer([worker] { worker->rrm_blacklist_timeout(); }, rrm_worker::TIMER_BLACKLIST,
                                1);
    }

    int countdown_of(unsigned radio, const char* mac)
    {
        return agent->probe_tables.at(radio).at(mac_of(mac)).countdown;
    }
};

TEST_F(tables_test, there_is_one_probe_table_and_one_blacklist_per_radio_and_all_start_empty)
{
    radios = 3;
    make_agent();
    ASSERT_EQ(agent->probe_tables.size(), 3u);
    ASSERT_EQ(agent->blacklist_tables.size(), 3u);
    for (unsigned r = 0; r < 3; ++r) {
        EXPECT_TRUE(agent->probe_tables[r].empty());
        EXPECT_TRUE(agent->blacklist_tables[r].empty());
    }
    EXPECT_TRUE(agent->is_sta_environment_empty());
    EXPECT_TRUE(agent->is_sta_block_empty());
}

TEST_F(tables_test, with_every_table_empty_both_timers_fire_once_and_are_not_rearmed)
{
    make_agent();
    arm_probe_timer();
    arm_blacklist_timer();

    EXPECT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));

    EXPECT_FALSE(is_armed(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_BLACKLIST));
    EXPECT_TRUE(armed().empty());
    EXPECT_TRUE(sent().empty());
}

TEST_F(tables_test, the_probe_timer_rearms_itself_one_second_ahead_while_an_entry_waits)
{
    make_agent();
    add_probe(1, "0c:1a:2b:3c:4d:5e", 5, 1, -61);
    arm_probe_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_PROBE_RESPONSE, 1}}));
    EXPECT_EQ(countdown_of(1, "0C:1A:2B:3C:4D:5E"), 4);
    EXPECT_TRUE(sent().empty());
}

TEST_F(tables_test, the_blacklist_timer_rearms_itself_one_second_ahead_while_a_station_is_blocked)
{
    make_agent();
    add_blocked(0, "aa:bb:cc:0d:0e:0f", 5);
    arm_blacklist_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_BLACKLIST, 1}}));
    EXPECT_EQ(agent->blacklist_tables[0].at(mac_of("AA:BB:CC:0D:0E:0F")), 4);
}

TEST_F(tables_test, a_rearmed_table_timer_is_never_doubled)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 5, 1, -61);
    add_blocked(0, "aa:bb:cc:0d:0e:0f", 5);
    // Armed twice, as a careless filler might: each tick still leaves one timer of each id.
    arm_probe_timer();
    arm_probe_timer();
    arm_blacklist_timer();
    arm_blacklist_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    EXPECT_EQ(armed(), (std::vector<std::pair<int, int>>{{rrm_worker::TIMER_PROBE_RESPONSE, 1},
                                                         {rrm_worker::TIMER_BLACKLIST, 1}}));
}

TEST_F(tables_test, a_probe_entry_with_countdown_3_is_reported_at_the_third_tick)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 3, 1, -61);
    arm_probe_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(countdown_of(0, "0C:1A:2B:3C:4D:5E"), 2);
    EXPECT_TRUE(sent().empty());

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(countdown_of(0, "0C:1A:2B:3C:4D:5E"), 1);
    EXPECT_TRUE(sent().empty());

    EXPECT_CALL(driver, VapIdToVap(1u, 0)).WillOnce(Return("wlan0-va1"));
    EXPECT_CALL(driver, VapIdToSsid(1u, 0)).WillOnce(Return("Orion-Corp"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":0,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E",)"
                                               R"("ssid":"Orion-Corp","rssi":-61}]}]})"});
    EXPECT_TRUE(agent->probe_tables[0].empty());

    // The table held the entry when the tick began, so the timer runs once more and then stops.
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_TRUE(sent().empty());
}

TEST_F(tables_test, a_probe_entry_with_countdown_0_falls_due_at_the_first_tick)
{
    make_agent();
    add_probe(1, "0c:1a:2b:3c:4d:5e", 0, 2, -70);
    arm_probe_timer();

    EXPECT_CALL(driver, VapIdToVap(2u, 1)).WillOnce(Return("wlan1-va2"));
    EXPECT_CALL(driver, VapIdToSsid(2u, 1)).WillOnce(Return("Orion-Guest"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":1,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E",)"
                                               R"("ssid":"Orion-Guest","rssi":-70}]}]})"});
}

TEST_F(tables_test, a_due_entry_without_rssi_asks_the_probe_list_once_just_before_it_is_reported)
{
    make_agent();
    add_probe(1, "0c:1a:2b:3c:4d:5e", 1, 2, 0);
    arm_probe_timer();
    {
        InSequence order;
        EXPECT_CALL(driver, VapIdToVap(2u, 1)).WillOnce(Return("wlan1-va2"));
        EXPECT_CALL(driver, probsup_find(StrEq("wlan1-va2"), StrEq("0C:1A:2B:3C:4D:5E")))
            .WillOnce(Return(true));
        EXPECT_CALL(driver, VapIdToSsid(2u, 1)).WillOnce(Return("Orion-Guest"));
    }
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":1,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E",)"
                                               R"("ssid":"Orion-Guest","rssi":1}]}]})"});
}

TEST_F(tables_test, an_entry_that_is_not_due_never_asks_the_probe_list)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 2, 1, 0);
    arm_probe_timer();
    // The strict driver fails the test on any call other than the radio count.
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(countdown_of(0, "0C:1A:2B:3C:4D:5E"), 1);
    EXPECT_EQ(agent->probe_tables[0].at(mac_of("0C:1A:2B:3C:4D:5E")).rssi, 0);
}

TEST_F(tables_test, a_due_entry_without_rssi_on_a_vap_without_a_name_is_reported_with_rssi_0)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 1, 4, 0);
    arm_probe_timer();
    EXPECT_CALL(driver, VapIdToVap(4u, 0)).WillOnce(Return(nullptr));
    EXPECT_CALL(driver, VapIdToSsid(4u, 0)).WillOnce(Return("Orion-Corp"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));
    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":0,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E",)"
                                               R"("ssid":"Orion-Corp","rssi":0}]}]})"});
}

TEST_F(tables_test, two_radios_with_entries_and_only_one_due_give_both_radio_objects)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 4, 1, -61);
    add_probe(1, "f0:18:98:3c:21:4a", 1, 0, -48);
    arm_probe_timer();

    EXPECT_CALL(driver, VapIdToVap(0u, 1)).WillOnce(Return("wlan1-va0"));
    EXPECT_CALL(driver, VapIdToSsid(0u, 1)).WillOnce(Return("Orion-Corp"));
    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));

    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":0,"probe-list":[]},)"
                                               R"({"id":1,"probe-list":[{"mac":"F0:18:98:3C:21:4A",)"
                                               R"("ssid":"Orion-Corp","rssi":-48}]}]})"});
    EXPECT_EQ(countdown_of(0, "0C:1A:2B:3C:4D:5E"), 3);
    EXPECT_TRUE(agent->probe_tables[1].empty());
    EXPECT_TRUE(log.contains("post_rrm_probe_response: radio 0, prob_size 1\n"));
    EXPECT_TRUE(log.contains("post_rrm_probe_response: radio 1, prob_size 1\n"));
    EXPECT_TRUE(log.mentions(VLR_LOG_DEBUG, "post_rrm_probe_response: radio 1, prob_size 1"));
}

TEST_F(tables_test, the_probe_response_written_by_hand_has_its_exact_text)
{
    make_agent("campus-north");
    add_probe(0, "0c:1a:2b:3c:4d:5e", 0, 1, -61);
    EXPECT_CALL(driver, VapIdToSsid(1u, 0)).WillOnce(Return("Orion-Corp"));

    agent->post_rrm_probe_response();

    EXPECT_EQ(
        sent(),
        std::vector<std::string>{
            R"({"version":"2.2","service":"rrm","cmd":"rrm-probe-response","ap-mac":"A4:5E:60:00:10:00",)"
            R"("domain":"campus-north","radios":[{"id":0,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E",)"
            R"("ssid":"Orion-Corp","rssi":-61}]}]})"});
    EXPECT_TRUE(agent->probe_tables[0].empty());
}

TEST_F(tables_test, an_entry_whose_vap_has_no_ssid_is_dropped_unreported)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 1, 3, -61);
    arm_probe_timer();
    EXPECT_CALL(driver, VapIdToVap(3u, 0)).WillOnce(Return(nullptr));
    EXPECT_CALL(driver, VapIdToSsid(3u, 0)).WillOnce(Return(nullptr));

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));

    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(agent->probe_tables[0].empty());
}

TEST_F(tables_test, an_entry_without_ssid_leaves_the_others_of_its_radio_in_the_report)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 0, 3, -61);
    add_probe(0, "f0:18:98:3c:21:4a", 0, 1, -48);
    EXPECT_CALL(driver, VapIdToSsid(3u, 0)).WillOnce(Return(nullptr));
    EXPECT_CALL(driver, VapIdToSsid(1u, 0)).WillOnce(Return("Orion-Corp"));

    agent->post_rrm_probe_response();

    EXPECT_EQ(sent(), std::vector<std::string>{std::string(envelope) +
                                               R"({"id":0,"probe-list":[{"mac":"F0:18:98:3C:21:4A",)"
                                               R"("ssid":"Orion-Corp","rssi":-48}]}]})"});
    EXPECT_TRUE(agent->probe_tables[0].empty());
}

TEST_F(tables_test, nothing_is_posted_when_no_entry_is_due)
{
    make_agent();
    add_probe(0, "0c:1a:2b:3c:4d:5e", 2, 1, -61);
    add_probe(1, "f0:18:98:3c:21:4a", 7, 0, -48);

    agent->post_rrm_probe_response();

    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(agent->probe_tables[0].size(), 1u);
    EXPECT_EQ(agent->probe_tables[1].size(), 1u);
    // The radio objects were still built and traced; only the enqueue was skipped.
    EXPECT_TRUE(log.contains("post_rrm_probe_response: radio 0, prob_size 1\n"));
}

TEST_F(tables_test, the_report_step_keeps_an_entry_not_yet_due_and_leaves_the_posted_flag_clear)
{
    make_agent();
    json_writer message("rrm", "x", "", "");
    json_writer probe_list = message.make_array("probe-list");
    sta_prob_info info;
    info.countdown = 1;
    bool posted = false;

    EXPECT_FALSE(agent->if_remove_post_rrm_probe_response_cb(mac_of("0c:1a:2b:3c:4d:5e"), info, probe_list,
                                                             posted, 0));
    EXPECT_FALSE(posted);
    EXPECT_STREQ(message.serialize(), R"({"service":"rrm","cmd":"x","probe-list":[]})");
}

TEST_F(tables_test, the_aging_step_lowers_the_countdown_and_never_removes)
{
    make_agent();
    sta_prob_info info;
    info.countdown = 5;
    info.vap_id = 1;
    info.rssi = -40;
    bool due = false;

    EXPECT_FALSE(agent->if_remove_probe_response_timeout_cb(mac_of("0c:1a:2b:3c:4d:5e"), info, due, 0));
    EXPECT_EQ(info.countdown, 4);
    EXPECT_FALSE(due);

    info.countdown = 1;
    EXPECT_CALL(driver, VapIdToVap(1u, 0)).WillOnce(Return("wlan0-va1"));
    EXPECT_FALSE(agent->if_remove_probe_response_timeout_cb(mac_of("0c:1a:2b:3c:4d:5e"), info, due, 0));
    EXPECT_EQ(info.countdown, 0);
    EXPECT_TRUE(due);
    EXPECT_EQ(info.rssi, -40);
}

TEST_F(tables_test, a_tick_ages_every_probe_entry_exactly_once)
{
    make_agent();
    const unsigned count = 300;
    for (unsigned i = 0; i < count; ++i) {
        sta_prob_info info;
        info.countdown = 10;
        agent->probe_tables[i % 2][numbered_mac(i)] = info;
    }
    arm_probe_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_PROBE_RESPONSE));

    for (unsigned r = 0; r < 2; ++r)
        for (const auto& entry : agent->probe_tables[r])
            EXPECT_EQ(entry.second.countdown, 9) << entry.first.to_string();
    EXPECT_EQ(agent->probe_tables[0].size() + agent->probe_tables[1].size(), count);
}

TEST_F(tables_test, a_report_removes_each_due_entry_once_and_keeps_the_rest)
{
    make_agent();
    const unsigned count = 200;
    std::set<std::string> expected;
    for (unsigned i = 0; i < count; ++i) {
        sta_prob_info info;
        // Every other entry is due; half of the due ones probed on a VAP that has lost its SSID.
        info.countdown = i % 2 == 0 ? 0 : 3;
        info.vap_id = i % 4 == 0 ? 1 : 2;
        info.rssi = -50;
        agent->probe_tables[0][numbered_mac(i)] = info;
        if (i % 4 == 0)
            expected.insert(numbered_mac(i).to_string());
    }
    EXPECT_CALL(driver, VapIdToSsid(1u, 0)).Times(50).WillRepeatedly(Return("Orion-Corp"));
    EXPECT_CALL(driver, VapIdToSsid(2u, 0)).Times(50).WillRepeatedly(Return(nullptr));

    agent->post_rrm_probe_response();

    const std::vector<std::string> texts = sent();
    ASSERT_EQ(texts.size(), 1u);
    json_reader message(texts[0].c_str());
    json_reader list = message.get_subobject("radios").get_array_element(0).get_subobject("probe-list");
    std::multiset<std::string> reported;
    for (int i = 0; i < list.length(); ++i)
        reported.insert(list.get_array_element(i).get_string("mac"));
    EXPECT_EQ(reported, std::multiset<std::string>(expected.begin(), expected.end()));
    EXPECT_EQ(agent->probe_tables[0].size(), count / 2);
    for (const auto& entry : agent->probe_tables[0])
        EXPECT_EQ(entry.second.countdown, 3);
}

TEST_F(tables_test, a_blacklist_entry_with_lifetime_1_is_unblocked_and_removed_at_the_first_tick)
{
    make_agent();
    add_blocked(0, "aa:bb:cc:0d:0e:0f", 1);
    arm_blacklist_timer();
    EXPECT_CALL(driver, unblock_sta(StrEq("wlan0"), StrEq("AA:BB:CC:0D:0E:0F")));

    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));

    EXPECT_TRUE(agent->blacklist_tables[0].empty());
    EXPECT_TRUE(agent->is_sta_block_empty());
    EXPECT_TRUE(sent().empty());
}

TEST_F(tables_test,
       a_blacklist_entry_with_lifetime_3_on_the_second_radio_is_unblocked_on_wlan1_at_the_third_tick)
{
    make_agent();
    add_blocked(1, "aa:bb:cc:0d:0e:0f", 3);
    arm_blacklist_timer();

    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    EXPECT_EQ(agent->blacklist_tables[1].at(mac_of("AA:BB:CC:0D:0E:0F")), 1);

    EXPECT_CALL(driver, unblock_sta(StrEq("wlan1"), StrEq("AA:BB:CC:0D:0E:0F")));
    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    EXPECT_TRUE(agent->blacklist_tables[1].empty());

    ASSERT_TRUE(fire(rrm_worker::TIMER_BLACKLIST));
    EXPECT_FALSE(is_armed(rrm_worker::TIMER_BLACKLIST));
}

TEST_F(tables_test, a_blacklist_entry_with_lifetime_0_is_unblocked_at_the_first_tick)
{
    make_agent();
    add_blocked(0, "aa:bb:cc:0d:0e:0f", 0);
    EXPECT_CALL(driver, unblock_sta(StrEq("wlan0"), StrEq("AA:BB:CC:0D:0E:0F")));
    agent->rrm_blacklist_timeout();
    EXPECT_TRUE(agent->blacklist_tables[0].empty());
}

TEST_F(tables_test, a_blacklist_entry_on_a_radio_beyond_the_named_three_expires_without_an_unblock)
{
    radios = 4;
    make_agent();
    add_blocked(3, "aa:bb:cc:0d:0e:0f", 1);
    add_blocked(2, "02:00:00:00:00:01", 1);
    EXPECT_CALL(driver, unblock_sta(StrEq("wlan2"), StrEq("02:00:00:00:00:01")));

    agent->rrm_blacklist_timeout();

    EXPECT_TRUE(agent->is_sta_block_empty());
}

TEST_F(tables_test, the_blacklist_aging_step_lowers_the_lifetime_and_keeps_the_entry)
{
    make_agent();
    int lifetime = 2;
    EXPECT_FALSE(agent->if_remove_rrm_blacklist_timeout_cb(mac_of("aa:bb:cc:0d:0e:0f"), lifetime, "wlan0"));
    EXPECT_EQ(lifetime, 1);

    EXPECT_CALL(driver, unblock_sta(StrEq("wlan0"), StrEq("AA:BB:CC:0D:0E:0F")));
    EXPECT_TRUE(agent->if_remove_rrm_blacklist_timeout_cb(mac_of("aa:bb:cc:0d:0e:0f"), lifetime, "wlan0"));
    EXPECT_EQ(lifetime, 0);
}

TEST_F(tables_test, a_blacklist_tick_unblocks_each_expired_station_once)
{
    make_agent();
    const unsigned count = 120;
    for (unsigned i = 0; i < count; ++i)
        agent->blacklist_tables[0][numbered_mac(i)] = i % 2 == 0 ? 1 : 5;
    std::multiset<std::string> unblocked;
    EXPECT_CALL(driver, unblock_sta(StrEq("wlan0"), _))
        .Times(static_cast<int>(count / 2))
        .WillRepeatedly([&unblocked](const char*, const char* mac) { unblocked.insert(mac); });

    agent->rrm_blacklist_timeout();

    std::multiset<std::string> expected;
    for (unsigned i = 0; i < count; i += 2)
        expected.insert(numbered_mac(i).to_string());
    EXPECT_EQ(unblocked, expected);
    EXPECT_EQ(agent->blacklist_tables[0].size(), count / 2);
    for (const auto& entry : agent->blacklist_tables[0])
        EXPECT_EQ(entry.second, 4);
}

TEST_F(tables_test, the_emptiness_checks_look_at_every_radio)
{
    radios = 3;
    make_agent();
    add_probe(2, "0c:1a:2b:3c:4d:5e", 3, 0, 0);
    EXPECT_FALSE(agent->is_sta_environment_empty());
    EXPECT_TRUE(agent->is_sta_block_empty());

    add_blocked(1, "aa:bb:cc:0d:0e:0f", 3);
    EXPECT_FALSE(agent->is_sta_block_empty());

    agent->probe_tables[2].clear();
    agent->blacklist_tables[1].clear();
    EXPECT_TRUE(agent->is_sta_environment_empty());
    EXPECT_TRUE(agent->is_sta_block_empty());
}

TEST_F(tables_test, the_ignored_load_balancing_messages_only_trace_at_debug_level)
{
    make_agent();
    const char* const ignored[] = {"rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request",
                                   "rrm-client-assoc-ack"};
    for (const char* cmd : ignored) {
        log.clear();
        deliver(std::string(R"({"version":"2.2","service":"rrm","cmd":")") + cmd +
                R"(","ap-mac":"A4:5E:60:00:10:00","domain":"default-rrm-domain",)"
                R"("clients":[{"mac":"0c:1a:2b:3c:4d:5e","radio":0,"lifetime":30}]})");
        const std::string trace_line =
            std::string("Ignoring ") + cmd + " because load balancer is not yet supported\n";
        EXPECT_TRUE(log.contains(trace_line)) << cmd;
        EXPECT_TRUE(log.mentions(VLR_LOG_DEBUG, trace_line)) << cmd;
        EXPECT_EQ(log.lines().size(), 1u) << cmd;
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(armed().empty());
    EXPECT_TRUE(agent->is_sta_environment_empty());
    EXPECT_TRUE(agent->is_sta_block_empty());
}

TEST_F(tables_test, the_ignored_handlers_trace_when_called_directly)
{
    make_agent();
    json_reader message(R"({"clients":[]})");
    log.clear();
    agent->process_apply_blacklist(message);
    agent->process_rrm_probe_request(message);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "Ignoring rrm-blacklist because load balancer is not yet supported\n",
                               "Ignoring rrm-probe-request because load balancer is not yet supported\n"}));
}

}  // namespace
