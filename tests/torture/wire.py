"""What can befall a conversation at each of its bytes: the wire between a client and its daemon, which a fault acts on.

    cut:up=17             behind the 17th byte that the client sent, the connection that it went over ends
    kill:down=3           the client is killed when it has been sent three bytes
    interrupt:down=3      or Ctrl-C is typed then; what comes behind it is late
"""

import os
import signal
import threading

from lib.wire import Door, shut

ACTS = ("cut", "kill", "interrupt")
WAYS = ("up", "down")
LATE = 0.02  # seconds


class Wire:
    """Passes bytes on between whoever connects to `address` and the daemon at `to`."""

    def __init__(self, address, to):
        self.address = str(address)
        self.arm(None)
        self._door = Door(self.address, to, self._serve)

    @property
    def passed(self):
        """How many bytes went each way, over all connections since arm()."""
        return self._current.passed

    def arm(self, fault):
        """Counts from nothing; `fault` (None: none) will befall the client that began() then tells. What is left of earlier
        connections has no part in it."""
        self._current = Passage(fault)

    def began(self, pid):
        self._current.began(pid)

    def close(self):
        self._door.close()

    def _serve(self, near, far):
        current = self._current
        for way, one, other in (("up", near, far), ("down", far, near)):
            threading.Thread(target=current.carry, args=(way, one, other), daemon=True).start()


class Passage:
    """The connections of one client, and the fault that befalls it."""

    def __init__(self, fault):
        self.passed = dict.fromkeys(WAYS, 0)
        self._lock = threading.Lock()
        self._fault = fault
        self._client = None
        self._began = threading.Event()

    def began(self, pid):
        self._client = pid
        self._began.set()

    def carry(self, way, one, other):
        try:
            while data := one.recv(65536):
                first, rest = self._divide(way, data)
                other.sendall(first)
                if rest is None:
                    continue
                if not self._befall():
                    break
                other.sendall(rest)
        except OSError:
            pass
        shut(one, other)

    def _divide(self, way, data):
        """What goes before the fault, and what behind it; that is None when the fault is elsewhere."""
        with self._lock:
            before = self.passed[way]
            self.passed[way] += len(data)
            if self._fault is None or self._fault.error != way or not before < self._fault.number <= self.passed[way]:
                return data, None
            at = self._fault.number - before
            return data[:at], data[at:]

    def _befall(self):
        """Lets the fault happen. Whether the connection goes on."""
        if self._fault.call == "cut":
            return False
        self._began.wait()
        try:
            os.kill(self._client, signal.SIGKILL if self._fault.call == "kill" else signal.SIGINT)
        except ProcessLookupError:
            pass
        threading.Event().wait(LATE)
        return True
