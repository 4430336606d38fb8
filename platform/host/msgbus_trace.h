// The bus library's own log lines. Private to the host message bus.
#ifndef ORVD_PLATFORM_HOST_MSGBUS_TRACE_H
#define ORVD_PLATFORM_HOST_MSGBUS_TRACE_H

#include "vorna_log.h"

namespace msgbus_host {

// One line through the log library, the text as it is.
void log_line(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One line "<trace name>: msgbus: <text>", or "msgbus: <text>" while InitTrace has named none.
void trace(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace msgbus_host

#endif
