"""RRM mode end to end, what the service decides: channels and powers through networkd, 802.11k
neighbour lists in procfs, fast-transition documents, and the reports that follow. orvd
(emulated driver preloaded) on orvd-vdev's default access point against the reference service."""
from harness.rrm import (
    SCENARIO,
    NeighbourReports,
    mobility_domain,
    networkd_requests,
    schema,
    wait_requests,
)

K_VAPS = ["wlan0-va0", "wlan0-va1", "wlan1-va0", "wlan1-va1"]  # 802.11k on in the scenario
OTHER_VAPS = ["wlan0-va2", "wlan1-va2"]


def params_of(entries):
    return [(entry["request"]["ifname"], entry["request"]["params"]) for entry in entries]


def radio(message, number):
    return next(r for r in message["radios"] if r["id"] == number)


# -- channel and power ---------------------------------------------------------------------------


def test_the_config_of_a_successful_subscription_retunes_the_radios_through_networkd(make_ap):
    config = {
        "use-tpc": 1,
        "use-dca": 1,
        "radios": [
            {"id": 0, "channel": 11, "bandwidth": 20, "power": 14, "primary-channel": "none"},
            {"id": 1, "channel": 44, "bandwidth": 40, "power": 18, "primary-channel": "upper"},
        ],
    }
    ap = make_ap()
    ap.subscribe(config=config)

    updates = wait_requests(ap.vdev, "update-quillon", 4)
    assert params_of(updates) == [
        ("wlan0", {"tx-power": "14"}),
        ("wlan0", {"auto-channel": "false", "channel": "11", "bandwidth": "20"}),
        ("wlan1", {"tx-power": "18"}),
        ("wlan1", {"auto-channel": "false", "channel": "44", "bandwidth": "40", "control-sideband": "upper"}),
    ]
    assert all(entry["reply"]["status"] == "ok" for entry in updates)
    # Parsed, the requests hide the order orvd writes their parameters in; the text shows it.
    assert [entry["request_text"] for entry in updates] == [
        '{"command":"update-quillon","ifname":"wlan0","params":{"tx-power":"14"}}',
        '{"command":"update-quillon","ifname":"wlan0","params":'
        '{"auto-channel":"false","channel":"11","bandwidth":"20"}}',
        '{"command":"update-quillon","ifname":"wlan1","params":{"tx-power":"18"}}',
        '{"command":"update-quillon","ifname":"wlan1","params":'
        '{"auto-channel":"false","channel":"44","bandwidth":"40","control-sideband":"upper"}}',
    ]

    # The emulated radios run the new settings: 44 upper at 40 MHz is centre 42, upper position.
    assert ap.vdev.radio_state("wlan0")["chanspec"] == 0x1000 | 11
    assert ap.vdev.radio_state("wlan0")["actual_tx_power"] == 14
    assert ap.vdev.radio_state("wlan1")["chanspec"] == 0x1800 | 0x100 | 42
    assert ap.vdev.radio_state("wlan1")["actual_tx_power"] == 18

    # ... and orvd reports them.
    answer = ap.round_trip()
    assert (radio(answer, 0)["channel"], radio(answer, 0)["power"]) == (11, 14)
    wlan1 = radio(answer, 1)
    assert (wlan1["channel"], wlan1["bandwidth"], wlan1["primary-channel"], wlan1["power"]) == (44, 40, "upper", 18)


def test_rrm_info_with_dca_off_changes_the_power_only_and_a_zero_power_changes_nothing(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_rrm_info(
        use_tpc=1,
        use_dca=0,
        radios=[{"id": 0, "channel": 1, "bandwidth": 20, "power": 12}, {"id": 1, "channel": 100, "power": 0}],
    )
    ap.round_trip()
    assert params_of(networkd_requests(ap.vdev, "update-quillon")) == [("wlan0", {"tx-power": "12"})]
    answer = ap.round_trip()
    assert (radio(answer, 0)["channel"], radio(answer, 0)["power"]) == (6, 12)
    assert (radio(answer, 1)["channel"], radio(answer, 1)["power"]) == (36, 20)


def test_a_radio_id_out_of_range_is_refused_and_the_others_still_applied(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_rrm_info(radios=[{"id": 3, "channel": 11, "power": 12}, {"id": 1, "channel": 52, "bandwidth": 80}])
    ap.round_trip()
    assert params_of(networkd_requests(ap.vdev, "update-quillon")) == [
        ("wlan1", {"auto-channel": "false", "channel": "52", "bandwidth": "80"})
    ]
    assert ap.orvd.log_lines("apply_config\\(\\) Wrong id value")
    assert ap.vdev.radio_state("wlan1")["chanspec"] == 0x2000 | 58


# -- 802.11k ------------------------------------------------------------------------------------


def test_802dot11k_neighbours_are_written_to_the_vaps_carrying_the_ssid_and_cleared_by_a_later_rrm_info(make_ap):
    ap = make_ap()
    reports = NeighbourReports(ap.vdev, K_VAPS + OTHER_VAPS)
    try:
        ap.subscribe()
        neighbours = [
            {
                "neighbour-mac": "00:11:22:33:44:50",
                "channel": 6,
                # VAP 2 (Orion-Guest) has 802.11k off here; the 5 GHz SSID is not on 2.4 GHz.
                "vaps": [
                    {"id": 0, "ssid": "Orion-Corp"},
                    {"id": 1, "ssid": "Orion-Staff"},
                    {"id": 2, "ssid": "Orion-Guest"},
                    {"id": 3, "ssid": "Orion-Corp-5G"},
                ],
            },
            # The VAP id's low four bits replace those of the last byte; bytes from 0x80 on are
            # written as eight hex digits, last byte first.
            {"neighbour-mac": "A4:5E:60:00:20:10", "channel": 44, "vaps": [{"id": 0x13, "ssid": "Orion-Corp-5G"}]},
            {"channel": 1, "vaps": [{"id": 0, "ssid": "Orion-Corp"}]},  # no neighbour-mac: skipped
        ]
        ap.service.send_rrm_info(use_tpc=0, use_dca=0, radios=[], dot11k=neighbours)
        ap.round_trip()
        assert networkd_requests(ap.vdev, "update-quillon") == []
        assert reports.all() == {
            "wlan0-va0": ["delall", 'add 504433221100 0x0867 255 6 7 ssid "Orion-Corp" bssload 0 0'],
            "wlan0-va1": ["delall", 'add 514433221100 0x0867 255 6 7 ssid "Orion-Staff" bssload 0 0'],
            "wlan1-va0": ["delall", 'add 132000605effffffa4 0x1867 255 44 9 ssid "Orion-Corp-5G" bssload 0 0'],
            "wlan1-va1": ["delall"],
            "wlan0-va2": [],
            "wlan1-va2": [],
        }

        ap.service.send_rrm_info(use_tpc=0, use_dca=0, radios=[])
        ap.round_trip()
        after = reports.all()
        for vap in K_VAPS:
            assert after[vap][-1] == "delall" and after[vap].count("delall") == 2, (vap, after[vap])
        assert after["wlan0-va2"] == [] and after["wlan1-va2"] == []
    finally:
        reports.close()


# -- fast transition ----------------------------------------------------------------------------

REMOTE_A = {
    "remote-r1-kh-id": "A4:5E:60:00:20:01",
    "remote-r0-kh-id": "VX31B0099999",
    "remote-r1-kh-key": "ffeeddccbbaa99887766554433221100",
}
REMOTE_B = {
    "remote-r1-kh-id": "A4:5E:60:00:30:11",
    "remote-r0-kh-id": "VX31B0088888",
    "remote-r1-kh-key": "00112233445566778899aabbccddeeff",
}
FBT_VAPS = [
    {
        "vap_id": 0,
        "radio_id": 0,
        "fbt-rrb-key": "0123456789abcdef0123456789abcdef",
        # The peer without an R1 key holder is skipped, its place still counted.
        "remotes": [REMOTE_A, {"remote-r0-kh-id": "VX31B0077777"}, REMOTE_B],
    },
    {"vap_id": 1, "radio_id": 0, "fbt-rrb-key": "fedcba9876543210fedcba9876543210"},  # no remotes: nothing sent
    {"vap_id": 1, "radio_id": 1, "fbt-rrb-key": "00000000111111112222222233333333", "remotes": [REMOTE_A]},
]


def peer(remote, index, rrb_key):
    return {
        "name": remote["remote-r1-kh-id"],
        "index": str(index),
        "r0-kh-id": remote["remote-r0-kh-id"],
        "r1-kh-id": remote["remote-r1-kh-id"],
        "r0-kh-key": rrb_key,
        "r1-kh-key": remote["remote-r1-kh-key"],
    }


def test_fbt_info_with_fast_transition_on_sends_networkd_one_document_per_vap_with_remotes(make_ap):
    ap = make_ap()
    ap.subscribe(domain="site-7")
    ap.service.send_rrm_info(use_tpc=0, use_dca=0, use_80211r=1, radios=[])
    ap.service.send_fbt_info(FBT_VAPS, reassoc_deadline=1500, over_ds=0)
    ap.round_trip()
    ap.orvd.wait_log("process_fbt_info quillon_use_80211r = 1")

    sent = networkd_requests(ap.vdev, "update-quillon-fbt")
    assert [entry["request"]["ifname"] for entry in sent] == ["wlan0-va0", "wlan1-va1"]
    assert all(entry["reply"]["status"] == "ok" for entry in sent)
    common = {
        "enabled": "true",
        "ft-over-ds": "false",
        "ft-psk-generate-local": "false",
        "reassociation-deadline": 1500,
        "mobility-domain": mobility_domain("site-7"),
        "r0-key-holder-id": SCENARIO["factory"]["serial"],
    }
    first, second = (entry["request"]["params"] for entry in sent)
    assert first == {
        "version": "2.2",
        "service": "fbt",
        "ft-config": dict(
            common,
            **{
                # VAP 0 of radio 0: the base MAC itself.
                "r1-key-holder-id": "A4:5E:60:00:10:00",
                "mac": {
                    REMOTE_A["remote-r1-kh-id"]: peer(REMOTE_A, 0, FBT_VAPS[0]["fbt-rrb-key"]),
                    REMOTE_B["remote-r1-kh-id"]: peer(REMOTE_B, 2, FBT_VAPS[0]["fbt-rrb-key"]),
                },
            },
        ),
    }
    assert second["ft-config"]["r1-key-holder-id"] == "A4:5E:60:00:10:11"  # base + 1 + 16 x 1
    assert second["ft-config"]["mac"] == {REMOTE_A["remote-r1-kh-id"]: peer(REMOTE_A, 0, FBT_VAPS[2]["fbt-rrb-key"])}
    for params in (first, second):
        assert schema.schema_name(params) == "fbt-params"
        assert schema.validate(params) == []
        assert schema.key_order_errors(params) == []


def test_fbt_info_with_fast_transition_never_switched_on_sends_nothing_to_networkd(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_fbt_info(FBT_VAPS)
    ap.round_trip()
    ap.orvd.wait_log("process_fbt_info quillon_use_80211r = 0")
    assert networkd_requests(ap.vdev, "update-quillon-fbt") == []

    # Switched on and off again: still nothing.
    ap.service.send_rrm_info(use_80211r=1, radios=[])
    ap.service.send_rrm_info(use_80211r=0, radios=[])
    ap.service.send_fbt_info(FBT_VAPS)
    ap.round_trip()
    ap.orvd.wait_log("process_fbt_info quillon_use_80211r = 0", count=2)
    assert networkd_requests(ap.vdev, "update-quillon-fbt") == []


# -- reports ------------------------------------------------------------------------------------


def test_rrm_request_mode_is_answered_with_the_radios(subscribed_ap):
    ap = subscribed_ap
    before = ap.count("rrm-mode-response")
    ap.service.send_rrm_request_mode(conn=ap.conn)
    message = ap.wait_for("rrm-mode-response", n=before + 1).message
    assert list(message)[:4] == ["version", "service", "cmd", "ap-mac"]
    assert list(message)[4:] == ["domain", "radios"]
    assert [r["id"] for r in message["radios"]] == [0, 1]
    assert [len(r["vaps"]) for r in message["radios"]] == [3, 3]
    # Type names are compared without regard to case.
    ap.service.send("RRM-REQUEST-MODE", conn=ap.conn)
    ap.wait_for("rrm-mode-response", n=before + 2)


def test_a_configuration_change_while_subscribed_is_reported_with_rrm_config_changed(subscribed_ap):
    ap = subscribed_ap
    assert ap.vdev.ctl("config-updated").returncode == 0
    changed = ap.wait_for("rrm-config-changed").message
    assert list(changed)[4:] == ["domain", "radios"]
    assert [r["status"] for r in changed["radios"]] == [1, 1]
    assert not ap.vdev.path("tmp/.quillon_notify_config_updated").exists()


def test_a_hostapd_restart_while_subscribed_is_reported_with_rrm_config_changed(subscribed_ap):
    ap = subscribed_ap
    assert ap.vdev.ctl("hostapd", "restart").returncode == 0
    changed = ap.wait_for("rrm-config-changed").message
    assert [r["status"] for r in changed["radios"]] == [1, 1]
    ap.orvd.wait_log("process_started : subscribed")
    assert ap.count("subscribe-request") == 2


LOAD_BALANCING = ["rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request", "rrm-client-assoc-ack"]


def test_load_balancing_messages_are_logged_and_ignored(make_ap):
    ap = make_ap(log_level="0x0F")  # the notes are debug lines
    ap.subscribe()
    for cmd in LOAD_BALANCING:
        ap.service.send(cmd, {"sta-mac": "f0:18:98:3c:21:4a"}, conn=ap.conn)
    ap.round_trip()
    for cmd in LOAD_BALANCING:
        assert ap.orvd.log_lines(f"Ignoring {cmd} because load balancer is not yet supported"), cmd
    assert {r.cmd for r in ap.service.received(conn=ap.conn)} == {"subscribe-request", "rrm-mode-response"}
    assert networkd_requests(ap.vdev) == []
