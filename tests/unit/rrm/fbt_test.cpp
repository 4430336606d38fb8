// 802.11r fast BSS transition: the per-VAP parameter sets handed to the driver, the
// key-holder ids, the peer lists and their bounds, and the mobility domain of the RRM domain.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rrm/mobility_domain.h"
#include "rrm_fixture.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::Invoke;
using ::testing::Return;

namespace {

std::string fbt_info(const std::string& body)
{
    return R"({"version":"2.2","service":"rrm","cmd":"fbt-info",)" + body + "}";
}

// A VAP entry of radio 0 with `peers` remotes, each with its own R1 id.
std::string vap_with_peers(int vap_id, int peers)
{
    std::string text =
        R"({"vap_id":)" + std::to_string(vap_id) + R"(,"radio_id":0,"fbt-rrb-key":"k","remotes":[)";
    for (int i = 0; i < peers; ++i) {
        char id[32];
        snprintf(id, sizeof id, "02:00:00:00:%02X:%02X", (i >> 8) & 0xFF, i & 0xFF);
        text += std::string(i == 0 ? "" : ",") + R"({"remote-r1-kh-id":")" + id + R"("})";
    }
    return text + "]}";
}

class fbt_test : public rrm_fixture {
protected:
    void SetUp() override
    {
        allow_identity("00:11:22:33:44:50");
        allow_state(true);
        make_agent();
        agent->use_80211r = true;
        // The driver names VAP v of radio r "wlan<r>-va<v>".
        EXPECT_CALL(driver, fill_vap_name(_, _, _, 32u))
            .Times(AnyNumber())
            .WillRepeatedly(Invoke([](int radio, int vap, char* buffer, unsigned size) {
                snprintf(buffer, size, "wlan%d-va%d", radio, vap);
                return 0;
            }));
        EXPECT_CALL(driver, set_quillon_fbt_params(_, _))
            .Times(AnyNumber())
            .WillRepeatedly(Invoke([this](const std::string& ifname, const std::string& params) {
                handed.emplace_back(ifname, params);
                return 0;
            }));
    }

    // The "ft-config" object of the parameter set at `index`.
    json_reader ft_config(size_t index)
    {
        readers.emplace_back(new json_reader(handed.at(index).second.c_str()));
        return readers.back()->get_subobject("ft-config");
    }

    std::string r1_key_holder_of_vap(int vap_id, int radio_id)
    {
        handed.clear();
        deliver(fbt_info(R"("vaps":[{"vap_id":)" + std::to_string(vap_id) + R"(,"radio_id":)" +
                         std::to_string(radio_id) + R"(,"remotes":[]}])"));
        if (handed.size() != 1)
            return "nothing handed";
        const char* id = ft_config(0).get_string("r1-key-holder-id");
        return id == nullptr ? "absent" : id;
    }

    std::vector<std::pair<std::string, std::string>> handed;
    std::vector<std::unique_ptr<json_reader>> readers;
};

TEST(fbt_mobility_domain, the_crc_of_known_domain_names)
{
    EXPECT_EQ(mobility_domain_crc(""), 0);
    EXPECT_EQ(mobility_domain_crc("a"), 97);
    EXPECT_EQ(mobility_domain_crc("default-rrm-domain"), 54202);
}

TEST(fbt_mobility_domain, bytes_above_0x7f_are_shifted_in_bit_by_bit)
{
    // Sixteen one bits fill the register (0xFFFF) before the first one falls out of bit 15;
    // from the seventeenth bit on 0x8005 is folded in at every other bit, ending at 0xFDFD.
    EXPECT_EQ(mobility_domain_crc("\xff\xff"), 0xFFFF);
    EXPECT_EQ(mobility_domain_crc("\xff\xff\xff"), 0xFDFD);
}

TEST_F(fbt_test, fbt_info_while_80211r_is_off_only_resets_fast_transition)
{
    agent->use_80211r = false;
    EXPECT_CALL(driver, reset_quillon_fbt(RESET_QUILLON_FULL));
    deliver(fbt_info(
        R"("fbt-reassoc-deadline":20000,"fbt-over-ds":0,"vaps":[{"vap_id":1,"radio_id":0,"remotes":[]}])"));
    EXPECT_TRUE(handed.empty());
    EXPECT_EQ(agent->fbt_reassoc_deadline, 1000);
    EXPECT_TRUE(agent->fbt_over_ds);
    EXPECT_EQ(agent->mobility_domain, 123);
    EXPECT_TRUE(log.mentions(VLR_LOG_INFO, "process_fbt_info quillon_use_80211r = 0\n"));
    EXPECT_TRUE(log.contains("process_fbt_info quillon_use_80211r = 0\n"));
}

TEST_F(fbt_test, one_vap_gets_the_exact_parameter_text)
{
    deliver(fbt_info(R"("fbt-reassoc-deadline":20000,"fbt-over-ds":0,"vaps":[{"vap_id":1,"radio_id":1,)"
                     R"("fbt-rrb-key":"rrbkey0123","remotes":[{"remote-r1-kh-id":"00:11:22:33:55:61",)"
                     R"("remote-r0-kh-id":"VX31B0099999","remote-r1-kh-key":"r1key4567"}]}])"));
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_EQ(handed[0].first, "wlan1-va1");
    EXPECT_EQ(
        handed[0].second,
        R"({"version":"2.2","service":"fbt","ft-config":{"enabled":"true","ft-over-ds":"false",)"
        R"("ft-psk-generate-local":"false","reassociation-deadline":20000,"mobility-domain":54202,)"
        R"("r0-key-holder-id":"VX31B0012345","r1-key-holder-id":"00:11:22:33:44:61",)"
        R"("mac":{"00:11:22:33:55:61":{"name":"00:11:22:33:55:61","index":"0","r0-kh-id":"VX31B0099999",)"
        R"("r1-kh-id":"00:11:22:33:55:61","r0-kh-key":"rrbkey0123","r1-kh-key":"r1key4567"}}}})");
    EXPECT_TRUE(log.contains("process_fbt_info quillon_use_80211r = 1\n"));
}

TEST_F(fbt_test, the_fields_and_the_mobility_domain_are_taken_from_each_fbt_info)
{
    deliver(fbt_info(R"("fbt-reassoc-deadline":3000,"fbt-over-ds":1)"));
    EXPECT_EQ(agent->fbt_reassoc_deadline, 3000);
    EXPECT_TRUE(agent->fbt_over_ds);
    EXPECT_EQ(agent->mobility_domain, 54202);
    EXPECT_TRUE(handed.empty());

    agent->domain = "a";
    deliver(fbt_info(R"("fbt-over-ds":0,"vaps":[{"vap_id":0,"radio_id":0,"remotes":[]}])"));
    EXPECT_EQ(agent->fbt_reassoc_deadline, 0);
    EXPECT_FALSE(agent->fbt_over_ds);
    EXPECT_EQ(agent->mobility_domain, 97);
    ASSERT_EQ(handed.size(), 1u);
    json_reader config = ft_config(0);
    EXPECT_EQ(config.get_int("mobility-domain"), 97);
    EXPECT_STREQ(config.get_string("ft-over-ds"), "false");
    EXPECT_EQ(config.get_int("reassociation-deadline"), 0);
}

TEST_F(fbt_test, the_r1_key_holder_adds_the_vap_and_16_times_the_radio_to_the_factory_mac)
{
    EXPECT_EQ(r1_key_holder_of_vap(1, 1), "00:11:22:33:44:61");
    EXPECT_EQ(r1_key_holder_of_vap(3, 0), "00:11:22:33:44:53");
    EXPECT_EQ(r1_key_holder_of_vap(0, 0), "00:11:22:33:44:50");
}

TEST_F(fbt_test, the_r1_key_holder_carries_into_the_upper_bytes_of_the_lower_half)
{
    allow_identity("00:11:22:33:44:ff");
    EXPECT_EQ(r1_key_holder_of_vap(1, 0), "00:11:22:33:45:00");
    allow_identity("00:11:22:33:FF:F8");
    EXPECT_EQ(r1_key_holder_of_vap(0, 1), "00:11:22:34:00:08");
}

TEST_F(fbt_test, a_factory_mac_ending_ff_ff_ff_with_an_offset_is_kept)
{
    allow_identity("00:11:22:FF:FF:FF");
    EXPECT_EQ(r1_key_holder_of_vap(1, 1), "00:11:22:FF:FF:FF");
    // Reaching FF:FF:FF exactly is no wrap; one more is.
    allow_identity("00:11:22:FF:FF:F0");
    EXPECT_EQ(r1_key_holder_of_vap(15, 0), "00:11:22:FF:FF:FF");
    EXPECT_EQ(r1_key_holder_of_vap(0, 1), "00:11:22:FF:FF:F0");
}

TEST_F(fbt_test, a_vap_entry_without_remotes_makes_no_driver_call)
{
    deliver(fbt_info(
        R"("vaps":[{"vap_id":2,"radio_id":0,"fbt-rrb-key":"k"},{"vap_id":3,"radio_id":0,"remotes":[]}])"));
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_EQ(handed[0].first, "wlan0-va3");
}

TEST_F(fbt_test, the_34th_vap_entry_is_ignored)
{
    std::string vaps;
    for (int i = 0; i < 34; ++i)
        vaps += std::string(i == 0 ? "" : ",") + R"({"vap_id":)" + std::to_string(i) +
                R"(,"radio_id":0,"remotes":[]})";
    deliver(fbt_info(R"("vaps":[)" + vaps + "]"));
    ASSERT_EQ(handed.size(), 33u);
    EXPECT_EQ(handed.front().first, "wlan0-va0");
    EXPECT_EQ(handed.back().first, "wlan0-va32");
}

TEST_F(fbt_test, the_1026th_peer_is_ignored)
{
    deliver(fbt_info(R"("vaps":[)" + vap_with_peers(4, 1026) + "]"));
    ASSERT_EQ(handed.size(), 1u);
    json_reader peers = ft_config(0).get_subobject("mac");
    EXPECT_EQ(json_object_object_length(peers.object), 1025);
    EXPECT_STREQ(peers.get_subobject("02:00:00:00:04:00").get_string("index"), "1024");
    EXPECT_TRUE(peers.get_subobject("02:00:00:00:04:01").fail());
}

TEST_F(fbt_test, peers_without_an_r1_id_are_skipped_but_counted_in_the_index)
{
    deliver(fbt_info(R"("vaps":[{"vap_id":1,"radio_id":0,"fbt-rrb-key":"k","remotes":[)"
                     R"({"remote-r1-kh-id":"AA","remote-r0-kh-id":"A0","remote-r1-kh-key":"ka"},)"
                     R"({"remote-r0-kh-id":"B0","remote-r1-kh-key":"kb"},)"
                     R"({"remote-r1-kh-id":"CC","remote-r0-kh-id":"C0","remote-r1-kh-key":"kc"}]}])"));
    ASSERT_EQ(handed.size(), 1u);
    json_reader peers = ft_config(0).get_subobject("mac");
    EXPECT_EQ(json_object_object_length(peers.object), 2);
    EXPECT_STREQ(peers.get_subobject("AA").get_string("index"), "0");
    EXPECT_STREQ(peers.get_subobject("CC").get_string("index"), "2");
}

TEST_F(fbt_test, a_null_vap_entry_or_peer_ends_the_walk)
{
    deliver(fbt_info(R"("vaps":[{"vap_id":1,"radio_id":0,"remotes":[{"remote-r1-kh-id":"AA"},null,)"
                     R"({"remote-r1-kh-id":"CC"}]},null,{"vap_id":2,"radio_id":0,"remotes":[]}])"));
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_EQ(handed[0].first, "wlan0-va1");
    json_reader peers = ft_config(0).get_subobject("mac");
    EXPECT_EQ(json_object_object_length(peers.object), 1);
    EXPECT_FALSE(peers.get_subobject("AA").fail());
}

TEST_F(fbt_test, texts_the_service_left_out_are_left_out_of_the_peer)
{
    deliver(fbt_info(R"("vaps":[{"vap_id":1,"radio_id":0,"remotes":[{"remote-r1-kh-id":"AA"}]}])"));
    ASSERT_EQ(handed.size(), 1u);
    const std::string& text = handed[0].second;
    EXPECT_NE(text.find(R"("mac":{"AA":{"name":"AA","index":"0","r1-kh-id":"AA"}})"), std::string::npos)
        << text;
}

TEST_F(fbt_test, without_factory_data_the_key_holders_are_neutral)
{
    EXPECT_CALL(driver, get_factory()).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    deliver(fbt_info(R"("vaps":[{"vap_id":1,"radio_id":1,"remotes":[]}])"));
    ASSERT_EQ(handed.size(), 1u);
    json_reader config = ft_config(0);
    EXPECT_STREQ(config.get_string("r0-key-holder-id"), "");
    EXPECT_STREQ(config.get_string("r1-key-holder-id"), "00:00:00:00:00:11");
}

TEST_F(fbt_test, a_factory_serial_that_fills_its_field_is_cut_at_32_characters)
{
    std::memset(factory.serial, 'S', sizeof factory.serial);  // no terminator
    deliver(fbt_info(R"("vaps":[{"vap_id":0,"radio_id":0,"remotes":[]}])"));
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_STREQ(ft_config(0).get_string("r0-key-holder-id"), std::string(32, 'S').c_str());
}

}  // namespace
