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


class ServiceInPython(case.DeviceTest):
    with_service = False

    def test_record_settings_and_forwarded_words(self):
        (source,) = blocks("protocol.md", "python")
        service = self.device.start(sys.executable, "-c", source)
        wanted = next(block for block in blocks("protocol.md") if "OAN:Tessel XT" in block).rstrip()
        wanted = wanted.encode().decode("unicode_escape").encode("latin-1")
        self.assertTrue(eventually(lambda: self.ask(IDENT) == wanted, 8), self.ask(IDENT))
        for command, changes in (
                (request("SETIPADDRESS!", "10.1.2.3", "255.255.0.0", "10.1.0.1"),
                 {b"192.168.1.10": b"10.1.2.3", b"255.255.255.0": b"255.255.0.0", b"192.168.1.1\t": b"10.1.0.1\t"}),
                (request("SETDHCPMODE!", MAC, "1"), {b"ASK:false": b"ASK:true"})):
            for old, new in changes.items():
                wanted = wanted.replace(old, new)
            self.assertEqual((self.ask(command), self.ask(IDENT)), (ACK, wanted), command)
        self.ask(b"WHATEVER\r\n", seconds=0.2)
        self.assertEqual(self.ask(IDENT), wanted)
        self.assertIsNone(service.poll())


@unittest.skipUnless(shutil.which("nft"), "nft is not installed (package nftables)")
class Firewalls(case.DeviceTest):
    with_service = False

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


class Rooms(unittest.TestCase):
    def test_each_includes_only_what_the_table_says(self):
        root, allowed = DOCS.parent, {}
        for folder, names in re.findall(r"^\| `([a-z/]+)/` \| `tarn[^|]*\| ([^|]*) \|$",
                                        (DOCS / "design.md").read_text(encoding="utf-8"), re.M):
            allowed[folder] = {folder, *re.findall(r"`([^`]*)`", names)}
        self.assertEqual(len(allowed), 8)
        wrong = []
        for folder, names in allowed.items():
            for path in root.glob(f"{folder}/*.[ch]*"):
                for included in re.findall(r'^#include "([^"]*)"', path.read_text(encoding="utf-8"), re.M):
                    if not names & {included, included.rpartition("/")[0]}:
                        wrong.append(f"{path.relative_to(root)}: {included}")
        self.assertEqual(wrong, [])


class Sandbox(unittest.TestCase):
    def test_shows_nothing_of_the_machine(self):
        self.assertTrue(os.statvfs("/sys").f_flag & os.ST_RDONLY)
        self.assertLessEqual(set(os.listdir("/sys/class/net") if os.path.exists("/sys/class") else ()),
                             {"lo", "lan", "p-device", "p-pc"})


if __name__ == "__main__":
    unittest.main()
