// Freed heap memory goes back to the system when asked, so a burst does not leave the process
// large for good.
#include "core/free_memory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVD_OWN_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORVD_OWN_ALLOCATOR 1
#endif
#endif

// Private dirty memory of this process in KiB; -1 when the kernel does not tell.
[[maybe_unused]] long private_dirty_kib()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    std::string line;
    while (std::getline(rollup, line)) {
        if (line.compare(0, 14, "Private_Dirty:") == 0)
            return std::strtol(line.c_str() + 14, nullptr, 10);
    }
    return -1;
}

TEST(free_memory, freed_small_blocks_below_a_live_one_go_back_to_the_system)
{
#if defined(ORVD_OWN_ALLOCATOR) || !defined(__GLIBC__) || defined(__UCLIBC__)
    GTEST_SKIP() << "only glibc's own allocator keeps freed pages until asked";
#else
    if (private_dirty_kib() < 0)
        GTEST_SKIP() << "no /proc/self/smaps_rollup";
    // 64 MiB in 1 KiB blocks, every byte touched; the last block stays, so that the freed ones
    // lie below a live block and free() alone cannot give them back.
    std::vector<char*> blocks;
    for (int i = 0; i < 65536; ++i) {
        char* block = static_cast<char*>(malloc(1024));
        ASSERT_NE(block, nullptr);
        memset(block, 0x5A, 1024);
        blocks.push_back(block);
    }
    // The last block was carved from the top of the heap after all the others.
    char* live = blocks.back();
    blocks.pop_back();
    for (char* block : blocks)
        free(block);
    const long before = private_dirty_kib();
    return_free_memory();
    const long after = private_dirty_kib();
    free(live);
    EXPECT_GE(before - after, 32L * 1024) << "before " << before << " KiB, after " << after << " KiB";
#endif
}

}  // namespace
