#include "core/buffer_info.h"
#include "core/free_memory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "cfg_tree.h"
#include "core/trace.h"
#include "log_capture.h"
#include "test_env.h"
#include "emulator.h"

namespace {

class buffer_info_test : public ::testing::Test {
protected:
    void SetUp() override { trace.set_log_level(orv_trace::MASK_DEBUG | orv_trace::MASK_ERROR); }
    void TearDown() override { trace.set_log_level(0); }
};

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line))
        lines.push_back(line);
    return lines;
}

// One 32-byte row per index, carrying the index as text so the dump shows which rows it kept.
std::string numbered_rows(unsigned rows)
{
    std::string payload;
    for (unsigned i = 0; i < rows; ++i) {
        char row[48];  // room for any unsigned value
        snprintf(row, sizeof(row), "row%05u------------------------", i);
        payload.append(row, 32);
    }
    return payload;
}

std::string dump_of(const std::string& payload)
{
    buffer_info_t buffer;
    buffer.append(payload.data(), static_cast<unsigned>(payload.size()));
    log_capture log;
    buffer.dump();
    const auto lines = log.lines();
    if (lines.size() != 1)
        return "<" + std::to_string(lines.size()) + " log lines>";
    EXPECT_EQ(lines[0].level, VLR_LOG_DEBUG);
    return lines[0].text;
}

TEST_F(buffer_info_test, append_of_nothing_leaves_an_empty_buffer_empty)
{
    buffer_info_t buffer;
    EXPECT_EQ(buffer.append(nullptr, 5), nullptr);
    EXPECT_EQ(buffer.append("abc", 0), nullptr);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);
}

TEST_F(buffer_info_test, append_of_nothing_returns_the_current_data_unchanged)
{
    buffer_info_t buffer;
    char* data = buffer.append("xy", 2);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(buffer.append(nullptr, 5), data);
    EXPECT_EQ(buffer.append("abc", 0), data);
    EXPECT_EQ(buffer.size, 2u);
    EXPECT_STREQ(buffer.data, "xy");
}

TEST_F(buffer_info_test, appends_grow_exactly_and_keep_a_zero_byte_after_the_payload)
{
    buffer_info_t buffer;
    buffer.append("ab", 2);
    char* data = buffer.append("cd", 2);
    EXPECT_EQ(data, buffer.data);
    EXPECT_EQ(buffer.size, 4u);
    EXPECT_EQ(std::string(buffer.data, 4), "abcd");
    EXPECT_EQ(buffer.data[4], '\0');
}

TEST_F(buffer_info_test, payload_with_zero_bytes_is_kept_whole)
{
    buffer_info_t buffer;
    const char bytes[] = {'a', '\0', 'b'};
    buffer.append(bytes, 3);
    EXPECT_EQ(buffer.size, 3u);
    EXPECT_EQ(std::string(buffer.data, 3), std::string(bytes, 3));
}

TEST_F(buffer_info_test, append_that_the_size_field_cannot_count_fails_and_keeps_the_buffer)
{
    buffer_info_t buffer;
    buffer.append("ab", 2);
    log_capture log;
    // Never read: the total is refused before any copy.
    EXPECT_EQ(buffer.append("x", 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(buffer.size, 2u);
    EXPECT_STREQ(buffer.data, "ab");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, VLR_LOG_ERROR);
    EXPECT_EQ(log.lines()[0].text, "append:133 Can't alloc memory\n");
}

TEST_F(buffer_info_test, append_without_memory_logs_and_keeps_the_old_contents)
{
#ifdef ORVD_SANITIZED_BUILD
    GTEST_SKIP() << "address-space limits do not mix with sanitizer runtimes";
#endif
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            buffer_info_t buffer;
            buffer.append("ab", 2);
            // A source of 512 MiB of untouched pages, mapped before the limit is set.
            const size_t big = 512u << 20;
            void* source = mmap(nullptr, big, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (source == MAP_FAILED || !limit_address_space(32u << 20))
                exit(3);
            log_capture log;
            char* result = buffer.append(static_cast<const char*>(source), static_cast<unsigned>(big));
            const bool ok = result == nullptr && buffer.size == 2 && strcmp(buffer.data, "ab") == 0 &&
                            log.contains("append:133 Can't alloc memory\n");
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(buffer_info_test, copy_duplicates_the_payload_into_a_block_of_its_own)
{
    buffer_info_t source;
    source.append("hello", 5);
    buffer_info_t copy(source);
    ASSERT_NE(copy.data, nullptr);
    EXPECT_NE(copy.data, source.data);
    EXPECT_EQ(copy.size, 5u);
    EXPECT_STREQ(copy.data, "hello");

    buffer_info_t assigned;
    assigned = source;
    EXPECT_NE(assigned.data, source.data);
    EXPECT_STREQ(assigned.data, "hello");
}

TEST_F(buffer_info_test, copy_of_an_empty_buffer_is_an_empty_text)
{
    buffer_info_t source;
    buffer_info_t copy(source);
    ASSERT_NE(copy.data, nullptr);
    EXPECT_EQ(copy.size, 0u);
    EXPECT_EQ(copy.data[0], '\0');
}

TEST_F(buffer_info_test, copy_without_memory_gives_an_empty_buffer_silently)
{
#ifdef ORVD_SANITIZED_BUILD
    GTEST_SKIP() << "address-space limits do not mix with sanitizer runtimes";
#endif
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            std::vector<char> bytes(256u << 20, 'x');
            buffer_info_t source;
            source.append(bytes.data(), static_cast<unsigned>(bytes.size()));
            if (!limit_address_space(32u << 20))
                exit(3);
            log_capture log;
            buffer_info_t copy(source);
            exit(copy.data == nullptr && copy.size == 0 && log.lines().empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(buffer_info_test, move_takes_the_block_and_leaves_the_source_empty)
{
    buffer_info_t source;
    source.append("abc", 3);
    char* block = source.data;
    buffer_info_t moved(std::move(source));
    EXPECT_EQ(moved.data, block);
    EXPECT_EQ(moved.size, 3u);
    EXPECT_EQ(source.data, nullptr);
    EXPECT_EQ(source.size, 0u);

    buffer_info_t target;
    target = std::move(moved);
    EXPECT_EQ(target.data, block);
    EXPECT_EQ(moved.data, nullptr);
}

TEST_F(buffer_info_test, flush_empties_the_buffer)
{
    buffer_info_t buffer;
    buffer.append("abc", 3);
    buffer.flush();
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);
    buffer.append("d", 1);
    EXPECT_STREQ(buffer.data, "d");
}

TEST_F(buffer_info_test, dump_writes_nothing_unless_debug_is_enabled)
{
    trace.set_log_level(orv_trace::MASK_ERROR | orv_trace::MASK_WARN | orv_trace::MASK_INFO);
    buffer_info_t buffer;
    buffer.append("hello", 5);
    log_capture log;
    buffer.dump();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(buffer_info_test, dump_of_five_bytes_is_one_padded_line)
{
    const std::string expected =
        "Buffer info dump:\n\t68 65 6C 6C 6F " + std::string(81, ' ') + std::string(4, ' ') + "hello\n";
    EXPECT_EQ(dump_of("hello"), expected);
}

TEST_F(buffer_info_test, dump_of_an_empty_buffer_is_the_title_only)
{
    EXPECT_EQ(dump_of(""), "Buffer info dump:\n");
}

TEST_F(buffer_info_test, dump_of_one_whole_row_has_no_padding)
{
    const std::string row = numbered_rows(1);
    std::string hex;
    for (char c : row) {
        char group[4];
        snprintf(group, sizeof(group), "%02X ", static_cast<unsigned char>(c));
        hex += group;
    }
    EXPECT_EQ(dump_of(row), "Buffer info dump:\n\t" + hex + "    " + row + "\n");
}

TEST_F(buffer_info_test, dump_of_400_rows_writes_every_row)
{
    const auto lines = split_lines(dump_of(numbered_rows(400)));
    ASSERT_EQ(lines.size(), 401u);
    EXPECT_EQ(lines[0], "Buffer info dump:");
    for (unsigned i = 0; i < 400; ++i) {
        char tag[16];
        snprintf(tag, sizeof(tag), "row%05u", i);
        ASSERT_NE(lines[i + 1].find(tag), std::string::npos) << i;
    }
}

TEST_F(buffer_info_test, dump_of_401_rows_keeps_the_first_50_and_the_last_49)
{
    const auto lines = split_lines(dump_of(numbered_rows(401)));
    ASSERT_EQ(lines.size(), 1u + 50u + 1u + 49u);
    for (unsigned i = 0; i < 50; ++i) {
        char tag[16];
        snprintf(tag, sizeof(tag), "row%05u", i);
        EXPECT_NE(lines[1 + i].find(tag), std::string::npos) << i;
    }
    EXPECT_EQ(lines[51], "\t....part of message are skipped...");
    for (unsigned i = 352; i <= 400; ++i) {
        char tag[16];
        snprintf(tag, sizeof(tag), "row%05u", i);
        EXPECT_NE(lines[52 + (i - 352)].find(tag), std::string::npos) << i;
    }
}

TEST_F(buffer_info_test, dump_of_a_partial_last_row_after_skipping_shows_it_at_the_end)
{
    const auto lines = split_lines(dump_of(numbered_rows(500) + "tail!"));
    ASSERT_EQ(lines.size(), 1u + 50u + 1u + 49u + 1u);
    EXPECT_NE(lines[100].find("row00499"), std::string::npos);
    EXPECT_NE(lines[101].find("tail!"), std::string::npos);
}

TEST_F(buffer_info_test, dump_prints_high_bytes_through_their_signed_value)
{
    // 0xFF as a signed byte prints as eight hex digits: a row of them is far wider than the
    // plain two-digit form, and the dump must still stay inside its text.
    const std::string ones(32, '\xFF');
    std::string expected_hex;
    for (int i = 0; i < 32; ++i)
        expected_hex += "FFFFFFFF ";
    const std::string text = dump_of(ones);
    EXPECT_EQ(text.substr(0, strlen("Buffer info dump:\n\t") + expected_hex.size()),
              "Buffer info dump:\n\t" + expected_hex);
    EXPECT_EQ(text.substr(text.size() - 1), "\n");
}

TEST_F(buffer_info_test, dump_of_many_rows_of_high_bytes_stays_inside_its_text)
{
    for (unsigned rows : {1u, 2u, 399u, 400u, 401u, 402u, 1000u}) {
        const std::string payload(rows * 32 + 31, '\x80');
        const auto lines = split_lines(dump_of(payload));
        const size_t kept_rows = rows >= 401 ? 99 : rows;
        EXPECT_EQ(lines.size(), 1 + kept_rows + (rows >= 401 ? 1 : 0) + 1) << rows;
        EXPECT_EQ(lines.back().substr(0, 10), "\tFFFFFF80 ") << rows;
    }
}

TEST_F(buffer_info_test, dump_of_configuration_tree_text_is_reserialized)
{
    const std::string json = R"({"command":"get","path":"/interface/wlan0-va0/vap/ssid"})";
    const std::string text = dump_of(json);
    cfg_t* tree = cfg_parse_buffer(json.c_str());
    ASSERT_NE(tree, nullptr);
    char* readable = cfg_serialize(tree);
    EXPECT_EQ(text, std::string("Buffer info dump:\n") + readable);
    EXPECT_EQ(text.find("7B 22"), std::string::npos);  // not hexadecimal
    free(readable);
    cfg_release(tree);
}

TEST_F(buffer_info_test, dump_of_configuration_tree_text_longer_than_64_kib_is_cut_like_any_long_message)
{
    // Re-serialized whole, the largest report would take about ten times its size in the log
    // call; a long message is cut instead, whatever it holds.
    std::string json = R"({"pad":")";
    json += std::string(64 * 1024, 'j');
    json += R"("})";
    const auto lines = split_lines(dump_of(json));
    ASSERT_EQ(lines.size(), 1u + 50u + 1u + 49u + 1u);
    EXPECT_EQ(lines[51], "\t....part of message are skipped...");

    const std::string small = R"({"pad":")" + std::string(64 * 1024 - 10, 'j') + R"("})";
    ASSERT_EQ(small.size(), 64u * 1024);
    EXPECT_EQ(dump_of(small).find("7B 22"), std::string::npos);  // still re-serialized
}

TEST_F(buffer_info_test, dump_without_memory_for_the_text_returns_silently)
{
#ifdef ORVD_SANITIZED_BUILD
    GTEST_SKIP() << "address-space limits do not mix with sanitizer runtimes";
#endif
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            // 400 rows are all written: their text needs about 130 KB, a mapping of its own,
            // which the limit refuses.
            const std::string bytes(400 * 32, '\x80');
            buffer_info_t buffer;
            buffer.append(bytes.data(), static_cast<unsigned>(bytes.size()));
            map_large_blocks_apart();
            if (!limit_address_space(64u << 10))
                exit(3);
            log_capture log;
            buffer.dump();
            exit(log.lines().empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
