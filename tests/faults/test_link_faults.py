"""The link to the service lost at the worst moments: during a scan of either kind, before the
subscription was answered, and while a configuration is being applied. orvd must stop the
driver's scan, link and subscribe again, and then scan and apply as before."""
import time

import pytest

from harness.rrm import TIMEOUT, networkd_requests
from faultlib import report
from scans import KINDS, scan_answered, start_scan, stopped_after

LOST = "Disconnected from RRM service"


def relinked(service, number):
    """orvd's link #number, subscribed and answering."""
    conn = service.wait_connection(number, timeout=TIMEOUT)
    service.wait_for("subscribe-request", 1, timeout=TIMEOUT, conn=conn)
    service.wait_sent("subscribe-response", 1, timeout=TIMEOUT, conn=conn)
    service.send_rrm_request_mode(conn=conn)
    service.wait_for("rrm-mode-response", 1, timeout=TIMEOUT, conn=conn)
    return conn


@pytest.mark.parametrize("kind", sorted(KINDS))
def test_a_link_lost_during_a_scan_stops_the_scan_and_the_next_scan_is_answered(subscribed_ap, kind):
    ap = subscribed_ap
    service = ap.service
    start_scan(service, ap.vdev, ap.conn, kind)
    lost = time.monotonic()
    service.abort(ap.conn)

    conn = relinked(service, 2)
    relink = time.monotonic() - lost
    assert stopped_after(ap.orvd, kind, LOST), ap.orvd.log_lines(f"{LOST}|Attempt to")
    assert service.received("rrm-response", ap.conn) == []

    took = scan_answered(service, ap.vdev, conn, kind)
    report(f"link lost during a {kind} scan", relinked_after_s=f"{relink:.2f}", next_scan_answered_after_s=f"{took:.1f}")
    assert ap.orvd.running()


@pytest.mark.parametrize("kind", sorted(KINDS))
def test_a_link_lost_during_a_scan_asked_for_before_the_subscription_was_answered_leaves_orvd_answering(make_ap, kind):
    ap = make_ap()
    service = ap.service
    service.answer_subscribe("silent")
    first = service.wait_connection()
    service.wait_for("subscribe-request", 1, conn=first)
    result = ap.vdev.ctl("hostapd", "start")
    assert result.returncode == 0, result.stderr.decode()
    service.wait_for("subscribe-request", 2, conn=first)

    # The service asks for a scan before it answers the subscription; the scan is running when
    # the link drops 2 s later.
    start_scan(service, ap.vdev, first, kind)
    time.sleep(2)
    service.answer_subscribe("success")
    service.abort(first)
    service.wait_closed(first)

    # orvd links again and subscribes; the service accepts it and asks for the radios.
    second = relinked(service, 2)
    assert stopped_after(ap.orvd, kind, LOST), ap.orvd.log_lines(f"{LOST}|Attempt to")
    assert service.received("rrm-response", second) == []
    # And a scan on the new link runs and is answered.
    scan_answered(service, ap.vdev, second, kind)


def test_a_service_restarted_while_a_configuration_is_applied_gets_it_applied_on_the_next_link(subscribed_ap):
    ap = subscribed_ap
    service = ap.service
    first = {"id": 0, "channel": 1, "bandwidth": 20, "power": 12, "primary-channel": "none"}
    second = {"id": 0, "channel": 11, "bandwidth": 20, "power": 15, "primary-channel": "none"}
    service.send_rrm_info(radios=[first], conn=ap.conn)
    service.restart()

    conn = relinked(service, 2)
    service.send_rrm_info(radios=[second], conn=conn)
    service.send_rrm_request_mode(conn=conn)
    service.wait_for("rrm-mode-response", 2, timeout=TIMEOUT, conn=conn)

    # Whatever the first link managed to apply, the last configuration is what the radio has.
    updates = [e["request"]["params"] for e in networkd_requests(ap.vdev, "update-quillon")
               if e["request"].get("ifname") == "wlan0"]
    assert updates and updates[-1].get("channel") == "11", updates
    state = ap.vdev.radio_state("wlan0")
    assert state["chanspec"] == 0x1000 | 11
    assert state["actual_tx_power"] == 15
    assert ap.orvd.running()
