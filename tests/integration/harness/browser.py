"""A page as a person's browser shows it: Debian's Chromium, headless, opens a file and gives back
the DOM it built or a screenshot; and a PNG decoder (zlib and the five PNG filters, standard
library only) to read the screenshot's pixels.

Every run has a fresh profile folder, removed afterwards, no network of its own (no updates,
no sync, no QUIC), a 60 s time-out, and its whole process group killed when it ends, so that no
renderer or crash handler outlives it."""
import collections
import itertools
import operator
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import tempfile
import zlib

CHROMIUM = "/usr/bin/chromium"
TIMEOUT = 60
FLAGS = (
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
)


def _run(page, options, timeout=TIMEOUT) -> bytes:
    """Chromium's standard output for the page (a file) with these options."""
    assert os.access(CHROMIUM, os.X_OK), (
        f"{CHROMIUM} is missing: run scripts/bootstrap, which installs Debian's chromium"
    )
    url = pathlib.Path(page).resolve().as_uri()
    profile = tempfile.mkdtemp(prefix="orvd-chromium-")
    try:
        proc = subprocess.Popen(
            [CHROMIUM, *FLAGS, f"--user-data-dir={profile}", *options, url],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            start_new_session=True,
        )
        try:
            out, err = proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            _kill_group(proc.pid)
            out, err = proc.communicate()
            raise AssertionError(f"chromium did not finish within {timeout} s:\n{_tail(err)}") from None
        finally:
            _kill_group(proc.pid)
        assert proc.returncode == 0, f"chromium ended with status {proc.returncode}:\n{_tail(err)}"
        return out
    finally:
        shutil.rmtree(profile, ignore_errors=True)


def _kill_group(pgid):
    try:
        os.killpg(pgid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def _tail(err: bytes, lines=30) -> str:
    return "\n".join(err.decode(errors="replace").splitlines()[-lines:])


def dump_dom(page, timeout=TIMEOUT) -> str:
    """The DOM Chromium built from the page, serialised."""
    return _run(page, ["--dump-dom"], timeout).decode("utf-8", errors="replace")


def screenshot(page, size=(1400, 1800), timeout=TIMEOUT) -> bytes:
    """A PNG of the page's top in a window of size (width, height) pixels."""
    folder = tempfile.mkdtemp(prefix="orvd-screenshot-")
    try:
        target = pathlib.Path(folder) / "page.png"
        _run(page, [f"--screenshot={target}", f"--window-size={size[0]},{size[1]}", "--hide-scrollbars"], timeout)
        assert target.is_file(), "chromium wrote no screenshot"
        return target.read_bytes()
    finally:
        shutil.rmtree(folder, ignore_errors=True)


# -- PNG ---------------------------------------------------------------------------------------------

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
CHANNELS = {0: 1, 2: 3, 4: 2, 6: 4}  # colour type -> samples per pixel (8-bit, not indexed)


class Pixels:
    """A decoded image: width, height and the RGB bytes, row after row."""

    def __init__(self, width, height, rgb: bytes):
        self.width, self.height, self.rgb = width, height, rgb

    def colours(self) -> collections.Counter:
        """How many pixels have each (r, g, b)."""
        return collections.Counter(zip(self.rgb[0::3], self.rgb[1::3], self.rgb[2::3]))


def _chunks(data: bytes):
    assert data[:8] == PNG_SIGNATURE, "not a PNG"
    at = 8
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        assert zlib.crc32(kind + body) == struct.unpack(">I", data[at + 8 + length:at + 12 + length])[0], (
            f"PNG chunk {kind!r} is damaged"
        )
        yield kind, body
        at += 12 + length


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def _unfilter(kind, line: bytes, prior: bytes, bpp) -> bytes:
    if kind == 0:
        return line
    if kind == 2:
        return bytes(map((255).__and__, map(operator.add, line, prior)))
    if kind == 1:
        # Each sample adds the one bpp to its left: running sums per sample position.
        out = bytearray(len(line))
        for lane in range(bpp):
            out[lane::bpp] = bytes(map((255).__and__, itertools.accumulate(line[lane::bpp])))
        return bytes(out)
    out = bytearray(line)
    if kind == 3:
        for i in range(len(out)):
            left = out[i - bpp] if i >= bpp else 0
            out[i] = (out[i] + ((left + prior[i]) >> 1)) & 255
        return bytes(out)
    assert kind == 4, f"unknown PNG filter {kind}"
    for i in range(len(out)):
        if i >= bpp:
            out[i] = (out[i] + _paeth(out[i - bpp], prior[i], prior[i - bpp])) & 255
        else:
            out[i] = (out[i] + prior[i]) & 255
    return bytes(out)


def png_pixels(data: bytes) -> Pixels:
    """Decodes an 8-bit, non-interlaced greyscale or RGB PNG, with or without alpha (what Chromium
    writes); the alpha is dropped."""
    header, compressed = None, []
    for kind, body in _chunks(data):
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            compressed.append(body)
    assert header, "PNG without a header"
    width, height, depth, colour, _, _, interlace = header
    assert depth == 8 and colour in CHANNELS and interlace == 0, f"PNG not supported here: {header}"
    bpp = CHANNELS[colour]
    stride = width * bpp
    raw = zlib.decompress(b"".join(compressed))
    assert len(raw) == height * (stride + 1), "PNG data of the wrong size"
    prior = bytes(stride)
    rows = []
    for row in range(height):
        at = row * (stride + 1)
        prior = _unfilter(raw[at], raw[at + 1:at + 1 + stride], prior, bpp)
        rows.append(prior)
    samples = b"".join(rows)
    if colour == 2:
        rgb = samples
    elif colour == 6:
        rgb = bytearray(width * height * 3)
        for lane in range(3):
            rgb[lane::3] = samples[lane::4]
    else:
        grey = samples[::bpp]
        rgb = bytearray(width * height * 3)
        for lane in range(3):
            rgb[lane::3] = grey
    return Pixels(width, height, bytes(rgb))
