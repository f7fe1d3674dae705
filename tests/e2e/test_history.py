"""The histories of the shell and of Lua mode: sessions at once, the file's size, full disks; recordings that pass through Lua
mode; what is kept when a session is ended from outside; and the options of the line editor, which hold until they are
changed."""

import os
import re
import signal

import pytest

from lib import settings
from lib.commands import MODEL, refuse_logins, typed
from lib.fake import Silence
from lib.program import Program
from lib.terminal import Key


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


@pytest.fixture
def history(private_tmp):
    return private_tmp / ".kest.hist"


@pytest.fixture
def lua_history(private_tmp):
    return private_tmp / ".kest.lua.hist"


# Sessions at once

def test_two_shells_at_once_lose_nothing(shell, model, history):
    history.write_text("pwd\n")
    first, second = shell(to=model), shell(to=model)
    first.run("cd Device")
    second.run("cd Device.Time")
    first.run("cd Device.Host")
    for term in (first, second):
        term.type("q\r")
        assert term.wait_exit() == 0
    assert history.read_text() == "pwd\ncd Device\ncd Device.Host\ncd Device.Time\n"


@pytest.mark.lua
def test_a_shell_that_comes_back_from_lua_mode_knows_what_another_did(shell, model, history):
    first, second = shell(to=model), shell(to=model)
    first.run("cd Device")
    second.run("cd :Device.Time")
    second.type("q\r")
    assert second.wait_exit() == 0
    first.run("lua")
    first.run("q")
    assert first.run("!1", prompt="kest:Device.Time> ") == ["cd :Device.Time"]
    first.type("q\r")
    assert first.wait_exit() == 0
    assert history.read_text() == "cd :Device.Time\ncd Device\nlua\ncd :Device.Time\n"


@pytest.mark.lua
def test_two_lua_modes_at_once_lose_nothing(shell, model, lua_history):
    first, second = shell(to=model), shell(to=model)
    for term, statement in ((first, "a = 1"), (second, "b = 2")):
        term.run("lua")
        term.run(statement)
    for term in (first, second):
        term.run("q", prompt="kest:> ")
    assert lua_history.read_text() == "a = 1\nb = 2\n"


def test_shells_that_end_in_the_same_moment_lose_nothing(kest_start, model, history):
    lines = {number: [f"x{number} {line}" for line in range(3)] for number in range(6)}
    shells = [kest_start(to=model, stdin="\n".join(mine) + "\n") for mine in lines.values()]
    for program in shells:
        assert program.finish().status == 0
    kept = history.read_text().splitlines()
    assert sorted(kept) == sorted(sum(lines.values(), []))
    for number, mine in lines.items():
        assert [line for line in kept if line.startswith(f"x{number} ")] == mine


# What is in the file

@pytest.mark.lua
def test_the_file_keeps_the_newest_10000_lines(kest, model, history, lua_history):
    for path in (history, lua_history):
        path.write_text("".join(f"x{number}\n" for number in range(12000)))
    typed(kest, model, "pwd", "lua", "y = 1", "q", "q")
    assert history.read_text().splitlines() == [f"x{number}" for number in range(2002, 12000)] + ["pwd", "lua"]
    assert lua_history.read_text().splitlines() == [f"x{number}" for number in range(2001, 12000)] + ["y = 1"]


@pytest.mark.lua
def test_a_full_disk_loses_nothing_that_was_there(sandbox, model, history, private_tmp):
    history.write_text("precious\n")
    env = sandbox.environment({"K": f"{settings.KEST} -u {model.address}"})
    full = ["sh", "-c", "trap '' XFSZ; ulimit -f 0; exec $K"]
    run = Program(full, env, sandbox.work, "pwd\nlua\nx = 1\nq\n!2\n", sandbox.wrap).finish()
    assert run.out.endswith(":\npwd\n:\n")  # what could not be saved is still known
    assert run.err == f"/tmp/.kest.hist: File too large, the history there is left alone.\n" \
                      f"/tmp/.kest.lua.hist: File too large, the history there is left alone.\n"
    assert history.read_text() == "precious\n"
    left = [path.name for path in private_tmp.glob(".kest*") if path.stat().st_size]
    assert left == [".kest.hist"]


# Recordings

@pytest.mark.parametrize("kept", [False, True])
def test_what_a_killed_save_left_goes_with_the_next(kest, model, history, private_tmp, kept):
    left = private_tmp / f".kest.hist.{'0123456789abcdef' if not kept else '0123456789abcdeg'}"
    left.write_text("half of it")
    typed(kest, model, "pwd")
    assert left.exists() == kept
    assert history.read_text() == "pwd\n"


@pytest.mark.parametrize("before", [None, 0o644, 0o755])
def test_a_recording_is_its_owners_alone(kest, model, tmp_path, before):
    path = tmp_path / "script"
    if before:
        path.touch()
        path.chmod(before)
    typed(kest, model, f"record {path}", "login anna -p secret", "q")
    assert "login anna -p secret" in path.read_text()
    assert path.stat().st_mode & 0o777 == (0o600 if before is None else before & 0o700)


@pytest.mark.lua
def test_a_recording_that_passes_through_lua_mode_keeps_its_own_lines(kest, model, tmp_path, lua_history, history):
    lua_history.write_text("earlier()\nolder()\n")
    typed(kest, model, "cd", "record file", "pwd", "cd Device", "lua", "x = 1", " y = 2", "for i = 1, 2 do", "x = i", "end", "q",
          "pwd", "q")
    assert (tmp_path / "file").read_text() == "pwd\ncd Device\nlua\nx = 1\nfor i = 1, 2 do\nx = i\nend\n"
    assert history.read_text() == "cd\nrecord file\npwd\ncd Device\nlua\npwd\n"
    assert lua_history.read_text() == "earlier()\nolder()\nx = 1\n\001for i = 1, 2 do\\nx = i\\nend\n"


@pytest.mark.lua
def test_luarecord_holds_nothing_of_earlier_lua_modes(kest, model, tmp_path, lua_history):
    lua_history.write_text("earlier()\n")
    typed(kest, model, "lua", "x = 1", "q", "pwd", "luarecord file", "y = 2", "q", "q")
    assert (tmp_path / "file").read_text() == "y = 2\n"


# Options

def completes(term, expected):
    """Whether Tab completes the shell's line is as expected."""
    term.type("cd Dev\t")
    term.type("x")
    term.wait_for(lambda t: t.line(t.cursor[0]).endswith("x"))
    line = term.line(term.cursor[0])
    term.type(Key.CTRL_U)
    term.wait_prompt()
    return line.endswith("cd Device.x") == expected


def hints(term, expected):
    """Whether a hint stands behind the cursor once the line is one that has one is as expected."""
    term.type("cd Dev")
    if expected:
        term.wait_for(lambda t: t.line(t.cursor[0]).endswith("cd Device."))
    else:
        term.quiet()
    line = term.line(term.cursor[0])
    term.type(Key.CTRL_U)
    term.wait_prompt()
    return line.endswith("cd Device.") == expected


@pytest.mark.lua
@pytest.mark.parametrize("option, works", [("autocomplete", completes), ("hint", hints)])
def test_an_option_holds_until_it_is_changed(shell, model, option, works):
    term = shell(to=model)
    assert works(term, True)
    term.run(f"opt {option} off")
    assert works(term, False)
    term.run("lua")
    term.run("q")
    assert works(term, False)
    term.run(f"opt {option} on")
    assert works(term, True)
    term.run("lua")
    term.run("q")
    assert works(term, True)


@pytest.mark.parametrize("option, works, other", [("autocomplete", completes, hints), ("hint", hints, completes)])
def test_an_option_of_the_configuration_file_holds(shell, model, tmp_path, option, works, other):
    (tmp_path / "config").write_text(f"opt {option} off\n")
    term = shell("-c", "config", to=model)
    assert works(term, False)
    assert other(term, True)
    term.run(f"opt {option} on")
    assert works(term, True)


@pytest.mark.lua
def test_completion_that_is_off_is_off_in_lua_mode_too(shell, model):
    term = shell(to=model)
    for state, shown in (("off", "strix"), ("on", "stringx")):
        term.run(f"opt autocomplete {state}")
        term.run("lua")
        term.type("strin\tx" if state == "on" else "stri\tx")
        term.wait_for(lambda t, shown=shown: t.line(t.cursor[0]).endswith(shown))
        term.type(Key.CTRL_U)
        term.run("q", prompt="kest:> ")


# The end of a session from outside

BUSY = {
    "at the prompt": [],
    "with a line half typed": [b"cd Dev"],
    "while the daemon is silent": [b"save\r"],
    "in a child": [b"sh 'read x'\r"],
    "in a child of Lua code": [b"lua os.execute('read x')\r"],
    "in endless Lua code": [b"lua while true do end\r"],
    "in Lua mode": [b"lua\r", b"x = 1\r"],
    "in a statement of Lua mode": [b"lua\r", b"x = 1\r", b"while true do pcall(function() while true do end end) end\r"],
    "while Lua code reads a line": [b"lua\r", b"x = 1\r", b"io.read()\r"],
    "while Lua code reads what nobody writes": [b"lua\r", b"x = 1\r", b"io.open('fifo'):read()\r"],
    "while a password is typed": [b"login admin\r"],
    "in a search of the history": [b"\x12pw"],
}


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTERM], ids=["SIGHUP", "SIGTERM"])
@pytest.mark.parametrize("keys", BUSY.values(), ids=BUSY)
def test_a_session_ended_by_a_signal_keeps_its_history(shell, model, tmp_path, history, lua_history, number, keys):
    model.on("SaveConfig", Silence())
    os.mkfifo(tmp_path / "fifo")
    history.write_text("old\n")
    term = shell(to=model)
    term.run("pwd")
    for line in keys:
        if line.endswith(b"\r"):
            term.wait_prompt()
        term.type(line)
        term.wait_for(lambda t, shown=line.decode("latin-1").strip("\r\x12"): shown in t.text)
    term.quiet()
    term.signal(number)
    assert term.wait_exit() == -number
    remembered = ["old", "pwd"] + [line.decode().rstrip("\r") for line in keys[:1] if line.endswith(b"\r")]
    assert history.read_text().splitlines() == remembered
    if len(keys) > 1:
        assert lua_history.read_text() == "x = 1\n"
    assert term.echoes


@pytest.mark.parametrize("lines", [[], ["lua", "x = 1"], ["save"]], ids=["shell", "Lua mode", "command"])
def test_a_session_whose_window_is_closed_keeps_its_history(shell, model, history, lua_history, lines):
    model.on("SaveConfig", Silence())
    term = shell(to=model)
    term.run("pwd")
    for line in lines:
        if line == "save":
            term.type("save" + Key.ENTER)
            model.wait_for("SaveConfig")
        else:
            term.run(line)
    term.hang_up()
    term.wait_exit()
    assert history.read_text().splitlines() == ["pwd"] + lines[:1]
    if len(lines) > 1:
        assert lua_history.read_text() == "x = 1\n"


@pytest.mark.parametrize("name", ["HUP", "TERM"])
@pytest.mark.parametrize("keys", [[], [b"lua\r", b"x = 1\r"], [b"login admin\r"]], ids=["shell", "Lua mode", "password"])
def test_a_stopped_session_that_is_ended_keeps_its_history(terminal, model, history, lua_history, keys, name):
    # As a shell ends a stopped job: in the background, where the terminal is not its own.
    command = (f'set -m; "{settings.KEST}" -u "{model.address}"; kill -{name} %1; kill -CONT %1; '
               "while wait %1; status=$?; [ $status = 148 ]; do sleep 0.05; done; echo status $status")
    term = terminal("-c", command, program="/bin/sh").wait_prompt()
    term.run("pwd")
    term.prompt = re.compile("(kest.*:>|password for admin:)$")
    for line in keys:
        term.type(line[:-1])
        term.wait_for("> " + line[:-1].decode())
        term.type(line[-1:])
        term.wait_prompt()
    while term.echoes:  # goes off without any output
        term.read(0.01)
    term.type(Key.CTRL_Z)
    term.wait_for(f"status {128 + signal.Signals['SIG' + name]}")
    assert history.read_text().splitlines() == ["pwd"] + [line.decode().rstrip("\r") for line in keys[:1]]
    if len(keys) > 1:
        assert lua_history.read_text() == "x = 1\n"


def test_a_shell_without_a_terminal_keeps_its_history_too(kest_start, model, history):
    reader, writer = os.pipe()
    program = kest_start(to=model, stdin=reader)
    os.close(reader)
    os.write(writer, b"pwd\n")
    program.wait_for(":\n")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM
    os.close(writer)
    assert history.read_text() == "pwd\n"


@pytest.mark.lua
def test_a_recording_that_a_signal_ends_in_lua_mode_is_kept(shell, model, tmp_path):
    term = shell(to=model)
    term.run("luarecord file")
    term.run("x = 1")
    term.signal(signal.SIGTERM)
    assert term.wait_exit() == -signal.SIGTERM
    assert (tmp_path / "file").read_text() == "x = 1\n"


def test_a_hang_up_that_is_ignored_stays_ignored(sandbox, terminal, model):
    term = terminal("-c", f"trap '' HUP; exec {settings.KEST} -u {model.address}", program="/bin/sh").wait_prompt()
    term.signal(signal.SIGHUP)
    assert term.run("pwd") == [":"]


def test_what_cannot_be_left_ends_all_the_same(shell, model):
    term = shell(to=model)
    term.type("lua string.rep('a', 40):find(('a*'):rep(40) .. 'b')\r")
    term.wait_for("rep(40) .. 'b') \n".strip())
    term.quiet()
    term.signal(signal.SIGTERM)
    assert term.wait_exit(timeout=20) == -signal.SIGTERM
