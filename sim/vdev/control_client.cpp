#include "control_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "unix_socket.h"

namespace {

bool send_all(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

// The answer line without its newline; false when the connection ends first.
bool read_line(int fd, std::string* line)
{
    char chunk[4096];
    for (;;) {
        const size_t newline = line->find('\n');
        if (newline != std::string::npos) {
            line->resize(newline);
            return true;
        }
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        line->append(chunk, static_cast<size_t>(got));
    }
}

}  // namespace

int run_control_client(const vdev_options& options)
{
    // ORVD_ROOT is not involved: the client is told the root on its command line.
    const std::string socket_path = options.root + "/sim/vdev/control";
    std::string command;
    for (const std::string& word : options.words)
        command += (command.empty() ? "" : " ") + word;

    std::string error;
    const int fd = connect_stream(socket_path, &error);
    if (fd < 0) {
        std::fprintf(stderr, "orvd-vdev: no simulator answers on %s (%s)\n", options.root.c_str(),
                     error.c_str());
        return vdev_exit_failed;
    }
    std::string answer;
    const bool answered = send_all(fd, command + "\n") && read_line(fd, &answer);
    ::close(fd);
    if (!answered) {
        std::fprintf(stderr, "orvd-vdev: the simulator on %s did not answer\n", options.root.c_str());
        return vdev_exit_failed;
    }
    if (answer == "ok")
        return vdev_exit_ok;
    if (answer.compare(0, 3, "ok ") == 0) {
        std::printf("%s\n", answer.c_str() + 3);
        return std::fflush(stdout) == 0 ? vdev_exit_ok : vdev_exit_failed;
    }
    const std::string reason = answer.compare(0, 6, "error ") == 0 ? answer.substr(6) : answer;
    std::fprintf(stderr, "orvd-vdev: %s\n", reason.c_str());
    return vdev_exit_failed;
}
