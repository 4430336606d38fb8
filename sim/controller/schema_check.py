"""Checks a received message against the JSON Schemas in the repository's protocol/ folder.

protocol/schema.py offers schema_name(message), validate(message) -> list of error texts and
key_order_errors(message), with one file protocol/schemas/<name>.schema.json per message type.
Either may be missing while the schemas grow; a message is then recorded as "schema missing"
and never fails a run on that account.
"""
from __future__ import annotations

import importlib
import pathlib
import sys
import threading

PROTOCOL_DIR = pathlib.Path(__file__).resolve().parents[2] / "protocol"

VALID = "valid"
INVALID = "invalid"
MISSING = "schema missing"
NOT_JSON = "not json"

_lock = threading.Lock()
_module = None


def _checker():
    """protocol/schema.py as a module, or None while it is not there."""
    global _module
    with _lock:
        if _module is not None:
            return _module
        if not (PROTOCOL_DIR / "schema.py").is_file():
            return None
        if str(PROTOCOL_DIR) not in sys.path:
            sys.path.insert(0, str(PROTOCOL_DIR))
        try:
            module = importlib.import_module("schema")
        except Exception:  # a half-written checker must not stop the service
            return None
        if not callable(getattr(module, "validate", None)):
            return None
        _module = module
        return module


def check(message) -> tuple:
    """(status, errors) for a parsed message: VALID with [], INVALID with the checker's texts
    (schema errors, else keys out of orvd's order), MISSING with a text saying what is missing,
    NOT_JSON when there was nothing to check."""
    if message is None:
        return NOT_JSON, []
    module = _checker()
    if module is None:
        return MISSING, ["protocol/schema.py is not available"]
    name = None
    namer = getattr(module, "schema_name", None)
    if callable(namer):
        try:
            name = namer(message)
        except ValueError as error:  # not an object, or no "cmd": no message of the protocol
            return INVALID, [f"/: {error}"]
        except Exception as error:
            return MISSING, [f"no schema name: {error}"]
        if not name:
            return MISSING, ["no schema for this message"]
        if not (PROTOCOL_DIR / "schemas" / f"{name}.schema.json").is_file():
            return MISSING, [f"protocol/schemas/{name}.schema.json is not there"]
    try:
        errors = list(module.validate(message))
    except (FileNotFoundError, KeyError, LookupError) as error:
        return MISSING, [f"schema missing: {error}"]
    except Exception as error:
        return INVALID, [f"the checker failed: {type(error).__name__}: {error}"]
    errors = [str(e) for e in errors]
    if errors and all(e.startswith("/cmd: no schema for") for e in errors):
        return MISSING, errors  # a schema file added after the checker loaded its set
    if not errors:
        # JSON Schema cannot say in which order keys come; orvd's messages keep a fixed one
        order = getattr(module, "key_order_errors", None)
        if callable(order):
            try:
                errors = [str(e) for e in order(message)]
            except Exception as error:
                errors = [f"the key order check failed: {type(error).__name__}: {error}"]
    return (INVALID, errors) if errors else (VALID, [])
