"""Random editing, judged by the whole screen: every row and the cursor, after every step."""

import json
import os
import random
import re

import pytest

from lib import settings
from lib.line import Model, normal, output_rows
from lib.terminal import Key

DEMO = settings.BUILD / "tests" / "programs" / "rl_demo"
ROUNDS = int(os.environ.get("KEST_EDITOR_ROUNDS", "60"))
STEPS = 12
LETTERS = "abcdefghijk xyz.=/\"'#0123456789"
WIDE = "漢字你好日本語한글"
OTHER = "éüßñ" + "e\u0301" + "о" + "\u00a0€"


class Editing:
    """The demo program on a terminal beside the model of its screen."""

    def __init__(self, terminal, tmp_path, width, height, random_source, words=()):
        self.random = random_source
        self.fifo = tmp_path / "orders"
        os.mkfifo(self.fifo)
        self.prompt = random_source.choice(["> ", "kest:Device.> ", "漢> "])
        self.model = Model(self.prompt, width, height, words)
        hints = {"DEMO_WORDS": json.dumps(words), "DEMO_HINTS": "1", "DEMO_COLORS": "1"} if words else {}
        self.terminal = terminal(
            "-c",
            f'exec "{DEMO}" 3<>"{self.fifo}"',
            program="/bin/sh",
            columns=width,
            rows=height,
            env={"DEMO_PROMPT": self.prompt, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8", **hints},
        )
        self.orders = os.open(self.fifo, os.O_RDWR)
        self.events = 0
        self.trace = []
        self.keys = [""]
        self.check()

    def close(self):
        os.close(self.orders)

    def check(self):
        """Waits for the screen that must be."""
        wanted = self.model.screen()

        def right(term):
            rows = [normal(row) for row in term.lines]
            expected = list(wanted[0])
            while expected and not expected[-1]:
                expected.pop()
            column = min(term.cursor[1], term.screen.columns - 1)
            return rows == expected and (term.cursor[0], column) == wanted[1]

        try:
            self.terminal.wait_for(right)
        except AssertionError as problem:
            rows = "\n".join(wanted[0])
            raise AssertionError(f"after {self.trace}\nwanted, cursor {wanted[1]}:\n{rows}\n{problem}") from None

    def step(self):
        name = self.random.choice(
            ["insert"] * 6
            + ["wide", "other", "left", "left", "right", "home", "end", "backspace", "delete"]
            + ["kill", "rub", "yank", "up", "up", "down", "event", "resize", "enter", "enter", "ctrl_c"]
            + ["control", "long", "paste", "redraw"]
            + ["word"] * 4
        )
        self.trace.append(name)
        getattr(self, name)()
        self.check()

    def type(self, keys):
        self.trace.append(keys)
        self.keys.append(keys)
        self.terminal.type(keys)

    def put(self, text):
        self.type(text)
        self.model.insert(text)

    def insert(self):
        self.put("".join(self.random.choices(LETTERS, k=self.random.randint(1, 9))))

    def long(self):
        self.put("".join(self.random.choices(LETTERS, k=self.random.randint(20, 90))))

    def wide(self):
        self.put("".join(self.random.choices(WIDE, k=self.random.randint(1, 12))))

    def other(self):
        self.put("".join(self.random.choices(["é", "ü", "ß", "e\u0301", "o\u0308", "о", "€"], k=3)))

    def control(self):
        char = self.random.choice(["\t", "\x01", "\x1b", "\x03"])
        self.type("\x16" + char)
        self.model.insert(char)

    def left(self):
        self.type(Key.LEFT)
        self.model.cursor = max(0, self.model.cursor - 1)

    def right(self):
        self.type(Key.RIGHT)
        if self.accept():
            return
        self.model.cursor = min(len(self.model.text), self.model.cursor + 1)

    def accept(self):
        hint = self.model.hint()
        self.model.insert(hint)
        return hint != ""

    def word(self):
        """The beginning of a word that has a hint."""
        if self.model.words:
            self.put(" " + self.random.choice(self.model.words)[: self.random.randint(1, 4)])

    def home(self):
        self.type(self.random.choice([Key.HOME, Key.CTRL_A, "\x1bOH", "\x1b[1~"]))
        self.model.cursor = 0

    def end(self):
        self.type(self.random.choice([Key.END, Key.CTRL_E, "\x1bOF", "\x1b[4~"]))
        if self.accept():
            return
        self.model.cursor = len(self.model.text)

    def backspace(self):
        count = self.random.randint(1, 5)
        self.type(Key.BACKSPACE * count)
        first = max(0, self.model.cursor - count)
        self.model.delete(first, self.model.cursor)

    def delete(self):
        self.type(Key.DELETE)
        self.model.delete(self.model.cursor, self.model.cursor + 1)

    def after_cut(self):
        """Whether the key before the last one cut, too."""
        return self.keys[-2] in (Key.CTRL_K, Key.CTRL_U)

    def kill(self):
        self.type(Key.CTRL_K)
        self.model.cut_out(self.model.cursor, len(self.model.text), self.after_cut())

    def rub(self):
        self.type(Key.CTRL_U)
        self.model.cut_out(0, self.model.cursor, self.after_cut())

    def yank(self):
        self.type(Key.CTRL_Y)
        self.model.insert(self.model.cut)

    def up(self):
        self.type(self.random.choice([Key.UP, "\x1bOA", "\x10"]))
        self.model.older()

    def down(self):
        self.type(self.random.choice([Key.DOWN, "\x1bOB", "\x0e"]))
        self.model.newer()

    def event(self):
        self.events += 1
        text = f"event {self.events}"
        self.trace.append(text)
        os.write(self.orders, text.encode() + b"\n")
        self.terminal.wait_for(lambda term: f"EVENT {self.events}\r\n".encode() in term.raw)
        self.model.screen()
        self.model.top = 0
        self.model.print([""])
        self.model.print(output_rows("EVENT " + text[6:], self.model.width))

    def redraw(self):
        before = len(self.terminal.raw)
        self.type(Key.CTRL_L)
        self.terminal.wait_for(lambda term: b"\x1b[2J" in term.raw[before:])
        self.model.above = []
        self.model.top = 0

    def resize(self):
        """The emulated screen cuts its rows where real ones may wrap them anew; what is ours must be right in both."""
        self.redraw()
        self.check()
        width = self.random.choice([10, 23, 40, 80, 81])
        self.trace.append(width)
        layout = self.model.layout()
        if len(layout.rows) > self.model.height:
            return
        self.terminal.resize(width, self.model.height)
        self.model.width = width

    def answer(self, text):
        if text:
            self.model.history.append(text)
        if text != "quit":
            shown = re.sub(r"\\u[0-9a-f]{4}", lambda found: "\\u" + found[0][2:].upper(), json.dumps(text))
            self.model.print(output_rows("got " + shown, self.model.width))
        self.model.fresh()

    def enter(self):
        self.type(Key.ENTER)
        text = self.model.text
        self.model.end_line()
        self.answer(text)

    def ctrl_c(self):
        self.type(Key.CTRL_C)
        self.model.end_line("^C")
        self.model.fresh()

    def paste(self):
        """Several lines at once run one by one."""
        lines = ["".join(self.random.choices("abc xyz.", k=self.random.randint(0, 30))) for _ in range(3)]
        self.type("\r".join(lines))
        for line in lines[:-1]:
            self.model.insert(line)
            text = self.model.text
            self.model.end_line()
            self.answer(text)
        self.model.insert(lines[-1])


def play(terminal, tmp_path, width, height, words=()):
    seed = int(os.environ.get("KEST_EDITOR_SEED", "1"))
    for number in range(ROUNDS // 10):
        place = tmp_path / f"round-{number}"
        place.mkdir()
        source = random.Random(f"{seed} {width} {height} {number}")
        editing = Editing(terminal, place, width, height, source, words)
        try:
            for _ in range(STEPS * 5):
                editing.step()
        finally:
            editing.close()
            editing.terminal.close()


SIZES = pytest.mark.parametrize("width,height", [(80, 24), (40, 24), (10, 24), (40, 6), (10, 5)])


@SIZES
@pytest.mark.deadline(900)
def test_the_screen_is_right_after_every_step(terminal, tmp_path, width, height):
    play(terminal, tmp_path, width, height)


# Only where all of it fits: which rows of a taller line are seen depends on when the hint came.
@pytest.mark.parametrize("width,height", [(80, 24), (40, 24), (100, 30)])
@pytest.mark.deadline(900)
def test_the_screen_is_right_after_every_step_with_hints(terminal, tmp_path, width, height):
    play(terminal, tmp_path, width, height, ["hijacked", "漢字かな混じり文", "zebra" * 8, "élan"])
