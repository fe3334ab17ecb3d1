"""What the daemon answers, with the service and without, and what it hands on."""

import os
import pathlib
import signal
import unittest

from case import DeviceTest, ddp_query, eventually
from device import ACK, ENABLE, IDENT, NACK, QUIET, SERVICE_RECORD, record, request

GET_NETWORK = "RPCConf.GetNetwork"


class Answers(DeviceTest):
    def test_ways_and_calls(self):
        """Each way leads to the record. An unknown command is forwarded as it stands, if it is a direct one."""
        for way in ddp_query.WAYS:
            self.attach()
            self.assertEqual(self.ask(b"deviceIdentExt?\tan argument\r", way), SERVICE_RECORD)
            self.assertIsNone(self.ask(b"Any.Word\tcaf\xe9 <&>\r\n", way, QUIET))
            forwarded = [{"MethodID": "RPCSys::SendSysCmd", "Msg": "Any.Word\tcaf\xe9 <&>\n"}]   # as XML has line ends
            self.assertEqual([call["params"] for call in self.service.Calls()], [
                [{"MethodID": "RPCMeas::GetGlobalSysInfos"}], [{"DeviceName": "", "MethodID": "RPCConf::GetNetwork"}],
                *([forwarded] if way == "ipv6" else [])])

    def test_service_that_is_odd_faulty_or_away(self):
        """The two records never mix, and the service is found again. No descriptor is lost, no command inherits one."""
        self.start_daemon()
        self.attach()
        descriptors = self.daemon.descriptors()
        fallback = self.fallback_record()
        special = SERVICE_RECORD.replace(b"Bench 1", b"a <b> & 'c'").replace(b"ASK:false", b"ASK:true")
        for behaviour, facts, expected, is_kept in (
                ({}, {"DeviceName": "a <b> & 'c'", "DHCPActive": 2}, [special], True),
                ({"slow": 0.2}, {}, [SERVICE_RECORD], True),
                ({"fault": 4}, {}, [record("", "", "XT0000", *6 * [""])], True),
                ({"slow": 0.7, "only": GET_NETWORK}, {}, [fallback], False),
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
        whole, least = ENABLE + 1500 * b"x", len(ENABLE) - 1
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


if __name__ == "__main__":
    unittest.main(verbosity=2)
