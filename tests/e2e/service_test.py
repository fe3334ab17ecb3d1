"""What the daemon answers, with the service and without, and what it hands on."""

import os
import pathlib
import signal
import unittest

from case import DeviceTest, ddp_query, eventually
from device import ACK, ENABLE, IDENT, MAC, NACK, QUIET, SERVICE_RECORD, record, request

OTHER_MAC = "00:1b:c4:0a:ff:06"
EMPTY_RECORD = record("", "", "XT0000", *6 * [""])
GET_NETWORK = "RPCConf.GetNetwork"


class Answers(DeviceTest):
    def test_ways_and_calls(self):
        """Each way leads to the record. An unknown command is forwarded as it stands, if it is a direct one."""
        for way in ddp_query.WAYS:
            for datagram in (b"deviceIdentExt?\n", b"DEVICEIDENT?\tan argument\r"):
                self.attach()
                self.assertEqual(self.ask(datagram, way), SERVICE_RECORD)
                self.assertIsNone(self.ask(b"Any.Word\tcaf\xe9 <&>\r\n", way, QUIET))
                forwarded = [{"MethodID": "RPCSys::SendSysCmd", "Msg": "Any.Word\tcaf\xe9 <&>\n"}]   # as XML has line ends
                self.assertEqual([call["params"] for call in self.service.Calls()], [
                    [{"MethodID": "RPCMeas::GetGlobalSysInfos"}], [{"DeviceName": "", "MethodID": "RPCConf::GetNetwork"}],
                    *([forwarded] if way == "ipv6" else [])])

    def test_service_that_is_odd_faulty_or_away(self):
        """Only -9999..-1 is a failure, the two records never mix, few failures cost the connection; it is found again.
        An answer that comes late is not taken for the next. No descriptor is lost, no command inherits one."""
        self.start_daemon()
        self.attach()
        descriptors = self.daemon.descriptors()
        fallback = self.fallback_record()
        special = SERVICE_RECORD.replace(b"Bench 1", b"a <b> & 'c'").replace(b"ASK:false", b"ASK:true")
        for behaviour, facts, expected, is_kept in (
                ({}, {"DeviceName": "a <b> & 'c'", "DHCPActive": 2}, special, True),
                ({"slow": 0.2}, {}, SERVICE_RECORD, True), ({"fault": 4}, {}, EMPTY_RECORD, True),
                ({"fault": -17, "only": GET_NETWORK}, {}, fallback, True), ({"fault": -3405}, {}, fallback, False),
                ({"silent": True}, {}, fallback, False), ({"silent": True, "only": GET_NETWORK}, {}, fallback, True),
                ({"slow": 0.7, "only": GET_NETWORK}, {}, fallback, False), ({"close": True}, {}, None, False)):
            with self.subTest(behaviour=behaviour):
                self.attach(behaviour, **facts)
                before = self.daemon.sockets()
                self.assertIn(self.ask(IDENT), (expected,) if expected else (SERVICE_RECORD, fallback))
                if is_kept:
                    self.assertLessEqual(before, self.daemon.sockets())
                else:
                    self.assertTrue(eventually(lambda b=before: not b <= self.daemon.sockets(), 1.6))
        self.service.stop()
        for way in ddp_query.WAYS:
            self.assertEqual(self.ask(IDENT, way), fallback, way)
        self.attach()
        self.assertEqual(len(self.daemon.descriptors()), len(descriptors))
        self.assertEqual([], [one for number, one in descriptors.items() if number > 2 and not one[1] & os.O_CLOEXEC])

    def test_who_hears_a_request(self):
        """In this order: the own MAC address is known from the first record on."""
        self.start_daemon()
        disable, mine = "DEVICEDISABLEIDENT!", request("DEVICEIDENT?", MAC)
        for datagram, expected in (
                (mine, None), (IDENT, SERVICE_RECORD), (mine, SERVICE_RECORD), (request(disable, OTHER_MAC), None),
                (request(disable), ACK), (IDENT, None), (ENABLE, ACK), (IDENT, SERVICE_RECORD)):
            with self.subTest(datagram):
                self.assertEqual(self.ask(datagram, "broadcast", 3 if expected else QUIET), expected)

    def test_commands_that_run_something(self):
        """One shell line, only if direct and while the service is connected, the answer is always the same; `halt`."""
        self.attach()
        mark = pathlib.Path(self.net.folder, "executed")
        line = (f'grep SigIgn /proc/self/status >{mark}; echo a "$0" "${{RES_OPTIONS-}}${{LOCALDOMAIN-}}" >>{mark};'
                f' ls -l /proc/self/fd >>{mark}')
        for way in ("broadcast", "ipv4"):
            self.assertIsNone(self.ask(request("EXECUTECOMMAND!", line), way, QUIET))
        self.assertFalse(mark.exists())
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), NACK)
        ignored, echoed, *listing = mark.read_text(encoding="ascii").splitlines()
        self.assertEqual(echoed, "a sh ", "what is for `route` alone is in the environment")
        self.assertFalse(int(ignored.split()[1], 16) & 1 << (signal.SIGPIPE - 1), "SIGPIPE is ignored in commands")
        self.assertFalse([entry for entry in listing if "socket:" in entry or "FIFO" in entry], "a descriptor leaked")
        mark.unlink()
        self.assertEqual(self.ask(b"EXECUTECOMMAND!\n"), NACK)
        self.service.stop()
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), NACK)
        self.assertFalse(mark.exists())
        self.assertEqual(self.ask(request("DEVICEREBOOT!"), "broadcast"), ACK)
        self.assertEqual(pathlib.Path(os.environ["SANDBOX_HALT_MARK"]).read_text(encoding="ascii"), "halt \n")

    def test_every_length_and_a_nul_at_every_place(self):
        """From 0 to 1500 bytes, of which those up to 1023 are taken, up to the first NUL. A refusal ends each handful."""
        word = b"DEVICEENABLEIDENT!\n"
        whole = word + 1500 * b"x"
        requests = [(whole[:size], len(word) <= size < 1024) for size in range(1501)]
        requests += [(whole[:place] + b"\0" + whole[place + 1:1023], place >= len(word)) for place in range(1023)]
        for way, caller in self.callers.items():
            for first in range(0, len(requests), 8):
                caller.drain()
                handful = requests[first:first + 8]
                for datagram in [*(datagram for datagram, _ in handful), b"SETIPADDRESS!\n"]:
                    caller.send(datagram)
                answers = []
                while NACK not in answers and None not in answers:
                    answers.append(caller.receive(10)[0])
                self.assertEqual(answers, [ACK for _, is_taken in handful if is_taken] + [NACK], (way, first))

    def test_huge_answers(self):
        """What they took goes back after each of them; with a limit, a record comes all the same."""
        self.addCleanup(self.start_daemon)
        text, many = 30000000 * "x", 100000 * ["1.1.1.1"]
        for limit, answers in (("unlimited", ({"TypeCode": text}, {"DNSAddresses": many})),
                               ("65536", ({"TypeCode": text}, {"DNSAddresses": many}, {"DeviceName": text}))):
            daemon = self.start_daemon(prefix=("sh", "-c", f'ulimit -d {limit}; exec "$@"', "sh"))
            for facts in answers:
                with self.subTest(limit=limit, fact=list(facts)):
                    self.attach(**facts)
                    self.assertTrue(self.ask(IDENT, seconds=5))
                    self.assertTrue(eventually(lambda: daemon.resident() < 20000, 7), daemon.resident())


if __name__ == "__main__":
    unittest.main(verbosity=2)
