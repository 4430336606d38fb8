#include "msgbus_socket.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device_root.h"
#include "msgbus_trace.h"

namespace msgbus_host {

namespace {

std::string module_file_name(int module)
{
    return "module-" + std::to_string(module);
}

// mkdir -p with mode 0755.
bool make_directories(const std::string& path)
{
    if (path.empty())
        return false;
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/')
            continue;
        std::string part = path.substr(0, slash);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Binds `fd` at the module's path. A file left by a dead owner (connecting is refused) is
// removed and the bind tried again. The check and the take-over run under a lock file so that
// two processes cannot both take over the same stale file.
bool bind_module(int fd, const std::string& directory, const std::string& path, int module)
{
    std::string lock_path = directory + "/.lock";
    int lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd < 0) {
        trace(VLR_LOG_ERROR, "cannot open %s: %s", lock_path.c_str(), std::strerror(errno));
        return false;
    }
    while (::flock(lock_fd, LOCK_EX) != 0 && errno == EINTR) {
    }

    bool bound = false;
    module_address address;
    if (!address.resolve(directory, module)) {
        trace(VLR_LOG_ERROR, "cannot address %s: %s", path.c_str(), std::strerror(errno));
    } else if (::bind(fd, address.address(), address.length()) == 0) {
        bound = true;
    } else if (errno != EADDRINUSE) {
        trace(VLR_LOG_ERROR, "cannot bind %s: %s", path.c_str(), std::strerror(errno));
    } else {
        int probe = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int probe_result = probe < 0 ? -1 : ::connect(probe, address.address(), address.length());
        int probe_errno = errno;
        if (probe >= 0)
            ::close(probe);
        if (probe_result == 0) {
            trace(VLR_LOG_ERROR, "module %d is taken by a live process", module);
        } else if (probe_errno != ECONNREFUSED) {
            trace(VLR_LOG_ERROR, "cannot check %s: %s", path.c_str(), std::strerror(probe_errno));
        } else if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            trace(VLR_LOG_ERROR, "cannot remove stale %s: %s", path.c_str(), std::strerror(errno));
        } else if (::bind(fd, address.address(), address.length()) == 0) {
            trace(VLR_LOG_INFO, "module %d: took over a stale socket file", module);
            bound = true;
        } else {
            trace(VLR_LOG_ERROR, "cannot bind %s: %s", path.c_str(), std::strerror(errno));
        }
    }
    ::close(lock_fd);  // releases the lock
    return bound;
}

}  // namespace

std::string bus_directory()
{
    return device_path("/run/msgbus");
}

module_address::~module_address()
{
    if (directory_fd >= 0)
        ::close(directory_fd);
}

bool module_address::resolve(const std::string& directory, int module)
{
    std::string name = module_file_name(module);
    std::string full = directory + "/" + name;
    if (full.size() >= sizeof storage.sun_path) {
        directory_fd = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (directory_fd < 0)
            return false;
        full = "/proc/self/fd/" + std::to_string(directory_fd) + "/" + name;
        if (full.size() >= sizeof storage.sun_path)
            return false;
    }
    std::memset(&storage, 0, sizeof storage);
    storage.sun_family = AF_UNIX;
    std::memcpy(storage.sun_path, full.c_str(), full.size() + 1);
    storage_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + full.size() + 1);
    return true;
}

int bind_module_socket(int module, std::string* path)
{
    std::string directory = bus_directory();
    if (!make_directories(directory)) {
        trace(VLR_LOG_ERROR, "cannot use the bus directory %s: %s", directory.c_str(), std::strerror(errno));
        return -1;
    }
    std::string module_path = directory + "/" + module_file_name(module);
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        trace(VLR_LOG_ERROR, "cannot open a socket: %s", std::strerror(errno));
        return -1;
    }
    if (!bind_module(fd, directory, module_path, module)) {
        ::close(fd);
        return -1;
    }
    *path = module_path;
    return fd;
}

}  // namespace msgbus_host
