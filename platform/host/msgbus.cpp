// Host message bus. Each module owns one Unix datagram socket, bound at
//   device_path("/run/msgbus/") + "module-<n>"
// and anyone sends to a module by that path. Messages larger than one datagram are cut into
// chunks with a small header (msgbus_frame.h) and put back together by the receiving peer.
//
// Process-wide state: one module per process. Every function is thread-safe; the peer's
// receiver thread runs next to any number of sending threads.
//
// Limits:
//   - a message carries at most 16 MiB of payload (msgbus_frame::kMaxMessageSize);
//   - the receive queue holds at most kMaxQueueMessages messages and kMaxQueueBytes payload
//     bytes; a message completed beyond that is dropped (the newest) with an error line;
//   - incomplete messages are bounded by msgbus_frame::Limits (32 MiB, 64 messages, 5 s).
//   - a sender waits at most kSendTimeoutMs for room in the receiver's socket queue, then
//     MsgSend fails; a module that is not on the bus fails at once.
//
// Paths longer than a socket address allows (108 bytes) are reached through the bus
// directory opened as a descriptor: "/proc/self/fd/<dirfd>/module-<n>".
#include "msgbus.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "device_root.h"
#include "msgbus_frame.h"
#include "vorna_log.h"

// ---------------------------------------------------------------------------------------------
// Framing and reassembly
// ---------------------------------------------------------------------------------------------
namespace msgbus_frame {

namespace {

template <typename T>
void put(unsigned char* out, size_t at, T value) {
    std::memcpy(out + at, &value, sizeof value);
}

template <typename T>
T get(const unsigned char* in, size_t at) {
    T value;
    std::memcpy(&value, in + at, sizeof value);
    return value;
}

}  // namespace

void encode_header(const Header& header, unsigned char* out) {
    std::memcpy(out, kMagic, sizeof kMagic);
    put(out, 4, header.source);
    put(out, 6, header.destination);
    put(out, 8, header.sender_pid);
    put(out, 12, header.sequence);
    put(out, 16, header.total_length);
    put(out, 20, header.offset);
}

bool decode_header(const unsigned char* datagram, size_t length, Header* header) {
    if (datagram == nullptr || length < kHeaderSize) return false;
    if (std::memcmp(datagram, kMagic, sizeof kMagic) != 0) return false;
    header->source = get<uint16_t>(datagram, 4);
    header->destination = get<uint16_t>(datagram, 6);
    header->sender_pid = get<uint32_t>(datagram, 8);
    header->sequence = get<uint32_t>(datagram, 12);
    header->total_length = get<uint32_t>(datagram, 16);
    header->offset = get<uint32_t>(datagram, 20);
    return true;
}

message_s* allocate_message(const Header& header) {
    size_t size = kMessagePayloadOffset + static_cast<size_t>(header.total_length) + 1;
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    if (block == nullptr) return nullptr;
    auto* message = reinterpret_cast<message_s*>(block);
    message->source = header.source;
    message->destination = header.destination;
    message->length = header.total_length;
    message->sequence = header.sequence;
    message->sender_pid = header.sender_pid;
    message->flags = 0;
    block[kMessagePayloadOffset + header.total_length] = 0;
    return message;
}

Reassembler::Reassembler(Limits limits) : limits_(limits) {
    // A single message must always fit in the pending bounds.
    if (limits_.max_pending_bytes < limits_.max_message_size) {
        limits_.max_pending_bytes = limits_.max_message_size;
    }
    if (limits_.max_pending_messages == 0) limits_.max_pending_messages = 1;
}

Reassembler::~Reassembler() { clear(); }

void Reassembler::drop(std::map<Key, Pending>::iterator it) {
    pending_bytes_ -= it->second.total_length;
    std::free(it->second.message);
    pending_.erase(it);
}

void Reassembler::clear() {
    while (!pending_.empty()) drop(pending_.begin());
}

void Reassembler::expire(int64_t now_ms) {
    for (auto it = pending_.begin(); it != pending_.end();) {
        auto next = std::next(it);
        if (now_ms - it->second.last_ms > limits_.pending_expiry_ms) {
            drop(it);
            ++dropped_incomplete_;
        }
        it = next;
    }
}

void Reassembler::make_room(size_t bytes) {
    while (!pending_.empty() && (pending_.size() + 1 > limits_.max_pending_messages ||
                                 pending_bytes_ + bytes > limits_.max_pending_bytes)) {
        auto oldest = pending_.begin();
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
            if (it->second.arrival < oldest->second.arrival) oldest = it;
        }
        drop(oldest);
        ++dropped_incomplete_;
    }
}

Reassembler::Status Reassembler::feed(const unsigned char* datagram, size_t length,
                                      int64_t now_ms, message_s** message, const char** reason) {
    *message = nullptr;
    *reason = nullptr;
    Header header;
    if (!decode_header(datagram, length, &header)) {
        *reason = "datagram without a frame header";
        return Status::kDropped;
    }
    const size_t chunk_length = length - kHeaderSize;
    const size_t total = header.total_length;
    const size_t offset = header.offset;
    if (total > limits_.max_message_size) {
        *reason = "message longer than the bus carries";
        return Status::kDropped;
    }
    if (offset % kChunkSize != 0 || (total > 0 && offset >= total) || (total == 0 && offset != 0)) {
        *reason = "fragment offset outside its message";
        return Status::kDropped;
    }
    const size_t expected_chunk = total - offset < kChunkSize ? total - offset : kChunkSize;
    if (chunk_length != expected_chunk) {
        *reason = "fragment length does not match its message";
        return Status::kDropped;
    }
    const unsigned char* chunk = datagram + kHeaderSize;

    // A message that fits in one datagram needs no bookkeeping.
    if (offset == 0 && chunk_length == total) {
        message_s* whole = allocate_message(header);
        if (whole == nullptr) {
            *reason = "out of memory";
            return Status::kDropped;
        }
        if (total > 0) {
            std::memcpy(reinterpret_cast<unsigned char*>(whole) + kMessagePayloadOffset, chunk,
                        total);
        }
        *message = whole;
        return Status::kComplete;
    }

    expire(now_ms);
    const Key key(header.sender_pid, header.source, header.sequence);
    auto it = pending_.find(key);
    if (it == pending_.end()) {
        make_room(total);
        Pending fresh;
        fresh.message = allocate_message(header);
        if (fresh.message == nullptr) {
            *reason = "out of memory";
            return Status::kDropped;
        }
        fresh.destination = header.destination;
        fresh.total_length = header.total_length;
        const size_t chunks = (total + kChunkSize - 1) / kChunkSize;
        fresh.received.assign(chunks, 0);
        fresh.chunks_missing = chunks;
        fresh.arrival = ++arrivals_;
        it = pending_.emplace(key, std::move(fresh)).first;
        pending_bytes_ += total;
    } else if (it->second.total_length != header.total_length ||
               it->second.destination != header.destination) {
        *reason = "fragment disagrees with the rest of its message";
        return Status::kDropped;
    }

    Pending& pending = it->second;
    const size_t index = offset / kChunkSize;
    if (pending.received[index] != 0) {
        *reason = "duplicate fragment";
        return Status::kDropped;
    }
    std::memcpy(reinterpret_cast<unsigned char*>(pending.message) + kMessagePayloadOffset + offset,
                chunk, chunk_length);
    pending.received[index] = 1;
    pending.last_ms = now_ms;
    if (--pending.chunks_missing > 0) return Status::kPartial;

    *message = pending.message;
    pending.message = nullptr;
    pending_bytes_ -= pending.total_length;
    pending_.erase(it);
    return Status::kComplete;
}

}  // namespace msgbus_frame

// ---------------------------------------------------------------------------------------------
// The bus
// ---------------------------------------------------------------------------------------------
namespace {

using msgbus_frame::Header;
using msgbus_frame::kChunkSize;
using msgbus_frame::kHeaderSize;
using msgbus_frame::kMaxDatagramSize;
using msgbus_frame::kMaxMessageSize;
using msgbus_frame::Reassembler;

constexpr size_t kMaxQueueMessages = 1024;
constexpr size_t kMaxQueueBytes = 64 * 1024 * 1024;
constexpr int64_t kSendTimeoutMs = 2000;
// How long the receiver sleeps in poll before it looks at expired fragments again.
constexpr int kReceiverPollMs = 1000;
// Datagrams read in one go before the receiver checks for a stop request again.
constexpr int kReceiveBatch = 64;
constexpr int kMaxModule = 65535;

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

struct Bus {
    // Registration and the peer's life: InitLibParams, FreeLibParams, ModulePeerStart/Stop.
    std::mutex life;
    int fd = -1;       // the module's bound socket
    int wake_fd = -1;  // eventfd that tells the receiver to stop
    std::string socket_path;
    std::thread receiver;
    Reassembler reassembler;  // used by the receiver thread only while it runs

    std::atomic<int> module{0};  // registered module, 0 when none (also the source of sends)
    std::atomic<int> loop{0};
    std::atomic<uint32_t> sequence{0};

    // The receive queue.
    std::mutex queue_mutex;
    std::condition_variable queue_changed;
    std::deque<message_s*> queue;
    size_t queue_bytes = 0;
    bool peer_running = false;

    // Library trace settings.
    std::mutex trace_mutex;
    char trace_name[64] = {};
    int trace_option = 0;
    int trace_level = 0;
    int trace_flags = 0;
};

// Built on first use and never destroyed: a peer thread may still run while the process exits,
// and other translation units may use the bus from their static constructors.
Bus& bus() {
    static Bus* instance = new Bus;
    return *instance;
}

void log_line(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_line(vlr_log_level_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vvorna_log_msg_timed_new(level, format, args);
    va_end(args);
}

// The library's own trace lines, prefixed with the trace name when InitTrace set one.
void trace(vlr_log_level_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void trace(vlr_log_level_t level, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    char name[sizeof Bus::trace_name];
    {
        Bus& b = bus();
        std::lock_guard<std::mutex> lock(b.trace_mutex);
        std::memcpy(name, b.trace_name, sizeof name);
    }
    if (name[0] != '\0') {
        log_line(level, "%s: msgbus: %s\n", name, text);
    } else {
        log_line(level, "msgbus: %s\n", text);
    }
}

std::string bus_directory() { return device_path("/run/msgbus"); }

std::string module_file_name(int module) { return "module-" + std::to_string(module); }

// mkdir -p with mode 0755.
bool make_directories(const std::string& path) {
    if (path.empty()) return false;
    for (size_t slash = 1; slash <= path.size(); ++slash) {
        if (slash != path.size() && path[slash] != '/') continue;
        std::string part = path.substr(0, slash);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// A socket address for a module; keeps the bus directory open while a too-long path is reached
// through /proc/self/fd.
class ModuleAddress {
public:
    ModuleAddress() = default;
    ModuleAddress(const ModuleAddress&) = delete;
    ModuleAddress& operator=(const ModuleAddress&) = delete;
    ~ModuleAddress() {
        if (dir_fd_ >= 0) ::close(dir_fd_);
    }

    bool resolve(const std::string& directory, int module) {
        std::string name = module_file_name(module);
        std::string full = directory + "/" + name;
        if (full.size() >= sizeof address_.sun_path) {
            dir_fd_ = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (dir_fd_ < 0) return false;
            full = "/proc/self/fd/" + std::to_string(dir_fd_) + "/" + name;
            if (full.size() >= sizeof address_.sun_path) return false;
        }
        std::memset(&address_, 0, sizeof address_);
        address_.sun_family = AF_UNIX;
        std::memcpy(address_.sun_path, full.c_str(), full.size() + 1);
        length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + full.size() + 1);
        return true;
    }

    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t length() const { return length_; }

private:
    sockaddr_un address_{};
    socklen_t length_ = 0;
    int dir_fd_ = -1;
};

// Binds `fd` at the module's path. A file left by a dead owner (connecting is refused) is
// removed and the bind tried again; a live owner makes it fail. The check and the take-over run
// under a lock file so that two processes cannot both take over the same stale file.
bool bind_module(int fd, const std::string& directory, const std::string& path, int module) {
    std::string lock_path = directory + "/.lock";
    int lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd < 0) {
        trace(VLR_LOG_ERROR, "cannot open %s: %s", lock_path.c_str(), std::strerror(errno));
        return false;
    }
    while (::flock(lock_fd, LOCK_EX) != 0 && errno == EINTR) {
    }

    bool bound = false;
    ModuleAddress address;
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
        if (probe >= 0) ::close(probe);
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

// Appends a completed message to the receive queue, or drops it when the queue is full.
void enqueue(Bus& b, message_s* message) {
    size_t length = message->length;
    {
        std::lock_guard<std::mutex> lock(b.queue_mutex);
        if (b.queue.size() < kMaxQueueMessages && b.queue_bytes + length <= kMaxQueueBytes) {
            b.queue.push_back(message);
            b.queue_bytes += length;
            b.queue_changed.notify_all();
            return;
        }
    }
    log_line(VLR_LOG_ERROR,
             "msgbus: receive queue full, message %u of %zu bytes from module %u dropped\n",
             message->sequence, length, static_cast<unsigned>(message->source));
    std::free(message);
}

void receive_loop(Bus* b, int fd, int wake_fd) {
    std::vector<unsigned char> buffer(kMaxDatagramSize + 1);
    bool failed = false;
    uint64_t reported_drops = b->reassembler.dropped_incomplete();
    int64_t last_expiry = now_ms();
    for (;;) {
        pollfd fds[2] = {{wake_fd, POLLIN, 0}, {fd, POLLIN, 0}};
        int ready = ::poll(fds, 2, kReceiverPollMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            trace(VLR_LOG_ERROR, "receiver poll failed: %s", std::strerror(errno));
            failed = true;
            break;
        }
        if (fds[0].revents != 0) break;  // stop requested
        if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            trace(VLR_LOG_ERROR, "module socket failed");
            failed = true;
            break;
        }
        for (int i = 0; i < kReceiveBatch && (fds[1].revents & POLLIN) != 0; ++i) {
            ssize_t received = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
            if (received < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) break;
                trace(VLR_LOG_ERROR, "receive failed: %s", std::strerror(errno));
                failed = true;
                break;
            }
            if (static_cast<size_t>(received) > kMaxDatagramSize) {
                trace(VLR_LOG_WARNING, "dropped a datagram of %zd bytes (too long)", received);
                continue;
            }
            message_s* message = nullptr;
            const char* reason = nullptr;
            auto status = b->reassembler.feed(buffer.data(), static_cast<size_t>(received),
                                              now_ms(), &message, &reason);
            if (status == Reassembler::Status::kComplete) {
                enqueue(*b, message);
            } else if (status == Reassembler::Status::kDropped) {
                trace(VLR_LOG_WARNING, "dropped a fragment: %s", reason);
            }
        }
        if (failed) break;
        int64_t now = now_ms();
        if (now - last_expiry >= kReceiverPollMs) {
            b->reassembler.expire(now);
            last_expiry = now;
        }
        if (b->reassembler.dropped_incomplete() != reported_drops) {
            trace(VLR_LOG_WARNING, "dropped %llu incomplete message(s)",
                  static_cast<unsigned long long>(b->reassembler.dropped_incomplete() -
                                                  reported_drops));
            reported_drops = b->reassembler.dropped_incomplete();
        }
    }
    if (failed) b->loop.store(0);  // the worker sees the flag drop and reconnects
    std::lock_guard<std::mutex> lock(b->queue_mutex);
    b->peer_running = false;
    b->queue_changed.notify_all();
}

// Stops and joins the receiver; `life` is held by the caller.
void stop_peer_locked(Bus& b) {
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
    std::lock_guard<std::mutex> lock(b.queue_mutex);
    b.peer_running = false;
    b.queue_changed.notify_all();
}

void clear_queue(Bus& b) {
    std::deque<message_s*> dropped;
    {
        std::lock_guard<std::mutex> lock(b.queue_mutex);
        dropped.swap(b.queue);
        b.queue_bytes = 0;
    }
    for (message_s* message : dropped) std::free(message);
}

message_s* pop_message_locked(Bus& b) {
    if (b.queue.empty()) return nullptr;
    message_s* message = b.queue.front();
    b.queue.pop_front();
    b.queue_bytes -= message->length;
    return message;
}

// Sends one datagram, waiting for room in the receiver's queue until `deadline`.
bool send_datagram(int fd, const iovec* parts, size_t part_count, int64_t deadline) {
    msghdr header{};
    header.msg_iov = const_cast<iovec*>(parts);
    header.msg_iovlen = part_count;
    for (;;) {
        if (::sendmsg(fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) return false;
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

}  // namespace

extern "C" {

void InitTrace(const char* name) {
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.trace_mutex);
    std::snprintf(b.trace_name, sizeof b.trace_name, "%s", name == nullptr ? "" : name);
}

void SetTraceOpt(int option, int level, int flags) {
    // Kept for the caller's sake; the host library traces only its few problem lines and does
    // not filter them by these options.
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.trace_mutex);
    b.trace_option = option;
    b.trace_level = level;
    b.trace_flags = flags;
}

int InitLibParams(int module, const signed char* params, int params_length) {
    // The device library's parameter block means nothing on the host.
    (void)params;
    (void)params_length;
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.life);
    if (b.fd >= 0) {
        trace(VLR_LOG_ERROR, "this process is already module %d", b.module.load());
        return -1;
    }
    if (module < 1 || module > kMaxModule) {
        trace(VLR_LOG_ERROR, "no such module number: %d", module);
        return -1;
    }
    std::string directory = bus_directory();
    if (!make_directories(directory)) {
        trace(VLR_LOG_ERROR, "cannot use the bus directory %s: %s", directory.c_str(),
              std::strerror(errno));
        return -1;
    }
    std::string path = directory + "/" + module_file_name(module);
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        trace(VLR_LOG_ERROR, "cannot open a socket: %s", std::strerror(errno));
        return -1;
    }
    if (!bind_module(fd, directory, path, module)) {
        ::close(fd);
        return -1;
    }
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

void FreeLibParams(void) {
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.life);
    stop_peer_locked(b);
    if (b.fd >= 0) {
        ::close(b.fd);
        b.fd = -1;
        ::unlink(b.socket_path.c_str());
        b.socket_path.clear();
    }
    b.module.store(0);
    b.reassembler.clear();
    clear_queue(b);
}

void SetModuleLoop(int value) { bus().loop.store(value); }

int GetModuleLoop(void) { return bus().loop.load(); }

int ModulePeerStart(void) {
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.life);
    if (b.fd < 0) {
        trace(VLR_LOG_ERROR, "peer start without a registered module");
        return -1;
    }
    {
        std::lock_guard<std::mutex> queue_lock(b.queue_mutex);
        if (b.peer_running) {
            b.loop.store(1);
            return 0;
        }
    }
    // A receiver that ended on a socket failure is joined before a new one starts.
    if (b.receiver.joinable()) stop_peer_locked(b);
    {
        std::lock_guard<std::mutex> queue_lock(b.queue_mutex);
        b.peer_running = true;
    }
    b.loop.store(1);
    try {
        b.receiver = std::thread(receive_loop, &b, b.fd, b.wake_fd);
    } catch (const std::system_error&) {
        b.loop.store(0);
        std::lock_guard<std::mutex> queue_lock(b.queue_mutex);
        b.peer_running = false;
        trace(VLR_LOG_ERROR, "cannot start the receiver thread");
        return -1;
    }
    return 0;
}

void ModulePeerStop(void) {
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.life);
    stop_peer_locked(b);
}

int MsgSend(const void* payload, int module, unsigned int length) {
    if (module < 1 || module > kMaxModule) return -1;
    if (payload == nullptr && length > 0) return -1;
    if (length > kMaxMessageSize) {
        trace(VLR_LOG_ERROR, "message of %u bytes to module %d is longer than the bus carries",
              length, module);
        return -1;
    }
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    {
        ModuleAddress address;
        // Connecting fails at once (ENOENT, ECONNREFUSED) when nobody holds the module.
        if (!address.resolve(bus_directory(), module) ||
            ::connect(fd, address.address(), address.length()) != 0) {
            ::close(fd);
            return -1;
        }
    }

    Bus& b = bus();
    Header header;
    header.source = static_cast<uint16_t>(b.module.load());
    header.destination = static_cast<uint16_t>(module);
    header.sender_pid = static_cast<uint32_t>(::getpid());
    header.sequence = b.sequence.fetch_add(1) + 1;
    header.total_length = length;

    const int64_t deadline = now_ms() + kSendTimeoutMs;
    const auto* bytes = static_cast<const unsigned char*>(payload);
    unsigned char frame[kHeaderSize];
    size_t offset = 0;
    bool ok = true;
    do {
        size_t chunk = length - offset < kChunkSize ? length - offset : kChunkSize;
        header.offset = static_cast<uint32_t>(offset);
        msgbus_frame::encode_header(header, frame);
        iovec parts[2] = {{frame, kHeaderSize},
                          {const_cast<unsigned char*>(bytes) + offset, chunk}};
        if (!send_datagram(fd, parts, chunk > 0 ? 2 : 1, deadline)) {
            trace(VLR_LOG_ERROR, "message %u to module %d not delivered: %s", header.sequence,
                  module, std::strerror(errno));
            ok = false;
            break;
        }
        offset += chunk;
    } while (offset < length);
    ::close(fd);
    return ok ? 0 : -1;
}

message_s* GetMsgFromQueueNoWait(void) {
    Bus& b = bus();
    std::lock_guard<std::mutex> lock(b.queue_mutex);
    return pop_message_locked(b);
}

cfg_t* wait_answer(const char* command, const char* error_text, int timeout) {
    Bus& b = bus();
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<int64_t>(timeout > 0 ? timeout : 0) *
                                                    MSGBUS_WAIT_UNIT_MS);
    for (;;) {
        message_s* message = nullptr;
        {
            std::unique_lock<std::mutex> lock(b.queue_mutex);
            b.queue_changed.wait_until(lock, deadline,
                                       [&b] { return !b.queue.empty() || !b.peer_running; });
            if (!b.peer_running) break;  // no peer, or it stopped meanwhile
            message = pop_message_locked(b);
        }
        if (message == nullptr) break;  // time is up
        cfg_t* reply = cfg_parse_buffer(message->payload);
        std::free(message);
        if (reply != nullptr && command != nullptr) {
            const char* value = cfg_get_value(cfg_get_param(reply, "command"));
            if (value != nullptr && std::strcmp(value, command) == 0) return reply;
        }
        cfg_release(reply);  // not the awaited answer: dropped
        // A stream of other messages must not hold the caller past its time.
        if (std::chrono::steady_clock::now() >= deadline) break;
    }
    if (error_text != nullptr) log_line(VLR_LOG_ERROR, "%s", error_text);
    return nullptr;
}

}  // extern "C"
