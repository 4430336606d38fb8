"""What each radio heard: per radio a bar chart of the channels, the strongest signal on each
and how many BSSIDs, the radio's own channel marked."""
from __future__ import annotations

from .bands import BAND_CHANNELS, HEARD_FLOOR_DBM, HEARD_TOP_DBM, _band, _band_name
from .colours import channel_colour
from .site import _Site
from .values import _attrs, _dict, _esc, _fixed, _int, _list, _num, _text


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
