"""What the benchmarks share: the access point under load, goals, tables and /proc readings.

Every benchmark runs the real build/orvd (emulated driver preloaded) against orvd-vdev and the
reference RRM service (sim/controller), through the integration tests' harness, in a temporary
device root. A benchmark collects `Goal` results, prints them as one table and exits 1 when any
goal was missed (77 when it skipped itself, e.g. in a sanitizer build).
"""
import argparse
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parent
sys.path.insert(0, str(REPOSITORY / "tests" / "integration"))
if str(REPOSITORY) not in sys.path:
    sys.path.insert(0, str(REPOSITORY))

SKIPPED = 77  # ctest's SKIP_RETURN_CODE for the short forms
KIB = 1024
MIB = 1024 * 1024

# -- command line --------------------------------------------------------------------------------


def parser(description):
    """The options every benchmark takes: --build DIR and --short."""
    result = argparse.ArgumentParser(description=description)
    result.add_argument("--build", default=str(REPOSITORY / "build"), help="the build folder (default build/)")
    result.add_argument("--short", action="store_true", help="the quick form registered in ctest")
    return result


def use_build(build):
    """Points the harness at the build folder; must run before the harness is imported."""
    os.environ["ORVD_BUILD_DIR"] = str(pathlib.Path(build).resolve())


def sanitizer_build():
    """The sanitizer runtime orvd of the chosen build is linked with ("" for a normal build)."""
    from harness.programs import program, sanitizer_runtime

    return sanitizer_runtime(program("orvd"))


def skip_in_sanitizer_build(name):
    """Timing and memory goals mean nothing under a sanitizer's shadow memory and slow-down: the
    short forms skip themselves there (ctest shows them as skipped)."""
    runtime = sanitizer_build()
    if runtime:
        print(f"{name}: skipped: orvd is a sanitizer build ({pathlib.Path(runtime).name}); "
              "its times and memory are not those of the product")
        sys.exit(SKIPPED)


# -- goals and tables ----------------------------------------------------------------------------


class Goal:
    """One measured figure, its goal (None: a figure only) and whether it was met."""

    def __init__(self, what, figure, goal=None, met=None):
        self.what = what
        self.figure = figure
        self.goal = goal
        self.met = met

    @property
    def verdict(self):
        if self.met is None:
            return "-"
        return "met" if self.met else "MISSED"


def print_table(title, rows):
    """rows: Goals. One plain-text table, columns padded."""
    header = ("measure", "figure", "goal", "")
    lines = [header] + [(r.what, r.figure, r.goal or "-", r.verdict) for r in rows]
    widths = [max(len(str(line[i])) for line in lines) for i in range(4)]
    print(f"\n{title}")
    for number, line in enumerate(lines):
        print("  " + "  ".join(str(cell).ljust(width) for cell, width in zip(line, widths)).rstrip())
        if number == 0:
            print("  " + "  ".join("-" * width for width in widths))
    sys.stdout.flush()


def finish(rows):
    """Exit status: 1 when a goal was missed, else 0."""
    missed = [r.what for r in rows if r.met is False]
    if missed:
        print(f"\ngoals missed: {len(missed)} ({'; '.join(missed)})")
        return 1
    print("\nevery goal met")
    return 0


def percentile(values, fraction):
    """Nearest-rank percentile of the samples (fraction 0.5 = median)."""
    ordered = sorted(values)
    rank = max(1, int(-(-fraction * len(ordered) // 1)))  # ceil
    return ordered[min(len(ordered), rank) - 1]


def seconds_text(value):
    return "never" if value is None else (f"{value * 1000:.0f} ms" if value < 10 else f"{value:.1f} s")


def size_text(size):
    if size >= MIB:
        return f"{size / MIB:.2f} MiB"
    if size >= KIB:
        return f"{size / KIB:.0f} KiB"
    return f"{size} B"


# -- /proc readings ------------------------------------------------------------------------------


def status_kib(pid, field):
    """A "kB" field of /proc/PID/status (VmHWM, VmRSS, ...)."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise KeyError(field)


def private_dirty_kib(pid):
    """Private_Dirty of /proc/PID/smaps_rollup: the memory only this process holds, written."""
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Private_Dirty:"):
            return int(line.split()[1])
    raise KeyError("Private_Dirty")


def reset_peak(pid):
    """Starts VmHWM afresh from the current resident size (clear_refs 5)."""
    pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5")


def cpu_seconds(pid):
    """utime + stime of /proc/PID/stat, in seconds."""
    stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
    fields = stat[stat.rindex(")") + 2:].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class MemorySampler:
    """Samples a process's Private_Dirty and VmHWM every few milliseconds from a process of its
    own (bench/procwatch.py), so that the sampling takes nothing from the service's thread."""

    def __init__(self, pid, interval=0.005):
        self.pid = pid
        self.proc = subprocess.Popen(
            ["/usr/bin/python3", str(HERE / "procwatch.py"), str(pid), str(interval)],
            stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
        )
        self.samples = []  # (monotonic time, private dirty KiB, VmHWM KiB)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        output, _ = self.proc.communicate(timeout=10)
        for line in output.splitlines():
            parts = line.split()
            if len(parts) == 3:
                self.samples.append((float(parts[0]), int(parts[1]), int(parts[2])))
        return self

    def peak_private_kib(self, since=None, until=None):
        chosen = [s[1] for s in self.samples if (since is None or s[0] >= since) and (until is None or s[0] <= until)]
        return max(chosen) if chosen else None


# -- the access point under load -----------------------------------------------------------------


def quiet_large_checks():
    """The reference service checks every message against its schema on its event loop; for a
    report of thousands of entries that takes seconds and would hold up the loop (pings, the
    next message). Large reports are checked on a copy cut to three entries per pass: the same
    keys, types and order, in a few milliseconds. The benchmark counts the entries itself."""
    from sim.controller import schema_check

    if getattr(schema_check.check, "cut_for_bench", False):
        return
    whole = schema_check.check

    def check(message):
        if isinstance(message, dict) and isinstance(message.get("rf-environment"), list):
            message = dict(message, **{"rf-environment": [p[:3] for p in message["rf-environment"]]})
        if isinstance(message, dict) and isinstance(message.get("pad"), str):
            message = {k: v for k, v in message.items() if k != "pad"}
        return whole(message)

    check.cut_for_bench = True
    schema_check.check = check


class Rig:
    """orvd-vdev on a scenario, the reference service and orvd in RRM mode, in a temporary
    folder; orvd subscribed (hostapd up) when start() returns."""

    def __init__(self, workdir, scenario=None, log_level="0x07"):
        from harness.rrm import RrmService
        from harness.vdev import DEFAULT_SCENARIO

        quiet_large_checks()
        self.workdir = pathlib.Path(workdir)
        self.root = self.workdir / "root"
        self.root.mkdir(exist_ok=True)
        self.scenario = scenario or DEFAULT_SCENARIO
        self.log_level = log_level
        self.service = RrmService().start()
        self.vdev = None
        self.ap = None

    def start(self, timeout=30):
        from harness.rrm import AccessPoint, start_orvd
        from harness.vdev import Vdev

        self.vdev = Vdev(self.root, self.scenario).start(timeout=timeout)
        orvd = start_orvd(self.workdir, self.root, self.service, log_level=self.log_level)
        self.ap = AccessPoint(self.service, self.vdev, orvd)
        self.ap.subscribe(timeout=timeout)
        return self

    @property
    def orvd(self):
        return self.ap.orvd

    @property
    def pid(self):
        return self.ap.orvd.proc.pid

    def restart_orvd(self, timeout=30):
        """A fresh orvd on the same simulator and service (after one was left busy)."""
        from harness.rrm import AccessPoint, start_orvd

        self.ap.orvd.kill()
        count = len(self.service.connections)
        orvd = start_orvd(self.workdir, self.root, self.service, log_level=self.log_level)
        self.ap = AccessPoint(self.service, self.vdev, orvd)
        self.ap.conn = self.service.wait_connection(count + 1, timeout=timeout)
        self.ap.service.answer_subscribe("success")
        self.ap.wait_for("subscribe-request", 1, timeout)
        self.ap.round_trip(timeout)
        return self

    def close(self):
        if self.ap is not None:
            self.ap.orvd.kill()
        if self.vdev is not None:
            self.vdev.kill()
        self.service.shutdown()


def wait_until(predicate, timeout, step=0.01):
    """The predicate's first true value, or None after the time-out."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            return None
        time.sleep(step)


def pad_message(cmd, size):
    """A service message of about `size` bytes: the envelope and an extra "pad" member that orvd
    does not read (orvd ignores members it does not know)."""
    head = json.dumps({"version": "2.2", "service": "rrm", "cmd": cmd})[:-1] + ', "pad": "'
    tail = '"}'
    return head + "x" * max(0, size - len(head) - len(tail)) + tail
