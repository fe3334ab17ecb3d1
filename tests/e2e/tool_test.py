"""Finding devices, as a person and a script do it."""

import csv
import io
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time
import unittest

from pc import DAEMON, IDENT, TOOL, Fake, Run, Terminal, ddp_query, eventually, link_local, record, sent, testnet

MACS = [f"00:1b:c4:0a:12:{number:02x}" for number in range(8)]
HEADINGS = ["NAME", "SERIAL", "MAC", "ADDRESS", "DHCP", "SERVICE"]
DEVICES = {1: ("192.168.1.21/24", "Press 1"), 2: ("192.168.1.22/24", None), 3: ("192.168.1.23/24", "Twin"),
           4: ("192.168.1.23/24", "Twin"), 5: ("10.20.30.40/16", "Far")}   # by number: the name is None without a service


def facts_of(number):
    """What --json has to tell of a device, and the one thing that its problem has to name, if it has one."""
    given, name = DEVICES[number]
    address, prefix = given.split("/")
    senders = {"ipv6": f"{link_local(MACS[number])}%eth0", "ipv4": address, "broadcast": address}
    if name == "Far":   # it has no way back to the PC, and the PC drops what has none
        del senders["broadcast"], senders["ipv4"]
    answers = [{"interface": "eth0", "way": way, "from": sender} for way, sender in senders.items()]
    facts = {"mac": MACS[number], "address": address, "prefix": int(prefix), "gateway": None, "name": name,
             "service": name is not None, "answers": sorted(answers, key=str), "serial": None, "type": None, "model": None,
             "firmware": None, "dhcp": None}
    if name:
        facts |= {"serial": f"10000{number}", "type": "Tessel XT", "model": "XT175012#", "firmware": "4.2.1", "dhcp": False}
    return facts, {"Twin": MACS[7 - number], "Far": "ip route add 10.20.0.0/16 dev eth0"}.get(name)


class Found(unittest.TestCase):
    """A network of real devices, and PCs whose routes differ."""

    @classmethod
    def setUpClass(cls):
        cls.net = testnet.Network()
        cls.addClassCleanup(cls.net.close)
        cls.devices = {number: testnet.Device(
            cls.net, f"device-{number}", address, DAEMON, name and [f"DeviceName={name}", f"SerialNumber=10000{number}"],
            MACS[number]) for number, (address, name) in DEVICES.items()}
        # Three PCs: no way back to other subnets, and the kernel drops what has none; the same, but it takes all; with
        # a default route.
        cls.pc, cls.open_pc, cls.routed_pc = (cls.net.host(name, f"192.168.1.{number}/24") for number, name in enumerate(
            ("pc", "pc-open", "pc-routed"), 3))
        for pc in (cls.pc, cls.routed_pc):
            pc.run("sh", "-c", "echo 1 >/proc/sys/net/ipv4/conf/all/rp_filter")
        # Nothing is asked from a second address.
        cls.pc.run("sh", "-c", "ip link property add dev eth0 altname port7 && ip addr add 172.16.1.3/24 dev eth0")
        cls.routed_pc.run("ip", "route", "add", "default", "via", "192.168.1.1")
        with cls.open_pc.inside(), ddp_query.Caller("ipv4", testnet.INTERFACE) as caller:
            assert eventually(lambda: len(caller.ask_all(IDENT, 0.5)) == len(DEVICES), 20), "not all devices answer"

    def check_json(self, lines):
        told = {}
        for found in map(json.loads, lines.splitlines()):
            problems = found.pop("problems")
            found["answers"].sort(key=str)
            facts, problem = facts_of(MACS.index(found["mac"]))
            self.assertEqual((found, len(problems)), (facts, 1 if problem else 0), problems)
            self.assertIn(problem or "", "".join(problems))
            told[found["mac"]] = problems
        self.assertEqual((sorted(told), len(lines.splitlines())), (MACS[1:6], 5))

    def test_forms(self):
        """What a scan prints into a pipe, and its exit status."""
        wire = testnet.Wire(self.pc)
        runs = {words: Run(self.pc, *words.split()) for words in (
            "", "--time 6", "scan --time 6", "scan --json --time 6", "scan --csv",
            "scan --expect 6 --json --interface port7 --interface eth0 --time 6", "scan --interface eth0:9",
            "scan --interface eth0 --interface lo", "scan --interface eth0 --interface eth9", "--watch --interface eth9")}
        done = {words: run.end() for words, run in runs.items()}
        self.assertEqual(sent(wire), [])
        wire.close()
        self.assertEqual({words: status for words, (status, _, _) in done.items()},
                         {**dict.fromkeys(runs, 0), **dict.fromkeys(list(runs)[-4:], 3),
                          "scan --expect 6 --json --interface port7 --interface eth0 --time 6": 1})
        for words in ("scan --json --time 6", "scan --expect 6 --json --interface port7 --interface eth0 --time 6"):
            with self.subTest(words):
                self.check_json(done[words][1])
        expect = Run(self.pc, "scan", "--json", "--time", "50", "--expect", "5")   # alone, as it does not wait for long
        self.check_json(expect.end()[1])   # by all ways, though it ends early
        for words in list(runs)[-4:]:
            self.assertEqual(done[words][1], "")
            self.assertRegex(done[words][2], rf"^tarnddp: {words.split()[-1]} cannot be used: .*\n$")
        self.assertEqual(done["--time 6"][1], done["scan --time 6"][1])
        self.assertIn("ip route add 10.20.0.0/16 dev eth0", done["scan --time 6"][2])

        model = [facts_of(number)[0] for number in DEVICES]
        rows = list(csv.reader(io.StringIO(done["scan --csv"][1], newline="")))
        self.assertEqual((rows[0], sorted(rows[1:])), ("mac,serial,name,address,prefix,gateway,dns,dhcp".split(","), [
            [facts["mac"], facts["serial"] or "", facts["name"] or "", facts["address"], str(facts["prefix"]), "", "",
             "off" if facts["service"] else ""] for facts in model]))
        self.assertTrue(done[""][1].startswith("NAME "))
        heading, *lines = done["scan --time 6"][1].splitlines()
        cells = [re.split(r"\s{2,}", line.strip())[:6] for line in lines]
        self.assertEqual([heading.split()[:6], *sorted(row for row in cells if MACS[2] not in row)], [HEADINGS, *sorted(
            [facts["name"], facts["serial"], facts["mac"], f"{facts['address']}/{facts['prefix']}", "off", "yes"]
            for facts in model if facts["service"])])
        away, = (line for line in lines if MACS[2] in line)
        self.assertIn("192.168.1.22/24", away)
        self.assertNotRegex(away, r"APPTERM|000000|\?\?\?")

    def test_routes_of_the_pc(self):
        """A default route makes no difference to what is heard, but a reverse path does; the advice helps."""
        runs = [Run(pc, "scan", "--json") for pc in (self.open_pc, self.routed_pc)]
        advice = re.search(r"ip route add \S+ dev \S+", Run(self.pc, "scan").end()[2])[0]
        for run in runs:
            status, out, _ = run.end()
            self.assertEqual(status, 0)
            facts = {fact["mac"]: fact for fact in map(json.loads, out.splitlines())}
            self.assertEqual(sorted(facts), MACS[1:6])
            self.assertEqual({answer["way"] for answer in facts[MACS[5]]["answers"]}, {"ipv6", "ipv4"})
        self.pc.run(*advice.split())
        self.addCleanup(self.pc.run, *advice.replace("add", "del").split())
        far, = (json.loads(line) for line in Run(self.pc, "scan", "--json").end()[1].splitlines() if MACS[5] in line)
        self.assertEqual(({answer["way"] for answer in far["answers"]}, far["problems"]), ({"ipv6", "ipv4"}, []))

    def test_terminal(self):
        """The table fits, and nothing of how it grew stays behind."""
        plain, errors = (text.split("\n")[:-1] for text in Run(self.pc, "--time", "5").end()[1:])
        plan = Terminal(self.pc, "--csv", columns=400)
        dumb = Terminal(self.pc, "--time", "5", columns=400, rows=50, env={**os.environ, "TERM": "dumb"})
        errors_alone = Terminal(self.pc, "--time", "5", columns=30, rows=50, stdout=subprocess.DEVNULL)
        piped = Terminal(self.pc, "--json", stdout=subprocess.PIPE)   # perhaps to what writes to this terminal
        terminals = {columns: Terminal(self.pc, "--time", "5", columns=columns, rows=rows, **how) for columns, rows, how in (
            (200, 50, {}), (80, 24, {}), (60, 24, {"stderr": subprocess.DEVNULL}), (20, 24, {}))}
        for columns, terminal in terminals.items():
            with self.subTest(columns=columns):
                status, lines = terminal.end()
                self.assertEqual(status, 0)
                heading, = (at for at, line in enumerate(lines) if line.lstrip().startswith("NAME"))
                table = lines[heading:heading + 6]
                if columns == 200:
                    self.assertEqual([line.split() for line in table], [line.split() for line in plain[:6]])
                if columns >= 80:
                    self.assertEqual(table[0].split()[:6], HEADINGS)
                    self.assertEqual([sum(mac in line for line in lines[:heading + 6]) for mac in MACS[1:6]], [1] * 5)
                self.assertLessEqual(max(map(len, table)), columns)
                self.assertFalse(any("scan" in line and "heard" in line for line in lines[heading + 6:]), lines)
        self.assertNotIn(b" 0 s", terminals[200].raw, "it still listens")
        self.assertFalse([line for line in plan.end()[1] if "NAME" in line], "a table beside the plan")
        status, lines = dumb.end()
        self.assertEqual((status, sorted(lines)), (0, sorted(line.rstrip() for line in (*plain, *errors))))
        self.assertNotIn(b"\x1b", dumb.raw)
        self.assertEqual("".join(errors_alone.end()[1]).replace(" ", ""), "".join(errors).replace(" ", ""))
        self.assertIn(b" so far", errors_alone.raw)
        self.assertEqual(piped.end()[0], 0)
        self.assertNotIn(b" so far", piped.raw)

    def test_watch(self):
        """What comes, changes and goes: as lines, as JSON, and as a table in place."""
        text, objects = Run(self.pc, "scan", "--watch"), Run(self.pc, "scan", "--json", "--watch")
        terminal = Terminal(self.pc, "--watch", columns=120)
        problems = Run(self.pc, "scan", "--time", "5").end()[2]
        terminal.wait_for("100005")   # also after the first round, when what is said of it has been
        # Of the one with a problem, that is not told again.
        self.devices[5].service.Set({"DeviceName": "Renamed"})
        terminal.wait_for("Renamed")
        self.assertNotIn("Far", [line.split()[0] for line in terminal.lines()])
        port = "p-device-2"
        subprocess.run(["ip", "link", "set", port, "down"], check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "set", port, "up"], check=True)

        def is_left():   # whole, not while it makes room for a message
            return "NAME" in (shown := "\n".join(terminal.lines())) and [mac in shown for mac in MACS[1:6]] == [1, 0, 1, 1, 1]
        self.assertTrue(eventually(is_left, 30), terminal.lines())
        terminal.type(b"\x03")
        status, lines = terminal.end()
        self.assertEqual(status, 130)
        self.assertEqual([line.split()[0] for line in lines].count("NAME"), 1, lines)
        heading = [line.split()[0] for line in lines].index("NAME")
        told, table = "".join(lines[:heading]), lines[heading:]   # wrapped, so that blanks at the edge are lost
        self.assertEqual(*(sorted(text.replace(" ", "").replace("\n", "").split("tarnddp:")) for text in (told, problems)))
        self.assertEqual([sum(mac in line for line in table[:5]) for mac in MACS[1:6]], [1, 0, 1, 1, 1], lines)
        expected = sorted([*(("came", mac) for mac in MACS[1:6]), ("changed", MACS[5]), ("went", MACS[2])])
        events = [json.loads(objects.process.stdout.readline()) for _ in expected]
        lines = [text.process.stdout.readline() for _ in expected]
        for run in (text, objects):
            run.interrupt()
        self.devices[5].service.Reset()
        self.assertEqual((text.end(), objects.end()[:2]), ((130, "", ""), (130, "")))
        self.assertEqual(sorted((event["event"], event["mac"]) for event in events), expected)
        for event in events:
            self.assertRegex(event["time"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d$")
        for line in lines:
            self.assertRegex(line, r"^\d\d:\d\d:\d\d\b.*\b(came|changed|went)\b")


class Hostile(unittest.TestCase):
    """Answers that no device gives, readers that do not read, and Ctrl-C."""

    @classmethod
    def setUpClass(cls):
        cls.net = testnet.Network()
        cls.addClassCleanup(cls.net.close)
        cls.liar = cls.net.host("liar", "192.168.1.99/24")
        cls.pc = cls.net.host("pc", "192.168.1.3/24")

    def fake(self, records):
        fake = Fake(self.liar, records)
        self.addCleanup(fake.close)
        return fake

    def test_rubbish(self):
        """Datagrams that are no records, beside one that says what no terminal may get, and whose device answers from
        elsewhere."""
        name = "Pr\u00fcf \x1b[2J"
        fake = self.fake([b"", b"ACK\n", b"SID", b"\0" * 1400, b"\xff" * 60000, b"SID:0\t\t\t:\r\n" * 100,
                          b"DEVICEREBOOT!\r\n", record("02-00-00-00-01-04", name.encode("latin-1"), address="no address",
                                                      mask="255.0.255.0", GWA="", ASK="true")])
        status, out, _ = Run(self.pc, "scan", "--json").end()
        found = json.loads(out)
        self.assertEqual([status, *(found[key] for key in ("mac", "name", "address", "prefix", "gateway", "dhcp"))],
                         [0, "02:00:00:00:01:04", name, "no address", None, None, True])
        self.assertEqual([len(found["answers"]), "192.168.1.99" in found["problems"][0]], [3, True])
        self.assertTrue(eventually(lambda: fake.heard.count(IDENT) == 9), "three times by three ways")
        for form in ((), ("--csv",)):
            _, out, err = Run(self.pc, "scan", "--time", "1.2", *form).end()
            self.assertIn("no address" if form else "Pr\u00fcf \\x1b[2J", out)
            self.assertNotRegex(out + err, r"[^\n\r -~\u00fc]")

        fake.close()
        self.fake(iter([record("02:00:00:00:01:05")]))   # it answers one request, by one way
        self.assertEqual(Run(self.pc, "--expect", "1", "--time", "300").end()[0], 0)

    def crowd(self):
        macs = [f"02:00:00:00:03:{number:02x}" for number in range(100)]
        self.fake([record(mac, "x" * 700) for mac in macs])
        return macs

    def test_slow_reader(self):
        """A terminal and a pipe that stand still for a while get all the same, whole."""
        macs = self.crowd()
        terminal = Terminal(self.pc, "--expect", "100", columns=100, rows=40, read=False)
        script = Run(self.pc, "scan", "--json", "--watch", bufsize=0, pipesize=4096)
        time.sleep(3)
        terminal.read()
        status, lines = terminal.end()
        self.assertEqual(status, 0)
        self.assertEqual({mac: sum(mac in line for line in lines) > 0 for mac in macs}, dict.fromkeys(macs, True))
        came = [json.loads(script.process.stdout.readline()) for _ in macs]
        self.assertEqual(sorted((event["event"], event["mac"]) for event in came), [("came", mac) for mac in macs])
        script.interrupt()
        wanted, buffer = 4 << 20, 2 * int(pathlib.Path("/proc/sys/net/core/rmem_max").read_text(encoding="ascii"))
        warning = (f"tarnddp: warning: answers may have been lost: the receive buffer is {buffer} bytes, not {wanted} (as root: "
                   f"sysctl net.core.rmem_max={wanted})\n")
        self.assertEqual(script.end()[::2], (130, warning if buffer < wanted else ""))

    def test_closed_pipe(self):
        """A reader that goes away ends it, without a word."""
        self.crowd()
        rows = (), ("--json",), ("--csv",), ("--watch",), ("--watch", "--json")
        runs = [Run(self.pc, "scan", *words) for words in rows]
        for words, run in zip(rows, runs):
            if "--watch" in words:
                run.process.stdout.readline()
            run.process.stdout.close()
        for words, run in zip(rows, runs):
            with self.subTest(words):
                status, _, err = run.end()
                self.assertEqual(status, 1)
                self.assertNotRegex(err, "(?i)pipe|output")
        for closed, status in ((">&-", 1), ("<&-", 0), ("2>&-", 0)):   # never to be taken for what it opens
            done = subprocess.run(["sh", "-c", f'exec "$0" --version {closed}', TOOL], capture_output=True, check=False)
            self.assertEqual(done.returncode, status, closed)

    def test_watch_where_the_pc_changes(self):
        """What is said of it stands above the table, and it goes on."""
        pc = self.net.host("pc-moving", "192.168.1.5/24")
        terminal = Terminal(pc, "--watch", columns=200)

        def is_shown(*starts):
            return eventually(lambda: [line.split()[0] for line in terminal.lines()][-len(starts):] == [*starts], 10)
        terminal.wait_for("224.0.5.128")
        self.assertTrue(is_shown("tarnddp:", "watching,"), terminal.lines())
        self.fake([record("02:00:00:00:01:05", "Fake", address="192.168.1.99")])
        terminal.wait_for("Fake")
        pc.run("ip", "addr", "flush", "dev", "eth0")
        terminal.wait_for("eth0 cannot be used")
        self.assertTrue(is_shown("tarnddp:", "NAME", "Fake", "watching,"), terminal.lines())
        terminal.type(b"\x03")
        self.assertEqual(terminal.end()[0], 130)

    def test_interrupt(self):
        """Ctrl-C while it listens, while nobody reads, while it watches."""
        self.crowd()
        scan, watch = Run(self.pc, "scan", "--time", "50"), Run(self.pc, "--watch")
        stuck = Run(self.pc, "scan", "--json", "--watch", pipesize=4096)
        terminal = Terminal(self.pc, "scan", "--time", "50", columns=100, rows=40)
        terminal.wait_for("... and 63 more")
        watch.process.stdout.readline()
        time.sleep(1)
        terminal.type(b"\x03")
        for run in (scan, watch, stuck):
            run.interrupt()
        self.assertEqual([run.process.wait(20) for run in (terminal, scan, watch, stuck)], [130] * 4)
        terminal.end()
        self.assertEqual(terminal.raw[-1:], b"\n", "a prompt would stand behind what is shown")

    def test_background(self):
        """There, Ctrl-C is for others."""
        self.crowd()
        scan = Run(self.pc, "--time", "4", preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
        time.sleep(2)
        scan.interrupt()
        self.assertEqual(scan.end()[0], 0)

    def test_nobody(self):
        for words in ((), ("--watch",)):
            done = subprocess.run(["unshare", "-n", TOOL, *words], capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (3, "", "tarnddp: no usable network interface is up\n"))
        done = subprocess.run(self.pc.command("sh", "-c", 'ulimit -n 4; exec "$0"', TOOL), capture_output=True, text=True,
                              timeout=60, check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertRegex(done.stderr, r"^tarnddp: epoll: Too many open files( \[system:24\])?\n$")   # as newer Boosts have it
        reader, output = socket.socketpair()
        watch = Run(self.pc, "--watch", stdout=output)
        output.close()
        watch.process.stderr.readline()
        reader.close()
        self.assertEqual(watch.end()[0], 1, "without anything to print")
        port = f"p-{self.pc.name}"
        self.addCleanup(subprocess.run, ["ip", "link", "set", port, "up"], check=True)
        for state, link in (("down", " (no link: is the cable plugged in?)"), ("up", "")):
            subprocess.run(["ip", "link", "set", port, state], check=True)
            self.assertTrue(eventually(lambda: (self.pc.interface()["operstate"] == "UP") == (not link)))
            runs = [Run(self.pc, *words, "--time", "1") for words in (("scan", "--json"), ("trace", "x"))]
            unknown = 'tarnddp: "x" is none of the 0 devices heard (tarnddp scan shows them); nothing was sent\n'
            self.assertEqual([run.end() for run in runs], [(1, "", start + (
                f"tarnddp: no device answered on eth0 (192.168.1.3/24){link}\n"
                "tarnddp: if one is there, a firewall of this PC may keep its answers out: they are UDP from the ports 5562 and "
                "5564, and UDP to the port 5563 of the group 224.0.5.128\n")) for start in ("", unknown)])


class Completion(unittest.TestCase):
    def test_offers_what_the_tool_takes(self):
        def offered(*words):
            script = 'source "$0"; COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _tarnddp; echo "${COMPREPLY[@]}"'
            place = pathlib.Path(__file__).resolve().parents[2] / "packaging/tarnddp.bash"
            return subprocess.run(["bash", "-c", script, place, "tarnddp", *words], capture_output=True, text=True,
                                  check=True).stdout.split()
        commands = ["scan", "set-ip", "dhcp", "apply", "trace", "halt", "send"]
        options = {command: re.findall(r"^ +(?:-h,)?(--[a-z-]+)", subprocess.run(
            [TOOL, command, "--help"], capture_output=True, text=True, check=True).stdout, re.M) for command in commands}
        for words, wanted in (
                ("", commands), ("s", ["scan", "set-ip", "send"]), ("--json ", ()), ("--json set-ip --", options["scan"]),
                ("--json dhcp d ", ()), ("dhcp d ", ["on", "off"]), ("dhcp ", ()), ("--", [*options["scan"], "--version"]),
                *((f"{command} --", options[command]) for command in commands)):
            self.assertEqual(sorted(offered(*words.split(" "))), sorted(wanted), words)


if __name__ == "__main__":
    unittest.main(verbosity=2)
