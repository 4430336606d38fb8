#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>

namespace platform_test {

void make_directories(const std::string& path)
{
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/')
            continue;
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

void write_file(const std::string& path, const std::string& content)
{
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        make_directories(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(out.good()) << path;
}

bool file_exists(const std::string& path)
{
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

void log(vlr_log_level_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vvorna_log_msg_timed_new(level, format, args);
    va_end(args);
}

std::string binary_payload(size_t size)
{
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<char>((i * 131 + i / 256) & 0xFF);
    }
    return payload;
}

bool start_bus_peer(child_process& peer, const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{program_beside_self("bus_peer")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    if (peer.start(command))
        return true;
    ADD_FAILURE() << peer.failure();
    return false;
}

}  // namespace platform_test
