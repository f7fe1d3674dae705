"""What a client may meet: daemons that are absent, silent or talk nonsense, files that are no scripts, terminals too small,
words that are no text. Each ends in a clear message and a usable prompt, or in a status that is not 0."""

import itertools
import os
import signal
import subprocess
import sys

import pytest

from lib import settings
from lib.fake import Answer, Close, Error, Raw, Silence
from lib.program import Program
from lib.terminal import Key

SANITIZED = any(name in settings.KEST.read_bytes() for name in (b"__asan_init", b"__tsan_init"))  # they keep what is freed
COUNTERS = 2048 if b".gcda" in settings.KEST.read_bytes() else 0  # KiB in the program itself where its coverage is counted

MODEL = {
    "DataModelVersion": "2",
    "Device.": {},
    "Device.A": 1,
    "Device.Flag": True,
    "Device.Sub.": {},
    "Device.Sub.B": "text",
    "Device.Host.": {"multi": True, "ordered": True, "access": "readWrite"},
    "Device.Host.{i}.": {"access": "readWrite"},
    "Device.Host.{i}.Alias": "",
    "Device.Host.1.": {"access": "readWrite"},
    "Device.Host.1.Alias": "first",
    "Device.Host.max_instance": {"type": "unsignedInt", "default": 0, "value": 1},
    "Device.Ping": {"type": "method"},
    "Device.Ping.Host": {"type": "string", "default": "", "Direction": "input", "value": ""},
}


@pytest.fixture
def scheme(fake):
    return fake.serve(MODEL)


@pytest.fixture(autouse=True)
def nobody(fake):
    """The fake knows no user, so that prompts show no name."""
    fake.on("Login", Error(9001, "who is that"))


@pytest.fixture
def term(shell, fake, scheme):
    return shell(to=fake)


# No daemon, a silent one


@pytest.mark.threads
def test_without_a_daemon_a_request_waits_until_ctrl_c(kest_start, tmp_path):
    run = kest_start("-r", "get", "Device.A", "-u", tmp_path / "none")
    run.wait_for(f"kest: {tmp_path / 'none'}: ", stream="err")
    run.interrupt()
    assert run.finish().status == -signal.SIGINT


@pytest.mark.threads
def test_without_a_daemon_the_shell_ends_once_ctrl_c_came(terminal, tmp_path):
    term = terminal(to=tmp_path / "none")
    term.wait_for("Reconnecting...")
    term.type(Key.CTRL_C)
    assert term.wait_exit() != 0
    assert term.echoes


@pytest.mark.parametrize("make", ["file", "directory", "dangling link"])
def test_a_socket_path_that_is_no_socket(kest_start, tmp_path, make):
    path = tmp_path / "thing"
    if make == "file":
        path.write_text("")
    elif make == "directory":
        path.mkdir()
    else:
        path.symlink_to("nowhere")
    run = kest_start("-r", "get", "Device.A", "-u", path)
    run.wait_for(f"kest: {path}: ", stream="err")
    run.interrupt()
    assert run.finish().status != 0


def test_a_silent_daemon_is_left_by_ctrl_c(term, fake, scheme):
    fake.on("GetParameterValues", [Silence(), scheme.GetParameterValues])
    term.type("cat Device.A" + Key.ENTER)
    fake.wait_for("GetParameterValues")
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: term.at_prompt("kest:> "))
    assert term.run("cat Device.A") == ["A = 1"]


def test_a_daemon_silent_from_the_start_holds_up_a_start_only_shortly(kest, fake):
    fake.on("JoinGroup", Silence())
    run = kest("-g", "5", "-n", "x", to=fake, timeout=8)
    assert (run.out, run.status) == ("Unsupported :(\n", 0)


# A daemon that goes in the middle, or talks nonsense


@pytest.mark.parametrize("cut", [0, 1, 20, 60])
def test_a_daemon_gone_within_its_answer(term, fake, scheme, cut):
    whole = b'{"jsonrpc":"2.0","id":4,"result":{"ParameterList":[{"Name":"Device.A","Value":1}]}}'
    fake.on("GetParameterValues", Close(whole[:cut]))
    rows = term.run("cat Device.A")
    assert rows[-1] == "[-32002] Connection lost: the daemon closed the link"
    fake.on("GetParameterValues", scheme.GetParameterValues)
    assert term.run("cat Device.A")[-1] == "A = 1"


GARBAGE = [b"garbage\n", b"\n\n\0\n", b"\xff\xfe\n", b"[1,2]\n", b"3\n", b"nul\n", b'{"a":\n', b"{}}\n", b'{"id":1}{"id":2}\n',
           os.urandom(5000).replace(b"\n", b"") + b"\n", b"{" * 5000 + b"\n", b'{"a":' * 3000 + b"1" + b"}" * 3000 + b"\n",
           b'{"id":1,"result":{"x":1e999}}\n', b'{"id":1,"result":{"x":99999999999999999999}}\n',
           b'{"id":1,"result":{"a":1,"a"}}\n', b'{"id":1,"result":"\\ud800"}\n']


@pytest.mark.parametrize("data", GARBAGE, ids=range(len(GARBAGE)))
def test_garbage_counts_as_a_lost_link(term, fake, scheme, data):
    fake.on("GetParameterValues", Raw(data))
    rows = term.run("cat Device.A")
    assert rows[-1] == "[-32002] Connection lost: the daemon closed the link"
    fake.on("GetParameterValues", scheme.GetParameterValues)
    assert term.run("cat Device.A")[-1] == "A = 1"


@pytest.mark.threads
@pytest.mark.parametrize("data", GARBAGE[:6], ids=range(6))
def test_garbage_on_the_event_link_ends_the_run(kest_start, fake, data):
    run = kest_start("-l", "-g", "7", to=fake)
    fake.wait_for(lambda fake: len(fake.of("JoinGroup")) == 2)
    fake.receivers()[0].send_raw(data)
    run.finish()
    assert (run.out, run.status) == ("Connection dropped\n", 0)


@pytest.mark.load
@pytest.mark.deadline(120)
def test_64_mib_without_a_line_feed(term, fake, scheme):
    fake.on("GetParameterValues", Raw(b"[" * ((64 << 20) + 4096)))
    rows = term.run("cat Device.A", timeout=60)
    assert rows[-1] == "[-32002] Connection lost: the daemon closed the link"
    assert term.peak_kib() < 300_000
    fake.on("GetParameterValues", scheme.GetParameterValues)
    assert term.run("cat Device.A")[-1] == "A = 1"


@pytest.mark.load
@pytest.mark.deadline(120)
def test_64_mib_without_a_line_feed_on_the_event_link(kest_start, fake):
    run = kest_start("-l", to=fake)
    fake.wait_for(lambda fake: fake.receivers())
    fake.receivers()[0].send_raw(b"x" * ((64 << 20) + 4096))
    assert run.finish(60).out == "Connection dropped\n"


# Wrong types in every member

VALUES = [None, True, 7, -1, 1.5, "text", "", [], {}, [[]], {"a": {}}, 2**62, [None], ["x"]]


def wrong_answers():
    """Answers to any query with something wrong in every place there is."""
    yield from ({"jsonrpc": value, "result": {"ParameterList": []}} for value in VALUES)
    yield from ({"result": value} for value in VALUES)
    yield from ({"error": value} for value in VALUES)
    yield from ({"error": {"code": value, "message": "m"}} for value in VALUES)
    yield from ({"error": {"code": 9001, "message": value}} for value in VALUES)
    yield from ({"error": {"code": 9001, "message": "m", "data": value}} for value in VALUES)
    yield from ({"result": {"ParameterList": value}} for value in VALUES)
    yield from ({"result": {"ParameterList": [value, {"Name": "Device.A", "Value": 1, "Attributes": {}}]}} for value in VALUES)
    for name in VALUES:
        yield {"result": {"ParameterList": [{"Name": name, "Value": 1, "Attributes": {"type": "int"}, "Writable": True}]}}
    for value in VALUES:
        yield {"result": {"ParameterList": [{"Name": "Device.A", "Value": value, "Attributes": value, "Template": value}]}}
    for key in ("type", "access", "perms", "default", "enum", "multi", "ordered", "runtime", "minInclusive", "maxLength",
                "handler_get", "Direction"):
        for value in VALUES:
            attributes = {"type": "string", "access": "readWrite", "perms": "rw", "default": "", key: value}
            yield {"result": {"ParameterList": [{"Name": "Device.Host.", "Attributes": attributes,
                                                 "Template": [{"Name": "", "Attributes": attributes}]},
                                                {"Name": "Device.A", "Attributes": attributes, "Value": value}]}}
    for name in ("", ".", "..", "Device", "Device..", "Device.A.", ".Device.A", "x" * 300, "Device." + "y" * 300 + ".", "#attr",
                 "Device.#fetched", "Device.Host.0.", "Device.Host.99999999999."):
        yield {"result": {"ParameterList": [{"Name": name, "Value": 1, "Attributes": {"type": "object", "multi": True}}]}}
    yield from ({"result": {"Status": value}} for value in VALUES)
    yield from ({"result": {"Status": 0, "InstanceNumber": value}} for value in VALUES)


QUERIES = ["GetParameterNames", "GetParameterAttributes", "GetParameterValues", "SetParameterValues", "AddObject", "DeleteObject",
           "ChangeOrder", "Execute", "SaveConfig", "FactoryReset", "Login", "Logout", "Download"]
REQUESTS = [
    ["ls", "Device."], ["ls", "-l", "Device."], ["cat", "Device."], ["get", "Device.A"], ["set", "Device.A=1"],
    ["add", "Device.Host."], ["del", "Device.Host.1."], ["order", "Device.Host.1.", "1"], ["attr", "Device.", "Device.A"],
    ["login", "x", "-p", "y"], ["logout"], ["save"], ["reset"], ["execute", "Device.Ping", "Host=\"x\""],
    ["download", "config", "file:///nonexistent"],
]


@pytest.mark.deadline(240)
@pytest.mark.parametrize("words", REQUESTS, ids=lambda words: " ".join(words[:2]))
def test_wrong_types_in_answers_to_requests(kest, fake, tmp_path, words):
    answers = list(wrong_answers())
    for method in QUERIES:
        fake.on(method, [Answer(answer) for answer in answers])
    (tmp_path / "one").write_text(" ".join(words).replace('"', "") + "\n")
    turn = itertools.cycle(answers)
    for method in QUERIES:
        fake.on(method, lambda request: Answer(next(turn)))
    # Each line may fail and so end a script: the shell goes on, fed from a pipe.
    run = kest(to=fake, stdin=(" ".join(words) + "\n") * len(answers), timeout=100)
    assert run.status in (0, 255), run.report()
    for _ in range(10):
        run = kest("-r", *words, to=fake)
        assert run.status >= 0, run.report()


@pytest.mark.deadline(240)
def test_wrong_types_under_completion_and_navigation(shell, fake, scheme):
    answers = itertools.cycle(wrong_answers())
    term = shell(to=fake)
    count = sum(1 for _ in wrong_answers())
    for method in ("GetParameterNames", "GetParameterAttributes"):
        fake.on(method, lambda request: Answer(next(answers)))
    for _ in range(count // 4):
        for command in ("cd Device.Host.1", "cd", "ls Device.Host", "tree Device.Host"):
            term.type(Key.CTRL_U + command + Key.ENTER)
            term.wait_for(lambda term: term.at_prompt())
    assert term.process.poll() is None
    for method in ("GetParameterNames", "GetParameterAttributes"):
        fake.on(method, getattr(scheme, method))
    term.wait_prompt()
    term.run("pwd")


@pytest.mark.threads
def test_wrong_types_in_events(kest_start, fake):
    run = kest_start("-l", to=fake)
    fake.wait_for(lambda fake: fake.receivers())
    receiver, = fake.receivers()
    for number in (1, 2, 4, 12):
        for value in VALUES:
            receiver.send({"method": "Event", "params": {"Id": number, "Value": value}})
            receiver.send({"method": "Event", "params": {"Id": number, "Value": {"Action": value, "Path": value,
                                                                                 "InstanceNumber": value}}})
    for value in VALUES:
        receiver.send({"method": "Event", "params": {"Id": value}})
        receiver.send({"method": "Event", "params": value})
        receiver.send({"method": value, "params": {"Id": 3}})
        receiver.send({"id": value, "result": {}})
        receiver.send({"jsonrpc": value, "method": "Event", "params": {"Id": 12, "Value": "passed"}})
    fake.event(13, "last")
    run.wait_for("last")
    run.interrupt()
    assert run.finish().status == 0


@pytest.mark.threads
def test_wrong_notices_do_not_harm_completion(shell, fake, scheme):
    term = shell(to=fake)
    receiver, = fake.receivers()
    term.run("ls Device.Host")
    for value in VALUES:
        for member in ("Action", "Path", "InstanceNumber"):
            notice = {"Action": "Add", "Path": "Device.Host.", "InstanceNumber": 5, member: value}
            receiver.send({"method": "Event", "params": {"Id": 4, "Value": notice}})
    for path in ("", ".", "Device", "Device.A", "Device.Host.1.", "Device.None.", "x" * 400):
        for action in ("Add", "Delete"):
            for number in (0, -1, 1, 2**40):
                notice = {"Action": action, "Path": path, "InstanceNumber": number}
                receiver.send({"method": "Event", "params": {"Id": 4, "Value": notice}})
    fake.event(9, "after")
    term.wait_for("after")
    term.type("ls Device.Host." + Key.TAB + Key.TAB)
    term.wait_for(lambda term: term.text.count("max_instance") == 2)
    term.type(Key.CTRL_U)  # behind the look-up; a Ctrl-C may end that and no more
    term.wait_for(lambda term: term.at_prompt("kest:> "))
    assert term.run("cat Device.A") == ["A = 1"]


def test_control_characters_from_a_daemon_do_not_reach_a_terminal(term, fake, kest):
    evil = "\x1b[2J\x07\x9b31m\x7f\r"
    fake.on("SaveConfig", Error(9001, evil, {evil: evil}))
    before = len(term.raw)
    term.run("save")
    shown = bytes(term.raw[before:])
    assert b"\x1b[2J" not in shown and b"\x07" not in shown and b"\x7f" not in shown and b"\xc2\x9b" not in shown
    assert evil.encode() in kest("-r", "save", to=fake).out_bytes


# Scripts


def test_a_directory_is_no_script(kest, fake, tmp_path):
    run = kest("-s", tmp_path, to=fake)
    assert (run.out, run.status) == (f"Cannot open script file {tmp_path}\n", 255)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs to become somebody else")
def test_an_unreadable_script(sandbox, tmp_path):
    script = tmp_path / "script"
    script.write_text("echo secret\n")
    script.chmod(0o600)
    sandbox.root.chmod(0o755)
    run = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", settings.KEST, "-u", tmp_path / "none", "-s",
                          script], env=sandbox.environment(), cwd="/", capture_output=True, text=True, timeout=settings.DEADLINE)
    assert run.stdout.replace("Connection dropped\n", "") == f"Cannot open script file {script}\n"
    assert run.returncode == 255


@pytest.mark.parametrize("data", [b"\x7fELF\x02\x01\x01\0\0\0", b"save \xff\xfe\n", b"\0", b"\xc3\x28 x\n"])
def test_a_binary_script_is_refused(kest, fake, tmp_path, data):
    (tmp_path / "script").write_bytes(data)
    run = kest("-s", "script", to=fake)
    assert run.status == 255
    assert "script: line 1 is not text." in run.err
    assert fake.methods() == ["JoinGroup"]


def test_any_program_is_survived_as_a_script(kest, fake):
    run = kest("-s", "/bin/true", to=fake)
    assert run.status == 255


@pytest.mark.load
def test_a_script_of_one_line_of_ten_megabytes(kest, fake, tmp_path):
    (tmp_path / "echo").write_text("echo " + "x" * 10_000_000)
    assert kest("-s", "echo", to=fake, timeout=30).out == "x" * 10_000_000 + "\n"
    (tmp_path / "word").write_text("y" * 10_000_000)
    run = kest("-s", "word", to=fake, timeout=30)
    assert (run.out, run.status) == ("y" * 10_000_000 + ": unknown method.\n", 255)
    fake.on("GetParameterValues", Error(9005, "too long"))
    (tmp_path / "get").write_text("get " + "z" * 10_000_000)
    run = kest("-s", "get", to=fake, timeout=30)
    assert run.out == "[9005] Invalid parameter name: too long\n"
    (tmp_path / "many").write_text("get " + "z " * 100)
    assert kest("-s", "many", to=fake, timeout=30).out.count("\n") == 100


@pytest.mark.load
def test_a_line_that_never_ends_is_no_line(kest, fake, tmp_path):
    (tmp_path / "joined").write_text(("x" * (33 << 20) + "\\\n") * 2 + "save\n")
    run = kest("-s", "joined", to=fake, timeout=30)
    assert (run.out, run.err, run.status) == ("", "joined: line 2 is too long.\n", 255)
    (tmp_path / "typed").write_bytes(b"x" * (65 << 20) + b"\nsave\n")
    with (tmp_path / "typed").open() as typed:
        run = kest(to=fake, stdin=typed.fileno(), timeout=30)
    assert (run.err, run.status) == ("kest: cannot read standard input: Message too long\n", 255)
    assert "SaveConfig" not in fake.methods()


# Terminals


@pytest.mark.parametrize("columns, rows", [(10, 24), (5, 3), (1, 1), (2, 2)])
def test_a_tiny_terminal(terminal, fake, scheme, columns, rows):
    term = terminal(to=fake, columns=columns, rows=rows)
    term.quiet(0.3)
    term.type("cat Device.A")
    term.quiet()
    term.type(Key.ENTER)
    fake.wait_for("GetParameterValues")
    term.type("ls Device" + Key.TAB + Key.TAB)
    term.quiet()
    term.type(Key.CTRL_U + "wörter und 日本語 " * 5 + Key.HOME + Key.END + Key.LEFT * 7 + "x" + Key.CTRL_C)
    term.quiet()
    term.type(Key.CTRL_C)  # the first one may have been for a hint that was being looked for
    term.quiet()
    term.type("q" + Key.ENTER)
    assert term.wait_exit() == 0


def test_a_line_wraps_on_ten_columns(terminal, fake, scheme):
    term = terminal(to=fake, columns=10)
    term.wait_for(lambda term: term.at_prompt("kest:> "))
    term.type("catree")
    term.wait_for(lambda term: term.lines[-2:] == ["kest:> cat", "ree"])
    term.type(Key.BACKSPACE * 4)
    term.wait_for(lambda term: term.lines[-1] == "kest:> ca")


def test_a_terminal_without_a_size(terminal, fake, scheme):
    term = terminal(to=fake, columns=80)
    term.wait_prompt()
    import fcntl
    import struct
    import termios

    fcntl.ioctl(term.master, termios.TIOCSWINSZ, struct.pack("HHHH", 0, 0, 0, 0))
    term.type("pwd" + Key.ENTER)
    term.wait_for("\n:\n")
    term.type("q" + Key.ENTER)
    assert term.wait_exit() == 0


@pytest.mark.parametrize("name", ["dumb", "unknown-kind", ""])
def test_a_terminal_of_an_unknown_kind(terminal, fake, scheme, name):
    term = terminal(to=fake, env={"TERM": name})
    term.wait_prompt()
    assert term.run("cat Device.A") == ["A = 1"]


@pytest.mark.parametrize("name", ["dumb", "", None])
def test_a_terminal_that_knows_no_escape_sequences_sees_none(terminal, fake, scheme, tmp_path, name):
    (tmp_path / "image").write_text("firmware")
    fake.on("Download", {"Status": 0})
    term = terminal(to=fake, env={"TERM": name, "COLORTERM": "truecolor"})
    assert term.run("cat Device.A") == ["A = 1"]
    assert term.run("save") == ["[-32601] Method not found: Method not found"]
    term.run("lua")
    assert term.run("1+1") == ["_[1] = 2"]
    assert any(row.endswith("in the main chunk") for row in term.run("error('no')"))
    term.run("q")
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.DeviceInfo.UpgradeStatus", "Value": -1}]})
    assert any(row.startswith("Flashing: 100% [") for row in term.run("upgrade image"))
    assert b"\x1b" not in term.raw


# Words that are no text


@pytest.mark.parametrize("words", [
    ["-r", "get", b"Device.\xff"],
    ["-r", b"\xff\xfe"],
    ["-r", "set", b"Device.A=\xff"],
    ["--raw", b"{\"id\":1,\"method\":\"\xff\"}"],
    ["-e", "1", b"\xff"],
    ["-s", b"script\xff"],
], ids=range(6))
def test_arguments_that_are_not_utf8_are_refused(kest, fake, words):
    run = kest(*words, to=fake)
    assert run.status != 0
    assert run.out + run.err != ""
    assert fake.methods() in ([], ["JoinGroup"])


def test_typed_words_that_are_not_utf8_are_refused(kest, fake, scheme):
    run = kest(to=fake, stdin=b"cat Device.\xff\ncat Device.A\n")
    assert "A = 1\n" in run.out
    assert all("\ufffd" not in request.raw.decode() for request in fake.requests)
    assert len(fake.of("GetParameterValues")) == 1


def test_a_line_with_nul_is_no_two_lines(kest, fake, scheme):
    run = kest(to=fake, stdin=b"cat Device.A\0cat Device.Sub.B\nq\n")
    assert run.status == 0
    assert 'B = "text"' not in run.out


def test_a_typed_line_of_a_megabyte(kest, fake, scheme):
    run = kest(to=fake, stdin="cat " + "x" * 1_000_000 + "\ncat Device.A\n", timeout=30)
    assert "no such node.\n" in run.out
    assert run.out.endswith("A = 1\n")


def test_a_hundred_thousand_words(kest, fake, scheme):
    run = kest(to=fake, stdin="set" + " x" * 100_000 + "\n", timeout=30)
    assert run.out.count("set: x: no value.\n") == 100_000
    assert run.out.endswith("set: no argument.\n")


# Small stacks

DEEP = "[" * 2030 + "]" * 2030


@pytest.fixture
def cramped(sandbox, fake):
    """Runs the client with less of something (an option of `ulimit`): a small stack, as on systems whose threads have 128 KiB."""
    sys.setrecursionlimit(20000)  # the fake reads what is sent
    if SANITIZED:
        pytest.skip("the sanitizers need more themselves")

    def run(*words, limit="-s 128", stdin=None):
        command = f'ulimit {limit}; exec {settings.KEST} -u {fake.address} "$@"'
        return Program(["/bin/sh", "-c", command, "sh", *words], sandbox.environment(), sandbox.work, stdin)

    return run


@pytest.mark.parametrize("words", [
    ("-r", "get", "Device.A"), ("-r", "cat", "Device."), ("--raw", '{"id":7,"method":"Ask","params":{"X":%s}}' % DEEP),
    ("-e", "4", DEEP), ("-r", "set", f"Device.A={DEEP}"), ("-n", "Tell", '{"X":%s}' % DEEP),
    ("-r", "lua", "local t = {} for i = 1, 2030 do t = {t} end dm.event(4, t) print('sent')"),
    ("-r", "lua", "print(dm.get('Device.A') ~= nil)"),
], ids=["get", "cat", "raw", "event", "set", "notify", "lua event", "lua get"])
def test_a_deep_value_needs_no_large_stack(cramped, fake, words):
    fake.on("GetParameterValues", lambda request: Raw(
        b'{"id":%d,"result":{"ParameterList":[{"Name":"Device.A","Value":%b}]}}\n' % (request.id, DEEP.encode())))
    fake.on("Ask", lambda request: Raw(b'{"id":%d,"error":{"code":9002,"message":"no","data":%b}}\n' % (request.id, DEEP.encode())))
    run = cramped(*words).finish()
    assert run.status >= 0
    if words[1] in ("get", "cat") or words[0] == "--raw":
        assert run.out.count("[") >= 2030
    if words[1] == "lua":
        assert run.out.endswith(("\ntrue\n", "\nsent\n"))


def test_a_deep_event_needs_no_large_stack(cramped, fake):
    listener = cramped("-l", "-g", "12")
    for connection in fake.wait_for(lambda fake: fake.receivers()):
        connection.send_raw(b'{"method":"Event","params":{"Id":12,"Value":%b}}\n' % DEEP[1400:-1400].encode())
    fake.event(13)
    listener.wait_for("EVENT 13:\n")
    assert listener.out.count("[") == 630
    listener.interrupt()
    assert listener.finish().status == 0


# Lines of little that become much

BLOATED = b"[" + b"{}," * (1 << 20) + b"{}]"  # 3 MiB, which would take 250
MEMORY = f"-d {8 * len(BLOATED) // 1024 + 16 * 1024}"


@pytest.mark.parametrize("words, said", [
    (("-r", "get", "Device.A"), "A = [{}, {}, "),
    (("--raw", '{"id":7,"method":"GetParameterValues"}'), "would take too much memory"),
    (("-r", "lua", "print(dm.get('Device.A'))"), "would take too much memory"),
    (("-r", "set", "Device.A=1"), "would take too much memory"),
], ids=["get", "raw", "lua", "set"])
def test_a_line_costs_no_more_than_it_may(cramped, fake, words, said):
    listed = b'{"id":%d,"result":{"ParameterList":[{"Name":"Device.A","Value":%b}]}}\n'
    fake.on("GetParameterValues", lambda request: Raw(listed % (request.id, BLOATED)))
    failed = b'{"id":%d,"error":{"code":9002,"message":"no","data":{"a":%b}}}\n'
    fake.on("SetParameterValues", lambda request: Raw(failed % (request.id, BLOATED)))
    run = cramped(*words, limit=MEMORY).finish()
    assert said in run.out


# Written over several lines this takes 800 MB, nearly all of them blanks.
DEEP_AND_WIDE = b"[" * 2000 + b"1" + b",1" * 100_000 + b"]" * 2000
FEW = f"-d {32 * 1024}"  # KiB, and a thread's stack is 8 MiB of it


@pytest.mark.parametrize("value, limit", [(BLOATED, MEMORY), (DEEP_AND_WIDE, FEW)], ids=["many", "deep"])
def test_an_event_costs_no_more_than_it_may(cramped, fake, value, limit):
    run = cramped("-l", "-g", "12", limit=limit)
    for connection in fake.wait_for(lambda fake: fake.receivers()):
        connection.send_raw(b'{"method":"Event","params":{"Id":12,"Value":%b}}\n' % value)
    assert run.finish().out == "Connection dropped\n"


@pytest.mark.parametrize("words, said", [
    (("--raw", '{"id":7,"method":"GetParameterValues"}'), "would take too much memory"),
    (("-r", "attr", "Device.A"), "Canonical path:     :Device.A\n"),
], ids=["raw", "attr"])
def test_a_deep_and_wide_answer_costs_no_more_than_it_may(cramped, fake, words, said):
    listed = b'{"id":%d,"result":{"ParameterList":[{"Name":"Device.A",%b:%b}]}}\n'
    fake.on("GetParameterValues", lambda request: Raw(listed % (request.id, b'"Value"', DEEP_AND_WIDE)))
    attributes = b'{"type":"string","access":"readOnly","default":%b}' % DEEP_AND_WIDE
    fake.on("GetParameterAttributes", lambda request: Raw(listed % (request.id, b'"Attributes"', attributes)))
    run = cramped(*words, limit=FEW).finish()
    assert said in run.out
    assert run.status >= 0


@pytest.mark.parametrize("entry", [
    b'{"Name":"%d.' + b"a." * 100 + b'b","Value":1}',  # a hundred nodes in 200 bytes
    b'{"Name":"%d.","Template":[{"Name":"a."}]}',
    b'{"Name":"%d","Attributes":{"x":[' + b"{}," * 200_000 + b'{}]}}',
], ids=["names", "patterns", "attributes"])
def test_a_list_costs_no_more_than_it_may(cramped, fake, tmp_path, entry):
    listed = b",".join(entry % number for number in range((2 << 20) // len(entry)))
    for method in ("GetParameterAttributes", "GetParameterValues"):
        fake.on(method, lambda request: Raw(b'{"id":%d,"result":{"ParameterList":[%b]}}\n' % (request.id, listed)))
    (tmp_path / "login.conf").write_text("login\n")
    limit = f"-d {8 * len(listed) // 1024 + 24 * 1024}"
    run = cramped("-c", "login.conf", "-r", "ls", limit=limit).finish()
    assert run.status == 0, run.report()
    fake.on("GetParameterAttributes", {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]})
    run = cramped(limit=limit, stdin="catree Device.\npwd\n").finish()
    assert run.out.endswith("\n:\n"), run.report()


def test_a_list_is_aligned_with_a_name_of_any_width_that_a_screen_may_have(kest, fake):
    long = "n" * 5000
    values = [{"Name": f"Device.{name}", "Value": 1, "Attributes": {"type": long if name == long else "int"}} for name in (long, "a")]
    attributes = {"type": "object", "access": "readWrite"}
    fake.on("GetParameterValues", {"ParameterList": values})
    fake.on("GetParameterAttributes", [{"ParameterList": [{"Name": "Device.", "Attributes": attributes}]}, {"ParameterList": values}])
    run = kest(to=fake, stdin="cat Device.\ncatree Device.\nls -l Device.\n")
    assert f"\na{' ' * 4999} = 1\n{long} = 1\n" in run.out or f"\n{long} = 1\na{' ' * 4999} = 1\n" in run.out
    assert f"├── a{' ' * 4999} = 1\n└── {long} = 1\n" in run.out
    assert f"\nint{' ' * (5001 - 3 + 1)}- " in run.out and f"\n{long}  - " in run.out


def test_one_long_name_does_not_fill_every_row_with_blanks(kest, fake):
    long = "n" * (1 << 18)
    attributes = {"type": "object", "access": "readWrite"}
    values = [{"Name": f"Device.{name}", "Value": 1, "Attributes": {"type": long if name == long else "int"}}
              for name in (long, *range(1000))]
    fake.on("GetParameterValues", {"ParameterList": values})
    fake.on("GetParameterAttributes", [{"ParameterList": [{"Name": "Device.", "Attributes": attributes}]}, {"ParameterList": values}])
    run = kest(to=fake, stdin="cat Device.\ncatree Device.\nls -l Device.\n", timeout=30)
    assert run.out.count("\n") > 3000 and len(run.out) < 6 * len(long), len(run.out)


def test_a_tree_of_millions_is_not_drawn(cramped, fake):
    """A short list of instances, each of which looks like a short list of names."""
    pattern = b",".join(b'{"Name":"a%d"}' % number for number in range(2000))
    table = b'{"Name":"Device.","Attributes":{"type":"object","multi":true},"Template":[%b]}' % pattern
    instances = b",".join(b'{"Name":"Device.%d."}' % number for number in range(1, 701))
    listed = b'{"id":%d,"result":{"ParameterList":[%b]}}\n'
    fake.on("GetParameterAttributes", lambda request: Raw(listed % (request.id, table)))
    fake.on("GetParameterNames", lambda request: Raw(listed % (request.id, instances)))
    run = cramped(limit=f"-d {220 << 10}", stdin="tree\npwd\n").finish(30)
    assert run.out.endswith("\ntree: the tree would take too much memory.\n:\n"), run.report()


@pytest.mark.lua
@pytest.mark.parametrize("before", [True, False], ids=["before the answer", "of other groups"])
def test_events_that_wait_cost_no_more_than_they_may(cramped, fake, before):
    """Of those that came before the answer the first ones stay; of those of other groups, the last."""
    flood = b"".join(b'{"method":"Event","params":{"Id":13,"Value":"%02d%b"}}\n' % (number, b"x" * (1 << 20)) for number in range(24))
    answer, end = b'{"id":%d,"result":{}}\n', b'{"method":"Event","params":{"Id":77}}\n'
    fake.on("JoinGroup", lambda request: Raw(answer % request.id if request.params["Group"] != 77 else
                                             flood + answer % request.id + end if before else answer % request.id + flood + end))
    script = "dm.wait(13, 0) print(dm.wait(77)) local id, value = dm.wait(13, 0) print(id, value:sub(1, 2))"
    run = cramped("-r", "lua", script, limit=f"-d {48 * 1024 + COUNTERS}").finish()
    assert run.lines[1:] == ["77\tnil", "13\t00" if before else "13\t09"], run.report()


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need more themselves")
@pytest.mark.parametrize("request_, shows_all", [("get Device.A", True), ("lua 'dm.set{[\"Device.A\"] = 1}'", False)], ids=["get", "lua"])
def test_a_text_that_is_escaped_costs_no_more_than_it_may(sandbox, fake, request_, shows_all):
    text = b"\x7f" * (3 << 20)
    fake.on("GetParameterValues", lambda request: Raw(
        b'{"id":%d,"result":{"ParameterList":[{"Name":"Device.A","Value":"%b"}]}}\n' % (request.id, text)))
    fake.on("SetParameterValues", lambda request: Raw(
        b'{"id":%d,"error":{"code":9002,"message":"no","data":{"Device.A":"%b"}}}\n' % (request.id, text)))
    command = f"ulimit -d {8 * len(text) // 1024 + 16 * 1024}; exec {settings.KEST} -u {fake.address} -r {request_}"
    shown = sandbox.work / "shown"
    with shown.open("wb") as out:
        run = Program(["/usr/bin/script", "-qec", command, "/dev/null"], sandbox.environment(), sandbox.work, stdout=out).finish()
    assert run.status == 0, run.report()
    escapes = shown.read_bytes().count(b"\\x7f")
    assert escapes == len(text) if shows_all else 1 << 15 < escapes < 1 << 17


# What reaches a terminal by the other stream

@pytest.mark.lua
@pytest.mark.parametrize("line", ["dm.set{['Device.A'] = 1}", "error('\\27[31mhostile')", "x = \x02 hostile"])
def test_errors_on_a_terminal_are_escaped_though_the_output_goes_elsewhere(terminal, scheme, fake, line):
    fake.on("SetParameterValues", Error(9001, "\x1b[31mhostile"))
    term = terminal("-c", f"{settings.KEST} -u {fake.address} | cat", program="/bin/sh")
    term.type("lua\r")
    term.type(line + "\r")
    term.wait_for("hostile")
    term.type("q\rq\r")
    assert b"\x1b[31mhostile" not in term.raw and b"\x02 hostile" not in term.raw.replace(line.encode(), b"")


HOSTILE = "Device.x\x1b[31mhostile\u202e"


@pytest.mark.lua
@pytest.mark.parametrize("hostile", ["\x1b[31mhostile", "\x9b31mhostile", "\u202ehostile", "\u2028hostile", "\x7fhostile"])
def test_a_long_text_that_the_console_shows_is_escaped(shell, fake, hostile):
    lines = "a line of a text that is long enough\n" * 9
    fake.serve({"Device.": {}, "Device.A": lines + hostile, "Device.B": lines + "harmless é"})
    term = shell(to=fake)
    before = len(term.raw)
    term.type("lua\rdm.get('Device.A')\rdm.show({dm.get('Device.A')})\rdm.get('Device.B')\r")
    term.wait_for("harmless é]]")
    shown = bytes(term.raw[before:])
    assert shown.count(b"hostile") == 2 and hostile.encode() not in shown


def test_what_was_pasted_is_escaped_in_what_is_said_of_it(shell, fake):
    fake.serve({"Device.": {}, "Device.A": 1})
    term = shell(to=fake)
    pasted = f"\x1b[200~{HOSTILE}\x1b[201~"
    for line in ("set %s=1", "set %s", "cat %s.", "cd %s.", "ls %s. %s.", "tree %s.", "add %s.", "add Device.A %s", "del %s.",
                 "execute %s", "attr %s. %s.", "%s", "record /none/%s", "lua --%s", "set !-1 %s"):
        before = len(term.raw)
        term.type(line.replace("%s", pasted) + Key.ENTER + "cat Device.A" + Key.ENTER)
        # Only an editor that reads again shows what is typed by itself.
        term.wait_for(lambda term: b"A = " in term.raw[before:] and term.at_prompt("kest:> "))
        shown = bytes(term.raw[before:])
        assert b"hostile" in shown and b"\x1b[31mhostile" not in shown and "\u202e".encode() not in shown, line
    before = len(term.raw)
    term.type(f"login {pasted}" + Key.ENTER)
    term.wait_for("password for Device.x\\x1b[31mhostile\\u202e:")
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: term.at_prompt("kest:> "))


def test_names_that_were_completed_are_escaped_in_what_is_said_of_them(shell, fake):
    fake.serve({"Device.": {}, "Device.A": 1, HOSTILE: 1})
    term = shell(to=fake)
    before = len(term.raw)
    term.type("set Device.x" + Key.TAB + "=2" + Key.ENTER)
    term.wait_for("Status: OK")
    shown = bytes(term.raw[before:])
    assert b"key = Device.x" in shown and b"\x1b[31mhostile" not in shown and "\u202e".encode() not in shown


@pytest.mark.parametrize("limit", range(5, 11))
def test_a_configuration_that_lacks_descriptors_is_not_passed_over_in_silence(cramped, fake, tmp_path, limit):
    (tmp_path / "good").write_text("save\n")
    fake.on("SaveConfig", {})
    run = cramped("-c", "good", "-r", "get", "Device.A", limit=f"-n {limit}").finish()
    assert "SaveConfig" in fake.methods() or "Too many open files\n" in run.err


def test_files_that_may_not_grow_end_nothing_by_a_signal(sandbox, fake):
    fake.serve({"Device.": {}, "Device.A": 1})
    command = f"ulimit -f 1; exec {settings.KEST} -u {fake.address}"
    typed = "pwd\n" * 200 + "record script\n" + "pwd \n" * 200 + "q\nsh ulimit -f; kill -XFSZ $$; echo still here\nq\n"
    run = Program(sandbox.wrap(["/bin/sh", "-c", command]), sandbox.environment(), sandbox.work, typed).finish()
    assert run.status == 0, run.report()
    assert run.err.count("File too large") == 2 and "still here" not in run.out
    assert [path.name for path in sandbox.tmp.iterdir()] in ([".kest.hist"], [])
    assert (sandbox.work / "script").read_text() == ""


def test_memory_that_is_out_ends_the_program_with_its_text(cramped, fake, tmp_path):
    (tmp_path / "s").write_text("echo " + "x" * 7000000 + "\necho two\n")
    run = cramped("-s", "s", limit="-v 24000").finish()
    assert (run.status, run.out) == (-signal.SIGABRT, "")
    assert "xmalloc failed" in run.err
