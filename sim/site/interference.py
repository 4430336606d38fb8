"""The site's co-channel interference: for each pair of access points whose radios sit on
overlapping channels, the power each receives from the other, weighted by the share of the
spectrum they share (the reference policy's overlap rule), summed in milliwatts per band."""
from __future__ import annotations

import dataclasses

from sim.controller import policy

from .model import Site
from .propagation import received_dbm


@dataclasses.dataclass(frozen=True)
class Pair:
    band: int
    a: str  # access point labels
    b: str
    a_hears_b_dbm: float
    b_hears_a_dbm: float
    overlap: float  # 0 < overlap <= 1

    @property
    def milliwatts(self) -> float:
        return self.overlap * (policy.dbm_to_mw(self.a_hears_b_dbm) + policy.dbm_to_mw(self.b_hears_a_dbm))

    @property
    def stronger_dbm(self) -> float:
        return max(self.a_hears_b_dbm, self.b_hears_a_dbm)


def occupied(radio) -> tuple:
    primary = radio.sideband if radio.bandwidth == 40 else "none"
    return policy.occupied(radio.channel, radio.bandwidth, primary)


def site_interference(site: Site, radios: list) -> tuple:
    """(pairs, {band: dBm or None, "total": dBm or None}) for the radios as they are now."""
    live = [r for r in radios if r.up]
    pairs = []
    for i, a in enumerate(live):
        for b in live[i + 1:]:
            if a.band != b.band or a.ap is b.ap:
                continue
            overlap = min(policy.overlap_weight(occupied(a), occupied(b)),
                          policy.overlap_weight(occupied(b), occupied(a)))
            if overlap <= 0:
                continue
            pairs.append(Pair(a.band, a.ap.label, b.ap.label,
                              received_dbm(site, a.band, b.power, b.ap, a.ap, b.key, a.key),
                              received_dbm(site, a.band, a.power, a.ap, b.ap, a.key, b.key), overlap))
    totals = {}
    for band in sorted({r.band for r in radios}):
        totals[band] = policy.mw_to_dbm(sum(p.milliwatts for p in pairs if p.band == band))
    totals["total"] = policy.mw_to_dbm(sum(p.milliwatts for p in pairs))
    return pairs, totals
