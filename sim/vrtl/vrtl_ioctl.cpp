// The interposed ioctl(): the driver's private requests are emulated, everything else goes to
// the next definition (the C library's, or a sanitizer's interceptor in front of it).
#include <dlfcn.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <exception>

#include "vrtl_emulate.h"

namespace {

using ioctl_function = int (*)(int, unsigned long, ...);

// With a 64-bit time_t on a 32-bit CPU, <sys/ioctl.h> gives ioctl() the symbol __ioctl_time64:
// the daemon calls that, the definition below takes that name too, and the C library's own
// is found under it.
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
constexpr const char* ioctl_symbol = "__ioctl_time64";
#else
constexpr const char* ioctl_symbol = "ioctl";
#endif

ioctl_function next_ioctl()
{
    // Resolved once; the initialisation of a function-local static is thread-safe.
    static const ioctl_function next = reinterpret_cast<ioctl_function>(dlsym(RTLD_NEXT, ioctl_symbol));
    return next;
}

}  // namespace

// Named by the static library's link option (-u), so that the linker always takes this object
// from the archive: a sanitizer runtime linked ahead of the archive defines ioctl() too, and
// would otherwise satisfy the daemon's calls before the archive is searched.
extern "C" void vrtl_interposer_linked() {}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept
{
    // Every request that vrtl sees passes one pointer-sized argument or none.
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);

    if (vrtl::is_emulated(request)) {
        try {
            return vrtl::emulate(fd, request, argument);
        } catch (const std::exception&) {
            errno = ENOMEM;
            return -1;
        }
    }
    const ioctl_function next = next_ioctl();
    if (next == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return next(fd, request, argument);
}
