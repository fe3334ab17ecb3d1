"""What the end-to-end tests share: the daemon on a device host, a PC host beside it, real UDP between them."""

import os
import pathlib
import shutil
import stat
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools"))

import ddp_query  # noqa: E402
import testnet  # noqa: E402
from testnet import eventually  # noqa: E402,F401

DAEMON = os.path.abspath(sys.argv.pop(1)) if len(sys.argv) > 1 else sys.exit("usage: *_test.py TARNDDPD [UNITTEST...]")
DEVICE = "192.168.1.2"
PC = "192.168.1.3"
QUIET = 0.4   # seconds after which an answer that did not come counts as none

# How the service's own facts come out as a record, and what there is without the service.
SERVICE_RECORD = (b"SID:0\tOAN:Tessel XT\tOVN:Orvalle Labs\tSAN:Tessel XT\tSVN:Orvalle Labs\tLOC:Bench 1\t"
                  b"MKC:XT175012#\tSNR:314159\tASK:false\tIPA:192.168.1.10\tSNM:255.255.255.0\tGWA:192.168.1.1\t"
                  b"MAA:00:1b:c4:0a:ff:05\tEXTSID:0\tEXTAPPVER:4.2.1\r\n")
FALLBACK_RECORD = ("SID:0\tOAN:Tessel ???\tOVN:Orvalle Labs\tSAN:Tessel ???\tSVN:Orvalle Labs\tLOC:APPTERM\t"
                   "MKC:XT175???#\tSNR:000000\tASK:false\tIPA:{ip}\tSNM:{mask}\tGWA:{gateway}\t"
                   "MAA:{mac}\tEXTSID:0\tEXTAPPVER:???\r\n")


def request(*fields):
    """A request as tools send it: fields joined by TAB, CR LF behind."""
    return "\t".join(fields).encode("latin-1") + b"\r\n"


IDENT = request("DEVICEIDENT?")


class Daemon:
    """tarnddpd on `host`, in the foreground unless told otherwise. Its output is a file; its `route` commands are
    recorded, each word in brackets, and then run."""

    def __init__(self, net, host, *options, foreground=True, prefix=(), **popen):
        self.host = host
        self._output = pathlib.Path(net.folder, "output")
        self._routes = pathlib.Path(net.folder, "routes")
        self._routes.write_bytes(b"")
        wrapper = pathlib.Path(net.folder, "bin", "route")
        wrapper.parent.mkdir(exist_ok=True)
        wrapper.write_text(f"#!/bin/sh\n{{ printf '[%s]' \"$@\"; echo; }} >>{self._routes}\n"
                           f"exec {shutil.which('route')} \"$@\"\n", encoding="ascii")
        wrapper.chmod(0o755)
        environment = {**os.environ, "PATH": f"{wrapper.parent}:{os.environ['PATH']}"}
        words = [*prefix, DAEMON, *(["-nodaemon"] if foreground else []), *options]
        errors = pathlib.Path(net.folder, "errors")
        with open(self._output, "wb") as output, open(errors, "wb") as error_output:
            streams = {"stdout": output, "stderr": error_output}
            self.process = host.start(*words, env=environment, **{**streams, **popen})
        self.pid = self.process.pid
        if foreground and "stdout" not in popen and not eventually(lambda: "attach" in self.output()):
            raise RuntimeError(f"the daemon did not start: {self.output()}{errors.read_text(encoding='latin-1')}")

    def output(self):
        return self._output.read_bytes().decode("latin-1")

    def routes(self):
        return self._routes.read_text(encoding="latin-1").splitlines()

    def forget_routes(self):
        self._routes.write_bytes(b"")

    def attached(self):
        return self.output().count("Successfully attached to device API\n")

    def descriptors(self):
        """By number: where it leads, and its flags as open() knows them."""
        found = {}
        for number in os.listdir(f"/proc/{self.pid}/fd"):
            info = pathlib.Path(f"/proc/{self.pid}/fdinfo/{number}").read_text(encoding="ascii")
            flags = int(info.split("flags:")[1].split()[0], 8)
            found[int(number)] = (os.readlink(f"/proc/{self.pid}/fd/{number}"), flags)
        return found

    def sockets(self):
        return {target for target, _ in self.descriptors().values() if target.startswith("socket:")}

    def cpu_seconds(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.host.stop(self.process)


class DeviceTest(unittest.TestCase):
    """A device and a PC on one network, for all tests of the class; `options` and `with_service` say how it starts."""

    options = ()
    with_service = True

    @classmethod
    def setUpClass(cls):
        cls.net = testnet.Network()
        cls.addClassCleanup(cls.net.close)
        cls.device = cls.net.host("device", f"{DEVICE}/24")
        cls.pc = cls.net.host("pc", f"{PC}/24")
        cls.callers = {}
        for way in ddp_query.WAYS:
            with cls.pc.inside():
                cls.callers[way] = ddp_query.Caller(way, testnet.INTERFACE)
            cls.addClassCleanup(cls.callers[way].close)
        cls.service = testnet.Service(cls.device) if cls.with_service else None
        cls.daemon = Daemon(cls.net, cls.device, *cls.options)

    def ask(self, datagram, way="ipv6", seconds=3.0):
        return self.callers[way].ask(datagram, seconds)

    def start_daemon(self, *options, **how):
        """Replaces the daemon of the class."""
        type(self).daemon.stop()
        type(self).daemon = Daemon(self.net, self.device, *options, **how)
        return self.daemon

    def attach(self, behaviour=None):
        """The service as at its start, the daemon attached to it, then the service with `behaviour`."""
        self.service.start()
        self.service.Reset()
        if self.ask(IDENT, "broadcast") != SERVICE_RECORD:
            self.assertTrue(eventually(lambda: self.ask(IDENT, "broadcast") == SERVICE_RECORD, 7), "did not re-attach")
        self.service.Calls()
        self.service.Behave(behaviour or {})

    def set_facts(self, **facts):
        """Of the service; None for one that it is not to have."""
        self.service.Unset(list(facts))
        self.service.Set({name: value for name, value in facts.items() if value is not None})

    def fallback_record(self, ip=DEVICE, mask="255.255.255.0", gateway="0.0.0.0", mac=None):
        mac = mac or self.device.interface()["address"]
        return FALLBACK_RECORD.format(ip=ip, mask=mask, gateway=gateway, mac=mac).encode()


def is_shared_pipe(path):
    """Whether `path` is a named pipe that everybody may use."""
    try:
        mode = os.lstat(path).st_mode
    except FileNotFoundError:
        return False
    return stat.S_ISFIFO(mode) and stat.S_IMODE(mode) == 0o777
