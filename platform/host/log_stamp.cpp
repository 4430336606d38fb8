#include "log_stamp.h"

#include <atomic>
#include <climits>
#include <ctime>

namespace log_stamp {

namespace {

// Local time is UTC plus an offset that changes only at daylight-saving transitions, and every
// zone makes those on a quarter-hour boundary. localtime_r takes the C library's time-zone lock,
// which a signal handler must never wait for, so it runs at most once per quarter hour: the
// line that first claims a new quarter looks the offset up, and lines logged meanwhile keep
// using the previous one. Plain `long` atomics, because wider ones take a lock on some 32-bit
// targets.
constexpr long seconds_per_quarter = 900;
constexpr long never_looked_up = LONG_MIN;
std::atomic<long> utc_offset{0};
std::atomic<long> offset_quarter{never_looked_up};

long local_offset(time_t now)
{
    const long quarter = static_cast<long>(now / seconds_per_quarter);
    long seen = offset_quarter.load(std::memory_order_acquire);
    if (seen == quarter)
        return utc_offset.load(std::memory_order_relaxed);
    // Until one look-up has finished there is no previous offset to fall back to.
    const bool first = seen == never_looked_up;
    if (!first && !offset_quarter.compare_exchange_strong(seen, quarter, std::memory_order_acq_rel))
        return utc_offset.load(std::memory_order_relaxed);
    struct tm local;
    const long offset = localtime_r(&now, &local) != nullptr ? static_cast<long>(local.tm_gmtoff) : 0;
    utc_offset.store(offset, std::memory_order_relaxed);
    if (first)
        offset_quarter.store(quarter, std::memory_order_release);
    return offset;
}

// Days since 1970-01-01 to a proleptic Gregorian date. Counted in 400-year eras of 146097 days
// from 0000-03-01, so that the leap day is the last day of its year.
void civil_from_days(long long days, long long* year, unsigned* month, unsigned* day)
{
    days += 719468;  // 0000-03-01 to 1970-01-01
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const auto day_of_era = static_cast<unsigned>(days - era * 146097);
    const unsigned year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const unsigned shifted_month = (5 * day_of_year + 2) / 153;  // 0 is March
    *day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    *month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    *year = static_cast<long long>(year_of_era) + era * 400 + (*month <= 2 ? 1 : 0);
}

// Writes `value` with at least `width` digits, zero-padded.
size_t put_number(char* out, long long value, int width)
{
    size_t length = 0;
    const auto bits = static_cast<unsigned long long>(value);
    unsigned long long magnitude = value < 0 ? 0ULL - bits : bits;
    if (value < 0)
        out[length++] = '-';
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    for (int pad = count; pad < width; ++pad)
        out[length++] = '0';
    while (count > 0)
        out[length++] = digits[--count];
    return length;
}

}  // namespace

size_t format(long long seconds, long milliseconds, char* out)
{
    long long days = seconds / 86400;
    long long second_of_day = seconds % 86400;
    if (second_of_day < 0) {
        second_of_day += 86400;
        --days;
    }
    long long year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civil_from_days(days, &year, &month, &day);
    size_t length = put_number(out, year, 4);
    out[length++] = '-';
    length += put_number(out + length, month, 2);
    out[length++] = '-';
    length += put_number(out + length, day, 2);
    out[length++] = ' ';
    length += put_number(out + length, second_of_day / 3600, 2);
    out[length++] = ':';
    length += put_number(out + length, second_of_day / 60 % 60, 2);
    out[length++] = ':';
    length += put_number(out + length, second_of_day % 60, 2);
    out[length++] = '.';
    length += put_number(out + length, milliseconds, 3);
    return length;
}

size_t format_now(char* out)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const long long local = static_cast<long long>(now.tv_sec) + local_offset(now.tv_sec);
    return format(local, now.tv_nsec / 1000000, out);
}

void prime()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    local_offset(now.tv_sec);
}

void forget_offset()
{
    offset_quarter.store(never_looked_up, std::memory_order_release);
}

}  // namespace log_stamp
