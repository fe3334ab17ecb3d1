"""usage: faults.py TARNDDPD [NAME...]

Brings about each fault of docs/reliability.md (or those of which a NAME is a part), and prints its table: what a request
gets meanwhile, what the daemon costs and prints, and how long it takes to be back once the fault is gone. Started by
scripts/bench faults, inside the sandbox; status 1 if a row does not hold."""

import collections
import contextlib
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import traceback

if not pathlib.Path(sys.argv[1]).with_name("Faults.so").exists():
    sys.exit("faults.py: Faults.so is not beside the daemon; build it, as scripts/bench does")
NAMES = sys.argv[2:]
del sys.argv[2:]
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "lab"))

import ddp_query  # noqa: E402
import device  # noqa: E402
import raw_service  # noqa: E402
import testnet  # noqa: E402
from device import ACK, ENABLE, FAULTS, IDENT, SERVICE_RECORD, request  # noqa: E402
from testnet import eventually  # noqa: E402

HOLD = 13                # s that a fault is looked at
CPU, LINES = 1.0, 1.0    # per cent, and lines a second, without a flood
WATCHDOG = 60            # s, as in the unit
REQUEST = re.compile(r"Received [^\n]*\n? from [^\n]* with [^\n]*\n")
ROWS = []


def row(name, back=6.0, flood=False, lines=LINES):
    """A fault: `back` is how many seconds after its end all is to be well, None where nothing is to come back."""
    def add(function):
        ROWS.append((name, back, flood, lines, function))
        return function
    return add


class Bench:
    """A device and a PC. Each row begins with the service well and the daemon attached to it."""

    def __init__(self, net):
        self.net = net
        self.device, self.pc = net.host("device", f"{device.DEVICE}/24"), net.host("pc", f"{device.PC}/24")
        with self.pc.inside():
            self.callers = {way: ddp_query.Caller(way, testnet.INTERFACE) for way in ddp_query.WAYS}
        self.service = raw_service.RawService(self.device)
        self.daemon, self.open = None, contextlib.ExitStack()
        self.seen, self.cpu, self.lines, self.back_after, self.note, self.slowest = {}, None, None, None, "", 0

    def begin(self):
        self.open = contextlib.ExitStack()
        self.seen, self.cpu, self.lines, self.back_after, self.note, self.slowest = {}, None, None, None, "", 0
        self.service.answer = raw_service.well
        self.start()
        self.back_after = self.until(self.is_served, 30)   # before the fault, overwritten by its end
        if self.back_after is None:
            raise RuntimeError("not served before the fault")
        self.back_after = None

    def end(self):
        self.open.close()
        self.daemon.stop()

    def start(self, *options, **how):
        if self.daemon:
            self.daemon.stop()
        self.daemon = device.Daemon(self.net, self.device, *options, **how)

    def preload(self, source):
        """Starts the daemon with what `source`, a text in C, puts in the place of the C library's functions."""
        subprocess.run(["cc", "-x", "c", "-shared", "-fPIC", "-o", f"{self.net.folder}/preload.so", "-"], check=True,
                       input=source.encode("ascii"))
        self.start(env={"LD_PRELOAD": f"{self.net.folder}/preload.so"})

    # What is asked

    def ask(self, datagram=IDENT, way="broadcast", seconds=2.0):
        begin = time.monotonic()
        answer = self.callers[way].ask(datagram, seconds)
        self.slowest = max(self.slowest, time.monotonic() - begin)
        return answer

    def is_served(self, ways=("broadcast",)):
        return all(self.ask(IDENT, way, 0.5) == SERVICE_RECORD for way in ways)

    def answers_by_every_way(self):
        return all(self.ask(ENABLE, way, 0.5) == ACK for way in ddp_query.WAYS)

    @staticmethod
    def until(check, seconds):
        begin = time.monotonic()
        return time.monotonic() - begin if eventually(check, seconds) else None

    def printed(self):
        """Lines other than those that tell of a request."""
        return REQUEST.sub("", self.daemon.output() + self.daemon.errors()).count("\n")

    def hold(self, seconds=HOLD, way="broadcast", every=2.0, datagram=IDENT, patience=2.0):
        """Looks at the fault: asks now and then, counts answers, processor time and lines other than those of requests."""
        seen, self.slowest = collections.Counter(), 0
        begin, cpu, lines = time.monotonic(), testnet.cpu_ns(self.daemon.pid), self.printed()
        while time.monotonic() < begin + seconds:
            asked = time.monotonic()
            answer = self.ask(datagram, way, patience)
            seen["nothing" if answer is None else "record" if answer == SERVICE_RECORD else
                 "fallback" if answer.startswith(b"SID:") else answer.decode("latin-1").strip()] += 1
            time.sleep(max(0, asked + every - time.monotonic()))
        elapsed = time.monotonic() - begin
        self.seen, self.cpu = seen, (testnet.cpu_ns(self.daemon.pid) - cpu) / 1e7 / elapsed
        self.lines = (self.printed() - lines) / elapsed

    def back(self, check, seconds=30.0):
        self.back_after = self.until(check, seconds)

    def hold_with(self, answer):
        """The service answers thus until the end of the row."""
        self.service.answer = answer
        self.hold()
        self.service.answer = raw_service.well
        self.back(self.is_served)

    def lend_addresses(self, last=4, start=testnet.start_dnsmasq, *options):
        """A DHCP server at 192.168.1.4 with 192.168.1.40 to 49, or so, until the end of the row."""
        host = self.net.host(f"server{last}", f"192.168.1.{last}/24")
        self.open.callback(self.net.hosts.remove, host)
        self.open.callback(host.close)
        start(host, self.net.folder, f"192.168.1.{last}0", f"192.168.1.{last}9", *options)

    def run(self, *words):
        return self.device.run(*words)

    def meanwhile(self, step):
        """Does `step` again and again in a thread until the end of the row, or until it is called off."""
        over = threading.Event()

        def work():
            while not over.is_set():
                step()
        thread = threading.Thread(target=work, daemon=True)
        thread.start()

        def stop():
            over.set()
            thread.join(5)
        self.open.callback(stop)
        return stop


# The device service

@row("service absent at the start")
def _(b):
    b.service.stop()
    b.start()
    b.hold()
    b.service.start()
    b.back(b.is_served)


@row("service refusing after it was there")
def _(b):
    b.service.stop()
    b.hold()
    b.service.start()
    b.back(b.is_served)


@row("service accepts and stays silent")
def _(b):
    b.hold_with(lambda connection, method: None)


def cut(at):
    def answer(connection, method):
        connection.sendall(raw_service.ANSWERS[method][:at])
        raise ConnectionError
    return answer


@row("service closes in the head")
def _(b):
    b.hold_with(cut(20))


@row("service closes in the body")
def _(b):
    b.hold_with(cut(150))


@row("service sends garbage")
def _(b):
    b.hold_with(lambda connection, method: connection.sendall(random.Random(1).randbytes(3000)))


@row("service lies about lengths (-1, 0, 2^31, 2^32+1, 10^30)")
def _(b):
    lengths = [-1, 0, 2**31, 2**32 + 1, 10**30]

    def answer(connection, method):
        lengths.append(lengths.pop(0))
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % lengths[-1]
                           + raw_service.ANSWERS[method].partition(b"\r\n\r\n")[2])
    b.hold_with(answer)


def trickle(connection, _method):
    for byte in b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + 1000 * b" ":
        connection.sendall(bytes([byte]))
        time.sleep(0.3)


class Supervisor:
    """Starts the daemon as the unit does, but 1 s after its end, however often, and ends one that is silent for the
    watchdog's time. Notes when it did."""

    def __init__(self, b):
        self.address, self.process, self.hangs, self.starts = str(pathlib.Path(b.net.folder, "notify")), None, [], 0
        self._over = threading.Event()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.address)
        self._socket.settimeout(0.1)
        thread = threading.Thread(target=self._run, args=(b,), daemon=True)
        thread.start()
        b.open.callback(thread.join, 5)
        b.open.callback(self._over.set)

    def _run(self, b):
        while not self._over.is_set():
            self.starts += 1
            self.process = b.device.start(
                "sh", "-c", 'ulimit -c 0; WATCHDOG_PID=$$ exec "$@"', "sh", device.DAEMON, "-nodaemon",
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                env={**os.environ, "NOTIFY_SOCKET": self.address, "WATCHDOG_USEC": str(WATCHDOG * 1000000)})
            allowed, fed = float(WATCHDOG), time.monotonic()
            while self.process.poll() is None and not self._over.is_set():
                with contextlib.suppress(TimeoutError):
                    lines = self._socket.recv(4096).decode("ascii").split("\n")
                    fed = time.monotonic() if "WATCHDOG=1" in lines else fed
                    allowed = float([f"={allowed * 1e6}", *(one for one in lines if "_USEC=" in one)][-1].partition("=")[2]) / 1e6
                if time.monotonic() - fed > allowed:
                    self.hangs.append(time.monotonic())
                    self.process.send_signal(signal.SIGABRT)
                    self.process.wait()
            b.device.stop(self.process)
            self._over.wait(1)
        self._socket.close()
        os.unlink(self.address)


@row("service that trickles, under a watchdog of 60 s", back=2.0)
def _(b):
    b.daemon.stop()
    supervisor = Supervisor(b)
    b.until(b.is_served, 10)
    b.service.answer = trickle
    asked = time.monotonic()
    b.ask(IDENT, seconds=0.5)
    noticed = b.until(lambda: supervisor.hangs, 90)
    b.service.answer = raw_service.well
    b.back(lambda: b.ask(IDENT, seconds=0.2))
    b.seen = {"nothing": 1}
    b.note = f"noticed after {supervisor.hangs[0] - asked:.1f} s (65 allowed)" if noticed else "not noticed"
    if not noticed or supervisor.hangs[0] - asked > 65:
        b.back_after = None


@row("service stopped and continued")
def _(b):
    b.service.stop()
    real = testnet.Service(b.device)
    b.open.callback(b.service.start)
    b.open.callback(real.stop)
    b.until(b.is_served, 10)
    process = real._process   # pylint: disable=protected-access
    process.send_signal(signal.SIGSTOP)
    b.hold()
    process.send_signal(signal.SIGCONT)
    b.back(b.is_served)


@row("service killed and restarted in the middle of a request")
def _(b):
    def answer(_connection, _method):
        b.service.answer = raw_service.well
        b.service.stop()
        raise ConnectionError
    b.service.answer = answer
    b.hold(1, every=1)
    b.service.start()
    b.back(b.is_served)


@row("service slower than the time-out")
def _(b):
    def answer(connection, method):
        time.sleep(0.7)
        raw_service.well(connection, method)
    b.hold_with(answer)


def huge(b, text):
    def answer(connection, _method):
        connection.sendall(text)
    before = b.daemon.resident()
    b.hold_with(answer)
    gone = b.until(lambda: b.daemon.resident() < before + 1024, 10)
    b.note = "memory given back" if gone is not None else f"holds {b.daemon.resident()} KiB"


@row("service sends a head of 100 MB", flood=True)
def _(b):
    huge(b, 100000000 * b"x")


@row("service sends a body of 100 MB", flood=True)
def _(b):
    huge(b, b"HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n" + 100000000 * b" ")


# The network

def has_route(b):
    return "224.0.0.0/3" in b.run("ip", "route")


@row("interface down and up")
def _(b):
    b.run("ip", "link", "set", "eth0", "down")
    b.hold(patience=0.5)
    b.run("ip", "link", "set", "eth0", "up")
    b.back(lambda: b.answers_by_every_way() and has_route(b))


@row("address removed and set again")
def _(b):
    b.run("ip", "-4", "addr", "flush", "dev", "eth0")
    b.hold(way="ipv6")
    b.device.set_address(f"{device.DEVICE}/24")
    b.back(lambda: b.answers_by_every_way() and has_route(b))


@row("interface renamed, and back")
def _(b):
    b.run("sh", "-c", "ip link set eth0 down; ip link set eth0 name other0; ip link set other0 up")
    b.hold(patience=0.5)
    b.run("sh", "-c", "ip link set other0 down; ip link set other0 name eth0; ip link set eth0 up")
    b.back(lambda: b.answers_by_every_way() and has_route(b))


@row("interface removed and made again")
def _(b):
    b.run("ip", "link", "del", "eth0")
    b.hold(patience=0.5)
    b.device.plug_in(f"{device.DEVICE}/24")
    b.back(lambda: b.answers_by_every_way() and has_route(b))


@row("IPv6 off at the start, and on again")
def _(b):
    setting = "net/ipv6/conf/all/disable_ipv6"
    b.run("sh", "-c", f"echo 1 >/proc/sys/{setting}")
    b.open.callback(b.run, "sh", "-c", f"echo 0 >/proc/sys/{setting}")
    b.start()
    b.hold()
    b.run("sh", "-c", f"echo 0 >/proc/sys/{setting}")
    b.back(b.answers_by_every_way)


@row("a kernel without IPv6", back=None)
def _(b):
    b.preload("""#include <errno.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
int socket(int family, int type, int protocol) {
  if (family != AF_INET6) return syscall(SYS_socket, family, type, protocol);
  errno = EAFNOSUPPORT;
  return -1;
}
""")
    b.hold()
    if not all(b.ask(IDENT, way) == SERVICE_RECORD for way in ("broadcast", "ipv4")):
        raise RuntimeError("not answered")
    b.note = "IPv4 serves; the closed port is told once"


@row("the route 224.0.0.0/3 gone")
def _(b):
    b.run("ip", "route", "del", "224.0.0.0/3")
    b.back(lambda: has_route(b))
    b.hold()


@row("400 routes", lines=1.5)   # two for each request, by which the table is read
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.run("ip", "route", "add", "default", "via", device.PC)
    b.open.callback(b.run, "ip", "route", "flush", "10.0.0.0/8")
    b.open.callback(b.run, "ip", "route", "del", "default")
    b.run("sh", "-c", f'for a in 1 2; do for n in $(seq 200); do echo "route add 10.$a.$n.0/24 via {device.PC}"; done; done'
                      " | ip -batch -")
    b.hold()
    gateway = b.ask().partition(b"\tGWA:")[2].partition(b"\t")[0].decode()
    b.note = f"record has the gateway {gateway}"
    b.run("sh", "-c", 'ip route show | grep "^10\\." | sed "s/^/route del /" | ip -batch -')
    b.back(lambda: f"\tGWA:{device.PC}\t".encode() in (b.ask() or b""))


@row("gateway by name, the resolver dead")
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    resolver = pathlib.Path("/etc/resolv.conf")
    kept = resolver.read_bytes() if resolver.exists() else b""
    resolver.unlink(missing_ok=True)
    resolver.write_text(f"nameserver {device.PC}\nnameserver {device.PC}\n", encoding="ascii")
    b.open.callback(resolver.write_bytes, kept)
    with b.pc.inside():
        silent = b.open.enter_context(socket.socket(type=socket.SOCK_DGRAM))
    silent.bind(("", 53))
    b.hold(5, "ipv6", 5, request("SETIPADDRESS!", device.DEVICE, "255.255.255.0", "no-such-host"), 10)
    b.note = f"held for {b.slowest:.1f} s"
    b.back(b.answers_by_every_way)


@row("foreign netlink sender")
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    with b.device.inside():
        sender = b.open.enter_context(socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0))
    # A default route over 6.6.6.6 (RTM_NEWROUTE), then the end of the dump, to the number that the daemon's socket gets.
    route = struct.pack("=BBBBBBBBI", 2, 0, 0, 0, 254, 4, 0, 1, 0) + struct.pack("=HH4s", 8, 5, bytes(4 * [6]))
    forged = struct.pack("=IHHII", 16 + len(route), 24, 2, 0, b.daemon.pid) + route + struct.pack("=IHHIII", 20, 3, 2, 0, 0, 0)
    landed = collections.Counter()

    def step():
        try:
            sender.sendto(forged, (b.daemon.pid, 0))
            landed["yes"] += 1
        except OSError:
            landed["no"] += 1
    stop = b.meanwhile(step)
    gateways = {b.ask().partition(b"\tGWA:")[2].partition(b"\t")[0].decode() for _ in range(500)}
    b.hold()
    stop()
    b.note = f"{landed['yes']} forged messages arrived, gateways shown: {', '.join(sorted(gateways))}"
    b.back(lambda: b"\tGWA:0.0.0.0\t" in b.ask() and gateways == {"0.0.0.0"})


@row("two DHCP servers")
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.lend_addresses()
    b.lend_addresses(5, testnet.start_udhcpd, "option router 192.168.1.5")
    b.hold(10, "ipv6", 4, request("SETDHCPMODE!", "1"), 8)
    b.note = f"held for {b.slowest:.2f} s at most"
    b.device.set_address(f"{device.DEVICE}/24")
    b.back(b.answers_by_every_way)


@row("a storm of 250 answers on the IPv4 group, each 2 s", flood=True)
def _(b):
    caller = b.callers["ipv4"]

    def storm():
        for _ in range(250):
            caller.sender.sendto(SERVICE_RECORD, (caller.group, caller.port))
        time.sleep(2)
    stop = b.meanwhile(storm)
    b.hold(every=1)
    b.note = f"an answer took {b.slowest:.2f} s at most"
    stop()
    b.back(b.answers_by_every_way)


@row("one endpoint flooded (IPv6, the first that is read)", flood=True)
def _(b):
    with b.pc.inside():
        flood = b.open.enter_context(ddp_query.Caller("ipv6", testnet.INTERFACE))
    sent = collections.Counter()

    def step():
        flood.send(b"x")
        sent["all"] += 1
        time.sleep(0.0008)
    before = b.daemon.output().count("Received x")
    stop = b.meanwhile(step)
    b.hold(every=1)
    stop()
    took = b.daemon.output().count("Received x") - before
    b.note = f"{took / HOLD:.0f} taken per s, an answer by broadcast took {b.slowest:.2f} s at most"
    b.back(b.answers_by_every_way)


@row("one port taken")
def _(b):
    b.daemon.stop()
    with b.device.inside():
        holder = socket.socket(type=socket.SOCK_DGRAM)
    holder.bind(("0.0.0.0", 5563))
    b.start()
    b.hold()
    holder.close()
    b.back(b.answers_by_every_way)


# The process

def is_read(b):
    """Whether a text that is written to the path of the pipe is sent on."""
    if not testnet.PIPE.is_fifo():
        return False
    caller = b.callers["ipv6"]
    caller.drain()
    with open(testnet.PIPE, "r+b", buffering=0) as pipe:
        pipe.write(b"traced")
        return caller.receive(0.1)[0] == b"traced"


def lose_pipe(b, change, mend=lambda: None):
    b.ask(request("SYSTRACE!", "1"), "ipv6")
    change()
    b.hold(every=20)
    b.ask(ENABLE, "ipv6")   # the texts go to the one who asked last
    mend()
    b.back(lambda: is_read(b))


@row("trace pipe removed", back=1.0)
def _(b):
    b.ask(request("SYSTRACE!", "1"), "ipv6")
    os.unlink(testnet.PIPE)
    b.back(lambda: is_read(b))
    b.hold()


@row("trace pipe replaced", back=1.0)
def _(b):
    b.ask(request("SYSTRACE!", "1"), "ipv6")
    os.mkfifo("/tmp/other")
    os.rename("/tmp/other", testnet.PIPE)
    b.back(lambda: is_read(b))
    b.hold()


@row("trace pipe flooded by ten writers", flood=True)
def _(b):
    writers = [subprocess.Popen(["sh", "-c", f"exec cat /dev/zero >{testnet.PIPE}"]) for _ in range(10)]
    b.open.callback(lambda: [(one.kill(), one.wait()) for one in writers])
    before = b.daemon.activity()["reads"]
    b.hold(every=1)
    b.note = f"{(b.daemon.activity()['reads'] - before) / HOLD:.0f} reads per s, an answer took {b.slowest:.3f} s at most"
    for one in writers:
        one.kill()
    b.ask(request("SYSTRACE!", "1"), "ipv6")
    b.back(lambda: is_read(b))


@row("directory of the pipe a file before the start", back=None)
def _(b):
    b.daemon.stop()
    shutil.rmtree(testnet.PIPE.parent)
    testnet.PIPE.parent.touch()
    b.open.callback(os.unlink, testnet.PIPE.parent)
    b.start()
    b.hold()
    b.note = "no trace until the next start: the thread ends"


@row("directory of the pipe a file while running")
def _(b):
    def change():
        shutil.rmtree(testnet.PIPE.parent)
        with contextlib.suppress(FileExistsError, IsADirectoryError):
            os.close(os.open(testnet.PIPE.parent, os.O_CREAT | os.O_EXCL))

    def mend():
        with contextlib.suppress(OSError):
            os.unlink(testnet.PIPE.parent)
    lose_pipe(b, change, mend)


@row("/tmp cleaned", back=1.0)
def _(b):
    b.ask(request("SYSTRACE!", "1"), "ipv6")
    shutil.rmtree(testnet.PIPE.parent)
    b.back(lambda: is_read(b))
    b.hold()


@row("no descriptors left, and plenty again")
def _(b):
    before = len(b.daemon.descriptors())
    b.service.stop()
    resource.prlimit(b.daemon.pid, resource.RLIMIT_NOFILE, (3, 4096))
    b.hold(4)
    lease = b.ask(request("SETDHCPMODE!", "1"), "ipv6", 6)
    address = b.ask(request("SETIPADDRESS!", device.DEVICE, "255.255.255.0", ""), "ipv6", 6)
    b.service.start()
    resource.prlimit(b.daemon.pid, resource.RLIMIT_NOFILE, (1024, 4096))
    b.back(b.is_served)
    left = len(b.daemon.descriptors())
    b.note = f"a lease: {lease and lease.decode().strip()}, an address: {address and address.decode().strip()}"
    if left != before or not lease:
        b.back_after, b.note = None, f"{b.note}; descriptors {before} and then {left}"


@row("none to four descriptors left in the middle of a lease")
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.lend_addresses()
    b.until(lambda: b.ask() != SERVICE_RECORD, 5)
    before, told = len(b.daemon.descriptors()), []
    b.device.set_address(f"{device.DEVICE}/24", device.PC)   # a default route, by which the broadcasts go
    for free in range(5):
        taken = b.daemon.descriptors()
        limit = [number for number in range(len(taken) + 10) if number not in taken][free]
        resource.prlimit(b.daemon.pid, resource.RLIMIT_NOFILE, (limit, 4096))
        answer = b.ask(request("SETDHCPMODE!", "1"), "ipv6", 8)
        is_set = "192.168.1.4" in b.run("ip", "-4", "addr", "show", "dev", "eth0")
        told.append(f"{free}: {answer.decode().strip() if answer else 'nothing'}{' and set' if is_set else ''}")
        b.device.set_address(f"{device.DEVICE}/24", device.PC)
    resource.prlimit(b.daemon.pid, resource.RLIMIT_NOFILE, (1024, 4096))
    b.hold(4)
    b.back(lambda: len(b.daemon.descriptors()) == before and b.answers_by_every_way())
    b.note = "free " + ", ".join(told)


@row("memory runs out at the Nth allocation of a command")
def _(b):
    b.start(env={"LD_PRELOAD": FAULTS})
    b.until(b.is_served, 10)
    before = len(b.daemon.descriptors())
    seen = collections.Counter()
    for fields in (("DEVICEIDENT?",), ("SETIPADDRESS!", device.DEVICE, "255.255.255.0", "", ""), ("EXECUTECOMMAND!", "true"),
                   ("DEVICEREBOOT!",), ("SETDHCPMODE!", "1")):
        for number in range(1, 45):
            answer = b.ask(request(*fields, f"FAIL{number}"), "ipv6", 3)
            seen["nothing" if answer is None else "record" if answer.startswith(b"SID") else answer.decode().strip()] += 1
    b.hold(4)
    b.seen = seen
    b.back(lambda: b.is_served() and len(b.daemon.descriptors()) == before and b.daemon.process.poll() is None)


@row("memory runs out at the Nth allocation of a lease")
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.lend_addresses()
    b.start(env={"LD_PRELOAD": FAULTS})
    before, seen = len(b.daemon.descriptors()), collections.Counter()
    for number in range(1, 41):
        b.device.set_address(f"{device.DEVICE}/24", device.PC)   # a default route, by which the broadcasts go
        answer = b.ask(request("SETDHCPMODE!", "1", f"FAIL{number}"), "ipv6", 5)
        is_set = "192.168.1.4" in b.run("ip", "-4", "addr", "show", "dev", "eth0")
        seen[f"{answer.decode().strip() if answer else 'nothing'}{' and set' if is_set else ''}"] += 1
    b.device.set_address(f"{device.DEVICE}/24", device.PC)
    b.hold(4)
    b.seen = seen
    b.back(lambda: b.answers_by_every_way() and len(b.daemon.descriptors()) == before)


@row("/etc read-only", lines=1.5)   # with what `route` says: of each change, that there is no route to delete
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.daemon.stop()
    b.start(prefix=("unshare", "--mount", "sh", "-c", 'mount --bind /etc /etc && mount -o remount,ro,bind /etc && exec "$@"', "sh"))
    b.hold(way="ipv6", datagram=request("SETIPADDRESS!", device.DEVICE, "255.255.255.0", device.PC, "9.9.9.9"))
    b.note = "acknowledged, no resolver file"
    b.back(b.answers_by_every_way)


@row("`route` missing", lines=1.5)   # the shell says so, twice for each change
def _(b):
    b.service.stop()
    b.open.callback(b.service.start)
    b.daemon.stop()
    b.run("sh", "-c", "ip route flush 224.0.0.0/3; true")
    empty = pathlib.Path(b.net.folder, "empty")
    empty.mkdir()
    b.start(prefix=("sh", "-c", f'PATH={empty} exec "$@"', "sh"))
    b.hold(way="ipv6", datagram=request("SETIPADDRESS!", device.DEVICE, "255.255.255.0", device.PC))
    b.note = "acknowledged, no default route; the multicast route is there"
    b.back(lambda: b.answers_by_every_way() and has_route(b))


@row("standard output a full pipe")
def _(b):
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(writer, 4096 * b"x"):
            pass
    os.set_blocking(writer, True)
    b.start(stdout=writer, stderr=writer)
    os.close(writer)
    b.until(b.is_served, 10)
    b.hold()
    b.back(b.answers_by_every_way)
    os.close(reader)


@row("descriptors 0 to 2 closed at the start")
def _(b):
    b.start(prefix=("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    b.back(b.is_served)
    b.hold()


@row("clock set back a year")
def _(b):
    """By the real-time clock as the daemon sees it: a library in its place, as this machine's clock is not ours."""
    b.preload("""#include <time.h>
#include <sys/syscall.h>
#include <unistd.h>
static int calls;
int clock_gettime(clockid_t id, struct timespec* t) {
  int result = syscall(SYS_clock_gettime, id, t);
  if (id == CLOCK_REALTIME && ++calls > 3) t->tv_sec -= 365 * 86400;
  return result;
}
time_t time(time_t* t) { struct timespec now; clock_gettime(CLOCK_REALTIME, &now); if (t) *t = now.tv_sec; return now.tv_sec; }
""")
    b.until(b.is_served, 10)
    b.hold(4)
    b.service.stop()
    b.until(lambda: b.ask() != SERVICE_RECORD, 5)
    b.service.start()
    b.back(b.is_served)


@row("signals in the middle of every wait (SIGSTOP and SIGCONT, SIGPIPE, SIGWINCH, 100 a second)")
def _(b):
    def step():
        for number in (signal.SIGPIPE, signal.SIGWINCH, signal.SIGSTOP, signal.SIGCONT):
            os.kill(b.daemon.pid, number)
            time.sleep(0.0025)
    stop = b.meanwhile(step)
    b.hold()
    stop()
    os.kill(b.daemon.pid, signal.SIGCONT)
    b.back(b.is_served)


def kill(b, times):
    b.daemon.stop()
    supervisor = Supervisor(b)
    for _ in range(times):
        b.until(lambda: b.ask(ENABLE, seconds=0.2), 10)   # the one that is killed is the one that answers
        supervisor.process.kill()
        supervisor.process.wait()
    b.back(lambda: b.ask(IDENT, seconds=0.2))


@row("killed, under a supervisor that starts it again after 1 s", back=2.0)
def _(b):
    kill(b, 1)


@row("killed twenty times in a row (the unit has no restart limit)", back=2.0)
def _(b):
    kill(b, 20)


def judge(b, back, flood, lines):
    if back is not None and (b.back_after is None or b.back_after > back):
        return "NO"
    if not flood and b.cpu is not None and (b.cpu > CPU or b.lines > lines):
        return "NO"
    return "yes"


def main():
    net, failed = testnet.Network(), 0
    print("| fault | a request gets | CPU, % | lines/s | back after, s | allowed | holds |", "|" + "---|" * 7, sep="\n")
    try:
        b = Bench(net)
        for name, back, flood, lines, bring_about in ROWS:
            if NAMES and not any(part in name for part in NAMES):
                continue
            verdict = "NO"
            try:
                b.begin()
                bring_about(b)
                verdict = judge(b, back, flood, lines)
            except Exception:   # pylint: disable=broad-except
                b.note = traceback.format_exc().strip()
            finally:
                with contextlib.suppress(Exception):
                    b.end()
            failed += verdict != "yes"
            seen = ", ".join(f"{what} {count}x" for what, count in b.seen.items())
            number = lambda value, digits: "" if value is None else f"{value:.{digits}f}"   # noqa: E731
            print(f"| {name} | {seen}{'; ' if seen and b.note else ''}{b.note} | {number(b.cpu, 2)} | {number(b.lines, 2)} | "
                  f"{number(b.back_after, 2)} | {'flood; ' if flood else ''}{number(back, 0) or 'never'} | {verdict} |", flush=True)
    finally:
        net.close()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
