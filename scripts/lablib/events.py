"""The text of each event the lab shows: what the service received (subscriptions, scan
results), decided and sent (scan requests, rrm-info, fbt-info), and what the virtual access
point applied (networkd requests, radio settings, 802.11k neighbour-report commands)."""
from __future__ import annotations

import collections
import json
import time

from sim.controller import policy, summary

from .addresses import AddressBook, decode_chanspec, mac_number, report_command
from .display import Display

APPLIED = "applied on the virtual access point:"
# Messages whose radios carry the addresses the VAPs have on the access point.
DESCRIBING_RADIOS = ("subscribe-request", "rrm-response", "rrm-config-changed")
# The service's remarks that explain a pause (no scan asked, nothing sent).
PAUSE_REMARKS = ("no scan requested", "no second one requested", "not sent", "left unanswered", "refused")
CLOSE_CODES = {1000: "normal", 1001: "going away", 1006: "no close frame"}


# -- descriptions of one message ----------------------------------------------------------------


def radio_brief(radio: dict) -> str:
    if policy._int(radio.get("status")) != 1:
        return f"radio {policy._int(radio.get('id'))} off"
    return (
        f"radio {policy._int(radio.get('id'))} channel {policy._int(radio.get('channel'))}/"
        f"{policy._int(radio.get('bandwidth')) or 20} MHz, {policy._int(radio.get('power'))} dBm"
    )


def describe_radios(radios: list) -> list:
    """The radios of a description: one heading each, then its VAPs and clients."""
    lines = []
    if radios and not any(policy._int(x.get("status")) == 1 for x in radios):
        return [", ".join(radio_brief(x) for x in radios) + " (hostapd's start notice not seen yet)"]
    for radio in radios:
        lines.append(summary.radio_heading(radio))
        if policy._int(radio.get("status")) != 1:
            continue
        vaps = []
        for vap in radio.get("vaps") or []:
            flags = [f for f, key in (("11k", "802dot11k"), ("11r", "802dot11r")) if policy._int(vap.get(key))]
            vaps.append(
                f"{policy._int(vap.get('id'))} {vap.get('ssid', '?')}"
                + (f" [{' '.join(flags)}]" if flags else "")
                + f" {str(vap.get('mac', '')).lower()}"
            )
        lines.append("  VAPs: " + (", ".join(vaps) or "none"))
        clients = collections.OrderedDict()
        for client in radio.get("assoclist") or []:
            if isinstance(client, dict):
                clients.setdefault(client.get("ssid", "?"), []).append(policy._int(client.get("rssi")))
        if clients:
            count = sum(len(v) for v in clients.values())
            lines.append(
                f"  clients ({count}): "
                + ", ".join(f"{ssid} x{len(v)} ({' '.join(str(x) for x in v)} dBm)" for ssid, v in clients.items())
            )
        elif "assoclist" in radio:
            lines.append("  clients: none")
    return lines


def describe_subscription(message: dict) -> str:
    factory = message.get("factory") if isinstance(message.get("factory"), dict) else {}
    radios = [x for x in message.get("radios") or [] if isinstance(x, dict)]
    lines = [
        f"subscribe-request: {message.get('ap-mac', '?')} {factory.get('board', '')} {factory.get('hw', '')}, "
        f"serial {factory.get('serial', '?')}, domain {message.get('domain', '?')}"
    ]
    return "\n".join(lines + describe_radios(radios))


def describe_scan(message: dict) -> str:
    environment = message.get("rf-environment") or []
    heard = policy.merge_environment(environment)
    table = summary.neighbour_table(message).split("\n")
    if message.get("ap-mac") and table and table[0].startswith(str(message.get("ap-mac"))):
        table = table[1:]
    passes = len([t for t in environment if isinstance(t, list)])
    return "\n".join(
        [f"scan result (rrm-response): {len(heard)} neighbours heard, "
         f"{passes} pass{'es' if passes != 1 else ''} with results"]
        + table
    )


def describe_decision(plan) -> str:
    lines = summary.decision_lines("", plan).split("\n")
    lines = [line.strip() for line in lines if line.strip()]
    text = "decision: " + lines[0] if lines else "decision: nothing to change"
    if len(lines) > 1:
        text += "\n" + "\n".join(lines[1:])
    return text


def describe_applied(state: dict, heading: str = APPLIED) -> str:
    """The radios as `orvd-vdev ctl state` reports them: channel and bandwidth from the
    chanspec, and the transmit power."""
    lines = []
    for name, radio in sorted((state.get("radios") or {}).items()):
        chanspec = policy._int(radio.get("chanspec"))
        channel, bandwidth, position = decode_chanspec(chanspec)
        lines.append(
            f"{name} now: channel {channel}/{bandwidth or '?'} MHz{' ' + position if position else ''} "
            f"(chanspec 0x{chanspec:04x}), tx power {radio.get('actual_tx_power')} dBm"
        )
    return heading + "\n" + "\n".join("  " + line for line in lines)


def request_outcome(reply) -> str:
    """orvd-vdev's answer to a networkd request, in words."""
    if reply is None:
        return "no reply (muted)"
    if isinstance(reply, dict) and reply.get("status") == "ok":
        return "ok"
    return f"refused: {reply.get('reason') if isinstance(reply, dict) else reply}"


# -- the events, each shown once ----------------------------------------------------------------


class Narrator:
    """Puts each event on the display, with the access point and VAP each address belongs to."""

    def __init__(self, display: Display, book: AddressBook):
        self.display = display
        self.book = book
        self.vap_addresses = {}  # (access point label, "wlan0-va1") -> the address it reported
        self.plan_noted = False

    # -- the service's side ---------------------------------------------------------------------

    def show_received(self, conn, r):
        who = self.book.label_of(conn)
        message = r.message if isinstance(r.message, dict) else {}
        cmd = r.cmd or "(no cmd)"
        note = ""
        if r.schema not in ("valid", "schema missing"):
            note = f"  [{r.schema}{': ' + r.errors[0] if r.errors else ''}]"
        for radio in message.get("radios") or []:
            if isinstance(radio, dict) and cmd in DESCRIBING_RADIOS:
                for vap in radio.get("vaps") or []:
                    if isinstance(vap, dict) and vap.get("mac"):
                        name = f"wlan{policy._int(radio.get('id'))}-va{policy._int(vap.get('id'))}"
                        self.vap_addresses[(who, name)] = str(vap["mac"])
        if cmd == "subscribe-request":
            if len([x for x in conn.received if x.cmd == "subscribe-request"]) == 1 and conn.received[0] is r:
                self.display.add(r.time - 1e-6, who,
                                 f"connected to the service (connection #{conn.number}, {conn.path})")
            self.display.add(r.time, who, describe_subscription(message) + note)
        elif cmd == "rrm-response":
            self.display.add(r.time, who, describe_scan(message) + note)
        elif cmd in ("rrm-config-changed", "rrm-mode-response"):
            radios = [x for x in message.get("radios") or [] if isinstance(x, dict)]
            self.display.add(r.time, who, "\n".join([f"{cmd}: the radios as they are now{note}"]
                                                    + describe_radios(radios)))
        else:
            self.display.add(r.time, who, f"{cmd}{note}")

    def show_decision(self, conn, plan, when):
        self.display.add(when, self.book.label_of(conn), describe_decision(plan))

    def show_sent(self, conn, when, text):
        who = self.book.label_of(conn)
        try:
            message = json.loads(text)
        except (TypeError, ValueError):
            self.display.add(when, who, f"service sent raw text ({len(text)} characters)")
            return
        cmd = str(message.get("cmd", "?"))
        if cmd == "subscribe-response":
            extra = f", domain {message['domain']}" if message.get("domain") else ""
            code = f" {message['code']}" if "code" in message else ""
            self.display.add(when, who, f"subscribe-response: {message.get('status')}{code}{extra}")
        elif cmd == "rrm-update":
            driver_scan = policy._int(message.get("vorna-rrm-scanning"))
            kind = "the driver's RRM scan" if driver_scan else "standard scan, 5 passes"
            self.display.add(
                when, who,
                f"scan requested (rrm-update): {kind}, delay {message.get('rrm-scan-delay')} s, "
                f"channels {message.get('rrm-scan-channels') or 'all'}",
            )
        elif cmd == "rrm-info":
            self.display.add(when, who, self.describe_rrm_info(message))
        elif cmd == "fbt-info":
            self.display.add(when, who, self.describe_fbt_info(message))
        else:
            self.display.add(when, who, f"service sent {cmd}")

    def describe_rrm_info(self, message: dict) -> str:
        radios = ", ".join(
            f"radio {r.get('id')} channel {r.get('channel')}/{r.get('bandwidth')} MHz"
            + (f" {r.get('primary-channel')}" if r.get("bandwidth") == 40 else "")
            + f" power {r.get('power')} dBm"
            for r in message.get("radios") or []
        ) or "no radio"
        fast = ""
        if "use-80211r" in message:
            fast = f"; 802.11r {'on' if message['use-80211r'] else 'off'}"
        lines = [f"rrm-info sent: {radios}{fast}"]
        for entry in message.get("802dot11k") or []:
            owner = self.book.where(entry.get("neighbour-mac"))
            vaps = ", ".join(f"{v.get('id')} {v.get('ssid')}" for v in entry.get("vaps") or [])
            lines.append(
                f"  802.11k neighbour {entry.get('neighbour-mac')} channel {entry.get('channel')}"
                + (f" ({owner.split()[0]} radio {owner.split('wlan')[1].split('-')[0]})" if owner else "")
                + f": VAPs {vaps}"
            )
        return "\n".join(lines)

    def describe_fbt_info(self, message: dict) -> str:
        lines = [f"fbt-info sent: {len(message.get('vaps') or [])} VAPs, reassociation deadline "
                 f"{message.get('fbt-reassoc-deadline')}, over-ds {message.get('fbt-over-ds')}"]
        for vap in message.get("vaps") or []:
            remotes = []
            for r in vap.get("remotes") or []:
                r1kh = r.get("remote-r1-kh-id")
                owner = self.book.where(r1kh)
                remotes.append(f"{r1kh}/{r.get('remote-r0-kh-id')}" + (f" ({owner})" if owner else ""))
                if owner:
                    self.note_address_plan(r1kh, owner)
            lines.append(f"  wlan{vap.get('radio_id')}-va{vap.get('vap_id')}: remotes {', '.join(remotes)}")
        return "\n".join(lines)

    def show_closed(self, conn):
        why = CLOSE_CODES.get(conn.close_code)
        self.display.add(conn.closed, self.book.label_of(conn),
                         f"connection closed, code {conn.close_code}" + (f" ({why})" if why else ""))

    def show_service_note(self, when, text):
        """The service's own remark, when it explains a pause; the others stay unsaid."""
        if any(key in text for key in PAUSE_REMARKS):
            label, _, rest = text.partition(": ")
            ap = self.book.ap_of_mac(label)
            self.display.add(when, ap.label if ap else "svc", f"service: {rest or text}")

    # -- the access point's side ----------------------------------------------------------------

    def show_requests(self, ap, entries) -> float | None:
        """The networkd requests of orvd-vdev's log; the time of the last update-quillon when
        one of them changed the radios (None otherwise)."""
        radios_changed = False
        last_update = None
        resets = collections.OrderedDict()  # command -> [time, count, outcomes, interfaces]
        for entry in entries:
            request = entry.get("request")
            if not isinstance(request, dict):
                continue
            command = request.get("command")
            when = self.display.at_wall_time(entry.get("time"))
            outcome = request_outcome(entry.get("reply"))
            if command == "get":
                ap.gets += 1
            elif command == "update-quillon":
                params = request.get("params") if isinstance(request.get("params"), dict) else {}
                shown = " ".join(f"{k}={v}" for k, v in params.items())
                self.display.add(when, ap.label,
                                 f"networkd <- update-quillon {request.get('ifname')} {shown}: {outcome}")
                radios_changed = radios_changed or outcome == "ok"
                last_update = when
            elif command == "update-quillon-fbt":
                self.display.add(when, ap.label, self.describe_fbt(request, outcome))
            elif command in ("reset-quillon", "reset-quillon-fbt"):
                slot = resets.setdefault(command, [when, 0, collections.Counter(), []])
                slot[1] += 1
                slot[2][outcome] += 1
                if request.get("ifname"):
                    slot[3].append(str(request.get("ifname")))
            else:
                self.display.add(when, ap.label, f"{entry.get('as', '?')} <- {command or entry}: {outcome}")
        for command, (when, count, outcomes, names) in resets.items():
            if not names:
                where = f"{count} times"
            else:
                where = names[0] if count == 1 else f"{count} interfaces, {names[0]} .. {names[-1]}"
            said = ", ".join(text if n == count else f"{n} {text}" for text, n in outcomes.items())
            self.display.add(when, ap.label, f"networkd <- {command} ({where}): {said}")
        return last_update if radios_changed else None

    def describe_fbt(self, request: dict, outcome: str) -> str:
        params = request.get("params") if isinstance(request.get("params"), dict) else {}
        ft = params.get("ft-config") if isinstance(params.get("ft-config"), dict) else {}
        peers = ft.get("mac") if isinstance(ft.get("mac"), dict) else {}
        shown = []
        for name, peer in peers.items():
            r0 = peer.get("r0-kh-id") if isinstance(peer, dict) else "?"
            owner = self.book.where(name)
            shown.append(f"{name}/{r0}" + (f" ({owner})" if owner else ""))
        md = ft.get("mobility-domain")
        md_text = f"{int(md):04x}" if str(md).isdigit() else str(md)
        return (
            f"networkd <- update-quillon-fbt {request.get('ifname')}: 802.11r {ft.get('enabled', '?')}, "
            f"R0KH {ft.get('r0-key-holder-id', '?')}, R1KH {ft.get('r1-key-holder-id', '?')}, "
            f"mobility domain {md_text}, over-ds {ft.get('ft-over-ds', '?')}: {outcome}\n"
            f"  key holders of its peers: {', '.join(shown) or 'none'}"
        )

    def show_reports(self, ap, fresh):
        """The neighbour-report commands that changed, (VAP, content) each; the VAPs whose file
        says the same are shown together."""
        changed = collections.OrderedDict()  # what the file says -> the VAPs whose file says it
        for vap, content in fresh:
            changed.setdefault(self.report_text(content), []).append(vap)
        when = time.monotonic()
        for text, vaps in changed.items():
            self.display.add(when, ap.label, f"802.11k report {', '.join(vaps)}: {text}")

    def report_text(self, content: str) -> str:
        text = report_command(content)
        if text.startswith("add "):
            owner = self.book.where(text.split()[1])
            if owner:
                text += f" -> {owner}"
                self.note_address_plan(text.split()[1], owner)
        return text

    def note_address_plan(self, address: str, owner: str):
        """Once: when the VAP an address names by orvd's plan has another interface address on
        the virtual access point, say so, so that the two numbers do not puzzle anyone."""
        if self.plan_noted:
            return
        label, vap = owner.split()
        actual = self.vap_addresses.get((label, vap))
        if actual is None or mac_number(actual) == mac_number(address):
            return
        self.plan_noted = True
        self.display.add(
            time.monotonic(), "lab",
            f"note: orvd addresses a VAP as base MAC + VAP id + 16 x radio id ({label} {vap}: {address}); "
            f"its interface address is {actual.lower()} (the scenario sets it apart from that plan)",
        )

    def final_state(self, ap, applied: str) -> str:
        """What an access point ended with: its radios (as `applied` says them), the last
        neighbour-report command of each VAP, and how many configd reads it served."""
        lines = [applied]
        for vap, content in sorted(ap.reports.items()):
            lines.append(f"  802.11k {vap}: {self.report_text(content)}")
        lines.append(f"  configd reads served: {ap.gets}")
        return "\n".join(lines)
