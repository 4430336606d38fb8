// Writes a large JSON message straight into the one heap block that is then queued, instead of
// building a json-c tree for it and copying the serialized text. A json-c tree costs far more
// memory than its text (an rf-environment of 46,800 neighbours is ~5 MB of text but well over
// 100 MB as a tree), so the big parts of a message are streamed with this and only the small
// parts are built with json_writer.
//
// The text is exactly what json-c's compact serialization (json_object_to_json_string_ext with
// flags 0) writes for the same values: no blanks, keys and strings escaped as json-c escapes
// them ("/" included), integers in plain decimal. Receivers therefore see the same bytes
// whichever way a message was made.
#ifndef ORVD_CORE_JSON_STREAM_H
#define ORVD_CORE_JSON_STREAM_H

#include <cstddef>
#include <memory>
#include <vector>

#include "core/buffer_info.h"
#include "core/growing_buffer.h"

class json_stream {
public:
    // `expected_size` is the first capacity; the block grows geometrically past it.
    explicit json_stream(size_t expected_size);
    ~json_stream() = default;
    json_stream(const json_stream&) = delete;
    json_stream& operator=(const json_stream&) = delete;

    // Carries on inside an object that json-c has serialized: its text is taken without the
    // closing brace, and the members added next follow the ones it holds. Only valid as the
    // first call; text that is not an object makes the stream fail.
    void resume_object(const char* serialized);

    // In an object the value goes under `name`; in an array it is the next element and the
    // name is unused. Containers stay open until the matching close().
    void open_object(const char* name);
    void open_array(const char* name);
    void close();
    void insert_int(const char* name, int value);
    // A null value is ignored, as json_writer ignores it.
    void insert_string(const char* name, const char* value);

    // True once memory ran out (or the nesting was misused): the text is incomplete and
    // release() gives nothing.
    bool fail() const { return failed || block.fail(); }
    size_t size() const { return block.size(); }

    // Hands the finished text over as a message buffer without copying it: the block is shrunk
    // to the text and its zero byte and becomes the buffer's data. Null when the stream failed
    // or a container is still open. The stream is empty afterwards.
    std::shared_ptr<buffer_info_t> release();

private:
    struct level {
        bool is_array;
        bool has_members;
    };

    void append(const char* bytes, size_t count);
    void append_escaped(const char* text);
    // The comma before a member that is not the first, and the quoted key inside objects.
    void begin_value(const char* name);
    void open(const char* name, bool array);

    growing_buffer block;
    // Set when the nesting was misused; running out of memory is the text's own failure.
    bool failed;
    std::vector<level> open_levels;
};

#endif
