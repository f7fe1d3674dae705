"""The wire, from a test's hand: one JSON object per line over a stream socket."""

import json
import os
import socket
import threading

from . import settings


class WireError(Exception):
    """An error answer."""

    def __init__(self, error):
        super().__init__(f"{error.get('code')}: {error.get('message')}")
        self.code = error.get("code")
        self.message = error.get("message")
        self.data = error.get("data")


class Closed(Exception):
    """The peer closed the connection."""


def connect(address, timeout=None):
    """A connected socket to a path or tcp://HOST:PORT."""
    address = str(address)
    if address.startswith("tcp://"):
        host, _, port = address[len("tcp://") :].rpartition(":")
        return socket.create_connection((host.strip("[]"), int(port)), settings.DEADLINE)
    link = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        link.connect(address)  # blocking: a full backlog is waited for, which a time-out would make an error
        link.settimeout(settings.DEADLINE if timeout is None else timeout)
    except OSError:
        link.close()
        raise
    return link


class Peer:
    """A client connection to a daemon, for what kest itself would never send.

        peer = veld.connect()
        peer.call("GetParameterValues", ParameterNames=["Device.DeviceInfo.Uptime"])

    `call` returns the result or raises WireError; what arrives meanwhile without an id is kept in `events`.
    """

    def __init__(self, address, link=None):
        self.link = link or connect(address)
        self.buffer = bytearray()
        self.events = []
        self.answers = {}  # by id: those that came before they were asked for
        self.last_id = 0

    def send(self, message):
        self.send_raw(json.dumps(message, ensure_ascii=False, separators=(",", ":")).encode() + b"\n")

    def send_raw(self, data):
        self.link.sendall(data)

    def receive(self, timeout=None):
        """The next message, as JSON. TimeoutError when none comes in time, Closed when none can come."""
        moment = settings.deadline(timeout)
        while b"\n" not in self.buffer:
            self.link.settimeout(max(0.001, settings.remaining(moment)))
            try:
                data = self.link.recv(1 << 20)
            except ConnectionResetError:
                data = b""
            if not data:
                raise Closed()
            self.buffer += data
        line, _, rest = self.buffer.partition(b"\n")
        self.buffer = bytearray(rest)
        return json.loads(line)

    def request(self, method, params=None):
        """Sends a request and returns its id."""
        self.last_id += 1
        message = {"jsonrpc": "2.0", "id": self.last_id, "method": method}
        if params is not None:
            message["params"] = params
        self.send(message)
        return self.last_id

    def answer(self, number, timeout=None):
        """The answer to the request `number`, whole."""
        while number not in self.answers:
            message = self.receive(timeout)
            if "method" in message:
                self.events.append(message)
            else:
                self.answers[message.get("id")] = message
        return self.answers.pop(number)

    def call(self, method, timeout=None, **params):
        message = self.answer(self.request(method, params or None), timeout)
        if "error" in message:
            raise WireError(message["error"])
        return message["result"]

    def join(self, group, **members):
        return self.call("JoinGroup", Group=group, **members)

    def event(self, timeout=None):
        """The next event as (id, value); value is None when there is none."""
        message = self.events.pop(0) if self.events else self.receive(timeout)
        return message["params"]["Id"], message["params"].get("Value")

    def send_event(self, number, *value):
        params = {"Id": number}
        if value:
            params["Value"] = value[0]
        self.send({"jsonrpc": "2.0", "method": "Event", "params": params})

    def closed(self, timeout=None):
        """Whether the daemon closes this connection before the deadline."""
        try:
            while True:
                self.receive(timeout)
        except Closed:
            return True
        except TimeoutError:
            return False

    def close(self):
        self.link.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Door:
    """Listens at `address` in front of the daemon at `to`: whoever comes gets a link to that of his own. Both ends, blocking,
    are handed to serve(near, far) on a thread of the door's."""

    def __init__(self, address, to, serve):
        self.address, self.to, self.serve = str(address), to, serve
        self.open()

    def open(self):
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.address)
        self._listener.listen(64)
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def close(self):
        """Nobody comes any more; the links that are there stay."""
        shut(self._listener)
        self._listener.close()
        if os.path.lexists(self.address):
            os.unlink(self.address)

    def _accept(self, listener):
        while True:
            try:
                near, _ = listener.accept()
            except OSError:
                return
            try:
                far = connect(self.to)
            except OSError:
                near.close()
                continue
            far.settimeout(None)
            self.serve(near, far)


def shut(*links):
    """Ends links, whoever reads from them at the moment."""
    for link in links:
        try:
            link.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
