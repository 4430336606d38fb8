"""The protocol schemas: each is a valid schema, accepts the messages orvd really exchanges
(texts as the unit tests of rrm/ and docs/protocol.md give them), refuses broken variants,
and schema_name picks the right one. Key order, which a schema cannot express, is checked
here through protocol.schema.key_order_errors.

Run with: /usr/bin/python3 -m pytest -q tests/protocol
"""
import copy
import json
import pathlib
import subprocess
import sys
import urllib.parse

import jsonschema
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from protocol import schema  # noqa: E402

SCHEMA_DIR = ROOT / "protocol" / "schemas"

FROM_ORVD = ["subscribe-request", "unsubscribe-request", "rrm-response", "rrm-mode-response",
             "rrm-config-changed", "rrm-probe-response", "internal-ipc", "fbt-params"]
TO_ORVD = ["subscribe-response", "rrm-info", "rrm-update", "rrm-request-mode", "fbt-info",
           "rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request", "rrm-client-assoc-ack"]
ALL_NAMES = FROM_ORVD + TO_ORVD

# ---- texts orvd writes (tests/unit/rrm/*_test.cpp) ---------------------------------------

SERVING_RADIO = (
    '{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,'
    '"locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":6,"bandwidth":20,'
    '"primary-channel":"none","available-channels":"1 6 11 ",'
    '"vaps":[{"id":0,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:01","802dot11k":1,"802dot11r":1},'
    '{"id":2,"ssid":"Orion-Guest","mac":"a4:5e:60:00:10:03","802dot11k":0,"802dot11r":0}]')
ASSOCLIST = (',"assoclist":[{"mac":"f0:18:98:3c:21:4a","ssid":"Orion-Corp","rssi":-48},'
             '{"mac":"3c:22:fb:10:20:30","ssid":"Orion-Guest","rssi":0}]')
RADIO_OFF = (
    '{"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,'
    '"locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,'
    '"primary-channel":"none"}')
FACTORY = '{"board":"VX-3100","hw":"rev B","serial":"VX31B0012345","mac":"A4:5E:60:00:10:00"}'

SUBSCRIBE_REQUEST = (
    '{"version":"2.2","service":"rrm","cmd":"subscribe-request",'
    '"ap-mac":"A4:5E:60:00:10:00","domain":"default-rrm-domain","ap-mac-count":16,'
    '"factory":' + FACTORY + ',"radios":[' + SERVING_RADIO + ASSOCLIST + '},' + RADIO_OFF + ']}')

UNSUBSCRIBE_REQUEST = (
    '{"version":"2.2","service":"rrm","cmd":"unsubscribe-request","ap-mac":"A4:5E:60:00:10:00",'
    '"domain":"default-rrm-domain","factory":{"board":"VX-3100","hw":"rev B",'
    '"serial":"VX31B0012345","mac":"A4:5E:60:00:10:00"}}')

SCAN_RADIOS = (
    '"radios":[{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,'
    '"locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":6,"bandwidth":20,'
    '"primary-channel":"none","available-channels":"1 6 11 ",'
    '"vaps":[{"id":0,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:01","802dot11k":1,"802dot11r":0}]},'
    '{"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,'
    '"locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,'
    '"primary-channel":"none"}]')
RESPONSE_HEAD = ('{"version":"2.2","service":"rrm","cmd":"rrm-response","ap-mac":"A4:5E:60:00:10:00",'
                 '"domain":"default-rrm-domain",')
RRM_RESPONSE = (
    RESPONSE_HEAD + SCAN_RADIOS + ',"rf-environment":['
    '[{"bssid":"00:1a:2b:3c:4d:5e","rssi":-61,"channel":6,"tx-power":17,"primary-channel":"none",'
    '"bandwidth":20}],'
    '[{"bssid":"f0:9f:c2:aa:bb:cc","rssi":-75,"channel":36,"tx-power":20,"primary-channel":"upper",'
    '"bandwidth":40},'
    '{"bssid":"3c:22:fb:01:02:0d","rssi":-82,"channel":11,"tx-power":0,"primary-channel":"none",'
    '"bandwidth":20}]]}')
RRM_RESPONSE_SILENT = RESPONSE_HEAD + SCAN_RADIOS + ',"rf-environment":[]}'
RRM_RESPONSE_80 = (
    RESPONSE_HEAD + SCAN_RADIOS + ',"rf-environment":[[{"bssid":"02:00:00:00:00:01","rssi":-70,'
    '"channel":42,"tx-power":14,"primary-channel":"uu","bandwidth":80}]]}')


def report(cmd):
    return (
        '{"version":"2.2","service":"rrm","cmd":"' + cmd + '","ap-mac":"A4:5E:60:00:10:00",'
        '"domain":"default-rrm-domain","radios":['
        '{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,'
        '"locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":36,"bandwidth":40,'
        '"primary-channel":"lower","available-channels":"36 40 ",'
        '"vaps":[{"id":1,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:11","802dot11k":1,"802dot11r":1}]},'
        '{"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,"locked-for-tpc":1,'
        '"locked-for-balancer":1,"power":16,"power-max":20,"power-min":10,"channel":0,"bandwidth":20,'
        '"primary-channel":"none"}]}')


PROBE_HEAD = ('{"version":"2.2","service":"rrm","cmd":"rrm-probe-response","ap-mac":"A4:5E:60:00:10:00",'
              '"domain":"default-rrm-domain","radios":[')
PROBE_RESPONSE = PROBE_HEAD + '{"id":0,"probe-list":[{"mac":"0C:1A:2B:3C:4D:5E","ssid":"Orion-Corp","rssi":-61}]}]}'
PROBE_RESPONSE_TWO = (PROBE_HEAD + '{"id":0,"probe-list":[]},{"id":1,"probe-list":[{"mac":"F0:18:98:3C:21:4A",'
                      '"ssid":"Orion-Corp","rssi":-48}]}]}')

FBT_PARAMS = (
    '{"version":"2.2","service":"fbt","ft-config":{"enabled":"true","ft-over-ds":"false",'
    '"ft-psk-generate-local":"false","reassociation-deadline":20000,"mobility-domain":54202,'
    '"r0-key-holder-id":"VX31B0012345","r1-key-holder-id":"00:11:22:33:44:61",'
    '"mac":{"00:11:22:33:55:61":{"name":"00:11:22:33:55:61","index":"0","r0-kh-id":"VX31B0099999",'
    '"r1-kh-id":"00:11:22:33:55:61","r0-kh-key":"rrbkey0123","r1-kh-key":"r1key4567"}}}}')
# A peer whose texts the service left out, no factory data, no peers at all.
FBT_PARAMS_SPARSE = (
    '{"version":"2.2","service":"fbt","ft-config":{"enabled":"true","ft-over-ds":"true",'
    '"ft-psk-generate-local":"false","reassociation-deadline":1000,"mobility-domain":97,'
    '"r0-key-holder-id":"","r1-key-holder-id":"00:00:00:00:00:11",'
    '"mac":{"AA":{"name":"AA","index":"0","r1-kh-id":"AA"},"CC":{"name":"CC","index":"2","r1-kh-id":"CC"}}}}')
FBT_PARAMS_NO_PEERS = (
    '{"version":"2.2","service":"fbt","ft-config":{"enabled":"true","ft-over-ds":"true",'
    '"ft-psk-generate-local":"false","reassociation-deadline":0,"mobility-domain":0,'
    '"r0-key-holder-id":"VX31B0012345","r1-key-holder-id":"00:11:22:FF:FF:FF","mac":{}}}')

# The radio object of docs/protocol.md.
DOC_RADIO = (
    '{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":0,"locked-for-tpc":0,'
    '"locked-for-balancer":1,"power":17,"power-max":20,"power-min":10,"channel":6,"bandwidth":20,'
    '"primary-channel":"none","available-channels":"1 6 11 ",'
    '"vaps":[{"id":0,"ssid":"Orion-Corp","mac":"a4:5e:60:00:10:01","802dot11k":1,"802dot11r":1}],'
    '"assoclist":[{"mac":"f0:18:98:3c:21:4a","ssid":"Orion-Corp","rssi":-48}]}')
DOC_SUBSCRIBE_REQUEST = (
    '{"version":"2.2","service":"rrm","cmd":"subscribe-request","ap-mac":"A4:5E:60:00:10:00",'
    '"domain":"default-rrm-domain","ap-mac-count":16,'
    '"factory":{"board":"VX-3100","hw":"rev B","serial":"VX31B0012345","mac":"A4:5E:60:00:10:00"},'
    '"radios":[' + DOC_RADIO + ']}')
DOC_RRM_RESPONSE = (
    '{"version":"2.2","service":"rrm","cmd":"rrm-response","ap-mac":"A4:5E:60:00:10:00",'
    '"domain":"default-rrm-domain","radios":[' + DOC_RADIO + '],'
    '"rf-environment":[[{"bssid":"70:4f:57:77:07:07","rssi":-80,"channel":6,"tx-power":0,'
    '"primary-channel":"upper","bandwidth":40}]]}')

FROM_ORVD_EXAMPLES = {
    "subscribe-request": [SUBSCRIBE_REQUEST, DOC_SUBSCRIBE_REQUEST],
    "unsubscribe-request": [UNSUBSCRIBE_REQUEST],
    "rrm-response": [RRM_RESPONSE, RRM_RESPONSE_SILENT, RRM_RESPONSE_80, DOC_RRM_RESPONSE],
    "rrm-mode-response": [report("rrm-mode-response")],
    "rrm-config-changed": [report("rrm-config-changed")],
    "rrm-probe-response": [PROBE_RESPONSE, PROBE_RESPONSE_TWO],
    "internal-ipc": ['{"version":"2.2","service":"internal-ipc","cmd":"unlink"}',
                     '{"version":"2.2","service":"internal-ipc","cmd":"connected"}',
                     '{"version":"2.2","service":"internal-ipc","cmd":"disconnected"}'],
    "fbt-params": [FBT_PARAMS, FBT_PARAMS_SPARSE, FBT_PARAMS_NO_PEERS],
}

# ---- texts a service sends (tests/unit/rrm/*_test.cpp, docs/protocol.md) -------------------

ENVELOPE = '{"version":"2.2","service":"rrm","cmd":"%s"'
DOC_RRM_INFO = (
    '{"version":"2.2","service":"rrm","cmd":"rrm-info","use-tpc":1,"use-dca":1,"use-80211r":1,'
    '"radios":[{"id":1,"channel":44,"bandwidth":80,"power":18,"primary-channel":"lower",'
    '"no-balance-enterprise":0}],'
    '"802dot11k":[{"neighbour-mac":"00:11:22:33:44:50","channel":36,'
    '"vaps":[{"id":0,"ssid":"Orion-Corp-5G"}]}]}')
DOC_FBT_INFO = (
    '{"version":"2.2","service":"rrm","cmd":"fbt-info","fbt-reassoc-deadline":1000,"fbt-over-ds":1,'
    '"vaps":[{"vap_id":1,"radio_id":1,"fbt-rrb-key":"00112233445566778899aabbccddeeff",'
    '"remotes":[{"remote-r1-kh-id":"A4:5E:60:00:20:11","remote-r0-kh-id":"VX31B0099999",'
    '"remote-r1-kh-key":"ffeeddccbbaa99887766554433221100"}]}]}')


def body(cmd, text=""):
    return ENVELOPE % cmd + ("," + text if text else "") + "}"


TO_ORVD_EXAMPLES = {
    "subscribe-response": [
        body("subscribe-response", '"status":"success"'),
        body("subscribe-response", '"status":"SUCCESS","domain":"site-7"'),
        body("subscribe-response", '"status":"fail","code":503'),
        body("subscribe-response", '"status":"fail","code":403'),
        body("subscribe-response", '"code":200'),
        body("subscribe-response",
             '"status":"success","config":{"use-tpc":1,"use-80211r":1,"radios":[{"id":0,"power":9}]}'),
        body("subscribe-response", '"status":"success","domain":"site-7","config":'
             + DOC_RRM_INFO.replace(ENVELOPE % "rrm-info" + ",", "{")),
    ],
    "rrm-info": [
        DOC_RRM_INFO,
        '{"version":"2.2","service":"RRM","cmd":"RRM-INFO","use-80211r":1}',
        body("rrm-info", '"use-tpc":1,"use-dca":1,"radios":[{"id":0,"channel":36,"bandwidth":40,'
             '"primary-channel":"UPPER"}]'),
        body("rrm-info", '"use-tpc":1,"radios":[{"id":0,"power":10},{"id":3,"power":12},{"id":1,"power":18}]'),
        body("rrm-info", '"radios":[{"id":0,"no-balance-enterprise":1,"vorna-client-max-age":30,'
             '"vorna-client-rssi-renew":5,"vorna-try-no-balance":1}]'),
        body("rrm-info", '"use-tpc":1,"use-dca":1,"802dot11k":[{"neighbour-mac":"a4:5e:60:00:20:00",'
             '"channel":6,"vaps":[{"id":1,"ssid":"Orion-Corp"},{"id":2,"ssid":"Orion-Guest"}]},'
             '{"neighbour-mac":"A4:5E:60:00:30:10","channel":36,"vaps":[{"id":1,"ssid":"Orion-Corp"}]}]'),
        body("rrm-info"),
    ],
    "rrm-update": [
        '{"version":"2.2","service":"rrm","cmd":"rrm-update","rrm-scan-delay":5,'
        '"vorna-rrm-scanning":0,"rrm-scan-channels":"1 6 11 36 40"}',
        body("rrm-update"),
        body("rrm-update", '"rrm-scan-delay":-3'),
        body("rrm-update", '"rrm-scan-delay":5,"vorna-rrm-scanning":1,"rrm-scan-channels":"44 36"'),
        body("rrm-update", '"rrm-scan-channels":"36 40 "'),
    ],
    "rrm-request-mode": [body("rrm-request-mode"), '{"version":"2.10","service":"rrm","cmd":"rrm-request-mode"}',
                         '{"version":"3.0","service":"rrm","cmd":"rrm-request-mode"}'],
    "fbt-info": [
        DOC_FBT_INFO,
        body("fbt-info", '"fbt-reassoc-deadline":3000,"fbt-over-ds":1'),
        body("fbt-info", '"vaps":[{"vap_id":2,"radio_id":0,"fbt-rrb-key":"k"},{"vap_id":3,"radio_id":0,"remotes":[]}]'),
        body("fbt-info", '"vaps":[{"vap_id":1,"radio_id":0,"fbt-rrb-key":"k","remotes":['
             '{"remote-r1-kh-id":"AA","remote-r0-kh-id":"A0","remote-r1-kh-key":"ka"},'
             '{"remote-r0-kh-id":"B0","remote-r1-kh-key":"kb"}]}]'),
    ],
}
for ignored in ("rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request", "rrm-client-assoc-ack"):
    TO_ORVD_EXAMPLES[ignored] = [
        body(ignored),
        body(ignored, '"ap-mac":"A4:5E:60:00:10:00","domain":"default-rrm-domain",'
             '"clients":[{"mac":"0c:1a:2b:3c:4d:5e","radio":0,"lifetime":30}]'),
    ]

EXAMPLES = dict(FROM_ORVD_EXAMPLES, **TO_ORVD_EXAMPLES)
VALID = [(name, text) for name in ALL_NAMES for text in EXAMPLES[name]]


@pytest.fixture(scope="module")
def validators():
    return schema.load_schemas()


def errors_of(validators, name, message):
    return [error.message for error in validators[name].iter_errors(message)]


def changed(text, change):
    message = json.loads(text)
    change(message)
    return message


# ---- the schemas themselves ----------------------------------------------------------------

def test_every_message_has_one_schema_file_and_defs_holds_the_shared_pieces():
    names = sorted(path.name[: -len(".schema.json")] for path in SCHEMA_DIR.glob("*.schema.json"))
    assert names == sorted(ALL_NAMES + ["defs"])
    defs = json.loads((SCHEMA_DIR / "defs.schema.json").read_text())["$defs"]
    for piece in ("envelope-from-orvd", "envelope-to-orvd", "radio", "vap", "client", "neighbour",
                  "factory", "config"):
        assert piece in defs


@pytest.mark.parametrize("path", sorted(SCHEMA_DIR.glob("*.schema.json")), ids=lambda path: path.name)
def test_each_schema_file_is_a_valid_schema_with_its_own_id(path):
    document = json.loads(path.read_text())
    jsonschema.Draft202012Validator.check_schema(document)
    assert document["$schema"] == "https://json-schema.org/draft/2020-12/schema"
    assert document["$id"].endswith("/" + path.name)
    assert document["title"] and document["description"]


def test_check_schemas_accepts_the_directory():
    schema.check_schemas()


def test_load_schemas_gives_one_validator_per_message(validators):
    assert sorted(validators) == sorted(ALL_NAMES)
    assert all(isinstance(v, jsonschema.Draft202012Validator) for v in validators.values())


def collect_refs(node, found):
    if isinstance(node, dict):
        for key, value in node.items():
            if key == "$ref":
                found.append(value)
            else:
                collect_refs(value, found)
    elif isinstance(node, list):
        for value in node:
            collect_refs(value, found)
    return found


@pytest.mark.parametrize("name", ALL_NAMES + ["defs"])
def test_every_reference_resolves_locally(validators, name):
    document = json.loads((SCHEMA_DIR / (name + ".schema.json")).read_text())
    resolver = validators["rrm-info"].resolver
    for reference in collect_refs(document, []):
        url, resolved = resolver.resolve(urllib.parse.urljoin(document["$id"], reference))
        assert url.startswith("https://orvd.invalid/protocol/2.2/")
        assert isinstance(resolved, dict), reference


# ---- valid messages --------------------------------------------------------------------------

@pytest.mark.parametrize("name,text", VALID, ids=[f"{name}-{i}" for name in ALL_NAMES for i in range(len(EXAMPLES[name]))])
def test_real_messages_are_valid(validators, name, text):
    message = json.loads(text)
    assert schema.schema_name(message) == name
    assert errors_of(validators, name, message) == []
    assert schema.validate(message) == []
    assert schema.validate(text) == []


@pytest.mark.parametrize("name", FROM_ORVD)
def test_orvds_messages_keep_their_key_order(name):
    for text in FROM_ORVD_EXAMPLES[name]:
        assert schema.key_order_errors(text) == []


def test_a_key_out_of_place_is_reported_at_its_path():
    message = json.loads(SUBSCRIBE_REQUEST)
    radio = message["radios"][0]
    message["radios"][0] = dict([("status", radio["status"])] + [(k, v) for k, v in radio.items() if k != "status"])
    vap = message["radios"][0]["vaps"][1]
    message["radios"][0]["vaps"][1] = dict(reversed(list(vap.items())))
    errors = schema.key_order_errors(message)
    assert [error.split(":")[0] for error in errors] == ["/radios/0", "/radios/0/vaps/1"]

    reordered = json.loads(UNSUBSCRIBE_REQUEST, object_pairs_hook=lambda pairs: dict(sorted(pairs)))
    assert schema.key_order_errors(reordered)
    peer_text = FBT_PARAMS.replace('"name":"00:11:22:33:55:61","index":"0"', '"index":"0","name":"00:11:22:33:55:61"')
    assert [e.split(":")[0] for e in schema.key_order_errors(peer_text)] == ["/ft-config/mac/00"]
    swapped = RRM_RESPONSE.replace('"rssi":-82,"channel":11', '"channel":11,"rssi":-82')
    assert [e.split(":")[0] for e in schema.key_order_errors(swapped)] == ["/rf-environment/1/1"]


def test_messages_to_orvd_have_no_key_order():
    assert schema.key_order_errors('{"cmd":"rrm-info","version":"2.2","service":"rrm"}') == []


# ---- invalid messages from orvd ---------------------------------------------------------------

def without(key):
    return lambda message: message.pop(key)


def setting(path, value):
    def change(message):
        node = message
        for part in path[:-1]:
            node = node[part]
        node[path[-1]] = value
    return change


def removing(path):
    def change(message):
        node = message
        for part in path[:-1]:
            node = node[part]
        del node[path[-1]]
    return change


INVALID_FROM_ORVD = {
    "subscribe-request": [
        without("domain"), without("factory"), without("radios"), without("ap-mac-count"),
        setting(["ap-mac-count"], 15),
        setting(["ap-mac-count"], "16"),
        setting(["version"], "2.3"),
        setting(["service"], "RRM"),
        setting(["domain"], 7),
        setting(["ap-mac"], "A4-5E-60-00-10-00"),
        setting(["extra"], 1),
        setting(["factory", "serial"], "S" * 33),
        setting(["factory", "extra"], ""),
        removing(["factory", "hw"]),
        setting(["radios", 0, "status"], 2),
        setting(["radios", 0, "status"], True),
        setting(["radios", 0, "locked-for-balancer"], 0),
        setting(["radios", 0, "locked-for-dca"], 1),
        setting(["radios", 0, "primary-channel"], "upper"),
        setting(["radios", 0, "primary-channel"], "uu"),
        setting(["radios", 0, "bandwidth"], 160),
        setting(["radios", 0, "power"], 17.5),
        setting(["radios", 0, "available-channels"], "1 6 11"),
        setting(["radios", 0, "available-channels"], [1, 6, 11]),
        setting(["radios", 0, "id"], 3),
        setting(["radios", 0, "extra"], 0),
        removing(["radios", 0, "vaps"]),
        removing(["radios", 0, "available-channels"]),
        removing(["radios", 0, "power-min"]),
        setting(["radios", 0, "vaps", 0, "mac"], "A4:5E:60:00:10:01"),
        setting(["radios", 0, "vaps", 0, "802dot11k"], 2),
        setting(["radios", 0, "vaps", 0, "802dot11r"], "1"),
        removing(["radios", 0, "vaps", 0, "ssid"]),
        setting(["radios", 0, "assoclist", 0, "mac"], "F0:18:98:3C:21:4A"),
        setting(["radios", 0, "assoclist", 0, "extra"], 1),
        setting(["radios", 0, "assoclist", 1, "rssi"], None),
        setting(["radios", 1, "vaps"], []),
        setting(["radios", 1, "available-channels"], "1 6 11 "),
        setting(["radios", 1, "assoclist"], []),
        setting(["radios", 1, "power"], 17),
        setting(["radios", 1, "channel"], 36),
        setting(["radios", 1, "bandwidth"], 40),
        setting(["radios", 1, "locked-for-dca"], 0),
        setting(["radios", 1, "locked-for-tpc"], 0),
    ],
    "unsubscribe-request": [
        without("factory"), without("domain"), setting(["radios"], []), setting(["factory", "mac"], "none"),
        setting(["cmd"], "subscribe-request"),
    ],
    "rrm-response": [
        without("rf-environment"), without("radios"),
        setting(["rf-environment"], [[]]),
        setting(["rf-environment"], [[{"bssid": "00:1a:2b:3c:4d:5e", "rssi": -61, "channel": 6, "tx-power": 17,
                                       "primary-channel": "none", "bandwidth": 20}]] * 6),
        setting(["rf-environment", 0, 0, "bssid"], "00:1A:2B:3C:4D:5E"),
        setting(["rf-environment", 0, 0, "primary-channel"], "middle"),
        setting(["rf-environment", 0, 0, "primary-channel"], "upper"),
        setting(["rf-environment", 1, 0, "primary-channel"], "uu"),
        setting(["rf-environment", 0, 0, "tx-power"], "17"),
        setting(["rf-environment", 0, 0, "extra"], 1),
        removing(["rf-environment", 0, 0, "bandwidth"]),
        setting(["radios", 1, "vaps"], []),
    ],
    "rrm-mode-response": [without("radios"), without("domain"), setting(["rf-environment"], []),
                          setting(["radios", 0, "primary-channel"], "none")],
    "rrm-config-changed": [without("radios"), setting(["radios", 1, "assoclist"], []),
                           setting(["radios"], {"id": 0})],
    "rrm-probe-response": [
        without("radios"), setting(["radios"], []),
        setting(["radios", 0, "probe-list", 0, "mac"], "0c:1a:2b:3c:4d:5e"),
        setting(["radios", 0, "probe-list", 0, "rssi"], "-61"),
        removing(["radios", 0, "probe-list", 0, "ssid"]),
        removing(["radios", 0, "probe-list"]),
        setting(["radios", 0, "status"], 1),
    ],
    "internal-ipc": [
        without("version"), without("cmd"), setting(["cmd"], "CONNECTED"), setting(["cmd"], "reconnect"),
        setting(["ap-mac"], "A4:5E:60:00:10:00"), setting(["version"], "2.3"), setting(["domain"], "x"),
    ],
    "fbt-params": [
        without("ft-config"), without("version"),
        setting(["cmd"], "fbt-params"),
        setting(["ft-config", "enabled"], "false"),
        setting(["ft-config", "enabled"], True),
        setting(["ft-config", "ft-over-ds"], 0),
        setting(["ft-config", "ft-psk-generate-local"], "true"),
        setting(["ft-config", "mobility-domain"], 65536),
        setting(["ft-config", "reassociation-deadline"], "20000"),
        setting(["ft-config", "r1-key-holder-id"], "00:11:22:33:44:6a"),
        setting(["ft-config", "r0-key-holder-id"], "S" * 33),
        setting(["ft-config", "extra"], "x"),
        removing(["ft-config", "mac"]),
        removing(["ft-config", "mobility-domain"]),
        setting(["ft-config", "mac", "00:11:22:33:55:61", "index"], 0),
        setting(["ft-config", "mac", "00:11:22:33:55:61", "index"], "01"),
        setting(["ft-config", "mac", "00:11:22:33:55:61", "index"], "1025"),
        setting(["ft-config", "mac", "00:11:22:33:55:61", "r0-kh-key"], None),
        setting(["ft-config", "mac", "00:11:22:33:55:61", "extra"], ""),
        removing(["ft-config", "mac", "00:11:22:33:55:61", "name"]),
    ],
}
INVALID_FROM = [(name, i) for name in FROM_ORVD for i in range(len(INVALID_FROM_ORVD[name]))]


@pytest.mark.parametrize("name,index", INVALID_FROM, ids=[f"{n}-{i}" for n, i in INVALID_FROM])
def test_broken_messages_from_orvd_are_refused(validators, name, index):
    message = changed(FROM_ORVD_EXAMPLES[name][0], INVALID_FROM_ORVD[name][index])
    assert errors_of(validators, name, message) != []


def test_the_last_peer_orvd_takes_has_index_1024(validators):
    message = changed(FBT_PARAMS, setting(["ft-config", "mac", "00:11:22:33:55:61", "index"], "1024"))
    assert errors_of(validators, "fbt-params", message) == []


ORVD_MESSAGES_WITH_AP_MAC = [(name, i) for name in FROM_ORVD for i, text in enumerate(FROM_ORVD_EXAMPLES[name])
                             if '"ap-mac"' in text]


@pytest.mark.parametrize("name,index", ORVD_MESSAGES_WITH_AP_MAC,
                         ids=[f"{n}-{i}" for n, i in ORVD_MESSAGES_WITH_AP_MAC])
def test_a_message_without_ap_mac_from_an_access_point_without_factory_data_is_valid(validators, name, index):
    message = changed(FROM_ORVD_EXAMPLES[name][index], without("ap-mac"))
    assert errors_of(validators, name, message) == []
    assert schema.validate(message) == []
    assert schema.key_order_errors(message) == []


def test_a_wrong_ap_mac_is_still_refused_when_present(validators):
    message = changed(SUBSCRIBE_REQUEST, setting(["ap-mac"], ""))
    assert errors_of(validators, "subscribe-request", message) != []


def test_a_radio_that_is_off_must_not_list_vaps():
    message = json.loads(SUBSCRIBE_REQUEST)
    message["radios"][1]["vaps"] = [{"id": 0, "ssid": "never-asked", "mac": "a4:5e:60:00:10:11",
                                     "802dot11k": 1, "802dot11r": 1}]
    errors = schema.validate(message)
    assert errors and all(error.startswith("/radios/1") for error in errors)


def test_a_radio_that_is_up_without_clients_is_valid_once_subscribed():
    message = json.loads(SUBSCRIBE_REQUEST)
    del message["radios"][0]["assoclist"]
    assert schema.validate(message) == []


def test_errors_name_the_path_of_the_problem():
    message = json.loads(RRM_RESPONSE)
    message["rf-environment"][1][0]["bssid"] = "F0:9F:C2:AA:BB:CC"
    del message["domain"]
    errors = schema.validate(message)
    assert any(error.startswith("/rf-environment/1/0/bssid: ") for error in errors)
    assert any(error.startswith("/: 'domain' is a required property") for error in errors)


# ---- invalid messages to orvd -------------------------------------------------------------------

INVALID_TO_ORVD = {
    "subscribe-response": [
        without("version"), setting(["version"], "2.1"), setting(["version"], "2"), setting(["version"], "two"),
        setting(["version"], 2.2), setting(["version"], "1.99"), setting(["service"], "roaming"),
        without("service"), setting(["cmd"], "subscribe-responses"), setting(["status"], 1),
        setting(["code"], "503"), setting(["domain"], None), setting(["config"], "use-tpc=1"),
        setting(["config"], {"radios": {"id": 0}}),
    ],
    "rrm-info": [
        setting(["use-tpc"], "1"), setting(["use-80211r"], True), setting(["radios"], {"id": 1}),
        setting(["radios"], [None]), setting(["radios", 0, "channel"], "44"),
        setting(["radios", 0, "primary-channel"], 1), setting(["radios", 0, "no-balance-enterprise"], 0.5),
        setting(["802dot11k", 0, "neighbour-mac"], "not a mac"), setting(["802dot11k", 0, "channel"], "36"),
        setting(["802dot11k", 0, "vaps"], [None]), setting(["802dot11k", 0, "vaps", 0, "ssid"], 5),
        setting(["802dot11k"], {}), setting(["cmd"], "rrm-update"),
    ],
    "rrm-update": [
        setting(["rrm-scan-delay"], "5"), setting(["vorna-rrm-scanning"], False),
        setting(["rrm-scan-channels"], "1  6"), setting(["rrm-scan-channels"], "1,6,11"),
        setting(["rrm-scan-channels"], [1, 6, 11]), setting(["version"], "2.1"),
    ],
    "rrm-request-mode": [without("cmd"), setting(["service"], "rrm2"), setting(["version"], "2.1.9")],
    "fbt-info": [
        setting(["fbt-over-ds"], "1"), setting(["fbt-reassoc-deadline"], 1000.5), setting(["vaps"], {}),
        setting(["vaps", 0, "vap_id"], "1"), setting(["vaps", 0, "fbt-rrb-key"], 7),
        setting(["vaps", 0, "remotes", 0, "remote-r1-kh-id"], None), setting(["vaps", 0, "remotes"], [None]),
    ],
    "rrm-blacklist": [without("version"), setting(["version"], "2.1"), setting(["cmd"], 5)],
}
INVALID_TO = [(name, i) for name in INVALID_TO_ORVD for i in range(len(INVALID_TO_ORVD[name]))]


@pytest.mark.parametrize("name,index", INVALID_TO, ids=[f"{n}-{i}" for n, i in INVALID_TO])
def test_broken_messages_to_orvd_are_refused(validators, name, index):
    message = changed(EXAMPLES[name][-1 if name == "subscribe-response" else 0], INVALID_TO_ORVD[name][index])
    assert errors_of(validators, name, message) != []


@pytest.mark.parametrize("name", TO_ORVD)
def test_messages_to_orvd_may_carry_more_keys(validators, name):
    message = json.loads(EXAMPLES[name][0])
    message["future-key"] = {"anything": [1, "two"]}
    assert errors_of(validators, name, message) == []


def test_vaps_and_peers_past_the_ones_orvd_uses_are_accepted(validators):
    many_vaps = changed(DOC_FBT_INFO, setting(["vaps"], [{"vap_id": i % 7, "radio_id": i % 2, "remotes": []}
                                                         for i in range(34)]))
    assert errors_of(validators, "fbt-info", many_vaps) == []
    many_peers = changed(DOC_FBT_INFO, setting(["vaps", 0, "remotes"], [{"remote-r1-kh-id": "AA"}] * 1026))
    assert errors_of(validators, "fbt-info", many_peers) == []
    assert schema.validate(many_peers) == []


def test_nested_objects_to_orvd_may_carry_more_keys(validators):
    message = json.loads(DOC_RRM_INFO)
    message["radios"][0]["future-key"] = 1
    message["802dot11k"][0]["vaps"][0]["future-key"] = 1
    assert errors_of(validators, "rrm-info", message) == []
    fbt = json.loads(DOC_FBT_INFO)
    fbt["vaps"][0]["remotes"][0]["future-key"] = 1
    assert errors_of(validators, "fbt-info", fbt) == []


@pytest.mark.parametrize("version,accepted", [
    ("2.2", True), ("2.10", True), ("3.0", True), ("10.1", True), ("2.99", True),
    ("2.1", False), ("2.0", False), ("1.99", False), ("2", False), ("two", False), ("", False), ("2.2.7", False),
])
def test_version_texts_a_service_may_send(validators, version, accepted):
    message = json.loads(body("rrm-request-mode"))
    message["version"] = version
    assert (errors_of(validators, "rrm-request-mode", message) == []) is accepted


# ---- picking the schema ---------------------------------------------------------------------------

@pytest.mark.parametrize("message,name", [
    ({"version": "2.2", "service": "rrm", "cmd": "rrm-info"}, "rrm-info"),
    ({"version": "2.2", "service": "RRM", "cmd": "RRM-INFO"}, "rrm-info"),
    ({"version": "2.2", "service": "rrm", "cmd": "Subscribe-Response"}, "subscribe-response"),
    ({"version": "2.2", "service": "rrm", "cmd": "rrm-probe-response"}, "rrm-probe-response"),
    ({"version": "2.2", "service": "internal-ipc", "cmd": "unlink"}, "internal-ipc"),
    ({"version": "2.2", "service": "internal-ipc", "cmd": "connected"}, "internal-ipc"),
    ({"version": "2.2", "service": "fbt", "ft-config": {}}, "fbt-params"),
    ({"service": "roaming", "cmd": "rrm-update"}, "rrm-update"),
])
def test_schema_name_picks_by_service_then_cmd(message, name):
    assert schema.schema_name(message) == name


@pytest.mark.parametrize("message", [{"version": "2.2", "service": "rrm"}, {"cmd": 5}, [], "rrm-info", None])
def test_schema_name_refuses_what_no_schema_covers(message):
    with pytest.raises(ValueError):
        schema.schema_name(message)


def test_validate_reports_what_it_cannot_check():
    assert schema.validate("not json at all")[0].startswith("/: not JSON")
    assert schema.validate({"version": "2.2", "service": "rrm"}) == ['/: no "cmd" text']
    assert schema.validate(body("rrm-something")) == ['/cmd: no schema for "rrm-something"']
    assert schema.validate([1]) == ["/: a message is a JSON object"]


def test_validate_uses_given_validators(validators):
    only = {"rrm-request-mode": validators["rrm-request-mode"]}
    assert schema.validate(body("rrm-request-mode"), schemas=only) == []
    assert schema.validate(body("rrm-info"), schemas=only) == ['/cmd: no schema for "rrm-info"']


def test_load_schemas_reads_another_directory(tmp_path):
    for name in ("defs", "internal-ipc"):
        (tmp_path / (name + ".schema.json")).write_text((SCHEMA_DIR / (name + ".schema.json")).read_text())
    loaded = schema.load_schemas(tmp_path)
    assert sorted(loaded) == ["internal-ipc"]
    with pytest.raises(FileNotFoundError):
        schema.load_schemas(tmp_path / "absent")


def test_examples_are_not_changed_by_the_checks():
    before = copy.deepcopy(EXAMPLES)
    for name, texts in EXAMPLES.items():
        for text in texts:
            schema.validate(text)
            schema.key_order_errors(text)
    assert EXAMPLES == before


# ---- the guide's examples and the command line ----------------------------------------------------

def guide_examples():
    """The complete JSON examples of docs/protocol.md (those without "..." placeholders)."""
    text = (ROOT / "docs" / "protocol.md").read_text()
    examples = []
    for block in text.split("```json")[1:]:
        try:
            examples.append(json.loads(block.split("```")[0]))
        except ValueError:
            continue
    return examples


def test_the_guides_complete_examples_are_valid(validators):
    examples = guide_examples()
    messages = [example for example in examples if "version" in example]
    assert {schema.schema_name(m) for m in messages} >= {"rrm-update", "rrm-info", "fbt-info"}
    for message in messages:
        assert schema.validate(message) == [], message
    defs_id = json.loads((SCHEMA_DIR / "defs.schema.json").read_text())["$id"]
    radio = jsonschema.Draft202012Validator({"$ref": defs_id + "#/$defs/radio"},
                                            resolver=validators["rrm-info"].resolver)
    radios = [example for example in examples if "version" not in example]
    assert radios and all(radio.is_valid(example) for example in radios)
    assert all(schema.key_order_errors(dict({"version": "2.2", "service": "rrm", "cmd": "rrm-mode-response",
                                             "ap-mac": "A4:5E:60:00:10:00", "domain": "d"}, radios=[r])) == []
               for r in radios)


def test_the_command_line_checks_files_and_lines(tmp_path):
    good = tmp_path / "good.json"
    good.write_text(UNSUBSCRIBE_REQUEST)
    run = subprocess.run([sys.executable, str(ROOT / "protocol" / "schema.py"), str(good)],
                         capture_output=True, text=True, check=False)
    assert (run.returncode, run.stdout) == (0, "%s: valid unsubscribe-request\n" % good)

    lines = "\n".join([PROBE_RESPONSE, '{"service":"internal-ipc","version":"2.2","cmd":"unlink"}',
                       body("rrm-update", '"rrm-scan-delay":"5"'), ""])
    run = subprocess.run([sys.executable, str(ROOT / "protocol" / "schema.py")], input=lines,
                         capture_output=True, text=True, check=False)
    assert run.returncode == 1
    assert run.stdout.splitlines() == [
        "stdin:1: valid rrm-probe-response",
        "stdin:2: /: keys ['service', 'version', 'cmd'] are not in the order ['version', 'service', 'cmd']",
        "stdin:3: /rrm-scan-delay: '5' is not of type 'integer'",
    ]


# ---- what the guide and the schemas say ---------------------------------------------------------

def mobility_domain(text):
    """The mobility-domain CRC as described: a 16-bit register from 0, message bits shifted in
    most significant first, XOR 0x8005 when the bit shifted out was 1, no augmenting zeros, no
    final XOR."""
    register = 0
    for byte in text.encode():
        for bit in range(7, -1, -1):
            carry = register & 0x8000
            register = ((register << 1) | ((byte >> bit) & 1)) & 0xFFFF
            if carry:
                register ^= 0x8005
    return register


@pytest.mark.parametrize("text,value", [("", 0), ("a", 97), ("default-rrm-domain", 54202)])
def test_the_mobility_domain_crc_as_described_gives_0_97_and_54202(text, value):
    assert mobility_domain(text) == value


def test_the_mobility_domain_crc_is_described_with_its_values_and_not_as_the_common_crc16():
    described = json.loads((SCHEMA_DIR / "fbt-params.schema.json").read_text(encoding="utf-8"))
    description = json.dumps(described)
    guide = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
    for text in (description, guide):
        assert "no reflection" not in text
        assert "97" in text and "54202" in text
        assert "augmenting" in text
    assert "33093" in guide  # what the common variant gives, so that nobody swaps it in


def test_the_notices_are_said_to_reach_widsd_in_wids_mode():
    guide = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
    notices = guide[guide.index("## Internal notices"):]
    assert "never on the wire" not in notices
    assert "widsd" in notices
    described = json.loads((SCHEMA_DIR / "internal-ipc.schema.json").read_text(encoding="utf-8"))
    assert "widsd" in described["description"]
