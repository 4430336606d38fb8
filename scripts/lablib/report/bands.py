"""The bands and channels the page knows, and the signal levels it draws against."""
from __future__ import annotations

from .values import _int, _num

STRONG_DBM = -75.0
# The scale of the channel charts: a signal at the floor shows no bar, one at the top fills it.
HEARD_FLOOR_DBM = -100.0
HEARD_TOP_DBM = -30.0

BAND_NAMES = {"2": "2.4 GHz", "5": "5 GHz", "6": "6 GHz"}
BAND_CHANNELS = {
    "2": list(range(1, 14)),
    "5": [36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 108, 112, 116, 120, 124, 128, 132, 136, 140,
          144, 149, 153, 157, 161, 165],
    "6": list(range(1, 234, 4)),
}
DEFAULT_BANDS = ("2", "5")


def _band(value):
    """The band as the key the page uses: "2", "5", "6"; 2.4 counts as 2."""
    number = _num(value)
    if number is None:
        return str(value) if value not in (None, "") else None
    return str(int(number))


def _band_name(band) -> str:
    return BAND_NAMES.get(band, "band ?" if band is None else f"band {band}")


def _band_order(band):
    number = _num(band)
    return (0, number, "") if number is not None else (1, 0, str(band))


def _channel_text(radio: dict) -> str:
    channel = _int(radio.get("channel"))
    if channel is None:
        return "—"
    bandwidth = _int(radio.get("bandwidth"))
    return f"{channel}/{bandwidth}" if bandwidth and bandwidth != 20 else str(channel)
