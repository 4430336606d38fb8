#include "libvalidator.h"

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace {

using platform_test::TempRoot;
using platform_test::write_file;

class ValidatorTest : public ::testing::Test {
protected:
    void write(const std::string& content) {
        write_file(root_.path() + "/etc/tx-power-limits", content);
    }
    TempRoot root_;
};

TEST_F(ValidatorTest, MatchingLineGivesLimits) {
    write("# ifname band min max\nwlan0 2 0 20\nwlan0 5 3 23\nwlan1\t5  -1\t17\n");
    int min = -100;
    int max = -100;
    ASSERT_EQ(libvalidator_fill_min_max_tx_power("wlan0", &min, &max, 5), 0);
    EXPECT_EQ(min, 3);
    EXPECT_EQ(max, 23);
    ASSERT_EQ(libvalidator_fill_min_max_tx_power("wlan1", &min, &max, 5), 0);
    EXPECT_EQ(min, -1);
    EXPECT_EQ(max, 17);
}

TEST_F(ValidatorTest, FirstMatchingLineWins) {
    write("wlan0 2 1 11\nwlan0 2 2 22\n");
    int min = 0;
    int max = 0;
    ASSERT_EQ(libvalidator_fill_min_max_tx_power("wlan0", &min, &max, 2), 0);
    EXPECT_EQ(min, 1);
    EXPECT_EQ(max, 11);
}

TEST_F(ValidatorTest, CommentsAndMalformedLinesAreSkipped) {
    write("wlan0 2 7 # the rest is missing\n# wlan0 2 9 9\nbroken\nwlan0 2 4 14 # trailing\n");
    int min = 0;
    int max = 0;
    ASSERT_EQ(libvalidator_fill_min_max_tx_power("wlan0", &min, &max, 2), 0);
    EXPECT_EQ(min, 4);
    EXPECT_EQ(max, 14);
}

TEST_F(ValidatorTest, NoMatchingLineWritesZeroAndFails) {
    write("wlan0 2 0 20\n");
    int min = 5;
    int max = 5;
    EXPECT_EQ(libvalidator_fill_min_max_tx_power("wlan0", &min, &max, 5), -1);
    EXPECT_EQ(min, 0);
    EXPECT_EQ(max, 0);
    min = max = 5;
    EXPECT_EQ(libvalidator_fill_min_max_tx_power("wlan9", &min, &max, 2), -1);
    EXPECT_EQ(min, 0);
    EXPECT_EQ(max, 0);
}

TEST_F(ValidatorTest, MissingFileWritesZeroAndFails) {
    int min = 5;
    int max = 5;
    EXPECT_EQ(libvalidator_fill_min_max_tx_power("wlan0", &min, &max, 2), -1);
    EXPECT_EQ(min, 0);
    EXPECT_EQ(max, 0);
}

}  // namespace
