#include "simulator.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "bus_relay.h"
#include "control_commands.h"
#include "control_server.h"
#include "files.h"
#include "relay_frame.h"
#include "request_log.h"
#include "services.h"
#include "virtual_device.h"

namespace {

using steady = std::chrono::steady_clock;

// Both relays register within milliseconds; this only bounds a bus that cannot be used.
constexpr std::chrono::seconds relay_start_limit(10);
// A relay leaves the bus within milliseconds of SIGTERM; after this it is killed.
constexpr std::chrono::seconds relay_stop_limit(5);

class simulator {
public:
    simulator(virtual_device& simulated, service_player& played, request_log& served,
              control_server& commands)
        : device(simulated), services(played), log(served), control(commands)
    {
        relays[0].role = bus_role::configd;
        relays[1].role = bus_role::networkd;
    }

    // Runs until a stop; returns the exit status.
    int run(int signal_fd);

private:
    void fail(const std::string& problem)
    {
        std::fprintf(stderr, "orvd-vdev: %s\n", problem.c_str());
        status = vdev_exit_failed;
        stopping = true;
    }

    void read_signals(int signal_fd);
    void reap_children();
    void read_relay(relay_process& relay);
    void handle_frame(relay_process& relay, const relay_frame& frame);
    void stop_relays();

    virtual_device& device;
    service_player& services;
    request_log& log;
    control_server& control;
    daemon_voices voices;
    relay_process relays[2];
    bool stopping = false;
    bool announced = false;
    int status = vdev_exit_ok;
};

int simulator::run(int signal_fd)
{
    std::string error;
    for (relay_process& relay : relays) {
        if (!start_relay(&relay, &error)) {
            fail(error);
            break;
        }
    }
    const steady::time_point started = steady::now();
    control_context context{device, services, voices};
    const control_server::command_runner run_command = [&context](const std::string& line) {
        return run_control_command(line, &context);
    };

    while (!stopping) {
        std::vector<pollfd> fds = {{signal_fd, POLLIN, 0}};
        for (const relay_process& relay : relays)
            fds.push_back({relay.fd, POLLIN, 0});
        const size_t control_first = fds.size();
        control.collect(&fds);
        if (::poll(fds.data(), fds.size(), 100) < 0 && errno != EINTR) {
            fail(std::string("poll: ") + std::strerror(errno));
            break;
        }
        if (fds[0].revents & POLLIN)
            read_signals(signal_fd);
        for (size_t i = 0; i < 2 && !stopping; ++i) {
            if (fds[1 + i].revents & (POLLIN | POLLHUP | POLLERR))
                read_relay(relays[i]);
        }
        if (!stopping)
            control.service(&fds[control_first], fds.size() - control_first, run_command);
        if (context.quit)
            stopping = true;

        if (!announced && relays[0].ready && relays[1].ready) {
            announced = true;
            std::printf("orvd-vdev: ready\n");
            std::fflush(stdout);
        }
        if (!announced && !stopping && steady::now() - started > relay_start_limit)
            fail("the bus relays did not register in time");
    }
    stop_relays();
    return status;
}

void simulator::read_signals(int signal_fd)
{
    signalfd_siginfo info;
    while (::read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGCHLD)
            reap_children();
        else
            stopping = true;  // SIGTERM, SIGINT: a normal end
    }
}

void simulator::reap_children()
{
    int child_status = 0;
    pid_t pid;
    while ((pid = ::waitpid(-1, &child_status, WNOHANG)) > 0) {
        for (relay_process& relay : relays) {
            if (relay.pid != pid)
                continue;
            relay.pid = -1;
            // What it said before it ended (why it could not register) comes first.
            if (!stopping && relay.fd >= 0)
                read_relay(relay);
            if (!stopping)
                fail(std::string("the ") + name_of(relay.role) + " relay ended");
        }
    }
}

void simulator::read_relay(relay_process& relay)
{
    char chunk[65536];
    bool ended = false;
    for (;;) {
        const ssize_t got = ::read(relay.fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (got <= 0) {
            ended = true;
            break;
        }
        relay.inbox.append(chunk, static_cast<size_t>(got));
    }
    relay_frame frame;
    while (!stopping && take_frame(&relay.inbox, &frame))
        handle_frame(relay, frame);
    if (ended && !stopping)
        fail(std::string("the ") + name_of(relay.role) + " relay ended");
}

void simulator::handle_frame(relay_process& relay, const relay_frame& frame)
{
    switch (frame.kind) {
    case frame_kind::ready:
        relay.ready = true;
        return;
    case frame_kind::failed:
        fail(frame.payload);
        return;
    case frame_kind::request: {
        relay_frame reply;
        reply.module = frame.module;
        if (voices.muted(relay.role)) {
            // Not acted on either: a hung daemon changes nothing.
            reply.kind = frame_kind::silence;
            log.record_unanswered(name_of(relay.role), module_of(relay.role), frame.module, frame.payload);
        } else {
            reply.kind = frame_kind::reply;
            reply.payload = answer_request(device, relay.role, frame.payload);
            // Logged before it is sent: whoever has the reply finds the line already written.
            log.record(name_of(relay.role), module_of(relay.role), frame.module, frame.payload,
                       reply.payload);
        }
        if (!write_frame(relay.fd, reply))
            fail(std::string("the ") + name_of(relay.role) + " relay does not listen");
        return;
    }
    case frame_kind::reply:
    case frame_kind::silence:
        break;
    }
    fail(std::string("the ") + name_of(relay.role) + " relay sent nonsense");
}

void simulator::stop_relays()
{
    for (relay_process& relay : relays) {
        if (relay.pid > 0)
            ::kill(relay.pid, SIGTERM);
        if (relay.fd >= 0)
            ::close(relay.fd);
        relay.fd = -1;
    }
    const steady::time_point deadline = steady::now() + relay_stop_limit;
    for (relay_process& relay : relays) {
        while (relay.pid > 0) {
            int child_status = 0;
            const pid_t done = ::waitpid(relay.pid, &child_status, WNOHANG);
            if (done == relay.pid || (done < 0 && errno == ECHILD)) {
                relay.pid = -1;
            } else if (steady::now() >= deadline) {
                std::fprintf(stderr, "orvd-vdev: the %s relay did not end; killed\n", name_of(relay.role));
                ::kill(relay.pid, SIGKILL);
                ::waitpid(relay.pid, &child_status, 0);
                relay.pid = -1;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
    }
}

// The root as an absolute path, created when missing; it becomes ORVD_ROOT for the device
// libraries and for the relays.
bool prepare_root(const std::string& root, std::string* error)
{
    if (!make_directories(root, error))
        return false;
    char* absolute = ::realpath(root.c_str(), nullptr);
    if (absolute == nullptr) {
        *error = "cannot resolve " + root + ": " + std::strerror(errno);
        return false;
    }
    ::setenv("ORVD_ROOT", absolute, 1);
    std::free(absolute);
    return true;
}

// Stop signals and child ends are read from a descriptor, in the loop, so that no handler
// runs in the middle of a reply.
int open_signal_fd()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    return ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

int run_simulator(const vdev_options& options)
{
    std::string error;
    std::unique_ptr<virtual_device> device;
    try {
        device = std::make_unique<virtual_device>(load_scenario(options.scenario));
    } catch (const scenario_error& problem) {
        std::fprintf(stderr, "orvd-vdev: scenario %s: %s\n", options.scenario.c_str(), problem.what());
        return vdev_exit_bad_input;
    }
    const int signal_fd = open_signal_fd();
    if (signal_fd < 0) {
        std::fprintf(stderr, "orvd-vdev: cannot read signals: %s\n", std::strerror(errno));
        return vdev_exit_failed;
    }
    if (!prepare_root(options.root, &error)) {
        std::fprintf(stderr, "orvd-vdev: %s\n", error.c_str());
        return vdev_exit_failed;
    }

    // The control socket first: it claims the root, so a second simulator started on it by
    // mistake ends here instead of rewriting the tree under the first one.
    control_server control;
    if (!control.open(&error)) {
        std::fprintf(stderr, "orvd-vdev: %s\n", error.c_str());
        return vdev_exit_failed;
    }
    bool bad_scenario = false;
    if (!device->build(&error, &bad_scenario)) {
        if (bad_scenario)
            std::fprintf(stderr, "orvd-vdev: scenario %s: %s\n", options.scenario.c_str(), error.c_str());
        else
            std::fprintf(stderr, "orvd-vdev: %s\n", error.c_str());
        return bad_scenario ? vdev_exit_bad_input : vdev_exit_failed;
    }
    service_player services(::getpid());
    request_log log;
    if (!services.prepare(device->setup().hostapd_running, device->setup().widsd_running, &error) ||
        !log.open(&error)) {
        std::fprintf(stderr, "orvd-vdev: %s\n", error.c_str());
        return vdev_exit_failed;
    }
    simulator loop(*device, services, log, control);
    const int status = loop.run(signal_fd);
    control.close();
    ::close(signal_fd);
    return status;
}
