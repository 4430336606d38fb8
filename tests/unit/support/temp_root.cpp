#include "temp_root.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    ::remove(path);
    return 0;
}

void make_parents(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

}  // namespace

root_variable_restorer::root_variable_restorer()
{
    const char* previous = std::getenv("ORVD_ROOT");
    was_set = previous != nullptr;
    if (was_set)
        value = previous;
}

root_variable_restorer::~root_variable_restorer()
{
    if (was_set)
        setenv("ORVD_ROOT", value.c_str(), 1);
    else
        unsetenv("ORVD_ROOT");
}

temp_root::temp_root(const char* prefix)
{
    std::string pattern = std::string("/tmp/") + prefix + "-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) != nullptr)
        directory = name.data();
    setenv("ORVD_ROOT", directory.c_str(), 1);
}

temp_root::~temp_root()
{
    if (!directory.empty())
        nftw(directory.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

bool temp_root::create(const std::string& absolute, const std::string& text) const
{
    const std::string path = device(absolute);
    make_parents(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

void temp_root::use_subdirectory(const std::string& relative)
{
    const std::string full = directory + "/" + relative + "/";
    make_parents(full);
    setenv("ORVD_ROOT", full.substr(0, full.size() - 1).c_str(), 1);
}

bool temp_root::exists(const std::string& absolute) const
{
    struct stat status;
    return stat(device(absolute).c_str(), &status) == 0;
}

void temp_root::remove(const std::string& absolute) const
{
    ::unlink(device(absolute).c_str());
}
