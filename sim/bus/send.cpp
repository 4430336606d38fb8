// orvd-bus send: one message from the command line, a file or standard input.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "session.h"

namespace {

bool read_stream(FILE* in, std::string* bytes)
{
    char chunk[65536];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0)
        bytes->append(chunk, got);
    return std::ferror(in) == 0;
}

bool read_payload(const bus_options& options, std::string* payload)
{
    switch (options.source) {
    case payload_source::text:
        *payload = options.text;
        return true;
    case payload_source::file: {
        FILE* in = std::fopen(options.file.c_str(), "rb");
        if (in == nullptr) {
            std::fprintf(stderr, "orvd-bus: cannot open %s: %s\n", options.file.c_str(),
                         std::strerror(errno));
            return false;
        }
        const bool read = read_stream(in, payload);
        const int read_errno = errno;
        std::fclose(in);
        if (!read)
            std::fprintf(stderr, "orvd-bus: cannot read %s: %s\n", options.file.c_str(),
                         std::strerror(read_errno));
        return read;
    }
    case payload_source::standard_input:
        if (!read_stream(stdin, payload)) {
            std::fprintf(stderr, "orvd-bus: cannot read standard input: %s\n", std::strerror(errno));
            return false;
        }
        return true;
    case payload_source::none:
        break;
    }
    return false;
}

}  // namespace

int run_send(const bus_options& options)
{
    std::string payload;
    if (!read_payload(options, &payload))
        return exit_failed;
    if (payload.size() > UINT_MAX) {
        std::fprintf(stderr, "orvd-bus: a payload of %zu bytes is too long for the bus\n", payload.size());
        return exit_failed;
    }
    bus_membership membership;
    // Sending needs no peer: the message goes out under the module's number only.
    if (options.as != 0 && !membership.join(options.as, false))
        return exit_failed;
    if (MsgSend(payload.data(), options.to, static_cast<unsigned>(payload.size())) != 0) {
        std::fprintf(stderr, "orvd-bus: module %d is not on the bus (or did not take the message)\n",
                     options.to);
        return exit_failed;
    }
    return exit_ok;
}
