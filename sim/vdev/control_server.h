// The control socket: a Unix stream socket at sim/vdev/control below the device root that takes
// one command per line and answers each with one line. Several clients may stay connected.
#ifndef ORVD_SIM_VDEV_CONTROL_SERVER_H
#define ORVD_SIM_VDEV_CONTROL_SERVER_H

#include <poll.h>

#include <functional>
#include <string>
#include <vector>

class control_server {
public:
    using command_runner = std::function<std::string(const std::string& line)>;

    control_server() = default;
    ~control_server() { close(); }
    control_server(const control_server&) = delete;
    control_server& operator=(const control_server&) = delete;

    static std::string path();

    bool open(std::string* error);
    // Closes every connection and removes the socket file.
    void close();

    // Appends the descriptors to wait on; service() takes the same slice back after poll().
    void collect(std::vector<pollfd>* fds) const;
    void service(const pollfd* fds, size_t count, const command_runner& run);

private:
    struct client {
        int fd;
        std::string input;
        std::string output;
        bool closing = false;  // close once the output is written
    };

    void accept_clients();
    void read_from(client& peer, const command_runner& run);
    void write_to(client& peer);

    int listen_fd = -1;
    std::vector<client> clients;
};

#endif
