"""The lab's options, and main(): the lab run with them until it stops."""
from __future__ import annotations

import argparse
import signal

from . import TOP
from sim.site.model import MAX_ACCESS_POINTS

from .runner import Lab

DEFAULT_SCENARIO = TOP / "sim" / "vdev" / "scenarios" / "default.json"
# Few channels make short scan passes (orvd gives a pass channels x 7 / 10 + 1 whole seconds
# on the radio with the most): 3 s per pass, five passes per scan. The emulated driver
# reports every neighbour of the scenario whatever channels are scanned.
DEFAULT_CHANNELS = "1 6 11 36 40 44 48"


def arguments(argv=None):
    parser = argparse.ArgumentParser(
        prog="scripts/lab",
        description="The live lab: orvd on virtual access points, planned by the reference RRM service.",
    )
    parser.add_argument("--scenario", metavar="FILE", default=str(DEFAULT_SCENARIO),
                        help="the access point's scenario (default sim/vdev/scenarios/default.json); "
                        "further access points are derived from it")
    parser.add_argument("--aps", metavar="N", type=int, default=None,
                        help="number of access points (default 1): 2 or more make a generated office, "
                        f"N access points on a grid 15 m apart hearing each other (up to {MAX_ACCESS_POINTS})")
    parser.add_argument("--site", metavar="FILE",
                        help="a site file: access points placed on floors, walls, external neighbours "
                        "(docs/virtual-ap.md, \"Site format\")")
    parser.add_argument("--report", metavar="FILE.html",
                        help="write a self-contained page of what happened on the site: floor plans "
                        "before and after, channels heard, decisions (rewritten every cycle and at the end)")
    parser.add_argument("--duration", metavar="SECONDS", type=float, default=0,
                        help="stop after this long (default: at Ctrl-C)")
    parser.add_argument("--trace", action="store_true", help="also show orvd's and orvd-vdev's own log lines")
    parser.add_argument("--build-dir", metavar="DIR", default=str(TOP / "build"),
                        help="where the programs are (default build/)")
    parser.add_argument("--no-build", action="store_true",
                        help="use the programs as they are (scripts/lab otherwise builds them first)")
    parser.add_argument("--scan-channels", metavar="TEXT", default=DEFAULT_CHANNELS,
                        help=f'channels of each scan (default "{DEFAULT_CHANNELS}"; "all" for every channel)')
    parser.add_argument("--scan-delay", metavar="SECONDS", type=int, default=1,
                        help="how long orvd waits before it scans (default 1)")
    parser.add_argument("--interval", metavar="SECONDS", type=float, default=30,
                        help="scan and decide again this long after each decision (default 30; 0: once)")
    args = parser.parse_args(argv)
    if args.site and args.aps is not None:
        parser.error("--site places its own access points: give --site or --aps, not both")
    if args.aps is None:
        args.aps = 1
    if not 1 <= args.aps <= MAX_ACCESS_POINTS:
        parser.error(f"--aps takes 1 to {MAX_ACCESS_POINTS}")
    if args.report and not (args.site or args.aps > 1):
        parser.error("--report pictures a site: give --site FILE or --aps 2 or more")
    if args.duration < 0 or args.interval < 0 or args.scan_delay < 0:
        parser.error("--duration, --interval and --scan-delay cannot be negative")
    return args


def main(argv=None) -> int:
    args = arguments(argv)
    lab = Lab(args)
    for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, lab.request_stop)
    return lab.run()
