"""The reference RRM service: the service side of protocol 2.2 over a plain WebSocket server.

orvd connects to it as a client (subprotocol "websock-rrm"). The service runs its own asyncio
loop on a background thread, so a test drives it from its own thread: it chooses how
"subscribe-request" is answered, sends any message, and reads back every handshake, every
message received (raw text, parsed form, arrival time, schema check) and every message sent.
With the policy on it also plans: after a successful subscription it asks for a scan (or, when
the subscription described every radio as off, once an "rrm-config-changed" describes one up),
and it answers each "rrm-response" with the decision of sim.controller.policy.
"""
from __future__ import annotations

import asyncio
import dataclasses
import http
import json
import threading
import time
from typing import Callable

import websockets
import websockets.server

from . import policy as planning
from . import schema_check, summary

SUBPROTOCOL = "websock-rrm"
VERSION = "2.2"

# Messages orvd sends that carry its radio description.
DESCRIBING = ("subscribe-request", "rrm-response", "rrm-mode-response", "rrm-config-changed")


@dataclasses.dataclass
class SubscribeAnswer:
    """How the service answers a "subscribe-request".

    mode: "success"; "busy" (status "fail", code 503: orvd retries later); "refuse" (status
    "fail" with `code`, 403 unless given: orvd gives up until the link comes up again);
    "silent" (no answer: orvd repeats after 30, 60, 120, ... s). `domain` and `config` (an
    "rrm-info" body) go with a success; `status` overrides the status text and `version` the
    envelope's version (None leaves the key out; the default is the service's version).
    """

    mode: str = "success"
    domain: str | None = None
    config: dict | None = None
    code: int | None = None
    status: str | None = None
    version: object = ...

    def body(self) -> dict | None:
        if self.mode == "silent":
            return None
        body = {}
        if self.mode == "success":
            body["status"] = self.status or "success"
            if self.code is not None:
                body["code"] = self.code
            if self.domain is not None:
                body["domain"] = self.domain
            if self.config is not None:
                body["config"] = self.config
        elif self.mode == "busy":
            body["status"] = self.status or "fail"
            body["code"] = 503 if self.code is None else self.code
        elif self.mode == "refuse":
            body["status"] = self.status or "fail"
            body["code"] = 403 if self.code is None else self.code
        else:
            raise ValueError(f"unknown subscribe answer mode {self.mode!r}")
        return body


@dataclasses.dataclass
class Received:
    """One message the service received."""

    time: float  # time.monotonic() at arrival
    text: object  # str, or bytes for a binary frame
    message: object  # the parsed JSON, None when the text was not JSON
    schema: str  # schema_check.VALID / INVALID / MISSING / NOT_JSON
    errors: list

    @property
    def cmd(self) -> str | None:
        if isinstance(self.message, dict) and isinstance(self.message.get("cmd"), str):
            return self.message["cmd"].lower()
        return None


@dataclasses.dataclass
class Handshake:
    """One opening handshake request, accepted or refused."""

    time: float
    path: str
    subprotocols: list  # what the client offered in Sec-WebSocket-Protocol
    refused: int | None  # the HTTP status it was refused with, None when accepted


class Connection:
    def __init__(self, number, ws):
        self.number = number
        self.ws = ws
        self.path = ws.path
        self.headers = ws.request_headers
        self.subprotocol = ws.subprotocol
        self.opened = time.monotonic()
        self.closed = None
        self.close_code = None
        self.received = []  # Received
        self.sent = []  # (time, text)
        self.subscribed = False  # the last subscribe answer given was a success
        self.ap = None  # policy.AccessPoint once it described itself
        self.domain = ""
        self.decisions = []  # policy.Plan per rrm-response answered
        self.repeat = None  # the timer handle of the next scan request
        self.scan_requested = None  # when the policy's last rrm-update went out, until its answer
        self.scans_requested = 0  # rrm-updates the policy sent on this connection

    @property
    def label(self) -> str:
        return self.ap.ap_mac if self.ap and self.ap.ap_mac else f"#{self.number}"

    def __repr__(self):
        state = "open" if self.closed is None else f"closed {self.close_code}"
        return f"<Connection #{self.number} {self.path} {state} {len(self.received)} received>"


class RrmService:
    """See the module text. Every public method is meant for a thread other than the loop's."""

    def __init__(
        self,
        host: str = "127.0.0.1",
        port: int = 0,
        subprotocols=(SUBPROTOCOL,),
        *,
        policy: bool = False,
        settings: planning.Settings = planning.Settings(),
        scan_delay: int = 0,
        driver_scan: int = 0,
        scan_channels: str = "",
        interval: float = 0,
        version: str = VERSION,
        path: str | None = None,
        log: str | None = None,
    ):
        self.host = host
        self.port = port or None
        self._requested_port = port
        self.subprotocols = list(subprotocols)
        self.version = version  # envelope version of everything sent, unless a call overrides it
        self.path = path  # when set, handshakes for any other path are refused with 404
        self.refuse_status = None  # when set, every handshake is refused with this HTTP status
        self.subscribe_answer = SubscribeAnswer()
        self._answer_queue = []
        self.policy = policy
        self.settings = settings
        self.scan_delay = scan_delay
        self.driver_scan = driver_scan
        self.scan_channels = scan_channels
        self.interval = interval
        # How long a scan request without an answer blocks another on a new subscription: a
        # standard scan of every channel takes five passes of up to 15 s.
        self.scan_patience = 120.0
        self.handshakes = []
        self.connections = []
        self.events = []  # (time.time(), text)
        self.listeners = []  # callables given each event text
        self.decisions = []  # (Connection, policy.Plan)
        self._lock = threading.RLock()
        self._changed = threading.Condition(self._lock)
        self._log = open(log, "a", buffering=1, encoding="utf-8") if log else None
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, name="rrm-service", daemon=True)
        self._server = None

    # -- life cycle -------------------------------------------------------------------------

    def start(self):
        """Starts listening (again, on the same port, after stop())."""
        if not self._thread.is_alive():
            self._thread.start()
        self._call(self._serve())
        return self

    def stop(self):
        """Stops listening and closes every connection (code 1001); the loop stays for start()."""
        if self._server is not None:
            self._call(self._close_server(), timeout=10)

    def restart(self):
        self.stop()
        return self.start()

    def shutdown(self):
        try:
            self.stop()
        finally:
            if self._thread.is_alive():
                self._loop.call_soon_threadsafe(self._loop.stop)
                self._thread.join(timeout=5)
            if not self._thread.is_alive() and not self._loop.is_closed():
                self._loop.close()
            if self._log is not None:
                self._log.close()
                self._log = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.shutdown()

    def url(self, path: str = "/rrm") -> str:
        return f"ws://{self.host}:{self.port}{path}"

    @property
    def listening(self) -> bool:
        return self._server is not None

    def _call(self, coroutine, timeout=10):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    async def _serve(self):
        if self._server is not None:
            return
        self._server = await websockets.serve(
            self._handler,
            self.host,
            self.port or self._requested_port,
            subprotocols=self.subprotocols,
            process_request=self._process_request,
            ping_interval=None,
            max_size=None,
            max_queue=None,
            compression=None,
        )
        self.port = self._server.sockets[0].getsockname()[1]
        self._event(f"listening on ws://{self.host}:{self.port} (subprotocol {', '.join(self.subprotocols)})")

    async def _close_server(self):
        server, self._server = self._server, None
        server.close()
        await server.wait_closed()
        self._event("stopped listening")

    async def _process_request(self, path, headers):
        offered = [p.strip() for v in headers.get_all("Sec-WebSocket-Protocol") for p in v.split(",") if p.strip()]
        refused = self.refuse_status
        if refused is None and self.path is not None and path != self.path:
            refused = 404
        with self._changed:
            self.handshakes.append(Handshake(time.monotonic(), path, offered, refused))
            self._changed.notify_all()
        if refused is not None:
            self._event(f"handshake for {path} refused with {refused}")
            return http.HTTPStatus(refused), [], b"refused\n"
        return None

    # -- answers ----------------------------------------------------------------------------

    def answer_subscribe(self, mode: str = "success", **options):
        """Sets how every later "subscribe-request" is answered (see SubscribeAnswer)."""
        with self._lock:
            self.subscribe_answer = SubscribeAnswer(mode, **options)
            self._answer_queue.clear()

    def queue_subscribe_answers(self, *answers):
        """Answers for the next requests, one each, before the standing answer applies again;
        each a SubscribeAnswer or a mode text."""
        with self._lock:
            self._answer_queue.extend(a if isinstance(a, SubscribeAnswer) else SubscribeAnswer(a) for a in answers)

    def _next_answer(self) -> SubscribeAnswer:
        with self._lock:
            return self._answer_queue.pop(0) if self._answer_queue else self.subscribe_answer

    # -- sending (any thread) ---------------------------------------------------------------

    def envelope(self, cmd: str, body: dict | None = None, version=..., service: str = "rrm") -> dict:
        message = {}
        version = self.version if version is ... else version
        if version is not None:
            message["version"] = version
        if service is not None:
            message["service"] = service
        message["cmd"] = cmd
        message.update(body or {})
        return message

    def send_raw(self, text, conn: Connection | None = None):
        conn = self._pick(conn)
        self._call(self._send_text(conn, text))
        return text

    def send(self, cmd: str, body: dict | None = None, conn: Connection | None = None, version=..., service="rrm"):
        """Sends {"version", "service", "cmd", body...}; returns the text sent."""
        return self.send_raw(json.dumps(self.envelope(cmd, body, version, service)), conn)

    def send_rrm_update(self, delay: int = 0, driver_scan: int = 0, channels: str = "", conn=None, version=...):
        return self.send("rrm-update", update_body(delay, driver_scan, channels), conn, version)

    def send_rrm_info(self, use_tpc=1, use_dca=1, use_80211r=None, radios=(), dot11k=None, conn=None, version=...):
        body = {"use-tpc": use_tpc, "use-dca": use_dca}
        if use_80211r is not None:
            body["use-80211r"] = use_80211r
        body["radios"] = list(radios)
        if dot11k is not None:
            body["802dot11k"] = list(dot11k)
        return self.send("rrm-info", body, conn, version)

    def send_rrm_request_mode(self, conn=None, version=...):
        return self.send("rrm-request-mode", None, conn, version)

    def send_fbt_info(self, vaps, reassoc_deadline=1000, over_ds=1, conn=None, version=...):
        body = {"fbt-reassoc-deadline": reassoc_deadline, "fbt-over-ds": over_ds, "vaps": list(vaps)}
        return self.send("fbt-info", body, conn, version)

    def close(self, conn: Connection | None = None, code: int = 1000, reason: str = ""):
        """Closes a connection with a close frame and waits for the closing handshake."""
        conn = self._pick(conn)
        self._call(conn.ws.close(code, reason))

    def abort(self, conn: Connection | None = None):
        """Drops a connection's TCP link without a close frame, as a crashed service would."""
        conn = self._pick(conn)
        self._loop.call_soon_threadsafe(conn.ws.transport.abort)

    def _pick(self, conn):
        conn = conn or self.current()
        if conn is None:
            raise AssertionError("no open connection to the service")
        return conn

    async def _send_text(self, conn: Connection, text):
        await conn.ws.send(text)
        with self._changed:
            conn.sent.append((time.monotonic(), text))
            self._changed.notify_all()
        self._event(f"-> {conn.label} {_cmd_of(text)}")

    async def _send(self, conn: Connection, cmd: str, body: dict | None, version=...):
        try:
            await self._send_text(conn, json.dumps(self.envelope(cmd, body, version)))
        except websockets.ConnectionClosed:
            self._event(f"{conn.label}: {cmd} not sent, the connection is closed")

    # -- reading what happened (any thread) ---------------------------------------------------

    def current(self) -> Connection | None:
        with self._lock:
            open_ones = [c for c in self.connections if c.closed is None]
        return open_ones[-1] if open_ones else None

    def open_connections(self) -> list:
        with self._lock:
            return [c for c in self.connections if c.closed is None]

    def received(self, cmd: str | None = None, conn: Connection | None = None) -> list:
        """Every message received (on one connection or all, in arrival order), or those of one
        type (compared without regard to case)."""
        with self._lock:
            conns = [conn] if conn is not None else list(self.connections)
            found = [r for c in conns for r in c.received]
        if conn is None:
            found.sort(key=lambda r: r.time)
        if cmd is not None:
            found = [r for r in found if r.cmd == cmd.lower()]
        return found

    def sent(self, cmd: str | None = None, conn: Connection | None = None) -> list:
        """Parsed messages the service sent, optionally of one type."""
        with self._lock:
            conns = [conn] if conn is not None else list(self.connections)
            texts = sorted(((t, text) for c in conns for t, text in c.sent), key=lambda s: s[0])
        messages = [_parse(text) for _, text in texts]
        if cmd is not None:
            messages = [m for m in messages if isinstance(m, dict) and str(m.get("cmd", "")).lower() == cmd.lower()]
        return messages

    def schema_problems(self, include_missing: bool = False) -> list:
        """(connection number, cmd, status, errors) for every received message that did not
        pass its schema (and, on request, those without a schema)."""
        wanted = {schema_check.INVALID, schema_check.NOT_JSON}
        if include_missing:
            wanted.add(schema_check.MISSING)
        with self._lock:
            return [
                (c.number, r.cmd, r.schema, r.errors)
                for c in self.connections
                for r in c.received
                if r.schema in wanted
            ]

    def _wait(self, found: Callable, timeout: float, what: Callable):
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                result = found()
                if result is not None:
                    return result
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"{what()} within {timeout}s")
                self._changed.wait(left)

    def wait_connection(self, count: int = 1, timeout: float = 10) -> Connection:
        """The count-th connection ever opened, once it is."""
        return self._wait(
            lambda: self.connections[count - 1] if len(self.connections) >= count else None,
            timeout,
            lambda: f"no connection #{count} ({len(self.connections)} so far)",
        )

    def wait_handshakes(self, count: int = 1, timeout: float = 10) -> Handshake:
        return self._wait(
            lambda: self.handshakes[count - 1] if len(self.handshakes) >= count else None,
            timeout,
            lambda: f"no handshake #{count} ({len(self.handshakes)} so far)",
        )

    def wait_for(self, cmd: str, n: int = 1, timeout: float = 10, conn: Connection | None = None) -> Received:
        """The n-th message of this type received (on one connection or on any)."""

        def found():
            matching = self.received(cmd, conn)
            return matching[n - 1] if len(matching) >= n else None

        return self._wait(found, timeout, lambda: f"no {cmd} #{n} ({len(self.received(cmd, conn))} so far)")

    def wait_sent(self, cmd: str, n: int = 1, timeout: float = 10, conn: Connection | None = None) -> dict:
        """The n-th message of this type the service sent."""

        def found():
            matching = self.sent(cmd, conn)
            return matching[n - 1] if len(matching) >= n else None

        return self._wait(found, timeout, lambda: f"the service sent no {cmd} #{n}")

    def wait_decision(self, n: int = 1, timeout: float = 10, conn: Connection | None = None):
        """The n-th plan the policy made (on one connection or on any)."""

        def found():
            plans = conn.decisions if conn is not None else [p for _, p in self.decisions]
            return plans[n - 1] if len(plans) >= n else None

        return self._wait(found, timeout, lambda: f"no decision #{n}")

    def wait_closed(self, conn: Connection, timeout: float = 10) -> float:
        return self._wait(lambda: conn.closed, timeout, lambda: f"connection #{conn.number} not closed")

    # -- the connection's life (loop thread) --------------------------------------------------

    async def _handler(self, ws, path=None):
        with self._changed:
            conn = Connection(len(self.connections) + 1, ws)
            self.connections.append(conn)
            self._changed.notify_all()
        self._event(f"connection #{conn.number} on {conn.path} (subprotocol {conn.subprotocol})")
        try:
            async for text in ws:
                await self._on_message(conn, text)
        except websockets.ConnectionClosed:
            pass
        finally:
            if conn.repeat is not None:
                conn.repeat.cancel()
            with self._changed:
                conn.closed = time.monotonic()
                conn.close_code = ws.close_code
                conn.subscribed = False
                self._changed.notify_all()
            self._event(f"connection #{conn.number} ({conn.label}) closed, code {ws.close_code}")

    async def _on_message(self, conn: Connection, text):
        arrived = time.monotonic()
        message = _parse(text)
        status, errors = schema_check.check(message)
        received = Received(arrived, text, message, status, errors)
        with self._changed:
            conn.received.append(received)
            if isinstance(message, dict):
                self._learn(conn, received.cmd, message)
            self._changed.notify_all()
        note = "" if status == schema_check.VALID else f" [{status}{': ' + errors[0] if errors and status != schema_check.MISSING else ''}]"
        self._event(f"<- {conn.label} {received.cmd or '(no cmd)'}{note}")
        if received.cmd == "subscribe-request":
            await self._answer_subscribe(conn)
        elif received.cmd == "rrm-response" and self.policy:
            await self._decide(conn, message)
        elif received.cmd == "rrm-config-changed" and self.policy:
            await self._first_scan(conn)

    def _learn(self, conn: Connection, cmd, message: dict):
        """Keeps who the access point is and its latest radios (under the lock)."""
        if cmd not in DESCRIBING:
            return
        if conn.ap is None:
            conn.ap = planning.AccessPoint(str(message.get("ap-mac", "")))
        if message.get("ap-mac"):
            conn.ap.ap_mac = str(message["ap-mac"])
        factory = message.get("factory")
        if isinstance(factory, dict) and factory.get("serial"):
            conn.ap.serial = str(factory["serial"])
        if isinstance(message.get("radios"), list):
            conn.ap.radios = [r for r in message["radios"] if isinstance(r, dict)]
        if isinstance(message.get("domain"), str):
            conn.domain = message["domain"]

    async def _answer_subscribe(self, conn: Connection):
        answer = self._next_answer()
        body = answer.body()
        if body is None:
            self._event(f"{conn.label}: subscribe-request left unanswered")
            return
        success = answer.mode == "success"
        with self._changed:
            conn.subscribed = success  # before the answer leaves, so a test that reads it sees the state
            self._changed.notify_all()
        await self._send(conn, "subscribe-response", body, answer.version)
        if success and self.policy and self._scan_wanted(conn):
            await self._request_scan(conn)

    def _scan_wanted(self, conn: Connection) -> bool:
        """Whether a subscription should start a scan: not while orvd describes every radio
        as off (before hostapd's start notice it does; it subscribes again once it is up), and
        not while an earlier request is still being scanned (orvd would queue a second one
        behind it and scan twice)."""
        with self._lock:
            radios = conn.ap.radios if conn.ap else []
            if not any(planning._int(r.get("status")) == 1 for r in radios):
                self._event(f"{conn.label}: no radio up yet, no scan requested")
                return False
            pending = conn.scan_requested
        if pending is not None and time.monotonic() - pending < self.scan_patience:
            self._event(f"{conn.label}: a scan is still under way, no second one requested")
            return False
        return True

    async def _first_scan(self, conn: Connection):
        """orvd subscribed before hostapd was up describes its radios as off and sends no second
        subscription when they come up: it reports them in an "rrm-config-changed" instead. The
        first one that shows a radio up starts the planning the subscription could not."""
        if conn.subscribed and conn.scans_requested == 0 and self._scan_wanted(conn):
            await self._request_scan(conn)

    async def _request_scan(self, conn: Connection):
        conn.repeat = None
        if conn.closed is not None:
            return
        conn.scan_requested = time.monotonic()
        conn.scans_requested += 1
        await self._send(conn, "rrm-update", update_body(self.scan_delay, self.driver_scan, self.scan_channels))

    def _peers(self, conn: Connection) -> list:
        with self._lock:
            return [
                planning.AccessPoint(c.ap.ap_mac, c.ap.serial, list(c.ap.radios))
                for c in self.connections
                if c is not conn and c.closed is None and c.subscribed and c.ap is not None
                and c.ap.radios and c.ap.ap_mac != (conn.ap.ap_mac if conn.ap else None)
            ]

    async def _decide(self, conn: Connection, response: dict):
        conn.scan_requested = None
        serial = conn.ap.serial if conn.ap else ""
        plan = planning.plan(response, self._peers(conn), self.settings, serial=serial)
        with self._changed:
            if conn.ap is not None:
                conn.ap.radios = planning.with_decisions(conn.ap.radios, plan.choices)
            conn.decisions.append(plan)
            self.decisions.append((conn, plan))
            self._changed.notify_all()
        self._event(summary.neighbour_table(response))
        self._event(summary.decision_lines(conn.label, plan))
        await self._send(conn, "rrm-info", plan.body)
        if plan.fbt is not None:
            await self._send(conn, "fbt-info", plan.fbt)
        if self.interval and self.interval > 0 and conn.closed is None:
            conn.repeat = self._loop.call_later(
                self.interval, lambda: asyncio.ensure_future(self._request_scan(conn))
            )

    # -- events -----------------------------------------------------------------------------

    def add_listener(self, listener: Callable):
        with self._lock:
            self.listeners.append(listener)

    def _event(self, text: str):
        now = time.time()
        with self._lock:
            self.events.append((now, text))
            listeners = list(self.listeners)
            log = self._log
        if log is not None:
            stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"
            for line in text.splitlines() or [""]:
                log.write(f"{stamp} {line}\n")
        for listener in listeners:
            try:
                listener(text)
            except Exception:  # a display that fails must not stop the service
                pass


def update_body(delay: int = 0, driver_scan: int = 0, channels: str = "") -> dict:
    return {"rrm-scan-delay": delay, "vorna-rrm-scanning": driver_scan, "rrm-scan-channels": channels}


def _parse(text):
    if isinstance(text, (bytes, bytearray)):
        try:
            text = bytes(text).decode("utf-8")
        except UnicodeDecodeError:
            return None
    try:
        return json.loads(text)
    except (ValueError, RecursionError):  # a hostile text may nest deeper than the parser goes
        return None


def _cmd_of(text) -> str:
    message = _parse(text)
    if isinstance(message, dict) and "cmd" in message:
        return str(message["cmd"])
    return f"raw text ({len(text)} characters)"
