"""Time, processor and memory of the daemon beside floors and a peer. Started by scripts/bench daemon, inside the
sandbox.

All processes share one core: free to move, they are measured with the scheduler's choices, which make the median jump.
"""

import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import time

BIN = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "lab"))

import testnet  # noqa: E402

MEASURE, SHAPE, DAEMON = str(BIN / "latency"), str(BIN / "Shape"), str(BIN / "tarnddpd")
ROUNDS, REQUESTS, PACE_US = 30, 20, 4000   # 600 requests for each lane
IDLE, SATURATED = 20, 3                    # seconds
WINDOW = 8
PC = "192.168.1.250"
AVAHI = """[server]
host-name=bench
use-ipv6=no
allow-interfaces=eth0
enable-dbus=no
[publish]
publish-hinfo=no
publish-workstation=no
[rlimits]
rlimit-nproc=10
"""
# One-shot query (RFC 6762, 6.7) for the address of bench.local.
QUERY = "0001 0000 0001 0000 0000 0000 05 62656e6368 05 6c6f63616c 00 0001 0001".replace(" ", "")


class Lane:
    """A host with one program that answers, or, for the peer, a multicast group that it hears."""

    def __init__(self, net, number, name, words, service=False, target=None):
        self.name, self.address = name, f"192.168.1.{number}"
        self.host = net.host(f"lane{number}", f"{self.address}/24")
        if service:
            self.host.start(MEASURE, "service", "1200")
            time.sleep(0.2)
        self.target = target or [self.address, "5562"]
        self.process = self.host.start(*words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.latencies, self.lost, self.cpu_ns, self.saturated = [], 0, 0, None

    def cpu(self):
        return testnet.cpu_ns(self.process.pid)

    def switches(self):
        return sum(int(line.split()[1]) for path in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/status")
                   for line in path.read_text(encoding="ascii").splitlines() if "ctxt_switches" in line)

    def memory(self):
        """RSS, PSS and private memory, in KiB."""
        sizes = testnet.memory(self.process.pid)
        return sizes["Rss"], sizes["Pss"], sizes["Private_Clean"] + sizes["Private_Dirty"]

    def ask(self, pc, count):
        begin = self.cpu()
        out = pc.run(MEASURE, "ask", *self.target[:2], str(count), str(PACE_US), *self.target[2:])
        self.cpu_ns += self.cpu() - begin
        answers = [int(line) for line in out.split()]
        self.latencies += [answer for answer in answers if answer > 0]
        self.lost += sum(answer < 0 for answer in answers)

    def percentile(self, share):
        return sorted(self.latencies)[int(share * len(self.latencies))] / 1000


def start_lanes(net):
    config = pathlib.Path(net.folder, "avahi.conf")
    config.write_text(AVAHI, encoding="ascii")
    interface = testnet.INTERFACE
    lanes = [Lane(net, 2, "echo in C", [MEASURE, "echo", "5562"]),
             Lane(net, 3, "two-post floor in C", [MEASURE, "posts", "5562", "1200"], service=True),
             Lane(net, 4, "interface floor in C", [MEASURE, "interface", "5562", interface]),
             Lane(net, 9, "C loop with the daemon's upkeep", [MEASURE, "upkeep", "5562", interface]),
             Lane(net, 5, "empty C++ program", [SHAPE]),
             Lane(net, 6, "daemon with the service", [DAEMON, "-nodaemon"], service=True),
             Lane(net, 7, "daemon without", [DAEMON, "-nodaemon"])]
    if shutil.which("avahi-daemon"):
        lanes.append(Lane(net, 8, "avahi-daemon", ["avahi-daemon", "--no-chroot", "--no-drop-root", "-f", str(config)],
                          target=["224.0.0.251", "5353", QUERY, PC]))
    else:
        print("avahi-daemon is not installed: its lane is left out")
    return lanes


def seconds_to_answer(host, *words):
    return statistics.median(int(host.run(MEASURE, *words)) for _ in range(15)) / 1e6


def table(head, rows):
    print("| " + " | ".join(head) + " |", "|" + "---|" * len(head), sep="\n")
    for row in rows:
        print("| " + " | ".join(cell if isinstance(cell, str) else f"{cell:.{0 if cell >= 100 else 2}f}" for cell in row) + " |")
    print(flush=True)


def stripped_size(program):
    subprocess.run(["strip", "-o", "/tmp/stripped", program], check=True)
    return os.path.getsize("/tmp/stripped")


def measure_idle(lanes):
    before = [(lane.cpu(), lane.switches()) for lane in lanes]
    time.sleep(IDLE)
    return {lane.name: ((lane.cpu() - cpu) / 1e6, lane.switches() - switches, *lane.memory())
            for lane, (cpu, switches) in zip(lanes, before)}


def measure(net):
    pc = net.host("pc", f"{PC}/24")
    lanes = start_lanes(net)
    peers = [lane for lane in lanes if lane.target[1] == "5562"]
    time.sleep(3)   # all are up, the peer has announced itself
    for lane in lanes:
        lane.ask(pc, 20)
        lane.latencies, lane.lost, lane.cpu_ns = [], 0, 0
    for _ in range(ROUNDS):
        for lane in lanes:
            lane.ask(pc, REQUESTS)
    for lane in peers:
        lane.saturated = float(pc.run(MEASURE, "saturate", *lane.target, str(SATURATED), str(WINDOW)))
    time.sleep(1)   # for what they still have in their queues
    idle = measure_idle(lanes)

    print(f"{ROUNDS * REQUESTS} requests for each, one each {PACE_US / 1000:g} ms, in {ROUNDS} rounds; one core for all.\n")
    table(["", "p50, us", "p99, us", "lost", "CPU ms per 1000", "answers per s", "idle CPU, ms", "switches", "RSS, KiB", "PSS",
           "private"],
          [[lane.name, lane.percentile(0.5), lane.percentile(0.99), str(lane.lost),
            lane.cpu_ns / (ROUNDS * REQUESTS) / 1000, lane.saturated or "", *idle[lane.name]] for lane in lanes])

    echo, posts, interface, upkeep, shape, served, alone = peers
    ratio = lambda of, by, get: get(of) / get(by)   # noqa: E731
    p50, cpu = lambda lane: lane.percentile(0.5), lambda lane: lane.cpu_ns
    host = alone.host
    alone.host.stop(alone.process)
    routed = seconds_to_answer(host, "run", "sh", "-c", "route add -net 224.0.0.0 netmask 224.0.0.0 eth0")
    host.run("ip", "route", "flush", "224.0.0.0/3", check=False)
    started = seconds_to_answer(host, "first", "5562", DAEMON, "-nodaemon")
    empty = seconds_to_answer(host, "first", "5562", SHAPE)
    table(["ratio", "value"], [
        ["p50 with the service, of the two-post floor", ratio(served, posts, p50)],
        ["p50 without, of the interface floor", ratio(alone, interface, p50)],
        ["CPU per request with the service, of the two-post floor", ratio(served, posts, cpu)],
        ["CPU per request without, of the interface floor", ratio(alone, interface, cpu)],
        ["idle CPU, of the C loop", idle[alone.name][0] / idle[interface.name][0]],
        ["idle CPU, of the C loop with the daemon's upkeep", idle[alone.name][0] / idle[upkeep.name][0]],
        ["answers per second with the service, of the two-post floor", served.saturated / posts.saturated],
        ["answers per second without, of the interface floor", alone.saturated / interface.saturated],
        ["RSS, of the empty C++ program", idle[alone.name][2] / idle[shape.name][2]],
        ["private memory, of the empty C++ program", idle[alone.name][4] / idle[shape.name][4]],
        ["start to first answer less the route command, of the empty C++ program", (started - routed) / empty]])
    print(f"start to first answer: daemon {started:.1f} ms, of which the route command {routed:.1f}; "
          f"empty C++ program {empty:.1f} ms. Stripped: {stripped_size(DAEMON):,} bytes.")


def main():
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
    net = testnet.Network()
    try:
        measure(net)
    finally:
        net.close()


if __name__ == "__main__":
    main()
