"""One access point of the lab: its scenario (the first one's as given, the others derived from
it), its device root, and what orvd-vdev and orvd leave there for the lab to read."""
from __future__ import annotations

import json
import pathlib
import subprocess

from .addresses import mac_number
from .programs import LabError, through_emulator


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
        self.updates_seen = None  # monotonic time of the last look that found radio updates

    def ctl(self, vdev: pathlib.Path, *words) -> str:
        """What `orvd-vdev --root ROOT ctl WORDS...` writes; LabError when it fails."""
        argv, env = through_emulator([str(vdev), "--root", str(self.root), "ctl", *words], None)
        result = subprocess.run(
            argv, env=env, capture_output=True, text=True, timeout=10, stdin=subprocess.DEVNULL,
        )
        if result.returncode != 0:
            raise LabError(f"{self.label}: orvd-vdev ctl {' '.join(words)}: {result.stderr.strip()}")
        return result.stdout

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

    def new_reports(self) -> list:
        """(VAP, content) of each 802.11k neighbour-report command file orvd wrote
        (/proc/<vap>/rm_neighbor_report) whose content changed since the last call. Each write
        replaces the file, so the last command of a burst is what stays."""
        try:
            files = sorted((self.root / "proc").glob("*/rm_neighbor_report"))
        except OSError:
            return []
        fresh = []
        for path in files:
            try:
                content = path.read_text(errors="replace")
            except OSError:
                continue
            vap = path.parent.name
            if self.reports.get(vap, "") == content:
                continue
            self.reports[vap] = content
            fresh.append((vap, content))
        return fresh
