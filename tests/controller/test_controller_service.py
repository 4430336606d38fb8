"""The reference service on loopback with a real WebSocket client in the place of orvd."""
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import types

import pytest
import websockets

import samples
from client import Client
from sim.controller import policy, schema_check
from sim.controller.service import RrmService, SubscribeAnswer, update_body

REPO = pathlib.Path(__file__).resolve().parents[2]


@pytest.fixture
def service():
    running = RrmService().start()
    yield running
    running.shutdown()


@pytest.fixture
def connect(service):
    made = []

    def make(path="/rrm", subprotocols=("websock-rrm",)):
        client = Client(service.url(path), subprotocols)
        made.append(client)
        return client

    yield make
    for client in made:
        client.close()


def subscribe(client, factory=samples.FACTORY):
    client.send(samples.subscribe_request(factory))


# -- handshakes and subscription answers ------------------------------------------------------


def test_the_handshake_is_recorded_with_its_path_and_subprotocol(service, connect):
    client = connect("/rrm")
    conn = service.wait_connection()
    assert client.subprotocol == "websock-rrm"
    assert conn.path == "/rrm" and conn.subprotocol == "websock-rrm"
    shake = service.wait_handshakes(1)
    assert shake.path == "/rrm" and shake.subprotocols == ["websock-rrm"] and shake.refused is None


def test_a_successful_subscription_is_answered_at_once(service, connect):
    client = connect()
    subscribe(client)
    answer = client.recv()
    assert answer == {"version": "2.2", "service": "rrm", "cmd": "subscribe-response", "status": "success"}
    conn = service.wait_connection()
    assert conn.subscribed
    assert conn.ap.ap_mac == samples.FACTORY["mac"] and conn.ap.serial == samples.FACTORY["serial"]


def test_a_success_can_carry_a_domain_and_a_configuration(service, connect):
    config = {"use-tpc": 1, "use-dca": 1, "radios": [{"id": 0, "channel": 11, "bandwidth": 20, "power": 15}]}
    service.answer_subscribe("success", domain="site-7", config=config)
    client = connect()
    subscribe(client)
    answer = client.recv()
    assert list(answer) == ["version", "service", "cmd", "status", "domain", "config"]
    assert answer["domain"] == "site-7" and answer["config"] == config


@pytest.mark.parametrize(
    "mode, options, expected",
    [
        ("busy", {}, {"status": "fail", "code": 503}),
        ("refuse", {}, {"status": "fail", "code": 403}),
        ("refuse", {"code": 401}, {"status": "fail", "code": 401}),
        ("success", {"status": "SUCCESS"}, {"status": "SUCCESS"}),
    ],
)
def test_refusals_carry_status_fail_and_their_code(service, connect, mode, options, expected):
    service.answer_subscribe(mode, **options)
    client = connect()
    subscribe(client)
    answer = client.recv()
    assert answer == {"version": "2.2", "service": "rrm", "cmd": "subscribe-response", **expected}
    assert service.wait_connection().subscribed is (mode == "success")


def test_a_silent_service_leaves_the_request_unanswered_until_told_otherwise(service, connect):
    service.answer_subscribe("silent")
    client = connect()
    subscribe(client)
    service.wait_for("subscribe-request")
    assert client.nothing_within(0.3)
    service.answer_subscribe("success")
    subscribe(client)
    assert client.recv()["status"] == "success"


def test_queued_answers_come_first_then_the_standing_one(service, connect):
    service.queue_subscribe_answers("busy", SubscribeAnswer("refuse", code=400))
    client = connect()
    codes = []
    for _ in range(3):
        subscribe(client)
        codes.append(client.recv().get("code"))
    assert codes == [503, 400, None]


def test_the_answer_version_can_be_changed_or_left_out(service, connect):
    client = connect()
    service.answer_subscribe("success", version="2.1")
    subscribe(client)
    assert client.recv()["version"] == "2.1"
    service.answer_subscribe("success", version=None)
    subscribe(client)
    assert "version" not in client.recv()


# -- commands ----------------------------------------------------------------------------------


def test_rrm_update_goes_out_in_the_protocols_envelope(service, connect):
    client = connect()
    service.wait_connection()
    service.send_rrm_update(delay=5, driver_scan=1, channels="1 6 11 36 40")
    text = client.recv_text()
    assert json.loads(text) == {"version": "2.2", "service": "rrm", "cmd": "rrm-update", "rrm-scan-delay": 5,
                                "vorna-rrm-scanning": 1, "rrm-scan-channels": "1 6 11 36 40"}
    assert text.startswith('{"version": "2.2", "service": "rrm", "cmd": "rrm-update"')


def test_rrm_info_request_mode_fbt_info_and_raw_text_are_sent_as_given(service, connect):
    client = connect()
    service.wait_connection()
    radios = [{"id": 1, "channel": 44, "bandwidth": 80, "power": 18, "primary-channel": "lower"}]
    dot11k = [{"neighbour-mac": "00:11:22:33:44:50", "channel": 36, "vaps": [{"id": 0, "ssid": "Orion-Corp-5G"}]}]
    service.send_rrm_info(use_80211r=1, radios=radios, dot11k=dot11k)
    info = client.recv()
    assert list(info) == ["version", "service", "cmd", "use-tpc", "use-dca", "use-80211r", "radios", "802dot11k"]
    assert info["radios"] == radios and info["802dot11k"] == dot11k

    service.send_rrm_request_mode()
    assert client.recv() == {"version": "2.2", "service": "rrm", "cmd": "rrm-request-mode"}

    vaps = [{"vap_id": 1, "radio_id": 1, "fbt-rrb-key": "00112233445566778899aabbccddeeff",
             "remotes": [{"remote-r1-kh-id": "A4:5E:60:00:20:11", "remote-r0-kh-id": "VX31B0099999",
                          "remote-r1-kh-key": "ffeeddccbbaa99887766554433221100"}]}]
    service.send_fbt_info(vaps, reassoc_deadline=2000, over_ds=0)
    fbt = client.recv()
    assert (fbt["cmd"], fbt["fbt-reassoc-deadline"], fbt["fbt-over-ds"], fbt["vaps"]) == ("fbt-info", 2000, 0, vaps)

    service.send_raw("not json at all")
    assert client.recv_text() == "not json at all"
    service.send("RRM-INFO", {"use-tpc": 0}, version="2.1")
    assert client.recv() == {"version": "2.1", "service": "rrm", "cmd": "RRM-INFO", "use-tpc": 0}
    service.version = "3.0"
    service.send_rrm_request_mode()
    assert client.recv()["version"] == "3.0"
    assert [m and m["cmd"] for m in service.sent()] == [
        "rrm-info", "rrm-request-mode", "fbt-info", None, "RRM-INFO", "rrm-request-mode"]
    assert len(service.sent("rrm-request-mode")) == 2


def test_sending_without_a_connection_fails_loudly(service):
    with pytest.raises(AssertionError, match="no open connection"):
        service.send_rrm_request_mode()


# -- recording ---------------------------------------------------------------------------------


def test_every_message_is_recorded_with_text_parsed_form_time_and_check(service, connect):
    client = connect()
    before = time.monotonic()
    subscribe(client)
    client.recv()
    client.send("{broken")
    client.send(samples.rrm_response(samples.default_radios(), [samples.heard("02:00:00:00:00:01", -60, 6)]))
    client.send({"version": "2.2", "service": "rrm", "cmd": "RRM-MODE-RESPONSE", "domain": "d", "radios": []})
    mode = service.wait_for("rrm-mode-response")
    conn = service.wait_connection()
    received = service.received(conn=conn)
    assert [r.cmd for r in received] == ["subscribe-request", None, "rrm-response", "rrm-mode-response"]
    assert received[0].message == samples.subscribe_request()
    assert json.loads(received[0].text) == received[0].message
    assert received[1].message is None and received[1].schema == schema_check.NOT_JSON
    assert before <= received[0].time <= received[1].time <= mode.time
    for r in received[:1] + received[2:]:
        assert r.schema in (schema_check.VALID, schema_check.INVALID, schema_check.MISSING)
    assert mode.message["cmd"] == "RRM-MODE-RESPONSE"
    assert service.wait_for("rrm-response", 1, conn=conn) is received[2]
    with pytest.raises(AssertionError, match="no rrm-response #2"):
        service.wait_for("rrm-response", 2, timeout=0.1)


@pytest.fixture
def fake_checker(tmp_path, monkeypatch):
    """A stand-in for protocol/schema.py: a subscribe-request without "domain" is invalid and
    only subscribe-request has a schema file."""
    (tmp_path / "schemas").mkdir()
    (tmp_path / "schemas" / "subscribe-request.schema.json").write_text("{}")

    def validate(message):
        return [] if "domain" in message else ["'domain' is a required property"]

    module = types.SimpleNamespace(schema_name=lambda message: str(message.get("cmd", "")).lower(),
                                   validate=validate, load_schemas=lambda: {})
    monkeypatch.setattr(schema_check, "PROTOCOL_DIR", tmp_path)
    monkeypatch.setattr(schema_check, "_module", module)
    return module


def test_schema_errors_are_kept_with_the_message(service, connect, fake_checker):
    client = connect()
    subscribe(client)
    bad = samples.subscribe_request()
    del bad["domain"]
    client.send(bad)
    client.send({"version": "2.2", "service": "rrm", "cmd": "rrm-mode-response", "domain": "d", "radios": []})
    service.wait_for("rrm-mode-response")
    first, second = service.received("subscribe-request")
    assert (first.schema, first.errors) == (schema_check.VALID, [])
    assert (second.schema, second.errors) == (schema_check.INVALID, ["'domain' is a required property"])
    mode = service.received("rrm-mode-response")[0]
    assert mode.schema == schema_check.MISSING and "rrm-mode-response.schema.json" in mode.errors[0]
    assert service.schema_problems() == [(1, "subscribe-request", schema_check.INVALID, ["'domain' is a required property"])]
    assert len(service.schema_problems(include_missing=True)) == 2


def test_without_the_checker_every_message_is_recorded_as_schema_missing(service, connect, tmp_path, monkeypatch):
    monkeypatch.setattr(schema_check, "PROTOCOL_DIR", tmp_path)
    monkeypatch.setattr(schema_check, "_module", None)
    client = connect()
    subscribe(client)
    received = service.wait_for("subscribe-request")
    assert received.schema == schema_check.MISSING
    assert service.schema_problems() == []


needs_schemas = pytest.mark.skipif(not (REPO / "protocol" / "schema.py").is_file(),
                                   reason="protocol/schema.py is not there yet")


@needs_schemas
def test_messages_like_orvds_pass_the_repositorys_schemas():
    for message in (samples.subscribe_request(),
                    samples.rrm_response(samples.default_radios(), [samples.heard("02:00:00:00:00:01", -60, 6)])):
        status, errors = schema_check.check(message)
        assert status in (schema_check.VALID, schema_check.MISSING), errors
    moved = samples.subscribe_request()
    moved["radios"][0] = {"status": 1, **{k: v for k, v in moved["radios"][0].items() if k != "status"}}
    status, errors = schema_check.check(moved)
    assert status == schema_check.INVALID and "order" in errors[0]


@needs_schemas
def test_what_the_service_sends_passes_the_repositorys_schemas():
    peer = policy.AccessPoint(samples.PEER_FACTORY["mac"], samples.PEER_FACTORY["serial"],
                              samples.default_radios("a4:5e:60:00:20"))
    plan = policy.plan(samples.rrm_response(samples.default_radios(), [samples.heard("02:00:00:00:00:01", -50, 6)]),
                       peers=[peer], serial=samples.FACTORY["serial"])
    builder = RrmService()
    try:
        messages = [
            builder.envelope("subscribe-response", SubscribeAnswer("success", domain="site-7", config=plan.body).body()),
            builder.envelope("subscribe-response", SubscribeAnswer("busy").body()),
            builder.envelope("subscribe-response", SubscribeAnswer("refuse").body()),
            builder.envelope("rrm-update", update_body(5, 1, "1 6 11 36 40")),
            builder.envelope("rrm-info", plan.body),
            builder.envelope("fbt-info", plan.fbt),
            builder.envelope("rrm-request-mode"),
        ]
    finally:
        builder.shutdown()
    for message in messages:
        status, errors = schema_check.check(message)
        assert status == schema_check.VALID, (message["cmd"], errors)


# -- closing, stopping, restarting -------------------------------------------------------------


def test_the_service_can_close_or_drop_a_connection(service, connect):
    first = connect()
    conn = service.wait_connection(1)
    service.close(conn, 4000, "bye")
    assert first.wait_closed() == 4000
    service.wait_closed(conn)
    assert conn.close_code == 4000

    second = connect()
    conn = service.wait_connection(2)
    service.abort(conn)
    assert second.wait_closed() == 1006
    service.wait_closed(conn)


def test_stop_and_restart_keep_the_port(service, connect):
    client = connect()
    conn = service.wait_connection()
    port = service.port
    service.stop()
    assert client.wait_closed() == 1001
    assert conn.closed is not None and not service.listening
    with pytest.raises(OSError):
        Client(service.url())
    service.start()
    assert service.port == port
    again = connect()
    subscribe(again)
    assert again.recv()["status"] == "success"
    assert service.wait_connection(2).number == 2


def test_handshakes_can_be_refused(service):
    service.refuse_status = 503
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        Client(service.url("/rrm"))
    assert refused.value.status_code == 503
    assert service.wait_handshakes(1).refused == 503 and service.connections == []
    service.refuse_status = None
    service.path = "/rrm"
    with pytest.raises(websockets.InvalidStatusCode):
        Client(service.url("/other"))
    assert service.wait_handshakes(2).refused == 404
    Client(service.url("/rrm")).close()
    assert service.wait_handshakes(3).refused is None


# -- the policy --------------------------------------------------------------------------------


@pytest.fixture
def planner():
    running = RrmService(policy=True, scan_delay=2, scan_channels="1 6 11 36 40").start()
    yield running
    running.shutdown()


def planner_client(planner, factory=samples.FACTORY):
    client = Client(planner.url())
    subscribe(client, factory)
    assert client.recv()["status"] == "success"
    update = client.recv()
    assert update == {"version": "2.2", "service": "rrm", "cmd": "rrm-update", "rrm-scan-delay": 2,
                      "vorna-rrm-scanning": 0, "rrm-scan-channels": "1 6 11 36 40"}
    return client


def test_the_policy_asks_for_a_scan_and_answers_the_response_with_its_decision(planner):
    client = planner_client(planner)
    try:
        client.send(samples.rrm_response(samples.default_radios(), [
            samples.heard("02:00:00:00:00:01", -50, 6), samples.heard("02:00:00:00:00:02", -70, 1),
            samples.heard("02:00:00:00:01:01", -55, 40, 80, "lu"),
        ]))
        info = client.recv()
        assert info["cmd"] == "rrm-info"
        assert info["radios"] == [
            {"id": 0, "channel": 11, "bandwidth": 20, "power": 20, "primary-channel": "none"},
            {"id": 1, "channel": 52, "bandwidth": 80, "power": 20, "primary-channel": "none"},
        ]
        assert "802dot11k" not in info and "use-80211r" not in info
        assert client.nothing_within(0.2)  # one access point: no fbt-info
        plan = planner.wait_decision(1)
        assert [c.channel for c in plan.choices] == [11, 52]
        texts = [text for _, text in planner.events]
        assert any("radio 0 2.4 GHz: channel 6/20 -> 11/20" in t for t in texts)
        assert any(t.startswith("A4:5E:60:00:10:00: 3 neighbours heard") for t in texts)
    finally:
        client.close()


def test_the_policy_asks_for_one_scan_and_only_once_a_radio_is_up(planner):
    client = Client(planner.url())
    try:
        off = samples.subscribe_request(radios=[samples.radio(0, 6, status=0), samples.radio(1, 36, status=0)])
        client.send(off)
        assert client.recv()["status"] == "success"
        assert client.nothing_within(0.2)
        subscribe(client)
        assert client.recv()["status"] == "success"
        assert client.recv()["cmd"] == "rrm-update"
        subscribe(client)  # the scan asked for is still under way
        assert client.recv()["status"] == "success"
        assert client.nothing_within(0.2)
        client.send(samples.rrm_response(samples.default_radios(), []))
        assert client.recv()["cmd"] == "rrm-info"
        subscribe(client)
        assert client.recv()["status"] == "success"
        assert client.recv()["cmd"] == "rrm-update"
    finally:
        client.close()


def test_radios_reported_up_after_a_subscription_with_radios_off_start_the_first_scan(planner):
    client = Client(planner.url())
    try:
        off = [samples.radio(0, 6, status=0), samples.radio(1, 36, status=0)]
        client.send(samples.subscribe_request(radios=off))
        assert client.recv()["status"] == "success"
        assert client.nothing_within(0.2)
        still_off = dict(samples.envelope("rrm-config-changed"), radios=off)
        client.send(still_off)
        assert client.nothing_within(0.2)
        client.send(dict(samples.envelope("rrm-config-changed"), radios=samples.default_radios()))
        assert client.recv()["cmd"] == "rrm-update"
        client.send(dict(samples.envelope("rrm-config-changed"), radios=samples.default_radios()))
        assert client.nothing_within(0.2)  # one first scan; the next ones follow the cycle
        assert planner.received("rrm-config-changed")[-1].schema == schema_check.VALID
    finally:
        client.close()


def test_a_configuration_change_before_any_subscription_asks_for_no_scan(planner):
    client = Client(planner.url())
    try:
        client.send(dict(samples.envelope("rrm-config-changed"), radios=samples.default_radios()))
        assert client.nothing_within(0.3)
    finally:
        client.close()


def test_the_policy_repeats_its_cycle(planner):
    planner.interval = 0.2
    client = planner_client(planner)
    try:
        client.send(samples.rrm_response(samples.default_radios(), []))
        assert client.recv()["cmd"] == "rrm-info"
        assert client.recv(timeout=2)["cmd"] == "rrm-update"
    finally:
        client.close()


def test_two_access_points_are_told_about_each_other(planner):
    first = planner_client(planner, samples.FACTORY)
    second = planner_client(planner, samples.PEER_FACTORY)
    try:
        first.send(samples.rrm_response(samples.default_radios(), [samples.heard("02:00:00:00:00:01", -50, 6)]))
        info = first.recv()
        assert info["use-80211r"] == 1
        assert [r["neighbour-mac"] for r in info["802dot11k"]] == ["A4:5E:60:00:20:00", "A4:5E:60:00:20:10"]
        fbt = first.recv()
        assert fbt["cmd"] == "fbt-info"
        assert {r["remote-r0-kh-id"] for v in fbt["vaps"] for r in v["remotes"]} == {samples.PEER_FACTORY["serial"]}

        second.send(samples.rrm_response(samples.default_radios("a4:5e:60:00:20"), [],
                                         ap_mac=samples.PEER_FACTORY["mac"]))
        info = second.recv()
        assert [r["neighbour-mac"] for r in info["802dot11k"]] == ["A4:5E:60:00:10:00", "A4:5E:60:00:10:10"]
        # the first access point's 2.4 GHz radio was just moved off channel 6: its entry says so
        assert sorted(r["channel"] for r in info["802dot11k"]) == [1, 36]
        fbt = second.recv()
        assert {r["remote-r0-kh-id"] for v in fbt["vaps"] for r in v["remotes"]} == {samples.FACTORY["serial"]}
    finally:
        first.close()
        second.close()


# -- as a program ------------------------------------------------------------------------------


def test_the_program_serves_until_terminated_and_logs(tmp_path):
    log = tmp_path / "service.log"
    program = subprocess.Popen(
        [sys.executable, "-m", "sim.controller", "--port", "0", "--quiet", "--policy", "--subscribe", "busy",
         "--log", str(log)],
        cwd=REPO, stdout=subprocess.PIPE, text=True, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"},
    )
    try:
        line = program.stdout.readline()
        assert line.startswith("listening on ws://127.0.0.1:")
        client = Client(line.split()[-1] + "/rrm")
        subscribe(client)
        assert client.recv()["code"] == 503
        client.close()
    finally:
        program.send_signal(signal.SIGTERM)
        assert program.wait(timeout=10) == 0
        program.stdout.close()
    text = log.read_text()
    assert "<- A4:5E:60:00:10:00 subscribe-request" in text and "-> A4:5E:60:00:10:00 subscribe-response" in text
