// Host configuration-tree library over json-c. A cfg_t* is a json_object* in disguise: the
// tree owns its children through json-c's reference counts, so a child returned by
// cfg_get_param lives as long as its parent holds it.
//
// Parsing is strict: the text must be exactly one JSON object (RFC 8259 grammar; whitespace
// around it allowed, nothing after it). json-c's own strict mode still takes single-quoted
// strings and NaN/Infinity, so the text is first checked against the grammar here, then built
// by json-c. Objects and arrays nest at most 31 levels deep (json-c's limit).
#include "cfg_tree.h"

#include <cstdlib>
#include <cstring>

#include <json-c/json.h>

namespace {

// json-c keeps a JSON null as a null pointer. cfg_get_param hands out this stand-in for it so
// that a null child is still a plain value (CFG_TYPE_VALUE) and not "absent".
char null_node_storage;
cfg_t* const null_node = reinterpret_cast<cfg_t*>(&null_node_storage);

json_object* as_json(const cfg_t* node)
{
    if (node == null_node)
        return nullptr;
    return reinterpret_cast<json_object*>(const_cast<cfg_t*>(node));
}
cfg_t* as_cfg(json_object* object)
{
    return object == nullptr ? null_node : reinterpret_cast<cfg_t*>(object);
}

bool is_json_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Deepest nesting of objects and arrays accepted: json-c's tokener refuses the 32nd level.
constexpr int max_depth = JSON_TOKENER_DEFAULT_DEPTH - 1;

// A recursive-descent check of the JSON grammar; depth-bounded so hostile input cannot
// exhaust the stack.
class grammar_check {
public:
    explicit grammar_check(const char* text) : at(text) {}

    bool whole_text_is_one_object()
    {
        skip_ws();
        if (*at != '{')
            return false;
        if (!value(0))
            return false;
        skip_ws();
        return *at == '\0';
    }

private:
    void skip_ws()
    {
        while (is_json_space(*at))
            ++at;
    }

    bool literal(const char* word)
    {
        size_t n = std::strlen(word);
        if (std::strncmp(at, word, n) != 0)
            return false;
        at += n;
        return true;
    }

    static bool is_digit(char c) { return c >= '0' && c <= '9'; }
    static bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

    bool string()
    {
        if (*at != '"')
            return false;
        ++at;
        for (;;) {
            unsigned char c = static_cast<unsigned char>(*at);
            if (c == '\0' || c < 0x20)
                return false;  // end of text or a raw control character
            ++at;
            if (c == '"')
                return true;
            if (c != '\\')
                continue;
            char e = *at++;
            switch (e) {
            case '"':
            case '\\':
            case '/':
            case 'b':
            case 'f':
            case 'n':
            case 'r':
            case 't':
                break;
            case 'u':
                for (int i = 0; i < 4; ++i) {
                    if (!is_hex(*at))
                        return false;
                    ++at;
                }
                break;
            default:
                return false;
            }
        }
    }

    // One or more digits.
    bool digits()
    {
        if (!is_digit(*at))
            return false;
        while (is_digit(*at))
            ++at;
        return true;
    }

    bool number()
    {
        if (*at == '-')
            ++at;
        if (*at == '0')
            ++at;
        else if (!digits())
            return false;
        if (*at == '.') {
            ++at;
            if (!digits())
                return false;
        }
        if (*at == 'e' || *at == 'E') {
            ++at;
            if (*at == '+' || *at == '-')
                ++at;
            if (!digits())
                return false;
        }
        return true;
    }

    bool value(int depth)
    {
        skip_ws();
        switch (*at) {
        case '{':
            return object(depth + 1);
        case '[':
            return array(depth + 1);
        case '"':
            return string();
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default:
            return number();
        }
    }

    // What follows the opening bracket of an object or array: members separated by commas,
    // up to `close`.
    template <typename member_reader>
    bool members(char close, member_reader read_member)
    {
        ++at;
        skip_ws();
        if (*at == close) {
            ++at;
            return true;
        }
        for (;;) {
            if (!read_member())
                return false;
            skip_ws();
            if (*at == close) {
                ++at;
                return true;
            }
            if (*at != ',')
                return false;
            ++at;
        }
    }

    bool object(int depth)
    {
        if (depth > max_depth)
            return false;
        return members('}', [this, depth] {
            skip_ws();
            if (!string())
                return false;
            skip_ws();
            if (*at != ':')
                return false;
            ++at;
            return value(depth);
        });
    }

    bool array(int depth)
    {
        if (depth > max_depth)
            return false;
        return members(']', [this, depth] { return value(depth); });
    }

    const char* at;
};

char* serialize(const cfg_t* node, int flags)
{
    if (node == nullptr)
        return nullptr;
    const char* text = json_object_to_json_string_ext(as_json(node), flags);
    return text == nullptr ? nullptr : strdup(text);
}

}  // namespace

extern "C" {

cfg_t* cfg_get_empty(void)
{
    return reinterpret_cast<cfg_t*>(json_object_new_object());
}

cfg_t* cfg_parse_buffer(const char* text)
{
    if (text == nullptr)
        return nullptr;
    if (!grammar_check(text).whole_text_is_one_object())
        return nullptr;

    size_t length = std::strlen(text);
    if (length > static_cast<size_t>(INT32_MAX))
        return nullptr;
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr)
        return nullptr;
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_object* object = json_tokener_parse_ex(tokener, text, static_cast<int>(length));
    bool ok = object != nullptr && json_tokener_get_error(tokener) == json_tokener_success &&
              json_object_get_type(object) == json_type_object;
    if (ok) {
        // Only whitespace may follow the object.
        for (size_t i = json_tokener_get_parse_end(tokener); i < length && ok; ++i)
            ok = is_json_space(text[i]);
    }
    json_tokener_free(tokener);
    if (!ok) {
        json_object_put(object);
        return nullptr;
    }
    return reinterpret_cast<cfg_t*>(object);
}

void cfg_release(cfg_t* tree)
{
    // The null stand-in maps to a null pointer, which json_object_put ignores.
    if (tree != nullptr)
        json_object_put(as_json(tree));
}

int cfg_set_param(cfg_t* node, const char* key, const char* value)
{
    if (node == nullptr || key == nullptr || value == nullptr)
        return -1;
    if (!json_object_is_type(as_json(node), json_type_object))
        return -1;
    json_object* child = json_object_new_string(value);
    if (child == nullptr)
        return -1;
    // json-c replaces an existing key in place, so the key keeps its position.
    if (json_object_object_add(as_json(node), key, child) != 0) {
        json_object_put(child);
        return -1;
    }
    return 0;
}

int cfg_set_node(cfg_t* node, const char* key, cfg_t* child)
{
    if (child == nullptr)
        return -1;
    if (child == node)
        return -1;  // a node cannot hold itself; releasing it would free `node`
    // The null stand-in becomes a JSON null child.
    if (node == nullptr || key == nullptr || !json_object_is_type(as_json(node), json_type_object) ||
        json_object_object_add(as_json(node), key, as_json(child)) != 0) {
        cfg_release(child);
        return -1;
    }
    return 0;
}

cfg_t* cfg_get_param(const cfg_t* node, const char* key)
{
    if (node == nullptr || key == nullptr)
        return nullptr;
    if (!json_object_is_type(as_json(node), json_type_object))
        return nullptr;
    json_object* child = nullptr;
    if (!json_object_object_get_ex(as_json(node), key, &child))
        return nullptr;
    return as_cfg(child);
}

int cfg_get_type(const cfg_t* node)
{
    if (node == nullptr)
        return 0;
    if (node == null_node)
        return CFG_TYPE_VALUE;
    switch (json_object_get_type(as_json(node))) {
    case json_type_object:
        return CFG_TYPE_NODE;
    case json_type_array:
        return CFG_TYPE_ARRAY;
    default:
        return CFG_TYPE_VALUE;
    }
}

const char* cfg_get_value(const cfg_t* node)
{
    if (node == nullptr || node == null_node)
        return nullptr;
    switch (json_object_get_type(as_json(node))) {
    case json_type_string:
    case json_type_int:
    case json_type_double:
    case json_type_boolean:
        // For numbers and booleans json-c keeps the text inside the object.
        return json_object_get_string(as_json(node));
    default:
        return nullptr;
    }
}

char* cfg_serialize(const cfg_t* node)
{
    return serialize(node, JSON_C_TO_STRING_PRETTY);
}

char* cfg_serialize_compact(const cfg_t* node)
{
    return serialize(node, JSON_C_TO_STRING_PLAIN);
}

}  // extern "C"
