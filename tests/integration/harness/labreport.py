"""The lab report's test support: a realistic site to draw, and the page's elements as a test
reads them (from render's text or from a browser's DOM)."""
import copy
import html.parser
import math
import pathlib
import sys

TOP = pathlib.Path(__file__).resolve().parents[3]
for folder in (TOP / "scripts", TOP):
    if str(folder) not in sys.path:
        sys.path.insert(0, str(folder))

from lablib import report  # noqa: E402
from sim.controller import policy  # noqa: E402
from sim.site.model import BandModel, Site, SiteAp, Wall  # noqa: E402
from sim.site.propagation import path_loss  # noqa: E402

SPACING_M = 15.0
FLOOR_LOSS_DB = 15.0
WALLS = [
    {"floor": 0, "from": [0, 15], "to": [20, 15], "loss_db": 5},
    {"floor": 0, "from": [30, 0], "to": [30, 12], "loss_db": 12},
]
EXTERNALS = [
    {"bssid": "00:1d:7e:6a:11:01", "ssid": "Cafe", "x": 50.0, "y": 5.0, "floor": 0,
     "channel": 1, "bandwidth": 20, "band": 2},
    {"bssid": "00:1d:7e:6a:11:02", "ssid": "Printer-Setup", "x": -4.0, "y": 22.0, "floor": 0,
     "channel": 11, "bandwidth": 20, "band": 2},
    {"bssid": "00:1d:7e:6a:11:03", "ssid": "Office Guest", "x": 20.0, "y": 33.0, "floor": 0,
     "channel": 44, "bandwidth": 40, "band": 5},
    {"bssid": "00:1d:7e:6a:11:04", "ssid": "far away", "channel": 6, "bandwidth": 20, "band": 2},
]
# Everyone starts on one channel per band; the plan spreads them, lowering the power of the
# 2.4 GHz radios that still share a channel.
BEFORE = {2: (6, 20, 17), 5: (36, 80, 20)}
PLANNED = {2: [1, 6, 11], 5: [36, 52, 100, 116, 132, 149]}
RADIOS = {2: "wlan0", 5: "wlan1"}
EXTERNAL_POWER_DBM = 20


def _covered(channel, bandwidth):
    """The 20 MHz channels of a 5 GHz channel of that width."""
    channels = report.BAND_CHANNELS["5"]
    width = bandwidth // 20
    start = channels.index(channel) // width * width
    return set(channels[start:start + width])


def _overlap(band, a, b):
    """a and b are (channel, bandwidth)."""
    if band == 5:
        return 1.0 if _covered(*a) & _covered(*b) else 0.0
    return max(0.0, 1.0 - abs(a[0] - b[0]) / 5.0)


# The sample hears through the site's own propagation model (sim/site), without fading and with
# one exponent for both bands.
SITE = Site(aps=[], walls=[Wall(w["floor"], tuple(w["from"]), tuple(w["to"]), w["loss_db"]) for w in WALLS],
            floor_loss_db=FLOOR_LOSS_DB, fading_db=0.0, bands={2: BandModel(40.0, 3.5), 5: BandModel(40.0, 3.5)})


def _path_loss(a, b):
    """Each place is (x, y, floor)."""
    one, other = (SiteAp("", *a, {}), SiteAp("", *b, {}))
    return path_loss(SITE, 2, one, other, "a", "b")


def _dbm_sum(values):
    total = sum(policy.dbm_to_mw(v) for v in values)
    return round(policy.mw_to_dbm(total), 1) if total else None


def _snapshot(name, time_s, cycle, settings, places):
    radios, pairs, interference = [], [], {}
    for band in (2, 5):
        heard = []
        for label, (channel, bandwidth, power) in ((x, settings[x][band]) for x in places):
            radios.append({"ap": label, "radio": RADIOS[band], "band": band, "channel": channel,
                           "bandwidth": bandwidth, "power": power})
        labels = list(places)
        for i, a in enumerate(labels):
            for b in labels[i + 1:]:
                overlap = _overlap(band, settings[a][band][:2], settings[b][band][:2])
                if not overlap:
                    continue
                loss = _path_loss(places[a], places[b])
                a_hears_b = round(settings[b][band][2] - loss, 1)
                b_hears_a = round(settings[a][band][2] - loss, 1)
                pairs.append({"band": band, "a": a, "b": b, "a_hears_b_dbm": a_hears_b,
                              "b_hears_a_dbm": b_hears_a, "overlap": overlap})
                heard += [a_hears_b + 10 * math.log10(overlap), b_hears_a + 10 * math.log10(overlap)]
        for external in (x for x in EXTERNALS if x["band"] == band and "x" in x):
            for label, place in places.items():
                overlap = _overlap(band, settings[label][band][:2], (external["channel"], external["bandwidth"]))
                if overlap:
                    loss = _path_loss(place, (external["x"], external["y"], external["floor"]))
                    heard.append(EXTERNAL_POWER_DBM - loss + 10 * math.log10(overlap))
        interference[str(band)] = _dbm_sum(heard)
    present = [v for v in interference.values() if v is not None]
    interference["total"] = _dbm_sum(present)
    return {"name": name, "time_s": time_s, "cycle": cycle, "radios": radios, "pairs": pairs,
            "interference_dbm": interference}


def _heard(label, band, settings, places):
    channels = {}
    own = settings[label][band][0]
    for other in places:
        if other == label:
            continue
        channel, _, power = settings[other][band]
        rssi = round(power - _path_loss(places[label], places[other]))
        if rssi >= -95:
            entry = channels.setdefault(str(channel), {"strongest_dbm": rssi, "count": 0})
            entry["strongest_dbm"] = max(entry["strongest_dbm"], rssi)
            entry["count"] += 1
    for external in (x for x in EXTERNALS if x["band"] == band):
        rssi = -88  # one whose position is not known: heard faintly
        if "x" in external:
            where = (external["x"], external["y"], external["floor"])
            rssi = round(EXTERNAL_POWER_DBM - _path_loss(places[label], where))
        entry = channels.setdefault(str(external["channel"]), {"strongest_dbm": rssi, "count": 0})
        entry["strongest_dbm"] = max(entry["strongest_dbm"], rssi)
        entry["count"] += 1
    return {"ap": label, "radio": RADIOS[band], "band": band, "channel": own, "channels": channels}


def _mac(number):
    return ":".join(f"{number >> shift & 0xFF:02X}" for shift in range(40, -8, -8))


def sample(aps=6, floors=1):
    """A site of `aps` access points 15 m apart on a grid (3 x 2 for six), on `floors` floors,
    two bands each, planned in two cycles: before, "cycle 1" and after, with what each radio heard,
    every decision and four unmanaged neighbours."""
    per_floor = math.ceil(aps / floors)
    columns = 3 if per_floor <= 6 else math.ceil(math.sqrt(per_floor))
    rows = math.ceil(per_floor / columns)
    places = {}
    for index in range(aps):
        floor, spot = divmod(index, per_floor)
        places[f"ap{index + 1}"] = (
            SPACING_M / 2 + SPACING_M * (spot % columns), SPACING_M / 2 + SPACING_M * (spot // columns), floor
        )
    before = {x: dict(BEFORE) for x in places}
    after = {}
    for index, label in enumerate(places):
        channel = PLANNED[2][index % 3]
        # From the fourth on, every other 2.4 GHz radio reuses a channel nearby and steps down;
        # the last 5 GHz radio narrows.
        power = 14 if index >= 3 and index % 2 else 17
        bandwidth = 40 if index == aps - 1 else 80
        after[label] = {2: (channel, 20, power), 5: (PLANNED[5][index % 6], bandwidth, 20)}
    halfway = {x: (after[x] if i < aps / 2 else before[x]) for i, x in enumerate(places)}

    decisions = []
    for when, start, end in ((35.0, before, halfway), (72.0, halfway, after)):
        for index, label in enumerate(places):
            for band in (2, 5):
                if start[label][band] != end[label][band]:
                    old, new = start[label][band], end[label][band]
                    decisions.append({
                        "time_s": round(when + 0.4 * index, 1), "ap": label, "radio": RADIOS[band], "band": band,
                        "from": {"channel": old[0], "bandwidth": old[1], "power": old[2]},
                        "to": {"channel": new[0], "bandwidth": new[1], "power": new[2]},
                    })
    return copy.deepcopy({  # a test may change its copy
        "title": f"orvd lab: {aps} access points",
        "started": "2026-11-25T16:00:00Z",
        "duration_s": 120.0,
        "site": {"width_m": SPACING_M * columns, "depth_m": SPACING_M * rows,
                 "floors": list(range(floors)), "walls": WALLS},
        "strong_dbm": -75,
        "aps": [{"label": x, "mac": _mac(0xA45E60000000 + 0x1000 * (i + 1)), "x": p[0], "y": p[1], "floor": p[2]}
                for i, (x, p) in enumerate(places.items())],
        "externals": EXTERNALS,
        "snapshots": [
            _snapshot("before", 0.0, 0, before, places),
            _snapshot("cycle 1", 40.0, 1, halfway, places),
            _snapshot("after", 110.0, 2, after, places),
        ],
        "stable_after_cycles": 2,
        "heard": [_heard(x, band, before, places) for x in places for band in (2, 5)],
        "decisions": decisions,
    })


class _Elements(html.parser.HTMLParser):
    VOID = {"meta", "br", "hr", "img", "input", "link"}

    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.found = []
        self.open = []  # the elements being read, for their text and children

    def _add(self, tag, attrs):
        element = {"tag": tag, "attrs": dict(attrs), "text": "", "children": []}
        if self.open:
            self.open[-1]["children"].append(element)
        self.found.append(element)
        return element

    def handle_starttag(self, tag, attrs):
        element = self._add(tag, attrs)
        if tag not in self.VOID:
            self.open.append(element)

    def handle_startendtag(self, tag, attrs):
        self._add(tag, attrs)

    def handle_endtag(self, tag):
        for index in range(len(self.open) - 1, -1, -1):
            if self.open[index]["tag"] == tag:
                del self.open[index:]
                break

    def handle_data(self, data):
        for element in self.open:
            element["text"] += data


def elements(page, tag=None, cls=None, **data):
    """The page's elements ({"tag", "attrs", "text", "children"}) of that tag, carrying that class, with those
    data attributes (data_ap="ap1" for data-ap="ap1")."""
    parser = _Elements()
    parser.feed(page)
    parser.close()
    wanted = {"data-" + k[len("data_"):].replace("_", "-") if k.startswith("data_") else k: str(v)
              for k, v in data.items()}
    return [
        e for e in parser.found
        if (tag is None or e["tag"] == tag)
        and (cls is None or cls in (e["attrs"].get("class") or "").split())
        and all(e["attrs"].get(k) == v for k, v in wanted.items())
    ]


def plan_radios(data, which):
    """(ap, band, channel) of every radio in the before or after snapshot."""
    snapshot = data["snapshots"][0 if which == "before" else -1]
    return {(r["ap"], str(r["band"]), str(r["channel"])) for r in snapshot["radios"]}


def check_access_points(page, data, which):
    """Every radio of the snapshot is drawn as a circle in its channel's colour, labelled."""
    groups = elements(page, "g", "ap", data_snapshot=which)
    drawn = {(e["attrs"]["data-ap"], e["attrs"]["data-band"], e["attrs"]["data-channel"]) for e in groups}
    assert drawn == plan_radios(data, which), which
    assert len(groups) == len(drawn), which
    for group in groups:
        circles = [c for c in group["children"] if c["tag"] == "circle"]
        assert len(circles) == 1, group["attrs"]
        assert float(circles[0]["attrs"]["r"]) >= 5, group["attrs"]
        assert circles[0]["attrs"]["fill"] == report.channel_colour(group["attrs"]["data-channel"])
        assert group["attrs"]["data-ap"] in group["text"], group["attrs"]


def check_channel_colours(channels):
    """The channels' colours, each its own."""
    colours = {channel: report.channel_colour(channel) for channel in channels}
    assert len(set(colours.values())) == len(colours), f"channels share a colour: {colours}"
    return colours
