"""WIDS mode end to end: 1,000 messages each way in bursts (slow: one message per service
round towards the service)."""
import json

from harness.programs import wids_config

BURSTS = 10
PER_BURST = 100


def is_notice(message):
    try:
        document = json.loads(message)
    except ValueError:
        return False
    return isinstance(document, dict) and document.get("service") == "internal-ipc"


def bus_payload(i):
    if i % 10 == 7:
        return b""  # empty messages pass from the bus too
    body = f'{{"seq":{i},"text":"wids \\u00e9v\\u00e9nement {i}","pad":"{"z" * (i % 300)}"}}'
    return body.encode()


def service_text(i):
    return f'{{"seq":{i},"roam":"station-{i:04d}","note":"\u00fcber {"q" * (i % 500)}"}}'


def test_a_thousand_messages_each_way_arrive_once_in_order_byte_for_byte(ws_server, make_orvd, make_bus_peer):
    peer = make_bus_peer()
    # At debug level like the rest of WIDS mode: every message is dumped on its way through.
    orvd = make_orvd(wids_config(ws_server.port))
    conn = ws_server.wait_connection()
    peer.receive_until(lambda m: is_notice(m))

    sent_to_bus = []
    for burst in range(BURSTS):
        texts = [service_text(burst * PER_BURST + i) for i in range(PER_BURST)]
        for text in texts:
            ws_server.send(text, conn)
        sent_to_bus += texts
    received = []
    while len(received) < len(sent_to_bus):
        message = peer.receive(timeout=30)
        if not is_notice(message):
            received.append(message)
    assert received == [t.encode() for t in sent_to_bus]

    sent_to_service = []
    for burst in range(BURSTS):
        payloads = [bus_payload(burst * PER_BURST + i) for i in range(PER_BURST)]
        peer.send_many(payloads)
        sent_to_service += payloads
        ws_server.wait_messages(len(sent_to_service), timeout=120, conn=conn)
    assert [m.encode() for m in ws_server.messages(conn)] == sent_to_service
    assert orvd.running()
    assert len(ws_server.connections) == 1
