/* Host build only: lets tests see what the log library was asked to write. */
#ifndef ORVD_PLATFORM_VORNA_LOG_HOST_H
#define ORVD_PLATFORM_VORNA_LOG_HOST_H

#include "vorna_log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives the level and the formatted message text (without time stamp or name). */
typedef void (*vorna_log_host_writer_t)(vlr_log_level_t level, const char* text, void* context);

/* Installs a writer that receives every message instead of standard error; null restores
 * standard error. The writer runs under the library's lock, so once this returns the previous
 * writer is no longer being called; a message the writer logs itself goes to standard error. */
void vorna_log_host_set_writer(vorna_log_host_writer_t writer, void* context);

#ifdef __cplusplus
}
#endif

#endif
