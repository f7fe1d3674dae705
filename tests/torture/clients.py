"""Clients that talk to a sound daemon, and programs that only write a file: the kinds of them that scenarios.py has."""

import os
import pty
import select
import shutil
import signal
import struct
import subprocess
import termios
import time
from fcntl import ioctl

from faults import BOUND, Run, finish
from lib import settings
from lib.certificate import make_certificate
from lib.wire import Closed

PROMPT = b"> "


class Client:
    """kest, on pipes, with a daemon that lets everybody do everything.

    `files` are laid into its working directory first; each of `whole` is afterwards as it was, or as a run without faults
    leaves it, or as `begun` says. `sets` is a parameter and its new value: acknowledged, it is there; otherwise it may be. The daemon
    is a new one after so many runs (`renews`).
    """

    program = settings.KEST
    needs_daemon = True
    options = ()  # of the daemon

    def __init__(self, name, *words, stdin=None, files=None, whole=(), begun=None, sets=None, history=False, renews=0):
        self.name, self.words, self.stdin, self.files = name, words, stdin, files or {}
        self.whole, self.begun, self.sets, self.history, self.renews = whole, begun or {}, sets, history, renews
        self.runs = 0
        self.finished = {}  # what a run without faults leaves of `whole`

    def argv(self, place, wire=None):
        if not self.needs_daemon:
            return [self.program, *self.words]
        return [self.program, "-u", (wire or place.daemon()).address, *self.words]

    def run(self, place, injector, fault=None, watch=False):
        box = place.sandbox
        shutil.rmtree(box.work)
        box.work.mkdir()
        self.runs += 1
        if self.renews and self.runs % self.renews == 0:
            place.renew()
        before = {}
        for name, content in self.files.items():
            (box.work / name).write_text(content)
            before[name] = content
        if self.history:
            for left in box.tmp.glob(".kest*"):
                left.unlink()
            before["history"] = "old line\n"
            (box.tmp / ".kest.hist").write_text(before["history"])
        if self.sets:
            place.daemon().set_values({self.sets[0]: place.old_value})
        wire = place.wire(fault) if fault and fault.on_wire else None
        argv, env = injector.command(self.argv(place, wire), self.environment(box), fault, watch)
        done = self.go(box.wrap(argv) if self.history else argv, env, box.work, lambda pid: wire and wire.began(pid))
        done.injected = injector.injected()
        done.problem = done.problem or self.files_problem(box, before, fault, done) or self.value_problem(place, done)
        return done

    def environment(self, box):
        return box.environment()

    def go(self, argv, env, folder, began):
        """Runs it to its end; tells began(pid)."""
        process = subprocess.Popen(
            argv, env=env, cwd=folder, start_new_session=True,
            stdin=subprocess.DEVNULL if self.stdin is None else subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )  # fmt: skip
        began(process.pid)
        return Run(*finish(process, BOUND, self.stdin and self.stdin.encode()))

    def files_problem(self, box, before, fault, done):
        places = {name: box.work / name for name in self.whole}
        if self.history:
            places["history"] = box.tmp / ".kest.hist"
        for name, path in places.items():
            content = path.read_text(errors="replace") if path.exists() else None
            if fault is None:
                self.finished[name] = content
            elif content not in (before.get(name), self.finished[name], self.begun.get(name, before.get(name))) and not (
                name == "history" and self.is_history(content, before[name])
            ):
                done.excusable = done.status == 0
                return f"{name} is neither old nor new: {content!r}"
        return ""

    def is_history(self, content, before):
        """Whether it is the history from before and lines that were typed, or that a run without faults makes of them."""
        typed = {*self.stdin.splitlines(), *self.finished["history"].splitlines()}
        return content.startswith(before) and set(content[len(before) :].splitlines()) <= typed

    def value_problem(self, place, done):
        if not self.sets:
            return ""
        name, new = self.sets
        value = place.daemon().value(name)
        if value not in (new, place.old_value):
            return f"{name} is {value!r}"
        if value == place.old_value and done.status == 0:
            done.excusable = True  # where it said that the request failed
            return f"{name} is {value!r} after status 0"
        return ""


class Secure(Client):
    """kest, with a daemon that speaks TLS alone."""

    @staticmethod
    def options(box):
        certificate, key = make_certificate(box.root)
        return ["--tls-cert", certificate, "--tls-key", key]

    def environment(self, box):
        return box.environment({"SSL_CERT_FILE": str(box.root / "cert.pem")})


class Typed(Client):
    """kest on a terminal: each line of `stdin` is typed when a prompt stands. Afterwards the terminal echoes again."""

    SILENT = "the terminal does not echo"

    def run(self, place, injector, fault=None, watch=False):
        done = super().run(place, injector, fault, watch)
        if done.problem == self.SILENT and "TCSETS" in done.injected:  # it was not let
            done.problem = ""
        return done

    def go(self, argv, env, folder, began):
        master, slave = pty.openpty()
        ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, 80, 0, 0))
        process = subprocess.Popen(
            argv, env=env, cwd=folder, start_new_session=True, stdin=slave, stdout=slave, stderr=slave,
            preexec_fn=lambda: ioctl(0, termios.TIOCSCTTY, 0),
        )  # fmt: skip
        began(process.pid)
        lines = self.stdin.splitlines()
        shown, moment = bytearray(), time.monotonic() + BOUND
        typed = 0  # how much had been shown when the last line was
        while process.poll() is None and time.monotonic() < moment:
            ready = select.select([master], [], [], 0.3)[0]
            if ready:
                try:
                    shown += os.read(master, 65536)
                except OSError:
                    break
            if not ready or (lines and PROMPT in shown[typed:]):
                typed = len(shown)
                line = lines.pop(0) if lines else "q"  # again, where Ctrl-C has dropped it
                os.write(master, line.encode() + b"\r")
        status, _, _ = finish(process, max(0.1, moment - time.monotonic()))
        while select.select([master], [], [], 0)[0]:
            shown += os.read(master, 65536)
        text = shown.decode(errors="replace").replace("\r\n", "\n")
        done = Run(status, text, text, drawn=True)
        if not termios.tcgetattr(slave)[3] & termios.ECHO and status not in (None, -signal.SIGKILL):
            done.problem = self.SILENT
        os.close(master)
        os.close(slave)
        return done


class Upgrade(Client):
    """kest, and a device of its own that it brings new firmware: which version it has then, old or new, it answers."""

    OLD, VERSION = "1.2.3", "Device.DeviceInfo.SoftwareVersion"

    @staticmethod
    def options(box):
        return ["--state", box.root / "device", "--flash-time", "0.05", "--reboot-time", "0.05"]

    def __init__(self, name, version, stdin=None):
        super().__init__(name, "-r", "upgrade", "image", stdin=stdin)
        self.version = version

    def run(self, place, injector, fault=None, watch=False):
        place.renew()
        shutil.rmtree(place.sandbox.root / "device", ignore_errors=True)
        return super().run(place, injector, fault, watch)

    def argv(self, place, wire=None):
        box = place.sandbox
        (box.work / "payload").write_bytes(b"payload\n" * 500)
        how = ["--make-image", self.version, "--payload", "payload", "--output", "image"]
        subprocess.run([settings.VELD, *how], cwd=box.work, check=True)
        return super().argv(place, wire)

    def value_problem(self, place, done):
        """It may flash and start again until it rests at a version. How far it was seen to be is another each time."""
        done.drawn = True
        version = ""
        moment = time.monotonic() + BOUND
        while time.monotonic() < moment:
            try:
                version = place.daemon().value(self.VERSION)
                if version == self.version or done.status != 0:
                    break
            except (OSError, Closed):
                pass
            time.sleep(0.02)
        if version not in (self.OLD, self.version):
            return f"the device's version is {version!r}"
        if done.status == 0 and version == self.OLD:
            done.excusable = True
            return f"version {version} after status 0"
        return ""


class Maker(Client):
    """veld, when it makes a file and ends."""

    program = settings.VELD
    needs_daemon = False


class Alone(Client):
    """Any program without words."""

    needs_daemon = False

    def __init__(self, program):
        super().__init__(os.path.basename(program))
        self.program = program
