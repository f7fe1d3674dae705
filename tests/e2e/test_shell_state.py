"""What the shell keeps from line to line: recordings and what they count, the login that a refusal leaves, the place after a
reconnect, and a SIGINT that somebody else ignores."""

import pytest

from lib import settings
from lib.commands import LAST_GREETING, MODEL, refuse_logins, typed
from lib.fake import Error
from lib.program import Program


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


@pytest.mark.parametrize("lines, recorded", [
    (["record file", "pwd", "cd Device", "q"], "pwd\ncd Device\n"),
    # A line that begins with a blank counts and is not remembered: what is written begins one entry earlier.
    (["record file", " pwd", "cd Device", "q"], "record file\ncd Device\n"),
    (["cd", "record file", " pwd", "\tpwd", "q"], "cd\nrecord file\n"),
    ([" cd", "record file", " pwd", "  ", "pwd", "q"], "record file\npwd\n"),
    # Lines that are no commands count like others, empty ones do not.
    (["record file", "", "# note", "nonsense", "", "q"], "# note\nnonsense\n"),
    (["pwd", "record file", "!1", "!!", "q"], "pwd\npwd\n"),
    (["record file", "record other", "q"], "record other\n"),
    (["record file", "lua x = 1", "quit"], "lua x = 1\n"),
    (["record file", "q"], ""),
    (["record file", "pwd", "record abort"], ""),
    (["record file", "pwd", "q", "cd", "record file", "ls", "q"], "ls\n"),
])
def test_what_a_recording_holds(kest, model, tmp_path, lines, recorded):
    typed(kest, model, *lines, "q")
    assert (tmp_path / "file").read_text() == recorded


def test_the_prompt_says_that_a_recording_is_under_way(shell, model):
    term = shell(to=model)
    term.run("cd Device.Time", prompt="kest:Device.Time> ")
    term.run("record file", prompt="kest-record:Device.Time> ")
    term.run("pwd", prompt="kest-record:Device.Time> ")
    term.run("q", prompt="kest:Device.Time> ")
    term.run("record file", prompt="kest-record:Device.Time> ")
    term.run("record abort", prompt="kest:Device.Time> ")


def test_a_login_that_the_daemon_refuses_at_the_start_stays_in_the_prompt(terminal, fake, tmp_path):
    fake.serve(MODEL)
    fake.on("Login", [{}, Error(9001, "Request denied")])
    (tmp_path / "config").write_text("login admin -p secret\n")
    terminal("-c", "config", to=fake).wait_prompt("admin@kest:> ")


def test_a_reconnect_leads_back_to_the_root_and_repeats_the_request_once(shell, fake):
    fake.serve(MODEL)
    fake.on("Login", {})
    fake.on("SaveConfig", {"Status": 0})
    term = shell(to=fake)
    term.run("login admin -p secret", prompt="admin@kest:> ")
    term.run("cd Device", prompt="admin@kest:Device> ")
    term.run("cd Time", prompt="admin@kest:Device.Time> ")
    fake.requests.clear()
    for connection in fake.open_connections:
        if not connection.receiver:
            connection.close()
    rows = term.run("save", prompt="kest:> ")
    assert rows[-1] == "Status: OK"
    assert [(r.method, r.params) for r in fake.requests] == [
        ("GetParameterAttributes", {"ParameterNames": ["."], "Depth": 1}), ("SaveConfig", None)]
    assert term.run("pwd") == [":"]
    # The place before is still known by its path.
    assert term.run("cd -", prompt="kest:Device> ") == [":Device"]


def test_the_first_command_is_skipped_where_sigint_was_ignored(sandbox, model):
    env = sandbox.environment({"K": f"{settings.KEST} -u {model.address}"})
    run = Program(["sh", "-c", "trap '' INT; exec $K"], env, sandbox.work, "pwd\ncd Device\npwd\n", sandbox.wrap).finish()
    assert run.out.partition(LAST_GREETING)[2] == ":Device\n"
    assert run.status == 0
