"""A long send is a live link; a link that takes nothing is not (slow: waits out the 30 s ping
interval and the 60 s ping time-out). The service reads at a rate the test sets."""
import pytest

from harness.programs import wids_config
from harness.slowreader import TEXT, CONTINUATION, SlowReaderServer

MIB = 1024 * 1024


def bus_message(size):
    body = bytes(0x61 + i % 26 for i in range(size - 10))
    return b'{"pad":"' + body + b'"}'


@pytest.fixture
def slow_server():
    made = []

    def make(rate):
        server = SlowReaderServer(rate)
        made.append(server)
        return server

    yield make
    for server in made:
        server.shutdown()


def test_pings_go_out_and_are_answered_between_the_fragments_of_a_long_send(slow_server, make_orvd, make_bus_peer):
    # 12 MiB take about 60 s; the socket buffers hold about 3 MiB of it, so orvd is still
    # writing fragments when its first ping is due at 30 s.
    server = slow_server(rate=200 * 1024)
    peer = make_bus_peer()
    orvd = make_orvd(wids_config(server.port))
    conn = server.wait_connection()
    message = bus_message(12 * MIB)
    peer.send(message)
    deadline = conn.opened + 150
    while not conn.messages:
        assert orvd.running() and conn.closed is None, orvd.log()[-3000:]
        assert len(server.connections) == 1, "the link was dropped during the send"
        assert time_left(deadline) > 0, f"{conn.received_bytes} bytes read, message incomplete"
    finished, got = conn.messages[0]
    assert got == message
    data_frames = [f for f in conn.frames if f[1] in (TEXT, CONTINUATION)]
    assert len(data_frames) > 1 and data_frames[0][1] == TEXT and data_frames[-1][2]
    assert all(length <= 64 * 1024 for _, _, _, length in data_frames)
    # The send took longer than the ping interval: a ping went out among its fragments.
    assert finished - conn.opened > 30
    assert [t for t in conn.pings if t < finished], "no ping during the send"
    assert not orvd.log_lines(r"ping_timeout|There are no \d+ pong")
    assert len(server.connections) == 1


def test_a_service_that_stops_reading_is_dropped_after_the_ping_time_out(slow_server, make_orvd, make_bus_peer):
    server = slow_server(rate=0)
    peer = make_bus_peer()
    orvd = make_orvd(wids_config(server.port))
    first = server.wait_connection()
    peer.send(bus_message(8 * MIB))
    second = server.wait_connection(count=2, timeout=90)
    gone_after = second.opened - first.opened
    orvd.wait_log(r"websock-roaming->ping_timeout:\d+")
    # Dropped by the 60 s ping timer, then a reconnect delay of 1 or 2 s and the 1 s pause.
    assert 60 <= gone_after < 70, gone_after
    print(f"\nstalled link left {gone_after:.1f} s after its handshake")


def time_left(deadline):
    import time

    time.sleep(0.2)
    return deadline - time.monotonic()
