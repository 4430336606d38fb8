"""A service that crashes again and again: each time the TCP link is reset without a close
frame and nobody listens for a moment. orvd must link and subscribe again every time, answer on
the new link, and keep neither descriptors nor memory of the links it lost."""
import statistics
import time

from faultlib import report, sanitized, settled_figures
from harness.rrm import TIMEOUT

CRASHES = 30
WARM_UP = 5  # crashes before the first figures: the allocator's pools fill on the first ones
GROWTH_KIB = 64  # private dirty memory 25 crashes may add


def crash_and_relink(service, conn, number, down=0.5):
    """The service dies (link reset, listener gone), comes back after `down` seconds, and
    accepts orvd's new subscription; returns the new link and the seconds from crash to the
    subscription answered."""
    crashed = time.monotonic()
    service.abort(conn)
    service.stop()
    time.sleep(down)
    service.start()
    new = service.wait_connection(number, timeout=TIMEOUT)
    service.wait_for("subscribe-request", 1, timeout=TIMEOUT, conn=new)
    service.wait_sent("subscribe-response", 1, timeout=TIMEOUT, conn=new)
    relinked = time.monotonic() - crashed
    # Once it answers, orvd has handled the subscription.
    service.send_rrm_request_mode(conn=new)
    service.wait_for("rrm-mode-response", 1, timeout=TIMEOUT, conn=new)
    return new, relinked


def test_thirty_service_crashes_leave_orvd_subscribed_without_growing(subscribed_ap):
    ap = subscribed_ap
    service, conn = ap.service, ap.conn
    pid = ap.orvd.proc.pid
    before = settled_figures(pid)

    times = []
    warm = None
    for number in range(2, CRASHES + 2):
        conn, relinked = crash_and_relink(service, conn, number, down=(number % 4) * 0.25)
        times.append(relinked)
        if number == WARM_UP + 1:
            warm = settled_figures(pid)
    after = settled_figures(pid)

    report(
        f"{CRASHES} service crashes",
        relink_median_s=f"{statistics.median(times):.2f}",
        relink_longest_s=f"{max(times):.2f}",
        before=before,
        after_warm_up=warm,
        after=after,
    )
    assert ap.orvd.running()
    assert len(service.connections) == CRASHES + 1
    # One line when the link goes, and one more from each new connection attempt.
    assert len(ap.orvd.log_lines("Disconnected from RRM service")) >= CRASHES
    assert after.descriptors == before.descriptors
    if not sanitized():
        assert after.private_dirty - warm.private_dirty <= GROWTH_KIB, (warm, after)
