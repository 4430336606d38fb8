// Applying what the RRM service decided for the radios (channel, bandwidth, power) and the
// 802.11k neighbour lists of the VAPs, and the two reports of the radio state outside a scan:
// "rrm-mode-response" on request and "rrm-config-changed" after the device's configuration
// changed.
#include <strings.h>

#include <string>

#include "core/trace.h"
#include "rrm/rrm_worker.h"

namespace {

const int default_bandwidth = 20;
const int bandwidth_40 = 40;

// Where the primary channel of a 40 MHz channel lies. Only 40 MHz has a choice; the service
// names the upper side "upper" and anything else (absent too) means the lower one.
primary_channel_mode primary_mode(int bandwidth, const char* primary)
{
    if (bandwidth != bandwidth_40)
        return PRIMARY_NONE;
    if (primary != nullptr && strcasecmp(primary, "upper") == 0)
        return PRIMARY_UPPER;
    return PRIMARY_LOWER;
}

// A neighbour's VAPs share its base MAC except for the low four bits of the last byte, which
// carry the VAP id; the high four bits are those of the base MAC.
std::string neighbour_bssid(const MacAddr& base, int vap_id)
{
    MacAddr bssid = base;
    bssid.bytes[5] =
        static_cast<unsigned char>((base.bytes[5] & 0xF0u) | (static_cast<unsigned>(vap_id) & 0x0Fu));
    return bssid.to_string();
}

}  // namespace

void rrm_worker::process_rrm_info(json_reader& message)
{
    if (!driver.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-info because hostapd is not running\n");
        return;
    }
    apply_config(message);
}

void rrm_worker::apply_config(const json_reader& config)
{
    const int use_tpc = config.get_int("use-tpc");
    const int use_dca = config.get_int("use-dca");
    // An absent flag keeps what an earlier configuration said.
    if (!config.get_subobject("use-80211r").fail())
        use_80211r = config.get_int("use-80211r") != 0;
    trace.info("%s quillon_use_80211r = %d\n", "apply_config", use_80211r ? 1 : 0);

    const json_reader radios = config.get_subobject("radios");
    const int count = radios.array_length();
    for (int index = 0; index < count; ++index) {
        const json_reader radio = radios.get_array_element(index);
        if (radio.fail())
            continue;
        const int id = radio.get_int("id");
        const char* ifname = id >= 0 && id < driver.get_max_radios() ? radio_ifname(id) : nullptr;
        if (ifname == nullptr) {
            // Deliberately without a line end: the line is known by this text.
            trace.error("apply_config() Wrong id value");
            continue;
        }
        // A radio that is off, or whose VAPs are all down, keeps its settings until it serves
        // someone again.
        if (!driver.is_enabled(id) || !driver.has_enabled_vaps(id))
            continue;

        const int channel = radio.get_int("channel");
        const int bandwidth = radio.get_int("bandwidth");
        const int power = radio.get_int("power");
        // The client-steering settings the service sends ("vorna-client-max-age",
        // "vorna-client-rssi-renew", "vorna-try-no-balance") are not used: this agent does not
        // balance clients, so steering is always switched off below.
        const char* primary = radio.get_string("primary-channel");
        no_balance_enterprise = radio.get_int("no-balance-enterprise") == 1;

        load_balancer_active = false;
        driver.probsup_rrm_max_age(ifname, 0);
        driver.set_vorna_sta_rssi_thr_high(ifname, 0);
        driver.set_vorna_sta_rssi_thr_low(ifname, 0);
        driver.unblock_all_sta(ifname);

        if (power != 0 && use_tpc != 0)
            driver.set_tx_power(ifname, power);
        if (channel != 0 && use_dca != 0) {
            const int width = bandwidth != 0 ? bandwidth : default_bandwidth;
            driver.set_chanspec(ifname, channel, width, primary_mode(width, primary));
        }
    }

    // The neighbour lists are rewritten from scratch by every configuration, including one that
    // changes no radio.
    clear_802dot11k();
    apply_802dot11k(config);
}

void rrm_worker::clear_802dot11k()
{
    const int radios = driver.get_max_radios();
    const int vaps = driver.get_max_vap();
    for (int radio = 0; radio < radios; ++radio)
        for (int vap = 0; vap < vaps; ++vap) {
            const char* ifname = driver.VapIdToVap(static_cast<unsigned>(vap), radio);
            if (ifname != nullptr && driver.is_802dot11k(radio, vap))
                driver.clear_rrm_nbr_ap_list(ifname);
        }
}

void rrm_worker::apply_802dot11k(const json_reader& config)
{
    const json_reader neighbours = config.get_subobject("802dot11k");
    const int count = neighbours.array_length();
    for (int index = 0; index < count; ++index) {
        const json_reader neighbour = neighbours.get_array_element(index);
        MacAddr base;
        // A neighbour whose MAC does not parse would be announced under made-up BSSIDs.
        if (!base.parse(neighbour.get_string("neighbour-mac")))
            continue;
        const int channel = neighbour.get_int("channel");
        const json_reader vaps = neighbour.get_subobject("vaps");
        const int vap_count = vaps.array_length();
        for (int position = 0; position < vap_count; ++position) {
            const json_reader vap = vaps.get_array_element(position);
            const char* ssid = vap.get_string("ssid");
            // The driver finds the local VAPs to announce the neighbour on by its SSID.
            if (ssid == nullptr)
                continue;
            driver.set_rrm_nbr_ap_list(neighbour_bssid(base, vap.get_int("id")).c_str(), ssid, channel);
        }
    }
}

void rrm_worker::process_rrm_request_mode(json_reader&)
{
    if (!driver.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-request-mode because hostapd is not running\n");
        return;
    }
    post_mode_response();
}

void rrm_worker::post_mode_response()
{
    if (!driver.is_hostapd_initialized()) {
        trace.info("Not sending rrm-mode-response because hostapd is not running\n");
        return;
    }
    json_writer message = make_message("rrm-mode-response");
    message.insert_string("domain", domain.c_str());
    if (insert_radios(message))
        post(message);
}

void rrm_worker::post_config_changed()
{
    // Sent whatever hostapd's state: a radio that is off is reported as such.
    json_writer message = make_message("rrm-config-changed");
    message.insert_string("domain", domain.c_str());
    if (insert_radios(message))
        post(message);
}
