// The daemon's view of the Realtek driver's private requests: the request numbers, the one
// vendor command block and the reply records it carries. The driver reads and writes these
// bytes directly, so every layout is packed and pinned by static_asserts.
#ifndef ORVD_DRIVER_VORNA_COMMAND_H
#define ORVD_DRIVER_VORNA_COMMAND_H

// <net/if.h> first: <linux/wireless.h> then leaves struct ifreq and IFNAMSIZ to the C library.
#include <net/if.h>

#include <linux/wireless.h>

#include <cstddef>
#include <cstdint>

// Private requests of the driver, passed to ioctl() with a struct iwreq.
constexpr unsigned long RTL8192CD_IOCTL_SET_MIB = 0x89F1;  // data: "name=value", length strlen+1
constexpr unsigned long RTL8192CD_IOCTL_GET_MIB = 0x89F2;  // data: 2048-byte buffer, name in, value out
constexpr unsigned long VORNA_IOCTL_COMMAND = 0x8BBF;      // data: the vendor command block
static_assert(SIOCSIWSCAN == 0x8B18, "the RRM scan trigger is the wireless-extensions scan request");

// Size of the vendor command block the daemon allocates for every command.
constexpr unsigned int vorna_command_size = 0x1FFFE;  // 131070
constexpr unsigned int vorna_command_header_size = 8;
constexpr unsigned int vorna_command_data_size = vorna_command_size - vorna_command_header_size;
// The driver expects the low 16 bits of the block size in the request's length field, not
// the size itself (which does not fit the 16-bit field).
constexpr uint16_t vorna_command_length_field = 0xFFFE;
// execute() passes this to every fill function, which multiplies the block's room by it:
// the capacity the driver expects is twice the number of records that fit.
constexpr int vorna_capacity_multiplier = 2;

enum vorna_cmd_t : uint32_t {
    CMD_START_SCAN = 0,              // request: u16 channels, ascending; count = their number
    CMD_STOP_SCAN = 1,               // count 0
    CMD_GET_SCAN_RESULT = 2,         // reply: ap_info_t records (standard scan)
    CMD_GET_RRM_SCAN_RESULT = 3,     // reply: ap_info_t records (RRM scan)
    CMD_GET_ASSOC_STA = 4,           // reply: sta_info_t records
    CMD_GET_AVAILABLE_CHANNELS = 5,  // reply: u32 channel numbers
};

// The block, in host byte order: command, count, then requests or reply records.
struct __attribute__((packed)) vorna_command_t {
    uint32_t cmd;
    uint32_t count;
    unsigned char data[vorna_command_data_size];
};
static_assert(sizeof(vorna_command_t) == vorna_command_size, "one block of 131070 bytes");
static_assert(offsetof(vorna_command_t, cmd) == 0, "cmd at 0");
static_assert(offsetof(vorna_command_t, count) == 4, "count at 4");
static_assert(offsetof(vorna_command_t, data) == 8, "data at 8");

// One neighbour of a standard or an RRM scan. Each kind fills only its own fields.
struct __attribute__((packed)) ap_info_t {
    unsigned char bssid[6];
    unsigned char unused_6[2];
    int32_t rssi;
    int32_t channel;    // standard scan
    int32_t bandwidth;  // standard scan, MHz
    int32_t tx_power;   // RRM scan, quarter units
    uint16_t chanspec;  // RRM scan; bits 0x700 are the primary position in both kinds
    unsigned char unused_26[2];
};
static_assert(sizeof(ap_info_t) == 28, "ap_info_t is 28 bytes");
static_assert(offsetof(ap_info_t, rssi) == 8, "rssi at 8");
static_assert(offsetof(ap_info_t, channel) == 12, "channel at 12");
static_assert(offsetof(ap_info_t, bandwidth) == 16, "bandwidth at 16");
static_assert(offsetof(ap_info_t, tx_power) == 20, "tx_power at 20");
static_assert(offsetof(ap_info_t, chanspec) == 24, "chanspec at 24");

// One associated station: four per-chain readings of dBm + 100.
struct __attribute__((packed)) sta_info_t {
    unsigned char mac[6];
    unsigned char unused_6[2];
    int32_t rssi[4];
};
static_assert(sizeof(sta_info_t) == 24, "sta_info_t is 24 bytes");
static_assert(offsetof(sta_info_t, rssi) == 8, "readings from 8");

// How many records of each kind the block holds after its header.
constexpr unsigned int vorna_max_ap_records = vorna_command_data_size / sizeof(ap_info_t);      // 4680
constexpr unsigned int vorna_max_sta_records = vorna_command_data_size / sizeof(sta_info_t);    // 5460
constexpr unsigned int vorna_max_channel_records = vorna_command_data_size / sizeof(uint32_t);  // 32765
constexpr unsigned int vorna_max_scan_channels = vorna_command_data_size / sizeof(uint16_t);    // 65531
static_assert(vorna_max_ap_records == 4680 && vorna_max_sta_records == 5460 &&
                  vorna_max_channel_records == 32765,
              "records per block");

#endif
