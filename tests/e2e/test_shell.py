"""The interactive shell on pipes: what it says, asks and runs, line by line."""

import os
import pwd
import subprocess
import time

import pytest

from lib import settings
from lib.fake import Close, Error, Silence, Slow

USER = pwd.getpwuid(os.getuid()).pw_name
BANNER = """Veltro Management System client.
***
WARNING - for experts only!
This tool is not intended to use by users 'cause it can cause harm to the device!
***
Interactive mode. 
Enter 'help' or '?' for help, 'q' for exit.
"""  # noqa: W291
MODEL = {
    "DataModelVersion": "1.0",
    "Device.": {},
    "Device.Name": "box",
    "Device.Count": {"type": "unsignedInt", "access": "readOnly", "value": 3},
    "Device.Hosts.": {},
}
ROOT = {"ParameterNames": ["."], "Depth": 1}


@pytest.fixture
def lines(kest, fake):
    """Runs lines of input and returns what the shell printed behind its banner."""
    fake.serve(MODEL)

    def run(*typed, end="q\n"):
        shell = kest(to=fake, stdin="".join(line + "\n" for line in typed) + end)
        assert shell.out.startswith(BANNER)
        assert (shell.err, shell.status) == ("", 0)
        return shell.out[len(BANNER):]

    return run


# Start

def test_the_shell_greets_logs_in_and_loads_the_scheme(kest, fake):
    fake.serve(MODEL)
    run = kest(to=fake, stdin="q\n")
    assert (run.out, run.err, run.status) == (BANNER, "", 0)
    assert [(r.method, r.params) for r in fake.requests[1:]] == [
        ("Login", {"User": USER}),
        ("GetParameterAttributes", ROOT),
        ("GetParameterAttributes", ROOT),
    ]


def test_the_greeting_does_not_wait_for_the_daemon(kest_start, fake):
    fake.on("Login", Silence()).otherwise(Silence())
    run = kest_start(to=fake)
    run.wait_for(BANNER)


def test_a_refused_login_leaves_the_user_anonymous(kest, fake):
    fake.serve(MODEL)
    fake.on("Login", Error(9001, "Request denied"))
    run = kest(to=fake, stdin="pwd\nq\n")
    assert run.out == BANNER + ":\n"
    assert fake.methods(but=["JoinGroup"]) == ["Login", "GetParameterAttributes"]


def test_nobody_logs_in_by_credentials_over_tcp(kest, fake_start):
    fake = fake_start("tcp://127.0.0.1:0")
    fake.serve(MODEL)
    assert kest(to=fake, stdin="q\n").out == BANNER
    assert fake.methods(but=["JoinGroup"]) == ["GetParameterAttributes"]


def test_a_login_of_the_configuration_that_the_daemon_accepts_gives_way_to_the_process_user(kest, fake, tmp_path):
    fake.serve(MODEL)
    (tmp_path / "config").write_text("login admin -p secret\n")
    kest("-c", "config", to=fake, stdin="q\n")
    assert fake.params("Login") == [
        {"User": "admin", "Password": "secret"}, {"User": "admin", "Password": "secret"}, {"User": USER}]


def test_a_login_of_the_configuration_that_the_daemon_refuses_stays(kest, fake, tmp_path):
    fake.serve(MODEL)
    fake.on("Login", [{}, Error(9001, "Request denied")])
    (tmp_path / "config").write_text("login admin -p secret\n")
    kest("-c", "config", to=fake, stdin="q\n")
    assert fake.params("Login") == [{"User": "admin", "Password": "secret"}] * 2
    # Once for the command, then for the kept name, then always.
    assert len([p for p in fake.params("GetParameterAttributes") if p == ROOT]) == 3


# Lines

@pytest.mark.parametrize("end", ["q\n", "quit\n", "q", "", "q\npwd\n"])
def test_the_shell_ends(lines, end):
    assert lines("pwd", end=end) == ":\n"


@pytest.mark.parametrize("line", ["q ", " q", "quit now", "Q", "\"q\""])
def test_other_spellings_do_not_end_it(lines, line):
    out = lines(line, "pwd")
    assert out.endswith(":\n") and "command not found" in out or out == ":\n"


@pytest.mark.parametrize("line, out", [
    ("", ""),
    ("pwd", ":\n"),
    ("  pwd", ":\n"),
    ("\tpwd   # comment", ":\n"),
    ("'pwd'", ":\n"),
    ("p\"w\"d", ":\n"),
    ("nonsense a b", "nonsense: command not found.\n"),
    ("'two words'", "two words: command not found.\n"),
    ("   ", "(null): command not found.\n"),
    ("# comment", "(null): command not found.\n"),
    ("''", "(null): command not found.\n"),
    ("echo x", "echo: command not found.\n"),
])
def test_a_line_is_words(lines, line, out):
    assert lines(line) == out


def test_quoted_words_reach_the_command_whole(lines, fake):
    lines("login \"a b\" -p 'c\"d'", "login e\\\"f -p g\\h", "login a' 'b'' -p c\\ d")
    assert fake.params("Login")[1:] == [
        {"User": "a b", "Password": "c\"d"}, {"User": "e\"f", "Password": "g\\h"}]


def test_a_line_that_is_no_text_is_refused(kest, fake):
    fake.serve(MODEL)
    run = kest(to=fake, stdin=b"cat Device.\xff\nlua \xff\npwd\nq\n")
    assert run.out == BANNER + "The line is not valid UTF-8 text.\n" * 2 + ":\n"


def test_a_very_long_line(lines):
    assert lines("x" * 1_000_000) == "x" * 1_000_000 + ": command not found.\n"


# History references

@pytest.mark.parametrize("typed, out", [
    (["pwd", "!!"], ":\npwd\n:\n"),
    (["pwd", "cd Device", "!1"], ":\npwd\n:Device\n"),
    (["pwd", "cd Device", "!-2"], ":\npwd\n:Device\n"),
    (["cd Device", "pwd", "!!"], ":Device\npwd\n:Device\n"),
    (["a", "b !1"], "a: command not found.\nb a\nb: command not found.\n"),
    (["a", "!1 !1"], "a: command not found.\na a\na: command not found.\n"),
    (["a", "!1x y"], "a: command not found.\na y\na: command not found.\n"),
    # The replaced line is remembered, not the reference.
    (["a", "!!", "!-1"], "a: command not found.\n" + "a\na: command not found.\n" * 2),
])
def test_references_are_replaced_and_shown(lines, typed, out):
    assert lines(*typed) == out


@pytest.mark.parametrize("line, word", [
    ("!!", "!!"), ("!0", "!0"), ("!9", "!9"), ("!-9", "!-9"), ("!-0", "!-0"), ("!x", "!x"), ("!", "!"), ("!- 1", "!-"),
    ("!99999999999999999999", "!99999999999999999999"), ("! 1", "!"), ("!+1", "!+1"), ("!--1", "!--1"),
    ("a!1", "a!1"), ("'!!'", "!!"), ("!! x", "!!"),
])
def test_other_exclamation_marks_stay(kest, fake, line, word):
    fake.serve(MODEL)
    run = kest(to=fake, stdin=f"{line}\nq\n")
    assert run.out == BANNER + f"{word}: command not found.\n"


def test_an_input_that_cannot_be_read_is_no_end(kest, fake, tmp_path):
    fake.serve(MODEL)
    folder = os.open(tmp_path, os.O_RDONLY)
    run = kest(to=fake, stdin=folder)
    os.close(folder)
    assert (run.status, run.err) == (255, "kest: cannot read standard input: Is a directory\n")


def test_an_unknown_reference_ends_the_expansion(lines):
    assert lines("a", "!9 !1") == "a: command not found.\n!9: command not found.\n"


def test_a_reference_to_itself_ends(lines):
    # The first "!!" finds no entry and is remembered as it is typed.
    assert lines("!!", "!!") == "!!: command not found.\n!!\n!!: command not found.\n"


def test_a_reference_that_grows_ends(lines):
    out = lines("!1 x", "!1 y")
    shown = out.splitlines()[1]
    assert shown.startswith("!1 x x x") and shown.endswith(" x y") and len(shown) < 1000


def test_a_line_that_begins_with_a_blank_is_not_remembered(lines):
    assert lines("a", " b", "!!") == "a: command not found.\nb: command not found.\na\na: command not found.\n"


def test_the_history_outlives_the_shell(lines, private_tmp):
    lines("a", "b c")
    assert (private_tmp / ".kest.hist").read_text() == "a\nb c\n"
    assert lines("!1") == "a\na: command not found.\n"


# Recording

def test_q_ends_a_recording_before_the_shell(lines, tmp_path):
    assert lines("record file", "pwd", "nonsense", "q", "pwd") == ":\nnonsense: command not found.\n:\n"
    assert (tmp_path / "file").read_text() == "pwd\nnonsense\n"


def test_a_recording_left_by_the_end_of_input_is_not_written(lines, tmp_path):
    lines("record file", "pwd", end="")
    assert (tmp_path / "file").read_text() == ""


def test_a_recording_is_a_configuration(kest, fake, lines, tmp_path):
    lines("record file", "login admin -p x", "cd Device", "cat Name", "quit")
    fake.requests.clear()
    kest("-c", "file", "-n", "x", to=fake)
    assert fake.params("GetParameterValues") == [{"ParameterNames": ["Device.Name"]}]


def test_a_recording_holds_the_expanded_line(lines, tmp_path):
    lines("pwd", "record file", "!1", "q")
    assert (tmp_path / "file").read_text() == "pwd\n"


# Lua

@pytest.mark.lua
def test_what_follows_lua_is_one_word(lines):
    assert lines("lua print(1,  2)", "lua print(\"a # b\")") == (
        "print(1,  2) \n1\t2\nprint(\"a # b\") \na # b\n")


# The daemon's side

def test_a_daemon_that_closes_the_link_ends_the_shell(kest_start, fake):
    fake.serve(MODEL)
    run = kest_start(to=fake, stdin="pwd\n" + "cat Device.Name\n" * 3)
    assert run.finish().status == 0


def test_the_shell_ends_when_the_daemon_drops_both_links(terminal, fake):
    fake.serve(MODEL)
    term = terminal(to=fake).wait_prompt()
    fake.drop_all()
    assert term.wait_exit() == 0
    assert "Connection dropped" in term.text


# Ctrl-C

def test_ctrl_c_leaves_a_command(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    fake.on("GetParameterValues", Silence())
    spent = []
    for round in range(1, 6):
        term.type("cat Device.Name\r")
        fake.wait_for(lambda fake: len(fake.of("GetParameterValues")) == round)
        began = time.monotonic()
        term.type("\x03")
        term.wait_prompt()
        spent.append(time.monotonic() - began)
    assert min(spent) < 0.15 * settings.PATIENCE
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.Name", "Value": "late"}]})
    assert term.run("cat Device.Name") == ['Name = "late"']


def test_a_late_answer_is_not_taken_for_the_next(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    fake.on("GetParameterValues", [
        Slow(0.3, {"ParameterList": [{"Name": "Device.Name", "Value": "first"}]}),
        Slow(0.6, {"ParameterList": [{"Name": "Device.Name", "Value": "second"}]}),
    ])
    term.type("cat Device.Name\r")
    fake.wait_for("GetParameterValues")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("cat Device.Name") == ['Name = "second"']


def test_ctrl_c_leaves_a_reconnect(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    fake.on("GetParameterValues", Close())
    fake._run(fake._close_listener)
    term.type("cat Device.Name\r")
    term.wait_for("Reconnecting...")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd") == [":"]


@pytest.mark.parametrize("again", range(5))
def test_a_ctrl_c_storm_hurts_nothing(shell, fake, again):
    fake.serve(MODEL)
    term = shell(to=fake)
    for _ in range(30):
        term.type("cat Device.Name\r\x03")
    term.type("\x03").quiet(0.5)
    term.wait_prompt()
    assert term.run("cat Device.Name") == ['Name = "box"']


@pytest.mark.parametrize("again", range(5))
def test_ctrl_c_in_one_packet_with_enter_sends_nothing(shell, fake, again):
    fake.serve(MODEL)
    term = shell(to=fake)
    for _ in range(10):
        term.type("save\r\x03")
    term.type("save\rsave\r\x03cat Device.Name\r")
    term.wait_for('Name = "box"')
    assert not fake.of("SaveConfig")


def test_a_line_typed_ahead_of_a_tab_that_is_given_up_does_not_run(shell, fake):
    fake.serve({"Device.": {}, "Device.Deep.": {}, "Device.Deep.Name": "box"})
    term = shell(to=fake)
    term.run("ls Device.")
    fake.on("GetParameterAttributes", Silence())
    before = len(fake.requests)
    term.type("cat Device.Deep.\t")
    fake.wait_for(lambda fake: len(fake.requests) > before)
    term.type("save\r").quiet(0.1)
    term.type("\x03\x15pwd\r")
    term.wait_for("pwd\n:\n")
    assert not fake.of("SaveConfig")


def test_what_was_typed_ahead_of_the_end_is_left_to_the_next_program(sandbox, fake, terminal):
    fake.serve(MODEL)
    command = f'{settings.KEST} -u {fake.address}; read line; echo "next has $line"'
    term = terminal("-c", command, program="/bin/sh").wait_prompt()
    term.type("q\rfor the next\r")
    term.wait_for("next has for the next")


def test_ctrl_c_at_the_prompt_drops_the_line(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    term.type("cat Dev")
    term.wait_for("cat Dev")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd") == [":"]


def test_ctrl_c_stops_a_long_output(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    fake.on("GetParameterValues", {"ParameterList": [
        {"Name": f"Device.P{n}", "Value": "x" * 60} for n in range(100_000)]})
    term.type("cat Device.\r")
    term.wait_for("P1")
    term.type("\x03")
    term.wait_prompt(timeout=3)
    assert "P99999" not in "\n".join(term.all_lines)
    assert term.run("pwd") == [":"]


@pytest.mark.skipif(os.geteuid() != 0, reason="needs to become somebody else")
def test_a_user_without_a_name_or_a_home_is_nobody(sandbox, fake):
    fake.serve(MODEL)
    sandbox.root.chmod(0o755)
    os.chmod(fake.address, 0o666)
    sandbox.home.joinpath(".local/kest").mkdir(parents=True)
    sandbox.home.joinpath(".local/kest/config").write_text("cd Device\n")
    environment = {key: value for key, value in sandbox.environment().items() if key != "HOME"}
    nameless = ["setpriv", "--reuid=54321", "--regid=54321", "--clear-groups"]
    command = sandbox.wrap([*nameless, settings.KEST, "-u", fake.address])
    run = subprocess.run(command, env=environment, cwd="/", input="pwd\n",
                         capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (run.stdout, run.returncode) == (BANNER + ":\n", 0)
    assert "Login" not in fake.methods()
