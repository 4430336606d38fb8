// Arbitrary bytes handed to the RRM agent as a message from the WebSocket worker, against a
// driver that describes a busy two-radio access point (hostapd up, radios and VAPs enabled,
// clients, neighbours), so that every handler runs as deep as a real message takes it. After
// each message every timer the agent armed is fired by hand for a bounded number of rounds
// (scan passes, delayed responses, subscribe retries, the station tables) and the outgoing
// queue is drained. Each input gets a fresh agent, so no state leaks from one input to the next
// and the worker's clock guard never sees a long gap.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>

#include "core/buffer_info.h"
#include "core/safe_queue.h"
#include "core/trace.h"
#include "core/websock_cfg.h"
#include "driver/driver_interface.h"
#include "fake_chanspec.h"
#include "neutral_driver.h"
#include "rrm/rrm_worker.h"
#include "vorna_log_host.h"

namespace {

const int radio_count = 2;
const int vap_count = 7;

// Answers as a plausible access point would: two enabled radios (channel 6 at 20 MHz and
// channel 36 at 80 MHz), VAPs 0 and 2 with SSIDs, one client each, and two neighbours per scan.
// Every action is accepted and does nothing, except that hostapd's state is remembered.
class busy_driver final : public neutral_driver {
public:
    busy_driver()
    {
        std::memset(&factory, 0, sizeof factory);
        std::strncpy(factory.board, "VX-3100", sizeof factory.board - 1);
        std::strncpy(factory.hw, "rev B", sizeof factory.hw - 1);
        std::strncpy(factory.serial, "VX31B0012345", sizeof factory.serial - 1);
        std::strncpy(factory.mac, "A4:5E:60:00:10:00", sizeof factory.mac - 1);
        for (int r = 0; r < radio_count; ++r)
            for (int v = 0; v < vap_count; ++v) {
                char name[16];
                snprintf(name, sizeof name, "wlan%d-va%d", r, v);
                vap_names[r][v] = name;
            }
    }

    bool hostapd_initialized = true;

    rrm_band_t chanspec_band(unsigned chanspec) const override
    {
        return (chanspec & 0xFF) < 36 ? RRM_BAND_2G : RRM_BAND_5G;
    }
    rrm_band_t channel_band(int channel) const override { return channel < 36 ? RRM_BAND_2G : RRM_BAND_5G; }
    primary_channel_mode chanspec_primary_40(char const*) const override { return PRIMARY_LOWER; }
    bool get_status(char const* ifname) const override { return ifname != nullptr; }
    const factory_record_s* get_factory() const override { return &factory; }
    const char* get_mac() const override { return "A4:5E:60:00:10:00"; }
    int start(bool, const std::set<unsigned>&, const std::set<unsigned>&, int& timeout) override
    {
        timeout = 2;
        return 0;
    }
    void set_hostapd_initialized(bool initialized) override { hostapd_initialized = initialized; }
    bool is_hostapd_initialized() const override { return hostapd_initialized; }
    bool is_enabled(int radio) const override { return valid_radio(radio); }
    bool has_enabled_vaps(int radio) const override { return valid_radio(radio); }
    bool get_vap_status(char const* ifname, int) const override { return ifname != nullptr; }
    bool is_vap_enabled(int radio, int vap) const override
    {
        return valid_radio(radio) && (vap == 0 || vap == 2);
    }
    bool is_802dot11k(int radio, int vap) const override { return is_vap_enabled(radio, vap); }
    bool is_band(int radio, rrm_band_t band) const override
    {
        return (radio == 0 && band == RRM_BAND_2G) || (radio == 1 && band == RRM_BAND_5G);
    }
    int get_tx_power(char const*) const override { return 17; }
    std::string get_country(char const*) const override { return "DE"; }
    void get_min_max_tx_power(char const*, int* min, int* max, rrm_band_t) const override
    {
        if (min != nullptr)
            *min = 10;
        if (max != nullptr)
            *max = 20;
    }
    int get_tx_power_max(int) const override { return 20; }
    int get_tx_power_min(int) const override { return 10; }
    int get_mac_offset(int radio) const override { return radio * 8; }
    int get_radio_mac_count(int) const override { return 8; }
    unsigned get_config_bandwidth(char const*) const override { return 20; }
    unsigned get_config_spec(int radio) const override { return radio == 0 ? 0x1000u : 0x2000u; }
    unsigned get_chanspec(char const* ifname) const override
    {
        return ifname != nullptr && std::strcmp(ifname, "wlan1") == 0 ? 0x2024u : 0x1006u;
    }
    int chanspec_channel(unsigned chanspec) const override { return fake_chanspec_channel(chanspec); }
    const char* chanspec_primary(unsigned chanspec) const override { return fake_chanspec_primary(chanspec); }
    int chanspec_bw(unsigned chanspec) const override { return fake_chanspec_bw(chanspec); }
    int get_assoclist(char const* ifname, std::function<void(const rrm_sta_s&)> callback) const override
    {
        if (ifname == nullptr)
            return -1;
        rrm_sta_s station;
        station.mac = "f0:18:98:3c:21:4a";
        station.ssid = "Orion-Corp";
        station.rssi = -48;
        callback(station);
        return 0;
    }
    int get_ssidlist(char const* ifname,
                     std::function<void(int, char const*, char const*, bool)> callback) const override
    {
        if (ifname == nullptr)
            return -1;
        callback(0, "Orion-Corp", "a4:5e:60:00:10:01", true);
        callback(2, "Orion-Guest", "a4:5e:60:00:10:03", false);
        return 0;
    }
    int fill_ap_table(ap_table& table) const override
    {
        add_neighbours(table);
        return 0;
    }
    int fill_ap_table_vorna_rrm(ap_table& table) const override
    {
        add_neighbours(table);
        return 0;
    }
    void fill_chanspecs(char const* ifname, std::string& out) const override
    {
        out = ifname != nullptr && std::strcmp(ifname, "wlan1") == 0 ? "36 40 44 48 " : "1 6 11 ";
    }
    const char* primary_channel_to_string(int sideband, int) const override
    {
        return sideband == 0 ? "none" : "upper";
    }
    int get_max_radios() const override { return radio_count; }
    int get_max_vap() const override { return vap_count; }
    const char* SsidToVap(char const* ssid, int radio) const override
    {
        const int vap = SsidToVapId(ssid, radio);
        return vap < 0 ? nullptr : vap_names[radio][vap].c_str();
    }
    int SsidToVapId(char const* ssid, int radio) const override
    {
        if (ssid == nullptr || !valid_radio(radio))
            return -1;
        if (std::strcmp(ssid, "Orion-Corp") == 0)
            return 0;
        if (std::strcmp(ssid, "Orion-Guest") == 0)
            return 2;
        return -1;
    }
    const char* VapIdToVap(unsigned vap, int radio) const override
    {
        return valid_radio(radio) && vap < static_cast<unsigned>(vap_count) ? vap_names[radio][vap].c_str()
                                                                            : nullptr;
    }
    const char* VapIdToSsid(unsigned vap, int radio) const override
    {
        if (!valid_radio(radio))
            return nullptr;
        if (vap == 0)
            return "Orion-Corp";
        if (vap == 2)
            return "Orion-Guest";
        return nullptr;
    }
    const char* VapIdToMac(unsigned vap, int radio) const override
    {
        return valid_radio(radio) && vap < static_cast<unsigned>(vap_count) ? "a4:5e:60:00:10:01" : nullptr;
    }
    bool is_fbt_enabled(int radio, int vap) const override { return is_vap_enabled(radio, vap); }
    int fill_vap_name(int radio, int vap, char* buf, unsigned size) const override
    {
        if (buf == nullptr || size == 0)
            return -1;
        return snprintf(buf, size, "wlan%d-va%d", radio, vap);
    }
    bool probsup_find(char const* ifname, char const* mac) const override
    {
        return ifname != nullptr && mac != nullptr;
    }

private:
    static bool valid_radio(int radio) { return radio >= 0 && radio < radio_count; }

    static void add_neighbours(ap_table& table)
    {
        scan_result_entry first;
        const unsigned char first_bssid[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x50};
        std::memcpy(first.bssid, first_bssid, sizeof first.bssid);
        first.rssi = -67;
        first.channel = 6;
        first.bandwidth = 20;
        first.tx_power = 20;
        table.push_back(first);
        scan_result_entry second = first;
        second.bssid[5] = 0xA1;
        second.rssi = -80;
        second.channel = 40;
        second.bandwidth = 40;
        second.primary = 0x100;
        table.push_back(second);
    }

    factory_record_s factory;
    std::string vap_names[radio_count][vap_count];
};

// The agent with its timers and station tables within reach.
class fuzzed_agent : public rrm_worker {
public:
    using rrm_worker::blacklist_tables;
    using rrm_worker::probe_tables;
    using rrm_worker::rrm_blacklist_timeout_cb;
    using rrm_worker::rrm_probe_response_timeout_cb;
    using rrm_worker::rrm_worker;
    using rrm_worker::timers;
};

// Enough rounds for five scan passes, a delayed response and a few table ticks; the subscribe
// retry and the table timers re-arm themselves, so the rounds must be bounded.
const int timer_rounds = 12;

void discard_log_line(vlr_log_level_t, const char*, void*) {}

// The private device root; nothing is created in it, so it is removed empty at exit.
char device_root[] = "/tmp/orvd-fuzz-rrm-XXXXXX";

void remove_device_root()
{
    rmdir(device_root);
}

// Stations for the tables, taken from the input so that the tables age and report different
// entries for different inputs (nothing in the agent fills them yet).
void fill_tables(fuzzed_agent& agent, const uint8_t* data, size_t size)
{
    const size_t record = 9;  // six MAC bytes, radio, countdown or lifetime, VAP id
    for (size_t offset = 0; offset + record <= size && offset < 8 * record; offset += record) {
        const uint8_t* bytes = data + offset;
        MacAddr mac;
        std::memcpy(mac.bytes, bytes, sizeof mac.bytes);
        const size_t radio = bytes[6] % agent.probe_tables.size();
        const int count = static_cast<int>(bytes[7] % 5) - 1;  // -1 .. 3, odd values included
        if ((bytes[8] & 0x80) != 0) {
            agent.blacklist_tables[radio][mac] = count;
        } else {
            sta_prob_info& info = agent.probe_tables[radio][mac];
            info.countdown = count;
            info.vap_id = bytes[8] & 0x0F;
            info.rssi = (bytes[8] & 0x40) != 0 ? 0 : -static_cast<int>(bytes[0] % 90);
        }
    }
    agent.timers.add_timer(agent.rrm_probe_response_timeout_cb, rrm_worker::TIMER_PROBE_RESPONSE, 1);
    agent.timers.add_timer(agent.rrm_blacklist_timeout_cb, rrm_worker::TIMER_BLACKLIST, 1);
}

// Fires every armed timer, whatever its expiry; timers armed meanwhile run in the next round.
void fire_timers(fuzzed_agent& agent)
{
    for (int round = 0; round < timer_rounds && !agent.timers.empty(); ++round) {
        std::list<timer_desc> due;
        due.swap(agent.timers);
        for (const timer_desc& timer : due)
            timer.function();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = [] {
        // The agent deletes marker files; those of the machine running the fuzzer stay alone.
        if (mkdtemp(device_root) == nullptr || setenv("ORVD_ROOT", device_root, 1) != 0)
            std::abort();
        std::atexit(remove_device_root);
        // Every trace line is formatted (all levels on) and then dropped, so format strings
        // meet the fuzzed texts without flooding the fuzzer's output.
        vorna_log_host_set_writer(discard_log_line, nullptr);
        orvd_log_level = 15;
        trace.set_log_level(15);
        return true;
    }();
    (void)quiet;

    busy_driver driver;
    safe_queue incoming;
    safe_queue outgoing;
    volatile bool run = true;
    {
        fuzzed_agent agent(driver, incoming, outgoing, run, "fuzz-domain");
        fill_tables(agent, data, size);

        buffer_info_t message;
        message.append(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
        if (agent.process_ipc_message(message) != 0)
            std::abort();  // nothing is deferred while no scan runs
        fire_timers(agent);
        while (outgoing.dequeue([](const std::shared_ptr<buffer_info_t>& sent) {
            if (sent->data == nullptr || sent->data[sent->size] != '\0')
                std::abort();
        })) {
        }
    }
    // The destructor may still say something; the next input starts from an empty queue.
    while (outgoing.dequeue([](const std::shared_ptr<buffer_info_t>&) {})) {
    }
    return 0;
}
