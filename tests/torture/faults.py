"""Faults, and one run of a program with one of them.

    allocation=17         the 17th malloc, calloc or realloc finds no memory
    short=3               the 3rd transfer of more than one byte moves one
    openat:EMFILE=2       the 2nd openat of a thread fails so
    cut:down=17           and so on: what wire.py does to a conversation
"""

import os
import re
import signal
import struct
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from lib import settings
from wire import ACTS

BOUND = 5 * settings.PATIENCE  # seconds that a program may take

# What can go wrong with a system call while a program runs. Left out are those that cannot fail, and close, munmap and brk: when
# strace lets them fail they are not done, or return what no kernel returns. A poll of a few descriptors needs no memory.
ERRORS = {
    "accept4": ("EMFILE", "ECONNABORTED"),
    "bind": ("EADDRINUSE",),
    "clock_nanosleep": ("EINTR",),
    "clone": ("EAGAIN",),
    "clone3": ("EAGAIN",),
    "connect": ("ECONNREFUSED",),
    "copy_file_range": ("EIO",),
    "dup2": ("EMFILE",),
    "epoll_create1": ("EMFILE",),
    "epoll_ctl": ("ENOMEM",),
    "epoll_wait": ("EINTR",),
    "eventfd2": ("EMFILE",),
    "fchmod": ("EPERM",),
    "fcntl": ("ENOLCK",),
    "fdatasync": ("EIO",),
    "flock": ("ENOLCK",),
    "fsync": ("EIO",),
    "ftruncate": ("ENOSPC",),
    "getdents64": ("EIO",),
    "getsockname": ("ENOBUFS",),
    "ioctl": ("EIO",),
    "link": ("ENOSPC",),
    "listen": ("EADDRINUSE",),
    "lseek": ("EIO",),
    "mkdir": ("ENOSPC",),
    "mmap": ("ENOMEM",),
    "mprotect": ("ENOMEM",),
    "newfstatat": ("EIO",),
    "openat": ("EMFILE", "EACCES", "EINTR"),
    "pipe2": ("EMFILE",),
    "poll": ("EINTR",),
    "ppoll": ("EINTR",),
    "pread64": ("EIO",),
    "read": ("EINTR", "EIO"),
    "recvfrom": ("EINTR", "EAGAIN", "ECONNRESET"),
    "recvmsg": ("EINTR", "ECONNRESET"),
    "rename": ("ENOSPC",),
    "rmdir": ("EACCES",),
    "sendmsg": ("EINTR", "ECONNRESET"),
    "sendto": ("EINTR", "EAGAIN", "ECONNRESET"),
    "setsockopt": ("ENOMEM",),
    "signalfd4": ("EMFILE",),
    "socket": ("EMFILE",),
    "socketpair": ("EMFILE",),
    "timerfd_create": ("EMFILE",),
    "timerfd_settime": ("EINVAL",),
    "unlink": ("EACCES",),
    "wait4": ("EINTR",),
    "write": ("EINTR", "EIO", "ENOSPC"),
    "writev": ("EINTR", "EIO"),
}
MEMORY = {"allocation", "mmap", "mprotect"}


@dataclass(frozen=True)
class Fault:
    call: str
    number: int
    error: str = ""

    @property
    def on_wire(self):
        return self.call in ACTS

    def __str__(self):
        return f"{self.call}:{self.error}={self.number}" if self.error else f"{self.call}={self.number}"

    @staticmethod
    def read(text):
        call, _, number = text.partition("=")
        call, _, error = call.partition(":")
        return Fault(call, int(number), error)


SPARED = {
    Fault("mmap", 1, "ENOMEM"),  # before the program is there: the loader ends by a signal
    Fault("epoll_ctl", 1, "ENOMEM"),  # a daemon that cannot watch for signals logs so, and has to be killed
}


@dataclass
class Run:
    """How a program ended. `status` is None for one that had to be killed because it did not."""

    status: int | None
    out: str
    err: str
    injected: str = ""  # the system call that failed, as strace shows it
    problem: str = ""  # what the scenario found wrong
    excusable: bool = False  # the problem is none when the program said that it failed
    drawn: bool = False  # the output is a terminal's, which is not the same from one run to the next


class Injector:
    """Starts programs with a fault each. `folder` is the injector's own."""

    def __init__(self, library, folder):
        self.library = library
        self.traces = can_trace()
        self.counters = Path(folder) / "counters"
        self.trace = Path(folder) / "trace"

    def command(self, argv, env, fault=None, watch=False):
        """(argv, environment) of a program with a fault; or, to `watch`, with every system call noted."""
        self.counters.unlink(missing_ok=True)
        self.trace.unlink(missing_ok=True)
        argv = [os.fspath(word) for word in argv]
        if fault and fault.on_wire:
            return argv, env
        if fault and fault.error:
            call = fault.call
            how = ["-e", f"trace={call}", "-e", f"inject={call}:error={fault.error}:when={fault.number}"]
            return ["/usr/bin/strace", "-f", "--seccomp-bpf", "-qq", "-o", self.trace, *how, "--", *argv], env
        preload = {"LD_PRELOAD": self.library, "TORTURE_COUNTERS": self.counters}
        if fault:
            preload[f"TORTURE_{fault.call.upper()}"] = fault.number
        names = [f"{name}={value}" for name, value in preload.items()]
        if watch and self.traces:
            set_names = [f"--env={name}" for name in names]
            return ["/usr/bin/strace", "-f", "-qq", "-o", self.trace, *set_names, "--", *argv], env
        return ["/usr/bin/env", *names, *argv], env  # set by env, so that nothing before the program takes them

    def faults(self):
        """Every fault that can befall what was watched last."""
        allocations, transfers, _ = struct.unpack("3Q", self.counters.read_bytes())
        found = [Fault("allocation", n) for n in range(1, allocations + 1)]
        found += [Fault("short", n) for n in range(1, transfers + 1)]
        threads = {}  # strace counts the calls of each thread by themselves
        traced = self.trace.read_text(errors="replace") if self.trace.exists() else ""
        for pid, call in re.findall(r"^(\d+) +(\w+)\(", traced, re.M):
            threads[call, pid] = threads.get((call, pid), 0) + 1
        for call in sorted({call for call, _ in threads} & ERRORS.keys()):
            most = max(count for (name, _), count in threads.items() if name == call)
            found += [Fault(call, n, error) for n in range(1, most + 1) for error in ERRORS[call]]
        return [fault for fault in found if fault not in SPARED]

    def injected(self):
        """The system calls that failed, as strace shows them."""
        text = self.trace.read_text(errors="replace") if self.trace.exists() else ""
        return "\n".join(line for line in text.splitlines() if "(INJECTED)" in line)


def can_trace():
    """Whether this place lets programs be traced."""
    try:
        return subprocess.run(["/usr/bin/strace", "-qq", "-o", "/dev/null", "true"], capture_output=True).returncode == 0
    except OSError:
        return False


def finish(process, bound, feed=None):
    """Waits for a program on pipes to end within `bound` seconds. Returns (status or None, output, errors)."""
    try:
        out, err = process.communicate(feed, timeout=bound)
        status = process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        out, err = process.communicate()
        status = None
    return status, *((text or b"").decode("utf-8", "backslashreplace") for text in (out, err))


def wait_until(condition, bound):
    """Whether `condition` holds within `bound` seconds."""
    moment = time.monotonic() + bound
    while not condition():
        if time.monotonic() > moment:
            return False
        time.sleep(0.005)
    return True
