#!/usr/bin/python3
"""An hour of ordinary life: does orvd keep its memory and descriptors?

orvd (emulated driver preloaded, log_level=0x07) runs subscribed against orvd-vdev's default
scenario and the reference service. Every 30 s a cycle: a scan (standard and driver RRM scan in
turn, channels 1 6 11 36 40) answered by its rrm-response, then a configuration (channel and
power of the 5 GHz radio, two plans in turn) applied and read back from the emulated radio.
Every 5 minutes the service crashes (the link reset without a close frame, nobody listening for
half a second) and orvd links and subscribes again.

Every 10 s a sample of orvd's VmRSS, Private_Dirty and open descriptors (written with --csv);
before each cycle, with orvd idle for a while, a settled look. Growth is measured on the
settled looks after the warm-up: the median of the last five against the median of the first
five, and the least-squares slope over all of them.

Usage: bench/soak.py [--build DIR] [--minutes 60] [--warm-up 5] [--csv FILE]
  (--short: 6 minutes with 1 minute of warm-up, as a trial run of the benchmark itself)
Exit status 1 when a goal is missed.
"""
import os
import pathlib
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import benchlib  # noqa: E402
from benchlib import Goal  # noqa: E402

CYCLE_S = 30
RESTART_S = 300
SAMPLE_S = 10
GROWTH_GOAL_KIB = 64  # within the allocator's noise: no growth
SLOPE_GOAL_KIB_H = 64
PLANS = (
    {"id": 1, "channel": 149, "bandwidth": 80, "power": 16, "primary-channel": "none"},
    {"id": 1, "channel": 36, "bandwidth": 40, "power": 14, "primary-channel": "upper"},
)


def look(pid):
    """(VmRSS KiB, Private_Dirty KiB, open descriptors)."""
    return (benchlib.status_kib(pid, "VmRSS"), benchlib.private_dirty_kib(pid),
            len(os.listdir(f"/proc/{pid}/fd")))


def slope_per_hour(points):
    """Least-squares slope of (seconds, KiB) points, in KiB per hour."""
    if len(points) < 2:
        return 0.0
    mean_t = statistics.fmean(t for t, _ in points)
    mean_v = statistics.fmean(v for _, v in points)
    spread = sum((t - mean_t) ** 2 for t, _ in points)
    if spread == 0:
        return 0.0
    return 3600.0 * sum((t - mean_t) * (v - mean_v) for t, v in points) / spread


class Soak:
    def __init__(self, rig):
        self.rig = rig
        self.service = rig.service
        self.started = time.monotonic()
        self.samples = []  # (seconds, rss, private dirty, descriptors)
        self.settled = []  # the same, taken before each cycle
        self.cycles = 0
        self.restarts = 0
        self.failures = []
        self.scan_times = []

    def elapsed(self):
        return time.monotonic() - self.started

    def sample(self, into):
        into.append((self.elapsed(),) + look(self.rig.pid))

    def cycle(self):
        """A scan of the next kind, then the next plan applied to wlan1."""
        ap = self.rig.ap
        kind = self.cycles % 2
        n = ap.count("rrm-response") + 1
        asked = time.monotonic()
        self.service.send_rrm_update(delay=0, driver_scan=kind, channels="1 6 11 36 40", conn=ap.conn)
        ap.wait_for("rrm-response", n=n, timeout=90)
        self.scan_times.append(time.monotonic() - asked)
        plan = PLANS[self.cycles % len(PLANS)]
        self.service.send_rrm_info(radios=[plan], conn=ap.conn)
        applied = benchlib.wait_until(
            lambda: self.rig.vdev.radio_state("wlan1").get("actual_tx_power") == plan["power"], 30)
        if not applied:
            raise AssertionError(f"power {plan['power']} not applied within 30 s")
        self.cycles += 1

    def crash_service(self):
        """The service's TCP link reset, its port closed for half a second, then orvd's new
        subscription accepted."""
        ap = self.rig.ap
        count = len(self.service.connections)
        self.service.abort(ap.conn)
        self.service.stop()
        time.sleep(0.5)
        self.service.start()
        ap.conn = self.service.wait_connection(count + 1, timeout=60)
        self.service.wait_sent("subscribe-response", 1, timeout=60, conn=ap.conn)
        ap.round_trip(60)
        self.restarts += 1

    def run(self, seconds):
        next_sample = next_cycle = 0.0
        next_restart = RESTART_S
        while self.elapsed() < seconds:
            now = self.elapsed()
            try:
                if now >= next_sample:
                    self.sample(self.samples)
                    next_sample += SAMPLE_S
                elif now >= next_restart:
                    self.crash_service()
                    next_restart += RESTART_S
                elif now >= next_cycle:
                    self.sample(self.settled)
                    self.cycle()
                    next_cycle += CYCLE_S
                else:
                    time.sleep(min(next_sample, next_cycle, next_restart) - now)
            except AssertionError as error:
                self.failures.append(f"{now:.0f} s: {error}")
                print(f"soak: {now:.0f} s: {error}", flush=True)
                if not self.rig.orvd.running():
                    break
                next_cycle = self.elapsed() + CYCLE_S
        self.sample(self.samples)


def growth(settled, warm_up, column):
    """(median of the first five settled looks after the warm-up, of the last five, slope)."""
    kept = [s for s in settled if s[0] >= warm_up]
    if len(kept) < 2:
        return None
    first = statistics.median(s[column] for s in kept[:5])
    last = statistics.median(s[column] for s in kept[-5:])
    return first, last, slope_per_hour([(s[0], s[column]) for s in kept])


def main():
    parser = benchlib.parser(__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, help="length of the run (default 60, --short 6)")
    parser.add_argument("--warm-up", type=float, help="minutes before growth is counted (default 5, --short 1)")
    parser.add_argument("--csv", help="write every 10 s sample to this file")
    args = parser.parse_args()
    benchlib.use_build(args.build)
    benchlib.skip_in_sanitizer_build("soak")
    minutes = args.minutes or (6.0 if args.short else 60.0)
    warm_up = 60.0 * (args.warm_up if args.warm_up is not None else (1.0 if args.short else 5.0))

    with tempfile.TemporaryDirectory(prefix="orvd-soak-") as work:
        rig = benchlib.Rig(work, log_level="0x07").start()
        soak = Soak(rig)
        try:
            soak.run(60.0 * minutes)
            alive = rig.orvd.running()
        finally:
            rig.close()

    if args.csv:
        with open(args.csv, "w") as out:
            out.write("seconds,vmrss_kib,private_dirty_kib,descriptors\n")
            out.writelines(f"{t:.0f},{rss},{dirty},{fds}\n" for t, rss, dirty, fds in soak.samples)

    rows = [
        Goal("run", f"{soak.elapsed() / 60:.1f} min, {soak.cycles} cycles, {soak.restarts} service crashes"),
        Goal("orvd still running", "yes" if alive else "no", "yes", alive),
        Goal("cycles and relinks that failed", str(len(soak.failures)), "0", not soak.failures),
    ]
    if soak.scan_times:
        rows.append(Goal("scan asked -> rrm-response",
                         f"median {statistics.median(soak.scan_times):.1f} s, longest {max(soak.scan_times):.1f} s"))
    dirty = growth(soak.settled, warm_up, 2)
    rss = growth(soak.settled, warm_up, 1)
    fds = growth(soak.settled, warm_up, 3)
    if dirty is None:
        rows.append(Goal("growth after the warm-up", "too few looks", "measured", False))
    else:
        rows += [
            Goal("private dirty after warm-up -> end", f"{dirty[0]:.0f} -> {dirty[1]:.0f} KiB",
                 f"+<= {GROWTH_GOAL_KIB} KiB", dirty[1] - dirty[0] <= GROWTH_GOAL_KIB),
            Goal("private dirty slope", f"{dirty[2]:+.0f} KiB/h", f"< {SLOPE_GOAL_KIB_H} KiB/h",
                 dirty[2] < SLOPE_GOAL_KIB_H),
            Goal("VmRSS after warm-up -> end", f"{rss[0]:.0f} -> {rss[1]:.0f} KiB ({rss[2]:+.0f} KiB/h)"),
            Goal("open descriptors after warm-up -> end", f"{fds[0]:.0f} -> {fds[1]:.0f}", "equal",
                 fds[0] == fds[1]),
        ]
    benchlib.print_table(f"soak, {minutes:.0f} minutes", rows)
    for failure in soak.failures:
        print(f"  failure at {failure}")
    return benchlib.finish(rows)


if __name__ == "__main__":
    sys.exit(main())
