#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::string describe(const char* what, const std::string& path)
{
    return std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
}

bool write_all(int fd, const std::string& content)
{
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t wrote = ::write(fd, content.data() + done, content.size() - done);
        if (wrote < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(wrote);
    }
    return true;
}

}  // namespace

bool make_directories(const std::string& path, std::string* error)
{
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/')
            continue;
        const std::string part = path.substr(0, slash);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = describe("create", part);
            return false;
        }
    }
    struct stat info;
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        errno = ENOTDIR;
        *error = describe("use", path);
        return false;
    }
    return true;
}

bool replace_file(const std::string& path, const std::string& content, std::string* error)
{
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !make_directories(path.substr(0, slash), error))
        return false;
    // The temporary name carries the pid: a file of another writer (vrtl) is never taken for ours.
    const std::string temporary = path + ".tmp." + std::to_string(::getpid());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = describe("create", temporary);
        return false;
    }
    const bool written = write_all(fd, content);
    const int saved = errno;
    if (::close(fd) != 0 || !written) {
        errno = written ? errno : saved;
        *error = describe("write", temporary);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        *error = describe("rename into", path);
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

bool remove_file(const std::string& path, std::string* error)
{
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        *error = describe("remove", path);
        return false;
    }
    return true;
}

bool file_exists(const std::string& path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}
