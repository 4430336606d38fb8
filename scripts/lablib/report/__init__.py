"""The lab's report: one HTML page of what happened on the site, written from the data the site
collects (access points with positions, snapshots of the radios before, per cycle and after,
what each radio heard, every decision). The page stands alone: inline CSS and SVG, no script,
no font, no picture and no address outside it, so that it opens anywhere, offline, from a file.

What it shows:

* the summary: title, start, duration, access points, co-channel interference per band before
  and after with the change, and the cycles until the plan was stable;
* the floor plan per floor and band, before (the first snapshot) beside after (the last): the
  site, its walls, each access point coloured by its channel and labelled with channel and
  power, lines between strong co-channel pairs, unmanaged neighbours as grey squares;
* per radio, a bar chart of the channels heard (strongest signal, how many BSSIDs);
* the decisions, on a strip over time and in a table, power changes marked; one row per cycle;
* the unmanaged neighbours.

Every value may be missing: what is not there is left out or shown as a dash. Every text from
the data is escaped. Elements a test or a person's tools look for carry stable classes and data
attributes: `g.ap` (data-ap, data-band, data-channel, data-snapshot, data-floor) in the
sections `#plan-before` and `#plan-after`, `svg.heard` (data-ap, data-radio), `tr.decision`
(data-ap, data-radio), `tr.cycle` and `#summary`.

This module is what callers use: render, write_report, channel_colour, STRONG_DBM and
BAND_CHANNELS. The modules, by concern; each imports only modules listed below it:

  page        the document: its style and the sections in order
  summary     the title, the facts and the interference before and after
  plans       the floor plans, before beside after
  decisions   the decisions, on a strip and in a table, and the cycles
  heard       the channels each radio heard
  neighbours  the table of unmanaged neighbours
  site        the access points' positions, the floors, the bands, one scale; a snapshot's
              interference
  colours     a channel's colour and the colours of what is not managed
  bands       the bands, their channels and the signal levels drawn against
  values      values as they come: read safely, escaped, put as text
"""
from __future__ import annotations

import os
import pathlib
import tempfile

from .bands import BAND_CHANNELS, STRONG_DBM
from .colours import channel_colour
from .page import render

__all__ = ["BAND_CHANNELS", "STRONG_DBM", "channel_colour", "render", "write_report"]


def write_report(path, data: dict) -> None:
    """Writes the page to path whole: a browser that reloads it meanwhile sees the old page or the
    new one, never half of one."""
    path = pathlib.Path(path)
    text = render(data)
    handle, temporary = tempfile.mkstemp(prefix=f".{path.name}.", suffix=".tmp", dir=path.parent)
    try:
        with os.fdopen(handle, "w", encoding="utf-8") as out:
            out.write(text)
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        try:
            os.unlink(temporary)
        except FileNotFoundError:
            pass
        raise
