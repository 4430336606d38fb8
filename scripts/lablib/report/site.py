"""The site as drawn: the access points in order with their positions, the floors, the bands and
one scale for every plan; and the interference each snapshot names."""
from __future__ import annotations

import math

from .bands import DEFAULT_BANDS, STRONG_DBM, _band, _band_order
from .values import _dict, _int, _list, _num, _point, _text

PLAN_WIDTH = 600  # pixels for the drawing itself, without the margin
PLAN_MAX_HEIGHT = 560
PLAN_MARGIN = 34


class _Site:
    """What every plan of the page shares: the access points in order with their positions, the
    floors, the bands and one scale."""

    def __init__(self, data: dict):
        site = _dict(data.get("site"))
        self.walls = _list(site.get("walls"))
        self.externals = _list(data.get("externals"))
        self.snapshots = _list(data.get("snapshots"))
        self.strong = _num(data.get("strong_dbm"))
        if self.strong is None:
            self.strong = STRONG_DBM

        self.labels = []
        seen = set()
        places = {}
        for ap in _list(data.get("aps")):
            label = _text(ap.get("label"), "")
            if label and label not in seen:
                seen.add(label)
                self.labels.append(label)
                places[label] = ap
        # An access point that only the snapshots, the charts or the decisions name is still shown.
        for source in [r for s in self.snapshots for r in _list(s.get("radios"))] + _list(
            data.get("heard")
        ) + _list(data.get("decisions")):
            label = _text(source.get("ap"), "")
            if label and label not in seen:
                seen.add(label)
                self.labels.append(label)

        floors = site.get("floors") if isinstance(site.get("floors"), list) else []
        floor_set = {f for f in (_int(x) for x in floors) if f is not None}
        floor_set |= {f for f in (_int(places[x].get("floor")) for x in places) if f is not None}
        self.floors = sorted(floor_set) or [0]

        self.width = _num(site.get("width_m"))
        self.depth = _num(site.get("depth_m"))
        known = [(x, y) for x, y in ((_num(p.get("x")), _num(p.get("y"))) for p in places.values())
                 if x is not None and y is not None]
        if not self.width or self.width <= 0:
            self.width = max([x for x, _ in known] + [0.0]) + 5.0 if known else 20.0
        if not self.depth or self.depth <= 0:
            self.depth = max([y for _, y in known] + [0.0]) + 5.0 if known else 20.0

        # label -> (x, y, floor, placed by the data)
        self.positions = {}
        unplaced = []
        for label in self.labels:
            place = places.get(label, {})
            x, y = _num(place.get("x")), _num(place.get("y"))
            floor = _int(place.get("floor"))
            floor = floor if floor in self.floors else self.floors[0]
            if x is None or y is None:
                unplaced.append((label, floor))
            else:
                self.positions[label] = (x, y, floor, True)
        # Without a position an access point still appears, on a grid over the site, outlined dashed.
        columns = max(1, math.ceil(math.sqrt(len(unplaced))))
        rows = max(1, math.ceil(len(unplaced) / columns))
        for index, (label, floor) in enumerate(unplaced):
            x = (index % columns + 0.5) * self.width / columns
            y = (index // columns + 0.5) * self.depth / rows
            self.positions[label] = (x, y, floor, False)

        xs = [0.0, self.width] + [p[0] for p in self.positions.values()]
        ys = [0.0, self.depth] + [p[1] for p in self.positions.values()]
        for item in self.externals:
            x, y = _num(item.get("x")), _num(item.get("y"))
            if x is not None and y is not None:
                xs.append(x)
                ys.append(y)
        for wall in self.walls:
            for end in (wall.get("from"), wall.get("to")):
                point = _point(end)
                if point:
                    xs.append(point[0])
                    ys.append(point[1])
        self.left, self.top = min(xs), min(ys)
        span_x = max(max(xs) - self.left, 1.0)
        span_y = max(max(ys) - self.top, 1.0)
        self.scale = min(PLAN_WIDTH / span_x, PLAN_MAX_HEIGHT / span_y)
        self.pixel_width = span_x * self.scale + 2 * PLAN_MARGIN
        self.pixel_height = span_y * self.scale + 2 * PLAN_MARGIN

        bands = set()
        for snapshot in self.snapshots:
            bands |= {_band(r.get("band")) for r in _list(snapshot.get("radios"))}
        bands.discard(None)
        self.bands = sorted(bands, key=_band_order) or list(DEFAULT_BANDS)

    def pixel(self, x, y):
        return (PLAN_MARGIN + (x - self.left) * self.scale, PLAN_MARGIN + (y - self.top) * self.scale)

    def radius(self, floor) -> float:
        """Circles shrink where access points stand close, so that neighbours stay apart."""
        points = [self.pixel(x, y) for x, y, f, _ in self.positions.values() if f == floor]
        nearest = min(
            (math.dist(a, b) for i, a in enumerate(points) for b in points[i + 1:]), default=60.0
        )
        return max(5.0, min(14.0, nearest * 0.3))


def _interference(snapshot: dict) -> dict:
    return {str(k): _num(v) for k, v in _dict(snapshot.get("interference_dbm")).items()}


def _interference_keys(snapshots) -> list:
    keys = set()
    for snapshot in snapshots:
        keys |= {k for k in _interference(snapshot) if k != "total"}
    return sorted(keys, key=_band_order)
