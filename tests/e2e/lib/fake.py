"""A daemon that follows a script: for exact sequences of requests, and for everything a real daemon would never do.

    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": 1}]})
    fake.on("Reboot", Error(9001, "Request denied"))
    fake.on("Login", [{}, Close()])                 # first answer, then (for all that follow) the last one
    fake.on("Ping", lambda request: {"echo": request.params})

    run = kest("-r", "get", "Device.A", to=fake)
    assert fake.methods() == ["JoinGroup", "GetParameterValues"]

It answers JoinGroup, Login and Logout with {} and every other method with -32601 unless the script says otherwise;
`serve` answers the queries of the data model from a table of names. All of it runs in one thread of its own.
"""

import heapq
import itertools
import json
import os
import selectors
import socket
import struct
import threading
import time
from dataclasses import dataclass, field

from . import settings


# What a request can be answered with, besides a dict (its result) and a callable (called with the Request; what it returns counts)


@dataclass
class Error:
    """An error answer."""

    code: int
    message: str
    data: dict = None


@dataclass
class Answer:
    """A whole answer object as it stands; `id` is filled in when it has none."""

    message: dict


@dataclass
class Silence:
    """No answer at all."""


@dataclass
class Close:
    """Closes the connection, after sending `first` (bytes) if there is any."""

    first: bytes = b""


@dataclass
class Reset:
    """Ends the connection with a reset."""


@dataclass
class Raw:
    """These bytes instead of an answer."""

    data: bytes


@dataclass
class Slow:
    """The answer, `seconds` later. Other requests are served meanwhile."""

    seconds: float
    answer: object


@dataclass
class Chunked:
    """The answer in pieces of `size` bytes, `pause` seconds apart."""

    answer: object
    size: int = 1
    pause: float = 0.0


@dataclass
class Several:
    """All of these, in order."""

    answers: list


@dataclass
class Request:
    """What a client sent: `connection` it came on, its place `number` among all requests, the whole `message`."""

    connection: object
    number: int
    message: dict
    raw: bytes
    time: float = field(default_factory=time.monotonic)

    @property
    def method(self):
        return self.message.get("method")

    @property
    def params(self):
        return self.message.get("params")

    @property
    def id(self):
        return self.message.get("id")

    def __repr__(self):
        return f"[{self.connection.number}] {self.raw.decode(errors='replace')}"


class Connection:
    """A client's connection, numbered from 0 in the order of their arrival."""

    def __init__(self, fake, link, number):
        self.fake = fake
        self.link = link
        self.number = number
        self.open = True
        self.receiver = False
        self.input = bytearray()
        self.output = bytearray()
        self.close_when_sent = False
        self.reading = True
        self.garbage = []

    def send(self, message):
        """Sends one JSON message."""
        self.send_raw(json.dumps(message, ensure_ascii=False, separators=(",", ":")).encode() + b"\n")

    def send_raw(self, data):
        self.fake._run(lambda: self.fake._send(self, data))

    def close(self):
        self.fake._run(lambda: self.fake._drop(self))

    def reset(self):
        self.fake._run(lambda: self.fake._drop(self, reset=True))

    def stop_reading(self):
        """From now on nothing is taken from this connection, so that its client's writes fill up."""

        def stop():
            self.reading = False
            self.fake._watch(self)

        self.fake._run(stop)


class Fake:
    def __init__(self, address):
        self.address = str(address)
        self.requests = []
        self.connections = []
        self.errors = []
        self._script = {"JoinGroup": {}, "Login": {}, "Logout": {}}
        self._default = Error(-32601, "Method not found")
        self._lock = threading.Condition()
        self._jobs = []
        self._timers = []
        self._order = itertools.count()
        self._selector = selectors.DefaultSelector()
        self._wake_read, self._wake_write = socket.socketpair()
        self._wake_read.setblocking(False)
        self._selector.register(self._wake_read, selectors.EVENT_READ, self._woken)
        self._listener = None
        self._stopped = False
        self._listen()
        self._thread = threading.Thread(target=self._loop, name="fake daemon", daemon=True)
        self._thread.start()

    # The script

    def on(self, method, *answers):
        """Answers `method` with these, one after the other; the last one stays. Several arguments or one list."""
        if len(answers) == 1 and isinstance(answers[0], list):
            answers = answers[0]
        with self._lock:
            self._script[method] = list(answers) if len(answers) != 1 else answers[0]
        return self

    def otherwise(self, answer):
        """Answers every method that the script does not name."""
        with self._lock:
            self._default = answer
        return self

    def serve(self, scheme):
        """Answers the model's queries and settings from a table, see `Scheme`. Returns the Scheme."""
        if not isinstance(scheme, Scheme):
            scheme = Scheme(scheme)
        for method in ("GetParameterNames", "GetParameterAttributes", "GetParameterValues", "SetParameterValues"):
            self.on(method, getattr(scheme, method))
        return scheme

    # What came in

    def methods(self, but=()):
        """The methods asked for, in order, over all connections; `but` names the ones to leave out."""
        return [request.method for request in list(self.requests) if request.method not in but]

    def of(self, method):
        """The requests of one method, in order."""
        return [request for request in list(self.requests) if request.method == method]

    def params(self, method):
        """The parameters of each request of one method, in order."""
        return [request.params for request in self.of(method)]

    def wait_for(self, what, timeout=None):
        """Waits until `what` holds and returns it: a method somebody asked for, or a function of this fake."""
        check = what if callable(what) else lambda fake: fake.of(what)
        moment = settings.deadline(timeout)
        with self._lock:
            while True:
                held = check(self)
                if held:
                    return held
                if settings.remaining(moment) == 0:
                    raise AssertionError(f"never happened: {what!r}\n{self.report()}")
                self._lock.wait(min(0.5, settings.remaining(moment)))

    # What the daemon does on its own

    @property
    def open_connections(self):
        return [connection for connection in self.connections if connection.open]

    def receivers(self):
        """The connections on which events are read."""
        return [connection for connection in self.open_connections if connection.receiver]

    def event(self, number, *value):
        """Sends an event, with at most one value, to everybody who reads events."""
        params = {"Id": number}
        if value:
            params["Value"] = value[0]
        for connection in self.wait_for(lambda fake: fake.receivers()):
            connection.send({"jsonrpc": "2.0", "method": "Event", "params": params})

    def drop_all(self, reset=False):
        """Closes every connection; new ones are accepted."""
        self._run(lambda: [self._drop(connection, reset) for connection in self.open_connections])

    def go_down(self):
        """Closes everything and stops listening, until `come_back`."""

        def down():
            self._close_listener()
            for connection in self.open_connections:
                self._drop(connection)

        self._run(down)

    def refuse(self):
        """Stops listening, until `come_back`; what is connected stays."""
        self._run(self._close_listener)

    def come_back(self):
        self._run(self._listen)

    def close(self):
        if self._stopped:
            return
        self._stopped = True
        self._wake()
        self._thread.join(settings.DEADLINE)
        for connection in self.open_connections:
            connection.link.close()
        self._close_listener()
        self._wake_read.close()
        self._wake_write.close()
        self._selector.close()

    def report(self):
        return "asked for:\n" + "\n".join(repr(request)[:500] for request in self.requests[-50:])

    def __repr__(self):
        return self.report()

    # The thread

    def _run(self, job):
        """Runs `job` in the daemon's thread and waits for it."""
        if threading.current_thread() is self._thread:
            job()
            return
        done = threading.Event()
        with self._lock:
            self._jobs.append((job, done))
        self._wake()
        if not done.wait(settings.DEADLINE):
            raise AssertionError("the fake daemon is stuck")

    def _wake(self):
        try:
            self._wake_write.send(b"x")
        except OSError:
            pass

    def _woken(self, _):
        self._wake_read.recv(4096)

    def _listen(self):
        if self._listener is not None:
            return
        if self.address.startswith("tcp://"):
            host, _, port = self.address[len("tcp://") :].rpartition(":")
            host = host.strip("[]")
            family = socket.AF_INET6 if ":" in host else socket.AF_INET
            listener = socket.socket(family, socket.SOCK_STREAM)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((host, int(port)))
            shown = f"[{host}]" if family == socket.AF_INET6 else host
            self.address = f"tcp://{shown}:{listener.getsockname()[1]}"
        else:
            if os.path.lexists(self.address):
                os.unlink(self.address)
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            listener.bind(self.address)
        listener.listen(128)
        listener.setblocking(False)
        self._listener = listener
        self._selector.register(listener, selectors.EVENT_READ, self._accept)

    def _close_listener(self):
        if self._listener is not None:
            try:
                self._selector.unregister(self._listener)
            except KeyError:
                pass
            self._listener.close()
            self._listener = None

    def _loop(self):
        while not self._stopped:
            pause = None
            with self._lock:
                jobs, self._jobs = self._jobs, []
                if self._timers:
                    pause = max(0.0, self._timers[0][0] - time.monotonic())
            for job, done in jobs:
                self._guard(job)
                done.set()
            if jobs:
                continue
            for key, mask in self._selector.select(pause):
                self._guard(lambda: key.data(mask))
            while self._timers and self._timers[0][0] <= time.monotonic():
                self._guard(heapq.heappop(self._timers)[2])

    def _guard(self, job):
        try:
            job()
        except Exception as error:  # a mistake in a test's script must not look like a dead daemon
            self.errors.append(error)
        with self._lock:
            self._lock.notify_all()

    def _later(self, seconds, job):
        heapq.heappush(self._timers, (time.monotonic() + seconds, next(self._order), job))

    def _accept(self, _):
        link, _ = self._listener.accept()
        link.setblocking(False)
        connection = Connection(self, link, len(self.connections))
        with self._lock:
            self.connections.append(connection)
        self._watch(connection)

    def _watch(self, connection):
        mask = (selectors.EVENT_READ if connection.reading else 0) | (selectors.EVENT_WRITE if connection.output else 0)
        known = connection.link in self._selector.get_map()
        if not mask or not connection.open:
            if known:
                self._selector.unregister(connection.link)
        elif known:
            self._selector.modify(connection.link, mask, lambda ready: self._serve(connection, ready))
        else:
            self._selector.register(connection.link, mask, lambda ready: self._serve(connection, ready))

    def _drop(self, connection, reset=False):
        if not connection.open:
            return
        if connection.link in self._selector.get_map():
            self._selector.unregister(connection.link)
        if reset:
            if connection.link.family == socket.AF_UNIX:
                pass  # closing with unread input resets the peer; there is no other way on this family
            else:
                connection.link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.link.close()
        with self._lock:
            connection.open = False

    def _serve(self, connection, ready):
        if ready & selectors.EVENT_WRITE:
            self._flush(connection)
        if ready & selectors.EVENT_READ and connection.open:
            try:
                data = connection.link.recv(1 << 20)
            except BlockingIOError:
                return
            except OSError:
                data = b""
            if not data:
                self._drop(connection)
                return
            connection.input += data
            while connection.open and b"\n" in connection.input:
                line, _, rest = connection.input.partition(b"\n")
                connection.input = bytearray(rest)
                self._request(connection, bytes(line))

    def _request(self, connection, line):
        try:
            message = json.loads(line)
        except ValueError:
            connection.garbage.append(line)
            return
        with self._lock:
            request = Request(connection, len(self.requests), message, line)
            self.requests.append(request)
            if request.method == "JoinGroup" and (request.params or {}).get("Receiver") is True:
                connection.receiver = True
            answer = self._script.get(request.method, self._default)
            if isinstance(answer, list):
                answer = answer.pop(0) if len(answer) > 1 else answer[0]
        if "id" in message:
            self._answer(request, answer)

    def _answer(self, request, answer):
        connection = request.connection
        if callable(answer):
            answer = answer(request)
        if isinstance(answer, Slow):
            self._later(answer.seconds, lambda: self._answer(request, answer.answer))
        elif isinstance(answer, Several):
            for each in answer.answers:
                self._answer(request, each)
        elif isinstance(answer, Silence) or answer is None:
            pass
        elif isinstance(answer, Close):
            connection.close_when_sent = True
            self._send(connection, answer.first)
        elif isinstance(answer, Reset):
            self._drop(connection, reset=True)
        elif isinstance(answer, Chunked):
            data = self._encode(request, answer.answer)
            pieces = [data[at : at + answer.size] for at in range(0, len(data), answer.size)]
            for index, piece in enumerate(pieces):
                if answer.pause:
                    self._later(index * answer.pause, lambda piece=piece: self._send(connection, piece))
                else:
                    self._send(connection, piece)
        else:
            self._send(connection, self._encode(request, answer))

    def _encode(self, request, answer):
        if isinstance(answer, Raw):
            return answer.data
        if isinstance(answer, Answer):
            message = dict(answer.message)
            message.setdefault("id", request.id)
        elif isinstance(answer, Error):
            error = {"code": answer.code, "message": answer.message}
            if answer.data is not None:
                error["data"] = answer.data
            message = {"jsonrpc": "2.0", "id": request.id, "error": error}
        else:
            message = {"jsonrpc": "2.0", "id": request.id, "result": answer}
        return json.dumps(message, ensure_ascii=False, separators=(",", ":")).encode() + b"\n"

    def _send(self, connection, data):
        if connection.open:
            connection.output += data
            self._flush(connection)

    def _flush(self, connection):
        try:
            while connection.output:
                with memoryview(connection.output) as view:
                    sent = connection.link.send(view[: 1 << 20])
                del connection.output[:sent]
        except BlockingIOError:
            pass
        except OSError:
            self._drop(connection)
            return
        if not connection.output and connection.close_when_sent:
            self._drop(connection)
        else:
            self._watch(connection)


class Scheme:
    """A small data model out of a table: name → what it is, in the model's order.

        Scheme({
            "Device.": {},
            "Device.Name": "box",                                   # a text that may be written
            "Device.Count": {"type": "unsignedInt", "access": "readOnly", "value": 3},
            "Device.Host.": {"multi": True},
            "Device.Host.{i}.": {}, "Device.Host.{i}.Alias": "",    # what every instance looks like
            "Device.Host.1.": {}, "Device.Host.1.Alias": "first",
            "Device.Ping": {"type": "method"},
        })

    A plain value stands for a parameter of the fitting type. A dict holds attributes, and "value" for a parameter.
    `names` is the table itself: tests change it while it is served.
    """

    TYPES = ((bool, "boolean", False), (int, "int", 0), (float, "decimal", 0.0), (str, "string", ""))

    def __init__(self, names):
        self.names = {}
        for name, what in names.items():
            self.add(name, what)

    def add(self, name, what):
        if not isinstance(what, dict):
            kind, default = next((word, default) for type_, word, default in self.TYPES if isinstance(what, type_))
            what = {"type": kind, "access": "readWrite", "perms": "rw", "default": default, "value": what}
        entry = dict(what)
        if name.endswith("."):
            entry.setdefault("type", "object")
        entry.setdefault("access", "readOnly")
        entry.setdefault("perms", "rw" if entry["access"] == "readWrite" else "r")
        self.names[name] = entry

    def _attributes(self, name):
        return {key: value for key, value in self.names[name].items() if key != "value"}

    def _resolve(self, text):
        """The name in the answers' spelling, "" for the root, or None."""
        name = text.lstrip(":") if text else "."
        if name == ".":
            return ""
        for candidate in (name, name + ".", name.rstrip(".")):
            if candidate in self.names:
                return candidate
        return None

    def _children(self, name):
        """(name, levels below) of everything below an object, instances of the template left out."""
        for other in self.names:
            if other != name and other.startswith(name) and "{i}" not in other[len(name) :]:
                yield other, other[len(name) :].rstrip(".").count(".") + 1

    def _is_parameter(self, name):
        return not name.endswith(".") and self.names[name].get("type") != "method"

    def GetParameterNames(self, request):
        name = self._resolve(request.params["ParameterPath"])
        if name is None:
            return Error(9005, "Invalid parameter name")
        names = [other for other, depth in self._children(name) if depth == 1 or not request.params.get("NextLevel")]
        if not request.params.get("NextLevel") and name:
            names.insert(0, name)
        return {"ParameterList": [{"Name": each, "Writable": self.names[each]["access"] == "readWrite"} for each in names]}

    def GetParameterAttributes(self, request):
        asked = request.params["ParameterNames"]
        depth = request.params.get("Depth")
        found = []
        for text in asked:
            name = self._resolve(text)
            if name is None:
                if len(asked) == 1:
                    return Error(9005, "Invalid parameter name")
                continue
            levels = depth
            if levels is None:
                levels = 1000 if name and self.names[name].get("type") == "method" else 1
            if name:
                found.append(self._entry(name, levels))
            if name == "" or name.endswith(".") or self.names[name].get("type") == "method":
                below = name if name.endswith(".") or not name else name + "."
                found += [self._entry(other, levels - at) for other, at in self._children(below) if at <= levels]
        return {"ParameterList": found}

    def _entry(self, name, levels):
        entry = {"Name": name, "Attributes": self._attributes(name)}
        if self.names[name].get("multi") and levels >= 1:
            base = name + "{i}"
            own = base + "." if base + "." in self.names else base
            entry["Template"] = [{"Name": "", "Attributes": self._attributes(own)}]
            for other in self.names:
                rest = other[len(own) :]
                if own.endswith(".") and other.startswith(own) and rest and rest.rstrip(".").count(".") == 0:
                    entry["Template"].append({"Name": rest, "Attributes": self._attributes(other)})
        return entry

    def GetParameterValues(self, request):
        asked = request.params["ParameterNames"]
        found = []
        for text in asked:
            name = self._resolve(text)
            if name is None or (name and not name.endswith(".") and not self._is_parameter(name)):
                if len(asked) == 1:
                    return Error(9005, "Invalid parameter name")
                continue
            names = [name] if name and self._is_parameter(name) else [other for other, _ in self._children(name)]
            found += [{"Name": each, "Value": self.names[each]["value"]} for each in names if self._is_parameter(each)]
        return {"ParameterList": found}

    def SetParameterValues(self, request):
        entries = request.params["ParameterList"]
        bad = {entry["Name"]: "Invalid parameter name" for entry in entries if entry["Name"] not in self.names}
        if bad:
            return Error(9003, "Invalid arguments", bad)
        for entry in entries:
            self.names[entry["Name"]]["value"] = entry["Value"]
        return {"Status": 0}
