"""The lab itself: starts the service and the programs of each access point, looks at
everything every TICK until it is told to stop, then stops everything in order."""
from __future__ import annotations

import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import tempfile
import time

from sim.controller import RrmService, Settings
from sim.site import SiteError, load_site, office

from .accesspoint import AccessPoint
from .addresses import AddressBook
from .display import Display
from .events import APPLIED, Narrator, describe_applied
from .programs import LabError, Program, exit_text, last_lines, sanitizer_runtime
from .sitewatch import SiteWatch

TICK = 0.2  # seconds between two looks at everything
UPDATES_SETTLE_S = 2.0  # quiet after a radio update before the radios are read back


class Lab:
    def __init__(self, args):
        self.args = args
        self.build = pathlib.Path(args.build_dir).resolve()
        self.started = time.monotonic()
        self.display = Display(self.started, time.time())
        self.trace_lines = queue.Queue() if args.trace else None
        self.service_notes = queue.Queue()
        self.tmp = None
        self.aps = []
        self.site = None  # sim.site.Site when the lab is a site (--site, or --aps 2 and more)
        self.site_watch = None
        self.service = None
        self.stop_reason = None
        self.seen = {}  # connection number -> (received, sent, decisions, closed shown)
        self.channels = "" if args.scan_channels == "all" else args.scan_channels
        self.book = AddressBook(self.aps)
        self.narrator = Narrator(self.display, self.book)

    # -- life cycle -----------------------------------------------------------------------------

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
        if args.site or args.aps > 1:
            try:
                self.site = load_site(args.site, source) if args.site else office(args.aps, source)
            except SiteError as error:
                raise LabError(f"site: {error}")
        self.tmp = pathlib.Path(tempfile.mkdtemp(prefix="orvd-lab-"))
        for number in range(1, (len(self.site.aps) if self.site else 1) + 1):
            workdir = self.tmp / f"ap{number}"
            workdir.mkdir()
            path = scenario
            if self.site is not None:
                path = workdir / "scenario.json"
                path.write_text(json.dumps(self.site.aps[number - 1].scenario, indent=2) + "\n")
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
        count = len(self.aps)
        self.say(
            "lab",
            f"{count} access point{'s' if count > 1 else ''}, scenario {scenario.name}, service {url}\n"
            f"scans: standard, delay {args.scan_delay} s, channels {channels or 'all'}; {cycle}\n"
            + (self.site_text() + "\n" if self.site else "")
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
                raise LabError(f"{ap.label} orvd-vdev did not get ready" + last_lines(ap.vdev))
            self.say(ap.label, f"virtual access point {ap.mac} (serial {ap.serial}) ready, pid {ap.vdev.pid}")
        if self.site is not None:
            self.site_watch = SiteWatch(self, self.site, {ap.label: ap.root for ap in self.aps},
                                        {ap.label: ap.workdir for ap in self.aps})
            self.site_watch.look(self.service)  # the first scans already hear the site

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

    def site_text(self) -> str:
        site = self.site
        where = ", ".join(f"{ap.label} ({ap.x:g}, {ap.y:g}" + (f", floor {ap.floor}" if ap.floor else "") + ")"
                          for ap in site.aps)
        bands = "; ".join(f"{'2.4' if band == 2 else band} GHz {m.loss_at_1m:g} dB at 1 m, exponent {m.exponent:g}"
                          for band, m in sorted(site.bands.items()))
        return (f"site: {site.name}, {site.width_m:g} x {site.depth_m:g} m, {len(site.walls)} walls, "
                f"{len(site.externals)} external neighbours; access points at {where} (metres)\n"
                f"propagation: {bands}; {site.floor_loss_db:g} dB per floor, fading within "
                f"+-{site.fading_db:g} dB (seed {site.seed}), heard above {site.sensitivity_dbm:g} dBm")

    def watch(self):
        deadline = self.started + self.args.duration if self.args.duration else None
        hostapd_deadline = time.monotonic() + 30
        while self.stop_reason is None:
            self.look()
            for ap in self.aps:
                for prog in (ap.vdev, ap.orvd):
                    if not prog.running():
                        raise LabError(
                            f"{prog.name} ended on its own ({exit_text(prog.proc.returncode)})" + last_lines(prog)
                        )
                if not ap.hostapd_started and time.monotonic() > hostapd_deadline:
                    raise LabError(f"{ap.label}: orvd sent no subscribe-request within 30 s" + last_lines(ap.orvd))
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
        if self.site_watch is not None:
            try:
                self.look()
                programs = [(name, prog.pid) for ap in self.aps
                            for name, prog in (("orvd", ap.orvd), ("orvd-vdev", ap.vdev))
                            if prog is not None and prog.running()]
                self.site_watch.finish(programs + [("the lab (service, site, display)", os.getpid())])
            except Exception as error:  # the summary must never keep the lab from cleaning up
                self.say("lab", f"(no site summary: {error})")
        for ap in self.aps:
            status |= self.stop_program(ap, ap.orvd, "orvd")
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
            status |= self.stop_program(ap, ap.vdev, "orvd-vdev")
        if self.tmp is not None:
            shutil.rmtree(self.tmp, ignore_errors=True)
            if self.tmp.exists():
                self.say("lab", f"could not remove {self.tmp}")
                status = 1
        if self.aps or self.service:
            self.say("lab", "stopped; no program left running, device roots removed")
        return status

    def stop_program(self, ap: AccessPoint, prog: Program | None, name: str) -> int:
        """Stops one program of an access point and whatever is left of its session; 1 when it
        was running and did not end well (it says how), 0 otherwise."""
        if prog is None:
            return 0
        was_running = prog.running()
        result = prog.stop()
        failed = was_running and result != 0
        if failed:
            self.say(ap.label, f"{name} ended: {exit_text(result)}" + last_lines(prog))
        prog.kill_session()
        return 1 if failed else 0

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

    # -- one look at everything -----------------------------------------------------------------

    def look(self):
        self.look_at_service()
        if self.site_watch is not None:
            self.site_watch.look(self.service)
        self.start_hostapd()
        for ap in self.aps:
            self.look_at_requests(ap)
            self.narrator.show_reports(ap, ap.new_reports())
        self.look_at_notes()
        self.drain_trace()
        self.display.flush()

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
            ap.ctl(self.program("orvd-vdev"), "hostapd", "start")
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
                self.narrator.show_received(conn, r)
            responses = [r for r in received if r.cmd == "rrm-response"]
            for index in range(decisions_seen, len(decisions)):
                when = responses[index].time if index < len(responses) else time.monotonic()
                self.narrator.show_decision(conn, decisions[index], when + 1e-6)
            for when, text in sent[sent_seen:]:
                self.narrator.show_sent(conn, when, text)
            if conn.closed is not None and not closed_seen:
                self.narrator.show_closed(conn)
                closed_seen = True
            self.seen[conn.number] = (len(received), len(sent), len(decisions), closed_seen)

    def look_at_notes(self):
        """The service's own remarks that explain a pause (no scan asked, nothing sent)."""
        while True:
            try:
                when, text = self.service_notes.get_nowait()
            except queue.Empty:
                return
            self.narrator.show_service_note(when, text)

    # -- the access point's side ----------------------------------------------------------------

    def look_at_requests(self, ap: AccessPoint):
        """The networkd requests orvd sent since the last look; once a burst of updates that
        changed the radios has ended, what the virtual access point now has. A decision is
        applied as several requests (channel, then power, radio by radio) that may fall into
        different looks: the radios are read back only after a look with no update and
        UPDATES_SETTLE_S without one, so that the readout shows the whole decision."""
        if self.narrator.show_requests(ap, ap.new_requests()) is not None:
            ap.updates_seen = time.monotonic()
        elif ap.updates_seen is not None and time.monotonic() - ap.updates_seen >= UPDATES_SETTLE_S:
            ap.updates_seen = None
            self.display.add(time.monotonic(), ap.label, self.applied_radios(ap))

    def applied_radios(self, ap: AccessPoint, heading: str = APPLIED) -> str:
        try:
            state = json.loads(ap.ctl(self.program("orvd-vdev"), "state"))
        except (LabError, ValueError, subprocess.SubprocessError) as error:
            return f"(radio state not readable: {error})"
        return describe_applied(state, heading)

    def final_state(self):
        received = self.service.received()
        wrong = [r for r in received if r.schema not in ("valid", "schema missing")]
        unchecked = [r for r in received if r.schema == "schema missing"]
        text = f"{len(received)} messages from the agents: {len(received) - len(wrong) - len(unchecked)} valid against their schemas"
        if unchecked:
            text += f", {len(unchecked)} without a schema ({', '.join(sorted({str(r.cmd) for r in unchecked}))})"
        if wrong:
            text += f", {len(wrong)} NOT valid: " + "; ".join(
                f"{r.cmd}: {r.errors[0] if r.errors else r.schema}" for r in wrong[:5])
        self.say("svc", text)
        for ap in self.aps:
            if ap.vdev is None or not ap.vdev.running():
                continue
            self.say(ap.label, self.narrator.final_state(ap, self.applied_radios(ap, "final state:")))
