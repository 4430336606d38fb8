"""Validation of orvd's protocol "2.2" messages against the JSON Schemas in schemas/.

    from protocol import schema
    errors = schema.validate(message)      # [] when the message is valid

Standard library and jsonschema only. References between the schema files are resolved from
the files themselves: the "$id" URIs (under https://orvd.invalid/) are names, never fetched.
JSON Schema cannot say in which order an object's keys come; key_order_errors checks that for
the messages orvd sends.
"""
import inspect
import json
import pathlib
import sys
import threading

import jsonschema

SCHEMA_DIRECTORY = pathlib.Path(__file__).resolve().parent / "schemas"
SUFFIX = ".schema.json"
# Shared pieces only, not a message: left out of the validators load_schemas returns.
DEFS_NAME = "defs"

_default_schemas = None
# A RefResolver keeps a stack of scopes while it validates: one validation at a time.
_lock = threading.Lock()


def _validator_class():
    # The schemas are written in Draft 2020-12 ("$ref" beside other keywords, "$defs"), which
    # jsonschema has from 4.0 on; an older draft would silently ignore half of each message schema.
    if not hasattr(jsonschema, "Draft202012Validator"):
        raise ImportError("jsonschema 4.0 or later is needed for Draft 2020-12")
    return jsonschema.Draft202012Validator


def _refuse_remote(uri):
    raise jsonschema.RefResolutionError("not fetching %s: every schema is local" % uri)


def _read(directory):
    documents = {}
    for path in sorted(directory.glob("*" + SUFFIX)):
        with path.open(encoding="utf-8") as handle:
            documents[path.name[: -len(SUFFIX)]] = json.load(handle)
    if DEFS_NAME not in documents:
        raise FileNotFoundError("no %s%s in %s" % (DEFS_NAME, SUFFIX, directory))
    return documents


def _make_validators(documents):
    cls = _validator_class()
    if "registry" in inspect.signature(cls).parameters:
        # jsonschema 4.18 and later resolve references through a registry; one that is not
        # given a way to retrieve unknown URIs never fetches anything.
        from referencing import Registry, Resource

        registry = Registry().with_resources((doc["$id"], Resource.from_contents(doc)) for doc in documents.values())
        return {name: cls(doc, registry=registry) for name, doc in documents.items() if name != DEFS_NAME}
    store = {doc["$id"]: doc for doc in documents.values()}
    handlers = {"http": _refuse_remote, "https": _refuse_remote, "file": _refuse_remote}
    return {
        name: cls(doc, resolver=jsonschema.RefResolver.from_schema(doc, store=store, handlers=handlers))
        for name, doc in documents.items()
        if name != DEFS_NAME
    }


def load_schemas(directory=None):
    """Validators of every message schema in the directory (schemas/ next to this file by
    default), by name: the "cmd" of an RRM message, "internal-ipc" or "fbt-params"."""
    documents = _read(pathlib.Path(directory) if directory is not None else SCHEMA_DIRECTORY)
    return _make_validators(documents)


def check_schemas(directory=None):
    """Checks every schema file, defs included, against its draft's meta-schema; raises
    jsonschema.SchemaError on the first one that is not a valid schema."""
    cls = _validator_class()
    for document in _read(pathlib.Path(directory) if directory is not None else SCHEMA_DIRECTORY).values():
        cls.check_schema(document)


def schema_name(message):
    """The name of the schema for a parsed message: "internal-ipc" and "fbt-params" by service,
    otherwise the "cmd" in lower case (orvd compares both without regard to case). Raises
    ValueError when no schema can apply."""
    if not isinstance(message, dict):
        raise ValueError("a message is a JSON object")
    service = message.get("service")
    if isinstance(service, str) and service.lower() == "internal-ipc":
        return "internal-ipc"
    if isinstance(service, str) and service.lower() == "fbt":
        return "fbt-params"
    cmd = message.get("cmd")
    if not isinstance(cmd, str):
        raise ValueError('no "cmd" text')
    return cmd.lower()


def _where(error):
    return "/" + "/".join(str(part) for part in error.absolute_path)


def validate(message, schemas=None):
    """Error texts for a message (a parsed object, or its JSON text), "<path>: <problem>" each;
    an empty list when it is valid."""
    global _default_schemas
    if isinstance(message, (str, bytes, bytearray)):
        try:
            message = json.loads(message)
        except ValueError as error:
            return ["/: not JSON: %s" % error]
    try:
        name = schema_name(message)
    except ValueError as error:
        return ["/: %s" % error]
    with _lock:
        if schemas is None:
            if _default_schemas is None:
                _default_schemas = load_schemas()
            schemas = _default_schemas
        validator = schemas.get(name)
        if validator is None:
            return ['/cmd: no schema for "%s"' % name]
        errors = sorted(validator.iter_errors(message), key=lambda e: (list(map(str, e.absolute_path)), e.message))
    return ["%s: %s" % (_where(error), error.message) for error in errors]


# Key order of the objects orvd writes. A layout is (keys in order, {key: child layout}); a child
# layout is ("items", layout) for an array of objects, ("arrays", layout) for an array of
# arrays of objects, ("members", layout) for an object whose members are all alike, or a layout
# for a single object. Conditional keys are simply absent; the keys present must keep this order.
_FACTORY = (["board", "hw", "serial", "mac"], {})
_RADIO = (
    ["id", "status", "mac-offset", "radio-mac-count", "locked-for-dca", "locked-for-tpc",
     "locked-for-balancer", "power", "power-max", "power-min", "channel", "bandwidth",
     "primary-channel", "available-channels", "vaps", "assoclist"],
    {"vaps": ("items", (["id", "ssid", "mac", "802dot11k", "802dot11r"], {})),
     "assoclist": ("items", (["mac", "ssid", "rssi"], {}))},
)
_RF_ENTRY = (["bssid", "rssi", "channel", "tx-power", "primary-channel", "bandwidth"], {})
_PROBE_RADIO = (["id", "probe-list"], {"probe-list": ("items", (["mac", "ssid", "rssi"], {}))})
_PEER = (["name", "index", "r0-kh-id", "r1-kh-id", "r0-kh-key", "r1-kh-key"], {})
_FT_CONFIG = (
    ["enabled", "ft-over-ds", "ft-psk-generate-local", "reassociation-deadline", "mobility-domain",
     "r0-key-holder-id", "r1-key-holder-id", "mac"],
    {"mac": ("members", _PEER)},
)
_ENVELOPE = ["version", "service", "cmd", "ap-mac"]
_RADIOS = {"radios": ("items", _RADIO)}

KEY_ORDER = {
    "subscribe-request": (_ENVELOPE + ["domain", "ap-mac-count", "factory", "radios"],
                          dict(_RADIOS, factory=_FACTORY)),
    "unsubscribe-request": (_ENVELOPE + ["domain", "factory"], {"factory": _FACTORY}),
    "rrm-response": (_ENVELOPE + ["domain", "radios", "rf-environment"],
                     dict(_RADIOS, **{"rf-environment": ("arrays", _RF_ENTRY)})),
    "rrm-mode-response": (_ENVELOPE + ["domain", "radios"], _RADIOS),
    "rrm-config-changed": (_ENVELOPE + ["domain", "radios"], _RADIOS),
    "rrm-probe-response": (_ENVELOPE + ["domain", "radios"], {"radios": ("items", _PROBE_RADIO)}),
    "internal-ipc": (["version", "service", "cmd"], {}),
    "fbt-params": (["version", "service", "ft-config"], {"ft-config": _FT_CONFIG}),
}


def _order_errors(value, layout, where, errors):
    if not isinstance(value, dict):
        return
    keys, children = layout
    known = [key for key in value if key in keys]
    if known != sorted(known, key=keys.index):
        errors.append("%s: keys %s are not in the order %s" % (where or "/", known, [k for k in keys if k in known]))
    for key, child in children.items():
        if key not in value:
            continue
        kind, inner = child if isinstance(child[0], str) else (None, child)
        at = "%s/%s" % (where, key)
        if kind is None:
            _order_errors(value[key], inner, at, errors)
        elif kind == "members" and isinstance(value[key], dict):
            for name, member in value[key].items():
                _order_errors(member, inner, "%s/%s" % (at, name), errors)
        elif kind in ("items", "arrays") and isinstance(value[key], list):
            for index, item in enumerate(value[key]):
                if kind == "items":
                    _order_errors(item, inner, "%s/%d" % (at, index), errors)
                elif isinstance(item, list):
                    for inner_index, entry in enumerate(item):
                        _order_errors(entry, inner, "%s/%d/%d" % (at, index, inner_index), errors)


def key_order_errors(message):
    """Error texts for keys out of order in a message orvd sends (a parsed object, whose key
    order json.loads keeps, or its JSON text); [] when in order or when the message is not one
    of orvd's (the service's messages may come in any order)."""
    if isinstance(message, (str, bytes, bytearray)):
        message = json.loads(message)
    try:
        layout = KEY_ORDER.get(schema_name(message))
    except ValueError:
        return []
    errors = []
    if layout is not None:
        _order_errors(message, layout, "", errors)
    return errors


def main(arguments):
    """Checks messages from the shell: each argument is a file holding one message; without
    arguments (or with "-") standard input is read, one message per line. Prints each
    problem (schema and key order) and answers 1 when any message is invalid."""
    sources = []
    for argument in arguments or ["-"]:
        if argument == "-":
            sources += [("stdin:%d" % number, line) for number, line in enumerate(sys.stdin, 1) if line.strip()]
        else:
            sources.append((argument, pathlib.Path(argument).read_text(encoding="utf-8")))
    failed = False
    for origin, text in sources:
        problems = validate(text)
        if not problems:
            problems = key_order_errors(text)
        failed = failed or bool(problems)
        for problem in problems:
            print("%s: %s" % (origin, problem))
        if not problems:
            print("%s: valid %s" % (origin, schema_name(json.loads(text))))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
