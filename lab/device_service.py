#!/usr/bin/env python3
"""Simulated device service: what the discovery daemon talks to on a device, for the demo and the tests.

Holds the settings of an imaginary device and answers the four XML-RPC methods that the daemon calls, over HTTP/1.1 with
connections that stay open. "RPCConf.SetNetwork" changes the settings, and each call is kept. With --interface the
settings are those of a real interface, and a change sets it. How it behaves can be set by the options and, while it
runs, by control methods, which are always answered at once:

  Test.Behave({"slow": 0.7, "fault": 4, ...})  the options below of the same names; what is not named is off
  Test.Set({"DeviceName": "Bench 2", ...})     facts of the device, whatever their type
  Test.Unset(["DNSAddresses", ...])            facts that the answers no longer hold
  Test.Facts()                                 all facts as they are
  Test.Reset()                                 facts and behaviour as after the start, no calls
  Test.Calls()                                 the last calls, up to 1000, since Test.Calls: method, params, raw body
"""

import argparse
import collections
import ipaddress
import json
import socketserver
import subprocess
import sys
import threading
import time
import xmlrpc.client
import xmlrpc.server

GLOBAL_SYS_INFOS = {
    "DeviceType": "Tessel XT", "DeviceName": "Bench 1", "TypeCode": "XT175", "MainModuleType": 175, "SubModuleType": 12,
    "FunctionModuleType": 3, "CasingModuleType": 1, "SerialNumber": "314159", "Firmware": "4.2.1", "IsBigEndian": False,
    "MesurementRate": 1000.0, "InternalProcessingRate": 500.0, "DataBufferCount": 2, "DataLoggerCount": 1,
    "VariablesCount": 16, "SlaveModuleCount": 0}
NETWORK = {
    "IPAddress": "192.168.1.10", "SubnetMask": "255.255.255.0", "GatewayAddress": "192.168.1.1", "DHCPActive": 0,
    "MACAddress": "00:1b:c4:0a:ff:05", "DNSAddresses": ["192.168.1.53"]}
NO_BEHAVIOUR = {"slow": 0.0, "silent": False, "fault": 0, "close": False, "only": ""}


def ip(*words):
    return subprocess.run(["ip", *words], check=True, stdout=subprocess.PIPE, text=True).stdout


def read_interface(interface):
    """The facts of NETWORK that an interface tells."""
    link, = json.loads(ip("-j", "addr", "show", "dev", interface))
    routes = json.loads(ip("-j", "route", "show", "default", "dev", interface))
    facts = {"MACAddress": link["address"], "GatewayAddress": routes[0].get("gateway", "") if routes else ""}
    for info in link["addr_info"]:
        if info["family"] == "inet":
            network = ipaddress.ip_interface(f"{info['local']}/{info['prefixlen']}")
            return {**facts, "IPAddress": str(network.ip), "SubnetMask": str(network.netmask)}
    return {**facts, "IPAddress": "0.0.0.0", "SubnetMask": "0.0.0.0"}


def set_interface(interface, facts):
    address = ipaddress.ip_interface(f"{facts['IPAddress']}/{facts['SubnetMask']}")
    ip("-4", "addr", "flush", "dev", interface)
    ip("addr", "add", str(address), "brd", "+", "dev", interface)
    if facts["GatewayAddress"] not in ("", "0.0.0.0"):
        ip("route", "replace", "default", "via", facts["GatewayAddress"], "dev", interface, "onlink")


class DeviceService:
    """The device's facts, the calls it got, and how it behaves. `interface` is None or what a change sets."""

    def __init__(self, facts, behaviour, interface, verbose):
        self._start = facts, behaviour
        self._interface = interface
        self._verbose = verbose
        self._changed = threading.Event()
        self.reset()

    def reset(self):
        facts, behaviour = self._start
        self.facts = dict(facts)
        self.calls = collections.deque(maxlen=1000)
        self.behave(behaviour)
        return True

    def behave(self, settings):
        self.behaviour = {**NO_BEHAVIOUR, **settings}
        self._changed.set()
        return True

    def get_network(self, _params):
        return {"MethodID": "RPCConf::GetNetwork", **self._known(NETWORK), "iRet": 0}

    def set_network(self, params):
        self.facts.update({name: value for name, value in params.items() if name in NETWORK})
        self.facts["DHCPActive"] = int(params.get("DHCPActive", 0))   # a boolean in the call, a number in the facts
        if self._interface and not self.facts["DHCPActive"]:
            set_interface(self._interface, self.facts)
        return {"MethodID": "RPCConf::SetNetwork", "iRet": 0}

    def get_global_sys_infos(self, _params):
        return {"MethodID": "RPCMeas::GetGlobalSysInfos", **self._known(GLOBAL_SYS_INFOS)}

    def send_sys_cmd(self, _params):
        return {"MethodID": "RPCSys::SendSysCmd"}

    def _known(self, names):
        return {name: self.facts[name] for name in names if name in self.facts}

    def call(self, method, params, body):
        """Answers one call of the daemon, or raises the fault, or keeps it waiting."""
        self.calls.append({"method": method, "params": list(params), "body": xmlrpc.client.Binary(body)})
        if self._verbose:
            print(f"{method} {params}", flush=True)
        answers = {"RPCConf.GetNetwork": self.get_network, "RPCConf.SetNetwork": self.set_network,
                   "RPCMeas.GetGlobalSysInfos": self.get_global_sys_infos, "RPCSys.SendSysCmd": self.send_sys_cmd}
        misbehaves = self.behaviour["only"] in ("", method)
        if misbehaves and self.behaviour["silent"]:
            self._changed.clear()
            self._changed.wait()
            raise xmlrpc.client.Fault(1, "too late")
        if misbehaves and self.behaviour["slow"]:
            time.sleep(self.behaviour["slow"])
        if misbehaves and self.behaviour["fault"]:
            raise xmlrpc.client.Fault(self.behaviour["fault"], "told to fault")
        return answers[method](*params)   # another method is an error, which goes out as a fault of code 1

    def control(self, method, params):
        def set_facts(facts):
            self.facts.update(facts)
            return True

        def unset_facts(names):
            for name in names:
                self.facts.pop(name, None)
            return True

        def take_calls():
            taken = list(self.calls)
            self.calls.clear()
            return taken

        return {"Test.Behave": self.behave, "Test.Set": set_facts, "Test.Unset": unset_facts, "Test.Calls": take_calls,
                "Test.Facts": lambda: self.facts, "Test.Reset": self.reset}[method](*params)


class RequestHandler(xmlrpc.server.SimpleXMLRPCRequestHandler):
    """Keeps the connection open, unless told to close it after each answer."""

    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    rpc_paths = ("/RPC2",)

    def do_POST(self):
        super().do_POST()
        if self.server.service.behaviour["close"]:
            self.close_connection = True


class Server(socketserver.ThreadingMixIn, xmlrpc.server.SimpleXMLRPCServer):
    daemon_threads = True

    def __init__(self, address, service):
        super().__init__(address, RequestHandler, logRequests=False)
        self.service = service

    def handle_error(self, request, client_address):
        """A daemon that gives a connection up is nothing to report."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)

    def _marshaled_dispatch(self, data, dispatch_method=None, path=None):
        def dispatch(method, params):
            if method.startswith("Test."):
                return self.service.control(method, params)
            return self.service.call(method, params, data)
        return super()._marshaled_dispatch(data, dispatch, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--address", default="127.0.0.1", help="where to listen (%(default)s)")
    parser.add_argument("--port", type=int, default=1200, help="where to listen (%(default)s)")
    parser.add_argument("--set", metavar="NAME=VALUE", action="append", default=[], help="a fact, for instance "
                        "MACAddress=00:1b:c4:00:00:01; a number where the fact is one")
    parser.add_argument("--interface", help="the network settings are this interface's, and a change sets it")
    parser.add_argument("--slow", type=float, default=0.0, metavar="S", help="answer after S seconds")
    parser.add_argument("--silent", action="store_true", help="take calls and never answer")
    parser.add_argument("--fault", type=int, default=0, metavar="CODE", help="answer with this fault")
    parser.add_argument("--close", action="store_true", help="close the connection after each answer")
    parser.add_argument("--only", default="", metavar="METHOD", help="be slow, silent or faulty for this method alone")
    parser.add_argument("--verbose", action="store_true", help="print each call")
    options = parser.parse_args()

    facts = {**GLOBAL_SYS_INFOS, **NETWORK, **(read_interface(options.interface) if options.interface else {})}
    for name, separator, value in (setting.partition("=") for setting in options.set):
        if not separator or type(facts.get(name)) not in (str, int, float):
            parser.error(f"--set {name}: no such fact with one value (known: {', '.join(sorted(facts))})")
        facts[name] = type(facts[name])(value)
    behaviour = {name: getattr(options, name) for name in NO_BEHAVIOUR}
    service = DeviceService(facts, behaviour, options.interface, options.verbose)
    with Server((options.address, options.port), service) as server:
        print(f"device service listening on {options.address}:{options.port}", flush=True)
        try:
            server.serve_forever()
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main()
