// MIB writes and reads (0x89F1, 0x89F2) and the RRM scan trigger (SIOCSIWSCAN).
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vrtl_emulate.h"
#include "vrtl_layout.h"

namespace vrtl {

namespace {

// MIBs read as 32-bit values from the state's top level.
bool is_number_mib(const std::string& name)
{
    return name == "chanspec" || name == "actual_tx_power";
}

// True when the state's "refuse_mibs" lists the name: the driver then refuses to read or
// write it, which is how tests make a MIB fail.
bool is_refused(json_object* state, const std::string& name)
{
    json_object* refused = member(state, "refuse_mibs");
    if (!json_object_is_type(refused, json_type_array))
        return false;
    for (size_t i = 0; i < json_object_array_length(refused); ++i) {
        const char* entry = json_object_get_string(json_object_array_get_idx(refused, i));
        if (entry != nullptr && name == entry)
            return true;
    }
    return false;
}

// A channel the radio can scan: 1 to 196 in plain decimal, and one of "available_channels"
// when the state lists any.
bool is_valid_channel(json_object* state, const char* text)
{
    if (text == nullptr || text[0] < '1' || text[0] > '9' || std::strlen(text) > 3)
        return false;
    for (const char* c = text; *c != '\0'; ++c)
        if (*c < '0' || *c > '9')
            return false;
    const int channel = std::atoi(text);
    if (channel > 196)
        return false;
    json_object* available = member(state, "available_channels");
    if (!json_object_is_type(available, json_type_array) || json_object_array_length(available) == 0)
        return true;
    for (size_t i = 0; i < json_object_array_length(available); ++i)
        if (json_object_get_int(json_object_array_get_idx(available, i)) == channel)
            return true;
    return false;
}

}  // namespace

int emulate_set_mib(const request_context& context)
{
    const auto* text = static_cast<const char*>(context.req->u.data.pointer);
    const unsigned length = context.req->u.data.length;
    if (text == nullptr)
        return refuse(context, EINVAL, "the data pointer is null");
    // Never read past the length the request claims.
    const void* zero = length == 0 ? nullptr : std::memchr(text, '\0', length);
    if (zero == nullptr)
        return refuse(context, EINVAL, "length field %u does not reach the end of the text", length);
    if (zero != text + length - 1)
        return refuse(context, EINVAL, "length field %u, expected strlen+1 = %zu", length,
                      std::strlen(text) + 1);
    const char* equals = std::strchr(text, '=');
    if (equals == nullptr || equals == text)
        return refuse(context, EINVAL, "\"%s\" is not name=value", text);

    const std::string name(text, equals);
    json_object* state = context.radio->root();
    if (is_refused(state, name))
        return refuse(context, EPERM, "the state refuses MIB %s (refuse_mibs)", name.c_str());
    json_object_object_add(object_member(state, "mibs"), name.c_str(), json_object_new_string(equals + 1));
    return save_or_refuse(context);
}

int emulate_get_mib(const request_context& context)
{
    auto* buffer = static_cast<char*>(context.req->u.data.pointer);
    const unsigned length = context.req->u.data.length;
    if (buffer == nullptr)
        return refuse(context, EINVAL, "the data pointer is null");
    if (length != mib_get_buffer_bytes)
        return refuse(context, EINVAL, "length field %u, expected %u", length, mib_get_buffer_bytes);
    if (std::memchr(buffer, '\0', mib_get_buffer_bytes) == nullptr)
        return refuse(context, EINVAL, "the name is not terminated within the %u-byte buffer",
                      mib_get_buffer_bytes);

    const std::string name(buffer);
    json_object* state = context.radio->root();
    if (is_refused(state, name))
        return refuse(context, EPERM, "the state refuses MIB %s (refuse_mibs)", name.c_str());
    if (is_number_mib(name)) {
        json_object* value = member(state, name.c_str());
        if (!json_object_is_type(value, json_type_int))
            return refuse(context, EINVAL, "the state has no integer \"%s\"", name.c_str());
        put<int32_t>(reinterpret_cast<unsigned char*>(buffer), 0, json_object_get_int(value));
        context.req->u.data.length = sizeof(int32_t);
        return 0;
    }
    json_object* value = member(member(state, "mibs"), name.c_str());
    if (value == nullptr)
        return refuse(context, EINVAL, "unknown MIB \"%s\"", name.c_str());
    const std::string text = json_object_get_string(value);
    if (text.size() + 1 > mib_get_buffer_bytes)
        return refuse(context, EINVAL, "MIB \"%s\" holds more than the buffer", name.c_str());
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    context.req->u.data.length = static_cast<uint16_t>(text.size() + 1);
    return 0;
}

int emulate_scan_trigger(const request_context& context)
{
    if (context.req->u.data.pointer != nullptr || context.req->u.data.length != 0)
        return refuse(context, EINVAL, "SIOCSIWSCAN carries no data here (pointer %p, length %u)",
                      context.req->u.data.pointer, static_cast<unsigned>(context.req->u.data.length));
    json_object* state = context.radio->root();
    json_object* mibs = object_member(state, "mibs");
    const char* channel = json_object_get_string(member(mibs, "rrm_scan_chan"));
    // "0" is what the daemon sends for a radio none of whose channels was asked for: a
    // measurement on no channel, which the radio accepts and which hears nobody.
    const bool no_channel = channel != nullptr && std::strcmp(channel, "0") == 0;
    if (!no_channel && !is_valid_channel(state, channel))
        return refuse(context, EINVAL, "rrm_scan_chan \"%s\" is not a channel of this radio",
                      channel == nullptr ? "(unset)" : channel);
    json_object_object_add(state, "last_rrm_scan_channel", json_object_new_int(std::atoi(channel)));
    json_object_object_add(mibs, "rrm_scan_started", json_object_new_string("1"));
    count_up(state, "rrm_scan_trigger");
    return save_or_refuse(context);
}

}  // namespace vrtl
