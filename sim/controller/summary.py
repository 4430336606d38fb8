"""Human-readable summaries of what an access point heard and what the policy decided.

Plain functions returning text, so a live display, a log file and a test can all use them.
"""
from __future__ import annotations

from . import policy

BAND_NAMES = {policy.BAND_24: "2.4 GHz", policy.BAND_5: "5 GHz", None: "? GHz"}


def _dbm(value) -> str:
    return "-" if value is None else f"{value:.0f}"


def _mw_as_dbm(mw) -> str:
    if mw is None:
        return "n/a"
    dbm = policy.mw_to_dbm(mw)
    return "none" if dbm is None else f"{dbm:.1f} dBm"


def radio_heading(radio: dict) -> str:
    band = policy.radio_band(radio)
    state = "up" if policy._int(radio.get("status")) == 1 else "off"
    locked = " locked" if policy._int(radio.get("locked-for-dca")) or policy._int(radio.get("locked-for-tpc")) else ""
    available = " ".join(str(c) for c in policy.parse_channels(radio.get("available-channels"))) or "-"
    return (
        f"radio {policy._int(radio.get('id'))} {BAND_NAMES.get(band, '? GHz')} {state}{locked}: "
        f"channel {policy._int(radio.get('channel'))}/{policy._int(radio.get('bandwidth')) or 20} MHz, "
        f"power {policy._int(radio.get('power'))} dBm "
        f"({policy._int(radio.get('power-min'))}..{policy._int(radio.get('power-max'))}), "
        f"available {available}"
    )


def neighbour_table(response: dict) -> str:
    """Per radio, the neighbours heard grouped by channel: how many, the strongest, and every
    signal, strongest first; 20 MHz neighbours print plain, wider ones with /bandwidth."""
    heard = policy.merge_environment(response.get("rf-environment"))
    lines = []
    ap = response.get("ap-mac")
    if ap:
        lines.append(f"{ap}: {len(heard)} neighbours heard")
    for radio in response.get("radios") or []:
        if not isinstance(radio, dict):
            continue
        lines.append(radio_heading(radio))
        band = policy.radio_band(radio)
        mine = policy.neighbours_in_band(heard, band)
        if not mine:
            lines.append("  (no neighbours heard)")
            continue
        by_channel = {}
        for n in mine:
            by_channel.setdefault(n.channel, []).append(n)
        lines.append("   ch   n  best  signals (dBm)")
        for channel in sorted(by_channel):
            group = sorted(by_channel[channel], key=lambda n: -n.rssi)
            signals = " ".join(
                _dbm(n.rssi) + ("" if n.bandwidth == 20 else f"/{n.bandwidth}") for n in group
            )
            lines.append(f"  {channel:3d} {len(group):3d}  {_dbm(group[0].rssi):>4}  {signals}")
    return "\n".join(lines)


def decision_line(ap_mac: str, choice) -> str:
    """One line for one radio of a decision."""
    if isinstance(choice, policy.Skipped):
        return f"{ap_mac} radio {choice.id}: left alone ({choice.reason})"
    before = f"{choice.old_channel}/{choice.old_bandwidth}"
    after = f"{choice.channel}/{choice.bandwidth}"
    channel = f"channel {before} kept" if before == after else f"channel {before} -> {after}"
    if choice.bandwidth == 40:
        channel += f" {choice.primary}"
    power = (
        f"power {choice.old_power} dBm kept" if choice.power == choice.old_power
        else f"power {choice.old_power} -> {choice.power} dBm"
    )
    if choice.strong_co_channel:
        power += f" (strong co-channel: {len(choice.strong_co_channel)})"
    return (
        f"{ap_mac} radio {choice.id} {BAND_NAMES.get(choice.band, '? GHz')}: {channel}, {power}; "
        f"interference {_mw_as_dbm(choice.old_interference)} -> {_mw_as_dbm(choice.interference)} "
        f"from {choice.neighbours} neighbour{'' if choice.neighbours == 1 else 's'}"
    )


def decision_lines(ap_mac: str, plan) -> str:
    """Every radio of a plan, one line each, then the roaming data when there is any."""
    lines = [decision_line(ap_mac, c) for c in sorted(plan.choices + plan.skipped, key=lambda c: c.id)]
    reports = plan.body.get("802dot11k")
    if reports is not None:
        lines.append(
            f"{ap_mac} 802.11k: {len(reports)} neighbour entries"
            + (": " + ", ".join(f"{r['neighbour-mac']} ch {r['channel']}" for r in reports) if reports else "")
        )
    if plan.fbt is not None:
        remotes = sum(len(v["remotes"]) for v in plan.fbt["vaps"])
        lines.append(f"{ap_mac} 802.11r: {len(plan.fbt['vaps'])} VAPs, {remotes} remotes")
    return "\n".join(lines)
