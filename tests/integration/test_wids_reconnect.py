"""Reconnect delays, measured over repeated refusals by the service (slow: real delays)."""
import re

import pytest

from harness.programs import wids_config


def delay_ranges(initial, maximum, count):
    """The [low, high) range of each drawn delay: the base doubles from the initial value
    (0 counting as 1) up to the maximum; a base of 0 draws as if it were 2."""
    ranges = []
    base = initial
    for _ in range(count):
        drawn = base if base != 0 else 2
        ranges.append((drawn // 2, drawn // 2 + drawn))
        base = min(maximum, 2 * (base if base != 0 else 1))
    return ranges


@pytest.mark.parametrize("initial,maximum,attempts", [(0, 0, 4), (2, 8, 4), (10, 5, 3)])
def test_reconnect_delays_stay_in_bounds_and_double_up_to_the_maximum(
    initial, maximum, attempts, ws_server, make_orvd
):
    ws_server.refuse_status = 503
    orvd = make_orvd(wids_config(ws_server.port, initial=initial, maximum=maximum))
    orvd.wait_log(r"Delay before connection", count=attempts + 1, timeout=25 * attempts)

    ranges = [tuple(map(int, re.search(r"\[(\d+);(\d+)\)", line).groups()))
              for line in orvd.log_lines(r"Generate delay into")][:attempts]
    delays = [int(re.search(r"connection: (\d+) sec", line).group(1))
              for line in orvd.log_lines(r"Delay before connection")][:attempts]
    assert ranges == delay_ranges(initial, maximum, attempts)
    for delay, (low, high) in zip(delays, ranges):
        assert low <= delay < high

    # Each refused attempt is followed by the 1 s pause and the next drawn delay.
    times = ws_server.attempts
    assert len(times) >= attempts
    for i in range(1, attempts):
        gap = times[i] - times[i - 1]
        assert delays[i] + 0.9 <= gap <= delays[i] + 3.0, (i, gap, delays)
    print(f"\nreconnect {initial}/{maximum}: delays {delays}, attempt gaps "
          f"{[round(times[i] - times[i - 1], 2) for i in range(1, attempts)]}")
