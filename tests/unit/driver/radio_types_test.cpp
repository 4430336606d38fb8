// The shared radio types: how driver records become stations and scan entries.
#include "driver/radio_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include "driver/vorna_command.h"
#include "mock_driver.h"

namespace {

using ::testing::Return;
using ::testing::StrictMock;

ap_info_t make_ap()
{
    ap_info_t ap;
    std::memset(&ap, 0, sizeof ap);
    const unsigned char bssid[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0xf0};
    std::memcpy(ap.bssid, bssid, sizeof bssid);
    ap.rssi = -61;
    ap.channel = 6;
    ap.bandwidth = 40;
    ap.tx_power = 68;
    ap.chanspec = 0x1906;
    return ap;
}

sta_info_t make_sta(int a, int b, int c, int d)
{
    sta_info_t sta;
    std::memset(&sta, 0, sizeof sta);
    const unsigned char mac[6] = {0xA4, 0x5E, 0x60, 0x01, 0x02, 0xFF};
    std::memcpy(sta.mac, mac, sizeof mac);
    sta.rssi[0] = a;
    sta.rssi[1] = b;
    sta.rssi[2] = c;
    sta.rssi[3] = d;
    return sta;
}

TEST(radio_types_test, band_values_are_the_nominal_gigahertz)
{
    EXPECT_EQ(RRM_BAND_UNKNOWN, 0);
    EXPECT_EQ(RRM_BAND_2G, 2);
    EXPECT_EQ(RRM_BAND_5G, 5);
    EXPECT_EQ(PRIMARY_NONE, 0);
    EXPECT_EQ(PRIMARY_LOWER, 1);
    EXPECT_EQ(PRIMARY_UPPER, 2);
    EXPECT_EQ(RESET_QUILLON_FULL, 0);
    EXPECT_EQ(sizeof(factory_record_s), 128u);
}

TEST(radio_types_test, a_station_is_polymorphic_copyable_and_starts_unknown)
{
    static_assert(std::has_virtual_destructor<rrm_sta_s>::value, "stations are deleted through the base");
    static_assert(std::is_copy_constructible<rrm_sta_s>::value, "stations are copied");
    rrm_sta_s station;
    EXPECT_EQ(station.rssi, -1000);
    EXPECT_EQ(station.packets_tx, 0);
    EXPECT_FALSE(station.authorized || station.associated || station.ht || station.vht);
}

TEST(radio_types_test, readings_of_dbm_plus_100_become_chains_and_the_strongest_rssi)
{
    const rrm_sta_realtek station(make_sta(140, 160, 150, 0));
    EXPECT_EQ(station.mac, "a4:5e:60:01:02:ff");
    EXPECT_EQ(station.ssid, "");
    EXPECT_EQ(station.rssi_chain[0], 40);
    EXPECT_EQ(station.rssi_chain[1], 60);
    EXPECT_EQ(station.rssi_chain[2], 50);
    EXPECT_EQ(station.rssi_chain[3], -100);
    EXPECT_EQ(station.rssi, 60);
    EXPECT_EQ(station.packets_tx, 0);
    EXPECT_EQ(station.packets_rx, 0);
    EXPECT_FALSE(station.authorized || station.associated || station.ht || station.vht);
}

TEST(radio_types_test, the_strongest_chain_wins_wherever_it_is)
{
    EXPECT_EQ(rrm_sta_realtek(make_sta(10, 20, 30, 45)).rssi, -55);
    EXPECT_EQ(rrm_sta_realtek(make_sta(59, 0, 0, 0)).rssi, -41);
    EXPECT_EQ(rrm_sta_realtek(make_sta(0, 0, 0, 0)).rssi, -100);
}

TEST(radio_types_test, a_realtek_station_copies_through_its_base)
{
    const rrm_sta_realtek station(make_sta(140, 160, 150, 0));
    const rrm_sta_s& base = station;
    const rrm_sta_s copy = base;
    EXPECT_EQ(copy.mac, "a4:5e:60:01:02:ff");
    EXPECT_EQ(copy.rssi, 60);
}

TEST(radio_types_test, a_standard_record_carries_channel_and_bandwidth_itself)
{
    StrictMock<mock_driver> driver;  // asked nothing
    const scan_result_entry entry(driver, make_ap(), scan_result_entry::STANDARD_SCAN);
    const unsigned char bssid[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0xf0};
    EXPECT_EQ(std::memcmp(entry.bssid, bssid, 6), 0);
    EXPECT_EQ(entry.rssi, -61);
    EXPECT_EQ(entry.channel, 6);
    EXPECT_EQ(entry.bandwidth, 40);
    EXPECT_EQ(entry.tx_power, 0);
    EXPECT_EQ(entry.primary, 0x100);
}

TEST(radio_types_test, an_rrm_record_is_decoded_by_the_driver_and_its_power_is_in_quarters)
{
    StrictMock<mock_driver> driver;
    EXPECT_CALL(driver, chanspec_channel(0x1906u)).WillOnce(Return(36));
    EXPECT_CALL(driver, chanspec_bw(0x1906u)).WillOnce(Return(80));
    const scan_result_entry entry(driver, make_ap(), scan_result_entry::RRM_SCAN);
    EXPECT_EQ(entry.rssi, -61);
    EXPECT_EQ(entry.channel, 36);
    EXPECT_EQ(entry.bandwidth, 80);
    EXPECT_EQ(entry.tx_power, 17);
    EXPECT_EQ(entry.primary, 0x100);
}

TEST(radio_types_test, a_negative_quarter_power_rounds_toward_zero)
{
    ::testing::NiceMock<mock_driver> driver;
    ap_info_t ap = make_ap();
    ap.tx_power = -5;
    EXPECT_EQ(scan_result_entry(driver, ap, scan_result_entry::RRM_SCAN).tx_power, -1);
    ap.tx_power = -8;
    EXPECT_EQ(scan_result_entry(driver, ap, scan_result_entry::RRM_SCAN).tx_power, -2);
}

TEST(radio_types_test, an_unknown_kind_keeps_only_bssid_and_rssi)
{
    StrictMock<mock_driver> driver;
    const scan_result_entry entry(driver, make_ap(), static_cast<scan_result_entry::scan_kind>(7));
    EXPECT_EQ(entry.bssid[5], 0xf0);
    EXPECT_EQ(entry.rssi, -61);
    EXPECT_EQ(entry.channel, 0);
    EXPECT_EQ(entry.bandwidth, 0);
    EXPECT_EQ(entry.tx_power, 0);
    EXPECT_EQ(entry.primary, 0);
}

}  // namespace
