#!/usr/bin/python3
"""The driver's snapshot (set_vapcontext) on the largest access point, with configd answering,
silent and absent.

The real driver runs in build/tests/vrtl_preload_probe with build/libvrtl.so preloaded, against
build/orvd-vdev playing sim/vdev/scenarios/full.json (two radios, seven VAPs each) in a
temporary device root. Each case takes the snapshot --runs times in one process.
Usage: bench/snapshot_bench.py [--build DIR] [--runs N] [--scenario FILE]
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "integration"))


def sanitizer_runtime(program):
    """The sanitizer runtime a program is linked with, which must come first in LD_PRELOAD."""
    listing = subprocess.run(["ldd", program], capture_output=True, text=True).stdout
    for line in listing.splitlines():
        name = line.strip().split(" ")[0]
        if name.startswith(("libasan.so", "libtsan.so")) and "=>" in line:
            return line.split("=>")[1].split("(")[0].strip()
    return ""


def take_snapshots(build, root, runs):
    probe = str(pathlib.Path(build) / "tests" / "vrtl_preload_probe")
    preload = [p for p in (sanitizer_runtime(probe), str(pathlib.Path(build) / "libvrtl.so")) if p]
    env = dict(os.environ, ORVD_ROOT=str(root), LD_PRELOAD=":".join(preload))
    result = subprocess.run(
        [probe, "--time-snapshot", str(runs)], env=env, capture_output=True, text=True, timeout=60 + 20 * runs
    )
    assert result.returncode == 0, result.stderr[-2000:]
    return [float(line.split()[1]) for line in result.stdout.splitlines() if line.startswith("snapshot ")]


def configd_reads(vdev):
    return sum(1 for line in vdev.requests() if line["as"] == "configd" and line["request"].get("command") == "get")


def report(case, seconds, reads):
    ms = [s * 1000 for s in seconds]
    per_read = f"{statistics.median(ms) / reads:.2f} ms per read" if reads else "-"
    print(
        f"{case:10} runs={len(ms)} reads/snapshot={reads:<3} min={min(ms):8.1f} ms "
        f"median={statistics.median(ms):8.1f} ms max={max(ms):8.1f} ms  ({per_read})"
    )


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=str(HERE.parent / "build"))
    parser.add_argument("--runs", type=int, default=5, help="snapshots per case")
    parser.add_argument("--scenario", default=str(HERE.parent / "sim" / "vdev" / "scenarios" / "full.json"))
    args = parser.parse_args()
    os.environ["ORVD_BUILD_DIR"] = args.build

    from harness.vdev import Vdev

    with tempfile.TemporaryDirectory() as work:
        root = pathlib.Path(work) / "root"
        vdev = Vdev(root, args.scenario).start()
        try:
            seconds = take_snapshots(args.build, root, args.runs)
            report("answering", seconds, configd_reads(vdev) // args.runs)

            assert vdev.ctl("configd", "mute").returncode == 0
            before = configd_reads(vdev)
            seconds = take_snapshots(args.build, root, args.runs)
            silent_reads = (configd_reads(vdev) - before) // args.runs
            report("silent", seconds, silent_reads)

            # The simulator's end takes configd off the bus; the device tree stays.
            assert vdev.ctl("quit").returncode == 0
            assert vdev.wait() == 0
            seconds = take_snapshots(args.build, root, args.runs)
            report("absent", seconds, silent_reads)  # the same reads, each failing at its send
        finally:
            vdev.kill()


if __name__ == "__main__":
    main()
