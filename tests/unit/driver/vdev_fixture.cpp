#include "vdev_fixture.h"

#include <json-c/json.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "core/trace.h"
#include "core/websock_cfg.h"
#include "vrtl_state.h"

namespace driver_test {

namespace {

using clock_type = std::chrono::steady_clock;

// The simulator starts in well under a second; this only bounds a broken start.
constexpr auto ready_limit = std::chrono::seconds(10);
constexpr auto stop_limit = std::chrono::seconds(5);

constexpr int json_compact = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;

std::string file_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string compact(json_object* value)
{
    return value == nullptr ? "" : json_object_to_json_string_ext(value, json_compact);
}

std::string string_member(json_object* object, const char* key)
{
    json_object* value = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &value) ||
        !json_object_is_type(value, json_type_string))
        return "";
    return json_object_get_string(value);
}

// Parses `text`, which must be one JSON object; null (and a test failure) otherwise.
json_object* parse_object(const std::string& text)
{
    json_object* value = json_tokener_parse(text.c_str());
    if (value == nullptr || !json_object_is_type(value, json_type_object)) {
        ADD_FAILURE() << "not a JSON object: " << text;
        json_object_put(value);
        return nullptr;
    }
    return value;
}

// Merges `overrides` into `base` member by member; where both hold an object, recursively.
void merge_into(json_object* base, json_object* overrides)
{
    json_object_object_foreach(overrides, key, value)
    {
        json_object* existing = nullptr;
        if (json_object_object_get_ex(base, key, &existing) &&
            json_object_is_type(existing, json_type_object) && json_object_is_type(value, json_type_object))
            merge_into(existing, value);
        else
            json_object_object_add(base, key, json_object_get(value));
    }
}

std::string merged(const std::string& base_text, const std::string& overrides_text,
                   const std::vector<std::string>& vaps = {})
{
    json_object* base = parse_object(base_text);
    json_object* overrides = parse_object(overrides_text);
    std::string text;
    if (base != nullptr && overrides != nullptr) {
        if (!vaps.empty()) {
            json_object* list = json_object_new_array();
            for (const std::string& vap : vaps)
                if (json_object* entry = parse_object(vap))
                    json_object_array_add(list, entry);
            json_object_object_add(base, "vaps", list);
        }
        merge_into(base, overrides);
        text = compact(base);
    }
    json_object_put(base);
    json_object_put(overrides);
    return text;
}

std::string join(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ",") + part;
    return text;
}

}  // namespace

std::string default_scenario()
{
    return file_text(ORVD_VDEV_SCENARIO);
}

std::string scenario_json(const std::vector<std::string>& radios, const std::string& neighbours)
{
    return R"({"factory": {"board": "VX-3100", "hw": "rev B", "serial": "VX31B0012345",
                           "mac": "A4:5E:60:00:10:00"},
               "services": {"hostapd": true, "widsd": false},
               "radios": [)" +
           join(radios) + R"(], "neighbours": )" + neighbours + "}";
}

std::string radio_json(int number, int band, const std::vector<std::string>& vaps,
                       const std::string& overrides)
{
    const std::string name = "\"wlan" + std::to_string(number) + "\"";
    const std::string base = band == 2 ? R"({"name": )" + name + R"(, "band": 2, "tx-power-limits": [10, 20],
                      "available-channels": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13],
                      "settings": {"country": "RU", "auto-channel": "false", "channel": "6",
                                   "bandwidth": "20", "control-sideband": "lower", "tx-power": "17",
                                   "use-limit-channels": "false"}})"
                                       : R"({"name": )" + name + R"(, "band": 5, "tx-power-limits": [10, 23],
                      "available-channels": [36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 108, 112,
                                             116, 120, 124, 128, 132, 136, 140],
                      "settings": {"country": "RU", "auto-channel": "false", "channel": "36",
                                   "bandwidth": "20", "control-sideband": "lower", "tx-power": "20",
                                   "use-limit-channels": "false"}})";
    return merged(base, overrides, vaps);
}

std::string vap_json(const std::string& ssid, const std::string& overrides)
{
    json_object* name = json_object_new_string(ssid.c_str());
    const std::string quoted = compact(name);
    json_object_put(name);
    return merged(R"({"settings": {"ssid": )" + quoted + R"(, "security-mode": "WPA2_PSK", "enabled": "true",
                                   "captive-portal": {"enabled": "false"},
                                   "w80211kv-config": {"enabled": "true"},
                                   "ft-config": {"enabled": "false"}},
                      "stations": []})",
                  overrides);
}

// ---- vdev_process ------------------------------------------------------------------------

vdev_process::~vdev_process()
{
    stop();
}

::testing::AssertionResult vdev_process::start(const std::string& root, const std::string& scenario_text)
{
    if (running())
        return ::testing::AssertionFailure() << "orvd-vdev is already running";
    const std::string scenario_path = root + "/scenario.json";
    {
        std::ofstream out(scenario_path, std::ios::binary | std::ios::trunc);
        out << scenario_text;
        if (!out.flush())
            return ::testing::AssertionFailure() << "cannot write " << scenario_path;
    }
    error_path = root + "/vdev-stderr.txt";
    child_streams streams;
    streams.error_file = error_path;
    if (!process.start({ORVD_VDEV_PROGRAM, "--root", root, "--scenario", scenario_path}, streams))
        return ::testing::AssertionFailure() << process.failure();
    return wait_ready();
}

::testing::AssertionResult vdev_process::wait_ready()
{
    const auto deadline = clock_type::now() + ready_limit;
    std::string line;
    while (process.output().read_line(&line, deadline)) {
        if (line == "orvd-vdev: ready")
            return ::testing::AssertionSuccess();
    }
    if (!process.output().ended()) {
        reap(SIGKILL);
        return ::testing::AssertionFailure() << "orvd-vdev was not ready in time; standard error:\n"
                                             << error_output();
    }
    // Standard output closed: the simulator ended before it was ready.
    reap(0);
    const int status = process.wait_status();
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << "orvd-vdev ended before it was ready (";
    if (WIFEXITED(status))
        failure << "exit status " << WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        failure << "signal " << WTERMSIG(status);
    return failure << "): " << error_output();
}

int vdev_process::stop()
{
    if (!running())
        return -1;
    reap(SIGTERM);
    return process.wait_status();
}

void vdev_process::reap(int signal_number)
{
    if (!process.stop(signal_number, stop_limit))
        ADD_FAILURE() << "orvd-vdev did not end within 5 s; killed";
    process.kill_and_reap();
}

std::string vdev_process::error_output() const
{
    return error_path.empty() ? "" : file_text(error_path);
}

// ---- vdev_fixture ------------------------------------------------------------------------

void vdev_fixture::TearDown()
{
    // A simulator that was still running must end cleanly on SIGTERM.
    const int status = vdev.stop();
    if (status != -1) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "orvd-vdev ended with status " << status << ": " << vdev.error_output();
    }
    trace.set_log_level(0);
    orvd_log_level = 0;
    vrtl::set_request_observer(nullptr);
}

::testing::AssertionResult vdev_fixture::start_vdev(const std::string& scenario_text)
{
    if (root.path().empty())
        return ::testing::AssertionFailure() << "no device root";
    return vdev.start(root.path(), scenario_text);
}

void vdev_fixture::enable_logs()
{
    orvd_log_level = 15;
    trace.set_log_level(15);
}

std::vector<served_request> vdev_fixture::served() const
{
    std::vector<served_request> result;
    std::istringstream lines(file_text(root.path() + "/sim/vdev/requests.log"));
    std::string line;
    while (std::getline(lines, line)) {
        json_object* entry = parse_object(line);
        if (entry == nullptr)
            continue;
        served_request served_line;
        served_line.as = string_member(entry, "as");
        json_object* value = nullptr;
        if (json_object_object_get_ex(entry, "module", &value))
            served_line.module = json_object_get_int(value);
        json_object* request = nullptr;
        if (json_object_object_get_ex(entry, "request", &request)) {
            served_line.command = string_member(request, "command");
            served_line.path = string_member(request, "path");
            served_line.ifname = string_member(request, "ifname");
            served_line.request = compact(request);
        }
        if (json_object_object_get_ex(entry, "reply", &value))
            served_line.reply = compact(value);
        result.push_back(served_line);
        json_object_put(entry);
    }
    return result;
}

std::vector<std::string> vdev_fixture::configd_paths() const
{
    std::vector<std::string> paths;
    for (const served_request& request : served())
        if (request.module == 1 && request.command == "get")
            paths.push_back(request.path);
    return paths;
}

size_t vdev_fixture::times_read(const std::string& path) const
{
    size_t count = 0;
    for (const std::string& read : configd_paths())
        count += read == path ? 1 : 0;
    return count;
}

std::string vdev_fixture::radio_state(const std::string& radio) const
{
    return vrtl::read_state(radio);
}

std::string vdev_fixture::state_value(const std::string& radio, const std::string& dotted_path) const
{
    return vrtl::read_value(radio, dotted_path);
}

std::string vdev_fixture::read_device_file(const std::string& absolute_path) const
{
    return file_text(root.path() + absolute_path);
}

void vdev_fixture::write_device_file(const std::string& absolute_path, const std::string& text) const
{
    std::ofstream out(root.path() + absolute_path, std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.flush()) << "cannot write " << root.path() + absolute_path;
}

bool vdev_fixture::device_path_exists(const std::string& absolute_path) const
{
    struct stat info;
    return stat((root.path() + absolute_path).c_str(), &info) == 0;
}

}  // namespace driver_test
