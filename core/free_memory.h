// Gives heap memory that has been freed back to the system. The C library keeps freed memory
// in its arenas for reuse, so after a burst (the largest rf-environment report takes several
// megabytes for a moment) the process would stay that large for good. Called after such a
// burst, not on every free: trimming walks the whole heap.
#ifndef ORVD_CORE_FREE_MEMORY_H
#define ORVD_CORE_FREE_MEMORY_H

void return_free_memory();

#endif
