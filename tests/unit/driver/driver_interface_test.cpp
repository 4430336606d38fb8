// The operations of driver_interface keep their order: a driver built against another order
// of the table would call the wrong operation.
#include "driver/driver_interface.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mock_driver.h"
#include "neutral_driver.h"

namespace {

// The Itanium C++ ABI (gcc and clang on Linux) represents a pointer to a virtual member
// function as 1 + the operation's byte offset in the virtual table. ARM and MIPS, whose code
// addresses may be odd (Thumb, MIPS16), keep the offset as it is and mark "virtual" in the
// low bit of the doubled adjustment instead.
template <typename Member>
long slot_of(Member member)
{
    struct representation {
        uintptr_t pointer;
        ptrdiff_t adjustment;
    };
    static_assert(sizeof(Member) == sizeof(representation), "an Itanium pointer to member function");
    representation bits;
    std::memcpy(&bits, &member, sizeof bits);
#if defined(__arm__) || defined(__aarch64__) || defined(__mips__)
    if ((bits.adjustment & 1) == 0)
        return -1;  // not virtual
    return static_cast<long>(bits.pointer / sizeof(void*));
#else
    if ((bits.pointer & 1) == 0)
        return -1;  // not virtual
    return static_cast<long>((bits.pointer - 1) / sizeof(void*));
#endif
}

// Notes `name` when its slot is not the next one expected.
template <typename Member>
void expect_slot(Member member, const char* name, long& expected, std::vector<std::string>& out_of_place)
{
    if (slot_of(member) != expected)
        out_of_place.push_back(name);
    ++expected;
}

TEST(driver_interface_test, the_82_operations_take_the_table_slots_in_their_order)
{
    std::vector<std::string> out_of_place;
    long expected = 0;
#define ORVD_SLOT(name) expect_slot(&driver_interface::name, #name, expected, out_of_place)
    ORVD_SLOT(get_obss_coex);
    ORVD_SLOT(chanspec_band);
    ORVD_SLOT(channel_band);
    ORVD_SLOT(chanspec_primary_40);
    ORVD_SLOT(get_status);
    ORVD_SLOT(get_wds_enabled);
    ORVD_SLOT(get_mesh_enabled);
    ORVD_SLOT(get_factory);
    ORVD_SLOT(get_mac);
    ORVD_SLOT(start);
    ORVD_SLOT(stop);
    ORVD_SLOT(reset_quillon);
    ORVD_SLOT(init);
    ORVD_SLOT(set_vapcontext);
    ORVD_SLOT(close_vapcontext);
    ORVD_SLOT(set_hostapd_initialized);
    ORVD_SLOT(is_hostapd_initialized);
    ORVD_SLOT(is_in_progress);
    ORVD_SLOT(is_wids_enabled);
    ORVD_SLOT(is_wgb_enabled);
    ORVD_SLOT(get_config_wids);
    ORVD_SLOT(get_config_wids_interface);
    ORVD_SLOT(get_config_wgb);
    ORVD_SLOT(get_config_wgb_interface);
    ORVD_SLOT(is_wds_enabled);
    ORVD_SLOT(is_mesh_enabled);
    ORVD_SLOT(is_enabled);
    ORVD_SLOT(has_enabled_vaps);
    ORVD_SLOT(get_vap_status);
    ORVD_SLOT(is_vap_enabled);
    ORVD_SLOT(is_802dot11k);
    ORVD_SLOT(is_band);
    ORVD_SLOT(set_tx_power);
    ORVD_SLOT(get_tx_power);
    ORVD_SLOT(get_country);
    ORVD_SLOT(get_min_max_tx_power);
    ORVD_SLOT(get_tx_power_max);
    ORVD_SLOT(get_tx_power_min);
    ORVD_SLOT(get_mac_offset);
    ORVD_SLOT(get_radio_mac_count);
    ORVD_SLOT(get_config_primary);
    ORVD_SLOT(get_config_bandwidth);
    ORVD_SLOT(get_config_spec);
    ORVD_SLOT(is_obss_coex);
    ORVD_SLOT(set_chanspec);
    ORVD_SLOT(get_chanspec);
    ORVD_SLOT(chanspec_channel);
    ORVD_SLOT(chanspec_primary);
    ORVD_SLOT(chanspec_bw);
    ORVD_SLOT(get_assoclist);
    ORVD_SLOT(get_ssidlist);
    ORVD_SLOT(fill_ap_table);
    ORVD_SLOT(fill_ap_table_vorna_rrm);
    ORVD_SLOT(fill_chanspecs);
    ORVD_SLOT(primary_channel_to_string);
    ORVD_SLOT(get_max_radios);
    ORVD_SLOT(get_max_vap);
    ORVD_SLOT(process_driver_events);
    ORVD_SLOT(SsidToVap);
    ORVD_SLOT(SsidToVapId);
    ORVD_SLOT(VapIdToVap);
    ORVD_SLOT(VapIdToSsid);
    ORVD_SLOT(VapIdToMac);
    ORVD_SLOT(set_rrm_nbr_ap_list);
    ORVD_SLOT(clear_rrm_nbr_ap_list);
    ORVD_SLOT(set_quillon_fbt_params);
    ORVD_SLOT(is_fbt_enabled);
    ORVD_SLOT(reset_quillon_fbt);
    ORVD_SLOT(fill_vap_name);
    ORVD_SLOT(is_widsd_sentry_mode);
    ORVD_SLOT(block_sta);
    ORVD_SLOT(block_sta_data);
    ORVD_SLOT(unblock_sta);
    ORVD_SLOT(unblock_all_sta);
    ORVD_SLOT(set_vorna_sta_rssi_thr_high);
    ORVD_SLOT(set_vorna_sta_rssi_thr_low);
    ORVD_SLOT(probsup_find);
    ORVD_SLOT(probsup_rrm_max_age);
    ORVD_SLOT(probsup_rrm_client_try_no_balance);
    ORVD_SLOT(rssi_renew_interval);
    ORVD_SLOT(disassoc_sta);
    ORVD_SLOT(set_wake_event);
#undef ORVD_SLOT
    EXPECT_EQ(expected, 82);
    EXPECT_TRUE(out_of_place.empty())
        << out_of_place.size() << " out of place, first " << out_of_place.front();
}

TEST(driver_interface_test, the_mock_and_the_neutral_driver_implement_every_operation)
{
    // Both would be abstract if they missed one.
    ::testing::StrictMock<mock_driver> mock;
    const neutral_driver neutral;
    const driver_interface& base = neutral;
    EXPECT_EQ(base.get_max_radios(), 0);
    EXPECT_EQ(base.get_mac(), nullptr);
}

}  // namespace
