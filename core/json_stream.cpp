#include "core/json_stream.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// The escape json-c writes for a byte, or null when the byte is written as it is. json-c also
// escapes "/", and writes the other control characters as \u00 and two lower-case hex digits.
const char* escape_of(unsigned char byte, char (&scratch)[7])
{
    switch (byte) {
    case '\b':
        return "\\b";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    case '\f':
        return "\\f";
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '/':
        return "\\/";
    default:
        break;
    }
    if (byte >= 0x20)
        return nullptr;
    static const char hex[] = "0123456789abcdef";
    scratch[0] = '\\';
    scratch[1] = 'u';
    scratch[2] = '0';
    scratch[3] = '0';
    scratch[4] = hex[byte >> 4];
    scratch[5] = hex[byte & 0xF];
    scratch[6] = '\0';
    return scratch;
}

}  // namespace

json_stream::json_stream(size_t expected_size) : block(expected_size), failed(false)
{
    // Nesting is shallow: message, list of lists, list, entry.
    open_levels.reserve(8);
}

void json_stream::append(const char* bytes, size_t count)
{
    block.append(bytes, count);
}

void json_stream::append_escaped(const char* text)
{
    append("\"", 1);
    const char* run = text;
    const char* at = text;
    char scratch[7];
    for (; *at != '\0'; ++at) {
        const char* escape = escape_of(static_cast<unsigned char>(*at), scratch);
        if (escape == nullptr)
            continue;
        append(run, static_cast<size_t>(at - run));
        append(escape, strlen(escape));
        run = at + 1;
    }
    append(run, static_cast<size_t>(at - run));
    append("\"", 1);
}

void json_stream::begin_value(const char* name)
{
    if (open_levels.empty()) {
        // Only one top-level value.
        if (block.size() != 0)
            failed = true;
        return;
    }
    level& current = open_levels.back();
    if (current.has_members)
        append(",", 1);
    current.has_members = true;
    if (current.is_array)
        return;
    if (name == nullptr) {
        failed = true;
        return;
    }
    append_escaped(name);
    append(":", 1);
}

void json_stream::resume_object(const char* serialized)
{
    const size_t count = serialized == nullptr ? 0 : strlen(serialized);
    if (failed || block.size() != 0 || !open_levels.empty() || count < 2 || serialized[0] != '{' ||
        serialized[count - 1] != '}') {
        failed = true;
        return;
    }
    append(serialized, count - 1);
    open_levels.push_back({false, count > 2});
}

void json_stream::open(const char* name, bool array)
{
    begin_value(name);
    append(array ? "[" : "{", 1);
    if (!fail())
        open_levels.push_back({array, false});
}

void json_stream::open_object(const char* name)
{
    open(name, false);
}

void json_stream::open_array(const char* name)
{
    open(name, true);
}

void json_stream::close()
{
    if (open_levels.empty()) {
        failed = true;
        return;
    }
    append(open_levels.back().is_array ? "]" : "}", 1);
    open_levels.pop_back();
}

void json_stream::insert_int(const char* name, int value)
{
    begin_value(name);
    char digits[16];
    const std::to_chars_result written = std::to_chars(digits, digits + sizeof digits, value);
    append(digits, static_cast<size_t>(written.ptr - digits));
}

void json_stream::insert_string(const char* name, const char* value)
{
    if (value == nullptr)
        return;
    begin_value(name);
    append_escaped(value);
}

std::shared_ptr<buffer_info_t> json_stream::release()
{
    if (failed || !open_levels.empty() || block.size() == 0) {
        block.clear();
        return nullptr;
    }
    return block.release();
}
