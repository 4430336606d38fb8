// A driver that knows nothing: every query answers zero, false or null and every action does
// nothing. For programs that need a driver_interface to exist but never ask it anything that
// matters (the preload probe, the fuzz targets); a fuzz target overrides what it needs.
#ifndef ORVD_TESTS_UNIT_DRIVER_NEUTRAL_DRIVER_H
#define ORVD_TESTS_UNIT_DRIVER_NEUTRAL_DRIVER_H

#include <functional>
#include <set>
#include <string>

#include "driver/driver_interface.h"

class neutral_driver : public driver_interface {
public:
    bool get_obss_coex(char const*) const override { return false; }
    rrm_band_t chanspec_band(unsigned) const override { return RRM_BAND_UNKNOWN; }
    rrm_band_t channel_band(int) const override { return RRM_BAND_UNKNOWN; }
    primary_channel_mode chanspec_primary_40(char const*) const override { return PRIMARY_NONE; }
    bool get_status(char const*) const override { return false; }
    bool get_wds_enabled(char const*) const override { return false; }
    bool get_mesh_enabled(char const*) const override { return false; }
    const factory_record_s* get_factory() const override { return nullptr; }
    const char* get_mac() const override { return nullptr; }
    int start(bool, const std::set<unsigned>&, const std::set<unsigned>&, int&) override { return 0; }
    int stop(bool) override { return 0; }
    void reset_quillon(ResetQuillonCause) override {}
    void init() override {}
    void set_vapcontext() override {}
    void close_vapcontext() override {}
    void set_hostapd_initialized(bool) override {}
    bool is_hostapd_initialized() const override { return false; }
    bool is_in_progress() const override { return false; }
    bool is_wids_enabled(int) const override { return false; }
    bool is_wgb_enabled(int) const override { return false; }
    bool get_config_wids() const override { return false; }
    int get_config_wids_interface() const override { return 0; }
    bool get_config_wgb() const override { return false; }
    int get_config_wgb_interface() const override { return 0; }
    bool is_wds_enabled(int) const override { return false; }
    bool is_mesh_enabled(int) const override { return false; }
    bool is_enabled(int) const override { return false; }
    bool has_enabled_vaps(int) const override { return false; }
    bool get_vap_status(char const*, int) const override { return false; }
    bool is_vap_enabled(int, int) const override { return false; }
    bool is_802dot11k(int, int) const override { return false; }
    bool is_band(int, rrm_band_t) const override { return false; }
    int set_tx_power(char const*, int) const override { return 0; }
    int get_tx_power(char const*) const override { return 0; }
    std::string get_country(char const*) const override { return {}; }
    void get_min_max_tx_power(char const*, int*, int*, rrm_band_t) const override {}
    int get_tx_power_max(int) const override { return 0; }
    int get_tx_power_min(int) const override { return 0; }
    int get_mac_offset(int) const override { return 0; }
    int get_radio_mac_count(int) const override { return 0; }
    unsigned get_config_primary(char const*) const override { return 0; }
    unsigned get_config_bandwidth(char const*) const override { return 0; }
    unsigned get_config_spec(int) const override { return 0; }
    bool is_obss_coex(int) const override { return false; }
    int set_chanspec(char const*, int, int, primary_channel_mode) const override { return 0; }
    unsigned get_chanspec(char const*) const override { return 0; }
    int chanspec_channel(unsigned) const override { return 0; }
    const char* chanspec_primary(unsigned) const override { return nullptr; }
    int chanspec_bw(unsigned) const override { return 0; }
    int get_assoclist(char const*, std::function<void(const rrm_sta_s&)>) const override { return 0; }
    int get_ssidlist(char const*, std::function<void(int, char const*, char const*, bool)>) const override
    {
        return 0;
    }
    int fill_ap_table(ap_table&) const override { return 0; }
    int fill_ap_table_vorna_rrm(ap_table&) const override { return 0; }
    void fill_chanspecs(char const*, std::string&) const override {}
    const char* primary_channel_to_string(int, int) const override { return nullptr; }
    int get_max_radios() const override { return 0; }
    int get_max_vap() const override { return 0; }
    int process_driver_events(std::function<void(const driver_event_desc&)>) const override { return 0; }
    const char* SsidToVap(char const*, int) const override { return nullptr; }
    int SsidToVapId(char const*, int) const override { return 0; }
    const char* VapIdToVap(unsigned, int) const override { return nullptr; }
    const char* VapIdToSsid(unsigned, int) const override { return nullptr; }
    const char* VapIdToMac(unsigned, int) const override { return nullptr; }
    void set_rrm_nbr_ap_list(char const*, char const*, int) const override {}
    void clear_rrm_nbr_ap_list(char const*) const override {}
    int set_quillon_fbt_params(std::string const&, std::string const&) override { return 0; }
    bool is_fbt_enabled(int, int) const override { return false; }
    int reset_quillon_fbt(ResetQuillonCause) const override { return 0; }
    int fill_vap_name(int, int, char*, unsigned) const override { return 0; }
    bool is_widsd_sentry_mode() const override { return false; }
    void block_sta(char const*, char const*) const override {}
    void block_sta_data(char const*, char const*) const override {}
    void unblock_sta(char const*, char const*) const override {}
    void unblock_all_sta(char const*) const override {}
    void set_vorna_sta_rssi_thr_high(char const*, int) const override {}
    void set_vorna_sta_rssi_thr_low(char const*, int) const override {}
    bool probsup_find(char const*, char const*) const override { return false; }
    void probsup_rrm_max_age(char const*, int) const override {}
    void probsup_rrm_client_try_no_balance(char const*, int) const override {}
    void rssi_renew_interval(char const*, int) const override {}
    void disassoc_sta(char const*, char const*) const override {}
    void set_wake_event(wake_event*) override {}
};

#endif
