"""Waiting and ending: why nothing happens is said, groups outlive a lost link, and nothing ends without a word."""

import json
import os
import pwd
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from lib import settings
from lib.fake import Close, Error, Raw, Several, Silence, Slow
from lib.terminal import Key

MODEL = {"Device.": {}, "Device.A": 1}


@pytest.fixture
def listener(kest_start, fake):
    """A client in listen mode on group 12 whose Ctrl-C is the one of that mode."""
    run = kest_start("-l", "-g", "12", to=fake)
    fake.wait_for(lambda fake: len(fake.of("JoinGroup")) == 2)
    run.wait_for(lambda run: run.catches(signal.SIGINT))
    return run


def request_link(fake):
    link, = [connection for connection in fake.open_connections if not connection.receiver]
    return link


def joins(fake):
    """The groups that were joined on request links, with the number of the connection."""
    return [(request.connection.number, request.params["Group"]) for request in fake.of("JoinGroup")
            if not request.connection.receiver]


def test_a_listener_to_whom_nothing_happens_asks_for_nothing(listener, fake):
    threading.Event().wait(0.5)  # longer than it waits before it takes a link for lost
    assert len(fake.requests) == 2


# Why nothing happens


@pytest.fixture(params=["missing", "not a socket", "refused", "folder"])
def in_vain(request, tmp_path):
    """An address without a daemon, and the system's words for it."""
    path = tmp_path / "socket"
    if request.param == "not a socket":
        path.write_text("")
    elif request.param == "folder":
        path.mkdir()
    elif request.param == "refused":
        with socket.socket(socket.AF_UNIX) as left:
            left.bind(str(path))
    return path, "No such file or directory" if request.param == "missing" else "Connection refused"


def test_a_request_that_waits_says_why(kest_start, in_vain):
    path, words = in_vain
    run = kest_start("-r", "get", "Device.A", to=path)
    run.wait_for("\n", stream="err")
    run.interrupt()
    run.finish()
    assert (run.err, run.status) == (f"kest: {path}: {words}\n", -signal.SIGINT)
    assert run.out in ("", "Connection dropped\n")  # of the link that brings events


@pytest.mark.parametrize("words", [("-e", "12", "1"), ("--raw", '{"method":"Notice"}')], ids=["event", "notification"])
def test_a_message_that_does_not_go_out_says_why(kest, in_vain, words):
    path, reason = in_vain
    run = kest(*words, to=path)
    assert (run.err, run.status) == (f"kest: {path}: {reason}\n", 255)
    assert run.out in ("", "Connection dropped\n")


def test_listening_to_nobody_says_why(kest, in_vain):
    path, words = in_vain
    run = kest("-l", "-g", "12", to=path)
    assert (run.out, run.err, run.status) == ("Connection dropped\n", f"kest: {path}: {words}\n", 0)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs to become somebody else")
def test_a_right_that_is_missing_is_named(sandbox, fake, tmp_path):
    sandbox.root.chmod(0o755)
    (tmp_path / "closed").mkdir(0o700)
    os.link(fake.address, tmp_path / "closed" / "socket")
    run = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", settings.KEST, "-u", tmp_path / "closed" / "socket",
                          "-e", "12"], env=sandbox.environment(), cwd="/", capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (run.stderr, run.returncode) == (f"kest: {tmp_path}/closed/socket: Permission denied\n", 255)


def test_an_untrusted_peer_is_named_with_its_address(kest_start, veld_start, certificate, tmp_path):
    cert, key = certificate
    device = veld_start("--listen", "tcp://127.0.0.1:0", "--tls-cert", cert, "--tls-key", key)
    address = device.tcp_address()
    run = kest_start("--ssl", "-r", "get", "Device.A", to=address)
    run.wait_for("\n", stream="err")
    run.interrupt()
    run.finish()
    assert run.err.startswith(f"kest: {address}: TLS: the peer does not prove to be 127.0.0.1: ")
    assert run.err.count("\n") == 1


def test_a_peer_that_is_trusted_later_is_waited_for(kest_start, veld_start, certificate, tmp_path):
    cert, key = certificate
    device = veld_start("--tls-cert", cert, "--tls-key", key)
    store = tmp_path / "store.pem"
    run = kest_start("--ssl", "-r", "ls", to=device, env={"SSL_CERT_FILE": str(store)})
    run.wait_for("\n", stream="err")
    assert "the peer does not prove to be localhost" in run.err
    store.write_bytes(Path(cert).read_bytes())
    run.finish()
    assert run.out and run.status == 0 and run.err.count("\n") == 1


def test_on_a_terminal_the_reason_and_the_spinner_have_rows_of_their_own(terminal, tmp_path):
    path = tmp_path / "none"
    term = terminal("-r", "get", "Device.A", to=path, columns=200)
    term.wait_for(lambda term: term.lines and term.lines[-1].startswith("Reconnecting... "))
    assert term.lines.count(f"kest: {path}: No such file or directory") == 1


def test_a_daemon_that_goes_away_in_the_middle_is_named_once(kest_start, fake, tmp_path):
    fake.serve(MODEL)
    (tmp_path / "script").write_text("get Device.A\necho asked\nsh until test -e on; do sleep 0.01; done\nget Device.A\nget Device.A\n")
    run = kest_start("-s", "script", to=fake)
    run.wait_for("asked")
    fake.go_down()
    (tmp_path / "on").touch()
    run.wait_for("\n", stream="err")
    fake.come_back()
    run.finish()
    assert run.err == f"kest: {fake.address}: Connection refused\n"
    assert run.status == 0


# What waits leaves nothing behind


def test_where_no_terminal_is_the_spinner_draws_nothing(kest, fake):
    fake.on("GetParameterValues", [Close(), {"ParameterList": [{"Name": "Device.A", "Value": 1}]}])
    run = kest("-r", "get", "Device.A", to=fake)
    assert (run.out, run.err) == ("\nA = 1\n", "")


def test_a_dropped_link_begins_a_row_on_pipes_too(kest_start, fake, tmp_path):
    fake.serve(MODEL)
    reader, writer = os.pipe()
    run = kest_start(to=fake, stdin=reader)
    os.write(writer, b"opt\n")  # its syntax line has no end
    run.wait_for("syntax: opt autocomplete|hint on|off")
    fake.drop_all()
    run.finish()
    os.close(writer)
    os.close(reader)
    assert "Connection dropped" in run.lines


def test_answers_that_have_come_go_out_before_the_next_wait(kest_start, fake):
    answer = {"ParameterList": [{"Name": "Device.A", "Value": 1}]}
    fake.on("GetParameterValues", [answer, Slow(60, answer)])
    run = kest_start("-r", "get", "Device.A", "Device.A", to=fake)
    run.wait_for("A = 1\n")
    run.interrupt()
    assert run.finish().out == "A = 1\n"


# Groups outlive the link that joined them


@pytest.mark.threads
def test_listening_joins_its_groups_again(listener, fake):
    request_link(fake).close()
    fake.wait_for(lambda fake: joins(fake) == [(0, 12), (2, 12)])
    fake.event(12, "heard")
    listener.wait_for('\nEVENT 12:\n"heard"\n')
    listener.interrupt()
    listener.finish()
    assert (listener.err, listener.status) == (f"kest: {fake.address}: the daemon closed the link\n", 0)


@pytest.mark.threads
def test_listening_ends_with_a_failure_when_a_group_cannot_be_joined_again(listener, fake):
    fake.on("JoinGroup", Error(9001, "not you"))
    request_link(fake).close()
    listener.finish()
    assert listener.err == (f"kest: {fake.address}: the daemon closed the link\n"
                            "kest: group 12 is not joined again: not you\n")
    assert (listener.out, listener.status) == ("", 255)


@pytest.mark.threads
def test_listening_without_its_request_link_waits_for_the_daemon(listener, fake):
    fake._run(fake._close_listener)
    request_link(fake).close()
    listener.wait_for("Connection refused\n", stream="err")
    fake.come_back()
    fake.wait_for(lambda fake: joins(fake) == [(0, 12), (2, 12)])
    listener.interrupt()
    assert listener.finish().status == 0


@pytest.mark.threads
def test_listening_without_its_request_link_can_be_left(listener, fake):
    fake.refuse()
    request_link(fake).close()
    listener.wait_for("Connection refused\n", stream="err")
    listener.interrupt()
    listener.finish()
    assert (listener.out, listener.status) == ("", 0)


@pytest.mark.threads
def test_a_shell_joins_its_groups_again(shell, fake):
    fake.on("Login", Error(9001, "who is that"))
    fake.serve(MODEL)
    term = shell("-g", "7,9", to=fake)
    assert joins(fake) == [(0, 7), (0, 9)]
    request_link(fake).close()
    assert term.run("cat Device.A")[-1] == "A = 1"
    assert joins(fake) == [(0, 7), (0, 9), (2, 7), (2, 9)]
    on_new = [request.method for request in fake.requests if request.connection.number == 2]
    assert on_new[:3] == ["JoinGroup", "JoinGroup", "GetParameterAttributes"]


# Whose answer


def test_a_late_answer_is_never_taken_for_the_one_to_a_raw_message(kest, fake):
    fake.on("JoinGroup", lambda request: Slow(1.3 if request.params["Group"] == 7 else 0, {"late": "join"}))
    fake.on("Ping", Slow(0.6, {"n": 2}))
    run = kest("-g", "7", "--raw", '{"id":1,"method":"Ping"}', to=fake)
    assert json.loads(run.out[3:])["result"] == {"n": 2}
    assert fake.of("Ping")[0].id == 1


# Without a listener


@pytest.mark.skipif(b"san_init" in settings.KEST.read_bytes(), reason="a sanitizer wants to come first")
def test_listening_fails_without_its_thread(kest, fake, tmp_path):
    source = tmp_path / "threadless.c"
    source.write_text("#include <errno.h>\nint pthread_create(void) { return EAGAIN; }\n")
    library = tmp_path / "threadless.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-fno-builtin", "-o", library, source], check=True)
    run = kest("-l", "-g", "12", to=fake, env={"LD_PRELOAD": str(library)})
    assert (run.out, run.err, run.status) == ("", "Cannot start the event listener.\n", 255)


# A parent that ignores the end of children


def test_a_shell_command_works_for_a_parent_that_ignores_its_children(kest, fake):
    run = kest("-r", "sh", "echo", "here", to=fake, ignored=[signal.SIGCHLD])
    assert (run.out, run.err) == ("here\n", "")


# The hidden configuration file


def test_a_wait_in_the_configuration_says_why(kest_start, tmp_path):
    (tmp_path / "config").write_text("get Device.A\n")
    run = kest_start("-c", "config", "-n", "x", to=tmp_path / "none")
    run.wait_for(f"kest: {tmp_path}/none: No such file or directory\n", stream="err")
    run.interrupt()
    run.finish()


def test_a_silent_daemon_in_the_configuration_is_told(kest_start, fake, tmp_path):
    fake.on("GetParameterValues", Slow(60, {}))
    (tmp_path / "config").write_text("get Device.A\n")
    run = kest_start("-c", "config", "-n", "x", to=fake)
    run.wait_for("config: waiting for the daemon\n", stream="err")
    run.interrupt()
    assert run.finish().out == ""


@pytest.mark.parametrize("where", ["terminal", "pipes"])
def test_a_password_is_asked_for_in_sight(kest, terminal, fake, tmp_path, where):
    (tmp_path / "config").write_text("login me\n")
    words = ("-c", "config", "-n", "x")
    if where == "terminal":
        term = terminal(*words, to=fake)
        term.wait_for("[kest] password for me:")
        term.wait_for(lambda term: not term.echoes)
        term.type("secret\r")
        assert term.wait_exit() == 0
        assert term.lines == ["[kest] password for me:", "Unsupported :("]
    else:
        run = kest(*words, to=fake, stdin="secret\n")
        assert (run.out, run.err) == ("Unsupported :(\n", "[kest] password for me: \n")
    assert fake.params("Login") == [{"User": "me", "Password": "secret"}]


@pytest.mark.parametrize("path, reason", [
    ("missing", "No such file or directory"), ("folder", "Is a directory"), ("fifo", "not a regular file"), ("/dev/zero", "not a regular file"),
    ("/dev/null", None),
])
def test_a_configuration_that_is_not_used_is_named(kest, fake, tmp_path, path, reason):
    (tmp_path / "folder").mkdir()
    os.mkfifo(tmp_path / "fifo")
    run = kest("-c", path, "-n", "x", to=fake)
    assert (run.out, run.status) == ("Unsupported :(\n", 0)
    assert run.err == (f"{path}: {reason}\n" if reason else "")


# Output that cannot be written

FULL = "kest: the output cannot be written: No space left on device\n"


@pytest.mark.parametrize("words", [
    ("-r", "get", "Device.A"), ("-r", "lua", "print(1)"), ("-r", "lua", "print(1) os.exit(true)"), ("-n", "x"),
    ("--raw", '{"id":1,"method":"Ping"}'), ("-s", "script"), ("-S", "lua"), ("-l",), ("-h",), ("-v",), (),
])
def test_output_that_cannot_be_written_is_a_failure(kest, fake, tmp_path, words):
    fake.serve(MODEL)
    fake.on("Ping", {}).on("JoinGroup", lambda request: Several([{}, Raw(b'{"method":"Event","params":{"Id":5}}\n')]))
    (tmp_path / "script").write_text("echo one\nget Device.A\necho two\n")
    (tmp_path / "lua").write_text("print(1) io.write('x'):flush() print(2)")
    with open("/dev/full", "w") as full:
        run = kest(*words, to=fake, stdin="pwd\npwd\n", stdout=full.fileno())
    assert run.err == FULL
    assert run.status not in (0, None)


def test_a_reader_that_is_gone_is_a_failure_where_sigpipe_is_ignored(kest, fake):
    fake.serve(MODEL)
    reader, writer = os.pipe()
    os.close(reader)
    run = kest("-r", "get", "Device.A", to=fake, stdout=writer, ignored=[signal.SIGPIPE])
    os.close(writer)
    assert (run.err, run.status) == ("kest: the output cannot be written: Broken pipe\n", 1)


# What a line means does not depend on the link


@pytest.mark.parametrize("config, typed, value", [("", '"b"', "b"), ("login me -p pw\n", "b", "b"), ("login me -p pw\n", '"b"', '"b"')])
def test_a_reconnect_changes_nothing_about_what_a_line_means(kest, fake, tmp_path, config, typed, value):
    scheme = fake.serve({"Device.": {}, "Device.Name": "a"})
    fake.on("Login", {}).on("SetParameterValues", {"Status": 0})
    fake.on("GetParameterValues", [Close(), scheme.GetParameterValues])
    (tmp_path / "config").write_text(config)
    line = f"set Device.Name={typed}\n"
    (tmp_path / "script").write_text(line + "get Device.Name\n" + line)
    run = kest("-c", "config", "-s", "script", to=fake)
    assert (run.out.count("Status: OK\n"), run.status) == (2, 0)
    first, second = fake.params("SetParameterValues")
    assert first == second == {"ParameterList": [{"Name": "Device.Name", "Value": value}]}


def test_a_reconnect_completes_no_path(kest, fake, tmp_path):
    scheme = fake.serve({"Device.": {}, "Device.Name": "a"})
    fake.on("GetParameterValues", [scheme.GetParameterValues, Close(), scheme.GetParameterValues])
    (tmp_path / "script").write_text("get Device\n" * 3)
    kest("-s", "script", to=fake)
    asked = [request["ParameterNames"] for request in fake.params("GetParameterValues")]
    assert asked == [["Device"]] * 4


@pytest.mark.tls
def test_a_silent_peer_does_not_go_unseen(kest_start):
    with socket.create_server(("127.0.0.1", 0)) as silent:
        address = f"tcp://127.0.0.1:{silent.getsockname()[1]}"
        run = kest_start("--ssl", "-r", "get", "Device.A", to=address)
        run.wait_for("\n", stream="err")
        assert run.err == f"kest: {address}: waiting for the daemon\n"


@pytest.fixture(params=["unix", "tcp", "full queue"])
def silent(request, tmp_path):
    """The address of somebody who takes links, or not even those, and says nothing."""
    family = socket.AF_INET if request.param == "tcp" else socket.AF_UNIX
    with socket.socket(family) as server, socket.socket(family) as first:
        server.bind(("127.0.0.1", 0) if request.param == "tcp" else str(tmp_path / "silent"))
        server.listen(0 if request.param == "full queue" else 8)
        if request.param == "full queue":
            first.connect(server.getsockname())
        yield f"tcp://127.0.0.1:{server.getsockname()[1]}" if request.param == "tcp" else tmp_path / "silent"


def test_a_daemon_that_answers_nothing_is_told(kest_start, silent):
    run = kest_start("-r", "get", "Device.A", to=silent)
    run.wait_for("\n", stream="err")
    run.interrupt()
    assert run.finish().err == f"kest: {silent}: waiting for the daemon\n"


def test_listening_to_a_daemon_that_answers_nothing_is_told(kest_start, fake):
    fake.on("JoinGroup", Silence())
    run = kest_start("-l", "-g", "12", to=fake)
    run.wait_for(f"kest: {fake.address}: waiting for the daemon\n", stream="err")
    run.wait_for(lambda run: run.catches(signal.SIGINT))
    fake.event(12, "heard")
    run.wait_for('"heard"')
    run.interrupt()
    assert (run.finish().status, run.err.count("\n")) == (0, 1)


def test_a_request_that_takes_its_time_is_no_trouble(kest, fake):
    fake.on("Ping", Slow(2.2, {}))
    assert kest("--raw", '{"id":1,"method":"Ping"}', to=fake).err == ""


def test_a_daemon_that_has_answered_is_patiently_waited_for(kest, fake):
    answer = {"ParameterList": [{"Name": "Device.A", "Value": 1}]}
    fake.on("JoinGroup", Silence()).on("GetParameterValues", [answer, Slow(1.3, answer)])
    assert kest("-r", "get", "Device.A", "Device.A", to=fake).err == ""


def test_a_daemon_that_has_answered_the_configuration_is_patiently_waited_for(kest, fake, tmp_path):
    fake.on("JoinGroup", Silence()).on("Login", {}).on("Ping", Slow(1.3, {}))
    (tmp_path / "config").write_text("login me -p pw\n")
    assert kest("-c", "config", "--raw", '{"id":9,"method":"Ping"}', to=fake).err == ""


def test_a_login_is_waited_for_as_long_after_a_group_was_joined(terminal, fake):
    fake.on("Login", Slow(1.3, {}))
    fake.serve(MODEL)
    terminal("-g", "7", to=fake).wait_prompt(f"{pwd.getpwuid(os.getuid()).pw_name}@kest:> ")


@pytest.mark.threads
def test_ctrl_c_while_groups_are_joined_again_loses_none(shell, fake):
    fake.on("Login", Error(9001, "who is that"))
    fake.serve(MODEL)
    term = shell("-g", "7,9", to=fake)
    fake.on("JoinGroup", [Silence(), {}])
    request_link(fake).close()
    term.type("cat Device.A\r")
    fake.wait_for(lambda fake: joins(fake)[2:] == [(2, 7)])
    term.type(Key.CTRL_C)
    term.wait_prompt()
    assert term.run("cat Device.A")[-1] == "A = 1"
    assert joins(fake)[3:] == [(3, 7), (3, 9)]
