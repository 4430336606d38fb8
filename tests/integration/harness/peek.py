"""A look inside a running orvd for what it keeps to itself and sends nowhere: gdb reads the
values while the process stands still, far less than the 10 s its workers may go without reading
their clocks. The build must carry symbols (RelWithDebInfo, as the tests build it, or the target
builds' -O2 -g); gdb and gdb-multiarch come with scripts/bootstrap.

On the host, gdb attaches to orvd's pid in batch mode, reads and detaches. Through the emulator
that pid is qemu's, so an orvd started with Orvd(..., debuggable=True) runs under qemu's gdb
server, and gdb-multiarch stays connected to it as long as it runs (RemoteDebugger): it lets orvd
run, and for a look stops it, reads and lets it run again."""
import codecs
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import threading
import time

# The process's one radio driver, a function-local static; its symbol has no type of its own in
# the debug information, so it is read as what it is.
DRIVER = "(*(driver_realtek*)&'make_driver(bool volatile&)::driver')"

_LINE = re.compile(r"^peek (\d+) \[(.*)\]$")

# The longest orvd may stand still for one look through the emulator: qemu stops every thread
# while gdb has control.
LONGEST_STOP = 2.0


def _printf(number, expression):
    """The gdb command that prints the characters of the std::string, without calling into the
    process."""
    return f'printf "peek {number} [%s]\\n", ({expression})._M_dataplus._M_p'


def _parse(expressions, output, where, details):
    found = {}
    for line in output.splitlines():
        match = _LINE.match(line)
        if match:
            found[int(match.group(1))] = match.group(2)
    assert sorted(found) == list(range(len(expressions))), (
        f"gdb did not read {expressions} in {where}:\n{details}"
    )
    return [found[number] for number in range(len(expressions))]


def read_texts(orvd, expressions, timeout=60):
    """The std::string values of the expressions in the running orvd (a harness Orvd), in their
    order."""
    if orvd.debugger:
        return orvd.debugger.read_texts(expressions, timeout)
    from .programs import emulator

    assert not emulator(), "through the emulator only an Orvd(..., debuggable=True) can be looked into"
    pid = orvd.proc.pid
    gdb = shutil.which("gdb")
    assert gdb, "gdb is missing: run scripts/bootstrap"
    command = [gdb, "-batch", "-nx", "-iex", "set debuginfod enabled off", "-p", str(pid)]
    for number, expression in enumerate(expressions):
        command += ["-ex", _printf(number, expression)]
    result = subprocess.run(
        command, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL
    )
    return _parse(
        expressions, result.stdout, f"process {pid}", f"{result.stdout[-2000:]}\n{result.stderr[-2000:]}"
    )


def radio_countries(orvd, radios=2):
    """The country each radio of the driver's snapshot holds."""
    return read_texts(orvd, [f"{DRIVER}.contexts[{radio}].country" for radio in range(radios)])


# -- through the emulator -----------------------------------------------------------------------

def _library_directories(binary, sysroot):
    directories = [str(pathlib.Path(binary).parent)]
    if sysroot:
        for pattern in ("lib/*-linux-*", "usr/lib/*-linux-*", "lib", "usr/lib"):
            directories += sorted(str(path) for path in pathlib.Path(sysroot).glob(pattern) if path.is_dir())
    return directories


_RESULT = re.compile(r"^(\d+)\^(done|running|connected|error|exit)(.*)$")
_STOPPED = re.compile(r"^\d*\*stopped")
_CONSOLE = re.compile(r'^~"(.*)"$')


class RemoteDebugger:
    """gdb-multiarch, driven over its machine interface, connected to qemu's gdb server (on the
    port) for the whole life of the emulated program (qemu's process, pid): started while qemu
    holds the program before its first instruction, it loads the binary's symbols and the
    target's libraries (from the sysroot qemu loads them from; qemu tells where the program and
    its loader lie), and lets it run.

    Signals the program receives go on to it without stopping it: gdb passes them through. qemu
    (7.2) does not listen to gdb while the program runs, so gdb's own interrupt never arrives;
    a look (read_texts) stops the program with a SIGTRAP to qemu instead, which qemu hands to
    gdb rather than to the program and gdb, the debugger's own signal, keeps to itself. It then
    prints the values and continues the program, and records how long it stood still in
    `stops`."""

    def __init__(self, binary, port, sysroot, pid, timeout=60):
        gdb = shutil.which("gdb-multiarch")
        assert gdb, "gdb-multiarch is missing: run scripts/bootstrap --cross"
        self.pid = pid
        self.stops = []
        self._lines = queue.Queue()
        self._tail = []
        self._token = 0
        self.proc = subprocess.Popen(
            [gdb, "-nx", "-q", "--interpreter=mi2", "-iex", "set debuginfod enabled off"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            bufsize=1,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        try:
            # Commands are taken while the program runs; a look interrupts it.
            self.command("-gdb-set mi-async on", timeout)
            self.command("-gdb-set pagination off", timeout)
            self.command("-gdb-set confirm off", timeout)
            self.command("-gdb-set auto-load off", timeout)
            if sysroot:
                self.command(f"-gdb-set sysroot {sysroot}", timeout)
            # Libraries the program's loader names by a host path (the build's own, or the
            # sysroot's by the name qemu gave them) are found by their names.
            self.command(f"-gdb-set solib-search-path {':'.join(_library_directories(binary, sysroot))}", timeout)
            # Every signal but the debugger's own goes on to orvd (SIGTERM included) untouched;
            # SIGTRAP stops it, and goes no further.
            self.command("handle all nostop noprint pass", timeout)
            self.command("handle SIGTRAP stop print nopass", timeout)
            self.command(f"-file-exec-and-symbols {binary}", timeout)
            # gdb retries while qemu is not listening yet.
            self.command(f"-target-select remote 127.0.0.1:{port}", timeout)
            self.command("-exec-continue", timeout)
        except BaseException:
            self.close()
            raise

    def _read(self):
        for line in self.proc.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def _next(self, deadline):
        remaining = deadline - time.monotonic()
        try:
            line = self._lines.get(timeout=max(remaining, 0))
        except queue.Empty:
            raise AssertionError(f"gdb-multiarch did not answer in time:\n{self._details()}") from None
        assert line is not None, f"gdb-multiarch ended:\n{self._details()}"
        self._tail = (self._tail + [line])[-40:]
        return line

    def _details(self):
        return "\n".join(self._tail)

    def command(self, text, timeout=60):
        """Sends one command; returns what it printed on gdb's console. Fails on an error."""
        self._token += 1
        token = str(self._token)
        self.proc.stdin.write(f"{token}{text}\n")
        self.proc.stdin.flush()
        deadline = time.monotonic() + timeout
        console = []
        while True:
            line = self._next(deadline)
            console_match = _CONSOLE.match(line)
            if console_match:
                console.append(codecs.escape_decode(console_match.group(1).encode())[0].decode(errors="replace"))
                continue
            result = _RESULT.match(line)
            if result and result.group(1) == token:
                assert result.group(2) != "error", f"gdb-multiarch: {text}: {result.group(3)}\n{self._details()}"
                return "".join(console)

    def read_texts(self, expressions, timeout=60):
        """The std::string values of the expressions, read while the program stands still."""
        deadline = time.monotonic() + timeout
        started = time.monotonic()
        os.kill(self.pid, signal.SIGTRAP)
        while not _STOPPED.match(self._next(deadline)):
            pass
        try:
            output = "".join(self.command(_printf(n, e), timeout) for n, e in enumerate(expressions))
        finally:
            self.command("-exec-continue", timeout)
            self.stops.append(time.monotonic() - started)
        assert self.stops[-1] < LONGEST_STOP, f"orvd stood still {self.stops[-1]:.2f}s for one look"
        return _parse(expressions, output, "the emulated orvd", f"{output}\n{self._details()}")

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self._reader.join(10)
        self.proc.stdin.close()
        self.proc.stdout.close()
