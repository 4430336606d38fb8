#include "heap_probe.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
}

namespace {

// Constant-initialised: the wrappers run before any constructor and on every thread.
thread_local block_tracker* active = nullptr;

}  // namespace

block_tracker::block_tracker(size_t min_block_size) : min_size(min_block_size)
{
    active = this;
}

block_tracker::~block_tracker()
{
    active = nullptr;
}

void block_tracker::made(const void* result, size_t size)
{
    if (result == nullptr || size < min_size)
        return;
    if (tracked == nullptr)
        tracked = result;
    else
        ++others;
}

void block_tracker::moved(const void* from, const void* to, size_t size)
{
    if (from == nullptr) {
        made(to, size);
        return;
    }
    if (from == tracked && to != nullptr)
        tracked = to;
}

extern "C" void* __wrap_malloc(size_t size)
{
    void* result = __real_malloc(size);
    if (active != nullptr)
        active->made(result, size);
    return result;
}

extern "C" void* __wrap_calloc(size_t count, size_t size)
{
    void* result = __real_calloc(count, size);
    if (active != nullptr)
        active->made(result, count * size);
    return result;
}

extern "C" void* __wrap_realloc(void* block, size_t size)
{
    void* result = __real_realloc(block, size);
    if (active != nullptr)
        active->moved(block, result, size);
    return result;
}
