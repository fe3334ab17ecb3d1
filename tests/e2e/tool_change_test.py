"""Changing devices: what leaves the PC, what came of it, what is refused."""

import json
import pathlib
import re
import shlex
import threading
import time
import unittest

from pc import DAEMON, IDENT, LIMIT, Fake, Run, Terminal, ddp_query, eventually, link_local, record, sent, testnet

MACS = [f"00:1b:c4:0a:12:{number:02x}" for number in range(16)]
QUICK = ("--time", "1.2")


def settings(address, prefix=24, gateway=None, dhcp=False):
    return {"address": address, "prefix": prefix, "gateway": gateway, "dhcp": dhcp}


class Change(unittest.TestCase):
    def setUp(self):
        self.net = testnet.Network()
        self.addCleanup(self.net.close)
        self.pc = self.net.host("pc", "192.168.1.3/24")
        # Where no device is, with no usable IPv6 address: two are checked for a double all the time, one has no link.
        self.pc.run("sh", "-c", "ip link add other type veth peer name end && ip addr add 192.168.77.1/24 dev other && "
                    "ip addr add 192.168.78.1/24 dev end && for i in other end; do cd /proc/sys/net/ipv6/conf/$i && "
                    "echo 1 >accept_dad && echo 200 >dad_transmits && ip link set $i up; done && "
                    "ip link add loose type veth peer tail && ip addr add 192.168.79.1/24 dev loose && ip link set loose up")
        self.wire = testnet.Wire(self.pc)
        self.addCleanup(self.wire.close)
        self.devices = {}

    def device(self, number, address, name=None):
        """A real device, without a service if it has no name."""
        facts = name and [f"DeviceName={name}", f"SerialNumber=1000{number:02d}"]
        device = testnet.Device(self.net, f"device-{number}", address, DAEMON, facts, MACS[number])
        self.devices[number] = device
        return device

    def fake(self, number, reply, mac=None):
        """One that `reply` drives; it answers from 192.168.1.(90 + number), and may say that it has another MAC address."""
        host = self.net.host(f"fake-{number}", f"192.168.1.{90 + number}/24", MACS[number])
        fake = Fake(host, [record(mac or MACS[number], f"Fake {number}", f"9{number}", f"192.168.1.{90 + number}")], reply)
        self.addCleanup(fake.close)
        self.devices[number] = fake
        return fake

    def ready(self, missing=0):
        """Waits until all devices answer by IPv6 and by IPv4, but for `missing` of these answers."""
        def count(way):
            with ddp_query.Caller(way, testnet.INTERFACE) as caller:
                return len({answer for answer, _ in caller.ask_all(IDENT, 0.4)})
        with self.pc.inside():
            self.assertTrue(eventually(lambda: count("ipv6") + count("ipv4") >= 2 * len(self.devices) - missing, 20))
        self.wire.take()

    def sent(self):
        """What was sent, as (device or destination, port, fields): an end of empty fields, and over IPv6 the filter,
        make no difference."""
        found = []
        for to, port, fields in sent(self.wire):
            if to.startswith("fe80::"):
                number, = (number for number in self.devices if link_local(MACS[number]) == to)
                to, fields = f"device {number}", [word for at, word in enumerate(fields) if (at, word) != (1, MACS[number])]
            while fields and not fields[-1]:
                fields.pop()
            found.append((to, port, *fields))
        return found

    def run_all(self, rows, pause=0.0, options=QUICK, **how):
        """Runs all commands side by side, begun `pause` seconds after each other: by row what came of it."""
        runs = []
        for words in rows:
            runs.append(Run(self.pc, *words, *options, **how))
            time.sleep(pause)
        return [run.end() for run in runs]

    def records(self):
        """By number, what a scan tells."""
        _, out, err = Run(self.pc, "scan", "--json", *QUICK).end()
        self.assertIn("tarnddp: other is used in part: it has no IPv6 link-local address\n", err)
        return {MACS.index(fact["mac"]): fact for fact in map(json.loads, out.splitlines())}

    def test_set_ip(self):
        """Each row at once: what is sent, the result."""
        self.device(1, "192.168.1.21/24", "Press 1")
        self.device(2, "192.168.1.22/24")
        for number in (3, 4):
            self.device(number, "192.168.1.23/24", "Twin")
        self.device(5, "10.20.30.40/16", "Far")
        self.device(6, "192.168.1.26/24").host.disable_ipv6()
        self.device(7, "192.168.1.27/24", "Stubborn").service.Behave({"fault": -17, "only": "RPCConf.SetNetwork"})
        self.device(8, "192.168.1.28/24", "Settled")
        self.fake(9, lambda datagram: None)
        half = record(MACS[10], "Fake 10", "910", "192.168.1.40")   # it changes before it refuses
        torn = self.fake(10, lambda datagram: setattr(torn, "records", [half]) or b"NACK\n")
        leaving = self.fake(12, lambda datagram: leaving.records.clear() or b"ACK\n")
        self.fake(13, lambda datagram: b"ACK\n")
        self.fake(14, lambda datagram: b"ACK\n").records = [record(MACS[13], "Clone", "913", "192.168.1.104")]
        self.device(15, None)
        self.ready(3)

        def six(number, *fields):
            return [(f"device {number}", 5564, "SETIPADDRESS!", *fields)]

        def told(number, name, outcome, old=None):
            called = f"{name} ({MACS[number]})" if name else MACS[number]
            undo = f"the old settings come back with: tarnddp set-ip {MACS[number]} {old}\n" if old else ""
            return f"{called}: {outcome}\n{undo}"
        mask, cleared = "255.255.255.0", "the name server is cleared, as none was given\n"
        none = "the device has no gateway and gets none\n" + cleared
        rows = (
            (("Fake 13", "192.168.1.43/24"), 1, six(13, "192.168.1.43", mask), told(
                13, "Fake 13", "unchanged: acknowledged, but nothing has changed"), none),
            (("Fake 9", "192.168.1.39/24"), 1, 2 * six(9, "192.168.1.39", mask),
             told(9, "Fake 9", "unchanged: not acknowledged, and nothing has changed"), none),
            (("Press 1", "192.168.1.31/24", "--gateway", "192.168.1.1", "--dns", "9.9.9.9"), 0,
             six(1, "192.168.1.31", mask, "192.168.1.1", "9.9.9.9"), told(
                 1, "Press 1", "done: 192.168.1.31/24, gateway 192.168.1.1", "192.168.1.21/24 --gateway 0.0.0.0"), ""),
            (("1202", "192.168.1.22/24", "--dry-run"), 0, [],   # perhaps by a lease: its service is away
             told(2, "", "planned: 192.168.1.22/24, no gateway (nothing was sent)"), none),
            (("1202", "192.168.1.32/25"), 0, six(2, "192.168.1.32", "255.255.255.128"),
             told(2, "", "done: 192.168.1.32/25, no gateway", "192.168.1.22/24"), none),
            (("00-1B-C4-0A-12-03", "192.168.1.33/24"), 0, six(3, "192.168.1.33", mask),
             told(3, "Twin", "done: 192.168.1.33/24, no gateway", "192.168.1.23/24 --force"), none),   # the other one has it
            (("100005", "192.168.1.35/24", "--gateway", "10.0.0.1", "--force"), 0,
             six(5, "192.168.1.35", mask, "10.0.0.1"), told(
                 5, "Far", "done: 192.168.1.35/24, gateway 10.0.0.1", "10.20.30.40/16"),
             "gateway 10.0.0.1 is outside 192.168.1.0/24\n" + cleared),
            (("192.168.1.26", "192.168.1.36/24"), 0, [("192.168.1.26", 5562, "SETIPADDRESS!", MACS[6], "192.168.1.36", mask)],
             told(6, "", "done: 192.168.1.36/24, no gateway", "192.168.1.26/24"), none),
            (("00:1b:c4:0a:12:0f", "192.168.1.45/25", "--gateway", "192.168.1.1"), 0,
             six(15, "192.168.1.45", "", "192.168.1.1") + six(15, "192.168.1.45", "255.255.255.128", "192.168.1.1"), told(
                15, "", "done: 192.168.1.45/25, gateway 192.168.1.1"), cleared),
            (("Stubborn", "192.168.1.37/24", "--gateway", "192.168.1.1"), 1, six(7, "192.168.1.37", mask, "192.168.1.1"), told(
                7, "Stubborn", "different: it answers from 192.168.1.37 while its record shows 192.168.1.27 (its service "
                "refused, so the interface alone was set), its gateway is none", "192.168.1.27/24"), cleared),
            (("Settled", "192.168.1.28/24"), 0, [], told(
                8, "Settled", "done: 192.168.1.28/24, no gateway already; nothing was sent"), ""),
            (("Settled", "192.168.1.28/24", "--dns", "9.9.9.9"), 0, six(8, "192.168.1.28", mask, "", "9.9.9.9"), told(
                8, "Settled", "done: 192.168.1.28/24, no gateway"), none.splitlines()[0]),
            (("Settled", "192.168.1.28/24", "--force"), 0, six(8, "192.168.1.28", mask), told(
                8, "Settled", "done: 192.168.1.28/24, no gateway"), none),
            (("Settled", "192.168.1.99/24", "--force", "--dry-run"), 0, [], told(
                8, "Settled", "planned: 192.168.1.99/24, no gateway (nothing was sent)"),
             f"192.168.1.99 is the address of Fake 9 ({MACS[9]})\n{none}"),
            ((link_local(MACS[4]) + "%eth0", "10.0.0.34/24", "--dry-run"), 0, [], told(
                4, "Twin", "planned: 10.0.0.34/24, no gateway (nothing was sent)"), none +
             "with 10.0.0.34/24 the device will not be reachable over IPv4 from this PC, which has no route there\n"),
            (("00:1b:c4:0a:12:04", "192.168.77.34/24", "--gateway", "192.168.77.2", "--dns", "0.0.0.0", "--dry-run"), 0, [],
             told(4, "Twin", "planned: 192.168.77.34/24, gateway 192.168.77.2 (nothing was sent)"),
             "with 192.168.77.34/24 the device will be reachable over IPv4 from this PC through a router at best\n"),
            (("910", "192.168.1.40/24"), 1, six(10, "192.168.1.40", mask), told(
                10, "Fake 10", "refused: the device refused it, but its settings are now 192.168.1.40/24, no gateway",
                "192.168.1.100/24"), none),
            (("912", "192.168.1.42/24"), 1, six(12, "192.168.1.42", mask), told(
                12, "Fake 12", "gone: acknowledged, and not heard again since, last seen with 192.168.1.102 on eth0 "
                f"({link_local(MACS[12])}%eth0)", "192.168.1.102/24"), none))
        for host in (self.pc, self.net.hosts[-2]):   # that of the clone, which the first row shows as it asks
            host.run("ip", "neigh", "flush", "dev", "eth0")
        self.pc.run("sh", "-c", "ip neigh add 192.168.1.32 dev eth0 nud failed; "   # nobody has it
                    f"ip neigh add 192.168.1.35 lladdr {MACS[5]} dev eth0; "   # the device itself had it
                    f"ip neigh add 192.168.1.43 lladdr {MACS[14]} dev eth0")   # one whose record has another MAC had it
        ended = self.run_all([("set-ip", *words) for words, *_ in rows], 0.3, ())
        self.assertEqual(sorted(self.sent()), sorted(one for row in rows for one in row[2]))
        for (words, status, _, out, err), got in zip(rows, ended):
            with self.subTest(words):
                self.assertEqual(got, (status, out, "".join(f"tarnddp: {line}\n" for line in err.splitlines())))

        asked = [self.devices[number].heard.count(f"DEVICEIDENT?\t{MACS[number]}\r\n".encode()) for number in (10, 9, 12)]
        self.assertEqual([min(count, 4) for count in asked], [3, 4, 3],
                         "alone, by three ways: once, as it refused; again and again, as it did not; once, as it left")

        # The command that takes it back does so.
        for _, out, _ in (ended[2], ended[5]):
            undo = re.search(r"tarnddp (set-ip .*)", out)[1]
            self.assertEqual(Run(self.pc, *shlex.split(undo), *QUICK).end()[0], 0)
        records = self.records()
        self.assertEqual([{key: records[number][key] for key in settings("")} for number in (1, 3, 4)],
                         [settings("192.168.1.21"), settings("192.168.1.23"), settings("192.168.1.23")])

    def test_refusals(self):
        """Nothing leaves the PC but requests for records."""
        self.pc.run("sh", "-c", "ip -4 addr flush other && ip addr add 192.168.77.1/24 dev other label other-lan")
        self.device(1, "192.168.1.21/24", "Press 1")
        self.device(2, "192.168.1.22/24")
        for number in (3, 4):
            self.device(number, "192.168.1.23/24", "Twin")
        self.device(6, "192.168.1.26/24", "Old").host.disable_ipv6()
        self.fake(5, lambda datagram: None, MACS[6])
        self.ready(1)
        folder = pathlib.Path(self.net.folder)
        good = f"mac,serial,name,address,prefix,gateway,dns,dhcp\n{MACS[1]},,,192.168.1.41,24,,,off\n"
        for name, more in (("good", ",,Old,,,,,on\n"), ("taken", f"{MACS[2]},,,192.168.1.23,24,,,\n")):
            (folder / name).write_text(good + more, encoding="utf-8")
        self.pc.run("ip", "neigh", "add", "192.168.1.60", "lladdr", MACS[15], "dev", "eth0")   # what is no device
        new, path = "192.168.1.41/24", ("set-ip", "Press 1", "192.168.1.41/24")
        twins = '"Twin" means 2 devices; nothing was sent:\n' + "\n".join(
            f"  Twin ({MACS[number]}), serial number 10000{number}, at {link_local(MACS[number])}%eth0, 192.168.1.23"
            for number in (3, 4))
        unknown = ("is none of the 6 devices heard (tarnddp scan shows them); nothing was sent\n"
                   "end is used in part: it has no IPv6 link-local address\n"
                   "other is used in part: it has no IPv6 link-local address")
        nobody, forced = "nobody here can be asked; ", "; nothing was sent (--force does it all the same)"
        rows = (
            (("set-ip", "Press 1", "192.168.1.41"), 2,
             '"192.168.1.41" lacks its prefix length (192.168.1.20/24); nothing was sent'),
            (("set-ip", "Press 1", "192.168.1.3/24"), 2, "192.168.1.3 is an address of this PC; nothing was sent"),
            (("set-ip", "Press 1", "192.168.1.22/24", "--dry-run"), 2, f"192.168.1.22 is the address of {MACS[2]}{forced}"),
            (("set-ip", "Press 1", "192.168.1.60/24"), 2, f"192.168.1.60 is in use by {MACS[15]}, as this PC's neighbour table knows"
             + forced),
            ((*path, "--gateway", "10.0.0.1"), 2, f"gateway 10.0.0.1 is outside 192.168.1.0/24{forced}"),
            ((*path, "--gateway", "192.168.1.41", "--force"), 2,
             "the gateway 192.168.1.41 is the address itself; nothing was sent"),
            ((*path, "--dns", ""), 2, "an empty address is none (0.0.0.0 says that there is none); nothing was sent"),
            ((*path, "--interface", "eth7"), 3, "eth7 cannot be used: there is no such interface"),
            (("set-ip", "nobody", new), 1, f'"nobody" {unknown}'), (("set-ip", "Twin", new), 1, twins),
            (("set-ip", "192.168.1.23", new), 1, twins.replace('"Twin"', '"192.168.1.23"')),
            (("set-ip", "000000", new), 1, f'"000000" {unknown}'),
            (("dhcp", "192.168.1.22", "off"), 1, f"{MACS[2]}: its service is away, and then a device that is told to switch "
             "DHCP off takes a lease; nothing was sent (a fixed address ends DHCP: tarnddp set-ip "
             f"{MACS[2]} 192.168.1.22/24)"), (("dhcp", "Twin", "on"), 1, twins),
            (("halt", "Press 1"), 2, nobody + "nothing was sent (--yes does not ask)"), (("halt", "Twin", "--yes"), 1, twins),
            (("trace", "Twin"), 1, twins), (("frobnicate",), 2, 'there is no command "frobnicate" (see tarnddp --help)'),
            (("send", "Press 1", "DEVICEREBOOT!"), 2, "DEVICEREBOOT! is a word of the discovery protocol itself and never "
             "reaches the device's service; nothing was sent"),
            (("send", "Press 1", "A", MACS[2]), 2, f'a first argument like "{MACS[2]}" would be taken for the MAC address of a '
             "device; nothing was sent"),
            (("send", "Old", "WORD"), 1, f"Old ({MACS[6]}) gave no link-local IPv6 answer of its own, and only over IPv6 a word is "
             "passed on as it is; nothing was sent"),
            (("send", "1202", "WORD"), 1, f"{MACS[2]}: its service is away, so nobody would get the word; nothing was sent"),
            (("apply", "absent", "--yes"), 2, "absent: No such file or directory"),
            (("apply", "/", "--yes"), 2, "/: Is a directory"),
            (("apply", "good", "--json"), 2,
             f"line 2: Press 1 ({MACS[1]}): 192.168.1.21/24, no gateway -> 192.168.1.41/24, no gateway\n"
             f"line 3: Old ({MACS[6]}): 192.168.1.26/24, no gateway -> DHCP on\n"
             "line 2: the device has no gateway and gets none\nline 2: the name server is cleared, as none was given\n"
             f"2 to be changed, 0 left alone\ngood: {nobody}no change was sent (--yes does not ask)"),
            (("apply", "taken", "--yes"), 2, f"taken: line 3: 192.168.1.23 is the address of Twin ({MACS[3]})\n"
             "taken: the plan is wrong; no change was sent"))
        ended = self.run_all([words for words, *_ in rows], cwd=folder)
        sent_all = self.sent()
        for (words, status, told), (got, out, err) in zip(rows, ended):
            with self.subTest(words):
                self.assertEqual((got, out, err), (status, "", "".join(f"tarnddp: {line}\n" for line in told.splitlines())))
        self.assertEqual(Run(self.pc, "apply", "good", "--dry-run", *QUICK, cwd=folder).end()[:2], (
            1, f"{ended[-2][2].split('line 2: the')[0].replace('tarnddp: ', '')}2 to be changed, 0 left alone\n"
            f"Old ({MACS[6]}): unchanged: it cannot be addressed alone (another device has the same MAC address), so nothing "
            "was sent\n"))
        self.assertEqual(sent_all, [])
        self.pc.run("ip", "-4", "addr", "flush", "end")
        self.assertEqual(Run(self.pc, "scan", "--interface", "eth0", "--interface", "end").end(), (
            3, "", "tarnddp: end cannot be used: it has no IPv6 link-local address, and it has no IPv4 address\n"))

    def test_dhcp(self):
        self.device(1, "192.168.1.21/24", "Press 1")
        self.device(2, "192.168.1.22/24")
        self.fake(8, lambda datagram: None).records = [record(MACS[8], "Fake 8", "98", "192.168.1.150")]
        testnet.start_dnsmasq(self.net.host("server", "192.168.1.4/24"), self.net.folder, "192.168.1.150", "192.168.1.150")
        self.ready()
        self.assertEqual([Run(self.pc, "dhcp", "Press 1", state, "--dry-run", *QUICK).end() for state in ("on", "off")], [
            (0, f"Press 1 ({MACS[1]}): {told}\n", "") for told in (
                "planned: DHCP on (nothing was sent)", "done: DHCP is off already; nothing was sent")])
        for words, number, before, after in (
                (("Press 1", "on"), 1, settings("192.168.1.21"), settings("192.168.1.21", dhcp=True)),
                (("1202", "on"), 2, settings("192.168.1.22", dhcp=None),
                 settings("192.168.1.150", gateway="192.168.1.4", dhcp=None)),
                (("Press 1", "off"), 1, settings("192.168.1.21", dhcp=True), settings("192.168.1.21"))):
            with self.subTest(words):
                status, out, err = Run(self.pc, "dhcp", *words, "--json", *QUICK).end()
                self.assertEqual("but 192.168.1.150 is the address of Fake 8" in err, number == 2, err)
                self.assertEqual((json.loads(out), status, err.count("come back with: tarnddp ")), ({
                    "mac": MACS[number], "result": "done", "before": before, "after": after}, 0, 1), err)
                self.assertEqual(self.sent(), [(f"device {number}", 5564, "SETDHCPMODE!", str(int(words[1] == "on")))])
        # A lease may take a while.
        leased = [record(MACS[9], "Fake 9", "99", "192.168.1.151", ASK="true")]
        late = self.fake(9, lambda datagram: threading.Timer(8, lambda: setattr(late, "records", leased)).start() or b"ACK\n")
        # No device gets the address that a lease has brought another one meanwhile, or that its change has left it with.
        self.fake(10, lambda datagram: b"ACK\n")
        plan = pathlib.Path(self.net.folder, "plan.csv")
        plan.write_text("mac,address,prefix,dhcp\n" + "".join(f"{MACS[number]},{rest}\n" for number, rest in (
            (2, "192.168.1.100,24,"), (9, ",,on"), (10, "192.168.1.151,24,"))), encoding="utf-8")
        self.ready()
        status, out, _ = Run(self.pc, "apply", str(plan), "--yes", *QUICK).end()
        self.assertEqual((status, [line for line in out.splitlines() if re.search("changed:|done:", line)]), (1, [
            f"Fake 9 ({MACS[9]}): done: 192.168.1.151/24, no gateway, by DHCP",
            f"Fake 10 ({MACS[10]}): unchanged: 192.168.1.151 is the address of Fake 9 ({MACS[9]}); nothing was sent",
            f"{MACS[2]}: unchanged: 192.168.1.100 is the address of Fake 10 ({MACS[10]}); nothing was sent"]))

    def test_apply(self):
        for number, name in ((1, "Press 1"), (2, 'quo"te, \x1b[2J'), (3, "Third")):
            device = self.device(number, f"192.168.1.{20 + number}/24", name)
            device.host.disable_ipv6()
        self.fake(4, lambda datagram: b"NACK\n").records = [   # to what it hears that is for another one, too
            record(MACS[4], "Fake 4", "94", "192.168.1.94", GWA=b"\xff")]
        self.ready(3)
        csv = Run(self.pc, "scan", "--csv", *QUICK).end()[1]
        plan = pathlib.Path(self.net.folder, "plan.csv")
        plan.write_text("\ufeff" + csv, encoding="utf-8")
        self.assertEqual(Run(self.pc, "apply", str(plan), *QUICK).end()[0], 0)   # nothing to do needs no answer
        self.assertEqual(self.sent(), [])
        # One changes, and one is not there.
        ghost = f"{MACS[9]},,Ghost,192.168.1.29,24,,,off\r\n"
        plan.write_text(csv.replace(".23,", ".24,") + ghost, encoding="utf-8", newline="")
        answers = {b"n\n": 1, b"\x04": 1, b"\x03": 130}
        terminals = [Terminal(self.pc, "apply", str(plan), *QUICK, columns=120) for _ in answers]
        for terminal, (answer, wanted) in zip(terminals, answers.items()):
            terminal.wait_for("Change 1 device? [y/N]")
            terminal.type(answer)
            status, lines = terminal.end()
            self.assertEqual(status, wanted, lines)
            self.assertTrue(any(MACS[9] in line or "Ghost" in line for line in lines), lines)
        unread = Run(self.pc, "apply", str(plan), "--yes", *QUICK)   # nor to anything of which nobody would hear
        unread.process.stdout.close()
        self.assertEqual((unread.end()[0], self.sent()), (1, []))
        # Two change places.
        plan.write_text(csv.replace(".21,", ".X,").replace(".22,", ".21,").replace(".X,", ".22,") + ghost,
                        encoding="utf-8", newline="")
        terminal = Terminal(self.pc, "apply", str(plan), *QUICK, columns=120)
        terminal.wait_for("Change 2 devices? [y/N]")
        terminal.type(b"Y\n")
        status, lines = terminal.end()
        self.assertEqual((status, sum(": done: " in line for line in lines)), (1, 2), lines)   # one is not there
        self.assertEqual({number: facts["address"] for number, facts in self.records().items()},
                         {1: "192.168.1.22", 2: "192.168.1.21", 3: "192.168.1.23", 4: "192.168.1.94"}, lines)
        # When the second is told, both have one address: only the group with a filter reaches it alone.
        self.assertEqual(list(dict.fromkeys(one[:5] for one in self.sent())), [
            ("192.168.1.21", 5562, "SETIPADDRESS!", MACS[1], "192.168.1.22"),
            ("224.0.5.128", 5563, "SETIPADDRESS!", MACS[2], "192.168.1.21")])
        self.assertEqual(Run(self.pc, "apply", str(plan), "--yes", *QUICK).end(), (
            1, f"line 6: {MACS[9]}: not heard\n0 to be changed, 4 left alone\n",
            "".join(f"tarnddp: {name} is used in part: it has no IPv6 link-local address\n" for name in ("end", "other"))))
        status, out, _ = Run(self.pc, "apply", str(plan), "--dry-run", "--json", *QUICK).end()
        self.assertEqual((status, [json.loads(line) for line in out.splitlines()]), (1, [
            {"mac": MACS[number], "result": result, "before": now, "after": now} for number, result, now in (
                (4, "done", settings("192.168.1.94", gateway="\u00ff")), (1, "done", settings("192.168.1.22")),
                (3, "done", settings("192.168.1.23")), (2, "done", settings("192.168.1.21")), (9, "gone", None))]))
        self.assertEqual(self.sent(), [])
        trace = Run(self.pc, "trace", "Third", *QUICK)   # over IPv4, but at the port where it is obeyed
        self.assertEqual(eventually(self.sent)[0][:3], ("192.168.1.23", 5564, "SYSTRACE!"))
        trace.interrupt()
        self.assertEqual(trace.end(), (130, "", ""))

    def test_trace(self):
        """Lines as they come, no reply among them; back after another took the route; off at the end."""
        device = self.device(1, "192.168.1.21/24", "Press 1")
        self.ready()
        other = self.net.host("other", "192.168.1.5/24")
        trace = Run(self.pc, "trace", "Press 1", *QUICK)
        with device.telling(lambda number: f"line {number} \x1b[2J\n".encode(), 0.1):
            lines = [trace.process.stdout.readline() for _ in range(5)]
            with other.inside(), ddp_query.Caller("ipv6", testnet.INTERFACE) as caller:
                caller.ask(IDENT, 3)
            lines += [trace.process.stdout.readline() for _ in range(25)]
            trace.interrupt()
            status, rest, err = trace.end()
        self.assertEqual(status, 130, err)
        for line in (lines := lines + rest.splitlines(keepends=True)):
            self.assertRegex(line, r"^line \d+ \\x1b\[2J\n$")
        numbers = [int(line.split()[1]) for line in lines]
        self.assertEqual(numbers, sorted(set(numbers)))
        gaps = [later - earlier for earlier, later in zip(numbers, numbers[1:]) if later - earlier > 1]
        self.assertTrue(gaps, "the other one did not take the route")
        said = self.sent()
        self.assertEqual({one[:3] for one in said}, {("device 1", 5564, "SYSTRACE!")})
        self.assertRegex("".join(one[3] for one in said), "^1{2,5}0+$")

    def test_trace_of_a_device_that_starts_anew(self):
        """Also over IPv4, where a filter is sent along."""
        devices = [self.device(number, f"192.168.1.2{number}/24", f"Press {number}") for number in (1, 2)]
        devices[1].host.disable_ipv6()
        self.ready(1)
        files, runs = [pathlib.Path(self.net.folder, f"trace-{number}") for number in (1, 2)], []
        for number, file in enumerate(files, 1):
            with file.open("wb") as output:
                runs.append(Run(self.pc, "trace", f"Press {number}", *QUICK, stdout=output))
        for told in (b"before\n", b"after\n"):
            with devices[0].telling(lambda _, text=told: text, 0.3), devices[1].telling(lambda _, text=told: text, 0.3):
                eventually(lambda text=told: all(text in file.read_bytes() for file in files), 20)
            self.assertEqual([set(file.read_bytes().split()) for file in files], [{b"before", told.strip()}] * 2)
            if told == b"before\n":
                for device in devices:
                    device.restart()
        for run in runs:
            run.interrupt()
            self.assertEqual(run.end(), (130, None, ""))

    def test_trace_pieces(self):
        """Lines that come in pieces, with other ends, and with a record among them; the last one has none."""
        pieces = iter([[b"ACK\n", b"a\r\nb", record(MACS[1]), b"c\r", b"\nACK\n", b"ACK\n", b"d", b"e\xff"]])
        self.fake(1, lambda datagram: next(pieces, None))
        self.ready()
        self.fake(2, lambda datagram: None)
        trace, silent, unread = (Run(self.pc, "trace", f"Fake {number}", *QUICK) for number in (1, 2, 2))
        unread.process.stdout.close()
        self.assertEqual(unread.end()[::2], (1, ""))
        self.assertIn(("device 2", 5564, "SYSTRACE!", "0"), self.sent())
        heard = trace.process.stdout.read(len("a\nbc\\x0d\nACK\nACK\nde."))
        time.sleep(10.5)   # it was acknowledged, and need not be again
        self.pc.run("ip", "link", "set", "eth0", "down")
        self.assertEqual(trace.process.stderr.readline(), f"tarnddp: nothing could be sent to Fake 1 ({MACS[1]}): "
                         f"{link_local(MACS[1])}%eth0: Network is unreachable\n")
        trace.interrupt()
        self.assertEqual(silent.end(), (1, "", f"tarnddp: Fake 2 ({MACS[2]}) did not acknowledge in 8 s\n"))
        self.assertEqual((heard, trace.end()), ("a\nbc\\x0d\nACK\nACK\nde\u00ff", (130, "\n", "")))

    def test_halt_and_send(self):
        first, second = self.device(1, "192.168.1.21/24", "Press 1"), self.device(2, "192.168.1.22/24", "Press 2")
        third = self.device(3, "192.168.1.23/24", "Press 3")
        leaving = self.fake(4, lambda datagram: leaving.records.clear())
        self.fake(5, lambda datagram: b"NACK\n")
        self.fake(6, lambda datagram: None)

        class Anew(list):
            """Answers of one that was started anew, and ignores a filter. After two in a row, some are lost."""
            def __iter__(self):
                asked = [datagram for datagram in anew.heard if datagram.startswith(IDENT.rstrip())]
                return iter(self[:asked[-1] == IDENT and asked[-7:] != 7 * [IDENT]])
        anew = self.fake(7, lambda datagram: setattr(anew, "records", Anew(anew.records)) or b"ACK\n")
        self.ready()
        self.assertEqual(Run(self.pc, "send", "Press 1", "CALIBRATE", "3", "a b", *QUICK).end(), (
            0, f"Press 1 ({MACS[1]}): passed on to its service, which does not answer this way\n", ""))
        self.assertEqual(self.sent(), [("device 1", 5564, "CALIBRATE", "3", "a b")])
        calls = eventually(lambda: [call["params"] for call in first.service.Calls() if call["method"] == "RPCSys.SendSysCmd"])
        self.assertEqual([call["Msg"] for call, in calls], ["CALIBRATE\t3\ta b\n"])   # as XML reads it
        for answer, wanted, halted in ((b"no\n", 1, False), (b"yes\n", 0, True)):
            terminal = Terminal(self.pc, "halt", "Press 1", *QUICK)
            terminal.wait_for("Only its power switch starts it again. [y/N]")
            terminal.type(answer)
            status, lines = terminal.end()
            self.assertEqual((status, first.halted.exists()), (wanted, halted), lines)
            self.assertIn(b" so far", terminal.raw, "how many were heard while it asked")
            self.assertEqual(b"asking again" in terminal.raw, halted)
        rows = {2: ("halted", 0), 4: ("halted, as it seems: it did not acknowledge, but does not answer any more", 0),
                5: ("refused", 1), 6: ("not acknowledged, and it still answers", 1),
                7: ("acknowledged, but it still answers after 5 s", 1)}
        names = {number: f"{'Press' if number == 2 else 'Fake'} {number}" for number in rows}
        self.assertEqual(self.run_all([("halt", name, "--yes") for name in names.values()], 0.3), [
            (status, f"{names[number]} ({MACS[number]}): {told}\n", "") for number, (told, status) in rows.items()])
        self.assertEqual((second.halted.exists(), third.halted.exists()), (True, False))
        self.assertEqual(sorted(self.sent()), [(f"device {number}", 5564, "DEVICEREBOOT!") for number in (1, 2, 4, 5, 6, 7)])
        third.halted.with_name("halt").write_text("#!/bin/sh\n(sleep 0.3; ip -n pc link set eth0 down) &\n")
        self.assertEqual(Run(self.pc, "halt", "Press 3", "--yes", *QUICK).end(), (0, (
            f"Press 3 ({MACS[3]}): halted, as it seems: acknowledged, and this PC has no link to it any more\n"), ""))

    def test_firewall(self):
        """What this PC's own firewall keeps in is told with the reason: commands alone, then requests as well."""
        self.fake(1, lambda datagram: None)
        self.ready()
        plan = pathlib.Path(self.net.folder, "plan.csv")
        plan.write_text(f"mac,dhcp\n{MACS[1]},on\n", encoding="utf-8")
        rows = (("dhcp", "Fake 1", "on"), ("trace", "Fake 1"), ("halt", "Fake 1", "--yes"), ("send", "Fake 1", "WORD"))
        self.pc.run("nft", "add table inet f; add chain inet f o { type filter hook output priority 0; }; "
                    "add rule inet f o udp dport 5562 drop; "   # one way, without which the others do
                    "add rule inet f o udp length 52 quota 99 bytes accept; "   # the first SETIPADDRESS!
                    f"add rule inet f o udp dport 5562-5564 udp length != {8 + len(IDENT)} drop")
        called, why = f"Fake 1 ({MACS[1]})", f": {link_local(MACS[1])}%eth0: Operation not permitted\n"
        change = ("set-ip", "Fake 1", "192.168.1.31/24", "--gateway", "0.0.0.0", "--dns", "0.0.0.0")
        self.assertEqual(self.run_all((*rows, change)), [
            *[(3, "", f"tarnddp: nothing could be sent to {called}{why}")] * len(rows),
            (1, f"{called}: unchanged: not acknowledged, and nothing has changed\n", "")])
        self.assertEqual(Run(self.pc, "apply", str(plan), "--yes", *QUICK).end(), (
            1, f"line 2: {called}: 192.168.1.91/24, no gateway -> DHCP on\n1 to be changed, 0 left alone\n"
            f"{called}: unchanged: nothing could be sent{why}", ""))
        self.pc.run("nft", "add rule inet f o udp dport 5562-5564 quota over 150 bytes drop")   # two asks of three
        status, out, err = Run(self.pc, "scan", "--interface", "eth0", "--json", *QUICK).end()
        self.assertEqual((status, MACS[1] in out, err), (0, True, "".join(
            f"tarnddp: eth0 is used in part: nothing can be sent by {way} (Operation not permitted)\n"
            for way in ("IPv6", "the IPv4 group", "broadcast"))))
        self.pc.run("nft", "add rule inet f o udp dport 5562-5564 drop")
        self.assertEqual(self.run_all((*rows, ("scan",)))[1:] + self.run_all((("--watch",),), options=()),
                         [(3, "", "tarnddp: nothing could be sent: 255.255.255.255: Operation not permitted\n")] * 5)
        self.assertEqual(self.sent(), [("device 1", 5564, "SETIPADDRESS!", "192.168.1.31", "255.255.255.0")])

    def test_flood(self):
        """One that never stops telling of devices, all with this MAC address, keeps no change from its end."""
        told = threading.Event()
        self.fake(1, lambda datagram: told.set() or b"ACK\n")
        liar = self.net.host("liar", "192.168.1.99/24")
        self.ready()
        run = Run(self.pc, "set-ip", "Fake 1", "192.168.1.31/24", *QUICK)
        told.wait(LIMIT)
        lies = [record(MACS[1], f"Liar {number}", str(number % 99)) for number in range(1000)]
        status, end = None, time.monotonic() + LIMIT / 3
        with liar.inside(), ddp_query.Caller("ipv4", testnet.INTERFACE) as caller:
            while status is None and time.monotonic() < end:
                for datagram in lies:
                    caller.send(datagram)
                status = run.process.poll()
        self.assertEqual(status, 1)

    def test_interrupt(self):
        """Ctrl-C while the answer to a change is awaited, and in the middle of a plan."""
        for number in (1, 2):
            self.fake(number, lambda datagram: None)
        self.ready()
        plan = pathlib.Path(self.net.folder, "plan.csv")
        plan.write_text("mac,serial,name,address,prefix,gateway,dns,dhcp\n" + "".join(
            f"{MACS[number]},,,192.168.1.{number + 40},24,,,\n" for number in (1, 2)), encoding="utf-8")
        runs = [Run(self.pc, *words, *QUICK) for words in (
            ("set-ip", "Fake 1", "192.168.1.51/24"), ("dhcp", "Fake 1", "on"), ("halt", "Fake 1", "--yes"),
            ("trace", "Fake 1"), ("apply", str(plan), "--yes"))]
        terminal = Terminal(self.pc, "apply", str(plan), "--yes", *QUICK)
        terminal.wait_for("1 of 2")
        words = set()
        self.assertTrue(eventually(lambda: words.update(one[2] for one in self.sent()) or len(words) == 4, 20), words)
        time.sleep(0.5)
        for _ in range(2):   # as a terminal that is closed does
            for run in runs:
                run.interrupt()
            time.sleep(0.02)
        terminal.type(b"\x03")
        self.assertEqual([run.process.wait(20) for run in (*runs, terminal)], [130] * 6)
        self.assertTrue(any(line.startswith("tarnddp: interrupted at 1 of 2, ") for line in terminal.end()[1]))
        called, none = f"Fake 1 ({MACS[1]})", ": the device has no gateway and gets none\n"
        cleared = none.replace("device has no gateway and gets none", "name server is cleared, as none was given")
        interrupted = f"interrupted while {called} was changed; tarnddp scan shows what came of it\n"
        ended = [run.end() for run in runs]
        self.assertEqual(ended[3][1], "", "nothing was traced")
        self.assertEqual([err.replace("tarnddp: ", "") for _, _, err in ended], [
            none[2:] + cleared[2:] + interrupted, interrupted, f"interrupted while {called} was told to halt\n", "",
            f"lines 2, 3{none}lines 2, 3{cleared}interrupted at 1 of 2, {called}; the same plan can be applied again\n"])
        self.assertNotIn("device 2", {one[0] for one in self.sent()})


if __name__ == "__main__":
    unittest.main(verbosity=2)
