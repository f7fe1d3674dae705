"""A wire between a client and its daemon that a test can hold, cut and spoil.

    relay = relay_start(veld)
    term = shell(to=relay)
    relay.hold()                    # answers to requests wait; events still pass
    term.type("cat Device.Name\\r")
    relay.wait_held()
    term.type(Key.CTRL_C)
    relay.release()
"""

import json
import threading

from . import settings
from .wire import Door, connect, shut


class _Line:
    """One connection of the client, and the one that it has with the daemon."""

    def __init__(self, near, far):
        self.near, self.far = near, far
        self.receiver = False
        self.joins = []  # what made it one that reads events
        self.open = True

    def end(self):
        self.open = False
        shut(self.near, self.far)


class Relay:
    """Stands at `address` for the daemon at `to`. `requests` is what passed towards it, as messages.

    The connection that reads events also gets those of `group`, which outlives a cut of the others.
    """

    def __init__(self, address, to, group=12):
        self.group = group
        self.address = str(address)
        self.requests = []
        self.lines = []
        self.held = 0
        self._pass = None  # how many answers may still pass; None: all
        self._releases = 0
        self._absent = False  # the daemon is between its end and its next beginning
        self._faults = []
        self._changed = threading.Condition()
        self._door = Door(self.address, getattr(to, "address", to), self._serve)

    # What a test does

    def hold(self, after=0):
        """From now on answers wait, but for the next `after` ones."""
        with self._changed:
            self._pass = after
            self.held = 0

    def release(self):
        with self._changed:
            self._pass = None
            self.held = 0
            self._releases += 1
            self._changed.notify_all()

    def wait_held(self, otherwise=lambda: False):
        """Waits until an answer is held, or `otherwise` holds; whether one is."""
        moment = settings.deadline()
        with self._changed:
            while not self.held and not otherwise() and settings.remaining(moment):
                self._changed.wait(0.01)
            return self.held > 0

    def spoil(self, code, method="GetParameterAttributes"):
        """The next request for `method` is answered with this error and never reaches the daemon."""
        with self._changed:
            self._faults.append((method, code))

    def spare(self):
        """No more is spoiled. Whether something was still to be."""
        with self._changed:
            left, self._faults = self._faults, []
        return bool(left)

    def cut(self):
        """Ends the connections on which requests go; the one that reads events stays."""
        with self._changed:
            lines = [line for line in self.lines if line.open and not line.receiver]
            for line in lines:
                line.end()
            self._changed.notify_all()

    def leave(self):
        """The daemon is about to end: who reads events does not notice, the other connections end with it."""
        with self._changed:
            self._absent = True
        self._door.close()

    def come_back(self):
        """The daemon is there again: whoever reads events reads those of the new one."""
        with self._changed:
            self._absent = False
            for line in self.lines:
                if line.open and line.receiver:
                    line.far = connect(self._door.to)
                    line.far.settimeout(None)
                    line.far.sendall(b"".join(line.joins))
            self._changed.notify_all()
        self._door.open()

    def close(self):
        self._door.close()
        with self._changed:
            for line in self.lines:
                line.end()
            self._changed.notify_all()

    def report(self):
        return "passed on:\n" + "\n".join(json.dumps(request)[:300] for request in self.requests[-40:])

    # Its threads: the door's, and two for each connection

    def _serve(self, near, far):
        line = _Line(near, far)
        with self._changed:
            self.lines.append(line)
        threading.Thread(target=self._upwards, args=(line,), daemon=True).start()
        threading.Thread(target=self._downwards, args=(line,), daemon=True).start()

    def _upwards(self, line):
        try:
            for data in line.near.makefile("rb"):
                message = json.loads(data)
                with self._changed:
                    self.requests.append(message)
                    if (message.get("params") or {}).get("Receiver") is True:
                        line.receiver = True
                    if line.receiver and message.get("method") == "JoinGroup":
                        line.joins += [self._join(message, message["params"]["Group"]), self._join(message, self.group)]
                    fault = next((each for each in self._faults if each[0] == message.get("method")), None)
                    if fault:
                        self._faults.remove(fault)
                if fault:
                    error = {"code": fault[1], "message": "spoiled"}
                    self._answer(line, json.dumps({"jsonrpc": "2.0", "id": message["id"], "error": error}).encode() + b"\n")
                else:
                    line.far.sendall(data)
                    if line.receiver and message.get("method") == "JoinGroup":
                        line.far.sendall(line.joins[-1])
        except (OSError, ValueError):
            pass
        line.end()

    @staticmethod
    def _join(message, group):
        """The same of our own, whose answer is not passed on."""
        own = {**message, "id": "relay", "params": {**message["params"], "Group": group}}
        return json.dumps(own).encode() + b"\n"

    def _downwards(self, line):
        far = None
        while far is not line.far:
            far = line.far
            try:
                for data in far.makefile("rb"):
                    if b'"id":"relay"' not in data:
                        self._answer(line, data)
            except (OSError, ValueError):
                pass
            if line.receiver:
                with self._changed:
                    self._changed.wait_for(lambda: not self._absent or not line.open)
        line.end()
        line.near.close()

    def _answer(self, line, data):
        with self._changed:
            if not line.receiver and self._pass is not None:
                if self._pass > 0:
                    self._pass -= 1
                else:
                    self.held += 1
                    self._changed.notify_all()
                    # What was released goes, though others may be held before this thread has seen it.
                    before = self._releases
                    self._changed.wait_for(lambda: self._releases != before or not line.open)
        line.near.sendall(data)
