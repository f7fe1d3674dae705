"""A private place for one test: home, working directory, sockets, and a /tmp that only its programs see.

kest keeps its histories under fixed names in /tmp. So that tests neither meet each other's histories nor the ones of whoever
runs them, every program is started in a mount namespace of its own in which `tmp` is /tmp. Where the kernel does not allow
that, tests take turns instead, and the histories that were there are put back afterwards.
"""

import fcntl
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from . import settings

BASE = Path("/var/tmp")  # not below /tmp, which the programs see replaced
HISTORIES = (".kest.hist", ".kest.lua.hist")
MOUNT = "/usr/bin/mount"
LOCK = Path("/tmp/.kest-e2e.lock")


def _namespace_command():
    flags = ["--mount"] if os.geteuid() == 0 else ["--map-current-user", "--keep-caps", "--mount"]
    # Whole paths: a test may run its program with another PATH.
    command = ["/usr/bin/unshare", *flags, "--propagation", "private"]
    try:
        probe = subprocess.run([*command, MOUNT, "--bind", BASE, "/tmp"], capture_output=True, timeout=settings.DEADLINE)
    except (OSError, subprocess.TimeoutExpired):
        return None
    return command if probe.returncode == 0 else None


_command = None
_probed = False


def namespace_command():
    """The command prefix that gives a program mounts of its own, or None where there is no permission for it."""
    global _command, _probed
    if not _probed:
        _command, _probed = _namespace_command(), True
    return _command


class Sandbox:
    def __init__(self):
        self.root = Path(tempfile.mkdtemp(prefix="kest-e2e-", dir=BASE))
        self.home = self.root / "home"
        self.work = self.root / "work"
        self.sockets = 0
        for directory in (self.home, self.work):
            directory.mkdir()
        self.namespace = namespace_command()
        self._lock = None
        if self.namespace:
            self.tmp = self.root / "tmp"
            self.tmp.mkdir()
            self.tmp.chmod(0o1777)
        else:
            self.tmp = Path("/tmp")
            self._take_turn()

    def _take_turn(self):
        self._lock = os.open(LOCK, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        fcntl.flock(self._lock, fcntl.LOCK_EX)
        self._kept = self.root / "kept"
        self._kept.mkdir()
        for name in HISTORIES:
            if os.path.lexists(self.tmp / name):
                shutil.move(self.tmp / name, self._kept / name)

    def new_socket(self):
        """A path for a socket that does not exist yet."""
        self.sockets += 1
        return self.root / f"s{self.sockets}"

    def environment(self, changes=None):
        """The environment programs get: nothing of the caller's but what sanitizers and mutants need. None in `changes` unsets."""
        env = {
            "HOME": str(self.home),
            "USER": "root" if os.geteuid() == 0 else os.environ.get("USER", "nobody"),
            "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "TERM": "xterm-256color",
            "LANG": "C.UTF-8",
        }
        logs = f"log_path={self.root}/sanitizer"
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                env[name] = os.environ[name] + ":" + logs
        if "KEST_MUTANTS" in os.environ:
            env["KEST_MUTANTS"] = os.environ["KEST_MUTANTS"]
        for name, value in (changes or {}).items():
            if value is None:
                env.pop(name, None)
            else:
                env[name] = value
        return env

    def wrap(self, argv):
        """`argv` with what puts it into the private /tmp in front. The process keeps its id."""
        if not self.namespace:
            return argv
        # Our own tree stays reachable when it lies below /tmp.
        script = ""
        for index, directory in enumerate(dict.fromkeys((settings.SOURCE, settings.BUILD))):
            if directory.parts[:2] == ("/", "tmp"):
                place = self.tmp.joinpath(*directory.parts[2:])
                place.mkdir(parents=True, exist_ok=True)
                script += f"{MOUNT} --rbind '{directory}' '{place}' && "
        script += f"{MOUNT} --rbind '{self.tmp}' /tmp && exec \"$@\""
        return [*self.namespace, "/bin/sh", "-c", script, "sh", *argv]

    def sanitizer_reports(self):
        """The texts of what the sanitizers found in any program of this test."""
        return [path.read_text(errors="replace") for path in sorted(self.root.glob("sanitizer*"))]

    def close(self):
        if self._lock is not None:
            for name in HISTORIES:
                (self.tmp / name).unlink(missing_ok=True)
                if os.path.lexists(self._kept / name):
                    shutil.move(self._kept / name, self.tmp / name)
            os.close(self._lock)
        shutil.rmtree(self.root, ignore_errors=True)
