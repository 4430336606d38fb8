// What the emulated driver expects on the wire, written down here on its own from the
// driver's side: byte offsets and literal sizes, never the daemon's structures, so that a
// layout mistake in the daemon cannot be mirrored here and pass unseen.
#ifndef ORVD_SIM_VRTL_LAYOUT_H
#define ORVD_SIM_VRTL_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vrtl {

// Private request numbers.
constexpr unsigned long request_set_mib = 0x89F1;
constexpr unsigned long request_get_mib = 0x89F2;
constexpr unsigned long request_scan_trigger = 0x8B18;  // SIOCSIWSCAN
constexpr unsigned long request_vendor_command = 0x8BBF;

// The vendor command block: 131070 bytes; u32 command at 0, u32 count at 4, records from 8.
constexpr size_t block_bytes = 131070;
constexpr size_t block_command_offset = 0;
constexpr size_t block_count_offset = 4;
constexpr size_t block_records_offset = 8;
// The length field the driver insists on: the block's size cut to 16 bits.
constexpr unsigned block_length_field = 65534;

enum vendor_command : uint32_t {
    command_start_scan = 0,
    command_stop_scan = 1,
    command_get_scan_result = 2,
    command_get_rrm_scan_result = 3,
    command_get_assoc_sta = 4,
    command_get_available_channels = 5,
};

// The counts the driver expects in each request (twice the records that the block holds).
constexpr uint32_t expected_count_scan_result = 9360;
constexpr uint32_t expected_count_rrm_scan_result = 9360;
constexpr uint32_t expected_count_assoc_sta = 10920;
constexpr uint32_t expected_count_available_channels = 65530;

// A neighbour record: 28 bytes.
constexpr size_t ap_record_bytes = 28;
constexpr size_t ap_bssid_offset = 0;
constexpr size_t ap_rssi_offset = 8;
constexpr size_t ap_channel_offset = 12;
constexpr size_t ap_bandwidth_offset = 16;
constexpr size_t ap_tx_power_offset = 20;
constexpr size_t ap_chanspec_offset = 24;  // 16 bits

// A station record: 24 bytes, four 32-bit readings of dBm + 100.
constexpr size_t sta_record_bytes = 24;
constexpr size_t sta_mac_offset = 0;
constexpr size_t sta_readings_offset = 8;

// A channel record: one u32. A channel of a start-scan request: one u16.
constexpr size_t channel_record_bytes = 4;
constexpr size_t scan_channel_bytes = 2;

// Records that fit behind the block's header; a reply never holds more.
constexpr size_t max_ap_records = 4680;
constexpr size_t max_sta_records = 5460;
constexpr size_t max_channel_records = 32765;
constexpr size_t max_scan_channels = 65531;
static_assert(max_ap_records * ap_record_bytes <= block_bytes - block_records_offset &&
                  (max_ap_records + 1) * ap_record_bytes > block_bytes - block_records_offset,
              "neighbour records per block");
static_assert(max_sta_records * sta_record_bytes <= block_bytes - block_records_offset &&
                  (max_sta_records + 1) * sta_record_bytes > block_bytes - block_records_offset,
              "station records per block");
static_assert(max_channel_records * channel_record_bytes <= block_bytes - block_records_offset &&
                  (max_channel_records + 1) * channel_record_bytes > block_bytes - block_records_offset,
              "channel records per block");

// MIB requests.
constexpr unsigned mib_get_buffer_bytes = 2048;

// Host byte order, through memcpy: the block has no alignment to rely on.
template <typename T>
inline void put(unsigned char* block, size_t offset, T value)
{
    std::memcpy(block + offset, &value, sizeof value);
}

template <typename T>
inline T get(const unsigned char* block, size_t offset)
{
    T value;
    std::memcpy(&value, block + offset, sizeof value);
    return value;
}

}  // namespace vrtl

#endif
