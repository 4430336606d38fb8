// Host log library: every call becomes one line on standard error,
//   "2026-11-22 10:00:00.123 orvd debug: text\n"
// written with a single write(2) so that lines from concurrent threads never interleave, and
// without blocking when standard error is a pipe or a terminal (log_sink.h).
//
// The library is used while other translation units are still being initialised (a global
// object names the daemon from its constructor), so it keeps only constant-initialised state.
//
// The daemon's SIGTERM handler logs a line, so a line of up to a few KiB, once the daemon is
// named and without a writer hook, allocates nothing and takes no lock: the time stamp comes
// from log_stamp (see there for its rare localtime_r), the text is formatted into a stack
// buffer with room for the header in front of it (vsnprintf allocates nothing for the integer
// and text conversions the daemon uses), and the writer and the daemon name are atomics read
// without the lock. Only a longer text takes the heap, and only a line without a daemon name
// takes the lock, for the program name.
//
// Log rotation is not done on the host: init_vorna_logrotate only remembers the program name.
#include "vorna_log.h"
#include "vorna_log_host.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <unistd.h>

#include "log_sink.h"
#include "log_stamp.h"

namespace {

// Every member has a constant initialiser, so the object is ready before any constructor runs.
struct log_state {
    std::mutex lock;  // guards the program name and calls of the writer hook
    char program_name[64] = {};
    std::atomic<const char*> daemon_name{nullptr};
    std::atomic<vorna_log_host_writer_t> writer{nullptr};
    void* writer_context = nullptr;
};

log_state state;

// Set while this thread runs the writer hook: a writer that logs again goes to standard error
// instead of deadlocking on the lock it already holds.
thread_local bool inside_writer = false;

// A very long daemon name is cut in the header rather than dropping the line.
constexpr size_t header_room = 256;
constexpr size_t stack_buffer_size = 4096;

// Appends to a fixed buffer and stops at its end.
class text_builder {
public:
    text_builder(char* buffer, size_t buffer_capacity) : out(buffer), capacity(buffer_capacity) {}

    void append(const char* text, size_t text_length)
    {
        size_t room = capacity - used;
        size_t taken = text_length < room ? text_length : room;
        std::memcpy(out + used, text, taken);
        used += taken;
    }
    void append(const char* text) { append(text, std::strlen(text)); }
    size_t length() const { return used; }

private:
    char* out;
    size_t capacity;
    size_t used = 0;
};

const char* level_name(vlr_log_level_t level)
{
    switch (level) {
    case VLR_LOG_ERROR:
        return "error";
    case VLR_LOG_WARNING:
        return "warning";
    case VLR_LOG_INFO:
        return "info";
    case VLR_LOG_DEBUG:
        return "debug";
    }
    return nullptr;
}

// "<stamp> <daemon> <level>: ", at most `capacity` characters.
size_t format_header(vlr_log_level_t level, char* out, size_t capacity)
{
    text_builder header(out, capacity);
    char stamp[log_stamp::max_length];
    header.append(stamp, log_stamp::format_now(stamp));
    header.append(" ");

    const char* daemon = state.daemon_name.load(std::memory_order_acquire);
    char name[sizeof state.program_name];
    if (daemon == nullptr) {
        if (inside_writer) {
            std::memcpy(name, state.program_name, sizeof name);  // the writer holds the lock
        } else {
            std::lock_guard<std::mutex> guard(state.lock);
            std::memcpy(name, state.program_name, sizeof name);
        }
        daemon = name[0] != '\0' ? name : "?";
    }
    header.append(daemon);
    header.append(" ");

    const char* named = level_name(level);
    char number[16];
    if (named == nullptr)
        std::snprintf(number, sizeof number, "%d", static_cast<int>(level));
    header.append(named != nullptr ? named : number);
    header.append(": ");
    return header.length();
}

// Formats the message behind header_room bytes of `stack`, or of a heap block of the size it
// needs when it does not fit there; *heap is that block, or null. Sets *length; the text is
// followed by a NUL and never truncated unless memory runs out.
char* format_text(const char* format, va_list args, char* stack, char** heap, size_t* length)
{
    char* text = stack + header_room;
    const size_t room = stack_buffer_size - header_room;
    *heap = nullptr;
    *length = 0;
    if (format == nullptr) {
        text[0] = '\0';
        return text;
    }
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(text, room, format, copy);
    va_end(copy);
    if (needed < 0) {  // an encoding error: keep the format text itself
        std::snprintf(text, room, "%s", format);
        *length = std::strlen(text);
        return text;
    }
    if (static_cast<size_t>(needed) < room) {
        *length = static_cast<size_t>(needed);
        return text;
    }
    char* block = static_cast<char*>(std::malloc(header_room + static_cast<size_t>(needed) + 1));
    if (block == nullptr) {  // out of memory: the truncated text is better than none
        *length = room - 1;
        return text;
    }
    va_copy(copy, args);
    std::vsnprintf(block + header_room, static_cast<size_t>(needed) + 1, format, copy);
    va_end(copy);
    *heap = block;
    *length = static_cast<size_t>(needed);
    return block + header_room;
}

// Lines dropped because the reader did not keep up are reported, with their number, before the
// next line that finds room.
void report_dropped_lines()
{
    const unsigned count = log_sink::take_dropped();
    if (count == 0)
        return;
    char notice[header_room + 96];
    size_t head = format_header(VLR_LOG_WARNING, notice, header_room - 1);
    int text = std::snprintf(notice + head, sizeof notice - head, "%u log lines dropped: the log reader did not keep up\n",
                             count);
    if (text <= 0 || !log_sink::write_line(notice, head + static_cast<size_t>(text)))
        log_sink::add_dropped(count);
}

// `text` comes from format_text: header_room bytes before it and its NUL are free to use.
void write_line(vlr_log_level_t level, char* text, size_t length)
{
    char header[header_room];
    size_t head = format_header(level, header, sizeof header - 1);
    char* line = text - head;
    std::memcpy(line, header, head);
    size_t total = head + length;
    if (length == 0 || text[length - 1] != '\n')
        line[total++] = '\n';
    report_dropped_lines();
    log_sink::write_line(line, total);
}

}  // namespace

extern "C" {

void init_vorna_logrotate(const char* program_name)
{
    log_stamp::prime();
    std::lock_guard<std::mutex> guard(state.lock);
    std::snprintf(state.program_name, sizeof state.program_name, "%s",
                  program_name == nullptr ? "" : program_name);
}

void vorna_log_set_daemonname(const char* daemon_name)
{
    log_stamp::prime();
    // Not copied: the caller keeps the text alive (a literal or a global). Null falls back to
    // the program name given to init_vorna_logrotate.
    state.daemon_name.store(daemon_name, std::memory_order_release);
}

void vorna_log_host_set_writer(vorna_log_host_writer_t writer, void* context)
{
    std::lock_guard<std::mutex> guard(state.lock);
    state.writer.store(writer, std::memory_order_release);
    state.writer_context = context;
}

void vvorna_log_msg_timed_new(vlr_log_level_t level, const char* format, va_list args)
{
    const int saved_errno = errno;  // callers log errno-based failures; keep errno for them
    char stack[stack_buffer_size];
    char* heap = nullptr;
    size_t length = 0;
    char* text = format_text(format, args, stack, &heap, &length);

    bool written = false;
    if (!inside_writer && state.writer.load(std::memory_order_acquire) != nullptr) {
        // Called under the lock: once vorna_log_host_set_writer(null, ...) returns, no call of
        // the old writer is still running.
        std::lock_guard<std::mutex> guard(state.lock);
        vorna_log_host_writer_t writer = state.writer.load(std::memory_order_relaxed);
        if (writer != nullptr) {
            inside_writer = true;
            writer(level, text, state.writer_context);
            inside_writer = false;
            written = true;
        }
    }
    if (!written)
        write_line(level, text, length);
    std::free(heap);
    errno = saved_errno;
}

}  // extern "C"
