"""The text summaries: the neighbour table per radio and one line per decision."""
from samples import PEER_FACTORY, default_radios, heard, radio, rrm_response
from sim.controller import policy, summary
from sim.controller.policy import AccessPoint


def response():
    return rrm_response(
        default_radios(),
        [heard("02:00:00:00:00:01", -50, 6), heard("02:00:00:00:00:02", -71, 1, 40, "lower"),
         heard("02:00:00:00:00:03", -64, 6), heard("02:00:00:00:01:01", -55, 40, 80, "lu")],
        [heard("02:00:00:00:00:01", -52, 6)],
    )


def test_the_neighbour_table_groups_each_radios_neighbours_by_channel():
    lines = summary.neighbour_table(response()).splitlines()
    assert lines[0] == "A4:5E:60:00:10:00: 4 neighbours heard"
    assert lines[1] == "radio 0 2.4 GHz up: channel 6/20 MHz, power 17 dBm (10..20), available 1 6 11"
    assert lines[2:5] == [
        "   ch   n  best  signals (dBm)",
        "    1   1   -71  -71/40",
        "    6   2   -51  -51 -64",
    ]
    assert lines[5].startswith("radio 1 5 GHz up: channel 36/80 MHz")
    assert lines[7] == "   40   1   -55  -55/80"


def test_a_radio_that_heard_nothing_or_is_off_says_so():
    radios = [radio(0, 6, available="1 6 11 "), radio(1, 36, status=0)]
    lines = summary.neighbour_table(rrm_response(radios)).splitlines()
    assert lines[2] == "  (no neighbours heard)"
    assert lines[3] == "radio 1 ? GHz off locked: channel 0/20 MHz, power 16 dBm (10..20), available -"
    assert lines[4] == "  (no neighbours heard)"


def test_one_line_per_radio_of_a_decision():
    plan = policy.plan(response())
    lines = summary.decision_lines("A4:5E:60:00:10:00", plan).splitlines()
    assert lines == [
        "A4:5E:60:00:10:00 radio 0 2.4 GHz: channel 6/20 -> 11/20, power 17 -> 20 dBm; "
        "interference -50.8 dBm -> none from 3 neighbours",
        "A4:5E:60:00:10:00 radio 1 5 GHz: channel 36/80 -> 52/80, power 20 dBm kept; "
        "interference -55.0 dBm -> none from 1 neighbour",
    ]


def test_a_decision_line_names_skipped_radios_back_off_and_roaming_data():
    radios = default_radios()
    radios[0]["locked-for-tpc"] = 1
    radios[1]["available-channels"] = "36 40 44 48 "
    peer = AccessPoint(PEER_FACTORY["mac"], PEER_FACTORY["serial"], default_radios("a4:5e:60:00:20"))
    plan = policy.plan(rrm_response(radios, [heard("02:00:00:00:01:01", -50, 44)]), peers=[peer])
    lines = summary.decision_lines("AP", plan).splitlines()
    assert lines[0] == "AP radio 0: left alone (locked)"
    assert lines[1] == ("AP radio 1 5 GHz: channel 36/80 kept, power 20 -> 17 dBm (strong co-channel: 1); "
                        "interference -50.0 dBm -> -50.0 dBm from 1 neighbour")
    assert lines[2] == "AP 802.11k: 2 neighbour entries: A4:5E:60:00:20:00 ch 6, A4:5E:60:00:20:10 ch 36"
    assert lines[3] == "AP 802.11r: 3 VAPs, 3 remotes"
