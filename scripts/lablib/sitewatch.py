"""The lab as a site: keeps what each access point hears up to date (sim.site.SiteKeeper),
and shows the planning as it goes: the site's co-channel interference and plan before any
decision and after each cycle (every access point decided once more), and at the end the
change, the cycles until the plan stood still and what each access point cost; the report page
is written from the same snapshots."""
from __future__ import annotations

import datetime
import time

from sim.controller import policy
from sim.site import SiteKeeper, site_interference

from . import report
from .usage import usage_lines

# Time after a cycle's last decision before the site is looked at: orvd applies a decision as a
# few networkd requests within a second or two.
CYCLE_SETTLE_S = 4.0
BANDS = {2: "2.4 GHz", 5: "5 GHz"}
PAIRS_PER_LINE = 4


def dbm_text(value) -> str:
    return "none" if value is None else f"{value:.1f} dBm"


def plan_of(radios) -> dict:
    return {r.key: (r.channel, r.bandwidth, r.power) for r in radios if r.up}


class SiteWatch:
    def __init__(self, lab, site, roots: dict, workdirs: dict):
        self.lab = lab
        self.site = site
        self.keeper = SiteKeeper(site, roots, workdirs)
        self.snapshots = []  # report snapshots: "before", "cycle N", ..., "after"
        self.plans = []  # plan_of() of each snapshot but "after"
        self.cycles = 0  # cycles shown
        self.cycle_due = None  # monotonic time the next cycle is looked at
        self.decisions = []  # report timeline
        self.decisions_seen = {}  # connection number -> decisions taken into the timeline
        self.heard = {}  # (ap label, radio name) -> the channels its last scan heard

    # -- every look ---------------------------------------------------------------------------

    def look(self, service):
        self.keeper.update()
        for problem in self.keeper.problems:
            self.lab.display.add(time.monotonic(), "site", problem)
        self.keeper.problems.clear()
        if not self.snapshots and all(r.up for r in self.keeper.radios):
            self.show_snapshot("before", 0, "site before planning")
        self.follow_decisions(service)
        done = self.cycles_decided(service)
        if done > self.cycles and self.cycle_due is None:
            self.cycle_due = time.monotonic() + CYCLE_SETTLE_S
        if self.cycle_due is not None and time.monotonic() >= self.cycle_due and self.snapshots:
            self.cycle_due = None
            self.cycles += 1
            self.show_snapshot(f"cycle {self.cycles}", self.cycles, f"site after cycle {self.cycles}")
            self.write_report()

    def cycles_decided(self, service) -> int:
        """How many decisions every access point has had (the cycles complete)."""
        counts = {ap.label: 0 for ap in self.site.aps}
        for conn in list(service.connections):
            label = self.lab.book.label_of(conn)
            if label in counts:
                counts[label] = max(counts[label], len(conn.decisions))
        return min(counts.values())

    def follow_decisions(self, service):
        for conn in list(service.connections):
            label = self.lab.book.label_of(conn)
            if not label.startswith("ap"):
                continue
            seen = self.decisions_seen.get(conn.number, 0)
            decisions = list(conn.decisions)
            responses = [r for r in conn.received if r.cmd == "rrm-response"]
            for index in range(seen, len(decisions)):
                if index < len(responses):
                    self.note_heard(label, responses[index].message, decisions[index])
                for choice in decisions[index].choices:
                    self.decisions.append({
                        "time_s": round(time.monotonic() - self.lab.started, 1), "ap": label,
                        "radio": f"wlan{choice.id}", "band": choice.band,
                        "from": {"channel": choice.old_channel, "bandwidth": choice.old_bandwidth,
                                 "power": choice.old_power},
                        "to": {"channel": choice.channel, "bandwidth": choice.bandwidth, "power": choice.power},
                    })
            self.decisions_seen[conn.number] = len(decisions)

    def note_heard(self, label, response, plan):
        """The channels each radio heard in the scan a decision was made from: the strongest
        signal and how many BSSIDs, per channel of the radio's band."""
        if not isinstance(response, dict):
            return
        heard = policy.merge_environment(response.get("rf-environment"))
        for radio in response.get("radios") or []:
            if not isinstance(radio, dict) or policy._int(radio.get("status")) != 1:
                continue
            band = policy.radio_band(radio)
            channels = {}
            for neighbour in policy.neighbours_in_band(heard, band):
                slot = channels.setdefault(str(neighbour.channel), {"strongest_dbm": -100, "count": 0})
                slot["strongest_dbm"] = max(slot["strongest_dbm"], round(neighbour.rssi))
                slot["count"] += 1
            self.heard[(label, f"wlan{policy._int(radio.get('id'))}")] = {
                "ap": label, "radio": f"wlan{policy._int(radio.get('id'))}", "band": band,
                "channel": policy._int(radio.get("channel")), "channels": channels,
            }

    # -- snapshots ----------------------------------------------------------------------------

    def snapshot(self, name: str, cycle: int) -> dict:
        pairs, totals = site_interference(self.site, self.keeper.radios)
        return {
            "name": name, "cycle": cycle, "time_s": round(time.monotonic() - self.lab.started, 1),
            "radios": [{"ap": r.ap.label, "radio": r.name, "band": r.band, "channel": r.channel,
                        "bandwidth": r.bandwidth, "power": r.power} for r in self.keeper.radios if r.up],
            "pairs": [{"band": p.band, "a": p.a, "b": p.b, "a_hears_b_dbm": round(p.a_hears_b_dbm, 1),
                       "b_hears_a_dbm": round(p.b_hears_a_dbm, 1), "overlap": round(p.overlap, 2)} for p in pairs],
            "interference_dbm": {str(k): (None if v is None else round(v, 1)) for k, v in totals.items()},
        }

    def show_snapshot(self, name: str, cycle: int, heading: str):
        shot = self.snapshot(name, cycle)
        plan = plan_of(self.keeper.radios)
        changed = None
        if self.plans:
            before = self.plans[-1]
            changed = sum(1 for key in set(before) | set(plan) if before.get(key) != plan.get(key))
        self.snapshots.append(shot)
        self.plans.append(plan)
        self.lab.display.add(time.monotonic(), "site", self.snapshot_text(shot, heading, changed))

    def snapshot_text(self, shot: dict, heading: str, changed) -> str:
        totals = shot["interference_dbm"]
        first = self.snapshots[0]["interference_dbm"]["total"] if self.snapshots else None
        change = ""
        if first is not None and totals["total"] is not None and shot is not self.snapshots[0]:
            change = f" ({totals['total'] - first:+.1f} dB from the start)"
        bands = ", ".join(f"{BANDS[int(k)]} {dbm_text(v)}" for k, v in totals.items() if k != "total")
        lines = [f"{heading}: co-channel interference {bands}, all {dbm_text(totals['total'])}{change}"
                 + ("" if changed is None else f"; {changed} radio{'s' if changed != 1 else ''} changed")]
        for band, name in BANDS.items():
            radios = [r for r in shot["radios"] if r["band"] == band]
            if radios:
                lines.append(f"  plan {name}: " + " ".join(
                    f"{r['ap']} {r['channel']}/{r['bandwidth']} {r['power']}dBm" for r in radios))
            pairs = [p for p in shot["pairs"] if p["band"] == band]
            pairs.sort(key=lambda p: -max(p["a_hears_b_dbm"], p["b_hears_a_dbm"]))
            texts = [f"{p['a']}<>{p['b']} {p['a_hears_b_dbm']:.0f}/{p['b_hears_a_dbm']:.0f}" for p in pairs]
            if texts:
                lines.append(f"  co-channel pairs {name} ({len(texts)}, dBm each hears the other):")
                lines += ["    " + ", ".join(texts[i : i + PAIRS_PER_LINE]) for i in range(0, len(texts), PAIRS_PER_LINE)]
        return "\n".join(lines)

    def stable_after(self):
        """The cycle from which the plan stood still, confirmed by at least one later cycle;
        None when the last cycle still changed it (or there were too few)."""
        if len(self.plans) < 2 or self.plans[-1] != self.plans[-2]:
            return None
        index = len(self.plans) - 1
        while index > 0 and self.plans[index - 1] == self.plans[-1]:
            index -= 1
        return index

    # -- the end --------------------------------------------------------------------------------

    def finish(self, programs):
        """At the stop, while the programs still run: the site as it ended, the summary, what
        each access point cost; then the report."""
        if not self.snapshots:
            self.lab.say("site", "no picture of the site: its radios were never all up")
            return
        shot = self.snapshot("after", self.cycles)
        self.snapshots.append(shot)
        first = self.snapshots[0]["interference_dbm"]
        stable = self.stable_after()
        lines = [f"site summary: {self.cycles} cycle{'s' if self.cycles != 1 else ''}; "
                 + (f"plan stable after cycle {stable}" if stable is not None else "plan not (yet) stable")]
        for key, value in shot["interference_dbm"].items():
            name = BANDS.get(int(key), "") if key != "total" else "all"
            before = first.get(key)
            delta = f" ({value - before:+.1f} dB)" if value is not None and before is not None else ""
            lines.append(f"  co-channel interference {name}: {dbm_text(before)} -> {dbm_text(value)}{delta}")
        lines += usage_lines(programs, time.monotonic() - self.lab.started)
        self.lab.say("site", "\n".join(lines))
        self.write_report()

    def report_data(self) -> dict:
        site = self.site
        return {
            "title": f"orvd lab: {site.name}, {len(site.aps)} access point{'s' if len(site.aps) != 1 else ''}",
            "started": datetime.datetime.fromtimestamp(self.lab.display.started_wall, datetime.timezone.utc)
            .isoformat(timespec="seconds").replace("+00:00", "Z"),
            "duration_s": round(time.monotonic() - self.lab.started, 1),
            "site": {"width_m": site.width_m, "depth_m": site.depth_m, "floors": site.floors,
                     "walls": [{"floor": w.floor, "from": list(w.start), "to": list(w.end), "loss_db": w.loss_db}
                               for w in site.walls]},
            "strong_dbm": report.STRONG_DBM,
            "aps": [{"label": ap.label, "mac": (ap.scenario.get("factory") or {}).get("mac", ""),
                     "x": ap.x, "y": ap.y, "floor": ap.floor} for ap in site.aps],
            "externals": [{"bssid": e.bssid, "ssid": e.ssid, "x": e.x, "y": e.y, "floor": e.floor,
                           "channel": e.channel, "bandwidth": e.bandwidth, "band": e.band} for e in site.externals],
            "snapshots": self.snapshots,
            "stable_after_cycles": self.stable_after(),
            "heard": list(self.heard.values()),
            "decisions": self.decisions,
        }

    def write_report(self):
        path = self.lab.args.report
        if not path or not self.snapshots:
            return
        try:
            report.write_report(path, self.report_data())
        except OSError as error:
            self.lab.display.add(time.monotonic(), "lab", f"report {path} not written: {error}")
