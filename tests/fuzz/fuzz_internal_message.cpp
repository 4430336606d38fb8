// Messages from the partner worker, as arbitrary bytes, through the internal-message handler.
#include <cstdint>

#include "core/trace.h"
#include "transport/websock_worker.h"

namespace {

safe_queue to_server;
safe_queue from_server;
volatile bool run = false;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static websock_worker* worker = [] {
        auto* made = new websock_worker(to_server, from_server, "127.0.0.1", "/", 1, run, 0, 0, WS_SERVICE_RRM);
        trace.set_log_level(0);
        return made;
    }();

    auto message = std::make_shared<buffer_info_t>();
    message->append(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
    worker->process_internal_message(message);
    while (from_server.dequeue([](const std::shared_ptr<buffer_info_t>&) {})) {
    }
    return 0;
}
