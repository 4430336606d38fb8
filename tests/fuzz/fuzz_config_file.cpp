// The start-up configuration file, as arbitrary bytes.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/trace.h"
#include "core/websock_cfg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static websock_cfg_t* config = [] {
        static const char* argv[] = {"orvd", nullptr};
        auto* made = new websock_cfg_t(1, argv);
        trace.set_log_level(0);  // keep the fuzzer's output readable
        return made;
    }();

    FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (file == nullptr)
        return 0;
    config->parse_stream(file);
    fclose(file);
    trace.set_log_level(0);
    for (const auto& service : config->services) {
        // Every text must stay terminated inside its field.
        if (strnlen(service.host, sizeof(service.host)) == sizeof(service.host) ||
            strnlen(service.path, sizeof(service.path)) == sizeof(service.path) ||
            strnlen(service.ap_location, sizeof(service.ap_location)) == sizeof(service.ap_location))
            __builtin_trap();
    }
    return 0;
}
