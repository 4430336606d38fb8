"""WIDS mode with the largest messages each way: the bus carries up to 16 MiB, and orvd takes
up to 16 MiB from the service; a longer message from the service is dropped, the link kept."""
import time

from harness.programs import wids_config

MIB = 1024 * 1024
LIMIT = 16 * MIB  # the longest message orvd takes from the service


def is_notice(message):
    return b'"internal-ipc"' in message[:80]


def payload(size, seed):
    """JSON text of exactly `size` bytes whose content depends on the seed."""
    head = f'{{"seq":{seed},"pad":"'.encode()
    tail = b'"}'
    body = bytes(0x41 + (seed + i) % 26 for i in range(64)) * ((size - len(head) - len(tail)) // 64 + 1)
    return head + body[: size - len(head) - len(tail)] + tail


def linked(ws_server, make_orvd, make_bus_peer):
    peer = make_bus_peer()
    orvd = make_orvd(wids_config(ws_server.port))
    conn = ws_server.wait_connection()
    peer.receive_until(is_notice)
    return peer, orvd, conn


def test_messages_up_to_16_mib_pass_both_ways_byte_for_byte(ws_server, make_orvd, make_bus_peer):
    peer, orvd, conn = linked(ws_server, make_orvd, make_bus_peer)
    for n, size in enumerate((MIB, LIMIT)):
        text = payload(size, n)
        started = time.monotonic()
        ws_server.send(text.decode(), conn)
        assert peer.receive_until(lambda m: not is_notice(m), timeout=60) == text
        to_bus = time.monotonic() - started

        data = payload(size, n + 10)
        started = time.monotonic()
        peer.send(data)
        got = ws_server.wait_messages(n + 1, timeout=60, conn=conn)[n]
        to_service = time.monotonic() - started
        assert got.encode() == data
        print(f"\n{size // MIB} MiB: service -> bus {to_bus:.2f} s, bus -> service {to_service:.2f} s")
    assert len(ws_server.connections) == 1
    assert orvd.running()


def test_a_message_longer_than_16_mib_is_dropped_with_an_error_and_the_link_kept(
    ws_server, make_orvd, make_bus_peer
):
    peer, orvd, conn = linked(ws_server, make_orvd, make_bus_peer)
    ws_server.send(payload(LIMIT + 1, 1).decode(), conn)
    ws_server.send('{"after":"the long one"}', conn)
    assert peer.receive_until(lambda m: not is_notice(m), timeout=60) == b'{"after":"the long one"}'
    orvd.wait_log(r"error: websock-roaming->process_client_receive: message longer than 16777216 bytes dropped")
    assert len(ws_server.connections) == 1
    assert orvd.running()
