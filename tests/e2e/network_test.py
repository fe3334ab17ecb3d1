"""What the daemon changes: the settings of the service, the interface itself, the trace channel."""

import contextlib
import os
import pathlib
import signal
import unittest

from case import DeviceTest, testnet
from device import ACK, DEVICE, FIFO, IDENT, MAC, NACK, PC, QUIET, SERVICE_RECORD, request

RESOLVER_FILE = pathlib.Path("/etc/resolf.conf")
LEASE = request("SETDHCPMODE!", "1")


class ThroughTheService(DeviceTest):
    def test_settings(self):
        """The one call that a command makes, and the record afterwards."""
        known, new = ("192.168.1.10", "255.255.255.0", "192.168.1.1"), ("10.0.0.2", "255.0.0.0", "10.0.0.1")
        for datagram, facts, settings, on in (
                (request("SETIPADDRESS!", *new, "10.0.0.53"), {}, (*new, "10.0.0.53"), False),
                (request("setIPaddress!", MAC, *new[:2]), {}, (*new[:2], "", ""), False),
                (request("SETIPADDRESS!", "x;y", "<m>", ""), {}, ("x;y", "<m>", "", ""), False),
                (LEASE, {}, (*known, "192.168.1.53"), True),
                (request("SETDHCPMODE!", "00"), {}, (*known, "192.168.1.53"), False),
                (LEASE, {"DNSAddresses": ["1.1.1.1", "2.2.2.2"]}, (*known, "1.1.1.1"), True),
                (LEASE, {"DNSAddresses": "1.1.1.1"}, (*known, ""), True),
                (LEASE, {"DNSAddresses": [5]}, (*known, ""), True)):
            with self.subTest(datagram, facts=facts):
                self.attach(**facts)
                self.assertEqual(self.ask(datagram, "broadcast"), ACK)
                calls = [call["params"] for call in self.service.Calls() if call["method"] == "RPCConf.SetNetwork"]
                ip, mask, gateway, dns = settings
                self.assertEqual(calls, [[{
                    "MethodID": "RPCConf::SetNetwork", "DeviceName": "", "IPAddress": ip, "SubnetMask": mask,
                    "GatewayAddress": gateway, "DNSAddresses": [dns], "DHCPActive": on, "Save": True,
                    "Activate": True}]])
                shown = f"\tASK:{str(on).lower()}\tIPA:{ip}\tSNM:{mask}\tGWA:{gateway}\t"
                self.assertIn(shown.encode(), self.ask(IDENT))


class Alone(DeviceTest):
    """Without a service: the interface itself. Answers come from the address that was set."""

    with_service = False

    def setUp(self):
        self.device.set_address(f"{DEVICE}/24", PC)
        RESOLVER_FILE.unlink(missing_ok=True)
        self.before = len(self.daemon.descriptors())

    def change(self, datagram):
        """The answer and its sender; then address, broadcast address, default gateway, name server in force."""
        caller = self.callers["ipv4"]
        caller.drain()
        caller.send(datagram)
        answer = caller.receive(5)
        self.assertIn("224.0.0.0", self.device.run("ip", "route"), "it went away with the address")
        self.assertEqual(len(self.daemon.descriptors()), self.before)
        address, = (info for info in self.device.interface()["addr_info"] if info["family"] == "inet")
        route = self.device.run("ip", "route", "show", "default").split()
        return (*answer, f"{address['local']}/{address['prefixlen']}", address.get("broadcast"), route[2] if route else None,
                RESOLVER_FILE.read_text(encoding="ascii") if RESOLVER_FILE.exists() else None)

    def test_static_address(self):
        gateway, server = "10.0.0.1; touch /tmp/injected", "$(touch /tmp/injected)"
        for fields, reply, address, broadcast, route, resolver in (
                (("10.1.2.3", "255.255.0.0", "10.1.0.1", "10.1.0.53"), ACK, "10.1.2.3/16", None, "10.1.0.1", "10.1.0.53"),
                (("", "255.255.240.0", PC, ""), ACK, f"{DEVICE}/20", None, PC, ""),
                (("10.1.2.6", "", gateway, server), ACK, "10.1.2.6/8", None, None, server),
                (("not.an.address", "255.0.0.0"), NACK, f"{DEVICE}/8", "192.255.255.255", None, None)):
            with self.subTest(fields):
                self.setUp()
                ip = address.split("/")[0]
                resolver = resolver if resolver is None else f"nameserver {resolver}\n"
                self.assertEqual(self.change(request("SETIPADDRESS!", *fields)),
                                 (reply, ip, address, broadcast, route, resolver))
                self.assertIn(f"\tASK:false\tIPA:{ip}\t".encode(), self.ask(IDENT))
        self.assertFalse(os.path.exists("/tmp/injected"))

    def test_lease(self):
        """Even to switch it off. Of two servers the first offer is taken; a second one before the ACK spoils it all."""
        starts = {"4": (testnet.start_dnsmasq, "--dhcp-option=option:dns-server,192.168.1.54"),
                  "5": (testnet.start_udhcpd, "option router 192.168.1.5", "option dns 192.168.1.55",
                        "option broadcast 192.168.1.255")}
        hosts = {last: self.net.host(f"server{last}", f"192.168.1.{last}/24") for last in starts}
        for servers, argument in (("4", "1"), ("5", "0"), ("45", "1")):
            with self.subTest(servers=servers), contextlib.ExitStack() as running:
                self.setUp()
                for last in servers:
                    start, *options = starts[last]
                    process = start(hosts[last], self.net.folder, f"192.168.1.{last}0", f"192.168.1.{last}9", *options)
                    running.callback(hosts[last].stop, process)
                reply, sender, address, *rest = self.change(request("SETDHCPMODE!", argument))
                if (servers, reply) == ("45", NACK):
                    self.assertEqual(address, f"{DEVICE}/24")
                    continue
                self.assertRegex(address, rf"^192\.168\.1\.[{servers}]\d/24")
                last = address[10]
                self.assertEqual((reply, sender, *rest), (ACK, address[:-3], "192.168.1.255", f"192.168.1.{last}",
                                                          f"nameserver 192.168.1.5{last}\n"))


class Trace(DeviceTest):
    def write(self, text):
        with open(FIFO, "r+b", buffering=0) as pipe:   # does not wait for a reader
            pipe.write(text)

    def test_text_goes_the_way_of_the_last_request(self):
        for way in ("broadcast", "ipv6", "ipv4"):   # the last: what goes to the group is heard again, as a request
            self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD)
            for written, pieces in ((b"cut\0here", [b"cut"]), (b"\0x", [b""]), (b"b" * 2047, [b"b" * 2047]),
                                    (b"a" * 3000, [b"a" * 2047 + b"\n", b"a" * 952])):
                with self.subTest(written[:10], way=way):
                    self.write(written)
                    self.assertEqual([self.callers[way].receive(2)[0] for _ in pieces], pieces)
        self.assertEqual(self.ask(request("SYSTRACE!", "0")), ACK)
        self.assertIsNone(self.ask(request("SYSTRACE!", "1"), "broadcast", QUIET))
        self.write(b"unheard")
        self.assertIsNone(self.callers["broadcast"].receive(QUIET)[0])

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
