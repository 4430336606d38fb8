// The configuration tree that configd serves, built from the scenario with the device's own
// configuration-tree library: radio settings at /interface/<radio>/wlan/radio-2g|radio-5g, VAP
// settings at /interface/<vap>/vap.
#ifndef ORVD_SIM_VDEV_CONFIG_TREE_H
#define ORVD_SIM_VDEV_CONFIG_TREE_H

#include <memory>
#include <string>

#include "cfg_tree.h"
#include "scenario.h"

struct cfg_deleter {
    void operator()(cfg_t* tree) const { cfg_release(tree); }
};
using cfg_ptr = std::unique_ptr<cfg_t, cfg_deleter>;

// A new tree holding a copy of a scenario settings object.
cfg_ptr cfg_from_json(json_object* settings);

// A new tree holding a copy of `node` (a node, not a plain value).
cfg_ptr cfg_copy(const cfg_t* node);

cfg_ptr build_config_tree(const scenario& setup);

// The node at a path of names separated by "/" ("/interface/wlan0-va0/vap/captive-portal/enabled");
// empty names are skipped, so "/" is the whole tree. Null when a name is missing on the way.
cfg_t* cfg_find(cfg_t* root, const std::string& path);

std::string radio_settings_path(const radio& entry);
std::string vap_settings_path(const vap& entry);

// Replaces the child `key` of the node at `parent_path` with a copy of `settings`.
bool cfg_replace(cfg_t* root, const std::string& parent_path, const char* key, json_object* settings);

// The text of the plain value `key` of `node`; empty when it is absent or not plain.
std::string cfg_text(const cfg_t* node, const char* key);

#endif
