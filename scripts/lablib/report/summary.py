"""The summary at the top: title, start, duration, access points, the co-channel interference
before and after with the change, and when the plan was stable."""
from __future__ import annotations

from .bands import _band_name
from .site import _interference, _interference_keys, _Site
from .values import _duration, _esc, _fixed, _int, _text


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
