#include "driver/ioctl_ops.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/trace.h"

namespace {

constexpr size_t mib_buffer_size = 2048;

// Records of `record_size` bytes the reply claims, cut to what the block holds.
unsigned int records_in_block(const vorna_command_t& reply, size_t record_size)
{
    const size_t room = sizeof reply.data / record_size;
    return static_cast<unsigned int>(std::min<size_t>(reply.count, room));
}

// The room of a block of `size` bytes for records of `record_size`, times the multiplier.
uint32_t capacity(int multiplier, unsigned int size, size_t record_size)
{
    const size_t room =
        size > vorna_command_header_size ? (size - vorna_command_header_size) / record_size : 0;
    return static_cast<uint32_t>(room * static_cast<size_t>(multiplier));
}

}  // namespace

ioctl_ops::ioctl_ops(const driver_interface& new_driver, std::string ifname)
{
    std::memset(&req, 0, sizeof req);
    assign(new_driver, ifname);
}

ioctl_ops::~ioctl_ops()
{
    reset();
}

int ioctl_ops::assign(const driver_interface& new_driver, const std::string& ifname)
{
    reset();
    driver = &new_driver;
    std::memset(req.ifr_name, 0, sizeof req.ifr_name);
    const size_t length = std::min<size_t>(ifname.size(), IFNAMSIZ - 1);
    std::memcpy(req.ifr_name, ifname.data(), length);
    sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        trace.error("<%s:%d> cannot create socket for the ioctl call(errno = %s)\n", __func__, __LINE__,
                    std::strerror(errno));
        return -1;
    }
    return 0;
}

void ioctl_ops::reset()
{
    if (sock >= 0)
        close(sock);
    sock = -1;
}

int ioctl_ops::execute(vorna_cmd_t cmd, std::function<void(vorna_command_t&, int, unsigned int)> fill,
                       std::function<void()> parse)
{
    if (sock < 0) {
        trace.warn("<%s:%d> socket for action by ioctl aren't created\n", __func__, __LINE__);
        return -2;
    }
    auto* block = static_cast<vorna_command_t*>(std::calloc(1, vorna_command_size));
    if (block == nullptr) {
        trace.error("<%s:%d> cannot allocate memory for the Vorna command structure(errno = %s)\n", __func__,
                    __LINE__, std::strerror(errno));
        return -1;
    }
    block->cmd = cmd;
    fill(*block, vorna_capacity_multiplier, vorna_command_size);

    std::memset(&req.u, 0, sizeof req.u);
    req.u.data.pointer = block;
    req.u.data.length = vorna_command_length_field;
    req.u.data.flags = 0;

    int result = 0;
    if (ioctl(sock, VORNA_IOCTL_COMMAND, &req) < 0) {
        trace.error("<%s:%d> cannot execute command(errno = %s)(command = %d)\n", __func__, __LINE__,
                    std::strerror(errno), static_cast<int>(cmd));
        result = -1;
    } else {
        parse();
    }
    std::free(block);
    return result;
}

int ioctl_ops::set_mib(const std::string& name, const std::string& value)
{
    std::string text = name + "=" + value;
    std::memset(&req.u, 0, sizeof req.u);
    req.u.data.pointer = &text[0];
    req.u.data.length = static_cast<uint16_t>(std::strlen(text.c_str()) + 1);
    if (ioctl(sock, RTL8192CD_IOCTL_SET_MIB, &req) < 0) {
        trace.error("<%s:%d> cannot set MIB parametr '%s=%s'(errno = %s)()\n", __func__, __LINE__,
                    name.c_str(), value.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

int ioctl_ops::get_mib(const char* name, void* out)
{
    auto* buffer = static_cast<char*>(std::malloc(mib_buffer_size));
    if (buffer == nullptr) {
        trace.error("<%s:%d> cannot allocate memory for RTL8192CD_IOCTL_GET_MIB request\n", __func__,
                    __LINE__);
        return -1;
    }
    std::memset(buffer, 0, mib_buffer_size);
    std::memcpy(buffer, name, std::min(std::strlen(name), mib_buffer_size - 1));

    std::memset(&req.u, 0, sizeof req.u);
    req.u.data.pointer = buffer;
    req.u.data.length = mib_buffer_size;
    const int rc = ioctl(sock, RTL8192CD_IOCTL_GET_MIB, &req);
    if (rc < 0) {
        const int error = errno;
        trace.error("<%s:%d> cannot get MIB parametr '%s'(errno = (%d)%s)(rc == %d)\n", __func__, __LINE__,
                    name, error, std::strerror(error), rc);
        std::free(buffer);
        return -1;
    }
    // The driver leaves the value's size in the length field.
    std::memcpy(out, buffer, std::min<size_t>(req.u.data.length, mib_buffer_size));
    std::free(buffer);
    return rc;
}

int ioctl_ops::start_scan(const std::set<unsigned>& channels)
{
    return execute(
        CMD_START_SCAN,
        [&channels](vorna_command_t& block, int, unsigned int size) {
            fill_start_scan(block, channels, size);
        },
        [] {});
}

int ioctl_ops::stop_scan()
{
    return execute(
        CMD_STOP_SCAN, [](vorna_command_t& block, int, unsigned int) { block.count = 0; }, [] {});
}

int ioctl_ops::start_rrm_scan(unsigned channel)
{
    if (sock < 0) {
        trace.warn("<%s:%d> socket for action by ioctl aren't created\n", __func__, __LINE__);
        return -2;
    }
    if (set_mib("rrm_scan_chan", std::to_string(channel)) != 0)
        return 0;
    std::memset(&req.u, 0, sizeof req.u);
    if (ioctl(sock, SIOCSIWSCAN, &req) < 0) {
        trace.error("<%s:%d> cannot start RRM scanning(errno = %s)\n", __func__, __LINE__,
                    std::strerror(errno));
        return -1;
    }
    return 0;
}

int ioctl_ops::stop_rrm_scan()
{
    if (sock < 0) {
        trace.warn("<%s:%d> socket for action by ioctl aren't created\n", __func__, __LINE__);
        return -2;
    }
    if (set_mib("rrm_scan_started", "0") != 0) {
        trace.error("<%s:%d> cannot stop RRM scanning\n", __func__, __LINE__);
        return -1;
    }
    return 0;
}

int ioctl_ops::get_scan_result(ap_table& table)
{
    return execute(CMD_GET_SCAN_RESULT, fill_scan_result,
                   [this, &table] { parse_scan_result(*driver, reply(), table); });
}

int ioctl_ops::get_rrm_scan_result(ap_table& table)
{
    return execute(CMD_GET_RRM_SCAN_RESULT, fill_scan_result,
                   [this, &table] { parse_rrm_scan_result(*driver, reply(), table); });
}

int ioctl_ops::get_assoc_sta(std::vector<rrm_sta_realtek>& stations)
{
    return execute(CMD_GET_ASSOC_STA, fill_assoc_sta,
                   [this, &stations] { parse_assoc_sta(reply(), stations); });
}

int ioctl_ops::get_available_channels(std::set<unsigned>& channels)
{
    return execute(CMD_GET_AVAILABLE_CHANNELS, fill_available_channels,
                   [this, &channels] { parse_available_channels(reply(), channels); });
}

const vorna_command_t& ioctl_ops::reply() const
{
    // The driver answers in the block that the request pointed at.
    return *static_cast<const vorna_command_t*>(req.u.data.pointer);
}

void ioctl_ops::fill_start_scan(vorna_command_t& block, const std::set<unsigned>& channels, unsigned int size)
{
    block.count = static_cast<uint32_t>(channels.size());
    // A set is ascending already. The count is the set's size as it is; the channels are
    // written only as far as the block reaches.
    const size_t room =
        size > vorna_command_header_size ? (size - vorna_command_header_size) / sizeof(uint16_t) : 0;
    size_t index = 0;
    for (unsigned channel : channels) {
        if (index >= room)
            break;
        const auto value = static_cast<uint16_t>(channel);
        std::memcpy(block.data + index * sizeof value, &value, sizeof value);
        ++index;
    }
}

void ioctl_ops::fill_scan_result(vorna_command_t& block, int multiplier, unsigned int size)
{
    block.count = capacity(multiplier, size, sizeof(ap_info_t));
}

void ioctl_ops::fill_assoc_sta(vorna_command_t& block, int multiplier, unsigned int size)
{
    block.count = capacity(multiplier, size, sizeof(sta_info_t));
}

void ioctl_ops::fill_available_channels(vorna_command_t& block, int multiplier, unsigned int size)
{
    block.count = capacity(multiplier, size, sizeof(uint32_t));
}

void ioctl_ops::parse_scan_result(const driver_interface& driver, const vorna_command_t& reply,
                                  ap_table& table)
{
    // At most 4680 records fit, so a 16-bit index suffices.
    const auto records = static_cast<uint16_t>(records_in_block(reply, sizeof(ap_info_t)));
    if (records == 0) {
        trace.info("<%s:%d> scanning result are absent\n", __func__, __LINE__);
        return;
    }
    for (uint16_t i = 0; i < records; ++i) {
        ap_info_t ap;
        std::memcpy(&ap, reply.data + i * sizeof ap, sizeof ap);
        table.emplace_back(driver, ap, scan_result_entry::STANDARD_SCAN);
    }
}

void ioctl_ops::parse_rrm_scan_result(const driver_interface& driver, const vorna_command_t& reply,
                                      ap_table& table)
{
    const auto records = static_cast<uint16_t>(records_in_block(reply, sizeof(ap_info_t)));
    if (records == 0) {
        trace.info("<%s:%d> rrm scanning result are absent\n", __func__, __LINE__);
        return;
    }
    for (uint16_t i = 0; i < records; ++i) {
        ap_info_t ap;
        std::memcpy(&ap, reply.data + i * sizeof ap, sizeof ap);
        table.emplace_back(driver, ap, scan_result_entry::RRM_SCAN);
    }
}

void ioctl_ops::parse_assoc_sta(const vorna_command_t& reply, std::vector<rrm_sta_realtek>& stations)
{
    const unsigned int records = records_in_block(reply, sizeof(sta_info_t));
    if (records == 0) {
        trace.info("<%s:%d> associated clients are absent\n", __func__, __LINE__);
        return;
    }
    for (unsigned int i = 0; i < records; ++i) {
        sta_info_t info;
        std::memcpy(&info, reply.data + i * sizeof info, sizeof info);
        trace.debug("mac == %02x:%02x:%02x:%02x:%02x:%02x\n", info.mac[0], info.mac[1], info.mac[2],
                    info.mac[3], info.mac[4], info.mac[5]);
        stations.emplace_back(info);
    }
}

void ioctl_ops::parse_available_channels(const vorna_command_t& reply, std::set<unsigned>& channels)
{
    const unsigned int records = records_in_block(reply, sizeof(uint32_t));
    if (records == 0) {
        // Unlike an empty scan or station list, a radio without channels is a fault.
        trace.error("<%s:%d> available channels data are absent\n", __func__, __LINE__);
        return;
    }
    for (unsigned int i = 0; i < records; ++i) {
        uint32_t channel;
        std::memcpy(&channel, reply.data + i * sizeof channel, sizeof channel);
        channels.insert(channel);
    }
}
