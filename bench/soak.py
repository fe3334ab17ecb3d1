"""usage: soak.py TARNDDPD COUNT [--svg=FILE] [--seconds=N]

COUNT requests of every kind by every way, with the device service, the link and the trace pipe going wrong meanwhile.
Each answer, and each silence, is compared with what is to be; in the end the memory, the descriptors and the children of
the daemon with what they were after the first thousand. Started by scripts/bench soak, inside the sandbox; ends by
itself, after N seconds (four hours) at the latest, status 1 if anything was not as it should be."""

import argparse
import collections
import contextlib
import itertools
import os
import pathlib
import random
import shutil
import subprocess
import sys
import time

options = argparse.ArgumentParser()
options.add_argument("daemon", type=os.path.abspath)
options.add_argument("count", type=int)
options.add_argument("--svg", type=pathlib.Path)
options.add_argument("--seconds", type=int, default=4 * 3600)
options = options.parse_args()
sys.argv[2:] = []   # what follows is for the harness
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "lab"))

import ddp_query  # noqa: E402
import device  # noqa: E402
import raw_service  # noqa: E402
import testnet  # noqa: E402
from device import ACK, ENABLE, IDENT, MAC, NACK, SERVICE_RECORD, request  # noqa: E402
from testnet import eventually  # noqa: E402

WARM_UP, MARGIN = 1000, 64   # requests, KiB
BATCH = 16                   # requests on the way at once
PATIENCE = 20                # s that an answer may take on a loaded machine
noise = random.Random(20)


def faulty(connection, _method):
    text = (b"<methodResponse><fault><value><struct><member><name>faultCode</name><value><int>-17</int></value></member>"
            b"<member><name>faultString</name><value>no</value></member></struct></value></fault></methodResponse>")
    connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(text) + text)


def closing(connection, method):
    connection.sendall(raw_service.ANSWERS[method][:noise.choice((0, 10, 60, 99999))])
    raise ConnectionError


def silent(_connection, _method):
    pass


def huge(connection, _method):
    connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n" + 1000000 * b" ")


def lying(connection, _method):
    connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n<" % noise.choice((-1, 0, 2**31, 2**32 + 1, 10**30)))


class Soak:
    def __init__(self, net):
        self.host, pc = net.host("device", f"{device.DEVICE}/24"), net.host("pc", f"{device.PC}/24")
        with pc.inside():
            self.callers = {way: ddp_query.Caller(way, testnet.INTERFACE) for way in ddp_query.WAYS}
        self.service = raw_service.RawService(self.host)
        self.process = self.host.start(options.daemon, "-nodaemon", stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        self.fallback = device.fallback_record(self.host.interface()["address"])
        self.records, self.is_well = {SERVICE_RECORD}, True
        self.sent, self.silent, self.wrong, self.kinds = 0, 0, [], collections.Counter()
        self.samples = []

    # What is asked

    def known(self, expected):
        """`expected` while the service is well; else that or what the interface gives."""
        return {expected} if self.is_well else {expected, NACK}

    def draw(self, way):
        """The next few requests of one kind, each with the answers that may come, or none."""
        direct, records = way == "ipv6", self.records
        line = b"DEVICEIDENT?\t" + bytes(noise.choices(b"abc%s\t\xff ", k=noise.randrange(1000)))
        kinds = [
            (40, "record", [(IDENT, records)]), (10, "record", [(b"deviceIdentExt?\n", records)]),
            (5, "longest", [(b"DEVICEIDENT?\t".ljust(1022, b"x") + b"\r", records)]),
            (5, "too long", [(b"DEVICEIDENT?\t".ljust(noise.randrange(1024, 1400), b"x") + b"\n", None)]),
            (10, "another device", [(request("DEVICEIDENT?", "00:1b:c4:0a:ff:06"), None)]),
            (5, "silence", [(request("DEVICEDISABLEIDENT!"), {ACK}), (IDENT, None), (ENABLE, {ACK})]),
            (5, "too few", [(request("SETIPADDRESS!", "10.0.0.1"), {NACK})]),
            (5, "no line end", [(line, None)]), (2, "empty", [(b"", None), (b"\0\n", None), (b"\r\n", None)]),
            (5, "noise", [(noise.randbytes(noise.randrange(1, 1400)), None)]),
            (5, "unknown", [(request("ANY.WORD", "x"), None)]), (3, "trace off", [(request("SYSTRACE!", "0"), {ACK} if direct else None)]),
            (1, "command", [(request("EXECUTECOMMAND!", "true"), {NACK} if direct else None)]),
            (0.2, "halt", [(request("DEVICEREBOOT!"), {ACK})])]
        if self.is_well:
            kinds += [(5, "lease", [(request("SETDHCPMODE!", noise.choice("01")), {ACK})]),
                      (5, "address", [(request("SETIPADDRESS!", "10.0.0.9", "255.0.0.0", "10.0.0.1"), {ACK})]),
                      (5, "this device", [(IDENT, records), (request("DEVICEIDENT?", MAC), records)])]
        elif self.records == {self.fallback}:
            own = self.host_mac()
            kinds += [(2, "address", [(request("SETIPADDRESS!", device.DEVICE, "255.255.255.0", ""), {ACK})]),
                      (5, "this device", [(IDENT, records), (request("DEVICEIDENT?", own), records)])]
        _, name, requests = noise.choices(kinds, [kind[0] for kind in kinds])[0]
        self.kinds[name] += len(requests)
        return requests

    def host_mac(self):
        return self.fallback.partition(b"MAA:")[2].partition(b"\t")[0].decode()

    def batch(self):
        """Some requests by one way, whose answers come in that order; the last is always answered."""
        way = noise.choice(list(ddp_query.WAYS))
        caller, requests = self.callers[way], []
        while len(requests) < BATCH - 1:
            requests += self.draw(way)
        requests.append((ENABLE, {ACK}))
        expected = [answers for _, answers in requests if answers]
        for datagram, _ in requests:
            caller.send(datagram)
        got = [caller.receive(PATIENCE)[0] for _ in expected]
        self.sent += len(requests)
        self.silent += len(requests) - len(expected)
        if any(answer not in answers for answer, answers in zip(got, expected)):
            self.wrong.append((self.sent, way, got, requests))
            eventually(lambda: caller.ask(ENABLE, 1) == ACK, PATIENCE)

    # What goes wrong meanwhile

    def until_well(self):
        self.service.answer, self.records, self.is_well = raw_service.well, {SERVICE_RECORD}, True
        if not eventually(lambda: self.callers["broadcast"].ask(IDENT, 2) == SERVICE_RECORD, 3 * PATIENCE):
            self.wrong.append((self.sent, "the service was not found again"))

    @contextlib.contextmanager
    def calm(self):
        yield

    @contextlib.contextmanager
    def away(self):
        self.service.stop()
        # Also when the daemon attached to a port that just closed.
        eventually(lambda: self.callers["broadcast"].ask(IDENT, 2) == self.fallback, PATIENCE)
        self.records, self.is_well = {self.fallback}, False
        yield
        self.service.start()

    def misbehaving(self, answer, records):
        @contextlib.contextmanager
        def episode():
            self.service.answer, self.is_well = answer, False
            self.records = {SERVICE_RECORD, self.fallback} if records is None else records
            yield
        return episode

    @contextlib.contextmanager
    def link(self):
        self.host.run("sh", "-c", "ip link set eth0 down; ip link set eth0 up")
        for caller in self.callers.values():
            if not eventually(lambda c=caller: c.ask(ENABLE, 0.5) == ACK, PATIENCE):
                self.wrong.append((self.sent, "not answered after the link came back"))
        yield

    @contextlib.contextmanager
    def pipe(self):
        """Tracing: the text goes to the one who asked last; then the pipe is removed while it is written to."""
        caller = self.callers["ipv6"]
        caller.ask(request("SYSTRACE!", "1"), PATIENCE)
        with open(testnet.PIPE, "r+b", buffering=0) as pipe:
            pipe.write(b"traced")
            if caller.receive(PATIENCE)[0] != b"traced":
                self.wrong.append((self.sent, "no trace text"))
            caller.ask(request("SYSTRACE!", "0"), PATIENCE)
            for _ in range(20):
                pipe.write(3000 * b"x")
            noise.choice((lambda: os.unlink(testnet.PIPE), lambda: shutil.rmtree(testnet.PIPE.parent)))()
        if not eventually(testnet.PIPE.exists, PATIENCE):
            self.wrong.append((self.sent, "the pipe did not come back"))
        yield

    # What it costs

    def look(self):
        """Private memory in KiB, descriptors, threads, children. Of the memory only what was written to: a page of the
        program counts as private or not by who else runs it."""
        proc = pathlib.Path("/proc", str(self.process.pid))
        children = (proc / "task" / proc.name / "children").read_text(encoding="ascii").split()
        return (testnet.memory(self.process.pid)["Private_Dirty"], min(len(os.listdir(proc / "fd")) for _ in range(3)),
                len(os.listdir(proc / "task")), len(children))

    def run(self):
        begin = time.monotonic()
        episodes = [self.calm, self.away, self.misbehaving(faulty, {self.fallback}), self.link,
                    self.misbehaving(closing, None), self.pipe, self.misbehaving(huge, None), self.calm,
                    self.misbehaving(silent, None), self.misbehaving(lying, None)]
        self.until_well()
        baseline = None
        seconds = lambda: time.monotonic() - begin   # noqa: E731
        is_over = lambda: self.sent >= options.count or len(self.wrong) >= 10 or seconds() > options.seconds   # noqa: E731
        for number in itertools.count():
            if number == len(episodes):
                baseline = self.samples[-1]
            if number >= len(episodes) and is_over():
                return baseline, seconds()
            length = WARM_UP / len(episodes) if baseline is None else max(500, options.count / 200)
            end = self.sent + length
            with episodes[number % len(episodes)]():
                while self.sent < end and not is_over():
                    self.batch()
            self.until_well()
            self.sample(baseline)

    def sample(self, baseline):
        """What a huge answer took goes back within 5 s."""
        if baseline:
            eventually(lambda: self.look()[0] <= baseline[1] + MARGIN, 8)
        self.samples.append((self.sent, *self.look()))


def svg(samples, baseline):
    """The curve of the private memory over the requests; a plain drawing."""
    width, height, left, bottom = 720, 240, 60, 40
    top = max(max(sample[1] for sample in samples), baseline[1] + MARGIN) * 1.05
    x = lambda sent: left + sent / samples[-1][0] * (width - left - 20)   # noqa: E731
    y = lambda size: height - bottom - size / top * (height - bottom - 20)   # noqa: E731
    label = '<text x="{:.0f}" y="{:.0f}" font-size="12" text-anchor="{}">{}</text>'.format
    line = '<line x1="{:.0f}" y1="{:.1f}" x2="{:.0f}" y2="{:.1f}" stroke="{}" stroke-dasharray="{}"/>'.format
    limit = baseline[1] + MARGIN
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
        line(left, y(0), width - 20, y(0), "black", ""), line(left, y(0), left, 20, "black", ""),
        line(left, y(limit), width - 20, y(limit), "firebrick", "4"), label(width - 20, y(limit) - 5, "end", f"limit: {limit} KiB"),
        '<polyline fill="none" stroke="steelblue" stroke-width="1.5" points="'
        + " ".join(f"{x(sample[0]):.1f},{y(sample[1]):.1f}" for sample in samples) + '"/>',
        label(left - 6, y(samples[-1][1]) + 4, "end", f"{samples[-1][1]}"), label(left - 6, y(0) + 4, "end", "0"),
        label(left, height - 18, "middle", "0"), label(width - 20, height - 18, "end", f"{samples[-1][0]:,}"),
        label((left + width) / 2, height - 6, "middle", "requests; private memory in KiB"), "</svg>", ""])


def main():
    net = testnet.Network()
    try:
        soak = Soak(net)
        baseline, seconds = soak.run()
        memory, descriptors, threads, children = soak.look() if soak.process.poll() is None else (0, 0, 0, 0)
    finally:
        net.close()
    most = max(sample[1] for sample in soak.samples if sample[0] >= baseline[0])
    print(f"{soak.sent} requests in {seconds:.0f} s, {soak.silent} of them to be left silent; {len(soak.wrong)} batches wrong")
    print("of each kind:", ", ".join(f"{name} {count}" for name, count in soak.kinds.most_common()))
    print(f"calls of the service {soak.service.calls}, its connections {soak.service.accepted}")
    print(f"private memory: {baseline[1]} KiB after {baseline[0]}, {memory} in the end, {most} at most; descriptors "
          f"{baseline[2]} and {descriptors}, threads {threads}, children left {children}")
    for wrong in soak.wrong:
        print("wrong:", wrong)
    if options.svg:
        options.svg.write_text(svg(soak.samples, baseline), encoding="ascii")
    is_well = (soak.process.poll() in (None, -9) and not soak.wrong and most <= baseline[1] + MARGIN
               and descriptors == baseline[2] and threads == 2 and not children and memory)
    sys.exit(0 if is_well else 1)


if __name__ == "__main__":
    main()
