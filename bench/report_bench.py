#!/usr/bin/python3
"""The largest rrm-response: delivery time after the fifth scan pass and orvd's memory.

A scenario made at run time from sim/vdev/scenarios/default.json with N neighbours per radio,
spread over the channels the service asks to scan, is played by orvd-vdev; the reference
service subscribes orvd and asks for a standard scan (five passes). Measured: the time from the
fifth pass (orvd's fifth "scan_finished" line) to the last byte of the rrm-response at the
service; orvd's private dirty memory (sampled every 5 ms) and VmHWM while it builds and sends,
and its private dirty memory afterwards against the steady state before the scan.

Usage: bench/report_bench.py [--build DIR] [--short] [--per-radio N ...]
  full form: 4,680 neighbours per radio (the most the driver reports, about 5 MB) and 1,000
             (about 1 MB), scanning channels 1 6 11 36 40 44 48
  --short:   4,680 only, scanning channels 6 36 (one-second passes); skips in a sanitizer build
Exit status 1 when a goal is missed, 77 when skipped.
"""
import json
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import benchlib  # noqa: E402
from benchlib import KIB, Goal  # noqa: E402

LARGEST = 4680  # scan records one vendor command block holds per radio
PASSES = 5
FULL_CHANNELS = ([1, 6, 11], [36, 40, 44, 48])
SHORT_CHANNELS = ([6], [36])


def goal_seconds(per_radio):
    """Delivery goals: the largest report within 2 s, one of about 1 MB within 0.5 s; sizes in
    between are held to the line through those two points."""
    if per_radio >= LARGEST:
        return 2.0
    if per_radio <= 1000:
        return 0.5
    return 0.5 + 1.5 * (per_radio - 1000) / (LARGEST - 1000)


# -- the scenario -------------------------------------------------------------------------------


def neighbour(radio_index, i, channel, band):
    """The i-th neighbour of a radio: a unique locally administered BSSID, a signal between -40
    and -94 dBm, a mix of 20, 40 and (on 5 GHz) 80 MHz neighbours."""
    entry = {
        "bssid": f"02:b0:{radio_index:02x}:{(i >> 16) & 0xFF:02x}:{(i >> 8) & 0xFF:02x}:{i & 0xFF:02x}",
        "ssid": f"Dense-{radio_index}-{i:04d}",
        "channel": channel,
        "bandwidth": 20,
        "tx-power": 14 + i % 10,
    }
    if band == 2 and i % 4 == 3 and channel <= 9:
        entry.update({"bandwidth": 40, "control-sideband": "lower"})
    elif band == 5 and i % 3 == 1:
        entry["bandwidth"] = 80
    elif band == 5 and i % 3 == 2:
        entry.update({"bandwidth": 40, "control-sideband": "lower" if channel in (36, 44) else "upper"})
    return entry


def write_scenario(directory, per_radio, channels):
    """default.json with its neighbours replaced by `per_radio` per radio on the given channels
    (2.4 GHz list, 5 GHz list). Returns (path, expected BSSIDs per radio in report order)."""
    from harness.vdev import DEFAULT_SCENARIO

    document = json.loads(DEFAULT_SCENARIO.read_text())
    neighbours = []
    expected = {}
    for index, radio in enumerate(document["radios"]):
        band = radio["band"]
        chosen = channels[0] if band == 2 else channels[1]
        assert all(c in radio["available-channels"] for c in chosen), (radio["name"], chosen)
        heard = []
        for i in range(per_radio):
            entry = neighbour(index, i, chosen[i % len(chosen)], band)
            entry["rssi"] = {radio["name"]: -40 - (i * 7) % 55}
            heard.append(entry)
        neighbours += heard
        expected[radio["name"]] = [n["bssid"] for n in heard]
    document["neighbours"] = neighbours
    path = pathlib.Path(directory) / f"dense-{per_radio}.json"
    path.write_text(json.dumps(document))
    return path, expected


def report_problems(message, expected):
    """What is wrong with a received rrm-response: five passes, each with every neighbour of
    wlan0 then of wlan1, in the scenario's order, each entry with its six members."""
    problems = []
    passes = message.get("rf-environment") if isinstance(message, dict) else None
    if not isinstance(passes, list):
        return ["no rf-environment"]
    if len(passes) != PASSES:
        problems.append(f"{len(passes)} passes, expected {PASSES}")
    wanted = expected["wlan0"] + expected["wlan1"]
    keys = ["bssid", "rssi", "channel", "tx-power", "primary-channel", "bandwidth"]
    for number, entries in enumerate(passes, 1):
        got = [e.get("bssid") for e in entries]
        if got != wanted:
            problems.append(f"pass {number}: {len(got)} entries, expected {len(wanted)} in scenario order")
        odd = [e for e in entries if list(e) != keys]
        if odd:
            problems.append(f"pass {number}: {len(odd)} entries with other members, e.g. {odd[0]}")
    return problems


# -- one measurement ----------------------------------------------------------------------------


def steady_private_kib(pid, samples=5):
    values = []
    for _ in range(samples):
        values.append(benchlib.private_dirty_kib(pid))
        time.sleep(0.1)
    return sorted(values)[len(values) // 2]


def measure(per_radio, channels, cap, log_level="0x07"):
    """One report of `per_radio` neighbours per radio. Returns a dict of figures; "seconds" is
    None when the report did not arrive within `cap` seconds of the fifth pass."""
    from harness.rrm import log_times, wall_time

    with tempfile.TemporaryDirectory(prefix="orvd-report-bench-") as work:
        scenario, expected = write_scenario(work, per_radio, channels)
        rig = benchlib.Rig(work, scenario, log_level=log_level)
        try:
            rig.start(timeout=60)
            ap, pid = rig.ap, rig.pid
            time.sleep(1.0)
            steady = steady_private_kib(pid)
            benchlib.reset_peak(pid)
            sampler = benchlib.MemorySampler(pid)
            connections = len(rig.service.connections)
            text = " ".join(str(c) for c in channels[0] + channels[1])
            ap.service.send_rrm_update(delay=0, driver_scan=0, channels=text, conn=ap.conn)

            # The fifth pass: orvd's fifth "scan_finished" line. A pass lasts what the driver
            # reports for the channels (seconds, rounded up by the one-second timers).
            pass_limit = PASSES * (len(max(channels, key=len)) * 7 // 10 + 3) + 20
            ap.orvd.wait_log("scan_finished$", count=PASSES, timeout=pass_limit)
            fifth_wall = log_times(ap.orvd, "scan_finished$")[PASSES - 1]
            fifth = fifth_wall - (time.time() - time.monotonic())

            received = None
            try:
                received = ap.wait_for("rrm-response", timeout=max(0.1, fifth + cap - time.monotonic()))
            except AssertionError:
                pass
            seconds = None
            if received is not None and wall_time(received.time) - fifth_wall <= cap:
                seconds = wall_time(received.time) - fifth_wall
            ended = time.monotonic()
            time.sleep(2.0)  # what orvd keeps once the report is gone
            after = steady_private_kib(pid)
            sampler.stop()
            peak = sampler.peak_private_kib()
            hwm = benchlib.status_kib(pid, "VmHWM")

            result = {
                "per_radio": per_radio,
                "cap": cap,
                "seconds": seconds,
                "size": len(received.text.encode()) if received is not None else None,
                "problems": report_problems(received.message, expected) if received is not None else None,
                "steady_kib": steady,
                "peak_kib": peak,
                "hwm_kib": hwm,
                "after_kib": after,
                "links_dropped": len(rig.service.connections) - connections,
                "waited": ended - fifth,
            }
            return result
        finally:
            rig.close()


def estimated_size(per_radio):
    """The report's size in bytes when it did not arrive: about 107 bytes an entry (json-c's
    spacing), five passes, both radios, and 2 KiB of envelope and radios."""
    return PASSES * 2 * per_radio * 107 + 2048


def goals(result):
    per_radio = result["per_radio"]
    label = f"{per_radio}/radio"
    size = result["size"] or estimated_size(per_radio)
    size_note = benchlib.size_text(size) + ("" if result["size"] else " (estimated: not received)")
    goal = goal_seconds(per_radio)
    if result["seconds"] is None:
        figure = f"not within {result['cap']:.0f} s"
        if result["links_dropped"]:
            figure += f" (link dropped {result['links_dropped']}x)"
    else:
        figure = benchlib.seconds_text(result["seconds"])
    rows = [
        Goal(f"{label}: report size", size_note),
        Goal(f"{label}: 5th pass -> last byte", figure, f"<= {benchlib.seconds_text(goal)}",
             result["seconds"] is not None and result["seconds"] <= goal),
    ]
    problems = result["problems"]
    rows.append(Goal(f"{label}: complete and valid",
                     "not received" if problems is None else ("yes" if not problems else "; ".join(problems)[:120]),
                     f"{PASSES} x {2 * per_radio} entries", problems == []))
    # The emulated driver runs inside orvd's process and parses its radio state (the whole
    # neighbour list) on every request; what that leaves in the heap is part of the steady
    # state measured before the scan, so the goal holds orvd's growth above it.
    peak_goal = 3 * size / KIB
    growth = result["peak_kib"] - result["steady_kib"]
    rows.append(Goal(f"{label}: peak private dirty", f"{result['peak_kib'] / KIB:.1f} MiB"))
    rows.append(Goal(f"{label}: peak growth over before", f"{growth / KIB:.1f} MiB",
                     f"<= {peak_goal / KIB:.1f} MiB (3 x report)", growth <= peak_goal))
    rows.append(Goal(f"{label}: peak VmHWM (RSS)", f"{result['hwm_kib'] / KIB:.1f} MiB"))
    rows.append(Goal(f"{label}: private dirty before", f"{result['steady_kib'] / KIB:.2f} MiB"))
    rows.append(Goal(f"{label}: private dirty after", f"{result['after_kib'] / KIB:.2f} MiB",
                     f"<= {(result['steady_kib'] + 512) / KIB:.2f} MiB (before + 512 KiB)",
                     result["after_kib"] <= result["steady_kib"] + 512))
    return rows


def run(per_radio, channels, cap, retries=0):
    """measure(), once more when only the time was missed by less than the cap (a loaded
    machine), keeping the better run."""
    result = measure(per_radio, channels, cap)
    goal = goal_seconds(per_radio)
    while retries > 0 and result["seconds"] is not None and result["seconds"] > goal:
        retries -= 1
        print(f"  {per_radio}/radio: {result['seconds']:.2f} s against {goal} s; measuring once more")
        again = measure(per_radio, channels, cap)
        if again["seconds"] is not None and again["seconds"] < result["seconds"]:
            result = again
    return result


def main():
    parser = benchlib.parser(__doc__.splitlines()[0])
    parser.add_argument("--per-radio", type=int, nargs="*", help="neighbours per radio (default 4680 1000)")
    parser.add_argument("--cap", type=float, help="seconds after the 5th pass to wait for the report "
                        "(default 75, --short 3 x the goal)")
    args = parser.parse_args()
    benchlib.use_build(args.build)
    if args.short:
        benchlib.skip_in_sanitizer_build("report_bench --short")
    sizes = args.per_radio or ([LARGEST] if args.short else [LARGEST, 1000])
    channels = SHORT_CHANNELS if args.short else FULL_CHANNELS

    rows = []
    for per_radio in sizes:
        cap = args.cap or (3 * goal_seconds(per_radio) if args.short else 75.0)
        started = time.monotonic()
        result = run(per_radio, channels, cap, retries=1 if args.short else 0)
        print(f"  {per_radio}/radio measured in {time.monotonic() - started:.0f} s")
        rows += goals(result)
    benchlib.print_table("rrm-response after a standard scan (5 passes)", rows)
    return benchlib.finish(rows)


if __name__ == "__main__":
    sys.exit(main())
