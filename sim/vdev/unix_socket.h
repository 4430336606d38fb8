// Unix stream sockets at file paths of any length: a path longer than a socket address allows
// (108 bytes, easily passed by a deep test directory) is reached through its directory opened
// as a descriptor, "/proc/self/fd/<dirfd>/<name>", as the bus library does.
#ifndef ORVD_SIM_VDEV_UNIX_SOCKET_H
#define ORVD_SIM_VDEV_UNIX_SOCKET_H

#include <string>

// A listening socket at `path`. A file left by a dead simulator is replaced; a live listener
// makes it fail.
int listen_stream(const std::string& path, std::string* error);

// A connected socket, or -1 with the reason.
int connect_stream(const std::string& path, std::string* error);

#endif
