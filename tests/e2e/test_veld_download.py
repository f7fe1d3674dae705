"""Firmware, configurations and files that the device fetches."""

import contextlib
import hashlib
import http.server
import json
import os
import re
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

import pytest

from lib import settings
from lib.sandbox import namespace_command
from lib.wire import Closed, WireError

HERE = Path(__file__).parent
STATUS_OK = {"Status": 0}


@pytest.fixture
def model(tmp_path):
    """The small model with the parameters that an upgrade shows itself in."""
    document = json.loads((HERE / "models" / "small.json").read_text())
    document["root"]["Device"]["children"]["DeviceInfo"] = {
        "type": "object",
        "children": {
            "SoftwareVersion": {"type": "string", "default": "1.2.3"},
            "UpgradeProgress": {"type": "unsignedInt", "default": 0, "runtime": True},
            "UpgradeStatus": {"type": "int", "default": 0, "runtime": True},
        },
    }
    path = Path(tmp_path) / "model.json"
    path.write_text(json.dumps(document))
    return path


@pytest.fixture
def state(tmp_path):
    return Path(tmp_path) / "state"


@pytest.fixture
def veld(veld_start, model, state):
    return veld_start(
        "--state", state, "--flash-time", "0.4", "--reboot-time", "0.1", "--download-timeout", "3", model=model
    )


def root(veld):
    peer = veld.connect()
    peer.call("Login", User="root")
    return peer


@pytest.fixture
def peer(veld):
    return root(veld)


def value(peer, name):
    return peer.call("GetParameterValues", ParameterNames=[name])["ParameterList"][0]["Value"]


def refused(peer, **params):
    with pytest.raises(WireError) as error:
        peer.call("Download", **params)
    return error.value


def write(folder, name, content):
    path = Path(folder) / name
    path.write_bytes(content)
    return path, f"file://{path}", hashlib.md5(content).hexdigest()


def image(folder, version="PRODUCT-1.3.0", flags="", size=1000):
    return write(folder, f"{version}.img", f"VELD-FIRMWARE 1 {version}{flags}\n".encode() + os.urandom(size))


class Server:
    """Serves one connection with what `serve` does to it."""

    def __init__(self, serve, host="127.0.0.1"):
        self.socket = socket.create_server((host, 0))
        self.port = self.socket.getsockname()[1]
        self.thread = threading.Thread(target=self._run, args=(serve,), daemon=True)
        self.thread.start()

    def _run(self, serve):
        try:
            link, _ = self.socket.accept()
            with link:
                serve(link)
        except OSError:
            pass

    def close(self):
        self.socket.close()
        self.thread.join(settings.DEADLINE)

    def report(self):
        return f"port {self.port}"


@pytest.fixture
def serve(things):
    def start(what):
        things.append(Server((lambda link: link.sendall(what)) if isinstance(what, bytes) else what))
        return things[-1].port

    return start


# --- files ---


@pytest.mark.parametrize("size", [0, 1, 3 << 20])
@pytest.mark.parametrize("scheme", ["file", "netcat", "http"])
def test_a_file_is_stored_whole(peer, state, tmp_path, serve, size, scheme):
    content = os.urandom(size)
    path, url, md5 = write(tmp_path, "data.bin", content)
    if scheme == "netcat":
        url = f"netcat://127.0.0.1:{serve(content)}"
    elif scheme == "http":
        head = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size
        url = f"http://127.0.0.1:{serve(answer(head + content))}/data.bin"
    result = peer.call("Download", FileType="File", URL=url, MD5=md5.upper(), TargetFileName="stored.bin")
    assert result == STATUS_OK
    assert (state / "files" / "stored.bin").read_bytes() == content
    assert [entry.name for entry in (state / "files").iterdir()] == ["stored.bin"]


def answer(data):
    def serve_http(link):
        request = b""
        while b"\r\n\r\n" not in request:
            request += link.recv(4096)
        assert request.startswith(b"GET /")
        for at in range(0, len(data), 100003):
            link.sendall(data[at : at + 100003])

    return serve_http


def test_a_host_is_found_by_its_name_and_told_it(peer, state, serve):
    heard = []

    def serve_named(link):
        heard.append(link.recv(4096))
        link.sendall(b"HTTP/1.0 200 OK\r\n\r\ncontent")

    port = serve(serve_named)
    assert peer.call("Download", FileType="File", URL=f"http://localhost:{port}/named.cfg") == STATUS_OK
    assert (state / "files" / "named.cfg").read_bytes() == b"content"
    assert f"\r\nHost: localhost:{port}\r\n".encode() in heard[0]


def test_without_a_target_the_url_names_the_file(peer, state, tmp_path, serve):
    _, url, _ = write(tmp_path, "named.cfg", b"x")
    peer.call("Download", FileType="File", URL=url)
    peer.call("Download", FileType="File", URL=f"netcat://127.0.0.1:{serve(b'y')}")
    assert sorted(entry.name for entry in (state / "files").iterdir()) == ["download", "named.cfg"]


def test_a_file_without_a_name_may_be_given_one(peer, state, serve):
    url = f"netcat://127.0.0.1:{serve(b'y')}"
    result = peer.call("Download", FileType="File", URL=url)
    assert result["Status"] == 0
    for name in ("", ".hidden", "a/b"):
        assert refused(peer, FileType="File", TransactionID=result["TransactionID"], TargetFileName=name).code == 9003
    assert refused(peer, FileType="File", TransactionID="other", TargetFileName="x").code == 9003
    named = {"FileType": "File", "TransactionID": result["TransactionID"], "TargetFileName": "mine"}
    assert peer.call("Download", **named) == {"Status": 0}
    assert {entry.name: entry.read_bytes() for entry in (state / "files").iterdir()} == {"mine": b"y"}
    assert refused(peer, **named).code == 9003


def test_a_file_that_cannot_get_its_name_says_so(peer, state, serve):
    def offered():
        return peer.call("Download", FileType="File", URL=f"netcat://127.0.0.1:{serve(b'y')}")["TransactionID"]

    (state / "files").mkdir(exist_ok=True)
    (state / "files" / "folder").mkdir()
    error = refused(peer, FileType="File", TransactionID=offered(), TargetFileName="folder")
    assert (error.code, error.message) == (9010, "folder: Is a directory")
    # Another file has taken its place meanwhile.
    transaction = offered()
    (state / "files" / "download").rename(state / "files" / "kept")
    (state / "files" / "download").write_bytes(b"z")
    error = refused(peer, FileType="File", TransactionID=transaction, TargetFileName="mine")
    assert (error.code, error.message) == (9003, "no such transaction")
    assert sorted(entry.name for entry in (state / "files").iterdir()) == ["download", "folder", "kept"]


@pytest.mark.parametrize("name", ["what?.txt", "a?b=c&d", "50%25", "#1", "ein Blatt.txt", "grün"])
def test_the_name_of_a_local_file_is_taken_as_it_is(peer, state, tmp_path, name):
    folder = tmp_path / "is it?"
    folder.mkdir()
    _, url, _ = write(folder, name, b"x")
    peer.call("Download", FileType="File", URL=url)
    assert [entry.name for entry in (state / "files").iterdir()] == [name]


@pytest.mark.parametrize("name", ["../x", "/etc/x", "a/b", "..", ".", ".hidden", "a\nb", "a\0b", "x" * 300])
def test_no_target_leaves_the_directory(peer, state, tmp_path, name):
    _, url, _ = write(tmp_path, "f", b"x")
    assert refused(peer, FileType="File", URL=url, TargetFileName=name).code == 9003
    assert list((state / "files").iterdir()) == []


def test_a_link_in_the_directory_is_replaced_not_followed(peer, state, tmp_path):
    outside, url, _ = write(tmp_path, "outside", b"kept")
    _, url, _ = write(tmp_path, "f", b"new")
    (state / "files" / "link").symlink_to(outside)
    peer.call("Download", FileType="File", URL=url, TargetFileName="link")
    assert outside.read_bytes() == b"kept"
    assert not (state / "files" / "link").is_symlink() and (state / "files" / "link").read_bytes() == b"new"


def test_files_have_a_directory_of_their_own_choice(veld_start, model, tmp_path):
    folder = Path(tmp_path) / "elsewhere"
    peer = root(veld_start("--files", folder, model=model))
    _, url, _ = write(tmp_path, "f", b"x")
    peer.call("Download", FileType="File", URL=url)
    assert (folder / "f").read_bytes() == b"x"


# --- what goes wrong ---


def test_what_cannot_be_fetched(peer, tmp_path, serve):
    folder, fifo, hidden = (Path(tmp_path) / name for name in ("folder", "fifo", "gone"))
    folder.mkdir()
    os.mkfifo(fifo)
    for path, text in (
        (folder, f"{folder}: not a regular file"),
        (fifo, f"{fifo}: not a regular file"),
        (hidden, f"{hidden}: No such file or directory"),
    ):
        error = refused(peer, FileType="File", URL=f"file://{path}")
        assert (error.code, error.message) == (9010, text)
    with socket.socket() as closed:
        closed.bind(("127.0.0.1", 0))
        error = refused(peer, FileType="File", URL=f"netcat://127.0.0.1:{closed.getsockname()[1]}")
        assert (error.code, error.message) == (9016, "127.0.0.1: Connection refused")
    # No address at all for a connection, without its interface.
    error = refused(peer, FileType="File", URL="http://[fe80::1]/")
    assert error.code == 9016 and error.message.startswith("fe80::1: ")
    error = refused(peer, FileType="File", URL="http://no..host/")
    assert (error.code, error.message) == (9016, "no..host: no such host")
    error = refused(peer, FileType="File", URL=f"http://127.0.0.1:{serve(answer(b'HTTP/1.0 404 Not Found' + b'x' * 4))}/")
    assert error.code == 9010


def test_a_host_that_does_not_answer_is_given_up(peer):
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full:
        waiting = []
        for _ in range(8):  # more than ever fit
            waiting.append(socket.socket())
            waiting[-1].setblocking(False)
            waiting[-1].connect_ex(full.getsockname())
        error = refused(peer, FileType="File", URL=f"netcat://127.0.0.1:{full.getsockname()[1]}")
        for link in waiting:
            link.close()
    assert (error.code, error.message) == (9016, "127.0.0.1: Connection timed out")


@pytest.mark.skipif(namespace_command() is None, reason="needs mounts of its own")
def test_the_next_address_of_a_host_is_tried(veld, state, things, tmp_path):
    hosts = Path(tmp_path) / "hosts"
    hosts.write_text("127.0.0.1 two.example\n127.0.0.2 two.example\n127.0.0.1 one.example\n")
    veld.argv = [*namespace_command(), "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', str(hosts), *veld.argv]
    peer = root(veld.restart())
    # Nobody may listen at the other address, either.
    refusing = socket.socket()
    while refusing.getsockname()[1] == 0:
        things.append(Server(answer(b"HTTP/1.0 200 OK\r\n\r\ncontent"), "127.0.0.2"))
        port = things[-1].port
        with contextlib.suppress(OSError):
            refusing.bind(("127.0.0.1", port))
    assert peer.call("Download", FileType="File", URL=f"http://two.example:{port}/f") == STATUS_OK
    assert (state / "files" / "f").read_bytes() == b"content"
    error = refused(peer, FileType="File", URL=f"http://one.example:{port}/f")
    assert (error.code, error.message) == (9016, "one.example: Connection refused")
    refusing.close()


@pytest.mark.parametrize("ends", ["well", "early"])
def test_a_request_may_take_its_time(peer, state, serve, ends):
    path = "/" + "x" * (12 << 20)  # more than is ever under way
    heard = bytearray()

    def reads_late(link):
        heard.extend(link.recv(1))
        if ends == "early":
            link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        while not heard.endswith(b"\r\n\r\n"):
            heard.extend(link.recv(1 << 20))
        link.sendall(b"HTTP/1.0 200 OK\r\n\r\ncontent")

    download = {"FileType": "File", "URL": f"http://127.0.0.1:{serve(reads_late)}{path}", "TargetFileName": "f"}
    if ends == "early":
        error = refused(peer, **download)
        assert error.code == 9010 and re.fullmatch("127.0.0.1: (Connection reset by peer|Broken pipe)", error.message)
    else:
        assert peer.call("Download", **download) == STATUS_OK
        assert bytes(heard).startswith(f"GET {path} HTTP/1.0\r\n".encode())


def test_a_request_that_goes_out_bit_by_bit_is_no_stall(veld, serve):
    veld.argv[veld.argv.index("--download-timeout") + 1] = "0.5"
    peer = root(veld.restart())
    heard = bytearray()

    def sips(link):
        link.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 64 << 10)
        while not heard.endswith(b"\r\n\r\n"):
            heard.extend(link.recv(256 << 10))
            if len(heard) < 8 << 20:  # what the system has taken from the daemon is out of its sight
                time.sleep(0.03)
        link.sendall(b"HTTP/1.0 200 OK\r\n\r\ncontent")

    path = "/" + "x" * (12 << 20)
    assert peer.call("Download", FileType="File", URL=f"http://127.0.0.1:{serve(sips)}{path}", TargetFileName="f") == STATUS_OK


@pytest.mark.parametrize("data", [b"HTTP/1.0 200 OK\nA: b\n\none\r\n\r\ntwo", b"HTTP/1.0 200 OK\r\nA: b\r\n\r\none\n\ntwo"])
def test_the_first_empty_line_ends_a_header(peer, state, serve, data):
    assert peer.call("Download", FileType="File", URL=f"http://127.0.0.1:{serve(answer(data))}/lines") == STATUS_OK
    assert (state / "files" / "lines").read_bytes() == data[data.index(b"one") :]


@pytest.mark.parametrize(
    "data",
    [
        b"HTTP/1.0 404 Not Found\r\n\r\nnothing here",
        b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort",
        b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
        b"SSH-2.0-server\r\n\r\n",
        b"",
        b"HTTP/1.1 200 OK\r\n" + b"X: y\r\n" * 20000,
    ],
)
def test_http_answers_that_are_no_file(peer, serve, data):
    assert refused(peer, FileType="File", URL=f"http://127.0.0.1:{serve(answer(data))}/x").code == 9010


@pytest.mark.parametrize(
    "params, text",
    [
        ({"FileType": "Other", "URL": "file:///x"}, '"FileType" must be "Firmware", "Config" or "File"'),
        ({"FileType": "File"}, "a URL is needed"),
        ({"FileType": "File", "URL": ""}, "a URL is needed"),
        ({"FileType": "File", "URL": "ftp://x/y"}, "only file, netcat and http URLs can be fetched"),
        ({"FileType": "File", "URL": "file://relative"}, "a file URL needs an absolute path"),
        ({"FileType": "File", "URL": "netcat://host:1"}, "a netcat URL has the form netcat://IPv4:PORT"),
        ({"FileType": "File", "URL": "netcat://1.2.3.4:0"}, "a netcat URL has the form netcat://IPv4:PORT"),
        ({"FileType": "File", "URL": "http://h/a b"}, "not a good http URL"),
        ({"FileType": "File", "URL": "http://u@h/"}, "not a good http URL"),
        ({"FileType": "File", "URL": "http://h/\r\nX: y"}, "not a good http URL"),
        ({"FileType": "File", "URL": "file:///x", "MD5": "12"}, '"MD5" must be 32 hexadecimal digits'),
        ({"FileType": "Config", "TransactionID": "x"}, "only a firmware has a transaction"),
        ({"FileType": "Firmware", "TransactionID": "x"}, "no such transaction"),
    ],
)
def test_bad_arguments(peer, params, text):
    error = refused(peer, **params)
    assert (error.code, error.message) == (9003, text)


def test_only_administrators_download(veld):
    assert refused(veld.connect(), FileType="File", URL="file:///etc/hostname").code == 9001
    user = veld.connect()
    user.call("Login", User="user", Password="user")
    assert refused(user, FileType="File", URL="file:///etc/hostname").code == 9001


def test_a_wrong_md5_is_told(peer, state, tmp_path):
    _, url, md5 = write(tmp_path, "f", b"content")
    error = refused(peer, FileType="File", URL=url, MD5="0" * 32)
    assert (error.code, error.message) == (9018, f"the MD5 of what arrived is {md5}")
    assert list((state / "files").iterdir()) == []


def test_a_source_that_stops_ends_in_time_and_delays_nobody(peer, veld, serve, state):
    release = threading.Event()

    def stops(link):
        link.sendall(b"a bit")
        release.wait(settings.DEADLINE)

    other = veld.connect()
    number = peer.request("Download", {"FileType": "File", "URL": f"netcat://127.0.0.1:{serve(stops)}"})
    assert value(other, "Device.Serial") == "S1"
    assert value(peer, "Device.Serial") == "S1"
    message = peer.answer(number)
    release.set()
    assert message["error"] == {"code": 9010, "message": "nothing arrived for too long"}
    assert list((state / "files").iterdir()) == []


def test_a_client_that_leaves_ends_its_transfer(veld, serve, state):
    ended = threading.Event()

    def endless(link):
        try:
            while True:
                link.sendall(b"x" * 1000)
                time.sleep(0.005)
        except OSError:
            ended.set()

    peer = root(veld)
    peer.request("Download", {"FileType": "File", "URL": f"netcat://127.0.0.1:{serve(endless)}"})
    moment = settings.deadline()
    while not list((state / "files").iterdir()) and settings.remaining(moment):
        time.sleep(0.005)
    peer.close()
    assert ended.wait(settings.DEADLINE)
    while list((state / "files").iterdir()) and settings.remaining(moment):
        time.sleep(0.005)
    assert list((state / "files").iterdir()) == []


def test_a_killed_daemon_leaves_nothing_unfinished(veld_start, model, serve, state):
    veld = veld_start("--state", state, "--download-timeout", str(settings.DEADLINE), model=model)
    release = threading.Event()

    def stops(link):
        link.sendall(b"a bit")
        release.wait(settings.DEADLINE)

    peer = root(veld)
    for kind in ("File", "Firmware"):
        peer.request("Download", {"FileType": kind, "URL": f"netcat://127.0.0.1:{serve(stops)}"})
    moment = settings.deadline()
    while not (list((state / "files").iterdir()) and list((state / "spool").iterdir())):
        assert settings.remaining(moment)
        time.sleep(0.005)
    (state / "files" / "stored").write_bytes(b"x")
    veld.kill()
    veld.start()
    release.set()
    assert [entry.name for entry in (state / "files").iterdir()] == ["stored"]
    assert list((state / "spool").iterdir()) == []


def test_more_than_the_limit_is_refused(veld_start, model, tmp_path, serve):
    peer = root(veld_start("--download-limit", "1000", model=model))
    _, url, _ = write(tmp_path, "f", b"x" * 1001)
    error = refused(peer, FileType="File", URL=url)
    assert (error.code, error.message) == (9010, "larger than 1000 bytes")
    for size, message in ((1001, "larger than 1000 bytes"), (1000, None)):
        url = f"netcat://127.0.0.1:{serve(b'x' * size)}"
        answer = peer.answer(peer.request("Download", {"FileType": "File", "URL": url, "TargetFileName": "g"}))
        assert answer.get("error", {}).get("message") == message
    _, url, _ = write(tmp_path, "f", b"x" * 1000)
    assert peer.call("Download", FileType="File", URL=url) == STATUS_OK


def test_too_many_at_once(peer, serve):
    release = threading.Event()
    for _ in range(2):
        url = f"netcat://127.0.0.1:{serve(lambda link: release.wait(settings.DEADLINE))}"
        peer.request("Download", {"FileType": "File", "URL": url})
    assert refused(peer, FileType="File", URL="file:///etc/hostname").code == 9004
    release.set()


# --- configurations ---


def test_a_configuration_replaces_what_was_there_and_stays(peer, veld, tmp_path):
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Level", "Value": 9}])
    config = {
        "veld-config": 1,
        "config": {"Device": {"Name": "fresh", "Host": {"instances": {"1": {"Alias": "two"}, "7": {"Alias": "one"}}}}},
    }
    _, url, md5 = write(tmp_path, "c.json", json.dumps(config).encode())
    assert peer.call("Download", FileType="Config", URL=url, MD5=md5) == STATUS_OK
    for _ in range(2):
        assert value(peer, "Device.Name") == "fresh"
        assert value(peer, "Device.Level") == 5
        answer = peer.call("GetParameterNames", ParameterPath="Device.Host.", NextLevel=True)
        assert [entry["Name"] for entry in answer["ParameterList"]][:2] == ["Device.Host.1.", "Device.Host.7."]
        veld.kill()
        veld.start()
        peer = root(veld)


def test_a_saved_configuration_can_be_downloaded_again(peer, veld, state, tmp_path):
    peer.call("AddObject", ObjectName="Device.Search.", Order=1)
    changes = {"Device.Name": "mine", "Device.Key": "k2", "Device.Users.User.2.Password": "new", "Device.Search.3": "first"}
    peer.call("SetParameterValues", ParameterList=[{"Name": k, "Value": v} for k, v in changes.items()])
    peer.call("SaveConfig")
    before = peer.call("GetParameterValues", ParameterNames=["."])
    _, url, _ = write(tmp_path, "c.json", (state / "config.json").read_bytes())
    peer.call("FactoryReset")
    assert peer.call("GetParameterValues", ParameterNames=["."]) != before
    assert peer.call("Download", FileType="Config", URL=url) == STATUS_OK
    assert peer.call("GetParameterValues", ParameterNames=["."]) == before


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"not json",
        b"{}",
        b'{"veld-config":2,"config":{}}',
        b'{"veld-config":1}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Level":99}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Nothing":1}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Serial":"x"}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Volatile":1}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Host":{"instances":{"1":{"Alias":"a"},"2":{"Alias":"a"}}}}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Host":{"instances":{"1":{},"2":{},"3":{},"4":{},"5":{}}}}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Search":{"order":[1]}}}}',
        b'{"veld-config":1,"config":{"Device":{"Name":"good","Search":{"instances":{}}}}}',
    ],
)
def test_a_configuration_that_does_not_fit_changes_nothing(peer, tmp_path, content):
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": "before"}])
    before = peer.call("GetParameterValues", ParameterNames=["."])
    _, url, _ = write(tmp_path, "c.json", content)
    assert refused(peer, FileType="Config", URL=url).code == 9018
    assert peer.call("GetParameterValues", ParameterNames=["."]) == before


def test_a_configuration_that_cannot_be_saved_changes_nothing(peer, state, tmp_path):
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": "before"}])
    _, url, _ = write(tmp_path, "c.json", b'{"veld-config":1,"config":{"Device":{"Name":"after"}}}')
    (state / "config.json.new").mkdir()  # in the way of what is written
    error = refused(peer, FileType="Config", URL=url)
    assert error.code == 9002 and error.message.startswith("the configuration cannot be saved: ")
    assert value(peer, "Device.Name") == "before"


# --- firmware ---


def flash_to_the_end(peer):
    """What the two parameters show until the device goes down."""
    seen = []
    try:
        while True:
            seen.append((value(peer, "Device.DeviceInfo.UpgradeProgress"), value(peer, "Device.DeviceInfo.UpgradeStatus")))
            time.sleep(0.01)
    except (Closed, BrokenPipeError):
        return seen


def flashing_takes(veld, seconds):
    """The same daemon, with more time for what happens while it flashes."""
    veld.argv[veld.argv.index("--flash-time") + 1] = str(seconds)
    return root(veld.restart())


def test_an_upgrade_from_the_first_request_to_the_new_version(veld, state, tmp_path):
    peer, listener = flashing_takes(veld, 2), veld.connect()
    listener.join(2)
    path, url, md5 = image(tmp_path)
    result = peer.call("Download", FileType="Firmware", URL=url, MD5=md5)
    saved, transaction = result.pop("SavedFirmware"), result.pop("TransactionID")
    assert result == {"Status": 1, "CurrentVersion": "1.2.3", "NewVersion": "PRODUCT-1.3.0"}
    assert Path(saved).read_bytes() == path.read_bytes() and saved.startswith(str(state))
    assert len(transaction) == 32
    confirm = {"FileType": "Firmware", "URL": f"file://{saved}", "MD5": md5, "TransactionID": transaction}
    assert peer.call("Download", **confirm) == STATUS_OK
    # Good for one decision only.
    assert refused(peer, **confirm).code == 9003
    assert refused(peer, FileType="Firmware", URL=url).code == 9001
    seen = flash_to_the_end(peer)
    progress = [percent for percent, _ in seen]
    assert progress == sorted(progress) and progress[-1] == 100 and len(set(progress)) > 3
    assert {status for _, status in seen} == {1}
    assert listener.event() == (2, {"Action": "Upgrade"})
    veld.wait_until_up()
    for _ in range(2):
        again = root(veld)
        assert value(again, "Device.DeviceInfo.SoftwareVersion") == "PRODUCT-1.3.0"
        assert value(again, "Device.DeviceInfo.UpgradeStatus") == 0
        assert value(again, "Device.DeviceInfo.UpgradeProgress") == 0
        again.call("FactoryReset")
        assert value(again, "Device.DeviceInfo.SoftwareVersion") == "PRODUCT-1.3.0"
        assert not Path(saved).exists()
        veld.kill()
        veld.start()


@pytest.mark.parametrize("version", ["1.2.3", "1.02.3", "1.2.3.0"])
def test_an_equal_version_is_flashed_at_once(peer, veld, tmp_path, version):
    _, url, _ = image(tmp_path, version)
    result = peer.call("Download", FileType="Firmware", URL=url)
    assert (result["Status"], result["CurrentVersion"], result["NewVersion"]) == (0, "1.2.3", version)
    assert flash_to_the_end(peer)[-1] == (100, 1)


@pytest.mark.parametrize("version", ["1.2.30", "1.2.3.1", "11.2.3", "X-1.2.3"])
def test_another_version_waits(peer, tmp_path, version):
    assert peer.call("Download", FileType="Firmware", URL=image(tmp_path, version)[1])["Status"] == 1


def test_a_cancelled_image_is_dropped(peer, tmp_path):
    _, url, _ = image(tmp_path)
    result = peer.call("Download", FileType="Firmware", URL=url)
    cancel = {"FileType": "Firmware", "TransactionID": result["TransactionID"]}
    assert refused(peer, FileType="Firmware", TransactionID="0" * 32).code == 9003
    assert Path(result["SavedFirmware"]).exists()
    assert peer.call("Download", **cancel) == STATUS_OK
    assert not Path(result["SavedFirmware"]).exists()
    assert refused(peer, **cancel).code == 9003
    assert refused(peer, **cancel, URL=f"file://{result['SavedFirmware']}").code == 9003
    assert value(peer, "Device.DeviceInfo.UpgradeStatus") == 0


def test_a_new_image_takes_the_place_of_one_that_waits(peer, tmp_path):
    first = peer.call("Download", FileType="Firmware", URL=image(tmp_path)[1])
    second = peer.call("Download", FileType="Firmware", URL=image(tmp_path, "2.0.0")[1])
    assert first["TransactionID"] != second["TransactionID"]
    assert refused(peer, FileType="Firmware", TransactionID=first["TransactionID"]).code == 9003
    wrong = refused(peer, FileType="Firmware", TransactionID=second["TransactionID"], URL="file:///etc/passwd")
    assert (wrong.code, wrong.message) == (9003, '"URL" must be the saved firmware')
    assert peer.call("Download", FileType="Firmware", TransactionID=second["TransactionID"]) == STATUS_OK


@pytest.mark.parametrize("flags, status", [(" fail", -1), (" fail=-7", -7)])
def test_a_failed_flash_shows_a_negative_status_and_the_old_version_stays(peer, veld, tmp_path, flags, status):
    result = peer.call("Download", FileType="Firmware", URL=image(tmp_path, flags=flags)[1])
    confirm = {"URL": f"file://{result['SavedFirmware']}", "TransactionID": result["TransactionID"]}
    assert peer.call("Download", FileType="Firmware", **confirm) == STATUS_OK
    moment = settings.deadline()
    while value(peer, "Device.DeviceInfo.UpgradeStatus") == 1 and settings.remaining(moment):
        time.sleep(0.01)
    assert value(peer, "Device.DeviceInfo.UpgradeStatus") == status
    assert value(peer, "Device.DeviceInfo.SoftwareVersion") == "1.2.3"
    # The next one goes through.
    result = peer.call("Download", FileType="Firmware", URL=image(tmp_path, "1.2.4")[1])
    confirm = {"URL": f"file://{result['SavedFirmware']}", "TransactionID": result["TransactionID"]}
    assert peer.call("Download", FileType="Firmware", **confirm) == STATUS_OK
    assert flash_to_the_end(peer)[-1] == (100, 1)


def test_a_kill_in_the_middle_of_flashing_leaves_the_old_version(veld, tmp_path):
    peer = flashing_takes(veld, 60)
    result = peer.call("Download", FileType="Firmware", URL=image(tmp_path)[1])
    confirm = {"URL": f"file://{result['SavedFirmware']}", "TransactionID": result["TransactionID"]}
    peer.call("Download", FileType="Firmware", **confirm)
    veld.kill()
    veld.start()
    assert value(root(veld), "Device.DeviceInfo.SoftwareVersion") == "1.2.3"
    assert not Path(result["SavedFirmware"]).exists()


@pytest.mark.parametrize(
    "content, text",
    [
        (b"", "not a firmware image"),
        (b"VELD-FIRMWARE 1 1.2.3", "not a firmware image"),
        (b"\x7fELF\n", "not a firmware image"),
        (b"VELD-FIRMWARE 2 1.2.3\n", "a firmware image of an unknown format"),
        (b"VELD-FIRMWARE 1 1.2\n", "the firmware image has no good version"),
        (b"VELD-FIRMWARE 1 -1.2.3\n", "the firmware image has no good version"),
        (b"VELD-FIRMWARE 1 1.2.x\n", "the firmware image has no good version"),
        (b"VELD-FIRMWARE 1 \n", "the firmware image has no good version"),
        (b"VELD-FIRMWARE 1 1.2.3 quick\n", 'the firmware image has the unknown flag "quick"'),
        (b"VELD-FIRMWARE 1 1.2.3 fail=1\n", 'the firmware image has the unknown flag "fail=1"'),
        (b"VELD-FIRMWARE 1 " + b"9" * 400 + b"\n", "not a firmware image"),
    ],
)
def test_what_is_no_firmware_is_refused(peer, state, tmp_path, content, text):
    _, url, _ = write(tmp_path, "image", content)
    error = refused(peer, FileType="Firmware", URL=url)
    assert (error.code, error.message) == (9018, text)
    assert list((state / "spool").iterdir()) == []


def test_images_are_made_by_the_daemon_itself(peer, tmp_path):
    payload, _, _ = write(tmp_path, "payload", os.urandom(100000))
    made = Path(tmp_path) / "made.img"
    command = [settings.VELD, "--make-image", "BOX-2.0.1", "--payload", payload, "--output", made]
    subprocess.run(command, check=True, timeout=settings.DEADLINE)
    assert made.read_bytes() == b"VELD-FIRMWARE 1 BOX-2.0.1\n" + payload.read_bytes()
    assert peer.call("Download", FileType="Firmware", URL=f"file://{made}")["NewVersion"] == "BOX-2.0.1"
    bad = subprocess.run([settings.VELD, "--make-image", "new"], capture_output=True, text=True, timeout=settings.DEADLINE)
    assert bad.returncode == 1 and bad.stdout == ""


def test_an_image_that_cannot_be_made_leaves_what_was_there(tmp_path):
    made = Path(tmp_path) / "made.img"
    made.write_text("old")
    # What can be opened and not read.
    command = [settings.VELD, "--make-image", "BOX-2.0.1", "--payload", tmp_path, "--output", made]
    done = subprocess.run(command, capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (done.returncode, done.stderr) == (1, f"veld: {tmp_path}: Is a directory\n")
    assert made.read_text() == "old" and [each.name for each in Path(tmp_path).iterdir()] == ["made.img"]
    # What is not there, and where there is no room.
    payload = Path(tmp_path) / "payload"
    command = [settings.VELD, "--make-image", "BOX-2.0.1", "--payload", payload]
    done = subprocess.run(command, capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (done.returncode, done.stderr) == (1, f"veld: {payload}: No such file or directory\n")
    payload.write_bytes(bytes(1000))
    with open("/dev/full", "w") as full:
        done = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, text=True, timeout=settings.DEADLINE)
    assert (done.returncode, done.stderr) == (1, "veld: standard output: No space left on device\n")
    small = ["prlimit", "--fsize=100", "env", "--ignore-signal=XFSZ", *command, "--output", made]
    done = subprocess.run(small, capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (done.returncode, done.stderr) == (1, f"veld: {made}: File too large\n")
    payload.unlink()
    assert made.read_text() == "old" and [each.name for each in Path(tmp_path).iterdir()] == ["made.img"]
    # What is no file is written to, not replaced.
    os.mkfifo(Path(tmp_path) / "pipe")
    reader = subprocess.Popen(["cat", Path(tmp_path) / "pipe"], stdout=subprocess.PIPE)
    command = [settings.VELD, "--make-image", "BOX-2.0.1", "--output", Path(tmp_path) / "pipe"]
    subprocess.run(command, check=True, timeout=settings.DEADLINE)
    assert reader.communicate(timeout=settings.DEADLINE)[0] == b"VELD-FIRMWARE 1 BOX-2.0.1\n"


@pytest.mark.load
def test_a_large_image_needs_no_memory(veld, peer, tmp_path):
    _, url, md5 = image(tmp_path, size=100 << 20)
    assert peer.call("Download", FileType="Firmware", URL=url, MD5=md5, timeout=60)["Status"] == 1
    assert veld.peak_kib() < 30 << 10


def test_a_directory_made_for_one_run_goes_with_it(veld_start, model, tmp_path):
    veld = veld_start(model=model)
    result = root(veld).call("Download", FileType="Firmware", URL=image(tmp_path)[1])
    saved = Path(result["SavedFirmware"])
    assert saved.exists() and saved.parent.parent.name.startswith("veld-")
    veld.stop()
    assert not saved.parent.parent.exists()
