// Follows one heap block of the program's own code through realloc. unit_transport is linked
// with --wrap=malloc,--wrap=calloc,--wrap=realloc, so every allocation of the daemon's static
// libraries and of the tests passes through the probe on its way to the C library (or to a
// sanitizer's allocator).
#ifndef ORVD_TESTS_UNIT_TRANSPORT_HEAP_PROBE_H
#define ORVD_TESTS_UNIT_TRANSPORT_HEAP_PROBE_H

#include <cstddef>

// While it lives, on the thread that made it: the first block of at least `min_size` bytes
// that malloc, calloc or realloc of a null pointer hands out is the tracked block, and a
// realloc of the tracked block makes its result the tracked block. Any other block of that
// size made meanwhile is only counted. One tracker per thread at a time.
class block_tracker {
public:
    explicit block_tracker(size_t min_size);
    ~block_tracker();
    block_tracker(const block_tracker&) = delete;
    block_tracker& operator=(const block_tracker&) = delete;

    // Where the tracked block is now; null before there is one.
    const void* block() const { return tracked; }
    // Blocks of at least min_size made besides the tracked one.
    size_t other_blocks() const { return others; }

    // Called by the allocation wrappers only.
    void made(const void* result, size_t size);
    void moved(const void* from, const void* to, size_t size);

private:
    size_t min_size;
    const void* tracked = nullptr;
    size_t others = 0;
};

#endif
