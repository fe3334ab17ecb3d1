"""What the daemon changes: the settings of the service, the interface itself, the trace channel."""

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
        known, new = ("192.168.1.10", "255.255.255.0", "192.168.1.1"), ("10.0.0.2", "<m>", "10.0.0.1")
        for datagram, facts, settings, on in (
                (request("SETIPADDRESS!", *new, "10.0.0.53"), {}, (*new, "10.0.0.53"), False),
                (request("setIPaddress!", MAC, *new[:2]), {}, (*new[:2], "", ""), False),
                (request("SETDHCPMODE!", "00"), {}, (*known, "192.168.1.53"), False),
                (LEASE, {"DNSAddresses": ["1.1.1.1", "2.2.2.2"]}, (*known, "1.1.1.1"), True),
                (LEASE, {"DNSAddresses": "1.1.1.1"}, (*known, ""), True),
                (LEASE, {"DNSAddresses": [5]}, (*known, ""), True)):
            self.attach(**facts)
            self.assertEqual(self.ask(datagram, "broadcast"), ACK)
            calls = [call["params"] for call in self.service.Calls() if call["method"] == "RPCConf.SetNetwork"]
            ip, mask, gateway, dns = settings
            self.assertEqual(calls, [[{
                "MethodID": "RPCConf::SetNetwork", "DeviceName": "", "IPAddress": ip, "SubnetMask": mask,
                "GatewayAddress": gateway, "DNSAddresses": [dns], "DHCPActive": on, "Save": True, "Activate": True}]])
            shown = f"\tASK:{str(on).lower()}\tIPA:{ip}\tSNM:{mask}\tGWA:{gateway}\t"
            self.assertIn(shown.encode(), self.ask(IDENT))


class Alone(DeviceTest):
    """Without a service: the interface itself. Answers come from the address that was set."""

    with_service = False

    def assert_changes(self, datagram, *expected):
        """The answer and its sender; then address, broadcast address, default gateway, name server in force."""
        self.device.set_address(f"{DEVICE}/24", PC)
        RESOLVER_FILE.unlink(missing_ok=True)
        before = len(self.daemon.descriptors())
        caller = self.callers["ipv4"]
        caller.drain()
        caller.send(datagram)
        answer = caller.receive(5)
        self.assertIn("224.0.0.0", self.device.run("ip", "route"), "it went away with the address")
        self.assertEqual(len(self.daemon.descriptors()), before)
        address, = (info for info in self.device.interface()["addr_info"] if info["family"] == "inet")
        route = self.device.run("ip", "route", "show", "default").split()
        resolver = RESOLVER_FILE.read_text(encoding="ascii") if RESOLVER_FILE.exists() else None
        self.assertEqual((*answer, f"{address['local']}/{address['prefixlen']}", address.get("broadcast"),
                          route[2] if route else None, resolver), expected)
        self.assertIn(f"\tASK:false\tIPA:{address['local']}\t".encode(), self.ask(IDENT))

    def test_static_address(self):
        gateway, server = "10.0.0.1; touch /tmp/injected", "$(touch /tmp/injected)"
        for fields, reply, address, broadcast, route, resolver in (
                (("10.1.2.3", "255.255.0.0", "10.1.0.1", "10.1.0.53"), ACK, "10.1.2.3/16", None, "10.1.0.1",
                 "nameserver 10.1.0.53\n"),
                (("", "255.255.240.0", PC, ""), ACK, f"{DEVICE}/20", None, PC, "nameserver \n"),
                (("10.1.2.6", "", gateway, server), ACK, "10.1.2.6/8", None, None, f"nameserver {server}\n"),
                (("not.an.address", "255.0.0.0"), NACK, f"{DEVICE}/8", "192.255.255.255", None, None)):
            self.assert_changes(request("SETIPADDRESS!", *fields), reply, address.split("/")[0], address, broadcast, route,
                                resolver)
        self.assertFalse(os.path.exists("/tmp/injected"))

    def test_lease(self):
        """Even to switch it off."""
        host = self.net.host("server", "192.168.1.4/24")
        for start, argument, options in (
                (testnet.start_dnsmasq, "1", ["--dhcp-option=option:dns-server,192.168.1.54"]),
                (testnet.start_udhcpd, "0", ["option router 192.168.1.4", "option dns 192.168.1.54",
                                             "option broadcast 192.168.1.255"])):
            server = start(host, self.net.folder, "192.168.1.40", "192.168.1.40", *options)
            self.assert_changes(request("SETDHCPMODE!", argument), ACK, "192.168.1.40", "192.168.1.40/24", "192.168.1.255",
                                "192.168.1.4", "nameserver 192.168.1.54\n")
            host.stop(server)


class Trace(DeviceTest):
    def test_text_goes_the_way_of_the_last_request(self):
        for way in ("broadcast", "ipv6", "ipv4"):   # the last: what goes to the group is heard again, as a request
            self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD)
            for written, pieces in ((b"cut\0here", [b"cut"]), (b"\0x", [b""]), (b"b" * 2047, [b"b" * 2047]),
                                    (b"a" * 3000, [b"a" * 2047 + b"\n", b"a" * 952])):
                pathlib.Path(FIFO).write_bytes(written)
                self.assertEqual([self.callers[way].receive(2)[0] for _ in pieces], pieces, way)
        self.assertEqual(self.ask(request("SYSTRACE!", "0")), ACK)
        self.assertIsNone(self.ask(request("SYSTRACE!", "1"), "broadcast", QUIET))
        pathlib.Path(FIFO).write_bytes(b"unheard")
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
