// The description of one radio that most messages to the RRM service carry in "radios": its
// state, power, channel, VAPs and, before the subscription, its clients.
#include <functional>
#include <string>

#include "rrm/rrm_worker.h"

namespace {

// The power reported for a radio that is off.
const int power_of_disabled_radio = 16;

}  // namespace

const char* rrm_worker::radio_ifname(int radio)
{
    static const char* const names[] = {"wlan0", "wlan1", "wlan2"};
    if (radio < 0 || radio >= static_cast<int>(sizeof names / sizeof names[0]))
        return nullptr;
    return names[radio];
}

bool rrm_worker::insert_radios(json_writer& message)
{
    json_writer radios = message.make_array("radios");
    if (radios.fail())
        return false;
    for (int radio = 0; radio < driver.get_max_radios(); ++radio)
        insert_interface_to_json(radios, radio_ifname(radio), radio);
    return true;
}

void rrm_worker::insert_interface_to_json(const json_writer& radios, const char* ifname, int radio)
{
    if (ifname == nullptr)
        return;
    // A radio whose VAPs are all down serves nobody: it is described like a radio that is off.
    const bool status = driver.is_enabled(radio) && driver.has_enabled_vaps(radio);
    const bool obss_coex = driver.is_obss_coex(radio);
    // The service must not move the channel or power of a radio that is off or in a special mode.
    int locked = 1;
    if (status)
        locked = (driver.is_wds_enabled(radio) || driver.is_mesh_enabled(radio) ||
                  driver.is_wids_enabled(radio) || driver.is_wgb_enabled(radio))
                     ? 1
                     : 0;
    const int mac_offset = driver.get_mac_offset(radio);
    const int mac_count = driver.get_radio_mac_count(radio);
    const int power = status ? driver.get_tx_power(ifname) : power_of_disabled_radio;
    const int power_max = driver.get_tx_power_max(radio);
    const int power_min = driver.get_tx_power_min(radio);
    unsigned current = 0;
    unsigned configured = 0;
    if (status) {
        current = driver.get_chanspec(ifname);
        configured = driver.get_config_spec(radio);
    }
    // With OBSS coexistence the radio may run narrower than configured: the service is told
    // the configured bandwidth and primary, but the channel actually in use.
    const unsigned reported = status && obss_coex ? configured : current;

    json_writer object(false, radios, nullptr);
    if (object.fail())
        return;
    object.insert_int("id", radio);
    object.insert_int("status", status ? 1 : 0);
    object.insert_int("mac-offset", mac_offset);
    object.insert_int("radio-mac-count", mac_count);
    object.insert_int("locked-for-dca", locked);
    object.insert_int("locked-for-tpc", locked);
    object.insert_int("locked-for-balancer", 1);  // this agent never balances clients
    object.insert_int("power", power);
    object.insert_int("power-max", power_max);
    object.insert_int("power-min", power_min);
    object.insert_int("channel", driver.chanspec_channel(current));
    object.insert_int("bandwidth", driver.chanspec_bw(reported));
    object.insert_string("primary-channel", driver.chanspec_primary(reported));
    if (!status)
        return;

    std::string channels;
    driver.fill_chanspecs(ifname, channels);
    object.insert_string("available-channels", channels.c_str());

    json_writer vaps = object.make_array("vaps");
    if (!vaps.fail())
        driver.get_ssidlist(ifname,
                            [this, &vaps, radio](int vap_id, const char* ssid, const char* mac, bool dot11k) {
                                get_ssidlist_cb(vap_id, ssid, mac, dot11k, vaps, radio);
                            });

    if (!subscribed || load_balancer_active) {
        json_writer clients = object.make_array("assoclist");
        if (!clients.fail())
            driver.get_assoclist(
                ifname, [this, &clients](const rrm_sta_s& station) { get_assoclist_cb(station, clients); });
    }
}

void rrm_worker::get_ssidlist_cb(int vap_id, const char* ssid, const char* mac, bool dot11k,
                                 json_writer& vaps, int radio)
{
    json_writer vap(false, vaps, nullptr);
    if (vap.fail())
        return;
    vap.insert_int("id", vap_id);
    vap.insert_string("ssid", ssid);
    vap.insert_string("mac", mac);
    vap.insert_int("802dot11k", dot11k ? 1 : 0);
    vap.insert_int("802dot11r", driver.is_fbt_enabled(radio, vap_id) ? 1 : 0);
}

void rrm_worker::get_assoclist_cb(const rrm_sta_s& station, const json_writer& list)
{
    json_writer client(false, list, nullptr);
    if (client.fail())
        return;
    client.insert_string("mac", station.mac.c_str());
    client.insert_string("ssid", station.ssid.c_str());
    client.insert_int("rssi", station.rssi == rrm_sta_s::rssi_unknown ? 0 : station.rssi);
}
