#include "core/free_memory.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

void return_free_memory()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void map_large_blocks_apart()
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
}
