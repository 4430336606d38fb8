#!/usr/bin/python3
"""The live lab: the unchanged orvd on one or more virtual access points, planned by the
reference RRM service, shown as it happens. Run it through scripts/lab (which builds first).

For each access point it makes a private device root, starts orvd-vdev on it, starts orvd in
RRM mode with the emulated driver preloaded, and lets orvd-vdev announce hostapd so that the
agent reads the radios. The reference service runs in this process (sim/controller, policy
mode) on a free loopback port. What the person sees, with times from the start:

* each subscription (radios, VAPs, clients),
* each scan request and what the access point heard, per radio and channel,
* each decision (channel, bandwidth, power per radio; 802.11k and 802.11r with several),
* what the virtual access point applied: every update orvd sent to networkd, as recorded in
  orvd-vdev's request log, with the radio's resulting chanspec decoded and its power, the
  802.11k neighbour-report commands orvd wrote and the 802.11r key holders it configured.

It runs until Ctrl-C (or SIGTERM) or --duration, then stops orvd, the service and orvd-vdev
in that order, removes the device roots and exits 0. A program that ends on its own ends the
lab with status 1 and the last lines it wrote.
"""
from __future__ import annotations

import sys

sys.dont_write_bytecode = True  # the lab leaves nothing behind, not even in the source tree

import argparse  # noqa: E402
import collections  # noqa: E402
import datetime  # noqa: E402
import json  # noqa: E402
import os  # noqa: E402
import pathlib  # noqa: E402
import queue  # noqa: E402
import shutil  # noqa: E402
import signal  # noqa: E402
import subprocess  # noqa: E402
import tempfile  # noqa: E402
import threading  # noqa: E402
import time  # noqa: E402

TOP = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP))

from sim.controller import RrmService, Settings  # noqa: E402
from sim.controller import policy, summary  # noqa: E402

DEFAULT_SCENARIO = TOP / "sim" / "vdev" / "scenarios" / "default.json"
# Few channels make short scan passes (orvd gives a pass channels x 7 / 10 + 1 whole seconds
# on the radio with the most): 3 s per pass, five passes per scan. The emulated driver
# reports every neighbour of the scenario whatever channels are scanned.
DEFAULT_CHANNELS = "1 6 11 36 40 44 48"
TICK = 0.2  # seconds between two looks at everything
STOP_TIMEOUT = 10  # seconds each program gets to end after SIGTERM
INDENT = " " * 15  # continuation lines start under the text of the first line


class LabError(Exception):
    """Something that ends the lab with status 1 and a message."""


# -- small helpers ------------------------------------------------------------------------------


def mac_number(text) -> int | None:
    parts = str(text).replace("-", ":").split(":")
    if len(parts) != 6:
        return None
    try:
        return int("".join(f"{int(p, 16):02x}" for p in parts), 16)
    except ValueError:
        return None


def mac_text(number: int) -> str:
    raw = f"{number:012X}"
    return ":".join(raw[i : i + 2] for i in range(0, 12, 2))


def decode_chanspec(chanspec: int) -> tuple:
    """(primary channel, bandwidth MHz, position text) of a chanspec: the centre channel in the
    low byte, the primary's position in bits 0x700, the bandwidth in bits 0x3800."""
    centre = chanspec & 0xFF
    position = (chanspec >> 8) & 0x7
    bandwidth = {0x1000: 20, 0x1800: 40, 0x2000: 80}.get(chanspec & 0x3800)
    if bandwidth == 40:
        return (centre - 2, 40, "lower") if position == 0 else (centre + 2, 40, "upper")
    if bandwidth == 80:
        return centre - 6 + 4 * position, 80, ("1st", "2nd", "3rd", "4th")[position % 4] + " of the block"
    if bandwidth == 20:
        return centre, 20, ""
    return centre, None, ""


def parse_report_bssid(text: str) -> str | None:
    """The BSSID of a neighbour-report "add" command: six bytes, last first, each as two hex
    digits, or as eight (ffffffXX) for a byte of 0x80 and above."""
    octets = []
    at = 0
    while len(octets) < 6 and at < len(text):
        width = 8 if text[at] in "89abcdefABCDEF" else 2
        piece = text[at : at + width]
        if len(piece) != width:
            return None
        try:
            octets.append(int(piece, 16) & 0xFF)
        except ValueError:
            return None
        at += width
    if len(octets) != 6 or at != len(text):
        return None
    return ":".join(f"{b:02X}" for b in reversed(octets))


def report_command(text: str) -> str:
    """A neighbour-report command file's content in words."""
    text = text.strip()
    if not text:
        return "(empty)"
    if text == "delall":
        return "delall (list cleared)"
    words = text.split()
    if words[0] == "add" and len(words) >= 6:
        bssid = parse_report_bssid(words[1]) or words[1]
        ssid = text.split("ssid ", 1)[1].split(" bssload", 1)[0] if "ssid " in text else "?"
        return f"add {bssid} channel {words[4]} ssid {ssid}"
    return text


def sanitizer_runtime(binary: pathlib.Path) -> str:
    """The sanitizer runtime a build of orvd is linked with ("" for a normal build): it must
    come before the emulated driver in LD_PRELOAD."""
    try:
        listing = subprocess.run(["ldd", str(binary)], capture_output=True, text=True, timeout=10).stdout
    except (OSError, subprocess.SubprocessError):
        return ""
    for line in listing.splitlines():
        name = line.strip().split(" ")[0]
        if name.startswith(("libasan.so", "libtsan.so")) and "=>" in line:
            return line.split("=>")[1].split("(")[0].strip()
    return ""


def exit_text(status) -> str:
    if status is None:
        return f"killed, it did not end within {STOP_TIMEOUT} s of SIGTERM"
    if status < 0:
        try:
            return f"killed by {signal.Signals(-status).name}"
        except ValueError:
            return f"killed by signal {-status}"
    return f"status {status}"


def _die_with_parent():
    """In the child, before exec: end with SIGTERM should the lab itself be killed, so that no
    program outlives it (the lab's own stop is still the orderly way)."""
    try:
        import ctypes

        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
    except Exception:
        pass


# -- one program --------------------------------------------------------------------------------


class Program:
    """A child process in a session of its own (so that Ctrl-C at the terminal reaches the lab
    only, and the lab stops the programs in order), its output read line by line."""

    def __init__(self, label, argv, env=None, lines=None, keep=40):
        self.label = label  # "ap1:orvd"
        self.name = label.replace(":", " ")
        self.argv = [str(a) for a in argv]
        self.env = env
        self.lines = lines  # queue of (monotonic time, label, line) for --trace, or None
        self.tail = collections.deque(maxlen=keep)
        self.stdout_lines = queue.Queue()
        self.proc = None
        self.readers = []
        self.waiting = True  # standard output lines are kept for wait_line until it found its line

    def start(self):
        self.proc = subprocess.Popen(
            self.argv,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=self.env,
            start_new_session=True,
            preexec_fn=_die_with_parent,
        )
        for stream, is_stdout in ((self.proc.stdout, True), (self.proc.stderr, False)):
            reader = threading.Thread(target=self._read, args=(stream, is_stdout), daemon=True)
            reader.start()
            self.readers.append(reader)
        return self

    def _read(self, stream, is_stdout):
        for raw in stream:
            line = raw.decode(errors="replace").rstrip("\n")
            self.tail.append(line)
            if is_stdout and self.waiting:
                self.stdout_lines.put(line)
            if self.lines is not None:
                self.lines.put((time.monotonic(), self.label, line))
        stream.close()

    def wait_line(self, expected, timeout):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                if self.stdout_lines.get(timeout=0.1) == expected:
                    self.waiting = False
                    return True
            except queue.Empty:
                if self.proc.poll() is not None:
                    return False
        return False

    @property
    def pid(self):
        return self.proc.pid if self.proc else None

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def stop(self):
        """SIGTERM and wait; SIGKILL (the whole session) when it does not end in time.
        Returns the exit status (None when it had to be killed)."""
        if self.proc is None:
            return 0
        status = self.proc.poll()
        if status is None:
            try:
                self.proc.send_signal(signal.SIGTERM)
                status = self.proc.wait(STOP_TIMEOUT)
            except subprocess.TimeoutExpired:
                status = None
        if status is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait()
        for reader in self.readers:
            reader.join(timeout=2)
        return status

    def kill_session(self):
        """Whatever is left of the program's session (orvd-vdev's bus relays end with it on
        their own; this is for the case where it was killed)."""
        if self.proc is None:
            return
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass


# -- one access point ---------------------------------------------------------------------------


class AccessPoint:
    def __init__(self, number, workdir: pathlib.Path, scenario: pathlib.Path):
        self.number = number
        self.label = f"ap{number}"
        self.workdir = workdir
        self.root = workdir / "root"
        self.scenario = scenario
        data = json.loads(scenario.read_text())
        factory = data.get("factory") or {}
        self.mac = str(factory.get("mac", ""))
        self.serial = str(factory.get("serial", ""))
        self.base = mac_number(self.mac)
        self.vdev = None
        self.orvd = None
        self.hostapd_started = False
        self.log_offset = 0  # bytes of the request log already shown
        self.log_rest = b""
        self.reports = {}  # neighbour-report file -> last content shown
        self.gets = 0  # configd reads served (counted, not shown)

    def requests_log(self) -> pathlib.Path:
        return self.root / "sim" / "vdev" / "requests.log"

    def new_requests(self) -> list:
        """Request-log entries written since the last call."""
        path = self.requests_log()
        try:
            with open(path, "rb") as log:
                log.seek(self.log_offset)
                data = log.read()
        except OSError:
            return []
        self.log_offset += len(data)
        data = self.log_rest + data
        *lines, self.log_rest = data.split(b"\n")
        entries = []
        for raw in lines:
            try:
                entries.append(json.loads(raw))
            except ValueError:
                entries.append({"raw": raw.decode(errors="replace")})
        return entries


def derived_scenario(source: dict, number: int) -> dict:
    """Access point `number` (2, 3, ...) of a lab: the scenario with its own factory MAC (0x1000
    per access point above the first), serial and interface addresses, so that it is another
    device of the same site, hearing the same neighbours a few dB stronger or weaker."""
    data = json.loads(json.dumps(source))
    shift = 0x1000 * (number - 1)
    factory = data.setdefault("factory", {})
    base = mac_number(factory.get("mac", "A4:5E:60:00:10:00"))
    factory["mac"] = mac_text(base + shift)
    serial = str(factory.get("serial", "VX31B0000000"))
    digits = len(serial) - len(serial.rstrip("0123456789"))
    if digits:
        value = (int(serial[-digits:]) + number - 1) % (10**digits)
        factory["serial"] = serial[:-digits] + f"{value:0{digits}d}"
    else:
        factory["serial"] = f"{serial}-{number}"
    for radio in data.get("radios") or []:
        for item in [radio] + list(radio.get("vaps") or []):
            if "mac" in item and mac_number(item["mac"]) is not None:
                item["mac"] = mac_text(mac_number(item["mac"]) + shift).lower()
    # Standing elsewhere on the site, it hears each neighbour a few dB stronger or weaker.
    for index, neighbour in enumerate(data.get("neighbours") or []):
        heard = neighbour.get("rssi")
        if isinstance(heard, dict):
            offset = (index * 5 + number * 3) % 11 - 5
            for radio, rssi in heard.items():
                if isinstance(rssi, (int, float)) and not isinstance(rssi, bool):
                    heard[radio] = int(min(-20, max(-95, rssi + offset)))
    return data


# -- the display --------------------------------------------------------------------------------


class Display:
    """Lines with the time since the start and who they are about; several lines of one event
    stay together. Events of one look are sorted by time."""

    def __init__(self, started: float, out=sys.stdout):
        self.started = started
        self.out = out
        self.pending = []
        self.order = 0

    def add(self, when: float, who: str, text: str):
        self.order += 1
        self.pending.append((when, self.order, who, text))

    def now(self, who: str, text: str):
        self.add(time.monotonic(), who, text)
        self.flush()

    def flush(self):
        self.pending.sort(key=lambda e: (e[0], e[1]))
        text = ""
        for when, _, who, event in self.pending:
            first, *rest = event.split("\n")
            stamp = f"{max(0.0, when - self.started):7.1f}s"
            text += "\n".join([f"{stamp} {who:<5} {first}"] + [INDENT + line for line in rest]) + "\n"
        self.pending.clear()
        try:
            self.out.write(text)
            self.out.flush()
        except (BrokenPipeError, OSError):
            # Nobody reads any more (a pager quit): the lab still stops and cleans up.
            self.out = open(os.devnull, "w")


# -- the lab ------------------------------------------------------------------------------------


class Lab:
    def __init__(self, args):
        self.args = args
        self.build = pathlib.Path(args.build_dir).resolve()
        self.started = time.monotonic()
        self.started_wall = time.time()
        self.display = Display(self.started)
        self.trace_lines = queue.Queue() if args.trace else None
        self.service_notes = queue.Queue()
        self.tmp = None
        self.aps = []
        self.service = None
        self.stop_reason = None
        self.seen = {}  # connection number -> (received, sent, decisions, closed shown)
        self.labels = {}  # connection number -> access point label
        self.vap_addresses = {}  # (access point label, "wlan0-va1") -> the address it reported
        self.plan_noted = False
        self.nudged = set()  # connections whose first scan was seen to or asked for
        self.channels = "" if args.scan_channels == "all" else args.scan_channels

    # -- life cycle -------------------------------------------------------------------------

    def program(self, name) -> pathlib.Path:
        path = self.build / name
        if not path.is_file():
            raise LabError(f"{path} is missing: run scripts/lab without --no-build, or give --build-dir")
        return path

    def run(self) -> int:
        status = 0
        try:
            self.start()
            self.watch()
        except LabError as error:
            self.say("lab", f"error: {error}")
            self.stop_reason = "after the error"
            status = 1
        except KeyboardInterrupt:
            pass
        finally:
            status = self.stop() or status
        return status

    def start(self):
        args = self.args
        for name in ("orvd", "orvd-vdev", "libvrtl.so"):
            self.program(name)
        scenario = pathlib.Path(args.scenario).resolve()
        try:
            source = json.loads(scenario.read_text())
        except (OSError, ValueError) as error:
            raise LabError(f"scenario {scenario}: {error}")
        self.tmp = pathlib.Path(tempfile.mkdtemp(prefix="orvd-lab-"))
        for number in range(1, args.aps + 1):
            workdir = self.tmp / f"ap{number}"
            workdir.mkdir()
            path = scenario
            if number > 1:
                path = workdir / "scenario.json"
                path.write_text(json.dumps(derived_scenario(source, number), indent=2) + "\n")
            self.aps.append(AccessPoint(number, workdir, path))

        channels = self.channels
        self.service = RrmService(
            policy=True,
            settings=Settings(),
            scan_delay=args.scan_delay,
            scan_channels=channels,
            interval=args.interval,
        )
        self.service.add_listener(lambda text: self.service_notes.put((time.monotonic(), text)))
        try:
            self.service.start()
        except OSError as error:
            raise LabError(f"the RRM service cannot listen on 127.0.0.1: {error}")
        url = self.service.url("/rrm")
        cycle = f"again {args.interval:g} s after each decision" if args.interval > 0 else "once per subscription"
        self.say(
            "lab",
            f"{args.aps} access point{'s' if args.aps > 1 else ''}, scenario {scenario.name}, service {url}\n"
            f"scans: standard, delay {args.scan_delay} s, channels {channels or 'all'}; {cycle}\n"
            + ("further access points: the scenario with their own factory MAC, serial and addresses, "
               "hearing each neighbour a few dB differently\n" if args.aps > 1 else "")
            + f"device roots under {self.tmp}"
            + (f"; stops after {args.duration:g} s" if args.duration else "; Ctrl-C stops"),
        )

        vdev = self.program("orvd-vdev")
        for ap in self.aps:
            ap.vdev = Program(f"{ap.label}:vdev", [vdev, "--root", ap.root, "--scenario", ap.scenario],
                              lines=self.trace_lines).start()
        for ap in self.aps:
            if self.stop_reason is not None:
                return
            if not ap.vdev.wait_line("orvd-vdev: ready", 15):
                raise LabError(f"{ap.label} orvd-vdev did not get ready" + self.tail_of(ap.vdev))
            self.say(ap.label, f"virtual access point {ap.mac} (serial {ap.serial}) ready, pid {ap.vdev.pid}")

        orvd = self.program("orvd")
        runtime = sanitizer_runtime(orvd)
        vrtl = str(self.program("libvrtl.so"))
        for ap in self.aps:
            conf = ap.workdir / "orvd.conf"
            conf.write_text(
                f"quillon_service_url={url}\n"
                "initial_connection_delay=0\n"
                "max_connection_delay=0\n"
                "log_level=7\n"
            )
            env = dict(os.environ, ORVD_ROOT=str(ap.root), LD_PRELOAD=f"{runtime}:{vrtl}" if runtime else vrtl)
            ap.orvd = Program(f"{ap.label}:orvd", [orvd, "-f", conf], env=env, lines=self.trace_lines).start()
            self.say(ap.label, f"orvd started, pid {ap.orvd.pid}, device root {ap.root}")

    def watch(self):
        deadline = self.started + self.args.duration if self.args.duration else None
        hostapd_deadline = time.monotonic() + 30
        while self.stop_reason is None:
            self.look()
            for ap in self.aps:
                for prog in (ap.vdev, ap.orvd):
                    if not prog.running():
                        raise LabError(
                            f"{prog.name} ended on its own ({exit_text(prog.proc.returncode)})" + self.tail_of(prog)
                        )
                if not ap.hostapd_started and time.monotonic() > hostapd_deadline:
                    raise LabError(f"{ap.label}: orvd sent no subscribe-request within 30 s" + self.tail_of(ap.orvd))
            if not self.service.listening:
                raise LabError("the RRM service stopped listening")
            if deadline is not None and time.monotonic() >= deadline:
                self.stop_reason = f"{self.args.duration:g} s are over"
                break
            time.sleep(TICK)

    def stop(self) -> int:
        """Stops everything in order and removes the device roots; the status to exit with."""
        status = 0
        reason = self.stop_reason or "stopping"
        if self.aps or self.service:
            self.say("lab", f"{reason}: stopping orvd, the service, orvd-vdev")
        for ap in self.aps:
            if ap.orvd is not None:
                was_running = ap.orvd.running()
                result = ap.orvd.stop()
                if was_running and result != 0:
                    self.say(ap.label, f"orvd ended: {exit_text(result)}" + self.tail_of(ap.orvd))
                    status = 1
                ap.orvd.kill_session()
        # What the access points did last, before the device roots go.
        if self.service is not None:
            try:
                self.look()
                self.final_state()
            except Exception as error:  # the summary must never keep the lab from cleaning up
                self.say("lab", f"(no final summary: {error})")
        if self.service is not None:
            self.service.shutdown()
        for ap in self.aps:
            if ap.vdev is not None:
                was_running = ap.vdev.running()
                result = ap.vdev.stop()
                if was_running and result != 0:
                    self.say(ap.label, f"orvd-vdev ended: {exit_text(result)}" + self.tail_of(ap.vdev))
                    status = 1
                ap.vdev.kill_session()
        if self.tmp is not None:
            shutil.rmtree(self.tmp, ignore_errors=True)
            if self.tmp.exists():
                self.say("lab", f"could not remove {self.tmp}")
                status = 1
        if self.aps or self.service:
            self.say("lab", "stopped; no program left running, device roots removed")
        return status

    def say(self, who: str, text: str):
        """Shows a line at once, after the trace lines that came before it."""
        self.drain_trace()
        self.display.now(who, text)

    def drain_trace(self):
        if self.trace_lines is None:
            return
        while True:
            try:
                when, who, line = self.trace_lines.get_nowait()
            except queue.Empty:
                return
            ap, _, program = who.partition(":")
            self.display.add(when, ap, f"{program}| {line}")

    def request_stop(self, signum, _frame):
        if self.stop_reason is None:
            self.stop_reason = "Ctrl-C" if signum == signal.SIGINT else signal.Signals(signum).name

    @staticmethod
    def tail_of(prog, lines=15) -> str:
        if prog is None or not prog.tail:
            return ""
        return "; its last lines:\n" + "\n".join(f"  | {line}" for line in list(prog.tail)[-lines:])

    # -- one look at everything ---------------------------------------------------------------

    def look(self):
        self.look_at_service()
        self.start_hostapd()
        self.first_scans()
        for ap in self.aps:
            self.look_at_requests(ap)
            self.look_at_reports(ap)
        self.look_at_notes()
        self.drain_trace()
        self.display.flush()

    def ap_of_mac(self, mac) -> AccessPoint | None:
        number = mac_number(mac)
        for ap in self.aps:
            if number is not None and number == ap.base:
                return ap
        return None

    def where(self, mac) -> str:
        """Which access point, radio and VAP an address belongs to by orvd's plan (base MAC +
        VAP id + 16 x radio id), e.g. "ap2 wlan1-va0"; "" when none of the lab's."""
        number = mac_number(mac)
        if number is None:
            return ""
        for ap in self.aps:
            offset = number - ap.base
            if 0 <= offset < 256:
                return f"{ap.label} wlan{offset // 16}-va{offset % 16}"
        return ""

    def start_hostapd(self):
        """Once an access point's agent subscribed (with its radios off: it reads them on
        hostapd's start notice), orvd-vdev announces hostapd."""
        for ap in self.aps:
            if ap.hostapd_started:
                continue
            if not any(
                str(r.message.get("ap-mac", "")).lower() == ap.mac.lower()
                for r in self.service.received("subscribe-request")
                if isinstance(r.message, dict)
            ):
                continue
            ap.hostapd_started = True
            result = subprocess.run(
                [str(self.program("orvd-vdev")), "--root", str(ap.root), "ctl", "hostapd", "start"],
                capture_output=True, text=True, timeout=10, stdin=subprocess.DEVNULL,
            )
            if result.returncode != 0:
                raise LabError(f"{ap.label}: orvd-vdev ctl hostapd start: {result.stderr.strip()}")
            self.display.add(time.monotonic(), ap.label,
                             "hostapd start (orvd-vdev): the agent reads the radios on its start notice")

    # -- the service's side ---------------------------------------------------------------------

    def look_at_service(self):
        for conn in list(self.service.connections):
            received_seen, sent_seen, decisions_seen, closed_seen = self.seen.get(conn.number, (0, 0, 0, False))
            received = list(conn.received)
            sent = list(conn.sent)
            decisions = list(conn.decisions)
            for r in received[received_seen:]:
                self.show_received(conn, r)
            responses = [r for r in received if r.cmd == "rrm-response"]
            for index in range(decisions_seen, len(decisions)):
                when = responses[index].time if index < len(responses) else time.monotonic()
                self.show_decision(conn, decisions[index], when + 1e-6)
            for when, text in sent[sent_seen:]:
                self.show_sent(conn, when, text)
            if conn.closed is not None and not closed_seen:
                why = {1000: "normal", 1001: "going away", 1006: "no close frame"}.get(conn.close_code)
                self.display.add(conn.closed, self.label_of(conn),
                                 f"connection closed, code {conn.close_code}" + (f" ({why})" if why else ""))
                closed_seen = True
            self.seen[conn.number] = (len(received), len(sent), len(decisions), closed_seen)

    def first_scans(self):
        """The service asks for a scan when a subscription describes working radios. When the
        agent was subscribed before hostapd's start notice came, it describes them in an
        rrm-config-changed instead; the lab then asks for that first scan itself."""
        for conn in self.service.open_connections():
            if conn.number in self.nudged or not conn.subscribed:
                continue
            received = list(conn.received)

            def radios_up(r):
                radios = r.message.get("radios") if isinstance(r.message, dict) else None
                return any(isinstance(x, dict) and policy._int(x.get("status")) == 1 for x in radios or [])

            if any(r.cmd == "subscribe-request" and radios_up(r) for r in received):
                self.nudged.add(conn.number)  # the service asked for the scan itself
                continue
            if not any(r.cmd == "rrm-config-changed" and radios_up(r) for r in received):
                continue
            self.nudged.add(conn.number)
            sent = [m for m in self.service.sent(conn=conn) if isinstance(m, dict)]
            if any(str(m.get("cmd", "")).lower() == "rrm-update" for m in sent):
                continue
            self.display.add(time.monotonic(), self.label_of(conn),
                             "subscribed before hostapd's start notice: the lab asks for the first scan")
            try:
                self.service.send_rrm_update(self.args.scan_delay, 0, self.channels, conn=conn)
            except Exception as error:  # the link may have gone meanwhile: the display says so
                self.display.add(time.monotonic(), self.label_of(conn), f"scan request not sent: {error}")

    def label_of(self, conn) -> str:
        if conn.number not in self.labels and conn.ap is not None:
            ap = self.ap_of_mac(conn.ap.ap_mac)
            if ap is not None:
                self.labels[conn.number] = ap.label
        return self.labels.get(conn.number, f"#{conn.number}")

    def show_received(self, conn, r):
        who = self.label_of(conn)
        message = r.message if isinstance(r.message, dict) else {}
        cmd = r.cmd or "(no cmd)"
        note = ""
        if r.schema not in ("valid", "schema missing"):
            note = f"  [{r.schema}{': ' + r.errors[0] if r.errors else ''}]"
        for radio in message.get("radios") or []:
            if isinstance(radio, dict) and cmd in ("subscribe-request", "rrm-response", "rrm-config-changed"):
                for vap in radio.get("vaps") or []:
                    if isinstance(vap, dict) and vap.get("mac"):
                        name = f"wlan{policy._int(radio.get('id'))}-va{policy._int(vap.get('id'))}"
                        self.vap_addresses[(who, name)] = str(vap["mac"])
        if cmd == "subscribe-request":
            if len([x for x in conn.received if x.cmd == "subscribe-request"]) == 1 and conn.received[0] is r:
                self.display.add(r.time - 1e-6, who,
                                 f"connected to the service (connection #{conn.number}, {conn.path})")
            self.display.add(r.time, who, self.describe_subscription(message) + note)
        elif cmd == "rrm-response":
            self.display.add(r.time, who, self.describe_scan(message) + note)
        elif cmd in ("rrm-config-changed", "rrm-mode-response"):
            radios = [x for x in message.get("radios") or [] if isinstance(x, dict)]
            self.display.add(r.time, who, "\n".join([f"{cmd}: the radios as they are now{note}"]
                                                    + self.describe_radios(radios)))
        else:
            self.display.add(r.time, who, f"{cmd}{note}")

    @staticmethod
    def radio_brief(radio: dict) -> str:
        if policy._int(radio.get("status")) != 1:
            return f"radio {policy._int(radio.get('id'))} off"
        return (
            f"radio {policy._int(radio.get('id'))} channel {policy._int(radio.get('channel'))}/"
            f"{policy._int(radio.get('bandwidth')) or 20} MHz, {policy._int(radio.get('power'))} dBm"
        )

    def describe_subscription(self, message: dict) -> str:
        factory = message.get("factory") if isinstance(message.get("factory"), dict) else {}
        radios = [x for x in message.get("radios") or [] if isinstance(x, dict)]
        lines = [
            f"subscribe-request: {message.get('ap-mac', '?')} {factory.get('board', '')} {factory.get('hw', '')}, "
            f"serial {factory.get('serial', '?')}, domain {message.get('domain', '?')}"
        ]
        return "\n".join(lines + self.describe_radios(radios))

    def describe_radios(self, radios: list) -> list:
        """The radios of a description: one heading each, then its VAPs and clients."""
        lines = []
        if radios and not any(policy._int(x.get("status")) == 1 for x in radios):
            return [", ".join(self.radio_brief(x) for x in radios) + " (hostapd's start notice not seen yet)"]
        for radio in radios:
            lines.append(summary.radio_heading(radio))
            if policy._int(radio.get("status")) != 1:
                continue
            vaps = []
            for vap in radio.get("vaps") or []:
                flags = [f for f, key in (("11k", "802dot11k"), ("11r", "802dot11r")) if policy._int(vap.get(key))]
                vaps.append(
                    f"{policy._int(vap.get('id'))} {vap.get('ssid', '?')}"
                    + (f" [{' '.join(flags)}]" if flags else "")
                    + f" {str(vap.get('mac', '')).lower()}"
                )
            lines.append("  VAPs: " + (", ".join(vaps) or "none"))
            clients = collections.OrderedDict()
            for client in radio.get("assoclist") or []:
                if isinstance(client, dict):
                    clients.setdefault(client.get("ssid", "?"), []).append(policy._int(client.get("rssi")))
            if clients:
                count = sum(len(v) for v in clients.values())
                lines.append(
                    f"  clients ({count}): "
                    + ", ".join(f"{ssid} x{len(v)} ({' '.join(str(x) for x in v)} dBm)" for ssid, v in clients.items())
                )
            elif "assoclist" in radio:
                lines.append("  clients: none")
        return lines

    def describe_scan(self, message: dict) -> str:
        environment = message.get("rf-environment") or []
        heard = policy.merge_environment(environment)
        table = summary.neighbour_table(message).split("\n")
        if message.get("ap-mac") and table and table[0].startswith(str(message.get("ap-mac"))):
            table = table[1:]
        passes = len([t for t in environment if isinstance(t, list)])
        return "\n".join(
            [f"scan result (rrm-response): {len(heard)} neighbours heard, "
             f"{passes} pass{'es' if passes != 1 else ''} with results"]
            + table
        )

    def show_decision(self, conn, plan, when):
        lines = summary.decision_lines("", plan).split("\n")
        lines = [line.strip() for line in lines if line.strip()]
        text = "decision: " + lines[0] if lines else "decision: nothing to change"
        if len(lines) > 1:
            text += "\n" + "\n".join(lines[1:])
        self.display.add(when, self.label_of(conn), text)

    def show_sent(self, conn, when, text):
        who = self.label_of(conn)
        try:
            message = json.loads(text)
        except (TypeError, ValueError):
            self.display.add(when, who, f"service sent raw text ({len(text)} characters)")
            return
        cmd = str(message.get("cmd", "?"))
        if cmd == "subscribe-response":
            extra = f", domain {message['domain']}" if message.get("domain") else ""
            code = f" {message['code']}" if "code" in message else ""
            self.display.add(when, who, f"subscribe-response: {message.get('status')}{code}{extra}")
        elif cmd == "rrm-update":
            driver_scan = policy._int(message.get("vorna-rrm-scanning"))
            kind = "the driver's RRM scan" if driver_scan else "standard scan, 5 passes"
            self.display.add(
                when, who,
                f"scan requested (rrm-update): {kind}, delay {message.get('rrm-scan-delay')} s, "
                f"channels {message.get('rrm-scan-channels') or 'all'}",
            )
        elif cmd == "rrm-info":
            radios = ", ".join(
                f"radio {r.get('id')} channel {r.get('channel')}/{r.get('bandwidth')} MHz"
                + (f" {r.get('primary-channel')}" if r.get("bandwidth") == 40 else "")
                + f" power {r.get('power')} dBm"
                for r in message.get("radios") or []
            ) or "no radio"
            fast = ""
            if "use-80211r" in message:
                fast = f"; 802.11r {'on' if message['use-80211r'] else 'off'}"
            lines = [f"rrm-info sent: {radios}{fast}"]
            for entry in message.get("802dot11k") or []:
                owner = self.where(entry.get("neighbour-mac"))
                vaps = ", ".join(f"{v.get('id')} {v.get('ssid')}" for v in entry.get("vaps") or [])
                lines.append(
                    f"  802.11k neighbour {entry.get('neighbour-mac')} channel {entry.get('channel')}"
                    + (f" ({owner.split()[0]} radio {owner.split('wlan')[1].split('-')[0]})" if owner else "")
                    + f": VAPs {vaps}"
                )
            self.display.add(when, who, "\n".join(lines))
        elif cmd == "fbt-info":
            lines = [f"fbt-info sent: {len(message.get('vaps') or [])} VAPs, reassociation deadline "
                     f"{message.get('fbt-reassoc-deadline')}, over-ds {message.get('fbt-over-ds')}"]
            for vap in message.get("vaps") or []:
                remotes = ", ".join(
                    f"{r.get('remote-r1-kh-id')}/{r.get('remote-r0-kh-id')}"
                    + (f" ({self.where(r.get('remote-r1-kh-id'))})" if self.where(r.get("remote-r1-kh-id")) else "")
                    for r in vap.get("remotes") or []
                )
                lines.append(f"  wlan{vap.get('radio_id')}-va{vap.get('vap_id')}: remotes {remotes}")
                for r in vap.get("remotes") or []:
                    if self.where(r.get("remote-r1-kh-id")):
                        self.note_address_plan(r.get("remote-r1-kh-id"), self.where(r.get("remote-r1-kh-id")))
            self.display.add(when, who, "\n".join(lines))
        else:
            self.display.add(when, who, f"service sent {cmd}")

    def look_at_notes(self):
        """The service's own remarks that explain a pause (no scan asked, nothing sent)."""
        while True:
            try:
                when, text = self.service_notes.get_nowait()
            except queue.Empty:
                return
            if any(key in text for key in ("no scan requested", "no second one requested", "not sent",
                                            "left unanswered", "refused")):
                label, _, rest = text.partition(": ")
                ap = self.ap_of_mac(label)
                self.display.add(when, ap.label if ap else "svc", f"service: {rest or text}")

    # -- the access point's side ----------------------------------------------------------------

    def wall_to_monotonic(self, stamp) -> float:
        try:
            wall = datetime.datetime.fromisoformat(str(stamp).replace("Z", "+00:00")).timestamp()
        except ValueError:
            return time.monotonic()
        return self.started + (wall - self.started_wall)

    def look_at_requests(self, ap: AccessPoint):
        entries = ap.new_requests()
        if not entries:
            return
        radios_changed = False
        last_update = None
        resets = collections.OrderedDict()  # command -> [time, count, outcomes, interfaces]
        for entry in entries:
            request = entry.get("request")
            if not isinstance(request, dict):
                continue
            command = request.get("command")
            when = self.wall_to_monotonic(entry.get("time"))
            reply = entry.get("reply")
            outcome = "no reply (muted)" if reply is None else (
                "ok" if isinstance(reply, dict) and reply.get("status") == "ok"
                else f"refused: {reply.get('reason') if isinstance(reply, dict) else reply}"
            )
            if command == "get":
                ap.gets += 1
            elif command == "update-quillon":
                params = request.get("params") if isinstance(request.get("params"), dict) else {}
                shown = " ".join(f"{k}={v}" for k, v in params.items())
                self.display.add(when, ap.label,
                                 f"networkd <- update-quillon {request.get('ifname')} {shown}: {outcome}")
                radios_changed = radios_changed or outcome == "ok"
                last_update = when
            elif command == "update-quillon-fbt":
                self.display.add(when, ap.label, self.describe_fbt(request, outcome))
            elif command in ("reset-quillon", "reset-quillon-fbt"):
                slot = resets.setdefault(command, [when, 0, collections.Counter(), []])
                slot[1] += 1
                slot[2][outcome] += 1
                if request.get("ifname"):
                    slot[3].append(str(request.get("ifname")))
            else:
                self.display.add(when, ap.label, f"{entry.get('as', '?')} <- {command or entry}: {outcome}")
        for command, (when, count, outcomes, names) in resets.items():
            if not names:
                where = f"{count} times"
            else:
                where = names[0] if count == 1 else f"{count} interfaces, {names[0]} .. {names[-1]}"
            said = ", ".join(text if n == count else f"{n} {text}" for text, n in outcomes.items())
            self.display.add(when, ap.label, f"networkd <- {command} ({where}): {said}")
        if radios_changed:
            self.display.add(last_update + 1e-6, ap.label, self.applied_radios(ap))

    def describe_fbt(self, request: dict, outcome: str) -> str:
        params = request.get("params") if isinstance(request.get("params"), dict) else {}
        ft = params.get("ft-config") if isinstance(params.get("ft-config"), dict) else {}
        peers = ft.get("mac") if isinstance(ft.get("mac"), dict) else {}
        shown = []
        for name, peer in peers.items():
            r0 = peer.get("r0-kh-id") if isinstance(peer, dict) else "?"
            owner = self.where(name)
            shown.append(f"{name}/{r0}" + (f" ({owner})" if owner else ""))
        md = ft.get("mobility-domain")
        md_text = f"{int(md):04x}" if str(md).isdigit() else str(md)
        return (
            f"networkd <- update-quillon-fbt {request.get('ifname')}: 802.11r {ft.get('enabled', '?')}, "
            f"R0KH {ft.get('r0-key-holder-id', '?')}, R1KH {ft.get('r1-key-holder-id', '?')}, "
            f"mobility domain {md_text}, over-ds {ft.get('ft-over-ds', '?')}: {outcome}\n"
            f"  key holders of its peers: {', '.join(shown) or 'none'}"
        )

    def vdev_state(self, ap: AccessPoint) -> dict:
        result = subprocess.run(
            [str(self.program("orvd-vdev")), "--root", str(ap.root), "ctl", "state"],
            capture_output=True, text=True, timeout=10, stdin=subprocess.DEVNULL,
        )
        if result.returncode != 0:
            raise LabError(f"{ap.label}: orvd-vdev ctl state: {result.stderr.strip()}")
        return json.loads(result.stdout)

    def applied_radios(self, ap: AccessPoint) -> str:
        try:
            state = self.vdev_state(ap)
        except (LabError, ValueError, subprocess.SubprocessError) as error:
            return f"(radio state not readable: {error})"
        lines = []
        for name, radio in sorted((state.get("radios") or {}).items()):
            chanspec = policy._int(radio.get("chanspec"))
            channel, bandwidth, position = decode_chanspec(chanspec)
            lines.append(
                f"{name} now: channel {channel}/{bandwidth or '?'} MHz{' ' + position if position else ''} "
                f"(chanspec 0x{chanspec:04x}), tx power {radio.get('actual_tx_power')} dBm"
            )
        return "applied on the virtual access point:\n" + "\n".join("  " + line for line in lines)

    def look_at_reports(self, ap: AccessPoint):
        """The 802.11k neighbour-report command files orvd writes (each write replaces the
        file, so the last command of a burst is what stays)."""
        proc = ap.root / "proc"
        try:
            files = sorted(proc.glob("*/rm_neighbor_report"))
        except OSError:
            return
        changed = collections.OrderedDict()  # what the file says -> the VAPs whose file says it
        for path in files:
            try:
                content = path.read_text(errors="replace")
            except OSError:
                continue
            vap = path.parent.name
            if ap.reports.get(vap, "") == content:
                continue
            ap.reports[vap] = content
            changed.setdefault(self.report_text(content), []).append(vap)
        when = time.monotonic()
        for text, vaps in changed.items():
            self.display.add(when, ap.label, f"802.11k report {', '.join(vaps)}: {text}")

    def report_text(self, content: str) -> str:
        text = report_command(content)
        if text.startswith("add "):
            owner = self.where(text.split()[1])
            if owner:
                text += f" -> {owner}"
                self.note_address_plan(text.split()[1], owner)
        return text

    def note_address_plan(self, address: str, owner: str):
        """Once: when the VAP an address names by orvd's plan has another interface address on
        the virtual access point, say so, so that the two numbers do not puzzle anyone."""
        if self.plan_noted:
            return
        label, vap = owner.split()
        actual = self.vap_addresses.get((label, vap))
        if actual is None or mac_number(actual) == mac_number(address):
            return
        self.plan_noted = True
        self.display.add(
            time.monotonic(), "lab",
            f"note: orvd addresses a VAP as base MAC + VAP id + 16 x radio id ({label} {vap}: {address}); "
            f"its interface address is {actual.lower()} (the scenario sets it apart from that plan)",
        )

    def final_state(self):
        for ap in self.aps:
            if ap.vdev is None or not ap.vdev.running():
                continue
            lines = [self.applied_radios(ap).replace("applied on the virtual access point:", "final state:")]
            for vap, content in sorted(ap.reports.items()):
                lines.append(f"  802.11k {vap}: {self.report_text(content)}")
            lines.append(f"  configd reads served: {ap.gets}")
            self.say(ap.label, "\n".join(lines))


def arguments(argv=None):
    parser = argparse.ArgumentParser(
        prog="scripts/lab",
        description="The live lab: orvd on virtual access points, planned by the reference RRM service.",
    )
    parser.add_argument("--scenario", metavar="FILE", default=str(DEFAULT_SCENARIO),
                        help="the access point's scenario (default sim/vdev/scenarios/default.json); "
                        "further access points are derived from it")
    parser.add_argument("--aps", metavar="N", type=int, default=1, help="number of access points (1 to 8; default 1)")
    parser.add_argument("--duration", metavar="SECONDS", type=float, default=0,
                        help="stop after this long (default: at Ctrl-C)")
    parser.add_argument("--trace", action="store_true", help="also show orvd's and orvd-vdev's own log lines")
    parser.add_argument("--build-dir", metavar="DIR", default=str(TOP / "build"),
                        help="where the programs are (default build/)")
    parser.add_argument("--no-build", action="store_true",
                        help="use the programs as they are (scripts/lab otherwise builds them first)")
    parser.add_argument("--scan-channels", metavar="TEXT", default=DEFAULT_CHANNELS,
                        help=f'channels of each scan (default "{DEFAULT_CHANNELS}"; "all" for every channel)')
    parser.add_argument("--scan-delay", metavar="SECONDS", type=int, default=1,
                        help="how long orvd waits before it scans (default 1)")
    parser.add_argument("--interval", metavar="SECONDS", type=float, default=30,
                        help="scan and decide again this long after each decision (default 30; 0: once)")
    args = parser.parse_args(argv)
    if not 1 <= args.aps <= 8:
        parser.error("--aps takes 1 to 8")
    if args.duration < 0 or args.interval < 0 or args.scan_delay < 0:
        parser.error("--duration, --interval and --scan-delay cannot be negative")
    return args


def main(argv=None) -> int:
    args = arguments(argv)
    lab = Lab(args)
    for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, lab.request_stop)
    return lab.run()


if __name__ == "__main__":
    sys.exit(main())
