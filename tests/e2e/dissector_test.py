"""The Wireshark dissector, by tshark: on what really went over the wire, and on odd datagrams beside a plain reader."""

import os
import pathlib
import random
import re
import shutil
import socket
import struct
import subprocess
import sys
import unittest

if not shutil.which("tshark"):
    print("skipped: tshark is not installed (scripts/dissector installs it)")
    sys.exit(77)

import case  # noqa: E402
from device import IDENT, MAC, QUIET, request  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
ETHERNET, RAW_IP = 1, 101
SHOWN = ("kind", "way", "command", "filter", "address", "mask", "gateway", "nameserver", "on", "shell", "argument", "text",
         "loc", "maa")


class Capture:
    """A file as tcpdump writes it."""

    def __init__(self, path, link):
        self.file = open(path, "wb")
        self.file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, link))

    def add(self, frame):
        self.file.write(struct.pack("<IIII", 0, 0, len(frame), len(frame)) + frame)

    def add_datagram(self, source, destination, payload):
        udp = struct.pack(">HHHH", source, destination, 8 + len(payload), 0) + payload
        self.add(struct.pack(">BxH4xBBxx4s4s", 0x45, 20 + len(udp), 1, 17, bytes(4), bytes(4)) + udp)


def tshark(path, what, *fields):
    """Of each packet for which the filter `what` holds: these fields, or the line of the list."""
    words = ["tshark", "-n", "-X", f"lua_script:{ROOT}/packaging/tarnddp.lua", "-r", path, "-Y", what]
    if fields:
        words += ["-T", "fields", "-E", "separator=/t", *(word for field in fields for word in ("-e", field))]
    done = subprocess.run(words, check=True, capture_output=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
    if b"ua error" in done.stderr or b"not running" in done.stderr:
        raise RuntimeError(done.stderr.decode())
    return [line.split("\t") if fields else line for line in done.stdout.decode().splitlines()]


class OnTheWire(case.DeviceTest):
    def test_session(self):
        self.attach()
        path = f"{self.net.folder}/session.pcap"
        capture = Capture(path, ETHERNET)
        wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
        wire.bind(("p-pc", 0))   # the bridge's end of the PC's cable
        for way, datagram in (("broadcast", IDENT), ("ipv4", IDENT),
                              ("ipv6", request("setipaddress!", MAC, "10.1.2.3", "255.0.0.0", "", "10.1.0.53")),
                              ("ipv6", request("EXECUTECOMMAND!", "true")), ("ipv6", request("SYSTRACE!", "1"))):
            self.ask(datagram, way)
            if way == "ipv4":   # its own answer to the group is the last request until the next
                device.eventually(lambda: "Received SID:" in self.daemon.output())
        pathlib.Path("/tmp/tsl_app/FIFO_T_C2H_AET").write_bytes(b"one\ntwo \xfc\n")
        self.callers["ipv6"].receive(3)
        wire.settimeout(QUIET)
        try:
            while True:
                capture.add(wire.recv(65536))
        except TimeoutError:
            wire.close()
            capture.file.close()
        record = {"kind": "record", "loc": "Bench 1", "maa": MAC}
        expected = [
            ("UDP Broadcast", {"kind": "request", "command": "DEVICEIDENT?"}), ("UDP Broadcast", record),
            ("IPV4 Multicast", {"kind": "request", "command": "DEVICEIDENT?"}), ("IPV4 Multicast", record),
            ("IPV6 Multicast", {"kind": "request", "command": "SETIPADDRESS!", "filter": MAC, "address": "10.1.2.3",
                                "mask": "255.0.0.0", "nameserver": "10.1.0.53"}),
            ("IPV6 Multicast", {"kind": "ack"}),
            ("IPV6 Multicast", {"kind": "request", "command": "EXECUTECOMMAND!", "shell": "true"}),
            ("IPV6 Multicast", {"kind": "nack"}),
            ("IPV6 Multicast", {"kind": "request", "command": "SYSTRACE!", "on": "1"}), ("IPV6 Multicast", {"kind": "ack"}),
            ("IPV6 Multicast", {"kind": "trace", "text": "one,two ü"})]
        self.assertEqual(tshark(path, "tarnddp", *(f"tarnddp.{name}" for name in SHOWN)),
                         [[{"way": way, **shown}.get(name, "") for name in SHOWN] for way, shown in expected])
        self.assertEqual(tshark(path, "tarnddp.malformed || tarnddp.ignored || _ws.malformed"), [])
        self.assertEqual(len(tshark(path, f'tarnddp.maa == "{MAC}" && tarnddp.ipa == "192.168.1.10"')), 2)


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


class OddDatagrams(unittest.TestCase):
    def setUp(self):
        self.path = "/tmp/odd.pcap"
        self.capture = Capture(self.path, RAW_IP)

    def test_requests_as_a_plain_reader_reads_them(self):
        chance = random.Random(7)
        pieces = ("DEVICEIDENT?", "setipaddress!", "SYSTRACE!", "1", "x", MAC, "00-1b-c4-0a-ff-05", "001bc40aff05", ":x",
                  "00:1b:c4:0a:ff", "0:1b:c4:0a:ff:05", "-", "ab", "\t", "\t", "\r\n", "\n", "\r", "\0", "z" * 1010)
        datagrams = [b"".join(chance.choice(pieces).encode() for _ in range(chance.randint(1, 9))) for _ in range(1500)]
        for datagram in datagrams:
            self.capture.add_datagram(40000, 5564, datagram)
        self.capture.file.close()
        rows = tshark(self.path, "tarnddp", "tarnddp.command", "tarnddp.filter", "tarnddp.fields", "tarnddp.malformed")
        self.assertEqual(len(rows), len(datagrams))
        for datagram, row in zip(datagrams, rows):
            self.assertEqual(row[:3] + [str(int(row[3] != ""))], read(datagram), datagram)

    def test_no_datagram_is_too_odd(self):
        count = 0
        for path in sorted((ROOT / "tests" / "fuzz" / "corpus").glob("*/*")):
            for prefix in (b"", b"SID:", b"SETIPADDRESS!\t"):
                payload = (prefix + path.read_bytes())[:65507]
                for source, destination in ((40000, 5564), (5562, 40000), (5563, 5563)) if payload else ():
                    self.capture.add_datagram(source, destination, payload)
                    count += 1
        self.capture.file.close()
        self.assertEqual(tshark(self.path, "_ws.lua.error || _ws.malformed.expert"), [])
        self.assertEqual(len(tshark(self.path, "tarnddp.kind")), count)


if __name__ == "__main__":
    unittest.main()
