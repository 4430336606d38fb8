#include "driver_test_support.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

#include "core/trace.h"
#include "core/websock_cfg.h"
#include "vrtl_state.h"

namespace driver_test {

namespace {

std::string mac_of(size_t index, unsigned first)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", first, 0x11u, 0x22u,
                  static_cast<unsigned>((index >> 16) & 0xFF), static_cast<unsigned>((index >> 8) & 0xFF),
                  static_cast<unsigned>(index & 0xFF));
    return text;
}

}  // namespace

uint32_t seen_request::u32_at(size_t offset) const
{
    uint32_t value = 0;
    if (offset + sizeof value <= data.size())
        std::memcpy(&value, data.data() + offset, sizeof value);
    return value;
}

uint16_t seen_request::u16_at(size_t offset) const
{
    uint16_t value = 0;
    if (offset + sizeof value <= data.size())
        std::memcpy(&value, data.data() + offset, sizeof value);
    return value;
}

request_recorder::request_recorder()
{
    vrtl::set_request_observer([this](unsigned long request, const struct iwreq* req) {
        seen_request entry;
        entry.request = request;
        if (req != nullptr) {
            entry.ifname.assign(req->ifr_name, strnlen(req->ifr_name, sizeof req->ifr_name));
            entry.data_null = req->u.data.pointer == nullptr;
            entry.length = req->u.data.length;
            entry.flags = req->u.data.flags;
            const auto* bytes = static_cast<const unsigned char*>(req->u.data.pointer);
            size_t size = 0;
            if (request == VORNA_IOCTL_COMMAND)
                size = vorna_command_size;
            else if (request == RTL8192CD_IOCTL_SET_MIB)
                size = req->u.data.length;
            else if (request == RTL8192CD_IOCTL_GET_MIB)
                size = 2048;
            if (bytes != nullptr)
                entry.data.assign(bytes, bytes + size);
        }
        std::lock_guard<std::mutex> guard(lock);
        seen.push_back(std::move(entry));
    });
}

request_recorder::~request_recorder()
{
    vrtl::set_request_observer(nullptr);
}

std::vector<seen_request> request_recorder::requests() const
{
    std::lock_guard<std::mutex> guard(lock);
    return seen;
}

stderr_capture::stderr_capture()
{
    char name[] = "/tmp/orvd-driver-stderr-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0)
        return;
    path = name;
    std::fflush(stderr);
    saved_fd = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

stderr_capture::~stderr_capture()
{
    if (saved_fd >= 0) {
        std::fflush(stderr);
        dup2(saved_fd, STDERR_FILENO);
        close(saved_fd);
    }
    if (!path.empty())
        unlink(path.c_str());
}

std::string stderr_capture::text() const
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void driver_fixture::SetUp()
{
    ASSERT_FALSE(root.path().empty());
    orvd_log_level = 15;
    trace.set_log_level(15);
}

void driver_fixture::TearDown()
{
    trace.set_log_level(0);
    orvd_log_level = 0;
    vrtl::set_request_observer(nullptr);
}

void driver_fixture::write_state(const std::string& radio, const std::string& json_text)
{
    ASSERT_TRUE(vrtl::write_state(radio, json_text)) << json_text.substr(0, 200);
}

raw_socket::raw_socket() : descriptor(socket(AF_INET, SOCK_DGRAM, 0)) {}

raw_socket::~raw_socket()
{
    if (descriptor >= 0)
        close(descriptor);
}

size_t count_lines(const log_capture& log, vlr_log_level_t level, const std::string& pattern)
{
    const std::regex expression(pattern);
    size_t count = 0;
    for (const auto& line : log.lines())
        if (line.level == level && std::regex_match(line.text, expression))
            ++count;
    return count;
}

struct iwreq make_request(const std::string& ifname)
{
    struct iwreq req;
    std::memset(&req, 0, sizeof req);
    std::strncpy(req.ifr_name, ifname.c_str(), sizeof req.ifr_name - 1);
    return req;
}

std::string neighbours_json(size_t count, bool rrm)
{
    std::string text = "[";
    for (size_t i = 0; i < count; ++i) {
        if (i != 0)
            text += ",";
        text += "{\"bssid\":\"" + mac_of(i, 0x02) +
                "\",\"rssi\":" + std::to_string(-40 - static_cast<int>(i % 50));
        if (rrm)
            text += ",\"tx_power\":" + std::to_string(i % 100);
        else
            text += ",\"channel\":" + std::to_string(1 + i % 13) + ",\"bandwidth\":20";
        text += ",\"chanspec\":" + std::to_string(4096 + 1 + i % 13) + "}";
    }
    return text + "]";
}

std::string stations_json(size_t count)
{
    std::string text = "[";
    for (size_t i = 0; i < count; ++i) {
        if (i != 0)
            text += ",";
        text += "{\"mac\":\"" + mac_of(i, 0xa4) + "\",\"rssi\":[-41,-44,-52," +
                std::to_string(-60 - static_cast<int>(i % 30)) + "]}";
    }
    return text + "]";
}

::testing::AssertionResult responder_process::start(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{program_beside_self("daemon_responder")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    if (!process.start(command))
        return ::testing::AssertionFailure() << process.failure();
    // It comes up in well under a second; this only bounds a broken start.
    if (!process.wait_ready(std::chrono::seconds(10))) {
        process.kill_and_reap();
        return ::testing::AssertionFailure() << "daemon_responder did not come up";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace driver_test
