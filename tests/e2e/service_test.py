"""What the daemon answers, with the service and without, and what it hands on."""

import os
import pathlib
import random
import signal
import unittest

from device import IDENT, QUIET, SERVICE_RECORD, DeviceTest, ddp_query, eventually, request

MAC, OTHER_MAC = "00:1b:c4:0a:ff:05", "00:1b:c4:0a:ff:06"
EMPTY_RECORD = (b"SID:0\tOAN:\tOVN:Orvalle Labs\tSAN:\tSVN:Orvalle Labs\tLOC:\tMKC:XT0000#\tSNR:\tASK:false\t"
                b"IPA:\tSNM:\tGWA:\tMAA:\tEXTSID:0\tEXTAPPVER:\r\n")


class Answers(DeviceTest):
    def test_record_comes_by_every_way(self):
        self.attach()
        for way in ddp_query.WAYS:
            for datagram in (IDENT, b"deviceIdentExt?\n", b"DEVICEIDENT?\tan argument\r"):
                with self.subTest(way=way, datagram=datagram):
                    self.assertEqual(self.ask(datagram, way), SERVICE_RECORD)

    def test_calls_are_these_bytes(self):
        self.attach()
        self.ask(IDENT)
        self.ask(b"Unknown.Command\t<&>\r\n", seconds=QUIET)
        for call, members in zip(self.service.Calls(), (
                {"MethodID": "RPCMeas::GetGlobalSysInfos"},
                {"DeviceName": "", "MethodID": "RPCConf::GetNetwork"},
                {"MethodID": "RPCSys::SendSysCmd", "Msg": "Unknown.Command\t&lt;&amp;&gt;\r\n"}), strict=True):
            method = members["MethodID"].replace("::", ".")
            struct = "".join(f"<member><name>{name}</name><value>{value}</value></member>"
                             for name, value in members.items())
            self.assertEqual(call["body"].data.decode(), (
                '<?xml version="1.0" encoding="ISO-8859-1"?>\r\n<methodCall>'
                f"<methodName>{method}</methodName>\r\n<params><param><value><struct>{struct}</struct></value></param>"
                "</params></methodCall>\r\n"))

    def test_facts_become_fields(self):
        for facts, expected in (({"DHCPActive": 2}, b"\tASK:true\t"), ({"DHCPActive": True}, b"\tASK:false\t"),
                                ({"MainModuleType": 4, "SubModuleType": 5}, b"\tMKC:XT4005#\t"),
                                ({"MainModuleType": "4", "SubModuleType": 1234}, b"\tMKC:XT01234#\t"),
                                ({"DeviceType": 7}, b"\tOAN:\tOVN:Orvalle Labs\tSAN:\t"),
                                ({"DeviceName": "a <b> & 'c'"}, b"\tLOC:a <b> & 'c'\t"),
                                ({"Firmware": None}, b"\tEXTSID:0\tEXTAPPVER:\r\n")):
            with self.subTest(facts=facts):
                self.attach()
                self.set_facts(**facts)
                self.assertIn(expected, self.ask(IDENT))

    def test_fault_and_silence_of_the_service(self):
        """Only -9999..-1 is a failure, the two records never mix, and few failures cost the connection."""
        fallback = self.fallback_record()
        for behaviour, expected, is_kept in (
                ({"slow": 0.2}, SERVICE_RECORD, True), ({"fault": 4}, EMPTY_RECORD, True),
                ({"fault": -10000}, EMPTY_RECORD, True), ({"fault": -9999}, fallback, True),
                ({"fault": -17, "only": "RPCConf.GetNetwork"}, fallback, True), ({"fault": -3405}, fallback, False),
                ({"silent": True}, fallback, False), ({"silent": True, "only": "RPCConf.GetNetwork"}, fallback, True)):
            with self.subTest(behaviour=behaviour):
                self.attach(behaviour)
                before = self.daemon.sockets()
                self.assertEqual(self.ask(IDENT), expected)
                self.assertEqual(before <= self.daemon.sockets(), is_kept)

    def test_late_answer_is_not_taken_for_the_next(self):
        self.attach({"slow": 0.7, "only": "RPCConf.GetNetwork"})
        before = self.daemon.sockets()
        self.assertEqual(self.ask(IDENT), self.fallback_record())
        self.service.Behave({})
        self.assertTrue(eventually(lambda: not before <= self.daemon.sockets(), 1.6))
        self.assertTrue(eventually(lambda: self.ask(IDENT) == SERVICE_RECORD, 6.5))

    def test_service_that_closed_or_went_away_is_found_again(self):
        self.attach({"close": True})
        self.ask(IDENT)
        self.service.Behave({})
        self.assertTrue(eventually(lambda: self.ask(IDENT) == SERVICE_RECORD, 6.5))
        self.service.stop()
        for way in ddp_query.WAYS:
            self.assertEqual(self.ask(IDENT, way), self.fallback_record(), way)
        self.service.start()
        self.assertTrue(eventually(lambda: self.ask(IDENT) == SERVICE_RECORD, 6.5))

    def test_who_hears_a_request(self):
        self.attach()
        self.ask(IDENT)
        record = SERVICE_RECORD
        for datagram, expected in (
                (request("DEVICEIDENT?", MAC), record), (request("DEVICEIDENT?", MAC.upper()), None),
                (request("DEVICEIDENT?", MAC.replace(":", "-")), None), (request("DEVICEIDENT?", OTHER_MAC), None),
                (request("DEVICEDISABLEIDENT!", OTHER_MAC), None), (request("DEVICEIDENT?", MAC[:-3]), record),
                (b"DEVICEIDENT?", None), (b"", None), (b"DEVICEIDENT?\0\r\n", None), (b"DEVICEIDENT?\n\0\xff", record),
                (b"DEVICEIDENT?\t" + 1010 * b"x", None), (b"DEVICEIDENT?\t" + 1009 * b"x" + b"\n", record),
                (b"DEVICEIDENT?\t" + 1010 * b"x" + b"\n", None)):
            for way in ("ipv6", "broadcast"):
                with self.subTest(datagram[:40], way=way):
                    self.assertEqual(self.ask(datagram, way, 3 if expected else QUIET), expected)

    def test_own_mac_is_unknown_until_the_first_record(self):
        self.start_daemon()
        self.assertIsNone(self.ask(request("DEVICEIDENT?", MAC), seconds=QUIET))
        self.ask(IDENT)
        self.assertEqual(self.ask(request("DEVICEIDENT?", MAC)), SERVICE_RECORD)

    def test_silence_for_identification_alone(self):
        self.attach()
        for datagram, expected in ((request("DEVICEDISABLEIDENT!"), b"ACK\n"), (IDENT, None),
                                   (request("DEVICEIDENTEXT?"), None),
                                   (request("SETIPADDRESS!", "10.0.0.1"), b"NACK\n"),
                                   (request("DEVICEENABLEIDENT!"), b"ACK\n"), (IDENT, SERVICE_RECORD)):
            self.assertEqual(self.ask(datagram, "broadcast", 3 if expected else QUIET), expected, datagram)

    def test_unknown_commands_are_forwarded_if_direct(self):
        self.attach()
        for datagram in (b"Any.Word\targ\r\n", b"\r\n", b"caf\xe9 <&>\tx\n"):
            for way in ddp_query.WAYS:
                self.assertIsNone(self.ask(datagram, way, QUIET))
            text = datagram.decode("latin-1").replace("\r\n", "\n")   # what an XML reader makes of a line end
            self.assertEqual([(call["method"], call["params"]) for call in self.service.Calls()],
                             [("RPCSys.SendSysCmd", [{"MethodID": "RPCSys::SendSysCmd", "Msg": text}])])

    def test_execute_command(self):
        """Runs one shell line, only if direct and while the service is connected; the answer is always the same."""
        self.attach()
        mark = pathlib.Path(self.net.folder, "executed")
        line = f'grep SigIgn /proc/self/status >{mark}; echo a "$0" >>{mark}; ls -l /proc/self/fd >>{mark}'
        for way in ("broadcast", "ipv4"):
            self.assertIsNone(self.ask(request("EXECUTECOMMAND!", line), way, QUIET))
        self.assertFalse(mark.exists())
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), b"NACK\n")
        ignored, echoed, *listing = mark.read_text(encoding="ascii").splitlines()
        self.assertEqual(echoed, "a sh")
        self.assertFalse(int(ignored.split()[1], 16) & 1 << (signal.SIGPIPE - 1), "SIGPIPE is ignored in commands")
        self.assertFalse([entry for entry in listing if "socket:" in entry or "FIFO" in entry], "a descriptor leaked")
        mark.unlink()
        self.assertEqual(self.ask(b"EXECUTECOMMAND!\n"), b"NACK\n")
        self.service.stop()
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", line)), b"NACK\n")
        self.assertFalse(mark.exists())

    def test_reboot_is_halt(self):
        mark = pathlib.Path(os.environ["SANDBOX_HALT_MARK"])
        self.assertEqual(self.ask(request("DEVICEREBOOT!"), "broadcast"), b"ACK\n")
        self.assertEqual(mark.read_text(encoding="ascii"), "halt \n")
        mark.unlink()

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
            self.assertTrue(caller.ask(request("DEVICEENABLEIDENT!"), 10))   # lets the daemon catch up
        # What is still waiting may set an address or end the connection.
        self.assertTrue(eventually(lambda: self.service.Reset() and self.ask(IDENT, "broadcast") == SERVICE_RECORD, 30))
        self.assertIsNone(self.daemon.process.poll())

    def test_descriptors_stay_as_many(self):
        self.start_daemon()
        self.attach()
        before = self.daemon.descriptors()
        for behaviour in ({"fault": -17}, {"fault": -3405}, {"close": True}):
            self.service.Behave(behaviour)
            for _ in range(100):
                self.ask(IDENT)
        self.service.stop()

        def failures():
            return self.daemon.output().count("Failed to attach")

        known = failures()
        self.assertTrue(eventually(lambda: self.ask(IDENT) and failures() > known, 12))
        absent = self.daemon.descriptors()
        self.attach()
        self.assertEqual(len(self.daemon.descriptors()), len(before))
        self.assertEqual(len(absent), len(before) - 1)
        self.assertEqual([], [entry for number, entry in before.items() if number > 2 and not entry[1] & os.O_CLOEXEC])


if __name__ == "__main__":
    unittest.main(verbosity=2)
