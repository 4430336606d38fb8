#include "device_root.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// Restores ORVD_ROOT after each test.
class DevicePathTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* value = std::getenv("ORVD_ROOT");
        had_ = value != nullptr;
        if (had_) saved_ = value;
    }
    void TearDown() override {
        if (had_) {
            ::setenv("ORVD_ROOT", saved_.c_str(), 1);
        } else {
            ::unsetenv("ORVD_ROOT");
        }
    }

private:
    bool had_ = false;
    std::string saved_;
};

TEST_F(DevicePathTest, UnsetRootLeavesPathUnchanged) {
    ::unsetenv("ORVD_ROOT");
    EXPECT_EQ(device_path("/proc/wlan0/mib_11n"), "/proc/wlan0/mib_11n");
}

TEST_F(DevicePathTest, EmptyRootLeavesPathUnchanged) {
    ::setenv("ORVD_ROOT", "", 1);
    EXPECT_EQ(device_path("/sys/class/net"), "/sys/class/net");
}

TEST_F(DevicePathTest, RootIsPrefixed) {
    ::setenv("ORVD_ROOT", "/tmp/device", 1);
    EXPECT_EQ(device_path("/proc/wlan0/mib_11n"), "/tmp/device/proc/wlan0/mib_11n");
}

TEST_F(DevicePathTest, TrailingSlashesOfRootAreRemoved) {
    ::setenv("ORVD_ROOT", "/tmp/device/", 1);
    EXPECT_EQ(device_path("/var/run/x"), "/tmp/device/var/run/x");
    ::setenv("ORVD_ROOT", "/tmp/device///", 1);
    EXPECT_EQ(device_path("/var/run/x"), "/tmp/device/var/run/x");
}

TEST_F(DevicePathTest, EnvironmentIsReadOnEveryCall) {
    ::setenv("ORVD_ROOT", "/a", 1);
    EXPECT_EQ(device_path("/etc/factory"), "/a/etc/factory");
    ::setenv("ORVD_ROOT", "/b", 1);
    EXPECT_EQ(device_path("/etc/factory"), "/b/etc/factory");
    ::unsetenv("ORVD_ROOT");
    EXPECT_EQ(device_path("/etc/factory"), "/etc/factory");
}

}  // namespace
