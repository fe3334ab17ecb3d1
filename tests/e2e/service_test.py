"""What the daemon answers, with the service and without, and what it hands on."""

import contextlib
import os
import pathlib
import random
import signal
import socket
import threading
import unittest

from device import (ACK, ENABLE, IDENT, MAC, NACK, QUIET, SERVICE_RECORD, DeviceTest, ddp_query, eventually, record,
                    request)

OTHER_MAC = "00:1b:c4:0a:ff:06"
EMPTY_RECORD = record("", "", "XT0000", *6 * [""])
GET_NETWORK = "RPCConf.GetNetwork"


class Answers(DeviceTest):
    def test_record_comes_by_every_way(self):
        self.attach()
        for way in ddp_query.WAYS:
            for datagram in (IDENT, b"deviceIdentExt?\n", b"DEVICEIDENT?\tan argument\r"):
                with self.subTest(datagram, way=way):
                    self.assertEqual(self.ask(datagram, way), SERVICE_RECORD)

    def test_calls_are_these_bytes(self):
        """The last of them forwards an unknown command, as only a direct one is."""
        self.attach()
        self.ask(IDENT)
        for way in ddp_query.WAYS:
            self.assertIsNone(self.ask(b"Any.Word\tcaf\xe9 <&>\r\n", way, QUIET))
        for call, members in zip(self.service.Calls(), (
                {"MethodID": "RPCMeas::GetGlobalSysInfos"},
                {"DeviceName": "", "MethodID": "RPCConf::GetNetwork"},
                {"MethodID": "RPCSys::SendSysCmd", "Msg": "Any.Word\tcaf\xe9 &lt;&amp;&gt;\r\n"}), strict=True):
            struct = "".join(f"<member><name>{name}</name><value>{value}</value></member>"
                             for name, value in members.items())
            self.assertEqual(call["body"].data.decode("latin-1"), (
                '<?xml version="1.0" encoding="ISO-8859-1"?>\r\n<methodCall><methodName>'
                f"{members['MethodID'].replace('::', '.')}</methodName>\r\n<params><param><value><struct>{struct}"
                "</struct></value></param></params></methodCall>\r\n"))

    def test_service_that_is_odd_faulty_or_away(self):
        """Only -9999..-1 is a failure, the two records never mix, few failures cost the connection; it is found again.
        An answer that comes late is not taken for the next."""
        fallback = self.fallback_record()
        special = SERVICE_RECORD.replace(b"Bench 1", b"a <b> & 'c'").replace(b"ASK:false", b"ASK:true")
        for behaviour, facts, expected, is_kept in (
                ({}, {"DeviceName": "a <b> & 'c'", "DHCPActive": 2}, special, True),
                ({"slow": 0.2}, {}, SERVICE_RECORD, True), ({"fault": 4}, {}, EMPTY_RECORD, True),
                ({"fault": -10000}, {}, EMPTY_RECORD, True), ({"fault": -9999}, {}, fallback, True),
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

    def test_who_hears_a_request(self):
        """In this order: the own MAC address is known from the first record on; silence is for identification alone."""
        self.start_daemon()
        disable, mine = "DEVICEDISABLEIDENT!", request("DEVICEIDENT?", MAC)
        for datagram, expected in (
                (mine, None), (IDENT, SERVICE_RECORD), (mine, SERVICE_RECORD),
                (request("DEVICEIDENT?", MAC.upper()), None), (request("DEVICEIDENT?", OTHER_MAC), None),
                (request("DEVICEIDENT?", MAC[:-3]), SERVICE_RECORD), (request(disable, OTHER_MAC), None),
                (b"DEVICEIDENT?", None), (b"", None), (b"DEVICEIDENT?\0\r\n", None),
                (b"DEVICEIDENT?\n\0\xff", SERVICE_RECORD), (b"DEVICEIDENT?\t" + 1009 * b"x" + b"\n", SERVICE_RECORD),
                (b"DEVICEIDENT?\t" + 1010 * b"x" + b"\n", None), (request(disable), ACK), (IDENT, None),
                (request("DEVICEIDENTEXT?"), None), (request("SETIPADDRESS!", "10.0.0.1"), NACK), (ENABLE, ACK),
                (IDENT, SERVICE_RECORD)):
            with self.subTest(datagram[:40]):
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

    def test_no_datagram_stops_the_daemon(self):
        """Noise and bent commands, all but those whose purpose is an end or a pause."""
        self.attach()
        noise = random.Random(5562)
        words = [b"DEVICEIDENT?", b"SETIPADDRESS!", b"SETDHCPMODE!", b"DEVICEENABLEIDENT!", b"SYSTRACE!\t1\r\n", b"\t",
                 b"\r\n", b"\n", b"\0", MAC.encode(), 12 * b"a", b"1", b":", 200 * b"\t", 900 * b"%s", b"\xff", b"]]>"]
        for _ in range(100):
            caller = self.callers[noise.choice(list(self.callers))]
            for _ in range(30):
                if noise.random() < 0.3:
                    caller.send(noise.randbytes(noise.choice((1, 7, 40, 1023, 1024, 1400))))
                else:
                    caller.send(b"".join(noise.choices(words, k=noise.randint(1, 8))))
            self.assertTrue(caller.ask(ENABLE, 10))   # lets the daemon catch up
        self.attach(seconds=30)   # what is still waiting may set an address or end the connection
        self.start_daemon()

    def test_huge_answers(self):
        """What they took goes back after each of them; with a limit, a record comes all the same."""
        def answer(members, size=None, head=b""):
            body = (b"<methodResponse><params><param><value><struct>" + members + b"</struct></value>").ljust(size or 0)
            return head + b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body

        member = b"<member><name>%s</name><value>%s</value></member>"
        many = b"".join(member % (b"m%d" % number, b"") for number in range(400000))
        huge, small = [], answer(member % (b"DeviceType", b"Small"))
        self.service.stop()
        with self.device.inside():
            listener = socket.create_server(("127.0.0.1", 1200))

        def serve():
            with contextlib.suppress(OSError):
                while True:
                    connection, _ = listener.accept()
                    with contextlib.suppress(OSError), connection, connection.makefile("rb") as requests:
                        while any(line.endswith(b"</methodCall>\r\n") for line in iter(requests.readline, b"")):
                            connection.sendall(huge.pop() if huge else small)

        threading.Thread(target=serve, daemon=True).start()
        self.addCleanup(self.start_daemon)
        self.addCleanup(self.service.start)
        self.addCleanup(listener.close)
        self.addCleanup(listener.shutdown, socket.SHUT_RDWR)   # which ends its thread
        for limit, answers in (
                ("unlimited", 2 * [answer(b"", head=b"X" * 30000000), answer(b"", 30000000), answer(many)]),
                ("65536", [answer(b"", 100000000), answer(member % (b"DeviceType", b"T" * 20000000)), answer(many)])):
            daemon = self.start_daemon(prefix=("sh", "-c", f'ulimit -d {limit}; exec "$@"', "sh"))
            for number, text in enumerate(answers):
                with self.subTest(limit=limit, answer=number):
                    self.assertTrue(eventually(lambda: b"\tOAN:Small\t" in (self.ask(IDENT) or b""), 7))
                    huge.append(text)
                    self.assertTrue(self.ask(IDENT, seconds=5))
                    self.assertTrue(eventually(lambda: daemon.resident() < 20000, 7), daemon.resident())

    def test_descriptors_stay_as_many(self):
        self.start_daemon()
        self.attach()
        before = self.daemon.descriptors()
        for behaviour in ({"fault": -17}, {"fault": -3405}, {"close": True}):
            self.service.Behave(behaviour)
            for _ in range(100):
                self.ask(IDENT)
        self.service.stop()
        known = self.daemon.output().count("Failed to attach")
        self.assertTrue(eventually(lambda: self.daemon.output().count("Failed to attach") > known + 1, 12))
        self.assertEqual(len(self.daemon.descriptors()), len(before) - 1)
        self.attach()
        self.assertEqual(len(self.daemon.descriptors()), len(before))
        self.assertEqual([], [entry for number, entry in before.items() if number > 2 and not entry[1] & os.O_CLOEXEC])


if __name__ == "__main__":
    unittest.main(verbosity=2)
