"""The programs the lab runs: each a child process in a session of its own, its output read
line by line, stopped with SIGTERM (SIGKILL when it does not end in time)."""
from __future__ import annotations

import collections
import os
import pathlib
import queue
import shlex
import signal
import subprocess
import threading
import time

STOP_TIMEOUT = 10  # seconds each program gets to end after SIGTERM


class LabError(Exception):
    """Something that ends the lab with status 1 and a message."""


def sanitizer_runtime(binary: pathlib.Path) -> str:
    """The sanitizer runtime a build of orvd is linked with ("" for a normal build): it must
    come before the emulated driver in LD_PRELOAD."""
    try:
        listing = subprocess.run(["ldd", str(binary)], capture_output=True, text=True, timeout=10).stdout
    except (OSError, subprocess.SubprocessError):
        return ""
    for line in listing.splitlines():
        name = line.strip().split(" ")[0]
        if name.startswith(("libasan.so", "libtsan.so")) and "=>" in line:
            return line.split("=>")[1].split("(")[0].strip()
    return ""


def through_emulator(argv, env):
    """(argv, env) for a program of a target build, which runs on the target CPU through the
    emulator that $ORVD_TEST_EMULATOR names ("qemu-mips -L SYSROOT"); LD_PRELOAD is for the
    target's loader, not the emulator's, so it goes through qemu's -E. Unchanged otherwise."""
    prefix = shlex.split(os.environ.get("ORVD_TEST_EMULATOR", ""))
    if not prefix:
        return argv, env
    env = dict(os.environ if env is None else env)
    if "LD_PRELOAD" in env:
        prefix += ["-E", f"LD_PRELOAD={env.pop('LD_PRELOAD')}"]
    return prefix + list(argv), env


def exit_text(status) -> str:
    if status is None:
        return f"killed, it did not end within {STOP_TIMEOUT} s of SIGTERM"
    if status < 0:
        try:
            return f"killed by {signal.Signals(-status).name}"
        except ValueError:
            return f"killed by signal {-status}"
    return f"status {status}"


def last_lines(prog, lines=15) -> str:
    """The end of what a program wrote, to follow a message about it ("" when nothing)."""
    if prog is None or not prog.tail:
        return ""
    return "; its last lines:\n" + "\n".join(f"  | {line}" for line in list(prog.tail)[-lines:])


def _die_with_parent():
    """In the child, before exec: end with SIGTERM should the lab itself be killed, so that no
    program outlives it (the lab's own stop is still the orderly way)."""
    try:
        import ctypes

        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
    except Exception:
        pass


class Program:
    """A child process in a session of its own (so that Ctrl-C at the terminal reaches the lab
    only, and the lab stops the programs in order), its output read line by line."""

    def __init__(self, label, argv, env=None, lines=None, keep=40):
        self.label = label  # "ap1:orvd"
        self.name = label.replace(":", " ")
        self.argv = [str(a) for a in argv]
        self.env = env
        self.lines = lines  # queue of (monotonic time, label, line) for --trace, or None
        self.tail = collections.deque(maxlen=keep)
        self.stdout_lines = queue.Queue()
        self.proc = None
        self.readers = []
        self.waiting = True  # standard output lines are kept for wait_line until it found its line

    def start(self):
        argv, env = through_emulator(self.argv, self.env)
        self.proc = subprocess.Popen(
            argv,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=env,
            start_new_session=True,
            preexec_fn=_die_with_parent,
        )
        for stream, is_stdout in ((self.proc.stdout, True), (self.proc.stderr, False)):
            reader = threading.Thread(target=self._read, args=(stream, is_stdout), daemon=True)
            reader.start()
            self.readers.append(reader)
        return self

    def _read(self, stream, is_stdout):
        for raw in stream:
            line = raw.decode(errors="replace").rstrip("\n")
            self.tail.append(line)
            if is_stdout and self.waiting:
                self.stdout_lines.put(line)
            if self.lines is not None:
                self.lines.put((time.monotonic(), self.label, line))
        stream.close()

    def wait_line(self, expected, timeout):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                if self.stdout_lines.get(timeout=0.1) == expected:
                    self.waiting = False
                    return True
            except queue.Empty:
                if self.proc.poll() is not None:
                    return False
        return False

    @property
    def pid(self):
        return self.proc.pid if self.proc else None

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def stop(self):
        """SIGTERM and wait; SIGKILL (the whole session) when it does not end in time.
        Returns the exit status (None when it had to be killed)."""
        if self.proc is None:
            return 0
        status = self.proc.poll()
        if status is None:
            try:
                self.proc.send_signal(signal.SIGTERM)
                status = self.proc.wait(STOP_TIMEOUT)
            except subprocess.TimeoutExpired:
                status = None
        if status is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait()
        for reader in self.readers:
            reader.join(timeout=2)
        return status

    def kill_session(self):
        """Whatever is left of the program's session (orvd-vdev's bus relays end with it on
        their own; this is for the case where it was killed)."""
        if self.proc is None:
            return
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
