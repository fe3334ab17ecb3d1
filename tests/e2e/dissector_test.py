"""The Wireshark dissector, by tshark: on datagrams of each kind, and on odd ones beside a plain reader."""

import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import unittest

if not shutil.which("tshark"):
    print("skipped: tshark is not installed (scripts/dissector installs it)")
    sys.exit(77)

import case  # noqa: E402, F401
from device import ACK, IDENT, MAC, NACK, SERVICE_RECORD, request  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
PC = 40000   # its port
SHOWN = ("kind", "way", "command", "filter", "address", "mask", "gateway", "nameserver", "on", "shell", "argument", "text",
         "loc", "maa")


def tshark(datagrams, what, *fields):
    """Of each datagram, (source, destination, payload), for which the filter `what` holds: these fields."""
    with open("/tmp/datagrams.pcap", "wb") as file:   # as tcpdump writes it, of raw IP
        file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, 101))
        for source, destination, payload in datagrams:
            udp = struct.pack(">HHHH", source, destination, 8 + len(payload), 0) + payload
            packet = struct.pack(">BxH4xBBxx8x", 0x45, 20 + len(udp), 1, 17) + udp
            file.write(struct.pack("<IIII", 0, 0, len(packet), len(packet)) + packet)
    words = ["tshark", "-n", "-X", f"lua_script:{ROOT}/packaging/tarnddp.lua", "-r", "/tmp/datagrams.pcap", "-Y", what,
             "-T", "fields", "-E", "separator=/t", *(word for field in fields for word in ("-e", field))]
    done = subprocess.run(words, check=True, capture_output=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
    if b"ua error" in done.stderr or b"not running" in done.stderr:
        raise RuntimeError(done.stderr.decode())
    return [line.split("\t") for line in done.stdout.decode().splitlines()]


def is_mac(text):
    """The table of docs/protocol.md, row by row."""
    digits = separators = 0
    for c in text:
        if c in "0123456789abcdefABCDEF":
            digits += 1
        elif c in ":-":
            if digits == 0:
                return False
            if digits // 2 - 1 != separators:
                break
            separators = digits // 2
        else:
            separators = -1
    return digits == 12 and separators in (0, 5)


def read(datagram):
    """Command word, MAC filter, number of fields, whether it is malformed."""
    text = datagram.split(b"\0")[0].decode("latin-1")
    fields = re.split("[\t\r\n]", text)
    mac = fields.pop(1) if len(fields) > 1 and is_mac(fields[1]) else ""
    word = "".join(chr(ord(c) - 32) if "a" <= c <= "z" else c for c in fields[0])
    is_malformed = len(datagram) > 1023 or b"\0" in datagram or not re.search("[\r\n]", text)
    return [word, mac, str(len(fields)), str(int(is_malformed))]


class Dissector(unittest.TestCase):
    def test_each_kind(self):
        rows = [
            (PC, 5562, IDENT, {"kind": "request", "command": "DEVICEIDENT?"}),
            (5563, 5563, SERVICE_RECORD, {"kind": "record", "loc": "Bench 1", "maa": MAC}),
            (PC, 5564, request("setipaddress!", MAC, "10.1.2.3", "255.0.0.0", "", "10.1.0.53"),
             {"kind": "request", "command": "SETIPADDRESS!", "filter": MAC, "address": "10.1.2.3", "mask": "255.0.0.0",
              "nameserver": "10.1.0.53"}),
            (5564, PC, ACK, {"kind": "ack"}), (5564, PC, NACK, {"kind": "nack"}),
            (PC, 5564, request("EXECUTECOMMAND!", "true"), {"kind": "request", "command": "EXECUTECOMMAND!", "shell": "true"}),
            (PC, 5564, request("SYSTRACE!", "1"), {"kind": "request", "command": "SYSTRACE!", "on": "1"}),
            (5564, PC, b"one\ntwo \xfc\n", {"kind": "trace", "text": "one,two ü"})]
        ways = {5562: "UDP Broadcast", 5563: "IPV4 Multicast", 5564: "IPV6 Multicast"}
        datagrams = [row[:3] for row in rows]
        self.assertEqual(tshark(datagrams, "tarnddp", *(f"tarnddp.{name}" for name in SHOWN)), [
            [{"way": ways[min(source, destination)], **shown}.get(name, "") for name in SHOWN]
            for source, destination, _, shown in rows])
        self.assertEqual(tshark(datagrams, "tarnddp.malformed || tarnddp.ignored || _ws.malformed", "tarnddp.kind"), [])

    def test_odd_datagrams(self):
        """Requests as a plain reader reads them; whatever else there is, without an error."""
        chance = random.Random(7)
        pieces = ("DEVICEIDENT?", "setipaddress!", "SYSTRACE!", "1", "x", MAC, "00-1b-c4-0a-ff-05", "001bc40aff05", ":x",
                  "00:1b:c4:0a:ff", "0:1b:c4:0a:ff:05", "-", "ab", "\t", "\t", "\r\n", "\n", "\r", "\0", "z" * 1010)
        requests = [b"".join(chance.choice(pieces).encode() for _ in range(chance.randint(1, 9))) for _ in range(1500)]
        sent = [(PC, 5564, datagram) for datagram in requests]
        self.assertEqual(tshark(sent, "udp.length > 1031 && (tarnddp.notice || tarnddp.ignored)", "tarnddp.command"), [])
        rows = tshark(sent, "tarnddp", "tarnddp.command", "tarnddp.filter", "tarnddp.fields", "tarnddp.malformed")
        self.assertEqual([row[:3] + [str(int(row[3] != ""))] for row in rows], [read(datagram) for datagram in requests])
        corpora = [path.read_bytes() for path in (ROOT / "tests" / "fuzz" / "corpus").glob("*/*")]
        odd = [(*ports, (prefix + text)[:65507]) for text in corpora + requests[:200]
               for prefix in (b"", b"SID:", b"SETIPADDRESS!\t") for ports in ((PC, 5564), (5562, PC), (5563, 5563))
               if prefix + text]
        errors = tshark(odd, "tarnddp", "tarnddp.kind", "_ws.lua.error", "_ws.malformed.expert")
        self.assertEqual((len(errors), [row for row in errors if row[1:] != ["", ""]]), (len(odd), []))


if __name__ == "__main__":
    unittest.main()
