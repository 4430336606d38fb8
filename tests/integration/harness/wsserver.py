"""A WebSocket service for the tests, on Debian's python3-websockets (not libwebsockets).

It runs its own asyncio loop in a background thread. Tests script it from their own thread:
send text or fragmented messages, refuse handshakes, swallow pings, close, and read what it
recorded (handshakes, messages, pings) with their arrival times.
"""
import asyncio
import http
import threading
import time

import websockets
import websockets.server
from websockets.frames import Opcode


class Connection:
    def __init__(self, ws, path, headers):
        self.ws = ws
        self.path = path
        self.headers = headers
        self.opened = time.monotonic()
        self.closed = None
        self.messages = []  # (time, text or bytes)
        self.pings = []  # times
        self.subprotocol = ws.subprotocol


class WsServer:
    def __init__(self, subprotocols=("websock-roaming",), port=0):
        self.subprotocols = list(subprotocols)
        self.requested_port = port
        self.port = None
        self.connections = []
        self.attempts = []  # times of every opening handshake request, refused or not
        self.refuse_status = None  # an HTTP status to refuse handshakes with
        self.swallow_pings = False
        self._lock = threading.Lock()
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)
        self._server = None

    # -- life cycle ---------------------------------------------------------------------
    def start(self):
        self._thread.start()
        self._call(self._start())
        return self

    async def _start(self):
        server = self

        class Protocol(websockets.server.WebSocketServerProtocol):
            async def pong(self, data=b""):
                conn = getattr(self, "test_connection", None)
                if conn is not None:
                    with server._lock:
                        conn.pings.append(time.monotonic())
                if server.swallow_pings:
                    return  # keeps the TCP connection, never answers
                await super().pong(data)

        async def process_request(path, headers):
            with self._lock:
                self.attempts.append(time.monotonic())
            if self.refuse_status is not None:
                return http.HTTPStatus(self.refuse_status), [], b"refused by test\n"
            return None

        self._server = await websockets.serve(
            self._handler,
            "127.0.0.1",
            self.requested_port,
            subprotocols=self.subprotocols,
            create_protocol=Protocol,
            process_request=process_request,
            ping_interval=None,
            max_size=None,
            max_queue=None,
            compression=None,
        )
        self.port = self._server.sockets[0].getsockname()[1]

    async def _handler(self, ws, path=None):
        conn = Connection(ws, ws.path, ws.request_headers)
        ws.test_connection = conn
        with self._lock:
            self.connections.append(conn)
        try:
            async for message in ws:
                with self._lock:
                    conn.messages.append((time.monotonic(), message))
        except websockets.ConnectionClosed:
            pass
        finally:
            with self._lock:
                conn.closed = time.monotonic()

    def stop(self):
        if self._server is not None:
            self._server.close()
            try:
                self._call(self._server.wait_closed(), timeout=5)
            except Exception:
                pass
            self._server = None

    def shutdown(self):
        self.stop()
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(timeout=5)

    def _call(self, coroutine, timeout=10):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    # -- reading what happened --------------------------------------------------------------
    def current(self):
        with self._lock:
            open_ones = [c for c in self.connections if c.closed is None]
        return open_ones[-1] if open_ones else None

    def wait_connection(self, count=1, timeout=15):
        """Waits until `count` connections have been opened in all; returns the last."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with self._lock:
                if len(self.connections) >= count:
                    return self.connections[count - 1]
            time.sleep(0.02)
        raise AssertionError(f"no connection #{count} within {timeout}s ({len(self.connections)} so far)")

    def messages(self, conn=None):
        with self._lock:
            conns = [conn] if conn is not None else list(self.connections)
            return [m for c in conns for _, m in c.messages]

    def wait_messages(self, count, timeout=15, conn=None):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            got = self.messages(conn)
            if len(got) >= count:
                return got
            time.sleep(0.02)
        got = self.messages(conn)
        raise AssertionError(f"{len(got)} of {count} messages within {timeout}s")

    def wait_closed(self, conn, timeout=15):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with self._lock:
                if conn.closed is not None:
                    return conn.closed
            time.sleep(0.02)
        raise AssertionError(f"connection not closed within {timeout}s")

    # -- acting ---------------------------------------------------------------------------
    def send(self, text, conn=None):
        conn = conn or self.current()
        self._call(conn.ws.send(text))

    def send_fragments(self, pieces, conn=None):
        """One message in several frames; the library ends it with an empty final frame."""
        conn = conn or self.current()
        self._call(conn.ws.send(list(pieces)))

    def send_frames(self, frames, conn=None):
        """Raw frames: a list of (fin, opcode name, bytes), e.g. (False, 'TEXT', b'ab')."""
        conn = conn or self.current()

        async def write():
            for fin, opcode, data in frames:
                await conn.ws.write_frame(fin, Opcode[opcode], data)

        self._call(write())

    def close(self, conn=None):
        conn = conn or self.current()
        if conn is not None:
            self._call(conn.ws.close())


class SilentServer:
    """Accepts TCP connections and never answers the opening handshake."""

    def __init__(self):
        import socket

        self.sock = socket.socket()
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(8)
        self.port = self.sock.getsockname()[1]
        self.accepted = []
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            self.accepted.append(conn)

    def shutdown(self):
        self.sock.close()
        for conn in self.accepted:
            conn.close()
