#!/usr/bin/python3
"""Samples a process's memory until SIGTERM, then prints every sample.

Usage: procwatch.py PID INTERVAL-SECONDS
Output, one line per sample: monotonic time, Private_Dirty (KiB, /proc/PID/smaps_rollup),
VmHWM (KiB, /proc/PID/status). Samples are kept in memory and printed at the end, so that
printing does not compete with the process watched while it works.
"""
import signal
import sys
import time


def read_field(path, name):
    with open(path) as source:
        for line in source:
            if line.startswith(name):
                return int(line.split()[1])
    return -1


def main():
    pid, interval = int(sys.argv[1]), float(sys.argv[2])
    stopped = []
    signal.signal(signal.SIGTERM, lambda *_: stopped.append(True))
    samples = []
    while not stopped:
        try:
            dirty = read_field(f"/proc/{pid}/smaps_rollup", "Private_Dirty:")
            peak = read_field(f"/proc/{pid}/status", "VmHWM:")
        except OSError:
            break  # the process ended
        samples.append(f"{time.monotonic():.4f} {dirty} {peak}")
        time.sleep(interval)
    print("\n".join(samples))


if __name__ == "__main__":
    main()
