"""One scan of a whole fleet, and beside it a peer that finds services on the same bridge.

usage: scripts/sandbox python3 -B bench/fleet.py TARNDDPD TARNDDP [--devices N] [--rounds N] [--avahi FOLDER --peers N]

A device is a daemon without a service in a network namespace; all are on one bridge with one PC. `--avahi` names a folder
with the packages avahi-daemon and avahi-utils unpacked, their libraries included.
"""

import argparse
import array
import contextlib
import fcntl
import json
import os
import pathlib
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "lab"))
import testnet  # noqa: E402

QUIET = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
WAYS = 3
SIOCETHTOOL, ETHTOOL_SGRO = 0x8946, 0x2c
AVAHI_CONF = """[server]
host-name={name}
allow-interfaces=eth0
enable-dbus={dbus}
[publish]
publish-workstation=no
"""
AVAHI_SERVICE = """<service-group><name replace-wildcards="yes">%h</name>
<service><type>_tarn-bench._udp</type><port>5562</port><txt-record>serial=1</txt-record></service></service-group>
"""
BUS_CONF = """<busconfig><type>system</type><listen>unix:path={path}</listen><auth>EXTERNAL</auth><policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>
"""


def own_queue(host):
    """Gives the interface of `host` a queue of its own (what `ethtool -K eth0 gro on` does). Without, all of them share one
    of 1000 datagrams for each processor, which a single request to a thousand devices overruns."""
    setting = array.array("I", [ETHTOOL_SGRO, 1])
    request = struct.pack("16sP", testnet.INTERFACE.encode(), setting.buffer_info()[0])
    with host.inside(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SIOCETHTOOL, request)


def without_room(host):
    """How many datagrams the sockets of a host have had no room for."""
    names, values = (line.split() for line in host.run("cat", "/proc/net/snmp").splitlines() if line.startswith("Udp:"))
    six = dict(line.split() for line in host.run("cat", "/proc/net/snmp6").splitlines())
    return int(values[names.index("RcvbufErrors")]) + int(six["Udp6RcvbufErrors"])


def run_watched(host, *words, **options):
    """Standard output, wall seconds, CPU seconds and peak of resident KiB of a program on `host`. It goes before all
    others, where that is allowed: a PC shares its processor with no device."""
    with tempfile.TemporaryFile("w+") as output:
        begin, peak, pid = time.monotonic(), 0, 0
        process = subprocess.Popen(host.command("nice", "-n", "-20", *words), stdout=output, **options)
        while not pid:
            time.sleep(0.02)
            with contextlib.suppress(OSError, IndexError):   # of the program itself, not of what led to it
                status = pathlib.Path(f"/proc/{process.pid}/status").read_text(encoding="ascii")
                if status.startswith(f"Name:\t{os.path.basename(words[0])[:15]}\n"):
                    peak = int(status.split("VmHWM:")[1].split()[0])
            pid, _, used = os.wait4(process.pid, os.WNOHANG)
        process.returncode = 0
        output.seek(0)
        return output.read(), time.monotonic() - begin, used.ru_utime + used.ru_stime, peak


def wait_for_quiet(wire):
    """Until the last scan's answers are through: each one by IPv4 multicast is work for every device, so that they are
    busy for some time after the last has come."""
    while any(b"SID:" in frame for _, _, frame in wire.take()):
        time.sleep(4)


def scan(tool, pc, wire, macs, seconds):
    """One scan: what it found, and what it cost; then how long one takes that knows how many to expect."""
    wait_for_quiet(wire)
    before = without_room(pc)
    output, _, cpu, peak = run_watched(pc, tool, "scan", "--json", "--time", str(seconds))
    records = [json.loads(line) for line in output.splitlines()]
    frames = wire.take()
    start = min(when for when, left, frame in frames if left and b"DEVICEIDENT?" in frame)
    first = {}
    for when, left, frame in frames:
        if not left and b"SID:" in frame:
            first.setdefault(frame[6:12], when)
    wait_for_quiet(wire)
    _, wall, _, _ = run_watched(pc, tool, "scan", "--json", "--time", "60", "--expect", str(len(macs)))
    heard = sum(len({answer["way"] for answer in record["answers"]}) for record in records if record["mac"] in macs)
    return {"devices": len(macs & {record["mac"] for record in records}), "pairs": WAYS * len(macs) - heard,
            "no room": without_room(pc) - before, "answers": sum(not left and b"SID:" in frame for _, left, frame in frames),
            "last": max(first.values()) - start, "cpu": cpu * 1e3, "peak": peak / 1024, "wall": wall * 1e3}


def start_avahi(host, folder, avahi):
    """An avahi-daemon on `host`: on the PC with a bus, for asking. Its processes, and the environment to ask it in."""
    conf = pathlib.Path(folder, f"{host.name}.avahi")
    conf.write_text(AVAHI_CONF.format(name=host.name, dbus="yes" if host.name == "pc" else "no"), encoding="ascii")
    bus, bus_conf = conf.with_suffix(".bus"), conf.with_suffix(".xml")
    environment = {**os.environ, "LD_LIBRARY_PATH": next(str(path.parent) for path in avahi.rglob("libavahi-core.so.7")),
                   "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={bus}"}
    processes = []
    if host.name == "pc":
        bus_conf.write_text(BUS_CONF.format(path=bus), encoding="ascii")
        processes.append(host.start("dbus-daemon", f"--config-file={bus_conf}", "--nofork", **QUIET))
        testnet.eventually(bus.exists)
    processes.append(host.start(
        "unshare", "--mount", "sh", "-c", "mount -t tmpfs run /run/avahi-daemon && exec \"$@\"", "sh",
        str(avahi / "usr/sbin/avahi-daemon"), f"--file={conf}", "--no-drop-root", "--no-chroot", "--no-rlimits",
        env=environment, **QUIET))
    return processes, environment


def browse(avahi, pc, environment):
    """How many services avahi-browse finds and resolves until it believes to have seen all, and what it costs."""
    output, wall, cpu, peak = run_watched(pc, str(avahi / "usr/bin/avahi-browse"), "--terminate", "--resolve",
                                          "--parsable", "_tarn-bench._udp", env=environment, stderr=subprocess.DEVNULL)
    fields = [line.split(";") for line in output.splitlines()]
    return len({line[3] for line in fields if line[0] == "="} - {"pc"}), wall * 1e3, cpu * 1e3, peak / 1024


def browse_cold_and_warm(avahi, pc, folder):
    """The same twice: by a daemon that has just come up and knows nothing, and again from what it has learnt."""
    processes, environment = start_avahi(pc, folder, avahi)
    time.sleep(3)   # it settles
    names = ("devices", "wall", "cpu", "peak")
    rows = [dict(zip((f"{kind} {name}" for name in names), browse(avahi, pc, environment))) for kind in ("cold", "warm")]
    for process in processes:
        pc.stop(process)
    pathlib.Path(folder, f"{pc.name}.bus").unlink()
    return {**rows[0], **rows[1]}


def table(rows, columns):
    """Markdown: a row a round, then the median."""
    print("| round |", " | ".join(title for title, _ in columns.values()), "|")
    print("|---" * (len(columns) + 1) + "|")
    median = {name: statistics.median(row[name] for row in rows) for name in columns}
    for name, row in [*enumerate(rows, 1), ("median", median)]:
        print(f"| {name} |", " | ".join(f"{row[key]:{form}}" for key, (_, form) in columns.items()), "|", flush=True)


def bench_peer(options, net, pc):
    avahi = pathlib.Path(options.avahi).resolve()
    os.makedirs("/run/avahi-daemon")
    os.makedirs("/etc/avahi/services", exist_ok=True)   # all below /etc is the sandbox's
    for name, entry in (("passwd", "avahi:x:0:0::/:/bin/false\n"), ("group", "avahi:x:0:\n")):
        with open(f"/etc/{name}", "a", encoding="ascii") as users:
            users.write(entry)
    pathlib.Path("/etc/avahi/services/bench.service").write_text(AVAHI_SERVICE, encoding="ascii")
    for host in net.hosts[:options.peers]:
        start_avahi(host, net.folder, avahi)
    time.sleep(8)   # names are probed and announced
    print(f"\n## avahi-browse, {options.peers} avahi-daemons\n")
    table([browse_cold_and_warm(avahi, pc, net.folder) for _ in range(options.rounds)],
          {"cold devices": ("devices found", "g"), "cold wall": ("ms until it ends", ".0f"), "cold cpu": ("CPU ms", ".1f"),
           "cold peak": ("peak MiB", ".1f"), "warm devices": ("devices found again", "g"),
           "warm wall": ("ms until it ends", ".0f")})


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("daemon")
    parser.add_argument("tool")
    parser.add_argument("--devices", type=int, default=250)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--time", type=float, default=5.0, help="seconds that a scan listens")
    parser.add_argument("--avahi")
    parser.add_argument("--peers", type=int, default=20)
    options = parser.parse_args()

    net = testnet.Network()
    try:
        for number in range(options.devices):
            host = net.host(f"device-{number}", f"10.1.{number // 250}.{number % 250 + 1}/16")
            own_queue(host)
            host.start(os.path.abspath(options.daemon), "-nodaemon", **QUIET)
        pc = net.host("pc", "10.1.255.1/16")
        macs = {host.interface()["address"] for host in net.hosts[:-1]}
        time.sleep(7)   # the groups are joined
        wire = testnet.Wire(pc)
        print(f"## tarnddp, {options.devices} devices, {options.time:g} s\n")
        rows = [scan(os.path.abspath(options.tool), pc, wire, macs, options.time) for _ in range(options.rounds)]
        table(rows, {"devices": ("devices in the table", "g"), "pairs": (f"answers lost of {WAYS * len(macs)}", "g"),
                     "answers": ("datagrams on the wire", "g"), "no room": ("of them without room", "g"),
                     "last": ("ms to the last device", ".0f"), "cpu": ("CPU ms", ".1f"), "peak": ("peak MiB", ".1f"),
                     "wall": ("ms until it ends with --expect", ".0f")})
        if options.avahi:
            bench_peer(options, net, pc)
        return 0 if all(row["devices"] == options.devices for row in rows) else 1
    finally:
        net.close()


if __name__ == "__main__":
    raise SystemExit(main())
