// Hands memory the process freed back to the system. A report of several megabytes is built and
// sent now and then; a router with 64 MB must not keep that much reserved between reports.
#ifndef ORVD_CORE_FREE_MEMORY_H
#define ORVD_CORE_FREE_MEMORY_H

// Returns free heap pages to the system where the C library can (glibc); elsewhere (uClibc,
// musl) it does nothing, since those give large blocks back when they are freed.
void return_free_memory();

// Makes every large block (128 KiB and more: a report, a long message) a mapping of its own,
// given back to the system when it is freed. glibc otherwise raises that threshold each time
// such a block is freed, so the next report would be built on the heap, copied as it grows and
// kept there afterwards. Called once at start-up; a no-op outside glibc.
void map_large_blocks_apart();

#endif
