"""Shared fixtures: the programs under test, a private device root, a WebSocket service."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from harness.programs import BusPeer, Orvd, program  # noqa: E402
from harness.wsserver import SilentServer, WsServer  # noqa: E402


@pytest.fixture
def orvd_binary():
    return program("orvd")


@pytest.fixture
def device_root(tmp_path):
    root = tmp_path / "root"
    root.mkdir()
    return root


@pytest.fixture
def ws_server():
    server = WsServer().start()
    yield server
    server.shutdown()


@pytest.fixture
def silent_server():
    server = SilentServer()
    yield server
    server.shutdown()


@pytest.fixture
def make_orvd(tmp_path, device_root):
    """make_orvd(config lines) starts orvd; every one made is killed after the test."""
    made = []

    def make(config_lines):
        orvd = Orvd(tmp_path, device_root, config_lines).start()
        made.append(orvd)
        return orvd

    yield make
    for orvd in made:
        orvd.kill()


@pytest.fixture
def make_bus_peer(device_root):
    made = []

    def make(module=3, to=2):
        peer = BusPeer(device_root, module, to)
        made.append(peer)
        return peer

    yield make
    for peer in made:
        peer.close()



# -- RRM mode end to end: orvd, orvd-vdev and the reference RRM service -----------------------


@pytest.fixture
def controller():
    """The reference RRM service on a free port. After the test, every message orvd sent it
    must have been valid protocol 2.2 (schema and key order)."""
    from harness.rrm import RrmService, message_problems

    service = RrmService().start()
    yield service
    try:
        problems = message_problems(service)
        assert not problems, "orvd sent messages that are not valid protocol 2.2:\n" + "\n".join(problems)
    finally:
        service.shutdown()


@pytest.fixture
def make_vdev(device_root):
    """make_vdev(scenario=None) starts orvd-vdev on the device root; killed after the test."""
    from harness.vdev import DEFAULT_SCENARIO, Vdev

    made = []

    def make(scenario=None):
        device = Vdev(device_root, scenario or DEFAULT_SCENARIO).start()
        made.append(device)
        return device

    yield make
    for device in made:
        device.kill()


@pytest.fixture
def orvd_log_level():
    """The log mask of the RRM-mode orvd make_ap starts; None is the harness's default (info
    level, or ORVD_TEST_LOG_LEVEL when set). A test file overrides this fixture to pin one."""
    return None


@pytest.fixture
def make_ap(tmp_path, device_root, controller, make_vdev, orvd_log_level):
    """make_ap(scenario=None, hostapd=True, **config) starts orvd-vdev (hostapd stopped first
    when hostapd is False) and orvd in RRM mode against the controller; returns an
    harness.rrm.AccessPoint. orvd is killed after the test, before the service checks what it
    received."""
    from harness.rrm import AccessPoint, start_orvd

    made = []

    def make(scenario=None, hostapd=True, **config):
        config.setdefault("log_level", orvd_log_level)
        vdev = make_vdev(scenario)
        if not hostapd:
            result = vdev.ctl("hostapd", "stop")
            assert result.returncode == 0, result.stderr.decode()
        orvd = start_orvd(tmp_path, device_root, controller, **config)
        made.append(orvd)
        return AccessPoint(controller, vdev, orvd)

    yield make
    for orvd in made:
        orvd.kill()


@pytest.fixture
def subscribed_ap(make_ap):
    """The default access point, hostapd running, subscribed with a plain success."""
    ap = make_ap()
    ap.subscribe()
    return ap
