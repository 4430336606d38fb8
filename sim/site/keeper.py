"""SiteKeeper: keeps what each access point of the site hears up to date. It reads every
radio's channel and power from the radio state files (only the files that changed), and when
any changed it works out what each access point hears from the others and from the external
neighbours, and gives each orvd-vdev whose list changed the new one (`neighbours FILE` on its
control socket). The radios' next scans show it."""
from __future__ import annotations

import json
import os
import pathlib
import socket

from .model import Site
from .propagation import received_dbm
from .radios import StateReader, refresh, scenario_radios

CONTROL_TIMEOUT_S = 5.0
RSSI_CEILING_DBM = -10  # nearer than a metre the reading stays here


def neighbour_entry(bssid: str, ssid: str, channel: int, bandwidth: int, sideband: str, power: int) -> dict:
    """A neighbour in orvd-vdev's scenario format, without its readings."""
    entry = {"bssid": bssid, "ssid": ssid, "channel": channel, "bandwidth": bandwidth, "tx-power": power}
    if bandwidth == 40:
        entry["control-sideband"] = sideband
    return entry


def ask_simulator(root: pathlib.Path, line: str) -> str:
    """One command on an orvd-vdev's control socket; its answer line."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as conn:
        conn.settimeout(CONTROL_TIMEOUT_S)
        conn.connect(str(root / "sim" / "vdev" / "control"))
        conn.sendall(line.encode() + b"\n")
        answer = b""
        while b"\n" not in answer:
            chunk = conn.recv(4096)
            if not chunk:
                break
            answer += chunk
    return answer.split(b"\n", 1)[0].decode(errors="replace")


class SiteKeeper:
    """`roots` maps each access point's label to its device root; `workdirs` to a folder of its
    own where the keeper writes the list it hands over."""

    def __init__(self, site: Site, roots: dict, workdirs: dict):
        self.site = site
        self.roots = roots
        self.workdirs = workdirs
        self.radios = [r for ap in site.aps for r in scenario_radios(ap)]
        self.readers = {r.key: StateReader(roots[r.ap.label] / "sim" / "vrtl" / f"{r.name}.json")
                        for r in self.radios}
        self.given = {}  # label -> the list the simulator has
        self.refused = {}  # label -> the list it did not take, not offered again until it changes
        self.problems = []  # what could not be handed over, for the lab to show

    def update(self) -> bool:
        """Reads the radios again and hands over every list that changed; True when a radio's
        channel or power changed since the last call."""
        changed = False
        for radio in self.radios:
            changed = refresh(radio, self.readers[radio.key]) or changed
        if changed or len(self.given) < len(self.site.aps):
            for ap in self.site.aps:
                self.hand_over(ap, self.heard_by(ap))
        return changed

    def heard_by(self, ap) -> list:
        """What the radios of `ap` hear: every BSS of the other access points' working radios in
        their band, then the external neighbours, each above the sensitivity."""
        mine = [r for r in self.radios if r.ap is ap]
        entries = {}

        def hear(bssid, ssid, band, channel, bandwidth, sideband, power, sender, sender_key):
            for listener in mine:
                if listener.band != band:
                    continue
                rssi = received_dbm(self.site, band, power, sender, ap, sender_key, listener.key)
                if rssi < self.site.sensitivity_dbm:
                    continue
                entry = entries.setdefault(bssid, neighbour_entry(bssid, ssid, channel, bandwidth, sideband, power))
                entry.setdefault("rssi", {})[listener.name] = min(RSSI_CEILING_DBM, round(rssi))

        for other in self.radios:
            if other.ap is ap or not other.up:
                continue
            for bss in other.bsses:
                hear(bss.bssid, bss.ssid, other.band, other.channel, other.bandwidth, other.sideband,
                     other.power, other.ap, other.key)
        for external in self.site.externals:
            hear(external.bssid, external.ssid, external.band, external.channel, external.bandwidth,
                 external.sideband, external.tx_power, external, external.bssid)
        return list(entries.values())

    def hand_over(self, ap, heard: list):
        if self.given.get(ap.label) == heard or self.refused.get(ap.label) == heard:
            return
        path = pathlib.Path(self.workdirs[ap.label]).resolve() / "heard.json"
        temporary = path.with_suffix(".tmp")
        temporary.write_text(json.dumps(heard, indent=1) + "\n")
        os.replace(temporary, path)
        try:
            answer = ask_simulator(self.roots[ap.label], f"neighbours {path}")
        except OSError as error:
            answer = f"error {error}"
        if answer == "ok":
            self.given[ap.label] = heard
            self.refused.pop(ap.label, None)
        else:
            self.refused[ap.label] = heard
            self.problems.append(f"{ap.label}: orvd-vdev did not take the site's neighbours: {answer}")
