"""What the daemon changes: the settings of the service, the interface itself, the trace channel."""

import contextlib
import ctypes
import ipaddress
import os
import pathlib
import shutil
import signal
import socket
import stat
import unittest

from device import (ACK, DEVICE, ENABLE, FIFO, IDENT, MAC, NACK, PC, QUIET, SERVICE_RECORD, DeviceTest,
                    eventually, request, testnet)

RESOLVER_FILE = pathlib.Path("/etc/resolf.conf")
LEASE = request("SETDHCPMODE!", "1")


class ThroughTheService(DeviceTest):
    def test_settings(self):
        """The one call that a command makes, if any, and the record afterwards."""
        known, new = ("192.168.1.10", "255.255.255.0", "192.168.1.1"), ("10.0.0.2", "255.0.0.0", "10.0.0.1")
        for datagram, facts, reply, settings, on in (
                (request("SETIPADDRESS!", *new, "10.0.0.53"), {}, ACK, (*new, "10.0.0.53"), False),
                (request("setIPaddress!", MAC, *new[:2]), {}, ACK, (*new[:2], "", ""), False),
                (request("SETIPADDRESS!", "x;y", "<m>", "", "", "surplus"), {}, ACK, ("x;y", "<m>", "", ""), False),
                ("\n".join(("SETIPADDRESS!", *new, "10.0.0.53")).encode(), {}, ACK, (*new, ""), False),
                (request("SETIPADDRESS!", "10.0.0.2"), {}, NACK, None, False),
                ("\t".join(("SETIPADDRESS!", *new)).encode(), {}, None, None, False),
                (LEASE, {}, ACK, (*known, "192.168.1.53"), True),
                (request("SETDHCPMODE!", "00"), {}, ACK, (*known, "192.168.1.53"), False),
                (b"SETDHCPMODE!\n", {"DNSAddresses": ["1.1.1.1", "2.2.2.2"]}, ACK, (*known, "1.1.1.1"), True),
                (LEASE, {"DNSAddresses": "1.1.1.1"}, ACK, (*known, ""), True),
                (LEASE, {"DNSAddresses": [5]}, ACK, (*known, ""), True)):
            with self.subTest(datagram, facts=facts):
                self.attach(**facts)
                self.assertEqual(self.ask(datagram, "broadcast", 3 if reply else QUIET), reply)
                calls = [call["params"] for call in self.service.Calls() if call["method"] == "RPCConf.SetNetwork"]
                if not settings:
                    self.assertEqual(calls, [])
                    continue
                ip, mask, gateway, dns = settings
                self.assertEqual(calls, [[{
                    "MethodID": "RPCConf::SetNetwork", "DeviceName": "", "IPAddress": ip, "SubnetMask": mask,
                    "GatewayAddress": gateway, "DNSAddresses": [dns], "DHCPActive": on, "Save": True,
                    "Activate": True}]])
                shown = f"\tASK:{str(on).lower()}\tIPA:{ip}\tSNM:{mask}\tGWA:{gateway}\t"
                self.assertIn(shown.encode(), self.ask(IDENT))

    def test_faults_of_the_service(self):
        """Failed, the interface itself is set; any other fault counts as done."""
        self.addCleanup(self.device.set_address, f"{DEVICE}/24")
        static, set_network = request("SETIPADDRESS!", "10.0.0.2", "255.0.0.0"), "RPCConf.SetNetwork"
        for datagram, behaviour, expected, address in (
                (static, {"fault": 4}, ACK, DEVICE), (static, {"fault": -17}, ACK, "10.0.0.2"),
                (static, {"silent": True}, ACK, "10.0.0.2"), (LEASE, {"fault": 4, "only": set_network}, ACK, DEVICE),
                (LEASE, {"fault": -17, "only": "RPCConf.GetNetwork"}, NACK, DEVICE),
                (LEASE, {"fault": -17, "only": set_network}, NACK, DEVICE)):
            with self.subTest(datagram[:14], behaviour=behaviour):
                self.device.set_address(f"{DEVICE}/24", PC)
                self.attach(behaviour)
                self.assertEqual(self.ask(datagram, seconds=5), expected)
                self.assertIn(address, [info["local"] for info in self.device.interface()["addr_info"]])
                self.assertEqual(self.ask(ENABLE), ACK)


class Alone(DeviceTest):
    """Without a service: the interface itself."""

    with_service = False

    def setUp(self):
        self.device.set_address(f"{DEVICE}/24", PC)
        self.daemon.forget_routes()
        RESOLVER_FILE.unlink(missing_ok=True)

    def address(self):
        """Address with prefix, and broadcast address ("" for none), of the one IPv4 address of eth0."""
        one, = (info for info in self.device.interface()["addr_info"] if info["family"] == "inet")
        return f"{one['local']}/{one['prefixlen']}", one.get("broadcast", "")

    def expect(self, address, gateway, resolver, broadcast="", is_routed=False):
        """What a success leaves: the address and route in force, the commands for the gateway, the resolver's line."""
        self.assertEqual(self.address(), (address, broadcast))
        word = f"[{gateway}]" if gateway else ""
        self.assertEqual(self.daemon.routes()[-2:], ["[del][default]", f"[add][default][gw]{word}"])
        self.assertEqual(self.device.run("ip", "route", "show", "default").strip(),
                         f"default via {gateway} dev eth0" if is_routed else "")
        self.assertEqual(RESOLVER_FILE.read_text(encoding="ascii"), f"nameserver {resolver}\n")

    def expect_refused(self, address=f"{DEVICE}/24"):
        self.assertEqual(self.address()[0], address)
        self.assertNotIn("[del][default]", self.daemon.routes())
        self.assertFalse(RESOLVER_FILE.exists())


class StaticAddress(Alone):
    def test_interface_is_set(self):
        for address, is_routed, (ip, mask, gateway, resolver) in (
                ("10.1.2.3/16", True, ("10.1.2.3", "255.255.0.0", "10.1.0.1", "10.1.0.53")),
                ("192.168.1.9/25", False, ("192.168.1.9", "255.255.255.128", "", "")),
                (f"{DEVICE}/20", True, ("", "255.255.240.0", "192.168.1.3", "")),
                ("10.77.0.50/8", True, ("10.77.0.50", "0.0.0.0", "10.0.0.1", "10.1.0.53")),   # the mask of its class
                ("10.1.2.5/8", False, ("10.1.2.5", "", "-4", "9.9.9.9")),   # no gateway, says the command
                ("10.1.2.6/8", False, ("10.1.2.6", "", "10.0.0.1; touch /tmp/injected", "$(touch /tmp/injected)"))):
            with self.subTest(ip=ip, mask=mask, gateway=gateway):
                self.setUp()
                self.assertEqual(self.ask(request("SETIPADDRESS!", ip, mask, gateway, resolver), seconds=5), ACK)
                self.expect(address, gateway, resolver, is_routed=is_routed)
                shown = ipaddress.IPv4Interface(address)
                record = self.fallback_record(shown.ip, shown.netmask, gateway if is_routed else "0.0.0.0")
                self.assertEqual(self.ask(IDENT), record)
        self.assertFalse(os.path.exists("/tmp/injected"))

    def test_what_is_refused(self):
        """And the next request is answered at once, with no descriptor lost."""
        before = len(self.daemon.descriptors())
        for fields, address in ((("10.1.2.3", "255.0.255.0", "10.1.0.1"), f"{DEVICE}/24"),
                                (("not.an.address", "255.0.0.0"), f"{DEVICE}/8")):
            with self.subTest(fields):
                self.setUp()
                self.assertEqual(self.ask(request("SETIPADDRESS!", *fields)), NACK)
                self.assertEqual(self.ask(ENABLE, seconds=0.5), ACK)
                self.expect_refused(address)
        self.assertEqual(len(self.daemon.descriptors()), before)

    def test_acknowledged_by_multicast_from_the_new_address(self):
        """Though the change took the route for multicast away, and there is no default route either."""
        self.assertEqual(self.ask(IDENT, "ipv4"), self.fallback_record(gateway=PC))
        caller = self.callers["ipv4"]
        caller.drain()
        caller.send(request("SETIPADDRESS!", "10.1.2.3", "255.255.0.0"))
        self.assertEqual(caller.receive(5), (ACK, "10.1.2.3"))

    def test_gateway_with_a_dead_resolver(self):
        resolver = pathlib.Path("/etc/resolv.conf")
        resolver.unlink(missing_ok=True)   # it may be a link out of the sandbox's /etc
        resolver.write_text(f"search a.example b.example\nnameserver {PC}\nnameserver {PC}\n", encoding="ascii")
        with self.pc.inside():
            silent = socket.socket(type=socket.SOCK_DGRAM)
        with silent:
            silent.bind(("", 53))
            datagram = request("SETIPADDRESS!", DEVICE, "255.255.255.0", "no-such-host")
            self.assertEqual(self.ask(datagram, seconds=3), ACK)
            self.assertTrue(silent.recv(512))
        self.expect(f"{DEVICE}/24", "no-such-host", "")


def message(kind, mac, tail, ip=0):
    """A DHCP message up to its cookie, then `tail`; `ip` is the last byte of the address that it gives."""
    head = bytes([kind]) + bytes.fromhex("01 06 00  7c d9 01 00  00 00  80 00  00 00 00 00")
    head += bytes([192, 168, 1, ip] if ip else 4) + bytes(8) + mac
    return head.ljust(236, b"\0") + bytes.fromhex("63 82 53 63") + tail


REQUESTED = bytes.fromhex("370b 01 0f 03 06 2c 2e 2f 1f 21 79 2b  ff")
SERVER_ID = bytes([54, 4, 192, 168, 1, 3])
OFFER_TAIL = bytes([53, 1, 2]) + SERVER_ID + b"\xff"


class DHCP(Alone):
    def setUp(self):
        super().setUp()
        self.mac = bytes.fromhex(self.device.interface()["address"].replace(":", ""))

    def test_real_servers(self):
        """Even to switch it off. Of two, the first offer is taken; a second one before the ACK spoils the exchange."""
        starts = {"4": (testnet.start_dnsmasq, "--dhcp-option=option:dns-server,192.168.1.54"),
                  "5": (testnet.start_udhcpd, "option router 192.168.1.5", "option dns 192.168.1.55",
                        "option broadcast 192.168.1.255")}
        hosts = {last: self.net.host(f"server{last}", f"192.168.1.{last}/24") for last in starts}
        before = len(self.daemon.descriptors())
        for servers, argument in (("4", "1"), ("5", "0"), ("45", "1")):
            with self.subTest(servers=servers), contextlib.ExitStack() as running:
                self.setUp()
                for last in servers:
                    start, *options = starts[last]
                    process = start(hosts[last], self.net.folder, f"192.168.1.{last}0", f"192.168.1.{last}9", *options)
                    running.callback(hosts[last].stop, process)
                reply = self.ask(request("SETDHCPMODE!", argument), seconds=5)
                if reply == NACK and servers == "45":
                    self.expect_refused()
                    continue
                self.assertEqual(reply, ACK)
                address = self.address()[0]
                self.assertRegex(address, rf"^192\.168\.1\.[{servers}]\d/24")
                last = address[10]
                self.expect(address, f"192.168.1.{last}", f"192.168.1.5{last}", "192.168.1.255", is_routed=True)
        self.assertEqual(len(self.daemon.descriptors()), before)

    def scripted(self, *answers):
        """One exchange with a server that answers thus: the device's requests."""
        requests = []
        with self.pc.inside():
            server = socket.socket(type=socket.SOCK_DGRAM)
        with server:
            server.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            server.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"eth0")
            server.bind(("", 67))
            server.settimeout(3)
            caller = self.callers["ipv6"]
            caller.drain()
            caller.send(LEASE)
            for answer in answers:
                requests.append(server.recv(2048))
                server.sendto(answer, ("255.255.255.255", 68))
            self.assertEqual(caller.receive(5)[0], ACK)
        return requests

    def test_every_byte_of_the_exchange(self):
        offer = bytearray(message(2, self.mac, OFFER_TAIL + bytes(range(256)), 77))
        kept = (*range(34, 44), *range(45, 108), *range(109, 236))   # what of the offer goes out again
        for at in kept:
            offer[at] = at * 7 % 251 + 1
        ack = message(2, self.mac, bytes.fromhex(
            "35 01 05  33 04 00 00 0e 10  01 04 ff ff ff 80  1c 04 c0 a8 01 7f  03 08 c0 a8 01 03 09 09 09 09"
            "06 04 c0 a8 01 35  ff"), 78) + bytes(900)   # more than is read
        discover, wanted = self.scripted(offer, ack)
        options = bytes([53, 1, 1, 61, 7, 1]) + self.mac + bytes([12, 13]) + b"tarn-xt175-ts" + REQUESTED
        self.assertEqual(discover.hex(" "), message(1, self.mac, options).hex(" "))
        options = bytes([53, 1, 3]) + SERVER_ID + bytes([50, 4, 192, 168, 1, 77]) + REQUESTED
        expected = bytearray(message(1, self.mac, options))
        for at in kept:
            expected[at] = offer[at]
        self.assertEqual(wanted.hex(" "), expected.hex(" "))
        self.assertEqual((len(discover), len(wanted)), (281, 269))
        self.assertIn("224.0.0.0", self.device.run("ip", "route"), "before the ACK, though the address changed")
        self.expect("192.168.1.78/25", PC, "192.168.1.53", "192.168.1.127", is_routed=True)


class Trace(DeviceTest):
    def write(self, text):
        with open(FIFO, "r+b", buffering=0) as pipe:   # does not wait for a reader
            pipe.write(text)

    def switch(self, on):
        self.assertEqual(self.ask(request("SYSTRACE!", on)), ACK)

    def test_text_goes_the_way_of_the_last_request(self):
        self.assertEqual([stat.filemode(os.stat(path).st_mode) for path in (os.path.dirname(FIFO), FIFO)],
                         ["drwxrwxrwx", "prwxrwxrwx"])
        for way in ("broadcast", "ipv6", "ipv4"):   # the last: what goes to the group is heard again, as a request
            self.switch("1")
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD)
            for written, pieces in ((b"cut\0here", [b"cut"]), (b"\0x", [b""]), (b"b" * 2047, [b"b" * 2047]),
                                    (b"a" * 3000, [b"a" * 2047 + b"\n", b"a" * 952])):
                with self.subTest(written[:10], way=way):
                    self.write(written)
                    self.assertEqual([self.callers[way].receive(2)[0] for _ in pieces], pieces)

    def test_off_means_dropped(self):
        self.switch("0")
        self.assertIsNone(self.ask(request("SYSTRACE!", "1"), "broadcast", QUIET))
        self.write(b"unheard")
        self.assertEqual(self.callers["ipv6"].receive(QUIET)[0], None)

    def test_pipe_that_is_removed_or_replaced(self):
        """A new pipe is read; what a link or a plain file in its place holds is not. At once, or, where no inotify
        instance is left to the user, at the look every 5 s."""
        caller, patience = self.callers["ipv6"], 3
        probe = ctypes.CDLL(None).inotify_init()
        if probe < 0:
            patience = 7.5
        else:
            os.close(probe)
        is_watched = any("inotify" in target for target, _ in self.daemon.descriptors().values())
        self.assertTrue(is_watched or probe < 0)
        self.switch("1")
        other, plain, link = (f"{self.net.folder}/{name}" for name in ("other", "plain", "link"))
        os.mkfifo(other)
        pathlib.Path(plain).touch()
        os.symlink(other, link)

        def text_arrives():
            self.write(b"again")
            return caller.receive(0.2)[0] == b"again"

        for refusals, bait in enumerate((plain, link), 1):
            os.replace(bait, FIFO)
            with open(FIFO, "r+b", buffering=0) as held:
                held.write(b"held\n")
                self.assertIsNone(caller.receive(patience)[0], bait)   # while it is tried once or twice
            self.assertEqual(self.daemon.output().count("Error at open\n\n"), refusals)
        descriptors = [target for target, _ in self.daemon.descriptors().values() if "inotify" not in target]
        for change in (lambda: os.unlink(FIFO), lambda: os.rename(other, FIFO), lambda: shutil.rmtree("/tmp/tsl_app"),
                       lambda: os.rename("/tmp/tsl_app", "/tmp/old"), lambda: os.unlink(FIFO)):
            change()
            self.assertTrue(eventually(lambda: os.path.exists(FIFO) and text_arrives(), patience))
            others = [target for target, _ in self.daemon.descriptors().values() if "inotify" not in target]
            self.assertEqual(len(others), len(descriptors) + 1)   # no pipe was open after the link
            self.assertLess(len(self.daemon.descriptors()), len(descriptors) + 3)
        self.assertEqual(self.daemon.output().count("TarnDDPTrace successfully initialized\n"), 1)

    def test_argument_that_does_not_convert_ends_the_daemon(self):
        self.start_daemon(prefix=("sh", "-c", 'ulimit -c 0; exec "$@"', "sh"))
        for way in ("broadcast", "ipv4", "ipv6"):
            self.assertIsNone(self.daemon.process.poll())
            self.assertIsNone(self.ask(request("SYSTRACE!", "yes"), way, QUIET))
        self.assertEqual(self.daemon.process.wait(3), -signal.SIGABRT)
        cause, = self.daemon.complaints()
        self.assertTrue(cause.startswith("tarnddpd: aborted: bad lexical cast"), cause)
        self.start_daemon()


if __name__ == "__main__":
    unittest.main(verbosity=2)
