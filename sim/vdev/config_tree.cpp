#include "config_tree.h"

#include <cstdlib>

namespace {

struct text_deleter {
    void operator()(char* text) const { std::free(text); }
};

// Hangs a new node under `parent` and returns it (the parent owns it).
cfg_t* add_node(cfg_t* parent, const char* key, cfg_ptr child)
{
    cfg_t* raw = child.get();
    return cfg_set_node(parent, key, child.release()) == 0 ? raw : nullptr;
}

}  // namespace

cfg_ptr cfg_from_json(json_object* settings)
{
    return cfg_ptr(cfg_parse_buffer(json_text(settings).c_str()));
}

cfg_ptr cfg_copy(const cfg_t* node)
{
    std::unique_ptr<char, text_deleter> text(cfg_serialize_compact(node));
    return cfg_ptr(text == nullptr ? nullptr : cfg_parse_buffer(text.get()));
}

cfg_ptr build_config_tree(const scenario& setup)
{
    cfg_ptr root(cfg_get_empty());
    cfg_t* interfaces = add_node(root.get(), "interface", cfg_ptr(cfg_get_empty()));
    for (const radio& entry : setup.radios) {
        cfg_t* radio_node = add_node(interfaces, entry.name.c_str(), cfg_ptr(cfg_get_empty()));
        cfg_t* wlan = add_node(radio_node, "wlan", cfg_ptr(cfg_get_empty()));
        add_node(wlan, entry.settings_key(), cfg_from_json(entry.settings.get()));
    }
    // VAPs after the radios, in scenario order, as configd lists interfaces.
    for (const radio& entry : setup.radios) {
        for (const vap& member : entry.vaps) {
            cfg_t* vap_node = add_node(interfaces, member.name.c_str(), cfg_ptr(cfg_get_empty()));
            add_node(vap_node, "vap", cfg_from_json(member.settings.get()));
        }
    }
    return root;
}

cfg_t* cfg_find(cfg_t* root, const std::string& path)
{
    cfg_t* node = root;
    size_t start = 0;
    while (node != nullptr && start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        if (end > start)
            node = cfg_get_param(node, path.substr(start, end - start).c_str());
        start = end + 1;
    }
    return node;
}

std::string radio_settings_path(const radio& entry)
{
    return "/interface/" + entry.name + "/wlan/" + entry.settings_key();
}

std::string vap_settings_path(const vap& entry)
{
    return "/interface/" + entry.name + "/vap";
}

bool cfg_replace(cfg_t* root, const std::string& parent_path, const char* key, json_object* settings)
{
    cfg_t* parent = cfg_find(root, parent_path);
    cfg_ptr copy = cfg_from_json(settings);
    return parent != nullptr && copy != nullptr && cfg_set_node(parent, key, copy.release()) == 0;
}

std::string cfg_text(const cfg_t* node, const char* key)
{
    const char* text = cfg_get_value(cfg_get_param(node, key));
    return text == nullptr ? std::string() : std::string(text);
}
