"""A network of devices and a PC, and what the person at the PC does with tarnddp. Started by scripts/demo."""

import json
import os
import signal
import subprocess
import sys

import testnet


class Surprise(RuntimeError):
    """Something came out otherwise than the demo tells."""


class Demo:
    def __init__(self, net, daemon, tool):
        self.net = net
        self.tool = tool
        self.pc = net.host("pc", "192.168.1.3/24")
        self.devices = [testnet.Device(net, f"device-{number}", address, daemon, facts, f"00:1b:c4:0a:12:{number:02x}")
                        for number, (address, facts) in enumerate((
                            ("192.168.1.21/24", ["DeviceName=Press 1", "SerialNumber=314159"]),
                            ("192.168.1.22/24", ["DeviceName=Press 2", "SerialNumber=314160"]),
                            ("192.168.1.23/24", ["DeviceName=Cutter", "SerialNumber=271828", "Firmware=4.1.0"]),
                            ("10.20.30.40/16", ["DeviceName=Oven", "SerialNumber=161803"]),
                            ("192.168.1.25/24", None)), 1)]

    def say(self, text):
        print(f"\n# {text}", flush=True)

    def command(self, *words):
        print("$ tarnddp", *(f'"{word}"' if " " in word else word for word in words), flush=True)
        return self.pc.command(self.tool, *words)

    def do(self, *words):
        if (status := subprocess.run(self.command(*words), check=False).returncode) != 0:
            raise Surprise(f"tarnddp {words[0]} ended with {status}")

    def records(self):
        """By MAC, what a scan tells now."""
        lines = self.pc.run(self.tool, "scan", "--json", "--expect", str(len(self.devices))).splitlines()
        return {record["mac"]: record for record in map(json.loads, lines)}

    def expect(self, device, **facts):
        record = self.records().get(device.mac, {})
        if any(record.get(name) != value for name, value in facts.items()):
            raise Surprise(f"{facts} was expected of {record}")

    def follow_trace(self, device, name):
        """Shows the first lines of what a program on the device has to tell."""
        measured = device.telling(lambda number: f"channel 3: {21.3 + number / 10:.1f} degrees\n".encode(), 0.2)
        with subprocess.Popen(self.command("trace", name), stdout=subprocess.PIPE, text=True) as trace, measured:
            heard = [trace.stdout.readline() for _ in range(3)]
            print(*heard, sep="", end="^C\n", flush=True)
            trace.send_signal(signal.SIGINT)
        if trace.returncode != 130 or not all(line.startswith("channel 3: ") for line in heard):
            raise Surprise(f"the trace brought {heard} and {trace.returncode}")

    def run(self):
        _, _, _, oven, last = self.devices
        self.say("Five devices are on the network. The PC knows none of their addresses.")
        self.do("scan", "--expect", "5")
        if len(self.records()) != 5:
            raise Surprise("not five devices")
        self.say("The oven comes from another site. It gets an address of this network.")
        self.do("set-ip", "Oven", "192.168.1.24/24", "--gateway", "192.168.1.1")
        self.expect(oven, address="192.168.1.24", gateway="192.168.1.1")
        self.say("The last one's service is away; its daemon sets the interface itself. A DHCP server leases it an address.")
        testnet.start_dnsmasq(self.net.host("server", "192.168.1.4/24"), self.net.folder, "192.168.1.100", "192.168.1.100")
        self.do("dhcp", "1205", "on")
        self.expect(last, address="192.168.1.100", service=False)
        self.do("scan", "--expect", "5")
        self.say("What the cutter's programs have to tell, until Ctrl-C.")
        self.follow_trace(self.devices[2], "Cutter")


def main():
    daemon, tool = map(os.path.abspath, sys.argv[1:])
    net = testnet.Network()
    try:
        Demo(net, daemon, tool).run()
    except (RuntimeError, OSError, subprocess.CalledProcessError) as cause:
        print(f"\ndemo: failed: {cause}", file=sys.stderr)
        return 1
    finally:
        net.close()
    print("\ndemo: done. Five devices were found, two got other addresses, one was traced, all in a private network.")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
