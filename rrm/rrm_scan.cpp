// Scans on the RRM service's request and the "rrm-response" that reports what they heard. A
// standard scan runs in five passes, each filling its own table; the driver's own RRM scan runs
// once and may answer after a second delay.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/trace.h"
#include "rrm/rrm_worker.h"

namespace {

// Channels from 36 upwards are 5 GHz channels.
const unsigned first_5ghz_channel = 36;

// "%02x:%02x:%02x:%02x:%02x:%02x" of the neighbour's BSSID, as the service expects it.
std::string bssid_text(const unsigned char (&bssid)[6])
{
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bssid[0], bssid[1], bssid[2], bssid[3],
             bssid[4], bssid[5]);
    return text;
}

// One neighbour of the "rf-environment" lists.
void insert_neighbour(const driver_interface& driver, const json_writer& heard,
                      const scan_result_entry& entry)
{
    json_writer neighbour = heard.make_subobject(nullptr);
    if (neighbour.fail())
        return;
    neighbour.insert_string("bssid", bssid_text(entry.bssid).c_str());
    neighbour.insert_int("rssi", entry.rssi);
    neighbour.insert_int("channel", entry.channel);
    neighbour.insert_int("tx-power", entry.tx_power);
    // The entry keeps the chanspec's primary bits as they are; the driver knows how to name them.
    const char* primary = driver.primary_channel_to_string(entry.primary, entry.bandwidth);
    neighbour.insert_string("primary-channel", primary == nullptr ? "" : primary);
    neighbour.insert_int("bandwidth", entry.bandwidth);
}

}  // namespace

void rrm_worker::process_rrm_update(json_reader& message)
{
    if (!driver.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-update because hostapd is not running\n");
        return;
    }
    trace.info("process_rrm_update:\n");
    const int delay = message.get_int("rrm-scan-delay");
    const int vorna_rrm_scanning = message.get_int("vorna-rrm-scanning");
    standard_scan = vorna_rrm_scanning == 0;
    // Only the driver's own scan waits again before answering; a standard scan answers at once.
    response_delay = vorna_rrm_scanning != 0 ? delay : 0;
    const char* channels = message.get_string("rrm-scan-channels");
    fill_scan_channels(channels == nullptr ? "" : channels);

    // The newest request supersedes a scan that is still waiting or running. A response that is
    // only waiting for its delay is left to go out: its scan is already complete.
    timers.del_timer(TIMER_SCAN_DELAY);
    timers.del_timer(TIMER_SCAN_PASS);
    if (delay < 1)
        scan_delay_expired();
    else
        timers.add_timer(scan_delay_expired_cb, TIMER_SCAN_DELAY, delay);
}

void rrm_worker::fill_scan_channels(const char* text)
{
    scan_channels_24.clear();
    scan_channels_5.clear();
    if (text == nullptr)
        return;
    // Every space ends a piece, so two spaces in a row give an empty piece, which atoi reads as
    // channel 0. The service never sends that; the text is taken as it comes rather than
    // second-guessed. A trailing space ends the last piece and opens no new one.
    const std::string channels(text);
    std::string::size_type position = 0;
    while (position < channels.size()) {
        std::string::size_type end = channels.find(' ', position);
        if (end == std::string::npos)
            end = channels.size();
        const int channel = atoi(channels.substr(position, end - position).c_str());
        if (channel < static_cast<int>(first_5ghz_channel))
            scan_channels_24.insert(static_cast<unsigned>(channel));
        else
            scan_channels_5.insert(static_cast<unsigned>(channel));
        position = end + 1;
    }
}

void rrm_worker::scan_delay_expired()
{
    driver.stop(true);
    int duration = 0;
    driver.start(standard_scan, scan_channels_24, scan_channels_5, duration);
    timers.del_timer(TIMER_SCAN_PASS);
    timers.add_timer(scan_finished_cb, TIMER_SCAN_PASS, duration);
    scan_pass = 0;
}

void rrm_worker::scan_finished()
{
    trace.info("scan_finished\n");
    // The driver's own scan always fills table 0; a standard scan fills the table of its pass.
    ap_table& table = rf_environment[scan_pass < scan_passes ? scan_pass : 0];
    if (standard_scan) {
        driver.stop(true);
        driver.fill_ap_table(table);
        ++scan_pass;
        if (scan_pass >= scan_passes) {
            post_rrm_response();
            clear_rf_environment();
            return;
        }
        int duration = 0;
        driver.start(true, scan_channels_24, scan_channels_5, duration);
        timers.del_timer(TIMER_SCAN_PASS);
        timers.add_timer(scan_finished_cb, TIMER_SCAN_PASS, duration);
        return;
    }

    driver.stop(true);
    driver.fill_ap_table_vorna_rrm(table);
    if (response_delay == 0) {
        post_rrm_response();
        clear_rf_environment();
    } else {
        timers.add_timer(post_rrm_response_timeout_cb, TIMER_RESPONSE_DELAY, response_delay);
    }
}

void rrm_worker::post_rrm_response_timeout()
{
    timers.del_timer(TIMER_RESPONSE_DELAY);
    post_rrm_response();
    clear_rf_environment();
}

void rrm_worker::post_rrm_response()
{
    if (!driver.is_hostapd_initialized()) {
        trace.info("Not sending rrm-response because hostapd is not running\n");
        return;
    }
    json_writer message = make_message("rrm-response");
    message.insert_string("domain", domain.c_str());
    if (!insert_radios(message))
        return;
    json_writer environment = message.make_array("rf-environment");
    // Out of memory: a report without its environment would tell the service that nothing is
    // around, so none is sent.
    if (environment.fail())
        return;
    for (const ap_table& table : rf_environment) {
        // A pass that heard nothing adds no list, so the lists do not say which pass they are from.
        if (table.empty())
            continue;
        json_writer heard = environment.make_array(nullptr);
        if (heard.fail())
            continue;
        for (const scan_result_entry& entry : table)
            insert_neighbour(driver, heard, entry);
    }
    post(message);
}

void rrm_worker::clear_rf_environment()
{
    // clear() keeps each table's capacity, so the next scan fills them without reallocating.
    for (ap_table& table : rf_environment)
        table.clear();
}
