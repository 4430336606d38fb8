"""RRM mode end to end, what the driver's snapshot of the radios holds where no message shows
it: the configured country of each radio, read inside the running orvd (harness.peek). orvd
(emulated driver preloaded) on orvd-vdev against the reference service."""
import copy
import time

from harness.peek import radio_countries
from harness.rrm import SCENARIO, TIMEOUT, write_scenario

COUNTRY_PATH = "/interface/wlan0/wlan/radio-2g/country"


def countries_scenario(directory):
    """wlan0 configured for Germany, wlan1 with no country configured at all."""
    radios = copy.deepcopy(SCENARIO["radios"])
    radios[0]["settings"]["country"] = "DE"
    del radios[1]["settings"]["country"]
    return write_scenario(directory, radios=radios)


def start_hostapd(ap):
    result = ap.vdev.ctl("hostapd", "start")
    assert result.returncode == 0, result.stderr.decode()


def configd(ap, action):
    result = ap.vdev.ctl("configd", action)
    assert result.returncode == 0, result.stderr.decode()


def country_requests(ap):
    return [
        entry
        for entry in ap.vdev.requests()
        if entry["as"] == "configd"
        and isinstance(entry["request"], dict)
        and entry["request"].get("path") == COUNTRY_PATH
    ]


def test_each_radio_holds_the_country_configd_answers_and_none_where_none_is_configured(make_ap, tmp_path):
    ap = make_ap(countries_scenario(tmp_path), debuggable=True)
    ap.subscribe()
    # configd answers a path it does not have with a failure without a value: no country.
    assert radio_countries(ap.orvd) == ["DE", ""]
    assert ap.orvd.running()


def test_a_radio_whose_country_configd_leaves_unanswered_holds_ru(make_ap, tmp_path):
    ap = make_ap(countries_scenario(tmp_path), hostapd=False, debuggable=True)
    ap.service.answer_subscribe("success")
    ap.conn = ap.service.wait_connection(timeout=TIMEOUT)
    configd(ap, "mute")
    start_hostapd(ap)
    # configd stays silent for wlan0's country only: each unanswered request holds the agent
    # for the whole reply time-out.
    deadline = time.monotonic() + TIMEOUT
    while not country_requests(ap):
        assert time.monotonic() < deadline, f"wlan0's country was not asked for: {ap.vdev.requests()}"
        time.sleep(0.01)
    configd(ap, "unmute")
    assert [entry["reply"] for entry in country_requests(ap)] == [None]

    request = ap.wait_for("subscribe-request").message
    assert [r["status"] for r in request["radios"]] == [1, 1]
    ap.service.wait_sent("subscribe-response", conn=ap.conn)
    ap.round_trip()
    assert radio_countries(ap.orvd) == ["RU", ""]
    assert ap.orvd.running()
