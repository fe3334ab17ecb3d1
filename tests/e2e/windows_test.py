"""The tool for Windows, under Wine: what differs there. Started by scripts/windows, which has it pass other tests, too."""

import json
import pathlib
import unittest

from pc import DAEMON, Run, eventually, link_local, testnet

MACS = [f"00:1b:c4:0a:12:{number:02x}" for number in range(4)]


class Windows(unittest.TestCase):
    def setUp(self):
        self.net = testnet.Network()
        self.addCleanup(self.net.close)
        self.pc = self.net.host("pc", "192.168.1.3/24")
        self.devices = [testnet.Device(self.net, f"device-{number}", address, DAEMON, facts, MACS[number])
                        for number, (address, facts) in enumerate((
                            ("192.168.1.20/24", ["DeviceName=Süd"]), ("10.20.30.40/16", ["DeviceName=Far"]),
                            ("192.168.1.22/24", None)))]
        self.assertTrue(eventually(lambda: Run(self.pc, "--expect", "3").end()[0] == 0, 60), "not all devices answer")

    def test_scan(self):
        """Every device by every way that reaches this PC; an IPv6 zone is a number; lines end as everywhere."""
        def answers(number, address, *ways):
            senders = {"ipv6": f"{link_local(MACS[number])}%{self.pc.interface()['ifindex']}", "ipv4": address, "broadcast": address}
            return sorted((way, "eth0", senders[way]) for way in ways)
        status, out, err = Run(self.pc, "--json", "--interface", "eth0", text=False, encoding=None).end()
        found = {device["mac"]: (device["name"], sorted((one["way"], one["interface"], one["from"]) for one in device["answers"]))
                 for device in map(json.loads, out.splitlines())}
        self.assertEqual((status, err, found, out.count(b"\r")), (0, b"", {
            MACS[0]: ("Süd", answers(0, "192.168.1.20", "ipv6", "ipv4", "broadcast")),
            MACS[1]: ("Far", answers(1, "10.20.30.40", "ipv6", "ipv4")),
            MACS[2]: (None, answers(2, "192.168.1.22", "ipv6", "ipv4", "broadcast"))}, 0))

    def test_words(self):
        """A name and a file that no old code page has whole; "/x" is an argument, not an option."""
        plan = pathlib.Path(self.net.folder, "plän 温度.csv")
        plan.write_text("name,address,prefix\nSüd,192.168.1.23,24\n", encoding="utf-8")
        self.assertEqual(Run(self.pc, "apply", str(plan), "--yes").end()[0], 0)
        self.assertEqual(self.devices[0].host.interface()["addr_info"][0]["local"], "192.168.1.23")
        self.assertIn("no such file", Run(self.pc, "apply", "/none").end()[2].lower())


if __name__ == "__main__":
    unittest.main(verbosity=2)
