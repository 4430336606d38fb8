#include "core/json_writer.h"

#include <cstdlib>
#include <cstring>

namespace {

bool has_text(const char* value)
{
    return value != nullptr && value[0] != '\0';
}

}  // namespace

json_writer::json_writer(const char* service, const char* cmd, const char* ap_mac, const char* version)
    : object(json_object_new_object()), is_array(false), text(nullptr), parent(nullptr), next_index(0)
{
    if (object == nullptr)
        return;
    // Receivers read the envelope in this order.
    if (has_text(version))
        insert_string("version", version);
    if (has_text(service))
        insert_string("service", service);
    if (has_text(cmd))
        insert_string("cmd", cmd);
    if (has_text(ap_mac))
        insert_string("ap-mac", ap_mac);
}

json_writer::json_writer(bool array, const json_writer& parent_writer, const char* name)
    : object(nullptr), is_array(array), text(nullptr), parent(&parent_writer), next_index(0)
{
    // A child of a failed parent would belong to no tree at all, so it fails as well.
    if (parent_writer.object == nullptr)
        return;
    json_object* node = array ? json_object_new_array() : json_object_new_object();
    if (node != nullptr && parent_writer.attach(name, node))
        object = node;
}

json_writer::~json_writer()
{
    release();
}

json_writer::json_writer(json_writer&& other) noexcept
    : object(other.object), is_array(other.is_array), text(other.text), parent(other.parent),
      next_index(other.next_index)
{
    other.object = nullptr;
    other.text = nullptr;
    other.next_index = 0;
}

json_writer& json_writer::operator=(json_writer&& other) noexcept
{
    if (this != &other) {
        release();
        object = other.object;
        is_array = other.is_array;
        text = other.text;
        parent = other.parent;
        next_index = other.next_index;
        other.object = nullptr;
        other.text = nullptr;
        other.next_index = 0;
    }
    return *this;
}

void json_writer::release()
{
    if (parent == nullptr && object != nullptr)
        json_object_put(object);
    object = nullptr;
    free(text);
    text = nullptr;
}

json_writer json_writer::make_array(const char* name) const
{
    return json_writer(true, *this, name);
}

json_writer json_writer::make_subobject(const char* name) const
{
    return json_writer(false, *this, name);
}

bool json_writer::attach(const char* name, json_object* value) const
{
    if (object == nullptr) {
        json_object_put(value);
        return false;
    }
    int result;
    if (is_array) {
        result = json_object_array_put_idx(object, static_cast<size_t>(next_index), value);
        if (result == 0)
            ++next_index;
    } else if (name != nullptr) {
        result = json_object_object_add(object, name, value);
    } else {
        result = -1;
    }
    // json-c leaves the value with us when it could not take it.
    if (result != 0)
        json_object_put(value);
    return result == 0;
}

void json_writer::insert_int(const char* name, int value)
{
    if (object == nullptr)
        return;
    json_object* node = json_object_new_int(value);
    if (node != nullptr)
        attach(name, node);
}

void json_writer::insert_string(const char* name, const char* value)
{
    if (object == nullptr || value == nullptr)
        return;
    json_object* node = json_object_new_string(value);
    if (node != nullptr)
        attach(name, node);
}

bool json_writer::fail() const
{
    return object == nullptr;
}

char* json_writer::serialize()
{
    // Copy before freeing, so that the new text never lands on the old address and a caller
    // still holding the old pointer cannot mistake it for the new text.
    char* fresh = strdup(json_object_to_json_string_ext(object, 0));
    free(text);
    text = fresh;
    return text;
}
