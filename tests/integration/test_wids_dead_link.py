"""A service that keeps the TCP connection but stops answering pings is detected (slow)."""
from harness.programs import wids_config


def test_a_service_that_swallows_pings_is_dropped_and_reconnected(ws_server, make_orvd):
    ws_server.swallow_pings = True
    orvd = make_orvd(wids_config(ws_server.port))
    conn = ws_server.wait_connection()
    closed = ws_server.wait_closed(conn, timeout=130)
    detection = closed - conn.opened
    pings = [round(t - conn.opened, 1) for t in conn.pings]
    assert len(pings) == 3, pings
    orvd.wait_log(r"websock-roaming->There are no 3 pong answer in a row from server")
    # Every ping counted as sent: the library reports the frame bytes it wrote.
    assert len(orvd.log_lines(r"Send msg type \[5\] len \[[1-9]\d*/0\]")) >= 3
    ws_server.swallow_pings = False
    second = ws_server.wait_connection(count=2, timeout=15)
    assert second.closed is None
    print(f"\ndead link: pings at {pings} s, dropped {detection:.1f} s after the handshake "
          f"({closed - conn.pings[-1]:.2f} s after the third unanswered ping)")
