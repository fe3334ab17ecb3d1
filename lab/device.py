"""What the end-to-end tests and the benchmarks of the daemon share: the daemon, watched from outside, and its records."""

import contextlib
import ctypes
import os
import pathlib
import shutil
import socket
import sys

import ddp_query
from testnet import eventually

DAEMON = os.path.abspath(sys.argv.pop(1)) if len(sys.argv) > 1 else sys.exit("usage: PROGRAM TARNDDPD [...]")
DEVICE, PC = "192.168.1.2", "192.168.1.3"
MAC = "00:1b:c4:0a:ff:05"   # as the service tells it
FAULTS = os.path.relpath(os.path.join(os.path.dirname(DAEMON), "Faults.so"))   # to preload: LD_PRELOAD takes no blanks
QUIET = 0.4   # seconds after which an answer that did not come counts as none
ACK, NACK = b"ACK\n", b"NACK\n"


def request(*fields):
    """A request as tools send it: fields joined by TAB, CR LF behind."""
    return "\t".join(fields).encode("latin-1") + b"\r\n"


def record(kind, name, code, serial, ip, mask, gateway, mac, firmware):
    """The daemon's own."""
    return ddp_query.record(mac, name, serial, ip, mask, OAN=kind, OVN="Orvalle Labs", SAN=kind, SVN="Orvalle Labs",
                            MKC=f"{code}#", GWA=gateway, EXTAPPVER=firmware)


def fallback_record(mac, ip=DEVICE, mask="255.255.255.0", gateway="0.0.0.0"):
    """The same while the service is away."""
    return record("Tessel ???", "APPTERM", "XT175???", "000000", ip, mask, gateway, mac, "???")


IDENT, ENABLE = request("DEVICEIDENT?"), request("DEVICEENABLEIDENT!")
SERVICE_RECORD = record("Tessel XT", "Bench 1", "XT175012", "314159", "192.168.1.10", "255.255.255.0", "192.168.1.1",
                        MAC, "4.2.1")


class Daemon:
    """tarnddpd on `host`, in the foreground unless told otherwise. Its output is a file; its `route` commands are
    recorded, each word in brackets, and then run."""

    def __init__(self, net, host, *options, foreground=True, prefix=(), env=None, **popen):
        self.host = host
        self._output, self._errors, self._routes, route = (
            pathlib.Path(net.folder, name) for name in ("output", "errors", "routes", "route"))
        self.forget_routes()
        route.write_text(f"#!/bin/sh\n{{ printf '[%s]' \"$@\"; echo; }} >>{self._routes}\n"
                         f"exec {shutil.which('route')} \"$@\"\n", encoding="ascii")
        route.chmod(0o755)
        words = [*prefix, DAEMON, *(["-nodaemon"] if foreground else []), *options]
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            path = f"{net.folder}:{os.environ['PATH']}"
            self.process = host.start(*words, env={**os.environ, **(env or {}), "PATH": path},
                                      **{"stdout": output, "stderr": errors, **popen})
        self.pid = self.process.pid
        if foreground and "stdout" not in popen and not eventually(lambda: "attach" in self.output()):
            raise RuntimeError(f"the daemon did not start: {self.output()}{self.errors()}")

    def output(self):
        return self._output.read_bytes().decode("latin-1")

    def errors(self):
        return self._errors.read_bytes().decode("latin-1")

    def complaints(self):
        """Its own lines on standard error, which the commands that it runs share."""
        return [line for line in self.errors().splitlines() if line.startswith("tarnddpd: ")]

    def routes(self):
        return self._routes.read_text(encoding="latin-1").splitlines()

    def forget_routes(self):
        self._routes.write_bytes(b"")

    def descriptors(self):
        """By number: where it leads, and its flags as open() knows them. The smallest of a few looks, as the daemon
        opens a file for a moment now and then."""
        def look():
            found = {}
            for number in os.listdir(f"/proc/{self.pid}/fd"):
                with contextlib.suppress(FileNotFoundError):   # closed meanwhile
                    info = pathlib.Path(f"/proc/{self.pid}/fdinfo/{number}").read_text(encoding="ascii")
                    flags = int(info.split("flags:")[1].split()[0], 8)
                    found[int(number)] = (os.readlink(f"/proc/{self.pid}/fd/{number}"), flags)
            return found
        return min((look() for _ in range(3)), key=len)

    def sockets(self):
        return {target for target, _ in self.descriptors().values() if target.startswith("socket:")}

    def open_sockets(self):
        """Copies of them, through which their options are seen."""
        process = os.pidfd_open(self.pid)
        for number, (target, _) in self.descriptors().items():
            if target.startswith("socket:"):
                yield socket.socket(fileno=ctypes.CDLL(None).syscall(438, process, number, 0))   # pidfd_getfd
        os.close(process)

    def activity(self):
        """How often each thread has waited so far, and how often anything was read."""
        waits = []
        for task in sorted(pathlib.Path(f"/proc/{self.pid}/task").iterdir(), key=lambda path: int(path.name)):
            status = (task / "status").read_text(encoding="ascii")
            waits.append(int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0]))
        reads = pathlib.Path(f"/proc/{self.pid}/io").read_text(encoding="ascii").split("syscr:")[1].split()[0]
        return {"main": waits[0], "trace": waits[1], "reads": int(reads)}

    def resident(self):
        """The memory that it holds, in KiB."""
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(status.split("VmRSS:")[1].split()[0])

    def stop(self):
        self.host.stop(self.process)
