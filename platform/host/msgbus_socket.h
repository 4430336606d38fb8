// Where a module's socket lives, how a sender reaches it and how its owner binds it. Private to
// the host message bus.
//
// Module n is the Unix datagram socket bound at device_path("/run/msgbus/") + "module-<n>".
// Paths longer than a socket address allows (108 bytes) are reached through the bus directory
// opened as a descriptor: "/proc/self/fd/<dirfd>/module-<n>".
#ifndef ORVD_PLATFORM_HOST_MSGBUS_SOCKET_H
#define ORVD_PLATFORM_HOST_MSGBUS_SOCKET_H

#include <string>

#include <sys/socket.h>
#include <sys/un.h>

namespace msgbus_host {

// A frame carries the module number in 16 bits; 0 stands for an unregistered sender.
constexpr int max_module = 65535;

std::string bus_directory();

// Keeps the bus directory open for as long as a too-long path is reached through /proc/self/fd.
class module_address {
public:
    module_address() = default;
    module_address(const module_address&) = delete;
    module_address& operator=(const module_address&) = delete;
    ~module_address();

    // False when the path cannot be expressed as a socket address (errno tells why).
    bool resolve(const std::string& directory, int module);

    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&storage); }
    socklen_t length() const { return storage_length; }

private:
    sockaddr_un storage{};
    socklen_t storage_length = 0;
    int directory_fd = -1;
};

// Opens a non-blocking datagram socket bound at the module's path, creating the bus directory
// when it is missing. A file left by a dead owner is taken over; a live owner makes it fail.
// Returns the descriptor and sets *path, or returns -1 after a trace line.
int bind_module_socket(int module, std::string* path);

}  // namespace msgbus_host

#endif
