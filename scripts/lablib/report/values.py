"""Values as they come from the data: any may be missing or of another type. Reading them
safely, escaping them and putting them as text."""
from __future__ import annotations

import html
import math


def _esc(value) -> str:
    return html.escape("" if value is None else str(value), quote=True)


def _num(value):
    """A finite number, or None."""
    if isinstance(value, bool) or value is None:
        return None
    try:
        number = float(value)
    except (TypeError, ValueError):
        return None
    return number if math.isfinite(number) else None


def _int(value):
    number = _num(value)
    return None if number is None else int(round(number))


def _list(value) -> list:
    return [x for x in value if isinstance(x, dict)] if isinstance(value, list) else []


def _dict(value) -> dict:
    return value if isinstance(value, dict) else {}


def _point(value):
    """(x, y) from [x, y], or None."""
    if isinstance(value, (list, tuple)) and len(value) >= 2:
        x, y = _num(value[0]), _num(value[1])
        if x is not None and y is not None:
            return x, y
    return None


def _text(value, default="—") -> str:
    return default if value in (None, "") else str(value)


def _fixed(value, digits=1, unit="") -> str:
    number = _num(value)
    if number is None:
        return "—"
    return f"{number:.{digits}f}".replace("-", "−") + (f" {unit}" if unit else "")


def _seconds(value) -> str:
    return _fixed(value, 1, "s")


def _duration(value) -> str:
    seconds = _num(value)
    if seconds is None:
        return "—"
    if seconds < 60:
        return f"{seconds:.1f} s"
    minutes, rest = divmod(int(round(seconds)), 60)
    return f"{minutes} min {rest} s" if minutes < 60 else f"{minutes // 60} h {minutes % 60} min"


def _attrs(**values) -> str:
    """Data attributes, escaped; None is left out. data_ap="x" gives data-ap="x"."""
    return "".join(
        f' {name.replace("_", "-")}="{_esc(value)}"' for name, value in values.items() if value is not None
    )
