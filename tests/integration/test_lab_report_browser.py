"""The lab report as a person sees it: Debian's Chromium, headless, opens a report written from
the sample site as a file; the DOM it builds has every access point, channel, decision and chart,
and its screenshot is a picture in the channels' colours, not a blank page."""
import pytest

from harness import browser
from harness.labreport import check_access_points, check_channel_colours, elements, plan_radios, report, sample

WINDOW = (1400, 1800)


@pytest.fixture(scope="module")
def data():
    return sample()


@pytest.fixture(scope="module")
def written(data, tmp_path_factory):
    path = tmp_path_factory.mktemp("report") / "report.html"
    report.write_report(path, data)
    return path


def test_the_browser_builds_every_access_point_channel_decision_and_chart(data, written):
    dom = browser.dump_dom(written)
    assert "orvd lab: 6 access points" in elements(dom, "section", None, id="summary")[0]["text"]
    for which in ("before", "after"):
        assert len(elements(dom, "section", None, id=f"plan-{which}")) == 1, which
        check_access_points(dom, data, which)
    rows = elements(dom, "tr", "decision")
    assert sorted((r["attrs"]["data-ap"], r["attrs"]["data-radio"]) for r in rows) == sorted(
        (d["ap"], d["radio"]) for d in data["decisions"]
    )
    for entry in data["heard"]:
        assert len(elements(dom, "svg", "heard", data_ap=entry["ap"], data_radio=entry["radio"])) == 1, entry
    assert len(elements(dom, "rect", "bar")) == sum(len(e["channels"]) for e in data["heard"])


def test_the_screenshot_shows_the_plans_in_the_channels_colours(data, written):
    pixels = browser.png_pixels(browser.screenshot(written, WINDOW))
    assert (pixels.width, pixels.height) == WINDOW
    colours = pixels.colours()
    assert len(colours) > 500, f"only {len(colours)} colours: the page looks blank"
    background, share = colours.most_common(1)[0]
    assert share < 0.8 * pixels.width * pixels.height, f"{background} covers most of the page"
    channels = {int(c) for which in ("before", "after") for _, _, c in plan_radios(data, which)}
    for channel, colour in sorted(check_channel_colours(channels).items()):
        rgb = tuple(int(colour[i:i + 2], 16) for i in (1, 3, 5))
        # A circle of the plan at least: a few hundred pixels of exactly its fill.
        assert colours[rgb] >= 200, f"channel {channel}'s colour {colour}: {colours[rgb]} pixels"
