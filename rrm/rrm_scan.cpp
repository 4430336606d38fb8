// Scans on the RRM service's request and the "rrm-response" that reports what they heard. A
// standard scan runs in five passes, each filling its own table; the driver's own RRM scan runs
// once and may answer after a second delay.
#include <cstdlib>
#include <string>

#include "core/free_memory.h"
#include "core/trace.h"
#include "rrm/rrm_response_text.h"
#include "rrm/rrm_worker.h"

namespace {

// Channels from 36 upwards are 5 GHz channels.
const unsigned first_5ghz_channel = 36;

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
            finish_rrm_response();
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
    if (response_delay == 0)
        finish_rrm_response();
    else
        timers.add_timer(post_rrm_response_timeout_cb, TIMER_RESPONSE_DELAY, response_delay);
}

void rrm_worker::post_rrm_response_timeout()
{
    timers.del_timer(TIMER_RESPONSE_DELAY);
    finish_rrm_response();
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
    // Out of memory: a report without its environment would tell the service that nothing is
    // around, so none is sent.
    std::shared_ptr<buffer_info_t> text =
        rrm_response_text(message, rf_environment.data(), rf_environment.size(), driver);
    if (text)
        outgoing_queue.enqueue(text);
}

void rrm_worker::finish_rrm_response()
{
    post_rrm_response();
    clear_rf_environment();
    // The tables and the json-c head are gone; the report text itself is freed by the WebSocket
    // worker once sent.
    return_free_memory();
}

void rrm_worker::clear_rf_environment()
{
    // The tables give their memory up: a full report holds up to 46,800 entries, and keeping
    // that capacity between scans (minutes or hours apart) would keep the agent that large for
    // good. The next scan grows them again.
    for (ap_table& table : rf_environment)
        ap_table().swap(table);
}
