// Fuzzes the configuration-tree parser: any bytes as text. An accepted text must serialize in
// both forms, and the compact form must read back to the same tree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cfg_tree.h"

namespace {

void check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void look_up(const cfg_t* tree, const char* key)
{
    const cfg_t* child = cfg_get_param(tree, key);
    if (child == nullptr)
        return;
    int type = cfg_get_type(child);
    check(type == CFG_TYPE_NODE || type == CFG_TYPE_VALUE || type == CFG_TYPE_ARRAY);
    const char* value = cfg_get_value(child);
    if (value != nullptr)
        check(type == CFG_TYPE_VALUE);
    char* text = cfg_serialize_compact(child);
    check(text != nullptr);
    std::free(text);
    cfg_get_param(child, "a");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);  // NUL-terminated copy
    cfg_t* tree = cfg_parse_buffer(text.c_str());
    if (tree == nullptr)
        return 0;
    check(cfg_get_type(tree) == CFG_TYPE_NODE);

    look_up(tree, "command");
    look_up(tree, "a");
    look_up(tree, "");
    if (size >= 4)
        look_up(tree, std::string(text.c_str(), 4).c_str());

    char* pretty = cfg_serialize(tree);
    char* compact = cfg_serialize_compact(tree);
    check(pretty != nullptr && compact != nullptr);
    check(std::strchr(compact, '\n') == nullptr);

    cfg_t* again = cfg_parse_buffer(compact);
    check(again != nullptr);
    char* compact_again = cfg_serialize_compact(again);
    check(compact_again != nullptr && std::strcmp(compact, compact_again) == 0);
    cfg_t* from_pretty = cfg_parse_buffer(pretty);
    check(from_pretty != nullptr);

    // Changing the tree keeps it serializable.
    check(cfg_set_param(tree, "command", "fuzz") == 0);
    check(cfg_set_node(tree, "copy", again) == 0);  // the tree takes `again` over
    char* changed = cfg_serialize_compact(tree);
    check(changed != nullptr);

    std::free(changed);
    std::free(compact_again);
    std::free(compact);
    std::free(pretty);
    cfg_release(from_pretty);
    cfg_release(tree);
    return 0;
}
