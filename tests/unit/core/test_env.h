// Small helpers shared by the core tests.
#ifndef ORVD_TESTS_CORE_TEST_ENV_H
#define ORVD_TESTS_CORE_TEST_ENV_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVD_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORVD_SANITIZED_BUILD 1
#endif
#endif

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

// Limits the address space of the calling (child) process to what it uses now plus
// headroom, so that a larger allocation fails for real. Sanitizer runtimes reserve huge
// address ranges, so tests that use this are skipped in sanitizer builds.
inline bool limit_address_space(size_t headroom_bytes)
{
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr)
        return false;
    unsigned long pages = 0;
    const int got = fscanf(statm, "%lu", &pages);
    fclose(statm);
    if (got != 1)
        return false;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + headroom_bytes;
    const rlimit value{limit, limit};
    return setrlimit(RLIMIT_AS, &value) == 0;
}

#endif
