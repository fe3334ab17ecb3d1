"""What the documents give to be copied, tried as it stands in them; and what the sandbox shows of the machine."""

import os
import pathlib
import re
import shutil
import sys
import unittest

import case
from case import eventually
from device import ACK, ENABLE, IDENT, MAC, request

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"


def blocks(page, language=""):
    """The blocks of code of a page."""
    return re.findall(rf"^```{language}\n(.*?)^```$", (DOCS / page).read_text(encoding="utf-8"), re.M | re.S)


class Documents(case.DeviceTest):
    with_service = False

    def test_service_in_python(self):
        (source,) = blocks("protocol.md", "python")
        service = self.device.start(sys.executable, "-c", source)
        wanted = next(block for block in blocks("protocol.md") if "OAN:Tessel XT" in block).rstrip()
        wanted = wanted.encode().decode("unicode_escape")
        for command, changes in (
                (b"WHATEVER\r\n", {}),
                (request("SETIPADDRESS!", "10.1.2.3", "255.255.0.0", "10.1.0.1"),
                 {"192.168.1.10": "10.1.2.3", "255.255.255.0": "255.255.0.0", "192.168.1.1\t": "10.1.0.1\t"}),
                (request("SETDHCPMODE!", MAC, "1"), {"ASK:false": "ASK:true"})):
            self.assertTrue(eventually(lambda: self.ask(IDENT) == wanted.encode(), 8), self.ask(IDENT))
            self.assertEqual(self.ask(command, seconds=1), ACK if changes else None)
            for old, new in changes.items():
                wanted = wanted.replace(old, new)
        self.assertEqual(self.ask(IDENT), wanted.encode())
        self.assertIsNone(service.poll())
        self.device.stop(service)

    @unittest.skipUnless(shutil.which("nft"), "nft is not installed (package nftables)")
    def test_what_each_ruleset_lets_through(self):
        """The ways by which an identification is answered, and how many of 40 other requests sent at once."""
        rulesets = [block for block in blocks("security.md") if block.startswith("table inet")]
        expected = ((["broadcast", "ipv4", "ipv6"], (0,)), (["broadcast", "ipv4"], (40,)),
                    (["broadcast", "ipv4", "ipv6"], range(10, 15)))   # some more if the machine takes long
        self.assertEqual(len(rulesets), len(expected))
        for ruleset, (ways, others) in zip(rulesets, expected):
            rules = pathlib.Path(self.net.folder, "rules")
            rules.write_text("flush ruleset\n" + ruleset, encoding="ascii")
            self.device.run("nft", "-f", str(rules))
            caller = self.callers["broadcast"]
            for _ in range(40):
                caller.send(ENABLE)
            passed = 0
            while caller.receive(1)[0] is not None:
                passed += 1
            self.assertIn(passed, others, ruleset)
            self.assertEqual([way for way in self.callers if self.ask(IDENT, way, 1)], ways, ruleset)


class Tree(unittest.TestCase):
    def test_each_room_includes_only_what_the_table_says(self):
        rows = re.findall(r"^\| `([a-z/]+)/` \| `tarn[^|]*\| ([^|]*) \|$", (DOCS / "design.md").read_text("utf-8"), re.M)
        self.assertEqual(len(rows), 8)
        wrong = []
        for folder, allowed in rows:
            names = {folder, *re.findall(r"`([^`]*)`", allowed)}
            for path in DOCS.parent.glob(f"{folder}/*.[ch]*"):
                for included in re.findall(r'^#include "([^"]*)"', path.read_text(encoding="utf-8"), re.M):
                    if not names & {included, included.rpartition("/")[0]}:
                        wrong.append(f"{path}: {included}")
        self.assertEqual(wrong, [])

    def test_each_table_of_commands_has_all_of_them(self):
        daemon, *others = (set(re.findall(r'"([A-Z]+[!?])"', (DOCS.parent / path).read_text(encoding="utf-8"))) for path in (
            "ddp/TarnDDPCommand.cpp", "tool/Change.cpp", "packaging/tarnddp.lua"))
        self.assertEqual(others, [daemon, daemon])

    def test_the_sandbox_shows_nothing_of_the_machine(self):
        self.assertTrue(os.statvfs("/sys").f_flag & os.ST_RDONLY)
        self.assertLessEqual(set(os.listdir("/sys/class/net") if os.path.exists("/sys/class") else ()),
                             {"lo", "lan", "p-device", "p-pc"})


if __name__ == "__main__":
    unittest.main()
