#include "vrtl_emulate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vrtl_layout.h"
#include "vrtl_state.h"

namespace vrtl {

namespace {

const char* request_name(unsigned long request)
{
    switch (request) {
    case request_set_mib:
        return "SET_MIB (0x89f1)";
    case request_get_mib:
        return "GET_MIB (0x89f2)";
    case request_scan_trigger:
        return "SIOCSIWSCAN (0x8b18)";
    case request_vendor_command:
        return "VENDOR_COMMAND (0x8bbf)";
    default:
        return "?";
    }
}

int fail(int error)
{
    errno = error;
    return -1;
}

int dispatch(const request_context& context)
{
    switch (context.request) {
    case request_set_mib:
        return emulate_set_mib(context);
    case request_get_mib:
        return emulate_get_mib(context);
    case request_scan_trigger:
        return emulate_scan_trigger(context);
    default:
        return emulate_vendor_command(context);
    }
}

}  // namespace

bool is_emulated(unsigned long request)
{
    return request == request_set_mib || request == request_get_mib || request == request_scan_trigger ||
           request == request_vendor_command;
}

int refuse(const request_context& context, int error, const char* format, ...)
{
    char what[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(what, sizeof what, format, args);
    va_end(args);
    char line[768];
    const int length = std::snprintf(line, sizeof line, "vrtl: %s: %s: %s\n", context.ifname.c_str(),
                                     request_name(context.request), what);
    if (length > 0) {
        // One write, so that the line does not mix with other output.
        const ssize_t ignored =
            write(STDERR_FILENO, line, std::min<size_t>(static_cast<size_t>(length), sizeof line - 1));
        (void)ignored;
    }
    return fail(error);
}

int save_or_refuse(const request_context& context)
{
    if (!context.radio->save())
        return refuse(context, EIO, "cannot write the radio's state file");
    return 0;
}

int emulate(int fd, unsigned long request, void* argument)
{
    const int saved_errno = errno;
    auto* req = static_cast<struct iwreq*>(argument);
    notify_observer(request, req);

    // The kernel refuses a closed descriptor, and a descriptor that is not a socket never
    // reaches a network driver.
    struct stat info;
    if (fcntl(fd, F_GETFD) < 0)
        return fail(EBADF);
    if (fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode))
        return fail(ENOTTY);

    request_context context{"?", request, req, nullptr};
    if (req == nullptr)
        return refuse(context, EFAULT, "the struct iwreq pointer is null");
    const void* end = std::memchr(req->ifr_name, '\0', sizeof req->ifr_name);
    if (end == nullptr || req->ifr_name[0] == '\0')
        return refuse(context, EINVAL, "the interface name is empty or not terminated within IFNAMSIZ");
    context.ifname = req->ifr_name;

    radio_file radio;
    std::string problem;
    const int opened = radio.open(radio_of(context.ifname), &problem);
    // An interface whose radio has no state does not exist; that is no protocol error.
    if (opened == ENODEV)
        return fail(ENODEV);
    if (opened != 0)
        return refuse(context, opened, "%s", problem.c_str());
    context.radio = &radio;

    const int result = dispatch(context);
    if (result == 0)
        errno = saved_errno;
    return result;
}

}  // namespace vrtl
