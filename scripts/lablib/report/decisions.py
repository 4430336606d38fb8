"""The decisions, on a strip over time and in a table with the power changes marked, and the
cycles: one row per snapshot with its interference and the radios it changed."""
from __future__ import annotations

from .bands import _band, _band_name, _channel_text
from .colours import channel_colour
from .site import _interference, _interference_keys, _Site
from .values import _attrs, _dict, _esc, _fixed, _int, _list, _num, _seconds, _text


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
