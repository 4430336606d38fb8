"""What the person sees: lines with the time since the start and who they are about."""
from __future__ import annotations

import datetime
import os
import sys
import time

INDENT = " " * 15  # continuation lines start under the text of the first line


class Display:
    """Lines with the time since the start and who they are about; several lines of one event
    stay together. Events of one look are sorted by time."""

    def __init__(self, started: float, started_wall: float, out=sys.stdout):
        self.started = started  # time.monotonic() at the start
        self.started_wall = started_wall  # time.time() at the same moment
        self.out = out
        self.pending = []
        self.order = 0

    def add(self, when: float, who: str, text: str):
        self.order += 1
        self.pending.append((when, self.order, who, text))

    def now(self, who: str, text: str):
        self.add(time.monotonic(), who, text)
        self.flush()

    def at_wall_time(self, stamp) -> float:
        """The monotonic time of an ISO 8601 wall-clock stamp (now when it is none)."""
        try:
            wall = datetime.datetime.fromisoformat(str(stamp).replace("Z", "+00:00")).timestamp()
        except ValueError:
            return time.monotonic()
        return self.started + (wall - self.started_wall)

    def flush(self):
        self.pending.sort(key=lambda e: (e[0], e[1]))
        text = ""
        for when, _, who, event in self.pending:
            first, *rest = event.split("\n")
            stamp = f"{max(0.0, when - self.started):7.1f}s"
            text += "\n".join([f"{stamp} {who:<5} {first}"] + [INDENT + line for line in rest]) + "\n"
        self.pending.clear()
        try:
            self.out.write(text)
            self.out.flush()
        except (BrokenPipeError, OSError):
            # Nobody reads any more (a pager quit): the lab still stops and cleans up.
            self.out = open(os.devnull, "w")
