"""Whoever wrote last, the prompt stands once: on a fresh row, or behind what really stands unfinished on its own. Nothing that
was written is shown twice, nothing is wiped out."""

import random
import re

import pytest

from lib.commands import MODEL, refuse_logins
from lib.terminal import Key

PROMPT = "kest:> "
WIDTH = 40


def halves(text):
    """The text as two literals, so that what is typed does not show it."""
    return f"'{text[:3]}' .. '{text[3:]}'"


def in_shell(text):
    return f'{text[:3]}""{text[3:]}'


# Each writes `text` from the prompt: what is typed, and what of it ends with a line feed.
WRITERS = {
    "a command": lambda text: (f"lua print({halves(text)})", text + "\n"),
    "io.write": lambda text: (f"lua io.write({halves(text)})", text),
    "io.write and flush": lambda text: (f"lua io.write({halves(text)}) io.flush()", text),
    "io.write of a line": lambda text: (f"lua io.write({halves(text)}, '\\n')", text + "\n"),
    "io.stderr": lambda text: (f"lua io.stderr:write({halves(text)})", text),
    "a line on io.stderr": lambda text: (f"lua io.stderr:write({halves(text)}, '\\n')", text + "\n"),
    "a child": lambda text: (f"sh 'printf {in_shell(text)}'", text),
    "a line of a child": lambda text: (f"sh 'echo {in_shell(text)}'", text + "\n"),
    "a child's stderr": lambda text: (f"sh 'printf {in_shell(text)} >&2'", text),
    "a child of Lua": lambda text: (f"lua os.execute('printf {in_shell(text)}')", text),
    "io.read": lambda text: ("lua io.read()", text + "\n"),
    "an event": lambda text: (None, f'\nEVENT 12:\n"{text}"\n'),
    "an event above a line": lambda text: (None, f'\nEVENT 12:\n"{text}"\n'),
}  # fmt: skip


class Rows:
    def __init__(self, term, fake):
        self.term, self.fake = term, fake
        self.written = []
        self.prompts = 1

    def write(self, writer, text):
        line, _ = WRITERS[writer](text)
        self.written.append(text)
        term = self.term
        if line is None:
            if writer == "an event above a line":
                term.type("half a line")
                term.wait_for(lambda term: self.shown().endswith(PROMPT + "half a line"))
            self.fake.event(12, text)
            term.wait_for(lambda term: f'"{text}"'.encode() in term.raw)
            if writer == "an event above a line":
                term.wait_for(lambda term: self.shown().endswith(PROMPT + "half a line"))
                term.type(Key.CTRL_U)
            self.stand()
            return
        before = self.here()
        term.type(line)
        term.wait_for(lambda term: term._typed(line))
        term.type(Key.ENTER)
        if writer == "io.read":
            term.wait_for(lambda term: term.echoes)
            term.type(text + Key.ENTER)
        self.prompts += 1
        term.wait_for(lambda term: self.here() > before and self.shown().endswith(PROMPT))
        self.stand()

    def here(self):
        return self.term._absolute_row()

    def shown(self):
        """What stands before the cursor, rows that run into the next one put together."""
        row, column = self.term.cursor
        above = self.term.line(row - 1) if row else ""
        above = above.ljust(WIDTH) if len(above) >= WIDTH - 1 else ""
        return above + self.term.line(row).ljust(column)[:column]

    def stand(self):
        """What is typed appears behind the prompt and nowhere else."""
        self.term.type("mark")
        self.term.wait_for(lambda term: self.shown().endswith(PROMPT + "mark"))
        self.term.type(Key.CTRL_U)
        self.term.wait_for(lambda term: self.shown().endswith(PROMPT))

    def check(self, ordered=True):
        rows = self.term.all_lines
        whole = "".join(row if len(row) == WIDTH else row + "\n" for row in rows)
        told = "\n".join(rows[-12:])
        places = {text: [match.start() for match in re.finditer(text, whole)] for text in self.written}
        assert all(len(found) == 1 for found in places.values()), (told, places)
        # An event steps above an unfinished row; others follow each other.
        for told_by_event in (False, True):
            following = [found[0] for text, found in places.items() if (f'"{text}' in whole) == told_by_event]
            assert not ordered or following == sorted(following), told
        for place in [match.start() for match in re.finditer(re.escape(PROMPT.rstrip()), whole)]:
            before = whole[:place].rpartition("\n")[2]
            assert before == "" or any(before.endswith(text) for text in self.written), told
            assert "mark" not in before and PROMPT not in before, told
        assert whole.count(PROMPT.rstrip()) == self.prompts, told


@pytest.fixture
def rows(shell, fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return Rows(shell("-g", "12", to=fake, columns=WIDTH, rows=30), fake)


def text_of(number, size):
    """A text of its own with `size` characters."""
    return f"w{number}q" + "x" * (size - 4) + "z"


SIZES = (6, WIDTH - len(PROMPT), WIDTH - 1, WIDTH, WIDTH + 1, 2 * WIDTH)


@pytest.mark.lua
@pytest.mark.parametrize("writer", WRITERS)
def test_one_writer_leaves_the_prompt_in_its_place(rows, writer):
    for number, size in enumerate(SIZES, 10):
        rows.write(writer, text_of(number, size))
        rows.check()


@pytest.mark.lua
@pytest.mark.parametrize("first", WRITERS)
def test_two_writers_after_each_other_leave_the_prompt_in_its_place(rows, first):
    number = 10
    for second in WRITERS:
        for size in (6, WIDTH):
            rows.write(first, text_of(number, size))
            rows.write(second, text_of(number + 1, 6))
            rows.check()
            number += 2


STATEMENTS = {
    "print": lambda text: f"print({halves(text)})",
    "io.write": lambda text: f"io.write({halves(text)})",
    "io.write and flush": lambda text: f"io.write({halves(text)}) io.flush()",
    "io.stderr": lambda text: f"io.stderr:write({halves(text)})",
    "a child": lambda text: f"os.execute('printf {in_shell(text)}')",
    "a line of a child": lambda text: f"os.execute('echo {in_shell(text)}')",
    "io.read": lambda text: "io.read()",
}  # fmt: skip


@pytest.mark.lua
@pytest.mark.parametrize("first", STATEMENTS)
def test_two_writers_of_one_statement_leave_the_prompt_in_its_place(rows, first):
    number = 10
    term = rows.term
    for second in STATEMENTS:
        texts = [text_of(number, 6), text_of(number + 1, 6)]
        line = "lua " + " ".join(STATEMENTS[name](text) for name, text in zip((first, second), texts))
        keys = "".join(text + Key.ENTER for name, text in zip((first, second), texts) if name == "io.read")
        rows.written += texts
        rows.prompts += 1
        before = rows.here()
        term.type(line)
        term.wait_for(lambda term: term._typed(line))
        term.type(Key.ENTER)
        if keys:
            term.wait_for(lambda term: term.echoes)
            term.type(keys)
        term.wait_for(lambda term: rows.here() > before and rows.shown().endswith(PROMPT))
        rows.stand()
        rows.check(ordered=False)  # what Lua prints is shown when the statement has ended
        number += 2


@pytest.mark.lua
@pytest.mark.parametrize("writer", ["a command", "io.write", "io.stderr", "a child", "a line of a child"])
def test_an_event_while_somebody_writes_wipes_nothing(rows, writer):
    """The event comes at whatever moment of the command: both are whole, and the prompt stands once."""
    for number in range(10, 40, 2):
        text, told = text_of(number, 6), text_of(number + 1, 6)
        line, _ = WRITERS[writer](text)
        term = rows.term
        before = rows.here()
        term.type(line)
        term.wait_for(lambda term: term._typed(line))
        term.type(Key.ENTER)
        rows.fake.event(12, told)
        term.wait_for(lambda term: f'"{told}"'.encode() in term.raw and rows.here() > before and rows.shown().endswith(PROMPT))
        rows.stand()
        whole = "".join(row if len(row) == WIDTH else row + "\n" for row in term.all_lines)
        rows.prompts += 1
        assert whole.count(text) == 1 and whole.count(f'"{told}"') == 1, term
        assert whole.count(PROMPT.rstrip()) == rows.prompts, term


@pytest.mark.lua
def test_events_at_once_leave_what_stands_before_the_prompt(rows):
    """Each has the line step aside, the next one perhaps before it has come back."""
    for number in range(10, 100, 10):
        rows.write("io.write", text_of(number, 6))
        texts = [text_of(number + i, 6) for i in range(1, 9)]
        for text in texts:
            rows.fake.event(12, text)
        rows.term.wait_for(lambda term: all(f'"{text}"'.encode() in term.raw for text in texts))
        rows.stand()
        rows.written += texts
        rows.check()


class Walk:
    """Somebody who types at random while events come at random."""

    def __init__(self, rows, seed):
        self.rows, self.term, self.random, self.number = rows, rows.term, random.Random(seed), 9
        self.steps = []

    def text(self):
        self.number += 1
        return text_of(self.number, self.random.choice((7, 7, 7, *SIZES[1:])))

    def events(self, most=3):
        """Some events, all at once."""
        told = []
        for _ in range(self.random.randint(0, most)):
            self.number += 1
            told.append(text_of(self.number, 7))
            self.rows.fake.event(12, told[-1])
        self.rows.written += told
        self.steps.append(f"events {told}")

    def maybe_events(self):
        if self.random.random() < 0.5:
            self.events()

    def maybe_wait_for_line(self, end):
        """Waits until the line is seen, or types on before."""
        if self.random.random() < 0.5:
            self.term.wait_for(lambda term: self.line().rstrip().endswith(end))

    def line(self):
        row, _ = self.term.cursor
        return self.term.line(max(0, row - 1)).ljust(WIDTH) + self.term.line(row)

    def command(self):
        writer = self.random.choice([name for name in WRITERS if WRITERS[name]("w10qxz")[0] and name != "io.read"])
        text = self.text()
        self.go(WRITERS[writer](text)[0], text)

    def two_commands_in_one(self):
        texts = [self.text(), self.text()]
        names = [self.random.choice([name for name in STATEMENTS if name != "io.read"]) for _ in texts]
        self.go("lua " + " ".join(STATEMENTS[name](text) for name, text in zip(names, texts)), *texts)

    def go(self, line, *texts):
        self.steps.append(line)
        self.maybe_events()
        cut = self.random.randrange(len(line))
        self.term.type(line[:cut])
        self.maybe_events()
        self.term.type(line[cut:])
        self.maybe_wait_for_line(line[-5:])
        self.maybe_events()
        self.term.type(Key.ENTER)
        self.rows.written += texts
        self.rows.prompts += 1
        self.events()

    def half_a_line(self):
        text = "half" * self.random.randint(1, 15)
        self.steps.append(text)
        self.term.type(text)
        self.maybe_wait_for_line(text[-4:])
        self.events()
        self.term.type(Key.LEFT * self.random.randint(0, len(text)))
        self.maybe_events()
        self.term.type(Key.CTRL_E + Key.CTRL_U)

    def ctrl_c(self):
        self.steps.append("ctrl_c")
        self.events()
        self.term.type("dropped" + Key.CTRL_C)
        self.rows.prompts += 1
        self.events()

    def tab(self):
        self.steps.append("tab")
        self.events(1)
        self.term.type("get Device.Time.En" + Key.TAB)
        self.events()
        self.term.wait_for(lambda term: self.line().rstrip().endswith("Enable"))
        self.term.type(Key.CTRL_U)

    def go_on(self, steps):
        ways = [self.command, self.command, self.two_commands_in_one, self.half_a_line, self.ctrl_c, self.tab]
        for _ in range(steps):
            self.random.choice(ways)()
            self.term.wait_for(self.is_settled)
            self.rows.stand()
            self.rows.check(ordered=False)

    def is_settled(self, term):
        """Whether all is there, and nothing but the prompt behind it."""
        return self.rows.shown().endswith(PROMPT) and all(text.encode() in term.raw for text in self.rows.written)


@pytest.mark.lua
@pytest.mark.parametrize("seed", range(8))
def test_whatever_comes_while_somebody_types_all_of_it_stands_once(rows, seed):
    walk = Walk(rows, seed)
    try:
        walk.go_on(20)
    except AssertionError as error:
        raise AssertionError("\n".join(walk.steps[-8:])) from error
