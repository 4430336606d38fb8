// 802.11r fast BSS transition: turns each VAP entry of "fbt-info" into one fast-transition
// parameter set for the network daemon, with this access point's key-holder ids and the
// VAP's roaming peers.
#include <cstring>
#include <string>

#include "core/trace.h"
#include "rrm/mobility_domain.h"
#include "rrm/rrm_worker.h"

namespace {

// The network daemon reads the parameter sets of protocol "2.2" under the service "fbt".
const char fbt_version[] = "2.2";
const char fbt_service[] = "fbt";
// Bounds on what one message can make the agent build: at most 33 VAP entries, each with at
// most 1025 peers; anything beyond is ignored.
const int max_vap_entries = 33;
const int max_peers = 1025;
// fill_vap_name writes "wlan%d-va%d" into a buffer of this size.
const unsigned vap_name_size = 32;

// The factory texts are NUL-padded and need not be terminated when they fill their field.
std::string factory_field(const char (&field)[32])
{
    return std::string(field, strnlen(field, sizeof field));
}

// The VAP's R1 key holder: the factory MAC with the VAP's offset (vap_id + 16 x radio_id)
// added to its lower three bytes. When there is no offset, or the addition wraps past
// FF:FF:FF, the factory MAC itself is used rather than a wrapped address.
std::string r1_key_holder_id(const std::string& factory_mac, int vap_id, int radio_id)
{
    MacAddr mac;
    mac.parse(factory_mac.c_str());
    const unsigned lower = static_cast<unsigned>(mac.bytes[3]) << 16 |
                           static_cast<unsigned>(mac.bytes[4]) << 8 | static_cast<unsigned>(mac.bytes[5]);
    // Unsigned arithmetic: the ids come from the service and may be anything.
    const unsigned shifted =
        (lower + static_cast<unsigned>(vap_id) + static_cast<unsigned>(radio_id) * 16u) & 0xFFFFFFu;
    if (shifted > lower) {
        mac.bytes[3] = static_cast<unsigned char>(shifted >> 16);
        mac.bytes[4] = static_cast<unsigned char>(shifted >> 8);
        mac.bytes[5] = static_cast<unsigned char>(shifted);
    }
    return mac.to_string();
}

// One member of "mac" per roaming peer, named by its R1 key-holder id. A text the service
// left out is left out here as well (json_writer ignores a null text).
void insert_peers(const json_writer& ft_config, const json_reader& remotes, const char* rrb_key)
{
    json_writer peers = ft_config.make_subobject("mac");
    for (int index = 0; index < max_peers; ++index) {
        const json_reader remote = remotes.get_array_element(index);
        if (remote.fail())
            break;
        const char* r1_id = remote.get_string("remote-r1-kh-id");
        if (r1_id == nullptr)
            continue;
        json_writer peer = peers.make_subobject(r1_id);
        peer.insert_string("name", r1_id);
        // The position in "remotes", skipped peers counted too.
        peer.insert_string("index", std::to_string(index).c_str());
        peer.insert_string("r0-kh-id", remote.get_string("remote-r0-kh-id"));
        peer.insert_string("r1-kh-id", r1_id);
        peer.insert_string("r0-kh-key", rrb_key);
        peer.insert_string("r1-kh-key", remote.get_string("remote-r1-kh-key"));
    }
}

}  // namespace

void rrm_worker::process_fbt_info(const json_reader& message)
{
    trace.info("%s quillon_use_80211r = %d\n", "process_fbt_info", use_80211r ? 1 : 0);
    if (!use_80211r) {
        // 802.11r is off for this access point: whatever the service sends, fast transition
        // stays reset.
        driver.reset_quillon_fbt(RESET_QUILLON_FULL);
        return;
    }
    fbt_reassoc_deadline = message.get_int("fbt-reassoc-deadline");
    fbt_over_ds = message.get_int("fbt-over-ds") != 0;
    mobility_domain = mobility_domain_crc(domain);

    const json_reader vaps = message.get_subobject("vaps");
    if (vaps.fail())
        return;

    const factory_record_s* factory = driver.get_factory();
    // Without factory data the key-holder ids are the neutral ones: an empty R0 id and the
    // all-zero MAC with the VAP's offset.
    const std::string serial = factory != nullptr ? factory_field(factory->serial) : std::string();
    const std::string factory_mac = factory != nullptr ? factory_field(factory->mac) : std::string();

    for (int index = 0; index < max_vap_entries; ++index) {
        const json_reader vap = vaps.get_array_element(index);
        if (vap.fail())
            break;

        json_writer params(fbt_service, "", "", fbt_version);
        json_writer ft_config = params.make_subobject("ft-config");
        ft_config.insert_string("enabled", "true");
        ft_config.insert_string("ft-over-ds", fbt_over_ds ? "true" : "false");
        ft_config.insert_string("ft-psk-generate-local", "false");
        ft_config.insert_int("reassociation-deadline", fbt_reassoc_deadline);
        ft_config.insert_int("mobility-domain", mobility_domain);

        const int vap_id = vap.get_int("vap_id");
        const int radio_id = vap.get_int("radio_id");
        char vap_name[vap_name_size] = {};
        driver.fill_vap_name(radio_id, vap_id, vap_name, vap_name_size);
        const std::string ifname(vap_name, strnlen(vap_name, sizeof vap_name));

        ft_config.insert_string("r0-key-holder-id", serial.c_str());
        ft_config.insert_string("r1-key-holder-id", r1_key_holder_id(factory_mac, vap_id, radio_id).c_str());

        // A VAP without peers has nothing to roam to: its settings are left as they are.
        const json_reader remotes = vap.get_subobject("remotes");
        if (remotes.fail())
            continue;
        insert_peers(ft_config, remotes, vap.get_string("fbt-rrb-key"));

        const char* text = params.fail() ? nullptr : params.serialize();
        if (text != nullptr)
            driver.set_quillon_fbt_params(ifname, text);
    }
}
