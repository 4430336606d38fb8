"""RRM mode end to end, scans: "rrm-update" runs a standard scan in five passes or the driver's
own RRM measurement, and "rrm-response" reports what the emulated radios heard (orvd-vdev's
default scenario neighbours). orvd (emulated driver preloaded) against the reference service."""
import json
import time

from harness.rrm import TIMEOUT, expected_scan_entry, log_times, neighbours_heard_by, wall_time

RADIOS = ["wlan0", "wlan1"]


def expected_environment(rrm=False):
    return [expected_scan_entry(n, radio, rrm) for radio in RADIOS for n in neighbours_heard_by(radio)]


def wait_radio_state(vdev, radio, predicate, timeout=TIMEOUT):
    deadline = time.monotonic() + timeout
    while True:
        state = vdev.radio_state(radio)
        if predicate(state):
            return state
        assert time.monotonic() < deadline, f"{radio}: state not reached within {timeout}s: {state}"
        time.sleep(0.05)


def sent_at(conn, cmd):
    """When the service last sent a message of the type (time.monotonic())."""
    return next(t for t, text in reversed(conn.sent) if f'"cmd": "{cmd}"' in text)


def test_a_standard_scan_is_answered_after_five_passes_with_every_neighbour_heard(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_rrm_update(delay=0, driver_scan=0, channels="6 36", conn=ap.conn)
    response = ap.wait_for("rrm-response", timeout=60).message

    assert list(response)[4:] == ["domain", "radios", "rf-environment"]
    assert response["domain"] == "default-rrm-domain"
    assert [r["status"] for r in response["radios"]] == [1, 1]
    assert all("assoclist" not in r for r in response["radios"])
    # One array per pass, each with both radios' neighbours, wlan0's first.
    assert response["rf-environment"] == [expected_environment()] * 5
    assert len(ap.orvd.log_lines("scan_finished$")) == 5

    # Each radio scanned its own band's channels of the request, once per pass.
    for radio, channels in (("wlan0", [6]), ("wlan1", [36])):
        state = ap.vdev.radio_state(radio)
        assert state["counters"]["start_scan"] == 5, (radio, state["counters"])
        assert state["last_scan_channels"] == channels
        assert state["counters"].get("rrm_scan_trigger", 0) == 0
    assert ap.count("rrm-response") == 1


def test_a_driver_rrm_scan_waits_its_delay_before_the_scan_and_again_before_the_answer(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_rrm_update(delay=2, driver_scan=1, channels="11 6 44 36", conn=ap.conn)
    requested = wall_time(sent_at(ap.conn, "rrm-update"))
    received = ap.wait_for("rrm-response", timeout=60)
    response = received.message

    # The RRM measurement reports one table, with the neighbours' transmit powers in dBm.
    assert response["rf-environment"] == [expected_environment(rrm=True)]
    for radio, channel in (("wlan0", "6"), ("wlan1", "36")):
        state = ap.vdev.radio_state(radio)
        assert state["mibs"]["rrm_scan_chan"] == channel, (radio, state["mibs"])  # the lowest only
        assert state["counters"]["rrm_scan_trigger"] == 1
        assert state["counters"].get("start_scan", 0) == 0

    # Timers count whole seconds: a 2 s delay lasts more than 1 s, the 6 s scan more than 5 s
    # (less a little for the log's milliseconds and the conversion of the service's clock).
    started = log_times(ap.orvd, "Attempt to start RRM scanning")
    finished = log_times(ap.orvd, "scan_finished$")
    assert len(started) == 1 and len(finished) == 1
    assert started[0] - requested >= 0.9
    assert finished[0] - started[0] >= 4.9
    assert wall_time(received.time) - finished[0] >= 0.9
    assert ap.count("rrm-response") == 1


def test_a_message_arriving_during_a_scan_is_answered_after_the_scan(make_ap):
    ap = make_ap()
    ap.subscribe()
    answered = ap.count("rrm-mode-response")
    ap.service.send_rrm_update(delay=0, driver_scan=1, channels="6 36", conn=ap.conn)
    wait_radio_state(ap.vdev, "wlan1", lambda s: s.get("counters", {}).get("rrm_scan_trigger", 0) >= 1)
    ap.service.send_rrm_request_mode(conn=ap.conn)
    ap.orvd.wait_log("Pending message for delayed processing", timeout=TIMEOUT)

    response = ap.wait_for("rrm-response", timeout=60)
    mode = ap.wait_for("rrm-mode-response", n=answered + 1)
    assert mode.time >= response.time
    order = [r.cmd for r in ap.service.received(conn=ap.conn)]
    assert order[-2:] == ["rrm-response", "rrm-mode-response"]
    ap.orvd.wait_log("From pended")


def test_sigterm_during_a_scan_ends_orvd_with_status_0(subscribed_ap):
    ap = subscribed_ap
    # Every channel: a pass of 15 s on the 5 GHz radio.
    ap.service.send_rrm_update(delay=0, driver_scan=0, channels="", conn=ap.conn)
    wait_radio_state(ap.vdev, "wlan1", lambda s: s.get("counters", {}).get("start_scan", 0) >= 1)
    status, _ = ap.orvd.terminate()
    assert status == 0
    assert ap.orvd.log_lines("rrm_worker: stop")
    assert ap.count("rrm-response") == 0


def test_a_driver_rrm_scan_of_5_ghz_channels_only_measures_nothing_on_the_2_4_ghz_radio(subscribed_ap):
    ap = subscribed_ap
    ap.service.send_rrm_update(delay=0, driver_scan=1, channels="44 36", conn=ap.conn)
    response = ap.wait_for("rrm-response", timeout=60).message

    # wlan0 was asked for no channel: the driver triggers its measurement on channel "0",
    # which the radio accepts and which hears nobody; wlan1 measures its lowest channel.
    assert response["rf-environment"] == [[expected_scan_entry(n, "wlan1", True)
                                           for n in neighbours_heard_by("wlan1")]]
    for radio, channel in (("wlan0", 0), ("wlan1", 36)):
        state = ap.vdev.radio_state(radio)
        assert state["mibs"]["rrm_scan_chan"] == str(channel), (radio, state["mibs"])
        assert state["last_rrm_scan_channel"] == channel, radio
        assert state["counters"]["rrm_scan_trigger"] == 1, (radio, state["counters"])
        assert state["counters"].get("start_scan", 0) == 0
    assert ap.orvd.log_lines("SIOCSIWSCAN") == []
    assert ap.count("rrm-response") == 1


def test_neighbours_the_simulator_is_given_at_run_time_are_in_the_next_scan(subscribed_ap, tmp_path):
    # What a lab of several access points does: each hears the others where they are now.
    ap = subscribed_ap
    added = [
        {"bssid": "02:5a:00:00:00:01", "ssid": "Lab-2", "channel": 11, "tx-power": 17, "rssi": {"wlan0": -58}},
        {"bssid": "02:5a:00:00:00:11", "ssid": "Lab-2", "channel": 100, "bandwidth": 80, "tx-power": 23,
         "rssi": {"wlan1": -71}},
    ]
    path = tmp_path / "heard.json"
    path.write_text(json.dumps(added))
    result = ap.vdev.ctl("neighbours", str(path))
    assert result.returncode == 0, result.stderr.decode()

    ap.service.send_rrm_update(delay=0, driver_scan=1, channels="6 36", conn=ap.conn)
    response = ap.wait_for("rrm-response", timeout=60).message

    heard = {radio: neighbours_heard_by(radio) + [n for n in added if radio in n["rssi"]] for radio in RADIOS}
    assert response["rf-environment"] == [
        [expected_scan_entry(n, radio, True) for radio in RADIOS for n in heard[radio]]
    ]
