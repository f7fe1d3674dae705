"""What is tortured: clients that talk to a sound daemon, programs that only write a file, and daemons that a sound client talks to.

A scenario has a `name`, and `run(place, injector, fault, watch)` → Run, whose `problem` is what it found wrong
by itself: a file in pieces, an acknowledged change that is lost.
"""

import os
import pty
import select
import shutil
import signal
import ssl
import struct
import subprocess
import termios
import time
from fcntl import ioctl

from faults import Run, finish, wait_until
from lib import settings
from lib.certificate import make_certificate
from lib.veld import Veld, model_path
from lib.wire import Closed, Peer, WireError, connect

BOUND = 5 * settings.PATIENCE  # seconds
SMALL = settings.SOURCE / "tests" / "e2e" / "models" / "small.json"
PROMPT = b"> "


class Client:
    """kest, on pipes, with a daemon that lets everybody do everything.

    `files` are laid into its working directory first; each of `whole` is afterwards as it was, or as a run without faults
    leaves it, or as `begun` says. `sets` is a parameter and its new value: acknowledged, it is there; otherwise it may be. Who
    `guesses` a password gets a daemon of his own.
    """

    program = settings.KEST
    needs_daemon = True
    options = ()  # of the daemon

    def __init__(self, name, *words, stdin=None, files=None, whole=(), begun=None, sets=None, history=False, guesses=False):
        self.name, self.words, self.stdin, self.files = name, words, stdin, files or {}
        self.whole, self.begun, self.sets, self.history, self.guesses = whole, begun or {}, sets, history, guesses
        self.finished = {}  # what a run without faults leaves of `whole`

    def argv(self, place, wire=None):
        if not self.needs_daemon:
            return [self.program, *self.words]
        return [self.program, "-u", (wire or place.daemon()).address, *self.words]

    def run(self, place, injector, fault=None, watch=False):
        box = place.sandbox
        shutil.rmtree(box.work)
        box.work.mkdir()
        if self.guesses:
            place.renew()  # a daemon slows whoever guesses
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
    rename(peer, value)
    peer.call("SaveConfig")


def save(peer, promise):
    keep(peer, "new")
    promise("new")


def save_much(peer, promise):
    added = peer.call("AddObject", ObjectName="Device.Host.")["InstanceNumber"]
    save(peer, promise)
    peer.call("DeleteObject", ObjectName=f"Device.Host.{added}.")
    keep(peer, "newer")
    promise("newer")


def reset(peer, promise):
    peer.call("FactoryReset")
    promise("FACTORY")


def look(peer, promise):
    peer.call("GetParameterValues", ParameterNames=["."])


IMPORT = """<?xml version="1.0"?>
<dm:document xmlns:dm="urn:broadband-forum-org:cwmp:datamodel-1-15">
  <dataType name="Address"><string><size maxLength="15"/><pattern value="[0-9.]+"/></string></dataType>
  <model name="Device:2.0">
    <object name="Device."/>
    <object name="Device.Hosts."><parameter name="HostNumberOfEntries"><syntax><unsignedInt/></syntax></parameter></object>
    <object name="Device.Hosts.Host.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" numEntriesParameter="HostNumberOfEntries">
      <parameter name="IPAddress" access="readWrite"><syntax><dataType ref="Address"/></syntax></parameter>
      <parameter name="Kind" access="readWrite"><syntax><string><enumeration value="Wired"/></string></syntax></parameter>
    </object>
  </model>
</dm:document>
"""
SERVER = "Device.Time.NTPServer1"
SCRIPT = f'get Device.Time.Enable\nset {SERVER}="new"\necho done\nget {SERVER}\n'
TYPED = 'cd Device.Time\nget Enable\nset NTPServer1="new"\npwd\n'
LUA = f"""
local name = "{SERVER}"
assert(dm.set{{[name] = "new"}})
for word in ("a b c"):gmatch("%a") do io.write(word, "\\n") end
print(#dm.get(name) > 0)
"""

SCENARIOS = [
    Client("get", "-r", "get", "Device.Time.Enable"),
    Client("get-many", "-r", "get", "Device.Time."),
    Client("ls", "-r", "ls", "Device.Time"),
    Client("ls-long", "-s", "script", files={"script": "ls -l Device.Time\nls -a Device.Time\n"}),
    Client("execute", "-r", "execute", "Device.IP.Diagnostics.IPPing", "Host=127.0.0.1", "NumberOfRepetitions=1"),
    Client("attr", "-r", "attr", "Device.Time.Enable"),
    Client("set", "-r", "set", SERVER + '="new"', sets=(SERVER, "new")),
    Client("set-refused", "-r", "set", "Device.Time.Enable=17"),
    Client("add", "-r", "add", "Device.NAT.PortMapping"),
    Client("del-refused", "-r", "del", "Device.NAT.PortMapping.9999"),
    Client("save", "-r", "save"),
    Client("login", "-s", "script", files={"script": "login admin -p admin\n"}),
    Client("login-refused", "-s", "script", files={"script": "login admin -p wrong\n"}, guesses=True),
    Client("execute-refused", "-r", "execute", "Device.Nothing"),
    Client("notify", "-n", "Event"),
    Client("event", "-e", "12", '{"Text": "hello"}'),
    Client("raw", "--raw", '{"jsonrpc":"2.0","id":1,"method":"GetParameterValues","params":{"ParameterNames":["Device.Time.Enable"]}}'),
    Client("usage", "--nothing"),
    Client("download", "-r", "download", "file", "load", files={"load": "payload\n" * 500}),
    Client("config", "-c", "config", "-r", "get", "Device.Time.Enable", files={"config": "login admin -p admin\n"}),
    Client("script", "-s", "script", files={"script": SCRIPT}, sets=(SERVER, "new")),
    Client("script-stops", "-s", "script", files={"script": "get Device.Time.Enable\nnothing\necho on\n"}),
    Client("lua-one", "-r", "lua", 'print(dm.get("Device.Time.Enable"))'),
    Client("lua-script", "-S", "script", files={"script": LUA}, sets=(SERVER, "new")),
    Client("lua-error", "-S", "script", files={"script": 'error("wrong")\n'}),
    Client("shell", stdin=TYPED, sets=(SERVER, "new"), history=True),
    Client("shell-record", stdin="record made\ncd Device.Time\nget Enable\nq\nq\n", whole=("made",), begun={"made": ""}, history=True),
    Client("shell-command", stdin="sh echo out\nls Device.Time\n!!\n", history=True),
    Client("lua-shell", stdin="lua\nx = 3\nprint(x * 2)\n", history=True),
    Secure("get-tls", "--ssl", "-r", "get", "Device.Time.Enable"),
    Secure("script-tls", "--ssl", "-s", "script", files={"script": "ls Device.Time\nget Device.Time.Enable\n"}),
    Secure("download-tls", "--ssl", "-r", "download", "file", "load", files={"load": "payload\n" * 500}),
    Typed("terminal", stdin="cd Device.Time\nget Ena\t\nset NTPServer1=\"new\"\nq", sets=(SERVER, "new"), history=True),
    Typed("lua-terminal", stdin=f"lua\nx = 3\nprint(x * 2)\ndm.set{{['{SERVER}'] = 'new'}}\nq\nq", sets=(SERVER, "new"), history=True),
    Upgrade("upgrade", "1.3.0"),
    Upgrade("upgrade-major", "2.0.0", stdin="y\n"),
    Maker("import", "--import", "model.xml", "--output", "model.json", files={"model.xml": IMPORT, "model.json": "{}"}, whole=("model.json",)),
    Maker("image", "--make-image", "GATEWAY-1.3.0", "--payload", "load", "--output", "image",
          files={"load": "payload\n" * 500}),
    Daemon("veld-start", look),
    Daemon("veld-start-on-state", look, saved="old"),
    Daemon("veld-save", save, may_be=("FACTORY", "new")),
    Daemon("veld-save-much", save_much, saved="old", may_be=("new", "newer")),
    SecureDaemon("veld-tls", save, may_be=("FACTORY", "new")),
    FlashedDaemon("veld-upgrade", saved="old"),
    Daemon("veld-reset", reset, saved="old", may_be=("FACTORY",)),
]  # fmt: skip
