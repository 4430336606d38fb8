"""RRM mode end to end, the subscription and the link: orvd (emulated driver preloaded) on
orvd-vdev's default access point against the reference RRM service."""
import time

from harness.rrm import SCENARIO, TIMEOUT, write_scenario


def radio_states(message):
    return [radio["status"] for radio in message["radios"]]


def test_with_hostapd_running_the_early_request_describes_radios_off_and_the_start_notice_the_full_one(make_ap):
    ap = make_ap()
    early, full = ap.subscribe()

    assert early["cmd"] == "subscribe-request"
    assert radio_states(early) == [0, 0]
    for radio in early["radios"]:
        assert radio["power"] == 16 and radio["channel"] == 0 and radio["primary-channel"] == "none"
        assert radio["locked-for-dca"] == 1 and radio["locked-for-tpc"] == 1
        assert "vaps" not in radio and "available-channels" not in radio and "assoclist" not in radio

    assert radio_states(full) == [1, 1]
    assert full["factory"] == SCENARIO["factory"] and full["ap-mac"] == SCENARIO["factory"]["mac"]
    assert full["domain"] == "default-rrm-domain"
    assert [radio["channel"] for radio in full["radios"]] == [6, 36]
    assert all(radio["assoclist"] for radio in full["radios"])
    assert ap.orvd.log_lines("process_started : subscribing")

    # Subscribed: the same description now comes without the client lists.
    answer = ap.round_trip()
    assert radio_states(answer) == [1, 1]
    assert all("assoclist" not in radio for radio in answer["radios"])
    assert ap.count("subscribe-request") == 2


def test_without_hostapd_at_connect_time_the_request_waits_for_its_start(make_ap):
    ap = make_ap(hostapd=False)
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    # The link is up, but the agent has no hostapd to follow: it neither connects nor subscribes.
    ap.orvd.wait_log(r"websock-rrm->Connected$", timeout=TIMEOUT)
    time.sleep(1.5)
    assert ap.service.received(conn=ap.conn) == []
    assert not ap.orvd.log_lines("Connected to hostapd")

    started = time.monotonic()
    assert ap.vdev.ctl("hostapd", "start").returncode == 0
    request = ap.wait_for("subscribe-request")
    assert request.time > started
    assert radio_states(request.message) == [1, 1]
    assert ap.orvd.log_lines("Connected to hostapd")
    ap.round_trip()
    assert ap.count("subscribe-request") == 1


def test_with_only_widsd_running_the_agent_waits_for_hostapd_before_subscribing(make_ap, tmp_path):
    scenario = write_scenario(tmp_path, services={"hostapd": False, "widsd": True})
    ap = make_ap(scenario)
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    # widsd keeps the agent running (outside sentry mode it only waits for hostapd), so the
    # link's "connected" notice is handled at once: it remembers to subscribe and waits.
    ap.orvd.wait_log("Connected to widsd", timeout=TIMEOUT)
    ap.orvd.wait_log("Waiting for hostapd to start before sending subscribe-request", timeout=TIMEOUT)
    assert ap.service.received(conn=ap.conn) == []

    assert ap.vdev.ctl("hostapd", "start").returncode == 0
    request = ap.wait_for("subscribe-request").message
    assert radio_states(request) == [1, 1]
    assert ap.orvd.log_lines("process_started : subscribing")
    ap.round_trip()
    assert ap.count("subscribe-request") == 1


def test_the_domain_of_a_successful_answer_replaces_the_configured_one(make_ap):
    ap = make_ap(domain="lab-floor-2")
    early, full = ap.subscribe(domain="site-7")
    assert early["domain"] == "lab-floor-2" and full["domain"] == "lab-floor-2"
    assert ap.round_trip()["domain"] == "site-7"


def test_a_message_of_version_2_1_unsubscribes_and_drops_the_link_for_good(subscribed_ap):
    ap = subscribed_ap
    answered = ap.count("rrm-mode-response")
    ap.service.send_rrm_request_mode(conn=ap.conn, version="2.1")

    unsubscribe = ap.wait_for("unsubscribe-request").message
    assert list(unsubscribe)[4:] == ["domain", "factory"]
    assert unsubscribe["domain"] == "default-rrm-domain"
    assert unsubscribe["factory"] == SCENARIO["factory"]
    ap.service.wait_closed(ap.conn, timeout=TIMEOUT)
    ap.orvd.wait_log("Unsubscribe from RRM service: incorrect version")
    assert ap.count("rrm-mode-response") == answered, "a message of an older protocol was handled"

    # A reconnect would come after 1 or 2 s; none comes at all.
    time.sleep(5)
    assert len(ap.service.connections) == 1 and len(ap.service.handshakes) == 1
    assert ap.orvd.running()


def test_a_restarted_service_is_reconnected_to_and_subscribed_to_again(subscribed_ap):
    ap = subscribed_ap
    ap.service.stop()
    ap.service.wait_closed(ap.conn, timeout=TIMEOUT)
    ap.service.start()

    second = ap.service.wait_connection(count=2, timeout=TIMEOUT)
    assert second.path == "/rrm" and second.subprotocol == "websock-rrm"
    ap.conn = second
    request = ap.wait_for("subscribe-request").message
    # The radios are known since hostapd's start notice; unsubscribed again, the clients are
    # listed once more.
    assert radio_states(request) == [1, 1]
    assert all(radio["assoclist"] for radio in request["radios"])
    ap.service.wait_sent("subscribe-response", conn=second)
    assert all("assoclist" not in radio for radio in ap.round_trip()["radios"])
