"""Addresses and the numbers that carry them: MAC addresses, chanspecs, the BSSIDs of
neighbour-report commands; and the address book that says which of the lab's access points
(and which of its VAPs) an address or a service connection belongs to."""
from __future__ import annotations

from sim.site.model import mac_number  # noqa: F401 (the lab's modules take them from here)
from sim.site.radios import decode_chanspec  # noqa: F401


def parse_report_bssid(text: str) -> str | None:
    """The BSSID of a neighbour-report "add" command: six bytes, last first, each as two hex
    digits, or as eight (ffffffXX) for a byte of 0x80 and above."""
    octets = []
    at = 0
    while len(octets) < 6 and at < len(text):
        width = 8 if text[at] in "89abcdefABCDEF" else 2
        piece = text[at : at + width]
        if len(piece) != width:
            return None
        try:
            octets.append(int(piece, 16) & 0xFF)
        except ValueError:
            return None
        at += width
    if len(octets) != 6 or at != len(text):
        return None
    return ":".join(f"{b:02X}" for b in reversed(octets))


def report_command(text: str) -> str:
    """A neighbour-report command file's content in words."""
    text = text.strip()
    if not text:
        return "(empty)"
    if text == "delall":
        return "delall (list cleared)"
    words = text.split()
    if words[0] == "add" and len(words) >= 6:
        bssid = parse_report_bssid(words[1]) or words[1]
        ssid = text.split("ssid ", 1)[1].split(" bssload", 1)[0] if "ssid " in text else "?"
        return f"add {bssid} channel {words[4]} ssid {ssid}"
    return text


class AddressBook:
    """Which of the lab's access points an address or a connection to the service is about."""

    def __init__(self, aps: list):
        self.aps = aps  # the lab's own list, filled as it makes the access points
        self.labels = {}  # connection number -> access point label

    def ap_of_mac(self, mac):
        number = mac_number(mac)
        for ap in self.aps:
            if number is not None and number == ap.base:
                return ap
        return None

    def where(self, mac) -> str:
        """Which access point, radio and VAP an address belongs to by orvd's plan (base MAC +
        VAP id + 16 x radio id), e.g. "ap2 wlan1-va0"; "" when none of the lab's."""
        number = mac_number(mac)
        if number is None:
            return ""
        for ap in self.aps:
            offset = number - ap.base
            if 0 <= offset < 256:
                return f"{ap.label} wlan{offset // 16}-va{offset % 16}"
        return ""

    def label_of(self, conn) -> str:
        """The access point a connection is from ("ap1"), once it said its MAC; "#3" before."""
        if conn.number not in self.labels and conn.ap is not None:
            ap = self.ap_of_mac(conn.ap.ap_mac)
            if ap is not None:
                self.labels[conn.number] = ap.label
        return self.labels.get(conn.number, f"#{conn.number}")
