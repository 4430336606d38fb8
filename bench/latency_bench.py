#!/usr/bin/python3
"""Request -> answer latency in RRM mode, and handshake -> subscribe-request.

orvd (emulated driver preloaded, log_level=0x03) runs against orvd-vdev's default scenario and
the reference service, subscribed with hostapd up. Measured:
- "rrm-request-mode" -> "rrm-mode-response", N requests one at a time: from the start of the
  service's send to the answer's arrival at the service; p50, p90, p99, max. Between an answer
  and the next request the service waits a random 0-200 ms (the same sequence every run), as a
  service's requests come at any moment, so that they do not lock onto orvd's rounds;
- handshake -> subscribe-request over several reconnects: the service closes the link, orvd
  connects again (its reconnect delay is not counted) and the time runs from the service's
  record of the opening handshake to the arrival of the first subscribe-request on it.

Usage: bench/latency_bench.py [--build DIR] [--short] [--requests N] [--reconnects N]
  --short: 50 requests, 3 reconnects
Exit status 1 when a goal is missed.
"""
import pathlib
import random
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import benchlib  # noqa: E402
from benchlib import Goal  # noqa: E402

GOALS = {"p50": 0.120, "p99": 0.250}
SUBSCRIBE_GOAL = 0.050


def ms(seconds):
    return f"{seconds * 1000:.0f} ms"


def request_latencies(ap, count):
    pauses = random.Random(11)
    samples = []
    for _ in range(count):
        time.sleep(pauses.uniform(0.0, 0.2))
        n = ap.count("rrm-mode-response") + 1
        started = time.monotonic()
        ap.service.send_rrm_request_mode(conn=ap.conn)
        samples.append(ap.wait_for("rrm-mode-response", n=n, timeout=20).time - started)
    return samples


def subscribe_latencies(rig, count):
    service = rig.service
    samples = []
    for _ in range(count):
        handshakes = len(service.handshakes)
        connections = len(service.connections)
        service.close(rig.ap.conn)
        conn = service.wait_connection(connections + 1, timeout=30)
        rig.ap.conn = conn
        handshake = service.wait_handshakes(handshakes + 1, timeout=30)
        request = service.wait_for("subscribe-request", 1, timeout=30, conn=conn)
        samples.append(request.time - handshake.time)
        rig.ap.round_trip()
    return samples


def main():
    parser = benchlib.parser(__doc__.splitlines()[0])
    parser.add_argument("--requests", type=int, help="requests timed one at a time (default 200, --short 50)")
    parser.add_argument("--reconnects", type=int, help="reconnects timed (default 7, --short 3)")
    args = parser.parse_args()
    benchlib.use_build(args.build)
    requests = args.requests or (50 if args.short else 200)
    reconnects = args.reconnects or (3 if args.short else 7)

    with tempfile.TemporaryDirectory(prefix="orvd-latency-bench-") as work:
        rig = benchlib.Rig(work, log_level="0x03").start()
        try:
            rig.ap.round_trip()
            answers = request_latencies(rig.ap, requests)
            subscribes = subscribe_latencies(rig, reconnects)
        finally:
            rig.close()

    rows = []
    for name, fraction in (("p50", 0.5), ("p90", 0.9), ("p99", 0.99)):
        value = benchlib.percentile(answers, fraction)
        goal = GOALS.get(name)
        rows.append(Goal(f"rrm-request-mode -> rrm-mode-response {name} (n={len(answers)})", ms(value),
                         f"<= {ms(goal)}" if goal else None, None if goal is None else value <= goal))
    rows.append(Goal("rrm-request-mode -> rrm-mode-response max", ms(max(answers))))
    median = benchlib.percentile(subscribes, 0.5)
    rows.append(Goal(f"handshake -> subscribe-request p50 (n={len(subscribes)})", ms(median),
                     f"<= {ms(SUBSCRIBE_GOAL)}", median <= SUBSCRIBE_GOAL))
    rows.append(Goal("handshake -> subscribe-request each", " ".join(f"{s * 1000:.0f}" for s in subscribes) + " ms"))
    benchlib.print_table("request -> answer", rows)
    return benchlib.finish(rows)


if __name__ == "__main__":
    sys.exit(main())
