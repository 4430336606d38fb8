// json-c with ownership and typed access for the scenario and the radio state files. A value of
// the wrong type raises scenario_error naming where it sits ("radios[1].vaps[0].ssid").
#ifndef ORVD_SIM_VDEV_JSON_UTIL_H
#define ORVD_SIM_VDEV_JSON_UTIL_H

#include <json-c/json.h>

#include <memory>
#include <stdexcept>
#include <string>

class scenario_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct json_deleter {
    void operator()(json_object* object) const { json_object_put(object); }
};
using json_ptr = std::unique_ptr<json_object, json_deleter>;

// Child `key` of an object, or null when it is absent.
json_object* json_member(json_object* object, const char* key);

// "where.key" (or "key" when `where` is empty), for error texts.
std::string json_where(const std::string& where, const char* key);
std::string json_where(const std::string& where, size_t index);

// Required and optional members of one type. Integers must be JSON integers.
int json_int(json_object* object, const char* key, const std::string& where);
int json_int_or(json_object* object, const char* key, const std::string& where, int fallback);
std::string json_string(json_object* object, const char* key, const std::string& where);
std::string json_string_or(json_object* object, const char* key, const std::string& where,
                           const std::string& fallback);
bool json_bool_or(json_object* object, const char* key, const std::string& where, bool fallback);
json_object* json_array(json_object* object, const char* key, const std::string& where);
json_object* json_array_or_null(json_object* object, const char* key, const std::string& where);
json_object* json_object_or_null(json_object* object, const char* key, const std::string& where);
int json_int_value(json_object* value, const std::string& where);

// The compact text of a value; "/" is not escaped.
std::string json_text(json_object* value);

// Reads and parses a whole file; null with the reason in *error.
json_ptr json_read_file(const std::string& path, std::string* error);

#endif
