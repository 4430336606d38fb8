"""The site: its access points (position, floor, scenario), the external neighbours nobody
manages, walls, and the propagation parameters per band. Read from a site file or generated
(`office`)."""
from __future__ import annotations

import dataclasses
import json
import math
import pathlib

BANDS = (2, 5)
OFFICE_SPACING_M = 15.0
MAX_ACCESS_POINTS = 64  # the lab's MAC plan gives each access point 0x1000 addresses


class SiteError(ValueError):
    """A site file that cannot be used; the text names the value that does not hold."""


@dataclasses.dataclass(frozen=True)
class BandModel:
    """Log-distance path loss: loss_at_1m + 10 x exponent x log10(metres)."""

    loss_at_1m: float
    exponent: float


# Indoor office figures: free-space loss at 1 m for each band's centre frequency (2.44 and
# 5.5 GHz), and exponents for open-plan offices with furniture and people.
DEFAULT_BANDS = {2: BandModel(40.2, 3.0), 5: BandModel(47.3, 3.3)}


@dataclasses.dataclass(frozen=True)
class Wall:
    floor: int
    start: tuple  # (x, y) metres
    end: tuple
    loss_db: float


@dataclasses.dataclass
class SiteAp:
    label: str  # "ap1", "ap2", ... in the order of the file
    x: float
    y: float
    floor: int
    scenario: dict  # the orvd-vdev scenario of this access point


@dataclasses.dataclass(frozen=True)
class External:
    """An access point nobody manages: fixed channel and power, heard through the same model."""

    bssid: str
    ssid: str
    channel: int
    bandwidth: int
    sideband: str
    tx_power: int
    x: float
    y: float
    floor: int

    @property
    def band(self) -> int:
        return 2 if self.channel < 36 else 5


@dataclasses.dataclass
class Site:
    aps: list
    externals: list = dataclasses.field(default_factory=list)
    walls: list = dataclasses.field(default_factory=list)
    width_m: float = 0.0
    depth_m: float = 0.0
    floor_loss_db: float = 15.0
    fading_db: float = 4.0  # the fading term of a link lies within +-fading_db
    seed: int = 1
    sensitivity_dbm: float = -95.0  # weaker signals are not heard
    bands: dict = dataclasses.field(default_factory=lambda: dict(DEFAULT_BANDS))
    name: str = "site"

    @property
    def floors(self) -> list:
        return sorted({ap.floor for ap in self.aps} | {e.floor for e in self.externals}
                      | {w.floor for w in self.walls})


# -- scenarios of the access points ------------------------------------------------------------


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


def office_scenario(source: dict, number: int) -> dict:
    """Access point `number` of a generated office: the scenario's radios and VAPs with its own
    addresses, every radio on the scenario's channel at its highest power (as a device comes out
    of the box), and none of the scenario's fixed neighbours: it hears the site."""
    data = derived_scenario(source, number)
    data["neighbours"] = []
    for radio in data.get("radios") or []:
        limits = radio.get("tx-power-limits")
        settings = radio.setdefault("settings", {})
        if isinstance(limits, list) and len(limits) == 2:
            settings["tx-power"] = str(limits[1])
    return data


def office(count: int, scenario: dict) -> Site:
    """`count` access points on a grid 15 m apart on one floor, as square as it goes (3 x 2
    for 6, 5 x 4 for 20), each made from `scenario` by office_scenario."""
    if not 1 <= count <= MAX_ACCESS_POINTS:
        raise SiteError(f"an office has 1 to {MAX_ACCESS_POINTS} access points")
    columns = math.ceil(math.sqrt(count))
    rows = math.ceil(count / columns)
    aps = []
    for index in range(count):
        row, column = divmod(index, columns)
        aps.append(SiteAp(f"ap{index + 1}", column * OFFICE_SPACING_M, row * OFFICE_SPACING_M, 0,
                          office_scenario(scenario, index + 1)))
    margin = OFFICE_SPACING_M / 2
    for ap in aps:
        ap.x += margin
        ap.y += margin
    return Site(aps=aps, width_m=columns * OFFICE_SPACING_M, depth_m=rows * OFFICE_SPACING_M,
                name=f"office of {count}")


# -- site files --------------------------------------------------------------------------------


def _number(value, where: str, low=None, high=None) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not math.isfinite(value):
        raise SiteError(f"{where}: a number")
    if (low is not None and value < low) or (high is not None and value > high):
        raise SiteError(f"{where}: between {low} and {high}")
    return float(value)


def _integer(value, where: str, low=None, high=None) -> int:
    number = _number(value, where, low, high)
    if number != int(number):
        raise SiteError(f"{where}: a whole number")
    return int(number)


def _point(value, where: str) -> tuple:
    if not isinstance(value, list) or len(value) != 2:
        raise SiteError(f"{where}: [x, y] in metres")
    return (_number(value[0], f"{where}[0]"), _number(value[1], f"{where}[1]"))


def _object(value, where: str) -> dict:
    if not isinstance(value, dict):
        raise SiteError(f"{where}: an object")
    return value


def _list(data: dict, key: str, where: str) -> list:
    value = data.get(key, [])
    if not isinstance(value, list):
        raise SiteError(f"{where}{key}: a list")
    return value


def _bands(data: dict) -> dict:
    bands = dict(DEFAULT_BANDS)
    for key, value in _object(data.get("propagation", {}), "propagation").items():
        where = f"propagation.{key}"
        if key not in ("2", "5"):
            raise SiteError(f"{where}: the bands are \"2\" and \"5\"")
        value = _object(value, where)
        band = bands[int(key)]
        bands[int(key)] = BandModel(
            _number(value.get("loss-at-1m", band.loss_at_1m), f"{where}.loss-at-1m", 0, 100),
            _number(value.get("exponent", band.exponent), f"{where}.exponent", 1, 8),
        )
    return bands


def _external(value, where: str) -> External:
    value = _object(value, where)
    bssid = value.get("bssid")
    if mac_number(bssid) is None:
        raise SiteError(f"{where}.bssid: a MAC address")
    channel = _integer(value.get("channel"), f"{where}.channel", 1, 196)
    return External(
        bssid=str(bssid).lower(),
        ssid=str(value.get("ssid", "")),
        channel=channel,
        bandwidth=_integer(value.get("bandwidth", 20), f"{where}.bandwidth", 20, 80),
        sideband=str(value.get("control-sideband", "lower")),
        tx_power=_integer(value.get("tx-power", 20), f"{where}.tx-power", 0, 40),
        x=_number(value.get("x"), f"{where}.x"),
        y=_number(value.get("y"), f"{where}.y"),
        floor=_integer(value.get("floor", 0), f"{where}.floor", -10, 200),
    )


def load_site(path, default_scenario: dict) -> Site:
    """The site of a file; an access point without "scenario" gets office_scenario of
    `default_scenario`, one with it the scenario of that file (relative to the site file),
    derived for its number. SiteError names what does not hold."""
    path = pathlib.Path(path)
    try:
        data = json.loads(path.read_text())
    except (OSError, ValueError) as error:
        raise SiteError(f"{path}: {error}")
    try:
        return _site(data, path.parent, default_scenario)
    except SiteError as error:
        raise SiteError(f"{path}: {error}")


def _site(data, folder: pathlib.Path, default_scenario: dict) -> Site:
    data = _object(data, "the site")
    aps = []
    entries = _list(data, "aps", "")
    if not 1 <= len(entries) <= MAX_ACCESS_POINTS:
        raise SiteError(f"aps: 1 to {MAX_ACCESS_POINTS} access points")
    for index, entry in enumerate(entries):
        where = f"aps[{index}]"
        entry = _object(entry, where)
        number = index + 1
        if "scenario" in entry:
            scenario_path = folder / str(entry["scenario"])
            try:
                source = json.loads(scenario_path.read_text())
            except (OSError, ValueError) as error:
                raise SiteError(f"{where}.scenario: {error}")
            scenario = derived_scenario(source, number) if number > 1 else source
        else:
            scenario = office_scenario(default_scenario, number)
        aps.append(SiteAp(f"ap{number}", _number(entry.get("x"), f"{where}.x"),
                          _number(entry.get("y"), f"{where}.y"),
                          _integer(entry.get("floor", 0), f"{where}.floor", -10, 200), scenario))
    walls = []
    for index, entry in enumerate(_list(data, "walls", "")):
        where = f"walls[{index}]"
        entry = _object(entry, where)
        walls.append(Wall(_integer(entry.get("floor", 0), f"{where}.floor", -10, 200),
                          _point(entry.get("from"), f"{where}.from"), _point(entry.get("to"), f"{where}.to"),
                          _number(entry.get("loss", 5), f"{where}.loss", 0, 100)))
    externals = [_external(e, f"externals[{i}]") for i, e in enumerate(_list(data, "externals", ""))]
    xs = [p.x for p in aps + externals] + [c for w in walls for c in (w.start[0], w.end[0])]
    ys = [p.y for p in aps + externals] + [c for w in walls for c in (w.start[1], w.end[1])]
    return Site(
        aps=aps,
        externals=externals,
        walls=walls,
        width_m=_number(data.get("width", max(xs) + OFFICE_SPACING_M / 2), "width", 0),
        depth_m=_number(data.get("depth", max(ys) + OFFICE_SPACING_M / 2), "depth", 0),
        floor_loss_db=_number(data.get("floor-loss", 15), "floor-loss", 0, 100),
        fading_db=_number(data.get("fading", 4), "fading", 0, 20),
        seed=_integer(data.get("seed", 1), "seed"),
        sensitivity_dbm=_number(data.get("sensitivity", -95), "sensitivity", -100, -40),
        bands=_bands(data),
        name=str(data.get("name", "site")),
    )
