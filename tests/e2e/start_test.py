"""How the daemon starts, what it says, and how it mends itself."""

import os
import pathlib
import signal
import socket
import subprocess
import time
import unittest

from device import DAEMON, DEVICE, IDENT, PC, SERVICE_RECORD, DeviceTest, ddp_query, eventually


class Start(DeviceTest):
    def setUp(self):
        self.service.start()
        self.start_daemon()

    def answers(self):
        return self.ask(IDENT, "broadcast", 0.5) == SERVICE_RECORD

    def test_output_and_route(self):
        self.assertTrue(self.answers())
        lines = self.daemon.output().replace("TarnDDPTrace successfully initialized\n", "", 1)   # from its own thread
        self.assertEqual(lines, "Starting Tessel01 DDP Server\nSuccessfully attached to device API\n"
                                f"Received DEVICEIDENT?\r\n from {PC} with UDP Broadcast\n")
        self.assertEqual(self.daemon.routes(), ["[add][-net][224.0.0.0][netmask][224.0.0.0][eth0]"])
        for way, name in (("ipv4", "IPV4"), ("ipv6", "IPV6")):
            self.ask(IDENT, way)
            line = rf"Received DEVICEIDENT\?\r\n from [0-9a-f.:]+ with {name} Multicast\n"
            self.assertRegex(self.daemon.output(), line)

    def test_service_absent(self):
        """One line at the start, one at each deadline until it is there."""
        self.service.stop()
        failed = "Failed to attach to device API - APPTERM\n"
        daemon = self.start_daemon()
        begin = time.monotonic()
        self.assertEqual(daemon.output().count(failed), 1)
        self.assertTrue(eventually(lambda: daemon.output().count(failed) == 2, 7))
        self.assertTrue(4.5 < time.monotonic() - begin < 6.5, time.monotonic() - begin)
        self.service.start()
        self.assertTrue(eventually(daemon.attached, 6.5))

    def test_options(self):
        mark = pathlib.Path(self.net.folder, "injected")
        for options, port, interface in ((["-port", "80"], 1400, "eth0"), (["-port", "1000"], 1000, "eth0"),
                                         (["-ip", DEVICE, "-port", "1000"], None, "eth0"), (["-port"], 1200, "eth0"),
                                         (["-if", f"x;touch {mark}"], 1200, f"x;touch {mark}"), (["-if"], 1200, "eth0"),
                                         (["-Port", "80", "-if", "-ip", "x"], None, "-ip")):
            with self.subTest(options=options):
                listener = None
                if port not in (None, 1200):
                    with self.device.inside():
                        listener = socket.create_server(("127.0.0.1", port))
                daemon = self.start_daemon(*options)
                self.assertEqual(daemon.attached(), int(port is not None))
                self.assertEqual(daemon.routes()[0], f"[add][-net][224.0.0.0][netmask][224.0.0.0][{interface}]")
                if listener:
                    listener.close()
        self.assertFalse(mark.exists())

    def test_daemonizing(self):
        daemon = self.start_daemon(foreground=False)
        self.assertEqual(daemon.process.wait(5), 0)
        said = "Starting Tessel01 DDP Server\nVRTX APP Started in Daemon mode! -> Daemonizing\n"
        self.assertEqual(daemon.output(), said)
        self.assertTrue(eventually(self.answers, 7))
        exe = os.path.realpath(DAEMON)
        daemon.pid, = [int(pid) for pid in os.listdir("/proc") if pid.isdigit()
                       and os.path.realpath(f"/proc/{pid}/exe") == exe]
        try:
            self.assertEqual(os.getsid(daemon.pid), daemon.pid)
            self.assertEqual(os.readlink(f"/proc/{daemon.pid}/cwd"), "/")
            self.assertIn("Umask:\t0000", pathlib.Path(f"/proc/{daemon.pid}/status").read_text(encoding="ascii"))
            descriptors = daemon.descriptors()
            self.assertEqual([(descriptors[n][0], descriptors[n][1] & os.O_ACCMODE) for n in range(3)],
                             [("/dev/null", mode) for mode in (os.O_RDONLY, os.O_RDWR, os.O_RDWR)])
            self.assertEqual(daemon.output(), said)
        finally:
            os.kill(daemon.pid, signal.SIGKILL)

    def test_standard_descriptors_closed_at_start(self):
        for closed in ("<&-", ">&-", "2>&-", "<&- >&- 2>&-"):
            with self.subTest(closed):
                daemon = self.start_daemon(prefix=("sh", "-c", f'exec "$@" {closed}', "sh"),
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.assertTrue(eventually(self.answers, 7))
                self.assertEqual({daemon.descriptors()[n][0] for n in range(3)}, {"/dev/null"})

    def test_supervisor_that_went_away_or_stopped_reading(self):
        for goes_away in (True, False):
            with self.subTest(goes_away=goes_away):
                reader, writer = os.pipe()
                self.start_daemon(stdout=writer, stderr=writer)
                os.close(writer)
                self.assertTrue(eventually(self.answers, 7))
                if goes_away:
                    os.close(reader)
                for _ in range(100):   # more than a pipe holds
                    self.assertEqual(self.ask(b"DEVICEENABLEIDENT!\t" + 1000 * b"x" + b"\n"), b"ACK\n")
                self.assertTrue(self.answers())
                if not goes_away:
                    with open(reader, "rb") as pipe:
                        self.daemon.stop()
                        lines = pipe.read().decode("latin-1").splitlines()
                    self.assertGreater(len(lines), 50)
                    whole = (" from ", "Received ", "Starting ", "Successfully ", "TarnDDPTrace ", "SIOCADDRT: ")
                    self.assertEqual([], [line for line in lines if line and not line.startswith(whole)])

    def test_link_and_interface_that_come_back(self):
        """The multicast ways work again, and no second command was run for it."""
        self.device.run("ip", "link", "set", "eth0", "down")
        self.device.run("ip", "link", "set", "eth0", "up")
        self.assertNotIn("224.0.0.0", self.device.run("ip", "route"))
        for event in ("link", "new interface"):
            if event == "new interface":
                self.device.plug_in(f"{DEVICE}/24")
            for way in ("ipv4", "ipv6"):
                self.assertTrue(eventually(lambda w=way: self.ask(IDENT, w, 0.5) == SERVICE_RECORD, 7.5), (event, way))
            self.assertIn("224.0.0.0", self.device.run("ip", "route"))
        self.assertEqual(len(self.daemon.routes()), 1)

    def test_endpoints_that_were_taken_are_opened_later(self):
        self.daemon.stop()
        with self.device.inside():
            holders = [socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) for _ in range(3)]
        for holder, port in zip(holders, (5562, 5563, 5564)):
            holder.bind(("::", port))
        daemon = self.start_daemon()
        self.assertTrue(eventually(lambda: "Failed to open server connections\n" in daemon.output(), 7))
        for holder in holders:
            holder.close()
        self.assertTrue(eventually(lambda: "Successfully opened server conenctions\n" in daemon.output(), 7))
        for way in ddp_query.WAYS:
            self.assertEqual(self.ask(IDENT, way), SERVICE_RECORD, way)
        self.assertEqual(len(daemon.sockets()), 4)


if __name__ == "__main__":
    unittest.main(verbosity=2)
