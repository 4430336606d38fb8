#include "core/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "vorna_log_host.h"
#include "emulator.h"

namespace {

class trace_test : public ::testing::Test {
protected:
    void TearDown() override { trace.set_log_level(0); }

    void write_all_levels()
    {
        trace.error("e %d\n", 1);
        trace.warn("w %d\n", 2);
        trace.info("i %d\n", 3);
        trace.debug("d %d\n", 4);
    }
};

// The process-wide object as the program starts, before any test or worker sets its level: the
// test body runs in a freshly started copy of this program (the thread-safe death test style
// executes it anew), which logs at every level through it and reports what reached the library.
TEST_F(trace_test, the_process_trace_starts_silent)
{
    GTEST_FLAG_SET(death_test_style, fresh_process_death_test_style());
    EXPECT_EXIT(
        {
            const int mask_at_start = trace.get_log_level();
            size_t written = 0;
            {
                log_capture log;
                write_all_levels();
                written = log.lines().size();
            }
            fprintf(stderr, "mask %d at start, %zu lines written\n", mask_at_start, written);
            _exit(written == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "mask 0 at start, 0 lines written");
}

TEST_F(trace_test, with_mask_0_no_output_operation_calls_the_library)
{
    trace.set_log_level(0);
    log_capture log;
    write_all_levels();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(trace_test, with_mask_8_only_debug_lines_are_written_with_level_128)
{
    trace.set_log_level(8);
    log_capture log;
    write_all_levels();
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(static_cast<int>(lines[0].level), 128);
    EXPECT_EQ(lines[0].text, "d 4\n");
}

TEST_F(trace_test, each_mask_bit_passes_its_own_level_value)
{
    trace.set_log_level(15);
    log_capture log;
    write_all_levels();
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(static_cast<int>(lines[0].level), 8);
    EXPECT_EQ(lines[0].text, "e 1\n");
    EXPECT_EQ(static_cast<int>(lines[1].level), 16);
    EXPECT_EQ(lines[1].text, "w 2\n");
    EXPECT_EQ(static_cast<int>(lines[2].level), 64);
    EXPECT_EQ(lines[2].text, "i 3\n");
    EXPECT_EQ(static_cast<int>(lines[3].level), 128);
    EXPECT_EQ(lines[3].text, "d 4\n");
}

TEST_F(trace_test, mask_9_writes_errors_and_debug_only)
{
    trace.set_log_level(9);
    log_capture log;
    write_all_levels();
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"e 1\n", "d 4\n"}));
}

TEST_F(trace_test, mask_bits_above_bit_3_enable_nothing_further)
{
    trace.set_log_level(0xFFF0);
    log_capture log;
    write_all_levels();
    EXPECT_TRUE(log.lines().empty());

    trace.set_log_level(65535);
    write_all_levels();
    EXPECT_EQ(log.lines().size(), 4u);
}

TEST_F(trace_test, debug_is_enabled_exactly_when_bit_3_is_set)
{
    for (int mask = 0; mask < 64; ++mask) {
        trace.set_log_level(mask);
        EXPECT_EQ(trace.is_debug_enabled(), (mask & 8) != 0) << mask;
    }
}

TEST_F(trace_test, a_new_mask_takes_effect_for_the_next_line)
{
    trace.set_log_level(1);
    log_capture log;
    trace.error("first\n");
    trace.set_log_level(0);
    trace.error("second\n");
    EXPECT_EQ(log.texts(), std::vector<std::string>{"first\n"});
}

// Records what reaches the log library and, for each line, whether the trace's own lock was
// held while it did. The host library serialises its writer by a lock of its own, so the lines
// would arrive whole without the trace's lock; the device's library does not, which is why the
// trace must hold its lock around every call.
class lock_probing_capture {
public:
    lock_probing_capture() { vorna_log_host_set_writer(&lock_probing_capture::write, this); }
    ~lock_probing_capture() { vorna_log_host_set_writer(nullptr, nullptr); }
    lock_probing_capture(const lock_probing_capture&) = delete;
    lock_probing_capture& operator=(const lock_probing_capture&) = delete;

    std::vector<std::string> texts;  // written by the writer only, read once the writers ended
    size_t written_without_lock = 0;

private:
    // The probe runs on a thread of its own: try_lock on a mutex the calling thread holds is
    // undefined. A free lock is always taken; a spurious failure could only hide a fault.
    static bool trace_lock_is_free()
    {
        bool free_now = false;
        std::thread probe([&free_now] {
            if (trace_lock.try_lock()) {
                free_now = true;
                trace_lock.unlock();
            }
        });
        probe.join();
        return free_now;
    }

    static void write(vlr_log_level_t, const char* text, void* context)
    {
        auto* self = static_cast<lock_probing_capture*>(context);
        if (trace_lock_is_free())
            ++self->written_without_lock;
        self->texts.emplace_back(text);
    }
};

TEST_F(trace_test, lines_from_many_threads_arrive_whole)
{
    trace.set_log_level(15);
    std::vector<std::string> lines;
    size_t written_without_lock = 0;
    {
        lock_probing_capture log;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 500; ++i)
                    trace.info("thread %d line %d\n", t, i);
            });
        for (auto& thread : threads)
            thread.join();
        lines = log.texts;
        written_without_lock = log.written_without_lock;
    }
    EXPECT_EQ(written_without_lock, 0u) << "lines handed to the log library without the trace's lock";
    ASSERT_EQ(lines.size(), 2000u);
    int per_thread[4] = {};
    for (const auto& line : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(sscanf(line.c_str(), "thread %d line %d\n", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < 4);
        EXPECT_EQ(i, per_thread[t]++);  // each thread's lines in its own order
    }
}

}  // namespace
