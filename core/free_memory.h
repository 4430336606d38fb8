// Hands memory the process freed back to the system. A report of several megabytes is built and
// sent now and then; a router with 64 MB must not keep that much reserved between reports.
#ifndef ORVD_CORE_FREE_MEMORY_H
#define ORVD_CORE_FREE_MEMORY_H

// Returns free heap pages to the system where the C library can (glibc); elsewhere (uClibc,
// musl) it does nothing, since those give large blocks back when they are freed.
void return_free_memory();

#endif
