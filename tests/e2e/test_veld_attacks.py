"""What attacks found: each harms nobody but its sender."""

import json
import os
import re
import resource
import select
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from lib import settings
from lib.program import cpu_seconds
from lib.wire import Closed, Peer, WireError, connect
from test_veld_hostile import SMALL, ask, holds_at_most


@pytest.fixture
def small(veld_start):
    return veld_start(model=SMALL)


@pytest.fixture
def silent_server():
    """The address of a name server that never answers."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        yield f"127.0.0.1:{silent.getsockname()[1]}"


def root(veld):
    peer = veld.connect()
    peer.call("Login", User="root")
    return peer


def named(**values):
    return [{"Name": name, "Value": value} for name, value in values.items()]


def refused(peer, method, **params):
    with pytest.raises(WireError) as error:
        peer.call(method, **params)
    return error.value


# --- the log ---


def full_pipe():
    """A pipe that takes not one byte more, for as long as nobody reads it."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while True:
            os.write(writer, b"x" * 4096)
    except BlockingIOError:
        pass
    os.set_blocking(writer, True)
    return reader, writer


def test_a_log_that_nobody_reads_costs_lines_only(small):
    small.stop()
    reader, writer = full_pipe()
    process = subprocess.Popen([*small.argv, "--log", "debug"], stdin=subprocess.DEVNULL, stderr=writer)
    os.close(writer)
    try:
        small.process = process
        small.wait_until_up()
        peer = small.connect()
        for _ in range(200):
            ask(peer)
        # Who reads again is told what was lost.
        os.set_blocking(reader, False)
        while b"".join(iter_available(reader)):
            pass
        ask(peer)
        assert re.search(rb"warning: \d+ lines were lost\n", b"".join(iter_available(reader)))
        process.send_signal(signal.SIGTERM)
        assert process.wait(settings.DEADLINE) == 0
    finally:
        os.close(reader)
        process.kill()
        process.wait()
        small.wanted_end = True


def iter_available(reader):
    """What a pipe holds at the moment."""
    try:
        while True:
            data = os.read(reader, 65536)
            if not data:
                return
            yield data
    except BlockingIOError:
        return


def test_a_daemon_whose_log_nobody_reads_ends_when_it_is_asked_to(small):
    small.stop()
    reader, writer = full_pipe()
    small.process = subprocess.Popen([*small.argv, "--log", "debug"], stdin=subprocess.DEVNULL, stderr=writer)
    os.close(writer)
    small.wait_until_up()
    assert small.stop() == 0
    os.close(reader)


def test_a_client_cannot_fill_the_log(veld_start, tmp_path):
    log = Path(tmp_path) / "log"
    small = veld_start("--log", log, model=SMALL)
    for _ in range(1500):
        with Peer(small.address) as peer:
            peer.send_raw(b"garbage\n")
            assert peer.closed()
    lines = log.read_text().splitlines()
    assert 100 < len(lines) < 600
    # The next line that is written says how many were not.
    while len(lines) == len(log.read_text().splitlines()):
        with Peer(small.address) as peer:
            peer.send_raw(b"garbage\n")
            assert peer.closed()
    said = [re.search(r"warning: (\d+) lines were left out$", line) for line in log.read_text().splitlines()]
    assert sum(int(found[1]) for found in said if found) >= 1500 - len(lines)


@pytest.mark.parametrize("kind", ["fifo", "device", "folder", "nowhere"])
def test_what_is_no_file_is_refused_as_a_log(tmp_path, kind):
    log = Path(tmp_path) / "log"
    if kind == "nowhere":
        log = log / "below"
    elif kind == "fifo":
        os.mkfifo(log)
    elif kind == "folder":
        log.mkdir()
    else:
        log = Path("/dev/full")
    run = subprocess.run(
        [settings.VELD, "--socket", Path(tmp_path) / "s", "--model", SMALL, "--log", log],
        capture_output=True, text=True, timeout=settings.DEADLINE,
    )  # fmt: skip
    why = "No such file or directory" if kind == "nowhere" else "not a regular file"
    assert (run.returncode, run.stderr) == (1, f"veld: {log}: {why}\n")


# --- what is sent ---


def test_every_line_sent_is_utf8(veld):
    peer = root(veld)
    for name in ("é" * 200, "a" + "é" * 200, "€" * 200, "a€" * 100, "\U0001f600" * 100):
        message = refused(peer, name).message
        assert message.startswith("unknown method: ") and name.startswith(message[len("unknown method: ") :])
    with socket.create_server(("127.0.0.1", 0)) as server:

        def answer():
            link = server.accept()[0]
            link.recv(4096)
            link.sendall(b"HTTP/1.0 404 Pas trouv\xe9\r\n\r\n")
            link.close()

        thread = threading.Thread(target=answer)
        thread.start()
        error = refused(peer, "Download", FileType="File", URL=f"http://127.0.0.1:{server.getsockname()[1]}/x")
        thread.join()
    assert error.code == 9010 and "404 Pas trouv\ufffd" in error.message


# --- events ---


def test_one_large_event_ends_no_listener(small):
    listener, sender = small.connect(), small.connect()
    listener.join(20)
    for _ in range(2):
        sender.send_event(20, "x" * (5 << 20))
        sender.send_event(20, "small")
    ask(sender)
    for _ in range(2):
        assert len(listener.event()[1]) == 5 << 20
        assert listener.event() == (20, "small")


@pytest.mark.parametrize("value", [b"[" + b"{}," * 100_000 + b"0]", b"[" * 2000 + b"1,1" * 20_000 + b"]" * 2000], ids=["many", "deep"])
def test_an_event_that_no_client_takes_ends_no_listener(small, kest_start, value):
    listener = kest_start("-l", "-g", "20", to=small)
    listener.wait_for(lambda run: run.catches(signal.SIGINT))
    peer = small.connect()
    peer.join(20)
    sender = small.connect()
    sender.send_raw(b'{"method":"Event","params":{"Id":20,"Value":%b}}\n' % value)
    sender.send_event(20, "after")
    assert peer.event() == (20, "after")
    listener.wait_for('EVENT 20:\n"after"\n')
    listener.interrupt()
    assert listener.finish().out == '\nEVENT 20:\n"after"\n'


def test_a_large_set_ends_no_listener(veld_start, tmp_path):
    parameters = {f"P{n}": {"type": "int", "access": "readWrite", "default": 0} for n in range(20000)}
    model = Path(tmp_path) / "wide.json"
    model.write_text(json.dumps({"format": 1, "root": {"Device": {"type": "object", "children": parameters}}}))
    veld = veld_start(model=model)
    listener, sender = veld.connect(), root(veld)
    listener.join(1)
    for value in range(2):
        entries = [{"Name": f"Device.P{n}", "Value": value} for n in range(20000)]
        assert sender.call("SetParameterValues", ParameterList=entries) == {"Status": 0}
    for value in range(2):
        for n in range(20000):
            assert listener.event()[1] == {"Name": f"Device.P{n}", "Value": value, "User": "root"}


@pytest.mark.load
def test_those_who_read_nothing_leave_room_for_the_answers_of_others(veld_start, tmp_path):
    text = "x" * (6 << 20)
    model = Path(tmp_path) / "long.json"
    children = {"Text": {"type": "string", "default": text}}
    model.write_text(json.dumps({"format": 1, "root": {"Device": {"type": "object", "children": children}}}))
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=model)
    user = root(veld)
    bad = [Peer(veld.tcp_address()) for _ in range(13)]
    for peer in bad:  # 48 MiB each, of which the last ones get nothing any more
        peer.request("GetParameterValues", {"ParameterNames": ["Device.Text"] * 8})
        assert select.select([peer.link], [], [], settings.DEADLINE)[0]
    assert bad[-1].receive()["error"]["code"] == 9004
    entries = user.call("GetParameterValues", ParameterNames=["Device.Text"] * 10)["ParameterList"]
    assert [entry["Value"] == text for entry in entries] == [True] * 10
    assert "127.0.0.1: too much waits to be read: a connection is closed" in veld.log
    assert holds_at_most(veld, 800)


# --- long messages ---


def test_a_long_message_holds_up_nobody(small):
    slow = [small.connect() for _ in range(3)]
    good = small.connect()
    line = b'{"id":1,"method":"Logout","params":[' + b'"x",' * (2 << 20) + b"0]}\n"
    senders = [threading.Thread(target=peer.send_raw, args=(line,)) for peer in slow]
    for sender in senders:
        sender.start()
    while any(sender.is_alive() for sender in senders):
        ask(good)
    for _ in range(20):
        ask(good)
    # They are being read when all of that is answered, each after the other.
    assert not select.select([slow[0].link, slow[1].link, slow[2].link], [], [], 0)[0] or not all(
        select.select([peer.link], [], [], 0)[0] for peer in slow
    )
    for peer in slow:
        assert peer.receive()["error"]["code"] == -32602


def test_requests_behind_a_long_message_are_answered_in_order(small):
    peer = small.connect()
    peer.send_raw(b'{"id":1,"method":"Logout","x":"' + b"x" * 100000 + b'"}\n{"id":2,"method":"Logout"}\n{"id":3,"x":"' + b"y" * 30000)
    peer.send_raw(b'","method":"Logout"}\n{"id":4,"method":"Logout"}\n')
    peer.link.shutdown(socket.SHUT_WR)
    assert [peer.receive()["id"] for _ in range(4)] == [1, 2, 3, 4]
    assert peer.closed()


def test_a_long_message_of_a_user_goes_before_those_of_anybody(small):
    def line(length):
        return b'{"id":1,"method":"Logout","params":[' + b'"x",' * length + b"0]}\n"

    user = root(small)
    anybody = [small.connect() for _ in range(3)]
    for _ in range(20):
        for peer in anybody:
            peer.send_raw(line(1 << 20))
        user.send_raw(line(8 << 10))
        user.receive()
        overtaken = not select.select([anybody[-1].link], [], [], 0)[0]
        for peer in anybody:
            peer.receive()
        if overtaken:
            return
    raise AssertionError("the user always comes last")


def test_long_messages_of_one_address_keep_another_waiting_for_one_of_them(veld_start):
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=SMALL)
    port = int(veld.tcp_address().rpartition(":")[2])

    def stranger(address):
        return Peer(None, socket.create_connection(("127.0.0.1", port), settings.DEADLINE, (address, 0)))

    def line(length):
        return b'{"id":1,"method":"Logout","params":[' + b'"x",' * length + b"0]}"

    flood = [stranger("127.0.0.2") for _ in range(24)]
    other = stranger("127.0.0.3")
    for peer in flood:
        peer.send_raw(line(1 << 17))
    other.send_raw(line(1 << 13))
    for peer in flood:
        peer.send_raw(b"\n")
    other.send_raw(b"\n")
    other.receive()
    answered = select.select([peer.link for peer in flood], [], [], 0)[0]
    assert len(answered) < len(flood) // 2
    for peer in flood:
        peer.receive()


def test_a_client_that_goes_while_its_message_is_read_leaves_nothing(small):
    for _ in range(3):
        peer = small.connect()
        peer.send_raw(b'{"id":1,"method":"Logout","params":[' + b'"x",' * (1 << 18) + b"0]}\n")
        peer.close()
    ask(small.connect())


@pytest.mark.load
def test_small_values_do_not_fill_the_memory(small):
    peer = small.connect()
    peer.send_raw(b'{"id":1,"method":"Logout","params":[' + b"{}," * 1000000 + b"0]}\n")
    assert peer.receive()["error"]["code"] == -32602
    peer.send_raw(b'{"id":1,"method":"Logout","params":[' + b"{}," * (2 << 20) + b"0]}\n")
    assert peer.closed()
    ask(small.connect())
    assert holds_at_most(small, 420)


@pytest.mark.load
def test_memory_goes_back_to_the_system(small):
    def resident():
        status = Path(f"/proc/{small.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+)", status, re.M)[1])

    peer = small.connect()
    peer.call("Logout")
    before = resident()
    peer.send_raw(b'{"id":1,"method":"Logout","params":[' + b"{}," * 1000000 + b"0]}\n")
    assert peer.receive()["error"]["code"] == -32602
    assert small.peak_kib() > before + (128 << 10)
    moment = settings.deadline()
    while resident() > before + (40 << 10):
        assert settings.remaining(moment)


@pytest.mark.load
def test_unfinished_lines_of_those_who_have_not_logged_in_leave_room_for_the_others(small):
    user = root(small)
    bad = [small.connect() for _ in range(250)]
    closed = 0
    for peer in bad:
        try:
            peer.link.sendall(b"x" * 700000)
        except OSError:
            closed += 1
    assert closed > 0 or sum(bool(select.select([peer.link], [], [], 0)[0]) for peer in bad) > 0
    ask(small.connect())
    user.send_raw(b'{"id":1,"method":"Logout","x":"' + b"x" * (40 << 20) + b'"}\n')
    assert user.receive()["result"] == {}
    assert holds_at_most(small, 300)


# --- descriptors ---


def test_nobody_is_locked_out_when_descriptors_run_out(veld_start):
    veld = veld_start("--listen", "tcp://127.0.0.1:0")
    veld.argv = ["prlimit", "--nofile=120:120", *veld.argv]
    veld.restart()
    admin = root(veld)
    names = {"ParameterNames": ["Device.IP.Interface."]}
    before = {entry["Name"].rsplit(".", 1)[0] for entry in admin.call("GetParameterValues", **names)["ParameterList"]}
    address = re.findall(r"^listening on (tcp://\S+)$", veld.log, re.M)[-1]
    held = []
    for target in [address] * 150 + [veld.address] * 150:
        try:
            held.append(Peer(target))
        except OSError:
            pass
    for _ in range(3):
        admin_again = root(veld)
        after = admin_again.call("GetParameterValues", **names)["ParameterList"]
        assert {entry["Name"].rsplit(".", 1)[0] for entry in after} == before
    with Peer(address) as anybody:
        anybody.call("GetParameterValues", ParameterNames=["Device.Time.Enable"])
    assert admin.call("Logout") == {}
    for peer in held:
        peer.close()


def test_without_a_descriptor_left_a_client_is_turned_away(small):
    peer = small.connect()
    for _ in range(2):
        ask(peer)
    used = {int(name) for name in os.listdir(f"/proc/{small.pid}/fd")}
    free = min(set(range(len(used) + 1)) - used)
    before = resource.prlimit(small.pid, resource.RLIMIT_NOFILE, (free, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
    for _ in range(3):
        assert small.connect().closed()
    assert small.log.count("no descriptors left: a client is turned away") == 3
    ask(peer)
    resource.prlimit(small.pid, resource.RLIMIT_NOFILE, before)
    ask(small.connect())


def test_who_has_all_its_links_in_use_gets_no_more(veld_start):
    small = veld_start(model=SMALL)
    small.argv = ["prlimit", "--nofile=64:64", *small.argv]
    small.restart()
    # One on which somebody has logged in gives way to nobody.
    held = []
    with pytest.raises((Closed, OSError)):
        while len(held) < 64:
            held.append(small.connect())
            held[-1].call("Login", User="root")
    assert 30 < len(held) < 48
    assert "too many connections: turned away" in small.log
    for peer in held[:-1]:
        ask(peer)


# --- what runs for users ---


def test_passwords_cost_their_sender_only(small):
    admin, other = root(small), small.connect()
    name = "Device.Users.User.3.Password"

    def passwords(count):
        return {"ParameterList": [{"Name": name, "Value": f"secret {i}"} for i in range(count)]}

    assert refused(admin, "SetParameterValues", **passwords(257)).code == 9004
    many = [root(small) for _ in range(16)]
    # So many in a line that is read at once. Each is named more than once, which is found out when all are hashed.
    busy = admin.request("SetParameterValues", passwords(200))
    numbers = [peer.request("SetParameterValues", passwords(1)) for peer in many]
    ask(other)
    answers = [admin.answer(busy), *(peer.answer(number) for peer, number in zip(many, numbers))]
    said = [answer["error"]["message"] if "error" in answer else answer["result"] for answer in answers]
    assert said.count("too many operations are under way") == 1, said
    assert said.count({"Status": 0}) >= 15, said


def test_one_user_cannot_deny_methods_to_another(veld, silent_server):
    call = {
        "Path": "Device.DNS.Diagnostics.NSLookup",
        "ParameterList": named(HostName="host.example", DNSServer=silent_server, Timeout=30000),
    }
    users = [veld.connect() for _ in range(4)]
    for user in users:
        user.call("Login", User="user", Password="user")
    # Sixteen of all of them run, the others are refused.
    for user, count in zip(users, (4, 20, 20, 20)):
        for _ in range(20):
            user.request("Execute", call)
        assert {user.receive()["error"]["code"] for _ in range(count)} == {9004}
    quick = {"Path": "Device.IP.Diagnostics.IPPing", "ParameterList": named(Host="")}
    assert refused(root(veld), "Execute", **quick).code != 9004


def test_one_user_cannot_deny_downloads_to_another(veld):
    with socket.create_server(("127.0.0.1", 0), backlog=16) as silent:
        request = {"FileType": "File", "URL": f"netcat://127.0.0.1:{silent.getsockname()[1]}"}
        others = [veld.connect() for _ in range(2)]
        for peer in others:
            peer.call("Login", User="admin", Password="admin")
            peer.request("Download", request)
        for peer in others:
            assert refused(peer, "Download", **request).code == 9004
        assert refused(root(veld), "Download", FileType="File", URL="file:///nowhere/at-all").code == 9010


def test_a_transfer_that_drips_ends(veld_start):
    peer = root(veld_start("--download-timeout", "2"))
    with socket.create_server(("127.0.0.1", 0)) as server:
        over = threading.Event()

        def drip():
            link = server.accept()[0]
            try:
                while not over.wait(0.02):
                    link.sendall(b"x")
            except OSError:
                pass
            link.close()

        thread = threading.Thread(target=drip)
        thread.start()
        error = refused(peer, "Download", FileType="File", URL=f"netcat://127.0.0.1:{server.getsockname()[1]}")
        over.set()
        thread.join()
    assert (error.code, error.message) == (9010, "what arrives is too little for too long")


# --- rights ---


def test_a_request_that_waits_does_not_keep_megabytes(small):
    peer = small.connect()
    peer.send({"id": "x" * (1 << 20), "method": "Login", "params": {"User": "admin", "Password": "wrong"}})
    answer = peer.receive()
    assert answer["id"] is None and answer["error"]["code"] == -32600
    peer.send({"id": "x" * 60000, "method": "Logout"})
    assert peer.receive() == {"jsonrpc": "2.0", "id": "x" * 60000, "result": {}}


def test_rights_end_with_the_account_in_open_connections(small):
    admin = root(small)
    user = "Device.Users.User."
    sessions = [small.connect() for _ in range(3)]
    for peer in sessions:
        peer.call("Login", User="user", Password="user")
        peer.call("SaveConfig")
    admin.call("SetParameterValues", ParameterList=[{"Name": user + "2.Enable", "Value": False}])
    assert refused(sessions[0], "SaveConfig").code == 9001
    admin.call("SetParameterValues", ParameterList=[{"Name": user + "2.Enable", "Value": True}])
    assert refused(sessions[1], "SaveConfig").code == 9001
    sessions[1].call("Login", User="user", Password="user")
    admin.call("DeleteObject", ObjectName=user + "2.")
    assert refused(sessions[1], "SaveConfig").code == 9001


def test_rights_change_with_the_role_in_open_connections(small):
    admin, other = root(small), small.connect()
    other.call("Login", User="admin", Password="admin")
    secret = {"ParameterNames": ["Device.Admin.Secret"]}
    assert other.call("GetParameterValues", **secret)["ParameterList"][0]["Value"] == "x"
    entry = {"Name": "Device.Users.User.1.X_VELD_Administrator", "Value": False}
    admin.call("SetParameterValues", ParameterList=[entry])
    assert refused(other, "GetParameterValues", **secret).code == 9001
    assert other.call("SaveConfig") == {"Status": 0}
    admin.call("SetParameterValues", ParameterList=[{**entry, "Value": True}])
    assert other.call("GetParameterValues", **secret)["ParameterList"][0]["Value"] == "x"
    # A factory reset brings back what the factory says.
    admin.call("SetParameterValues", ParameterList=[{**entry, "Value": False}])
    admin.call("FactoryReset")
    assert other.call("GetParameterValues", **secret)["ParameterList"][0]["Value"] == "x"


def test_those_who_guess_keep_the_owner_out_no_longer_than_seconds(small):
    bad = [small.connect() for _ in range(3)]
    for peer in bad:
        for _ in range(3):
            peer.request("Login", {"User": "admin", "Password": "guess"})
    for peer in bad:
        assert peer.receive()["error"]["code"] == 9001
    assert small.connect().call("Login", User="admin", Password="admin") == {}


# --- secrets ---


def test_whoever_leaves_while_logging_in_makes_nobody_wait(veld, silent_server):
    other = veld.connect()
    for _ in range(12):
        with veld.connect() as leaving:
            leaving.call("GetParameterValues", ParameterNames=[])
            leaving.request("Login", {"User": "admin", "Password": "admin"})
        other.call("Login", User="user", Password="user")  # which is judged behind it
    # A delay would be longer than this look-up.
    waiting = root(veld)
    arguments = named(HostName="host.example", DNSServer=silent_server, Timeout=2500)
    waiting.request("Execute", {"Path": "Device.DNS.Diagnostics.NSLookup", "ParameterList": arguments})
    assert veld.connect().call("Login", User="admin", Password="admin") == {}
    waiting.link.setblocking(False)
    with pytest.raises(BlockingIOError):
        waiting.link.recv(1)


def test_those_who_leave_before_their_password_is_looked_at_keep_nobody_waiting(veld_start, tmp_path):
    model = json.loads(SMALL.read_text())
    users = model["root"]["Device"]["children"]["Users"]["children"]["User"]["instances"]
    users["2"]["Password"] = "$6$rounds=1500000$Zk4mWd81sQfYe0Ru$" + "x" * 86  # takes long to compare
    path = Path(tmp_path) / "slow.json"
    path.write_text(json.dumps(model))
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=path)
    before = cpu_seconds(veld.pid)
    guess = {"User": "user", "Password": "guess"}
    assert refused(Peer(veld.tcp_address()), "Login", **guess).code == 9001
    one = cpu_seconds(veld.pid) - before
    before = cpu_seconds(veld.pid)
    leaving = [veld.connect() for _ in range(4)]
    for peer in leaving:
        peer.request("Login", guess)
    for peer in leaving:
        peer.close()
    assert veld.connect().call("Login", User="admin", Password="admin") == {}
    assert cpu_seconds(veld.pid) - before < 2.7 * one  # of four


def test_nobody_reads_a_password_hash(small):
    for peer in (root(small), small.connect()):
        if peer.link:
            peer.call("Login", User="root")
        answer = peer.call("GetParameterValues", ParameterNames=["Device.Users."])
        values = {entry["Name"]: entry["Value"] for entry in answer["ParameterList"]}
        assert values["Device.Users.User.1.Password"] == "" and values["Device.Users.User.1.Username"] == "admin"


def configuration(password):
    user = {"Enable": True, "Username": "eve", "Password": password}
    return json.dumps({"veld-config": 1, "config": {"Device": {"Users": {"User": {"instances": {"1": user}, "max_instance": 1}}}}})


@pytest.mark.parametrize(
    "password, taken",
    [
        ("secret", False),
        ("$6$", False),
        ("$1$abc$abcdefghijklmnopqrstuv", False),
        ("$6$rounds=999999999$salt$" + "a" * 86, False),
        ("$6$salt$" + "a" * 85, False),
        ("$6$salt$" + "a" * 86, True),
        ("$y$j9T$salt$" + "b" * 43, True),
        ("", True),
    ],
)
def test_a_configuration_holds_hashes_or_is_refused(small, tmp_path, password, taken):
    peer = root(small)
    document = Path(tmp_path) / "config"
    document.write_text(configuration(password))
    request = {"FileType": "Config", "URL": f"file://{document}"}
    if taken:
        assert peer.call("Download", **request) == {"Status": 0}
        return
    error = refused(peer, "Download", **request)
    assert (error.code, error.message) == (
        9018,
        "the configuration Device.Users.User.1.Password: is not the hash of a password",
    )
    assert small.connect().call("Login", User="admin", Password="admin") == {}


def test_a_configuration_of_millions_of_values_is_refused(small, tmp_path):
    document = Path(tmp_path) / "config"
    document.write_bytes(b'{"format":1,"config":{"Device":[' + b"[]," * (2 << 20) + b"0]}}")
    peer = root(small)
    error = refused(peer, "Download", FileType="Config", URL=f"file://{document}")
    assert (error.code, error.message) == (9018, "the configuration has too many values")
    document.chmod(0o600)
    assert holds_at_most(small, 128)


def test_a_download_tells_nothing_of_a_file_that_others_may_not_read(small, tmp_path):
    secret = Path(tmp_path) / "shadow"
    secret.write_text("root:$y$j9T$secret:19000:0:99999:7:::\n")
    secret.chmod(0o640)
    peer = root(small)
    for request in ({"FileType": "Config"}, {"FileType": "Firmware"}, {"FileType": "File", "MD5": "0" * 32}):
        error = refused(peer, "Download", URL=f"file://{secret}", **request)
        assert error.code == 9018
        assert error.message in (
            "the configuration is not JSON",
            "not a firmware image",
            "the MD5 of what arrived is another",
        )
    secret.write_text(configuration("secret"))
    assert refused(peer, "Download", FileType="Config", URL=f"file://{secret}").message == "the configuration does not fit"
    assert "secret" not in small.log


def test_an_administrator_from_elsewhere_reads_files_of_everybody_only(veld_start, tmp_path):
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=SMALL)
    peer = Peer(veld.tcp_address())
    peer.call("Login", User="admin", Password="admin")
    secret = Path(tmp_path) / "secret"
    secret.write_text("x")
    secret.chmod(0o600)
    for path in (secret, Path(tmp_path) / "gone"):
        error = refused(peer, "Download", FileType="File", URL=f"file://{path}")
        assert (error.code, error.message) == (9010, f"{path}: cannot be read")
    assert peer.call("Download", FileType="File", URL="file:///etc/passwd") == {"Status": 0}
    peer.close()


# --- starts ---


def test_of_several_starts_at_once_one_survives(small):
    small.stop()
    starts = [
        subprocess.Popen(small.argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        for _ in range(8)
    ]
    try:
        small.process = starts[0]
        moment = settings.deadline()
        while sum(one.poll() is None for one in starts) > 1 and settings.remaining(moment):
            select.select([], [], [], 0.005)
        alive = [one for one in starts if one.poll() is None]
        assert len(alive) == 1
        small.process = alive[0]
        small.wait_until_up()
        ask(small.connect())
        for one in starts:
            if one is not alive[0]:
                assert (one.returncode, one.stderr.read()) == (1, f"veld: {small.address}: another daemon listens there\n")
    finally:
        for one in starts:
            if one is not small.process:
                one.kill()
                one.wait()
            one.stderr.close()
    small.stop()
    assert not list(small.socket.parent.glob(f"{small.socket.name}.lock"))
