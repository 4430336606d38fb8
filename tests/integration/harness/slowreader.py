"""A WebSocket service that reads at a rate the test sets (or not at all), written on plain
sockets so that the test controls every byte it takes off the connection.

It answers the opening handshake, then reads frames at most `rate` bytes a second (None: as
fast as they come; 0: never), records each frame (time, opcode, FIN, length) and each ping,
answers pings with pongs and reassembles text messages.
"""
import base64
import hashlib
import socket
import struct
import threading
import time

GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
TEXT, CONTINUATION, CLOSE, PING, PONG = 0x1, 0x0, 0x8, 0x9, 0xA


def unmask(payload, mask):
    if not payload:
        return payload
    n = len(payload)
    key = (mask * (n // 4 + 1))[:n]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")).to_bytes(n, "big")


class SlowConnection:
    def __init__(self, sock, rate):
        self.sock = sock
        self.rate = rate
        self.opened = time.monotonic()
        self.closed = None
        self.frames = []  # (time, opcode, fin, length)
        self.pings = []  # times
        self.messages = []  # (time, bytes)
        self.received_bytes = 0
        self._pending = b""
        self._budget_start = time.monotonic()

    def _recv(self, n):
        """Exactly n bytes, taken no faster than the rate allows."""
        out = bytearray()
        while len(out) < n:
            want = n - len(out)
            if self.rate is not None:
                allowed = int((time.monotonic() - self._budget_start) * self.rate) - self.received_bytes
                if allowed <= 0:
                    time.sleep(0.02)
                    continue
                want = min(want, allowed, 4096)
            chunk = self.sock.recv(want)
            if not chunk:
                raise ConnectionError("closed by the client")
            self.received_bytes += len(chunk)
            out += chunk
        return bytes(out)

    def handshake(self):
        request = b""
        while b"\r\n\r\n" not in request:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise ConnectionError("closed during the handshake")
            request += chunk
        headers = {}
        for line in request.split(b"\r\n")[1:]:
            if b":" in line:
                name, value = line.split(b":", 1)
                headers[name.strip().lower()] = value.strip()
        accept = base64.b64encode(hashlib.sha1(headers[b"sec-websocket-key"] + GUID).digest())
        answer = b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        answer += b"Sec-WebSocket-Accept: " + accept + b"\r\n"
        if b"sec-websocket-protocol" in headers:
            answer += b"Sec-WebSocket-Protocol: " + headers[b"sec-websocket-protocol"].split(b",")[0].strip() + b"\r\n"
        self.sock.sendall(answer + b"\r\n")
        self._budget_start = time.monotonic()

    def serve(self):
        if self.rate == 0:
            # Keeps the link and reads nothing. A client that gives up cannot be seen from here:
            # its FIN waits behind the bytes this side never reads; it shows by connecting again.
            while self.closed is None:
                time.sleep(0.1)
            return
        message = bytearray()
        while True:
            b0, b1 = self._recv(2)
            fin, opcode, length = bool(b0 & 0x80), b0 & 0x0F, b1 & 0x7F
            if length == 126:
                length = struct.unpack(">H", self._recv(2))[0]
            elif length == 127:
                length = struct.unpack(">Q", self._recv(8))[0]
            mask = self._recv(4) if b1 & 0x80 else b""
            data = self._recv(length)
            data = unmask(data, mask) if mask else data
            now = time.monotonic()
            self.frames.append((now, opcode, fin, length))
            if opcode == PING:
                self.pings.append(now)
                self.sock.sendall(bytes([0x80 | PONG, len(data)]) + data)
            elif opcode == CLOSE:
                return
            elif opcode in (TEXT, CONTINUATION):
                message += data
                if fin:
                    self.messages.append((now, bytes(message)))
                    message = bytearray()


class SlowReaderServer:
    def __init__(self, rate=None):
        self.rate = rate
        self.connections = []
        self.sock = socket.socket()
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        # A small receive window, so that what the test does not read stays with the sender.
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(4)
        self.port = self.sock.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                sock, _ = self.sock.accept()
            except OSError:
                return
            conn = SlowConnection(sock, self.rate)
            self.connections.append(conn)
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _serve(self, conn):
        try:
            conn.handshake()
            conn.serve()
        except (ConnectionError, OSError):
            pass
        finally:
            conn.closed = time.monotonic()

    def wait_connection(self, count=1, timeout=15):
        deadline = time.monotonic() + timeout
        while len(self.connections) < count:
            assert time.monotonic() < deadline, f"no connection #{count} within {timeout}s"
            time.sleep(0.02)
        return self.connections[count - 1]

    def shutdown(self):
        self.sock.close()
        for conn in self.connections:
            conn.closed = conn.closed or time.monotonic()
            try:
                conn.sock.close()
            except OSError:
                pass
