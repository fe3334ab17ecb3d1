"""A PC on the network: the protocol read once more, without the code of the daemon and of the tool."""

import socket
import struct
import time

# How a command travels: by name of the way, the address family, where requests go.
WAYS = {"broadcast": (socket.AF_INET, "255.255.255.255", 5562),
        "ipv4": (socket.AF_INET, "224.0.5.128", 5563),
        "ipv6": (socket.AF_INET6, "ff12::12", 5564)}


def record(mac, name="Fake", serial="1", address="192.168.1.99", mask="255.255.255.0", **fields):
    """An identity record of anything: texts, or bytes where they are none."""
    pairs = {"SID": "0", "OAN": "T", "OVN": "V", "SAN": "T", "SVN": "V", "LOC": name, "MKC": "M#", "SNR": serial,
             "ASK": "false", "IPA": address, "SNM": mask, "GWA": "0.0.0.0", "MAA": mac, "EXTSID": "0",
             "EXTAPPVER": "1.0", **fields}
    return b"\t".join(key.encode() + b":" + (value if isinstance(value, bytes) else value.encode())
                      for key, value in pairs.items()) + b"\r\n"


class Caller:
    """The sockets that one way needs on `interface`: one to send from, and where the answers come in. The answer to a
    request by IPv4 multicast goes to the group, whoever asked: a second socket, a member of it, hears that."""

    def __init__(self, way, interface):
        self.family, self.group, self.port = WAYS[way]
        self.sender = socket.socket(self.family, socket.SOCK_DGRAM)
        self.listener = self.sender
        index = socket.if_nametoindex(interface)
        if way == "broadcast":
            self.sender.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            self.sender.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode())
        elif way == "ipv4":
            member = struct.pack("4s4si", socket.inet_aton(self.group), bytes(4), index)
            self.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, member)
            self.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
            self.listener = socket.socket(self.family, socket.SOCK_DGRAM)
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self.listener.bind((self.group, self.port))
            self.listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
        else:
            self.sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
            self.sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)

    def send(self, datagram):
        self.sender.sendto(datagram, (self.group, self.port))

    def receive(self, seconds):
        """The next datagram and its sender's address, or (None, None) when none came in `seconds`."""
        self.listener.settimeout(seconds)
        try:
            datagram, sender = self.listener.recvfrom(65536)
        except (TimeoutError, BlockingIOError):
            return None, None
        return datagram, sender[0]

    def drain(self):
        """Forgets what has come in so far."""
        while self.receive(0)[0] is not None:
            pass

    def ask(self, datagram, seconds):
        """Sends, and takes the first answer: the datagram, or None after `seconds`."""
        self.drain()
        self.send(datagram)
        return self.receive(seconds)[0]

    def ask_all(self, datagram, seconds):
        """Sends, and takes every answer of the next `seconds`: pairs of datagram and sender's address."""
        self.drain()
        self.send(datagram)
        answers = []
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            datagram, sender = self.receive(left)
            if datagram is not None:
                answers.append((datagram, sender))
        return answers

    def close(self):
        self.listener.close()
        self.sender.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
