"""scripts/lab as a site, end to end against the programs already built: an office of six
access points that hear each other, planned for two minutes by the reference service. The
printed interference falls, every message validates, everything is stopped and removed, and
the report opens in a real browser with the plan before and after."""
import re
import subprocess

from harness import browser
from harness.labreport import check_channel_colours, elements
from test_lab import assert_cleaned_up, events, lab_command, texts

CYCLE = re.compile(r"site after cycle (\d+): co-channel interference .*, all (-[\d.]+) dBm \(([-+][\d.]+) dB from the start\)")


def test_an_office_of_six_plans_itself_quieter_and_pictures_it(tmp_path):
    page = tmp_path / "site.html"
    result = subprocess.run(
        lab_command("--aps", "6", "--duration", "120", "--report", str(page)),
        capture_output=True, text=True, timeout=240, stdin=subprocess.DEVNULL,
    )
    output = result.stdout
    assert result.returncode == 0, output[-6000:] + result.stderr
    found = events(output)

    (before,) = texts(found, "site", "site before planning:")
    assert "plan 2.4 GHz: ap1 6/20 20dBm ap2 6/20 20dBm ap3 6/20 20dBm ap4 6/20 20dBm" in before, before
    assert "co-channel pairs 2.4 GHz (15, dBm each hears the other)" in before, before
    cycles = [CYCLE.search(t) for t in texts(found, "site", "site after cycle")]
    assert cycles and all(cycles), output[-6000:]
    # The first cycle already takes the site well below where it started.
    assert float(cycles[0].group(3)) <= -6.0, texts(found, "site", "site after cycle")
    (summary,) = texts(found, "site", "site summary:")
    overall = re.search(r"co-channel interference all: (-[\d.]+) dBm -> (-[\d.]+) dBm \(([-+][\d.]+) dB\)", summary)
    assert overall and float(overall.group(3)) <= -6.0, summary
    assert re.search(r"orvd-vdev per access point \(6\): CPU", summary), summary

    (validity,) = texts(found, "svc", "")
    assert re.fullmatch(r"(\d+) messages from the agents: \1 valid against their schemas", validity), validity
    assert not texts(found, "site", "ap"), "the keeper could not hand a list over:\n" + output[-4000:]
    assert_cleaned_up(output)

    # The report, as chromium renders it: every access point before (all on 6 and 36) and after
    # (on the channels the lab read back from each at the stop), decisions, channels heard.
    text = page.read_text()
    for outside in ("http://", "https://", "<script", "src=", "href="):
        assert outside not in text, f"the report reaches outside itself: {outside}"
    dom = browser.dump_dom(page)
    final = {}
    for ap in range(1, 7):
        (state,) = texts(found, f"ap{ap}", "final state:")
        for band, interface in ((2, "wlan0"), (5, "wlan1")):
            final[(f"ap{ap}", str(band))] = re.search(rf"{interface} now: channel (\d+)/", state).group(1)
    for snapshot, expected in (("before", {key: ("6" if key[1] == "2" else "36") for key in final}), ("after", final)):
        drawn = {(g["attrs"]["data-ap"], g["attrs"]["data-band"]): g["attrs"]["data-channel"]
                 for g in elements(dom, "g", "ap", data_snapshot=snapshot)}
        assert drawn == expected, snapshot
    assert len(elements(dom, "tr", "decision")) >= 12
    assert {(e["attrs"]["data-ap"], e["attrs"]["data-radio"]) for e in elements(dom, "svg", "heard")} == {
        (f"ap{ap}", radio) for ap in range(1, 7) for radio in ("wlan0", "wlan1")}
    assert elements(dom, "section", id="summary"), "no summary"

    # A screenshot that shows the plans: many colours, and each channel of the plan after in
    # its own colour over at least a circle's worth of pixels.
    pixels = browser.png_pixels(browser.screenshot(page, (1400, 1800)))
    colours = pixels.colours()
    assert len(colours) > 500, f"only {len(colours)} colours: the page looks blank"
    for channel, colour in check_channel_colours(set(final.values())).items():
        rgb = tuple(int(colour[i:i + 2], 16) for i in (1, 3, 5))
        assert colours[rgb] >= 200, f"channel {channel}'s colour {colour}: {colours[rgb]} pixels"
