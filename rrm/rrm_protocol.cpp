// The agent's side of the RRM service protocol "2.2": the envelope, the version rule, the
// dispatch of incoming messages (deferred while a scan runs), and the subscription with its
// retry back-off.
#include <strings.h>

#include <cstdio>
#include <cstring>

#include "core/trace.h"
#include "rrm/rrm_worker.h"

namespace {

const char protocol_version[] = "2.2";
const char service_rrm[] = "rrm";
const char service_internal[] = "internal-ipc";
const int retry_later_code = 503;

bool same(const char* text, const char* expected)
{
    return text != nullptr && strcasecmp(text, expected) == 0;
}

// The factory texts are NUL-padded and need not be terminated when they fill the field.
std::string factory_text(const char (&field)[32])
{
    return std::string(field, strnlen(field, sizeof field));
}

}  // namespace

json_writer rrm_worker::make_message(const char* cmd) const
{
    return json_writer(service_rrm, cmd, driver.get_mac(), protocol_version);
}

void rrm_worker::post(json_writer& message)
{
    if (!message.fail())
        outgoing_queue.enqueue_json(message);
}

void rrm_worker::from_ipc_dequeue_cb(const std::shared_ptr<buffer_info_t>& message)
{
    if (process_ipc_message(*message) != 0) {
        trace.info("Pending message for delayed processing\n");
        pending_queue.enqueue(message);
    }
}

void rrm_worker::internal_pending_dequeue_cb(const std::shared_ptr<buffer_info_t>& message)
{
    trace.info("From pended\n");
    process_ipc_message(*message);
}

int rrm_worker::process_ipc_message(const buffer_info_t& message)
{
    if (message.data == nullptr || message.size == 0)
        return 0;
    json_reader reader(message.data);
    if (reader.fail())
        return 0;
    const char* service = reader.get_string("service");
    if (service == nullptr)
        return 0;
    if (same(service, service_rrm)) {
        // Service messages wait while a scan runs; they are taken up again once it ended.
        if (driver.is_in_progress())
            return 1;
        process_rrm_message(reader);
    } else if (same(service, service_internal)) {
        process_internal_message(reader);
    }
    return 0;
}

void rrm_worker::process_rrm_message(json_reader& message)
{
    const char* cmd = message.get_string("cmd");
    if (cmd == nullptr)
        return;
    if (!process_validate_version(message))
        return;
    if (same(cmd, "rrm-info"))
        process_rrm_info(message);
    else if (same(cmd, "rrm-update"))
        process_rrm_update(message);
    else if (same(cmd, "rrm-blacklist"))
        process_apply_blacklist(message);
    else if (same(cmd, "rrm-request-mode"))
        process_rrm_request_mode(message);
    else if (same(cmd, "subscribe-response"))
        process_subscribe_response(message);
    else if (same(cmd, "rrm-probe-request"))
        process_rrm_probe_request(message);
    else if (same(cmd, "rrm-disassoc-request"))
        trace.debug("Ignoring rrm-disassoc-request because load balancer is not yet supported\n");
    else if (same(cmd, "rrm-client-assoc-ack"))
        trace.debug("Ignoring rrm-client-assoc-ack because load balancer is not yet supported\n");
    else if (same(cmd, "fbt-info"))
        process_fbt_info(message);
}

bool rrm_worker::process_validate_version(json_reader& message)
{
    if (validate_version(message))
        return true;
    // A service that speaks an older protocol would misread everything this agent says.
    trace.info("Unsubscribe from RRM service: incorrect version\n");
    stop_timers();
    post_unsubscribe_request();
    post_ipc_disconnect();
    return false;
}

bool rrm_worker::validate_version(json_reader& message)
{
    const char* version = message.get_string("version");
    if (version == nullptr)
        return false;
    int major = 0;
    int minor = 0;
    if (sscanf(version, "%d.%d", &major, &minor) < 2)
        return false;
    // Computed in unsigned arithmetic so that absurd numbers wrap instead of overflowing; the
    // comparison is the signed one of major * 65536 + minor.
    const int combined =
        static_cast<int>(static_cast<unsigned>(major) * 65536u + static_cast<unsigned>(minor));
    return combined >= 0x20002;
}

void rrm_worker::insert_json_factory(json_writer& message)
{
    const factory_record_s* record = driver.get_factory();
    json_writer factory = message.make_subobject("factory");
    if (record == nullptr || factory.fail())
        return;
    factory.insert_string("board", factory_text(record->board).c_str());
    factory.insert_string("hw", factory_text(record->hw).c_str());
    factory.insert_string("serial", factory_text(record->serial).c_str());
    factory.insert_string("mac", factory_text(record->mac).c_str());
}

void rrm_worker::post_subscribe_request()
{
    if (!driver.is_hostapd_initialized() && !driver.is_widsd_sentry_mode()) {
        trace.info("Not sending subscribe-request because hostapd is not running\n");
        return;
    }
    trace.info("Subscribe to RRM service\n");
    json_writer message = make_message("subscribe-request");
    message.insert_string("domain", domain.c_str());
    message.insert_int("ap-mac-count", 16);
    insert_json_factory(message);
    if (insert_radios(message))
        post(message);
}

void rrm_worker::start_subscribe()
{
    timers.del_timer(TIMER_SUBSCRIBE);
    post_subscribe_request();
    reset_subscribe_timeout();
    timers.add_timer(subscribe_request_timeout_cb, TIMER_SUBSCRIBE, subscribe_timeout);
}

void rrm_worker::subscribe_request_timeout()
{
    timers.del_timer(TIMER_SUBSCRIBE);
    subscribing = true;
    post_subscribe_request();
    increment_subscribe_timeout();
    timers.add_timer(subscribe_request_timeout_cb, TIMER_SUBSCRIBE, subscribe_timeout);
}

void rrm_worker::reset_subscribe_timeout()
{
    subscribe_timeout = subscribe_timeout_initial;
}

void rrm_worker::increment_subscribe_timeout()
{
    subscribe_timeout *= 2;
    if (subscribe_timeout > subscribe_timeout_max)
        subscribe_timeout = subscribe_timeout_max;
}

void rrm_worker::process_subscribe_response(json_reader& message)
{
    const char* status = message.get_string("status");
    if (status == nullptr)
        return;  // not an answer: the retry timer keeps running
    timers.del_timer(TIMER_SUBSCRIBE);
    subscribing = false;
    if (same(status, "success")) {
        load_balancer_active = false;
        no_balance_enterprise = false;
        subscribed = true;
        const char* new_domain = message.get_string("domain");
        if (new_domain != nullptr)
            domain = new_domain;
        json_reader config = message.get_subobject("config");
        if (!config.fail())
            apply_config(config);
    } else if (message.get_int("code") == retry_later_code) {
        increment_subscribe_timeout();
        trace.info("Reconnect after %d sec\n", subscribe_timeout);
        subscribing = true;
        timers.add_timer(subscribe_request_timeout_cb, TIMER_SUBSCRIBE, subscribe_timeout);
    }
    // Any other refusal leaves the agent unsubscribed until the next "connected" or start.
}

void rrm_worker::post_unsubscribe_request()
{
    trace.info("Unsubscribe from RRM service\n");
    json_writer message = make_message("unsubscribe-request");
    message.insert_string("domain", domain.c_str());
    insert_json_factory(message);
    post(message);
}

void rrm_worker::post_ipc_disconnect()
{
    json_writer message(service_internal, "unlink", "", protocol_version);
    post(message);
}
