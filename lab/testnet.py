"""A private Ethernet for the demo and the end-to-end tests: hosts are network namespaces on one bridge.

Works only inside scripts/sandbox, so that nothing on the real machine is touched. Every host has one interface, eth0.
"""

import contextlib
import ctypes
import itertools
import json
import mmap
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import xmlrpc.client

LAB = pathlib.Path(__file__).resolve().parent
INTERFACE = "eth0"
PIPE = pathlib.Path("/tmp/tsl_app/FIFO_T_C2H_AET")
_CLONE_NEWNET = 0x40000000
_ETH_P_ALL, _SOL_PACKET, _PACKET_RX_RING, _PACKET_STATISTICS = 3, 263, 5, 6
_libc = ctypes.CDLL(None, use_errno=True)


def eventually(check, seconds=5.0):
    """What `check()` returns once that is true, or its last result after `seconds`."""
    end = time.monotonic() + seconds
    while not (result := check()) and time.monotonic() < end:
        time.sleep(0.02)
    return result


def cpu_ns(pid):
    """What all threads of a process have had of the processors, exactly."""
    return sum(int(path.read_text(encoding="ascii").split()[0])
               for path in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat"))


def memory(pid):
    """Its memory in KiB, by the names of smaps_rollup (proc(5))."""
    lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii").splitlines()[1:]
    return {line.split(":")[0]: int(line.split()[1]) for line in lines}


def _enter(path):
    with open(path, encoding="ascii") as space:
        if _libc.setns(space.fileno(), _CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"setns {path}")


class Host:
    """One machine of the network. Its processes end with it."""

    def __init__(self, name, address=None, mac=None):
        self.name = name
        self._mac = mac
        self._processes = []
        subprocess.run(["ip", "netns", "add", name], check=True)
        with self.inside():
            for place in ("default", "all"):   # an address serves at once instead of after a second of probing
                pathlib.Path(f"/proc/sys/net/ipv6/conf/{place}/accept_dad").write_text("0", encoding="ascii")
                # Whatever this machine has, which a new network begins with.
                pathlib.Path(f"/proc/sys/net/ipv4/conf/{place}/rp_filter").write_text("0", encoding="ascii")
        self.run("ip", "link", "set", "lo", "up")
        self.plug_in(address)

    def plug_in(self, address=None, index=None):
        """Gives the host an eth0, a new one if it had one, with `address` ("192.168.1.2/24"); `index` sets its own."""
        port = f"p-{self.name}"
        subprocess.run(["ip", "link", "del", port], check=False, stderr=subprocess.DEVNULL)
        given = ["index", str(index)] if index else []
        subprocess.run(["ip", "-n", self.name, "link", "add", INTERFACE, *given, "type", "veth",
                        "peer", "name", port, "netns", str(os.getpid())], check=True)
        subprocess.run(["ip", "link", "set", port, "master", "lan", "up"], check=True)
        self.run("ip", "link", "set", INTERFACE, *(["address", self._mac] if self._mac else []), "up")
        if address:
            self.set_address(address)

    def set_address(self, address, gateway=None):
        """Sets eth0 to exactly `address`, with a default route over `gateway` or none."""
        self.run("ip", "-4", "addr", "flush", "dev", INTERFACE)
        self.run("ip", "addr", "add", address, "brd", "+", "dev", INTERFACE)
        if gateway:
            self.run("ip", "route", "add", "default", "via", gateway)

    def disable_ipv6(self):
        self.run("sh", "-c", f"echo 1 >/proc/sys/net/ipv6/conf/{INTERFACE}/disable_ipv6")

    @contextlib.contextmanager
    def inside(self):
        """Within it, sockets that this thread opens are sockets of the host, and stay so."""
        with open("/proc/thread-self/ns/net", encoding="ascii") as home:
            _enter(f"/run/netns/{self.name}")
            try:
                yield self
            finally:
                if _libc.setns(home.fileno(), _CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns home")

    def command(self, *words):
        return ["nsenter", f"--net=/run/netns/{self.name}", *words]

    def run(self, *words, check=True):
        """Runs a command on the host; its standard output."""
        return subprocess.run(self.command(*words), check=check, stdout=subprocess.PIPE, text=True).stdout

    def interface(self):
        """eth0 as `ip` tells it: "address" is the MAC, "addr_info" its addresses."""
        return json.loads(self.run("ip", "-j", "addr", "show", "dev", INTERFACE))[0]

    def start(self, *words, **options):
        """Starts a program on the host. It is ended, if need be, by stop() or close()."""
        process = subprocess.Popen(self.command(*words), **options)
        self._processes.append(process)
        return process

    def stop(self, process):
        if process in self._processes:
            self._processes.remove(process)
        process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream:
                stream.close()

    def close(self):
        for process in list(self._processes):
            self.stop(process)
        subprocess.run(["ip", "netns", "del", self.name], check=False)


class Network:
    """The bridge and what is plugged into it."""

    def __init__(self):
        if "SANDBOX_HALT_MARK" not in os.environ:
            sys.exit(f"{sys.argv[0]}: changes addresses and routes; start it with scripts/sandbox")
        self.hosts = []
        self.folder = tempfile.mkdtemp(prefix="testnet.")
        subprocess.run(["ip", "link", "add", "lan", "type", "bridge", "mcast_snooping", "0"], check=True)
        subprocess.run(["ip", "link", "set", "lan", "up"], check=True)

    def host(self, name, address=None, mac=None):
        self.hosts.append(Host(name, address, mac))
        return self.hosts[-1]

    def close(self):
        for host in self.hosts:
            host.close()
        subprocess.run(["ip", "link", "del", "lan"], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)


class Wire:
    """What passes a host's eth0 from now on, by the kernel's own clock; looked at afterwards. Kept in a ring that the
    kernel fills: how much a socket's buffer holds is not for an ordinary user to say."""

    _SLOT, _BLOCK, _COUNT = 2048, 1 << 16, 512   # bytes, of which a frame takes one slot whatever its length; blocks

    def __init__(self, host):
        with host.inside():
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        slots = self._BLOCK * self._COUNT // self._SLOT
        self._socket.setsockopt(_SOL_PACKET, _PACKET_RX_RING, struct.pack("4I", self._BLOCK, self._COUNT, self._SLOT, slots))
        self._ring = mmap.mmap(self._socket.fileno(), self._BLOCK * self._COUNT)
        self._places = itertools.cycle(range(0, len(self._ring), self._SLOT))
        self._place = next(self._places)
        self._socket.bind((INTERFACE, _ETH_P_ALL))

    def take(self):
        """What passed since the last look: milliseconds, whether the host sent it, the frame."""
        frames = []
        while (header := struct.unpack_from("L2I2H2I", self._ring, self._place))[0]:
            _, _, length, begin, _, seconds, microseconds = header
            kind = self._ring[self._place + 42]
            frame = self._ring[self._place + begin:self._place + begin + length]
            frames.append((seconds * 1e3 + microseconds / 1e3, kind == socket.PACKET_OUTGOING, frame))
            struct.pack_into("L", self._ring, self._place, 0)
            self._place = next(self._places)
        if struct.unpack("2I", self._socket.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8))[1]:
            raise RuntimeError("more passed than was kept")
        return frames

    def close(self):
        self._ring.close()
        self._socket.close()


class Device:
    """A measurement device: a host that runs the daemon, with a trace pipe and a `halt` of its own, and with the
    simulated service (`facts` are its settings, "DeviceName=Bench 1") unless `facts` is None."""

    def __init__(self, net, name, address, daemon, facts=(), mac=None):
        self.host = net.host(name, address, mac)
        self.mac = self.host.interface()["address"]
        self.halted = pathlib.Path(net.folder, name, "halted")
        halt = self.halted.with_name("halt")
        halt.parent.mkdir()
        halt.write_text(f"#!/bin/sh\ntouch {self.halted}\n(sleep 0.3; ip link set {INTERFACE} down) &\n", encoding="ascii")
        halt.chmod(0o755)
        settings = [word for fact in facts or () for word in ("--set", fact)]
        self.service = None if facts is None else Service(self.host, "--interface", INTERFACE, *settings)
        os.makedirs(PIPE.parent, exist_ok=True)
        self._start = lambda: self.host.start(
            "unshare", "--mount", "sh", "-c", f'mount -t tmpfs pipe {PIPE.parent} && exec "$0" -nodaemon', daemon,
            env={**os.environ, "PATH": f"{halt.parent}:{os.environ['PATH']}"}, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        self.daemon = self._start()

    def restart(self):
        self.host.stop(self.daemon)
        self.daemon = self._start()

    def trace(self, text):
        """What a program of the device does that has something to tell."""
        path = pathlib.Path(f"/proc/{self.daemon.pid}/root/{PIPE}")
        eventually(path.exists, 20)   # which a daemon that was started just now makes soon
        pipe = os.open(path, os.O_RDWR)
        os.write(pipe, text)
        os.close(pipe)

    @contextlib.contextmanager
    def telling(self, line, seconds):
        """Within it, a program of the device tells line(0), line(1) and so on, `seconds` after each other."""
        over = threading.Event()

        def tell():
            number = 0
            while not over.wait(seconds):
                self.trace(line(number))
                number += 1
        program = threading.Thread(target=tell)
        program.start()
        try:
            yield
        finally:
            over.set()
            program.join()


class Service:
    """The simulated device service on a host, and the way to tell it what to do."""

    def __init__(self, host, *options):
        self.host = host
        self.options = options
        self._process = None
        self.start()

    def start(self):
        """Starts it, unless it runs."""
        if self._process:
            return
        self._process = self.host.start(sys.executable, str(LAB / "device_service.py"), *self.options,
                                        stdout=subprocess.PIPE, text=True)
        if "listening" not in (line := self._process.stdout.readline()):
            raise RuntimeError(f"the device service did not start: {line!r}")

    def stop(self):
        self.host.stop(self._process)
        self._process = None

    def __getattr__(self, method):
        """service.Calls(...) is the control method "Test.Calls"."""
        def call(*arguments):
            with self.host.inside(), xmlrpc.client.ServerProxy("http://127.0.0.1:1200") as proxy:
                return getattr(proxy.Test, method)(*arguments)
        return call


def start_dnsmasq(host, folder, low, high, *options):
    """A DHCP server (dnsmasq) on `host` that leases `low` to `high`."""
    process = host.start(
        "dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0", f"--interface={INTERFACE}", "--bind-interfaces",
        "--dhcp-authoritative", "--no-ping", f"--dhcp-range={low},{high},255.255.255.0,1h",
        f"--dhcp-leasefile={folder}/{host.name}.leases", *options, stderr=subprocess.DEVNULL)
    _until_it_listens(host)
    return process


def start_udhcpd(host, folder, low, high, *options):
    """The same with busybox udhcpd; `options` are lines of its configuration."""
    path = pathlib.Path(folder, f"{host.name}.conf")
    leases = path.with_suffix(".leases")
    leases.touch()
    path.write_text("\n".join([f"start {low}", f"end {high}", f"interface {INTERFACE}", f"lease_file {leases}",
                               f"pidfile {path.with_suffix('.pid')}", "option subnet 255.255.255.0",
                               "option lease 3600", *options, ""]), encoding="ascii")
    process = host.start("udhcpd", "-f", "-a", "50", str(path), stderr=subprocess.DEVNULL)
    _until_it_listens(host)
    return process


def _until_it_listens(host):
    if not eventually(lambda: ":0043 " in host.run("cat", "/proc/net/udp")):
        raise RuntimeError(f"the DHCP server on {host.name} did not start")
