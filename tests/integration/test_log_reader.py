"""A log that nobody reads does not stop orvd: with debug logging into a pipe that is never
drained, messages still pass both ways, lines that find no room are dropped and counted, and
SIGTERM ends the process normally."""
import os
import signal
import subprocess
import time

from harness.programs import launch, program, wids_config


def test_debug_logging_into_an_undrained_pipe_drops_lines_instead_of_stopping_the_link(
    ws_server, make_bus_peer, tmp_path, device_root
):
    peer = make_bus_peer()
    conf = tmp_path / "orvd.conf"
    conf.write_text("".join(line + "\n" for line in wids_config(ws_server.port, log_level="0x0F")))
    reader, writer = os.pipe()
    argv, env = launch([program("orvd"), "-f", str(conf)], dict(os.environ, ORVD_ROOT=str(device_root)))
    proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=writer, stderr=writer, env=env)
    os.close(writer)
    try:
        conn = ws_server.wait_connection()
        # Far more log than the pipe holds (64 KiB): every message is dumped at debug level.
        for i in range(30):
            text = f'{{"seq":{i},"pad":"{"p" * 2000}"}}'
            ws_server.send(text, conn)
            assert peer.receive_until(lambda m: b'"seq"' in m, timeout=10) == text.encode()
            payload = f'{{"back":{i},"pad":"{"q" * 2000}"}}'.encode()
            peer.send(payload)
            assert ws_server.wait_messages(i + 1, timeout=10, conn=conn)[i].encode() == payload
        first = read_available(reader)
        # Once the reader takes something, the next line tells how many were lost meanwhile.
        ws_server.send('{"after":"reading"}', conn)
        assert peer.receive_until(lambda m: b'"after"' in m, timeout=10) == b'{"after":"reading"}'
        deadline = time.monotonic() + 10
        later = b""
        while b"log lines dropped" not in later and time.monotonic() < deadline:
            time.sleep(0.1)
            later += read_available(reader)
        proc.send_signal(signal.SIGTERM)
        assert proc.wait(15) == 0
        output = first + later + read_available(reader)
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        os.close(reader)
    assert b"Time error" not in output
    notices = [line for line in later.split(b"\n") if b"log lines dropped" in line]
    assert notices, later[-2000:]
    count = int(notices[0].split(b"warning: ")[1].split(b" ")[0])
    assert count > 0
    print(f"\n{len(first)} bytes in the pipe when first read; {count} lines dropped meanwhile")


def read_available(fd):
    os.set_blocking(fd, False)
    data = b""
    while True:
        try:
            chunk = os.read(fd, 1 << 16)
        except BlockingIOError:
            return data
        if not chunk:
            return data
        data += chunk
