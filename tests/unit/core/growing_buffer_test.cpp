#include "core/growing_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(growing_buffer, pieces_are_joined_and_handed_over_with_a_zero_byte_after_them)
{
    growing_buffer buffer;
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        const std::string piece = "piece-" + std::to_string(i) + ";";
        ASSERT_TRUE(buffer.append(piece.data(), piece.size()));
        expected += piece;
    }
    EXPECT_EQ(buffer.size(), expected.size());
    const auto message = buffer.release();
    ASSERT_NE(message, nullptr);
    ASSERT_EQ(message->size, expected.size());
    EXPECT_EQ(std::string(message->data, message->size), expected);
    EXPECT_EQ(message->data[message->size], '\0');
}

TEST(growing_buffer, release_leaves_it_empty_for_the_next_message)
{
    growing_buffer buffer(16);
    buffer.append("first", 5);
    const auto first = buffer.release();
    EXPECT_EQ(buffer.size(), 0u);
    buffer.append("second", 6);
    const auto second = buffer.release();
    EXPECT_EQ(std::string(first->data, first->size), "first");
    EXPECT_EQ(std::string(second->data, second->size), "second");
    EXPECT_NE(first->data, second->data);
}

TEST(growing_buffer, nothing_appended_releases_an_empty_buffer)
{
    growing_buffer buffer;
    const auto message = buffer.release();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->data, nullptr);
    EXPECT_EQ(message->size, 0u);
}

TEST(growing_buffer, clear_drops_what_was_gathered)
{
    growing_buffer buffer;
    buffer.append("stale", 5);
    buffer.clear();
    EXPECT_EQ(buffer.size(), 0u);
    buffer.append("fresh", 5);
    const auto message = buffer.release();
    EXPECT_EQ(std::string(message->data, message->size), "fresh");
}

}  // namespace
