// Helpers of the driver tests: a private device root per test, radio states for vrtl, a
// recorder of the requests vrtl sees, a capture of standard error, raw requests and a stand-in
// daemon on the bus.
#ifndef ORVD_TESTS_UNIT_DRIVER_TEST_SUPPORT_H
#define ORVD_TESTS_UNIT_DRIVER_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "child_process.h"
#include "driver/vorna_command.h"
#include "log_capture.h"
#include "temp_root.h"

namespace driver_test {

// A private device root per test (shared with the other test programs).
using ::temp_root;

// One request as vrtl saw it, with a copy of the bytes it carried: the whole vendor command
// block, the MIB text up to its length field, or the 2048-byte MIB read buffer.
struct seen_request {
    unsigned long request = 0;
    std::string ifname;
    bool data_null = true;
    unsigned length = 0;
    unsigned flags = 0;
    std::vector<unsigned char> data;

    uint32_t u32_at(size_t offset) const;
    uint16_t u16_at(size_t offset) const;
};

// Records every request vrtl emulates while it lives.
class request_recorder {
public:
    request_recorder();
    ~request_recorder();
    request_recorder(const request_recorder&) = delete;
    request_recorder& operator=(const request_recorder&) = delete;

    std::vector<seen_request> requests() const;

private:
    mutable std::mutex lock;
    std::vector<seen_request> seen;
};

// Sends standard error to a file while it lives; text() reads what was written so far.
class stderr_capture {
public:
    stderr_capture();
    ~stderr_capture();
    stderr_capture(const stderr_capture&) = delete;
    stderr_capture& operator=(const stderr_capture&) = delete;

    std::string text() const;

private:
    int saved_fd = -1;
    std::string path;
};

// The driver tests: a private root, every log level on (restored to silent afterwards), no
// request observer left behind.
class driver_fixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes the radio's state; fails the test when it cannot.
    void write_state(const std::string& radio, const std::string& json_text);

    temp_root root;
};

// A datagram socket for raw requests, closed with the object.
class raw_socket {
public:
    raw_socket();
    ~raw_socket();
    raw_socket(const raw_socket&) = delete;
    raw_socket& operator=(const raw_socket&) = delete;
    int fd() const { return descriptor; }

private:
    int descriptor = -1;
};

// How many captured lines at `level` match `pattern` (ECMAScript, whole text, newline
// included).
size_t count_lines(const log_capture& log, vlr_log_level_t level, const std::string& pattern);

// A request to `ifname` with the union cleared.
struct iwreq make_request(const std::string& ifname);

// daemon_responder (built next to this program), standing in for networkd or configd: it
// answers every request as the module it registers with, until stop() or the object's end.
class responder_process {
public:
    // Starts it with these arguments and waits until it receives on the bus.
    ::testing::AssertionResult start(const std::vector<std::string>& arguments);
    // Kills it: its socket file stays behind, as a daemon's does when it dies.
    void stop() { process.kill_and_reap(); }

private:
    child_process process;
};

// JSON of `count` neighbours for "scan_results" (standard) or "rrm_scan_results".
std::string neighbours_json(size_t count, bool rrm);
// JSON of `count` stations for one VAP.
std::string stations_json(size_t count);

}  // namespace driver_test

#endif
