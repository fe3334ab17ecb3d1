"""How the daemon starts, what it says, and how it mends itself."""

import os
import pathlib
import signal
import socket
import subprocess
import time
import unittest

from case import DeviceTest, ddp_query, eventually, testnet
from device import ACK, DAEMON, DEVICE, ENABLE, FAULTS, IDENT, PC, QUIET, SERVICE_RECORD, request

ATTACHED, FAILED = "Successfully attached to device API\n", "Failed to attach to device API - APPTERM\n"


class Start(DeviceTest):
    def setUp(self):
        self.service.start()
        self.start_daemon()

    def wait_for_record(self, way="broadcast"):
        self.assertTrue(eventually(lambda: self.ask(IDENT, way, 0.5) == SERVICE_RECORD, 7.5), way)

    def test_output_and_sockets(self):
        self.wait_for_record()
        lines = self.daemon.output().replace("TarnDDPTrace successfully initialized\n", "", 1)   # from its own thread
        self.assertEqual(lines, f"Starting Tessel01 DDP Server\n{ATTACHED}"
                                f"Received DEVICEIDENT?\r\n from {PC} with UDP Broadcast\n")
        self.device.plug_in(f"{DEVICE}/24", 1000)   # another interface of that name: the groups are joined anew
        for way in ("ipv4", "ipv6"):
            self.wait_for_record(way)
            self.assertRegex(self.daemon.output(), rf"from [0-9a-f.:]+ with {way.upper()} Multicast\n")
        self.assertEqual(self.daemon.routes(), ["[add][-net][224.0.0.0][netmask][224.0.0.0][eth0]"])
        found, options = {}, (socket.SO_REUSEADDR, socket.SO_RCVBUF, socket.SO_BROADCAST)
        for one in self.daemon.open_sockets():
            with one:
                name = one.getsockname() if one.type == socket.SOCK_DGRAM else one.getpeername()
                found[name[:2]] = (*(one.getsockopt(socket.SOL_SOCKET, option) for option in options),
                                   os.get_blocking(one.fileno()))
        with socket.socket(type=socket.SOCK_DGRAM) as asked:
            asked.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 300000)
            enlarged = asked.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)
        self.assertFalse(found.pop(("127.0.0.1", 1200))[-1], "the service's does not wait")
        endpoints = [("0.0.0.0", 5562), ("0.0.0.0", 5563), ("::", 5564)]
        self.assertEqual(found, dict.fromkeys(endpoints, (1, enlarged, 0, True)))

    def test_service_absent(self):
        """One line at the start, one at each deadline until it is there. Nothing spins meanwhile: what the two threads
        wait for, and what is read of /proc, is counted."""
        self.service.stop()
        daemon = self.start_daemon()
        begin, before = time.monotonic(), daemon.activity()
        self.assertEqual(daemon.output().count(FAILED), 1)
        self.assertTrue(eventually(lambda: daemon.output().count(FAILED) == 3, 15))
        seconds = time.monotonic() - begin
        self.assertGreater(seconds, 9)
        for what, most in (("main", 4), ("trace", 1), ("reads", 2)):
            self.assertLess(daemon.activity()[what] - before[what], most * seconds, what)
        self.service.start()
        self.assertTrue(eventually(lambda: ATTACHED in daemon.output(), 6.5))

    def test_answers_to_senders_that_cannot_be_found(self):
        """They fill the port's send buffer, and hold nothing else."""
        for address in ("192.168.1.100", "192.168.1.101"):
            with self.pc.inside(), socket.socket(type=socket.SOCK_DGRAM) as forged:
                forged.setsockopt(socket.SOL_IP, 19, 1)   # IP_TRANSPARENT
                forged.bind((address, 0))
                for _ in range(300):
                    forged.sendto(ENABLE, (DEVICE, 5564))
        self.assertEqual(self.ask(ENABLE, "broadcast"), ACK)   # read last

    def test_options(self):
        interface = f"x;touch {self.net.folder}/injected"
        with self.device.inside(), socket.create_server((DEVICE, 1400)):
            daemon = self.start_daemon("-ip", DEVICE, "-port", "80", "-if", interface)   # not below 1000: 1400
        self.assertIn(ATTACHED, daemon.output())
        self.assertEqual(daemon.routes()[0], f"[add][-net][224.0.0.0][netmask][224.0.0.0][{interface}]")
        self.assertFalse(os.path.exists(f"{self.net.folder}/injected"))
        for way in ddp_query.WAYS:   # by the groups of the interface that the system chose
            self.assertEqual(self.ask(ENABLE, way), ACK)
        for word, begin in (("--help", "usage: tarnddpd [-nodaemon]"), ("--version", "tarnddpd ")):
            # Where a start would first tell of a group that cannot be joined.
            told = subprocess.run([DAEMON, word], stdout=subprocess.PIPE, text=True, check=True, timeout=60)
            self.assertTrue(told.stdout.startswith(begin), told.stdout)

    def test_daemonizing(self):
        daemon = self.start_daemon(foreground=False)
        self.assertEqual(daemon.process.wait(5), 0)
        self.wait_for_record()
        daemon.pid, = [int(pid) for pid in os.listdir("/proc") if pid.isdigit()
                       and os.path.realpath(f"/proc/{pid}/exe") == os.path.realpath(DAEMON)]
        self.addCleanup(os.kill, daemon.pid, signal.SIGKILL)
        self.assertEqual(daemon.output(),
                         "Starting Tessel01 DDP Server\nVRTX APP Started in Daemon mode! -> Daemonizing\n")
        self.assertEqual((os.getsid(daemon.pid), os.readlink(f"/proc/{daemon.pid}/cwd")), (daemon.pid, "/"))
        self.assertIn("Umask:\t0000", pathlib.Path(f"/proc/{daemon.pid}/status").read_text(encoding="ascii"))
        for number in (signal.SIGPIPE, signal.SIGXFSZ):   # ends nothing
            os.kill(daemon.pid, number)
        self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
        testnet.PIPE.write_bytes(b"traced")
        self.assertEqual(self.callers["ipv6"].receive(3)[0], b"traced")
        descriptors = daemon.descriptors()
        self.assertEqual([(descriptors[n][0], descriptors[n][1] & os.O_ACCMODE) for n in range(3)],
                         [("/dev/null", mode) for mode in (os.O_RDONLY, os.O_RDWR, os.O_RDWR)])

    def test_standard_descriptors_closed_at_start(self):
        for closed, numbers in (("<&-", "0"), (">&-", "1"), ("2>&-", "2"), ("<&- >&- 2>&-", "012")):
            daemon = self.start_daemon(prefix=("sh", "-c", f'exec "$@" {closed}', "sh"), stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            self.wait_for_record()
            opened = {(path, flags & os.O_ACCMODE) for path, flags in map(daemon.descriptors().get, map(int, numbers))}
            self.assertEqual(opened, {("/dev/null", os.O_RDWR)}, closed)

    def test_memory_that_runs_out_costs_a_datagram(self):
        """Or a command, in the middle, or a trace text."""
        self.start_daemon(env={"LD_PRELOAD": FAULTS})
        for number in range(1, 10):
            for way in ddp_query.WAYS:
                self.callers[way].send(b"FAIL%d" % number + 500 * b"x")
            self.assertEqual(self.ask(ENABLE, "broadcast"), ACK, number)   # read last
        for fields in (("DEVICEIDENT?",), ("SETIPADDRESS!", DEVICE, "255.255.255.0", "", "")):
            for number in range(1, 40, 3):
                self.callers["ipv6"].send(request(*fields, f"FAIL{number}"))
                self.assertEqual(self.ask(ENABLE, "broadcast"), ACK, (fields[0], number))
        self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
        for text, arrives in ((b"FAIL1" + 500 * b"x", None), (b"next", b"next")):
            testnet.PIPE.write_bytes(text)
            self.assertEqual(self.callers["ipv6"].receive(QUIET if arrives is None else 3)[0], arrives)


if __name__ == "__main__":
    unittest.main(verbosity=2)
