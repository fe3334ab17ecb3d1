"""What the daemon tells a supervisor (sd_notify(3)), as that hears it."""

import contextlib
import os
import pathlib
import socket
import time
import unittest

from case import DeviceTest, eventually
from device import ACK, DAEMON, ENABLE, NACK, request

UP = "STATUS=device service up; open UDP ports: 5564 5563 5562; lines dropped: 0"
AWAY = UP.replace("up;", "away;")
RAISED = "WATCHDOG_USEC=3600000000\nWATCHDOG=1"
SECONDS = 4   # of the watchdog
RESTORED = f"WATCHDOG_USEC={SECONDS}000000\nWATCHDOG=1"


class Notify(DeviceTest):
    def supervise(self, address, pid="WATCHDOG_PID=$$", noise="", **how):
        """A daemon that is watched from `address`, which is full if there is noise. The shell, whose process it becomes,
        tells the process meant."""
        self.service.start()
        with self.device.inside():   # an abstract address belongs to a network
            self.supervisor = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.supervisor.close)
        self.supervisor.bind(address.replace("@", "\0"))
        self.supervisor.settimeout(3 * SECONDS)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as flood, contextlib.suppress(BlockingIOError):
            flood.setblocking(False)
            while noise:
                flood.sendto(noise.encode("ascii"), address)
        return self.start_daemon(prefix=("sh", "-c", f'{pid} exec "$@"', "sh"), env={
            "NOTIFY_SOCKET": address, "WATCHDOG_USEC": f"{SECONDS}000000"}, **how)

    def hear(self, *ignored):
        """The next datagram."""
        end = time.monotonic() + 60
        while (text := self.supervisor.recv(4096).decode("ascii").rstrip("\n")) in ignored:
            self.assertLess(time.monotonic(), end)
        return text

    def test_what_is_said_and_when(self):
        mark = pathlib.Path(self.net.folder, "environment")
        self.daemon.stop()
        with self.device.inside():
            holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        holder.bind(("0.0.0.0", 5563))
        daemon = self.supervise("@tarnddpd")
        self.assertEqual(self.hear(), f"READY=1\n{UP.replace(' 5563', '')}\nWATCHDOG=1")
        for change, said in ((holder.close, UP), (self.service.stop, AWAY), (self.service.start, UP)):
            change()
            self.assertEqual(self.hear("WATCHDOG=1").splitlines()[0], said)
        for step in (("EXECUTECOMMAND!", f"env >{mark}; sleep 0.2"), ("DEVICEREBOOT!",),
                     ("SETIPADDRESS!", "192.168.1.2", "255.255.255.0", ""), ("SETDHCPMODE!", "1")):
            if step[0] == "SETIPADDRESS!":
                self.service.stop()
                self.assertEqual(self.hear("WATCHDOG=1").splitlines()[0], AWAY)
            self.assertIn(self.ask(request(*step), seconds=8), (ACK, NACK))
            self.assertEqual((self.hear("WATCHDOG=1"), self.hear("WATCHDOG=1")), (RAISED, RESTORED), step)
        self.assertNotRegex(mark.read_text(encoding="latin-1"), "NOTIFY|WATCHDOG")
        times = []
        for _ in range(3):
            self.assertEqual(self.hear(), "WATCHDOG=1")
            times.append(time.monotonic())
        self.assertGreater(times[2] - times[0], SECONDS - 0.5)   # two halves of the watchdog's time, never sooner
        self.assertLess(times[2] - times[0], 2 * SECONDS - 0.5)
        self.assertEqual(len(daemon.descriptors()), 9)

    def test_supervisor_that_does_not_listen_or_went_away(self):
        """Costs the daemon nothing, and what it did not hear it hears later. Another's watchdog is not fed."""
        address = str(pathlib.Path(self.net.folder, "notify"))
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        self.supervise(address, pid="WATCHDOG_PID=1", noise="noise", stdout=writer)
        os.close(writer)
        self.assertTrue(eventually(lambda: self.ask(ENABLE) == ACK))
        self.assertEqual(self.hear("noise"), f"READY=1\n{UP}")
        for _ in range(70):   # more than a pipe holds
            self.assertEqual(self.ask(b"DEVICEENABLEIDENT!\t" + 1000 * b"x" + b"\n"), ACK)
        self.assertRegex(self.hear(), UP[:-1] + "[1-9][0-9]*$")
        self.supervisor.settimeout(7)   # longer than the lines are held back
        self.assertRaises(TimeoutError, self.hear)
        os.rename(address, f"{address}.away")
        self.assertEqual(self.ask(ENABLE), ACK)   # and one more line is dropped, which would be told
        time.sleep(0.1)
        os.rename(f"{address}.away", address)
        self.assertRegex(self.hear(), UP[:-1] + "[1-9][0-9]*$")

    def test_detached(self):
        """The parent tells who takes its place, and that one when it serves."""
        self.supervise(str(pathlib.Path(self.net.folder, "detached")), pid="", foreground=False)
        first, second = sorted((self.hear(), self.hear()))   # they come in any order
        pid = first.partition("=")[2]
        self.addCleanup(os.kill, int(pid), 9)
        self.assertEqual(os.path.realpath(f"/proc/{pid}/exe"), os.path.realpath(DAEMON))
        self.assertEqual((first, second), (f"MAINPID={pid}", f"READY=1\nMAINPID={pid}\n{UP}\nWATCHDOG=1"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
