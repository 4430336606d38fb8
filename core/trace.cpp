#include "core/trace.h"

#include <cstdio>

std::mutex trace_lock;
orv_trace trace("orvd", 0);

orv_trace::orv_trace(const char* name, int initial_mask) : daemon_name(name), mask(initial_mask)
{
    vorna_log_set_daemonname(daemon_name);
    // The few messages written with printf (a worker's fatal exception) must not be lost in
    // a buffer when the process exits right after.
    setbuf(stdout, nullptr);
}

void orv_trace::trace(vlr_log_level_t level, const char* format, va_list& args) const
{
    std::lock_guard<std::mutex> guard(trace_lock);
    vvorna_log_msg_timed_new(level, format, args);
}

#define ORV_TRACE_OUTPUT(operation, bit, level)                                                              \
    void orv_trace::operation(const char* format, ...) const                                                 \
    {                                                                                                        \
        if ((get_log_level() & (bit)) == 0)                                                                  \
            return;                                                                                          \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        trace(level, format, args);                                                                          \
        va_end(args);                                                                                        \
    }

ORV_TRACE_OUTPUT(error, MASK_ERROR, VLR_LOG_ERROR)
ORV_TRACE_OUTPUT(warn, MASK_WARN, VLR_LOG_WARNING)
ORV_TRACE_OUTPUT(info, MASK_INFO, VLR_LOG_INFO)
ORV_TRACE_OUTPUT(debug, MASK_DEBUG, VLR_LOG_DEBUG)
