// Streamed JSON text is the very text json-c serializes for the same values: the receiver
// cannot tell a streamed message from one built as a tree.
#include "core/json_stream.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "core/json_writer.h"

namespace {

std::string released_text(json_stream& stream)
{
    std::shared_ptr<buffer_info_t> buffer = stream.release();
    if (!buffer)
        return "<null>";
    // The payload is followed by its zero byte.
    EXPECT_EQ(buffer->data[buffer->size], '\0');
    EXPECT_EQ(strlen(buffer->data), buffer->size);
    return std::string(buffer->data, buffer->size);
}

std::string tree_text(json_writer& writer)
{
    return writer.serialize();
}

// Every byte from 1 to 255, in order.
std::string every_byte()
{
    std::string text;
    for (int byte = 1; byte < 256; ++byte)
        text.push_back(static_cast<char>(byte));
    return text;
}

TEST(json_stream, integers_are_written_as_json_c_writes_them)
{
    const int values[] = {0, 1, -1, 42, -95, 2147483647, INT_MIN, 1000000};
    json_writer tree("", "", "", "");
    json_writer list = tree.make_array("values");
    json_stream stream(0);
    stream.open_object(nullptr);
    stream.open_array("values");
    for (int value : values) {
        list.insert_int(nullptr, value);
        stream.insert_int(nullptr, value);
    }
    stream.close();
    stream.close();
    EXPECT_EQ(released_text(stream), tree_text(tree));
}

TEST(json_stream, strings_and_keys_are_escaped_as_json_c_escapes_them)
{
    const std::string bytes = every_byte();
    const char* const texts[] = {"",
                                 "plain",
                                 "a\"b",
                                 "back\\slash",
                                 "a/b",
                                 "line\nbreak\ttab\r\b\f",
                                 "\x01\x1f\x7f",
                                 "caf\xc3\xa9",
                                 bytes.c_str()};
    json_writer tree("", "", "", "");
    json_stream stream(16);
    stream.open_object(nullptr);
    int index = 0;
    for (const char* text : texts) {
        const std::string key = "k" + std::to_string(index++) + text;
        tree.insert_string(key.c_str(), text);
        stream.insert_string(key.c_str(), text);
    }
    stream.close();
    EXPECT_EQ(released_text(stream), tree_text(tree));
}

TEST(json_stream, empty_and_nested_containers_match_the_tree)
{
    json_writer tree("", "", "", "");
    json_writer outer = tree.make_array("outer");
    json_writer empty_list = outer.make_array(nullptr);
    json_writer empty_object = outer.make_subobject(nullptr);
    json_writer inner = outer.make_array(nullptr);
    json_writer entry = inner.make_subobject(nullptr);
    entry.insert_string("name", "x");
    entry.insert_int("n", 3);
    tree.insert_int("after", 7);

    json_stream stream(0);
    stream.open_object(nullptr);
    stream.open_array("outer");
    stream.open_array(nullptr);
    stream.close();
    stream.open_object(nullptr);
    stream.close();
    stream.open_array(nullptr);
    stream.open_object(nullptr);
    stream.insert_string("name", "x");
    stream.insert_int("n", 3);
    stream.close();
    stream.close();
    stream.close();
    stream.insert_int("after", 7);
    stream.close();
    EXPECT_EQ(released_text(stream), tree_text(tree));
}

TEST(json_stream, members_follow_those_of_a_resumed_object)
{
    json_writer head("rrm", "rrm-response", "A4:5E:60:00:10:00", "2.2");
    head.insert_string("domain", "lab/\"east\"");
    const std::string head_text = tree_text(head);
    head.make_array("list").insert_int(nullptr, 5);

    json_stream stream(4);
    stream.resume_object(head_text.c_str());
    stream.open_array("list");
    stream.insert_int(nullptr, 5);
    stream.close();
    stream.close();
    EXPECT_EQ(released_text(stream), tree_text(head));
}

TEST(json_stream, a_resumed_empty_object_takes_its_first_member_without_a_comma)
{
    json_stream stream(0);
    stream.resume_object("{}");
    stream.insert_int("a", 1);
    stream.close();
    EXPECT_EQ(released_text(stream), R"({"a":1})");
}

TEST(json_stream, text_that_is_not_an_object_cannot_be_resumed)
{
    json_stream stream(0);
    stream.resume_object("[1]");
    EXPECT_TRUE(stream.fail());
    EXPECT_EQ(stream.release(), nullptr);
}

TEST(json_stream, a_text_with_a_container_still_open_is_not_released)
{
    json_stream stream(0);
    stream.open_object(nullptr);
    stream.insert_int("a", 1);
    EXPECT_EQ(stream.release(), nullptr);
}

TEST(json_stream, a_member_without_a_name_in_an_object_fails_the_stream)
{
    json_stream stream(0);
    stream.open_object(nullptr);
    stream.insert_int(nullptr, 1);
    stream.close();
    EXPECT_TRUE(stream.fail());
    EXPECT_EQ(stream.release(), nullptr);
}

TEST(json_stream, the_released_block_holds_the_text_and_nothing_more)
{
    // Far more room than needed, and far less: either way the buffer holds exactly the text.
    for (size_t expected : {size_t{0}, size_t{1} << 20}) {
        json_stream stream(expected);
        stream.open_array(nullptr);
        for (int i = 0; i < 1000; ++i)
            stream.insert_string(nullptr, "abcdefgh");
        stream.close();
        const size_t length = stream.size();
        std::shared_ptr<buffer_info_t> buffer = stream.release();
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->size, length);
        EXPECT_EQ(buffer->size, 2u + 1000u * 10u + 999u);
        EXPECT_EQ(stream.size(), 0u);
    }
}

}  // namespace
