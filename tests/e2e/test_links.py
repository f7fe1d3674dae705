"""The request link: exchanges that get no answer, links that are lost and found again, Ctrl-C in the middle."""

import contextlib
import json
import re
import signal
import socket
import time

import pytest

from lib import settings
from lib.fake import Chunked, Close, Error, Raw, Reset, Several, Silence, Slow
from lib.program import proc_status
from lib.terminal import Key

MODEL = {"Device.": {}, "Device.A": 1, "Device.Sub.": {}, "Device.Sub.B": "text"}
SPINNER = "Reconnecting... "


@pytest.fixture
def scheme(fake):
    return fake.serve(MODEL)


@pytest.fixture
def term(shell, fake, scheme):
    """A shell of nobody in particular: its prompt shows no name."""
    fake.on("Login", Error(9001, "who is that"))
    return shell(to=fake)


def answer(fake, number, result):
    return json.dumps({"jsonrpc": "2.0", "id": number, "result": result}).encode() + b"\n"


# Answers


@pytest.mark.parametrize("size", [1, 2, 3, 7, 1000])
def test_answers_may_come_in_any_pieces(kest, fake, size):
    fake.on("GetParameterValues", Chunked({"ParameterList": [{"Name": "Device.A", "Value": "grün " * 20}]}, size, 0.0005))
    assert kest("-r", "get", "Device.A", to=fake).out == f'A = "{"grün " * 20}"\n'


def test_empty_lines_and_carriage_returns_are_passed_over(kest, fake):
    fake.on("GetParameterValues", lambda request: Raw(
        b"\n\r\n\n" + answer(fake, request.id, {"ParameterList": [{"Name": "Device.A", "Value": 1}]})[:-1] + b"\r\n"))
    assert kest("-r", "get", "Device.A", to=fake).out == "A = 1\n"


def test_answers_nobody_asked_for_are_dropped(kest, fake):
    fake.on("GetParameterValues", lambda request: Several([
        Raw(answer(fake, 4711, {"ParameterList": [{"Name": "Device.A", "Value": "not this"}]})),
        Raw(answer(fake, str(request.id), {"ParameterList": [{"Name": "Device.A", "Value": "nor this"}]})),
        Raw(b'{"method":"Event","params":{"Id":7,"Value":"an event here"}}\n{"id":null,"result":{}}\n{"x":1}\n'),
        {"ParameterList": [{"Name": "Device.A", "Value": "this"}]},
        Raw(answer(fake, request.id, {"ParameterList": [{"Name": "Device.A", "Value": "too late"}]})),
    ]))
    run = kest("-r", "get", "Device.A", "Device.A", to=fake)
    assert run.out == 'A = "this"\nA = "this"\n'


def test_texts_may_hold_nul(kest, fake):
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": "a\0b"}]})
    assert kest("-r", "get", "Device.A", to=fake).out == 'A = "a\\u0000b"\n'


def test_an_error_answer_is_shown_with_its_title_and_data(kest, fake):
    fake.on("GetParameterValues", Error(9005, "no such name", {"Device.A": "gone", "Device.B": [1]}))
    run = kest("-r", "get", "Device.A", to=fake)
    assert run.out == '[9005] Invalid parameter name: no such name\nDevice.A: "gone"\nDevice.B: [1]\n'
    assert run.status == 0


TITLES = {9000: "Method not supported", 9001: "Request denied", 9002: "Internal error", 9003: "Invalid arguments",
          9004: "Resources exceeded", 9005: "Invalid parameter name", 9006: "Invalid parameter type",
          9007: "Invalid parameter value", 9008: "Attempt to set a non-writable parameter", 9010: "File transfer failure",
          9016: "File transfer server unreachable", 9018: "File corrupted or unusable", -32700: "Parse error",
          -32600: "Invalid request", -32601: "Method not found", -32602: "Invalid params", -32603: "Internal error",
          9999: "Error", 1: "Error", -1: "Error"}


def test_the_titles_of_the_codes(kest, fake, tmp_path):
    fake.on("SaveConfig", [Error(code, "why") for code in TITLES])
    (tmp_path / "script").write_text("save\n" * len(TITLES))
    run = kest("-s", "script", to=fake)
    assert run.out == "".join(f"[{code}] {title}: why\n" for code, title in TITLES.items())


# Answers that do not come


@pytest.mark.deadline(30)
def test_a_raw_request_waits_five_seconds(kest, fake):
    fake.on("Ping", Silence())
    began = time.monotonic()
    run = kest("--raw", '{"id":5,"method":"Ping"}', to=fake)
    assert 4.5 < time.monotonic() - began < 15
    assert json.loads(run.out[3:])["error"] == {"code": -32001, "message": "no answer from the daemon in time"}
    assert run.status == -32001 & 0xFF
    assert fake.methods() == ["JoinGroup", "Ping"]


@pytest.mark.deadline(30)
def test_a_trickle_does_not_stretch_the_limit(kest, fake):
    fake.on("Ping", Chunked({"x": "y" * 400}, 1, 0.05))
    began = time.monotonic()
    kest("--raw", '{"id":5,"method":"Ping"}', to=fake)
    assert time.monotonic() - began < 15  # the whole answer would take 20


def test_a_late_answer_is_dropped_and_the_link_stays(term, fake, scheme):
    # the long listing waits a second
    fake.on("GetParameterAttributes", lambda request: Slow(1.3, scheme.GetParameterAttributes(request)))
    assert term.run("ls -l")[0].split() == ["Type", "Access", "Perms", "Flags", "Name"]
    assert len(fake.connections) == 2
    fake.on("GetParameterValues", lambda request: Slow(0.6, scheme.GetParameterValues(request)))
    fake.on("GetParameterAttributes", scheme.GetParameterAttributes)
    assert term.run("cat Device.A") == ["A = 1"]
    assert len(fake.connections) == 2


@pytest.mark.parametrize("spoil", [
    Close(), Close(b'{"jsonrpc":"2.0","id":3,"resu'), Reset(), Raw(b"garbage\n"), Raw(b'"a text"\n'), Raw(b"[]\n"),
    Raw(b'{"id":1,"result":"\xff"}\n'), Raw(b"[" * 3000 + b"]" * 3000 + b"\n"), Raw(b"\0\n"),
], ids=["closed", "closed within", "reset", "garbage", "text", "array", "not UTF-8", "deep", "NUL"])
def test_a_link_that_breaks_is_opened_again_once_and_the_request_repeated(kest, fake, spoil):
    fake.on("GetParameterValues", [spoil, {"ParameterList": [{"Name": "Device.A", "Value": 1}]}])
    run = kest("-r", "get", "Device.A", to=fake)
    assert run.out == "\nA = 1\n"
    assert run.status == 0
    # one more link for requests; the scheme is fetched afresh for nobody before the repeat
    assert len(fake.connections) == 3
    methods = [(request.connection.number, request.method) for request in fake.requests]
    assert methods[0] == (1, "JoinGroup")
    assert methods[1] == (0, "GetParameterValues")
    assert methods[-1] == (2, "GetParameterValues")
    assert set(methods[2:-1]) == {(2, "GetParameterAttributes")}


def test_a_second_loss_is_an_error(kest, fake):
    fake.on("GetParameterValues", Close())
    run = kest("-r", "get", "Device.A", to=fake)
    assert run.out.splitlines()[-1] == "[-32002] Connection lost: the daemon closed the link"
    assert len(fake.of("GetParameterValues")) == 2
    assert run.status == 0


def test_a_loss_within_a_reconnect_does_not_reconnect_again(kest, fake):
    fake.on("GetParameterValues", Close()).on("GetParameterAttributes", Close())
    run = kest("-r", "get", "Device.A", to=fake)
    assert run.out.splitlines()[-1] == "[-32002] Connection lost: the daemon closed the link"
    assert len(fake.of("GetParameterAttributes")) == 1
    assert run.out.count("\n") == 2


@pytest.mark.deadline(120)
@pytest.mark.load
def test_a_line_without_end_is_given_up_at_64_mib(kest, fake):
    fake.on("GetParameterValues", [Raw(b"x" * (65 << 20)), {"ParameterList": [{"Name": "Device.A", "Value": 1}]}])
    run = kest("-r", "get", "Device.A", to=fake, timeout=60)
    assert run.out.endswith("A = 1\n")
    assert len(fake.connections) == 3


@pytest.mark.deadline(120)
@pytest.mark.load
def test_a_line_just_below_the_limit_is_taken(kest, fake):
    text = "x" * ((64 << 20) - 200)
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": text}]})
    run = kest("-r", "get", "Device.A", to=fake, timeout=60)
    assert len(run.out_bytes) == len(text) + len('A = ""\n')
    assert len(fake.connections) == 2


# The daemon restarts


def drop_requests(fake):
    """Closes the request link only, as a daemon that restarts between two commands would, without ending the shell."""
    requests = [connection for connection in fake.open_connections if not connection.receiver]
    for connection in requests:
        connection.close()


def test_the_next_command_after_a_loss_reconnects_and_runs_once(term, fake):
    fake.requests.clear()
    drop_requests(fake)
    rows = term.run("cat Device.A")
    assert rows[-1] == "A = 1"
    assert SPINNER.strip() in "\n".join(rows)
    assert len(fake.of("GetParameterValues")) == 1


def test_after_a_reconnect_nobody_is_logged_in(term, fake):
    fake.on("Login", {})
    term.run("login admin -p secret")
    assert term.wait_prompt("admin@kest:> ")
    term.run("cd Device.Sub")
    drop_requests(fake)
    term.run("cat :Device.A", prompt="kest:> ")
    assert fake.of("Logout") == []  # there was no link to say it on


@pytest.mark.threads
def test_waiting_for_a_daemon_costs_next_to_nothing(kest_start, fake, tmp_path):
    run = kest_start("-r", "get", "Device.A", "-u", tmp_path / "later")
    run.wait_for("kest: ", stream="err")

    before = run.cpu_seconds()
    began = time.monotonic()
    run.wait_for(lambda run: time.monotonic() - began > 1.0 or None)
    assert run.cpu_seconds() - before <= 0.1
    run.interrupt()
    assert run.finish().status == -signal.SIGINT


@pytest.mark.threads
def test_a_daemon_that_comes_late_is_found(kest_start, fake_start, sandbox):
    fake = fake_start()
    fake.go_down()
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": 1}]})
    run = kest_start("-r", "get", "Device.A", to=fake)
    run.wait_for("kest: ", stream="err")
    fake.come_back()
    run.finish()
    assert run.out.endswith("\nA = 1\n")
    assert run.status == 0


@pytest.mark.threads
def test_the_spinner_turns_and_never_after_its_line(terminal, fake):
    fake.go_down()
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": 1}]})
    pictures = set()

    def turned(term):
        row, column = term.find(SPINNER.strip()) or (0, 0)
        row, column = max((row, column), term.cursor)
        pictures.add(term.line(row)[len(SPINNER) :])
        return len(pictures) > 4

    term = terminal("-r", "get", "Device.A", to=fake)
    term.wait_for(turned)
    fake.come_back()
    assert term.wait_exit() == 0
    assert term.lines[-1] == "A = 1"
    assert SPINNER.strip() in term.lines[-2]


@pytest.mark.threads
def test_the_spinner_turns_behind_its_text_after_a_stop(terminal, fake):
    fake.go_down()
    fake.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": 1}]})
    term = terminal("-r", "get", "Device.A", to=fake)
    term.wait_for(lambda term: term.find("Connection dropped") and term.line(term.cursor[0]).startswith(SPINNER))
    above = term.cursor[0]
    term.signal(signal.SIGSTOP)
    term.type(Key.ENTER)  # the shell that stopped it writes rows of its own
    term.wait_for(lambda term: term.cursor == (above + 1, 0))
    term.signal(signal.SIGCONT)
    term.wait_for(lambda term: term.cursor[0] > above and term.line(term.cursor[0]).startswith(SPINNER))
    fake.come_back()
    assert term.wait_exit() == 0
    assert term.lines[-1] == "A = 1"


# Ctrl-C


@pytest.mark.threads
def test_ctrl_c_leaves_an_exchange_and_the_link_stays_usable(term, fake, scheme):
    fake.on("GetParameterValues", [lambda request: Slow(3, {"ParameterList": [{"Name": "Device.A", "Value": "late"}]}),
                                   scheme.GetParameterValues])
    term.type("cat Device.A" + Key.ENTER)
    fake.wait_for("GetParameterValues")
    began = time.monotonic()
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: term.at_prompt() and term.cursor[0] > 6)
    assert time.monotonic() - began < 2.5
    assert term.run("cat Device.Sub.B") == ['B = "text"']
    term.quiet(3)
    assert term.run("cat Device.A") == ["A = 1"]
    assert len(fake.connections) == 2


@pytest.mark.threads
def test_ctrl_c_leaves_a_reconnect(term, fake):
    drop_requests(fake)
    receivers = fake.receivers()
    fake._run(fake._close_listener)
    term.type("cat Device.A" + Key.ENTER)
    term.wait_for(SPINNER.strip())
    term.type(Key.CTRL_C)
    term.wait_prompt()
    size = len(term.raw)
    term.quiet(0.6)
    assert SPINNER.encode().strip() not in bytes(term.raw[size:])
    fake.come_back()
    assert receivers == fake.receivers()
    assert term.run("cat Device.A")[-1] == "A = 1"


@pytest.mark.threads
def test_a_storm_of_ctrl_c_never_ends_the_shell(term, fake, scheme):
    fake.on("GetParameterValues", lambda request: Slow(0.01, scheme.GetParameterValues(request)))
    for _ in range(30):
        term.type("cat Device." + Key.ENTER)
        term.type(Key.CTRL_C)
    term.type(Key.CTRL_C)
    term.quiet(0.3)
    fake.on("GetParameterValues", scheme.GetParameterValues)
    term.type(Key.CTRL_C)
    term.wait_prompt()
    # The last of the storm may still be on its way to the screen.
    term.type("cat Device.A" + Key.ENTER)
    term.wait_for(lambda term: "A = 1" in term.lines)


@pytest.mark.threads
def test_a_long_output_can_be_stopped(term, fake):
    many = [{"Name": f"Device.Sub.P{number}", "Value": number} for number in range(200_000)]
    fake.on("GetParameterValues", {"ParameterList": many})
    term.type("cat Device.Sub." + Key.ENTER)
    term.wait_for(lambda term: "P9" in term.text)
    term.signal(signal.SIGINT)
    term.wait_prompt(timeout=20)
    assert len(term.all_lines) < 150_000


def test_ctrl_c_at_the_prompt_drops_the_line(term):
    term.type("half a line")
    term.wait_for("half a line")
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: term.at_prompt("kest:> "))
    assert term.run("pwd") == [":"]


def test_ctrl_c_ends_a_one_shot_that_waits(kest_start, fake):
    fake.on("GetParameterValues", Silence())
    run = kest_start("-r", "get", "Device.A", to=fake)
    fake.wait_for("GetParameterValues")
    run.interrupt()
    assert run.finish().status == -signal.SIGINT


def test_ctrl_c_in_a_reload_leaves_the_shell_and_its_prompt_at_the_root(term, fake, scheme):
    term.run("cd Device.Sub", prompt="kest:Device.Sub> ")
    fake.on("GetParameterAttributes", Silence())
    drop_requests(fake)
    asked = len(fake.of("GetParameterAttributes"))
    term.type("cat B" + Key.ENTER)
    fake.wait_for(lambda fake: len(fake.of("GetParameterAttributes")) > asked)
    term.type(Key.CTRL_C)
    term.wait_prompt("kest:> ")
    fake.on("GetParameterAttributes", scheme.GetParameterAttributes)
    assert term.run("pwd", prompt="kest:> ") == [":"]
    assert term.run("cat Device.A", prompt="kest:> ") == ["A = 1"]


def test_what_a_command_has_said_is_on_the_screen_while_it_waits(term, fake, scheme):
    fake.on("GetParameterValues", [scheme.GetParameterValues, Silence()])
    term.type("cat Device.A Device.Sub.B" + Key.ENTER)
    term.wait_for(lambda term: "A = 1" in term.lines)
    term.type(Key.CTRL_C)
    term.wait_prompt("kest:> ")
    assert "A = 1" in term.lines


# Other kinds of links


@pytest.mark.parametrize("address", ["tcp://127.0.0.1:0", "tcp://[::1]:0", "tcp://localhost:0"])
def test_tcp_works_wherever_a_path_does(kest, fake_start, address):
    bound = fake_start(address.replace("localhost", "127.0.0.1"))
    bound.on("GetParameterValues", {"ParameterList": [{"Name": "Device.A", "Value": 1}]})
    wanted = bound.address.replace("127.0.0.1", "localhost") if "localhost" in address else bound.address
    assert kest("-u", wanted, "-r", "get", "Device.A").out == "A = 1\n"


@pytest.mark.parametrize("address", ["tcp://", "tcp://host", "tcp://:1", "tcp://127.0.0.1:x", "tcp://127.0.0.1:99999"])
def test_a_wrong_address_is_named(kest_start, address):
    run = kest_start("-u", address, "-r", "get", "Device.A")
    run.wait_for(address, stream="err")
    run.interrupt()
    run.finish()
    assert run.status != 0


def test_a_path_too_long_for_a_socket_is_named(kest_start):
    path = "/tmp/" + "x" * 200
    run = kest_start("-u", path, "-r", "get", "Device.A")
    run.wait_for("x" * 200, stream="err")
    run.interrupt()
    run.finish()


def test_descriptors_are_not_handed_to_children(term):
    rows = term.run("sh ls /proc/self/fd")
    assert sorted("\n".join(rows).split()) == ["0", "1", "2", "3"]


# A client that sends much


@pytest.mark.threads
def test_a_daemon_that_does_not_read_can_be_left(term, fake, scheme):
    for connection in fake.open_connections:
        if not connection.receiver:
            connection.stop_reading()
    term.type(" set Device.Sub.B=" + "x" * 3000 + Key.ENTER)
    term.wait_for("x" * 40)
    term.quiet(0.2)
    term.type(Key.CTRL_C)
    term.wait_prompt("kest:> ")


# Reasons that last


@pytest.mark.tls
def test_tls_that_cannot_be_had_is_refused_at_once(kest, fake, tmp_path):
    (tmp_path / "openssl.cnf").write_text("config_diagnostics = 1\nopenssl_conf = all\n[all]\nssl_conf = none\n")
    run = kest("--ssl", "-r", "get", "Device.A", to=fake, env={"OPENSSL_CONF": str(tmp_path / "openssl.cnf")})
    assert (run.out, run.err, run.status) == ("", "--ssl: the library cannot be initialised.\n", 1)


@pytest.mark.tls
@pytest.mark.parametrize("is_library, reason", [(True, "not the expected library"), (False, "invalid ELF header")])
def test_a_tls_library_that_is_none_is_named(kest, fake, tmp_path, is_library, reason):
    other = settings.BUILD / "tests" / "programs" / "troubled.so"
    if not other.exists():
        pytest.skip("needs another library of the same machine")
    (tmp_path / "libssl.so.3").write_bytes(other.read_bytes() if is_library else b"x" * 100_000)
    run = kest("--ssl", "-r", "get", "Device.A", to=fake, env={"LD_LIBRARY_PATH": str(tmp_path)})
    assert re.fullmatch(f"--ssl: (/.*/)?libssl.so.3: {reason}\\.\n", run.err)
    assert (run.out, run.status) == ("", 1)


@pytest.mark.parametrize("words", [("-r", "get", "Device.DeviceInfo.Uptime"), ("--raw", '{"id":7,"method":"Ask"}'), ("-l",)])
def test_a_plain_client_of_a_tls_daemon_is_told_what_to_try(kest_start, veld_start, certificate, words):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1])
    run = kest_start(*words, to=veld)
    run.finish()
    said = "kest: the daemon closes links without a word: if it speaks TLS, try --ssl\n"
    assert run.err.endswith(said) and run.err.count("--ssl") == 1
    assert run.err.count("--ssl") == 1


def test_a_daemon_whose_queue_is_full_is_waited_for(kest_start, sandbox):
    path = str(sandbox.new_socket())
    with socket.socket(socket.AF_UNIX) as listening, contextlib.ExitStack() as others:
        listening.bind(path)
        listening.listen(0)
        while True:
            other = others.enter_context(socket.socket(socket.AF_UNIX))
            other.setblocking(False)
            if other.connect_ex(path) != 0:
                break
        run = kest_start("-r", "get", "Device.A", to=path)

        def waits(run):  # again and again
            return run.ended or int(proc_status(run.pid).get("voluntary_ctxt_switches", "0")) > 20

        run.wait_for(waits)
        assert not run.ended, run.report()
        listening.accept()[0].close()
        link = listening.accept()[0]
        assert link.recv(1)
        link.close()
