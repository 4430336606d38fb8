"""Messages as orvd sends them, for the reference service's tests: the two-radio access point
of sim/vdev/scenarios/default.json and builders for radios and scan results."""
import copy
import json

FACTORY = {"board": "VX-3100", "hw": "rev B", "serial": "VX31B0012345", "mac": "A4:5E:60:00:10:00"}
PEER_FACTORY = {"board": "VX-3100", "hw": "rev B", "serial": "VX31B0099999", "mac": "A4:5E:60:00:20:00"}


def vap(vap_id, ssid, mac, dot11k=1, dot11r=1):
    return {"id": vap_id, "ssid": ssid, "mac": mac, "802dot11k": dot11k, "802dot11r": dot11r}


def radio(radio_id, channel, bandwidth=20, *, available="1 6 11 ", power=17, power_min=10, power_max=20,
          status=1, locked=0, primary="none", vaps=None):
    locked = locked if status else 1  # orvd reports a radio that is off as locked
    described = {
        "id": radio_id, "status": status, "mac-offset": 0, "radio-mac-count": 8,
        "locked-for-dca": locked, "locked-for-tpc": locked, "locked-for-balancer": 1,
        "power": power if status else 16, "power-max": power_max, "power-min": power_min,
        "channel": channel if status else 0, "bandwidth": bandwidth if status else 20,
        "primary-channel": primary if status else "none",
    }
    if status:
        described["available-channels"] = available
        described["vaps"] = list(vaps or [])
    return described


def default_radios(base="a4:5e:60:00:10"):
    return [
        radio(0, 6, 20, available="1 6 11 ", power=17, vaps=[
            vap(0, "Orion-Corp", f"{base}:01", 1, 1),
            vap(1, "Orion-Staff", f"{base}:02", 1, 0),
            vap(2, "Orion-Guest", f"{base}:03", 0, 0),
        ]),
        radio(1, 36, 80, available="36 40 44 48 52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 ",
              power=20, vaps=[
                  vap(0, "Orion-Corp-5G", f"{base}:11", 1, 1),
                  vap(1, "Orion-Secure", f"{base}:12", 1, 1),
                  vap(2, "Orion-Legacy", f"{base}:13", 0, 0),
              ]),
    ]


def envelope(cmd, ap_mac=FACTORY["mac"], domain="default-rrm-domain"):
    return {"version": "2.2", "service": "rrm", "cmd": cmd, "ap-mac": ap_mac, "domain": domain}


def subscribe_request(factory=FACTORY, radios=None, with_clients=True):
    message = envelope("subscribe-request", factory["mac"])
    message["ap-mac-count"] = 16
    message["factory"] = dict(factory)
    base = factory["mac"].lower()[:-3]
    message["radios"] = copy.deepcopy(radios if radios is not None else default_radios(base))
    if with_clients:
        for described in message["radios"]:
            if described["status"] == 1:
                described["assoclist"] = [{"mac": "f0:18:98:3c:21:4a", "ssid": described["vaps"][0]["ssid"], "rssi": -48}]
    return message


def heard(bssid, rssi, channel, bandwidth=20, primary="none", tx_power=0):
    return {"bssid": bssid, "rssi": rssi, "channel": channel, "tx-power": tx_power,
            "primary-channel": primary, "bandwidth": bandwidth}


def rrm_response(radios, *passes, ap_mac=FACTORY["mac"], domain="default-rrm-domain"):
    message = envelope("rrm-response", ap_mac, domain)
    message["radios"] = copy.deepcopy(radios)
    message["rf-environment"] = [list(p) for p in passes if p]
    return message


def text(message):
    return json.dumps(message)
