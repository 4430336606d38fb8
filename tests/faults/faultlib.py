"""What the fault suite measures of a running orvd, and the hostile messages it sends.

Figures come from /proc: open descriptors, private dirty memory (what a router cannot page
out) and the resident set. A fault test takes them once orvd has settled before the faults and
again after, and prints them so that the run's output records them."""
import json
import os
import random
import time

KIB = 1024


class Figures:
    """One look at a process: descriptors, private dirty and resident memory in KiB."""

    def __init__(self, pid):
        self.pid = pid
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        fields = {}
        with open(f"/proc/{pid}/smaps_rollup") as rollup:
            for line in rollup:
                parts = line.split()
                if len(parts) >= 2 and parts[0].endswith(":") and parts[1].isdigit():
                    fields[parts[0][:-1]] = int(parts[1])
        self.private_dirty = fields.get("Private_Dirty", 0)
        self.rss = fields.get("Rss", 0)

    def __repr__(self):
        return f"{self.descriptors} descriptors, private dirty {self.private_dirty} KiB, RSS {self.rss} KiB"


def settled_figures(pid, pause=1.0, tries=10):
    """Figures once two looks `pause` apart agree on descriptors and private dirty memory (orvd
    frees what a message took between its rounds), or the last look after `tries`."""
    last = Figures(pid)
    for _ in range(tries):
        time.sleep(pause)
        now = Figures(pid)
        if now.descriptors == last.descriptors and now.private_dirty == last.private_dirty:
            return now
        last = now
    return last


def report(title, **figures):
    """One line in the test's output (pytest -s keeps it in ctest's log)."""
    print(f"\n[faults] {title}: " + ", ".join(f"{key} {value}" for key, value in figures.items()), flush=True)


def sanitized():
    """True when orvd is a sanitizer build: its allocator keeps freed memory in quarantine,
    so memory figures say nothing of orvd's own growth there."""
    from harness.programs import program, sanitizer_runtime

    return bool(sanitizer_runtime(program("orvd")))


# -- hostile messages -------------------------------------------------------------------------

# No "rrm-update": see hostile_messages.
COMMANDS = ["rrm-info", "rrm-request-mode", "fbt-info", "subscribe-response", "unknown-cmd"]

# Values of every type a JSON member can have, the out-of-range numbers first.
ODD_VALUES = [
    -1, -2147483649, 2147483648, 4294967296, 9223372036854775807, -9223372036854775808,
    18446744073709551616, 1e308, -1e308, 0.5, 1e-300, "", "x" * 4096, "1 6 11 999 -5 abc",
    "\u00e9\u4e2d", True, False, None, [], {}, [1, "a", None], {"nested": {"deeper": [1]}},
]

# Members the agent reads, at every level of its messages.
MEMBERS = [
    "rrm-scan-delay", "vorna-rrm-scanning", "rrm-scan-channels", "use-tpc", "use-dca", "use-80211r",
    "radios", "id", "channel", "bandwidth", "power", "primary-channel", "dot11k", "vaps", "ifname",
    "bssid", "neighbors", "peers", "reassoc-deadline", "over-ds", "status", "domain", "config",
    "service", "cmd",
]


def _odd_radio(rng):
    radio = {"id": rng.choice([0, 1, 2, -1, 255, 1 << 40, "0", None])}
    for member in ("channel", "bandwidth", "power", "primary-channel"):
        if rng.random() < 0.8:
            radio[member] = rng.choice(ODD_VALUES + [1, 6, 11, 36, 165, 20, 40, 80, 160, 30, "upper", "lower", "none"])
    return radio


def _odd_body(rng, cmd):
    body = {}
    for _ in range(rng.randint(0, 6)):
        member = rng.choice(MEMBERS)
        if member in ("service", "cmd"):
            continue
        body[member] = rng.choice(ODD_VALUES)
    if cmd in ("rrm-info", "subscribe-response") and rng.random() < 0.7:
        body["radios"] = [_odd_radio(rng) for _ in range(rng.randint(0, 40))]
    if cmd == "fbt-info" and rng.random() < 0.7:
        body["vaps"] = [
            {"ifname": rng.choice(["wlan0-va0", "wlan1-va9", "", "x" * 300, None, 7]),
             "peers": [rng.choice(ODD_VALUES + ["A4:5E:60:00:20:00", "zz:zz"]) for _ in range(rng.randint(0, 50))]}
            for _ in range(rng.randint(0, 40))
        ]
    return body


def _envelope(cmd, body, rng):
    message = {"version": "2.2", "service": rng.choice(["rrm", "rrm", "rrm", "wids", "", None, 5]), "cmd": cmd}
    message.update(body)
    return message


def _broken_text(rng):
    """A text that is not the JSON object orvd expects."""
    choice = rng.randrange(9)
    if choice == 0:
        return "[" * 100000 + "]" * 100000  # deeper than any parser goes
    if choice == 1:
        return '{"version": "2.2", "service": "rrm", "cmd": "rrm-info", "radios": ' + "[" * 50000
    if choice == 2:
        return '{"version": "2.2", "service": "rrm"\u0000, "cmd": "rrm-request-mode"}'
    if choice == 3:
        return '{"version": "2.2", "service": "rrm", "cmd": "rrm-request-mode"'  # cut short
    if choice == 4:
        return rng.choice(["null", "0", "[]", '"text"', "true", "", " ", "{}"])
    if choice == 5:
        return '{"version": "2.2", "version": "2.2", "cmd": 5, "cmd": null}'
    if choice == 6:
        return '{"version": "2.2", "service": "rrm", "cmd": "rrm-info", "x": "' + "\\ud800" * 100 + '"}'
    if choice == 7:
        return bytes(rng.randrange(256) for _ in range(rng.randint(1, 2000)))  # a binary frame
    # The version's prefix kept, the rest mutated byte by byte.
    text = json.dumps(_envelope(rng.choice(COMMANDS), _odd_body(rng, "rrm-info"), rng))
    chars = list(text)
    for _ in range(rng.randint(1, 10)):
        position = rng.randrange(len('{"version": "2.2"'), len(chars))
        chars[position] = chr(rng.choice([0, 34, 44, 58, 91, 93, 123, 125, rng.randrange(32, 127)]))
    return "".join(chars)


def hostile_messages(count=400, seed=1):
    """`count` messages a broken or hostile service might send, reproducible from the seed.

    They keep "version" at "2.2": a message with an older version makes orvd unsubscribe and
    drop the link for good, which ends the test rather than exercising the parser. None is an
    "rrm-update": one that passes starts a scan of up to five passes, during which the agent
    defers what follows; scans under faults have tests of their own."""
    rng = random.Random(seed)
    messages = []
    for _ in range(count):
        kind = rng.randrange(3)
        if kind == 0:
            cmd = rng.choice(COMMANDS)
            messages.append(json.dumps(_envelope(cmd, _odd_body(rng, cmd), rng)))
        elif kind == 1:
            cmd = rng.choice(COMMANDS)
            body = {member: rng.choice(ODD_VALUES) for member in rng.sample(MEMBERS, rng.randint(1, 8))}
            body.pop("version", None)
            message = {"version": "2.2"}
            message.update(body)
            message.setdefault("cmd", cmd)
            messages.append(json.dumps(message))
        else:
            messages.append(_broken_text(rng))
    return messages
