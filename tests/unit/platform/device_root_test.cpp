#include "device_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "test_support.h"

namespace {

class device_path_test : public ::testing::Test {
protected:
    platform_test::root_variable_restorer restore_root;
};

TEST_F(device_path_test, an_unset_root_leaves_the_path_unchanged)
{
    ::unsetenv("ORVD_ROOT");
    EXPECT_EQ(device_path("/proc/wlan0/mib_11n"), "/proc/wlan0/mib_11n");
}

TEST_F(device_path_test, an_empty_root_leaves_the_path_unchanged)
{
    ::setenv("ORVD_ROOT", "", 1);
    EXPECT_EQ(device_path("/sys/class/net"), "/sys/class/net");
}

TEST_F(device_path_test, the_root_is_prefixed)
{
    ::setenv("ORVD_ROOT", "/tmp/device", 1);
    EXPECT_EQ(device_path("/proc/wlan0/mib_11n"), "/tmp/device/proc/wlan0/mib_11n");
}

TEST_F(device_path_test, trailing_slashes_of_the_root_are_removed)
{
    ::setenv("ORVD_ROOT", "/tmp/device/", 1);
    EXPECT_EQ(device_path("/var/run/x"), "/tmp/device/var/run/x");
    ::setenv("ORVD_ROOT", "/tmp/device///", 1);
    EXPECT_EQ(device_path("/var/run/x"), "/tmp/device/var/run/x");
}

TEST_F(device_path_test, the_environment_is_read_on_every_call)
{
    ::setenv("ORVD_ROOT", "/a", 1);
    EXPECT_EQ(device_path("/etc/factory"), "/a/etc/factory");
    ::setenv("ORVD_ROOT", "/b", 1);
    EXPECT_EQ(device_path("/etc/factory"), "/b/etc/factory");
    ::unsetenv("ORVD_ROOT");
    EXPECT_EQ(device_path("/etc/factory"), "/etc/factory");
}

}  // namespace
