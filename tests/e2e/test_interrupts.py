"""Ctrl-C at random moments of everything: afterwards the prompt stands, the next command is right, and nothing has changed.

    KEST_STORM=20000 pytest tests/e2e/test_interrupts.py       about so many interruptions in each storm instead of some hundred
    KEST_STORM_SEED=7                                          other moments

How many it were, and how soon the prompt is back, is printed with `pytest -s`.
"""

import os
import random
import signal
import time

import pytest

from lib import settings
from lib.fake import Silence
from lib.terminal import Key
from lib.world import World, document

ROUNDS = int(os.environ.get("KEST_STORM", "200" if settings.PATIENCE < 4 else "50"))  # a share of them where it is slow
SEED = int(os.environ.get("KEST_STORM_SEED", "1"))

LASTING = pytest.mark.deadline(60 + ROUNDS / 4)


@pytest.fixture
def device(veld_start, tmp_path):
    model = tmp_path / "model.json"
    model.write_text(document())
    return veld_start(model=model)


class Storm:
    """A shell that is interrupted at moments of its own chance; each command is followed by one whose output is known."""

    def __init__(self, term, seed, prompt):
        self.term = term
        self.interruptions = 0
        self.random = random.Random(seed)
        self.prompt = prompt
        self.done = []
        self.checks = []

    def moment(self):
        """Seconds until the next key: as likely between 0.1 and 1 ms as between 1 and 10."""
        return 10 ** self.random.uniform(-4.3, -1.8)

    def wait(self, seconds):
        until = time.monotonic() + seconds
        while settings.remaining(until) > 0:
            self.term.read(settings.remaining(until))

    def strike(self):
        self.term.type(Key.CTRL_C)
        self.interruptions += 1

    def interrupt(self, line, end=Key.ENTER):
        """Types a line and lets go of it at a random moment."""
        self.done = self.done[-30:] + [line]
        self.term.type(line + end)
        self.wait(self.moment())
        self.strike()
        for _ in range(self.random.choice([0, 0, 0, 1, 3])):
            self.wait(self.moment() / 4)
            self.strike()
        if end != Key.ENTER:
            self.term.type(Key.CTRL_U)  # Ctrl-C may have left the completion or the hint alone

    def series(self, lines, ends=(Key.ENTER,)):
        """One line or several, each let go of, whether the prompt is back from the one before or not; then waits for it."""
        for _ in range(self.random.choice([1, 1, 2, 8])):
            self.interrupt(self.random.choice(lines), self.random.choice(ends))
        self.settle()
        self.term.forget()

    def settle(self):
        """All keys so far were taken, and the prompt stands: what is typed behind them appears on it."""
        try:
            self.term.type("settled")
            self.term.wait_for(self.typed)
            self.term.type(Key.CTRL_U)
            self.term.wait_for(self.at_prompt)
        except AssertionError as problem:
            raise AssertionError(f"after {self.done}:\n{problem}") from None

    def shown(self, term):
        row, column = term.cursor
        return term.line(row).ljust(column)[:column]

    def typed(self, term):
        return self.shown(term).endswith(self.prompt + " settled" if self.prompt else "> settled")

    def at_prompt(self, term):
        """Perhaps behind a row that a command has left unfinished."""
        return term.at_prompt() and term.line(term.cursor[0]).endswith(self.prompt)

    def run(self, line):
        try:
            return self.term.run(line)
        except AssertionError as problem:
            raise AssertionError(f"after {self.done}:\n{problem}") from None

    def check(self):
        """A command whose output is known."""
        line, wanted = self.random.choice(self.checks)
        shown = self.run(line)
        assert shown == wanted, f"{self.interruptions}: {line} after {self.done}"


COMMANDS = [
    "pwd", "ls", "ls :Device.", "ls -l :Device.Host.1", "cat :Device.", "cat :Device.Host.1.", "catree :Device.",
    "tree :Device.", "attr :Device.Name :Device.Host :Device.Nothing", "set :Device.Level=5", "help", "cd :Device.Nothing",
    "order :Device.Rule.1 9", "del :Device.Host.77", "sh echo x", "sh sleep 0.01", "execute :Device.Echo Text=x", "save",
    "up -1", "nothing", "color prompt 1 2 3 4", "ls :Device.Host.77.Address.", "cat :Device.Host.1.Address.7.IP", "!pwd", "",
    "lua print(1)", "lua dm.get('Device.Name')", "lua for i = 1, 1e5 do end", "lua for i = 1, 50 do dm.get('Device.') end",
    "lua io.write('half')", "lua error('x')", "lua pcall(dm.get, 'Device.Nothing')", "lua io.popen('echo x'):read()",
    "lua os.execute('sleep 0.003')",
]  # fmt: skip


def values(path):
    world = World()
    found = world.listing(world.node(path), 2)
    cut = len(path) + 1
    return [(name[cut:], value) for name, value in found]


CHECKS = [
    ("pwd", [":Device.Info"]),
    ("cat Serial", ['Serial = "S1"']),
    ("cat :Device.Level", ["Level = 5"]),
    ("ls Up", ["Up.Time"]),
    ("cat :Device.Rule.order", ['order = "3,2,1"']),
    ("cat :Device.Rule.9.Text", ["[9005] Invalid parameter name: no such node: Device.Rule.9.Text"]),
    ("attr Nothing", ["attr: Nothing: no such node"]),
]


@pytest.fixture
def storm(device, shell):
    storms = []

    def start(seed=SEED):
        term = shell(to=device, columns=200, rows=30)
        term.run("order :Device.Rule.1 9")
        name = term.line(term.cursor[0]).partition("@kest")[0]
        term.run("cd Device.Info")
        storm = Storm(term, seed, f"{name}@kest:Device.Info>")
        storm.checks = CHECKS
        storms.append(storm)
        return storm

    yield start
    for storm in storms:
        print(f"\n{storm.interruptions} interruptions")


@LASTING
@pytest.mark.threads
@pytest.mark.parametrize("seed", [SEED, pytest.param(SEED + 1, marks=pytest.mark.load)])
def test_a_storm_over_every_command_changes_nothing(storm, device, seed):
    storm = storm(seed)
    while storm.interruptions < 2 * ROUNDS:
        storm.series(COMMANDS)
        storm.check()
    assert device.value("Device.Level") == 5
    assert device.value("Device.Rule.order") == "3,2,1"
    assert device.value("Device.Host.max_instance") == 2
    storm.term.type("q\r")
    assert storm.term.wait_exit() == 0
    assert storm.term.echoes


@LASTING
@pytest.mark.threads
def test_a_storm_while_words_are_completed(storm):
    storm = storm()
    lines = ["cat :", "ls :Device.", "cat :Device.Host.", "cat :Device.Host.9.", "set :Device.Enable=", "cd :Device.Nothing.",
             "lua dm.", "sh l", "sh ls /usr/b", "record /usr/bin/", "cat :Device.Host.1.Address.1.Use."]  # fmt: skip
    while storm.interruptions < ROUNDS:
        storm.series(lines, [Key.TAB, Key.TAB * 2, "", ".", ".\t"])
        storm.check()


@LASTING
@pytest.mark.threads
def test_a_storm_while_the_place_moves(storm):
    """A command that was left moved the shell, or did not; what is shown of a place fits the prompt."""
    storm = storm()
    term = storm.term
    places = {"Device.Info": "Serial\nUp.", "Device.Host.1": "Address.\nAlias\nPort\nStats.", "Device.Info.Up": "Time", "": "Device."}
    storm.prompt = ""
    while storm.interruptions < ROUNDS:
        storm.series([f"cd :{place}" for place in places])
        shown = term.line(term.cursor[0]).partition("kest:")[2].rstrip("> ")
        assert shown in places, storm.done
        assert storm.run("pwd") == [":" + shown]
        assert sorted(" ".join(storm.run("ls")).split()) == places[shown].split("\n"), storm.done


@LASTING
@pytest.mark.lua
@pytest.mark.threads
def test_a_storm_in_the_lua_console(storm):
    """Lua lines are dropped from a Ctrl-C on until the console is entered again."""
    storm = storm()
    term = storm.term
    lines = ["1 + 1", "for i = 1, 1e5 do end", "dm.get('Device.')", "os.execute('sleep 0.01')", "error('x')", "print('a')", "do", "dm.",
             "for i = 1, 20 do dm.get('Device.Name') end", "pcall(os.execute, 'sleep 0.01')", "t = {} t[1] = t t", "io.write('half')"]  # fmt: skip
    while storm.interruptions < ROUNDS:
        term.run("lua")
        storm.prompt = ""
        for _ in range(storm.random.randint(1, 3)):
            line = storm.random.choice(lines)
            storm.done = storm.done[-30:] + [line]
            end = storm.random.choice(["\r", "\r", "\t"])
            term.type(line + end)
            storm.wait(storm.moment())
            storm.strike()
            storm.wait(storm.moment())
            storm.strike()  # an unfinished statement
            if end == "\t":
                term.type(Key.CTRL_U)  # two signals that wait are one, and may have left nothing but the completion
            storm.settle()
        term.run("q")
        if "kest-lua" in term.line(term.cursor[0]):
            term.run("q")
        term.forget()
        storm.check()


@LASTING
@pytest.mark.lua
@pytest.mark.threads
def test_signals_at_random_moments_end_other_modes_or_come_too_late(device, kest_start, tmp_path):
    """One-shots and scripts have nothing to clean: SIGINT ends them. Whoever ends by itself says so, with all of its output."""
    (tmp_path / "script").write_text("cat Device.Name\nset Device.Level=5\nls Device.\ncat Device.Name\n")
    (tmp_path / "lua").write_text("for i = 1, 10 do assert(dm.get('Device.Name') == 'box') end print('done')\n")
    modes = [
        (["-r", "get", "Device.Name"], 'Name = "box"\n'),
        (["-r", "get", "Device."], None),
        (["-r", "attr", "Device.Name"], None),
        (["--raw", '{"id":1,"method":"GetParameterValues","params":{"ParameterNames":["Device.Name"]}}'], None),
        (["-e", "12", "1"], ""),
        (["-s", "script"], None),
        (["-S", "lua"], "done\n"),
        (["-r", "lua", "print(dm.get('Device.Name'))"], None),
    ]
    whole = [kest_start(*words, to=device).finish().out for words, _ in modes]
    for (words, wanted), out in zip(modes, whole):
        assert wanted is None or out == wanted
    chance = random.Random(SEED)
    for _ in range(ROUNDS // 4):
        index = chance.randrange(len(modes))
        run = kest_start(*modes[index][0], to=device)
        time.sleep(10 ** chance.uniform(-3, -1.5))
        run.interrupt()
        run.finish()
        assert run.status in (0, -signal.SIGINT), (modes[index], run)
        assert run.err == "", run
        if run.status == 0:
            assert run.out == whole[index], run
    assert device.value("Device.Level") == 5


@LASTING
@pytest.mark.threads
def test_signals_at_random_moments_end_listening(device, kest_start):
    chance = random.Random(SEED)
    with device.connect() as peer:
        for _ in range(ROUNDS // 10):
            run = kest_start("-l", "-g", "12", to=device)
            ready = chance.random() < 0.7
            if ready:
                run.wait_for(lambda run: peer.send_event(12, "ready") or "EVENT 12:" in run.out)
                run.wait_for(lambda run: run.catches(signal.SIGINT))
                for number in range(chance.randint(0, 50)):
                    peer.send_event(12, number)
            time.sleep(10 ** chance.uniform(-3, -1.5))
            run.interrupt()
            run.finish()
            assert run.status in ((0,) if ready else (0, -signal.SIGINT)), run
            assert run.err == "", run


# How soon the prompt is back. The best of several: the machine may be busy, but what waits by design does so each time.

WAITING = 0.05
COMPUTING = 0.25
ALLOWANCE = 10  # for a machine that does other things


def soon(name, term, limit, begin, times=7):
    """`begin` brings the shell to the moment, Ctrl-C follows; the best time until the prompt stands."""
    spent = []
    for _ in range(times):
        begin()
        began = time.monotonic()
        term.type(Key.CTRL_C)
        term.wait_prompt()
        spent.append(time.monotonic() - began)
    spent.sort()
    print(f"\n{name}: best {1000 * spent[0]:.1f} ms, middle {1000 * spent[len(spent) // 2]:.1f} ms (wanted: {1000 * limit:.0f})")
    assert spent[0] < limit * max(ALLOWANCE, settings.PATIENCE)


class Asking:
    """Types a command at a silent daemon and waits until its request has come."""

    def __init__(self, term, fake, line, method, end="\r"):
        self.term, self.fake, self.line, self.method, self.end = term, fake, line, method, end

    def __call__(self):
        count = len(self.fake.of(self.method))
        self.term.type(self.line + self.end)
        self.fake.wait_for(lambda fake: len(fake.of(self.method)) > count)


SMALL = {"Device.": {}, "Device.A": 1, "Device.T.": {"multi": True}, "Device.T.{i}.": {}, "Device.T.{i}.X": 1,
         "Device.T.max_instance": {"type": "unsignedInt", "default": 0, "value": 0}, "Device.M": {"type": "method"}}  # fmt: skip


@pytest.mark.parametrize("line, method", [
    ("cat Device.A", "GetParameterValues"),
    ("ls -l Device", "GetParameterAttributes"),
    ("attr Device.A", "GetParameterAttributes"),
    ("cat Device.T.1.Nothing.X", "GetParameterAttributes"),
    ("set Device.A=5", "SetParameterValues"),
    ("add Device.T", "AddObject"),
    ("take Device.T", "AddObject"),
    ("del Device.T.1", "DeleteObject"),
    ("order Device.T.1 2", "ChangeOrder"),
    ("execute Device.M", "GetParameterAttributes"),
    ("save", "SaveConfig"),
    ("reset", "FactoryReset"),
    ("reboot", "Reboot"),
    ("login anna -p x", "Login"),
    ("logout", "Logout"),
    ("download file http://h/ x", "Download"),
    ("lua dm.get('Device.A')", "GetParameterValues"),
    ("lua pcall(dm.get, 'Device.A') dm.get('Device.A')", "GetParameterValues"),
])  # fmt: skip
def test_the_prompt_is_back_at_once_from_a_request(shell, fake, line, method):
    fake.serve(SMALL)
    term = shell(to=fake)
    term.run("ls Device.")
    fake.on(method, Silence())
    soon(line, term, WAITING, Asking(term, fake, line, method))
    assert term.run("pwd") == [":"]


def test_the_prompt_is_back_at_once_from_a_tab_and_a_hint(shell, fake):
    fake.serve(SMALL)
    term = shell(to=fake)
    fake.on("GetParameterAttributes", Silence())

    def drop():
        term.type(Key.CTRL_C)
        term.wait_prompt()

    for name, end in (("Tab", "\t"), ("hint", "")):
        spent = []
        for _ in range(7):
            Asking(term, fake, "cat Device.", "GetParameterAttributes", end)()
            began = time.monotonic()
            term.type(Key.CTRL_C + "x")
            term.wait_for(lambda term: term.line(term.cursor[0])[: term.cursor[1]].endswith("x"))
            spent.append(time.monotonic() - began)
            drop()
        print(f"\n{name}: best {1000 * min(spent):.1f} ms")
        assert min(spent) < WAITING * max(ALLOWANCE, settings.PATIENCE)


@pytest.mark.parametrize("line, ready", [
    ("sh 'echo rea\"\"dy; exec sleep 60'", "ready"),
    ("lua io.stderr:write('rea', 'dy') io.popen('exec sleep 60'):read('a')", "ready"),
    ("lua io.stderr:write('rea', 'dy') os.execute('exec sleep 60')", "ready"),
    ("lua io.stderr:write('rea', 'dy') io.read()", "ready"),
    ("login anna", "password for"),
])  # fmt: skip
def test_the_prompt_is_back_at_once_from_a_wait(shell, fake, line, ready):
    fake.serve(SMALL)
    term = shell(to=fake)

    def begin():
        count = term.raw.count(ready.encode())
        term.type(line + "\r")
        term.wait_for(lambda term: term.raw.count(ready.encode()) > count)

    soon(line, term, WAITING, begin)
    assert term.run("pwd") == [":"]


def test_the_prompt_is_back_at_once_from_a_reconnect(shell, fake):
    fake.serve(SMALL)
    term = shell(to=fake)
    fake.refuse()

    def begin():
        for connection in fake.open_connections:
            if not connection.receiver:
                connection.close()
        count = term.raw.count(b"Reconnecting")
        term.type("cat Device.A\r")
        term.wait_for(lambda term: term.raw.count(b"Reconnecting") > count)

    soon("reconnect", term, WAITING, begin)
    assert term.run("pwd") == [":"]


@pytest.mark.load
@pytest.mark.parametrize("line, ready", [
    ("cat Device.", "P1"),
    ("lua io.stderr:write('rea', 'dy') while true do end", "ready"),
    ("lua io.stderr:write('rea', 'dy') pcall(function() while true do end end) while true do end", "ready"),
    ("lua io.stderr:write('rea', 'dy') local t = {} for i = 1, 1e9 do t[i] = {i} end", "ready"),
])  # fmt: skip
def test_the_prompt_is_back_soon_from_what_computes(shell, fake, line, ready):
    fake.serve(SMALL)
    fake.on("GetParameterValues", {"ParameterList": [{"Name": f"Device.P{n}", "Value": "x" * 60} for n in range(100_000)]})
    term = shell(to=fake)

    def begin():
        count = term.raw.count(ready.encode())
        term.type(line + "\r")
        term.wait_for(lambda term: term.raw.count(ready.encode()) > count)

    soon(line, term, COMPUTING, begin, times=4)
    assert term.run("pwd") == [":"]


@pytest.mark.load
def test_the_prompt_is_back_soon_wherever_a_long_answer_is_worked_on(shell, fake):
    """Ctrl-C at moments spread over the whole work on an answer of 40,000 entries: read, turned into a tree, printed."""
    names = [f"Device.G{n // 1000}.P{n}" for n in range(40_000)]
    scheme = fake.serve(SMALL)
    term = shell(to=fake)
    fake.on("GetParameterValues", {"ParameterList": [{"Name": name, "Value": "x"} for name in names]})
    attributes = [{"Name": name, "Attributes": {"type": "string", "access": "readOnly", "default": ""}} for name in names]
    for line, method in (("catree Device.", "GetParameterValues"), ("cat Device.", "GetParameterValues"),
                         ("ls -l Device.", "GetParameterAttributes")):  # fmt: skip
        if method == "GetParameterAttributes":
            fake.on(method, {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object", "access": "readOnly"}}] + attributes})
        worst = []
        for part in range(4):
            count = len(fake.of(method))
            term.type(line + "\r")
            fake.wait_for(lambda fake: len(fake.of(method)) > count or term.read(0.001) and term.at_prompt())
            until = time.monotonic() + 0.05 * part
            while settings.remaining(until):
                term.read(settings.remaining(until))
            began = time.monotonic()
            term.type(Key.CTRL_C)
            term.wait_prompt()
            worst.append(time.monotonic() - began)
        print(f"\n{line}: {' '.join(f'{1000 * each:.0f}' for each in worst)} ms (wanted: {1000 * COMPUTING:.0f})")
        assert sorted(worst)[len(worst) // 2] < COMPUTING * max(ALLOWANCE, settings.PATIENCE)
    assert term.run("pwd") == [":"]
