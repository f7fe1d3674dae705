"""Recordings: that they are written when a session ends by itself, and that what they hold does what the session did."""

import os
import signal
import subprocess

import pytest

from lib import settings
from lib.commands import MODEL, refuse_logins


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


# record


def test_a_reboot_writes_what_was_recorded(shell, veld_start, tmp_path):
    device = veld_start("--reboot-time", "0", "--state", tmp_path / "state")
    term = shell(to=device)
    term.run("record file")
    term.run("set Device.Time.NTPServer1=mine")
    term.type("reboot -f\r")
    assert term.wait_exit() == 0
    assert (tmp_path / "file").read_text() == "set Device.Time.NTPServer1=mine\nreboot -f\n"


def test_a_reboot_at_the_end_of_the_input_writes_what_was_recorded(kest, veld_start, tmp_path):
    device = veld_start("--reboot-time", "0", "--state", tmp_path / "state")
    kest(to=device, stdin="record file\nset Device.Time.NTPServer1=mine\nreboot -f\n")
    assert (tmp_path / "file").read_text() == "set Device.Time.NTPServer1=mine\nreboot -f\n"


@pytest.mark.skipif(os.geteuid() != 0, reason="needs to become somebody else")
def test_nothing_is_recorded_into_a_file_of_another_user(sandbox, model, tmp_path):
    sandbox.root.chmod(0o755)
    tmp_path.chmod(0o777)
    os.chmod(model.address, 0o777)
    theirs = tmp_path / "theirs"
    theirs.write_text("old")
    theirs.chmod(0o666)
    words = sandbox.wrap(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", settings.KEST, "-u", model.address])
    run = subprocess.run(words, env=sandbox.environment(), cwd=tmp_path, input="record theirs\npwd\nq\n", capture_output=True, text=True,
                         timeout=settings.DEADLINE)  # fmt: skip
    assert "record: can't create record file theirs.\n:\n" in run.stdout
    assert theirs.read_text() == "old"


@pytest.mark.parametrize("name", ["/dev/null", "queue"])
def test_nothing_is_recorded_into_what_is_no_file(kest, fake, tmp_path, name):
    os.mkfifo(tmp_path / "queue")
    run = kest(to=fake, stdin=f"record {name}\npwd\nq\n")
    assert f"record: can't create record file {name}.\n:\n" in run.out


def test_a_lost_link_writes_what_was_recorded(shell, model, tmp_path):
    term = shell(to=model)
    term.run("record file")
    term.run("cd Device.Time")
    model.drop_all()
    assert term.wait_exit() == 0
    assert (tmp_path / "file").read_text() == "cd Device.Time\n"


@pytest.fixture
def typing(kest_start, model, tmp_path):
    """A shell into which lines were typed, the last of which said `seen`, and whose input goes on."""
    reader, writer = os.pipe()

    def start(*lines, seen):
        run = kest_start(to=model, stdin=reader)
        os.write(writer, "".join(line + "\n" for line in lines).encode())
        run.wait_for(seen)
        return run

    yield start
    os.close(writer)
    os.close(reader)


@pytest.mark.lua
def test_a_lost_link_writes_a_lua_recording(typing, model, tmp_path):
    run = typing("luarecord file", "x = 1", "x", seen="_[1] = 1\n")
    model.drop_all()
    run.finish()
    assert (tmp_path / "file").read_text() == "x = 1\ndm.show(x)\n"


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTERM], ids=["SIGHUP", "SIGTERM"])
def test_a_signal_that_ends_the_session_writes_what_was_recorded(typing, tmp_path, number):
    run = typing("record file", "cd Device", "pwd", seen=":Device\n")
    run.signal(number)
    assert run.finish().status == -number
    assert (tmp_path / "file").read_text() == "cd Device\npwd\n"


def test_a_recording_that_cannot_be_written_says_so(kest_start, model, tmp_path):
    reader, writer = os.pipe()
    run = kest_start(to=model, stdin=reader)
    (tmp_path / "folder").mkdir()
    os.write(writer, b"record folder/file\npwd\n")
    run.wait_for("\n:\n")
    (tmp_path / "folder" / "file").unlink()
    (tmp_path / "folder").rmdir()
    model.drop_all()
    run.finish()
    os.close(writer)
    os.close(reader)
    assert run.err == "folder/file: No such file or directory\n"


@pytest.mark.parametrize("line, value", [
    ('set Device.Time.Zone="a b"', "a b"), ("set 'Device.Time.Zone=a \"b\" # c' # zone", 'a "b" # c'),
    ("set Device.Time.Zone=a\\\\b", "a\\b"), ('set "Device.Time.Zone= !x"', " !x"),
])
def test_a_recorded_line_means_the_same_when_a_shell_reads_the_file(kest, model, tmp_path, line, value):
    model.on("SetParameterValues", {"Status": 0})
    kest(to=model, stdin=f"record file\n{line}\nq\n")
    assert (tmp_path / "file").read_text() == line + "\n"
    kest(to=model, stdin=(tmp_path / "file").read_text())
    first, second = model.params("SetParameterValues")
    assert first == second == {"ParameterList": [{"Name": "Device.Time.Zone", "Value": value}]}


# luarecord


@pytest.mark.lua
@pytest.mark.parametrize("lines, recorded, printed", [
    (["x = 1", "x", "x + 1, 'a'"], "x = 1\ndm.show(x)\ndm.show(x + 1, 'a')\n", '1\n2\n"a"\n'),
    (["x = 2; -- two", "x -- what is it", "x ;"], "x = 2; -- two\ndm.show(x -- what is it\n)\ndm.show(x)\n", "2\n2\n"),
    (["print(1)", "= 1", "error('no')", "nothing.here", "print(2)"], "print(1)\nprint(2)\n", "1\n2\n"),
    (["x = 1", "return x", "x = x + 1 return x", "x"],
     "x = 1\ndm.show((function()\nreturn x\nend)())\ndm.show((function()\nx = x + 1 return x\nend)())\ndm.show(x)\n", "1\n2\n2\n"),
    (["f = print", "(f or print)('two')"], "f = print\n;(f or print)('two')\n", "two\n"),
    (["for i = 1, 2 do", "print(i)", "end", "({ 1,", "2 })"], "for i = 1, 2 do\nprint(i)\nend\ndm.show(({ 1,\n2 }))\n", "1\n2\n{ 1, 2,  }\n"),
    ([" hidden = 1", "dm.get('Device.Time.Zone')"], "dm.get('Device.Time.Zone')\n", ""),
])
def test_a_lua_recording_is_a_script(kest, model, tmp_path, lines, recorded, printed):
    kest(to=model, stdin="\n".join(["luarecord file", *lines, "q", "q", ""]))
    assert (tmp_path / "file").read_text() == recorded
    run = kest("-S", "file", to=model)
    assert (run.out, run.err, run.status) == (printed, "", 0)


@pytest.mark.lua
@pytest.mark.parametrize("lines, printed", [
    (["-- nothing", "1", "_[1] + 1", "-- nothing"], "1\n2\n"),
    (["y = 'all'", "local y = 'one'", "y", "local function y() end", "y"], '"all"\n"all"\n'),
    (["goto on; error('no') ::on::", "goto on; error('no') ::on::", "print(1)"], "1\n"),
    (["x = 1", "if x then", "return 'early'", "end", "if not x then return end", "x"], '"early"\n1\n'),
    (["f = function() return 1 end", "function f(...)", "return ...", "end", "f(2)", "x = f(2); -- two", "x; -- two"], "2\n"),
    (["return", "return -- nothing", "print(...)", "(...)", "x = select('#', ...)", "x"], "\nnil\n0\n"),
    (["for i = 1, 2 do local j = i if j > 1 then break end end", "print('last...')"], "last...\n"),
    (["_, n = ('abc'):gsub('a', '')", "n + 1", "_[1]", "print(_[1] + n, _[3])"], "2\n2\n3\tnil\n"),
    (["results = 1", "_[1]", "for _, v in pairs({'v'}) do print(v) end", "function f_() return results end",
      "f_()", "print(_[2])"], "nil\nv\n1\n"),
])
def test_a_lua_recording_does_what_the_session_did(kest, model, tmp_path, lines, printed):
    shown = kest(to=model, stdin="\n".join(["luarecord file", *lines, "q", "q", ""]))
    assert shown.err == ""
    run = kest("-S", "file", "--", "an", "argument", to=model)
    assert (run.out, run.err, run.status) == (printed, "", 0)


@pytest.mark.lua
def test_a_lua_recording_keeps_results_that_are_used(kest, model, tmp_path):
    lines = ["40", "x = 1", "tostring(true), nil", "error('no')", " 'unseen'", "print(_[1] + 2, _[2], _[3], _[5])", "_[1] + x"]
    shown = kest(to=model, stdin="\n".join(["luarecord file", *lines, "q", "q", ""]))
    assert "\n42\ttrue\tnil\tnil\n_[5] = 41\n" in shown.out
    run = kest("-S", "file", to=model)
    assert (run.out, run.err, run.status) == ('40\n"true"\nnil\n42\ttrue\tnil\tnil\n41\n', "", 0)


# A blank in a value, where quotes are no quotes


@pytest.mark.lua
@pytest.mark.parametrize("words, config", [
    (("-s", "file"), None), (("-c", "file", "-n", "x"), None), (("-c", "config", "-s", "file"), "login admin -p admin\n"),
])
def test_a_value_with_a_blank_is_written_in_lua(kest, model, tmp_path, words, config):
    model.on("Login", {}).on("SetParameterValues", {"Status": 0})
    (tmp_path / "config").write_text(config or "")
    (tmp_path / "file").write_text("lua dm.set(\"Device.Time.Zone\", \"a name\")\n")
    kest(*words, to=model)
    assert model.params("SetParameterValues") == [{"ParameterList": [{"Name": "Device.Time.Zone", "Value": "a name"}]}]


def test_a_value_with_a_blank_is_a_json_text_in_a_script(kest, model, tmp_path):
    model.on("SetParameterValues", {"Status": 0})
    (tmp_path / "file").write_text('set Device.Time.Zone="a\\u0020name"\n')
    kest("-s", "file", to=model)
    assert model.params("SetParameterValues") == [{"ParameterList": [{"Name": "Device.Time.Zone", "Value": "a name"}]}]
