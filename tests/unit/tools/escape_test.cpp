#include "escape.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

std::string all_byte_values()
{
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

std::string unescaped(const std::string& line)
{
    std::string bytes;
    std::string error;
    EXPECT_TRUE(bus_escape::unescape(line, &bytes, &error)) << line << ": " << error;
    return bytes;
}

// The problem reported for a line that must be refused.
std::string refusal(const std::string& line)
{
    std::string bytes;
    std::string error;
    EXPECT_FALSE(bus_escape::unescape(line, &bytes, &error)) << line;
    return error;
}

// A reproducible stream of pseudo-random numbers.
class xorshift {
public:
    explicit xorshift(uint32_t seed) : state(seed) {}
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }

private:
    uint32_t state;
};

TEST(escape_test, printable_bytes_other_than_backslash_stand_for_themselves)
{
    EXPECT_EQ(bus_escape::escape(" !\"#~{}[]az AZ09'/"), " !\"#~{}[]az AZ09'/");
    for (int value = 0x20; value <= 0x7E; ++value) {
        if (value == '\\')
            continue;
        const std::string byte(1, static_cast<char>(value));
        EXPECT_EQ(bus_escape::escape(byte), byte) << value;
    }
}

TEST(escape_test, backslash_is_doubled)
{
    EXPECT_EQ(bus_escape::escape("\\"), "\\\\");
    EXPECT_EQ(bus_escape::escape("a\\nb"), "a\\\\nb");
}

TEST(escape_test, newline_carriage_return_and_tab_use_their_letters)
{
    EXPECT_EQ(bus_escape::escape("\n"), "\\n");
    EXPECT_EQ(bus_escape::escape("\r"), "\\r");
    EXPECT_EQ(bus_escape::escape("\t"), "\\t");
    EXPECT_EQ(bus_escape::escape("a\r\nb\tc"), "a\\r\\nb\\tc");
}

TEST(escape_test, other_bytes_are_two_lowercase_hex_digits)
{
    EXPECT_EQ(bus_escape::escape(std::string(1, '\0')), "\\x00");
    EXPECT_EQ(bus_escape::escape("\x01\x08\x0b\x0c\x0e\x1f"), "\\x01\\x08\\x0b\\x0c\\x0e\\x1f");
    EXPECT_EQ(bus_escape::escape("\x7f\x80\xab\xff"), "\\x7f\\x80\\xab\\xff");
    EXPECT_EQ(bus_escape::escape("\xc3\xbc"), "\\xc3\\xbc");
}

TEST(escape_test, every_byte_value_has_its_own_form)
{
    for (int value = 0; value < 256; ++value) {
        const auto byte = static_cast<unsigned char>(value);
        const std::string line = bus_escape::escape(std::string(1, static_cast<char>(byte)));
        std::string expected;
        if (byte == '\\')
            expected = "\\\\";
        else if (byte == '\n')
            expected = "\\n";
        else if (byte == '\r')
            expected = "\\r";
        else if (byte == '\t')
            expected = "\\t";
        else if (byte >= 0x20 && byte <= 0x7E)
            expected = std::string(1, static_cast<char>(byte));
        else {
            const char digits[] = "0123456789abcdef";
            expected = std::string("\\x") + digits[byte >> 4] + digits[byte & 0x0F];
        }
        EXPECT_EQ(line, expected) << value;
    }
}

TEST(escape_test, escaped_text_is_one_line_of_printable_ascii)
{
    const std::string line = bus_escape::escape(all_byte_values() + all_byte_values());
    for (char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_TRUE(byte >= 0x20 && byte <= 0x7E) << static_cast<int>(byte);
    }
}

TEST(escape_test, empty_message_is_the_empty_line)
{
    EXPECT_EQ(bus_escape::escape(""), "");
    std::string bytes = "left over";
    std::string error;
    ASSERT_TRUE(bus_escape::unescape("", &bytes, &error));
    EXPECT_EQ(bytes, "");
}

TEST(escape_test, each_single_byte_round_trips)
{
    for (int value = 0; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        EXPECT_EQ(unescaped(bus_escape::escape(byte)), byte) << value;
    }
}

TEST(escape_test, all_byte_values_together_round_trip)
{
    const std::string bytes = all_byte_values();
    EXPECT_EQ(unescaped(bus_escape::escape(bytes)), bytes);
    const std::string reversed(bytes.rbegin(), bytes.rend());
    EXPECT_EQ(unescaped(bus_escape::escape(reversed)), reversed);
}

TEST(escape_test, every_pair_of_bytes_round_trips)
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string bytes{static_cast<char>(first), static_cast<char>(second)};
            std::string back;
            std::string error;
            ASSERT_TRUE(bus_escape::unescape(bus_escape::escape(bytes), &back, &error))
                << first << " " << second;
            ASSERT_EQ(back, bytes) << first << " " << second;
        }
    }
}

TEST(escape_test, long_payload_round_trips)
{
    xorshift random(12345);
    std::string bytes(1 << 20, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random.next() & 0xFF);
    const std::string line = bus_escape::escape(bytes);
    EXPECT_GT(line.size(), bytes.size());
    EXPECT_EQ(unescaped(line), bytes);
}

TEST(unescape_test, reads_every_form)
{
    EXPECT_EQ(unescaped("plain text"), "plain text");
    EXPECT_EQ(unescaped("a\\\\b"), "a\\b");
    EXPECT_EQ(unescaped("\\n\\r\\t"), "\n\r\t");
    EXPECT_EQ(unescaped("\\x00\\x7f\\x80\\xff"), std::string("\0\x7f\x80\xff", 4));
    EXPECT_EQ(unescaped("{\"cmd\":\"probe\"}"), "{\"cmd\":\"probe\"}");
}

TEST(unescape_test, replaces_what_the_target_held)
{
    std::string bytes = "previous";
    std::string error;
    ASSERT_TRUE(bus_escape::unescape("new", &bytes, &error));
    EXPECT_EQ(bytes, "new");
}

TEST(unescape_test, refuses_a_lone_backslash_at_the_end)
{
    EXPECT_EQ(refusal("abc\\"), "column 4: the line ends in a lone backslash (a backslash is written \\\\)");
}

TEST(unescape_test, refuses_unknown_escapes)
{
    EXPECT_EQ(refusal("ab\\q"), "column 3: unknown escape \\q");
    EXPECT_EQ(refusal("\\0"), "column 1: unknown escape \\0");
    EXPECT_EQ(refusal("\\N"), "column 1: unknown escape \\N");
    EXPECT_EQ(refusal("\\X41"), "column 1: unknown escape \\X");
    EXPECT_EQ(refusal("\\\x01"), "column 1: a backslash before byte 0x01");
    EXPECT_EQ(refusal("\\\xff"), "column 1: a backslash before byte 0xff");
}

TEST(unescape_test, refuses_hex_escapes_without_two_lowercase_digits)
{
    EXPECT_EQ(refusal("\\x"), "column 1: \\x needs two lowercase hex digits");
    EXPECT_EQ(refusal("\\x0"), "column 1: \\x needs two lowercase hex digits");
    EXPECT_EQ(refusal("ok\\x0g"), "column 3: \\x needs two lowercase hex digits");
    EXPECT_EQ(refusal("\\xAB"), "column 1: \\x needs two lowercase hex digits");
    EXPECT_EQ(refusal("\\xaB"), "column 1: \\x needs two lowercase hex digits");
    EXPECT_EQ(refusal("\\x 1"), "column 1: \\x needs two lowercase hex digits");
}

TEST(unescape_test, refuses_hex_escapes_for_bytes_that_have_a_shorter_form)
{
    EXPECT_EQ(refusal("\\x41"), "column 1: \\x41 is written as \"A\"");
    EXPECT_EQ(refusal("\\x20"), "column 1: \\x20 is written as \" \"");
    EXPECT_EQ(refusal("\\x5c"), "column 1: \\x5c is written as \"\\\\\"");
    EXPECT_EQ(refusal("\\x0a"), "column 1: \\x0a is written as \"\\n\"");
    EXPECT_EQ(refusal("\\x0d"), "column 1: \\x0d is written as \"\\r\"");
    EXPECT_EQ(refusal("\\x09"), "column 1: \\x09 is written as \"\\t\"");
}

TEST(unescape_test, refuses_raw_bytes_that_must_be_escaped)
{
    EXPECT_EQ(refusal("a\tb"), "column 2: byte 0x09 must be written as \\t");
    EXPECT_EQ(refusal("line\r"), "column 5: byte 0x0d must be written as \\r");
    EXPECT_EQ(refusal("two\nlines"), "column 4: byte 0x0a must be written as \\n");
    EXPECT_EQ(refusal(std::string("nul\0", 4)), "column 4: byte 0x00 must be written as \\x00");
    EXPECT_EQ(refusal("\x7f"), "column 1: byte 0x7f must be written as \\x7f");
    EXPECT_EQ(refusal("\xc3\xbc"), "column 1: byte 0xc3 must be written as \\xc3");
}

TEST(unescape_test, every_accepted_line_escapes_back_to_itself)
{
    // Lines built from the characters that matter to the form; whatever is accepted must be
    // the one escaped form of what it stands for.
    const std::string alphabet = "\\xnrt0a9fAF g\x01\x7f\x80";
    xorshift random(777);
    int accepted = 0;
    for (int round = 0; round < 200000; ++round) {
        std::string line(random.next() % 8, '\0');
        for (char& c : line)
            c = alphabet[random.next() % alphabet.size()];
        std::string bytes;
        std::string error;
        if (!bus_escape::unescape(line, &bytes, &error)) {
            EXPECT_EQ(error.rfind("column ", 0), 0u) << error;
            continue;
        }
        ++accepted;
        ASSERT_EQ(bus_escape::escape(bytes), line);
    }
    EXPECT_GT(accepted, 1000);
}

}  // namespace
