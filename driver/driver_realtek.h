// The radio driver of an access point with two Realtek radios: a snapshot of the radios and
// their VAPs, filled from sysfs, the driver's private ioctls and configd, and the radio
// operations the agent calls.
#ifndef ORVD_DRIVER_DRIVER_REALTEK_H
#define ORVD_DRIVER_DRIVER_REALTEK_H

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "driver/daemon_requests.h"
#include "driver/driver_interface.h"
#include "driver/interface_context.h"

class driver_realtek : public driver_interface {
public:
    explicit driver_realtek(volatile bool& running);
    ~driver_realtek() override;
    driver_realtek(const driver_realtek&) = delete;
    driver_realtek& operator=(const driver_realtek&) = delete;

    bool get_obss_coex(char const* ifname) const override;
    rrm_band_t chanspec_band(unsigned chanspec) const override;
    rrm_band_t channel_band(int channel) const override;
    primary_channel_mode chanspec_primary_40(char const* text) const override;
    bool get_status(char const* ifname) const override;
    bool get_wds_enabled(char const* ifname) const override;
    bool get_mesh_enabled(char const* ifname) const override;
    const factory_record_s* get_factory() const override;
    const char* get_mac() const override;
    int start(bool active, const std::set<unsigned>& chans0, const std::set<unsigned>& chans1,
              int& timeout) override;
    int stop(bool active) override;
    void reset_quillon(ResetQuillonCause cause) override;
    void init() override;
    void set_vapcontext() override;
    void close_vapcontext() override;
    void set_hostapd_initialized(bool initialized) override;
    bool is_hostapd_initialized() const override;
    bool is_in_progress() const override;
    bool is_wids_enabled(int radio) const override;
    bool is_wgb_enabled(int radio) const override;
    bool get_config_wids() const override;
    int get_config_wids_interface() const override;
    bool get_config_wgb() const override;
    int get_config_wgb_interface() const override;
    bool is_wds_enabled(int radio) const override;
    bool is_mesh_enabled(int radio) const override;
    bool is_enabled(int radio) const override;
    bool has_enabled_vaps(int radio) const override;
    bool get_vap_status(char const* ifname, int vap) const override;
    bool is_vap_enabled(int radio, int vap) const override;
    bool is_802dot11k(int radio, int vap) const override;
    bool is_band(int radio, rrm_band_t band) const override;
    int set_tx_power(char const* ifname, int power) const override;
    int get_tx_power(char const* ifname) const override;
    std::string get_country(char const* ifname) const override;
    void get_min_max_tx_power(char const* ifname, int* min, int* max, rrm_band_t band) const override;
    int get_tx_power_max(int radio) const override;
    int get_tx_power_min(int radio) const override;
    int get_mac_offset(int radio) const override;
    int get_radio_mac_count(int radio) const override;
    unsigned get_config_primary(char const* ifname) const override;
    unsigned get_config_bandwidth(char const* ifname) const override;
    unsigned get_config_spec(int radio) const override;
    bool is_obss_coex(int radio) const override;
    int set_chanspec(char const* ifname, int channel, int bandwidth,
                     primary_channel_mode primary) const override;
    unsigned get_chanspec(char const* ifname) const override;
    int chanspec_channel(unsigned chanspec) const override;
    const char* chanspec_primary(unsigned chanspec) const override;
    int chanspec_bw(unsigned chanspec) const override;
    int get_assoclist(char const* ifname, std::function<void(const rrm_sta_s&)> callback) const override;
    int get_ssidlist(
        char const* ifname,
        std::function<void(int vap, char const* ssid, char const* mac, bool dot11k)> callback) const override;
    int fill_ap_table(ap_table& table) const override;
    int fill_ap_table_vorna_rrm(ap_table& table) const override;
    void fill_chanspecs(char const* ifname, std::string& out) const override;
    const char* primary_channel_to_string(int sideband, int bandwidth) const override;
    int get_max_radios() const override;
    int get_max_vap() const override;
    int process_driver_events(std::function<void(const driver_event_desc&)> callback) const override;
    const char* SsidToVap(char const* ssid, int radio) const override;
    int SsidToVapId(char const* ssid, int radio) const override;
    const char* VapIdToVap(unsigned vap, int radio) const override;
    const char* VapIdToSsid(unsigned vap, int radio) const override;
    const char* VapIdToMac(unsigned vap, int radio) const override;
    void set_rrm_nbr_ap_list(char const* bssid, char const* ssid, int channel) const override;
    void clear_rrm_nbr_ap_list(char const* ifname) const override;
    int set_quillon_fbt_params(std::string const& ifname, std::string const& params) override;
    bool is_fbt_enabled(int radio, int vap) const override;
    int reset_quillon_fbt(ResetQuillonCause cause) const override;
    int fill_vap_name(int radio, int vap, char* buf, unsigned size) const override;
    bool is_widsd_sentry_mode() const override;
    void block_sta(char const* ifname, char const* mac) const override;
    void block_sta_data(char const* ifname, char const* mac) const override;
    void unblock_sta(char const* ifname, char const* mac) const override;
    void unblock_all_sta(char const* ifname) const override;
    void set_vorna_sta_rssi_thr_high(char const* ifname, int threshold) const override;
    void set_vorna_sta_rssi_thr_low(char const* ifname, int threshold) const override;
    bool probsup_find(char const* ifname, char const* mac) const override;
    void probsup_rrm_max_age(char const* ifname, int age) const override;
    void probsup_rrm_client_try_no_balance(char const* ifname, int tries) const override;
    void rssi_renew_interval(char const* ifname, int interval) const override;
    void disassoc_sta(char const* ifname, char const* mac) const override;
    void set_wake_event(wake_event* event) override;

    // Look-ups and configuration reads the operations above are built on.
    interface_context* get_radio(int radio);
    const interface_context* get_radio(int radio) const;
    interface_context* radio_by_ifname(const std::string& ifname);
    const interface_context* radio_by_ifname(const std::string& ifname) const;
    int get_radio_id(const std::string& ifname) const;
    bool get_vap_status(const std::string& name) const;
    std::string fill_vap_name(int radio, int vap) const;
    std::string get_vap_config_path(const std::string& name, const std::string& key) const;
    std::string get_radio_config_path(const std::string& ifname, const std::string& key) const;

    template <typename T>
    using converter_t = std::function<std::optional<T>(const interface_context* radio,
                                                       const std::string& ifname, const std::string& value)>;
    template <typename T>
    std::optional<T> getconf_radio(const std::string& ifname, const char* key,
                                   const converter_t<T>& convert) const;
    template <typename T>
    std::optional<T> getconf_vap(const std::string& name, const char* key,
                                 const converter_t<T>& convert) const;

    std::string get_ssid(const std::string& name) const;
    bool get_captive_portal_state(const std::string& name) const;
    bool get_enterprise_vap(const std::string& name) const;
    bool get_802dot11k_vap(const std::string& name) const;
    bool is_wpa23_vap(const std::string& name) const;

    // Daemon exchanges (networkd, configd).
    int update_quillon(const std::string& ifname, const daemon_requests::param_list& params) const;
    int configd_get(const std::string& path, std::string& value) const;
    int send_reset_quillon(const std::string& ifname) const;
    int __reset_quillon_fbt(ResetQuillonCause cause) const;

    // Scans on one radio.
    int start_active_scan(char const* ifname, const std::set<unsigned>& chans, int& timeout) const;
    int start_rrm_scan(char const* ifname, const std::set<unsigned>& chans, int& timeout) const;
    int stop_active_scan(char const* ifname) const;
    int stop_rrm_scan(char const* ifname) const;
    int _fill_ap_table(char const* ifname, ap_table& table) const;
    int _fill_ap_table_vorna_rrm(char const* ifname, ap_table& table) const;

    static constexpr int max_radios = 2;
    static constexpr int context_count = 3;

private:
    bool usable() const;  // hostapd initialised and the process still running
    bool scannable(int radio) const;
    // The radio was up at the last snapshot; unlike is_enabled, true during shutdown as well.
    bool snapshot_enabled(int radio) const;
    bool interface_is_up(const std::string& name) const;
    std::string get_mac_from_driver(const std::string& name) const;
    bool is_if_exists(const std::string& name) const;
    std::string get_from_driver(const std::string& ifname, const char* key) const;
    template <typename T>
    std::optional<T> getconf(const char* function, const std::string& ifname, const std::string& path,
                             const converter_t<T>& convert) const;

    volatile bool& running;
    factory_record_s factory;
    bool in_progress;
    bool hostapd_initialized;
    interface_context contexts[context_count];
    daemon_requests daemons;
    wake_event* wake;  // the agent's, while it runs; paces process_driver_events
};

// The single driver of the process, built on the first call with the process run flag.
driver_interface& make_driver(volatile bool& running);

#endif
