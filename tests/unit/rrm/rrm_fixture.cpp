#include "rrm_fixture.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "core/json_reader.h"
#include "core/trace.h"
#include "core/websock_cfg.h"

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::Invoke;
using ::testing::Return;
using ::testing::StrEq;

namespace {

// As the factory library fills a field: NUL-padded, not terminated when the text fills it.
void copy_field(char (&field)[32], const std::string& text)
{
    std::memset(field, 0, sizeof field);
    std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
}

}  // namespace

rrm_fixture::rrm_fixture()
{
    orvd_log_level = 15;
    trace.set_log_level(15);
    // The agent's pacing step: the real driver waits 100 ms in it.
    EXPECT_CALL(driver, process_driver_events(_)).Times(AnyNumber()).WillRepeatedly(Return(0));
    // The agent hands the driver its wake-up when made and takes it back when destroyed.
    EXPECT_CALL(driver, set_wake_event(_)).Times(AnyNumber());
}

rrm_fixture::~rrm_fixture()
{
    destroy_agent();
    trace.set_log_level(0);
    orvd_log_level = 0;
}

void rrm_fixture::destroy_agent()
{
    if (!agent)
        return;
    // What the agent's destructor puts back is checked by its own test; here it may do it.
    EXPECT_CALL(driver, init()).Times(AnyNumber());
    EXPECT_CALL(driver, stop(_)).Times(AnyNumber()).WillRepeatedly(Return(0));
    EXPECT_CALL(driver, close_vapcontext()).Times(AnyNumber());
    EXPECT_CALL(driver, get_max_vap()).Times(AnyNumber()).WillRepeatedly(Return(7));
    EXPECT_CALL(driver, VapIdToVap(_, _)).Times(AnyNumber()).WillRepeatedly(Return(nullptr));
    agent.reset();
}

void rrm_fixture::make_agent(const char* domain)
{
    // Timers are checked as their due second minus the current one, which reads one less when
    // a second boundary passes between arming and checking: start each test early in a second
    // so that it ends well before the next one.
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_nsec > 600000000L)
        std::this_thread::sleep_for(std::chrono::nanoseconds(1000000000L - now.tv_nsec + 1000000L));
    EXPECT_CALL(driver, get_max_radios()).Times(AnyNumber()).WillRepeatedly(Return(radios));
    agent = std::make_unique<rrm_worker_under_test>(driver, incoming, outgoing, run, domain);
}

void rrm_fixture::allow_identity(const std::string& mac, const std::string& board, const std::string& hw,
                                 const std::string& serial)
{
    base_mac = mac;
    std::memset(&factory, 0, sizeof factory);
    copy_field(factory.board, board);
    copy_field(factory.hw, hw);
    copy_field(factory.serial, serial);
    copy_field(factory.mac, mac);
    EXPECT_CALL(driver, get_mac()).Times(AnyNumber()).WillRepeatedly(Return(base_mac.c_str()));
    EXPECT_CALL(driver, get_factory()).Times(AnyNumber()).WillRepeatedly(Return(&factory));
}

void rrm_fixture::allow_description(const std::vector<fake_radio>& fakes)
{
    static const char* const names[] = {"wlan0", "wlan1", "wlan2"};
    radios = static_cast<int>(fakes.size());
    EXPECT_CALL(driver, get_max_radios()).Times(AnyNumber()).WillRepeatedly(Return(radios));
    EXPECT_CALL(driver, get_max_vap()).Times(AnyNumber()).WillRepeatedly(Return(7));
    EXPECT_CALL(driver, chanspec_channel(_)).Times(AnyNumber()).WillRepeatedly(Invoke(fake_chanspec_channel));
    EXPECT_CALL(driver, chanspec_bw(_)).Times(AnyNumber()).WillRepeatedly(Invoke(fake_chanspec_bw));
    EXPECT_CALL(driver, chanspec_primary(_)).Times(AnyNumber()).WillRepeatedly(Invoke(fake_chanspec_primary));
    for (int r = 0; r < radios; ++r) {
        const fake_radio radio = fakes[static_cast<size_t>(r)];
        const char* ifname = names[r];
        EXPECT_CALL(driver, is_enabled(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.enabled));
        EXPECT_CALL(driver, has_enabled_vaps(r))
            .Times(AnyNumber())
            .WillRepeatedly(Return(radio.vaps_enabled));
        EXPECT_CALL(driver, is_obss_coex(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.obss_coex));
        EXPECT_CALL(driver, is_wds_enabled(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.wds));
        EXPECT_CALL(driver, is_mesh_enabled(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.mesh));
        EXPECT_CALL(driver, is_wids_enabled(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.wids));
        EXPECT_CALL(driver, is_wgb_enabled(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.wgb));
        EXPECT_CALL(driver, get_mac_offset(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.mac_offset));
        EXPECT_CALL(driver, get_radio_mac_count(r))
            .Times(AnyNumber())
            .WillRepeatedly(Return(radio.mac_count));
        EXPECT_CALL(driver, get_tx_power(StrEq(ifname)))
            .Times(AnyNumber())
            .WillRepeatedly(Return(radio.power));
        EXPECT_CALL(driver, get_tx_power_max(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.power_max));
        EXPECT_CALL(driver, get_tx_power_min(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.power_min));
        EXPECT_CALL(driver, get_chanspec(StrEq(ifname)))
            .Times(AnyNumber())
            .WillRepeatedly(Return(radio.chanspec));
        EXPECT_CALL(driver, get_config_spec(r)).Times(AnyNumber()).WillRepeatedly(Return(radio.config_spec));
        EXPECT_CALL(driver, fill_chanspecs(StrEq(ifname), _))
            .Times(AnyNumber())
            .WillRepeatedly(Invoke([radio](char const*, std::string& out) { out = radio.channels; }));
        EXPECT_CALL(driver, get_ssidlist(StrEq(ifname), _))
            .Times(AnyNumber())
            .WillRepeatedly(Invoke(
                [radio](char const*, std::function<void(int, char const*, char const*, bool)> callback) {
                    for (const fake_vap& vap : radio.vaps)
                        callback(vap.id, vap.ssid.c_str(), vap.mac.c_str(), vap.dot11k);
                    return 0;
                }));
        for (const fake_vap& vap : radio.vaps)
            EXPECT_CALL(driver, is_fbt_enabled(r, vap.id)).Times(AnyNumber()).WillRepeatedly(Return(vap.fbt));
        EXPECT_CALL(driver, get_assoclist(StrEq(ifname), _))
            .Times(AnyNumber())
            .WillRepeatedly(Invoke([radio](char const*, std::function<void(const rrm_sta_s&)> callback) {
                for (const fake_station& fake : radio.stations) {
                    rrm_sta_s station;
                    station.mac = fake.mac;
                    station.ssid = fake.ssid;
                    station.rssi = fake.rssi;
                    callback(station);
                }
                return 0;
            }));
    }
}

void rrm_fixture::allow_radios_off()
{
    allow_identity();
    fake_radio off;
    off.enabled = false;
    allow_description({off, off});
}

void rrm_fixture::allow_state(bool hostapd_initialized, bool sentry)
{
    EXPECT_CALL(driver, is_hostapd_initialized())
        .Times(AnyNumber())
        .WillRepeatedly(Return(hostapd_initialized));
    EXPECT_CALL(driver, is_widsd_sentry_mode()).Times(AnyNumber()).WillRepeatedly(Return(sentry));
}

void rrm_fixture::deliver(const std::string& text)
{
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text.data(), static_cast<unsigned>(text.size()));
    incoming.enqueue(buffer);
    agent->execute();
}

int rrm_fixture::process(const std::string& text)
{
    buffer_info_t buffer;
    buffer.append(text.data(), static_cast<unsigned>(text.size()));
    return agent->process_ipc_message(buffer);
}

std::vector<std::string> rrm_fixture::sent()
{
    std::vector<std::string> texts;
    while (outgoing.dequeue([&texts](const std::shared_ptr<buffer_info_t>& buffer) {
        texts.emplace_back(buffer->data == nullptr ? "" : std::string(buffer->data, buffer->size));
    })) {
    }
    return texts;
}

std::vector<std::string> rrm_fixture::commands(const std::vector<std::string>& texts)
{
    std::vector<std::string> result;
    for (const std::string& text : texts) {
        json_reader message(text.c_str());
        const char* cmd = message.get_string("cmd");
        result.emplace_back(cmd == nullptr ? "" : cmd);
    }
    return result;
}

std::vector<std::pair<int, int>> rrm_fixture::armed() const
{
    const long now = agent->timers.time_monotonic();
    std::vector<std::pair<int, int>> result;
    for (const timer_desc& timer : agent->timers)
        result.emplace_back(timer.id, static_cast<int>(timer.expiry - now));
    return result;
}

bool rrm_fixture::is_armed(int id) const
{
    return delay_of(id) >= 0;
}

int rrm_fixture::delay_of(int id) const
{
    for (const auto& timer : armed())
        if (timer.first == id)
            return timer.second;
    return -1;
}

bool rrm_fixture::fire(int id)
{
    auto& timers = agent->timers;
    auto found =
        std::find_if(timers.begin(), timers.end(), [id](const timer_desc& timer) { return timer.id == id; });
    if (found == timers.end())
        return false;
    const std::function<void()> function = found->function;
    timers.erase(found);
    function();
    return true;
}
