// The agent's only view of the radios. A driver implements every operation; the agent and its
// tests (with a mock) call them. The order of the operations is part of the interface: keep
// it, and add new ones only at the end, before the destructor.
#ifndef ORVD_DRIVER_DRIVER_INTERFACE_H
#define ORVD_DRIVER_DRIVER_INTERFACE_H

#include <functional>
#include <set>
#include <string>

#include "driver/radio_types.h"

class wake_event;

class driver_interface {
public:
    virtual bool get_obss_coex(char const* ifname) const = 0;
    virtual rrm_band_t chanspec_band(unsigned chanspec) const = 0;
    virtual rrm_band_t channel_band(int channel) const = 0;
    virtual primary_channel_mode chanspec_primary_40(char const* text) const = 0;
    virtual bool get_status(char const* ifname) const = 0;
    virtual bool get_wds_enabled(char const* ifname) const = 0;
    virtual bool get_mesh_enabled(char const* ifname) const = 0;
    virtual const factory_record_s* get_factory() const = 0;
    virtual const char* get_mac() const = 0;
    virtual int start(bool active, const std::set<unsigned>& chans0, const std::set<unsigned>& chans1,
                      int& timeout) = 0;
    virtual int stop(bool active) = 0;
    virtual void reset_quillon(ResetQuillonCause cause) = 0;
    virtual void init() = 0;
    virtual void set_vapcontext() = 0;
    virtual void close_vapcontext() = 0;
    virtual void set_hostapd_initialized(bool initialized) = 0;
    virtual bool is_hostapd_initialized() const = 0;
    virtual bool is_in_progress() const = 0;
    virtual bool is_wids_enabled(int radio) const = 0;
    virtual bool is_wgb_enabled(int radio) const = 0;
    virtual bool get_config_wids() const = 0;
    virtual int get_config_wids_interface() const = 0;
    virtual bool get_config_wgb() const = 0;
    virtual int get_config_wgb_interface() const = 0;
    virtual bool is_wds_enabled(int radio) const = 0;
    virtual bool is_mesh_enabled(int radio) const = 0;
    virtual bool is_enabled(int radio) const = 0;
    virtual bool has_enabled_vaps(int radio) const = 0;
    virtual bool get_vap_status(char const* ifname, int vap) const = 0;
    virtual bool is_vap_enabled(int radio, int vap) const = 0;
    virtual bool is_802dot11k(int radio, int vap) const = 0;
    virtual bool is_band(int radio, rrm_band_t band) const = 0;
    virtual int set_tx_power(char const* ifname, int power) const = 0;
    virtual int get_tx_power(char const* ifname) const = 0;
    virtual std::string get_country(char const* ifname) const = 0;
    virtual void get_min_max_tx_power(char const* ifname, int* min, int* max, rrm_band_t band) const = 0;
    virtual int get_tx_power_max(int radio) const = 0;
    virtual int get_tx_power_min(int radio) const = 0;
    virtual int get_mac_offset(int radio) const = 0;
    virtual int get_radio_mac_count(int radio) const = 0;
    virtual unsigned get_config_primary(char const* ifname) const = 0;
    virtual unsigned get_config_bandwidth(char const* ifname) const = 0;
    virtual unsigned get_config_spec(int radio) const = 0;
    virtual bool is_obss_coex(int radio) const = 0;
    virtual int set_chanspec(char const* ifname, int channel, int bandwidth,
                             primary_channel_mode primary) const = 0;
    virtual unsigned get_chanspec(char const* ifname) const = 0;
    virtual int chanspec_channel(unsigned chanspec) const = 0;
    virtual const char* chanspec_primary(unsigned chanspec) const = 0;
    virtual int chanspec_bw(unsigned chanspec) const = 0;
    virtual int get_assoclist(char const* ifname, std::function<void(const rrm_sta_s&)> callback) const = 0;
    virtual int get_ssidlist(
        char const* ifname,
        std::function<void(int vap, char const* ssid, char const* mac, bool dot11k)> callback) const = 0;
    virtual int fill_ap_table(ap_table& table) const = 0;
    virtual int fill_ap_table_vorna_rrm(ap_table& table) const = 0;
    virtual void fill_chanspecs(char const* ifname, std::string& out) const = 0;
    virtual const char* primary_channel_to_string(int sideband, int bandwidth) const = 0;
    virtual int get_max_radios() const = 0;
    virtual int get_max_vap() const = 0;
    virtual int process_driver_events(std::function<void(const driver_event_desc&)> callback) const = 0;
    virtual const char* SsidToVap(char const* ssid, int radio) const = 0;
    virtual int SsidToVapId(char const* ssid, int radio) const = 0;
    virtual const char* VapIdToVap(unsigned vap, int radio) const = 0;
    virtual const char* VapIdToSsid(unsigned vap, int radio) const = 0;
    virtual const char* VapIdToMac(unsigned vap, int radio) const = 0;
    virtual void set_rrm_nbr_ap_list(char const* bssid, char const* ssid, int channel) const = 0;
    virtual void clear_rrm_nbr_ap_list(char const* ifname) const = 0;
    virtual int set_quillon_fbt_params(std::string const& ifname, std::string const& params) = 0;
    virtual bool is_fbt_enabled(int radio, int vap) const = 0;
    virtual int reset_quillon_fbt(ResetQuillonCause cause) const = 0;
    virtual int fill_vap_name(int radio, int vap, char* buf, unsigned size) const = 0;
    virtual bool is_widsd_sentry_mode() const = 0;
    virtual void block_sta(char const* ifname, char const* mac) const = 0;
    virtual void block_sta_data(char const* ifname, char const* mac) const = 0;
    virtual void unblock_sta(char const* ifname, char const* mac) const = 0;
    virtual void unblock_all_sta(char const* ifname) const = 0;
    virtual void set_vorna_sta_rssi_thr_high(char const* ifname, int threshold) const = 0;
    virtual void set_vorna_sta_rssi_thr_low(char const* ifname, int threshold) const = 0;
    virtual bool probsup_find(char const* ifname, char const* mac) const = 0;
    virtual void probsup_rrm_max_age(char const* ifname, int age) const = 0;
    virtual void probsup_rrm_client_try_no_balance(char const* ifname, int tries) const = 0;
    virtual void rssi_renew_interval(char const* ifname, int interval) const = 0;
    virtual void disassoc_sta(char const* ifname, char const* mac) const = 0;
    // The agent's wake-up (null: none). process_driver_events paces the agent's loop and must
    // end its wait, taking one wake-up, as soon as one is pending: a message has arrived.
    virtual void set_wake_event(wake_event* event) = 0;

    virtual ~driver_interface() = default;
};

#endif
