#include "relay_frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

std::string encode_frame(const relay_frame& frame)
{
    std::string bytes(relay_frame_header, '\0');
    const uint32_t length = static_cast<uint32_t>(frame.payload.size());
    bytes[0] = static_cast<char>(frame.kind);
    std::memcpy(&bytes[1], &frame.module, sizeof frame.module);
    std::memcpy(&bytes[3], &length, sizeof length);
    return bytes + frame.payload;
}

bool take_frame(std::string* buffer, relay_frame* frame)
{
    if (buffer->size() < relay_frame_header)
        return false;
    uint32_t length = 0;
    std::memcpy(&length, buffer->data() + 3, sizeof length);
    if (buffer->size() - relay_frame_header < length)
        return false;
    frame->kind = static_cast<frame_kind>((*buffer)[0]);
    std::memcpy(&frame->module, buffer->data() + 1, sizeof frame->module);
    frame->payload.assign(*buffer, relay_frame_header, length);
    buffer->erase(0, relay_frame_header + length);
    return true;
}

bool write_frame(int fd, const relay_frame& frame)
{
    const std::string bytes = encode_frame(frame);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (wrote >= 0) {
            done += static_cast<size_t>(wrote);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return false;
        pollfd room = {fd, POLLOUT, 0};
        ::poll(&room, 1, -1);
    }
    return true;
}

namespace {

// Reads exactly `length` bytes, so that nothing of a following frame is taken.
bool read_exactly(int fd, char* into, size_t length, bool (*interrupted)())
{
    size_t done = 0;
    while (done < length) {
        const ssize_t got = ::read(fd, into + done, length - done);
        if (got < 0 && errno == EINTR) {
            if (interrupted())
                return false;
            continue;
        }
        if (got <= 0)
            return false;
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

bool read_frame(int fd, relay_frame* frame, bool (*interrupted)())
{
    std::string buffer(relay_frame_header, '\0');
    if (!read_exactly(fd, &buffer[0], relay_frame_header, interrupted))
        return false;
    uint32_t length = 0;
    std::memcpy(&length, buffer.data() + 3, sizeof length);
    buffer.resize(relay_frame_header + length);
    if (length > 0 && !read_exactly(fd, &buffer[relay_frame_header], length, interrupted))
        return false;
    return take_frame(&buffer, frame);
}
