#!/usr/bin/python3
"""The lab as a site: how far the reference service plans a generated office down, how soon
the plan stands still, and what each access point costs.

Runs scripts/lab --aps N --duration S against the build (N access points on a grid 15 m apart,
every radio starting on the same channel at full power) and reads what the lab prints: the
site's co-channel interference before planning and after each cycle, the cycle from which the
plan stood still, and the CPU and memory of each access point's orvd and orvd-vdev.

Usage: bench/site_bench.py [--build DIR] [--short] [--aps N] [--seconds S]
  full form 20 access points for 240 s, --short 6 for 120 s
Exit status 1 when a goal is missed: at least 10 dB less co-channel interference than the
starting plan, the plan stable after at most 3 cycles (confirmed by a later cycle).
"""
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import benchlib  # noqa: E402
from benchlib import Goal  # noqa: E402

LAB = benchlib.REPOSITORY / "scripts" / "lab"
GAIN_GOAL_DB = 10.0
STABLE_GOAL_CYCLES = 3

BEFORE = re.compile(r"site before planning: co-channel interference (.*), all (-[\d.]+) dBm")
CYCLE = re.compile(r"site after cycle (\d+): .*, all (-[\d.]+) dBm \(([-+][\d.]+) dB from the start\); (\d+) radios? changed")
STABLE = re.compile(r"site summary: (\d+) cycles?; plan (stable after cycle (\d+)|not \(yet\) stable)")
OVERALL = re.compile(r"co-channel interference (2\.4 GHz|5 GHz|all): (-[\d.]+) dBm -> (-[\d.]+) dBm \(([-+][\d.]+) dB\)")
USAGE = re.compile(r"(orvd|orvd-vdev) per access point \(\d+\): CPU ([\d.]+) s mean, ([\d.]+) s most \(([\d.]+) % / "
                   r"([\d.]+) % of \d+ s\); memory RSS ([\d.]+) MiB mean, ([\d.]+) most, PSS ([\d.]+) MiB mean")
LAB_ITSELF = re.compile(r"the lab \(service, site, display\) \(1\): CPU ([\d.]+) s .*memory RSS ([\d.]+) MiB")


def main():
    parser = benchlib.parser(__doc__.splitlines()[0])
    parser.add_argument("--aps", type=int, help="access points (default 20, --short 6)")
    parser.add_argument("--seconds", type=float, help="how long the lab runs (default 240, --short 120)")
    args = parser.parse_args()
    aps = args.aps or (6 if args.short else 20)
    seconds = args.seconds or (120.0 if args.short else 240.0)
    result = subprocess.run(
        [str(LAB), "--no-build", "--build-dir", args.build, "--aps", str(aps), "--duration", f"{seconds:g}"],
        capture_output=True, text=True, timeout=seconds + 180, stdin=subprocess.DEVNULL,
    )
    output = result.stdout
    if result.returncode != 0:
        print(output[-4000:] + result.stderr)
        print(f"site_bench: scripts/lab ended with status {result.returncode}")
        return 1

    before = BEFORE.search(output)
    cycles = CYCLE.findall(output)
    stable = STABLE.search(output)
    overall = {m[0]: m for m in OVERALL.findall(output)}
    if not (before and cycles and stable and "all" in overall):
        print(output[-4000:])
        print("site_bench: the lab's site lines are not all there")
        return 1
    gain = -float(overall["all"][3])
    stable_after = int(stable.group(3)) if stable.group(3) else None
    rows = [
        Goal("co-channel interference before", f"{before.group(2)} dBm ({before.group(1)})"),
    ]
    for number, total, change, changed in cycles:
        rows.append(Goal(f"after cycle {number}", f"{total} dBm ({change} dB), {changed} radios changed"))
    for band in ("2.4 GHz", "5 GHz"):
        if band in overall:
            rows.append(Goal(f"{band} before -> after", f"{overall[band][1]} -> {overall[band][2]} dBm "
                             f"({overall[band][3]} dB)"))
    rows += [
        Goal("less co-channel interference, all bands", f"{gain:.1f} dB", f">= {GAIN_GOAL_DB:g} dB",
             gain >= GAIN_GOAL_DB),
        Goal("plan stable after", f"cycle {stable_after} of {stable.group(1)}" if stable_after else
             f"not stable in {stable.group(1)} cycles", f"<= {STABLE_GOAL_CYCLES} cycles",
             stable_after is not None and stable_after <= STABLE_GOAL_CYCLES),
    ]
    for name, cpu, cpu_most, share, share_most, rss, rss_most, pss in USAGE.findall(output):
        rows.append(Goal(f"{name} per access point, CPU", f"{cpu} s mean, {cpu_most} s most ({share} % / "
                         f"{share_most} % of a core)"))
        rows.append(Goal(f"{name} per access point, memory", f"RSS {rss} MiB mean, {rss_most} most; PSS {pss} MiB"))
    itself = LAB_ITSELF.search(output)
    if itself:
        rows.append(Goal("the lab itself (service, site keeper)", f"CPU {itself.group(1)} s, RSS {itself.group(2)} MiB"))
    benchlib.print_table(f"site: an office of {aps} for {seconds:g} s", rows)
    return benchlib.finish(rows)


if __name__ == "__main__":
    sys.exit(main())
