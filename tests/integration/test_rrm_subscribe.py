"""RRM mode end to end on the virtual access point: the unchanged orvd with the emulated driver
preloaded, orvd-vdev playing the device, and a WebSocket service of the test."""
import json
import signal

import pytest

from harness.programs import Orvd, rrm_config, vrtl_environment
from harness.vdev import DEFAULT_SCENARIO, Vdev
from harness.wsserver import WsServer


@pytest.fixture
def rrm_service():
    server = WsServer(subprotocols=("websock-rrm",)).start()
    yield server
    server.shutdown()


@pytest.fixture
def vdev(device_root):
    device = Vdev(device_root).start()
    yield device
    device.kill()


@pytest.fixture
def rrm_orvd(tmp_path, device_root, vdev, rrm_service):
    orvd = Orvd(tmp_path, device_root, rrm_config(rrm_service.port), vrtl_environment()).start()
    yield orvd
    orvd.kill()


def next_message(server, conn, cmd, after=0, timeout=15):
    """The first message of the type among those the service received after the first `after`;
    its index and its parsed form."""
    index = after
    while True:
        index += 1
        texts = server.wait_messages(index, timeout=timeout, conn=conn)
        message = json.loads(texts[index - 1])
        if message.get("cmd") == cmd:
            return index, message


def strongest(readings):
    return max(readings)


def test_the_subscribe_request_describes_the_scenario(rrm_service, vdev, rrm_orvd):
    conn = rrm_service.wait_connection()
    assert conn.path == "/rrm"
    # hostapd runs from the start, so the agent subscribes at once; but it reads the radios on
    # hostapd's start notice only, and until then describes them as off.
    index, early = next_message(rrm_service, conn, "subscribe-request")
    assert [radio["status"] for radio in early["radios"]] == [0, 0]
    assert all("vaps" not in radio for radio in early["radios"])
    assert vdev.ctl("hostapd", "start").returncode == 0
    _, request = next_message(rrm_service, conn, "subscribe-request", after=index)

    scenario = json.loads(DEFAULT_SCENARIO.read_text())
    assert list(request)[:4] == ["version", "service", "cmd", "ap-mac"]
    assert request["version"] == "2.2" and request["service"] == "rrm"
    assert request["ap-mac"] == scenario["factory"]["mac"]
    assert request["domain"] == "default-rrm-domain"
    assert request["ap-mac-count"] == 16
    assert request["factory"] == scenario["factory"]
    assert list(request)[4:] == ["domain", "ap-mac-count", "factory", "radios"]

    assert [radio["id"] for radio in request["radios"]] == [0, 1]
    for described, radio in zip(request["radios"], scenario["radios"]):
        settings = radio["settings"]
        assert described["status"] == 1
        assert described["locked-for-dca"] == 0 and described["locked-for-balancer"] == 1
        assert described["channel"] == int(settings["channel"])
        assert described["bandwidth"] == int(settings["bandwidth"])
        assert described["power"] == int(settings["tx-power"])
        assert [vap["ssid"] for vap in described["vaps"]] == [vap["settings"]["ssid"] for vap in radio["vaps"]]
        assert [vap["802dot11k"] for vap in described["vaps"]] == [
            int(vap["settings"]["w80211kv-config"]["enabled"] == "true") for vap in radio["vaps"]
        ]
        expected_clients = sorted(
            (station["mac"], vap["settings"]["ssid"], strongest(station["rssi"]))
            for vap in radio["vaps"]
            for station in vap.get("stations", [])
        )
        clients = sorted((client["mac"], client["ssid"], client["rssi"]) for client in described["assoclist"])
        assert clients == expected_clients
    assert request["radios"][0]["available-channels"] == "1 6 11 "
    assert request["radios"][1]["primary-channel"] == "none"
    assert request["radios"][1]["vaps"][1]["802dot11r"] == 1  # WPA3 with fast transition
    assert request["radios"][1]["vaps"][2]["802dot11r"] == 0  # WPA_WPA2 is not WPA2/3


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_a_termination_signal_ends_rrm_mode_with_status_0(rrm_service, vdev, rrm_orvd, sig):
    conn = rrm_service.wait_connection()
    next_message(rrm_service, conn, "subscribe-request")
    status, _ = rrm_orvd.terminate(sig)
    assert status == 0
    assert rrm_orvd.log_lines("rrm_worker: stop"), "the agent was not destroyed in order"
