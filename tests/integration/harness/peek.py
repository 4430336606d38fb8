"""A look inside a running orvd for what it keeps to itself and sends nowhere: gdb, attached in
batch mode, reads the values and detaches. The process stands still only while gdb reads, far
less than the 10 s its workers may go without reading their clocks. The build must carry
symbols (RelWithDebInfo, as the tests build it); gdb comes with scripts/bootstrap."""
import re
import shutil
import subprocess

# The process's one radio driver, a function-local static; its symbol has no type of its own in
# the debug information, so it is read as what it is.
DRIVER = "(*(driver_realtek*)&'make_driver(bool volatile&)::driver')"

_LINE = re.compile(r"^peek (\d+) \[(.*)\]$")


def read_texts(pid, expressions, timeout=60):
    """The std::string values of the expressions in the process, in their order."""
    gdb = shutil.which("gdb")
    assert gdb, "gdb is missing: run scripts/bootstrap"
    command = [gdb, "-batch", "-nx", "-iex", "set debuginfod enabled off", "-p", str(pid)]
    for number, expression in enumerate(expressions):
        # The characters themselves, without calling into the process.
        command += ["-ex", f'printf "peek {number} [%s]\\n", ({expression})._M_dataplus._M_p']
    result = subprocess.run(
        command, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL
    )
    found = {}
    for line in result.stdout.splitlines():
        match = _LINE.match(line)
        if match:
            found[int(match.group(1))] = match.group(2)
    assert sorted(found) == list(range(len(expressions))), (
        f"gdb did not read {expressions} in process {pid}:\n{result.stdout[-2000:]}\n{result.stderr[-2000:]}"
    )
    return [found[number] for number in range(len(expressions))]


def radio_countries(pid, radios=2):
    """The country each radio of the driver's snapshot holds."""
    return read_texts(pid, [f"{DRIVER}.contexts[{radio}].country" for radio in range(radios)])
