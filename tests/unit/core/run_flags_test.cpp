#include "core/run_flags.h"

#include <gtest/gtest.h>

#include <csignal>

#include "core/trace.h"
#include "log_capture.h"

namespace {

void set_all_flags()
{
    write_run_flag(wids_ipc_run, true);
    write_run_flag(wids_ws_run, true);
    write_run_flag(rrm_run, true);
    write_run_flag(rrm_ws_run, true);
}

bool any_flag_set()
{
    return read_run_flag(wids_ipc_run) || read_run_flag(wids_ws_run) || read_run_flag(rrm_run) ||
           read_run_flag(rrm_ws_run);
}

class run_flags_test : public ::testing::Test {
protected:
    void SetUp() override { trace.set_log_level(orv_trace::MASK_DEBUG); }
    void TearDown() override
    {
        trace.set_log_level(0);
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
    }
};

TEST_F(run_flags_test, the_handler_clears_all_four_flags_and_logs_term)
{
    set_all_flags();
    log_capture log;
    orvd_handle_signal(SIGTERM);
    EXPECT_FALSE(any_flag_set());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, VLR_LOG_DEBUG);
    EXPECT_EQ(log.lines()[0].text, "orvd_handle_signal: TERM\n");
}

TEST_F(run_flags_test, sigint_is_logged_with_the_same_text)
{
    set_all_flags();
    log_capture log;
    orvd_handle_signal(SIGINT);
    EXPECT_FALSE(any_flag_set());
    EXPECT_EQ(log.texts(), std::vector<std::string>{"orvd_handle_signal: TERM\n"});
}

// Delivered as real signals, with the log silent: the test's log capture allocates, which a
// signal handler must not do.
TEST_F(run_flags_test, the_installed_handler_clears_the_flags_on_sigterm_and_sigint)
{
    trace.set_log_level(0);
    signal(SIGTERM, orvd_handle_signal);
    signal(SIGINT, orvd_handle_signal);
    set_all_flags();
    raise(SIGINT);
    EXPECT_FALSE(any_flag_set());
    set_all_flags();
    raise(SIGTERM);
    EXPECT_FALSE(any_flag_set());
}

TEST_F(run_flags_test, the_handler_stays_installed_and_a_second_signal_only_clears_again)
{
    trace.set_log_level(0);
    signal(SIGTERM, orvd_handle_signal);
    set_all_flags();
    raise(SIGTERM);
    EXPECT_FALSE(any_flag_set());
    set_all_flags();
    raise(SIGTERM);  // still ours: the process is not ended
    EXPECT_FALSE(any_flag_set());
}

}  // namespace
