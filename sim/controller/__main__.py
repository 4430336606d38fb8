"""Runs the reference RRM service as a program; see README.md or --help."""
import argparse
import signal
import sys
import threading

from .policy import Settings
from .service import RrmService

MODES = ("success", "busy", "refuse", "silent")


def arguments(argv=None):
    parser = argparse.ArgumentParser(
        prog="python3 -m sim.controller",
        description="The reference RRM service: orvd connects to ws://HOST:PORT/PATH with subprotocol websock-rrm.",
    )
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=0, help="port to listen on (default: any free one, printed)")
    parser.add_argument("--path", help="accept only this request path (default: any)")
    parser.add_argument("--subscribe", choices=MODES, default="success", help="how subscribe-request is answered")
    parser.add_argument("--code", type=int, help="the refusal code with --subscribe refuse (default 403)")
    parser.add_argument("--domain", help="the domain given with a successful subscription")
    parser.add_argument("--policy", action="store_true", help="plan channels and powers from each rrm-response")
    parser.add_argument("--scan-delay", type=int, default=0, help="rrm-scan-delay of the scan requests (s)")
    parser.add_argument("--scan-channels", default="", help='rrm-scan-channels, e.g. "1 6 11 36 40" (default: all)')
    parser.add_argument("--driver-scan", action="store_true", help="ask for the driver's own RRM scan")
    parser.add_argument("--interval", type=float, default=0, help="repeat the scan and plan cycle every N s")
    parser.add_argument("--strong-rssi", type=float, default=Settings.strong_rssi,
                        help="a co-channel neighbour above this (dBm) makes a radio back off")
    parser.add_argument("--backoff", type=int, default=Settings.backoff_db, help="how far it backs off (dB)")
    parser.add_argument("--min-gain", type=float, default=Settings.min_gain_db,
                        help="how much less interference another channel needs before a radio moves (dB)")
    parser.add_argument("--log", help="append every event to this file, with times")
    parser.add_argument("--quiet", action="store_true", help="print nothing but the listening line")
    return parser.parse_args(argv)


def main(argv=None):
    args = arguments(argv)
    service = RrmService(
        args.host,
        args.port,
        policy=args.policy,
        settings=Settings(strong_rssi=args.strong_rssi, backoff_db=args.backoff, min_gain_db=args.min_gain),
        scan_delay=args.scan_delay,
        driver_scan=1 if args.driver_scan else 0,
        scan_channels=args.scan_channels,
        interval=args.interval,
        path=args.path,
        log=args.log,
    )
    service.answer_subscribe(args.subscribe, domain=args.domain, code=args.code)
    if not args.quiet:
        service.add_listener(lambda text: print(text, flush=True))
    done = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: done.set())
    try:
        service.start()
    except OSError as error:
        print(f"rrm service: cannot listen on {args.host}:{args.port}: {error}", file=sys.stderr)
        return 1
    if args.quiet:
        print(f"listening on ws://{service.host}:{service.port}", flush=True)
    done.wait()
    service.shutdown()
    return 0


if __name__ == "__main__":
    sys.exit(main())
