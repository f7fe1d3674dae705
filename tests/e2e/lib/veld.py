"""The real daemon, private to one test."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

from . import settings
from .program import peak_kib
from .wire import Peer, connect


def model_path(model):
    """The file of a model: a path, or the name of one that comes with the project."""
    path = Path(model)
    if path.is_absolute() or path.exists():
        return path
    for candidate in (settings.MODELS / model, settings.MODELS / f"{model}.json"):
        if candidate.exists():
            return candidate
    raise FileNotFoundError(f"no model {model} in {settings.MODELS}")


class Veld:
    """A veld with its socket at `address`. `log` is what it has written; `start` after `stop` or `kill` brings it back."""

    def __init__(self, sandbox, model="gateway", options=(), socket=None, env=None):
        self.sandbox = sandbox
        self.socket = Path(socket) if socket else sandbox.new_socket()
        self.address = str(self.socket)
        self.argv = [str(settings.VELD), "--socket", self.address, "--model", str(model_path(model)), *map(str, options)]
        self.env = sandbox.environment(env)
        self.log_file = self.socket.with_suffix(".log")
        self.process = None
        self.peers = []
        self.start()

    @property
    def log(self):
        return self.log_file.read_text(errors="replace") if self.log_file.exists() else ""

    @property
    def pid(self):
        return self.process.pid

    def start(self):
        self.wanted_end = False
        with open(self.log_file, "ab") as log:
            self.process = subprocess.Popen(
                self.argv, env=self.env, cwd=self.sandbox.work, stdin=subprocess.DEVNULL, stdout=log, stderr=log
            )
        self.wait_until_up()
        return self

    def wait_until_up(self, timeout=None, address=None):
        """Returns once the daemon accepts connections at its socket, or another address of its; it opens one after the other."""
        moment = settings.deadline(timeout)
        while True:
            try:
                connect(address or self.address).close()
                return
            except OSError:
                pass
            if self.process.poll() is not None:
                raise AssertionError(f"veld ended with status {self.process.returncode}\n{self.report()}")
            if settings.remaining(moment) == 0:
                raise AssertionError(f"veld does not accept\n{self.report()}")
            time.sleep(0.002)

    def tcp_address(self):
        """The TCP address that the daemon says it listens on."""
        moment = settings.deadline()
        while settings.remaining(moment):
            found = re.search(r"^listening on (tcp://\S+)$", self.log, re.M)
            if found:
                return found[1]
            time.sleep(0.005)
        raise AssertionError(self.report())

    def connect(self):
        """A raw connection of a client."""
        peer = Peer(self.address)
        self.peers.append(peer)
        return peer

    def call(self, method, **params):
        """One request on a connection of its own."""
        with Peer(self.address) as peer:
            return peer.call(method, **params)

    def value(self, name):
        """The value of one parameter."""
        return self.call("GetParameterValues", ParameterNames=[name])["ParameterList"][0]["Value"]

    def set_values(self, values):
        entries = [{"Name": name, "Value": value} for name, value in values.items()]
        return self.call("SetParameterValues", ParameterList=entries)

    def stop(self, timeout=None):
        """Asks the daemon to end and returns its exit status."""
        self.wanted_end = True
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(settings.DEADLINE if timeout is None else timeout * settings.PATIENCE)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                raise AssertionError(f"veld does not end\n{self.report()}") from None
        return self.process.returncode

    def kill(self):
        """Ends the daemon without warning."""
        self.wanted_end = True
        if self.process.poll() is None:
            self.process.kill()
        return self.process.wait()

    def restart(self):
        self.stop()
        return self.start()

    def peak_kib(self):
        """Peak resident memory so far, in KiB."""
        return peak_kib(self.pid)

    def close(self):
        for peer in self.peers:
            peer.close()
        ended_by_itself = self.process.poll() is not None and not self.wanted_end
        status = self.process.returncode if self.process.poll() is not None else self.stop()
        if os.path.lexists(self.address):
            os.unlink(self.address)
        assert not ended_by_itself, f"veld ended by itself with status {status}\n{self.report()}"
        assert status in (0, -signal.SIGKILL), f"veld ended with status {status}\n{self.report()}"

    def report(self):
        return f"$ {' '.join(self.argv)}\n{self.log[-4000:]}"

    def __repr__(self):
        return self.report()
