"""RRM mode end to end: the unchanged orvd with the emulated driver preloaded, orvd-vdev playing
the device, and the reference RRM service (sim/controller) in this process.

The service checks every message it receives against the schemas in protocol/ (key order
included); `message_problems` collects what did not pass, so that a fixture can fail every test
after which orvd had sent something the protocol does not allow.
"""
import datetime
import json
import os
import pathlib
import re
import stat
import sys
import time

from .programs import Orvd, rrm_config, vrtl_environment
from .vdev import DEFAULT_SCENARIO, Vdev

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
if str(REPOSITORY) not in sys.path:
    sys.path.insert(0, str(REPOSITORY))

from protocol import schema  # noqa: E402
from sim.controller import RrmService, SubscribeAnswer  # noqa: E402
from sim.controller import schema_check  # noqa: E402

__all__ = [
    "TIMEOUT",
    "RrmService",
    "SubscribeAnswer",
    "SCENARIO",
    "schema",
    "AccessPoint",
    "message_problems",
    "write_scenario",
    "start_orvd",
    "neighbours_heard_by",
    "expected_scan_entry",
    "networkd_requests",
    "wait_requests",
    "log_times",
    "wall_time",
    "mobility_domain",
    "NeighbourReports",
]

SCENARIO = json.loads(DEFAULT_SCENARIO.read_text())

# Generous: a loaded two-core machine running sanitizer builds beside the tests.
TIMEOUT = 20


# -- the service's records ----------------------------------------------------------------------


def message_problems(service):
    """Texts naming every message orvd sent that is not valid protocol 2.2: not JSON, without a
    schema, failing its schema, or with keys out of orvd's fixed order."""
    problems = []
    for conn in list(service.connections):
        for number, received in enumerate(list(conn.received), 1):
            where = f"connection #{conn.number}, message {number} ({received.cmd})"
            if received.schema != schema_check.VALID:
                problems.append(f"{where}: {received.schema}: {received.errors}: {received.text!r:.300}")
                continue
            order = schema.key_order_errors(received.message)
            if order:
                problems.append(f"{where}: keys out of order: {order}")
    return problems


# -- scenarios and programs ---------------------------------------------------------------------


def write_scenario(directory, name="scenario.json", **changes):
    """The default scenario with top-level keys replaced (e.g. services={...}), as a file."""
    document = json.loads(DEFAULT_SCENARIO.read_text())
    document.update(changes)
    path = pathlib.Path(directory) / name
    path.write_text(json.dumps(document, indent=1))
    return path


def start_orvd(workdir, root, service, log_level=None, debuggable=False, **options):
    """orvd in RRM mode against the service, with reconnect delays of 0 (1 or 2 s); at info
    level unless log_level or ORVD_TEST_LOG_LEVEL says otherwise; one harness.peek can look
    into if debuggable."""
    config = rrm_config(service.port, log_level=log_level, **options)
    return Orvd(workdir, root, config, vrtl_environment(), debuggable=debuggable).start()


class AccessPoint:
    """The access point under test: orvd, the simulator it runs on, and its link to the service."""

    def __init__(self, service, vdev: Vdev, orvd: Orvd, conn=None):
        self.service = service
        self.vdev = vdev
        self.orvd = orvd
        self.conn = conn

    def wait_for(self, cmd, n=1, timeout=TIMEOUT):
        """The n-th message of the type orvd sent on this link (parsed), with its record."""
        return self.service.wait_for(cmd, n=n, timeout=timeout, conn=self.conn)

    def count(self, cmd):
        return len(self.service.received(cmd, self.conn))

    def round_trip(self, timeout=TIMEOUT):
        """Asks for the radios and waits for the answer. orvd handles the service's messages in
        arrival order, so once it answers, everything sent before has been handled."""
        n = self.count("rrm-mode-response") + 1
        self.service.send_rrm_request_mode(conn=self.conn)
        return self.wait_for("rrm-mode-response", n=n, timeout=timeout).message

    def subscribe(self, domain=None, config=None, timeout=TIMEOUT):
        """The subscription of an access point whose hostapd runs when orvd connects: the first
        request, sent before the start notice, describes the radios as off and is left
        unanswered; the start notice brings the full one, which the service accepts. A round
        trip then makes sure orvd has handled the answer. Returns (early request, full request)
        as parsed messages."""
        self.service.answer_subscribe("success", domain=domain, config=config)
        self.service.queue_subscribe_answers("silent")
        self.conn = self.service.wait_connection(timeout=timeout)
        early = self.wait_for("subscribe-request", 1, timeout).message
        result = self.vdev.ctl("hostapd", "start")
        assert result.returncode == 0, result.stderr.decode()
        full = self.wait_for("subscribe-request", 2, timeout).message
        self.service.wait_sent("subscribe-response", n=1, timeout=timeout, conn=self.conn)
        self.round_trip(timeout)
        return early, full


# -- the scenario seen from the service ---------------------------------------------------------


def neighbours_heard_by(radio):
    return [n for n in SCENARIO["neighbours"] if radio in n["rssi"]]


_BLOCKS_80 = (36, 52, 100, 116, 132, 149)


def _primary_text(neighbour):
    bandwidth = neighbour.get("bandwidth", 20)
    if bandwidth == 40:
        return neighbour.get("control-sideband", "lower")
    if bandwidth == 80:
        channel = neighbour["channel"]
        start = max(b for b in _BLOCKS_80 if b <= channel)
        return ("ll", "lu", "ul", "uu")[(channel - start) // 4]
    return "none"


def expected_scan_entry(neighbour, radio, rrm=False):
    """The rf-environment entry orvd reports for a scenario neighbour heard by the radio: a
    standard scan reports no transmit power, the driver's RRM scan its power in dBm."""
    return {
        "bssid": neighbour["bssid"],
        "rssi": neighbour["rssi"][radio],
        "channel": neighbour["channel"],
        "tx-power": neighbour.get("tx-power", 20) if rrm else 0,
        "primary-channel": _primary_text(neighbour),
        "bandwidth": neighbour.get("bandwidth", 20),
    }


# -- networkd's side: the simulator's request log -----------------------------------------------


def networkd_requests(vdev, command=None):
    """The requests networkd served (oldest first), optionally those with one command."""
    found = [entry for entry in vdev.requests() if entry.get("as") == "networkd"]
    if command is not None:
        found = [e for e in found if isinstance(e["request"], dict) and e["request"].get("command") == command]
    return found


def wait_requests(vdev, command, count, timeout=TIMEOUT):
    deadline = time.monotonic() + timeout
    while True:
        found = networkd_requests(vdev, command)
        if len(found) >= count:
            return found
        assert time.monotonic() < deadline, (
            f"{count} {command} requests not served within {timeout}s: {networkd_requests(vdev)}"
        )
        time.sleep(0.05)


# -- times --------------------------------------------------------------------------------------

_LOG_TIME = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) ")


def log_times(orvd, pattern):
    """The wall-clock times (seconds since 1970) of orvd's log lines matching the pattern."""
    times = []
    for line in orvd.log_lines(pattern):
        match = _LOG_TIME.match(line)
        if match:
            times.append(datetime.datetime.strptime(match.group(1), "%Y-%m-%d %H:%M:%S.%f").timestamp())
    return times


def wall_time(monotonic):
    """A time.monotonic() reading (the service's record times) as seconds since 1970."""
    return monotonic + (time.time() - time.monotonic())


# -- fast transition ----------------------------------------------------------------------------


def mobility_domain(domain):
    """The 16-bit mobility domain every access point of an RRM domain derives from its name: the
    bits of the text, most significant first, shifted through the polynomial 0x8005 without
    augmenting zeros or a final XOR."""
    register = 0
    for byte in domain.encode():
        for bit in range(7, -1, -1):
            top = register & 0x8000
            register = ((register << 1) | ((byte >> bit) & 1)) & 0xFFFF
            if top:
                register ^= 0x8005
    return register


# -- 802.11k neighbour lists --------------------------------------------------------------------


class NeighbourReports:
    """Every command orvd writes into the VAPs' /proc/<vap>/rm_neighbor_report files.

    The driver's file takes each write as one command ("delall", "add ..."); a plain file in the
    device root would keep the last write only, so each is replaced by a FIFO, which hands the
    test every write in order. orvd opens the file read-write, so its writes never block, and
    this side keeps its read end open so that nothing written is lost.
    """

    COMMAND = re.compile(r'delall|add [0-9a-f]+ 0x[0-9A-F]{4} -?\d+ -?\d+ -?\d+ ssid "[^"]*" bssload -?\d+ -?\d+')

    def __init__(self, vdev, vaps):
        self._fds = {}
        self._text = {}
        for vap in vaps:
            path = vdev.path(f"proc/{vap}/rm_neighbor_report")
            path.unlink()
            os.mkfifo(path)
            assert stat.S_ISFIFO(path.stat().st_mode)
            self._fds[vap] = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
            self._text[vap] = ""

    def _read(self, vap):
        while True:
            try:
                chunk = os.read(self._fds[vap], 65536)
            except BlockingIOError:
                return
            if not chunk:  # no writer has it open just now
                return
            self._text[vap] += chunk.decode(errors="replace")

    def commands(self, vap):
        self._read(vap)
        text = self._text[vap]
        found = self.COMMAND.findall(text)
        assert "".join(found) == text, f"{vap}: unexpected text in the neighbour report file: {text!r}"
        return found

    def all(self):
        return {vap: self.commands(vap) for vap in self._fds}

    def wait(self, vap, count, timeout=TIMEOUT):
        deadline = time.monotonic() + timeout
        while True:
            found = self.commands(vap)
            if len(found) >= count:
                return found
            assert time.monotonic() < deadline, f"{vap}: {count} commands not written within {timeout}s: {found}"
            time.sleep(0.05)

    def close(self):
        for fd in self._fds.values():
            os.close(fd)
        self._fds = {}
