"""What the daemon changes: the settings of the service, the interface itself, the trace channel."""

import contextlib
import ipaddress
import os
import pathlib
import shutil
import signal
import socket
import time
import unittest

from device import (DEVICE, IDENT, PC, QUIET, SERVICE_RECORD, DeviceTest, eventually, is_shared_pipe, request,
                    testnet)

ACK, NACK = b"ACK\n", b"NACK\n"
RESOLVER_FILE = pathlib.Path("/etc/resolf.conf")
OTHER_SERVER = "192.168.1.4"
FIFO = "/tmp/tsl_app/FIFO_T_C2H_AET"


class ThroughTheService(DeviceTest):
    def asked_to_set(self):
        """The parameters of the SetNetwork calls since attach()."""
        return [call["params"][0] for call in self.service.Calls() if call["method"] == "RPCConf.SetNetwork"]

    def test_static_address(self):
        for datagram, (ip, mask, gateway, dns) in (
                (b"SETIPADDRESS!\t10.0.0.2\t255.0.0.0\t10.0.0.1\t10.0.0.53\r\n",
                 ("10.0.0.2", "255.0.0.0", "10.0.0.1", "10.0.0.53")),
                (b"SETIPADDRESS!\t10.0.0.2\t255.0.0.0\t10.0.0.1\r\n", ("10.0.0.2", "255.0.0.0", "10.0.0.1", "")),
                (b"SETIPADDRESS!\n10.0.0.2\n255.0.0.0\n10.0.0.1\n10.0.0.53", ("10.0.0.2", "255.0.0.0", "10.0.0.1", "")),
                (b"setIPaddress!\t00:1b:c4:0a:ff:05\t10.0.0.2\t255.0.0.0\r\n", ("10.0.0.2", "255.0.0.0", "", "")),
                (b"SETIPADDRESS!\tx;y\t<m>\t\t\tsurplus\r\n", ("x;y", "<m>", "", ""))):
            with self.subTest(datagram):
                self.attach()
                self.assertEqual(self.ask(datagram, "broadcast"), ACK)
                self.assertEqual(self.asked_to_set(), [{
                    "MethodID": "RPCConf::SetNetwork", "DeviceName": "", "IPAddress": ip, "SubnetMask": mask,
                    "GatewayAddress": gateway, "DNSAddresses": [dns], "DHCPActive": False, "Save": True,
                    "Activate": True}])
                self.assertIn(f"\tIPA:{ip}\tSNM:{mask}\tGWA:{gateway}\t".encode(), self.ask(IDENT))

    def test_dhcp_mode(self):
        for argument, on in (("1", True), ("0", False), ("yes", True), ("", True), ("001", True), ("00", False)):
            with self.subTest(argument):
                self.attach()
                self.assertEqual(self.ask(request("SETDHCPMODE!", argument)), ACK)
                self.assertEqual(self.asked_to_set(), [{
                    "MethodID": "RPCConf::SetNetwork", "DeviceName": "", "IPAddress": "192.168.1.10",
                    "SubnetMask": "255.255.255.0", "GatewayAddress": "192.168.1.1", "DNSAddresses": ["192.168.1.53"],
                    "DHCPActive": on, "Save": True, "Activate": True}])
                self.assertIn(b"\tASK:true" if on else b"\tASK:false", self.ask(IDENT))

    def test_name_server_kept_on_a_change_of_mode(self):
        for known, kept in ((["1.1.1.1", "2.2.2.2"], "1.1.1.1"), ([], ""), ("1.1.1.1", ""), ([7], ""), (None, "")):
            with self.subTest(known=known):
                self.attach()
                self.set_facts(DNSAddresses=known)
                self.assertEqual(self.ask(request("SETDHCPMODE!", "1")), ACK)
                self.assertEqual([params["DNSAddresses"] for params in self.asked_to_set()], [[kept]])

    def test_too_few_fields(self):
        for datagram, expected in ((request("SETIPADDRESS!", "10.0.0.2"), NACK), (request("SETIPADDRESS!"), NACK),
                                   (b"SETIPADDRESS!\t10.0.0.2\t255.0.0.0\t10.0.0.1", None), (b"SETDHCPMODE!\n", ACK)):
            self.attach()
            self.assertEqual(self.ask(datagram, seconds=3 if expected else QUIET), expected, datagram)

    def test_faults_of_the_service(self):
        """Failed, the interface itself is set; any other fault counts as done."""
        self.addCleanup(self.device.set_address, f"{DEVICE}/24")
        static, lease = request("SETIPADDRESS!", "10.0.0.2", "255.0.0.0"), request("SETDHCPMODE!", "1")
        for datagram, behaviour, expected, address in (
                (static, {"fault": 4}, ACK, DEVICE), (static, {"fault": -17}, ACK, "10.0.0.2"),
                (static, {"silent": True}, ACK, "10.0.0.2"),
                (lease, {"fault": 4, "only": "RPCConf.SetNetwork"}, ACK, DEVICE),
                (lease, {"fault": -17, "only": "RPCConf.GetNetwork"}, NACK, DEVICE),
                (lease, {"fault": -17, "only": "RPCConf.SetNetwork"}, NACK, DEVICE)):
            with self.subTest(datagram[:14], behaviour=behaviour):
                self.device.set_address(f"{DEVICE}/24", PC)
                self.attach(behaviour)
                self.assertEqual(self.ask(datagram, seconds=5), expected)
                self.assertIn(address, [info["local"] for info in self.device.interface()["addr_info"]])
                self.assertEqual(self.ask(request("DEVICEENABLEIDENT!")), ACK)


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

    def default_route(self):
        return self.device.run("ip", "route", "show", "default").strip()

    def expect(self, address, gateway, resolver, broadcast=""):
        """What a success leaves: the address in force, the commands run for the gateway, the resolver's line."""
        self.assertEqual(self.address(), (address, broadcast))
        word = f"[{gateway}]" if gateway else ""
        self.assertEqual(self.daemon.routes()[-2:], ["[del][default]", f"[add][default][gw]{word}"])
        self.assertEqual(RESOLVER_FILE.read_text(encoding="ascii"), f"nameserver {resolver}\n")


class StaticAddress(Alone):
    def test_interface_is_set(self):
        for address, is_routed, fields in (
                ("10.1.2.3/16", True, ("10.1.2.3", "255.255.0.0", "10.1.0.1", "10.1.0.53")),
                ("10.1.2.4/24", True, ("10.1.2.4", "255.255.255.0", "10.1.2.1", "")),
                ("192.168.1.9/25", False, ("192.168.1.9", "255.255.255.128", "", "")),
                (f"{DEVICE}/20", True, ("", "255.255.240.0", "192.168.1.3", "")),
                ("10.1.2.5/8", False, ("10.1.2.5", "", "-4", "9.9.9.9")),   # no gateway, says the command
                ("10.1.2.6/8", False, ("10.1.2.6", "", "10.0.0.1; touch /tmp/injected", "$(touch /tmp/injected)"))):
            with self.subTest(fields):
                self.setUp()
                gateway, resolver = fields[2:]
                self.assertEqual(self.ask(request("SETIPADDRESS!", *fields), seconds=5), ACK)
                self.expect(address, gateway, resolver)
                self.assertEqual(self.default_route(), f"default via {gateway} dev eth0" if is_routed else "")
                shown = ipaddress.IPv4Interface(address)
                record = self.fallback_record(shown.ip, shown.netmask, gateway if is_routed else "0.0.0.0")
                self.assertEqual(self.ask(IDENT), record)
        self.assertFalse(os.path.exists("/tmp/injected"))
        self.assertEqual(RESOLVER_FILE.stat().st_mode & 0o777, 0o644)

    def test_what_is_refused(self):
        """And the next request is answered at once, with no descriptor lost."""
        before = len(self.daemon.descriptors())
        for fields, address in ((("10.1.2.3", "mask", "10.1.0.1"), f"{DEVICE}/24"),
                                (("not.an.address", "255.0.0.0"), f"{DEVICE}/8"),
                                (("10.1.2.3", "255.0.255.0", "10.1.0.1"), f"{DEVICE}/24")):
            with self.subTest(fields):
                self.setUp()
                self.assertEqual(self.ask(request("SETIPADDRESS!", *fields)), NACK)
                begin = time.monotonic()
                self.assertEqual(self.ask(request("DEVICEENABLEIDENT!")), ACK)
                self.assertLess(time.monotonic() - begin, 0.5)
                self.assertEqual(self.address()[0], address)
                self.assertEqual(self.daemon.routes(), [])
                self.assertFalse(RESOLVER_FILE.exists())
        self.assertEqual(len(self.daemon.descriptors()), before)

    def test_interface_without_any_address(self):
        self.device.run("ip", "-4", "addr", "flush", "dev", "eth0")
        self.assertEqual(self.ask(request("SETIPADDRESS!", DEVICE, "255.255.255.0")), NACK)

    def test_absent_interface(self):
        self.addCleanup(self.start_daemon)
        self.start_daemon("-if", "nosuch0")
        self.assertEqual(self.ask(request("SETIPADDRESS!", DEVICE, "255.255.255.0")), NACK)
        self.assertEqual(self.ask(IDENT), self.fallback_record("0.0.0.0", "0.0.0.0", PC, "00:00:00:00:00:00"))

    def test_acknowledged_by_multicast_from_the_new_address(self):
        """Though the change took the route for multicast away, and there is no default route either."""
        self.assertEqual(self.ask(IDENT, "ipv4"), self.fallback_record(gateway=PC))
        caller = self.callers["ipv4"]
        caller.drain()
        caller.send(request("SETIPADDRESS!", "10.1.2.3", "255.255.0.0"))
        self.assertEqual(caller.receive(5), (ACK, "10.1.2.3"))

    def test_gateway_with_a_dead_resolver(self):
        resolver = pathlib.Path("/etc/resolv.conf")
        with contextlib.suppress(FileNotFoundError):
            resolver.unlink()   # it may be a link out of the sandbox's /etc
        resolver.write_text(f"search a.example b.example\nnameserver {PC}\nnameserver {PC}\n", encoding="ascii")
        with self.pc.inside():
            silent = socket.socket(type=socket.SOCK_DGRAM)
        with silent:
            silent.bind(("", 53))
            begin = time.monotonic()
            datagram = request("SETIPADDRESS!", DEVICE, "255.255.255.0", "no-such-host")
            self.assertEqual(self.ask(datagram, seconds=20), ACK)
            self.assertLess(time.monotonic() - begin, 3)
            self.assertTrue(silent.recv(512))
        self.expect(f"{DEVICE}/24", "no-such-host", "")


def mac_bytes(text):
    return bytes.fromhex(text.replace(":", ""))


def message(kind, mac, tail):
    """A DHCP message up to its cookie, then `tail`."""
    head = bytes([kind]) + bytes.fromhex("01 06 00  7c d9 01 00  00 00  80 00") + bytes(16) + mac
    return head.ljust(236, b"\0") + bytes.fromhex("63 82 53 63") + tail


REQUESTED = bytes.fromhex("370b 01 0f 03 06 2c 2e 2f 1f 21 79 2b")
SERVER_ID = bytes([54, 4, 192, 168, 1, 3])
OFFER_TAIL = bytes([53, 1, 2]) + SERVER_ID + b"\xff"
ACK_TAIL = (bytes([53, 1, 5]) + SERVER_ID + bytes([51, 4, 0, 0, 14, 16]) + bytes([1, 4, 255, 255, 255, 128])
            + bytes([28, 4, 192, 168, 1, 127, 3, 8, 192, 168, 1, 3, 9, 9, 9, 9, 6, 4, 192, 168, 1, 53, 255]))


# What the two real servers give: the address, the gateway, the name server.
DNSMASQ_LEASE = r"192\.168\.1\.10\d/24", "192.168.1.4", "192.168.1.54"
UDHCPD_LEASE = r"192\.168\.1\.20\d/24", "192.168.1.5", "192.168.1.55"


class DHCP(Alone):
    def lease(self, reply, argument="1"):
        self.assertEqual(self.ask(request("SETDHCPMODE!", argument), seconds=5), reply)

    def server_host(self, name, address):
        known = [host for host in self.net.hosts if host.name == name]
        return known[0] if known else self.net.host(name, f"{address}/24")

    @contextlib.contextmanager
    def dnsmasq(self):
        host = self.server_host("dnsmasq", "192.168.1.4")
        process = testnet.start_dnsmasq(host, self.net.folder, "192.168.1.100", "192.168.1.109",
                                        "--dhcp-option=option:dns-server,192.168.1.54")
        try:
            yield
        finally:
            host.stop(process)

    @contextlib.contextmanager
    def udhcpd(self):
        host = self.server_host("udhcpd", "192.168.1.5")
        process = testnet.start_udhcpd(host, self.net.folder, "192.168.1.200", "192.168.1.209",
                                       "option router 192.168.1.5", "option dns 192.168.1.55",
                                       "option broadcast 192.168.1.255")
        try:
            yield
        finally:
            host.stop(process)

    def expect_lease(self, pool, gateway, resolver):
        address = self.address()[0]
        self.assertRegex(address, pool)
        self.expect(address, gateway, resolver, "192.168.1.255")
        self.assertEqual(self.default_route(), f"default via {gateway} dev eth0")

    def test_dnsmasq(self):
        with self.dnsmasq():
            self.lease(ACK)
        self.expect_lease(*DNSMASQ_LEASE)

    def test_udhcpd_even_to_switch_it_off(self):
        with self.udhcpd():
            self.lease(ACK, "0")
        self.expect_lease(*UDHCPD_LEASE)

    def test_two_servers_at_once(self):
        """The first offer is taken; a second one that comes in before the ACK spoils the exchange."""
        before = len(self.daemon.descriptors())
        with self.dnsmasq(), self.udhcpd():
            reply = self.ask(request("SETDHCPMODE!", "1"), seconds=5)
        if reply == ACK:
            self.expect_lease(*(DNSMASQ_LEASE if self.address()[0].startswith("192.168.1.1") else UDHCPD_LEASE))
        else:
            self.assertEqual((reply, self.address()[0]), (NACK, f"{DEVICE}/24"))
        self.assertEqual(len(self.daemon.descriptors()), before)

    def test_route_for_broadcasts_is_added_once(self):
        self.start_daemon()
        self.daemon.forget_routes()
        for _ in range(2):
            self.lease(NACK)
        self.assertEqual(self.daemon.routes(), ["[add][255.255.255.255][netmask][0.0.0.0][dev][eth0]"])
        self.assertIn("255.255.255.255", self.device.run("ip", "route"))

    def scripted(self, offer, ack, reply):
        """One exchange with this server: the device's two requests as they came, None for one that did not."""
        requests = [None, None]
        with self.pc.inside():
            server = socket.socket(type=socket.SOCK_DGRAM)
        with server:
            server.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            server.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"eth0")
            server.bind(("", 67))
            server.settimeout(1.5)
            caller = self.callers["ipv6"]
            caller.drain()
            caller.send(request("SETDHCPMODE!", "1"))
            for turn, answer in enumerate((offer, ack)):
                try:
                    requests[turn] = server.recv(2048)
                except TimeoutError:
                    break
                if answer is None:
                    break
                server.sendto(answer, ("255.255.255.255", 68))
            self.assertEqual(caller.receive(5)[0], reply)
        return requests

    def test_every_byte_of_the_exchange(self):
        mac = mac_bytes(self.device.interface()["address"])
        offer = bytearray(message(2, mac, OFFER_TAIL + bytes(range(256))))
        offer[16:20] = bytes([192, 168, 1, 77])
        for at in (*range(34, 44), *range(45, 108), *range(109, 236)):
            offer[at] = at * 7 % 251 + 1
        ack = bytearray(message(2, mac, ACK_TAIL))
        ack[16:20] = bytes([192, 168, 1, 78])
        discover, wanted = self.scripted(offer, ack, ACK)
        options = bytes([53, 1, 1, 61, 7, 1]) + mac + bytes([12, 13]) + b"tarn-xt175-ts" + REQUESTED + b"\xff"
        self.assertEqual(discover.hex(" "), message(1, mac, options).hex(" "))
        self.assertEqual(len(discover), 281)
        options = bytes([53, 1, 3]) + SERVER_ID + bytes([50, 4, 192, 168, 1, 77]) + REQUESTED + b"\xff"
        expected = bytearray(message(1, mac, options))
        for start, end in ((34, 44), (45, 108), (109, 236)):
            expected[start:end] = offer[start:end]
        self.assertEqual(wanted.hex(" "), expected.hex(" "))
        self.assertEqual(len(wanted), 269)
        self.expect("192.168.1.78/25", PC, "192.168.1.53", "192.168.1.127")

    def test_what_servers_send(self):
        mac = mac_bytes(self.device.interface()["address"])
        ok = bytes([53, 1, 5])
        mask = bytes([1, 4, 255, 255, 255, 0])
        wide = bytes([1, 4, 255, 255, 0, 0])

        def reply(tail, kind=2, size=None):
            text = bytearray(message(kind, mac, tail))
            text[16:20] = bytes([192, 168, 1, 79])
            return bytes(text[:size]).ljust(size or 0, b"\0")

        offer = reply(OFFER_TAIL)
        for name, first, second, expected, address in (
                ("silence", None, None, NACK, None), ("silence after the offer", offer, None, NACK, None),
                ("NAK", offer, reply(bytes([53, 1, 6]) + SERVER_ID + b"\xff"), NACK, None),
                ("a request as the offer", reply(OFFER_TAIL, kind=1), None, NACK, None),
                ("type not first in the offer", reply(SERVER_ID + OFFER_TAIL), None, NACK, None),
                ("another transaction", offer[:7] + b"\1" + offer[8:], None, NACK, None),
                ("239 bytes", reply(OFFER_TAIL, size=239), None, NACK, None),
                ("240 bytes as the offer, the DISCOVER's type behind", reply(OFFER_TAIL, size=240), None, NACK, None),
                ("240 bytes as the ACK, the REQUEST's type behind", offer, reply(ok, size=240), NACK, None),
                ("243 bytes as the ACK, the REQUEST's options behind", offer, reply(ok), ACK, "/0"),
                ("another cookie, another client", offer[:28] + bytes(16) + offer[44:236] + bytes(4) + offer[240:],
                 reply(ok + mask + b"\xff"), ACK, "/24"),
                ("552 bytes, the mask last", offer, reply(ok + b"\0\1\0" + bytes(300) + mask, size=552), ACK, "/24"),
                ("more than fits", reply(OFFER_TAIL, size=1200), reply(ok + mask, size=1200), ACK, "/24"),
                ("a pad is an option with a length", offer, reply(ok + b"\0\2\xff\xff" + mask + b"\xff"), ACK, "/24"),
                ("a lone pad swallows what follows", offer, reply(ok + b"\0" + mask + b"\xff"), ACK, "/0"),
                ("a mask of two bytes is read as four", offer, reply(ok + bytes([1, 2, 255, 255, 255, 0])), ACK, "/24"),
                ("of two masks the last counts", offer, reply(ok + mask + wide + b"\xff"), ACK, "/16"),
                ("a length that leads out of the message", offer, reply(ok + mask + b"\7\xff\1\2"), ACK, "/24")):
            with self.subTest(name):
                self.setUp()
                self.scripted(first, second, expected)
                if address:
                    self.expect(f"192.168.1.79{address}", "0.0.0.0", "0.0.0.0")
                else:
                    self.assertEqual(self.address()[0], f"{DEVICE}/24")
                    self.assertFalse(RESOLVER_FILE.exists())


class Trace(DeviceTest):
    def write(self, text):
        pipe = os.open(FIFO, os.O_RDWR)   # does not wait for a reader
        os.write(pipe, text)
        os.close(pipe)

    def switch(self, on):
        self.assertEqual(self.ask(request("SYSTRACE!", on)), ACK)

    def test_text_goes_the_way_of_the_last_request(self):
        self.assertTrue(is_shared_pipe(FIFO))
        self.assertEqual(os.stat(os.path.dirname(FIFO)).st_mode & 0o7777, 0o777)
        for way in ("broadcast", "ipv6", "ipv4"):   # the last: what goes to the group is heard again, as a request
            self.switch("1")
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD)
            for written, pieces in ((b"one line\n", [b"one line\n"]), (b"cut\0here", [b"cut"]), (b"\0x", [b""]),
                                    (b"a" * 3000, [b"a" * 2047 + b"\n", b"a" * 952]),
                                    (b"b" * 2048, [b"b" * 2047 + b"\n"]), (b"b" * 2047, [b"b" * 2047])):
                with self.subTest(written[:10], way=way):
                    self.write(written)
                    self.assertEqual([self.callers[way].receive(2)[0] for _ in pieces], pieces)
        time.sleep(0.2)

    def test_off_means_dropped(self):
        caller = self.callers["ipv6"]
        self.switch("0")
        self.assertIsNone(self.ask(request("SYSTRACE!", "1"), "broadcast", QUIET))
        self.write(b"unheard")
        self.assertEqual(caller.receive(QUIET)[0], None)
        self.switch("1")
        self.write(b"heard")
        self.assertEqual(caller.receive(2)[0], b"heard")

    def test_pipe_that_is_removed_or_replaced(self):
        caller = self.callers["ipv6"]
        self.switch("1")
        other = f"{self.net.folder}/other"
        os.mkfifo(other)

        def text_arrives():
            self.write(b"again")
            return caller.receive(0.2)[0] == b"again"

        spent = self.daemon.cpu_seconds()
        for change in (lambda: os.unlink(FIFO), lambda: os.rename(other, FIFO), lambda: shutil.rmtree("/tmp/tsl_app")):
            change()
            self.assertTrue(eventually(lambda: os.path.exists(FIFO), 5.5))
            self.assertTrue(eventually(text_arrives, 5.5))
        self.assertLess(self.daemon.cpu_seconds() - spent, 0.5)
        self.assertTrue(is_shared_pipe(FIFO))
        self.assertEqual(self.daemon.output().count("TarnDDPTrace successfully initialized\n"), 1)

    def test_argument_that_does_not_convert_ends_the_daemon(self):
        self.start_daemon(prefix=("sh", "-c", 'ulimit -c 0; exec "$@"', "sh"))
        for way in ("broadcast", "ipv4"):
            self.assertIsNone(self.ask(request("SYSTRACE!", "yes"), way, QUIET))
        self.ask(request("SYSTRACE!", "yes"), seconds=QUIET)
        self.assertEqual(self.daemon.process.wait(3), -signal.SIGABRT)
        self.start_daemon()


if __name__ == "__main__":
    unittest.main(verbosity=2)
