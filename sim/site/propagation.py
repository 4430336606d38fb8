"""What one radio of the site receives from another: transmit power minus the path loss.

    loss = loss_at_1m(band) + 10 x exponent(band) x log10(max(d, 1 m))
           + the loss of every wall the straight path crosses on the floor both are on
           + floor_loss x the floors between them
           + fading

The fading term stands for what walls and furniture do that the plan does not show. It lies
within +-fading_db, comes from a hash of the seed, the band and the two ends, and is the same
both ways (a link is reciprocal): the same site file with the same seed gives the same
readings in every run.
"""
from __future__ import annotations

import hashlib
import math

from .model import Site


def distance(a, b) -> float:
    """Metres between two placed things (x, y, floor); the floors count as 3 m each."""
    floors = 3.0 * (a.floor - b.floor)
    return math.sqrt((a.x - b.x) ** 2 + (a.y - b.y) ** 2 + floors**2)


def _crosses(p, q, wall) -> bool:
    """True when segment p-q crosses the wall's segment (touching an end counts)."""

    def side(a, b, c):
        value = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0])
        return (value > 1e-9) - (value < -1e-9)

    a, b = wall.start, wall.end
    d1, d2 = side(p, q, a), side(p, q, b)
    d3, d4 = side(a, b, p), side(a, b, q)
    return d1 != d2 and d3 != d4 and d1 * d2 <= 0 and d3 * d4 <= 0


def wall_loss(site: Site, a, b) -> float:
    if a.floor != b.floor:
        return 0.0  # through the floors: floor_loss stands for everything in between
    p, q = (a.x, a.y), (b.x, b.y)
    return sum(w.loss_db for w in site.walls if w.floor == a.floor and _crosses(p, q, w))


def fading(site: Site, band: int, one: str, other: str) -> float:
    """The link's fading term in dB, within +-site.fading_db; the same both ways."""
    if site.fading_db <= 0:
        return 0.0
    ends = "|".join(sorted((one, other)))
    digest = hashlib.sha256(f"{site.seed}|{band}|{ends}".encode()).digest()
    share = int.from_bytes(digest[:8], "big") / float(1 << 64)  # 0 <= share < 1
    return (2.0 * share - 1.0) * site.fading_db


def path_loss(site: Site, band: int, a, b, a_name: str, b_name: str) -> float:
    model = site.bands[band]
    metres = max(distance(a, b), 1.0)
    return (model.loss_at_1m + 10.0 * model.exponent * math.log10(metres) + wall_loss(site, a, b)
            + site.floor_loss_db * abs(a.floor - b.floor) + fading(site, band, a_name, b_name))


def received_dbm(site: Site, band: int, tx_power: float, sender, receiver, sender_name: str,
                 receiver_name: str) -> float:
    """dBm at `receiver` of what `sender` transmits at tx_power dBm."""
    return tx_power - path_loss(site, band, sender, receiver, sender_name, receiver_name)
