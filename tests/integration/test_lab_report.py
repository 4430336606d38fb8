"""The lab report's page as text: self-contained, every access point and channel drawn, every
decision and chart there, text from the data escaped, and any part of the data missing or empty,
from one to 64 access points."""
import copy
import os
import re

import pytest

from harness.labreport import check_access_points, check_channel_colours, elements, plan_radios, report, sample

EXTERNAL_REFERENCE = re.compile(
    r"https?:|//[a-z0-9.-]+\.[a-z]{2,}/|<script\b[^>]*\bsrc\s*=|<link\b|<img\b|<iframe\b|<object\b|<embed\b"
    r"|\burl\s*\(|@import|\bsrc\s*=|\bhref\s*=",
    re.IGNORECASE,
)


def check_self_contained(page):
    found = EXTERNAL_REFERENCE.findall(page)
    assert not found, f"the page refers to something outside it: {found[:5]}"


@pytest.fixture(scope="module")
def data():
    return sample()


@pytest.fixture(scope="module")
def page(data):
    return report.render(data)


def test_the_page_needs_nothing_outside_it(page):
    assert page.startswith("<!DOCTYPE html>")
    check_self_contained(page)
    assert "<style>" in page and "<svg" in page


def test_every_access_point_is_drawn_before_and_after_in_each_band_with_its_channel(data, page):
    for which in ("before", "after"):
        assert len(elements(page, "section", None, id=f"plan-{which}")) == 1, which
        assert len(elements(page, "g", "ap", data_snapshot=which)) == 12
        check_access_points(page, data, which)


def test_each_channel_has_its_colour_and_a_legend(data, page):
    channels = {int(c) for which in ("before", "after") for _, _, c in plan_radios(data, which)}
    assert channels == {1, 6, 11, 36, 52, 100, 116, 132, 149}
    for channel, colour in check_channel_colours(channels).items():
        assert f'fill="{colour}"' in page, channel
        assert f"background:{colour}" in page and f"channel {channel}<" in page, channel
    for circle in elements(page, "g", "ap"):
        assert report.channel_colour(circle["attrs"]["data-channel"]) in page


def test_the_site_its_walls_and_the_unmanaged_neighbours_with_a_position_are_drawn(data, page):
    assert len(elements(page, "svg", "plan")) == 4  # one floor, two bands, before and after
    assert len(elements(page, "rect", "site")) == 4
    assert len(elements(page, "line", "wall")) == 2 * 4
    placed = [x for x in data["externals"] if "x" in x]
    for external in placed:
        marks = elements(page, "g", "external", data_bssid=external["bssid"], data_channel=external["channel"])
        assert len(marks) == 2, external  # before and after, in its band only
    unplaced = [x for x in data["externals"] if "x" not in x]
    assert unplaced and not elements(page, "g", "external", data_bssid=unplaced[0]["bssid"])
    # All four appear in the table, with their SSID.
    assert {e["attrs"]["data-bssid"] for e in elements(page, "tr", "external")} == {
        x["bssid"] for x in data["externals"]
    }


def plans(page):
    """(snapshot, band) -> the text of that plan's drawing (one floor)."""
    return {
        (re.search(r'data-snapshot="(\w+)"', svg).group(1), re.search(r'data-band="(\w+)"', svg).group(1)): svg
        for svg in re.findall(r'<svg class="plan".*?</svg>', page, re.DOTALL)
    }


def joined(svg):
    return {(e["attrs"]["data-a"], e["attrs"]["data-b"]) for e in elements(svg, "line", "pair")}


def test_only_strong_co_channel_pairs_are_joined(data, page):
    drawn = plans(page)
    assert len(drawn) == 4
    for (which, band), svg in drawn.items():
        snapshot = data["snapshots"][0 if which == "before" else -1]
        strong = {(p["a"], p["b"]) for p in snapshot["pairs"]
                  if str(p["band"]) == band and max(p["a_hears_b_dbm"], p["b_hears_a_dbm"]) >= -75}
        assert joined(svg) == strong, (which, band)
    before = data["snapshots"][0]["pairs"]
    assert any(max(p["a_hears_b_dbm"], p["b_hears_a_dbm"]) < -75 for p in before), "the sample has weak pairs too"
    widths = sorted(float(e["attrs"]["stroke-width"]) for e in elements(page, "line", "pair"))
    assert widths[0] < widths[-1], "a stronger pair is drawn thicker"
    stricter = copy.deepcopy(data)
    stricter["strong_dbm"] = -62
    assert 0 < len(elements(report.render(stricter), "line", "pair")) < len(widths)


def test_the_summary_gives_interference_before_after_and_the_change(data, page):
    summary = elements(page, "section", None, id="summary")
    assert len(summary) == 1
    text = summary[0]["text"]
    assert "orvd lab: 6 access points" in text and "2026-11-25T16:00:00Z" in text
    assert "2 min 0 s" in text and "after 2 cycles" in text
    before, after = data["snapshots"][0]["interference_dbm"], data["snapshots"][-1]["interference_dbm"]
    for key in ("2", "5", "total"):
        row = elements(page, "tr", None, data_band=key)[0]["text"]
        change = f"{after[key] - before[key]:+.1f} dB".replace("-", "−")
        assert f"{before[key]:.1f} dBm".replace("-", "−") in row and change in row, (key, row)
    unstable = dict(data, stable_after_cycles=None)
    assert "not stable" in elements(report.render(unstable), "section", None, id="summary")[0]["text"]


def test_every_decision_has_a_row_and_power_changes_stand_out(data, page):
    rows = elements(page, "tr", "decision")
    assert [(r["attrs"]["data-ap"], r["attrs"]["data-radio"]) for r in rows] == [
        (d["ap"], d["radio"]) for d in sorted(data["decisions"], key=lambda d: d["time_s"])
    ]
    power = [d for d in data["decisions"] if d["from"]["power"] != d["to"]["power"]]
    assert power, "the sample should change a power"
    highlighted = elements(page, "td", "power-changed")
    assert len(highlighted) == len(power)
    assert all("→" in cell["text"] and "dB)" in cell["text"] for cell in highlighted)
    first = rows[0]["text"]
    decision = data["decisions"][0]
    assert f"{decision['from']['channel']} → {decision['to']['channel']}" in first
    assert len(elements(page, "svg", "strip")) == 1


def test_one_row_per_cycle_with_the_radios_changed(data, page):
    rows = elements(page, "tr", "cycle")
    assert [r["attrs"]["data-cycle"] for r in rows] == ["0", "1", "2"]
    assert rows[0]["text"].endswith("—")
    assert rows[1]["text"].endswith("4") and rows[2]["text"].endswith("5")


def test_each_radio_has_a_chart_of_the_channels_it_heard(data, page):
    for entry in data["heard"]:
        charts = elements(page, "svg", "heard", data_ap=entry["ap"], data_radio=entry["radio"])
        assert len(charts) == 1, entry
        assert charts[0]["attrs"]["data-channel"] == str(entry["channel"])
    charts = re.findall(r'<svg class="heard".*?</svg>', page, re.DOTALL)
    assert len(charts) == len(data["heard"])
    for entry, chart in zip(data["heard"], charts):
        for channel, heard in entry["channels"].items():
            bars = elements(chart, "rect", "bar", data_channel=channel)
            assert len(bars) == 1 and bars[0]["attrs"]["data-count"] == str(heard["count"]), (entry["ap"], channel)
        assert len(elements(chart, "rect", "own")) == 1
        axis = {t["text"] for t in elements(chart, "text")}
        expected = report.BAND_CHANNELS[str(entry["band"])]
        assert {str(c) for c in expected} <= axis


def test_text_from_the_data_stays_text():
    data = sample()
    hostile = "<script>alert('x')</script>"
    data["title"] = f"lab {hostile}"
    data["externals"][0]["ssid"] = hostile
    data["externals"][0]["bssid"] = '"><img onerror=x>'
    data["aps"][0]["label"] = "<b>ap1</b>"
    for snapshot in data["snapshots"]:
        for radio in snapshot["radios"]:
            if radio["ap"] == "ap1":
                radio["ap"] = "<b>ap1</b>"
    data["decisions"][0]["radio"] = "wlan0 & <i>"
    page = report.render(data)
    assert "<script" not in page and "<img" not in page and "<b>" not in page and "<i>" not in page
    assert "&lt;script&gt;alert(&#x27;x&#x27;)&lt;/script&gt;" in page
    assert 'data-ap="&lt;b&gt;ap1&lt;/b&gt;"' in page
    assert len(elements(page, "g", "ap", data_ap="<b>ap1</b>")) == 4
    assert elements(page, "tr", "external")[0]["text"].count(hostile) == 1
    assert elements(page, "title")[0]["text"] == f"lab {hostile}"


@pytest.mark.parametrize("data", [
    {},
    None,
    {"title": "", "started": None, "duration_s": None, "site": {}, "strong_dbm": None, "aps": [],
     "externals": [], "snapshots": [], "stable_after_cycles": None, "heard": [], "decisions": []},
    {"site": None, "aps": None, "externals": None, "snapshots": None, "heard": None, "decisions": None},
    {"site": {"width_m": "wide", "floors": "0", "walls": [{"from": [1]}, "wall"]}, "aps": ["ap1", 3],
     "snapshots": [{}, {"radios": [{}], "pairs": [{}], "interference_dbm": {"2": None}}],
     "heard": [{}, {"channels": {"x": 1, "6": {}}}], "decisions": [{}, {"from": None, "to": 5}]},
], ids=["nothing", "none", "all-empty", "all-null", "all-odd"])
def test_missing_or_empty_data_still_makes_a_page(data):
    page = report.render(data)
    check_self_contained(page)
    for section in ("summary", "plan-before", "plan-after", "decisions", "cycles", "heard"):
        assert len(elements(page, "section", None, id=section)) == 1, section
    assert not re.search(r"\b(None|nan|inf)\b", page)


def test_access_points_without_positions_or_channels_are_still_shown():
    data = sample()
    for ap in data["aps"][:2]:
        del ap["x"], ap["y"]
    data["snapshots"][-1]["radios"] = [r for r in data["snapshots"][-1]["radios"]
                                       if not (r["ap"] == "ap3" and r["band"] == 5)]
    del data["snapshots"][0]["radios"][0]["channel"]
    page = report.render(data)
    assert len(elements(page, "g", "ap", data_ap="ap1", data_snapshot="after")) == 2
    assert len(elements(page, "g", "ap-absent", data_ap="ap3", data_band="5", data_snapshot="after")) == 1
    assert len(elements(page, "g", "ap", data_ap="ap1", data_band="2", data_snapshot="before")) == 1


def test_sixty_four_access_points_on_two_floors():
    data = sample(64, floors=2)
    page = report.render(data)
    check_self_contained(page)
    assert len(elements(page, "svg", "plan")) == 2 * 2 * 2
    for which in ("before", "after"):
        assert len(elements(page, "g", "ap", data_snapshot=which)) == 128
        for floor in ("0", "1"):
            assert len(elements(page, "g", "ap", data_snapshot=which, data_floor=floor)) == 64
    assert len(elements(page, "svg", "heard")) == 128
    assert len(page) < 3_000_000


def test_one_access_point():
    page = report.render(sample(1))
    assert len(elements(page, "g", "ap")) == 4
    assert not elements(page, "line", "pair")


def test_the_report_is_replaced_whole(tmp_path, data, monkeypatch):
    target = tmp_path / "report.html"
    target.write_text("old")
    report.write_report(target, data)
    assert target.read_text(encoding="utf-8") == report.render(data)
    assert os.listdir(tmp_path) == ["report.html"]
    assert target.stat().st_mode & 0o777 == 0o644

    def refused(*_):
        raise OSError("no room")

    monkeypatch.setattr(report.os, "replace", refused)
    with pytest.raises(OSError):
        report.write_report(target, sample(2))
    assert target.read_text(encoding="utf-8") == report.render(data)
    assert os.listdir(tmp_path) == ["report.html"]
