"""A device service without an XML-RPC library, for the soak and the faults: fast while it is well, and wrong in any way
that a test can write down in bytes. Its record is the one of lab/device_service.py at its start."""

import contextlib
import socket
import threading
import xmlrpc.client

import device_service

PORT = 1200
_END = b"</methodCall>\r\n"


def _document(answer):
    text = xmlrpc.client.dumps((answer,), methodresponse=True, encoding="ISO-8859-1").encode("latin-1")
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(text) + text


_SERVICE = device_service.DeviceService({**device_service.GLOBAL_SYS_INFOS, **device_service.NETWORK}, {}, None, False)
ANSWERS = {method: _document(answer) for method, answer in (
    (b"RPCMeas.GetGlobalSysInfos", _SERVICE.get_global_sys_infos(None)), (b"RPCConf.GetNetwork", _SERVICE.get_network(None)),
    (b"RPCConf.SetNetwork", {"MethodID": "RPCConf::SetNetwork", "iRet": 0}),
    (b"RPCSys.SendSysCmd", {"MethodID": "RPCSys::SendSysCmd"}))}


def well(connection, method):
    connection.sendall(ANSWERS[method])


class RawService:
    """Listens on `host` from start() to stop(); each call is answered by `answer(connection, method)`, which may raise
    ConnectionError to close the connection."""

    def __init__(self, host, answer=well):
        self._host, self.answer = host, answer
        self._listener, self._connections = None, set()
        self.accepted = self.calls = 0
        self.start()

    def start(self):
        with self._host.inside():
            self._listener = socket.create_server(("127.0.0.1", PORT))
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def stop(self):
        """Closes all at once, in the middle of a call too."""
        listener, self._listener = self._listener, None
        for one in (listener, *self._connections):
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)   # which ends its thread
        listener.close()

    def _accept(self, listener):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                self._connections.add(connection)
                self.accepted += 1
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with contextlib.suppress(OSError), connection:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            text = b""
            while piece := connection.recv(65536):
                text += piece
                if text.endswith(_END):
                    self.calls += 1
                    self.answer(connection, text.partition(b"<methodName>")[2].partition(b"<")[0])
                    text = b""
        self._connections.discard(connection)
