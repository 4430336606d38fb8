#include "libvalidator.h"

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace {

using platform_test::temp_root;
using platform_test::write_file;

class validator_test : public ::testing::Test {
protected:
    void write(const std::string& content) { write_file(root.path() + "/etc/tx-power-limits", content); }
    temp_root root;
};

// What the library answers for `ifname` on `band`; min and max hold `before` until it writes them.
struct answer_t {
    int result;
    int min;
    int max;
};

answer_t limits_for(const char* ifname, int band, int before)
{
    answer_t answer{0, before, before};
    answer.result = libvalidator_fill_min_max_tx_power(ifname, &answer.min, &answer.max, band);
    return answer;
}

TEST_F(validator_test, the_matching_line_gives_the_limits)
{
    write("# ifname band min max\nwlan0 2 0 20\nwlan0 5 3 23\nwlan1\t5  -1\t17\n");
    answer_t wlan0 = limits_for("wlan0", 5, -100);
    ASSERT_EQ(wlan0.result, 0);
    EXPECT_EQ(wlan0.min, 3);
    EXPECT_EQ(wlan0.max, 23);
    answer_t wlan1 = limits_for("wlan1", 5, -100);
    ASSERT_EQ(wlan1.result, 0);
    EXPECT_EQ(wlan1.min, -1);
    EXPECT_EQ(wlan1.max, 17);
}

TEST_F(validator_test, the_first_matching_line_wins)
{
    write("wlan0 2 1 11\nwlan0 2 2 22\n");
    answer_t answer = limits_for("wlan0", 2, 0);
    ASSERT_EQ(answer.result, 0);
    EXPECT_EQ(answer.min, 1);
    EXPECT_EQ(answer.max, 11);
}

TEST_F(validator_test, comments_and_malformed_lines_are_skipped)
{
    write("wlan0 2 7 # the rest is missing\n# wlan0 2 9 9\nbroken\nwlan0 2 4 14 # trailing\n");
    answer_t answer = limits_for("wlan0", 2, 0);
    ASSERT_EQ(answer.result, 0);
    EXPECT_EQ(answer.min, 4);
    EXPECT_EQ(answer.max, 14);
}

TEST_F(validator_test, no_matching_line_writes_zero_and_fails)
{
    write("wlan0 2 0 20\n");
    answer_t other_band = limits_for("wlan0", 5, 5);
    EXPECT_EQ(other_band.result, -1);
    EXPECT_EQ(other_band.min, 0);
    EXPECT_EQ(other_band.max, 0);
    answer_t other_interface = limits_for("wlan9", 2, 5);
    EXPECT_EQ(other_interface.result, -1);
    EXPECT_EQ(other_interface.min, 0);
    EXPECT_EQ(other_interface.max, 0);
}

TEST_F(validator_test, a_missing_file_writes_zero_and_fails)
{
    answer_t answer = limits_for("wlan0", 2, 5);
    EXPECT_EQ(answer.result, -1);
    EXPECT_EQ(answer.min, 0);
    EXPECT_EQ(answer.max, 0);
}

}  // namespace
