// The agent's lifecycle: it counts as connected while hostapd or widsd runs, follows them
// through their pid files and the notice markers other programs leave under /tmp, and reacts
// to the WebSocket worker's "connected" and "disconnected" notices.
#include "rrm/rrm_worker.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "core/run_flags.h"
#include "core/trace.h"
#include "core/websock_cfg.h"
#include "device_root.h"

namespace {

const char hostapd_pid[] = "/var/run/hostapd.pid";
const char widsd_pid[] = "/var/run/widsd.pid";
const char notify[] = "/tmp/.quillon_notify";
const char notify_hostapd_started[] = "/tmp/.quillon_notify_hostapd_started";
const char notify_widsd_started[] = "/tmp/.quillon_notify_widsd_started";
const char notify_config_updated[] = "/tmp/.quillon_notify_config_updated";
const char notify_timezone_changed[] = "/tmp/.quillon_notify_timezone_changed";

bool file_exists(const char* absolute)
{
    struct stat status;
    return stat(device_path(absolute).c_str(), &status) == 0;
}

void remove_file(const char* absolute)
{
    unlink(device_path(absolute).c_str());
}

}  // namespace

rrm_worker::rrm_worker(driver_interface& radio_driver, safe_queue& incoming, safe_queue& outgoing,
                       const volatile bool& run_flag, const char* rrm_domain)
    : abstract_worker(run_flag, "rrm", 0, reconnect_pause_us), driver(radio_driver), subscribed(false),
      subscribing(false), domain(rrm_domain == nullptr ? "" : rrm_domain), incoming_queue(incoming),
      outgoing_queue(outgoing), scan_pass(0),
      probe_tables(static_cast<size_t>(radio_driver.get_max_radios())),
      blacklist_tables(static_cast<size_t>(radio_driver.get_max_radios())),
      scan_finished_cb([this] { scan_finished(); }), scan_delay_expired_cb([this] { scan_delay_expired(); }),
      subscribe_request_timeout_cb([this] { subscribe_request_timeout(); }),
      post_rrm_response_timeout_cb([this] { post_rrm_response_timeout(); }),
      rrm_probe_response_timeout_cb([this] { rrm_probe_response_timeout(); }),
      rrm_blacklist_timeout_cb([this] { rrm_blacklist_timeout(); }), standard_scan(true),
      subscribe_timeout(subscribe_timeout_initial), response_delay(0), hostapd_stop_time(0),
      hostapd_restart_wait(60), load_balancer_active(false), no_balance_enterprise(false), use_80211r(false),
      fbt_reassoc_deadline(1000), fbt_over_ds(true), mobility_domain(123)
{
    // Notices of an earlier run are stale; the start notices are kept, since the daemons they
    // announce are running now.
    remove_file(notify_config_updated);
    remove_file(notify_timezone_changed);
    trace.set_log_level(orvd_log_level);
    // A message for the agent ends the driver's pacing wait at once. The notifier runs on the
    // WebSocket worker's thread under the queue's lock, so it only signals.
    incoming_queue.replace_notifier([this] { wake.signal(); });
    driver.set_wake_event(&wake);
}

rrm_worker::~rrm_worker()
{
    trace.info("rrm_worker: stop\n");
    stop_timers();
    clear_environments();
    clear_802dot11k();
    driver.init();
    driver.close_vapcontext();
    // The queue and the driver outlive the agent; neither may reach its wake-up any more.
    incoming_queue.replace_notifier([] {});
    driver.set_wake_event(nullptr);
}

bool rrm_worker::__connect()
{
    timers.process_once();
    if (is_hostapd_running()) {
        trace.info("Connected to hostapd\n");
        return true;
    }
    if (is_widsd_running()) {
        trace.info("Connected to widsd\n");
        return true;
    }
    return false;
}

bool rrm_worker::condition(const volatile bool& run_flag)
{
    if (!read_run_flag(run_flag))
        return false;
    return process_notifications();
}

bool rrm_worker::execute()
{
    timers.process_once();
    incoming_queue.dequeue(
        [this](const std::shared_ptr<buffer_info_t>& message) { from_ipc_dequeue_cb(message); });
    if (!driver.is_in_progress())
        pending_queue.dequeue(
            [this](const std::shared_ptr<buffer_info_t>& message) { internal_pending_dequeue_cb(message); });
    // The driver's event wait paces the loop; there is no pause of the worker's own. It ends
    // early, or does not wait at all, while a message is waiting on incoming_queue.
    driver.process_driver_events([this](const driver_event_desc& event) { process_driver_event(event); });
    return true;
}

void rrm_worker::__disconnect()
{
    trace.info("Disconnected from hostapd\n");
    if (subscribed) {
        clear_802dot11k();
        driver.init();
        // Cause 1 tells the driver that the daemon is going away rather than losing hostapd.
        const ResetQuillonCause cause = static_cast<ResetQuillonCause>(read_run_flag(run) ? 0 : 1);
        driver.reset_quillon(cause);
        if (use_80211r)
            driver.reset_quillon_fbt(cause);
    }
    if (driver.is_hostapd_initialized())
        process_hostapd_stopped();
}

bool rrm_worker::is_hostapd_running() const
{
    return file_exists(hostapd_pid);
}

bool rrm_worker::is_widsd_running() const
{
    return file_exists(widsd_pid);
}

bool rrm_worker::process_notifications()
{
    // The notices are looked at only when the master marker says that one is waiting.
    if (file_exists(notify)) {
        remove_file(notify);
        if (file_exists(notify_hostapd_started)) {
            remove_file(notify_hostapd_started);
            remove_file(notify_widsd_started);
            if (is_hostapd_running())
                process_hostapd_started();
        } else if (file_exists(notify_widsd_started)) {
            remove_file(notify_widsd_started);
            if (!is_hostapd_running()) {
                if (driver.is_hostapd_initialized())
                    process_hostapd_stopped();
                process_widsd_started();
            }
        }
        if (file_exists(notify_config_updated)) {
            remove_file(notify_config_updated);
            if (subscribed)
                post_config_changed();
        }
        if (file_exists(notify_timezone_changed)) {
            remove_file(notify_timezone_changed);
            tzset();
        }
    }

    if (driver.is_widsd_sentry_mode())
        return true;
    if (is_hostapd_running())
        return true;
    if (hostapd_stop_time != 0) {
        const long now = timers.time_monotonic();
        if (now - hostapd_stop_time <= hostapd_restart_wait)
            return true;
        trace.info("Hostapd has not restarted\n");
        return false;
    }
    if (driver.is_hostapd_initialized()) {
        trace.info("Hostapd is not running, waiting for restart\n");
        process_hostapd_stopped();
        return true;
    }
    trace.info("Hostapd is not init and widsd is not sentry mode\n");
    return false;
}

void rrm_worker::process_internal_message(json_reader& message)
{
    const char* cmd = message.get_string("cmd");
    if (cmd == nullptr)
        return;
    if (strcasecmp(cmd, "connected") == 0) {
        timers.del_timer(TIMER_SUBSCRIBE);
        timers.del_timer(TIMER_RESPONSE_DELAY);
        subscribing = true;
        if (!driver.is_hostapd_initialized() && !driver.is_widsd_sentry_mode()) {
            // The start notice subscribes once the radios are ready.
            trace.info("Waiting for hostapd to start before sending subscribe-request\n");
            return;
        }
        start_subscribe();
    } else if (strcasecmp(cmd, "disconnected") == 0) {
        trace.info("Disconnected from RRM service - stop all scans and timers\n");
        stop_timers();
        if (subscribed) {
            clear_environments();
            clear_802dot11k();
            driver.reset_quillon(RESET_QUILLON_FULL);
            driver.init();
        }
        subscribed = false;
        subscribing = false;
    }
}

void rrm_worker::process_started()
{
    if (subscribing) {
        trace.info("process_started : subscribing\n");
        start_subscribe();
    } else if (subscribed) {
        trace.info("process_started : subscribed\n");
        // The fresh description below supersedes a configuration notice still waiting.
        remove_file(notify_config_updated);
        post_config_changed();
    }
}

void rrm_worker::process_hostapd_started()
{
    trace.info("process_hostapd_started : initializing\n");
    hostapd_stop_time = 0;
    driver.set_hostapd_initialized(true);
    driver.set_vapcontext();
    // The snapshot and the description that follows may each wait on a silent configd for
    // several seconds; a clock reading between them lets each count against the clock guard
    // on its own.
    timers.time_monotonic();
    driver.init();
    process_started();
}

void rrm_worker::process_widsd_started()
{
    trace.info("process_widsd_started : initializing\n");
    hostapd_stop_time = 0;
    driver.set_vapcontext();
    timers.time_monotonic();  // as after hostapd's snapshot
    process_started();
}

void rrm_worker::process_hostapd_stopped()
{
    trace.info("process_hostapd_stopped : deinitializing\n");
    hostapd_stop_time = timers.time_monotonic();
    // The driver stops a scan only while hostapd counts as initialised.
    end_scan();
    driver.set_hostapd_initialized(false);
    if (subscribed)
        post_disassoc_all();
    stop_timers();
    clear_environments();
    driver.close_vapcontext();
}

// Every scan state ends here: without its timers nobody would stop a running scan, and while
// the driver reports one in progress every service message waits in the pending queue.
void rrm_worker::stop_timers()
{
    for (int id = 0; id < timer_count; ++id)
        timers.del_timer(id);
    end_scan();
}

// Stops the driver's scan of the kind that runs: active for a standard scan, RRM for the
// driver's own (a later rrm-update waits while one runs, so standard_scan still names it).
void rrm_worker::end_scan()
{
    if (driver.is_in_progress())
        driver.stop(standard_scan);
}

void rrm_worker::clear_environments()
{
    clear_rf_environment();
    for (auto& table : probe_tables)
        table.clear();
    for (auto& table : blacklist_tables)
        table.clear();
}

void rrm_worker::process_driver_event(const driver_event_desc& event)
{
    if (!load_balancer_active || !subscribed)
        return;
    if (event.type == 0)
        post_client_disassoc();
    else if (event.type == 1)
        post_client_assoc();
}

void rrm_worker::post_disassoc_all()
{
    trace.debug("Not sending rrm-disassoc-all-clients because load balancer is not yet supported\n");
}

void rrm_worker::post_assoc_state_changed()
{
    trace.debug("Not sending rrm-assoc-state-changed because load balancer is not yet supported\n");
}

void rrm_worker::post_client_assoc()
{
    trace.debug("Not sending rrm-client-assoc because load balancer is not yet supported\n");
}

void rrm_worker::post_client_disassoc()
{
    trace.debug("Not sending rrm-client-disassoc because load balancer is not yet supported\n");
}
