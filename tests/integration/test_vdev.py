"""orvd-vdev, the device side of the virtual access point: its device tree, its answers as
configd and networkd, its request log, hostapd and widsd, and its end."""
import json
import os
import queue
import signal
import time

import pytest

from harness.vdev import DEFAULT_SCENARIO, Vdev, ask, process_gone

CONFIGD = 1
NETWORKD = 6
RRM = 28

SCENARIO = json.loads(DEFAULT_SCENARIO.read_text())
RADIOS = ["wlan0", "wlan1"]
VAPS = [f"{radio}-va{i}" for radio in RADIOS for i in range(3)]


@pytest.fixture
def vdev(device_root):
    simulator = Vdev(device_root).start()
    yield simulator
    simulator.kill()


@pytest.fixture
def configd(vdev, make_bus_peer):
    return make_bus_peer(module=RRM, to=CONFIGD)


@pytest.fixture
def networkd(vdev, make_bus_peer):
    return make_bus_peer(module=RRM, to=NETWORKD)


def scenario_radio(name):
    return next(radio for radio in SCENARIO["radios"] if radio["name"] == name)


def neighbours_heard_by(radio):
    return [n for n in SCENARIO["neighbours"] if radio in n["rssi"]]


def mac_plus(base, offset):
    value = int(base.replace(":", ""), 16) + offset
    return ":".join(f"{(value >> shift) & 0xFF:02x}" for shift in range(40, -1, -8))


# -- the device tree -------------------------------------------------------------------------


def test_every_radio_and_vap_is_an_up_interface_with_an_address_derived_from_the_base_mac(vdev):
    # VAP i of radio N is base + 16N + i: the BSSID orvd names when it tells peers about it.
    base = SCENARIO["factory"]["mac"]
    expected = {"wlan0": 0x00, "wlan1": 0x10}
    for radio in RADIOS:
        for i in range(3):
            expected[f"{radio}-va{i}"] = expected[radio] + i
    for name, offset in expected.items():
        assert vdev.read(f"sys/class/net/{name}/flags") == "0x1003\n"
        assert vdev.read(f"sys/class/net/{name}/address") == mac_plus(base, offset) + "\n"


def test_each_vap_starts_with_an_empty_neighbour_report_and_each_radio_with_its_coexistence(vdev):
    for name in VAPS:
        assert vdev.read(f"proc/{name}/rm_neighbor_report") == ""
    mib_lines = {radio: vdev.read(f"proc/{radio}/mib_11n").splitlines() for radio in RADIOS}
    assert "coexist: 1" in mib_lines["wlan0"]
    assert "coexist: 0" in mib_lines["wlan1"]
    assert len(mib_lines["wlan0"]) > 5


def test_factory_record_and_power_limits_are_there_for_the_device_libraries(vdev):
    factory = vdev.read("etc/factory").splitlines()
    for key in ("board", "hw", "serial", "mac"):
        assert f"{key}={SCENARIO['factory'][key]}" in factory
    limits = [line.split() for line in vdev.read("etc/tx-power-limits").splitlines() if not line.startswith("#")]
    assert ["wlan0", "2", "10", "20"] in limits
    assert ["wlan1", "5", "10", "23"] in limits


def test_radio_state_files_carry_the_scenario_channel_power_and_channels(vdev):
    wlan0 = vdev.radio_state("wlan0")
    wlan1 = vdev.radio_state("wlan1")
    assert wlan0["chanspec"] == 0x1000 | 6
    assert wlan1["chanspec"] == 0x2000 | 0x000 | 42
    assert (wlan0["actual_tx_power"], wlan1["actual_tx_power"]) == (17, 20)
    assert wlan0["available_channels"] == list(range(1, 14))
    assert wlan1["available_channels"] == scenario_radio("wlan1")["available-channels"]
    assert wlan0["mibs"] == {"rrm_scan_chan": "0", "rrm_scan_started": "0"}


def test_each_radio_hears_the_neighbours_of_its_band_in_both_scan_kinds(vdev):
    assert len(SCENARIO["neighbours"]) >= 28
    for radio in RADIOS:
        state = vdev.radio_state(radio)
        heard = {n["bssid"]: n for n in neighbours_heard_by(radio)}
        assert heard, radio
        assert {r["bssid"] for r in state["scan_results"]} == set(heard)
        assert {r["bssid"] for r in state["rrm_scan_results"]} == set(heard)
        for result in state["scan_results"]:
            neighbour = heard[result["bssid"]]
            assert result["rssi"] == neighbour["rssi"][radio]
            assert result["channel"] == neighbour["channel"]
            assert result["bandwidth"] == neighbour["bandwidth"]
        for result in state["rrm_scan_results"]:
            assert result["tx_power"] == 4 * heard[result["bssid"]]["tx-power"]
    band_of = {radio: {n["channel"] <= 14 for n in neighbours_heard_by(radio)} for radio in RADIOS}
    assert band_of == {"wlan0": {True}, "wlan1": {False}}


def test_neighbour_chanspecs_carry_centre_position_and_width(vdev):
    chanspecs = {r["bssid"]: r["chanspec"] for radio in RADIOS for r in vdev.radio_state(radio)["scan_results"]}
    assert chanspecs["70:4f:57:77:07:07"] == 0x1800 | 0x100 | 4  # channel 6, 40 MHz, primary upper
    assert chanspecs["c8:3a:35:90:22:02"] == 0x1800 | 0x000 | 3  # channel 1, 40 MHz, primary lower
    assert chanspecs["e4:8d:8c:33:53:03"] == 0x2000 | 0x200 | 42  # channel 44 in 36-48
    assert chanspecs["d8:07:b6:cc:5c:0c"] == 0x2000 | 0x000 | 122  # channel 116 in 116-128


def test_stations_are_listed_per_vap_with_four_readings(vdev):
    for radio in RADIOS:
        stations = vdev.radio_state(radio)["stations"]
        assert sorted(stations) == [f"{radio}-va{i}" for i in range(3)]
        for i, vap in enumerate(scenario_radio(radio)["vaps"]):
            assert stations[f"{radio}-va{i}"] == vap.get("stations", [])
    assert sum(len(v) for radio in RADIOS for v in vdev.radio_state(radio)["stations"].values()) >= 5


# -- configd ---------------------------------------------------------------------------------


def test_configd_answers_the_ssid_of_a_vap_and_the_bandwidth_of_a_radio(configd):
    reply = ask(configd, {"command": "get", "path": "/interface/wlan1-va1/vap/ssid"})
    assert reply == {"command": "get-response", "status": "ok", "value": "Orion-Secure"}
    reply = ask(configd, {"command": "get", "path": "/interface/wlan1/wlan/radio-5g/bandwidth"})
    assert reply == {"command": "get-response", "status": "ok", "value": "80"}


def test_configd_follows_slashes_inside_a_key_and_answers_whole_subtrees(configd):
    reply = ask(configd, {"command": "get", "path": "/interface/wlan0-va2/vap/captive-portal/enabled"})
    assert reply["value"] == "true"
    reply = ask(configd, {"command": "get", "path": "/interface/wlan0-va0/vap/w80211kv-config"})
    assert reply["value"] == {"enabled": "true"}


def test_configd_answers_an_unknown_path_with_not_found(configd):
    for path in ("/interface/wlan9/vap/ssid", "/interface/wlan0/wlan/radio-5g/country"):
        reply = ask(configd, {"command": "get", "path": path})
        assert reply == {"command": "get-response", "status": "fail", "reason": "not found"}


def test_a_command_sent_to_the_wrong_module_is_unknown(configd, make_bus_peer):
    reply = ask(configd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "12"}})
    assert (reply["status"], reply["reason"]) == ("fail", "unknown command")
    configd.close()
    networkd = make_bus_peer(module=RRM, to=NETWORKD)
    reply = ask(networkd, {"command": "get", "path": "/interface/wlan0-va0/vap/ssid"})
    assert (reply["status"], reply["reason"]) == ("fail", "unknown command")
    reply = ask(networkd, {"command": "dance"})
    assert reply == {"command": "dance-response", "status": "fail", "reason": "unknown command"}


# -- networkd --------------------------------------------------------------------------------


def test_a_tx_power_update_reaches_the_radio_state_and_the_configuration(vdev, networkd, make_bus_peer):
    reply = ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "14"}})
    assert reply == {"command": "update-quillon-response", "status": "ok"}
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 14
    assert vdev.radio_state("wlan0")["chanspec"] == 0x1000 | 6
    networkd.close()
    configd = make_bus_peer(module=RRM, to=CONFIGD)
    reply = ask(configd, {"command": "get", "path": "/interface/wlan0/wlan/radio-2g/tx-power"})
    assert reply["value"] == "14"


def test_channel_44_at_80_mhz_puts_the_primary_third_in_its_block(vdev, networkd):
    params = {"auto-channel": "false", "channel": "44", "bandwidth": "80", "control-sideband": "upper"}
    reply = ask(networkd, {"command": "update-quillon", "ifname": "wlan1", "params": params})
    assert reply["status"] == "ok", reply
    assert vdev.radio_state("wlan1")["chanspec"] == 0x2000 | 0x200 | 42
    assert vdev.state()["radios"]["wlan1"]["settings"]["channel"] == "44"


def test_a_40_mhz_channel_is_centred_towards_its_secondary(vdev, networkd):
    params = {"channel": "6", "bandwidth": "40", "control-sideband": "upper"}
    assert ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": params})["status"] == "ok"
    assert vdev.radio_state("wlan0")["chanspec"] == 0x1800 | 0x100 | 4
    assert "use40M: 1" in vdev.read("proc/wlan0/mib_11n").splitlines()


def test_a_channel_the_radio_does_not_have_is_refused_and_changes_nothing(vdev, networkd):
    before = vdev.read("sim/vrtl/wlan1.json")
    reply = ask(networkd, {"command": "update-quillon", "ifname": "wlan1", "params": {"channel": "14"}})
    assert reply["status"] == "fail"
    assert "14" in reply["reason"] and "not available" in reply["reason"]
    assert vdev.read("sim/vrtl/wlan1.json") == before
    assert vdev.state()["radios"]["wlan1"]["settings"]["channel"] == "36"


def test_power_outside_the_limits_and_unknown_interfaces_are_refused(vdev, networkd):
    refused = [
        ({"ifname": "wlan0", "params": {"tx-power": "21"}}, "outside"),
        ({"ifname": "wlan1", "params": {"tx-power": "9", "channel": "40"}}, "outside"),
        ({"ifname": "wlan7", "params": {"tx-power": "15"}}, "unknown interface"),
        ({"ifname": "wlan0", "params": {"bandwidth": "80"}}, "80 MHz"),
    ]
    for request, reason in refused:
        reply = ask(networkd, {"command": "update-quillon", **request})
        assert reply["status"] == "fail" and reason in reply["reason"], reply
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 17
    assert vdev.radio_state("wlan1")["chanspec"] == 0x2000 | 42


def test_reset_quillon_restores_the_scenario_radio_settings(vdev, networkd):
    ask(networkd, {"command": "update-quillon", "ifname": "wlan1", "params": {"channel": "112", "tx-power": "11"}})
    assert vdev.radio_state("wlan1")["chanspec"] == 0x2000 | 0x300 | 106
    reply = ask(networkd, {"command": "reset-quillon", "ifname": "wlan1"})
    assert reply == {"command": "reset-quillon-response", "status": "ok"}
    state = vdev.radio_state("wlan1")
    assert (state["chanspec"], state["actual_tx_power"]) == (0x2000 | 42, 20)


def test_fast_transition_settings_are_kept_per_vap_until_reset(networkd, make_bus_peer):
    path = "/interface/wlan0-va1/vap/ft-config/mobility-domain"
    params = {"enabled": "true", "mobility-domain": "beef"}
    reply = ask(networkd, {"command": "update-quillon-fbt", "ifname": "wlan0-va1", "params": params})
    assert reply == {"command": "update-quillon-fbt-response", "status": "ok"}
    reply = ask(networkd, {"command": "update-quillon-fbt", "ifname": "wlan0", "params": params})
    assert (reply["status"], reply["reason"]) == ("fail", "wlan0 is a radio, not a VAP")
    networkd.close()
    configd = make_bus_peer(module=RRM, to=CONFIGD)
    assert ask(configd, {"command": "get", "path": path})["value"] == "beef"
    configd.close()
    networkd = make_bus_peer(module=RRM, to=NETWORKD)
    for ifname in ("wlan0-va1", "wlan0-va7"):
        reply = ask(networkd, {"command": "reset-quillon-fbt", "ifname": ifname})
        assert reply == {"command": "reset-quillon-fbt-response", "status": "ok"}
    networkd.close()
    configd = make_bus_peer(module=RRM, to=CONFIGD)
    assert ask(configd, {"command": "get", "path": path})["status"] == "fail"
    assert ask(configd, {"command": "get", "path": "/interface/wlan0-va1/vap/ft-config/enabled"})["value"] == "false"


def test_the_daemons_fast_transition_document_goes_over_the_vaps_settings(networkd, make_bus_peer):
    document = {
        "version": "2.2",
        "service": "fbt",
        "ft-config": {
            "enabled": "true",
            "ft-over-ds": "false",
            "reassociation-deadline": 1000,
            "mobility-domain": 54202,
            "r0-key-holder-id": "VX31B0012345",
            "r1-key-holder-id": "A4:5E:60:00:10:11",
            "mac": {"A4:5E:60:00:20:11": {"name": "A4:5E:60:00:20:11", "index": "0"}},
        },
    }
    reply = ask(networkd, {"command": "update-quillon-fbt", "ifname": "wlan1-va1", "params": document})
    assert reply == {"command": "update-quillon-fbt-response", "status": "ok"}
    networkd.close()
    configd = make_bus_peer(module=RRM, to=CONFIGD)
    node = ask(configd, {"command": "get", "path": "/interface/wlan1-va1/vap/ft-config"})["value"]
    settings = json.loads(node) if isinstance(node, str) else node
    assert settings["mobility-domain"] in (54202, "54202")
    assert settings["r1-key-holder-id"] == "A4:5E:60:00:10:11"
    assert "A4:5E:60:00:20:11" in settings["mac"]
    assert "version" not in settings and "service" not in settings


def test_every_request_served_is_in_the_request_log(vdev, configd, make_bus_peer):
    ask(configd, {"command": "get", "path": "/interface/wlan0-va0/vap/security-mode"})
    ask(configd, {"command": "get", "path": "/nowhere"})
    configd.close()
    networkd = make_bus_peer(module=RRM, to=NETWORKD)
    ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "12"}})
    log = vdev.requests()
    assert [(line["as"], line["module"], line["source"]) for line in log] == [
        ("configd", CONFIGD, RRM),
        ("configd", CONFIGD, RRM),
        ("networkd", NETWORKD, RRM),
    ]
    assert log[0]["request"]["path"] == "/interface/wlan0-va0/vap/security-mode"
    assert log[0]["reply"]["value"] == "WPA2_1X"
    assert log[1]["reply"]["reason"] == "not found"
    assert log[2]["request"]["params"] == {"tx-power": "12"}
    # The text as it arrived, keys in the sender's order.
    assert log[0]["request_text"] == '{"command":"get","path":"/interface/wlan0-va0/vap/security-mode"}'
    assert log[2]["request_text"] == '{"command":"update-quillon","ifname":"wlan0","params":{"tx-power":"12"}}'
    assert all(line["time"].endswith("Z") for line in log)


# -- muted daemons ---------------------------------------------------------------------------


def served_lines(vdev, count, timeout=5):
    """The request log once it holds at least `count` lines (the simulator writes a line as it
    takes the request, which for a muted daemon is the only trace it leaves)."""
    deadline = time.monotonic() + timeout
    while True:
        log = vdev.requests()
        if len(log) >= count or time.monotonic() > deadline:
            return log
        time.sleep(0.02)


def no_message_within(peer, seconds):
    try:
        message = peer.receive(timeout=seconds)
    except queue.Empty:
        return True
    raise AssertionError(f"unexpected bus message {message!r}")


def test_a_muted_configd_logs_each_request_with_a_null_reply_and_answers_again_once_unmuted(vdev, configd):
    assert vdev.ctl("configd", "mute").returncode == 0
    assert vdev.state()["muted"] == {"configd": True, "networkd": False}
    path = "/interface/wlan0-va0/vap/ssid"
    configd.send(json.dumps({"command": "get", "path": path}).encode())
    log = served_lines(vdev, 1)
    assert [(line["as"], line["request"]["path"], line["reply"]) for line in log] == [("configd", path, None)]
    assert no_message_within(configd, 0.5)

    assert vdev.ctl("configd", "unmute").returncode == 0
    assert vdev.state()["muted"] == {"configd": False, "networkd": False}
    reply = ask(configd, {"command": "get", "path": path})
    assert reply == {"command": "get-response", "status": "ok", "value": "Orion-Corp"}
    assert configd.drain() == []  # the muted request is never answered late
    assert [line["reply"] for line in vdev.requests()] == [None, reply]


def test_a_muted_networkd_neither_answers_nor_applies_an_update_while_configd_still_answers(
    vdev, networkd, make_bus_peer
):
    assert vdev.ctl("networkd", "mute").returncode == 0
    networkd.send(
        json.dumps({"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "14"}}).encode()
    )
    log = served_lines(vdev, 1)
    assert [(line["as"], line["reply"]) for line in log] == [("networkd", None)]
    assert no_message_within(networkd, 0.5)
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 17
    assert vdev.state()["radios"]["wlan0"]["settings"]["tx-power"] == "17"

    configd = make_bus_peer(module=RRM + 1, to=CONFIGD)
    reply = ask(configd, {"command": "get", "path": "/interface/wlan0/wlan/radio-2g/tx-power"})
    assert reply["value"] == "17"

    assert vdev.ctl("networkd", "unmute").returncode == 0
    reply = ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "14"}})
    assert reply == {"command": "update-quillon-response", "status": "ok"}
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 14


def test_muting_twice_is_harmless_and_a_daemon_takes_only_mute_or_unmute(vdev):
    for words in (("configd", "mute"), ("configd", "mute"), ("networkd", "unmute")):
        assert vdev.ctl(*words).returncode == 0
    assert vdev.state()["muted"] == {"configd": True, "networkd": False}
    result = vdev.ctl("networkd", "shout")
    assert result.returncode == 1
    assert b"networkd takes mute or unmute" in result.stderr
    assert vdev.ctl("configd").returncode == 1
    help_text = vdev.ctl("help").stdout.decode()
    assert "configd mute|unmute" in help_text and "networkd mute|unmute" in help_text


# -- neighbours set at run time ----------------------------------------------------------------

# Access points of a lab heard beyond the scenario's neighbours, in the scenario's format.
ADDED = [
    {"bssid": "02:5a:00:00:00:01", "ssid": "Lab-2", "channel": 11, "tx-power": 17, "rssi": {"wlan0": -58}},
    {"bssid": "02:5a:00:00:00:11", "ssid": "Lab-2", "channel": 100, "bandwidth": 80, "tx-power": 23,
     "rssi": {"wlan1": -71}, "scans": ["standard"]},
    {"bssid": "02:5a:00:00:01:01", "ssid": "Lab-3", "channel": 1, "bandwidth": 40, "rssi": {"wlan0": -83},
     "scans": ["rrm"]},
]
ADDED_STANDARD = {
    "wlan0": [{"bssid": "02:5a:00:00:00:01", "rssi": -58, "channel": 11, "bandwidth": 20, "chanspec": 0x1000 | 11}],
    "wlan1": [{"bssid": "02:5a:00:00:00:11", "rssi": -71, "channel": 100, "bandwidth": 80,
               "chanspec": 0x2000 | 0x000 | 106}],
}
ADDED_RRM = {
    "wlan0": [{"bssid": "02:5a:00:00:00:01", "rssi": -58, "tx_power": 68, "chanspec": 0x1000 | 11},
              {"bssid": "02:5a:00:00:01:01", "rssi": -83, "tx_power": 80, "chanspec": 0x1800 | 0x000 | 3}],
    "wlan1": [],
}
SCAN_LISTS = ("scan_results", "rrm_scan_results")


def neighbours_file(tmp_path, content, name="neighbours.json"):
    path = tmp_path / name
    path.write_text(content if isinstance(content, str) else json.dumps(content))
    return path


def set_neighbours(vdev, path):
    result = vdev.ctl("neighbours", str(path))
    assert (result.returncode, result.stdout, result.stderr) == (0, b"", b""), result.stderr.decode()


def assert_heard(vdev, initial, added_standard, added_rrm):
    """Each radio's scan lists are the scenario's (as the simulator started them) followed by the
    added ones; every other member of its state file is as it was."""
    for radio in RADIOS:
        state = vdev.radio_state(radio)
        assert state["scan_results"] == initial[radio]["scan_results"] + added_standard.get(radio, []), radio
        assert state["rrm_scan_results"] == initial[radio]["rrm_scan_results"] + added_rrm.get(radio, []), radio


def test_added_neighbours_follow_the_scenarios_and_the_rest_of_the_state_stays(vdev, networkd, tmp_path):
    initial = {radio: vdev.radio_state(radio) for radio in RADIOS}
    # What changes a state file meanwhile: an accepted update, and vrtl's MIB writes and counters.
    ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "13"}})
    state = vdev.radio_state("wlan0")
    state["mibs"]["rrm_scan_chan"] = "11"
    state["counters"] = {"start_scan": 3, "stop_scan": 1}
    state["last_scan_channels"] = [1, 6, 11]
    vdev.path("sim/vrtl/wlan0.json").write_text(json.dumps(state))
    before = {radio: vdev.radio_state(radio) for radio in RADIOS}

    set_neighbours(vdev, neighbours_file(tmp_path, ADDED))

    assert_heard(vdev, initial, ADDED_STANDARD, ADDED_RRM)
    for radio in RADIOS:
        after = vdev.radio_state(radio)
        assert list(after) == list(before[radio]), radio
        assert {k: v for k, v in after.items() if k not in SCAN_LISTS} == {
            k: v for k, v in before[radio].items() if k not in SCAN_LISTS
        }, radio
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 13
    assert vdev.radio_state("wlan0")["counters"] == {"start_scan": 3, "stop_scan": 1}


def test_a_second_neighbours_command_replaces_the_first_and_an_empty_list_removes_them(vdev, tmp_path):
    initial = {radio: vdev.radio_state(radio) for radio in RADIOS}
    set_neighbours(vdev, neighbours_file(tmp_path, ADDED, "first.json"))
    moved = dict(ADDED[0], channel=1, rssi={"wlan0": -49})  # the same access point on another channel
    set_neighbours(vdev, neighbours_file(tmp_path, [moved], "second.json"))
    entry = {"bssid": "02:5a:00:00:00:01", "rssi": -49, "chanspec": 0x1000 | 1}
    assert_heard(
        vdev,
        initial,
        {"wlan0": [dict(entry, channel=1, bandwidth=20)]},
        {"wlan0": [dict(entry, tx_power=68)]},
    )
    set_neighbours(vdev, neighbours_file(tmp_path, "[]", "none.json"))
    assert_heard(vdev, initial, {}, {})


def refusal(result):
    """The reason of an error answer, as the client prints it."""
    text = result.stderr.decode()
    assert text.startswith("orvd-vdev: ") and text.endswith("\n"), text
    return text[len("orvd-vdev: ") : -1]


def state_bytes(vdev):
    return {radio: vdev.path(f"sim/vrtl/{radio}.json").read_bytes() for radio in RADIOS}


def test_a_bad_neighbours_file_is_refused_whole_and_changes_no_state_file(vdev, tmp_path):
    set_neighbours(vdev, neighbours_file(tmp_path, ADDED[:1], "earlier.json"))
    before = state_bytes(vdev)
    good = ADDED[1]
    bad_entries = [
        (dict(good, rssi={"wlan9": -60}), "[1].rssi.wlan9: no such radio"),
        (dict(good, rssi={"wlan1": -101}), "[1].rssi.wlan1: a reading in dBm between -100 and 0"),
        (dict(good, channel=15), "[1].channel: not a Wi-Fi channel"),
        (dict(good, bssid="02:5a:00"), '[1].bssid: "02:5a:00" is not a MAC address'),
        ({k: v for k, v in good.items() if k != "rssi"}, "[1].rssi: missing"),
        (dict(good, scans=["passive"]), '[1].scans[0]: "standard" or "rrm"'),
    ]
    for entry, where_why in bad_entries:
        path = neighbours_file(tmp_path, [good, entry], "bad.json")
        result = vdev.ctl("neighbours", str(path))
        assert result.returncode == 1, entry
        assert refusal(result) == f"{path}: {where_why}", entry
        assert state_bytes(vdev) == before, entry

    not_array = neighbours_file(tmp_path, json.dumps(good), "object.json")
    not_json = neighbours_file(tmp_path, "[{", "broken.json")
    missing = tmp_path / "missing.json"
    for path, reason in (
        (not_array, f"{not_array}: expected a JSON array of neighbours"),
        (not_json, f"{not_json}: not valid JSON"),
        (missing, f"cannot read {missing}: No such file or directory"),
        ("neighbours.json", "neighbours.json: not an absolute path"),
    ):
        result = vdev.ctl("neighbours", str(path))
        assert result.returncode == 1, path
        assert refusal(result).startswith(reason), refusal(result)
        assert state_bytes(vdev) == before, path
    result = vdev.ctl("neighbours")
    assert result.returncode == 1 and b"neighbours takes one file" in result.stderr


def test_a_5_ghz_neighbour_heard_by_the_2_4_ghz_radio_is_refused(vdev, tmp_path):
    before = state_bytes(vdev)
    path = neighbours_file(tmp_path, [dict(ADDED[1], rssi={"wlan0": -60})])
    result = vdev.ctl("neighbours", str(path))
    assert result.returncode == 1
    assert refusal(result) == (
        f"{path}: [0].rssi.wlan0: a 2 GHz radio cannot hear this neighbour's channel"
    )
    assert state_bytes(vdev) == before


def test_a_radio_whose_state_file_is_gone_stays_gone_until_an_update_rebuilds_it(vdev, networkd, tmp_path):
    initial = vdev.radio_state("wlan0")
    vdev.path("sim/vrtl/wlan0.json").unlink()
    set_neighbours(vdev, neighbours_file(tmp_path, ADDED))
    assert not vdev.path("sim/vrtl/wlan0.json").exists()
    assert vdev.radio_state("wlan1")["scan_results"][-1]["bssid"] == "02:5a:00:00:00:11"
    # An update builds the file anew, and the added neighbours are part of what it hears.
    ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "15"}})
    rebuilt = vdev.radio_state("wlan0")
    assert rebuilt["actual_tx_power"] == 15
    assert rebuilt["scan_results"] == initial["scan_results"] + ADDED_STANDARD["wlan0"]
    assert rebuilt["rrm_scan_results"] == initial["rrm_scan_results"] + ADDED_RRM["wlan0"]


def test_help_names_the_neighbours_command(vdev):
    assert "neighbours FILE" in vdev.ctl("help").stdout.decode()


# -- hostapd, widsd and the notify markers ----------------------------------------------------


def markers(vdev):
    return sorted(p.name for p in vdev.path("tmp").glob(".quillon_notify*")) if vdev.path("tmp").exists() else []


def clear_markers(vdev):
    for name in markers(vdev):
        vdev.path(f"tmp/{name}").unlink()


def test_hostapd_runs_from_the_start_and_widsd_does_not(vdev):
    assert int(vdev.read("var/run/hostapd.pid")) == vdev.proc.pid
    assert not vdev.path("var/run/widsd.pid").exists()
    assert markers(vdev) == []
    assert vdev.state()["services"] == {"hostapd": True, "widsd": False}


def test_hostapd_stop_start_and_restart_manage_its_pid_file_and_markers(vdev):
    assert vdev.ctl("hostapd", "stop").returncode == 0
    assert not vdev.path("var/run/hostapd.pid").exists()
    assert markers(vdev) == []
    assert vdev.ctl("hostapd", "start").returncode == 0
    assert vdev.path("var/run/hostapd.pid").exists()
    assert markers(vdev) == [".quillon_notify", ".quillon_notify_hostapd_started"]
    clear_markers(vdev)
    assert vdev.ctl("hostapd", "restart").returncode == 0
    assert vdev.path("var/run/hostapd.pid").exists()
    assert markers(vdev) == [".quillon_notify", ".quillon_notify_hostapd_started"]


def test_widsd_start_and_stop_manage_its_pid_file_and_marker(vdev):
    assert vdev.ctl("widsd", "start").returncode == 0
    assert int(vdev.read("var/run/widsd.pid")) == vdev.proc.pid
    assert markers(vdev) == [".quillon_notify", ".quillon_notify_widsd_started"]
    assert vdev.ctl("widsd", "stop").returncode == 0
    assert not vdev.path("var/run/widsd.pid").exists()


def test_config_updated_and_timezone_changed_leave_their_marker_and_the_master(vdev):
    assert vdev.ctl("config-updated").returncode == 0
    assert markers(vdev) == [".quillon_notify", ".quillon_notify_config_updated"]
    clear_markers(vdev)
    assert vdev.ctl("timezone-changed").returncode == 0
    assert markers(vdev) == [".quillon_notify", ".quillon_notify_timezone_changed"]


def test_a_bad_control_command_exits_1_with_the_reason(vdev):
    result = vdev.ctl("hostapd", "explode")
    assert result.returncode == 1
    assert b"start, stop or restart" in result.stderr
    assert vdev.ctl("sing").returncode == 1


def test_ctl_without_a_simulator_exits_1(tmp_path):
    result = Vdev(tmp_path / "empty").ctl("state")
    assert result.returncode == 1
    assert b"no simulator" in result.stderr


# -- scenarios and the end ------------------------------------------------------------------


def test_a_down_vap_and_a_second_root_follow_their_own_scenario(tmp_path):
    scenario = json.loads(DEFAULT_SCENARIO.read_text())
    scenario["radios"][1]["vaps"][2]["up"] = False
    scenario["radios"][1]["coexist"] = 1
    scenario["services"] = {"hostapd": False, "widsd": True}
    path = tmp_path / "scenario.json"
    path.write_text(json.dumps(scenario))
    simulator = Vdev(tmp_path / "other", path).start()
    try:
        assert simulator.read("sys/class/net/wlan1-va2/flags") == "0x1002\n"
        assert "coexist: 1" in simulator.read("proc/wlan1/mib_11n").splitlines()
        assert not simulator.path("var/run/hostapd.pid").exists()
        assert simulator.path("var/run/widsd.pid").exists()
    finally:
        simulator.kill()


def test_a_scenario_that_does_not_hold_is_refused_with_status_2(tmp_path):
    scenario = json.loads(DEFAULT_SCENARIO.read_text())
    scenario["radios"][0]["settings"]["channel"] = "36"
    path = tmp_path / "scenario.json"
    path.write_text(json.dumps(scenario))
    simulator = Vdev(tmp_path / "bad", path).start(expect_ready=False)
    try:
        assert simulator.wait() == 2
        assert "channel 36 is not available on wlan0" in simulator.stderr()
    finally:
        simulator.kill()


def test_a_second_simulator_on_the_same_root_is_refused_and_leaves_the_first_alone(vdev, networkd):
    ask(networkd, {"command": "update-quillon", "ifname": "wlan0", "params": {"tx-power": "12"}})
    second = Vdev(vdev.root).start(expect_ready=False)
    try:
        assert second.wait() == 1
        assert "running orvd-vdev" in second.stderr()
    finally:
        second.kill()
    assert vdev.radio_state("wlan0")["actual_tx_power"] == 12
    assert len(vdev.requests()) == 1
    assert vdev.ctl("state").returncode == 0


def test_a_bus_module_held_by_another_process_ends_the_start_with_status_1(device_root, make_bus_peer):
    make_bus_peer(module=CONFIGD, to=NETWORKD)
    simulator = Vdev(device_root).start(expect_ready=False)
    try:
        assert simulator.wait() == 1
        assert "module 1 (configd) is taken" in simulator.stderr()
        assert not simulator.path("run/msgbus/module-6").exists()
    finally:
        simulator.kill()


def test_sigterm_ends_the_simulator_and_both_bus_processes_with_status_0(vdev):
    relays = vdev.children()
    assert len(relays) == 2
    assert vdev.terminate(signal.SIGTERM) == 0
    assert all(process_gone(pid) for pid in relays)
    assert not list(vdev.path("run/msgbus").glob("module-*"))
    assert not vdev.path("sim/vdev/control").exists()
    # The tree stays for whoever looks at it afterwards.
    assert vdev.path("sim/vrtl/wlan0.json").exists()
    assert vdev.path("sys/class/net/wlan0/flags").exists()


def test_quit_on_the_control_interface_ends_it_like_sigterm(vdev):
    relays = vdev.children()
    assert vdev.ctl("quit").returncode == 0
    assert vdev.wait() == 0
    assert all(process_gone(pid) for pid in relays)


def test_sigint_ends_it_too(vdev):
    assert vdev.terminate(signal.SIGINT) == 0
    assert not os.path.exists(vdev.path("run/msgbus/module-1"))
