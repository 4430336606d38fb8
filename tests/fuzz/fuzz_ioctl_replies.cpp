// The driver's reply block as arbitrary bytes (count and records) handed to the four reply
// parsers, each parser reading records of its own size.
//
// The count each parser sees is held to the records the input supplies plus one: the records
// past the input are zeros whatever the count claims, and a count in the millions would spend
// every run parsing the whole 128 KiB block of zeros (about 300 runs a second instead of tens
// of thousands) without reaching new code. A count past the block's room, cut at the driver's
// limit, is the unit tests' case (tests/unit/driver). The block is the driver's full size, as
// the real driver's is; the records the input supplies are copied into it and cleared after.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "driver/ioctl_ops.h"
#include "neutral_driver.h"

namespace {

// The count the input claims, held to the records of `record_size` the input supplies plus one.
uint32_t held_count(uint32_t claimed, size_t supplied, size_t record_size)
{
    return static_cast<uint32_t>(std::min<size_t>(claimed, supplied / record_size + 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Kept across runs so that a run costs what its input holds, not a 128 KiB allocation.
    static auto* block = static_cast<vorna_command_t*>(std::calloc(1, sizeof(vorna_command_t)));
    static const neutral_driver driver;
    static ap_table table;
    static std::vector<rrm_sta_realtek> stations;
    if (block == nullptr)
        return 0;

    const size_t copied = std::min(size, sizeof(vorna_command_t));
    std::memcpy(block, data, copied);
    const uint32_t claimed = block->count;
    const size_t supplied = copied > vorna_command_header_size ? copied - vorna_command_header_size : 0;

    table.clear();
    block->count = held_count(claimed, supplied, sizeof(ap_info_t));
    const size_t ap_records = std::min<size_t>(block->count, vorna_max_ap_records);
    ioctl_ops::parse_scan_result(driver, *block, table);
    ioctl_ops::parse_rrm_scan_result(driver, *block, table);
    if (table.size() != 2 * ap_records)
        std::abort();

    stations.clear();
    block->count = held_count(claimed, supplied, sizeof(sta_info_t));
    ioctl_ops::parse_assoc_sta(*block, stations);
    if (stations.size() != std::min<size_t>(block->count, vorna_max_sta_records))
        std::abort();

    std::set<unsigned> channels;
    block->count = held_count(claimed, supplied, sizeof(uint32_t));
    ioctl_ops::parse_available_channels(*block, channels);
    if (channels.size() > std::min<size_t>(block->count, vorna_max_channel_records))
        std::abort();

    std::memset(block, 0, copied);
    return 0;
}
