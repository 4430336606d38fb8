// Received WebSocket pieces, as arbitrary sequences of (final, remaining, data) reports.
#include <cstdint>
#include <cstring>
#include <vector>

#include "websock_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    websock_worker& worker = websock_fuzz::worker(WS_SERVICE_ROAMING);

    // Each record: one flag byte (bit 0 final, bit 1 payload remains, bit 2 no data pointer),
    // one length byte, then that many bytes (fewer at the end of the input).
    size_t at = 0;
    while (at + 2 <= size) {
        const uint8_t flags = data[at];
        size_t length = data[at + 1];
        at += 2;
        if (length > size - at)
            length = size - at;
        std::vector<uint8_t> piece(data + at, data + at + length);
        at += length;
        void* in = (flags & 4) != 0 ? nullptr : piece.data();
        worker.process_client_receive_fragment(in, length, (flags & 1) != 0, (flags & 2) != 0 ? 1 : 0);
    }
    // Every delivered message is a non-empty, zero-terminated buffer.
    websock_fuzz::drain([](const buffer_info_t& message) {
        if (message.data == nullptr || message.size == 0 || message.data[message.size] != '\0')
            __builtin_trap();
    });
    return 0;
}
