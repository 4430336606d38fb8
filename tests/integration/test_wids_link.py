"""WIDS mode against a real WebSocket service and a real bus peer playing widsd (module 3)."""
import json
import queue
import time

import pytest

from harness.programs import wids_config

CONNECTED = {"version": "2.2", "service": "internal-ipc", "cmd": "connected"}
DISCONNECTED = {"version": "2.2", "service": "internal-ipc", "cmd": "disconnected"}


def is_notice(message, notice):
    try:
        return json.loads(message) == notice
    except ValueError:
        return False


def not_a_notice(message):
    return not is_notice(message, CONNECTED) and not is_notice(message, DISCONNECTED)


class DisconnectedNotices:
    """Tells the "disconnected" notices on the bus apart by counting them against orvd's log.

    The worker posts one at each connect attempt just before its "Delay before connection"
    line, and one at each disconnect just after its "->Stopping" line. Any more are answers to
    "status" questions. Both logged lines are info lines of orvd's own, so debug lines between
    them do not matter.
    """

    CONNECT_ATTEMPT = r" info: Delay before connection: \d+ sec$"
    DISCONNECT = r" info: websock-roaming->Stopping$"

    def __init__(self, orvd, peer, logged_before=None):
        """Counts from now on; `logged_before` is what the log held when the peer started
        listening (0 and 0 for an orvd started after the peer), else the log of this moment."""
        self.orvd = orvd
        self.peer = peer
        self.start = self.logged() if logged_before is None else logged_before
        self.received = 0

    def logged(self):
        """(connect attempts, disconnects) in the log so far."""
        return (len(self.orvd.log_lines(self.CONNECT_ATTEMPT)), len(self.orvd.log_lines(self.DISCONNECT)))

    def since_start(self, logged):
        return (logged[0] - self.start[0], logged[1] - self.start[1])

    def expect_answers(self, answers, timeout=15):
        """Waits until the notices received since the start are exactly one per connect attempt
        and disconnect logged since then, plus `answers`; fails when they never are."""
        deadline = time.monotonic() + timeout
        while True:
            before = self.logged()
            while True:  # everything on its way, until the bus has been quiet for 0.3 s
                try:
                    message = self.peer.receive(timeout=0.3)
                except queue.Empty:
                    break
                self.received += is_notice(message, DISCONNECTED)
            after = self.logged()
            attempts, disconnects = self.since_start(after)
            if before == after and self.received == attempts + disconnects + answers:
                return
            if time.monotonic() > deadline:
                raise AssertionError(
                    f"{self.received} 'disconnected' notices for {attempts} connect attempts, "
                    f"{disconnects} disconnects and {answers} status answers:\n{self.orvd.log()[-3000:]}"
                )


@pytest.fixture
def linked(ws_server, make_orvd, make_bus_peer):
    """orvd connected to the service, with widsd played by a bus peer."""
    peer = make_bus_peer()
    orvd = make_orvd(wids_config(ws_server.port))
    conn = ws_server.wait_connection()
    peer.receive_until(lambda m: is_notice(m, CONNECTED))
    return orvd, peer, conn


def test_handshake_uses_the_configured_host_port_path_and_protocol(ws_server, make_orvd):
    make_orvd(wids_config(ws_server.port, path="/roam/v1"))
    conn = ws_server.wait_connection()
    assert conn.path == "/roam/v1"
    assert conn.headers["Host"].split(":")[0] == "127.0.0.1"
    offered = [p.strip() for p in conn.headers["Sec-WebSocket-Protocol"].split(",")]
    assert offered == ["websock-roaming"]
    assert conn.subprotocol == "websock-roaming"


def test_the_bus_side_hears_disconnected_before_and_connected_after_the_handshake(
    ws_server, make_orvd, make_bus_peer
):
    peer = make_bus_peer()
    make_orvd(wids_config(ws_server.port))
    first = peer.receive()
    assert json.loads(first) == DISCONNECTED
    assert first == b'{"version":"2.2","service":"internal-ipc","cmd":"disconnected"}'
    peer.receive_until(lambda m: is_notice(m, CONNECTED))


def test_text_passes_both_ways_byte_for_byte(ws_server, linked):
    orvd, peer, conn = linked
    texts = ['{"cmd":"probe","n":1}', "plain text", "ünïcödé ✓ \t tab", "x" * 5000]
    for text in texts:
        ws_server.send(text, conn)
    for text in texts:
        assert peer.receive_until(not_a_notice) == text.encode()

    payloads = [b'{"cmd":"report"}', "ünïcödé".encode(), b"line\nbreak", b"y" * 7000]
    peer.send_many(payloads)
    got = ws_server.wait_messages(len(payloads), conn=conn)
    assert [m.encode() for m in got] == payloads


def test_a_message_in_many_fragments_arrives_whole_and_once(ws_server, linked):
    orvd, peer, conn = linked
    pieces = [f"<{i:03d}>" for i in range(60)]
    ws_server.send_fragments(pieces, conn)  # ends with an empty final frame
    ws_server.send("after", conn)
    assert peer.receive_until(not_a_notice) == "".join(pieces).encode()
    assert peer.receive_until(not_a_notice) == b"after"


def test_a_non_empty_final_fragment_completes_the_message(ws_server, linked):
    orvd, peer, conn = linked
    ws_server.send_frames([(False, "TEXT", b"ab"), (False, "CONT", b"cd"), (True, "CONT", b"ef")], conn)
    assert peer.receive_until(not_a_notice) == b"abcdef"


def test_a_zero_length_final_fragment_after_earlier_pieces_delivers_them(ws_server, linked):
    orvd, peer, conn = linked
    ws_server.send_frames([(False, "TEXT", b"first-"), (False, "CONT", b"second"), (True, "CONT", b"")], conn)
    assert peer.receive_until(not_a_notice) == b"first-second"


def test_a_message_of_256_kib_arrives_whole_in_both_directions(ws_server, linked):
    orvd, peer, conn = linked
    big = "".join(chr(0x21 + i % 90) for i in range(256 * 1024))
    ws_server.send(big, conn)
    assert peer.receive_until(not_a_notice, timeout=20) == big.encode()
    peer.send(big.encode())
    got = ws_server.wait_messages(1, timeout=20, conn=conn)
    assert got == [big]


def test_an_empty_message_from_the_bus_reaches_the_service_as_an_empty_message(ws_server, linked):
    orvd, peer, conn = linked
    peer.send_many([b"before", b"", b"after"])
    assert ws_server.wait_messages(3, conn=conn) == ["before", "", "after"]


def test_an_empty_message_from_the_service_is_dropped(ws_server, linked):
    orvd, peer, conn = linked
    ws_server.send("", conn)
    ws_server.send("next", conn)
    assert peer.receive_until(not_a_notice) == b"next"
    orvd.wait_log(r"websock-roaming->process_client_receive: can't receive message")


def test_a_message_queued_while_disconnected_is_never_sent_unless_internal(ws_server, make_orvd, make_bus_peer):
    port = ws_server.port
    ws_server.stop()  # nothing listens: the worker waits in its reconnect cycle
    peer = make_bus_peer()
    orvd = make_orvd(wids_config(port))
    orvd.wait_log(r"Delay before connection")
    notices = DisconnectedNotices(orvd, peer, logged_before=(0, 0))
    peer.send(b'{"stale":"report"}')
    peer.send(b'{"service":"internal-ipc","cmd":"status"}')
    # Both are taken from the queue during the delay: the status question is answered with a
    # "disconnected" of its own, beside the one of each connect attempt; the report is dropped.
    orvd.wait_log(r"websock-roaming->From queue", count=2)
    notices.expect_answers(1)

    from harness.wsserver import WsServer

    server = WsServer(port=port).start()
    try:
        conn = server.wait_connection(timeout=20)
        peer.receive_until(lambda m: is_notice(m, CONNECTED))
        peer.send(b"fresh")
        assert server.wait_messages(1, conn=conn) == ["fresh"]
        time.sleep(0.5)
        assert server.messages() == ["fresh"]
    finally:
        server.shutdown()


def test_status_is_answered_with_the_link_state(ws_server, linked):
    orvd, peer, conn = linked
    peer.send(b'{"service":"INTERNAL-IPC","cmd":"Status"}')
    assert json.loads(peer.receive()) == CONNECTED
    time.sleep(0.3)
    assert ws_server.messages(conn) == []  # internal messages never reach the service


def test_unlink_stops_every_further_connection_but_status_is_still_answered(ws_server, linked):
    orvd, peer, conn = linked
    notices = DisconnectedNotices(orvd, peer)
    peer.send(b'{"service":"internal-ipc","cmd":"unlink"}')
    ws_server.wait_closed(conn, timeout=5)
    # The link is left at once: one disconnect, with its own "disconnected" beside the ones of
    # the connect attempts that follow.
    orvd.wait_log(DisconnectedNotices.DISCONNECT, count=notices.start[1] + 1)
    notices.expect_answers(0)
    # With delays 0/0 a reconnect would come within about 4 s.
    time.sleep(6)
    assert len(ws_server.connections) == 1
    # Still answered during the delays of the attempts that never connect.
    peer.send(b'{"service":"internal-ipc","cmd":"status"}')
    notices.expect_answers(1)
    assert notices.since_start(notices.logged())[1] == 1  # no disconnect after the first
    assert len(ws_server.connections) == 1
    assert orvd.running()


def test_the_service_closing_the_link_leads_to_a_reconnect(ws_server, linked):
    orvd, peer, conn = linked
    ws_server.close(conn)
    peer.receive_until(lambda m: is_notice(m, DISCONNECTED))
    second = ws_server.wait_connection(count=2, timeout=15)
    peer.receive_until(lambda m: is_notice(m, CONNECTED))
    ws_server.send("again", second)
    assert peer.receive_until(not_a_notice) == b"again"


@pytest.mark.parametrize("phase", ["connecting", "delay", "connected"])
def test_sigterm_ends_the_process_with_0_in_under_2_seconds(phase, ws_server, silent_server, make_orvd, make_bus_peer):
    make_bus_peer()
    if phase == "connecting":
        orvd = make_orvd(wids_config(silent_server.port))
        orvd.wait_log(r"websock-roaming->Connected")
        time.sleep(0.5)
    elif phase == "delay":
        orvd = make_orvd(wids_config(ws_server.port, initial=20, maximum=20))
        orvd.wait_log(r"Delay before connection")
        time.sleep(0.5)
    else:
        orvd = make_orvd(wids_config(ws_server.port))
        ws_server.wait_connection()
        orvd.wait_log(r"Connection established")
    status, seconds = orvd.terminate()
    assert status == 0
    assert seconds < 2.0
    orvd.wait_log(r"orvd_handle_signal: TERM")


def test_sigint_ends_the_process_with_0(ws_server, make_orvd):
    import signal

    orvd = make_orvd(wids_config(ws_server.port))
    ws_server.wait_connection()
    status, seconds = orvd.terminate(signal.SIGINT)
    assert status == 0
    assert seconds < 2.0
