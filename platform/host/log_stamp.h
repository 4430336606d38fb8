// The local time stamp at the head of every log line, "2026-11-22 10:00:00.123", made without
// locks or heap so that a line can be logged on a signal handler's path. Private to the host
// log library and its tests.
#ifndef ORVD_PLATFORM_HOST_LOG_STAMP_H
#define ORVD_PLATFORM_HOST_LOG_STAMP_H

#include <cstddef>

namespace log_stamp {

// Room for any stamp: 23 characters until the year 9999, more after it. No NUL is written.
constexpr size_t max_length = 32;

// Writes the local time now to `out`; returns its length.
size_t format_now(char* out);

// Writes the calendar time of `seconds` since 1970-01-01 00:00:00 (already moved by the local
// offset) and `milliseconds`; returns its length.
size_t format(long long seconds, long milliseconds, char* out);

// Looks the local offset up now, so that the first look-up (which reads the zone file into the
// heap) happens at start-up rather than on whatever path logs first.
void prime();

// The next stamp looks the offset up again, for tests that change the time zone.
void forget_offset();

}  // namespace log_stamp

#endif
