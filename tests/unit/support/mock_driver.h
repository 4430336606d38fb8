// A GoogleMock stand-in for any radio driver, for the agent's tests (use it as StrictMock or
// NiceMock). Its scan state is the real driver's: start puts a scan in progress, stop ends it,
// so a test cannot describe a scan that ended without being stopped.
#ifndef ORVD_TESTS_UNIT_SUPPORT_MOCK_DRIVER_H
#define ORVD_TESTS_UNIT_SUPPORT_MOCK_DRIVER_H

#include <gmock/gmock.h>

#include <functional>
#include <set>
#include <string>

#include "driver/driver_interface.h"

// Every operation mocked except the scan state, which mock_driver keeps.
class mock_driver_calls : public driver_interface {
public:
    MOCK_METHOD(bool, get_obss_coex, (char const*), (const, override));
    MOCK_METHOD(rrm_band_t, chanspec_band, (unsigned), (const, override));
    MOCK_METHOD(rrm_band_t, channel_band, (int), (const, override));
    MOCK_METHOD(primary_channel_mode, chanspec_primary_40, (char const*), (const, override));
    MOCK_METHOD(bool, get_status, (char const*), (const, override));
    MOCK_METHOD(bool, get_wds_enabled, (char const*), (const, override));
    MOCK_METHOD(bool, get_mesh_enabled, (char const*), (const, override));
    MOCK_METHOD(const factory_record_s*, get_factory, (), (const, override));
    MOCK_METHOD(const char*, get_mac, (), (const, override));
    MOCK_METHOD(int, start, (bool, const std::set<unsigned>&, const std::set<unsigned>&, int&), (override));
    MOCK_METHOD(int, stop, (bool), (override));
    MOCK_METHOD(void, reset_quillon, (ResetQuillonCause), (override));
    MOCK_METHOD(void, init, (), (override));
    MOCK_METHOD(void, set_vapcontext, (), (override));
    MOCK_METHOD(void, close_vapcontext, (), (override));
    MOCK_METHOD(void, set_hostapd_initialized, (bool), (override));
    MOCK_METHOD(bool, is_hostapd_initialized, (), (const, override));
    MOCK_METHOD(bool, is_wids_enabled, (int), (const, override));
    MOCK_METHOD(bool, is_wgb_enabled, (int), (const, override));
    MOCK_METHOD(bool, get_config_wids, (), (const, override));
    MOCK_METHOD(int, get_config_wids_interface, (), (const, override));
    MOCK_METHOD(bool, get_config_wgb, (), (const, override));
    MOCK_METHOD(int, get_config_wgb_interface, (), (const, override));
    MOCK_METHOD(bool, is_wds_enabled, (int), (const, override));
    MOCK_METHOD(bool, is_mesh_enabled, (int), (const, override));
    MOCK_METHOD(bool, is_enabled, (int), (const, override));
    MOCK_METHOD(bool, has_enabled_vaps, (int), (const, override));
    MOCK_METHOD(bool, get_vap_status, (char const*, int), (const, override));
    MOCK_METHOD(bool, is_vap_enabled, (int, int), (const, override));
    MOCK_METHOD(bool, is_802dot11k, (int, int), (const, override));
    MOCK_METHOD(bool, is_band, (int, rrm_band_t), (const, override));
    MOCK_METHOD(int, set_tx_power, (char const*, int), (const, override));
    MOCK_METHOD(int, get_tx_power, (char const*), (const, override));
    MOCK_METHOD(std::string, get_country, (char const*), (const, override));
    MOCK_METHOD(void, get_min_max_tx_power, (char const*, int*, int*, rrm_band_t), (const, override));
    MOCK_METHOD(int, get_tx_power_max, (int), (const, override));
    MOCK_METHOD(int, get_tx_power_min, (int), (const, override));
    MOCK_METHOD(int, get_mac_offset, (int), (const, override));
    MOCK_METHOD(int, get_radio_mac_count, (int), (const, override));
    MOCK_METHOD(unsigned, get_config_primary, (char const*), (const, override));
    MOCK_METHOD(unsigned, get_config_bandwidth, (char const*), (const, override));
    MOCK_METHOD(unsigned, get_config_spec, (int), (const, override));
    MOCK_METHOD(bool, is_obss_coex, (int), (const, override));
    MOCK_METHOD(int, set_chanspec, (char const*, int, int, primary_channel_mode), (const, override));
    MOCK_METHOD(unsigned, get_chanspec, (char const*), (const, override));
    MOCK_METHOD(int, chanspec_channel, (unsigned), (const, override));
    MOCK_METHOD(const char*, chanspec_primary, (unsigned), (const, override));
    MOCK_METHOD(int, chanspec_bw, (unsigned), (const, override));
    MOCK_METHOD(int, get_assoclist, (char const*, std::function<void(const rrm_sta_s&)>), (const, override));
    MOCK_METHOD(int, get_ssidlist, (char const*, (std::function<void(int, char const*, char const*, bool)>)),
                (const, override));
    MOCK_METHOD(int, fill_ap_table, (ap_table&), (const, override));
    MOCK_METHOD(int, fill_ap_table_vorna_rrm, (ap_table&), (const, override));
    MOCK_METHOD(void, fill_chanspecs, (char const*, std::string&), (const, override));
    MOCK_METHOD(const char*, primary_channel_to_string, (int, int), (const, override));
    MOCK_METHOD(int, get_max_radios, (), (const, override));
    MOCK_METHOD(int, get_max_vap, (), (const, override));
    MOCK_METHOD(int, process_driver_events, (std::function<void(const driver_event_desc&)>),
                (const, override));
    MOCK_METHOD(const char*, SsidToVap, (char const*, int), (const, override));
    MOCK_METHOD(int, SsidToVapId, (char const*, int), (const, override));
    MOCK_METHOD(const char*, VapIdToVap, (unsigned, int), (const, override));
    MOCK_METHOD(const char*, VapIdToSsid, (unsigned, int), (const, override));
    MOCK_METHOD(const char*, VapIdToMac, (unsigned, int), (const, override));
    MOCK_METHOD(void, set_rrm_nbr_ap_list, (char const*, char const*, int), (const, override));
    MOCK_METHOD(void, clear_rrm_nbr_ap_list, (char const*), (const, override));
    MOCK_METHOD(int, set_quillon_fbt_params, (std::string const&, std::string const&), (override));
    MOCK_METHOD(bool, is_fbt_enabled, (int, int), (const, override));
    MOCK_METHOD(int, reset_quillon_fbt, (ResetQuillonCause), (const, override));
    MOCK_METHOD(int, fill_vap_name, (int, int, char*, unsigned), (const, override));
    MOCK_METHOD(bool, is_widsd_sentry_mode, (), (const, override));
    MOCK_METHOD(void, block_sta, (char const*, char const*), (const, override));
    MOCK_METHOD(void, block_sta_data, (char const*, char const*), (const, override));
    MOCK_METHOD(void, unblock_sta, (char const*, char const*), (const, override));
    MOCK_METHOD(void, unblock_all_sta, (char const*), (const, override));
    MOCK_METHOD(void, set_vorna_sta_rssi_thr_high, (char const*, int), (const, override));
    MOCK_METHOD(void, set_vorna_sta_rssi_thr_low, (char const*, int), (const, override));
    MOCK_METHOD(bool, probsup_find, (char const*, char const*), (const, override));
    MOCK_METHOD(void, probsup_rrm_max_age, (char const*, int), (const, override));
    MOCK_METHOD(void, probsup_rrm_client_try_no_balance, (char const*, int), (const, override));
    MOCK_METHOD(void, rssi_renew_interval, (char const*, int), (const, override));
    MOCK_METHOD(void, disassoc_sta, (char const*, char const*), (const, override));
    MOCK_METHOD(void, set_wake_event, (wake_event*), (override));
};

class mock_driver : public mock_driver_calls {
public:
    int start(bool active, const std::set<unsigned>& chans0, const std::set<unsigned>& chans1,
              int& timeout) override
    {
        const int result = mock_driver_calls::start(active, chans0, chans1, timeout);
        scanning = true;
        return result;
    }

    int stop(bool active) override
    {
        const int result = mock_driver_calls::stop(active);
        scanning = false;
        return result;
    }

    bool is_in_progress() const override { return scanning; }

private:
    bool scanning = false;
};

#endif
