"""A program on a pseudo-terminal, judged by what an emulated screen shows."""

import errno
import fcntl
import os
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pyte

from . import settings
from .program import cpu_seconds, peak_kib


class Key:
    """What keys send."""

    ENTER, TAB, BACKSPACE, ESCAPE = "\r", "\t", "\x7f", "\x1b"
    UP, DOWN, RIGHT, LEFT = "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D"
    HOME, END, DELETE = "\x1b[H", "\x1b[F", "\x1b[3~"
    CTRL_LEFT, CTRL_RIGHT = "\x1b[1;5D", "\x1b[1;5C"
    CTRL_A, CTRL_B, CTRL_C, CTRL_D, CTRL_E, CTRL_F = "\x01", "\x02", "\x03", "\x04", "\x05", "\x06"
    CTRL_G, CTRL_K, CTRL_L, CTRL_R, CTRL_U, CTRL_W = "\x07", "\x0b", "\x0c", "\x12", "\x15", "\x17"
    CTRL_Y, CTRL_Z = "\x19", "\x1a"


class Terminal:
    """A program on a terminal of `columns` times `rows`. Rows and columns count from 0.

    Lines that scroll off the top are kept: `all_lines` and `run` see them. Nothing is read while nobody waits, so a
    program that writes more than the kernel holds stands still meanwhile, as on a slow line.
    """

    def __init__(self, argv, env, cwd, columns=80, rows=24, wrap=lambda argv: argv):
        self.argv = argv
        self.raw = bytearray()
        self.status = None
        self.prompt = re.compile(r"(\w+@)?kest(-\w+)*:[^>]*> ?$")
        self.screen = pyte.HistoryScreen(columns, rows, history=200000)
        self.stream = pyte.ByteStream(self.screen)
        self.master, slave = os.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.screen.write_process_input = lambda data: os.write(self.master, data.encode())
        self.process = subprocess.Popen(
            wrap([os.fspath(word) for word in argv]),
            env=env,
            cwd=cwd,
            stdin=slave,
            stdout=slave,
            stderr=slave,
            start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )
        self.pid = self.process.pid
        self.slave_name = os.ttyname(slave)
        os.close(slave)

    # What is on the screen

    def line(self, row):
        """The text of one row without the blanks at its end."""
        return self._render(self.screen.buffer[row])

    def _render(self, cells):
        # The cell behind a wide character holds no character of its own; cells that nothing was written to are not there.
        if not cells:
            return ""
        blank = self.screen.default_char
        columns = range(min(max(cells) + 1, self.screen.columns))
        return "".join([cells.get(column, blank).data for column in columns]).rstrip()

    @property
    def lines(self):
        """The rows of the screen, without empty ones at the end."""
        rows = [self.line(row) for row in range(self.screen.lines)]
        while rows and not rows[-1]:
            rows.pop()
        return rows

    @property
    def all_lines(self):
        """The rows that scrolled off the top, then those of the screen."""
        return self._rows_from(0)

    def _rows_from(self, start):
        """The rows from an absolute one on. What scrolled off before is not looked at: a session may be long."""
        top = self.screen.history.top
        gone = [top[index] for index in range(len(top) - 1, start - 1, -1)]  # a deque: quick at its ends
        return [self._render(cells) for cells in reversed(gone)] + self.lines[max(0, start - len(top)) :]

    def forget(self):
        """Drops what scrolled off the top and the bytes behind all of it; for sessions without an end."""
        self.screen.history.top.clear()
        self.raw.clear()

    @property
    def text(self):
        return "\n".join(self.lines)

    @property
    def cursor(self):
        """(row, column)."""
        return self.screen.cursor.y, self.screen.cursor.x

    def _absolute_row(self):
        return len(self.screen.history.top) + self.screen.cursor.y

    def cell(self, row, column):
        """One cell: .data, .fg, .bg ("default", a name, or six hex digits), .bold, .reverse, .underscore."""
        return self.screen.buffer[row][column]

    def colours(self, row):
        """The runs of one row as (text, colour): [("kest:", "brightblue"), ("> ", "default")]."""
        runs = []
        for column in range(self.screen.columns):
            cell = self.cell(row, column)
            if runs and runs[-1][1] == cell.fg:
                runs[-1][0] += cell.data
            else:
                runs.append([cell.data, cell.fg])
        while runs and not runs[-1][0].strip():
            runs.pop()
        return [tuple(run) for run in runs]

    def find(self, wanted):
        """(row, column) of a text on the screen, or None."""
        for row in range(self.screen.lines):
            column = self.line(row).find(wanted)
            if column >= 0:
                return row, column
        return None

    # Keys and signals

    def type(self, keys):
        """Sends keys (text or bytes); the screen is read meanwhile, so that a long paste cannot get stuck."""
        data = memoryview(keys.encode() if isinstance(keys, str) else keys)
        moment = settings.deadline()
        while data:
            _, ready, _ = select.select([], [self.master], [], 0)
            if ready:
                data = data[os.write(self.master, data[:1024]) :]
            self.read(0 if ready else 0.05)
            if settings.remaining(moment) == 0:
                raise AssertionError(f"keys were not taken\n{self.report()}")
        return self

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.screen.resize(rows, columns)

    def signal(self, number):
        self.process.send_signal(number)

    def hang_up(self):
        """Closes the terminal, as when its window is closed."""
        os.close(self.master)
        self.master = -1

    def settings(self):
        """The terminal's modes as termios gives them."""
        return termios.tcgetattr(self.master)

    @property
    def echoes(self):
        return bool(self.settings()[3] & termios.ECHO)

    # Waiting

    def read(self, timeout=0.0):
        """Feeds the screen with what the program wrote within `timeout` seconds. False at the end of it."""
        if self.master < 0:
            return False
        ready, _, _ = select.select([self.master], [], [], timeout)
        if not ready:
            return True
        try:
            data = os.read(self.master, 65536)
        except OSError as error:
            if error.errno != errno.EIO:
                raise
            data = b""
        self.raw += data
        self.stream.feed(data)
        return bool(data)

    def wait_for(self, what, timeout=None):
        """Reads until `what` holds and returns it: a text or pattern on the screen, or a function of this terminal."""
        moment = settings.deadline(timeout)
        while True:
            if callable(what):
                held = what(self)
            elif isinstance(what, re.Pattern):
                held = what.search(self.text)
            else:
                held = what in self.text
            if held:
                return held
            if settings.remaining(moment) == 0:
                raise AssertionError(f"never shown: {what!r}\n{self.report()}")
            if not self.read(settings.remaining(moment)):
                moment = 0.0

    def at_prompt(self, prompt=None):
        """Whether the cursor stands behind an empty prompt: the one given, or any of the shell's."""
        row, column = self.cursor
        line = self.line(row)
        if prompt is not None:
            return line == prompt.rstrip() and column == len(prompt)
        return bool(self.prompt.search(line)) and column == len(line) + 1

    def idles(self):
        """Whether the program's main thread sleeps all the time. The machine may hold it up once; what looks again and again does so
        in each of several spans."""

        def switches():
            with open(f"/proc/{self.pid}/task/{self.pid}/status") as status:
                return [line for line in status if "ctxt_switches" in line]

        for _ in range(3):
            before = switches()
            self.quiet(1.5)
            if switches() == before:
                return True
        return False

    def wait_prompt(self, prompt=None, timeout=None):
        """Waits for an empty prompt with the cursor behind it; `prompt` is its whole text ("kest:> ")."""
        self.wait_for(lambda terminal: terminal.at_prompt(prompt), timeout)
        return self

    def run(self, command, prompt=None, timeout=None):
        """Types a line at the prompt and waits for the next one. Returns the rows that the command printed."""
        self.wait_prompt()
        self.type(command)
        tail = command[-1:]
        if tail.strip():
            self.wait_for(lambda terminal: self._typed(command))
        return self.enter(prompt, timeout)

    def _typed(self, command):
        row, column = self.cursor
        rows = "".join(self.line(y).ljust(self.screen.columns) for y in range(max(0, row - 8), row))
        return (rows + self.line(row)[:column]).rstrip().endswith(command[-self.screen.columns :].strip()[-20:])

    def enter(self, prompt=None, timeout=None):
        """Ends the line that is there and waits for the next prompt. Returns the rows between."""
        start = self._absolute_row()
        self.type(Key.ENTER)
        self.wait_for(lambda terminal: terminal._absolute_row() > start and terminal.at_prompt(prompt), timeout)
        count = self._absolute_row() - (start + 1)
        return (self._rows_from(start + 1) + [""] * self.screen.lines)[:count]

    def quiet(self, seconds=0.2):
        """Reads until nothing has come for `seconds`: for what must not happen. Returns the terminal."""
        moment = settings.deadline()
        while True:
            before = len(self.raw)
            until = time.monotonic() + seconds
            while settings.remaining(until) > 0:
                if not self.read(settings.remaining(until)):
                    return self
                if len(self.raw) != before:
                    break
            if len(self.raw) == before or settings.remaining(moment) == 0:
                return self

    def wait_exit(self, timeout=None):
        """Waits for the end of the program and returns its exit status, negative for a signal."""
        moment = settings.deadline(timeout)
        while self.process.poll() is None:
            if settings.remaining(moment) == 0:
                raise AssertionError(f"did not end\n{self.report()}")
            if not self.read(0.05):
                try:
                    self.process.wait(settings.remaining(moment) + 0.01)
                except subprocess.TimeoutExpired:
                    raise AssertionError(f"closed its terminal but did not end\n{self.report()}") from None
        while self.master >= 0 and select.select([self.master], [], [], 0)[0] and self.read():
            pass
        self.status = self.process.returncode
        return self.status

    def peak_kib(self):
        """Peak resident memory so far, in KiB; only while it runs."""
        return peak_kib(self.pid)

    def cpu_seconds(self):
        """Processor time used so far, in seconds; only while it runs."""
        return cpu_seconds(self.pid)

    def kill(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()
        if self.master >= 0:
            os.close(self.master)
            self.master = -1

    def close(self):
        """Ends the program as closing the window would, by force if that does not help."""
        if self.process.poll() is None:
            if self.master >= 0:
                os.close(self.master)
                self.master = -1
            try:
                self.process.wait(5 * settings.PATIENCE)
            except subprocess.TimeoutExpired:
                pass
        self.kill()

    def report(self):
        rule = "-" * self.screen.columns
        words = " ".join(map(str, self.argv))
        lines = "\n".join(self.line(row) for row in range(self.screen.lines))
        return f"$ {words}\nstatus: {self.process.poll()}, cursor {self.cursor}\n{rule}\n{lines}\n{rule}"

    def __repr__(self):
        return self.report()
