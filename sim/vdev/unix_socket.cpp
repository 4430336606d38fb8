#include "unix_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

class socket_address {
public:
    socket_address() = default;
    socket_address(const socket_address&) = delete;
    socket_address& operator=(const socket_address&) = delete;
    ~socket_address()
    {
        if (directory_fd >= 0)
            ::close(directory_fd);
    }

    bool resolve(const std::string& path)
    {
        std::string full = path;
        if (full.size() >= sizeof storage.sun_path) {
            const size_t slash = path.rfind('/');
            if (slash == std::string::npos) {
                errno = ENAMETOOLONG;
                return false;
            }
            directory_fd = ::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (directory_fd < 0)
                return false;
            full = "/proc/self/fd/" + std::to_string(directory_fd) + path.substr(slash);
            if (full.size() >= sizeof storage.sun_path) {
                errno = ENAMETOOLONG;
                return false;
            }
        }
        storage.sun_family = AF_UNIX;
        std::memcpy(storage.sun_path, full.c_str(), full.size() + 1);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + full.size() + 1);
        return true;
    }

    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&storage); }
    socklen_t size() const { return length; }

private:
    sockaddr_un storage{};
    socklen_t length = 0;
    int directory_fd = -1;
};

std::string failure(const char* what, const std::string& path)
{
    return std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

int listen_stream(const std::string& path, std::string* error)
{
    socket_address address;
    if (!address.resolve(path)) {
        *error = failure("address", path);
        return -1;
    }
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe >= 0 && ::connect(probe, address.address(), address.size()) == 0) {
        ::close(probe);
        *error = path + " is answered by a running orvd-vdev";
        return -1;
    }
    if (probe >= 0)
        ::close(probe);
    ::unlink(path.c_str());

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::bind(fd, address.address(), address.size()) != 0 || ::listen(fd, 16) != 0) {
        *error = failure("listen on", path);
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    return fd;
}

int connect_stream(const std::string& path, std::string* error)
{
    socket_address address;
    if (!address.resolve(path)) {
        *error = failure("address", path);
        return -1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, address.address(), address.size()) != 0) {
        *error = failure("connect to", path);
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    return fd;
}
