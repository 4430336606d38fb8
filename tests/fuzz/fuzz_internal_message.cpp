// Messages from the partner worker, as arbitrary bytes, through the internal-message handler.
#include <cstdint>
#include <memory>

#include "websock_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    websock_worker& worker = websock_fuzz::worker(WS_SERVICE_RRM);
    auto message = std::make_shared<buffer_info_t>();
    message->append(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
    worker.process_internal_message(message);
    websock_fuzz::drain([](const buffer_info_t&) {});
    return 0;
}
