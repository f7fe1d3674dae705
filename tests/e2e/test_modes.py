"""The one-shot modes, start-up and the configuration file, seen from both ends of the link."""

import errno
import json
import os
import signal
from pathlib import Path

import pytest

from lib import settings
from lib.fake import Close, Error, Silence, Slow
from lib.program import Program, quickest
from test_veld_trouble import LIBRARY, SANITIZED

MODEL = {"Device.": {}, "Device.Name": "box"}


def on_shell(sandbox, command, fake):
    """Runs a shell command line in which $K is the client talking to `fake`."""
    env = sandbox.environment({"K": f"{settings.KEST} -u {fake.address}"})
    return Program(["sh", "-c", command], env, sandbox.work).finish()


# Start-up

def test_links_are_opened_and_groups_joined_in_order(kest, fake):
    fake.on("Ping", {})
    kest("-g", "7,12", "-g", "3", "--raw", '{"id":5,"method":"Ping"}', to=fake)
    seen = [(request.connection.number, request.method, request.params) for request in fake.requests]
    session = seen[0][2]["Session"]
    assert len(session) == 32 and set(session) <= set("0123456789abcdef")
    assert seen == [
        (1, "JoinGroup", {"Group": 4, "Session": session, "Receiver": True}),
        (0, "JoinGroup", {"Group": 7, "Session": session}),
        (0, "JoinGroup", {"Group": 12, "Session": session}),
        (0, "JoinGroup", {"Group": 3, "Session": session}),
        (0, "Ping", None),
    ]


def test_refused_groups_are_no_error(kest, fake):
    fake.on("JoinGroup", Error(9001, "Request denied")).on("Ping", {})
    run = kest("-g", "7", "--raw", '{"id":5,"method":"Ping"}', to=fake)
    assert (run.err, run.status) == ("", 0)


def test_a_silent_daemon_holds_each_join_for_a_second_at_most(kest, fake):
    fake.on("JoinGroup", Silence()).on("Ping", {})
    assert kest("--raw", '{"id":5,"method":"Ping"}', to=fake, timeout=5).status == 0


# Raw messages

@pytest.mark.parametrize("text", ["", "{", "nonsense", "{} {}", b'"\xff"', "[1,]"])
def test_raw_text_that_is_no_json(kest, fake, text):
    run = kest("--raw", text, to=fake)
    assert (run.out, run.status) == ("Invalid raw JSON message.\n", 255)


@pytest.mark.parametrize("text", ["5", '"text"', "null", "[]", "{}", '{"params":{}}', '{"method":5}'])
def test_raw_json_that_is_no_message(kest, fake, text):
    run = kest("--raw", text, to=fake)
    assert (run.out, run.status) == ("Incorrect message.\n", 255)


def test_a_raw_request_shows_the_answer(kest, fake):
    fake.on("Ping", {"a": [1, {"b": "é"}], "c": {}})
    run = kest("--raw", '{"jsonrpc":"2.0","id":41,"method":"Ping","params":{"x":[true]}}', "dropped", to=fake)
    assert run.out == "<< " + json.dumps(
        {"jsonrpc": "2.0", "id": 41, "result": {"a": [1, {"b": "é"}], "c": {}}}, indent=4, ensure_ascii=False) + "\n"
    assert run.status == 0
    assert [(r.id, r.params) for r in fake.of("Ping")] == [(41, {"x": [True]})]


def test_a_raw_request_keeps_an_id_that_is_a_text(kest, fake):
    fake.on("Ping", {})
    assert '"id": "seven"' in kest("--raw", '{"id":"seven","method":"Ping"}', to=fake).out
    assert fake.of("Ping")[0].id == "seven"


@pytest.mark.parametrize("code, status", [(9005, 9005 & 255), (-32601, -32601 & 255), (9001, 9001 & 255)])
def test_the_status_of_a_raw_request_is_the_code_of_its_answer(kest, fake, code, status):
    fake.on("Ping", Error(code, "no", {"Device.X": "gone"}))
    run = kest("--raw", '{"id":1,"method":"Ping"}', to=fake)
    answer = json.loads(run.out.removeprefix("<< "))
    assert answer["error"] == {"code": code, "message": "no", "data": {"Device.X": "gone"}}
    assert run.status == status


def test_a_raw_request_without_an_answer_ends_after_five_seconds(kest, fake):
    fake.on("Ping", Silence())
    run = kest("--raw", '{"id":1,"method":"Ping"}', to=fake, timeout=9)
    assert json.loads(run.out.removeprefix("<< "))["error"] == {
        "code": -32001, "message": "no answer from the daemon in time"}
    assert run.status == 255


@pytest.mark.parametrize("message", [
    {"jsonrpc": "2.0", "method": "Anything", "params": {"a": "\u0000"}},
    {"jsonrpc": "2.0", "method": "Event", "params": {"Id": 12, "Value": None}},
    {"jsonrpc": "2.0", "id": 3, "result": {"x": 1}},
])
def test_other_raw_messages_are_sent_and_nothing_is_awaited(kest, fake, message):
    run = kest("--raw", json.dumps(message), to=fake)
    assert (run.out, run.err, run.status) == ("", "", 0)
    sent = fake.wait_for(lambda fake: [r for r in list(fake.requests) if r.method != "JoinGroup"])
    assert [r.message for r in sent] == [message]
    assert sent[0].connection.number == 0


# Events, notifications, requests

@pytest.mark.parametrize("words, params", [
    (["-e", "12"], {"Id": 12}),
    (["-e", "12", '{"a":[1]}', "ignored"], {"Id": 12, "Value": {"a": [1]}}),
    (["-e", "12", "7"], {"Id": 12, "Value": 7}),
    (["-e", "12", "null"], {"Id": 12, "Value": None}),
    (["-e", "12", '"x\\u0000y"'], {"Id": 12, "Value": "x\0y"}),
    (["-e", "12", "no json"], {"Id": 12}),
    (["--event=4294967295"], {"Id": 4294967295}),
])
def test_an_event_goes_out_on_the_group_link(kest, fake, words, params):
    run = kest(*words, to=fake)
    assert (run.out, run.err, run.status) == ("", "", 0)
    request = fake.wait_for("Event")[0]
    assert (request.message, request.connection.number) == ({"jsonrpc": "2.0", "method": "Event", "params": params}, 1)


def test_an_event_without_a_number(kest, fake):
    run = kest("-e", "abc", to=fake)
    assert (run.out, run.err, run.status) == ("", "Group id must be an integer.\n", 0)
    assert fake.wait_for("Event")[0].params == {"Id": 0}


def test_an_event_without_a_daemon_fails(kest, sandbox):
    assert kest("-e", "12", to=sandbox.root / "nobody").status == 255


def test_notify_is_not_supported(kest, fake):
    run = kest("-n", "Anything", "a", to=fake)
    assert (run.out, run.err, run.status) == ("Unsupported :(\n", "", 0)


@pytest.mark.parametrize("word", ["cd", "nonsense", "?", "help", "pwd", "", "get "])
def test_an_unknown_request(kest, fake, word):
    run = kest("-r", word, to=fake)
    assert (run.out, run.status) == (f"{word}: unknown method.\n", 255)


def test_a_one_shot_does_not_wait_for_the_listener(kest, fake):
    assert quickest(0.5, lambda: kest("-n", "x", to=fake))


# Listening

def test_listening_prints_events_until_interrupted(kest_start, fake):
    run = kest_start("-l", "-g", "12", to=fake)
    fake.event(12)
    run.wait_for("EVENT 12:\n")
    fake.event(13, {"a": [1]})
    run.wait_for("EVENT 13:\n{\n    \"a\": [\n        1\n    ]\n}\n")
    run.interrupt()
    assert run.finish(3).status == 0
    assert run.out == "\nEVENT 12:\n\nEVENT 13:\n{\n    \"a\": [\n        1\n    ]\n}\n"


def test_a_run_loads_no_library_that_it_may_not_need(kest_start, fake):
    run = kest_start("-l", "-g", "12", to=fake)
    fake.event(12)
    run.wait_for("EVENT 12:\n")
    mapped = Path(f"/proc/{run.pid}/maps").read_text()
    if "san.so" in mapped:
        pytest.skip("sanitizers bring libraries of their own")
    libraries = {Path(line.split()[-1]).name for line in mapped.splitlines() if ".so" in line}
    loaded = {name.split(".so")[0].split("-")[0] for name in libraries}
    if "KEST_STATIC:BOOL=OFF" in (settings.BUILD / "CMakeCache.txt").read_text():
        assert not loaded & {"libssl", "libcrypto", "libresolv", "libnss_files"}
    else:
        assert loaded == {"libc", "ld"}
    run.interrupt()
    run.finish(3)


def test_listening_ends_with_the_link(kest_start, fake):
    run = kest_start("-l", to=fake)
    fake.wait_for(lambda fake: fake.receivers())
    fake.drop_all()
    assert run.finish(3).status == 0
    assert run.out == "Connection dropped\n"


# The configuration file

def test_the_configuration_runs_before_the_mode_with_its_output_hidden(kest, fake, tmp_path):
    fake.on("Login", {}).on("Ping", {}).serve(MODEL)
    (tmp_path / "config").write_text("echo hidden\nlogin admin -p secret\nnonsense\nlogin other -p x\n")
    run = kest("-c", "config", "--raw", '{"id":1,"method":"Ping"}', to=fake)
    assert run.out.startswith("<< ")
    assert run.status == 0
    assert fake.params("Login") == [{"User": "admin", "Password": "secret"}]  # the failing line ends it
    methods = fake.methods()
    assert methods.index("Login") < methods.index("Ping")


def test_the_default_configuration_is_below_home(kest, fake, home):
    (home / ".local" / "kest").mkdir(parents=True)
    (home / ".local" / "kest" / "config").write_text("login admin -p secret")
    fake.serve(MODEL)
    kest("-n", "x", to=fake)
    assert fake.params("Login") == [{"User": "admin", "Password": "secret"}]
    kest("-n", "x", "-c", "/dev/null", to=fake)
    kest("-n", "x", "-c", ".", to=fake)
    kest("-n", "x", "-c", "missing", to=fake)
    assert len(fake.params("Login")) == 1


def test_a_configuration_that_is_no_regular_file_is_passed_over(kest, fake, tmp_path):
    os.mkfifo(tmp_path / "fifo")
    (tmp_path / "dir").mkdir()
    for path in ("fifo", "dir", "missing", "", "/dev/null"):
        run = kest("-c", path, "-n", "x", to=fake)
        assert (run.out, run.status) == ("Unsupported :(\n", 0)


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can give files away")
def test_a_configuration_of_another_user_is_refused_aloud(kest, fake, home):
    path = home / ".local" / "kest" / "config"
    path.parent.mkdir(parents=True)
    path.write_text("login admin -p secret")
    os.chown(path, 12345, 12345)
    run = kest("-n", "x", to=fake)
    assert run.err == f"{path}: not run: it belongs to another user\n"
    assert not fake.of("Login")
    kest("-n", "x", "-c", path, to=fake)
    assert fake.of("Login")


def test_a_configuration_that_everybody_may_write_is_refused_aloud(kest, fake, home):
    path = home / ".local" / "kest" / "config"
    path.parent.mkdir(parents=True)
    path.write_text("login admin -p secret")
    path.chmod(0o666)
    run = kest("-n", "x", to=fake)
    assert run.err == f"{path}: not run: everybody may write it\n"
    assert not fake.of("Login")
    path.chmod(0o664)
    assert kest("-n", "x", to=fake).err == ""
    assert fake.of("Login")


@pytest.mark.lua
@pytest.mark.parametrize("mode, said", [("-s", "/dev/zero: line 1 is too long.\n"), ("-S", "Cannot open script file /dev/zero\n")])
def test_a_script_has_an_end(kest, fake, mode, said):
    run = kest(mode, "/dev/zero", to=fake)
    assert said in run.err + run.out
    assert run.status != 0


def test_a_configuration_of_bytes_stops_nothing(kest, fake, tmp_path):
    (tmp_path / "binary").write_bytes(b"\x7fELF\0\0\1\2\n" * 100)
    (tmp_path / "latin").write_bytes(b"echo\nlogin M\xfcller\n")
    for path in ("binary", "latin"):
        run = kest("-c", path, "-n", "x", to=fake)
        assert (run.out, run.status) == ("Unsupported :(\n", 0)
        assert run.err.startswith(path) and run.err.endswith("is not text.\n")


@pytest.mark.skipif(SANITIZED or not LIBRARY.exists(), reason="needs the library of trouble")
@pytest.mark.parametrize(
    "number, expected",
    [
        (1, (0, "Unsupported :(\n", "config: not run: Too many open files\n")),
        (2, (1, "", "kest: the output cannot be written: Too many open files\n")),
    ],
)
def test_an_output_that_cannot_be_redirected_is_told(kest, fake, tmp_path, number, expected):
    (tmp_path / "config").write_text("echo hidden\n")
    env = {"LD_PRELOAD": str(LIBRARY), "TROUBLE_DUP2": f"{number}:{errno.EMFILE}"}
    run = kest("-c", "config", "-n", "x", to=fake, env=env)
    assert (run.status, run.out, run.err) == expected


def test_a_configuration_without_line_feeds(kest, fake, tmp_path):
    (tmp_path / "long").write_text("x" * 10_000_000)
    run = kest("-c", "long", "-n", "x", to=fake)
    assert (run.out, run.err, run.status) == ("Unsupported :(\n", "", 0)


# Bad standard descriptors

def test_a_closed_standard_output_does_no_harm(sandbox, fake):
    fake.on("Ping", {})
    run = on_shell(sandbox, """$K --raw '{"id":1,"method":"Ping"}' >&-; echo $? >&2""", fake)
    assert run.err == "0\n"
    assert fake.methods() == ["JoinGroup", "Ping"]
    assert all(connection.garbage == [] for connection in fake.connections)


def test_a_full_disk_is_a_failure(sandbox, fake):
    run = on_shell(sandbox, "$K -n x >/dev/full; echo $? >&2", fake)
    assert run.err == "kest: the output cannot be written: No space left on device\n1\n"


def test_interrupting_a_one_shot_ends_it(kest_start, fake):
    fake.on("Ping", Silence())
    run = kest_start("--raw", '{"id":1,"method":"Ping"}', to=fake)
    fake.wait_for("Ping")
    run.interrupt()
    assert run.finish(2).status == -signal.SIGINT


def test_a_raw_request_reconnects_once(kest, fake):
    fake.on("Ping", [Close(), {"n": 2}]).serve(MODEL)
    run = kest("--raw", '{"id":1,"method":"Ping"}', to=fake)
    assert run.status == 0
    assert run.out.startswith("\n<< {\n")
    assert len(fake.of("Ping")) == 2
