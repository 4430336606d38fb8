"""What the programs of each access point cost: CPU time and memory, read from /proc while
they still run (under an emulator these are the emulator's figures)."""
from __future__ import annotations

import os
import statistics

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid: int) -> float | None:
    try:
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
    except (OSError, IndexError):
        return None
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime, stime


def memory_kib(pid: int) -> tuple:
    """(resident, proportional share) in KiB; None for what cannot be read."""
    found = {}
    for name, keys in ((f"/proc/{pid}/status", ("VmRSS:",)), (f"/proc/{pid}/smaps_rollup", ("Pss:",))):
        try:
            with open(name) as source:
                for line in source:
                    word = line.split(":", 1)[0] + ":"
                    if word in keys:
                        found[word] = int(line.split()[1])
        except (OSError, ValueError, IndexError):
            pass
    return found.get("VmRSS:"), found.get("Pss:")


def usage_lines(programs, elapsed: float) -> list:
    """One line per kind of program: mean and largest CPU share and memory over the access
    points. `programs` are (kind, pid) pairs."""
    kinds = {}
    for kind, pid in programs:
        cpu = cpu_seconds(pid)
        rss, pss = memory_kib(pid)
        if cpu is not None and rss is not None:
            kinds.setdefault(kind, []).append((cpu, rss, pss or 0))
    lines = []
    for kind, rows in kinds.items():
        cpu = [row[0] for row in rows]
        rss = [row[1] for row in rows]
        pss = [row[2] for row in rows]
        share = [100.0 * c / elapsed for c in cpu] if elapsed > 0 else [0.0]
        lines.append(
            f"  {kind}{' per access point' if len(rows) > 1 else ''} ({len(rows)}): CPU {statistics.mean(cpu):.2f} s mean, {max(cpu):.2f} s most "
            f"({statistics.mean(share):.2f} % / {max(share):.2f} % of {elapsed:.0f} s); memory RSS "
            f"{statistics.mean(rss) / 1024:.1f} MiB mean, {max(rss) / 1024:.1f} most, PSS {statistics.mean(pss) / 1024:.1f} MiB mean"
        )
    return lines
