"""Daemons that a sound client talks to: the kinds of them that scenarios.py has."""

import os
import shutil
import signal
import ssl
import subprocess

from faults import BOUND, Run, finish, wait_until
from lib import settings
from lib.certificate import make_certificate
from lib.veld import Veld, model_path
from lib.wire import Closed, Peer, WireError, connect

SMALL = settings.SOURCE / "tests" / "e2e" / "models" / "small.json"


class Daemon:
    """veld on a state directory. `talk(peer, promise)` works on it, and calls promise(values) for what one of the answers
    has promised to keep; `saved` is what the state holds before. Whatever happens, a sound veld then starts on that state and
    finds each value as it was last promised, or as one of those that were under way.
    """

    needs_daemon = False  # it is one
    options = ()

    def __init__(self, name, talk=None, saved=None, may_be=()):
        self.name, self.talk, self.saved, self.may_be = name, talk, saved, may_be

    def run(self, place, injector, fault=None, watch=False):
        box = place.sandbox
        shutil.rmtree(box.work)
        box.work.mkdir()
        promised = "FACTORY"
        if self.saved:
            with sound(box) as before:
                keep(Peer(before.address), self.saved)
            promised = self.saved
        address = str(box.new_socket())
        argv, env = injector.command(daemon_argv(box, address) + self.more(box), box.environment(), fault, watch)
        process = subprocess.Popen(
            argv, env=env, cwd=box.work, start_new_session=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )  # fmt: skip
        said = []

        def promise(value):
            nonlocal promised
            promised = value
            said.append(f"promised {value}")

        wait_until(lambda: os.path.exists(address) or process.poll() is not None, BOUND)
        for _ in range(3):  # a link that is lost is made again, as a client does
            said.clear()
            try:
                self.converse(box, address, promise)
                said.append("done")
                break
            except (OSError, Closed):
                continue
            except WireError as error:
                said.append(f"refused: {error}")
                break
        end(process)
        status, out, err = finish(process, BOUND)
        done = Run(status, out + "\n".join(said), err, injector.injected())
        done.problem = self.state_problem(box, promised)
        return done

    def more(self, box):
        """Further options."""
        return []

    def connect(self, box, address):
        return Peer(address)

    def converse(self, box, address, promise):
        with self.connect(box, address) as peer:
            if self.talk:
                self.talk(peer, promise)

    def state_problem(self, box, promised):
        try:
            with sound(box) as after:
                value = after.value("Device.Name")
        except AssertionError as error:
            return f"a sound daemon does not start on what is left: {error}"
        allowed = {promised, *self.may_be}
        if "FACTORY" in allowed:
            allowed.add(FACTORY)
        return "" if value in allowed else f"Device.Name is {value!r}, promised was {promised!r}"


class SecureDaemon(Daemon):
    """veld that speaks TLS alone."""

    def more(self, box):
        if not (box.root / "cert.pem").exists():
            make_certificate(box.root)
        return ["--tls-cert", box.root / "cert.pem", "--tls-key", box.root / "key.pem"]

    def connect(self, box, address):
        context = ssl.create_default_context(cafile=box.root / "cert.pem")
        return Peer(address, context.wrap_socket(connect(address), server_hostname="localhost"))


class FlashedDaemon(Daemon):
    """veld that is brought new firmware."""

    def converse(self, box, address, promise):
        (box.work / "payload").write_bytes(b"payload\n" * 500)
        subprocess.run([settings.VELD, *IMAGE], cwd=box.work, check=True)
        words = [settings.KEST, "-u", address, "-r", "upgrade", "image"]
        try:
            subprocess.run(words, cwd=box.work, env=box.environment(), capture_output=True, timeout=BOUND, check=False)
        except subprocess.TimeoutExpired:
            pass  # the device is gone, which others judge


IMAGE = ["--make-image", "1.3.0", "--payload", "payload", "--output", "image"]
FACTORY = "box"


def end(process):
    """Asks a daemon to end; through strace, which passes nothing on."""
    if process.poll() is not None:
        return
    pid = process.pid
    if process.args[0] == "/usr/bin/strace":
        with open(f"/proc/{pid}/task/{pid}/children") as children:
            below = children.read().split()
        pid = int(below[0]) if below else 0
    if pid:
        os.kill(pid, signal.SIGTERM)


def daemon_argv(box, address):
    options = ["--state", box.work / "state", "--anonymous", "admin", "--reboot-time", "0.05", "--flash-time", "0.05"]
    return [settings.VELD, "--socket", address, "--model", model_path(SMALL), *options]


class sound:
    """A daemon without faults on the state of a sandbox."""

    def __init__(self, box):
        self.veld = Veld(box, SMALL, daemon_argv(box, "")[5:])

    def __enter__(self):
        return self.veld

    def __exit__(self, *_):
        self.veld.close()


def rename(peer, value):
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": value}])


def keep(peer, value):
    """Changes the value that is looked for afterwards, and saves it."""
    rename(peer, value)
    peer.call("SaveConfig")
