"""What the end-to-end tests of the daemon share: a device host with it, a PC host beside it, real UDP between them."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))

import ddp_query  # noqa: E402
import testnet  # noqa: E402
from device import DEVICE, IDENT, PC, SERVICE_RECORD, Daemon, fallback_record  # noqa: E402
from testnet import eventually  # noqa: E402


class DeviceTest(unittest.TestCase):
    """A device and a PC on one network, for all tests of the class."""

    with_service = True

    @classmethod
    def setUpClass(cls):
        cls.net = testnet.Network()
        cls.addClassCleanup(cls.net.close)
        cls.device = cls.net.host("device", f"{DEVICE}/24")
        cls.pc = cls.net.host("pc", f"{PC}/24")
        with cls.pc.inside():
            cls.callers = {way: ddp_query.Caller(way, testnet.INTERFACE) for way in ddp_query.WAYS}
        for caller in cls.callers.values():
            cls.addClassCleanup(caller.close)
        cls.service = testnet.Service(cls.device) if cls.with_service else None
        cls.daemon = Daemon(cls.net, cls.device)

    def ask(self, datagram, way="ipv6", seconds=3.0):
        return self.callers[way].ask(datagram, seconds)

    def start_daemon(self, *options, **how):
        """Replaces the daemon of the class."""
        self.daemon.stop()
        type(self).daemon = Daemon(self.net, self.device, *options, **how)
        return self.daemon

    def attach(self, behaviour=None, seconds=7, **facts):
        """The service as at its start, the daemon attached to it, then the service with `behaviour` and `facts`."""
        self.service.start()
        self.assertTrue(eventually(lambda: self.service.Reset() and self.ask(IDENT, "broadcast") == SERVICE_RECORD,
                                   seconds), "did not re-attach")
        self.service.Calls()
        self.service.Behave(behaviour or {})
        self.service.Set(facts)

    def fallback_record(self, *settings, **named):
        return fallback_record(self.device.interface()["address"], *settings, **named)
