"""RRM mode end to end, subscription retries on their real timers (30 s and more, hence slow):
a service that does not answer, one that answers without a status (during the 30, 60 and
120 s intervals), one that is busy (503) and one that refuses. hostapd is stopped before orvd
starts, so that each link carries exactly one request before any retry: the one sent once
hostapd has started."""
import time

import pytest

from harness.programs import DEBUG_LOG_LEVEL
from harness.rrm import TIMEOUT

# Timers count whole seconds and the agent's loop turns every 100 ms: an interval of N seconds
# ends after a little more than N - 1 of them.
SLACK = 1.5


@pytest.fixture
def orvd_log_level():
    """At debug level, always: these tests wait out real timers, too long to run twice, and
    they must also pass with every debug line written."""
    return DEBUG_LOG_LEVEL


def start_hostapd(ap):
    result = ap.vdev.ctl("hostapd", "start")
    assert result.returncode == 0, result.stderr.decode()


def first_request_left_unanswered(make_ap):
    """orvd linked to a silent service, hostapd started: the access point and its first
    subscribe-request."""
    ap = make_ap(hostapd=False)
    ap.service.answer_subscribe("silent")
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    start_hostapd(ap)
    return ap, ap.wait_for("subscribe-request")


def test_a_request_without_an_answer_or_answered_without_a_status_is_repeated_after_30_s(make_ap):
    ap, first = first_request_left_unanswered(make_ap)
    # An answer without "status" is no answer: the retry timer keeps running.
    ap.service.send("subscribe-response", {"code": 200, "domain": "not-taken"}, conn=ap.conn)
    ap.service.answer_subscribe("success")

    second = ap.wait_for("subscribe-request", n=2, timeout=30 + 30)
    assert second.time - first.time >= 30 - SLACK
    assert [r["status"] for r in second.message["radios"]] == [1, 1]
    ap.service.wait_sent("subscribe-response", n=2, conn=ap.conn)
    assert ap.round_trip()["domain"] == "default-rrm-domain"


def sleep_until(monotonic):
    time.sleep(max(0.0, monotonic - time.monotonic()))


def test_answers_without_a_status_leave_the_60_s_and_120_s_intervals_running_from_their_request(make_ap):
    ap, first = first_request_left_unanswered(make_ap)
    second = ap.wait_for("subscribe-request", n=2, timeout=30 + 30)
    assert 30 - SLACK <= second.time - first.time <= 30 + SLACK

    # 40 s into the 60 s interval: an interval started afresh would end 100 s after the request.
    sleep_until(second.time + 40)
    ap.service.send("subscribe-response", {"code": 200, "domain": "not-taken"}, conn=ap.conn)
    ap.round_trip()  # handled before the retry is due
    # Waited for long enough to see a restarted interval end too.
    third = ap.wait_for("subscribe-request", n=3, timeout=60 + 30)
    assert 60 - SLACK <= third.time - second.time <= 60 + SLACK

    # 50 s into the 120 s interval: afresh, it would end 170 s after the request.
    sleep_until(third.time + 50)
    ap.service.send("subscribe-response", {"code": 200}, conn=ap.conn)
    ap.round_trip()
    ap.service.answer_subscribe("success")
    fourth = ap.wait_for("subscribe-request", n=4, timeout=120 + 30)
    assert 120 - SLACK <= fourth.time - third.time <= 120 + SLACK
    # The two answers without a status, then the success.
    ap.service.wait_sent("subscribe-response", n=3, conn=ap.conn)
    assert ap.round_trip()["domain"] == "default-rrm-domain"
    assert ap.count("subscribe-request") == 4


def test_a_busy_service_is_asked_again_after_60_s(make_ap):
    ap = make_ap(hostapd=False)
    ap.service.answer_subscribe("success")
    ap.service.queue_subscribe_answers("busy")
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    start_hostapd(ap)
    first = ap.wait_for("subscribe-request")
    ap.orvd.wait_log("Reconnect after 60 sec", timeout=TIMEOUT)

    second = ap.wait_for("subscribe-request", n=2, timeout=60 + 30)
    assert second.time - first.time >= 60 - SLACK
    ap.service.wait_sent("subscribe-response", n=2, conn=ap.conn)
    assert all("assoclist" not in radio for radio in ap.round_trip()["radios"])
    assert ap.count("subscribe-request") == 2


def test_a_refusal_ends_the_requests_until_the_link_comes_up_again(make_ap):
    ap = make_ap(hostapd=False)
    ap.service.answer_subscribe("success")
    ap.service.queue_subscribe_answers("refuse")
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    start_hostapd(ap)
    ap.wait_for("subscribe-request")
    ap.service.wait_sent("subscribe-response", conn=ap.conn)

    # Past the 30 s a silent service would have waited, no request comes.
    time.sleep(30 + 2 * SLACK)
    assert ap.count("subscribe-request") == 1
    assert ap.conn.closed is None

    ap.service.stop()
    ap.service.wait_closed(ap.conn, timeout=TIMEOUT)
    ap.service.start()
    ap.conn = ap.service.wait_connection(count=2, timeout=TIMEOUT)
    request = ap.wait_for("subscribe-request").message
    assert [r["status"] for r in request["radios"]] == [1, 1]
    ap.service.wait_sent("subscribe-response", conn=ap.conn)
    assert all("assoclist" not in radio for radio in ap.round_trip()["radios"])
