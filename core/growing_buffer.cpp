#include "core/growing_buffer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

growing_buffer::growing_buffer(size_t first_capacity)
    : data(nullptr), length(0), capacity(0), failed(false)
{
    if (first_capacity > 0)
        reserve(first_capacity);
}

growing_buffer::~growing_buffer()
{
    free(data);
}

bool growing_buffer::reserve(size_t more)
{
    if (failed)
        return false;
    const size_t needed = length + more + 1;  // the zero byte that ends the text
    if (needed <= capacity)
        return true;
    // Growing by half again bounds both the number of copies and the unused tail.
    size_t grown = capacity + capacity / 2;
    if (grown < needed)
        grown = needed;
    char* block = static_cast<char*>(realloc(data, grown));
    if (block == nullptr) {
        failed = true;
        return false;
    }
    data = block;
    capacity = grown;
    return true;
}

bool growing_buffer::append(const char* bytes, size_t count)
{
    if (!reserve(count))
        return false;
    if (count > 0)
        memcpy(data + length, bytes, count);
    length += count;
    return true;
}

std::shared_ptr<buffer_info_t> growing_buffer::release()
{
    if (failed || length >= UINT32_MAX) {
        clear();
        return nullptr;
    }
    auto buffer = std::make_shared<buffer_info_t>();
    if (data != nullptr) {
        data[length] = '\0';
        // The queued message should hold no unused tail; a shrink that fails keeps the larger block.
        if (capacity > length + 1) {
            if (char* fitted = static_cast<char*>(realloc(data, length + 1)))
                data = fitted;
        }
        buffer->data = data;
        buffer->size = static_cast<uint32_t>(length);
    }
    data = nullptr;
    length = 0;
    capacity = 0;
    return buffer;
}

void growing_buffer::clear()
{
    free(data);
    data = nullptr;
    length = 0;
    capacity = 0;
    failed = false;
}
