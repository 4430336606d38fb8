/* Device configuration-tree library: a tree of named nodes whose text form is JSON. */
#ifndef ORVD_PLATFORM_CFG_TREE_H
#define ORVD_PLATFORM_CFG_TREE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct cfg_s cfg_t;

/* Node type codes returned by cfg_get_type. */
enum {
    CFG_TYPE_NODE = 1,  /* a node with named children */
    CFG_TYPE_VALUE = 2, /* a plain value: text, number, boolean or null */
    CFG_TYPE_ARRAY = 3, /* an ordered list of nodes */
};

/* A new node without children; released with cfg_release. */
cfg_t* cfg_get_empty(void);

/* Parses a JSON object text into a new tree; null when the text is not one JSON object. */
cfg_t* cfg_parse_buffer(const char* text);

/* Releases a tree made by cfg_get_empty or cfg_parse_buffer (null is allowed). */
void cfg_release(cfg_t* tree);

/* Sets child `key` of `node` to the plain text `value`, replacing a child of that name.
 * Returns 0, or -1 when an argument is null or `node` is not a node. */
int cfg_set_param(cfg_t* node, const char* key, const char* value);

/* Hangs `child` under `node` as `key`, replacing a child of that name; the tree takes
 * `child` over (do not release it afterwards). Returns 0, or -1 (then `child` is released). */
int cfg_set_node(cfg_t* node, const char* key, cfg_t* child);

/* Child `key` of `node`, owned by the tree; null when absent or `node` is not a node. */
cfg_t* cfg_get_param(const cfg_t* node, const char* key);

/* CFG_TYPE_* of a node; 0 for null. */
int cfg_get_type(const cfg_t* node);

/* Text of a plain value ("true", "36", "WPA2"), owned by the tree; null for other types and
 * for the JSON null value. */
const char* cfg_get_value(const cfg_t* node);

/* Heap text of a subtree (free with free()): cfg_serialize is indented for people,
 * cfg_serialize_compact is one line. Null on failure or for a null node. */
char* cfg_serialize(const cfg_t* node);
char* cfg_serialize_compact(const cfg_t* node);

#ifdef __cplusplus
}
#endif

#endif
