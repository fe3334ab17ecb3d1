"""The systemd unit: all that the daemon does, under the limits that the unit sets, as root and as the documented user."""

import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import unittest

if not shutil.which("systemd-analyze"):
    print("skipped: systemd-analyze is not installed (package systemd)")
    sys.exit(77)

import case  # noqa: E402
from case import eventually, testnet  # noqa: E402
from device import ACK, DAEMON, DEVICE, IDENT, NACK, PC, request  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs" / "deployment.md").read_text(encoding="utf-8")
RESOLVER_FILE = pathlib.Path("/etc/resolf.conf")
PROGRAM = "/run/stub/tarnddpd"   # a copy, for all users whatever the umask of who built it
HALTS = "/run/halts"   # where our `halt` asks for it, as systemctl asks systemd: a socket outside of the unit


class UnderUnit(case.Daemon):
    """The daemon as its unit starts it, with drop-ins."""

    def __init__(self, net, host, *dropins):
        self.host = host
        self._output = pathlib.Path(net.folder, "output")
        self.unit = pathlib.Path(net.folder, "tarnddpd.service")
        text = (ROOT / "packaging" / "tarnddpd.service.in").read_text(encoding="utf-8")
        self.unit.write_text(text.replace("@daemon_path@", PROGRAM) + "".join(dropins), encoding="utf-8")
        with open(self._output, "wb") as output:
            self.process = host.start(sys.executable, "-B", str(ROOT / "lab" / "unit.py"), str(self.unit), stdout=output,
                                      stderr=output, env={**os.environ, "PATH": f"/run/stub:{os.environ['PATH']}"})
        if not eventually(lambda: "attach" in self.output(), 30):
            raise RuntimeError(f"the daemon did not start: {self.output()}")


case.Daemon = UnderUnit   # for DeviceTest


class Unit(case.DeviceTest):
    with_service = False

    @classmethod
    def setUpClass(cls):
        os.mkdir("/run/stub")
        pathlib.Path("/run/stub/halt").write_text(f"#!/bin/sh\nexec logger --socket-errors=on --socket {HALTS} halt\n", "ascii")
        shutil.copyfile(DAEMON, PROGRAM)
        for program in ("/run/stub/halt", PROGRAM):
            os.chmod(program, 0o755)
        cls.halts = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        cls.halts.bind(HALTS)
        cls.halts.setblocking(False)
        os.chmod(HALTS, 0o600)
        super().setUpClass()

    def result(self, line):
        """The exit status of a shell line that a tool has executed."""
        before = len(self.daemon.output())
        self.assertEqual(self.ask(request("EXECUTECOMMAND!", f"({line}) >/dev/null 2>&1; echo =$?="), seconds=10), NACK)
        return int(re.search(r"^=(\d+)=$", self.daemon.output()[before:], re.M)[1])

    def try_all(self, rating):
        rated = subprocess.run(["systemd-analyze", "security", "--offline=true", self.daemon.unit], check=True,
                               capture_output=True, text=True).stdout
        self.assertEqual(re.search(r"exposure level for \S+: ([0-9.]+)", rated)[1], rating)
        self.assertNotIn("No such device", self.daemon.output())   # the IPv4 group was joined at once
        for way in self.callers:
            self.assertEqual(self.ask(IDENT, way), self.fallback_record(), way)
        self.assertEqual(self.ask(request("SETIPADDRESS!", "192.168.1.9", "255.255.255.0", PC, "10.1.0.53")), ACK)
        self.assertEqual(RESOLVER_FILE.read_text("ascii"), "nameserver 10.1.0.53\n")
        self.assertEqual(self.ask(IDENT), self.fallback_record("192.168.1.9", gateway=PC))
        server = testnet.start_dnsmasq(self.pc, self.net.folder, "192.168.1.50", "192.168.1.50")
        self.assertEqual(self.ask(request("SETDHCPMODE!", "1"), seconds=5), ACK)
        self.pc.stop(server)
        self.assertEqual(self.ask(IDENT), self.fallback_record("192.168.1.50", gateway=PC))
        self.assertEqual(self.ask(request("SYSTRACE!", "1")), ACK)
        for _ in range(2):
            self.assertTrue(eventually(lambda: testnet.PIPE.exists() and testnet.PIPE.stat().st_mode & 0o777 == 0o777))
            testnet.PIPE.write_bytes(b"traced\n")
            self.assertEqual(self.callers["ipv6"].receive(3)[0], b"traced\n")
            os.unlink(testnet.PIPE)
        self.assertEqual(self.ask(request("DEVICEREBOOT!")), ACK)
        service = testnet.Service(self.device)
        self.addCleanup(service.stop)
        self.assertTrue(eventually(lambda: b"LOC:Bench 1" in self.ask(IDENT), 7))

    def test_as_root(self):
        subprocess.run(["systemd-analyze", "verify", "--man=no", self.daemon.unit], check=True)
        self.try_all("1.9")
        self.assertRegex(self.halts.recv(1000), b" halt$")
        lines = re.findall(r"^\| `([^`]+)` \| (yes|no) \|", PAGE, re.M)
        self.assertGreater(len(lines), 10)
        self.assertEqual([(line, "no" if self.result(line.replace("\\|", "|")) else "yes") for line, _ in lines], lines)
        for count in range(2, 6):   # comes back, however often a datagram ends it
            self.callers["ipv6"].send(request("SYSTRACE!", "?"))
            self.assertTrue(eventually(lambda c=count: self.daemon.output().count("Starting") == c, 20))
            self.assertTrue(eventually(lambda: self.ask(IDENT, seconds=0.1), 20))

    @unittest.skipUnless("0 4294967295" in " ".join(pathlib.Path("/proc/self/uid_map").read_text("ascii").split()),
                         "an ordinary user's sandbox has no other users")
    def test_as_the_documented_user(self):
        subprocess.run(re.search(r"^sudo (useradd .*)$", PAGE, re.M)[1].split(), check=True)
        dropin, = re.findall(r"^# systemctl edit tarnddpd\n(.*?)^```", PAGE, re.M | re.S)
        self.device.set_address(f"{DEVICE}/24")
        RESOLVER_FILE.unlink()
        shutil.rmtree("/tmp/tsl_app")
        os.symlink("/etc", "/tmp/tsl_app")
        os.chown("/tmp/tsl_app", 1, 1, follow_symlinks=False)
        self.start_daemon(dropin)
        os.chown("/tmp/tsl_app", 1, 1)   # who could put a link there later
        self.start_daemon(dropin)
        self.assertEqual(os.stat("/tmp/tsl_app").st_uid, 0)
        self.try_all("1.7")
        self.assertRaises(BlockingIOError, self.halts.recv, 1000)
        self.assertNotEqual(self.result("[ $(id -u) = 0 ]"), 0)


if __name__ == "__main__":
    unittest.main()
