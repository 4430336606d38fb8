#include "bus_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "msgbus.h"
#include "relay_frame.h"
#include "stop_signals.h"
#include "vorna_log.h"

namespace {

// The relay's end of the socket pair, after the other descriptors are closed.
constexpr int relay_fd = 3;
// How long the relay sleeps between looks at its receive queue while it is empty.
constexpr int queue_poll_ms = 2;

// The simulator blocks signals to read them through a signalfd; the relay unblocks all but the
// two that ask it to stop, which it takes in its loop so that it can leave the bus before it
// ends. Its waits are short: it looks every few milliseconds, and a reply it waits for ends
// when the simulator closes its end.
void take_signals()
{
    signal(SIGCHLD, SIG_DFL);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    catch_stop_signals();
}

void report(frame_kind kind, const std::string& text)
{
    relay_frame frame;
    frame.kind = kind;
    frame.payload = text;
    write_frame(relay_fd, frame);
}

// The simulator closed its end: it has ended.
bool simulator_gone()
{
    pollfd end = {relay_fd, POLLIN, 0};
    return ::poll(&end, 1, queue_poll_ms) > 0;
}

void pass_on(const message_s& message, const char* name)
{
    relay_frame request;
    request.kind = frame_kind::request;
    request.module = message.source;
    request.payload.assign(message.payload, message.length);
    relay_frame reply;
    if (!write_frame(relay_fd, request) || !read_frame(relay_fd, &reply, stop_requested))
        return;
    if (reply.kind == frame_kind::silence)
        return;
    if (message.source == 0) {
        std::fprintf(stderr, "orvd-vdev %s: a request from an unregistered sender cannot be answered\n",
                     name);
        return;
    }
    if (MsgSend(reply.payload.data(), message.source, static_cast<unsigned>(reply.payload.size())) != 0)
        std::fprintf(stderr, "orvd-vdev %s: the reply to module %u was not delivered\n", name,
                     message.source);
}

[[noreturn]] void run_relay(bus_role role, pid_t simulator)
{
    take_signals();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != simulator)
        std::_Exit(1);
    // The bus library logs under this name; it keeps the pointer, so it must be a literal.
    const char* name = role == bus_role::configd ? "orvd-vdev-configd" : "orvd-vdev-networkd";
    vorna_log_set_daemonname(name);

    const int module = module_of(role);
    if (InitLibParams(module, nullptr, 0) != 0) {
        report(frame_kind::failed, "module " + std::to_string(module) + " (" + name_of(role) +
                                       ") is taken, or the bus cannot be used");
        std::_Exit(1);
    }
    if (ModulePeerStart() != 0) {
        report(frame_kind::failed, "cannot receive as module " + std::to_string(module));
        FreeLibParams();
        std::_Exit(1);
    }
    report(frame_kind::ready, "");

    int status = 0;
    while (!stop_requested()) {
        message_s* message = GetMsgFromQueueNoWait();
        if (message != nullptr) {
            pass_on(*message, name_of(role));
            std::free(message);
            continue;
        }
        if (GetModuleLoop() == 0) {
            std::fprintf(stderr, "orvd-vdev %s: module %d stopped receiving\n", name_of(role), module);
            status = 1;
            break;
        }
        if (simulator_gone())
            break;
    }
    ModulePeerStop();
    FreeLibParams();  // removes the module's socket file
    std::fflush(stderr);
    std::_Exit(status);
}

}  // namespace

bool start_relay(relay_process* relay, std::string* error)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        *error = std::string("cannot make a socket pair: ") + std::strerror(errno);
        return false;
    }
    const pid_t simulator = ::getpid();
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        *error = std::string("cannot start the ") + name_of(relay->role) + " relay: " + std::strerror(errno);
        ::close(ends[0]);
        ::close(ends[1]);
        return false;
    }
    if (pid == 0) {
        // Only the standard streams and this relay's end stay open: the other relay's end kept
        // here would hide the simulator's end from it.
        if (::dup2(ends[1], relay_fd) < 0)
            std::_Exit(1);
        ::close_range(relay_fd + 1, ~0U, 0);
        run_relay(relay->role, simulator);
    }
    ::close(ends[1]);
    ::fcntl(ends[0], F_SETFL, ::fcntl(ends[0], F_GETFL) | O_NONBLOCK);
    relay->pid = pid;
    relay->fd = ends[0];
    relay->ready = false;
    relay->inbox.clear();
    return true;
}
