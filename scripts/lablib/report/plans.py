"""The floor plans, before beside after: per floor and band the site, its walls, each access point
in its channel's colour, the strong co-channel pairs and the unmanaged neighbours."""
from __future__ import annotations

from .bands import HEARD_TOP_DBM, _band, _band_name, _channel_text
from .colours import EXTERNAL_COLOUR, PAIR_COLOUR, _text_colour, channel_colour
from .site import PLAN_MARGIN, _Site
from .values import _attrs, _esc, _fixed, _int, _list, _num, _point, _seconds, _text

ACROSS_SHOWN = 6  # the strongest pairs between floors named under a plan


def _radios_by_ap(snapshot: dict, band) -> dict:
    found = {}
    for radio in _list(snapshot.get("radios")):
        if _band(radio.get("band")) == band and _text(radio.get("ap"), ""):
            found.setdefault(str(radio.get("ap")), []).append(radio)
    return found


def _scale_bar(site: _Site) -> str:
    target = 120 / site.scale  # metres under about 120 pixels
    length = next((n for n in (1, 2, 5, 10, 20, 50, 100, 200, 500, 1000) if n >= target * 0.5), 1000)
    x = PLAN_MARGIN
    y = site.pixel_height - 10
    end = x + length * site.scale
    return (
        f'<g class="scale"><line x1="{x:.1f}" y1="{y:.1f}" x2="{end:.1f}" y2="{y:.1f}" '
        f'stroke="#444" stroke-width="2"/><text x="{end + 4:.1f}" y="{y + 4:.1f}" font-size="11" '
        f'fill="#444">{length} m</text></g>'
    )


def _walls(site: _Site, floor) -> list:
    parts = []
    for wall in site.walls:
        wall_floor = _int(wall.get("floor"))
        if (wall_floor if wall_floor is not None else site.floors[0]) != floor:
            continue
        start, end = _point(wall.get("from")), _point(wall.get("to"))
        if not start or not end:
            continue
        loss = _num(wall.get("loss_db"))
        (x1, y1), (x2, y2) = site.pixel(*start), site.pixel(*end)
        width = 2 + min(max(loss or 0, 0), 30) / 6
        parts.append(
            f'<line class="wall"{_attrs(data_loss=loss)} x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" '
            f'y2="{y2:.1f}" stroke="#6b5b4b" stroke-width="{width:.1f}" stroke-linecap="round">'
            f"<title>wall{_esc(f', {loss:g} dB' if loss is not None else '')}</title></line>"
        )
    return parts


def _pairs(site: _Site, snapshot: dict, band, floor, labelled: bool):
    """The strong co-channel pairs on this floor as lines, and those between floors as text."""
    lines, across = [], []
    for pair in _list(snapshot.get("pairs")):
        if _band(pair.get("band")) != band:
            continue
        overlap = _num(pair.get("overlap"))
        if overlap is not None and overlap <= 0:
            continue
        a, b = _text(pair.get("a"), ""), _text(pair.get("b"), "")
        heard = [v for v in (_num(pair.get("a_hears_b_dbm")), _num(pair.get("b_hears_a_dbm"))) if v is not None]
        if a not in site.positions or b not in site.positions or not heard or max(heard) < site.strong:
            continue
        strongest = max(heard)
        (ax, ay, a_floor, _), (bx, by, b_floor, _) = site.positions[a], site.positions[b]
        if floor not in (a_floor, b_floor):
            continue
        if a_floor != b_floor:
            if a_floor == floor:
                across.append((strongest, f"{a}–{b} ({_fixed(strongest, 0, 'dBm')})"))
            continue
        share = min(max((strongest - site.strong) / max(HEARD_TOP_DBM - site.strong, 1.0), 0.0), 1.0)
        (x1, y1), (x2, y2) = site.pixel(ax, ay), site.pixel(bx, by)
        text = f"{a} ↔ {b}: {_fixed(pair.get('a_hears_b_dbm'))} / {_fixed(pair.get('b_hears_a_dbm'))} dBm"
        lines.append(
            f'<line class="pair"{_attrs(data_a=a, data_b=b, data_dbm=f"{strongest:.1f}")} '
            f'x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{PAIR_COLOUR}" '
            f'stroke-width="{1 + 5 * share:.1f}" stroke-opacity="{0.35 + 0.55 * share:.2f}">'
            f"<title>{_esc(text)}</title></line>"
        )
        if labelled:
            lines.append(
                f'<text x="{(x1 + x2) / 2:.1f}" y="{(y1 + y2) / 2 - 3:.1f}" font-size="10" '
                f'text-anchor="middle" fill="#333">{_fixed(strongest, 0)}</text>'
            )
    return lines, across


def _externals(site: _Site, band, floor) -> list:
    parts = []
    for item in site.externals:
        x, y = _num(item.get("x")), _num(item.get("y"))
        item_floor = _int(item.get("floor"))
        if x is None or y is None or _band(item.get("band")) != band:
            continue
        if (item_floor if item_floor is not None else site.floors[0]) != floor:
            continue
        px, py = site.pixel(x, y)
        channel = _int(item.get("channel"))
        tip = f"{_text(item.get('ssid'), '(hidden)')} {_text(item.get('bssid'), '')}, channel {_text(channel)}"
        parts.append(
            f'<g class="external"{_attrs(data_bssid=item.get("bssid"), data_band=band, data_channel=channel)}>'
            f"<title>{_esc(tip)}</title>"
            f'<rect x="{px - 4:.1f}" y="{py - 4:.1f}" width="8" height="8" fill="{EXTERNAL_COLOUR}"/>'
            f'<text x="{px + 7:.1f}" y="{py + 4:.1f}" font-size="10" fill="#666">{_esc(_text(channel))}</text></g>'
        )
    return parts


def _access_point(site: _Site, label, radios, band, floor, which, radius) -> str:
    x, y, _, placed = site.positions[label]
    px, py = site.pixel(x, y)
    small = radius < 10
    font = 9 if small else 11
    dash = "" if placed else ' stroke-dasharray="3 2"'
    if not radios:
        return (
            f'<g class="ap-absent"{_attrs(data_ap=label, data_band=band, data_snapshot=which)}>'
            f"<title>{_esc(label)}: no radio in {_esc(_band_name(band))}</title>"
            f'<circle cx="{px:.1f}" cy="{py:.1f}" r="{radius:.1f}" fill="none" stroke="#aaa" stroke-dasharray="2 2"/>'
            f'<text x="{px:.1f}" y="{py + radius + font:.1f}" font-size="{font}" text-anchor="middle" '
            f'fill="#999">{_esc(label)}</text></g>'
        )
    first = radios[0]
    channel = _int(first.get("channel"))
    fill = channel_colour(channel)
    channels = ", ".join(_channel_text(r) for r in radios)
    powers = ", ".join(_fixed(r.get("power"), 0) for r in radios)
    detail = f"{channels} · {powers} dBm"
    tip = "; ".join(
        f"{label} {_text(r.get('radio'), '')}: channel {_channel_text(r)}, {_fixed(r.get('power'), 0)} dBm"
        for r in radios
    )
    inside = (
        f'<text x="{px:.1f}" y="{py + font * 0.36:.1f}" font-size="{font}" text-anchor="middle" '
        f'fill="{_text_colour(fill)}" font-weight="600">{_esc(_text(channel))}</text>'
        if not small else ""
    )
    hooks = _attrs(data_ap=label, data_band=band, data_channel=channel, data_snapshot=which, data_floor=floor)
    return (
        f'<g class="ap"{hooks}>'
        f"<title>{_esc(tip)}</title>"
        f'<circle cx="{px:.1f}" cy="{py:.1f}" r="{radius:.1f}" fill="{fill}" stroke="#222" stroke-width="1.2"{dash}/>'
        f"{inside}"
        f'<text x="{px:.1f}" y="{py + radius + font:.1f}" font-size="{font}" text-anchor="middle" '
        f'font-weight="600" fill="#111">{_esc(label)}</text>'
        f'<text x="{px:.1f}" y="{py + radius + 2 * font + 1:.1f}" font-size="{font - 1}" text-anchor="middle" '
        f'fill="#333">{_esc(detail)}</text></g>'
    )


def _legend(channels, with_externals: bool, strong) -> str:
    items = [
        f'<li><span class="swatch" style="background:{channel_colour(c)}"></span>channel {c}</li>'
        for c in sorted(channels)
    ]
    if with_externals:
        items.append('<li><span class="swatch external"></span>unmanaged neighbour</li>')
    items.append(f'<li><span class="swatch pair"></span>co-channel, heard at {_fixed(strong, 0)} dBm or more</li>')
    return '<ul class="legend">' + "".join(items) + "</ul>"


def _plan_panel(site: _Site, snapshot: dict, band, floor, which) -> str:
    radios = _radios_by_ap(snapshot, band)
    labels = [x for x in site.labels if site.positions[x][2] == floor]
    radius = site.radius(floor)
    pairs, across = _pairs(site, snapshot, band, floor, labelled=len(labels) <= 16)
    externals = _externals(site, band, floor)
    x0, y0 = site.pixel(0, 0)
    x1, y1 = site.pixel(site.width, site.depth)
    width, height = site.pixel_width, site.pixel_height
    body = [
        f'<svg class="plan"{_attrs(data_floor=floor, data_band=band, data_snapshot=which)} '
        f'width="{width:.0f}" height="{height:.0f}" viewBox="0 0 {width:.0f} {height:.0f}" role="img">',
        f'<rect class="site" x="{x0:.1f}" y="{y0:.1f}" width="{x1 - x0:.1f}" height="{y1 - y0:.1f}" '
        f'fill="#fbfaf7" stroke="#444" stroke-width="1.5"/>',
        f'<text x="{x0:.1f}" y="{y0 - 6:.1f}" font-size="11" fill="#555">'
        f"{_fixed(site.width, 0)} m × {_fixed(site.depth, 0)} m</text>",
        *_walls(site, floor),
        *pairs,
        *externals,
        *(_access_point(site, x, radios.get(x, []), band, floor, which, radius) for x in labels),
        _scale_bar(site),
        "</svg>",
    ]
    channels = {c for x in labels for c in (_int(r.get("channel")) for r in radios.get(x, [])) if c is not None}
    caption = f"Floor {floor} · {_band_name(band)}"
    notes = []
    if across:
        across.sort(key=lambda x: -x[0])
        shown = [text for _, text in across[:ACROSS_SHOWN]]
        more = f" and {len(across) - ACROSS_SHOWN} more" if len(across) > ACROSS_SHOWN else ""
        notes.append("strong co-channel between floors: " + ", ".join(shown) + more)
    if not labels:
        notes.append("no access point on this floor")
    return "\n".join(
        [
            f'<figure class="panel"{_attrs(data_floor=floor, data_band=band)}>',
            f"<figcaption>{_esc(caption)}</figcaption>",
            *body,
            _legend(channels, bool(externals), site.strong),
            *(f'<p class="note">{_esc(n)}</p>' for n in notes),
            "</figure>",
        ]
    )


def _plans(site: _Site) -> str:
    """Before beside after. Both columns share the rows of one grid, so that each plan stands
    level with its counterpart whatever the legends above it took."""
    rows = 1 + len(site.floors) * len(site.bands)
    columns = []
    for which, index in (("before", 0), ("after", -1)):
        if site.snapshots:
            snapshot = site.snapshots[index]
            when = f"{_text(snapshot.get('name'), which)}, {_seconds(snapshot.get('time_s'))}"
            heading = f'{which.capitalize()} <span class="note">{_esc(when)}</span>'
            panels = [_plan_panel(site, snapshot, b, f, which) for f in site.floors for b in site.bands]
        else:
            heading, panels = which.capitalize(), ['<p class="empty">No snapshot of the radios was taken.</p>']
        columns.append(
            f'<section id="plan-{which}" style="grid-row:span {rows}"><h2>{heading}</h2>'
            + "\n".join(panels)
            + "</section>"
        )
    return f'<div class="plans" style="grid-template-rows:repeat({rows},auto)">' + "\n".join(columns) + "</div>"
