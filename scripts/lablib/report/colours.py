"""The colour of each channel, the same on every page, and the colours of what is not managed."""
from __future__ import annotations

from .values import _int

# One colour per channel, the same on every page: the three non-overlapping 2.4 GHz channels
# and the first 5 GHz block stand furthest apart. Grey is kept for what is not managed.
CHANNEL_COLOURS = {
    1: "#1f77b4", 6: "#2ca02c", 11: "#d62728",
    2: "#9467bd", 3: "#8c564b", 4: "#e377c2", 5: "#bcbd22", 7: "#17becf", 8: "#ff7f0e",
    9: "#aec7e8", 10: "#98df8a", 12: "#ff9896", 13: "#c5b0d5", 14: "#c49c94",
    36: "#4e79a7", 40: "#f28e2b", 44: "#e15759", 48: "#76b7b2", 52: "#59a14f", 56: "#edc948",
    60: "#b07aa1", 64: "#ff9da7", 100: "#9c755f", 104: "#1b9e77", 108: "#d95f02",
    112: "#7570b3", 116: "#e7298a", 120: "#66a61e", 124: "#e6ab02", 128: "#a6761d",
    132: "#0b84a5", 136: "#f6c85f", 140: "#6f4e7c", 144: "#9dd866", 149: "#ca472f",
    153: "#ffa056", 157: "#8dddd0", 161: "#3b5b92", 165: "#b2df8a",
}
OTHER_COLOURS = ("#5778a4", "#e49444", "#d1615d", "#85b6b2", "#6a9f58", "#e7ca60", "#a87c9f",
                 "#f1a2a9", "#967662", "#b8b0ac")
NO_CHANNEL_COLOUR = "#ffffff"
EXTERNAL_COLOUR = "#8a8a8a"
PAIR_COLOUR = "#222222"


def channel_colour(channel) -> str:
    """The fill of a channel on every page; one outside the table still gets a fixed colour."""
    number = _int(channel)
    if number is None:
        return NO_CHANNEL_COLOUR
    return CHANNEL_COLOURS.get(number) or OTHER_COLOURS[number % len(OTHER_COLOURS)]


def _text_colour(fill: str) -> str:
    red, green, blue = (int(fill[i:i + 2], 16) for i in (1, 3, 5))
    return "#111" if 0.299 * red + 0.587 * green + 0.114 * blue > 150 else "#fff"
