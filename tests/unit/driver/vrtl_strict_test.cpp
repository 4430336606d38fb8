// The emulated driver refuses every request that differs from what the driver expects, with
// EINVAL and one "vrtl:" line on standard error.
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "driver_test_support.h"
#include "vrtl_state.h"

namespace {

using driver_test::make_request;
using driver_test::raw_socket;
using driver_test::stderr_capture;

constexpr unsigned long set_mib = 0x89F1;
constexpr unsigned long get_mib = 0x89F2;
constexpr unsigned long scan_trigger = 0x8B18;
constexpr unsigned long vendor_command = 0x8BBF;

// A zeroed 131070-byte block with a command and a count.
std::vector<unsigned char> command_block(uint32_t command, uint32_t count)
{
    std::vector<unsigned char> block(131070, 0);
    std::memcpy(block.data(), &command, 4);
    std::memcpy(block.data() + 4, &count, 4);
    return block;
}

class vrtl_strict_test : public driver_test::driver_fixture {
protected:
    void SetUp() override
    {
        driver_fixture::SetUp();
        write_state("wlan0", R"({"chanspec": 4358, "available_channels": [1, 6, 11],
                                 "scan_results": [], "stations": {"wlan0-va0": []}, "mibs": {}})");
    }

    // Sends a vendor command; the result, with errno in `error`.
    int send_command(const char* ifname, std::vector<unsigned char>& block, unsigned length, int* error)
    {
        struct iwreq req = make_request(ifname);
        req.u.data.pointer = block.data();
        req.u.data.length = static_cast<uint16_t>(length);
        errno = 0;
        const int result = ioctl(sock.fd(), vendor_command, &req);
        *error = errno;
        return result;
    }

    // Expects a refusal with EINVAL and one vrtl line that contains `what`.
    void expect_refused(const char* ifname, std::vector<unsigned char> block, const std::string& what,
                        unsigned length = 0xFFFE)
    {
        const std::vector<unsigned char> before = block;
        stderr_capture errors;
        int error = 0;
        EXPECT_EQ(send_command(ifname, block, length, &error), -1) << what;
        EXPECT_EQ(error, EINVAL) << what;
        const std::string text = errors.text();
        EXPECT_EQ(text.rfind("vrtl: ", 0), 0u) << text;
        EXPECT_NE(text.find(what), std::string::npos) << text;
        EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
        EXPECT_TRUE(block == before) << "a refused request leaves the block alone";
    }

    raw_socket sock;
};

TEST_F(vrtl_strict_test, a_length_field_other_than_0xfffe_is_refused)
{
    expect_refused("wlan0", command_block(2, 9360),
                   "VENDOR_COMMAND (0x8bbf): length field 65535, expected 65534", 0xFFFF);
    expect_refused("wlan0", command_block(2, 9360), "length field 0, expected 65534", 0);
}

TEST_F(vrtl_strict_test, a_count_other_than_the_expected_capacity_is_refused)
{
    expect_refused("wlan0", command_block(1, 1), "command 1 with count 1, expected 0");
    expect_refused("wlan0", command_block(2, 4680), "command 2 with count 4680, expected 9360");
    expect_refused("wlan0", command_block(3, 9361), "command 3 with count 9361, expected 9360");
    expect_refused("wlan0-va0", command_block(4, 5460), "command 4 with count 5460, expected 10920");
    expect_refused("wlan0", command_block(5, 32765), "command 5 with count 32765, expected 65530");
}

TEST_F(vrtl_strict_test, an_unknown_command_is_refused)
{
    expect_refused("wlan0", command_block(6, 0), "unknown command 6");
}

TEST_F(vrtl_strict_test, a_null_data_pointer_is_refused)
{
    stderr_capture errors;
    struct iwreq req = make_request("wlan0");
    req.u.data.length = 0xFFFE;
    EXPECT_EQ(ioctl(sock.fd(), vendor_command, &req), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(errors.text().find("vrtl: wlan0: VENDOR_COMMAND (0x8bbf): the data pointer is null"),
              std::string::npos);
}

TEST_F(vrtl_strict_test, scan_channels_must_be_ascending_non_zero_and_distinct)
{
    auto with_channels = [](std::vector<uint16_t> channels, uint32_t count) {
        auto block = command_block(0, count);
        std::memcpy(block.data() + 8, channels.data(), 2 * channels.size());
        return block;
    };
    expect_refused("wlan0", with_channels({6, 1}, 2), "START_SCAN channel 1 at index 1");
    expect_refused("wlan0", with_channels({1, 1}, 2), "START_SCAN channel 1 at index 1");
    expect_refused("wlan0", with_channels({0, 1}, 2), "START_SCAN channel 0 at index 0");
    // A count beyond the channels given reads the zero after them.
    expect_refused("wlan0", with_channels({1, 6}, 3), "START_SCAN channel 0 at index 2");
    expect_refused("wlan0", with_channels({1}, 65532), "count 65532 exceeds");

    auto block = with_channels({1, 6, 11, 200}, 3);
    int error = 0;
    ASSERT_EQ(send_command("wlan0", block, 0xFFFE, &error), 0);
    EXPECT_EQ(vrtl::read_value("wlan0", "last_scan_channels"), "[1,6,11]");
}

TEST_F(vrtl_strict_test, stations_come_from_a_vap_and_everything_else_from_the_radio)
{
    expect_refused("wlan0", command_block(4, 10920), "needs a VAP interface");
    expect_refused("wlan0-va0", command_block(2, 9360), "command 2 needs the radio interface");
    expect_refused("wlan0-va0", command_block(0, 0), "command 0 needs the radio interface");
    expect_refused("wlan0-va0", command_block(5, 65530), "command 5 needs the radio interface");
}

TEST_F(vrtl_strict_test, a_mib_write_needs_its_exact_length_and_an_equals_sign)
{
    char text[] = "rrm_scan_chan=36";
    struct iwreq req = make_request("wlan0");
    req.u.data.pointer = text;
    for (const unsigned length : {16u, 18u, 0u}) {
        stderr_capture errors;
        req.u.data.length = static_cast<uint16_t>(length);
        EXPECT_EQ(ioctl(sock.fd(), set_mib, &req), -1) << length;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(errors.text().rfind("vrtl: wlan0: SET_MIB (0x89f1): length field", 0), 0u) << errors.text();
    }
    char no_equals[] = "rrm_scan_chan";
    req.u.data.pointer = no_equals;
    req.u.data.length = sizeof no_equals;
    stderr_capture errors;
    EXPECT_EQ(ioctl(sock.fd(), set_mib, &req), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(errors.text().find("is not name=value"), std::string::npos);
    EXPECT_EQ(vrtl::read_value("wlan0", "mibs"), "{}");
}

TEST_F(vrtl_strict_test, a_mib_read_needs_a_2048_byte_buffer_with_a_known_terminated_name)
{
    std::vector<char> buffer(2048, 0);
    std::strcpy(buffer.data(), "chanspec");
    struct iwreq req = make_request("wlan0");
    req.u.data.pointer = buffer.data();
    {
        req.u.data.length = 2047;
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), get_mib, &req), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(errors.text().find("vrtl: wlan0: GET_MIB (0x89f2): length field 2047, expected 2048"),
                  std::string::npos);
    }
    {
        std::vector<char> unterminated(2048, 'a');
        req.u.data.pointer = unterminated.data();
        req.u.data.length = 2048;
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), get_mib, &req), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(errors.text().find("not terminated"), std::string::npos);
    }
    {
        std::strcpy(buffer.data(), "no_such_mib");
        req.u.data.pointer = buffer.data();
        req.u.data.length = 2048;
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), get_mib, &req), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(errors.text().find("unknown MIB \"no_such_mib\""), std::string::npos);
    }
    std::strcpy(buffer.data(), "chanspec");
    ASSERT_EQ(ioctl(sock.fd(), get_mib, &req), 0);
    EXPECT_EQ(req.u.data.length, 4u);
    int32_t value = 0;
    std::memcpy(&value, buffer.data(), 4);
    EXPECT_EQ(value, 4358);
}

TEST_F(vrtl_strict_test, the_scan_trigger_carries_no_data_and_needs_a_valid_scan_channel)
{
    struct iwreq req = make_request("wlan0");
    char byte = 0;
    req.u.data.pointer = &byte;
    {
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), scan_trigger, &req), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(errors.text().find("vrtl: wlan0: SIOCSIWSCAN (0x8b18): SIOCSIWSCAN carries no data"),
                  std::string::npos);
    }
    req = make_request("wlan0");
    req.u.data.length = 1;
    {
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), scan_trigger, &req), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    req = make_request("wlan0");
    {
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), scan_trigger, &req), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(errors.text().find("rrm_scan_chan \"(unset)\""), std::string::npos);
    }
    char text[] = "rrm_scan_chan=11";
    struct iwreq mib = make_request("wlan0");
    mib.u.data.pointer = text;
    mib.u.data.length = sizeof text;
    ASSERT_EQ(ioctl(sock.fd(), set_mib, &mib), 0);
    ASSERT_EQ(ioctl(sock.fd(), scan_trigger, &req), 0);
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.rrm_scan_trigger"), "1");
}

TEST_F(vrtl_strict_test, an_rrm_scan_on_channel_zero_is_accepted_and_hears_nobody)
{
    write_state("wlan0", R"({"chanspec": 4358, "available_channels": [1, 6, 11], "mibs": {},
                             "rrm_scan_results": [{"bssid": "00:11:22:33:44:55", "rssi": -60,
                                                   "chanspec": 4358, "tx_power": 68}]})");
    auto rrm_records = [this] {
        auto block = command_block(3, 9360);
        int error = 0;
        EXPECT_EQ(send_command("wlan0", block, 0xFFFE, &error), 0) << error;
        uint32_t count = 0;
        std::memcpy(&count, block.data() + 4, 4);
        return count;
    };
    auto trigger_on = [this](const char* channel) {
        std::string text = std::string("rrm_scan_chan=") + channel;
        struct iwreq mib = make_request("wlan0");
        mib.u.data.pointer = &text[0];
        mib.u.data.length = static_cast<uint16_t>(text.size() + 1);
        EXPECT_EQ(ioctl(sock.fd(), set_mib, &mib), 0);
        struct iwreq req = make_request("wlan0");
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), scan_trigger, &req), 0) << errors.text();
        EXPECT_EQ(errors.text(), "");
    };
    EXPECT_EQ(rrm_records(), 1u);  // before any measurement: what the state holds

    trigger_on("0");
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.rrm_scan_trigger"), "1");
    EXPECT_EQ(vrtl::read_value("wlan0", "mibs.rrm_scan_started"), "\"1\"");
    EXPECT_EQ(vrtl::read_value("wlan0", "last_rrm_scan_channel"), "0");
    EXPECT_EQ(rrm_records(), 0u);

    trigger_on("6");
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.rrm_scan_trigger"), "2");
    EXPECT_EQ(vrtl::read_value("wlan0", "last_rrm_scan_channel"), "6");
    EXPECT_EQ(rrm_records(), 1u);
}

TEST_F(vrtl_strict_test, an_rrm_scan_channel_that_is_not_plain_decimal_is_still_refused)
{
    for (const char* channel : {"00", "-0", " 0", "0x0", "2"}) {
        std::string text = std::string("rrm_scan_chan=") + channel;
        struct iwreq mib = make_request("wlan0");
        mib.u.data.pointer = &text[0];
        mib.u.data.length = static_cast<uint16_t>(text.size() + 1);
        ASSERT_EQ(ioctl(sock.fd(), set_mib, &mib), 0);
        struct iwreq req = make_request("wlan0");
        stderr_capture errors;
        EXPECT_EQ(ioctl(sock.fd(), scan_trigger, &req), -1) << channel;
        EXPECT_EQ(errno, EINVAL) << channel;
    }
    EXPECT_EQ(vrtl::read_value("wlan0", "counters.rrm_scan_trigger"), "");
}

TEST_F(vrtl_strict_test, an_interface_without_state_does_not_exist)
{
    stderr_capture errors;
    auto block = command_block(2, 9360);
    int error = 0;
    EXPECT_EQ(send_command("wlan7", block, 0xFFFE, &error), -1);
    EXPECT_EQ(error, ENODEV);
    EXPECT_EQ(errors.text(), "");
}

TEST_F(vrtl_strict_test, a_broken_state_file_is_an_io_error)
{
    FILE* file = std::fopen(vrtl::state_path("wlan2").c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("{\"chanspec\": ", file);
    std::fclose(file);
    stderr_capture errors;
    auto block = command_block(2, 9360);
    int error = 0;
    EXPECT_EQ(send_command("wlan2", block, 0xFFFE, &error), -1);
    EXPECT_EQ(error, EIO);
    EXPECT_NE(errors.text().find("vrtl: wlan2: "), std::string::npos);
}

TEST_F(vrtl_strict_test, a_closed_descriptor_or_one_that_is_no_socket_is_refused_like_the_kernel_does)
{
    auto block = command_block(2, 9360);
    struct iwreq req = make_request("wlan0");
    req.u.data.pointer = block.data();
    req.u.data.length = 0xFFFE;
    EXPECT_EQ(ioctl(-1, vendor_command, &req), -1);
    EXPECT_EQ(errno, EBADF);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    EXPECT_EQ(ioctl(pipe_fds[0], vendor_command, &req), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST_F(vrtl_strict_test, a_successful_request_leaves_errno_alone)
{
    auto block = command_block(2, 9360);
    errno = 1234;
    struct iwreq req = make_request("wlan0");
    req.u.data.pointer = block.data();
    req.u.data.length = 0xFFFE;
    ASSERT_EQ(ioctl(sock.fd(), vendor_command, &req), 0);
    EXPECT_EQ(errno, 1234);
}

}  // namespace
