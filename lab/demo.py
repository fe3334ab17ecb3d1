"""Shows tarnddpd at work on a device host, asked from a PC host of a private network. Started by scripts/demo."""

import os
import pathlib
import subprocess
import sys

import testnet

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))
import ddp_query  # noqa: E402

WAY_NAMES = {"broadcast": "broadcast", "ipv4": "IPv4 multicast", "ipv6": "IPv6 multicast"}
FIFO = "/tmp/tsl_app/FIFO_T_C2H_AET"


class Surprise(RuntimeError):
    """Something came out otherwise than the demo tells."""


def title(text):
    print(f"\n== {text}", flush=True)


def show(*lines):
    print(*(f"   {line}" for line in lines), sep="\n", flush=True)


class Demo:
    def __init__(self, net, daemon):
        self.net = net
        self.device = net.host("device", "192.168.1.2/24")
        self.pc = net.host("pc", "192.168.1.3/24")
        with self.pc.inside():
            self.callers = {way: ddp_query.Caller(way, testnet.INTERFACE) for way in ddp_query.WAYS}
        mac = self.device.interface()["address"]
        self.service = testnet.Service(self.device, "--set", "IPAddress=192.168.1.2", "--set", f"MACAddress={mac}")
        self.daemon = self.device.start(daemon, "-nodaemon", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if not testnet.eventually(lambda: self.callers["ipv6"].ask(b"DEVICEIDENT?\r\n", 0.3)):
            raise Surprise("the daemon does not answer")

    def ask(self, *fields, way="ipv6"):
        answer = self.callers[way].ask("\t".join(fields).encode() + b"\r\n", 8)
        if answer is None:
            raise Surprise(f"{fields[0]} was not answered")
        return answer

    def order(self, *fields):
        answer = self.ask(*fields)
        show(f"{' '.join(fields)}: {ddp_query.printable(answer.rstrip())}")
        if answer != b"ACK\n":
            raise Surprise(f"{fields[0]} was refused")

    def identify(self, ways, word):
        """The record by each way: as a table the first time, then whether it is the same."""
        records = []
        for way in ways:
            records.append(self.ask("DEVICEIDENT?", way=way))
            show(f"DEVICEIDENT? by {WAY_NAMES[way]}:")
            show(*(["  the same record"] if records[-1] in records[:-1] else
                   [f"  {line}" for line in ddp_query.table(records[-1])]))
        if not all(word in record for record in records):
            raise Surprise(f"no record with {word!r}")

    def show_interface(self):
        show("the device now: " + " ".join(self.device.run("ip", "-4", "-br", "addr", "show", "dev", "eth0").split()),
             "  " + (self.device.run("ip", "route", "show", "default").strip() or "no default route"),
             "  /etc/resolf.conf: " + pathlib.Path("/etc/resolf.conf").read_text(encoding="ascii").strip())

    def stop_service(self):
        self.service.stop()
        if not testnet.eventually(lambda: b"APPTERM" in (self.callers["ipv6"].ask(b"DEVICEIDENT?\r\n", 3) or b"")):
            raise Surprise("the stopped service is not missed")

    def run(self):
        title("the device service runs: the PC finds the device, by three ways")
        self.identify(ddp_query.WAYS, b"OAN:Tessel XT\t")

        title("settings are changed through the device service")
        self.order("SETIPADDRESS!", "10.1.2.3", "255.255.0.0", "10.1.0.1", "10.1.0.53")
        self.order("SETDHCPMODE!", "1")
        facts = self.service.Facts()
        show("the service now has: " + ", ".join(f"{name} {facts[name]}" for name in (
            "IPAddress", "SubnetMask", "GatewayAddress", "DNSAddresses", "DHCPActive")))
        if (facts["IPAddress"], facts["DHCPActive"]) != ("10.1.2.3", 1):
            raise Surprise("the service did not get the settings")

        title("the service is stopped: the daemon answers from what the interface itself tells")
        self.stop_service()
        self.identify(["broadcast"], b"LOC:APPTERM\t")

        title("without the service, the interface itself is set")
        self.order("SETIPADDRESS!", "192.168.1.20", "255.255.255.0", "192.168.1.3", "192.168.1.53")
        self.show_interface()

        title("without the service, a DHCP server of the network (dnsmasq) leases it an address")
        server = self.net.host("server", "192.168.1.4/24")
        testnet.start_dnsmasq(server, self.net.folder, "192.168.1.100", "192.168.1.109",
                              "--dhcp-option=option:dns-server,192.168.1.4")
        self.order("SETDHCPMODE!", "1")
        self.show_interface()
        if "192.168.1.10" not in self.device.run("ip", "-4", "addr", "show", "dev", "eth0"):
            raise Surprise("the address is none of the server's")

        title("a program on the device writes into the trace pipe, the PC listens")
        self.order("SYSTRACE!", "1")
        for text in (b"measuring at 1000 Hz\n", b"channel 3: overload\n"):
            pipe = os.open(FIFO, os.O_RDWR)
            os.write(pipe, text)
            os.close(pipe)
            heard, sender = self.callers["ipv6"].receive(3)
            if heard != text:
                raise Surprise(f"the trace brought {heard!r}")
            show(f"from {sender}: {ddp_query.printable(heard.rstrip())}")
        if self.daemon.poll() is not None:
            raise Surprise("the daemon ended")


def main():
    net = testnet.Network()
    try:
        Demo(net, os.path.abspath(sys.argv[1])).run()
    except (RuntimeError, OSError, subprocess.CalledProcessError) as cause:
        print(f"\ndemo: failed: {cause}", file=sys.stderr)
        return 1
    finally:
        net.close()
    print("\ndemo: done. The device was found by three ways, its settings were changed with and without its service, "
          "and its trace was heard.")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
