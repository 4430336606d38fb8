"""The page: the sections in order, inside one document with its style."""
from __future__ import annotations

from .decisions import _cycles, _decisions
from .heard import _heard
from .neighbours import _externals_table
from .plans import _plans
from .site import _Site
from .summary import _summary
from .values import _dict, _esc, _text

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
