// The process-wide trace object through which every module writes its log lines.
#ifndef ORVD_CORE_TRACE_H
#define ORVD_CORE_TRACE_H

#include <atomic>
#include <cstdarg>
#include <mutex>

#include "vorna_log.h"

// Filters lines by a mask of enabled levels and hands the survivors to the device log
// library, one call at a time. The mask bits are not the library's level values: each
// output operation tests its own bit and passes its own level.
class orv_trace {
public:
    enum mask_bits { MASK_ERROR = 1, MASK_WARN = 2, MASK_INFO = 4, MASK_DEBUG = 8 };

    orv_trace(const char* daemon_name, int mask);

    void set_log_level(int new_mask) { mask.store(new_mask, std::memory_order_relaxed); }
    int get_log_level() const { return mask.load(std::memory_order_relaxed); }
    bool is_debug_enabled() const { return (get_log_level() & MASK_DEBUG) != 0; }

    void trace(vlr_log_level_t level, const char* format, va_list& args) const;

    void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void warn(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));

private:
    const char* daemon_name;
    // Read by every thread without a lock; a change shows up in due course.
    std::atomic<int> mask;
};

extern orv_trace trace;
// Serialises the calls into the log library.
extern std::mutex trace_lock;

#endif
