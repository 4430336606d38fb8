#!/usr/bin/python3
"""WIDS pass-through: latency (p50, p99) and sustained messages per second, both directions.

Runs the real build/orvd in WIDS mode between a WebSocket service (python3-websockets) and
`orvd-bus peer` playing widsd (module 3), all on loopback, in a temporary device root.
Usage: bench/wids_bench.py [--build DIR] [--latency N] [--burst N]
"""
import argparse
import os
import pathlib
import statistics
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "integration"))


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(fraction * (len(ordered) - 1))))]


def describe(name, samples):
    ms = [s * 1000 for s in samples]
    return f"{name}: n={len(ms)} p50={percentile(ms, 0.5):.1f} ms p99={percentile(ms, 0.99):.1f} ms " \
           f"mean={statistics.mean(ms):.1f} ms"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=str(HERE.parent / "build"))
    parser.add_argument("--latency", type=int, default=200, help="messages timed one at a time per direction")
    parser.add_argument("--burst", type=int, default=1000, help="messages sent at once per direction")
    args = parser.parse_args()
    os.environ["ORVD_BUILD_DIR"] = args.build

    from harness.programs import BusPeer, Orvd, wids_config
    from harness.wsserver import WsServer

    with tempfile.TemporaryDirectory() as work:
        root = pathlib.Path(work) / "root"
        root.mkdir()
        server = WsServer().start()
        peer = BusPeer(root, 3, 2)
        orvd = Orvd(work, root, wids_config(server.port, log_level="0")).start()
        try:
            conn = server.wait_connection()
            connected = b'{"version":"2.2","service":"internal-ipc","cmd":"connected"}'
            while peer.receive() != connected:
                pass

            # Service to bus, one at a time.
            to_bus = []
            for i in range(args.latency):
                started = time.monotonic()
                server.send(f'{{"latency":{i}}}', conn)
                peer.receive()
                to_bus.append(time.monotonic() - started)

            # Bus to service, one at a time.
            to_service = []
            for i in range(args.latency):
                before = len(server.messages(conn))
                started = time.monotonic()
                peer.send(f'{{"latency":{i}}}'.encode())
                server.wait_messages(before + 1, conn=conn, timeout=10)
                to_service.append(time.monotonic() - started)

            # Sustained, service to bus.
            started = time.monotonic()
            for i in range(args.burst):
                server.send(f'{{"burst":{i}}}', conn)
            for _ in range(args.burst):
                peer.receive(timeout=60)
            to_bus_rate = args.burst / (time.monotonic() - started)

            # Sustained, bus to service.
            before = len(server.messages(conn))
            started = time.monotonic()
            peer.send_many([f'{{"burst":{i}}}'.encode() for i in range(args.burst)])
            server.wait_messages(before + args.burst, conn=conn, timeout=args.burst)
            to_service_rate = args.burst / (time.monotonic() - started)

            print(describe("latency service->bus", to_bus))
            print(describe("latency bus->service", to_service))
            print(f"sustained service->bus: {to_bus_rate:.0f} messages/s ({args.burst} messages)")
            print(f"sustained bus->service: {to_service_rate:.1f} messages/s ({args.burst} messages)")
        finally:
            orvd.kill()
            peer.close()
            server.shutdown()


if __name__ == "__main__":
    main()
