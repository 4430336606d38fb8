/* Device log library: one line per call, time-stamped, with the daemon's name and level. */
#ifndef ORVD_PLATFORM_VORNA_LOG_H
#define ORVD_PLATFORM_VORNA_LOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One bit per level; the bit number is the syslog priority. */
typedef enum {
    VLR_LOG_ERROR = 8,
    VLR_LOG_WARNING = 16,
    VLR_LOG_INFO = 64,
    VLR_LOG_DEBUG = 128,
} vlr_log_level_t;

/* Starts the library (log rotation) under the given upper-case program name. */
void init_vorna_logrotate(const char* program_name);

/* Names the daemon that every following line carries. The text is not copied. */
void vorna_log_set_daemonname(const char* daemon_name);

/* Formats one message and writes it as one line. */
void vvorna_log_msg_timed_new(vlr_log_level_t level, const char* format, va_list args);

#ifdef __cplusplus
}
#endif

#endif
