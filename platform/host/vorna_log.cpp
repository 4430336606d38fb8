// Host log library: every call becomes one line on standard error,
//   "2026-11-22 10:00:00.123 orvd debug: text\n"
// written with a single write(2) so that lines from concurrent threads never interleave.
//
// The library is used while other translation units are still being initialised (a global
// object names the daemon from its constructor), so it keeps only constant-initialised state:
// plain pointers, fixed arrays, atomics and a std::mutex (constexpr constructor).
//
// Log rotation is not done on the host: init_vorna_logrotate only remembers the program name.
#include "vorna_log.h"
#include "vorna_log_host.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include <unistd.h>

namespace {

constexpr size_t kProgramNameSize = 64;

std::mutex g_mutex;  // guards the program name and the writer hook
char g_program_name[kProgramNameSize];
std::atomic<const char*> g_daemon_name{nullptr};
vorna_log_host_writer_t g_writer = nullptr;
void* g_writer_context = nullptr;
// Set while this thread runs the writer hook: a writer that logs again goes to standard error
// instead of deadlocking on g_mutex.
thread_local bool t_in_writer = false;

const char* level_name(vlr_log_level_t level, char* scratch, size_t scratch_size) {
    switch (level) {
        case VLR_LOG_ERROR: return "error";
        case VLR_LOG_WARNING: return "warning";
        case VLR_LOG_INFO: return "info";
        case VLR_LOG_DEBUG: return "debug";
    }
    std::snprintf(scratch, scratch_size, "%d", static_cast<int>(level));
    return scratch;
}

// Formats into `stack` when it fits, else into a heap buffer of the exact size. Returns the
// text (never truncated) and its length; *heap is the block to free (null when `stack` is used).
const char* format_text(const char* format, va_list args, char* stack, size_t stack_size,
                        char** heap, size_t* length) {
    *heap = nullptr;
    *length = 0;
    if (format == nullptr) {
        stack[0] = '\0';
        return stack;
    }
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(stack, stack_size, format, copy);
    va_end(copy);
    if (needed < 0) {  // an encoding error: keep the format text itself
        std::snprintf(stack, stack_size, "%s", format);
        *length = std::strlen(stack);
        return stack;
    }
    if (static_cast<size_t>(needed) < stack_size) {
        *length = static_cast<size_t>(needed);
        return stack;
    }
    char* buffer = static_cast<char*>(std::malloc(static_cast<size_t>(needed) + 1));
    if (buffer == nullptr) {  // out of memory: the truncated text is better than none
        *length = stack_size - 1;
        return stack;
    }
    va_copy(copy, args);
    std::vsnprintf(buffer, static_cast<size_t>(needed) + 1, format, copy);
    va_end(copy);
    *heap = buffer;
    *length = static_cast<size_t>(needed);
    return buffer;
}

void write_all(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
}

void write_line(vlr_log_level_t level, const char* text, size_t text_length) {
    char name[kProgramNameSize];
    const char* daemon = g_daemon_name.load(std::memory_order_acquire);
    if (daemon == nullptr) {
        if (t_in_writer) {
            // Called from inside the writer hook, which already holds g_mutex.
            std::memcpy(name, g_program_name, sizeof name);
        } else {
            std::lock_guard<std::mutex> lock(g_mutex);
            std::memcpy(name, g_program_name, sizeof name);
        }
        daemon = name[0] != '\0' ? name : "?";
    }

    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[48];
    size_t stamp_length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + stamp_length, sizeof stamp - stamp_length, ".%03ld",
                  static_cast<long>(now.tv_nsec / 1000000));

    char scratch[16];
    const char* level_text = level_name(level, scratch, sizeof scratch);

    char header[256];
    int header_length = std::snprintf(header, sizeof header, "%s %s %s: ", stamp, daemon,
                                      level_text);
    if (header_length < 0) header_length = 0;
    // A very long daemon name is cut in the header rather than dropping the line.
    size_t head = std::min(static_cast<size_t>(header_length), sizeof header - 1);
    bool add_newline = text_length == 0 || text[text_length - 1] != '\n';
    size_t total = head + text_length + (add_newline ? 1 : 0);

    char stack_line[1024];
    char* line = total <= sizeof stack_line ? stack_line : static_cast<char*>(std::malloc(total));
    if (line == nullptr) {  // out of memory: three writes are still better than nothing
        write_all(STDERR_FILENO, header, head);
        write_all(STDERR_FILENO, text, text_length);
        if (add_newline) write_all(STDERR_FILENO, "\n", 1);
        return;
    }
    std::memcpy(line, header, head);
    std::memcpy(line + head, text, text_length);
    if (add_newline) line[total - 1] = '\n';
    write_all(STDERR_FILENO, line, total);
    if (line != stack_line) std::free(line);
}

}  // namespace

extern "C" {

void init_vorna_logrotate(const char* program_name) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (program_name == nullptr) {
        g_program_name[0] = '\0';
        return;
    }
    std::snprintf(g_program_name, sizeof g_program_name, "%s", program_name);
}

void vorna_log_set_daemonname(const char* daemon_name) {
    // Not copied: the caller keeps the text alive (a literal or a global). Null falls back to
    // the program name given to init_vorna_logrotate.
    g_daemon_name.store(daemon_name, std::memory_order_release);
}

void vorna_log_host_set_writer(vorna_log_host_writer_t writer, void* context) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_writer = writer;
    g_writer_context = context;
}

void vvorna_log_msg_timed_new(vlr_log_level_t level, const char* format, va_list args) {
    int saved_errno = errno;  // callers log errno-based failures; keep errno for them
    char stack[1024];
    char* heap = nullptr;
    size_t length = 0;
    const char* text = format_text(format, args, stack, sizeof stack, &heap, &length);

    bool written = false;
    if (!t_in_writer) {
        // The writer runs under the lock: once vorna_log_host_set_writer(null, ...) returns,
        // no call of the old writer is still running.
        std::lock_guard<std::mutex> lock(g_mutex);
        if (g_writer != nullptr) {
            t_in_writer = true;
            g_writer(level, text, g_writer_context);
            t_in_writer = false;
            written = true;
        }
    }
    if (!written) write_line(level, text, length);
    std::free(heap);
    errno = saved_errno;
}

}  // extern "C"
