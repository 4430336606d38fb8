#include "rrm/rrm_response_text.h"

#include <cstdio>
#include <cstring>

#include "core/json_stream.h"

namespace {

// What a neighbour usually takes in the text; the block grows when the guess falls short.
const size_t typical_neighbour_length = 112;

// One neighbour of the "rf-environment" lists.
void stream_neighbour(json_stream& text, const driver_interface& driver, const scan_result_entry& entry)
{
    char bssid[18];
    snprintf(bssid, sizeof bssid, "%02x:%02x:%02x:%02x:%02x:%02x", entry.bssid[0], entry.bssid[1],
             entry.bssid[2], entry.bssid[3], entry.bssid[4], entry.bssid[5]);
    text.open_object(nullptr);
    text.insert_string("bssid", bssid);
    text.insert_int("rssi", entry.rssi);
    text.insert_int("channel", entry.channel);
    text.insert_int("tx-power", entry.tx_power);
    // The entry keeps the chanspec's primary bits as they are; the driver knows how to name them.
    const char* primary = driver.primary_channel_to_string(entry.primary, entry.bandwidth);
    text.insert_string("primary-channel", primary == nullptr ? "" : primary);
    text.insert_int("bandwidth", entry.bandwidth);
    text.close();
}

}  // namespace

std::shared_ptr<buffer_info_t> rrm_response_text(json_writer& head, const ap_table* tables, size_t count,
                                                 const driver_interface& driver)
{
    if (head.fail())
        return nullptr;
    const char* head_text = head.serialize();
    if (head_text == nullptr)
        return nullptr;

    size_t neighbours = 0;
    for (size_t i = 0; i < count; ++i)
        neighbours += tables[i].size();
    json_stream text(strlen(head_text) + neighbours * typical_neighbour_length + 64);
    text.resume_object(head_text);
    text.open_array("rf-environment");
    for (size_t i = 0; i < count; ++i) {
        // A pass that heard nothing adds no list, so the lists do not say which pass they are from.
        if (tables[i].empty())
            continue;
        text.open_array(nullptr);
        for (const scan_result_entry& entry : tables[i])
            stream_neighbour(text, driver, entry);
        text.close();
        if (text.fail())
            return nullptr;
    }
    text.close();
    text.close();
    return text.release();
}
