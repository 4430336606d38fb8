#include "control_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "device_root.h"
#include "files.h"
#include "unix_socket.h"

namespace {

// A command is a few words; a longer line is not one.
constexpr size_t max_line = 4096;

}  // namespace

std::string control_server::path()
{
    return device_path("/sim/vdev/control");
}

bool control_server::open(std::string* error)
{
    const std::string file = path();
    if (!make_directories(file.substr(0, file.rfind('/')), error))
        return false;
    listen_fd = listen_stream(file, error);
    return listen_fd >= 0;
}

void control_server::close()
{
    for (client& peer : clients)
        ::close(peer.fd);
    clients.clear();
    if (listen_fd >= 0) {
        ::close(listen_fd);
        listen_fd = -1;
        ::unlink(path().c_str());
    }
}

void control_server::collect(std::vector<pollfd>* fds) const
{
    fds->push_back({listen_fd, POLLIN, 0});
    for (const client& peer : clients)
        fds->push_back({peer.fd, static_cast<short>(peer.output.empty() ? POLLIN : POLLIN | POLLOUT), 0});
}

void control_server::service(const pollfd* fds, size_t count, const command_runner& run)
{
    // Clients accepted now are not in this slice; they are served from the next round.
    for (size_t i = 1; i < count && i - 1 < clients.size(); ++i) {
        client& peer = clients[i - 1];
        if (fds[i].revents & POLLOUT)
            write_to(peer);
        if (fds[i].revents & (POLLIN | POLLHUP | POLLERR))
            read_from(peer, run);
    }
    clients.erase(std::remove_if(clients.begin(), clients.end(),
                                 [](const client& peer) {
                                     if (peer.fd >= 0 && !(peer.closing && peer.output.empty()))
                                         return false;
                                     if (peer.fd >= 0)
                                         ::close(peer.fd);
                                     return true;
                                 }),
                  clients.end());
    if (count > 0 && (fds[0].revents & POLLIN))
        accept_clients();
}

void control_server::accept_clients()
{
    for (;;) {
        const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        clients.push_back({fd, std::string(), std::string()});
    }
}

void control_server::read_from(client& peer, const command_runner& run)
{
    char chunk[1024];
    for (;;) {
        const ssize_t got = ::read(peer.fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (got <= 0) {
            peer.closing = true;  // the client is done; answer what it sent, then close
            break;
        }
        peer.input.append(chunk, static_cast<size_t>(got));
    }
    size_t newline;
    while ((newline = peer.input.find('\n')) != std::string::npos) {
        std::string line = peer.input.substr(0, newline);
        peer.input.erase(0, newline + 1);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        peer.output += run(line) + "\n";
    }
    // A last command without its newline still counts.
    if (peer.closing && !peer.input.empty() && peer.input.size() <= max_line) {
        peer.output += run(peer.input) + "\n";
        peer.input.clear();
    }
    if (peer.input.size() > max_line) {
        peer.output += "error line too long\n";
        peer.input.clear();
        peer.closing = true;
    }
    write_to(peer);
}

void control_server::write_to(client& peer)
{
    while (!peer.output.empty()) {
        const ssize_t wrote = ::send(peer.fd, peer.output.data(), peer.output.size(), MSG_NOSIGNAL);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        if (wrote <= 0) {
            peer.output.clear();
            peer.closing = true;
            return;
        }
        peer.output.erase(0, static_cast<size_t>(wrote));
    }
}
