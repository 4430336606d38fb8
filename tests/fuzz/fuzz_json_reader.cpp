// Feeds arbitrary bytes to json_reader and walks whatever tree comes out through every lookup
// the reader offers, so that each accessor meets every shape a peer could send.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/json_reader.h"

namespace {

// Bounds the walk on wide or deep input so that one input cannot stall the run.
constexpr int max_visits = 4096;
constexpr int max_depth = 64;

// Member names a message may carry, tried on every node whatever its shape.
const char* const probe_keys[] = {"version", "service", "cmd", "ap-mac", "data", "", "0"};

void consume(const char* text)
{
    // Touches every byte, so that a dangling or unterminated text shows up under ASan.
    if (text != nullptr)
        (void)strlen(text);
}

void walk(const json_reader& reader, int depth, int& visits)
{
    if (++visits > max_visits || depth > max_depth)
        return;

    (void)reader.fail();
    consume(reader.serialize());

    for (const char* key : probe_keys) {
        consume(reader.get_string(key));
        (void)reader.get_int(key);
        (void)reader.get_subobject(key).fail();
    }
    consume(reader.get_string(nullptr));
    (void)reader.get_int(nullptr);

    // The keys present in this node, when it is an object.
    std::vector<std::string> keys;
    if (reader.object != nullptr && json_object_is_type(reader.object, json_type_object)) {
        json_object_object_foreach(reader.object, key, value)
        {
            (void)value;
            keys.emplace_back(key);
        }
    }
    for (const std::string& key : keys) {
        consume(reader.get_string(key.c_str()));
        (void)reader.get_int(key.c_str());
        json_reader sub = reader.get_subobject(key.c_str());
        walk(sub, depth + 1, visits);
    }

    int count = reader.length();
    if (count != reader.array_length())
        abort();
    // One step past each end as well, where the neutral results are due.
    for (int index = -1; index <= count; ++index) {
        (void)reader.get_array_element_int(index);
        char* text = reader.get_array_element_string(index);
        if (text != nullptr) {
            if (text[0] == '\0')
                abort();
            free(text);
        }
        json_reader element = reader.get_array_element(index);
        if ((index < 0 || index >= count) && !element.fail())
            abort();
        if (index >= 0 && index < count)
            walk(element, depth + 1, visits);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    json_reader reader(text.c_str());
    if (reader.fail() && reader.owned)
        abort();
    int visits = 0;
    walk(reader, 0, visits);

    // Readers moved and copied around the parsed tree must leave it intact and freed once.
    json_reader moved(std::move(reader));
    json_reader copy(moved);
    visits = 0;
    walk(copy, 0, visits);
    if (moved.length() > 0)
        moved = moved.get_array_element(0);
    else
        moved = moved.get_subobject("data");
    visits = 0;
    walk(moved, 0, visits);
    return 0;
}
