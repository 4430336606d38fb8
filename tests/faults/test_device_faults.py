"""The device failing under the agent: hostapd stopping in the middle of a scan, the device's
daemons (networkd and configd behind orvd-vdev) gone for longer than an exchange waits, and
hostapd restarting again and again. orvd must end what it was doing, wait, and carry on when the
device is back, on the same link."""
import time

import pytest

from faultlib import report
from harness.rrm import TIMEOUT, networkd_requests
from harness.vdev import DEFAULT_SCENARIO, Vdev
from scans import KINDS, scan_answered, start_scan, stopped_after


def hostapd(ap, action):
    result = ap.vdev.ctl("hostapd", action)
    assert result.returncode == 0, result.stderr.decode()


@pytest.mark.parametrize("kind", sorted(KINDS))
def test_hostapd_stopping_mid_scan_ends_the_scan_and_the_agent_answers_again_when_it_is_back(subscribed_ap, kind):
    ap = subscribed_ap
    service = ap.service
    start_scan(service, ap.vdev, ap.conn, kind)
    hostapd(ap, "stop")
    ap.orvd.wait_log("process_hostapd_stopped", timeout=TIMEOUT)
    assert stopped_after(ap.orvd, kind, "process_hostapd_stopped"), ap.orvd.log_lines("hostapd|Attempt to")

    # No scan is left running: the next message is handled at once, not deferred.
    service.send_rrm_request_mode(conn=ap.conn)
    ap.orvd.wait_log("Ignoring rrm-request-mode because hostapd is not running", timeout=TIMEOUT)
    assert ap.count("rrm-response") == 0

    hostapd(ap, "start")
    ap.wait_for("rrm-config-changed", timeout=TIMEOUT)
    took = scan_answered(service, ap.vdev, ap.conn, kind)
    report(f"hostapd stopped mid {kind} scan", next_scan_answered_after_s=f"{took:.1f}")
    assert ap.conn.closed is None and len(service.connections) == 1


def test_the_device_daemons_gone_for_12_s_and_back_then_a_configuration_is_applied(subscribed_ap, device_root):
    ap = subscribed_ap
    service = ap.service
    ap.vdev.kill()  # networkd, configd and their bus relays, without a word
    service.send_rrm_request_mode(conn=ap.conn)
    time.sleep(12)

    vdev = Vdev(device_root, DEFAULT_SCENARIO).start()
    back = time.monotonic()
    try:
        hostapd_running = vdev.ctl("hostapd", "start")
        assert hostapd_running.returncode == 0, hostapd_running.stderr.decode()
        radio = {"id": 1, "channel": 149, "bandwidth": 80, "power": 16, "primary-channel": "none"}
        service.send_rrm_info(radios=[radio], conn=ap.conn)
        deadline = time.monotonic() + 60
        while vdev.radio_state("wlan1").get("actual_tx_power") != 16:
            assert time.monotonic() < deadline, networkd_requests(vdev)
            time.sleep(0.05)
        applied = time.monotonic() - back
        report("device daemons gone 12 s", configuration_applied_after_return_s=f"{applied:.2f}")
        assert ap.orvd.running()
        assert ap.conn.closed is None and len(service.connections) == 1
    finally:
        vdev.kill()


def test_hostapd_restarting_twenty_times_in_a_minute_is_followed_to_the_end(subscribed_ap):
    ap = subscribed_ap
    service = ap.service
    changed = ap.count("rrm-config-changed")
    for _ in range(20):
        hostapd(ap, "stop")
        time.sleep(1.0)
        hostapd(ap, "start")
        time.sleep(2.0)

    ap.wait_for("rrm-config-changed", n=changed + 1, timeout=TIMEOUT)
    stops = ap.orvd.log_lines("process_hostapd_stopped")
    report("hostapd restarted 20 times", stop_notices=len(stops),
           config_changed=ap.count("rrm-config-changed") - changed)
    assert len(stops) == 20
    # The last state is what the service sees: both radios up, and answered on the same link.
    assert [r["status"] for r in ap.round_trip()["radios"]] == [1, 1]
    assert ap.conn.closed is None and len(service.connections) == 1
    assert ap.orvd.running()
