"""scripts/lab as a site, end to end against the programs already built: an office of six
access points that hear each other, planned for two minutes by the reference service. The
printed interference falls, every message validates, everything is stopped and removed, and
the report opens in a real browser with the plan before and after."""
import re
import subprocess

from harness import browser
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

    # The report: the plan before and after for each band, the decisions, the channels heard.
    dom = browser.dump_dom(page)
    for snapshot in ("before", "after"):
        for ap in range(1, 7):
            for band in (2, 5):
                assert re.search(rf'<g [^>]*class="ap"[^>]*data-ap="ap{ap}"[^>]*data-band="{band}"[^>]*'
                                 rf'data-snapshot="{snapshot}"', dom), (snapshot, ap, band)
    assert len(re.findall(r'<tr [^>]*class="decision"', dom)) >= 12
    assert len(re.findall(r'<svg [^>]*class="heard"', dom)) == 12
    pixels = browser.png_pixels(browser.screenshot(page, (1400, 1800)))
    assert len(set(pixels)) > 20, "the screenshot of the report is blank"
