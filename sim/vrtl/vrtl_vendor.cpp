// The vendor command block (0x8BBF): scan start and stop, scan results, stations, channels.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "mac_text.h"
#include "vrtl_emulate.h"
#include "vrtl_layout.h"
#include "vrtl_state.h"

namespace vrtl {

namespace {

using record_bytes = std::vector<unsigned char>;

bool read_int(json_object* entry, const char* key, int32_t* value)
{
    json_object* field = member(entry, key);
    if (!json_object_is_type(field, json_type_int))
        return false;
    *value = json_object_get_int(field);
    return true;
}

// The array `key` of the state; an absent key is an empty list.
bool state_array(const request_context& context, json_object* object, const char* key, json_object** array)
{
    *array = member(object, key);
    if (*array == nullptr)
        return true;
    if (!json_object_is_type(*array, json_type_array)) {
        refuse(context, EIO, "state: \"%s\" is not an array", key);
        return false;
    }
    return true;
}

// Neighbour records from "scan_results" (standard: channel and bandwidth) or
// "rrm_scan_results" (RRM: transmit power); both carry bssid, rssi and chanspec.
int build_ap_records(const request_context& context, bool rrm, record_bytes* records, size_t* record_count)
{
    const char* key = rrm ? "rrm_scan_results" : "scan_results";
    json_object* list = nullptr;
    if (!state_array(context, context.radio->root(), key, &list))
        return -1;
    // An RRM measurement triggered on channel 0 heard nobody.
    json_object* measured = member(context.radio->root(), "last_rrm_scan_channel");
    const bool heard_nobody =
        rrm && json_object_is_type(measured, json_type_int) && json_object_get_int(measured) == 0;
    const size_t total = list == nullptr || heard_nobody ? 0 : json_object_array_length(list);
    *record_count = total < max_ap_records ? total : max_ap_records;
    records->assign(*record_count * ap_record_bytes, 0);
    for (size_t i = 0; i < *record_count; ++i) {
        json_object* entry = json_object_array_get_idx(list, i);
        json_object* bssid = member(entry, "bssid");
        unsigned char mac[6];
        int32_t rssi = 0;
        int32_t chanspec = 0;
        if (!json_object_is_type(bssid, json_type_string) ||
            !parse_mac_text(json_object_get_string(bssid), json_object_get_string_len(bssid), mac) ||
            !read_int(entry, "rssi", &rssi) || !read_int(entry, "chanspec", &chanspec))
            return refuse(context, EIO, "state: %s[%zu] needs \"bssid\", \"rssi\" and \"chanspec\"", key, i);
        unsigned char* record = records->data() + i * ap_record_bytes;
        std::memcpy(record + ap_bssid_offset, mac, sizeof mac);
        put<int32_t>(record, ap_rssi_offset, rssi);
        put<uint16_t>(record, ap_chanspec_offset, static_cast<uint16_t>(chanspec));
        if (rrm) {
            int32_t tx_power = 0;
            if (!read_int(entry, "tx_power", &tx_power))
                return refuse(context, EIO, "state: %s[%zu] needs \"tx_power\"", key, i);
            put<int32_t>(record, ap_tx_power_offset, tx_power);
        } else {
            int32_t channel = 0;
            int32_t bandwidth = 0;
            if (!read_int(entry, "channel", &channel) || !read_int(entry, "bandwidth", &bandwidth))
                return refuse(context, EIO, "state: %s[%zu] needs \"channel\" and \"bandwidth\"", key, i);
            put<int32_t>(record, ap_channel_offset, channel);
            put<int32_t>(record, ap_bandwidth_offset, bandwidth);
        }
    }
    return 0;
}

// Station records from stations.<ifname>: the readings are dBm in the state and dBm + 100 on
// the wire; missing chains read 0.
int build_sta_records(const request_context& context, record_bytes* records, size_t* record_count)
{
    json_object* list = nullptr;
    if (!state_array(context, member(context.radio->root(), "stations"), context.ifname.c_str(), &list))
        return -1;
    const size_t total = list == nullptr ? 0 : json_object_array_length(list);
    *record_count = total < max_sta_records ? total : max_sta_records;
    records->assign(*record_count * sta_record_bytes, 0);
    for (size_t i = 0; i < *record_count; ++i) {
        json_object* entry = json_object_array_get_idx(list, i);
        json_object* mac_text = member(entry, "mac");
        json_object* readings = member(entry, "rssi");
        unsigned char mac[6];
        if (!json_object_is_type(mac_text, json_type_string) ||
            !parse_mac_text(json_object_get_string(mac_text), json_object_get_string_len(mac_text), mac) ||
            !json_object_is_type(readings, json_type_array) || json_object_array_length(readings) > 4)
            return refuse(context, EIO,
                          "state: stations.%s[%zu] needs \"mac\" and up to four \"rssi\" values",
                          context.ifname.c_str(), i);
        unsigned char* record = records->data() + i * sta_record_bytes;
        std::memcpy(record + sta_mac_offset, mac, sizeof mac);
        for (size_t chain = 0; chain < json_object_array_length(readings); ++chain) {
            json_object* reading = json_object_array_get_idx(readings, chain);
            if (!json_object_is_type(reading, json_type_int))
                return refuse(context, EIO, "state: stations.%s[%zu].rssi holds a non-integer",
                              context.ifname.c_str(), i);
            put<int32_t>(record, sta_readings_offset + 4 * chain, json_object_get_int(reading) + 100);
        }
    }
    return 0;
}

int build_channel_records(const request_context& context, record_bytes* records, size_t* record_count)
{
    json_object* list = nullptr;
    if (!state_array(context, context.radio->root(), "available_channels", &list))
        return -1;
    const size_t total = list == nullptr ? 0 : json_object_array_length(list);
    *record_count = total < max_channel_records ? total : max_channel_records;
    records->assign(*record_count * channel_record_bytes, 0);
    for (size_t i = 0; i < *record_count; ++i) {
        json_object* channel = json_object_array_get_idx(list, i);
        if (!json_object_is_type(channel, json_type_int))
            return refuse(context, EIO, "state: available_channels[%zu] is not an integer", i);
        put<uint32_t>(records->data(), i * channel_record_bytes,
                      static_cast<uint32_t>(json_object_get_int(channel)));
    }
    return 0;
}

int start_scan(const request_context& context, const unsigned char* block, uint32_t count)
{
    if (count > max_scan_channels)
        return refuse(context, EINVAL, "START_SCAN count %u exceeds the %zu channels the block holds", count,
                      max_scan_channels);
    json_object* channels = json_object_new_array();
    unsigned previous = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned channel = get<uint16_t>(block, block_records_offset + i * scan_channel_bytes);
        if (channel == 0 || channel <= previous) {
            json_object_put(channels);
            return refuse(context, EINVAL,
                          "START_SCAN channel %u at index %u is zero, repeated or out of ascending order "
                          "(count %u)",
                          channel, i, count);
        }
        previous = channel;
        json_object_array_add(channels, json_object_new_int(static_cast<int32_t>(channel)));
    }
    json_object* state = context.radio->root();
    json_object_object_add(state, "last_scan_channels", channels);
    count_up(state, "start_scan");
    return save_or_refuse(context);
}

// Writes count and records into the caller's block.
int reply(unsigned char* block, const record_bytes& records, size_t record_count)
{
    put<uint32_t>(block, block_count_offset, static_cast<uint32_t>(record_count));
    if (!records.empty())
        std::memcpy(block + block_records_offset, records.data(), records.size());
    return 0;
}

}  // namespace

int emulate_vendor_command(const request_context& context)
{
    const struct iwreq* req = context.req;
    auto* block = static_cast<unsigned char*>(req->u.data.pointer);
    if (block == nullptr)
        return refuse(context, EINVAL, "the data pointer is null");
    if (req->u.data.length != block_length_field)
        return refuse(context, EINVAL, "length field %u, expected %u",
                      static_cast<unsigned>(req->u.data.length), block_length_field);
    const uint32_t command = get<uint32_t>(block, block_command_offset);
    const uint32_t count = get<uint32_t>(block, block_count_offset);
    if (command > command_get_available_channels)
        return refuse(context, EINVAL, "unknown command %u", command);
    // Stations are listed per VAP; everything else belongs to the radio.
    const bool on_vap = is_vap(context.ifname);
    if (command == command_get_assoc_sta && !on_vap)
        return refuse(context, EINVAL, "command 4 (GET_ASSOC_STA) needs a VAP interface, not a radio");
    if (command != command_get_assoc_sta && on_vap)
        return refuse(context, EINVAL, "command %u needs the radio interface, not a VAP", command);

    static const uint32_t expected[] = {0,
                                        0,
                                        expected_count_scan_result,
                                        expected_count_rrm_scan_result,
                                        expected_count_assoc_sta,
                                        expected_count_available_channels};
    if (command != command_start_scan && count != expected[command])
        return refuse(context, EINVAL, "command %u with count %u, expected %u", command, count,
                      expected[command]);

    json_object* state = context.radio->root();
    record_bytes records;
    size_t record_count = 0;
    switch (command) {
    case command_start_scan:
        return start_scan(context, block, count);
    case command_stop_scan:
        count_up(state, "stop_scan");
        return save_or_refuse(context);
    case command_get_scan_result:
    case command_get_rrm_scan_result:
        if (build_ap_records(context, command == command_get_rrm_scan_result, &records, &record_count) != 0)
            return -1;
        return reply(block, records, record_count);
    case command_get_assoc_sta:
        if (build_sta_records(context, &records, &record_count) != 0)
            return -1;
        return reply(block, records, record_count);
    default:
        if (build_channel_records(context, &records, &record_count) != 0)
            return -1;
        return reply(block, records, record_count);
    }
}

}  // namespace vrtl
