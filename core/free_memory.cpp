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
