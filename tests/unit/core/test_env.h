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

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <utility>
#include <vector>

// Limits the address space of the calling (child) process to what it uses now plus
// headroom, so that a larger allocation fails for real. Sanitizer runtimes reserve huge
// address ranges, so tests that use this are skipped in sanitizer builds.
//
// On a 32-bit CPU the rest of the address space is filled with reservations instead, all but
// `headroom_bytes` of it: that holds on a device and under qemu-user alike, which accepts
// RLIMIT_AS and does not apply it (the limit would bind the emulator itself).
inline bool fill_address_space(size_t headroom_bytes)
{
    std::vector<std::pair<void*, size_t>> taken;
    for (size_t size = size_t(256) << 20; size >= (size_t(64) << 10); size /= 2) {
        for (;;) {
            void* at = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (at == MAP_FAILED)
                break;
            taken.emplace_back(at, size);
        }
    }
    // The smallest reservations go back until the headroom is free: no hole of the size a
    // test asks for appears.
    size_t freed = 0;
    while (freed < headroom_bytes && !taken.empty()) {
        munmap(taken.back().first, taken.back().second);
        freed += taken.back().second;
        taken.pop_back();
    }
    return freed >= headroom_bytes;
}

inline bool limit_address_space(size_t headroom_bytes)
{
    if (sizeof(void*) == 4)
        return fill_address_space(headroom_bytes);
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
