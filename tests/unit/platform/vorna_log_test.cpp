#include "vorna_log.h"
#include "vorna_log_host.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "test_support.h"

namespace {

using platform_test::log;
using platform_test::LogCapture;

// Sends standard error to a temporary file until text() is called.
class StderrCapture {
public:
    StderrCapture() {
        char pattern[] = "/tmp/orvd-log-XXXXXX";
        fd_ = ::mkstemp(pattern);
        path_ = pattern;
        std::fflush(stderr);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(fd_, STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        ::unlink(path_.c_str());
    }
    std::string text() {
        restore();
        std::string content;
        platform_test::read_file(path_, &content);
        return content;
    }

private:
    void restore() {
        if (saved_ >= 0) {
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
            saved_ = -1;
        }
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    int fd_ = -1;
    int saved_ = -1;
    std::string path_;
};

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

// True when `line` starts with a local time stamp "2026-11-22 10:00:00.123".
bool starts_with_stamp(const std::string& line) {
    const char* shape = "dddd-dd-dd dd:dd:dd.ddd";
    size_t length = std::strlen(shape);
    if (line.size() < length) return false;
    for (size_t i = 0; i < length; ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) return false;
    }
    return true;
}

// Splits "<stamp> <rest>" and checks the stamp; returns the rest.
std::string after_stamp(const std::string& line) {
    EXPECT_TRUE(starts_with_stamp(line)) << line.substr(0, 80);
    return line.size() > 24 ? line.substr(24) : std::string();
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        vorna_log_host_set_writer(nullptr, nullptr);
        vorna_log_set_daemonname("orvd");
    }
    void TearDown() override {
        vorna_log_host_set_writer(nullptr, nullptr);
        vorna_log_set_daemonname(nullptr);
        init_vorna_logrotate(nullptr);
    }
};

TEST_F(LogTest, LineCarriesTimeNameLevelAndText) {
    StderrCapture capture;
    log(VLR_LOG_DEBUG, "text %d", 7);
    std::string text = capture.text();
    EXPECT_TRUE(starts_with_stamp(text)) << text;
    EXPECT_EQ(text.size(), 24 + std::strlen("orvd debug: text 7\n")) << text;
    EXPECT_EQ(after_stamp(text), "orvd debug: text 7\n");
    EXPECT_EQ(text[23], ' ');
}

TEST_F(LogTest, LevelsHaveNames) {
    StderrCapture capture;
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

TEST_F(LogTest, NewlineIsAddedOnlyWhenTextLacksOne) {
    StderrCapture capture;
    log(VLR_LOG_INFO, "with newline\n");
    log(VLR_LOG_INFO, "without newline");
    log(VLR_LOG_INFO, "%s", "");
    log(VLR_LOG_INFO, "two\nlines\n");
    std::string text = capture.text();
    auto lines = split_lines(text);
    ASSERT_EQ(lines.size(), 5u) << text;
    EXPECT_TRUE(lines[0].size() > 12 && lines[0].compare(lines[0].size() - 12, 12, "with newline") == 0);
    EXPECT_TRUE(lines[1].size() > 15 &&
                lines[1].compare(lines[1].size() - 15, 15, "without newline") == 0);
    EXPECT_TRUE(lines[2].size() > 6 && lines[2].compare(lines[2].size() - 6, 6, "info: ") == 0);
    EXPECT_EQ(lines[4], "lines");
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST_F(LogTest, NameFallsBackToProgramNameThenQuestionMark) {
    vorna_log_set_daemonname(nullptr);
    StderrCapture capture;
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

TEST_F(LogTest, LargeTextIsNeverTruncated) {
    std::string dump;
    for (int i = 0; i < 130 * 1024 / 2; ++i) dump += "a5";
    StderrCapture capture;
    log(VLR_LOG_DEBUG, "dump %s end", dump.c_str());
    std::string text = capture.text();
    auto lines = split_lines(text);
    ASSERT_EQ(lines.size(), 1u);
    std::string expected_tail = " orvd debug: dump " + dump + " end";
    ASSERT_GE(lines[0].size(), expected_tail.size());
    EXPECT_EQ(lines[0].substr(lines[0].size() - expected_tail.size()), expected_tail);
}

TEST_F(LogTest, WriterReceivesLevelAndTextInsteadOfStandardError) {
    StderrCapture capture;
    {
        LogCapture writer;
        log(VLR_LOG_WARNING, "value %s=%d", "x", 3);
        auto lines = writer.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].first, VLR_LOG_WARNING);
        EXPECT_EQ(lines[0].second, "value x=3");
    }
    EXPECT_EQ(capture.text(), "");
    StderrCapture after;
    log(VLR_LOG_INFO, "back on stderr");
    EXPECT_NE(after.text().find("back on stderr"), std::string::npos);
}

void logging_writer(vlr_log_level_t, const char*, void* context) {
    ++*static_cast<int*>(context);
    log(VLR_LOG_INFO, "from inside the writer");
}

TEST_F(LogTest, WriterThatLogsAgainDoesNotDeadlock) {
    int calls = 0;
    StderrCapture capture;
    vorna_log_host_set_writer(&logging_writer, &calls);
    log(VLR_LOG_INFO, "outer");
    vorna_log_host_set_writer(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(capture.text().find("from inside the writer"), std::string::npos);
}

TEST_F(LogTest, WriterThatLogsAgainBeforeAnyNameIsSetDoesNotDeadlock) {
    vorna_log_set_daemonname(nullptr);
    init_vorna_logrotate("ORVD");
    int calls = 0;
    StderrCapture capture;
    vorna_log_host_set_writer(&logging_writer, &calls);
    log(VLR_LOG_INFO, "outer");
    vorna_log_host_set_writer(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(capture.text().find(" ORVD info: from inside the writer"), std::string::npos);
}

TEST_F(LogTest, ErrnoIsKept) {
    StderrCapture capture;
    errno = EPIPE;
    log(VLR_LOG_ERROR, "keeps errno");
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(LogTest, LinesFromManyThreadsNeverInterleave) {
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string filler(static_cast<size_t>(100 + t * 700), static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) log(VLR_LOG_INFO, "t%d i%d %s", t, i, filler.c_str());
        });
    }
    for (auto& thread : threads) thread.join();
    auto lines = split_lines(capture.text());
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& line : lines) {
        std::string rest = after_stamp(line);  // "orvd info: t<T> i<I> <filler>"
        ASSERT_EQ(rest.compare(0, 12, "orvd info: t"), 0) << line.substr(0, 80);
        int t = rest[12] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
        size_t filler_start = rest.find(' ', 14) + 1;
        ASSERT_GT(filler_start, 0u) << line.substr(0, 80);
        EXPECT_EQ(rest.substr(filler_start),
                  std::string(static_cast<size_t>(100 + t * 700), static_cast<char>('a' + t)));
    }
}

TEST_F(LogTest, WriterIsSafeAcrossThreads) {
    LogCapture writer;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i) log(VLR_LOG_DEBUG, "t%d i%d", t, i);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(writer.lines().size(), 400u);
}

}  // namespace
