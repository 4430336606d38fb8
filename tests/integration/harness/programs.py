"""The real programs under test: orvd and the orvd-bus peer, each in its own process."""
import os
import pathlib
import queue
import re
import shlex
import signal
import socket
import subprocess
import threading
import time

BUILD_DIR = pathlib.Path(
    os.environ.get("ORVD_BUILD_DIR", pathlib.Path(__file__).resolve().parents[3] / "build")
)

# The log masks the tests run orvd with: info and above, and everything a field engineer can
# turn on (error, warning, info, debug: libwebsockets' own lines and the dump of every queued
# message included).
INFO_LOG_LEVEL = "0x07"
DEBUG_LOG_LEVEL = "0x0F"

# Set (e.g. to 0x0F), it replaces the level every orvd of the harness runs with unless a test
# pins its own; the debug-level runs under ctest set it.
LOG_LEVEL_VARIABLE = "ORVD_TEST_LOG_LEVEL"


def default_log_level(mode_default):
    """The log mask for an orvd whose test does not pin one."""
    return os.environ.get(LOG_LEVEL_VARIABLE) or mode_default


def program(name):
    path = BUILD_DIR / name
    assert path.is_file(), f"{path} is missing: build first"
    return str(path)


# Set by a target build's ctest (e.g. "qemu-mips -L SYSROOT"): every program of the build runs
# on the target CPU through this emulator, the simulator's as much as orvd, since the bus frame
# is in host byte order on both sides of a real device.
EMULATOR_VARIABLE = "ORVD_TEST_EMULATOR"

# Variables for the target's dynamic loader: in the emulator's own environment the host's
# loader would act on them, so they reach the target program through qemu's -E instead.
_TARGET_LOADER_VARIABLES = ("LD_PRELOAD",)


def emulator():
    """The emulator's command words, or [] when the build is the host's own."""
    return shlex.split(os.environ.get(EMULATOR_VARIABLE, ""))


def emulator_sysroot():
    """The target's root the emulator loads libraries from (its -L), or None."""
    words = emulator()
    for index, word in enumerate(words[:-1]):
        if word == "-L":
            return words[index + 1]
    return os.environ.get("QEMU_LD_PREFIX")


def launch(argv, env=None, gdb_port=None):
    """(argv, env) that start a program of the build, through the emulator in a target build.
    With gdb_port, the emulator serves a debugger on that port and holds the program before its
    first instruction until one connects."""
    env = dict(os.environ if env is None else env)
    prefix = emulator()
    if not prefix:
        return list(argv), env
    for name in _TARGET_LOADER_VARIABLES:
        if name in env:
            prefix += ["-E", f"{name}={env.pop(name)}"]
    if gdb_port is not None:
        prefix += ["-g", str(gdb_port)]
    return prefix + list(argv), env


def free_port():
    """A TCP port of this machine no one listens on just now."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Orvd:
    """orvd with a configuration file and a device root of its own; its log goes to a file.

    A debuggable orvd can be looked into while it runs (harness.peek). On the host that needs
    nothing more: gdb attaches to its pid. Through the emulator the pid is the emulator's, so
    orvd runs under the emulator's gdb server instead, with a gdb of its own connected for as
    long as it runs (harness.peek.RemoteDebugger)."""

    def __init__(self, workdir, root, config_lines, environment=None, debuggable=False):
        self.workdir = pathlib.Path(workdir)
        self.root = pathlib.Path(root)
        self.conf = self.workdir / "orvd.conf"
        self.conf.write_text("".join(line + "\n" for line in config_lines))
        self.log_path = self.workdir / "orvd.log"
        self.environment = dict(environment or {})
        self.debuggable = debuggable
        self.debugger = None
        self.proc = None

    def start(self):
        gdb_port = free_port() if self.debuggable and emulator() else None
        argv, env = launch(
            [program("orvd"), "-f", str(self.conf)],
            dict(os.environ, ORVD_ROOT=str(self.root), **self.environment),
            gdb_port=gdb_port,
        )
        self._log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(
            argv,
            stdin=subprocess.DEVNULL,
            stdout=self._log,
            stderr=subprocess.STDOUT,
            env=env,
        )
        if gdb_port is not None:
            from .peek import RemoteDebugger

            try:
                self.debugger = RemoteDebugger(program("orvd"), gdb_port, emulator_sysroot(), self.proc.pid)
            except BaseException:
                self.kill()
                raise
        return self

    def log(self):
        return self.log_path.read_text(errors="replace")

    def log_lines(self, pattern):
        """Lines of the log whose text (after time, name and level) matches the pattern."""
        matcher = re.compile(pattern)
        return [line for line in self.log().splitlines() if matcher.search(line)]

    def wait_log(self, pattern, count=1, timeout=15):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            lines = self.log_lines(pattern)
            if len(lines) >= count:
                return lines
            assert self.proc.poll() is None, f"orvd ended with {self.proc.returncode}:\n{self.log()[-3000:]}"
            time.sleep(0.05)
        raise AssertionError(f"{pattern!r} x{count} not logged within {timeout}s:\n{self.log()[-3000:]}")

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def terminate(self, sig=signal.SIGTERM, timeout=10):
        """Sends the signal; returns (exit status, seconds until the process ended)."""
        started = time.monotonic()
        self.proc.send_signal(sig)
        try:
            status = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise AssertionError(f"orvd did not end within {timeout}s of {sig!r}:\n{self.log()[-3000:]}")
        return status, time.monotonic() - started

    def kill(self):
        if self.running():
            self.proc.kill()
            self.proc.wait()
        if self.debugger:
            self.debugger.close()
        if getattr(self, "_log", None):
            self._log.close()


def escape(payload: bytes) -> str:
    out = []
    for byte in payload:
        if byte == 0x5C:
            out.append("\\\\")
        elif byte == 0x0A:
            out.append("\\n")
        elif byte == 0x0D:
            out.append("\\r")
        elif byte == 0x09:
            out.append("\\t")
        elif 0x20 <= byte <= 0x7E:
            out.append(chr(byte))
        else:
            out.append(f"\\x{byte:02x}")
    return "".join(out)


def unescape(line: str) -> bytes:
    out = bytearray()
    i = 0
    while i < len(line):
        c = line[i]
        if c != "\\":
            out.append(ord(c))
            i += 1
            continue
        nxt = line[i + 1]
        if nxt == "x":
            out.append(int(line[i + 2 : i + 4], 16))
            i += 4
        else:
            out.append({"\\": 0x5C, "n": 0x0A, "r": 0x0D, "t": 0x09}[nxt])
            i += 2
    return bytes(out)


class BusPeer:
    """`orvd-bus peer`: one bus module driven line by line from the test."""

    def __init__(self, root, module, to):
        self.root = pathlib.Path(root)
        self.module = module
        argv, env = launch(
            [program("orvd-bus"), "peer", "--as", str(module), "--to", str(to)],
            dict(os.environ, ORVD_ROOT=str(root)),
        )
        self.proc = subprocess.Popen(
            argv,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=env,
        )
        self.received = queue.Queue()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        socket_file = self.root / "run" / "msgbus" / f"module-{module}"
        deadline = time.monotonic() + 10
        while not socket_file.exists():
            assert self.proc.poll() is None, self.proc.stderr.read().decode()
            assert time.monotonic() < deadline, f"module {module} did not join the bus"
            time.sleep(0.02)

    def _read(self):
        for raw in self.proc.stdout:
            self.received.put(unescape(raw.decode().rstrip("\n")))

    def send(self, payload: bytes):
        self.proc.stdin.write((escape(payload) + "\n").encode())
        self.proc.stdin.flush()

    def send_many(self, payloads):
        self.proc.stdin.write("".join(escape(p) + "\n" for p in payloads).encode())
        self.proc.stdin.flush()

    def receive(self, timeout=10):
        return self.received.get(timeout=timeout)

    def receive_until(self, predicate, timeout=10):
        """Skips messages until one satisfies the predicate; returns it."""
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise AssertionError("expected bus message did not arrive")
            message = self.receive(timeout=remaining)
            if predicate(message):
                return message

    def drain(self):
        items = []
        while True:
            try:
                items.append(self.received.get_nowait())
            except queue.Empty:
                return items

    def close(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def wids_config(port, initial=0, maximum=0, log_level=None, path="/wids"):
    """A configuration file for WIDS mode against a service on this machine; at debug level
    unless the test or ORVD_TEST_LOG_LEVEL says otherwise."""
    return [
        f"roam_service_url=ws://127.0.0.1:{port}{path}",
        f"initial_connection_delay={initial}",
        f"max_connection_delay={maximum}",
        f"log_level={log_level or default_log_level(DEBUG_LOG_LEVEL)}",
    ]


def rrm_config(port, initial=0, maximum=0, log_level=None, path="/rrm", domain=None):
    """A configuration file for RRM mode against a service on this machine; at info level
    unless the test or ORVD_TEST_LOG_LEVEL says otherwise."""
    lines = [
        f"quillon_service_url=ws://127.0.0.1:{port}{path}",
        f"initial_connection_delay={initial}",
        f"max_connection_delay={maximum}",
        f"log_level={log_level or default_log_level(INFO_LOG_LEVEL)}",
    ]
    if domain is not None:
        lines.append(f"ap_location={domain}")
    return lines


def sanitizer_runtime(binary):
    """The sanitizer runtime a build of the program is linked with ("" for a normal build): it
    must come first in LD_PRELOAD."""
    listing = subprocess.run(["ldd", binary], capture_output=True, text=True).stdout
    for line in listing.splitlines():
        name = line.strip().split(" ")[0]
        if name.startswith(("libasan.so", "libtsan.so")) and "=>" in line:
            return line.split("=>")[1].split("(")[0].strip()
    return ""


def vrtl_environment():
    """LD_PRELOAD for running build/orvd against the emulated driver."""
    runtime = sanitizer_runtime(program("orvd"))
    vrtl = program("libvrtl.so")
    return {"LD_PRELOAD": f"{runtime}:{vrtl}" if runtime else vrtl}
