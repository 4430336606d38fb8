// The streamed "rrm-response" text is byte for byte the text of the same report built as one
// json-c tree: key order, numbers, escaping, empty tables and the largest report included.
#include "rrm/rrm_response_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "mock_driver.h"

using ::testing::_;
using ::testing::Invoke;
using ::testing::NiceMock;

namespace {

using tables_t = std::array<ap_table, 5>;

// The names the driver gives primary positions; some need escaping, and one is missing.
const char* primary_name(int sideband, int bandwidth)
{
    switch ((sideband >> 8) + bandwidth) {
    case 20:
        return "none";
    case 40:
        return "lower";
    case 41:
        return "up\"per";
    case 80:
        return "l/l";
    case 81:
        return "l\\u\n";
    case 82:
        return "\x01\x1f\x7f caf\xc3\xa9";
    default:
        return nullptr;
    }
}

class response_text_test : public ::testing::Test {
protected:
    response_text_test()
    {
        ON_CALL(driver, primary_channel_to_string(_, _)).WillByDefault(Invoke(primary_name));
    }

    // The envelope, "domain" and "radios" every test puts in front of the environment.
    static json_writer head(const char* domain)
    {
        json_writer message("rrm", "rrm-response", "A4:5E:60:00:10:00", "2.2");
        message.insert_string("domain", domain);
        json_writer radios = message.make_array("radios");
        json_writer radio = radios.make_subobject(nullptr);
        radio.insert_int("id", 0);
        radio.insert_string("available-channels", "1 6 11 ");
        return message;
    }

    // The report as one json-c tree, the way it was built before it was streamed.
    std::string tree_text(const char* domain, const tables_t& tables)
    {
        json_writer message = head(domain);
        json_writer environment = message.make_array("rf-environment");
        for (const ap_table& table : tables) {
            if (table.empty())
                continue;
            json_writer heard = environment.make_array(nullptr);
            for (const scan_result_entry& entry : table) {
                json_writer neighbour = heard.make_subobject(nullptr);
                char bssid[18];
                snprintf(bssid, sizeof bssid, "%02x:%02x:%02x:%02x:%02x:%02x", entry.bssid[0], entry.bssid[1],
                         entry.bssid[2], entry.bssid[3], entry.bssid[4], entry.bssid[5]);
                neighbour.insert_string("bssid", bssid);
                neighbour.insert_int("rssi", entry.rssi);
                neighbour.insert_int("channel", entry.channel);
                neighbour.insert_int("tx-power", entry.tx_power);
                const char* primary = driver.primary_channel_to_string(entry.primary, entry.bandwidth);
                neighbour.insert_string("primary-channel", primary == nullptr ? "" : primary);
                neighbour.insert_int("bandwidth", entry.bandwidth);
            }
        }
        return message.serialize();
    }

    std::string streamed_text(const char* domain, const tables_t& tables)
    {
        json_writer message = head(domain);
        std::shared_ptr<buffer_info_t> text =
            rrm_response_text(message, tables.data(), tables.size(), driver);
        if (!text)
            return "<null>";
        EXPECT_EQ(text->data[text->size], '\0');
        return std::string(text->data, text->size);
    }

    NiceMock<mock_driver> driver;
};

// A varied neighbour: every bandwidth and primary position, negative and large numbers.
scan_result_entry neighbour(unsigned n)
{
    static const int bandwidths[] = {20, 40, 80, 160};
    scan_result_entry entry;
    for (unsigned i = 0; i < 6; ++i)
        entry.bssid[i] = static_cast<unsigned char>((n * 37u + i * 91u) >> (i % 3));
    entry.rssi = -20 - static_cast<int>(n % 76);
    entry.channel = n % 3 == 0 ? 1 + static_cast<int>(n % 13) : 36 + 4 * static_cast<int>(n % 25);
    entry.bandwidth = bandwidths[n % 4];
    entry.tx_power = n % 11 == 0 ? -2147483647 - 1 : static_cast<int>(n % 31);
    entry.primary = static_cast<int>(n % 4) << 8;
    return entry;
}

ap_table table_of(unsigned count, unsigned first)
{
    ap_table table;
    for (unsigned i = 0; i < count; ++i)
        table.push_back(neighbour(first + i));
    return table;
}

TEST_F(response_text_test, five_empty_tables_give_an_empty_environment)
{
    const tables_t tables;
    EXPECT_EQ(streamed_text("lab", tables), tree_text("lab", tables));
    EXPECT_NE(streamed_text("lab", tables).find(R"("rf-environment":[]})"), std::string::npos);
}

TEST_F(response_text_test, empty_tables_between_full_ones_add_no_list)
{
    const tables_t tables = {ap_table{}, table_of(3, 0), ap_table{}, table_of(1, 100), ap_table{}};
    EXPECT_EQ(streamed_text("lab", tables), tree_text("lab", tables));
}

TEST_F(response_text_test, every_table_full_matches_the_tree)
{
    const tables_t tables = {table_of(7, 0), table_of(8, 7), table_of(9, 15), table_of(10, 24),
                             table_of(11, 34)};
    EXPECT_EQ(streamed_text("lab", tables), tree_text("lab", tables));
}

TEST_F(response_text_test, names_and_domains_that_need_escaping_match_the_tree)
{
    const tables_t tables = {table_of(40, 0), ap_table{}, ap_table{}, ap_table{}, table_of(40, 40)};
    const char* domain = "east/\"wing\"\\\t\x01";
    EXPECT_EQ(streamed_text(domain, tables), tree_text(domain, tables));
}

TEST_F(response_text_test, a_head_that_failed_gives_no_report)
{
    json_writer failed = head("lab");
    json_writer moved = std::move(failed);  // the moved-from writer owns nothing
    const tables_t tables = {table_of(2, 0)};
    EXPECT_EQ(rrm_response_text(failed, tables.data(), tables.size(), driver), nullptr);
}

TEST_F(response_text_test, the_largest_report_matches_the_tree)
{
    // Two radios of 4680 neighbours in each of the five passes.
    tables_t tables;
    for (unsigned pass = 0; pass < tables.size(); ++pass)
        tables[pass] = table_of(2 * 4680, pass * 2 * 4680);
    const auto start = std::chrono::steady_clock::now();
    const std::string streamed = streamed_text("lab", tables);
    const auto took = std::chrono::steady_clock::now() - start;
    const std::string tree = tree_text("lab", tables);
    EXPECT_EQ(streamed.size(), tree.size());
    EXPECT_TRUE(streamed == tree);
    RecordProperty("bytes", static_cast<int>(streamed.size()));
    RecordProperty("stream_ms",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
}

}  // namespace
