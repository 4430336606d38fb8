// Resolves the device's absolute paths below ORVD_ROOT (host runs and tests); on a device the
// variable is unset and every path stays as it is.
#include "device_root.h"

#include <cstdlib>

std::string device_path(const std::string& absolute_path)
{
    // Read on every call: tests point ORVD_ROOT at a fresh directory per test.
    const char* root = std::getenv("ORVD_ROOT");
    if (root == nullptr || root[0] == '\0')
        return absolute_path;
    std::string result(root);
    while (!result.empty() && result.back() == '/')
        result.pop_back();
    // ORVD_ROOT="/" strips down to "", which leaves the path unchanged as well.
    result += absolute_path;
    return result;
}
