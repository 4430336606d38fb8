"""The two kinds of scan the service can ask for, started and watched on the emulated radios."""
import time

from harness.rrm import TIMEOUT

# kind: (vorna-rrm-scanning, the radio counter a start raises, the driver's stop line)
KINDS = {
    "standard": (0, "start_scan", "Attempt to stop active scanning"),
    "driver": (1, "rrm_scan_trigger", "Attempt to stop RRM scanning"),
}


def counter(vdev, radio, name):
    return vdev.radio_state(radio).get("counters", {}).get(name, 0)


def start_scan(service, vdev, conn, kind, channels="1 6 11 36 40"):
    """Asks for a scan of the kind and returns once the 2.4 GHz radio has started it."""
    driver_scan, started, _ = KINDS[kind]
    before = counter(vdev, "wlan0", started)
    service.send_rrm_update(delay=0, driver_scan=driver_scan, channels=channels, conn=conn)
    deadline = time.monotonic() + TIMEOUT
    while counter(vdev, "wlan0", started) <= before:
        assert time.monotonic() < deadline, f"{kind} scan not started within {TIMEOUT}s"
        time.sleep(0.05)


def stopped_after(orvd, kind, marker):
    """True when the driver was told to stop the kind's scan after the first log line that
    matches the marker."""
    _, _, stop_line = KINDS[kind]
    lines = orvd.log_lines(f"{marker}|{stop_line}")
    at = next((i for i, line in enumerate(lines) if stop_line not in line), None)
    return at is not None and any(stop_line in line for line in lines[at + 1 :])


def scan_answered(service, vdev, conn, kind, timeout=60):
    """Asks for a scan of the kind on the link and returns the seconds to its rrm-response."""
    n = len(service.received("rrm-response", conn)) + 1
    started = time.monotonic()
    start_scan(service, vdev, conn, kind)
    received = service.wait_for("rrm-response", n=n, timeout=timeout, conn=conn)
    return received.time - started
