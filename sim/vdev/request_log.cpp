#include "request_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "device_root.h"
#include "escape.h"
#include "files.h"
#include "json_util.h"

namespace {

std::string utc_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

// A JSON object stays one; anything else is kept as its escaped text, which is plain ASCII.
json_object* as_logged(std::string_view payload)
{
    if (std::memchr(payload.data(), '\0', payload.size()) == nullptr) {
        json_object* parsed = json_tokener_parse(std::string(payload).c_str());
        if (parsed != nullptr && json_object_is_type(parsed, json_type_object))
            return parsed;
        json_object_put(parsed);
    }
    return json_object_new_string(bus_escape::escape(payload).c_str());
}

}  // namespace

request_log::~request_log()
{
    if (fd >= 0)
        ::close(fd);
}

std::string request_log::path()
{
    return device_path("/sim/vdev/requests.log");
}

bool request_log::open(std::string* error)
{
    const std::string file = path();
    if (!make_directories(file.substr(0, file.rfind('/')), error))
        return false;
    fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot create " + file + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void request_log::record(const char* role, int module, int source, std::string_view request,
                         std::string_view reply)
{
    write_line(role, module, source, request, as_logged(reply));
}

void request_log::record_unanswered(const char* role, int module, int source, std::string_view request)
{
    write_line(role, module, source, request, nullptr);
}

void request_log::write_line(const char* role, int module, int source, std::string_view request,
                             json_object* reply)
{
    json_ptr line(json_object_new_object());
    json_object_object_add(line.get(), "time", json_object_new_string(utc_now().c_str()));
    json_object_object_add(line.get(), "as", json_object_new_string(role));
    json_object_object_add(line.get(), "module", json_object_new_int(module));
    json_object_object_add(line.get(), "source", json_object_new_int(source));
    json_object_object_add(line.get(), "request", as_logged(request));
    // Parsed, the request loses the order of its keys; the daemon's own text keeps it.
    json_object_object_add(line.get(), "request_text",
                           json_object_new_string(bus_escape::escape(request).c_str()));
    json_object_object_add(line.get(), "reply", reply);  // null: no reply was sent
    const std::string text = json_text(line.get()) + "\n";
    size_t done = 0;
    while (fd >= 0 && done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0) {
            std::fprintf(stderr, "orvd-vdev: cannot write %s: %s\n", path().c_str(), std::strerror(errno));
            return;
        }
        done += static_cast<size_t>(wrote);
    }
}
