// The per-radio station tables of the load-balancing groundwork: the probe table, which empties
// itself into "rrm-probe-response" messages as its entries fall due, and the blacklist, which
// unblocks each station when its lifetime runs out. Both age once a second on their own timer,
// which re-arms itself only while its tables hold anything. Nothing fills them while load
// balancing is off, so in normal operation both stay empty and their timers stay idle.
#include <algorithm>
#include <cstddef>
#include <string>

#include "core/trace.h"
#include "rrm/rrm_worker.h"

namespace {

// The number of radios whose tables are walked: the driver's count, bounded by the tables made
// at construction so that a driver changing its mind cannot send the walk out of range.
template <typename Table>
size_t walked_radios(const std::vector<Table>& tables, int max_radios)
{
    if (max_radios <= 0)
        return 0;
    return std::min(tables.size(), static_cast<size_t>(max_radios));
}

template <typename Table>
bool all_tables_empty(const std::vector<Table>& tables)
{
    for (const Table& table : tables)
        if (!table.empty())
            return false;
    return true;
}

}  // namespace

void rrm_worker::rrm_probe_response_timeout()
{
    bool due = false;
    bool all_empty = true;
    const size_t count = walked_radios(probe_tables, driver.get_max_radios());
    for (size_t r = 0; r < count; ++r) {
        auto& table = probe_tables[r];
        if (table.empty())
            continue;
        all_empty = false;
        const unsigned radio = static_cast<unsigned>(r);
        table.if_remove([this, &due, radio](const MacAddr& mac, sta_prob_info& info) {
            return if_remove_probe_response_timeout_cb(mac, info, due, radio);
        });
    }
    if (due)
        post_rrm_probe_response();
    // An idle table costs nothing: the timer stops with the last entry and whatever adds the
    // next one arms it again.
    if (!all_empty) {
        timers.del_timer(TIMER_PROBE_RESPONSE);
        timers.add_timer(rrm_probe_response_timeout_cb, TIMER_PROBE_RESPONSE, 1);
    }
}

bool rrm_worker::if_remove_probe_response_timeout_cb(const MacAddr& mac, sta_prob_info& info, bool& due,
                                                     unsigned radio)
{
    if (info.countdown >= 2) {
        --info.countdown;
        return false;
    }
    // A countdown of 0 counts as 1: the entry falls due at this tick either way.
    info.countdown = 0;
    due = true;
    const char* ifname = driver.VapIdToVap(info.vap_id, static_cast<int>(radio));
    // The signal strength is asked for only once, as late as possible, so that the report
    // carries the freshest value the probe-suppression list holds. The driver interface answers
    // with a truth value, which the report carries as 0 or 1.
    if (info.rssi == 0 && ifname != nullptr)
        info.rssi = driver.probsup_find(ifname, mac.to_string().c_str()) ? 1 : 0;
    // Reporting removes the entry; the aging step never does.
    return false;
}

void rrm_worker::post_rrm_probe_response()
{
    json_writer message = make_message("rrm-probe-response");
    if (message.fail())
        return;
    message.insert_string("domain", domain.c_str());
    const json_writer radios = message.make_array("radios");
    bool posted = false;
    const size_t count = walked_radios(probe_tables, driver.get_max_radios());
    for (size_t r = 0; r < count; ++r) {
        auto& table = probe_tables[r];
        if (table.empty())
            continue;
        // Every radio with entries gets its object, due or not, so that the service sees a
        // stable radio list.
        json_writer radio_object(false, radios, nullptr);
        radio_object.insert_int("id", static_cast<int>(r));
        json_writer list = radio_object.make_array("probe-list");
        trace.debug("post_rrm_probe_response: radio %d, prob_size %d\n", static_cast<int>(r),
                    static_cast<int>(table.size()));
        const unsigned radio = static_cast<unsigned>(r);
        table.if_remove([this, &list, &posted, radio](const MacAddr& mac, sta_prob_info& info) {
            return if_remove_post_rrm_probe_response_cb(mac, info, list, posted, radio);
        });
    }
    if (posted)
        post(message);
}

bool rrm_worker::if_remove_post_rrm_probe_response_cb(const MacAddr& mac, sta_prob_info& info,
                                                      json_writer& list, bool& posted, unsigned radio)
{
    if (info.countdown > 0)
        return false;
    const char* ssid = driver.VapIdToSsid(info.vap_id, static_cast<int>(radio));
    // The VAP the station probed on is gone; there is nothing meaningful to report.
    if (ssid == nullptr)
        return true;
    json_writer station(false, list, nullptr);
    station.insert_string("mac", mac.to_string().c_str());
    station.insert_string("ssid", ssid);
    station.insert_int("rssi", info.rssi);
    posted = true;
    return true;
}

void rrm_worker::rrm_blacklist_timeout()
{
    bool all_empty = true;
    const size_t count = walked_radios(blacklist_tables, driver.get_max_radios());
    for (size_t r = 0; r < count; ++r) {
        auto& table = blacklist_tables[r];
        if (table.empty())
            continue;
        all_empty = false;
        // Stations are blocked on the radio's first VAP, which carries the radio's own name.
        const char* ifname = radio_ifname(static_cast<int>(r));
        table.if_remove([this, ifname](const MacAddr& mac, int& lifetime) {
            return if_remove_rrm_blacklist_timeout_cb(mac, lifetime, ifname);
        });
    }
    if (!all_empty) {
        timers.del_timer(TIMER_BLACKLIST);
        timers.add_timer(rrm_blacklist_timeout_cb, TIMER_BLACKLIST, 1);
    }
}

bool rrm_worker::if_remove_rrm_blacklist_timeout_cb(const MacAddr& mac, int& lifetime, const char* ifname)
{
    if (lifetime >= 2) {
        --lifetime;
        return false;
    }
    lifetime = 0;
    // A radio beyond the named ones has no interface to unblock on; the entry still expires,
    // so that a station is never kept in the table for ever.
    if (ifname != nullptr)
        driver.unblock_sta(ifname, mac.to_string().c_str());
    return true;
}

bool rrm_worker::is_sta_environment_empty() const
{
    return all_tables_empty(probe_tables);
}

bool rrm_worker::is_sta_block_empty() const
{
    return all_tables_empty(blacklist_tables);
}

void rrm_worker::process_apply_blacklist(const json_reader& /*message*/)
{
    trace.debug("Ignoring rrm-blacklist because load balancer is not yet supported\n");
}

void rrm_worker::process_rrm_probe_request(const json_reader& /*message*/)
{
    trace.debug("Ignoring rrm-probe-request because load balancer is not yet supported\n");
}
