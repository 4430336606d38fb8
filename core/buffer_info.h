// One message moved between worker threads: an owned byte buffer that is always followed by
// a zero byte, so that its payload can be read as text.
#ifndef ORVD_CORE_BUFFER_INFO_H
#define ORVD_CORE_BUFFER_INFO_H

#include <cstdint>

struct buffer_info_t {
    char* data = nullptr;  // malloc family; null when empty
    uint32_t size = 0;     // payload bytes, not counting the zero byte that follows them

    buffer_info_t() = default;
    buffer_info_t(const buffer_info_t& other);
    buffer_info_t(buffer_info_t&& other) noexcept;
    // Both assignments are only used on freshly made buffers and do not release what the
    // target held before.
    buffer_info_t& operator=(const buffer_info_t& other);
    buffer_info_t& operator=(buffer_info_t&& other) noexcept;
    ~buffer_info_t();

    // Appends len bytes (exact growth). Returns the new data, the unchanged data when there
    // is nothing to append, or null when the memory cannot be had (the buffer is kept).
    char* append(const char* bytes, unsigned len);
    void flush();
    // Writes the contents to the debug log: re-serialized when it is configuration-tree
    // text, else as a hexadecimal dump.
    void dump() const;
};

#endif
