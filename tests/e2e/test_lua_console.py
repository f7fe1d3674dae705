"""The Lua console: statements, Lua mode on pipes and on a terminal."""

import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from lib import settings
from lib.fake import Silence
from lib.terminal import Key

pytestmark = pytest.mark.lua

BANNER_END = "Enter 'help' or '?' for help, 'q' for exit.\n"


def lua_mode(kest, to, text, **options):
    """What Lua mode prints for the lines of `text`, entered from a shell on pipes."""
    run = kest(to=to, stdin=f"lua\n{text}\nq\nq\n", **options)
    assert run.status == 0
    run.shown = run.out.split(BANNER_END, 1)[1]
    return run


# --- lua <statement> ---


def test_a_statement_is_echoed_and_its_output_printed(veld, kest):
    run = kest("-r", "lua", "print(1)", to=veld)
    assert run.out == "print(1) \n1\n"
    assert run.status == 0


def test_the_words_of_a_statement_are_joined(veld, kest):
    run = kest("-r", "lua", "io.write(", "1,", "2", ")", to=veld)
    assert run.out == "io.write( 1, 2 ) \n12"


def test_an_error_of_a_statement_is_its_text_alone(veld, kest):
    run = kest("-r", "lua", "print(1) error('x')", to=veld)
    assert run.out == "print(1) error('x') \nLUA ERROR: [string \"stdin\"]:1: x\n"
    assert run.err == ""
    assert run.status == 0


def test_the_shell_passes_the_rest_of_the_line_unsplit(veld, kest):
    run = kest(to=veld, stdin="lua print('a  b', \"c\", #'#')\nq\n")
    assert run.out.split(BANNER_END)[1] == "print('a  b', \"c\", #'#') \na  b\tc\t1\n"


def test_os_exit_shows_first_what_was_printed(veld, kest):
    run = kest("-r", "lua", "print(1) io.write(2) os.exit(3)", to=veld)
    assert run.out == "print(1) io.write(2) os.exit(3) \n1\n2"
    assert run.status == 3


def test_os_exit_in_a_statement_keeps_the_shells_history(veld, kest, private_tmp):
    (private_tmp / ".kest.hist").write_text("old\n")
    run = kest(to=veld, stdin="pwd\nlua os.exit(4)\npwd\n")
    assert run.status == 4
    assert (private_tmp / ".kest.hist").read_text() == "old\npwd\nlua os.exit(4)\n"
    kest("-r", "lua", "os.exit(4)", to=veld)
    assert (private_tmp / ".kest.hist").read_text() == "old\npwd\nlua os.exit(4)\n"


def test_a_nul_does_not_cut_an_error(veld, kest):
    run = kest("-r", "lua", "error('a\\0b', 0)", to=veld)
    assert run.out == "error('a\\0b', 0) \nLUA ERROR: a\0b\n"


@pytest.mark.skipif(b"__asan_init" in settings.KEST.read_bytes(), reason="the sanitizer ends the program first")
def test_a_lack_of_memory_is_an_error_of_the_code(veld):
    code = "local t = {} for i = 1, 1e9 do t[i] = ('x'):rep(1e7) .. i end"
    limited = ["sh", "-c", 'ulimit -v 400000; exec "$@"', "sh", settings.KEST, "-u", veld.address, "-r", "lua", code]
    run = subprocess.run(limited, capture_output=True, text=True, timeout=settings.TEST_DEADLINE)
    assert run.stdout.endswith("LUA ERROR: not enough memory\n")
    assert run.returncode == 0


# --- Lua mode ---


def test_results_are_numbered_across_statements(veld, kest):
    run = lua_mode(kest, veld, "1+1\nx = 1\nx\n1, 'a'\n_[1] + _[3]\nprint(_ ~= nil)\nnil")
    assert run.shown == '_[1] = 2\n_[2] = 1\n_[3] = 1\n_[4] = "a"\n_[5] = 3\ntrue\n_[6] = nil\n'


def test_the_results_table_is_visible_only_to_statements(veld, kest):
    run = lua_mode(kest, veld, "1\nf = function() return _ end\nco = coroutine.wrap(f)\n_ = 5\n_ == nil, type(_)")
    # What was assigned to "_" is gone with the statement that did it; the next one sees the results again.
    assert run.shown == '_[1] = 1\n_[2] = false\n_[3] = "table"\n'


def test_an_unfinished_statement_takes_more_lines(veld, kest):
    run = lua_mode(kest, veld, "for i = 1, 2 do\nprint(i)\nend\nx = [[a\nquit\nb]]\nx")
    assert run.shown == "1\n2\n_[1] = [[\na\nquit\nb]]\n"


def test_errors_go_to_standard_error_with_their_trace(veld, kest):
    run = lua_mode(
        kest,
        veld,
        "function f() error('x') end\nf()\nx = = 1\nerror({})\nreturn f()\n"
        "error(setmetatable({}, {__tostring = function() return 'me' end}))",
    )
    assert run.shown == ""
    raised = "\n\nStack trace:\n\t#0 [C]: in function ?\n\t#1 [C]: in function 'error'\n"
    main = '[string "stdin"]:1: in the main chunk\n\n'
    # An expression is compiled behind "return", which makes a call a tail call: its caller is gone.
    tail = "\t... tail calls\n\t#2 [string \"stdin\"]:1: in function ?\n\n"
    assert run.err == (
        f'[string "stdin"]:1: x{raised}{tail}'
        "[string \"stdin\"]:1: unexpected symbol near '='\n"
        f"(no error message){raised}\t#2 {main}"
        f'[string "stdin"]:1: x{raised}{tail}'
        f"me{raised}\t#2 {main}"
    )
    run = lua_mode(kest, veld, "function f() error('x') end\nlocal a = f()")
    assert run.err == (
        f'[string "stdin"]:1: x{raised}'
        f"""\t#2 [string "stdin"]:1: in function 'f'\n\t#3 {main}"""
    )


def test_a_refused_request_reads_like_the_shells_line(veld, kest):
    run = lua_mode(kest, veld, "dm.get('Device.Nope')")
    assert re.match(r"\[9005\] Invalid parameter name: .*Device\.Nope.*\n\nStack trace:\n", run.err)


def test_metamethods_that_raise_end_neither_statement_nor_program(veld, kest):
    run = lua_mode(
        kest,
        veld,
        "g = setmetatable(_G, {__index = function(_, k) error('no global ' .. k, 0) end})\n1 + 1\n"
        "g = setmetatable(_G, nil)\n"
        "setmetatable({{}}, {__eq = function() error('no eq', 0) end})\n"
        "1, setmetatable({1, nil, 3}, {__index = function() error('no index', 0) end}), 2\n"
        "do setmetatable({}, {__gc = function() error('no gc', 0) end}) end collectgarbage()\n"
        "setmetatable({}, {__gc = function() error('at the end') end}) and 7",
    )
    assert "no global" not in run.err and "no eq\n" in run.err and "no index\n" in run.err and "no gc" in run.err
    assert run.shown == "_[1] = 2\n_[2] = 1\n_[3] = 2\n_[4] = 7\n"


def test_globals_that_refuse_what_is_not_declared_know_the_results(veld, kest):
    strict = (
        "setmetatable(_G, {__index = function(_, k) error('no ' .. k, 2) end, __newindex = function(_, k) error('not ' .. k, 2) end})"
    )
    run = lua_mode(kest, veld, f"{strict} return 1\n_[1] + 1\nx = 1\ny\n_[2] + 1\n_ = nil\nrawget(_G, '_')[3]")
    assert run.shown == "_[1] = 1\n_[2] = 2\n_[3] = 3\n_[4] = 3\n"
    assert re.findall(r'\[string "stdin"\]:1: (.*)', run.err.split("Stack trace")[0]) == ["not x"] and "no y" in run.err
    assert run.err.count("Stack trace") == 2


def test_underscore_is_what_the_metamethods_of_the_globals_say(veld, kest):
    run = lua_mode(kest, veld, "t = setmetatable(_G, {__index = {_ = 'own'}})\n1\n_\nrawget(_G, '_')")
    assert run.shown == "_[1] = 1\n_[2] = \"own\"\n_[3] = nil\n" and run.err == ""


def test_results_without_their_table_are_an_error(veld, kest):
    run = lua_mode(kest, veld, "for i = 3, 100 do debug.getregistry()[i] = nil end\n1\nprint(2)")
    assert "table expected, got nil" in run.err
    assert run.shown == "2\n"


def test_the_trace_of_an_endless_recursion_is_whole(veld, kest):
    run = lua_mode(kest, veld, "local function f() f() end f()\n1")
    frames = run.err.count("\t#")
    assert frames > 100000
    assert f"\t#{frames - 1} [string \"stdin\"]:1: in the main chunk\n" in run.err
    assert run.shown == "_[1] = 1\n"


def test_a_leading_blank_keeps_a_line_out_of_the_history_and_echoes_it(veld, kest, private_tmp):
    run = lua_mode(kest, veld, " x = 1\ny = 2")
    assert run.shown == " x = 1\n"
    assert (private_tmp / ".kest.lua.hist").read_text() == "y = 2\n"


def test_statements_of_many_lines_survive_in_the_history_as_one(veld, terminal, kest, private_tmp):
    lua_mode(kest, veld, "for i = 1, 2 do\nprint(i)\nend\nx = = 1")
    assert (private_tmp / ".kest.lua.hist").read_text().count("\n") == 2
    term = terminal(to=veld).wait_prompt()
    term.run("lua")
    term.type(Key.UP + Key.UP)
    term.wait_for("for i = 1, 2 do")
    assert term.enter() [-2:] == ["1", "2"]


def test_luarecord_writes_a_script_that_runs(veld, kest, tmp_path):
    path = tmp_path / "session.lua"
    statements = "x = 1\nfor i = 1, 2 do\nx = x + i\nend\nprint(x, dm.get('Device.Time.Enable') ~= nil)"
    run = kest(to=veld, stdin=f"lua\nold = 1\nq\nluarecord {path}\n{statements}\nq\nq\n")
    assert run.out.split(BANNER_END)[1] == "4\ttrue\n"
    assert path.read_text() == statements + "\n"
    assert kest("-S", path, to=veld).out == "4\ttrue\n"


def test_os_exit_in_lua_mode_keeps_recording_and_history(veld, kest, tmp_path, private_tmp):
    path = tmp_path / "session.lua"
    run = kest(to=veld, stdin=f"luarecord {path}\nx = 1\nprint(x)\nos.exit(5)\n")
    assert run.out.endswith("\n1\n")
    assert run.status == 5
    assert path.read_text() == "x = 1\nprint(x)\n"
    assert (private_tmp / ".kest.lua.hist").read_text() == "x = 1\nprint(x)\n"


def test_luarecord_refuses_what_record_refuses(veld, kest, tmp_path):
    run = kest(to=veld, stdin=f"luarecord\nluarecord /nonexistent/x\nluarecord abort\nrecord {tmp_path}/r\nluarecord {tmp_path}/s\nq\nq\n")
    assert run.out.split(BANNER_END)[1] == (
        "syntax: luarecord <filename>|abort\n"
        "luarecord: can't create record file /nonexistent/x.\n"
        "luarecord: no record found.\n"
        "luarecord: already recording.\n"
    )


def test_each_lua_mode_begins_anew(veld, kest):
    run = kest(to=veld, stdin="lua\nx = 1\n1\nquit\nlua\nx\nq\nq\n")
    assert run.out.split(BANNER_END)[1] == "_[1] = 1\n_[1] = nil\n"


def test_lua_mode_without_a_terminal_ends_with_its_lines(veld, kest, private_tmp, tmp_path):
    (private_tmp / ".kest.hist").write_text("precious\n")
    (private_tmp / ".kest.lua.hist").write_text("old()\n")
    script = tmp_path / "s.kest"
    script.write_text("lua\nget Device.Time.Enable\n")
    for words in (("-r", "lua"), ("-s", script)):
        run = kest(*words, to=veld, stdin="print(1 + 1)\n")
        assert run.out.startswith("2\n")
        assert (private_tmp / ".kest.hist").read_text() == "precious\n"
    assert (private_tmp / ".kest.lua.hist").read_text() == "old()\nprint(1 + 1)\nprint(1 + 1)\n"
    assert kest("-r", "lua", to=veld).status == 0


def test_output_and_errors_keep_their_order(veld, kest, tmp_path):
    both = tmp_path / "both"
    with open(both, "w") as out:
        run = kest(to=veld, stdin="lua\nprint(1)\nerror('x', 0)\nprint(2) io.stderr:write('e\\n') io.write('3\\n')\nq\nq\n", stdout=out)
    assert both.read_text().split(BANNER_END)[1] == "1\n2\n3\n"
    assert run.err.startswith("x\n\nStack trace:") and run.err.endswith("e\n")


def test_results_are_coloured_on_a_terminal_only(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.run("1")
    row = next(row for row in range(24) if term.line(row).startswith("_[1]"))
    assert term.colours(row) == [("_[1] = 1", "green")]
    assert term.cell(row, 0).bold and not term.cell(row, 6).bold
    term.run("error('x')")
    row = next(row for row in range(24) if "]:1: x" in term.line(row))
    assert term.colours(row)[0][1] == "red"


def test_the_prompt_tells_the_state(veld, shell):
    term = shell(to=veld)
    term.prompt = re.compile(r"kest(-lua|-lua\(fail\))?:> ?$")
    term.run("lua")
    assert term.line(term.cursor[0]).endswith("kest-lua:>")
    term.run("x = = 1")
    assert term.line(term.cursor[0]).endswith("kest-lua(fail):>")
    term.run("error('x')")
    assert term.line(term.cursor[0]).endswith("kest-lua:>")
    term.type("do\r")
    term.wait_prompt("> ")
    term.type("end\r")
    term.wait_prompt()
    assert term.line(term.cursor[0]).endswith("kest-lua:>")
    term.run("q")
    assert term.line(term.cursor[0]).endswith("kest:>")


def test_output_is_shown_as_it_comes(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.type("print('first') io.write('asked? ') print('got ' .. io.read())\r")
    term.wait_for("asked?")
    assert term.find("first")
    term.type("this\r")
    term.wait_for("got this")
    term.wait_prompt()


@pytest.mark.parametrize("flush", ["io.flush()", "io.stdout:flush()", "io.output():flush()"])
def test_a_flush_shows_what_was_written(veld, shell, tmp_path, flush):
    seen = tmp_path / "seen"
    term = shell(to=veld)
    term.run("lua")
    term.type(f"io.write(49 + 1, '%') {flush} while not io.open('seen') do end print(' done')\r")
    term.wait_for("50%")
    seen.touch()
    term.wait_for("50% done")


@pytest.mark.parametrize("source", ["pipe", "file"])
def test_io_read_takes_one_line_of_the_input_that_the_console_reads(veld, kest_start, tmp_path, source):
    text = "lua\nx = io.read()\nhello\nx\nprint(io.read('n', 'l'))\n42 rest\nq\nlua print(io.read())\nlast\npwd\nq\n"
    if source == "pipe":
        program = kest_start(to=veld, stdin=text)
    else:
        (tmp_path / "input").write_text(text)
        program = kest_start("-r", "sh", f"exec {settings.KEST} -u {veld.address} < input", to=veld)
    program.finish()
    assert program.out.split(BANNER_END, 1)[1] == '_[1] = "hello"\n42\t rest\nprint(io.read()) \nlast\n:\n'


@pytest.fixture
def lua_console(veld, shell):
    """A terminal in Lua mode; `lua_prompt` is its prompt without the blank behind it."""
    term = shell(to=veld)
    term.prompt = re.compile("kest(-lua)?:> ?$")
    term.run("lua")
    term.lua_prompt = term.line(term.cursor[0])
    term.shows_lua = lambda *rows: term.wait_for(lambda term: term.lines[-len(rows) :] == list(rows))
    return term


def test_io_read_takes_one_line_of_what_is_pasted(lua_console):
    term = lua_console
    term.type("\x1b[200~x = io.read()\rhello\ry = 'yes'\r\x1b[201~x, y\r")
    term.wait_for('_[1] = "hello"')
    term.wait_for('_[2] = "yes"')
    term.wait_prompt()
    term.type("\x1b[200~x = io.read()\rlast\x1b[201~")
    term.type(" word\r")
    term.wait_for(re.compile(r"x = io\.read\(\)(\n[^\n]*)?\nroot@kest-lua:>\s*$"))
    assert term.run("x") == ['_[3] = "last word"']
    # Nothing but the end of the paste is there when it is read.
    term.type("\x1b[200~io.write('name? ') x = io.read()\r\x1b[201~")
    term.wait_for(lambda term: term.lines[-1].startswith("name?"))
    term.type("typed\r")
    term.wait_for(lambda term: term.lines[-1] == "root@kest-lua:>")
    assert term.run("x") == ['_[4] = "typed"']


def test_what_is_long_is_printed_whole(veld, kest):
    run = kest(to=veld, stdin="lua\nt = {} for i = 1, 100000 do t[i] = i end print(table.concat(t, ' '))\n")
    numbers = [int(word) for word in run.out.split() if word.isdigit()]
    assert len(numbers) == 100000 and all(number == i for i, number in enumerate(numbers, 1))


@pytest.mark.parametrize("next_child", ["os.execute('true')", "io.popen('true'):close()"])
def test_a_child_that_nobody_closed_is_not_left_behind(lua_console, tmp_path, next_child):
    term = lua_console
    children = Path(f"/proc/{term.pid}/task/{term.pid}/children")
    os.mkfifo(tmp_path / "end")
    term.run(f"f = io.popen('read x <{tmp_path}/end')")
    term.run("f = nil collectgarbage()")
    assert children.read_text()
    (tmp_path / "end").write_text("")
    moment = settings.deadline()
    while children.read_text():
        assert settings.remaining(moment)
        term.run(next_child)  # the next child is when one looks


ROWS = [
    ("io.write('a')", [], "a"),
    ("io.stderr:write('a')", [], "a"),
    ("io.write('a') io.stderr:write('b')", [], "ab"),
    ("io.stderr:write('a') io.write('b')", [], "ab"),
    ("io.write('a') io.stderr:write('b\\n')", ["ab"], ""),
    ("io.stderr:write('a') io.write('b\\n')", ["ab"], ""),
    ("io.write('a') os.execute('printf b')", ["ab"], ""),
    ("os.execute('printf a') io.write('b')", ["ab"], ""),
    ("os.execute('printf a') io.stderr:write('b')", ["ab"], ""),
    ("io.write('a') io.popen('printf b >&2'):close()", ["ab"], ""),
    ("io.popen('printf a >&2'):close() io.write('b')", ["ab"], ""),
    ("io.write('a') error('b', 0)", ["ab"], ""),
    ("io.write('\\27]0;title\\7a\\27]2;title\\27\\\\b\\27(Bc')", [], "abc"),
]


@pytest.mark.parametrize("code,rows,before", ROWS)
def test_the_prompt_stands_once_behind_what_was_written(lua_console, code, rows, before):
    shown = lua_console.run(f"do {code} end")
    assert shown[:1] == rows
    assert lua_console.line(lua_console.cursor[0]) == before + lua_console.lua_prompt
    assert lua_console.text.count(lua_console.lua_prompt) == 2


def test_what_io_read_echoed_is_neither_repeated_nor_erased(lua_console):
    term = lua_console
    term.type("io.write('name? ') x = io.read()\r")
    term.wait_for(re.compile("name\\?$"))
    term.type("me\r")
    term.shows_lua("name? me", term.lua_prompt)
    term.type("io.write('name? ') x = io.read() io.write('so ')\ryou\r")
    term.shows_lua("name? so", term.lua_prompt)  # what was typed ahead at a prompt is not echoed
    assert term.text.count("name?") == 4


def test_what_is_typed_ahead_stands_once(lua_console):
    term = lua_console
    term.type("io.write('a') io.flush() os.execute('sleep 0.5')\r")
    term.wait_for(re.compile("^a$", re.M))
    term.type("b = 7\rb\r")
    term.shows_lua("_[1] = 7", term.lua_prompt)
    assert term.text.count(term.lua_prompt + " b = 7") == 1


def test_a_prompt_follows_a_row_that_was_begun_anew(lua_console):
    term = lua_console
    term.type("do io.write(('w'):rep(78) .. '\\rab') end\r")
    shown = "ab" + term.lua_prompt
    term.wait_for(lambda term: term.line(term.cursor[0]) == shown)
    term.type("x" + Key.CTRL_A + "y")
    term.wait_for(lambda term: term.line(term.cursor[0]) == shown + " yx" and term.cursor[1] == len(shown) + 2)


def test_os_execute_shares_the_terminal(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    assert term.run("print('a') os.execute('echo b') print('c')") == ["a", "b", "c"]


def test_a_wait_that_cannot_begin_ends_with_the_shell(fake, shell):
    term = shell(to=fake)
    term.run("lua")
    fake.refuse()
    term.type("dm.wait(1000)\r")
    reason = f"{fake.address}: Connection refused"
    term.wait_for(f"kest: {reason}")
    fake.drop_all()
    term.wait_exit()
    assert f"[-32002] Connection lost: {reason}" in "".join(term.all_lines)


def test_there_are_no_hints_in_lua_mode(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.run("touched = 0 t = setmetatable({}, {__index = function() touched = touched + 1 end})")
    term.type("t.x.y")
    term.quiet()
    assert term.line(term.cursor[0]).endswith("t.x.y")
    term.type(Key.CTRL_U)
    assert term.run("touched") == ["_[1] = 0"]


def test_tab_completes_and_loads_modules_once(veld, shell, tmp_path):
    (tmp_path / "mymod.lua").write_text("return {field = 1, other = function() end}")
    term = shell(to=veld)
    term.run("lua")
    term.type("mymo\t")
    term.wait_for("mymod")
    term.type("\t")
    term.wait_for("Loaded module 'mymod'.")
    term.wait_for(lambda t: t.line(t.cursor[0]).endswith("> mymod."))
    term.type("oth\t")
    term.wait_for(lambda t: t.line(t.cursor[0]).endswith("> mymod.other"))
    assert "\n".join(term.all_lines).count("Loaded module") == 1


@pytest.mark.parametrize("code", ["io.read()", "os.execute('sleep 30')", "io.popen('sleep 30'):read()", "error('x')"])
def test_tab_on_code_that_would_wait_ends_at_once(lua_console, code):
    term = lua_console
    term.run("t = setmetatable({}, {__index = function() " + code + " end})")
    term.type("t.x.y\t")
    term.quiet(0.1).type("z\x7f\x7f\x7f\x7f\x7fz = 5\r")
    term.wait_prompt(term.lua_prompt + " ", timeout=5 * settings.PATIENCE)
    assert term.run("tz") == ["_[1] = 5"]


def test_what_code_prints_while_tab_runs_stays(lua_console):
    term = lua_console
    term.run("t = setmetatable({}, {__index = function() print('asked') return {field = 1} end})")
    term.type("t.x.fi\t")
    term.wait_for("asked")
    term.shows_lua(term.lua_prompt + " t.x.field")


def test_tab_on_code_that_exits_leaves_the_terminal_as_it_was(veld, terminal, sandbox):
    term = terminal(
        "-c", f"stty -a >before; {settings.KEST} -u {veld.address}; echo status $?; stty -a >after", program="/bin/sh"
    )
    term.prompt = re.compile("kest(-lua)?:> ?$")
    term.wait_prompt()
    term.run("lua")
    term.run("t = setmetatable({}, {__index = function() os.exit(7) end})")
    term.type("t.x.y\t")
    term.wait_for("status 7")
    assert term.line(term.find("status 7")[0]) == "status 7"
    term.wait_exit()
    assert (sandbox.work / "before").read_text() == (sandbox.work / "after").read_text()
    assert term.raw.rindex(b"\x1b[?2004l") > term.raw.rindex(b"\x1b[?2004h")


# --- what reaches a terminal ---


def test_errors_steer_no_terminal(veld, shell, kest, tmp_path, terminal):
    code = "error('red \\27[31mtext\\n\\tend', 0)"
    term = shell(to=veld)
    term.run("lua")
    term.run(code)
    assert term.find("red \\x1b[31mtext")
    term.run("local t = {['\\27]0;title\\7'] = function() error() end} t['\\27]0;title\\7']()")
    assert term.find("in function '\\x1b]0;title\\x07'")
    term.run("load('x = = 1', '=\\27[35m')() error(select(2, load('x = = 1', '=\\27[35m')), 0)")
    term.run("q")
    term.run("lua " + code)
    assert term.find("LUA ERROR: red \\x1b[31mtext")
    assert b"\x1b[31mtext" not in term.raw and b"\x1b]0;" not in term.raw and b"\x1b[35m" not in term.raw
    (tmp_path / "s.lua").write_text(code)
    script = terminal("-S", "s.lua", to=veld)
    assert script.wait_exit() == 0
    assert script.lines[0] == "red \\x1b[31mtext"
    # Elsewhere the message is what it is.
    assert kest("-S", "s.lua", to=veld).out == "red \x1b[31mtext\n\tend\n"
    run = lua_mode(kest, veld, code)
    assert run.err.startswith("red \x1b[31mtext\n\tend\n\nStack trace:\n")


def test_print_is_the_scripts_own(veld, terminal, tmp_path):
    (tmp_path / "s.lua").write_text("print('\\27[31mred')")
    script = terminal("-S", "s.lua", to=veld)
    assert script.wait_exit() == 0
    assert b"\x1b[31mred" in script.raw


# --- Ctrl-C ---

ENDLESS = [
    "while true do end",
    "while true do pcall(function() while true do end end) end",
    "coroutine.wrap(function() while true do end end)()",
    "xpcall(function() while true do end end, function() while true do end end)",
    "while true do dm.get('Device.DeviceInfo.Manufacturer') end",
    "local function f() f() end while true do pcall(f) end",
    "io.read()",
    "dm.sleep(math.huge)",
    "dm.wait(1000)",
    "table.move({}, 1, 1 << 60, 2)",
    "debug.sethook(function() end, 'c') while true do end",
    "os.execute('sleep 100') while true do end",
    "io.popen('sleep 100'):read('a') while true do end",
    "io.popen(\"trap '' INT; sleep 100\"):read('a') while true do end",
    "io.popen(\"trap '' INT; sleep 100\"):close() while true do end",
]


def sleeps(session):
    """Whether a `sleep` runs in the session. A shell that is still about to start one keeps the key to itself."""
    for stat in Path("/proc").glob("[0-9]*/stat"):
        try:
            name, fields = stat.read_text().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue
        if name == "sleep" and int(fields.split()[3]) == session:
            return True
    return False


def interrupt(term, code, prefix=""):
    """Runs `code` and, once it runs, types Ctrl-C; returns at the next prompt."""
    before = term.raw.count(b"begun")
    term.type(f"{prefix}io.stderr:write('be', 'gun\\n') {code}\r")
    term.wait_for(lambda t: t.raw.count(b"begun") > before)
    moment = settings.deadline()
    while "sleep 100" in code and not sleeps(term.pid):
        assert settings.remaining(moment) > 0, term
        term.read(0.01)
    term.type(Key.CTRL_C)
    term.wait_prompt()


@pytest.mark.parametrize("code", ENDLESS)
def test_ctrl_c_stops_a_statement(veld, shell, code):
    term = shell(to=veld)
    term.run("lua")
    interrupt(term, code)
    # Lines are dropped until Lua mode is entered again.
    term.run("print('dropped' .. 1)")
    assert not term.find("dropped1")
    term.run("q")
    term.run("lua")
    assert term.run("1 + 1") == ["_[1] = 2"]


def test_the_third_ctrl_c_tells_the_way_out_of_code_that_cannot_be_stopped(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.type("io.stderr:write('be', 'gun') string.find(('a'):rep(40), ('a*'):rep(30) .. 'b')\r")
    term.wait_for("begun")
    moment = settings.deadline()
    before = term.cpu_seconds()
    while term.cpu_seconds() < before + 0.1:  # it is not in there yet
        assert settings.remaining(moment) > 0, term
        term.read(0.01)
    term.type(Key.CTRL_C)
    term.quiet(0.1)
    term.type(Key.CTRL_C)
    term.quiet(0.1)
    assert not term.find("Ctrl-\\")
    moment = settings.deadline()
    while not term.find("This code cannot be stopped. Ctrl-\\ ends the program."):
        assert settings.remaining(moment) > 0, term
        term.type(Key.CTRL_C)  # of two that come at once, a busy machine may deliver one
        term.quiet()
    term.type("\x1c")
    assert term.wait_exit() == -signal.SIGQUIT


@pytest.mark.parametrize("use", ["f:read()", "f:close()", None])
def test_a_child_that_minds_no_ctrl_c_holds_nothing_up(veld, shell, use):
    term = shell(to=veld)
    term.run("lua")
    term.run("""f = io.popen("trap '' INT; sleep 100")""")
    if use:
        interrupt(term, use)
    term.run("q", prompt="root@kest:> ")
    assert term.run("pwd") == [":"]


@pytest.mark.parametrize("use", ["f:read()", "f:close()"])
def test_a_tab_that_waits_for_a_child_ends_by_itself(veld, shell, use):
    term = shell(to=veld)
    term.run("lua")
    term.run("f = io.popen('sleep 100')")
    term.run(f"t = setmetatable({{}}, {{__index = function() {use} end}})")
    term.type("t.x.\ty")
    term.wait_for(lambda t: t.line(t.cursor[0]).endswith("> t.x.y"))
    term.type(Key.CTRL_U)
    assert term.run("1 + 1") == ["_[1] = 2"]


def test_ctrl_c_stops_a_statement_of_the_shell(veld, shell):
    term = shell(to=veld)
    for code in ENDLESS[:5] + ENDLESS[-2:]:
        interrupt(term, code, prefix="lua ")
    assert term.run("lua print(1 + 1)") == ["print(1 + 1)", "2"]


def test_ctrl_c_stops_the_printing_of_a_huge_value(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.run("t = {} for i = 1, 3000000 do t[i] = i end")
    term.type("t\r")
    term.wait_for(lambda t: b"1, 2, 3, " in t.raw)
    term.type(Key.CTRL_C)
    term.wait_prompt()
    term.run("q")
    assert term.run("pwd")[-1] == ":"


def test_ctrl_c_stops_the_trace_of_an_endless_recursion(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.type("local function f() f() end f()\r")
    term.wait_for(lambda t: b"\t#9 " in t.raw)
    term.type(Key.CTRL_C)
    term.wait_prompt()


def test_ctrl_c_drops_an_unfinished_statement(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.type("do\r")
    term.wait_prompt("> ")
    term.type("print('half'" + Key.CTRL_C)
    term.wait_prompt()
    term.run("q")
    assert term.run("pwd")[-1] == ":"


def test_what_is_typed_behind_a_ctrl_c_behind_enter_stays(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.type("do\r")
    term.wait_prompt("> ")
    term.type(Key.CTRL_C)
    term.wait_prompt()
    # All of it is there before the line has ended.
    term.type("1 + 1\r2 + 2\r" + Key.CTRL_C + "q" + Key.ENTER + "pwd" + Key.ENTER)
    term.wait_for(lambda term: ":" in term.lines)
    assert not term.find("_[")


def test_ctrl_c_ends_a_wait_for_a_silent_daemon(fake, kest_start):
    fake.on("GetParameterValues", Silence())
    program = kest_start("-r", "lua", "dm.get('Device.X')", to=fake)
    fake.wait_for("GetParameterValues")
    program.interrupt()
    program.finish()
    assert program.status == -2


def test_a_binding_reconnects(veld, kest_start, tmp_path):
    flag = tmp_path / "restarted"
    code = f"io.stderr:write(dm.get('Device.Time.Enable') and 'up') while not io.open('{flag}') do end print(dm.get('Device.Time.Enable'))"
    program = kest_start("-r", "lua", code, to=veld)
    program.wait_for("up", stream="err")
    veld.restart()
    flag.touch()
    program.finish()
    assert program.out.endswith("true\n")


@pytest.mark.parametrize("address", [None, "tcp://127.0.0.1:0"])
def test_an_event_reconnects_too(fake_start, kest_start, tmp_path, address):
    fake = fake_start(address)
    flag = tmp_path / "restarted"
    code = f"io.stderr:write('up') while not io.open('{flag}') do end print(dm.event(100, 'x'))"
    program = kest_start("-r", "lua", code, to=fake)
    program.wait_for("up", stream="err")
    fake.go_down()
    fake.come_back()
    flag.touch()
    program.finish()
    # The listener says at any point that its link is gone.
    assert "true\n" in program.out
    fake.wait_for(lambda fake: fake.params("Event") == [{"Id": 100, "Value": "x"}])


@pytest.mark.parametrize("comes_back", [False, True])
def test_a_wait_for_events_ends_with_the_session(veld, shell, comes_back):
    term = shell(to=veld)
    term.run("lua")
    term.type("dm.wait(1000, 0) io.stderr:write('be', 'gun') dm.wait(1000)\r")
    term.wait_for("begun")
    if comes_back:
        veld.restart()
    else:
        veld.stop()
    assert term.wait_exit() == 0
    assert term.find("Connection dropped")
    assert term.find("[-32002] Connection lost: ")


# --- login ---


def test_login_and_logout_keep_the_prompt_true(veld, shell):
    term = shell(to=veld)
    term.run("lua")
    term.run("dm.logout()")
    assert term.line(term.cursor[0]).startswith("kest-lua:>")
    term.run("dm.login('root')")
    assert term.line(term.cursor[0]).startswith("root@kest-lua:>")
    term.run("pcall(dm.login, 'root', 'wrong')")
    assert term.line(term.cursor[0]).startswith("kest-lua:>")
