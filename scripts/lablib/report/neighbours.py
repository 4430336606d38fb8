"""The unmanaged neighbours: what they are, where and on which channel."""
from __future__ import annotations

from .bands import _band, _band_name, _channel_text
from .site import _Site
from .values import _attrs, _esc, _int, _num, _text


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
