"""A WebSocket client that plays orvd's side for the service's tests, with its own asyncio loop
on a background thread so that a test reads it line by line."""
import asyncio
import json
import threading

import websockets


class Client:
    def __init__(self, url, subprotocols=("websock-rrm",)):
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)
        self._thread.start()
        async def opening():
            return await websockets.connect(url, subprotocols=list(subprotocols), ping_interval=None, close_timeout=2)

        try:
            self.ws = self._call(opening())
        except BaseException:
            self._stop_loop()
            raise

    def _call(self, coroutine, timeout=10):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    @property
    def subprotocol(self):
        return self.ws.subprotocol

    def send(self, message):
        self._call(self.ws.send(message if isinstance(message, str) else json.dumps(message)))

    def recv_text(self, timeout=5):
        return self._call(asyncio.wait_for(self.ws.recv(), timeout), timeout + 1)

    def recv(self, timeout=5):
        return json.loads(self.recv_text(timeout))

    def recv_cmd(self, cmd, timeout=5):
        """Reads until a message of this type comes; the ones before it are returned too."""
        skipped = []
        while True:
            message = self.recv(timeout)
            if message.get("cmd") == cmd:
                return message, skipped
            skipped.append(message)

    def nothing_within(self, seconds):
        try:
            text = self.recv_text(seconds)
        except asyncio.TimeoutError:
            return True
        raise AssertionError(f"unexpected message: {text}")

    def wait_closed(self, timeout=5):
        """The close code once the service has closed the connection."""
        self._call(asyncio.wait_for(self.ws.wait_closed(), timeout), timeout + 1)
        return self.ws.close_code

    def close(self):
        try:
            self._call(self.ws.close(), timeout=5)
        except Exception:
            pass
        self._stop_loop()

    def _stop_loop(self):
        if self._loop.is_closed():
            return
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(timeout=5)
        if not self._thread.is_alive():
            self._loop.close()
