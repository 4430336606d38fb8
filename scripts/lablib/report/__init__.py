"""The lab's report: one HTML page of what happened on the site, written from the data the site
collects (access points with positions, snapshots of the radios before, per cycle and after,
what each radio heard, every decision). The page stands alone: inline CSS and SVG, no script,
no font, no picture and no address outside it, so that it opens anywhere, offline, from a file.

What it shows:

* the summary: title, start, duration, access points, co-channel interference per band before
  and after with the change, and the cycles until the plan was stable;
* the floor plan per floor and band, before (the first snapshot) beside after (the last): the
  site, its walls, each access point coloured by its channel and labelled with channel and
  power, lines between strong co-channel pairs, unmanaged neighbours as grey squares;
* per radio, a bar chart of the channels heard (strongest signal, how many BSSIDs);
* the decisions, on a strip over time and in a table, power changes marked; one row per cycle;
* the unmanaged neighbours.

Every value may be missing: what is not there is left out or shown as a dash. Every text from
the data is escaped. Elements a test or a person's tools look for carry stable classes and data
attributes: `g.ap` (data-ap, data-band, data-channel, data-snapshot, data-floor) in the
sections `#plan-before` and `#plan-after`, `svg.heard` (data-ap, data-radio), `tr.decision`
(data-ap, data-radio), `tr.cycle` and `#summary`.
"""
from __future__ import annotations

import os
import pathlib
import tempfile

from .bands import BAND_CHANNELS, HEARD_FLOOR_DBM, HEARD_TOP_DBM, STRONG_DBM, _band, _band_name, _channel_text
from .colours import EXTERNAL_COLOUR, PAIR_COLOUR, _text_colour, channel_colour
from .site import PLAN_MARGIN, _interference, _interference_keys, _Site
from .values import (
    _attrs, _dict, _duration, _esc, _fixed, _int, _list, _num, _point, _seconds, _text,
)

__all__ = ["BAND_CHANNELS", "STRONG_DBM", "channel_colour", "render", "write_report"]

ACROSS_SHOWN = 6  # the strongest pairs between floors named under a plan

STYLE = """
body{font:14px/1.4 system-ui,-apple-system,"Segoe UI",sans-serif;color:#1d2329;background:#f6f7f9;
margin:0;padding:18px 24px}
h1{font-size:22px;margin:0 0 6px}h2{font-size:18px;margin:22px 0 8px}h3{font-size:15px;margin:12px 0 6px}
section{background:#fff;border:1px solid #dde1e6;border-radius:6px;padding:10px 16px 14px;margin:0 0 16px}
.facts{display:flex;flex-wrap:wrap;gap:4px 28px;margin:4px 0 10px}.facts div span{color:#5c6670;margin-right:6px}
table{border-collapse:collapse;font-variant-numeric:tabular-nums}
th,td{border-bottom:1px solid #e4e7eb;padding:3px 10px;text-align:left;white-space:nowrap}
th{background:#eef1f4;font-weight:600}td.num{text-align:right}
.better{color:#1a7f37}.worse{color:#b42318}
.plans{display:grid;grid-template-columns:repeat(2,minmax(0,1fr));gap:0 16px;margin:0 0 16px}
.plans section{margin:0;display:grid;grid-template-rows:subgrid;align-content:start}
figure{margin:0 0 14px}figcaption{font-weight:600;margin:0 0 4px}
svg{max-width:100%;height:auto;display:block}
svg text{font-family:system-ui,sans-serif}
.legend{list-style:none;padding:0;margin:4px 0 0;display:flex;flex-wrap:wrap;gap:4px 14px;font-size:12px}
.swatch{display:inline-block;width:12px;height:12px;border:1px solid #555;margin-right:4px;vertical-align:-2px}
.swatch.external{background:#8a8a8a;border-color:#8a8a8a}
.swatch.pair{height:0;border:0;border-top:3px solid #222;width:18px;vertical-align:3px}
.note{color:#5c6670;font-size:12px;margin:4px 0}
.heard-ap{display:inline-block;vertical-align:top;margin:0 22px 10px 0}
.heard-radio{display:inline-block;vertical-align:top;margin-right:12px}
.heard-radio p{margin:0;font-size:12px;color:#3a434c}
td.changed{font-weight:600}
td.power-changed{background:#ffe8a3;font-weight:700}
.empty{color:#8a949e;font-style:italic}
"""


def _radios_by_ap(snapshot: dict, band) -> dict:
    found = {}
    for radio in _list(snapshot.get("radios")):
        if _band(radio.get("band")) == band and _text(radio.get("ap"), ""):
            found.setdefault(str(radio.get("ap")), []).append(radio)
    return found


# -- the summary -------------------------------------------------------------------------------------


def _change(before, after) -> str:
    if before is None or after is None:
        return "<td class=\"num\">—</td>"
    delta = after - before
    kind = "better" if delta < 0 else "worse" if delta > 0 else ""
    text = f"{delta:+.1f} dB".replace("-", "−")
    return f'<td class="num {kind}">{text}</td>'


def _summary(data: dict, site: _Site) -> str:
    stable = _int(data.get("stable_after_cycles"))
    if stable is None:
        stable_text = "not stable"
    else:
        stable_text = f"after {stable} cycle{'' if stable == 1 else 's'}"
    facts = [
        ("When", _text(data.get("started"))),
        ("Duration", _duration(data.get("duration_s"))),
        ("Access points", str(len(site.labels))),
        ("Plan stable", stable_text),
    ]
    parts = [
        '<section id="summary">',
        f"<h1>{_esc(_text(data.get('title'), 'orvd lab'))}</h1>",
        '<div class="facts">',
        *(f"<div><span>{_esc(k)}</span><strong>{_esc(v)}</strong></div>" for k, v in facts),
        "</div>",
    ]
    if site.snapshots:
        before, after = _interference(site.snapshots[0]), _interference(site.snapshots[-1])
        keys = _interference_keys([site.snapshots[0], site.snapshots[-1]]) + ["total"]
        parts.append(
            "<table class=\"interference\"><tr><th>Co-channel interference</th><th>before</th>"
            "<th>after</th><th>change</th></tr>"
        )
        for key in keys:
            name = "all bands" if key == "total" else _band_name(key)
            parts.append(
                f'<tr data-band="{_esc(key)}"><td>{_esc(name)}</td>'
                f'<td class="num">{_fixed(before.get(key), 1, "dBm")}</td>'
                f'<td class="num">{_fixed(after.get(key), 1, "dBm")}</td>'
                f"{_change(before.get(key), after.get(key))}</tr>"
            )
        parts.append("</table>")
    else:
        parts.append('<p class="empty">No snapshot of the radios was taken.</p>')
    parts.append("</section>")
    return "\n".join(parts)


# -- the floor plans ---------------------------------------------------------------------------------


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


# -- what each radio heard -------------------------------------------------------------------------


def _heard_chart(entry: dict) -> str:
    band = _band(entry.get("band"))
    own = _int(entry.get("channel"))
    heard = {}
    for key, value in _dict(entry.get("channels")).items():
        channel = _int(key)
        if channel is not None and isinstance(value, dict):
            heard[channel] = value
    channels = sorted(set(BAND_CHANNELS.get(band, [])) | set(heard) | ({own} if own is not None else set()))
    step, bar, left, top, plot, bottom = 20, 14, 34, 14, 80, 30
    width = left + step * max(len(channels), 1) + 6
    height = top + plot + bottom
    span = HEARD_TOP_DBM - HEARD_FLOOR_DBM
    hooks = _attrs(data_ap=entry.get("ap"), data_radio=entry.get("radio"), data_band=band, data_channel=own)
    parts = [
        f'<svg class="heard"{hooks} '
        f'width="{width}" height="{height}" viewBox="0 0 {width} {height}" role="img">',
    ]
    for dbm in (-30, -65, -100):
        y = top + plot * (HEARD_TOP_DBM - dbm) / span
        parts.append(
            f'<line x1="{left - 3}" y1="{y:.1f}" x2="{width - 4}" y2="{y:.1f}" stroke="#e3e6ea"/>'
            f'<text x="{left - 5}" y="{y + 3:.1f}" font-size="9" text-anchor="end" fill="#666">'
            f"{_fixed(dbm, 0)}</text>"
        )
    for index, channel in enumerate(channels):
        x = left + index * step + (step - bar) / 2
        centre = x + bar / 2
        if channel == own:
            parts.append(
                f'<rect class="own" x="{left + index * step:.1f}" y="{top}" width="{step}" height="{plot}" '
                f'fill="#fff3c4"/>'
                f'<path d="M{centre - 5:.1f} {top + plot + 22} l5 -6 l5 6 z" fill="{channel_colour(channel)}" '
                f'stroke="#222" stroke-width="0.8"/>'
            )
        value = heard.get(channel)
        strongest = _num(value.get("strongest_dbm")) if value else None
        count = _int(value.get("count")) if value else None
        if strongest is not None:
            share = min(max((strongest - HEARD_FLOOR_DBM) / span, 0.0), 1.0)
            bar_height = max(plot * share, 1.0)
            y = top + plot - bar_height
            tip = f"channel {channel}: {_fixed(strongest, 0)} dBm strongest, {_text(count)} BSSID"
            parts.append(
                f'<rect class="bar"{_attrs(data_channel=channel, data_dbm=strongest, data_count=count)} '
                f'x="{x:.1f}" y="{y:.1f}" width="{bar}" height="{bar_height:.1f}" fill="#5b7fa6">'
                f"<title>{_esc(tip)}</title></rect>"
            )
            if count is not None:
                parts.append(
                    f'<text x="{centre:.1f}" y="{y - 2:.1f}" font-size="8" text-anchor="middle" '
                    f'fill="#333">{count}</text>'
                )
        weight = ' font-weight="700"' if channel == own else ""
        parts.append(
            f'<text x="{centre:.1f}" y="{top + plot + 11}" font-size="9" text-anchor="middle" '
            f'fill="#333"{weight}>{channel}</text>'
        )
    parts.append(
        f'<line x1="{left}" y1="{top + plot}" x2="{width - 4}" y2="{top + plot}" stroke="#666"/></svg>'
    )
    return "".join(parts)


def _heard(data: dict, site: _Site) -> str:
    entries = _list(data.get("heard"))
    parts = ['<section id="heard"><h2>Channels heard</h2>']
    if not entries:
        parts.append('<p class="empty">No scan results.</p></section>')
        return "\n".join(parts)
    parts.append(
        f'<p class="note">Per radio: the strongest signal heard on each channel '
        f'({_fixed(HEARD_FLOOR_DBM, 0)} to {_fixed(HEARD_TOP_DBM, 0)} dBm) and how many BSSIDs; '
        f"the radio's own channel shaded and marked.</p>"
    )
    by_ap = {}
    for entry in entries:
        by_ap.setdefault(_text(entry.get("ap"), "?"), []).append(entry)
    order = [x for x in site.labels if x in by_ap] + [x for x in by_ap if x not in site.labels]
    for label in order:
        parts.append(f'<div class="heard-ap" data-ap="{_esc(label)}"><h3>{_esc(label)}</h3>')
        for entry in by_ap[label]:
            band = _band(entry.get("band"))
            own = _text(_int(entry.get("channel")))
            caption = f"{_text(entry.get('radio'), '?')} · {_band_name(band)} · on channel {own}"
            parts.append(f'<div class="heard-radio"><p>{_esc(caption)}</p>{_heard_chart(entry)}</div>')
        parts.append("</div>")
    parts.append("</section>")
    return "\n".join(parts)


# -- the decisions and the cycles --------------------------------------------------------------------


def _step(before, after, kind: str, unit="") -> str:
    if before is None and after is None:
        return "<td>—</td>"
    changed = before != after
    text = f"{_text(before)} → {_text(after)}{unit}" if changed else f"{_text(after)}{unit}"
    if not changed:
        return f"<td>{_esc(text)}</td>"
    if kind == "power" and before is not None and after is not None:
        text += f" ({after - before:+d} dB)".replace("-", "−")
        return f'<td class="power-changed">{_esc(text)}</td>'
    return f'<td class="changed">{_esc(text)}</td>'


def _decision_strip(decisions, site: _Site, duration) -> str:
    """One row per access point with decisions: a mark at each, coloured by the new channel,
    ringed where the power changed; the snapshots as faint lines."""
    labels = []
    for decision in decisions:
        label = _text(decision.get("ap"), "?")
        if label not in labels:
            labels.append(label)
    labels.sort(key=lambda x: site.labels.index(x) if x in site.labels else len(site.labels))
    times = [t for t in (_num(d.get("time_s")) for d in decisions) if t is not None]
    times += [t for t in (_num(s.get("time_s")) for s in site.snapshots) if t is not None]
    end = max([duration or 0.0] + times + [1.0])
    left, width, row, top = 70, 900, 16, 18
    height = top + row * len(labels) + 8

    def x_of(seconds):
        return left + width * seconds / end

    parts = [
        f'<svg class="strip" width="{left + width + 20}" height="{height}" '
        f'viewBox="0 0 {left + width + 20} {height}" role="img">'
    ]
    for snapshot in site.snapshots:
        t = _num(snapshot.get("time_s"))
        if t is not None:
            parts.append(
                f'<line x1="{x_of(t):.1f}" y1="{top - 4}" x2="{x_of(t):.1f}" y2="{height - 6}" stroke="#cfd5db" '
                f'stroke-dasharray="3 3"><title>{_esc(_text(snapshot.get("name"), ""))}</title></line>'
            )
    tick = next(n for n in (1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600, 10 ** 9) if end / n <= 10)
    for index in range(int(end // tick) + 1):
        parts.append(
            f'<text x="{x_of(index * tick):.1f}" y="11" font-size="9" text-anchor="middle" '
            f'fill="#666">{index * tick} s</text>'
        )
    for index, label in enumerate(labels):
        y = top + index * row + row / 2
        parts.append(
            f'<text x="{left - 8}" y="{y + 4:.1f}" font-size="10" text-anchor="end">{_esc(label)}</text>'
            f'<line x1="{left}" y1="{y:.1f}" x2="{left + width}" y2="{y:.1f}" stroke="#eef0f2"/>'
        )
    for decision in decisions:
        t = _num(decision.get("time_s"))
        if t is None:
            continue
        y = top + labels.index(_text(decision.get("ap"), "?")) * row + row / 2
        before, after = _dict(decision.get("from")), _dict(decision.get("to"))
        power = _int(before.get("power")) != _int(after.get("power"))
        ring = ' stroke="#b45309" stroke-width="2.5"' if power else ' stroke="#222" stroke-width="0.8"'
        tip = (
            f"{_seconds(t)} {_text(decision.get('ap'))} {_text(decision.get('radio'), '')}: channel "
            f"{_channel_text(before)} → {_channel_text(after)}, {_fixed(before.get('power'), 0)} → "
            f"{_fixed(after.get('power'), 0)} dBm"
        )
        parts.append(
            f'<circle cx="{x_of(t):.1f}" cy="{y:.1f}" r="5" fill="{channel_colour(after.get("channel"))}"{ring}>'
            f"<title>{_esc(tip)}</title></circle>"
        )
    parts.append("</svg>")
    return "".join(parts)


def _decisions(data: dict, site: _Site) -> str:
    decisions = sorted(
        _list(data.get("decisions")),
        key=lambda d: (_num(d.get("time_s")) is None, _num(d.get("time_s")) or 0.0),
    )
    parts = ['<section id="decisions"><h2>Decisions</h2>']
    if not decisions:
        parts.append('<p class="empty">No decision changed a radio.</p></section>')
        return "\n".join(parts)
    parts.append(_decision_strip(decisions, site, _num(data.get("duration_s"))))
    parts.append(
        '<table class="decisions"><tr><th>time</th><th>access point</th><th>radio</th><th>band</th>'
        "<th>channel</th><th>bandwidth</th><th>power</th></tr>"
    )
    for decision in decisions:
        before, after = _dict(decision.get("from")), _dict(decision.get("to"))
        band = _band(decision.get("band"))
        hooks = _attrs(data_ap=decision.get("ap"), data_radio=decision.get("radio"), data_band=band)
        parts.append(
            f'<tr class="decision"{hooks}>'
            f'<td class="num">{_seconds(decision.get("time_s"))}</td>'
            f"<td>{_esc(_text(decision.get('ap')))}</td><td>{_esc(_text(decision.get('radio')))}</td>"
            f"<td>{_esc(_band_name(band))}</td>"
            + _step(_int(before.get("channel")), _int(after.get("channel")), "channel")
            + _step(_int(before.get("bandwidth")), _int(after.get("bandwidth")), "bandwidth", " MHz")
            + _step(_int(before.get("power")), _int(after.get("power")), "power", " dBm")
            + "</tr>"
        )
    parts.append("</table></section>")
    return "\n".join(parts)


def _settings(snapshot: dict) -> dict:
    return {
        (str(r.get("ap")), str(r.get("radio"))): tuple(_int(r.get(k)) for k in ("channel", "bandwidth", "power"))
        for r in _list(snapshot.get("radios"))
    }


def _cycles(site: _Site) -> str:
    parts = ['<section id="cycles"><h2>Cycles</h2>']
    if not site.snapshots:
        parts.append('<p class="empty">No snapshot of the radios was taken.</p></section>')
        return "\n".join(parts)
    keys = _interference_keys(site.snapshots)
    parts.append(
        '<table class="cycles"><tr><th>cycle</th><th>snapshot</th><th>time</th>'
        + "".join(f"<th>{_esc(_band_name(k))}</th>" for k in keys)
        + "<th>total</th><th>radios changed</th></tr>"
    )
    previous = None
    for snapshot in site.snapshots:
        interference = _interference(snapshot)
        settings = _settings(snapshot)
        if previous is None:
            changed = "—"
        else:
            changed = str(sum(1 for k, v in settings.items() if k in previous and previous[k] != v))
        previous = settings
        cycle = _int(snapshot.get("cycle"))
        parts.append(
            f'<tr class="cycle"{_attrs(data_cycle=cycle)}><td class="num">{_esc(_text(cycle))}</td>'
            f"<td>{_esc(_text(snapshot.get('name')))}</td>"
            f'<td class="num">{_seconds(snapshot.get("time_s"))}</td>'
            + "".join(f'<td class="num">{_fixed(interference.get(k), 1, "dBm")}</td>' for k in keys + ["total"])
            + f'<td class="num">{changed}</td></tr>'
        )
    parts.append("</table></section>")
    return "\n".join(parts)


def _externals_table(site: _Site) -> str:
    if not site.externals:
        return ""
    parts = [
        '<section id="externals"><h2>Unmanaged neighbours</h2><table><tr><th>BSSID</th><th>SSID</th>'
        "<th>band</th><th>channel</th><th>position</th></tr>"
    ]
    for item in site.externals:
        x, y = _num(item.get("x")), _num(item.get("y"))
        where = "—" if x is None or y is None else f"{x:g}, {y:g} m, floor {_text(_int(item.get('floor')), '0')}"
        band = _band(item.get("band"))
        parts.append(
            f'<tr class="external"{_attrs(data_bssid=item.get("bssid"))}><td>{_esc(_text(item.get("bssid")))}</td>'
            f"<td>{_esc(_text(item.get('ssid')))}</td><td>{_esc(_band_name(band))}</td>"
            f"<td>{_esc(_channel_text(item))}</td><td>{_esc(where)}</td></tr>"
        )
    parts.append("</table></section>")
    return "\n".join(parts)


# -- the page --------------------------------------------------------------------------------------


def render(data: dict) -> str:
    """The whole page as text."""
    data = _dict(data)
    site = _Site(data)
    title = _text(data.get("title"), "orvd lab")
    return "\n".join(
        [
            "<!DOCTYPE html>",
            '<html lang="en"><head><meta charset="utf-8">',
            '<meta name="viewport" content="width=device-width, initial-scale=1">',
            f"<title>{_esc(title)}</title>",
            f"<style>{STYLE}</style></head><body>",
            _summary(data, site),
            _plans(site),
            _decisions(data, site),
            _cycles(site),
            _heard(data, site),
            _externals_table(site),
            "</body></html>",
            "",
        ]
    )


def write_report(path, data: dict) -> None:
    """Writes the page to path whole: a browser that reloads it meanwhile sees the old page or the
    new one, never half of one."""
    path = pathlib.Path(path)
    text = render(data)
    handle, temporary = tempfile.mkstemp(prefix=f".{path.name}.", suffix=".tmp", dir=path.parent)
    try:
        with os.fdopen(handle, "w", encoding="utf-8") as out:
            out.write(text)
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        try:
            os.unlink(temporary)
        except FileNotFoundError:
            pass
        raise
