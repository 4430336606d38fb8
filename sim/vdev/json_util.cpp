#include "json_util.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

json_object* json_member(json_object* object, const char* key)
{
    json_object* value = nullptr;
    if (object == nullptr || !json_object_is_type(object, json_type_object) ||
        !json_object_object_get_ex(object, key, &value))
        return nullptr;
    return value;
}

std::string json_where(const std::string& where, const char* key)
{
    return where.empty() ? std::string(key) : where + "." + key;
}

std::string json_where(const std::string& where, size_t index)
{
    return where + "[" + std::to_string(index) + "]";
}

namespace {

[[noreturn]] void wrong(const std::string& where, const char* expected)
{
    throw scenario_error(where + ": " + expected);
}

json_object* required(json_object* object, const char* key, const std::string& where)
{
    json_object* value = json_member(object, key);
    if (value == nullptr)
        throw scenario_error(json_where(where, key) + ": missing");
    return value;
}

}  // namespace

int json_int_value(json_object* value, const std::string& where)
{
    if (value == nullptr || !json_object_is_type(value, json_type_int))
        wrong(where, "expected an integer");
    const int64_t number = json_object_get_int64(value);
    if (number < -1000000000 || number > 1000000000)
        wrong(where, "integer out of range");
    return static_cast<int>(number);
}

int json_int(json_object* object, const char* key, const std::string& where)
{
    return json_int_value(required(object, key, where), json_where(where, key));
}

int json_int_or(json_object* object, const char* key, const std::string& where, int fallback)
{
    json_object* value = json_member(object, key);
    return value == nullptr ? fallback : json_int_value(value, json_where(where, key));
}

std::string json_string(json_object* object, const char* key, const std::string& where)
{
    json_object* value = required(object, key, where);
    if (!json_object_is_type(value, json_type_string))
        wrong(json_where(where, key), "expected a string");
    return std::string(json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value)));
}

std::string json_string_or(json_object* object, const char* key, const std::string& where,
                           const std::string& fallback)
{
    return json_member(object, key) == nullptr ? fallback : json_string(object, key, where);
}

bool json_bool_or(json_object* object, const char* key, const std::string& where, bool fallback)
{
    json_object* value = json_member(object, key);
    if (value == nullptr)
        return fallback;
    if (!json_object_is_type(value, json_type_boolean))
        wrong(json_where(where, key), "expected true or false");
    return json_object_get_boolean(value) != 0;
}

json_object* json_array(json_object* object, const char* key, const std::string& where)
{
    json_object* value = required(object, key, where);
    if (!json_object_is_type(value, json_type_array))
        wrong(json_where(where, key), "expected an array");
    return value;
}

json_object* json_array_or_null(json_object* object, const char* key, const std::string& where)
{
    return json_member(object, key) == nullptr ? nullptr : json_array(object, key, where);
}

json_object* json_object_or_null(json_object* object, const char* key, const std::string& where)
{
    json_object* value = json_member(object, key);
    if (value != nullptr && !json_object_is_type(value, json_type_object))
        wrong(json_where(where, key), "expected an object");
    return value;
}

std::string json_text(json_object* value)
{
    const char* text =
        json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return text == nullptr ? std::string() : std::string(text);
}

json_ptr json_read_file(const std::string& path, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::ostringstream content;
    content << in.rdbuf();
    const std::string text = content.str();

    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        *error = "out of memory";
        return nullptr;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_ptr value(json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size())));
    const json_tokener_error status = json_tokener_get_error(tokener);
    size_t end = json_tokener_get_parse_end(tokener);
    json_tokener_free(tokener);
    if (value == nullptr || status != json_tokener_success) {
        *error = path + ": not valid JSON (" + json_tokener_error_desc(status) + " near byte " +
                 std::to_string(end) + ")";
        return nullptr;
    }
    for (; end < text.size(); ++end) {
        if (std::strchr(" \t\r\n", text[end]) == nullptr) {
            *error = path + ": text after the JSON value at byte " + std::to_string(end);
            return nullptr;
        }
    }
    return value;
}
