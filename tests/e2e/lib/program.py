"""A program on pipes: started, fed, watched and reaped."""

import os
import selectors
import signal
import subprocess
import time

from . import settings


def text(data):
    """Bytes as text; what is not UTF-8 stays visible instead of raising."""
    return data.decode("utf-8", "backslashreplace")


class Program:
    """A running program whose output is collected while somebody waits for it.

    `out` and `err` are what it has written so far, `status` its exit status once it ended, negative for a signal.
    """

    def __init__(self, argv, env, cwd, stdin=None, wrap=lambda argv: argv, stdout=None):
        self.argv = argv
        self._out = bytearray()
        self._err = bytearray()
        self.status = None
        if isinstance(stdin, str):
            stdin = stdin.encode()
        given = stdin if isinstance(stdin, int) else None  # a descriptor: nothing is fed
        if given is not None:
            stdin = None
        self._input = memoryview(stdin) if stdin else None
        self.process = subprocess.Popen(
            wrap([os.fspath(word) for word in argv]),
            env=env,
            cwd=cwd,
            stdin=given if given is not None else subprocess.PIPE if stdin is not None else subprocess.DEVNULL,
            stdout=subprocess.PIPE if stdout is None else stdout,
            stderr=subprocess.PIPE,
        )
        self.pid = self.process.pid
        self._selector = selectors.DefaultSelector()
        for stream, sink in ((self.process.stdout, self._out), (self.process.stderr, self._err)):
            if stream is not None:
                os.set_blocking(stream.fileno(), False)
                self._selector.register(stream, selectors.EVENT_READ, sink)
        if self.process.stdin:
            os.set_blocking(self.process.stdin.fileno(), False)
            if self._input is None:
                if stdin is not None:
                    self.process.stdin.close()
            else:
                self._selector.register(self.process.stdin, selectors.EVENT_WRITE)

    @property
    def out(self):
        return text(bytes(self._out))

    @property
    def err(self):
        return text(bytes(self._err))

    @property
    def out_bytes(self):
        return bytes(self._out)

    @property
    def lines(self):
        return self.out.splitlines()

    def _pump(self, timeout):
        """Moves what can be moved within `timeout` seconds. False once both outputs are closed."""
        if not self._selector.get_map():
            return False
        for key, _ in self._selector.select(timeout):
            if key.data is None:
                self._feed(key.fileobj)
                continue
            data = key.fileobj.read(1 << 20)
            if data:
                key.data.extend(data)
            elif data == b"":
                self._selector.unregister(key.fileobj)
        return True

    def _feed(self, stream):
        try:
            self._input = self._input[os.write(stream.fileno(), self._input) :]
        except BlockingIOError:
            return
        except BrokenPipeError:
            self._input = memoryview(b"")
        if not self._input:
            self._selector.unregister(stream)
            stream.close()

    def wait_for(self, what, timeout=None, stream="out"):
        """Waits until `what` (a text in the output, or a function of this program) holds; fails at the deadline."""
        moment = settings.deadline(timeout)
        while True:
            held = what(self) if callable(what) else what in getattr(self, stream)
            if held:
                return held
            pause = 0.02 if callable(what) else 0.5
            if not self._pump(min(pause, settings.remaining(moment))) or settings.remaining(moment) == 0:
                held = what(self) if callable(what) else what in getattr(self, stream)
                if held:
                    return held
                raise AssertionError(f"never came: {what!r}\n{self.report()}")

    def finish(self, timeout=None):
        """Waits for the end of the program and of its output. Returns the program itself."""
        moment = settings.deadline(timeout)
        while self._pump(settings.remaining(moment)):
            if settings.remaining(moment) == 0:
                self.kill()
                raise AssertionError(f"did not end in time\n{self.report()}")
        try:
            self.process.wait(settings.remaining(moment) + 0.01)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"closed its output but did not end\n{self.report()}") from None
        self.status = self.process.returncode
        self.close()
        return self

    def signal(self, number):
        self.process.send_signal(number)

    def interrupt(self):
        self.signal(signal.SIGINT)

    @property
    def ended(self):
        return self.process.poll() is not None

    def catches(self, number):
        """Whether it has installed a handler of its own for signal `number`; only while it runs."""
        # What puts it into its sandbox runs before it under the same id, and a shell has handlers too.
        began = os.readlink(f"/proc/{self.pid}/exe") == os.path.realpath(self.argv[0])
        return began and bool(int(proc_status(self.pid)["SigCgt"], 16) >> (number - 1) & 1)

    def peak_kib(self):
        """Peak resident memory so far, in KiB; only while it runs."""
        return peak_kib(self.pid)

    def cpu_seconds(self):
        """Processor time used so far, in seconds; only while it runs."""
        return cpu_seconds(self.pid)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.close()

    def close(self):
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream and not stream.closed:
                try:
                    stream.close()
                except OSError:
                    pass
        self._selector.close()

    def report(self):
        words = " ".join(text(word) if isinstance(word, bytes) else str(word) for word in self.argv)
        return f"$ {words}\nstatus: {self.process.poll()}\nout:\n{self.out[-4000:]}\nerr:\n{self.err[-4000:]}"

    def __repr__(self):
        return self.report()


def proc_status(pid):
    """The fields of /proc/PID/status as texts."""
    with open(f"/proc/{pid}/status") as status:
        return dict(line.rstrip("\n").split(":\t", 1) for line in status)


def quickest(limit, attempt, times=10):
    """Whether `attempt` takes less than `limit` seconds in one of several tries: what waits by design does so each time."""
    for _ in range(times):
        began = time.monotonic()
        attempt()
        if time.monotonic() - began < limit:
            return True
    return False


def cpu_seconds(pid):
    """Processor time that the process has used so far: what its work costs, however busy the machine is."""
    with open(f"/proc/{pid}/stat") as stat:
        user, system = stat.read().rsplit(")", 1)[1].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def peak_kib(pid):
    return int(proc_status(pid).get("VmHWM", "0").split()[0])
