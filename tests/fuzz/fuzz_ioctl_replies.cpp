// The driver's reply block as arbitrary bytes (count and records, any count) handed to the four
// reply parsers. The block is allocated at its exact size, so a read past its end, whatever the
// count claims, is caught by the address sanitizer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "driver/ioctl_ops.h"
#include "neutral_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    auto* block = static_cast<vorna_command_t*>(std::calloc(1, sizeof(vorna_command_t)));
    if (block == nullptr)
        return 0;
    std::memcpy(block, data, std::min(size, sizeof(vorna_command_t)));

    // Kept across runs (emptied each time) so that long replies cost no reallocation.
    static const neutral_driver driver;
    static ap_table table;
    static std::vector<rrm_sta_realtek> stations;
    table.clear();
    stations.clear();
    ioctl_ops::parse_scan_result(driver, *block, table);
    ioctl_ops::parse_rrm_scan_result(driver, *block, table);
    ioctl_ops::parse_assoc_sta(*block, stations);
    std::set<unsigned> channels;
    ioctl_ops::parse_available_channels(*block, channels);

    // Every parser reads the same count, cut to what the block holds.
    const size_t records = std::min<size_t>(block->count, vorna_max_ap_records);
    if (table.size() != 2 * records ||
        stations.size() != std::min<size_t>(block->count, vorna_max_sta_records))
        std::abort();
    std::free(block);
    return 0;
}
