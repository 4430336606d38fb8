// sim/vdev/requests.log below the device root: one JSON line per request served, written with
// one write() each, so that a test that has received a reply finds its line already there.
#ifndef ORVD_SIM_VDEV_REQUEST_LOG_H
#define ORVD_SIM_VDEV_REQUEST_LOG_H

#include <string>
#include <string_view>

struct json_object;

class request_log {
public:
    request_log() = default;
    ~request_log();
    request_log(const request_log&) = delete;
    request_log& operator=(const request_log&) = delete;

    // Starts an empty log.
    bool open(std::string* error);

    // {"time", "as", "module", "source", "request", "request_text", "reply"}: the request and the
    // reply as JSON objects, or as their escaped text when they are not JSON; "request_text" is
    // the request exactly as it arrived (escaped), so that the order of its keys can be checked.
    void record(const char* role, int module, int source, std::string_view request, std::string_view reply);
    // The same line for a request a muted daemon left unanswered: "reply" is null.
    void record_unanswered(const char* role, int module, int source, std::string_view request);

    static std::string path();

private:
    void write_line(const char* role, int module, int source, std::string_view request, json_object* reply);

    int fd = -1;
};

#endif
