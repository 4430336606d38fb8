// orvd-bus listen: prints what arrives for one module.
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "commands.h"
#include "session.h"

int run_listen(const bus_options& options)
{
    using steady = std::chrono::steady_clock;
    bus_membership membership;
    if (!membership.join(options.as, true))
        return exit_failed;
    std::fprintf(stderr, "orvd-bus: listening as module %d\n", options.as);

    const steady::time_point deadline =
        options.timeout_s > 0 ? steady::now() + std::chrono::duration_cast<steady::duration>(
                                                    std::chrono::duration<double>(options.timeout_s))
                              : steady::time_point::max();
    long received = 0;
    while (options.count == 0 || received < options.count) {
        // Short waits, so that a peer that ended on a socket failure is noticed.
        const steady::time_point wait_until =
            std::min(deadline, steady::now() + std::chrono::milliseconds(100));
        message_ptr message = next_message(wait_until);
        if (message == nullptr) {
            if (stop_requested() || steady::now() >= deadline)
                break;
            if (GetModuleLoop() == 0) {
                std::fprintf(stderr, "orvd-bus: module %d stopped receiving\n", options.as);
                return exit_failed;
            }
            continue;
        }
        if (!print_message(payload_of(*message), options.escaped))
            return exit_failed;
        ++received;
    }
    return exit_ok;
}
