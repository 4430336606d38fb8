"""The radios of the site as they are now: each access point's radios from its scenario (band,
VAP addresses and names), and their channel and transmit power from the radio state files the
emulated driver and orvd-vdev keep ($ROOT/sim/vrtl/<radio>.json)."""
from __future__ import annotations

import dataclasses
import json
import os
import pathlib

from .model import mac_number, mac_text


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


@dataclasses.dataclass
class Bss:
    bssid: str  # lower case
    ssid: str


@dataclasses.dataclass
class SiteRadio:
    """One radio of one access point of the site."""

    ap: object  # the SiteAp
    name: str  # "wlan0"
    band: int
    bsses: list  # Bss of each VAP that is up
    channel: int = 0
    bandwidth: int = 20
    sideband: str = "lower"
    power: int = 0
    up: bool = False  # its state file exists and names a channel

    @property
    def key(self) -> str:
        return f"{self.ap.label}/{self.name}"

    @property
    def x(self):
        return self.ap.x

    @property
    def y(self):
        return self.ap.y

    @property
    def floor(self):
        return self.ap.floor


def scenario_radios(ap) -> list:
    """The radios of an access point's scenario, with the address and name of each VAP that is up
    (a VAP's address defaults to the base MAC + 16 x radio number + VAP index)."""
    scenario = ap.scenario
    base = mac_number((scenario.get("factory") or {}).get("mac", "")) or 0
    radios = []
    for radio in scenario.get("radios") or []:
        name = str(radio.get("name", ""))
        number = int(name[4:]) if name[4:].isdigit() else 0
        bsses = []
        for index, vap in enumerate(radio.get("vaps") or []):
            if not vap.get("up", True) or not radio.get("up", True):
                continue
            mac = vap.get("mac") or mac_text(base + 16 * number + index)
            ssid = str((vap.get("settings") or {}).get("ssid", ""))
            bsses.append(Bss(str(mac).lower(), ssid))
        radios.append(SiteRadio(ap=ap, name=name, band=int(radio.get("band", 2)), bsses=bsses))
    return radios


class StateReader:
    """Reads a radio's state file again only when it was replaced or changed."""

    def __init__(self, path: pathlib.Path):
        self.path = path
        self.stamp = None
        self.values = None  # (chanspec, power) or None

    def read(self):
        try:
            info = os.stat(self.path)
        except OSError:
            self.stamp, self.values = None, None
            return None
        stamp = (info.st_ino, info.st_mtime_ns, info.st_size)
        if stamp != self.stamp:
            try:
                state = json.loads(self.path.read_text())
                self.values = (int(state["chanspec"]), int(state["actual_tx_power"]))
                self.stamp = stamp
            except (OSError, ValueError, KeyError, TypeError):
                return self.values  # mid-replacement or broken: the last reading stands
        return self.values


def refresh(radio: SiteRadio, reader: StateReader) -> bool:
    """Brings the radio up to date with its state file; True when channel or power changed."""
    values = reader.read()
    before = (radio.up, radio.channel, radio.bandwidth, radio.sideband, radio.power)
    if values is None:
        radio.up = False
    else:
        chanspec, radio.power = values
        channel, bandwidth, position = decode_chanspec(chanspec)
        radio.channel, radio.bandwidth = channel, bandwidth or 20
        radio.sideband = "upper" if position == "upper" else "lower"
        radio.up = channel > 0
    return before != (radio.up, radio.channel, radio.bandwidth, radio.sideband, radio.power)
