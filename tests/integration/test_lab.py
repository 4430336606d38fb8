"""scripts/lab end to end, against the programs already built: two virtual access points with
their agents and the reference service for a minute, then everything stopped and removed; and
the two other ways a lab ends (Ctrl-C, a program that dies)."""
import os
import pathlib
import re
import signal
import subprocess
import time

from harness.programs import BUILD_DIR

LAB = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "lab"
EVENT = re.compile(r"^ *(\d+\.\d)s (\S+) +(.*)$")


def lab_command(*args):
    return [str(LAB), "--no-build", "--build-dir", str(BUILD_DIR), *args]


def events(output):
    """(seconds, who, [lines]) for every event shown: a first line with the time and who it is
    about, then its continuation lines."""
    found = []
    for line in output.splitlines():
        match = EVENT.match(line)
        if match:
            found.append((float(match.group(1)), match.group(2), [match.group(3)]))
        elif found and line.startswith(" " * 15):
            found[-1][2].append(line.strip())
    return found


def texts(found, who=None, start=""):
    return ["\n".join(lines) for _, w, lines in found if (who is None or w == who) and lines[0].startswith(start)]


def device_roots(output):
    match = re.search(r"device roots under (\S+?)(;|$)", output, re.MULTILINE)
    assert match, output[:2000]
    return pathlib.Path(match.group(1))


def processes_using(path):
    """Pids of live processes whose command line mentions the path."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            command = (entry / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
        except OSError:
            continue
        if str(path) in command:
            found.append(int(entry.name))
    return found


def assert_cleaned_up(output):
    roots = device_roots(output)
    assert not roots.exists(), f"{roots} was left behind"
    assert processes_using(roots) == [], f"processes of the lab were left running:\n{output[-3000:]}"
    assert output.rstrip().endswith("stopped; no program left running, device roots removed"), output[-2000:]


def test_two_access_points_for_a_minute():
    result = subprocess.run(
        lab_command("--aps", "2", "--duration", "60"),
        capture_output=True, text=True, timeout=150, stdin=subprocess.DEVNULL,
    )
    output = result.stdout
    assert result.returncode == 0, output[-4000:] + result.stderr
    found = events(output)

    for ap, peer in (("ap1", "ap2"), ("ap2", "ap1")):
        # The subscription with the radios read, the scan and its table, the decision.
        subscriptions = [t for t in texts(found, ap, "subscribe-request") + texts(found, ap, "rrm-config-changed")
                         if "radio 0 2.4 GHz up" in t]
        assert subscriptions, output
        assert "VAPs: 0 Orion-Corp [11k 11r]" in subscriptions[0]
        assert texts(found, ap, "scan requested (rrm-update): standard scan")
        # An office of two: each hears the other's three VAPs per band, nothing else.
        scans = texts(found, ap, "scan result (rrm-response): 6 neighbours heard")
        assert scans and "ch   n  best  signals (dBm)" in scans[0]
        decisions = texts(found, ap, "decision: radio 0 2.4 GHz: channel ")
        assert decisions, output

        # What the virtual access point applied is what was decided, read back from it.
        applied = texts(found, ap, "applied on the virtual access point:")
        assert applied, output
        for radio, interface in ((0, "wlan0"), (1, "wlan1")):
            decided = re.search(rf"radio {radio} [\d.]+ GHz: channel (\d+/\d+)(?: -> (\d+/\d+)| kept)", decisions[0])
            assert decided, decisions[0]
            channel = decided.group(2) or decided.group(1)
            assert re.search(rf"{interface} now: channel {channel} MHz.*\(chanspec 0x[0-9a-f]{{4}}\)", applied[0]), (
                decisions[0], applied[0])
        assert texts(found, ap, "networkd <- update-quillon wlan1 ")

        # 802.11k lists and 802.11r key holders point at the other access point.
        reports = "\n".join(texts(found, ap, "802.11k report"))
        assert re.search(rf"add [0-9A-F:]{{17}} channel \d+ ssid \"Orion-Corp\" -> {peer} wlan0-va0", reports), output
        fbt = "\n".join(texts(found, ap, "networkd <- update-quillon-fbt wlan1-va0"))
        assert re.search(rf"key holders of its peers: [0-9A-F:]{{17}}/VX31B\d+ \({peer} wlan1-va0\)", fbt), output
        assert ": ok" in fbt

    # The site: its interference and plan before planning, and the summary at the stop.
    (before,) = texts(found, "site", "site before planning: co-channel interference 2.4 GHz ")
    assert re.search(r"plan 2\.4 GHz: ap1 6/20 20dBm ap2 6/20 20dBm", before), before
    assert re.search(r"co-channel pairs 2\.4 GHz \(1, dBm each hears the other\):\n\s*ap1<>ap2 -\d+/-\d+", before), before
    (summary,) = texts(found, "site", "site summary:")
    assert re.search(r"co-channel interference all: -[\d.]+ dBm -> ", summary), summary
    assert re.search(r"orvd per access point \(2\): CPU [\d.]+ s mean", summary), summary
    assert "error" not in "\n".join(texts(found, "lab")), output
    assert_cleaned_up(output)


def wait_for_text(proc, text, timeout):
    """Reads the lab's output until a line holds the text; everything read so far."""
    seen = []
    deadline = time.monotonic() + timeout
    os.set_blocking(proc.stdout.fileno(), False)
    while time.monotonic() < deadline:
        line = proc.stdout.readline()
        if line:
            seen.append(line)
            if text in line:
                return "".join(seen)
            continue
        assert proc.poll() is None, "".join(seen)
        time.sleep(0.05)
    raise AssertionError(f"{text!r} not shown within {timeout}s:\n{''.join(seen)}")


def finish(proc, before):
    os.set_blocking(proc.stdout.fileno(), True)
    rest, _ = proc.communicate(timeout=60)
    return before + rest


def test_ctrl_c_stops_everything_in_order():
    proc = subprocess.Popen(lab_command(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            stdin=subprocess.DEVNULL)
    try:
        before = wait_for_text(proc, "scan requested (rrm-update)", 30)
        proc.send_signal(signal.SIGINT)
        output = finish(proc, before)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    assert proc.returncode == 0, output
    assert "Ctrl-C: stopping orvd, the service, orvd-vdev" in output
    assert_cleaned_up(output)


def test_a_program_that_dies_ends_the_lab_with_status_1():
    proc = subprocess.Popen(lab_command(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            stdin=subprocess.DEVNULL)
    try:
        before = wait_for_text(proc, "scan requested (rrm-update)", 30)
        orvd = int(re.search(r"orvd started, pid (\d+)", before).group(1))
        os.kill(orvd, signal.SIGKILL)
        output = finish(proc, before)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    assert proc.returncode == 1, output
    assert "error: ap1 orvd ended on its own (killed by SIGKILL)" in output
    assert_cleaned_up(output)


def test_a_bad_site_file_ends_the_lab_with_status_1_naming_the_value(tmp_path):
    site = tmp_path / "site.json"
    site.write_text('{"aps": [{"x": 0, "y": 0}, {"x": "far", "y": 0}]}')
    result = subprocess.run(lab_command("--site", str(site)), capture_output=True, text=True, timeout=60,
                            stdin=subprocess.DEVNULL)
    assert result.returncode == 1, result.stdout + result.stderr
    assert f"error: site: {site}: aps[1].x: a number" in result.stdout, result.stdout
    both = subprocess.run(lab_command("--site", str(site), "--aps", "3"), capture_output=True, text=True,
                          timeout=60, stdin=subprocess.DEVNULL)
    assert both.returncode == 2 and "give --site or --aps, not both" in both.stderr, both.stderr
