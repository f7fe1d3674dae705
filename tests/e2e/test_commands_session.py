"""save, reset, reboot, login, logout, color, opt, clear, sh, record."""

import os
import re
import signal

import pytest

from lib import settings
from lib.commands import MODEL, asked, attributes, refuse_logins, typed, values
from lib.fake import Close, Error, Slow
from lib.program import Program
from lib.terminal import Key

UPTIME = values("Device.DeviceInfo.Uptime")
ROOT = attributes(".")


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


# save, reset

@pytest.mark.parametrize("word, method", [("save", "SaveConfig"), ("reset", "FactoryReset"), ("SaveConfig", "SaveConfig")])
def test_save_and_reset_show_the_verdict_and_never_fail(kest, fake, word, method):
    fake.on(method, {"Status": 0}, Error(9002, "flash is full"))
    run = kest("-r", word, "ignored", to=fake)
    assert (run.out, run.status) == ("Status: OK\n", 0)
    run = kest("-r", word, to=fake)
    assert (run.out, run.status) == ("[9002] Internal error: flash is full\n", 0)
    assert fake.params(method) == [None, None]


# reboot

def test_reboot_waits_until_the_device_is_down_and_back(kest, fake, tmp_path):
    up = {"ParameterList": [{"Name": "Device.DeviceInfo.Uptime", "Value": 5}]}
    fake.on("Reboot", {"Status": 0}).on("GetParameterValues", up, Error(9002, "going down"))
    fake.on("GetParameterAttributes", {"ParameterList": []})
    (tmp_path / "script").write_text("reboot -f ignored\n")
    run = kest("-s", "script", to=fake)
    assert (run.out, run.status) == ("Status: OK\n\n", 0)
    requests = [(request.method, request.params) for request in fake.requests if request.method != "JoinGroup"]
    assert requests[:3] == [("Reboot", {"Force": True}), UPTIME, UPTIME]
    assert requests[-1] == ROOT


@pytest.mark.parametrize("words, force", [((), False), (("-x",), False), (("-f",), True), (("x", "-f"), False)])
def test_a_refused_reboot_is_shown_and_not_waited_for(kest, fake, tmp_path, words, force):
    fake.on("Reboot", Error(9001, "not now"))
    (tmp_path / "script").write_text("reboot " + " ".join(words) + "\n")
    run = kest("-s", "script", to=fake)
    assert (run.out, run.status) == ("[9001] Request denied: not now\n", 0)
    assert fake.params("Reboot") == [{"Force": force}]
    assert fake.of("GetParameterValues") == []


def test_a_closed_link_ends_the_poll(kest, fake):
    fake.on("Reboot", {"Status": 0}).on("GetParameterValues", Close())
    fake.on("GetParameterAttributes", {"ParameterList": []})
    run = kest("-r", "Reboot", to=fake)
    assert (run.out, run.status) == ("Status: OK\n\n", 0)
    assert len(fake.of("GetParameterValues")) == 1


def test_ctrl_c_leaves_the_wait_for_a_reboot(shell, model):
    model.on("Reboot", {"Status": 0})
    model.on("GetParameterValues", {"ParameterList": [{"Name": "Device.DeviceInfo.Uptime", "Value": 5}]})
    term = shell(to=model)
    term.type("reboot\r")
    model.wait_for(lambda fake: len(fake.of("GetParameterValues")) >= 2)
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd") == [":"]


def test_ctrl_c_leaves_a_device_that_keeps_silent_on_its_way_down(shell, model):
    model.on("Reboot", {"Status": 0}).on("GetParameterValues", Slow(60, {}))
    term = shell(to=model)
    term.type("reboot\r")
    model.wait_for("GetParameterValues")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd") == [":"]
    assert len(model.of("GetParameterValues")) == 1 and "Reconnecting" not in term.text


# login, logout

def test_login_by_words(kest, model):
    model.on("Login", Error(9001, "no"), {}, Error(9001, "no"))
    out = typed(kest, model, "login anna -p 'pass word'", "login ben -p x", "logout", "logout now", "login a b",
                "login a -x c", "login a -p b c")
    syntax = "syntax: login [<login> [-p <password>]]\n"
    assert out == "Failed to authenticate user\nsyntax: logout\n" + 3 * syntax
    assert asked(model) == [
        ("Login", {"User": "anna", "Password": "pass word"}), ROOT,
        ("Login", {"User": "ben", "Password": "x"}), ("Logout", None), ROOT,
        ("Logout", None), ROOT]


def test_login_as_oneself(kest, fake):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    run = kest("-r", "login", to=fake, env={"USER": "carla"})
    assert (run.out, run.status) == ("", 0)
    assert fake.params("Login") == [{"User": "carla"}]


@pytest.mark.parametrize("user", [None, ""])
def test_login_without_a_user_to_be(kest, fake, user):
    run = kest("-r", "login", to=fake, env={"USER": user})
    assert (run.out, run.status) == ("login: USER is not set, give a user name.\n", 255)
    assert fake.methods() == ["JoinGroup"]


def test_a_refused_login_ends_a_script(kest, fake, tmp_path):
    fake.on("Login", Error(9001, "no")).on("GetParameterAttributes", {"ParameterList": []})
    (tmp_path / "script").write_text("login anna -p x\nsave\n")
    run = kest("-s", "script", to=fake)
    assert run.out == "Failed to authenticate user\n"
    assert run.status != 0
    assert fake.of("SaveConfig") == []


def test_a_password_is_read_from_a_pipe(kest, model):
    model.on("Login", Error(9001, "no"), {})
    out = typed(kest, model, "login anna", "s3cret word ", "pwd")
    assert out == "[kest] password for anna: \n:\n"
    assert model.params("Login")[-1] == {"User": "anna", "Password": "s3cret word "}


def test_a_password_of_ten_thousand_characters(kest, model):
    user, password = "u" * 10000, "p" * 10000
    model.on("Login", Error(9001, "no"), {})
    typed(kest, model, f"login {user}", password, "pwd")
    assert model.params("Login")[-1] == {"User": user, "Password": password}


def test_the_end_of_input_is_an_empty_password(kest, fake):
    fake.on("Login", Error(9001, "no")).on("GetParameterAttributes", {"ParameterList": []})
    run = kest("-r", "login", "anna", to=fake)
    assert run.out == "[kest] password for anna: \nFailed to authenticate user\n"
    assert run.status == 255
    assert fake.params("Login") == [{"User": "anna"}]


def wait_for_the_question(term):
    term.wait_for("[kest] password for anna:")
    assert not term.echoes  # whoever sees it may type


def test_a_password_is_not_echoed_on_a_terminal(shell, model):
    model.on("Login", Error(9001, "no"), {})
    term = shell(to=model)
    term.type("login anna\r")
    wait_for_the_question(term)
    term.type("s3cret\r")
    term.wait_prompt("anna@kest:> ")
    assert "s3cret" not in term.text
    assert model.params("Login")[-1] == {"User": "anna", "Password": "s3cret"}
    assert term.run("pwd") == [":"]


@pytest.mark.parametrize("keys", ["\x03", "half\x03", "\x04"])
def test_echo_is_back_however_the_question_ends(shell, model, keys):
    term = shell(to=model)
    term.type("login anna\r")
    wait_for_the_question(term)
    term.type(keys)
    term.wait_prompt()
    term.type("sh 'stty -a | grep -o \"[-]*echo \"'\r")
    term.wait_for("echo ")
    term.wait_prompt()
    assert "-echo " not in "\n".join(term.lines[-3:])


def test_a_password_may_be_typed_ahead(shell, model):
    term = shell(to=model)
    term.type("login anna\rs3cret\rpwd\r")
    term.wait_for(re.compile("^:$", re.M))
    assert {"User": "anna", "Password": "s3cret"} in model.params("Login")
    assert "s3cret" not in term.text.split("password for anna")[1]


def test_ctrl_d_at_the_password_asks_nothing(shell, fake):
    fake.serve({"Device.": {}, "Device.Name": "box"})
    term = shell(to=fake)
    before = len(fake.of("Login"))
    term.type("login anna\r")
    wait_for_the_question(term)
    term.type("\x04")
    assert term.run("pwd") == [":"]
    assert len(fake.of("Login")) == before and not fake.of("Logout")


def test_who_comes_back_from_a_stop_is_asked_again(terminal, model):
    model.on("Login", Error(9001, "no"), {})
    # A shell that manages jobs, and brings this one back as soon as it was stopped.
    job = f'set -m; "{settings.KEST}" -u "{model.address}"; echo stopped; fg >/dev/null; echo status $?'
    term = terminal("-c", job, program="/bin/sh")
    term.wait_prompt().type("login anna\r")
    wait_for_the_question(term)
    term.type("half" + Key.CTRL_Z)
    term.wait_for(re.compile(r"stopped\n\[kest\] password for anna:$"))
    assert not term.echoes
    term.type("whole\r")
    term.wait_prompt("anna@kest:> ").type("q\r")
    term.wait_for("status 0")
    assert model.params("Login")[-1] == {"User": "anna", "Password": "whole"}


BACKGROUND = ('set -m; stty -icanon -echo -icrnl; "{kest}" -u "{address}" {words} & '
              "until grep -q '^State:.T' /proc/$!/status; do sleep 0.05; done; stty icanon echo icrnl; fg >/dev/null; echo status $?")


def in_background(terminal, to, words=""):
    """Starts it in the background of a shell whose own line editor has the terminal, and brings it to the front then."""
    job = BACKGROUND.format(kest=settings.KEST, address=to.address, words=words)
    return terminal("-c", job, program="/bin/sh")


def test_a_shell_that_comes_from_the_background_has_the_terminal_as_it_is_then(terminal, model):
    model.on("Login", Error(9001, "no"), {})
    term = in_background(terminal, model).wait_prompt()
    assert term.run('sh "stty -a | grep -oe -icanon; echo end"') == ["end"]
    term.type("login anna\r")
    wait_for_the_question(term)
    term.type("s3cret\r")
    term.wait_prompt("anna@kest:> ")
    term.type("q\r")
    term.wait_for("status 0")
    assert term.echoes


def test_a_password_that_is_asked_for_from_the_background_is_read_in_front(terminal, model):
    model.on("Login", {})
    term = in_background(terminal, model, "-r login anna")
    wait_for_the_question(term)
    term.type("s3cret\r")
    term.wait_for("status 0")
    assert model.params("Login") == [{"User": "anna", "Password": "s3cret"}]
    assert term.echoes


def test_ctrl_c_at_the_password_of_a_request_restores_echo(terminal, fake):
    term = terminal("-r", "login", "anna", to=fake)
    wait_for_the_question(term)
    term.type("\x03")
    assert term.wait_exit() == -signal.SIGINT
    assert fake.of("Login") == []


def test_a_login_opens_what_was_closed(kest, veld):
    out = typed(kest, veld, "logout", "cat Device.Users.User.1.Username", "login root -p wrong", "pwd")
    assert "Failed to authenticate user\n" in out


# color, opt, clear

SYNTAX = "syntax: color <prompt|autocomplete|hint> [<hue>|* <saturation>|* <value>|*]\n"


@pytest.mark.parametrize("line, out", [
    ("color", SYNTAX), ("color red", SYNTAX), ("color hint x", SYNTAX), ("color hint 1 -2", SYNTAX),
    ("color hint 1 2 4294967296", SYNTAX), ("color hint 1 2 ''", "1 2 55\n"),
    ("color prompt", "220 78 100\n"), ("color autocomplete", "50 100 55\n"), ("color hint", "120 100 55\n"),
    ("color prompt * * 80", "220 78 80\n"), ("color prompt 400", "400 78 100\n"),
    ("color hint 65537 257 1000", "1 1 232\n"), ("color hint 1 2 3 4", "1 2 3\n"),
])
def test_colors(kest, model, line, out):
    assert typed(kest, model, line) == out


def test_colors_are_kept_and_a_bad_one_changes_nothing(kest, model):
    assert typed(kest, model, "color hint 1 2 3", "color hint 9 9 x", "color hint", "color prompt") == (
        "1 2 3\n" + SYNTAX + "1 2 3\n220 78 100\n")


@pytest.mark.parametrize("words", ["", "hint", "hint on off", "hint yes", "hints on", "autocomplete ON", "on hint"])
def test_opt_wants_to_be_told_precisely(kest, model, words):
    assert typed(kest, model, f"opt {words}", "pwd") == "syntax: opt autocomplete|hint on|off:\n"


def test_opt_switches_silently(kest, model):
    assert typed(kest, model, "opt hint off", "opt autocomplete off", "opt hint on", "opt autocomplete on") == ""


def test_clear_writes_its_sequence(kest, model):
    assert typed(kest, model, "clear") == "\x1b[2J\x1b[H"


# sh

def test_sh_runs_its_words_in_order_with_the_output_around_it(kest, model):
    assert typed(kest, model, "pwd", "sh echo a   b '; echo c'", "sh 'exit 3'", "pwd", "sh nothing-like-it 2>&1 | wc -l") == (
        ":\na b\nc\n:\n1\n")


def test_sh_as_a_request_succeeds_whatever_the_command_says(kest, fake):
    run = kest("-r", "sh", "echo out; echo err >&2; exit 7", to=fake)
    assert (run.out, run.err, run.status) == ("out\n", "err\n", 0)


def test_sh_without_words_is_a_shell(kest, fake):
    run = kest("-r", "sh", to=fake, stdin="echo from the inner shell\n")
    assert run.out == "from the inner shell\n"


def test_children_start_with_the_signals_and_descriptors_that_the_program_was_given(kest, fake, sandbox):
    def look(out):
        lines = out.split()
        # Signals 1 to 31; the C library keeps the two above them for itself.
        return int(lines[1], 16), int(lines[3], 16) & 0x7FFFFFFF, lines[4:]

    command = "grep -E 'SigBlk|SigIgn' /proc/self/status; ls /proc/self/fd"
    plain = Program(["sh", "-c", command], sandbox.environment(), sandbox.work).finish()
    assert look(kest("-r", "sh", command, to=fake).out) == look(plain.out)


def test_a_command_too_long_for_the_system_is_said_so(kest, model):
    out = typed(kest, model, "sh " + "x" * 3_000_000, "pwd")
    assert out == "sh: cannot start the shell: Argument list too long.\n:\n"


def test_ctrl_c_is_the_childs(shell, model):
    term = shell(to=model)
    term.type("sh 'echo begun; exec sleep 60'\r")
    term.wait_for(lambda term: "begun" in term.lines)
    term.type("\x03")
    term.wait_prompt()
    term.type("sh 'trap \"echo caught\" INT; echo ready; sleep 0.3; sleep 0.3; echo done'\r")
    term.wait_for(lambda term: "ready" in term.lines)
    term.type("\x03")
    term.wait_for(lambda term: "done" in term.lines)
    term.wait_prompt()
    assert any("caught" in line for line in term.lines[term.lines.index("ready") + 1 :])


# record

def test_a_recording_is_written_when_the_shell_is_left(kest, model, tmp_path):
    assert typed(kest, model, "record script", "cd Device.Time", "pwd", "q", "pwd", "q") == ":Device.Time\n:Device.Time\n"
    assert (tmp_path / "script").read_text() == "cd Device.Time\npwd\n"


def test_a_recording_is_given_up(kest, model, tmp_path):
    assert typed(kest, model, "record abort", "record script", "record other", "pwd", "record abort", "record", "record a b",
                 "q") == (
        "record: no record found.\nrecord: already recording.\n:\n" + 2 * "syntax: record <filename>|abort\n")
    assert (tmp_path / "script").read_text() == ""
    assert not (tmp_path / "other").exists()


def test_places_that_cannot_be_recorded_into(kest, model, tmp_path):
    os.mkfifo(tmp_path / "fifo")
    (tmp_path / "folder").mkdir()
    (tmp_path / "kept").write_text("kept\n")
    long = "n" * 256
    for name in ("fifo", "folder", "none/file", "/dev/null", "kept/x", long):
        assert typed(kest, model, f"record {name}", "record abort") == (
            f"record: can't create record file {name}.\nrecord: no record found.\n"), name


def test_recording_shows_in_the_prompt(shell, model):
    term = shell(to=model)
    term.run("record script", prompt="kest-record:> ")
    term.run("record abort", prompt="kest:> ")


# Against the real daemon

def test_a_reboot_ends_the_shell_and_loses_what_was_not_saved(veld_start, shell, kest, tmp_path):
    veld = veld_start("--reboot-time", "1", "--state", tmp_path / "state")
    assert typed(kest, veld, "set Device.Time.NTPServer1=kept", "save", "set Device.Time.NTPServer1=lost") == (
        "key = Device.Time.NTPServer1, value = kept\nStatus: OK\nStatus: OK\n"
        "key = Device.Time.NTPServer1, value = lost\nStatus: OK\n")
    term = shell(to=veld)
    term.type("reboot -f\r")
    term.wait_for("Rebooting...")
    assert term.wait_exit() == 0
    assert veld.value("Device.Time.NTPServer1") == "kept"


def test_a_reset_goes_back_to_the_factory_state(veld_start, kest, tmp_path):
    veld = veld_start("--reboot-time", "0", "--state", tmp_path / "state")
    factory = veld.value("Device.Time.NTPServer1")
    typed(kest, veld, "set Device.Time.NTPServer1=mine", "save")
    assert kest("-r", "reset", to=veld).out.startswith("[9001] Request denied: ")
    run = kest(to=veld, stdin="reset\n")
    assert "Status: OK\n" in run.out
    veld.wait_until_up()
    assert veld.value("Device.Time.NTPServer1") == factory
