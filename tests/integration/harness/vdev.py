"""orvd-vdev, the device side of the virtual access point, run as a real process by the tests."""
import itertools
import json
import os
import pathlib
import queue
import signal
import subprocess
import threading
import time

from .programs import launch, program

_runs = itertools.count()

DEFAULT_SCENARIO = pathlib.Path(__file__).resolve().parents[3] / "sim" / "vdev" / "scenarios" / "default.json"


class Vdev:
    """orvd-vdev on a device root of its own; its standard error goes to a file next to the root."""

    def __init__(self, root, scenario=DEFAULT_SCENARIO):
        self.root = pathlib.Path(root)
        self.scenario = pathlib.Path(scenario)
        self.log_path = self.root.parent / f"{self.root.name}-vdev-{next(_runs)}.log"
        self.proc = None
        self.lines = queue.Queue()

    def start(self, expect_ready=True, timeout=10):
        self._log = open(self.log_path, "wb")
        argv, env = launch(
            [program("orvd-vdev"), "--root", str(self.root), "--scenario", str(self.scenario)]
        )
        self.proc = subprocess.Popen(
            argv,
            env=env,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=self._log,
        )
        threading.Thread(target=self._read_stdout, daemon=True).start()
        if expect_ready:
            self.wait_line("orvd-vdev: ready", timeout)
        return self

    def _read_stdout(self):
        for raw in self.proc.stdout:
            self.lines.put(raw.decode(errors="replace").rstrip("\n"))

    def wait_line(self, expected, timeout=10):
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            assert remaining > 0, f"{expected!r} not printed within {timeout}s:\n{self.stderr()}"
            try:
                line = self.lines.get(timeout=min(remaining, 0.1))
            except queue.Empty:
                assert self.proc.poll() is None, f"orvd-vdev ended with {self.proc.returncode}:\n{self.stderr()}"
                continue
            if line == expected:
                return

    def stderr(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    # -- what it wrote ------------------------------------------------------------------------
    def path(self, relative):
        return self.root / relative.lstrip("/")

    def read(self, relative):
        return self.path(relative).read_text()

    def radio_state(self, radio):
        return json.loads(self.read(f"sim/vrtl/{radio}.json"))

    def requests(self):
        log = self.path("sim/vdev/requests.log")
        return [json.loads(line) for line in log.read_text().splitlines()] if log.exists() else []

    # -- the control interface ----------------------------------------------------------------
    def ctl(self, *words):
        argv, env = launch([program("orvd-vdev"), "--root", str(self.root), "ctl", *words])
        return subprocess.run(
            argv,
            env=env,
            capture_output=True,
            timeout=10,
            stdin=subprocess.DEVNULL,
        )

    def state(self):
        result = self.ctl("state")
        assert result.returncode == 0, result.stderr.decode()
        return json.loads(result.stdout)

    # -- processes ----------------------------------------------------------------------------
    def children(self):
        """Pids of the processes whose parent is the simulator (its two bus relays)."""
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            try:
                stat = (entry / "stat").read_text()
            except OSError:
                continue
            # The second field, the command, is in parentheses and may hold spaces.
            fields = stat[stat.rindex(")") + 2 :].split()
            if int(fields[1]) == self.proc.pid:
                found.append(int(entry.name))
        return sorted(found)

    def terminate(self, sig=signal.SIGTERM, timeout=10):
        self.proc.send_signal(sig)
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise AssertionError(f"orvd-vdev did not end within {timeout}s of {sig!r}:\n{self.stderr()}")

    def wait(self, timeout=10):
        return self.proc.wait(timeout)

    def kill(self):
        if self.proc is not None and self.proc.poll() is None:
            children = self.children()
            self.proc.kill()
            self.proc.wait()
            for pid in children:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        if getattr(self, "_log", None):
            self._log.close()


def ask(peer, request, timeout=5):
    """Sends one request through an orvd-bus peer and returns the parsed reply to it."""
    expected = request.get("command", "error") + "-response"
    peer.send(json.dumps(request, separators=(",", ":")).encode())
    reply = peer.receive_until(lambda m: json.loads(m).get("command") == expected, timeout=timeout)
    return json.loads(reply)


def process_gone(pid, timeout=5):
    """True once the pid no longer names a live process (zombies count as gone)."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
        except OSError:
            return True
        if stat[stat.rindex(")") + 2] == "Z":
            return True
        time.sleep(0.02)
    return False
