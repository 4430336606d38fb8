#include "core/json_reader.h"

#include <cstring>

json_reader::json_reader(const char* text) : object(nullptr), owned(false)
{
    if (text == nullptr)
        return;
    object = json_tokener_parse(text);
    // Only a tree that was actually made is ours to drop.
    owned = object != nullptr;
}

json_reader::json_reader(json_object* node) : object(node), owned(false) {}

json_reader::~json_reader()
{
    release();
}

json_reader::json_reader(const json_reader& other) : object(other.object), owned(false) {}

json_reader& json_reader::operator=(const json_reader& other)
{
    if (this != &other)
        adopt(other.object, false);
    return *this;
}

json_reader::json_reader(json_reader&& other) noexcept : object(other.object), owned(other.owned)
{
    other.object = nullptr;
    other.owned = false;
}

json_reader& json_reader::operator=(json_reader&& other) noexcept
{
    if (this != &other) {
        json_object* node = other.object;
        bool node_owned = other.owned;
        other.object = nullptr;
        other.owned = false;
        adopt(node, node_owned);
    }
    return *this;
}

void json_reader::adopt(json_object* node, bool node_owned)
{
    // `node = node.get_subobject("x")` hands us a view into the very tree we are about to
    // drop. An owning reader therefore takes a reference of its own on a viewed node first
    // and stays owning; json-c keeps the node alive after its old parent is gone.
    bool keep = !node_owned && owned && node != nullptr;
    if (keep)
        json_object_get(node);
    release();
    object = node;
    owned = node_owned || keep;
}

void json_reader::release()
{
    if (owned && object != nullptr)
        json_object_put(object);
    object = nullptr;
    owned = false;
}

bool json_reader::fail() const
{
    return object == nullptr;
}

json_object* json_reader::member(const char* key) const
{
    json_object* value = nullptr;
    // json_object_object_get_ex answers false for a null tree and for anything that is not
    // a JSON object, so arrays and scalars fall through to the neutral result.
    if (key == nullptr || !json_object_object_get_ex(object, key, &value))
        return nullptr;
    return value;
}

json_object* json_reader::element(int index) const
{
    int count = array_length();
    if (index < 0 || index >= count)
        return nullptr;
    return json_object_array_get_idx(object, static_cast<size_t>(index));
}

const char* json_reader::get_string(const char* key) const
{
    json_object* value = member(key);
    return value != nullptr ? json_object_get_string(value) : nullptr;
}

int json_reader::get_int(const char* key) const
{
    json_object* value = member(key);
    return value != nullptr ? json_object_get_int(value) : 0;
}

json_reader json_reader::get_subobject(const char* key) const
{
    return json_reader(member(key));
}

int json_reader::length() const
{
    return array_length();
}

int json_reader::array_length() const
{
    if (object == nullptr || !json_object_is_type(object, json_type_array))
        return 0;
    return static_cast<int>(json_object_array_length(object));
}

json_reader json_reader::get_array_element(int index) const
{
    return json_reader(element(index));
}

int json_reader::get_array_element_int(int index) const
{
    json_object* value = element(index);
    return value != nullptr ? json_object_get_int(value) : 0;
}

char* json_reader::get_array_element_string(int index) const
{
    json_object* value = element(index);
    if (value == nullptr)
        return nullptr;
    const char* text = json_object_get_string(value);
    // Callers treat "no text" and "empty text" alike; giving them null spares an empty copy.
    if (text == nullptr || text[0] == '\0')
        return nullptr;
    return strdup(text);
}

const char* json_reader::serialize() const
{
    return json_object_to_json_string_ext(object, 0);
}
