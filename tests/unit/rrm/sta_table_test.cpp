// MacAddr (parse, text, equality, hash) and the station table's removing walk.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>

#include "rrm/sta_table.h"

namespace {

MacAddr mac_from_bytes(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3,
                       unsigned char b4, unsigned char b5)
{
    MacAddr mac;
    mac.bytes[0] = b0;
    mac.bytes[1] = b1;
    mac.bytes[2] = b2;
    mac.bytes[3] = b3;
    mac.bytes[4] = b4;
    mac.bytes[5] = b5;
    return mac;
}

// Distinct addresses; with `colliding` they differ only in bytes the hash does not read, so
// every one of them lands in the same bucket.
MacAddr numbered_mac(unsigned index, bool colliding)
{
    if (colliding)
        return mac_from_bytes(static_cast<unsigned char>(index & 0xFF),
                              static_cast<unsigned char>(index >> 8), 0x01, 0x33, 0x44, 0x55);
    return mac_from_bytes(0x02, 0x00, 0x00, static_cast<unsigned char>(index & 0xFF),
                          static_cast<unsigned char>(index >> 8), 0x5A);
}

TEST(sta_table_mac, the_hash_is_byte_4_and_byte_3_xor_byte_5_shifted_by_4)
{
    const MacAddr_hash hash;
    EXPECT_EQ(hash(mac_from_bytes(0x11, 0x22, 0x33, 0x44, 0x55, 0x66)), static_cast<size_t>(0x5544 ^ 0x660));
    EXPECT_EQ(hash(mac_from_bytes(0, 0, 0, 0xFF, 0xFF, 0xFF)), static_cast<size_t>(0xF00F));
    EXPECT_EQ(hash(mac_from_bytes(0, 0, 0, 0x01, 0x00, 0x00)), 1u);
    EXPECT_EQ(hash(mac_from_bytes(0, 0, 0, 0x00, 0x01, 0x00)), 0x100u);
    EXPECT_EQ(hash(mac_from_bytes(0, 0, 0, 0x00, 0x00, 0x01)), 0x10u);
    EXPECT_EQ(hash(MacAddr()), 0u);
}

TEST(sta_table_mac, the_hash_ignores_the_first_three_bytes)
{
    const MacAddr_hash hash;
    EXPECT_EQ(hash(mac_from_bytes(0xAA, 0xBB, 0xCC, 1, 2, 3)),
              hash(mac_from_bytes(0x00, 0x11, 0x22, 1, 2, 3)));
}

TEST(sta_table_mac, equality_compares_all_six_bytes)
{
    const MacAddr base = mac_from_bytes(1, 2, 3, 4, 5, 6);
    EXPECT_TRUE(base == mac_from_bytes(1, 2, 3, 4, 5, 6));
    EXPECT_FALSE(base != mac_from_bytes(1, 2, 3, 4, 5, 6));
    for (int i = 0; i < 6; ++i) {
        MacAddr other = base;
        other.bytes[i] ^= 0x80;
        EXPECT_FALSE(base == other) << "byte " << i;
        EXPECT_TRUE(base != other) << "byte " << i;
    }
}

TEST(sta_table_mac, the_text_form_is_upper_case_with_two_digits_per_byte)
{
    EXPECT_EQ(mac_from_bytes(0x0a, 0xbc, 0x00, 0xde, 0x0f, 0xff).to_string(), "0A:BC:00:DE:0F:FF");
    EXPECT_EQ(MacAddr().to_string(), "00:00:00:00:00:00");
}

TEST(sta_table_mac, parsing_accepts_either_case_and_round_trips_to_upper_case)
{
    MacAddr mac;
    ASSERT_TRUE(mac.parse("f0:18:98:3c:21:4a"));
    EXPECT_EQ(mac, mac_from_bytes(0xF0, 0x18, 0x98, 0x3C, 0x21, 0x4A));
    EXPECT_EQ(mac.to_string(), "F0:18:98:3C:21:4A");

    MacAddr upper;
    ASSERT_TRUE(upper.parse("F0:18:98:3C:21:4A"));
    EXPECT_EQ(upper, mac);
}

TEST(sta_table_mac, a_text_that_is_not_a_mac_is_refused_and_leaves_the_address_zero)
{
    const char* const bad[] = {"",
                               "f0:18:98:3c:21",
                               "f0:18:98:3c:21:4a:",
                               "f0:18:98:3c:21:4ax",
                               "f0-18-98-3c-21-4a",
                               "zz:18:98:3c:21:4a",
                               "f0:18:98:3c:21:4a5"};
    for (const char* text : bad) {
        MacAddr mac = mac_from_bytes(1, 2, 3, 4, 5, 6);
        EXPECT_FALSE(mac.parse(text)) << text;
        EXPECT_EQ(mac, MacAddr()) << text;
    }
    MacAddr mac = mac_from_bytes(1, 2, 3, 4, 5, 6);
    EXPECT_FALSE(mac.parse(nullptr));
    EXPECT_EQ(mac, MacAddr());
}

TEST(sta_table_mac, a_probe_record_starts_with_unknown_rssi_no_countdown_and_vap_0)
{
    const sta_prob_info info;
    EXPECT_EQ(info.rssi, 0);
    EXPECT_EQ(info.countdown, 0);
    EXPECT_EQ(info.vap_id, 0u);
}

TEST(sta_table_mac, the_table_finds_entries_by_address)
{
    _sta_table<int> table;
    table[mac_from_bytes(1, 2, 3, 4, 5, 6)] = 7;
    table[mac_from_bytes(9, 2, 3, 4, 5, 6)] = 8;  // same hash, other address
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table.at(mac_from_bytes(1, 2, 3, 4, 5, 6)), 7);
    EXPECT_EQ(table.at(mac_from_bytes(9, 2, 3, 4, 5, 6)), 8);
    EXPECT_EQ(table.count(mac_from_bytes(1, 2, 3, 4, 5, 7)), 0u);
}

class sta_table_walk : public ::testing::TestWithParam<bool> {};

TEST_P(sta_table_walk, removing_every_other_entry_during_the_walk_visits_each_entry_once)
{
    const bool colliding = GetParam();
    const unsigned count = 1000;
    _sta_table<int> table;
    for (unsigned i = 0; i < count; ++i)
        table[numbered_mac(i, colliding)] = static_cast<int>(i);

    std::map<std::string, int> visits;
    unsigned calls = 0;
    table.if_remove([&](const MacAddr& mac, int&) {
        ++visits[mac.to_string()];
        return ++calls % 2 == 0;
    });

    EXPECT_EQ(calls, count);
    EXPECT_EQ(visits.size(), static_cast<size_t>(count));
    for (const auto& visit : visits)
        EXPECT_EQ(visit.second, 1) << visit.first;
    EXPECT_EQ(table.size(), static_cast<size_t>(count / 2));
}

TEST_P(sta_table_walk, removing_every_entry_empties_the_table_after_one_visit_each)
{
    const bool colliding = GetParam();
    _sta_table<int> table;
    for (unsigned i = 0; i < 300; ++i)
        table[numbered_mac(i, colliding)] = 1;
    std::set<std::string> seen;
    unsigned calls = 0;
    table.if_remove([&](const MacAddr& mac, int&) {
        ++calls;
        seen.insert(mac.to_string());
        return true;
    });
    EXPECT_EQ(calls, 300u);
    EXPECT_EQ(seen.size(), 300u);
    EXPECT_TRUE(table.empty());
}

INSTANTIATE_TEST_SUITE_P(sta_table, sta_table_walk, ::testing::Bool());

TEST(sta_table, the_predicate_may_change_the_values_it_keeps)
{
    _sta_table<int> table;
    table[mac_from_bytes(0, 0, 0, 1, 0, 0)] = 3;
    table[mac_from_bytes(0, 0, 0, 2, 0, 0)] = 1;
    table.if_remove([](const MacAddr&, int& value) {
        if (value >= 2) {
            --value;
            return false;
        }
        return true;
    });
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table.at(mac_from_bytes(0, 0, 0, 1, 0, 0)), 2);
}

TEST(sta_table, a_predicate_that_keeps_everything_leaves_the_table_unchanged)
{
    _sta_table<sta_prob_info> table;
    for (unsigned i = 0; i < 50; ++i)
        table[numbered_mac(i, false)].countdown = static_cast<int>(i);
    table.if_remove([](const MacAddr&, sta_prob_info&) { return false; });
    ASSERT_EQ(table.size(), 50u);
    for (unsigned i = 0; i < 50; ++i)
        EXPECT_EQ(table.at(numbered_mac(i, false)).countdown, static_cast<int>(i));
}

TEST(sta_table, an_empty_predicate_throws_bad_function_call)
{
    _sta_table<int> table;
    table[mac_from_bytes(1, 2, 3, 4, 5, 6)] = 1;
    EXPECT_THROW(table.if_remove(_sta_table<int>::predicate()), std::bad_function_call);
    EXPECT_EQ(table.size(), 1u);
}

TEST(sta_table, an_empty_table_never_calls_the_predicate)
{
    _sta_table<int> table;
    bool called = false;
    table.if_remove([&called](const MacAddr&, int&) {
        called = true;
        return true;
    });
    EXPECT_FALSE(called);
    // With nothing to visit, not even an empty predicate is looked at.
    EXPECT_NO_THROW(table.if_remove(_sta_table<int>::predicate()));
}

}  // namespace
