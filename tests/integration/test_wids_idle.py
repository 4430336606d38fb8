"""A link without traffic stays up and is pinged every 30 s (slow: a minute of real time)."""
import time

from harness.programs import wids_config


def test_an_idle_link_stays_up_for_a_minute_and_is_pinged_every_30_seconds(ws_server, make_orvd):
    orvd = make_orvd(wids_config(ws_server.port))
    conn = ws_server.wait_connection()
    time.sleep(65)
    assert orvd.running(), orvd.log()[-3000:]
    assert conn.closed is None
    assert len(ws_server.connections) == 1
    assert not orvd.log_lines(r"Time error")
    pings = [t - conn.opened for t in conn.pings]
    assert len(pings) == 2, pings
    assert 29 <= pings[0] <= 32
    assert 29 <= pings[1] - pings[0] <= 32
    print(f"\nidle link: pings at {[round(p, 1) for p in pings]} s after the handshake")
