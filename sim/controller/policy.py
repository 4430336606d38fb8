"""The planning policy of the reference RRM service: pure functions, no I/O.

From an access point's "rrm-response" (its "radios" and the "rf-environment" it heard) the
policy picks, for every radio the service may retune, the channel with the least interference
among the radio's available channels at the radio's current bandwidth, and a transmit power.
With more than one access point it also builds the 802.11k neighbour lists and the 802.11r
key-holder data ("fbt-info") that let clients roam between them.

Interference on a candidate channel is the sum over every neighbour heard in the radio's band
of its received power in milliwatts (10^(rssi/10)) times the share of its spectrum that falls
on the candidate:

* 2.4 GHz: 20 MHz channels 5 MHz apart overlap when they are less than five channel steps
  apart, by (5 - |steps|) / 5 (channel 14 sits 12 MHz above 13, i.e. 2.4 steps).
* 5 GHz: 20 MHz channels overlap only when they are the same channel.

A neighbour wider than 20 MHz spreads its power over its 20 MHz sub-channels (from its
"channel", which is its primary, its "bandwidth" and its "primary-channel" position text), and
each sub-channel counts with its best overlap against the candidate's own sub-channels.
"""
from __future__ import annotations

import dataclasses
import hashlib
import math
from typing import Iterable, Sequence

# 80 MHz and 40 MHz blocks of the 5 GHz band, as 20 MHz channel numbers.
BLOCKS_80 = (
    (36, 40, 44, 48),
    (52, 56, 60, 64),
    (100, 104, 108, 112),
    (116, 120, 124, 128),
    (132, 136, 140, 144),
    (149, 153, 157, 161),
)
BLOCKS_40 = tuple(block[i : i + 2] for block in BLOCKS_80 for i in (0, 2))

# Position of the primary inside an 80 MHz block, as orvd names it ("ll" is the first).
POSITIONS_80 = {"ll": 0, "lu": 1, "ul": 2, "uu": 3}

BAND_24 = 2
BAND_5 = 5


@dataclasses.dataclass(frozen=True)
class Settings:
    """The knobs of the policy; the defaults are what the lab runs with."""

    strong_rssi: float = -70.0  # a co-channel neighbour above this (dBm) makes the radio back off
    backoff_db: int = 3  # how far below "power-max" it backs off
    # A radio leaves its channel only for one with at least this much less interference: a
    # site of access points that all decide settles instead of chasing small differences.
    min_gain_db: float = 3.0
    fbt_reassoc_deadline: int = 1000
    fbt_over_ds: int = 0
    key_secret: str = "orvd-reference-service"  # seeds the 802.11r keys, which are derived
    # The R1 key-holder id of a peer VAP: False derives it the way the peer itself does (its
    # base MAC plus vap_id + 16 x radio_id); True uses the VAP's own MAC as reported.
    r1kh_from_vap_mac: bool = False


@dataclasses.dataclass(frozen=True)
class Neighbour:
    bssid: str
    rssi: float  # dBm, the mean of every time it was heard
    channel: int
    bandwidth: int
    primary: str
    tx_power: int
    heard: int  # how many scan passes heard it

    @property
    def band(self) -> int:
        return band_of(self.channel)

    @property
    def milliwatts(self) -> float:
        return dbm_to_mw(self.rssi)

    @property
    def subchannels(self) -> tuple:
        return occupied(self.channel, self.bandwidth, self.primary)


@dataclasses.dataclass(frozen=True)
class Candidate:
    channel: int  # the primary channel
    bandwidth: int
    primary: str  # the "primary-channel" text orvd reads: "lower"/"upper" at 40 MHz, else "none"
    subchannels: tuple


@dataclasses.dataclass
class RadioChoice:
    """What the policy decided for one radio, with what it was before, for summaries."""

    id: int
    band: int
    old_channel: int
    old_bandwidth: int
    old_power: int
    channel: int
    bandwidth: int
    primary: str
    power: int
    old_interference: float | None  # mW; None when the old channel was not a candidate
    interference: float  # mW on the chosen channel
    neighbours: int  # neighbours heard in the radio's band
    strong_co_channel: list  # bssids of co-channel neighbours above the strong threshold

    def body(self) -> dict:
        return {
            "id": self.id,
            "channel": self.channel,
            "bandwidth": self.bandwidth,
            "power": self.power,
            "primary-channel": self.primary,
        }


@dataclasses.dataclass
class Skipped:
    id: int
    reason: str  # "disabled", "locked", "no channels"


@dataclasses.dataclass
class Plan:
    body: dict  # the "rrm-info" body
    choices: list  # RadioChoice per radio retuned
    skipped: list  # Skipped per radio left alone
    fbt: dict | None = None  # the "fbt-info" body to send after it, with peers only


@dataclasses.dataclass
class AccessPoint:
    """One access point as the service knows it: identity and its latest radio description."""

    ap_mac: str
    serial: str = ""
    radios: list = dataclasses.field(default_factory=list)


# -- units and channels -----------------------------------------------------------------------


def dbm_to_mw(dbm: float) -> float:
    return 10.0 ** (dbm / 10.0)


def mw_to_dbm(mw: float) -> float | None:
    return 10.0 * math.log10(mw) if mw > 0 else None


def band_of(channel: int) -> int:
    return BAND_24 if 0 < channel < 36 else BAND_5


def parse_channels(text) -> list:
    """The "available-channels" text ("1 6 11 ") as ascending unique channel numbers."""
    if not text:
        return []
    found = set()
    for piece in str(text).split():
        try:
            number = int(piece)
        except ValueError:
            continue
        if number > 0:
            found.add(number)
    return sorted(found)


def frequency(channel: int) -> int:
    """Centre frequency in MHz of a 20 MHz channel."""
    if band_of(channel) == BAND_24:
        return 2484 if channel == 14 else 2407 + 5 * channel
    return 5000 + 5 * channel


def channel_overlap(a: int, b: int) -> float:
    """How much of 20 MHz channel b falls on 20 MHz channel a (0 to 1)."""
    if band_of(a) != band_of(b):
        return 0.0
    if band_of(a) == BAND_5:
        return 1.0 if a == b else 0.0
    steps = abs(frequency(a) - frequency(b)) / 5.0
    return max(0.0, (5.0 - steps) / 5.0)


def block_of(channel: int, blocks) -> tuple | None:
    for block in blocks:
        if channel in block:
            return block
    return None


def occupied(channel: int, bandwidth: int, primary: str = "none") -> tuple:
    """The 20 MHz channels a transmitter with this primary channel and bandwidth occupies."""
    primary = (primary or "none").lower()
    if channel <= 0:
        return ()
    if bandwidth == 40:
        if band_of(channel) == BAND_24:
            if primary == "upper":
                return (channel - 4, channel) if channel - 4 >= 1 else (channel,)
            if primary == "lower" or channel + 4 <= 13:
                return (channel, channel + 4)
            return (channel - 4, channel)
        if primary == "lower":
            return (channel, channel + 4)
        if primary == "upper":
            return (channel - 4, channel)
        return block_of(channel, BLOCKS_40) or (channel,)
    if bandwidth >= 80 and band_of(channel) == BAND_5:
        if primary in POSITIONS_80:
            start = channel - 4 * POSITIONS_80[primary]
            return tuple(start + 4 * i for i in range(4))
        return block_of(channel, BLOCKS_80) or (channel,)
    return (channel,)


def overlap_weight(candidate: Sequence[int], neighbour: Sequence[int]) -> float:
    """The share of a neighbour's power that lands on a candidate: each of the neighbour's
    20 MHz sub-channels carries an equal share and counts with its best overlap."""
    if not candidate or not neighbour:
        return 0.0
    return sum(max(channel_overlap(c, n) for c in candidate) for n in neighbour) / len(neighbour)


# -- what was heard ---------------------------------------------------------------------------


def merge_environment(rf_environment) -> list:
    """Every access point heard in any scan pass once, with its mean signal over the passes."""
    seen = {}
    order = []
    for table in rf_environment or []:
        if not isinstance(table, list):
            continue
        for entry in table:
            if not isinstance(entry, dict) or "bssid" not in entry:
                continue
            bssid = str(entry["bssid"]).lower()
            if bssid not in seen:
                seen[bssid] = []
                order.append(bssid)
            seen[bssid].append(entry)
    merged = []
    for bssid in order:
        entries = seen[bssid]
        last = entries[-1]
        rssi = sum(_int(e.get("rssi")) for e in entries) / len(entries)
        merged.append(
            Neighbour(
                bssid=bssid,
                rssi=rssi,
                channel=_int(last.get("channel")),
                bandwidth=_int(last.get("bandwidth")) or 20,
                primary=str(last.get("primary-channel") or "none"),
                tx_power=_int(last.get("tx-power")),
                heard=len(entries),
            )
        )
    return merged


def as_planned(neighbours: Iterable[Neighbour], peers: Sequence[AccessPoint]) -> list:
    """The neighbours heard, each managed one (a VAP of a peer, by its reported address or the
    address orvd derives for it) on the channel the service last gave its radio: a scan takes
    seconds, and a peer decided meanwhile has left the channel it was heard on. Its signal
    counts as heard, like any other neighbour's."""
    radios = {}
    for peer in peers:
        for radio in peer.radios:
            if _int(radio.get("status")) != 1 or _int(radio.get("channel")) <= 0:
                continue
            for vap in radio.get("vaps") or []:
                derived = r1_key_holder_id(peer.ap_mac, _int(vap.get("id")), _int(radio.get("id")))
                for address in (str(vap.get("mac", "")), derived):
                    radios[address.lower()] = radio
    result = []
    for heard in neighbours:
        radio = radios.get(heard.bssid)
        if radio is not None:
            bandwidth = _int(radio.get("bandwidth")) or 20
            heard = dataclasses.replace(
                heard, channel=_int(radio.get("channel")), bandwidth=bandwidth,
                primary=str(radio.get("primary-channel") or "none") if bandwidth == 40 else "none")
        result.append(heard)
    return result


def radio_band(radio: dict) -> int | None:
    channel = _int(radio.get("channel"))
    if channel > 0:
        return band_of(channel)
    available = parse_channels(radio.get("available-channels"))
    return band_of(available[0]) if available else None


def neighbours_in_band(neighbours: Iterable[Neighbour], band: int | None) -> list:
    return [n for n in neighbours if n.channel > 0 and n.band == band]


# -- channel choice ---------------------------------------------------------------------------


def candidates(available: Sequence[int], bandwidth: int) -> list:
    """Every way the radio may sit at this bandwidth within its available channels, falling
    back to a narrower bandwidth where none fits (80 to 40 to 20)."""
    available = sorted(set(available))
    if not available:
        return []
    allowed = set(available)
    band = band_of(available[0])
    if bandwidth >= 80 and band == BAND_5:
        found = [
            Candidate(c, 80, "none", block)
            for block in BLOCKS_80
            if set(block) <= allowed
            for c in block
        ]
        if found:
            return found
        bandwidth = 40
    if bandwidth == 40:
        found = []
        if band == BAND_5:
            for block in BLOCKS_40:
                if set(block) <= allowed:
                    found.append(Candidate(block[0], 40, "lower", block))
                    found.append(Candidate(block[1], 40, "upper", block))
        else:
            for c in available:
                if c + 4 in allowed and c + 4 <= 13:
                    found.append(Candidate(c, 40, "lower", (c, c + 4)))
                if c - 4 in allowed:
                    found.append(Candidate(c, 40, "upper", (c - 4, c)))
        if found:
            return sorted(found, key=lambda k: (k.channel, k.primary))
    return [Candidate(c, 20, "none", (c,)) for c in available]


def interference(subchannels: Sequence[int], neighbours: Iterable[Neighbour]) -> float:
    """Milliwatts of neighbour power on a candidate's sub-channels."""
    return sum(n.milliwatts * overlap_weight(subchannels, n.subchannels) for n in neighbours)


def choose_channel(radio: dict, neighbours: Sequence[Neighbour], min_gain_db: float = 0.0) -> tuple:
    """The candidate with the least interference and that interference; the radio stays where
    it is unless that is at least min_gain_db less than on its own channel, and on a tie; else
    the lowest channel wins. (None, 0.0) when it has no channel."""
    options = candidates(parse_channels(radio.get("available-channels")), _int(radio.get("bandwidth")) or 20)
    if not options:
        return None, 0.0
    current = (_int(radio.get("channel")), _int(radio.get("bandwidth")) or 20)
    scored = [(interference(k.subchannels, neighbours), k) for k in options]
    least = min(score for score, _ in scored)
    tolerance = max(least * 1e-9, 1e-18)
    for score, k in scored:
        if (k.channel, k.bandwidth) == current and score <= least * 10.0 ** (min_gain_db / 10.0) + tolerance:
            return k, score
    best = [k for score, k in scored if score <= least + tolerance]
    return best[0], least


def co_channel(candidate: Candidate, neighbours: Iterable[Neighbour]) -> list:
    """Neighbours that share at least one 20 MHz channel with the candidate."""
    mine = set(candidate.subchannels)
    return [n for n in neighbours if mine & set(n.subchannels)]


def choose_power(radio: dict, candidate: Candidate, neighbours: Iterable[Neighbour], settings: Settings) -> tuple:
    """("power-max" or "power-max" - backoff when a strong co-channel neighbour is heard, kept
    within "power-min".."power-max"; the strong neighbours). A radio that reports no maximum
    gets 0, which orvd reads as "leave the power".

    A radio already below its maximum counts a neighbour as strong down to backoff dB under the
    threshold: the neighbour may have backed off too, and would be strong again at full power.
    Without that, two radios that hear each other near the threshold back off together, then
    hear each other weaker and come back together, cycle after cycle."""
    high = _int(radio.get("power-max"))
    low = _int(radio.get("power-min"))
    threshold = settings.strong_rssi
    if 0 < _int(radio.get("power")) < high:
        threshold -= settings.backoff_db
    strong = [n.bssid for n in co_channel(candidate, neighbours) if n.rssi > threshold]
    if high <= 0:
        return 0, strong
    power = high - settings.backoff_db if strong else high
    return max(min(power, high), low if low > 0 else power), strong


def plan_radio(radio: dict, neighbours: Sequence[Neighbour], settings: Settings = Settings()):
    """A RadioChoice for a radio the service may retune, else Skipped with the reason."""
    radio_id = _int(radio.get("id"))
    if _int(radio.get("status")) != 1:
        return Skipped(radio_id, "disabled")
    if _int(radio.get("locked-for-dca")) or _int(radio.get("locked-for-tpc")):
        return Skipped(radio_id, "locked")
    band = radio_band(radio)
    heard = neighbours_in_band(neighbours, band)
    chosen, least = choose_channel(radio, heard, settings.min_gain_db)
    if chosen is None:
        return Skipped(radio_id, "no channels")
    power, strong = choose_power(radio, chosen, heard, settings)
    old_channel = _int(radio.get("channel"))
    old_bandwidth = _int(radio.get("bandwidth")) or 20
    old_options = [
        k for k in candidates(parse_channels(radio.get("available-channels")), old_bandwidth)
        if k.channel == old_channel and k.bandwidth == old_bandwidth
    ]
    old = interference(old_options[0].subchannels, heard) if old_options else None
    return RadioChoice(
        id=radio_id,
        band=band,
        old_channel=old_channel,
        old_bandwidth=old_bandwidth,
        old_power=_int(radio.get("power")),
        channel=chosen.channel,
        bandwidth=chosen.bandwidth,
        primary=chosen.primary,
        power=power,
        old_interference=old,
        interference=least,
        neighbours=len(heard),
        strong_co_channel=strong,
    )


# -- several access points --------------------------------------------------------------------


def ssids(radios: Iterable[dict]) -> set:
    return {vap.get("ssid") for radio in radios if _int(radio.get("status")) == 1 for vap in radio.get("vaps") or []}


def radio_base_mac(ap_mac: str, radio_id: int) -> str:
    """The base of a radio's BSSIDs: the access point's MAC plus 16 x radio id, the plan orvd
    itself follows for key holders. orvd turns a neighbour entry into BSSIDs by putting each
    VAP id into the low four bits of "neighbour-mac", so radio 0's entry carries the plain
    "ap-mac" and radio 1's the MAC 16 above, and the two radios' VAPs do not collide."""
    return r1_key_holder_id(ap_mac, 0, radio_id)


def neighbour_reports(own_radios: Sequence[dict], peers: Sequence[AccessPoint]) -> list:
    """The "802dot11k" list for one access point: one entry per working radio of every peer
    that serves at least one SSID this access point serves, with those VAPs."""
    mine = ssids(own_radios)
    reports = []
    for peer in peers:
        for radio in peer.radios:
            if _int(radio.get("status")) != 1 or _int(radio.get("channel")) <= 0:
                continue
            vaps = [
                {"id": _int(vap.get("id")), "ssid": vap.get("ssid")}
                for vap in radio.get("vaps") or []
                if vap.get("ssid") in mine
            ]
            if vaps:
                reports.append({"neighbour-mac": radio_base_mac(peer.ap_mac, _int(radio.get("id"))),
                                "channel": _int(radio.get("channel")), "vaps": vaps})
    return reports


def r1_key_holder_id(base_mac: str, vap_id: int, radio_id: int) -> str:
    """A VAP's R1 key-holder id as orvd derives it: the base MAC with vap_id + 16 x radio_id
    added to its last three bytes, or the base MAC itself when the sum would wrap."""
    octets = _mac_bytes(base_mac)
    if octets is None:
        return str(base_mac).upper()
    low = int.from_bytes(bytes(octets[3:]), "big")
    total = (low + vap_id + radio_id * 16) % (1 << 24)
    if total > low:
        octets[3:] = list(total.to_bytes(3, "big"))
    return ":".join(f"{b:02X}" for b in octets)


def vap_key(secret: str, domain: str, mac: str) -> str:
    """A VAP's 128-bit key as 32 hex digits; derived, so every run hands out the same ones."""
    return hashlib.sha256(f"{secret}|{domain}|{str(mac).lower()}".encode()).hexdigest()[:32]


def _ft_vaps(ap: AccessPoint):
    for radio in ap.radios:
        if _int(radio.get("status")) != 1:
            continue
        for vap in radio.get("vaps") or []:
            if _int(vap.get("802dot11r")) == 1:
                yield _int(radio.get("id")), vap


def fbt_info(ap: AccessPoint, peers: Sequence[AccessPoint], domain: str, settings: Settings = Settings()) -> dict:
    """The "fbt-info" body for one access point: each of its fast-transition VAPs with the
    VAPs of the same SSID on the peers as remotes."""
    entries = []
    for radio_id, vap in _ft_vaps(ap):
        remotes = []
        for peer in peers:
            for peer_radio_id, peer_vap in _ft_vaps(peer):
                if peer_vap.get("ssid") != vap.get("ssid"):
                    continue
                if settings.r1kh_from_vap_mac:
                    r1 = str(peer_vap.get("mac", "")).upper()
                else:
                    r1 = r1_key_holder_id(peer.ap_mac, _int(peer_vap.get("id")), peer_radio_id)
                remotes.append(
                    {
                        "remote-r1-kh-id": r1,
                        "remote-r0-kh-id": peer.serial,
                        "remote-r1-kh-key": vap_key(settings.key_secret, domain, peer_vap.get("mac", "")),
                    }
                )
        if remotes:
            entries.append(
                {
                    "vap_id": _int(vap.get("id")),
                    "radio_id": radio_id,
                    "fbt-rrb-key": vap_key(settings.key_secret, domain, vap.get("mac", "")),
                    "remotes": remotes,
                }
            )
    return {
        "fbt-reassoc-deadline": settings.fbt_reassoc_deadline,
        "fbt-over-ds": settings.fbt_over_ds,
        "vaps": entries,
    }


def with_decisions(radios: Sequence[dict], choices: Iterable[RadioChoice]) -> list:
    """A copy of a radio description with the channels and powers just decided."""
    decided = {c.id: c for c in choices}
    result = []
    for radio in radios:
        radio = dict(radio)
        choice = decided.get(_int(radio.get("id")))
        if choice is not None:
            radio.update(
                {"channel": choice.channel, "bandwidth": choice.bandwidth, "power": choice.power,
                 "primary-channel": choice.primary if choice.bandwidth == 40 else "none"}
            )
        result.append(radio)
    return result


# -- the whole decision -----------------------------------------------------------------------


def plan(response: dict, peers: Sequence[AccessPoint] = (), settings: Settings = Settings(),
         serial: str = "") -> Plan:
    """The decision for one access point's "rrm-response". `peers` are the other access points
    the service serves (with their latest radios); with any, the plan carries the 802.11k
    neighbour lists, switches 802.11r on and has an "fbt-info" to send after the "rrm-info"."""
    radios = [r for r in response.get("radios") or [] if isinstance(r, dict)]
    heard = as_planned(merge_environment(response.get("rf-environment")), peers)
    choices, skipped = [], []
    for radio in radios:
        outcome = plan_radio(radio, heard, settings)
        (choices if isinstance(outcome, RadioChoice) else skipped).append(outcome)
    body = {"use-tpc": 1, "use-dca": 1}
    fbt = None
    if peers:
        body["use-80211r"] = 1
    body["radios"] = [c.body() for c in choices]
    if peers:
        body["802dot11k"] = neighbour_reports(radios, peers)
        me = AccessPoint(str(response.get("ap-mac", "")), serial, with_decisions(radios, choices))
        fbt = fbt_info(me, peers, str(response.get("domain", "")), settings)
    return Plan(body=body, choices=choices, skipped=skipped, fbt=fbt)


# -- helpers ----------------------------------------------------------------------------------


def _int(value) -> int:
    if isinstance(value, bool):
        return int(value)
    if isinstance(value, int):
        return value
    if isinstance(value, float):
        return int(value)
    try:
        return int(str(value).strip())
    except (TypeError, ValueError):
        return 0


def _mac_bytes(text: str):
    parts = str(text).replace("-", ":").split(":")
    if len(parts) != 6:
        return None
    try:
        return [int(p, 16) for p in parts]
    except ValueError:
        return None
