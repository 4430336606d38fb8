"""RRM mode end to end, hostapd gone for a while on the real 60-second grace (hence slow): back
within the grace, the agent goes on and reports the radios again; gone for longer, the agent
leaves hostapd and waits for it in its connect loop, while the link to the service stays up;
absent when orvd starts, the agent waits for it in the same loop, however long it takes."""
import time

import pytest

from harness.programs import DEBUG_LOG_LEVEL
from harness.rrm import TIMEOUT, log_times, networkd_requests, wait_requests

# The agent compares whole seconds and checks its markers every 100 ms or so.
SLACK = 1.5
GRACE = 60


@pytest.fixture
def orvd_log_level():
    """At debug level, always: these tests wait out real timers, too long to run twice, and
    they must also pass with every debug line written."""
    return DEBUG_LOG_LEVEL


def stop_hostapd(ap):
    """Stops the emulated hostapd; returns the wall-clock time it went."""
    result = ap.vdev.ctl("hostapd", "stop")
    assert result.returncode == 0, result.stderr.decode()
    return time.time()


def start_hostapd(ap):
    result = ap.vdev.ctl("hostapd", "start")
    assert result.returncode == 0, result.stderr.decode()


def test_hostapd_back_after_30_s_keeps_the_link_and_reports_the_radios_again(subscribed_ap):
    ap = subscribed_ap
    stopped = stop_hostapd(ap)
    ap.orvd.wait_log("Hostapd is not running, waiting for restart", timeout=TIMEOUT)
    time.sleep(max(0.0, stopped + 30 - time.time()))
    start_hostapd(ap)

    changed = ap.wait_for("rrm-config-changed").message
    assert [r["status"] for r in changed["radios"]] == [1, 1]
    assert ap.orvd.log_lines("Hostapd has not restarted") == []
    assert ap.conn.closed is None
    assert len(ap.service.connections) == 1
    # Still subscribed on the same link: the service's messages are answered.
    assert [r["status"] for r in ap.round_trip()["radios"]] == [1, 1]


def test_hostapd_gone_for_more_than_60_s_stops_the_agent_until_it_is_back_on_the_same_link(subscribed_ap):
    ap = subscribed_ap
    resets = len(networkd_requests(ap.vdev, "reset-quillon"))
    stopped = stop_hostapd(ap)

    # Within the grace the agent goes on, but has no radios to describe.
    time.sleep(45)
    assert ap.orvd.log_lines("Hostapd has not restarted") == []
    ap.service.send_rrm_request_mode(conn=ap.conn)
    ap.orvd.wait_log("Ignoring rrm-request-mode because hostapd is not running", timeout=TIMEOUT)

    ap.orvd.wait_log("Hostapd has not restarted", timeout=GRACE - 45 + TIMEOUT)
    gone = log_times(ap.orvd, "Hostapd has not restarted")[0]
    assert GRACE - SLACK <= gone - stopped <= GRACE + 1 + SLACK
    # The agent leaves hostapd: subscribed, it clears what it set on the radios and has networkd
    # reset them; then it waits in its connect loop. The service link is the WebSocket
    # worker's and stays up.
    ap.orvd.wait_log("Disconnected from hostapd", timeout=TIMEOUT)
    reset = wait_requests(ap.vdev, "reset-quillon", resets + 2)[resets:]
    assert [r["request"]["ifname"] for r in reset] == ["wlan0", "wlan1"]
    time.sleep(3)
    assert ap.conn.closed is None and len(ap.service.connections) == 1
    assert len(ap.orvd.log_lines("Connected to hostapd")) == 1

    # What the service sends meanwhile waits for the agent: neither answered nor ignored yet.
    asked = ap.count("rrm-mode-response")
    ignored = len(ap.orvd.log_lines("Ignoring rrm-request-mode"))
    ap.service.send_rrm_request_mode(conn=ap.conn)
    time.sleep(2)
    assert ap.count("rrm-mode-response") == asked
    assert len(ap.orvd.log_lines("Ignoring rrm-request-mode")) == ignored

    start_hostapd(ap)
    ap.orvd.wait_log("Connected to hostapd", count=2, timeout=TIMEOUT)
    changed = ap.wait_for("rrm-config-changed").message
    assert [r["status"] for r in changed["radios"]] == [1, 1]
    # The waiting request is handled once the agent is back: answered, or ignored when it comes
    # before the start notice is read.
    def handled():
        return ap.count("rrm-mode-response") + len(ap.orvd.log_lines("Ignoring rrm-request-mode"))

    deadline = time.monotonic() + TIMEOUT
    while handled() < asked + ignored + 1 and time.monotonic() < deadline:
        time.sleep(0.05)
    assert handled() == asked + ignored + 1
    assert [r["status"] for r in ap.round_trip()["radios"]] == [1, 1]
    assert ap.conn.closed is None and len(ap.service.connections) == 1


def test_hostapd_absent_for_30_s_at_start_up_the_daemon_waits_and_subscribes_once_it_starts(make_ap):
    ap = make_ap(hostapd=False)
    ap.service.answer_subscribe("success")
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    connected = time.monotonic()

    # The agent waits in its connect loop three times as long as the clock guard allows
    # between two readings of a worker's clock.
    time.sleep(30)
    assert ap.orvd.running(), f"orvd ended with {ap.orvd.proc.returncode}:\n{ap.orvd.log()[-3000:]}"
    assert ap.orvd.log_lines("Connected to hostapd") == []
    assert ap.count("subscribe-request") == 0
    assert ap.conn.closed is None

    start_hostapd(ap)
    ap.orvd.wait_log("Connected to hostapd", timeout=TIMEOUT)
    # The first reading of the clock after the wait is the one that would end the process.
    deadline = time.monotonic() + TIMEOUT
    while ap.count("subscribe-request") == 0:
        assert ap.orvd.running(), f"orvd ended with {ap.orvd.proc.returncode}:\n{ap.orvd.log()[-3000:]}"
        assert time.monotonic() < deadline, "no subscribe-request once hostapd started"
        time.sleep(0.05)
    request = ap.wait_for("subscribe-request")
    assert request.time - connected >= 30
    assert [r["status"] for r in request.message["radios"]] == [1, 1]
    ap.service.wait_sent("subscribe-response", conn=ap.conn)
    assert [r["status"] for r in ap.round_trip()["radios"]] == [1, 1]
    assert ap.orvd.running()
    assert len(ap.service.connections) == 1
