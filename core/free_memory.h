// Gives heap memory that has been freed back to the system. The C library keeps freed memory
// in its arenas for reuse, so after a burst (the largest rf-environment report takes several
// megabytes for a moment) the process would stay that large for good. Called after such a
// burst, not on every free: trimming walks the whole heap.
#ifndef ORVD_CORE_FREE_MEMORY_H
#define ORVD_CORE_FREE_MEMORY_H

void return_free_memory();

// Makes every large block (128 KiB and more: a report, a long message) a mapping of its own,
// given back to the system when it is freed. glibc otherwise raises that threshold each time
// such a block is freed, so the next report would be built on the heap, copied as it grows and
// kept there afterwards. Called once at start-up; a no-op outside glibc.
void map_large_blocks_apart();

#endif
