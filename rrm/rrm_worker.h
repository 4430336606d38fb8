// The RRM agent: follows hostapd and widsd on the access point, subscribes to the RRM service,
// describes the radios, scans on request and applies the channel, power, 802.11k and 802.11r
// settings the service decides. It meets the WebSocket worker only through two queues and
// sees the radios only through driver_interface.
#ifndef ORVD_RRM_RRM_WORKER_H
#define ORVD_RRM_RRM_WORKER_H

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/abstract_worker.h"
#include "core/buffer_info.h"
#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/safe_queue.h"
#include "core/wake_event.h"
#include "driver/driver_interface.h"
#include "rrm/sta_table.h"

class rrm_worker : public abstract_worker {
public:
    // The one-shot timers of the agent, by id.
    enum timer_id {
        TIMER_SCAN_DELAY = 0,
        TIMER_SCAN_PASS = 1,
        TIMER_SUBSCRIBE = 2,
        TIMER_RESPONSE_DELAY = 3,
        TIMER_PROBE_RESPONSE = 4,
        TIMER_BLACKLIST = 5,
    };
    static constexpr int timer_count = 6;
    static constexpr unsigned scan_passes = 5;
    static constexpr int subscribe_timeout_initial = 30;
    static constexpr int subscribe_timeout_max = 120;
    static constexpr int reconnect_pause_us = 300000;

    // `incoming` is filled by the WebSocket worker, `outgoing` drained by it.
    rrm_worker(driver_interface& driver, safe_queue& incoming, safe_queue& outgoing, const volatile bool& run,
               const char* domain);
    ~rrm_worker() override;

    // Messages (rrm_protocol.cpp). Non-zero: defer the message until no scan runs.
    int process_ipc_message(const buffer_info_t& message);
    void from_ipc_dequeue_cb(const std::shared_ptr<buffer_info_t>& message);
    void internal_pending_dequeue_cb(const std::shared_ptr<buffer_info_t>& message);
    void process_rrm_message(json_reader& message);
    bool process_validate_version(json_reader& message);
    bool validate_version(json_reader& message);
    void post_subscribe_request();
    void start_subscribe();
    void process_subscribe_response(json_reader& message);
    void subscribe_request_timeout();
    void reset_subscribe_timeout();
    void increment_subscribe_timeout();
    void post_unsubscribe_request();
    void post_ipc_disconnect();
    void insert_json_factory(json_writer& message);

    // Lifecycle (rrm_worker.cpp).
    bool process_notifications();
    void process_internal_message(json_reader& message);
    void process_started();
    void process_hostapd_started();
    void process_hostapd_stopped();
    void process_widsd_started();
    bool is_hostapd_running() const;
    bool is_widsd_running() const;
    void stop_timers();
    void end_scan();
    void clear_environments();
    void process_driver_event(const driver_event_desc& event);
    void post_disassoc_all();
    void post_assoc_state_changed();
    void post_client_assoc();
    void post_client_disassoc();

    // The radio description (rrm_describe.cpp).
    // "wlan0", "wlan1", "wlan2" by radio index; null for any other index.
    static const char* radio_ifname(int radio);
    void insert_interface_to_json(const json_writer& radios, const char* ifname, int radio);
    // Appends the "radios" array with every radio; false when the array could not be made.
    bool insert_radios(json_writer& message);
    void get_ssidlist_cb(int vap_id, const char* ssid, const char* mac, bool dot11k, json_writer& vaps,
                         int radio);
    void get_assoclist_cb(const rrm_sta_s& station, const json_writer& list);

    // Scans (rrm_scan.cpp).
    void process_rrm_update(json_reader& message);
    void fill_scan_channels(const char* text);
    void scan_delay_expired();
    void scan_finished();
    void post_rrm_response();
    void post_rrm_response_timeout();
    void clear_rf_environment();
    // Posts the report, empties the tables and gives the memory they held back to the system.
    void finish_rrm_response();

    // Radio configuration (rrm_config.cpp).
    void process_rrm_info(json_reader& message);
    void apply_config(const json_reader& config);
    void clear_802dot11k();
    void apply_802dot11k(const json_reader& config);
    void process_rrm_request_mode(json_reader& message);
    void post_mode_response();
    void post_config_changed();

    // Fast BSS transition (rrm_fbt.cpp).
    void process_fbt_info(const json_reader& message);

    // Probe and blacklist tables (rrm_tables.cpp).
    void rrm_probe_response_timeout();
    bool if_remove_probe_response_timeout_cb(const MacAddr& mac, sta_prob_info& info, bool& due,
                                             unsigned radio);
    void post_rrm_probe_response();
    bool if_remove_post_rrm_probe_response_cb(const MacAddr& mac, sta_prob_info& info, json_writer& list,
                                              bool& posted, unsigned radio);
    void rrm_blacklist_timeout();
    bool if_remove_rrm_blacklist_timeout_cb(const MacAddr& mac, int& lifetime, const char* ifname);
    bool is_sta_environment_empty() const;
    bool is_sta_block_empty() const;
    void process_apply_blacklist(const json_reader& message);
    void process_rrm_probe_request(const json_reader& message);

protected:
    bool __connect() override;
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& run) override;

    // A message of the "rrm" service with this agent's envelope.
    json_writer make_message(const char* cmd) const;
    // Puts the message on the outgoing queue unless it could not be built.
    void post(json_writer& message);

    driver_interface& driver;
    bool subscribed;
    bool subscribing;
    std::set<unsigned> scan_channels_24;
    std::set<unsigned> scan_channels_5;
    std::string domain;
    safe_queue& incoming_queue;
    safe_queue& outgoing_queue;
    safe_queue pending_queue;
    unsigned scan_pass;
    std::array<ap_table, scan_passes> rf_environment;
    std::vector<_sta_table<sta_prob_info>> probe_tables;
    std::vector<_sta_table<int>> blacklist_tables;
    std::function<void()> scan_finished_cb;
    std::function<void()> scan_delay_expired_cb;
    std::function<void()> subscribe_request_timeout_cb;
    std::function<void()> post_rrm_response_timeout_cb;
    std::function<void()> rrm_probe_response_timeout_cb;
    std::function<void()> rrm_blacklist_timeout_cb;
    bool standard_scan;
    int subscribe_timeout;
    int response_delay;
    long hostapd_stop_time;  // monotonic second of the stop; 0 while hostapd runs
    int hostapd_restart_wait;
    bool load_balancer_active;
    bool no_balance_enterprise;
    bool use_80211r;
    int fbt_reassoc_deadline;
    bool fbt_over_ds;
    uint16_t mobility_domain;
    // Signalled once per message put on incoming_queue; the driver's pacing wait ends on it.
    wake_event wake;
};

#endif
