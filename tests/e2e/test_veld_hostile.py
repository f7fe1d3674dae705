"""Clients that do harm harm only themselves."""

import contextlib
import json
import os
import select
import socket
import stat
import subprocess
import time
from pathlib import Path

import pytest

from lib import settings
from lib.wire import Closed, Peer, WireError, connect

SMALL = Path(__file__).parent / "models" / "small.json"


@pytest.fixture
def small(veld_start):
    return veld_start(model=SMALL)


def holds_at_most(veld, mib):
    """Whether the daemon never held more; sanitizers keep what is freed, so that nothing can be said under them."""
    return settings.PATIENCE > 1 or veld.peak_kib() < mib << 10


def ask(peer):
    assert peer.call("GetParameterValues", ParameterNames=["Device.Serial"])["ParameterList"][0]["Value"] == "S1"


@pytest.mark.parametrize(
    "garbage",
    [
        b"hello\n",
        b"[]\n",
        b"7\n",
        b'"x"\n',
        b"{\n",
        b'{"id":1,"method":"Logout"\n',
        b'{"id":1,"method":"\xff"}\n',
        b'{"id":1,"method":"\xc0\x80"}\n',
        b"\x00\n",
        b"\x16\x03\x01\x02\x00\x01\x00\n",
        b'{"a":' + b"[" * 2100 + b"]" * 2100 + b"}\n",
        b'{"a":18446744073709551616}\n',
    ],
)
def test_garbage_closes_only_its_own_link(small, garbage):
    bad, good = small.connect(), small.connect()
    ask(good)
    bad.send_raw(garbage)
    assert bad.closed()
    ask(good)


def test_deep_but_allowed_nesting_is_answered(small):
    peer = small.connect()
    deep = b'{"id":1,"method":"Nothing","params":{"a":' + b"[" * 2000 + b"]" * 2000 + b"}}\n"
    peer.send_raw(deep)
    assert peer.receive()["error"]["code"] == -32601


@pytest.mark.load
def test_a_line_over_the_limit_closes_the_link(small):
    bad, good = small.connect(), small.connect()
    chunk = b"x" * (1 << 20)
    with pytest.raises(OSError):
        for _ in range(70):
            bad.link.sendall(chunk)
            ask(good)
        bad.link.sendall(chunk * 8)
    ask(small.connect())


@pytest.mark.load
def test_a_line_at_the_limit_is_taken(small):
    peer = small.connect()
    head, tail = b'{"id":1,"method":"Logout","x":"', b'"}'
    peer.send_raw(head + b"x" * ((64 << 20) - len(head) - len(tail)) + tail + b"\n")
    assert peer.receive()["result"] == {}


@pytest.mark.load
def test_what_is_wrong_with_a_line_at_the_limit_is_said_shortly(small):
    peer = small.connect()
    head, tail = b'{"id":1,"method":"DeleteObject","params":{"ObjectName":"', b'"}}'
    peer.send_raw(head + b"x" * ((64 << 20) - len(head) - len(tail)) + tail + b"\n")
    assert peer.receive()["error"] == {"code": 9005, "message": ""}


@pytest.mark.load
def test_unfinished_lines_of_many_clients_do_not_fill_the_memory(small):
    bad = [small.connect() for _ in range(12)]
    chunk = b"x" * (1 << 20)
    closed = 0
    for peer in bad:
        try:
            for _ in range(40):
                peer.link.sendall(chunk)
        except OSError:
            closed += 1
        ask(small.connect())
    assert 4 <= closed < 12
    assert holds_at_most(small, 512)
    for peer in bad:
        peer.close()
    # The memory is there again for others.
    peer = small.connect()
    peer.send_raw(b'{"id":1,"method":"Logout","x":"' + b"x" * (60 << 20) + b'"}\n')
    assert peer.receive()["result"] == {}


@pytest.mark.load
@pytest.mark.parametrize("piece, closed", [(b"0,", True), (b"[],", True), (b'{"a":1},', True), (b'",,,,,,,,,,,,,,,,,,",', False)])
def test_a_message_of_millions_of_values(small, piece, closed):
    peer = small.connect()
    peer.send_raw(b'{"id":1,"method":"Logout","params":[' + piece * ((60 << 20) // len(piece)) + b"0]}\n")
    if closed:
        assert peer.closed()
    else:
        assert peer.receive()["error"]["code"] == -32602
    ask(small.connect())
    assert holds_at_most(small, 512)


def test_any_chunking_is_understood(small):
    peer = small.connect()
    for byte in b'{"id":1,"method":"Logout"}\n\r\n{"id":2,"method":"Logout"}\r\n':
        peer.link.send(bytes([byte]))
    assert [peer.receive()["id"], peer.receive()["id"]] == [1, 2]
    peer.send_raw(b"".join(b'{"id":%d,"method":"Logout"}\n' % i for i in range(1, 3001)))
    assert [peer.receive()["id"] for _ in range(3000)] == list(range(1, 3001))


def test_requests_before_the_end_of_the_stream_are_answered(small):
    peer = small.connect()
    peer.send_raw(b'{"id":1,"method":"Logout"}\n' * 100)
    peer.link.shutdown(socket.SHUT_WR)
    assert [peer.receive()["id"] for _ in range(100)] == [1] * 100
    with pytest.raises(Closed):
        peer.receive()


def flood(peer, line, most):
    """Sends until the daemon takes no more, or that many bytes are sent; returns how many were."""
    peer.link.settimeout(0.5)
    sent = 0
    block = line * 1000
    try:
        while sent < most:
            sent += peer.link.send(block[sent % len(line) :])
    except TimeoutError:
        pass
    return sent


def test_a_client_that_never_reads_is_read_no_further(small):
    bad, good = small.connect(), small.connect()
    line = b'{"id":1,"method":"GetParameterValues","params":{"ParameterNames":["."]}}\n'
    sent = flood(bad, line, 64 << 20)
    assert sent < 8 << 20
    ask(good)
    assert holds_at_most(small, 40)
    # Once it reads, it gets every answer.
    bad.link.settimeout(settings.DEADLINE)
    for _ in range(sent // len(line)):
        assert bad.receive()["id"] == 1


def test_a_listener_that_never_reads_loses_its_link_and_no_others(small):
    bad, good, sender = small.connect(), small.connect(), small.connect()
    bad.join(20)
    good.join(20)
    value = "x" * 100000
    for number in range(150):
        sender.send_event(20, [number, value])
        assert good.event()[1][0] == number
    ask(sender)
    assert holds_at_most(small, 60)
    assert bad.closed()
    assert "does not read its events" in small.log


def test_hundreds_of_clients(small):
    peers = [small.connect() for _ in range(400)]
    for peer in peers:
        peer.request("GetParameterValues", {"ParameterNames": ["Device."]})
    for peer in peers:
        assert peer.receive()["id"] == 1
    for peer in peers[:200]:
        peer.close()
    for peer in peers[200:]:
        ask(peer)


def test_clients_that_come_and_go_leave_nothing_behind(small):
    ask(small.connect())
    before = len(os.listdir(f"/proc/{small.pid}/fd"))
    for number in range(300):
        peer = Peer(small.address)
        peer.request("JoinGroup", {"Group": 10 + number, "Session": f"s{number % 7}"})
        if number % 3:
            peer.send_raw(b'{"id":9,"meth')
        peer.close()
    small.connect().call("Logout")
    moment = settings.deadline()
    while len(os.listdir(f"/proc/{small.pid}/fd")) > before + 2 and settings.remaining(moment):
        time.sleep(0.005)
    assert len(os.listdir(f"/proc/{small.pid}/fd")) <= before + 2


def test_too_many_groups_are_refused(small):
    peer = small.connect()
    for group in range(1024):
        peer.request("JoinGroup", {"Group": group})
    for _ in range(1024):
        assert peer.receive()["result"] == {}
    with pytest.raises(WireError) as error:
        peer.join(5000)
    assert error.value.code == 9004


def test_guessing_passwords_gets_slower_and_slows_nobody_else(small):
    bad, good = small.connect(), small.connect()
    started = time.monotonic()
    for _ in range(3):
        bad.request("Login", {"User": "admin", "Password": "guess"})
    for _ in range(3):
        while True:
            ask(good)
            bad.link.settimeout(0.001)
            try:
                answer = bad.receive(0.001)
                break
            except TimeoutError:
                pass
        assert answer["error"]["code"] == 9001
    assert time.monotonic() - started >= 0.25 + 0.5 + 1.0
    # The right password is not let in any faster than a wrong one, but it is let in.
    assert good.call("Login", User="admin", Password="admin") == {}


def test_a_login_of_ten_thousand_characters_is_refused(small):
    with pytest.raises(WireError) as error:
        small.connect().call("Login", User="a" * 10000, Password="b" * 10000)
    assert error.value.code == 9001
    ask(small.connect())


@pytest.mark.parametrize("members", [[], 7, None, "x", {"ParameterList": 1}, {"ParameterList": [1]}, {"ParameterList": [{"Name": 1}]}, {"ParameterNames": [1]}])
def test_wrong_types_in_every_member(small, members):
    peer = small.connect()
    for method in (
        "GetParameterNames", "GetParameterValues", "GetParameterAttributes", "SetParameterValues",
        "AddObject", "DeleteObject", "ChangeOrder", "Execute", "Login", "JoinGroup", "Download",
    ):  # fmt: skip
        peer.send({"id": 1, "method": method, "params": members})
        assert peer.receive()["error"]["code"] in (-32602, 9001), method
    ask(peer)


def test_a_costly_pattern_hangs_nobody(veld_start, tmp_path):
    model = Path(tmp_path) / "pattern.json"
    document = {
        "format": 1,
        "root": {"P": {"type": "string", "access": "readWrite", "default": "", "regex": "(a*)*b"}},
    }
    model.write_text(json.dumps(document))
    peer = veld_start(model=model).connect()
    peer.call("Login", User="root")
    with pytest.raises(WireError) as error:
        peer.call("SetParameterValues", ParameterList=[{"Name": "P", "Value": "a" * 100000}])
    assert error.value.code == 9007


def test_the_socket_is_for_everybody_and_goes_with_the_daemon(small):
    assert stat.S_IMODE(os.stat(small.address).st_mode) == 0o666
    assert not os.path.lexists(f"{small.address}.{small.pid}")
    small.stop()
    assert not os.path.lexists(small.address)


def refused_start(*options):
    run = subprocess.run([settings.VELD, *options], capture_output=True, text=True, timeout=settings.DEADLINE)
    assert run.stdout == ""
    return run.returncode, run.stderr


def test_a_stale_socket_is_replaced_and_nothing_else_is(veld_start, small, tmp_path):
    small.kill()
    assert os.path.lexists(small.address)
    small.start()
    assert refused_start("--socket", small.address, "--model", SMALL) == (
        1,
        f"veld: {small.address}: another daemon listens there\n",
    )
    ask(small.connect())
    plain = Path(tmp_path) / "file"
    plain.write_text("mine")
    assert refused_start("--socket", plain, "--model", SMALL) == (
        1,
        f"veld: {plain}: something that is no socket is there\n",
    )
    assert plain.read_text() == "mine"


@pytest.mark.parametrize("full", [False, True], ids=["waiting", "full"])
def test_a_socket_at_which_another_program_listens_is_left_alone(tmp_path, full):
    path = Path(tmp_path) / "other"
    with socket.socket(socket.AF_UNIX) as other, contextlib.ExitStack() as clients:
        other.bind(str(path))
        other.listen(0)
        while full:
            client = clients.enter_context(socket.socket(socket.AF_UNIX))
            client.setblocking(False)
            if client.connect_ex(str(path)) != 0:
                break
        before = path.lstat().st_ino
        assert refused_start("--socket", path, "--model", SMALL) == (1, f"veld: {path}: another daemon listens there\n")
        assert path.lstat().st_ino == before


@pytest.mark.parametrize(
    "text, error",
    [
        ("", "1:0: '[' or '{' expected near end of file"),
        ("{}", "not a model document of format 1"),
        ('{"format":2,"root":{}}', "not a model document of format 1"),
        ('{"format":1}', '"root" must be an object'),
        ('{"format":1,"root":{"A":{"type":"number","default":1}}}', 'A: unknown type "number"'),
        ('{"format":1,"root":{"A":{"multi":true,"template":{"type":"method"}}}}', 'A.: "template" must be an object or a parameter'),
        ('{"format":1,"root":{"A":{"multi":true,"template":{"multi":true,"template":{"children":{}}}}}}',
         'A.: "template" must be an object or a parameter'),
        ('{"format":1,"root":{"A":{"type":"int"}}}', 'A: a parameter must have a "default"'),
        ('{"format":1,"root":{"A":{"type":"int","default":"x"}}}', 'A: "default" is no int'),
        ('{"format":1,"root":{"A":{"children":{"B.C":{}}}}}', "A.B.C: not a good name for a node"),
        ('{"format":1,"root":{"A":{"type":"string","default":"","regex":"("}}}', 'A: "regex": missing closing parenthesis'),
        ('{"format":1,"root":{"A":{"multi":true}}}', 'A.: a multi-instance object must have a "template"'),
        ('{"format":1,"root":{"A":{"multi":true,"template":{},"instances":{"x":{}}}}}', 'A.: "x" is no instance number'),
        ('{"format":1,"root":{"A":{"multi":true,"template":{},"instances":{"1":{"B":1}}}}}', 'A.1.: has no "B"'),
    ],
)
def test_a_model_that_is_none_is_refused_with_the_place(tmp_path, text, error):
    model = Path(tmp_path) / "model.json"
    model.write_text(text)
    status, said = refused_start("--socket", Path(tmp_path) / "s", "--model", model)
    assert status == 1
    assert said == f"veld: {model}:{'' if error.startswith('1:0') else ' '}{error}\n"


def test_help_version_and_wrong_options():
    run = subprocess.run([settings.VELD, "--version"], capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (run.returncode, run.stdout, run.stderr) == (0, f"veld version {settings.VERSION}\n", "")
    run = subprocess.run([settings.VELD, "--help"], capture_output=True, text=True, timeout=settings.DEADLINE)
    assert run.returncode == 0 and run.stdout.startswith("Veltro Management System daemon.\nUsage: veld [options]\n")
    assert refused_start("--nothing")[0] == 2
    assert refused_start("word")[0] == 2
    for text in ("soon", "nan", "inf", "-1", "86401", "1s", ""):
        assert refused_start("--reboot-time", text) == (2, f"veld: --reboot-time {text}: must be a number of seconds\n")
    for text in ("x", "1,x", "1,", "1,2,3", "-1"):
        assert refused_start("--populate", text)[0] == 2, text
    assert refused_start("--model", "/nowhere/at-all") == (1, "veld: /nowhere/at-all.json: No such file or directory\n")


def test_what_takes_long_is_answered_after_the_end_of_the_stream_too(veld_start):
    veld = veld_start()
    peer = veld.connect()
    peer.request("Login", {"User": "admin", "Password": "wrong"})
    peer.request("Logout")
    peer.link.shutdown(socket.SHUT_WR)
    assert peer.receive()["error"]["code"] == 9001
    assert peer.receive()["result"] == {}
    assert peer.closed()
    peer = veld.connect()
    peer.call("Login", User="root")
    lookup = {"Path": "Device.DNS.Diagnostics.NSLookup", "ParameterList": [{"Name": "HostName", "Value": "localhost"}]}
    number = peer.request("Execute", lookup)
    peer.link.shutdown(socket.SHUT_WR)
    assert peer.answer(number)["result"]["ParameterList"]
    assert peer.closed()


def test_a_slow_method_delays_nobody(veld_start):
    veld = veld_start()
    slow, other = veld.connect(), veld.connect()
    slow.call("Login", User="root")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        try:
            silent.bind(("127.0.0.53", 53))
        except OSError as error:
            pytest.skip(f"no silent name server can be had here: {error}")
        arguments = {"HostName": "host.example", "DNSServer": "127.0.0.53", "Timeout": 2000}
        values = [{"Name": name, "Value": value} for name, value in arguments.items()]
        started = time.monotonic()
        number = slow.request("Execute", {"Path": "Device.DNS.Diagnostics.NSLookup", "ParameterList": values})
        for _ in range(20):
            other.call("GetParameterValues", ParameterNames=["Device.Time.Enable"])
        # Its own link goes on, too: answers come as they are ready.
        later = slow.request("GetParameterValues", {"ParameterNames": ["Device.Time.Enable"]})
        assert slow.receive()["id"] == later
        assert slow.answer(number)["result"]["ParameterList"]
        assert time.monotonic() - started >= 1.9


def test_a_place_that_cannot_be_locked_is_not_taken(tmp_path):
    path = Path(tmp_path) / "s"
    Path(f"{path}.lock").symlink_to("elsewhere")
    assert refused_start("--socket", path, "--model", SMALL) == (1, f"veld: {path}: Too many levels of symbolic links\n")
    assert not os.path.lexists(path)


def test_a_reboot_parts_with_a_client_that_reads_nothing(veld_start):
    veld = veld_start("--reboot-time", "0", model=SMALL)
    silent, admin = veld.connect(), veld.connect()
    for _ in range(200):  # the daemon reads no more where answers wait
        silent.request("GetParameterNames", {"ParameterPath": "Device.", "NextLevel": False})
    ask(admin)
    admin.call("Login", User="root")
    admin.call("Reboot", Force=True)
    watch = select.poll()
    watch.register(silent.link, select.POLLRDHUP)
    assert watch.poll(1000 * settings.DEADLINE)
