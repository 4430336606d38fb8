#include "core/buffer_info.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cfg_tree.h"
#include "core/trace.h"

namespace {

constexpr unsigned row_bytes = 32;
// Large dumps keep their first 50 and last 49 whole rows.
constexpr unsigned rows_before_skipping = 401;
constexpr unsigned rows_kept = 50;
const char dump_title[] = "Buffer info dump:\n";
constexpr uint32_t largest_tree_dump = 64 * 1024;
const char skip_line[] = "\t....part of message are skipped...\n";

// Bytes are formatted through their signed value on purpose, so 0x80..0xFF print as eight
// hex digits ("FFFFFFFF "). The text is sized for that worst case: a tab, 32 groups of 9,
// four blanks, 32 raw characters and a newline.
constexpr size_t worst_row_length = 1 + row_bytes * 9 + 4 + row_bytes + 1;

class dump_text {
public:
    explicit dump_text(size_t size) : text(static_cast<char*>(calloc(size, 1))), capacity(size) {}
    ~dump_text() { free(text); }
    dump_text(const dump_text&) = delete;
    dump_text& operator=(const dump_text&) = delete;

    bool ok() const { return text != nullptr; }
    const char* c_str() const { return text; }

    void add(const char* format, int value)
    {
        if (length + 1 >= capacity)
            return;
        int written = snprintf(text + length, capacity - length, format, value);
        if (written > 0)
            length += std::min(static_cast<size_t>(written), capacity - length - 1);
    }

    void add_text(const char* piece)
    {
        for (; *piece != '\0' && length + 1 < capacity; ++piece)
            text[length++] = *piece;
    }

    // One row: hex column padded to 96 characters for short rows, four blanks, the raw bytes.
    void add_row(const char* bytes, unsigned count)
    {
        add_text("\t");
        for (unsigned i = 0; i < count; ++i)
            add("%02X ", static_cast<signed char>(bytes[i]));
        for (unsigned i = count; i < row_bytes; ++i)
            add_text("   ");
        add_text("    ");
        for (unsigned i = 0; i < count; ++i)
            add("%c", static_cast<signed char>(bytes[i]));
        add_text("\n");
    }

private:
    char* text;
    size_t capacity;
    size_t length = 0;
};

}  // namespace

buffer_info_t::buffer_info_t(const buffer_info_t& other) : data(nullptr), size(0)
{
    *this = other;
}

buffer_info_t::buffer_info_t(buffer_info_t&& other) noexcept : data(other.data), size(other.size)
{
    other.data = nullptr;
    other.size = 0;
}

buffer_info_t& buffer_info_t::operator=(const buffer_info_t& other)
{
    if (this == &other)
        return *this;
    size = other.size;
    data = static_cast<char*>(calloc(static_cast<size_t>(size) + 1, 1));
    if (data == nullptr) {
        size = 0;
        return *this;
    }
    if (other.data != nullptr && size > 0)
        memcpy(data, other.data, size);
    return *this;
}

buffer_info_t& buffer_info_t::operator=(buffer_info_t&& other) noexcept
{
    if (this == &other)
        return *this;
    data = other.data;
    size = other.size;
    other.data = nullptr;
    other.size = 0;
    return *this;
}

buffer_info_t::~buffer_info_t()
{
    flush();
}

char* buffer_info_t::append(const char* bytes, unsigned len)
{
    if (bytes == nullptr || len == 0)
        return data;
    // The size field is 32 bits wide: a total it cannot count is refused like a failed
    // allocation.
    const uint64_t new_size = static_cast<uint64_t>(size) + len;
    char* grown = nullptr;
    if (new_size < UINT32_MAX)
        grown = static_cast<char*>(realloc(data, static_cast<size_t>(new_size) + 1));
    if (grown == nullptr) {
        trace.error("%s:%d Can't alloc memory\n", "append", 133);
        return nullptr;
    }
    data = grown;
    memset(data + size, 0, static_cast<size_t>(len) + 1);
    memcpy(data + size, bytes, len);
    size = static_cast<uint32_t>(new_size);
    return data;
}

void buffer_info_t::flush()
{
    free(data);
    data = nullptr;
    size = 0;
}

void buffer_info_t::dump() const
{
    if (!trace.is_debug_enabled())
        return;

    // Large messages are cut in the dump. Re-serializing one as a tree would log it whole and
    // take about ten times its size while doing so (60 MB for the largest report): at debug
    // level a router would run out of memory. So only a message up to 64 KiB is offered to the
    // tree parser; a longer one gets the cut hexadecimal form.
    if (cfg_t* tree = size <= largest_tree_dump ? cfg_parse_buffer(data) : nullptr) {
        char* text = cfg_serialize(tree);
        trace.debug("Buffer info dump:\n%s", text != nullptr ? text : "");
        free(text);
        cfg_release(tree);
        return;
    }

    const unsigned rows = size / row_bytes;
    const unsigned rest = size % row_bytes;
    // Room for the rows written, not for all of them: a long message writes 99.
    const unsigned written_rows = rows >= rows_before_skipping ? 2 * rows_kept - 1 : rows;
    const size_t capacity =
        sizeof(dump_title) + sizeof(skip_line) + (static_cast<size_t>(written_rows) + 1) * worst_row_length + 1;
    dump_text text(capacity);
    if (!text.ok())
        return;

    text.add_text(dump_title);
    for (unsigned i = 0; i < rows; ++i) {
        if (rows >= rows_before_skipping) {
            if (i == rows_kept)
                text.add_text(skip_line);
            if (i >= rows_kept && i <= rows - rows_kept)
                continue;
        }
        text.add_row(data + static_cast<size_t>(i) * row_bytes, row_bytes);
    }
    if (rest > 0)
        text.add_row(data + static_cast<size_t>(rows) * row_bytes, rest);
    trace.debug("%s", text.c_str());
}
