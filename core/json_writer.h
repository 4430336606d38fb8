// Builds outgoing JSON messages on a json-c tree: a root writer with the message envelope,
// child writers for nested objects and arrays, and compact serialization.
#ifndef ORVD_CORE_JSON_WRITER_H
#define ORVD_CORE_JSON_WRITER_H

#include <json-c/json.h>

// Only a root writer owns its tree. A child writer's node is already part of its parent's
// tree when the child is made, so a child must not outlive its root, and replacing the
// member a child was added under (same name) leaves that child pointing at a dropped node.
//
// Writers are movable (make_array and make_subobject return by value; a moved-from writer
// owns nothing and reports fail()) but not copyable, since two writers dropping one tree or
// freeing one text would be a double free.
class json_writer {
public:
    json_object* object;
    bool is_array;
    char* text;
    const json_writer* parent;
    // Where the next element goes when this writer is an array. Children are made through a
    // const parent, so the parent's count has to be adjustable from there.
    mutable int next_index;

    // A root writer with the envelope members "version", "service", "cmd", "ap-mac" in that
    // order; a member whose text is null or empty is left out.
    json_writer(const char* service, const char* cmd, const char* ap_mac, const char* version);
    // A child array or object, added to the parent straight away: under the name when the
    // parent is an object (replacing a member of that name), at the parent's next position
    // when the parent is an array (the name is then unused). A failed child is not added.
    json_writer(bool array, const json_writer& parent_writer, const char* name);
    ~json_writer();

    json_writer(const json_writer&) = delete;
    json_writer& operator=(const json_writer&) = delete;
    json_writer(json_writer&& other) noexcept;
    json_writer& operator=(json_writer&& other) noexcept;

    json_writer make_array(const char* name) const;
    json_writer make_subobject(const char* name) const;

    // In an object the value goes under the name (replacing a member of that name); in an
    // array it goes at the next position and the name is unused. A null string is ignored.
    void insert_int(const char* name, int value);
    void insert_string(const char* name, const char* value);

    bool fail() const;

    // Compact text of this writer's tree. The text stays valid until the next serialize call
    // or the writer's end.
    char* serialize();

private:
    // Hangs a freshly made value on this writer; drops the value when it cannot be added.
    bool attach(const char* name, json_object* value) const;
    void release();
};

#endif
