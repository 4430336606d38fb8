// Host message bus: registration, the peer that receives into the queue, sending, and
// wait_answer. Each module owns one Unix datagram socket (msgbus_socket.h) and anyone sends to
// a module by its path. Messages larger than one datagram are cut into chunks with a small
// header (msgbus_frame.h) and put back together by the receiving peer.
//
// Process-wide state: one module per process. Every function is thread-safe; the peer's
// receiver thread runs next to any number of sending threads.
//
// Limits:
//   - a message carries at most 16 MiB of payload (msgbus_frame::max_message_size);
//   - the receive queue holds at most max_queue_messages messages and max_queue_bytes payload
//     bytes; a message completed beyond that is dropped (the newest) with an error line;
//   - incomplete messages are bounded by msgbus_frame::reassembly_limits (32 MiB, 64
//     messages, 5 s);
//   - a sender waits at most send_timeout_ms for room in the receiver's socket queue, then
//     MsgSend fails; a module that is not on the bus fails at once, and the calling thread's
//     next wait_answer then does not wait (no reply can come), see last_send_found_nobody.
#include "msgbus.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "msgbus_frame.h"
#include "msgbus_socket.h"
#include "msgbus_trace.h"

namespace {

using msgbus_frame::chunk_size;
using msgbus_frame::frame_header;
using msgbus_frame::header_size;
using msgbus_frame::max_datagram_size;
using msgbus_frame::max_message_size;
using msgbus_frame::reassembler;
using msgbus_host::log_line;
using msgbus_host::max_module;
using msgbus_host::trace;

constexpr size_t max_queue_messages = 1024;
constexpr size_t max_queue_bytes = 64 * 1024 * 1024;
constexpr int64_t send_timeout_ms = 2000;
// How long the receiver sleeps in poll before it looks at expired fragments again.
constexpr int receiver_poll_ms = 1000;
// Datagrams read in one go before the receiver checks for a stop request again.
constexpr int receive_batch = 64;

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

struct bus_state {
    // Registration and the peer's life: InitLibParams, FreeLibParams, ModulePeerStart/Stop.
    std::mutex life;
    int fd = -1;       // the module's bound socket
    int wake_fd = -1;  // eventfd that tells the receiver to stop
    std::string socket_path;
    std::thread receiver;
    reassembler fragments;  // used by the receiver thread only while it runs

    std::atomic<int> module{0};  // registered module, 0 when none (also the source of sends)
    std::atomic<int> loop{0};
    std::atomic<uint32_t> sequence{0};

    std::mutex queue_lock;
    std::condition_variable queue_changed;
    std::deque<message_s*> queue;
    size_t queue_bytes = 0;
    bool peer_running = false;
};

// Built on first use and never destroyed: a peer thread may still run while the process exits,
// and other translation units may use the bus from their static constructors.
bus_state& bus()
{
    static bus_state* instance = new bus_state;
    return *instance;
}

// Drops the message (the newest) when the queue is full.
void enqueue(bus_state& b, message_s* message)
{
    size_t length = message->length;
    {
        std::lock_guard<std::mutex> guard(b.queue_lock);
        if (b.queue.size() < max_queue_messages && b.queue_bytes + length <= max_queue_bytes) {
            b.queue.push_back(message);
            b.queue_bytes += length;
            b.queue_changed.notify_all();
            return;
        }
    }
    log_line(VLR_LOG_ERROR, "msgbus: receive queue full, message %u of %zu bytes from module %u dropped\n",
             message->sequence, length, static_cast<unsigned>(message->source));
    std::free(message);
}

void receive_loop(bus_state* b, int fd, int wake_fd)
{
    std::vector<unsigned char> buffer(max_datagram_size + 1);  // one more to tell a too-long datagram
    bool failed = false;
    uint64_t reported_drops = b->fragments.dropped_incomplete();
    int64_t last_expiry = now_ms();
    for (;;) {
        pollfd fds[2] = {{wake_fd, POLLIN, 0}, {fd, POLLIN, 0}};
        int ready = ::poll(fds, 2, receiver_poll_ms);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            trace(VLR_LOG_ERROR, "receiver poll failed: %s", std::strerror(errno));
            failed = true;
            break;
        }
        if (fds[0].revents != 0)
            break;  // stop requested
        if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            trace(VLR_LOG_ERROR, "module socket failed");
            failed = true;
            break;
        }
        for (int i = 0; i < receive_batch && (fds[1].revents & POLLIN) != 0; ++i) {
            ssize_t received = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
            if (received < 0) {
                if (errno == EINTR)
                    continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK)
                    break;
                trace(VLR_LOG_ERROR, "receive failed: %s", std::strerror(errno));
                failed = true;
                break;
            }
            if (static_cast<size_t>(received) > max_datagram_size) {
                trace(VLR_LOG_WARNING, "dropped a datagram of %zd bytes (too long)", received);
                continue;
            }
            message_s* message = nullptr;
            const char* reason = nullptr;
            auto result =
                b->fragments.feed(buffer.data(), static_cast<size_t>(received), now_ms(), &message, &reason);
            if (result == reassembler::feed_result::complete)
                enqueue(*b, message);
            else if (result == reassembler::feed_result::dropped)
                trace(VLR_LOG_WARNING, "dropped a fragment: %s", reason);
        }
        if (failed)
            break;
        int64_t now = now_ms();
        if (now - last_expiry >= receiver_poll_ms) {
            b->fragments.expire(now);
            last_expiry = now;
        }
        if (b->fragments.dropped_incomplete() != reported_drops) {
            trace(VLR_LOG_WARNING, "dropped %llu incomplete message(s)",
                  static_cast<unsigned long long>(b->fragments.dropped_incomplete() - reported_drops));
            reported_drops = b->fragments.dropped_incomplete();
        }
    }
    if (failed)
        b->loop.store(0);  // the worker sees the flag drop and reconnects
    std::lock_guard<std::mutex> guard(b->queue_lock);
    b->peer_running = false;
    b->queue_changed.notify_all();
}

// `life` is held by the caller.
void stop_peer_locked(bus_state& b)
{
    if (b.receiver.joinable()) {
        uint64_t one = 1;
        while (::write(b.wake_fd, &one, sizeof one) < 0 && errno == EINTR) {
        }
        b.receiver.join();
        uint64_t count = 0;
        while (::read(b.wake_fd, &count, sizeof count) < 0 && errno == EINTR) {
        }
    }
    b.loop.store(0);
    std::lock_guard<std::mutex> guard(b.queue_lock);
    b.peer_running = false;
    b.queue_changed.notify_all();
}

void clear_queue(bus_state& b)
{
    std::deque<message_s*> dropped;
    {
        std::lock_guard<std::mutex> guard(b.queue_lock);
        dropped.swap(b.queue);
        b.queue_bytes = 0;
    }
    for (message_s* message : dropped)
        std::free(message);
}

message_s* pop_message_locked(bus_state& b)
{
    if (b.queue.empty())
        return nullptr;
    message_s* message = b.queue.front();
    b.queue.pop_front();
    b.queue_bytes -= message->length;
    return message;
}

// Sends one datagram, waiting for room in the receiver's queue until `deadline`.
bool send_datagram(int fd, const iovec* parts, size_t part_count, int64_t deadline)
{
    msghdr header{};
    header.msg_iov = const_cast<iovec*>(parts);
    header.msg_iovlen = part_count;
    for (;;) {
        if (::sendmsg(fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return true;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS)
            return false;
        int64_t left = deadline - now_ms();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        // A connected datagram socket turns writable when the receiver makes room; the short
        // cap only guards against a missed wake-up.
        pollfd wait_for_room = {fd, POLLOUT, 0};
        ::poll(&wait_for_room, 1, static_cast<int>(left < 20 ? left : 20));
    }
}

// Set on a thread whose last MsgSend found nobody holding its module (ENOENT, ECONNREFUSED);
// cleared by its next MsgSend and by its next wait_answer, which then only looks at what is
// already queued. A request to a module that is not on the bus cannot be answered, and its
// caller need not look at MsgSend's result to learn that: it is told by the wait ending.
thread_local bool last_send_found_nobody = false;

// A socket connected to the module, or -1. Connecting fails at once (ENOENT, ECONNREFUSED)
// when nobody holds the module, so a send to a module that is not on the bus never waits.
int connect_to_module(int module)
{
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    msgbus_host::module_address address;
    if (!address.resolve(msgbus_host::bus_directory(), module) ||
        ::connect(fd, address.address(), address.length()) != 0) {
        int error = errno;
        ::close(fd);
        errno = error;  // tells the caller whether anybody holds the module
        return -1;
    }
    return fd;
}

}  // namespace

extern "C" {

int InitLibParams(int module, const signed char* params, int params_length)
{
    // The device library's parameter block means nothing on the host.
    (void)params;
    (void)params_length;
    bus_state& b = bus();
    std::lock_guard<std::mutex> guard(b.life);
    if (b.fd >= 0) {
        trace(VLR_LOG_ERROR, "this process is already module %d", b.module.load());
        return -1;
    }
    if (module < 1 || module > max_module) {
        trace(VLR_LOG_ERROR, "no such module number: %d", module);
        return -1;
    }
    std::string path;
    int fd = msgbus_host::bind_module_socket(module, &path);
    if (fd < 0)
        return -1;
    if (b.wake_fd < 0) {
        b.wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (b.wake_fd < 0) {
            trace(VLR_LOG_ERROR, "cannot open an eventfd: %s", std::strerror(errno));
            ::close(fd);
            ::unlink(path.c_str());
            return -1;
        }
    }
    b.fd = fd;
    b.socket_path = path;
    b.module.store(module);
    return 0;
}

void FreeLibParams(void)
{
    bus_state& b = bus();
    std::lock_guard<std::mutex> guard(b.life);
    stop_peer_locked(b);
    if (b.fd >= 0) {
        ::close(b.fd);
        b.fd = -1;
        ::unlink(b.socket_path.c_str());
        b.socket_path.clear();
    }
    b.module.store(0);
    b.fragments.clear();
    clear_queue(b);
}

void SetModuleLoop(int value)
{
    bus().loop.store(value);
}

int GetModuleLoop(void)
{
    return bus().loop.load();
}

int ModulePeerStart(void)
{
    bus_state& b = bus();
    std::lock_guard<std::mutex> guard(b.life);
    if (b.fd < 0) {
        trace(VLR_LOG_ERROR, "peer start without a registered module");
        return -1;
    }
    {
        std::lock_guard<std::mutex> queue_guard(b.queue_lock);
        if (b.peer_running) {
            b.loop.store(1);
            return 0;
        }
    }
    // A receiver that ended on a socket failure is joined before a new one starts.
    if (b.receiver.joinable())
        stop_peer_locked(b);
    {
        std::lock_guard<std::mutex> queue_guard(b.queue_lock);
        b.peer_running = true;
    }
    b.loop.store(1);
    try {
        b.receiver = std::thread(receive_loop, &b, b.fd, b.wake_fd);
    } catch (const std::system_error&) {
        b.loop.store(0);
        std::lock_guard<std::mutex> queue_guard(b.queue_lock);
        b.peer_running = false;
        trace(VLR_LOG_ERROR, "cannot start the receiver thread");
        return -1;
    }
    return 0;
}

void ModulePeerStop(void)
{
    bus_state& b = bus();
    std::lock_guard<std::mutex> guard(b.life);
    stop_peer_locked(b);
}

int MsgSend(const void* payload, int module, unsigned int length)
{
    if (module < 1 || module > max_module)
        return -1;
    if (payload == nullptr && length > 0)
        return -1;
    if (length > max_message_size) {
        trace(VLR_LOG_ERROR, "message of %u bytes to module %d is longer than the bus carries", length,
              module);
        return -1;
    }
    last_send_found_nobody = false;
    int fd = connect_to_module(module);
    if (fd < 0) {
        last_send_found_nobody = errno == ENOENT || errno == ECONNREFUSED;
        return -1;
    }

    bus_state& b = bus();
    frame_header header;
    header.source = static_cast<uint16_t>(b.module.load());
    header.destination = static_cast<uint16_t>(module);
    header.sender_pid = static_cast<uint32_t>(::getpid());
    header.sequence = b.sequence.fetch_add(1) + 1;
    header.total_length = length;

    const int64_t deadline = now_ms() + send_timeout_ms;
    const auto* bytes = static_cast<const unsigned char*>(payload);
    unsigned char frame[header_size];
    size_t offset = 0;
    bool ok = true;
    do {
        size_t chunk = length - offset < chunk_size ? length - offset : chunk_size;
        header.offset = static_cast<uint32_t>(offset);
        msgbus_frame::encode_header(header, frame);
        iovec parts[2] = {{frame, header_size}, {const_cast<unsigned char*>(bytes) + offset, chunk}};
        if (!send_datagram(fd, parts, chunk > 0 ? 2 : 1, deadline)) {
            trace(VLR_LOG_ERROR, "message %u to module %d not delivered: %s", header.sequence, module,
                  std::strerror(errno));
            ok = false;
            break;
        }
        offset += chunk;
    } while (offset < length);
    ::close(fd);
    return ok ? 0 : -1;
}

message_s* GetMsgFromQueueNoWait(void)
{
    bus_state& b = bus();
    std::lock_guard<std::mutex> guard(b.queue_lock);
    return pop_message_locked(b);
}

cfg_t* wait_answer(const char* command, const char* error_text, int timeout)
{
    bus_state& b = bus();
    // After a send that found nobody, only a reply already queued can be taken.
    const int64_t wait_ms =
        last_send_found_nobody ? 0 : static_cast<int64_t>(timeout > 0 ? timeout : 0) * MSGBUS_WAIT_UNIT_MS;
    last_send_found_nobody = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        message_s* message = nullptr;
        {
            std::unique_lock<std::mutex> guard(b.queue_lock);
            b.queue_changed.wait_until(guard, deadline, [&b] { return !b.queue.empty() || !b.peer_running; });
            if (!b.peer_running)
                break;  // no peer, or it stopped meanwhile
            message = pop_message_locked(b);
        }
        if (message == nullptr)
            break;  // time is up
        cfg_t* reply = cfg_parse_buffer(message->payload);
        std::free(message);
        if (reply != nullptr && command != nullptr) {
            const char* value = cfg_get_value(cfg_get_param(reply, "command"));
            if (value != nullptr && std::strcmp(value, command) == 0)
                return reply;
        }
        cfg_release(reply);  // not the awaited answer: dropped
        // A stream of other messages must not hold the caller past its time.
        if (std::chrono::steady_clock::now() >= deadline)
            break;
    }
    if (error_text != nullptr)
        log_line(VLR_LOG_ERROR, "%s", error_text);
    return nullptr;
}

}  // extern "C"
