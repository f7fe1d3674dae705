"""Lua scripts and the bindings, against the real daemon."""

import contextlib
import errno
import json
import math
import os
import re
import signal

import pytest

from lib import settings
from lib.fake import Close, Error, Raw, Several
from lib.program import Program, cpu_seconds

pytestmark = pytest.mark.lua

PAGE = settings.SOURCE / "docs" / "lua.md"


def examples():
    """The page's examples: the heading above, the code, what it prints."""
    heading = "?"
    for part in re.split(r"^(##+ .*|```lua\n(?:.*\n)*?```)$", PAGE.read_text(), flags=re.MULTILINE):
        if part.startswith("##"):
            heading = part.lstrip("# ")
        elif part.startswith("```lua"):
            lines = part.splitlines()[1:-1]
            code = [line for line in lines if not line.startswith("--> ")]
            printed = [line[4:] for line in lines if line.startswith("--> ")]
            yield pytest.param("\n".join(code), "".join(line + "\n" for line in printed), id=heading.split("(")[0])


@pytest.fixture
def script(kest, tmp_path, veld):
    def run(code, *words, login=False, name="script.lua"):
        path = tmp_path / name
        data = code if isinstance(code, bytes) else code.encode()
        path.write_bytes((b'dm.login("root") ' if login else b"") + data)
        ended = kest("-S", path, *words, to=veld)
        ended.path = path
        return ended

    return run


@pytest.mark.parametrize("code, printed", examples())
def test_the_examples_of_the_page_print_what_it_says(script, code, printed):
    run = script(code, login=True)
    if "does not let this daemon send ICMP" in run.out:
        pytest.skip("this kernel lets nobody ping")
    assert run.out == printed
    status = re.search(r"os\.exit\((\d+)\)", code)
    assert run.status == (int(status.group(1)) if status else 0)


def test_a_script_moves_in_a_file_that_is_its_input(kest, tmp_path, veld):
    (tmp_path / "script.lua").write_text("""
        print(io.read("l"), io.stdin:seek("cur"), io.stdin:seek("set", 0))
        print(io.read("l"), io.read("l"), io.stdin:seek("end"), io.read("l"))
        print(io.stdin:seek("set", -1))
    """)
    (tmp_path / "input").write_text("first\nsecond\nthird\n")
    with open(tmp_path / "input", "rb") as given:
        run = kest("-S", "script.lua", to=veld, stdin=given.fileno())
    assert run.out == "first\t6\t0\nfirst\tsecond\t19\tnil\nnil\tInvalid argument\t22\n"



def test_lua_calculates_as_the_c_library_does(script):
    """The library of mathematics is loaded only when Lua first calculates."""
    names = ["acos", "asin", "cos", "cosh", "exp", "log10", "sin", "sinh", "sqrt", "tan", "tanh"]
    terms = [f"math.{name}(0.625)" for name in names]
    terms += ["math.log(0.625)", "math.log(8, 2)", "math.log(0.625, 3)", "math.atan(-2, 3)", "math.fmod(-7.5, 2.0)", "-7.5 % 2", "0.3 ^ 2.5",
              "math.ldexp(0.75, 5)", "math.frexp(40.0)"]
    run = script("".join(f"print(string.format('%a', ({term})))\n" for term in terms))
    expected = [getattr(math, name)(0.625) for name in names]
    expected += [math.log(0.625), 3.0, math.log(0.625) / math.log(3), math.atan2(-2, 3), -1.5, 0.5, 0.3 ** 2.5, 24.0, 0.625]
    assert [float.fromhex(line) for line in run.out.splitlines()] == pytest.approx(expected, rel=1e-15)
    assert script("local root = math.sqrt(-1) print(root == root)").out == "false\n"


def test_every_binding_has_an_example(kest, veld):
    names = kest("-r", "lua", "for name in pairs(dm) do print(name) end", to=veld).out.splitlines()[1:]
    text = PAGE.read_text()
    assert len(names) == 20
    assert [name for name in names if f"dm.{name}" not in text] == []


# --- scripts ---


def test_a_script_gets_its_words(script):
    run = script("print(select('#', ...)) print(...) print(arg[0], arg[1], arg[2], arg[3])", "one", "two")
    assert run.out == f"2\none\ttwo\n{run.path}\tone\ttwo\tnil\n"


def test_the_program_named_kest_lua_takes_its_script_from_the_first_word(kest, veld, tmp_path):
    path = tmp_path / "s.lua"
    path.write_text("print(arg[0], ...)")
    run = kest(path, "a", "b", to=veld, name="kest_lua")
    assert run.out == f"{path}\ta\tb\n"
    assert run.status == 0


def test_an_interpreter_line_keeps_the_numbers_of_the_lines(script):
    run = script("#!/usr/bin/kest_lua\nprint('never shown')\nerror('x')\n")
    assert run.out == f"{run.path}:3: x\n"
    assert run.err == ""
    assert run.status == 0


def test_a_syntax_error_is_its_text_alone(script):
    run = script("print(1)\nx = = 1\n")
    assert run.out == f"{run.path}:2: unexpected symbol near '='\n"


@pytest.mark.parametrize(
    "text, printed",
    [
        ("", ""),
        ("print(1)", "1\n"),
        ("#!/bin/x", None),
        ("#!/bin/x\n", ""),
        ("\ufeffprint(1)\n", "1\n"),
        ("io.write('no line end')", "no line end"),
        ("print('a\\0b')", "a\0b\n"),
    ],
)
def test_odd_files_run(script, text, printed):
    run = script(text)
    if printed is None:
        assert f"{run.path}:1:" in run.out
    else:
        assert run.out == printed
    assert run.status == 0


def test_a_binary_is_refused_with_a_message(script):
    assert script(b"\x1bLuaS\0\x19\x93\r\n\x1a\n" + bytes(100)).out == "attempt to load a binary chunk (mode is 't')\n"
    run = script(os.urandom(5000).replace(b"\x1b", b"\0").replace(b"#!", b"\0\0"))
    assert f"{run.path}:" in run.out
    assert run.status == 0


def test_what_cannot_be_opened_is_said(kest, veld, tmp_path):
    for path in (tmp_path / "missing.lua", tmp_path):
        run = kest("-S", path, to=veld)
        assert run.out == f"Cannot open script file {path}\n"
        assert run.status == 255
    run = kest(to=veld, name="kest_lua")
    assert run.out == "Cannot open script file (null)\n"
    assert run.status == 255


@pytest.mark.deadline(120)
def test_a_script_of_a_hundred_megabytes_runs(script):
    comment = "--" + "x" * 1021 + "\n"
    run = script(comment * 100_000 + "print(debug.getinfo(1, 'l').currentline)\n")
    assert run.out == "100001\n"


def test_output_comes_when_the_script_has_ended_but_before_os_exit_ends_it(script):
    run = script("print(1) os.exit(7)")
    assert (run.out, run.status) == ("1\n", 7)
    run = script("print(1) os.exit(true, true)")
    assert (run.out, run.status) == ("1\n", 0)
    run = script("print(1) os.exit(false)")
    assert (run.out, run.status) == ("1\n", 1)
    run = script("print(1) error('x', 0)")
    assert (run.out, run.status) == ("x\n", 0)


def test_modules_written_in_c_load(script):
    run = script(
        "local lpeg, cjson = require 'lpeg', require 'cjson'\n"
        "print(lpeg.match(lpeg.R'09'^1, '123x'), cjson.encode{1, {a = 'b'}})"
    )
    assert run.out == '4\t[1,{"a":"b"}]\n'


def test_ctrl_c_ends_a_script_as_it_ends_any_program(kest_start, veld, tmp_path):
    path = tmp_path / "s.lua"
    path.write_text("print('so far') io.stderr:write('up') while true do pcall(function() while true do end end) end")
    program = kest_start("-S", path, to=veld)
    program.wait_for("up", stream="err")
    program.interrupt()
    program.finish(2)
    assert program.status == -signal.SIGINT
    assert program.out == "so far\n"


def test_another_ctrl_c_ends_a_script_that_does_not_stop(kest_start, veld, tmp_path):
    (tmp_path / "s.lua").write_text("io.stderr:write('up') string.find(('a'):rep(40), ('a*'):rep(40) .. 'b')")
    program = kest_start("-S", "s.lua", to=veld)
    program.wait_for("up", stream="err")
    for _ in range(2):
        before = cpu_seconds(program.pid)
        program.wait_for(lambda program: cpu_seconds(program.pid) >= before + 0.1)  # it is in there, and stays
        program.interrupt()
    assert program.finish().status == -signal.SIGINT


# --- bindings ---


def test_values_keep_their_types_on_the_wire(fake, kest, tmp_path):
    fake.on("SetParameterValues", {"Status": 0})
    path = tmp_path / "s.lua"
    path.write_text(
        "dm.set{['Device.I'] = 1, ['Device.F'] = 1.0, ['Device.S'] = '1', ['Device.B'] = true, ['Device.N'] = dm.null,"
        "['Device.A'] = dm.array(), ['Device.O'] = {}, ['Device.M'] = math.mininteger} print('set')"
    )
    run = kest("-S", path, to=fake)
    assert run.out == "set\n"
    sent = {entry["Name"]: entry["Value"] for entry in fake.params("SetParameterValues")[0]["ParameterList"]}
    assert json.dumps(sent, sort_keys=True) == json.dumps(
        {
            "Device.A": [],
            "Device.B": True,
            "Device.F": 1.0,
            "Device.I": 1,
            "Device.M": -(2**63),
            "Device.N": None,
            "Device.O": {},
            "Device.S": "1",
        }
    )


def test_a_table_is_set_as_a_whole_or_not_at_all(script):
    run = script(
        "local ok, err = pcall(dm.set, {['Device.Time.NTPServer2'] = 'kept out', ['Device.Time.Enable'] = 'no boolean'})\n"
        "print(ok, err.code, next(err.data), dm.get('Device.Time.NTPServer2') == '')",
        login=True,
    )
    assert re.match(r"false\t\d+\tDevice\.Time\.Enable\t", run.out)
    assert run.out.endswith("\ttrue\n")


def test_refusals_read_like_the_shells_line(script, kest, veld):
    said = kest("-r", "get", "Device.Nope", to=veld).out.splitlines()[0]
    assert script("print(pcall(dm.get, 'Device.Nope'))").out == f"false\t{said}\n"
    run = script("\ndm.get('Device.Nope')")
    assert run.out == f"{run.path}:2: {said}\n"
    assert kest("-r", "lua", "dm.get('Device.Nope')", to=veld).out.endswith(f'\nLUA ERROR: [string "stdin"]:1: {said}\n')


def test_instances_come_and_go(script):
    run = script(
        "local n = dm.add('Device.Hosts.Host') local path = ('Device.Hosts.Host.%d'):format(n)\n"
        "print(math.type(n), type(dm.get(path)), dm.del(path), (pcall(dm.get, path)))",
        login=True,
    )
    assert run.out == "integer\ttable\ttrue\tfalse\n"


def test_a_whole_model_is_got_at_once(script):
    run = script("local all = dm.get(':') print(all['Device.Time.Enable'], all['Device.DNS.SearchDomain.1'])")
    assert run.out == "true\tlan\n"


# --- events ---


def test_an_event_from_outside_is_waited_for(veld, kest, kest_start, tmp_path):
    (tmp_path / "s.lua").write_text(
        "dm.wait({1000, 1001}, 0) io.stderr:write('joined')\n"
        "print(dm.wait(1001)) local id, value = dm.wait({1000, 1001}) print(id, dm.json(value))\n"
        "print(dm.wait(1000, 0))"
    )
    program = kest_start("-S", "s.lua", to=veld)
    program.wait_for("joined", stream="err")
    assert kest("-e", "1000", '{"a": [1, null]}', to=veld).status == 0
    assert kest("-e", "1001", to=veld).status == 0
    assert program.finish().out == '1001\tnil\n1000\t{"a":[1,null]}\nnil\n'


def test_groups_of_the_command_line_print_their_events_besides(veld, kest, kest_start, tmp_path):
    (tmp_path / "s.lua").write_text("dm.wait({1000, 1001}, 0) dm.event(1000, 'x') print(dm.wait(1000)) dm.wait(1001)")
    program = kest_start("-g", "1000", "-S", "s.lua", to=veld)
    program.wait_for('EVENT 1000:\n"x"\n')
    assert kest("-e", "1001", to=veld).status == 0
    assert program.finish().out.endswith("1000\tx\n")


def test_waiting_goes_on_when_the_daemon_is_back(veld, kest, kest_start, tmp_path):
    (tmp_path / "s.lua").write_text("dm.wait(1000, 0) io.stderr:write('joined') print(dm.wait(1000))")
    program = kest_start("-S", "s.lua", to=veld)
    program.wait_for("joined", stream="err")
    veld.restart()
    program.wait_for(lambda program: kest("-e", "1000", "1", to=veld).status == 0 and program.ended)
    assert program.finish().out.endswith("1000\t1\n")


def test_events_come_over_tls_too(veld_start, kest, certificate, tmp_path):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1])
    (tmp_path / "s.lua").write_text("dm.wait(1000, 0) dm.event(1000, 'x') print(dm.wait(1000, 30))")
    run = kest("--ssl", "-S", "s.lua", to=veld, env={"SSL_CERT_FILE": str(certificate[0])})
    assert run.out == "1000\tx\n"


def test_a_daemon_that_is_not_there_ends_a_wait(kest, tmp_path):
    (tmp_path / "s.lua").write_text("print(pcall(dm.wait, 1000, 0)) print(select(2, pcall(dm.wait, 1000, 0)).code)")
    run = kest("-S", "s.lua", to=tmp_path / "nobody")
    assert f"false\t[-32002] Connection lost: {tmp_path}/nobody: No such file or directory\n-32002\n" in run.out


def test_a_link_that_is_lost_while_it_joins_is_opened_again(fake, kest, tmp_path):
    (tmp_path / "s.lua").write_text("print(dm.wait(1000))")
    joined = []

    def join(request):
        if request.params["Group"] != 1000:
            return {}
        joined.append(request.connection.number)
        return Close() if len(joined) < 3 else Several([{}, Raw(b'{"method":"Event","params":{"Id":1000,"Value":5}}\n')])

    fake.on("JoinGroup", join)
    assert kest("-S", "s.lua", to=fake).out == "1000\t5\n"
    assert joined == [2, 3, 4]


def test_a_refused_group_is_said(fake, kest, tmp_path):
    (tmp_path / "s.lua").write_text("dm.wait(1000)")
    fake.on("JoinGroup", Error(9004, "too many groups"))
    run = kest("-S", "s.lua", to=fake)
    assert run.out == "s.lua:1: [9004] Resources exceeded: too many groups\n"


# --- scripts that one waits for ---


def test_a_script_on_a_pipe(veld, kest, kest_start, tmp_path):
    assert kest("-S", "/dev/stdin", "a", to=veld, stdin="#!kest\nprint(...)\nprint(2)").out == "a\n2\n"
    os.mkfifo(tmp_path / "fifo")
    run = kest_start("-S", "fifo", to=veld)
    with open(tmp_path / "fifo", "w") as pipe:
        for piece in ("print(", "1)\nprint(2)"):
            pipe.write(piece)
            pipe.flush()
    assert run.finish().out == "1\n2\n"


@pytest.mark.parametrize("writes", [False, True])
def test_waiting_for_a_script_on_a_pipe_can_be_interrupted(kest_start, fake, tmp_path, writes):
    os.mkfifo(tmp_path / "fifo")
    run = kest_start("-S", "fifo", to=fake)
    fake.wait_for("JoinGroup")
    with contextlib.ExitStack() as stack:
        if writes:
            pipe = stack.enter_context(open(tmp_path / "fifo", "w"))
            pipe.write("print(1)\n")
            pipe.flush()
        run.interrupt()
        assert run.finish(2).status == -signal.SIGINT


@pytest.mark.parametrize("path", ["/dev/stdin", "/dev/tty"])
def test_a_script_that_is_typed(terminal, veld, path):
    term = terminal("-S", path, to=veld)
    term.type("print(1 +\r2)\r")
    term.wait_for("2)\n".strip())
    term.type("\x04")
    assert term.wait_exit() == 0
    assert term.lines[-1] == "3"
    term = terminal("-S", path, to=veld)
    term.type("print(1)\r")
    term.wait_for("print(1)")
    term.type("\x03")
    assert term.wait_exit() == -signal.SIGINT


# --- children ---


@pytest.mark.parametrize("code, printed", [
    ("f = io.popen('printf a; echo b; echo c') print(f:read(), f:read('a')) print(f:close())", "ab\tc\n\ntrue\texit\t0\n"),
    ("for line in io.popen('seq 3'):lines() do io.write(line) end", "123"),
    ("print(io.popen('exit 3'):close())", "nil\texit\t3\n"),
    ("print(io.popen('kill -9 $$'):close())", "nil\tsignal\t9\n"),
    ("print(io.popen('true'):seek())", "nil\tIllegal seek\t29\n"),
    ("for _, f in ipairs{io.stdout, io.stderr} do print(f:seek()) end", 2 * "nil\tIllegal seek\t29\n"),
    ("f = io.popen('cat >file', 'w') f:write(('x'):rep(300000)) print(f:close(), #io.open('file'):read('a'))",
     "true\t300000\n"),
    ("io.popen('exit', 'w'):close() print(pcall(io.popen, 'true', 'x'))", "false\tbad argument #2 to 'io.popen' (invalid mode)\n"),
    ("f = io.popen('true') f:close() print(pcall(f.read, f))", "false\tattempt to use a closed file\n"),
    ("print(io.type(io.popen('true')), #io.popen('head -c 1000000 /dev/zero'):read('a'))", "file\t1000000\n"),
])  # fmt: skip
def test_what_a_child_reads_and_writes(veld, kest, tmp_path, code, printed):
    (tmp_path / "s.lua").write_text(code)
    assert kest("-S", "s.lua", to=veld).out == printed


@pytest.mark.parametrize("run", ["io.popen(c):close()", "os.execute(c)"])
@pytest.mark.parametrize("ignored", [(), (signal.SIGQUIT,)], ids=["default", "ignored"])
def test_a_child_ignores_the_quit_key_when_kest_does(veld, kest, tmp_path, run, ignored):
    (tmp_path / "s.lua").write_text(f"c = 'grep SigIgn /proc/self/status >mask' {run}")
    assert kest("-S", "s.lua", to=veld, ignored=ignored).status == 0
    mask = int((tmp_path / "mask").read_text().split()[1], 16)
    assert mask >> (signal.SIGQUIT - 1) & 1 == len(ignored)


def test_a_script_ends_with_its_children(veld, kest, tmp_path):
    (tmp_path / "s.lua").write_text("print(1) f = io.popen('cat; read x <fifo; echo $x', 'w') f:write('2\\n')")
    os.mkfifo(tmp_path / "fifo")
    with open(os.open(tmp_path / "fifo", os.O_RDWR), "w") as pipe:
        pipe.write("3\n")
        pipe.flush()
        assert kest("-S", "s.lua", to=veld).out == "2\n3\n1\n"


@pytest.mark.parametrize("ignored", [(), (signal.SIGPIPE,)], ids=["default", "ignored"])
def test_a_child_that_reads_no_more_is_told_of(veld, kest, tmp_path, ignored):
    os.mkfifo(tmp_path / "fifo")
    (tmp_path / "s.lua").write_text(
        "local f = io.popen('exec <&-; echo closed >fifo', 'w') io.open('fifo'):read()\n"
        "f:setvbuf('no') print(f:write('text'))")
    assert kest("-S", "s.lua", to=veld, ignored=ignored).out == f"nil\tBroken pipe\t{errno.EPIPE}\n"


@pytest.fixture
def left_pipe(script, tmp_path):
    """Runs code in which `f` is a pipe that was written to, and whose reader has left."""

    def run(code, opened="io.open('fifo', 'w')"):
        os.mkfifo(tmp_path / "fifo")
        # The reader takes what comes first and goes.
        return script(f"""
            local reader = io.popen("read x <fifo; echo $x")
            local f = {opened}
            f:write("first\\n") f:flush() print(reader:read()) reader:close()
            {code}
            print("on")
        """)

    return run


GONE = f"nil\tBroken pipe\t{errno.EPIPE}\n"


@pytest.mark.parametrize("opened", ["io.open('fifo', 'w')", "io.open('fifo', 'ab')", "io.output('fifo')"])
def test_a_named_pipe_that_nobody_reads_any_more_is_told_of(left_pipe, opened):
    ended = left_pipe("f:write('text') print(f:flush()) f:write('text') print(f:close())", opened)
    assert ended.out == f"first\n{GONE}{GONE}on\n" and ended.status == 0


@pytest.mark.parametrize("write", ["f:setvbuf('no') print(f:write('text'))", "print(f:write(('x'):rep(1 << 20)))"])
def test_what_a_pipe_that_was_left_takes_at_once_fails_at_once(left_pipe, write):
    ended = left_pipe(write)
    assert ended.out == f"first\n{GONE}on\n" and ended.status == 0


@pytest.mark.parametrize("code", ["f:write('text') f = nil collectgarbage()", "f:write('text')", "f:write('text') os.exit(3)"])
def test_what_is_left_for_a_pipe_that_was_left_ends_nothing(left_pipe, code):
    ended = left_pipe(code)
    assert (ended.out, ended.status) == (("first\n", 3) if "exit" in code else ("first\non\n", 0))


def test_a_child_of_a_script_that_writes_to_pipes_knows_the_signal(left_pipe):
    out = left_pipe("f:write('text') print(f:flush()) os.execute('grep -h Sig[IB] /proc/self/status')").out
    signals = [int(row.split()[1], 16) >> (signal.SIGPIPE - 1) & 1 for row in out.splitlines() if row.startswith("Sig")]
    assert signals == [0, 0]


def test_files_open_and_fail_as_they_do_elsewhere(script, tmp_path):
    ended = script("""
        print(io.open("nowhere/x", "w"))
        for _, bad in ipairs{{"f", "x"}, {"f", "rr"}, {{}}} do print(pcall(io.open, table.unpack(bad))) end
        print(pcall(io.output, {}))
        local ok, why = pcall(function() io.output("nowhere/x") end) print(why)
        local f = io.open("f", "w+b") print(io.output(f) == f, f:write("ab"):seek("set"), f:read("a"), f:close())
        print(pcall(io.output, f))
        io.output("f") io.write("text") io.close() print(io.open("f"):read("a"))
    """)
    assert ended.out == (
        f"nil\tnowhere/x: No such file or directory\t{errno.ENOENT}\n"
        "false\tbad argument #2 to 'io.open' (invalid mode)\n"
        "false\tbad argument #2 to 'io.open' (invalid mode)\n"
        "false\tbad argument #1 to 'io.open' (string expected, got table)\n"
        "false\tbad argument #1 to 'io.output' (FILE* expected, got table)\n"
        f"{ended.path}:5: cannot open file 'nowhere/x' (No such file or directory)\n"
        "true\t0\tab\ttrue\n"
        "false\tattempt to use a closed file\n"
        "text\n"
    )


def test_an_error_output_that_takes_nothing_holds_nothing_up(veld, sandbox):
    (sandbox.work / "s.lua").write_text("print(1) io.stderr:write('a') print(2)")
    command = f'"{settings.KEST}" -u {veld.address} -S s.lua 2>/dev/full'
    assert Program(["sh", "-c", command], sandbox.environment(), sandbox.work).finish().out == "1\n2\n"


@pytest.mark.parametrize("write", ["print(s)", "io.write(s)", "for i = 1, #s, 300000 do io.write(s:sub(i, i + 299999)) end"])
def test_what_is_long_is_written_whole(veld, kest, tmp_path, write):
    (tmp_path / "s.lua").write_text(f"local t = {{}} for i = 1, 100000 do t[i] = i end s = table.concat(t, ' ') {write}")
    words = kest("-S", "s.lua", to=veld).out.split()
    assert len(words) == 100000 and all(int(word) == i for i, word in enumerate(words, 1))
