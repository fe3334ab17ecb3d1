"""What the tests of the tool share: a PC beside devices, programs run on it as an ordinary user does, the wire."""

import fcntl
import os
import pathlib
import pty
import select
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))
sys.path.append("/usr/lib/python3/dist-packages")   # of Debian's pyte, whichever Python runs this

import pyte  # noqa: E402

import ddp_query  # noqa: E402
import testnet  # noqa: E402
from ddp_query import record  # noqa: E402,F401
from testnet import eventually  # noqa: E402,F401

if len(sys.argv) < 3:
    sys.exit("usage: *_test.py TARNDDPD TARNDDP [UNITTEST...]")
DAEMON, TOOL = (os.path.abspath(sys.argv.pop(1)) for _ in range(2))
IDENT = b"DEVICEIDENT?\r\n"
LIMIT = 60   # seconds after which a program counts as stuck, on any machine
ORDINARY = ("setpriv", "--no-new-privs", "--bounding-set=-all", "--inh-caps=-all")   # the user 0 of a sandbox is none then


class Run:
    """The tool on `host`, its output into pipes."""

    def __init__(self, host, *words, **options):
        self.process = host.start(*ORDINARY, TOOL, *words, **{
            "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True,
            "encoding": "utf-8", **options})

    def end(self):
        """Exit status, standard output, standard error."""
        out, err = self.process.communicate(timeout=LIMIT)
        return self.process.returncode, out, err

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)


class Terminal:
    """The tool on a terminal of its own. `lines()` is what a person sees of it, above the screen's top included."""

    def __init__(self, host, *words, columns=80, rows=24, read=True, **options):
        self._screen = pyte.HistoryScreen(columns, rows, history=10000, ratio=1)
        self._stream = pyte.ByteStream(self._screen)
        self._master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.process = host.start("setsid", "--ctty", *ORDINARY, TOOL, *words, **{
            "stdin": slave, "stdout": slave, "stderr": slave, "env": {**os.environ, "TERM": "linux"}, **options})
        os.close(slave)
        self.raw = b""
        self._reader = threading.Thread(target=self._read, daemon=True)
        if read:
            self.read()

    def read(self):
        self._reader.start()

    def _read(self):
        try:
            while piece := os.read(self._master, 65536):
                self.raw += piece
                self._stream.feed(piece)
        except OSError:   # nobody has the other end any more
            pass

    def lines(self):
        above = ["".join(line[column].data for column in range(self._screen.columns))
                 for line in list(self._screen.history.top)]   # which grows meanwhile
        return [line.rstrip() for line in (*above, *self._screen.display) if line.strip()]

    def wait_for(self, text):
        if not eventually(lambda: any(text in line for line in self.lines()), LIMIT):
            raise AssertionError(f"{text!r} does not come: {self.lines()}")

    def type(self, keys):
        os.write(self._master, keys)

    def end(self):
        """Exit status and lines."""
        status = self.process.wait(LIMIT)
        self._reader.join(LIMIT)
        os.close(self._master)
        return status, self.lines()


class Fake:
    """Something on `host` that answers like a device, and lies: each of `records` to a request for one; to a
    command, what `reply` makes of the datagram, if anything: one answer or a list."""

    def __init__(self, host, records, reply=lambda datagram: None):
        self.records, self._reply, self.heard = records, reply, []
        self._sockets = []
        with host.inside():
            for way, (family, group, port) in ddp_query.WAYS.items():
                endpoint = socket.socket(family, socket.SOCK_DGRAM)
                endpoint.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                if family == socket.AF_INET6:
                    endpoint.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
                endpoint.bind(("", port))
                index = socket.if_nametoindex(testnet.INTERFACE)
                if way == "ipv6":
                    member = struct.pack("16si", socket.inet_pton(family, group), index)
                    endpoint.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, member)
                elif way == "ipv4":
                    member = struct.pack("4s4si", socket.inet_aton(group), bytes(4), index)
                    endpoint.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
                    endpoint.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, member)
                self._sockets.append(endpoint)
        self._group = ddp_query.WAYS["ipv4"][1:]
        self._halt, self._halted = os.pipe()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            ready = select.select([*self._sockets, self._halt], [], [])[0]
            if self._halt in ready:
                return
            for endpoint in ready:
                datagram, sender = endpoint.recvfrom(65536)
                self.heard.append(datagram)
                answers = self.records if datagram.startswith(IDENT.rstrip()) else []
                if b"!" in datagram.partition(b"\t")[0]:   # not what others tell the group
                    answers = reply if isinstance(reply := self._reply(datagram), list) else [reply]
                to = self._group if endpoint is self._sockets[1] else sender
                for answer in answers:
                    if answer is not None:
                        endpoint.sendto(answer, to)

    def close(self):
        os.write(self._halted, b"x")
        self._thread.join()
        for endpoint in self._sockets:
            endpoint.close()


def sent(wire):
    """What left the PC since the last look, requests for records apart: (destination, port, fields) in that order."""
    found = []
    for _, outgoing, frame in wire.take():
        kind, = struct.unpack_from("!H", frame, 12)
        if not outgoing:
            continue
        if kind == 0x0800 and frame[23] == socket.IPPROTO_UDP:
            udp, to = frame[14 + 4 * (frame[14] & 15):], socket.inet_ntop(socket.AF_INET, frame[30:34])
        elif kind == 0x86dd and frame[20] == socket.IPPROTO_UDP:
            udp, to = frame[54:], socket.inet_ntop(socket.AF_INET6, frame[38:54])
        else:
            continue
        datagram = udp[8:struct.unpack_from("!H", udp, 4)[0]]
        if not datagram.startswith(IDENT.rstrip()):
            found.append((to, struct.unpack_from("!H", udp, 2)[0], datagram.decode("latin-1").rstrip("\r\n").split("\t")))
    return found


def link_local(mac):
    """The IPv6 address that the kernel makes of a MAC."""
    octets = bytearray(bytes.fromhex(mac.replace(":", "")))
    octets[0] ^= 2
    return socket.inet_ntop(socket.AF_INET6, b"\xfe\x80" + bytes(6) + octets[:3] + b"\xff\xfe" + octets[3:])
