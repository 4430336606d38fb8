"""The planning policy: channel choice by interference, bandwidth fallback, power, roaming data."""
import math

import pytest

from samples import PEER_FACTORY, FACTORY, default_radios, heard, radio, rrm_response, vap
from sim.controller import policy
from sim.controller.policy import AccessPoint, Settings


def choice_for(plan, radio_id):
    return next(c for c in plan.choices if c.id == radio_id)


# -- channels and overlap -----------------------------------------------------------------------


def test_available_channels_text_becomes_sorted_unique_numbers():
    assert policy.parse_channels("1 6 11 ") == [1, 6, 11]
    assert policy.parse_channels("36  40 36 x ") == [36, 40]
    assert policy.parse_channels("") == [] and policy.parse_channels(None) == []


@pytest.mark.parametrize(
    "a, b, weight",
    [(6, 6, 1.0), (6, 7, 0.8), (6, 5, 0.8), (6, 8, 0.6), (6, 9, 0.4), (6, 10, 0.2), (6, 11, 0.0), (1, 13, 0.0),
     (13, 14, 0.52), (36, 36, 1.0), (36, 40, 0.0), (6, 36, 0.0)],
)
def test_overlap_of_two_20_mhz_channels(a, b, weight):
    assert policy.channel_overlap(a, b) == pytest.approx(weight)
    assert policy.channel_overlap(b, a) == pytest.approx(weight)


@pytest.mark.parametrize(
    "channel, bandwidth, primary, channels",
    [
        (6, 20, "none", (6,)),
        (6, 40, "upper", (2, 6)),
        (1, 40, "lower", (1, 5)),
        (36, 40, "lower", (36, 40)),
        (40, 40, "upper", (36, 40)),
        (44, 40, "none", (44, 48)),
        (44, 80, "ul", (36, 40, 44, 48)),
        (157, 80, "ul", (149, 153, 157, 161)),
        (60, 80, "none", (52, 56, 60, 64)),
        (0, 20, "none", ()),
    ],
)
def test_a_neighbour_occupies_the_20_mhz_channels_of_its_bandwidth(channel, bandwidth, primary, channels):
    assert policy.occupied(channel, bandwidth, primary) == channels


def test_a_wide_neighbour_spreads_its_power_over_its_sub_channels():
    # an 80 MHz neighbour puts a quarter of its power on each 20 MHz channel of its block
    assert policy.overlap_weight((44,), (36, 40, 44, 48)) == pytest.approx(0.25)
    assert policy.overlap_weight((52,), (36, 40, 44, 48)) == 0.0
    # a 20 MHz neighbour inside an 80 MHz candidate counts whole
    assert policy.overlap_weight((36, 40, 44, 48), (40,)) == pytest.approx(1.0)
    # a 40 MHz 2.4 GHz neighbour on 1+5: nothing of 1 and 0.8 of 5 reach channel 6
    assert policy.overlap_weight((6,), (1, 5)) == pytest.approx(0.4)


def test_signals_from_several_passes_are_averaged_per_neighbour():
    merged = policy.merge_environment(
        [[heard("aa:00:00:00:00:01", -60, 6)], [heard("AA:00:00:00:00:01", -70, 6), heard("aa:00:00:00:00:02", -80, 1)]]
    )
    assert [(n.bssid, n.rssi, n.heard) for n in merged] == [("aa:00:00:00:00:01", -65, 2), ("aa:00:00:00:00:02", -80, 1)]
    assert merged[0].milliwatts == pytest.approx(10 ** -6.5)


# -- channel choice -------------------------------------------------------------------------------


def two_radio_response(*passes, radios=None):
    return rrm_response(radios or default_radios(), *passes)


def test_the_channel_with_the_least_interference_wins():
    plan = policy.plan(two_radio_response([
        heard("02:00:00:00:00:01", -50, 6), heard("02:00:00:00:00:02", -60, 1), heard("02:00:00:00:00:03", -85, 11),
    ]))
    chosen = choice_for(plan, 0)
    assert (chosen.channel, chosen.bandwidth) == (11, 20)
    assert chosen.interference == pytest.approx(policy.dbm_to_mw(-85))
    assert chosen.old_interference == pytest.approx(policy.dbm_to_mw(-50))


def test_adjacent_channel_leakage_outweighs_a_weak_co_channel_neighbour():
    plan = policy.plan(two_radio_response([
        heard("02:00:00:00:00:01", -88, 6),  # weak, on 6 itself
        heard("02:00:00:00:00:02", -50, 2),  # strong, one step from 1
        heard("02:00:00:00:00:03", -52, 10),  # strong, one step from 11
    ]))
    assert choice_for(plan, 0).channel == 6


def test_a_radio_stays_where_it_is_on_a_tie_and_else_takes_the_lowest_channel():
    assert choice_for(policy.plan(two_radio_response()), 0).channel == 6
    radios = default_radios()
    radios[0]["channel"] = 3  # not one of its available channels: no place to stay
    assert choice_for(policy.plan(two_radio_response(radios=radios)), 0).channel == 1


def test_only_neighbours_of_the_radios_band_count():
    plan = policy.plan(two_radio_response([heard("02:00:00:00:00:05", -40, 36, 20)]))
    assert choice_for(plan, 0).interference == 0.0
    assert choice_for(plan, 0).neighbours == 0
    assert choice_for(plan, 1).neighbours == 1


@pytest.mark.parametrize("field, reason", [("status", "disabled"), ("locked-for-dca", "locked"), ("locked-for-tpc", "locked")])
def test_locked_or_disabled_radios_are_left_out(field, reason):
    radios = default_radios()
    if field == "status":
        radios[0] = radio(0, 6, status=0)
    else:
        radios[0][field] = 1
    plan = policy.plan(two_radio_response([heard("02:00:00:00:00:01", -40, 6)], radios=radios))
    assert [r["id"] for r in plan.body["radios"]] == [1]
    assert [(s.id, s.reason) for s in plan.skipped] == [(0, reason)]


def test_the_decision_is_an_rrm_info_body():
    plan = policy.plan(two_radio_response([heard("02:00:00:00:00:01", -50, 6)]))
    assert list(plan.body) == ["use-tpc", "use-dca", "radios"]
    assert plan.body["use-tpc"] == 1 and plan.body["use-dca"] == 1
    assert plan.body["radios"][0] == {"id": 0, "channel": 1, "bandwidth": 20, "power": 20, "primary-channel": "none"}
    assert plan.fbt is None


# -- bandwidth -----------------------------------------------------------------------------------


def five_ghz(available, bandwidth=80, channel=36):
    return [radio(1, channel, bandwidth, available=available, power=20, power_max=23, power_min=5,
                  vaps=[vap(0, "Orion-Corp-5G", "a4:5e:60:00:10:11")])]


def test_80_mhz_moves_to_the_quietest_whole_block():
    response = rrm_response(
        five_ghz("36 40 44 48 52 56 60 64 "),
        [heard("02:00:00:00:01:01", -55, 44, 20), heard("02:00:00:00:01:02", -70, 60, 80, "ul")],
    )
    chosen = choice_for(policy.plan(response), 1)
    assert (chosen.channel, chosen.bandwidth, chosen.primary) == (52, 80, "none")


def test_80_mhz_needs_the_whole_block_among_the_available_channels():
    # 48 is missing: the first block cannot be used, the second can
    response = rrm_response(five_ghz("36 40 44 52 56 60 64 "), [])
    chosen = choice_for(policy.plan(response), 1)
    assert (chosen.channel, chosen.bandwidth) == (52, 80)


@pytest.mark.parametrize(
    "available, expected",
    [("36 40 52 56 ", (36, 40, "lower")), ("36 44 52 ", (36, 20, "none"))],
)
def test_without_a_whole_80_mhz_block_the_radio_falls_back_to_40_then_20(available, expected):
    chosen = choice_for(policy.plan(rrm_response(five_ghz(available), [])), 1)
    assert (chosen.channel, chosen.bandwidth, chosen.primary) == expected


def test_40_mhz_picks_the_quieter_pair_and_names_the_primary_position():
    response = rrm_response(
        five_ghz("36 40 44 48 ", bandwidth=40, channel=40),
        [heard("02:00:00:00:01:01", -50, 36, 20)],
    )
    chosen = choice_for(policy.plan(response), 1)
    assert (chosen.channel, chosen.bandwidth, chosen.primary) == (44, 40, "lower")


def test_40_mhz_on_2_4_ghz_needs_both_channels_and_else_uses_20():
    wide = [radio(0, 1, 40, available="1 2 3 4 5 6 7 8 9 10 11 12 13 ", primary="lower", vaps=[])]
    plan = policy.plan(rrm_response(wide, [heard("02:00:00:00:00:01", -45, 3, 20)]))
    chosen = choice_for(plan, 0)
    # the first pair five channels clear of 3 on both halves
    assert (chosen.channel, chosen.bandwidth, chosen.primary) == (8, 40, "lower")
    assert chosen.interference == 0.0
    narrow = [radio(0, 1, 40, available="1 6 11 ", primary="lower", vaps=[])]
    assert choice_for(policy.plan(rrm_response(narrow, [])), 0).bandwidth == 20


# -- power ---------------------------------------------------------------------------------------


def test_full_power_without_a_strong_co_channel_neighbour():
    radios = [radio(0, 6, available="6 ", power=12, power_min=10, power_max=20, vaps=[])]
    plan = policy.plan(rrm_response(radios, [heard("02:00:00:00:00:01", -75, 6), heard("02:00:00:00:00:02", -40, 9)]))
    assert choice_for(plan, 0).power == 20


def test_a_strong_co_channel_neighbour_makes_the_radio_back_off_3_db():
    radios = [radio(0, 6, available="6 ", power=20, power_min=10, power_max=20, vaps=[])]
    plan = policy.plan(rrm_response(radios, [heard("02:00:00:00:00:01", -55, 6)]))
    chosen = choice_for(plan, 0)
    assert chosen.power == 17 and chosen.strong_co_channel == ["02:00:00:00:00:01"]


def test_a_strong_neighbour_on_a_secondary_channel_is_co_channel_too():
    radios = five_ghz("36 40 44 48 ")
    plan = policy.plan(rrm_response(radios, [heard("02:00:00:00:01:01", -50, 48, 20)]))
    assert choice_for(plan, 1).power == 20  # power-max 23 minus 3


def test_power_stays_within_the_radios_limits():
    radios = [radio(0, 6, available="6 ", power=12, power_min=19, power_max=20, vaps=[])]
    plan = policy.plan(rrm_response(radios, [heard("02:00:00:00:00:01", -30, 6)]))
    assert choice_for(plan, 0).power == 19
    assert policy.plan(rrm_response(radios, []), settings=Settings(backoff_db=6)).body["radios"][0]["power"] == 20
    assert choice_for(policy.plan(rrm_response(radios, [heard("02:00:00:00:00:01", -62, 6)]),
                                  settings=Settings(strong_rssi=-70)), 0).power == 19


# -- two access points ---------------------------------------------------------------------------


def peer():
    return AccessPoint(PEER_FACTORY["mac"], PEER_FACTORY["serial"], default_radios("a4:5e:60:00:20"))


def me():
    return AccessPoint(FACTORY["mac"], FACTORY["serial"], default_radios("a4:5e:60:00:10"))


def test_with_a_peer_the_plan_carries_neighbour_lists_and_switches_802_11r_on():
    plan = policy.plan(two_radio_response([]), peers=[peer()], serial=FACTORY["serial"])
    assert list(plan.body) == ["use-tpc", "use-dca", "use-80211r", "radios", "802dot11k"]
    assert plan.body["use-80211r"] == 1
    assert plan.body["802dot11k"] == [
        {"neighbour-mac": "A4:5E:60:00:20:00", "channel": 6,
         "vaps": [{"id": 0, "ssid": "Orion-Corp"}, {"id": 1, "ssid": "Orion-Staff"}, {"id": 2, "ssid": "Orion-Guest"}]},
        {"neighbour-mac": "A4:5E:60:00:20:10", "channel": 36,
         "vaps": [{"id": 0, "ssid": "Orion-Corp-5G"}, {"id": 1, "ssid": "Orion-Secure"}, {"id": 2, "ssid": "Orion-Legacy"}]},
    ]


def test_each_radio_of_a_peer_is_named_by_its_own_base_mac():
    # orvd puts the VAP id into the low four bits: radio 1's VAP 1 is then ...:20:11, the key
    # holder id the peer derives for it
    assert policy.radio_base_mac("A4:5E:60:00:20:00", 0) == "A4:5E:60:00:20:00"
    assert policy.radio_base_mac("a4:5e:60:00:20:00", 1) == "A4:5E:60:00:20:10"
    assert policy.radio_base_mac("A4:5E:60:00:20:00", 1)[:-1] + "1" == policy.r1_key_holder_id("A4:5E:60:00:20:00", 1, 1)


def test_neighbour_lists_name_only_vaps_of_shared_ssids():
    other = peer()
    other.radios[0]["vaps"][1]["ssid"] = "Elsewhere"
    other.radios[1]["status"] = 0
    reports = policy.neighbour_reports(default_radios(), [other])
    assert reports == [{"neighbour-mac": "A4:5E:60:00:20:00", "channel": 6,
                        "vaps": [{"id": 0, "ssid": "Orion-Corp"}, {"id": 2, "ssid": "Orion-Guest"}]}]


def test_fbt_info_points_the_two_access_points_at_each_other():
    mine = policy.fbt_info(me(), [peer()], "default-rrm-domain")
    theirs = policy.fbt_info(peer(), [me()], "default-rrm-domain")
    assert mine["fbt-reassoc-deadline"] == 1000 and mine["fbt-over-ds"] == 0
    # fast-transition VAPs: Orion-Corp on radio 0, Orion-Corp-5G and Orion-Secure on radio 1
    assert [(v["radio_id"], v["vap_id"]) for v in mine["vaps"]] == [(0, 0), (1, 0), (1, 1)]
    for entry in mine["vaps"]:
        (remote,) = entry["remotes"]
        assert remote["remote-r0-kh-id"] == PEER_FACTORY["serial"]
        assert remote["remote-r1-kh-id"] == policy.r1_key_holder_id(PEER_FACTORY["mac"], entry["vap_id"], entry["radio_id"])
        counterpart = next(v for v in theirs["vaps"] if (v["radio_id"], v["vap_id"]) == (entry["radio_id"], entry["vap_id"]))
        # the key A holds for B is B's own key, and the other way round
        assert remote["remote-r1-kh-key"] == counterpart["fbt-rrb-key"]
        assert counterpart["remotes"][0]["remote-r1-kh-key"] == entry["fbt-rrb-key"]
        for key in (entry["fbt-rrb-key"], remote["remote-r1-kh-key"]):
            assert len(key) == 32 and int(key, 16) >= 0
    assert mine["vaps"][0]["remotes"][0]["remote-r1-kh-id"] == "A4:5E:60:00:20:00"
    assert mine["vaps"][2]["remotes"][0]["remote-r1-kh-id"] == "A4:5E:60:00:20:11"


def test_the_remote_key_holder_id_can_be_the_peers_vap_mac():
    body = policy.fbt_info(me(), [peer()], "d", Settings(r1kh_from_vap_mac=True))
    assert [v["remotes"][0]["remote-r1-kh-id"] for v in body["vaps"]] == [
        "A4:5E:60:00:20:01", "A4:5E:60:00:20:11", "A4:5E:60:00:20:12"]


def test_a_plan_with_peers_has_fbt_info_with_its_new_channels_known():
    plan = policy.plan(two_radio_response([heard("02:00:00:00:00:01", -50, 6)]), peers=[peer()], serial=FACTORY["serial"])
    assert plan.fbt is not None and len(plan.fbt["vaps"]) == 3
    radios = policy.with_decisions(default_radios(), plan.choices)
    assert radios[0]["channel"] == 1 and radios[0]["vaps"] == default_radios()[0]["vaps"]


@pytest.mark.parametrize(
    "base, vap_id, radio_id, expected",
    [
        ("00:11:22:33:44:50", 1, 1, "00:11:22:33:44:61"),
        ("00:11:22:33:44:50", 0, 0, "00:11:22:33:44:50"),
        ("00:11:22:FF:FF:FF", 1, 0, "00:11:22:FF:FF:FF"),
        ("a4:5e:60:00:10:f8", 3, 1, "A4:5E:60:00:11:0B"),
    ],
)
def test_r1_key_holder_id_follows_the_access_points_own_rule(base, vap_id, radio_id, expected):
    assert policy.r1_key_holder_id(base, vap_id, radio_id) == expected


def test_interference_is_in_milliwatts():
    assert policy.interference((6,), policy.merge_environment([[heard("x", -60, 7)]])) == pytest.approx(0.8e-6)
    assert policy.mw_to_dbm(1e-6) == pytest.approx(-60) and policy.mw_to_dbm(0) is None
    assert math.isclose(policy.dbm_to_mw(-30), 1e-3)


# -- a site of access points that all decide -----------------------------------------------------


def test_a_radio_moves_only_for_at_least_3_db_less_interference():
    # on 6 it hears -70 dBm; on 1 and 11 a neighbour 2 dB weaker: not worth the move
    near_even = [heard("02:00:00:00:00:01", -70, 6), heard("02:00:00:00:00:02", -72, 1), heard("02:00:00:00:00:03", -72, 11)]
    assert choice_for(policy.plan(two_radio_response(near_even)), 0).channel == 6
    # 4 dB weaker on 1: it moves, and says how much it gained
    clearer = [heard("02:00:00:00:00:01", -70, 6), heard("02:00:00:00:00:02", -74, 1), heard("02:00:00:00:00:03", -72, 11)]
    chosen = choice_for(policy.plan(two_radio_response(clearer)), 0)
    assert chosen.channel == 1
    assert chosen.interference == pytest.approx(policy.dbm_to_mw(-74))
    # without the margin it chases the 2 dB
    assert choice_for(policy.plan(two_radio_response(near_even), settings=Settings(min_gain_db=0)), 0).channel == 1


def test_a_radio_that_stays_reports_the_interference_of_its_own_channel():
    near_even = [heard("02:00:00:00:00:01", -70, 6), heard("02:00:00:00:00:02", -72, 1), heard("02:00:00:00:00:03", -72, 11)]
    chosen = choice_for(policy.plan(two_radio_response(near_even)), 0)
    assert chosen.interference == pytest.approx(chosen.old_interference)


def test_a_managed_neighbour_counts_on_the_channel_the_service_gave_it():
    other = peer()
    other.radios[0]["channel"] = 11  # decided since: it was heard on 6 before it moved
    # its VAP 0 heard strongly on 6, by the address it reports; an external one on 1
    scan = [heard(other.radios[0]["vaps"][0]["mac"], -50, 6), heard("02:00:00:00:00:09", -60, 1)]
    chosen = choice_for(policy.plan(two_radio_response(scan), peers=[other]), 0)
    assert chosen.channel == 6  # 6 is clear now; 11 is where the peer is
    # without the peer known, the scan is all it has: 6 looks the worst
    assert choice_for(policy.plan(two_radio_response(scan)), 0).channel == 11


def test_a_managed_neighbour_is_also_known_by_the_address_orvd_derives_for_it():
    other = peer()
    other.radios[0]["channel"] = 11
    derived = policy.r1_key_holder_id(PEER_FACTORY["mac"], 2, 0).lower()
    other.radios[0]["vaps"][2]["mac"] = "02:99:99:99:99:99"  # its interface address set apart
    (moved,) = policy.as_planned(policy.merge_environment([[heard(derived, -50, 6)]]), [other])
    assert (moved.channel, moved.rssi) == (11, -50)
    (unknown,) = policy.as_planned(policy.merge_environment([[heard("02:00:00:00:00:01", -50, 6)]]), [other])
    assert unknown.channel == 6


def test_a_radio_that_backed_off_stays_down_while_its_neighbour_could_be_strong_at_full_power():
    # At full power, -72 dBm is not strong (-70): it stays at the maximum.
    full = [radio(0, 6, available="6 ", power=20, power_max=20, vaps=[])]
    assert choice_for(policy.plan(rrm_response(full, [heard("02:00:00:00:00:01", -72, 6)])), 0).power == 20
    # Backed off to 17, the same -72 may be a neighbour backed off too: it stays at 17 ...
    down = [radio(0, 6, available="6 ", power=17, power_max=20, vaps=[])]
    kept = choice_for(policy.plan(rrm_response(down, [heard("02:00:00:00:00:01", -72, 6)])), 0)
    assert (kept.power, kept.strong_co_channel) == (17, ["02:00:00:00:00:01"])
    # ... and comes back up once the neighbour is more than the backoff below the threshold.
    assert choice_for(policy.plan(rrm_response(down, [heard("02:00:00:00:00:01", -74, 6)])), 0).power == 20
