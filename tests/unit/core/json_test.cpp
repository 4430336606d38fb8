#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/trace.h"
#include "vorna_log_host.h"

namespace {

const char* const no_text = nullptr;

// Serializes a writer and hands back an owned copy, so expectations do not depend on the
// writer's text buffer.
std::string text_of(json_writer& writer)
{
    const char* text = writer.serialize();
    return text != nullptr ? std::string(text) : std::string("<null>");
}

// --- json_reader -----------------------------------------------------------------------

TEST(json_reader, text_that_is_not_json_fails_and_reads_as_zero)
{
    json_reader reader("this is {not json");
    EXPECT_TRUE(reader.fail());
    EXPECT_FALSE(reader.owned);
    EXPECT_EQ(reader.get_int("a"), 0);
    EXPECT_EQ(reader.get_string("a"), nullptr);
    EXPECT_TRUE(reader.get_subobject("a").fail());
    EXPECT_EQ(reader.length(), 0);
    EXPECT_EQ(reader.get_array_element_string(0), nullptr);
}

TEST(json_reader, null_text_gives_a_failed_reader_that_owns_nothing)
{
    json_reader reader(no_text);
    EXPECT_TRUE(reader.fail());
    EXPECT_FALSE(reader.owned);
    EXPECT_EQ(reader.get_string("cmd"), nullptr);
}

TEST(json_reader, parsed_text_is_owned_and_wrapped_object_is_not)
{
    json_reader parsed("{\"a\":1}");
    EXPECT_FALSE(parsed.fail());
    EXPECT_TRUE(parsed.owned);

    json_reader wrapped(parsed.object);
    EXPECT_FALSE(wrapped.owned);
    EXPECT_EQ(wrapped.get_int("a"), 1);
}

TEST(json_reader, reads_string_and_int_members)
{
    json_reader reader("{\"cmd\":\"scan\",\"channel\":36,\"neg\":-7}");
    ASSERT_FALSE(reader.fail());
    EXPECT_STREQ(reader.get_string("cmd"), "scan");
    EXPECT_EQ(reader.get_int("channel"), 36);
    EXPECT_EQ(reader.get_int("neg"), -7);
    // A number read as text gives its JSON spelling.
    EXPECT_STREQ(reader.get_string("channel"), "36");
}

TEST(json_reader, string_member_holding_null_reads_as_null)
{
    json_reader reader("{\"ap-mac\":null}");
    ASSERT_FALSE(reader.fail());
    EXPECT_EQ(reader.get_string("ap-mac"), nullptr);
    EXPECT_EQ(reader.get_int("ap-mac"), 0);
    EXPECT_TRUE(reader.get_subobject("ap-mac").fail());
}

TEST(json_reader, missing_members_read_as_neutral_values)
{
    json_reader reader("{\"present\":5}");
    EXPECT_EQ(reader.get_int("absent"), 0);
    EXPECT_EQ(reader.get_string("absent"), nullptr);
    json_reader sub = reader.get_subobject("absent");
    EXPECT_TRUE(sub.fail());
    EXPECT_FALSE(sub.owned);
    EXPECT_EQ(reader.get_int(nullptr), 0);
    EXPECT_EQ(reader.get_string(nullptr), nullptr);
}

TEST(json_reader, subobject_is_a_view_into_the_same_tree)
{
    json_reader reader("{\"radio\":{\"band\":\"5g\",\"tx\":{\"power\":20}}}");
    json_reader radio = reader.get_subobject("radio");
    ASSERT_FALSE(radio.fail());
    EXPECT_FALSE(radio.owned);
    EXPECT_STREQ(radio.get_string("band"), "5g");
    EXPECT_EQ(radio.get_subobject("tx").get_int("power"), 20);
    EXPECT_EQ(radio.object, json_object_object_get(reader.object, "radio"));
}

TEST(json_reader, array_elements_read_by_position)
{
    json_reader reader("[10,\"two\",{\"k\":3},null]");
    EXPECT_EQ(reader.length(), 4);
    EXPECT_EQ(reader.array_length(), 4);
    EXPECT_EQ(reader.get_array_element_int(0), 10);

    char* two = reader.get_array_element_string(1);
    ASSERT_NE(two, nullptr);
    EXPECT_STREQ(two, "two");
    free(two);

    json_reader third = reader.get_array_element(2);
    EXPECT_FALSE(third.owned);
    EXPECT_EQ(third.get_int("k"), 3);

    EXPECT_TRUE(reader.get_array_element(3).fail());
    EXPECT_EQ(reader.get_array_element_int(3), 0);
    EXPECT_EQ(reader.get_array_element_string(3), nullptr);
}

TEST(json_reader, element_past_the_end_gives_a_failed_reader)
{
    json_reader reader("[1,2]");
    ASSERT_EQ(reader.length(), 2);
    json_reader element = reader.get_array_element(2);
    EXPECT_TRUE(element.fail());
    EXPECT_FALSE(element.owned);
    EXPECT_EQ(reader.get_array_element_int(2), 0);
    EXPECT_EQ(reader.get_array_element_string(2), nullptr);
}

TEST(json_reader, negative_index_gives_neutral_results)
{
    json_reader reader("[\"a\",\"b\"]");
    EXPECT_TRUE(reader.get_array_element(-1).fail());
    EXPECT_EQ(reader.get_array_element_int(-1), 0);
    EXPECT_EQ(reader.get_array_element_string(-1), nullptr);
}

TEST(json_reader, empty_string_element_reads_as_null_not_an_empty_copy)
{
    json_reader reader("[\"\",\"x\"]");
    ASSERT_EQ(reader.length(), 2);
    EXPECT_EQ(reader.get_array_element_string(0), nullptr);
    char* x = reader.get_array_element_string(1);
    EXPECT_STREQ(x, "x");
    free(x);
}

TEST(json_reader, array_operations_on_an_object_are_neutral)
{
    json_reader reader("{\"0\":5,\"1\":\"s\"}");
    EXPECT_EQ(reader.length(), 0);
    EXPECT_EQ(reader.array_length(), 0);
    EXPECT_TRUE(reader.get_array_element(0).fail());
    EXPECT_EQ(reader.get_array_element_int(0), 0);
    EXPECT_EQ(reader.get_array_element_string(1), nullptr);
}

TEST(json_reader, member_lookups_on_an_array_or_scalar_are_neutral)
{
    json_reader array("[{\"a\":1}]");
    EXPECT_EQ(array.get_int("a"), 0);
    EXPECT_EQ(array.get_string("a"), nullptr);
    EXPECT_TRUE(array.get_subobject("a").fail());

    json_reader scalar("\"just text\"");
    ASSERT_FALSE(scalar.fail());
    EXPECT_EQ(scalar.get_int("a"), 0);
    EXPECT_EQ(scalar.get_string("a"), nullptr);
    EXPECT_EQ(scalar.length(), 0);
}

TEST(json_reader, serialize_gives_compact_text)
{
    json_reader reader("{ \"a\" : [ 1, 2 ], \"b\" : \"c\" }");
    EXPECT_STREQ(reader.serialize(), "{\"a\":[1,2],\"b\":\"c\"}");
    EXPECT_STREQ(reader.get_subobject("a").serialize(), "[1,2]");
}

TEST(json_reader, moving_hands_ownership_over)
{
    json_reader source("{\"a\":1}");
    json_object* tree = source.object;

    json_reader moved(std::move(source));
    EXPECT_EQ(moved.object, tree);
    EXPECT_TRUE(moved.owned);
    EXPECT_TRUE(source.fail());  // NOLINT(bugprone-use-after-move)
    EXPECT_FALSE(source.owned);

    json_reader assigned(no_text);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.object, tree);
    EXPECT_TRUE(assigned.owned);
    EXPECT_EQ(assigned.get_int("a"), 1);
}

TEST(json_reader, copies_view_the_source_tree_without_owning_it)
{
    json_reader source("{\"a\":2}");
    {
        json_reader copy(source);
        EXPECT_EQ(copy.object, source.object);
        EXPECT_FALSE(copy.owned);
    }
    // The copy's end left the tree alone.
    EXPECT_EQ(source.get_int("a"), 2);
}

TEST(json_reader, owning_reader_can_step_down_into_its_own_tree)
{
    json_reader node("{\"a\":{\"b\":{\"c\":7}}}");
    node = node.get_subobject("a");
    node = node.get_subobject("b");
    // The node outlives the tree it came from; the sanitizer build catches a dangling one.
    EXPECT_EQ(node.get_int("c"), 7);
    EXPECT_TRUE(node.owned);

    json_reader list("[[1,[2,3]]]");
    json_reader copy_target("{}");
    copy_target = list.get_array_element(0);
    list = list.get_array_element(0).get_array_element(1);
    EXPECT_EQ(list.get_array_element_int(1), 3);
    EXPECT_EQ(copy_target.get_array_element_int(0), 1);
}

// --- json_writer -----------------------------------------------------------------------

TEST(json_writer, envelope_members_come_in_fixed_order)
{
    json_writer writer("rrm", "scan-result", "aa:bb:cc:dd:ee:ff", "2.2");
    EXPECT_FALSE(writer.fail());
    EXPECT_EQ(text_of(writer), "{\"version\":\"2.2\",\"service\":\"rrm\",\"cmd\":\"scan-result\","
                               "\"ap-mac\":\"aa:bb:cc:dd:ee:ff\"}");
}

TEST(json_writer, envelope_leaves_out_empty_members)
{
    json_writer writer("internal-ipc", "connected", "", "2.2");
    EXPECT_EQ(text_of(writer), "{\"version\":\"2.2\",\"service\":\"internal-ipc\",\"cmd\":\"connected\"}");

    json_writer without_version("svc", nullptr, "mac", nullptr);
    EXPECT_EQ(text_of(without_version), "{\"service\":\"svc\",\"ap-mac\":\"mac\"}");
}

TEST(json_writer, root_with_all_envelope_texts_empty_is_an_empty_object)
{
    json_writer writer("", "", "", "");
    EXPECT_FALSE(writer.fail());
    EXPECT_FALSE(writer.is_array);
    EXPECT_EQ(writer.parent, nullptr);
    EXPECT_EQ(text_of(writer), "{}");
}

TEST(json_writer, child_object_sits_under_its_name_in_the_root)
{
    json_writer root("svc", "cmd", "", "");
    json_writer radio = root.make_subobject("radio");
    EXPECT_FALSE(radio.fail());
    EXPECT_FALSE(radio.is_array);
    EXPECT_EQ(radio.parent, &root);
    radio.insert_int("channel", 36);
    radio.insert_string("band", "5g");
    root.insert_int("seq", 4);
    EXPECT_EQ(text_of(root),
              "{\"service\":\"svc\",\"cmd\":\"cmd\",\"radio\":{\"channel\":36,\"band\":\"5g\"},\"seq\":4}");
    // A child serializes its own part of the tree.
    EXPECT_EQ(text_of(radio), "{\"channel\":36,\"band\":\"5g\"}");
}

TEST(json_writer, child_array_keeps_integers_in_insertion_order)
{
    json_writer root("", "", "", "");
    json_writer list = root.make_array("list");
    EXPECT_TRUE(list.is_array);
    list.insert_int("ignored", 30);
    list.insert_int(nullptr, 10);
    list.insert_int("x", 20);
    EXPECT_EQ(list.next_index, 3);

    json_reader reader(text_of(root).c_str());
    json_reader array = reader.get_subobject("list");
    ASSERT_EQ(array.length(), 3);
    EXPECT_EQ(array.get_array_element_int(0), 30);
    EXPECT_EQ(array.get_array_element_int(1), 10);
    EXPECT_EQ(array.get_array_element_int(2), 20);
}

TEST(json_writer, nested_arrays_of_objects)
{
    json_writer root("rrm", "neighbors", "", "");
    json_writer aps = root.make_array("aps");
    for (int ap = 0; ap < 2; ++ap) {
        json_writer entry = aps.make_subobject("unused");
        entry.insert_int("id", ap);
        json_writer channels = entry.make_array("channels");
        channels.insert_int("", 1 + ap);
        channels.insert_int("", 6 + ap);
        json_writer tags = channels.make_array("");
        tags.insert_string("", "outdoor");
    }
    aps.insert_string("", "tail");
    EXPECT_EQ(aps.next_index, 3);
    EXPECT_EQ(text_of(root), "{\"service\":\"rrm\",\"cmd\":\"neighbors\",\"aps\":["
                             "{\"id\":0,\"channels\":[1,6,[\"outdoor\"]]},"
                             "{\"id\":1,\"channels\":[2,7,[\"outdoor\"]]},"
                             "\"tail\"]}");
}

TEST(json_writer, inserting_an_existing_name_replaces_the_member)
{
    json_writer root("", "", "", "");
    root.insert_int("n", 1);
    root.insert_string("s", "old");
    root.insert_int("n", 2);
    root.insert_string("s", "new");
    EXPECT_EQ(text_of(root), "{\"n\":2,\"s\":\"new\"}");

    // The envelope members are replaced the same way.
    json_writer envelope("svc", "old-cmd", "", "");
    envelope.insert_string("cmd", "new-cmd");
    EXPECT_EQ(text_of(envelope), "{\"service\":\"svc\",\"cmd\":\"new-cmd\"}");
}

TEST(json_writer, child_with_an_existing_name_replaces_the_member)
{
    json_writer root("", "", "", "");
    root.insert_int("data", 1);
    json_writer data = root.make_array("data");
    data.insert_int("", 5);
    EXPECT_EQ(text_of(root), "{\"data\":[5]}");
}

TEST(json_writer, null_string_value_is_ignored)
{
    json_writer root("", "", "", "");
    root.insert_string("s", nullptr);
    json_writer list = root.make_array("l");
    list.insert_string("", nullptr);
    EXPECT_EQ(list.next_index, 0);
    EXPECT_EQ(text_of(root), "{\"l\":[]}");
}

TEST(json_writer, strings_are_escaped)
{
    json_writer root("", "", "", "");
    root.insert_string("q", "say \"hi\"\n");
    json_reader reader(text_of(root).c_str());
    EXPECT_STREQ(reader.get_string("q"), "say \"hi\"\n");
}

TEST(json_writer, second_serialize_returns_a_new_text_and_frees_the_first)
{
    json_writer root("svc", "", "", "");
    char* first = root.serialize();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first, "{\"service\":\"svc\"}");
    root.insert_int("n", 1);
    char* second = root.serialize();
    ASSERT_NE(second, nullptr);
    // Only the addresses are compared: the first text is already freed. The leak check of
    // the sanitizer build shows that it was.
    EXPECT_NE(first, second);
    EXPECT_EQ(root.text, second);
    EXPECT_STREQ(second, "{\"service\":\"svc\",\"n\":1}");

    char* third = root.serialize();
    EXPECT_NE(third, second);
    EXPECT_STREQ(third, "{\"service\":\"svc\",\"n\":1}");
}

TEST(json_writer, moved_from_writer_owns_nothing)
{
    json_writer root("svc", "", "", "");
    root.serialize();
    json_object* tree = root.object;
    char* text = root.text;

    json_writer moved(std::move(root));
    EXPECT_EQ(moved.object, tree);
    EXPECT_EQ(moved.text, text);
    EXPECT_TRUE(root.fail());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(root.text, nullptr);

    json_writer other("", "", "", "");
    other = std::move(moved);
    EXPECT_EQ(other.object, tree);
    EXPECT_EQ(text_of(other), "{\"service\":\"svc\"}");
}

TEST(json_writer, child_of_a_failed_writer_fails_and_adds_nothing)
{
    json_writer root("", "", "", "");
    json_writer gone(std::move(root));
    json_writer child = root.make_subobject("x");  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(child.fail());
    child.insert_int("a", 1);
    child.insert_string("b", "c");
    EXPECT_EQ(text_of(gone), "{}");
}

TEST(json_writer, written_message_reads_back)
{
    json_writer root("rrm", "report", "00:11:22:33:44:55", "2.2");
    json_writer stations = root.make_array("stations");
    json_writer station = stations.make_subobject("");
    station.insert_string("mac", "66:77:88:99:aa:bb");
    station.insert_int("rssi", -61);

    json_reader reader(text_of(root).c_str());
    EXPECT_STREQ(reader.get_string("version"), "2.2");
    EXPECT_STREQ(reader.get_string("ap-mac"), "00:11:22:33:44:55");
    json_reader first = reader.get_subobject("stations").get_array_element(0);
    EXPECT_STREQ(first.get_string("mac"), "66:77:88:99:aa:bb");
    EXPECT_EQ(first.get_int("rssi"), -61);
}

// --- quiet on bad input ----------------------------------------------------------------

void collect_line(vlr_log_level_t, const char* text, void* context)
{
    static_cast<std::vector<std::string>*>(context)->push_back(text);
}

TEST(json_quiet, bad_input_writes_no_log_lines)
{
    std::vector<std::string> lines;
    int saved_mask = trace.get_log_level();
    trace.set_log_level(orv_trace::MASK_ERROR | orv_trace::MASK_WARN | orv_trace::MASK_INFO |
                        orv_trace::MASK_DEBUG);
    vorna_log_host_set_writer(collect_line, &lines);

    json_reader broken("{\"a\":");
    broken.get_int("a");
    broken.get_array_element(-3);
    json_reader array("[1]");
    array.get_string("a");
    array.get_array_element_string(9);
    json_writer writer("", "", "", "");
    writer.insert_string("a", nullptr);
    writer.serialize();

    vorna_log_host_set_writer(nullptr, nullptr);
    trace.set_log_level(saved_mask);
    EXPECT_TRUE(lines.empty());
}

}  // namespace
