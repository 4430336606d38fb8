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

