"""What the daemon answers, hands on and traces."""

import json
import os
import pathlib
import signal
import unittest

from case import DeviceTest, eventually, testnet
from device import ACK, DEVICE, ENABLE, IDENT, MAC, NACK, QUIET, SERVICE_RECORD, record, request

LEASE = request("SETDHCPMODE!", "1")


class Service(DeviceTest):
    def test_service_that_is_odd_faulty_or_away(self):
        """The two records never mix, and the service is found again. No descriptor is lost, no command inherits one."""
        self.start_daemon()
        self.attach()
        descriptors = self.daemon.descriptors()
        fallback = self.fallback_record()
        special = SERVICE_RECORD.replace(b"Bench 1", b"a <b> & 'c'").replace(b"ASK:false", b"ASK:true").replace(b"012#", b"000#")
        for behaviour, facts, expected, is_kept in (
                ({}, {"DeviceName": "a <b> & 'c'", "DHCPActive": 2, "SubModuleType": 0}, [special], True),
                ({"fault": 4}, {}, [record("", "", "XT0000", *6 * [""])], True),
                ({"slow": 0.7, "only": "RPCConf.GetNetwork"}, {}, [fallback], False),
                ({"close": True}, {}, [SERVICE_RECORD, fallback], False)):
            self.attach(behaviour, **facts)
            before = self.daemon.sockets()
            self.assertIn(self.ask(IDENT), expected, behaviour)
            is_gone = eventually(lambda b=before: not b <= self.daemon.sockets(), QUIET if is_kept else 1.6)
            self.assertEqual(is_gone, not is_kept, behaviour)
        self.service.stop()
        self.assertEqual(self.ask(IDENT), fallback)
        self.attach()
        self.assertEqual(len(self.daemon.descriptors()), len(descriptors))
        self.assertEqual([], [one for number, one in descriptors.items() if number > 2 and not one[1] & os.O_CLOEXEC])

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

    def test_commands_that_run_something(self):
        """One shell line, only if direct and while the service is connected; `halt`."""
        self.attach()
        mark = pathlib.Path(self.net.folder, "executed")
        line = (f'grep SigIgn /proc/self/status >{mark}; echo a "$0" "${{RES_OPTIONS-}}${{LOCALDOMAIN-}}" >>{mark};'
                f' ls -l /proc/self/fd >>{mark}')
        self.assertIsNone(self.ask(request("EXECUTECOMMAND!", line), "broadcast", QUIET))
        self.assertFalse(mark.exists())
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), NACK)
        ignored, echoed, *listing = mark.read_text(encoding="ascii").splitlines()
        self.assertEqual(echoed, "a sh ", "what is for `route` alone is in the environment")
        self.assertFalse(int(ignored.split()[1], 16) & 1 << (signal.SIGPIPE - 1), "SIGPIPE is ignored in commands")
        self.assertFalse([entry for entry in listing if "socket:" in entry or "FIFO" in entry], "a descriptor leaked")
        mark.unlink()
        self.service.stop()
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), NACK)
        self.assertFalse(mark.exists())
        self.assertEqual(self.ask(request("DEVICEREBOOT!"), "broadcast"), ACK)
        self.assertEqual(pathlib.Path(os.environ["SANDBOX_HALT_MARK"]).read_text(encoding="ascii"), "halt \n")

    def test_every_length_and_a_nul_at_every_place(self):
        """From 0 to 1500 bytes, of which those up to 1023 are taken, up to the first NUL. A refusal ends each handful."""
        whole, least = request("DEVICEENABLEIDENT!", "") + 1500 * b"x", len(ENABLE)
        requests = [(whole[:size], least <= size < 1024) for size in range(1501)]
        requests += [(whole[:place] + b"\0" + whole[place + 1:1023], place >= least) for place in range(1023)]
        for way, caller in self.callers.items():
            for first in range(0, len(requests), 8):
                caller.drain()
                handful = [*requests[first:first + 8], (b"SETIPADDRESS!\n", False)]
                for datagram, _ in handful:
                    caller.send(datagram)
                answers = []
                while NACK not in answers and None not in answers:
                    answers.append(caller.receive(10)[0])
                self.assertEqual(answers, [ACK for _, is_taken in handful if is_taken] + [NACK], (way, first))

    def test_text_goes_the_way_of_the_last_request(self):
        self.attach()
        for way in ("broadcast", "ipv6", "ipv4"):   # the last: what goes to the group is heard again, as a request
            self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD)
            for written, pieces in ((b"cut\0here", [b"cut"]), (b"\0x", [b""]), (b"b" * 2047, [b"b" * 2047]),
                                    (b"a" * 3000, [b"a" * 2047 + b"\n", b"a" * 952])):
                testnet.PIPE.write_bytes(written)
                self.assertEqual([self.callers[way].receive(2)[0] for _ in pieces], pieces, way)
        self.assertEqual(self.ask(request("SYSTRACE!", "0")), ACK)
        self.assertIsNone(self.ask(request("SYSTRACE!", "1"), "broadcast", QUIET))
        testnet.PIPE.write_bytes(b"unheard")
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


class Alone(DeviceTest):
    with_service = False

    def assert_changes(self, *fields, answer=ACK):
        """By the way that needs the route for multicast, which goes away with the address."""
        self.assertEqual(self.ask(request(*fields), "ipv4", seconds=5), answer)

    def test_static_address(self):
        self.assert_changes("SETIPADDRESS!", "224.1.2.3", "255.255.0.0", "", answer=NACK)   # the mask is changed
        self.assert_changes("SETIPADDRESS!", "10.1.2.3", "255.255.0.0", "10.1.0.1")
        self.assertEqual(self.ask(IDENT), self.fallback_record("10.1.2.3", "255.255.0.0", "10.1.0.1"))

    def test_lease(self):
        """Even to switch it off."""
        host = self.net.host("server", "192.168.1.4/24")
        testnet.start_udhcpd(host, self.net.folder, "192.168.1.40", "192.168.1.40", "option router 192.168.1.4",
                             "option dns 192.168.1.54", "option broadcast 192.168.1.127")
        self.assert_changes("SETDHCPMODE!", "0")
        self.assertEqual(self.ask(IDENT), self.fallback_record("192.168.1.40", gateway="192.168.1.4"))
        self.assertIn('"broadcast": "192.168.1.127"', json.dumps(self.device.interface()))
        self.assertEqual(pathlib.Path("/etc/resolf.conf").read_text("ascii"), "nameserver 192.168.1.54\n")
        self.device.set_address(f"{DEVICE}/24")   # by another program; the routes are gone
        self.assert_changes("SETDHCPMODE!", "1")


if __name__ == "__main__":
    unittest.main(verbosity=2)
