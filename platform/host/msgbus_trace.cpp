// InitTrace and SetTraceOpt, and the lines the bus library writes about its own problems.
#include "msgbus_trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "msgbus.h"

namespace {

struct trace_settings {
    std::mutex lock;
    char name[64] = {};
    int option = 0;
    int level = 0;
    int flags = 0;
};

// Constant-initialised (every member has a constant initialiser), so it is ready before any
// static constructor of another translation unit traces, and never torn down under a receiver
// thread that is still running while the process exits.
trace_settings settings;

}  // namespace

namespace msgbus_host {

void log_line(vlr_log_level_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vvorna_log_msg_timed_new(level, format, args);
    va_end(args);
}

void trace(vlr_log_level_t level, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    char name[sizeof settings.name];
    {
        std::lock_guard<std::mutex> guard(settings.lock);
        std::memcpy(name, settings.name, sizeof name);
    }
    if (name[0] != '\0')
        log_line(level, "%s: msgbus: %s\n", name, text);
    else
        log_line(level, "msgbus: %s\n", text);
}

}  // namespace msgbus_host

extern "C" {

void InitTrace(const char* name)
{
    std::lock_guard<std::mutex> guard(settings.lock);
    std::snprintf(settings.name, sizeof settings.name, "%s", name == nullptr ? "" : name);
}

void SetTraceOpt(int option, int level, int flags)
{
    // Kept for the caller's sake; the host library traces only its few problem lines and does
    // not filter them by these options.
    std::lock_guard<std::mutex> guard(settings.lock);
    settings.option = option;
    settings.level = level;
    settings.flags = flags;
}

}  // extern "C"
