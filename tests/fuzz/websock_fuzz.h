// What the fuzz targets of the WebSocket worker share: one worker for the whole run, made on
// first use with tracing off, that never connects (its run flag stays false), so that the
// fuzzer drives its handlers alone; and the queue it hands whole messages to.
#ifndef ORVD_TESTS_FUZZ_WEBSOCK_FUZZ_H
#define ORVD_TESTS_FUZZ_WEBSOCK_FUZZ_H

#include <memory>

#include "core/buffer_info.h"
#include "core/safe_queue.h"
#include "core/trace.h"
#include "transport/websock_worker.h"

namespace websock_fuzz {

inline safe_queue to_server;
inline safe_queue from_server;
inline volatile bool run = false;

// The worker of this run, serving `service`; every call answers the one made first.
inline websock_worker& worker(ws_service_type service)
{
    static websock_worker* const made = [service] {
        auto* fresh = new websock_worker(to_server, from_server, "127.0.0.1", "/", 1, run, 0, 0, service);
        trace.set_log_level(0);
        return fresh;
    }();
    return *made;
}

// Takes every message the worker handed on, each passed to `check`.
template <typename Check>
void drain(Check check)
{
    const auto each = [&check](const std::shared_ptr<buffer_info_t>& message) { check(*message); };
    while (from_server.dequeue(each)) {
    }
}

}  // namespace websock_fuzz

#endif
