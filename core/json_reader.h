// Read-only access to a json-c tree: member and array lookups that never raise or log and
// answer a neutral value (null, 0, an empty reader) whenever the shape is not the expected one.
#ifndef ORVD_CORE_JSON_READER_H
#define ORVD_CORE_JSON_READER_H

#include <json-c/json.h>

// A reader either owns the tree it parsed itself or views a node that belongs to someone
// else's tree (a subobject, an array element, a wrapped object).
//
// Moving hands ownership over; the moved-from reader is left empty. A copy made by the copy
// constructor never owns: it views the same tree as the source and must not outlive the
// reader that owns that tree. This keeps copies cheap and rules out dropping a tree twice.
//
// Assigning (copy or move) a view to a reader that owns a tree would otherwise drop that
// tree under the view, as in `node = node.get_subobject("x")`; such a reader takes its own
// json-c reference on the viewed node instead and keeps owning (that one node).
class json_reader {
public:
    json_object* object;
    bool owned;

    // Parses the text; the reader then owns the tree. Null or unparsable text gives a reader
    // that reports fail().
    explicit json_reader(const char* text);
    // Views an existing node without taking it over.
    explicit json_reader(json_object* node);
    ~json_reader();

    json_reader(const json_reader& other);
    json_reader& operator=(const json_reader& other);
    json_reader(json_reader&& other) noexcept;
    json_reader& operator=(json_reader&& other) noexcept;

    bool fail() const;

    // Text of the member, owned by the tree; null when the member is absent or JSON null.
    const char* get_string(const char* key) const;
    // The member as an integer; 0 when absent or JSON null.
    int get_int(const char* key) const;
    // A viewing reader on the member; it fails when the member is absent.
    json_reader get_subobject(const char* key) const;

    // Element count of an array; 0 for anything else.
    int length() const;
    int array_length() const;
    // A viewing reader on the element; an empty reader when there is no such element.
    json_reader get_array_element(int index) const;
    int get_array_element_int(int index) const;
    // Heap copy of the element text, freed by the caller; null when there is no element, it
    // is JSON null, or its text is empty.
    char* get_array_element_string(int index) const;

    // Compact text of the tree, owned by the tree.
    const char* serialize() const;

private:
    json_object* member(const char* key) const;
    json_object* element(int index) const;
    void adopt(json_object* node, bool node_owned);
    void release();
};

#endif
