// A message put together piece by piece in one malloc block that grows by half when full, and
// handed over as a buffer_info_t without a copy. buffer_info_t::append grows exactly, which is
// right for small messages but copies the whole message on every piece wherever realloc cannot
// remap (a sanitizer's allocator, some embedded C libraries): 16 MiB read in 4 KiB pieces would
// copy about 32 GB. Used for the report's text and for messages read from the service.
#ifndef ORVD_CORE_GROWING_BUFFER_H
#define ORVD_CORE_GROWING_BUFFER_H

#include <cstddef>
#include <memory>

#include "core/buffer_info.h"

class growing_buffer {
public:
    // `first_capacity` is the first block's size (0: none until the first append).
    explicit growing_buffer(size_t first_capacity = 0);
    ~growing_buffer();
    growing_buffer(const growing_buffer&) = delete;
    growing_buffer& operator=(const growing_buffer&) = delete;

    // False once memory ran out; from then on nothing is added until clear().
    bool append(const char* bytes, size_t count);
    bool fail() const { return failed; }
    size_t size() const { return length; }

    // The bytes as a message buffer, shrunk to them and their zero byte; null when memory ran
    // out or the size does not fit the buffer's 32-bit count. Empty and usable again afterwards.
    std::shared_ptr<buffer_info_t> release();
    // Frees the block and forgets a failure.
    void clear();

private:
    bool reserve(size_t more);

    char* data;
    size_t length;
    size_t capacity;
    bool failed;
};

#endif
