#include "core/free_memory.h"

// Any C library header: it tells which C library this is (__GLIBC__, __UCLIBC__).
#include <cstdlib>

#if defined(__GLIBC__) && !defined(__UCLIBC__)
#include <malloc.h>
#endif

void return_free_memory()
{
    // glibc keeps freed pages in every thread's arena until asked; malloc_trim(0) returns the
    // free pages of all arenas, not only the top of the main heap. uClibc also defines __GLIBC__
    // but has no malloc_trim in every configuration, and musl returns large blocks by itself,
    // so elsewhere there is nothing to do.
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    malloc_trim(0);
#endif
}

void map_large_blocks_apart()
{
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
}
