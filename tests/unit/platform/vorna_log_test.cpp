#include "vorna_log.h"
#include "vorna_log_host.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "log_capture.h"
#include "log_stamp.h"
#include "test_support.h"

namespace {

using platform_test::log;

// Sends standard error to a temporary file until text() is called.
class stderr_capture {
public:
    stderr_capture()
    {
        char pattern[] = "/tmp/orvd-log-XXXXXX";
        file_fd = ::mkstemp(pattern);
        file_path = pattern;
        std::fflush(stderr);
        saved_fd = ::dup(STDERR_FILENO);
        ::dup2(file_fd, STDERR_FILENO);
    }
    ~stderr_capture()
    {
        restore();
        ::unlink(file_path.c_str());
    }
    std::string text()
    {
        restore();
        std::string content;
        platform_test::read_file(file_path, &content);
        return content;
    }

private:
    void restore()
    {
        if (saved_fd >= 0) {
            ::dup2(saved_fd, STDERR_FILENO);
            ::close(saved_fd);
            saved_fd = -1;
        }
        if (file_fd >= 0) {
            ::close(file_fd);
            file_fd = -1;
        }
    }
    int file_fd = -1;
    int saved_fd = -1;
    std::string file_path;
};

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

// True when `line` starts with a local time stamp "2026-11-22 10:00:00.123".
bool starts_with_stamp(const std::string& line)
{
    const char* shape = "dddd-dd-dd dd:dd:dd.ddd";
    size_t length = std::strlen(shape);
    if (line.size() < length)
        return false;
    for (size_t i = 0; i < length; ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == 'd' ? !digit : line[i] != shape[i])
            return false;
    }
    return true;
}

// Splits "<stamp> <rest>" and checks the stamp; returns the rest.
std::string after_stamp(const std::string& line)
{
    EXPECT_TRUE(starts_with_stamp(line)) << line.substr(0, 80);
    return line.size() > 24 ? line.substr(24) : std::string();
}

class log_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        vorna_log_host_set_writer(nullptr, nullptr);
        vorna_log_set_daemonname("orvd");
    }
    void TearDown() override
    {
        vorna_log_host_set_writer(nullptr, nullptr);
        vorna_log_set_daemonname(nullptr);
        init_vorna_logrotate(nullptr);
    }
};

TEST_F(log_test, a_line_carries_time_name_level_and_text)
{
    stderr_capture capture;
    log(VLR_LOG_DEBUG, "text %d", 7);
    std::string text = capture.text();
    EXPECT_TRUE(starts_with_stamp(text)) << text;
    EXPECT_EQ(text.size(), 24 + std::strlen("orvd debug: text 7\n")) << text;
    EXPECT_EQ(after_stamp(text), "orvd debug: text 7\n");
    EXPECT_EQ(text[23], ' ');
}

// The local time now as the stamp shows it, to the second.
std::string local_now()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

// Puts the process in another time zone for the object's life.
class zone_override {
public:
    explicit zone_override(const char* zone)
    {
        const char* previous = std::getenv("TZ");
        was_set = previous != nullptr;
        if (was_set)
            saved = previous;
        switch_to(zone);
    }
    ~zone_override() { switch_to(was_set ? saved.c_str() : nullptr); }
    zone_override(const zone_override&) = delete;
    zone_override& operator=(const zone_override&) = delete;

private:
    static void switch_to(const char* zone)
    {
        if (zone != nullptr) {
            ::setenv("TZ", zone, 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
        log_stamp::forget_offset();
    }
    bool was_set = false;
    std::string saved;
};

TEST_F(log_test, a_line_carries_the_local_time_of_its_zone)
{
    // Half an hour off the whole hours: neither UTC nor a whole-hour offset would pass.
    zone_override zone("IST-5:30");
    stderr_capture capture;
    std::string before = local_now();
    log(VLR_LOG_INFO, "zoned");
    std::string after = local_now();
    std::string stamp = capture.text().substr(0, 19);
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, after);
}

TEST_F(log_test, levels_are_written_by_name_and_others_as_numbers)
{
    stderr_capture capture;
    log(VLR_LOG_ERROR, "a");
    log(VLR_LOG_WARNING, "b");
    log(VLR_LOG_INFO, "c");
    log(VLR_LOG_DEBUG, "d");
    log(static_cast<vlr_log_level_t>(4), "e");
    auto lines = split_lines(capture.text());
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_NE(lines[0].find(" orvd error: a"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" orvd warning: b"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find(" orvd info: c"), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find(" orvd debug: d"), std::string::npos) << lines[3];
    EXPECT_NE(lines[4].find(" orvd 4: e"), std::string::npos) << lines[4];
}

TEST_F(log_test, a_newline_is_added_only_when_the_text_lacks_one)
{
    stderr_capture capture;
    log(VLR_LOG_INFO, "with newline\n");
    log(VLR_LOG_INFO, "without newline");
    log(VLR_LOG_INFO, "%s", "");
    log(VLR_LOG_INFO, "two\nlines\n");
    std::string text = capture.text();
    auto lines = split_lines(text);
    ASSERT_EQ(lines.size(), 5u) << text;
    EXPECT_TRUE(lines[0].size() > 12 && lines[0].compare(lines[0].size() - 12, 12, "with newline") == 0);
    EXPECT_TRUE(lines[1].size() > 15 && lines[1].compare(lines[1].size() - 15, 15, "without newline") == 0);
    EXPECT_TRUE(lines[2].size() > 6 && lines[2].compare(lines[2].size() - 6, 6, "info: ") == 0);
    EXPECT_EQ(lines[4], "lines");
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST_F(log_test, the_name_falls_back_to_the_program_name_then_a_question_mark)
{
    vorna_log_set_daemonname(nullptr);
    stderr_capture capture;
    init_vorna_logrotate("ORVD");
    log(VLR_LOG_INFO, "one");
    init_vorna_logrotate(nullptr);
    log(VLR_LOG_INFO, "two");
    vorna_log_set_daemonname("orvd");
    log(VLR_LOG_INFO, "three");
    auto lines = split_lines(capture.text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find(" ORVD info: one"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" ? info: two"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find(" orvd info: three"), std::string::npos) << lines[2];
}

TEST_F(log_test, a_large_text_is_never_truncated)
{
    std::string dump;
    for (int i = 0; i < 130 * 1024 / 2; ++i)
        dump += "a5";
    stderr_capture capture;
    log(VLR_LOG_DEBUG, "dump %s end", dump.c_str());
    std::string text = capture.text();
    auto lines = split_lines(text);
    ASSERT_EQ(lines.size(), 1u);
    std::string expected_tail = " orvd debug: dump " + dump + " end";
    ASSERT_GE(lines[0].size(), expected_tail.size());
    EXPECT_EQ(lines[0].substr(lines[0].size() - expected_tail.size()), expected_tail);
}

TEST_F(log_test, a_writer_receives_level_and_text_instead_of_standard_error)
{
    stderr_capture capture;
    {
        log_capture writer;
        log(VLR_LOG_WARNING, "value %s=%d", "x", 3);
        auto lines = writer.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, VLR_LOG_WARNING);
        EXPECT_EQ(lines[0].text, "value x=3");
    }
    EXPECT_EQ(capture.text(), "");
    stderr_capture after;
    log(VLR_LOG_INFO, "back on stderr");
    EXPECT_NE(after.text().find("back on stderr"), std::string::npos);
}

void logging_writer(vlr_log_level_t, const char*, void* context)
{
    ++*static_cast<int*>(context);
    log(VLR_LOG_INFO, "from inside the writer");
}

// Logs one line through logging_writer; what reached standard error.
std::string stderr_through_logging_writer(int* calls)
{
    stderr_capture capture;
    vorna_log_host_set_writer(&logging_writer, calls);
    log(VLR_LOG_INFO, "outer");
    vorna_log_host_set_writer(nullptr, nullptr);
    return capture.text();
}

TEST_F(log_test, a_writer_that_logs_again_does_not_deadlock)
{
    int calls = 0;
    std::string text = stderr_through_logging_writer(&calls);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(text.find("from inside the writer"), std::string::npos);
}

TEST_F(log_test, a_writer_that_logs_again_before_any_name_is_set_does_not_deadlock)
{
    vorna_log_set_daemonname(nullptr);
    init_vorna_logrotate("ORVD");
    int calls = 0;
    std::string text = stderr_through_logging_writer(&calls);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(text.find(" ORVD info: from inside the writer"), std::string::npos);
}

TEST_F(log_test, errno_is_kept)
{
    stderr_capture capture;
    errno = EPIPE;
    log(VLR_LOG_ERROR, "keeps errno");
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(log_test, lines_from_many_threads_never_interleave)
{
    constexpr int thread_count = 8;
    constexpr int lines_each = 200;
    stderr_capture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t) {
        threads.emplace_back([t] {
            std::string filler(static_cast<size_t>(100 + t * 700), static_cast<char>('a' + t));
            for (int i = 0; i < lines_each; ++i)
                log(VLR_LOG_INFO, "t%d i%d %s", t, i, filler.c_str());
        });
    }
    for (auto& thread : threads)
        thread.join();
    auto lines = split_lines(capture.text());
    ASSERT_EQ(lines.size(), static_cast<size_t>(thread_count * lines_each));
    for (const auto& line : lines) {
        std::string rest = after_stamp(line);  // "orvd info: t<T> i<I> <filler>"
        ASSERT_EQ(rest.compare(0, 12, "orvd info: t"), 0) << line.substr(0, 80);
        int t = rest[12] - '0';
        ASSERT_TRUE(t >= 0 && t < thread_count) << line.substr(0, 80);
        size_t filler_start = rest.find(' ', 14) + 1;
        ASSERT_GT(filler_start, 0u) << line.substr(0, 80);
        EXPECT_EQ(rest.substr(filler_start),
                  std::string(static_cast<size_t>(100 + t * 700), static_cast<char>('a' + t)));
    }
}

TEST_F(log_test, a_writer_is_safe_across_threads)
{
    log_capture writer;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i)
                log(VLR_LOG_DEBUG, "t%d i%d", t, i);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(writer.lines().size(), 400u);
}

// The stamp's calendar arithmetic against the C library's, from before 1970 to past 2100: leap
// days, 2000 (a leap year) and 2100 (not one) included.
TEST(log_stamp_test, the_stamp_is_the_calendar_date_of_any_second)
{
    constexpr long long day = 86400;
    std::vector<long long> seconds = {0,         -1,         68256000,   951782400,
                                      951868799, 4107456000, 4107542399, 2147483648};
    for (long long at = -3 * 366 * day; at < 140 * 366 * day; at += 7 * day + 3607)
        seconds.push_back(at);
    for (long long at : seconds) {
        time_t t = static_cast<time_t>(at);
        struct tm utc;
        ASSERT_NE(gmtime_r(&t, &utc), nullptr) << at;
        char expected[48];
        size_t length = std::strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S", &utc);
        std::snprintf(expected + length, sizeof expected - length, ".%03ld", at & 1 ? 7L : 999L);
        char stamp[log_stamp::max_length];
        size_t stamp_length = log_stamp::format(at, at & 1 ? 7L : 999L, stamp);
        EXPECT_EQ(std::string(stamp, stamp_length), expected) << at;
    }
}

}  // namespace
