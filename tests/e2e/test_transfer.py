"""Firmware, configuration and files on their way to the device: every request and every message of download and upgrade."""

import hashlib
import os
import socket
import threading
import time

import pytest

from lib.fake import Close, Error, Slow

pytestmark = pytest.mark.threads

PROGRESS = ["Device.DeviceInfo.UpgradeProgress", "Device.DeviceInfo.UpgradeStatus"]
SYNTAX = "syntax: {} <firmware|config|file> <path_to_file> [<target_file_name>]\n"


def md5(data):
    return hashlib.md5(data).hexdigest()


def offer(current, new, **more):
    return {"Status": 1, "CurrentVersion": current, "NewVersion": new, "SavedFirmware": "/saved/image",
            "TransactionID": "t-1", **more}


def progress(percent, status=1):
    names = zip(PROGRESS, (percent, status))
    return {"ParameterList": [{"Name": name, "Value": value} for name, value in names]}


@pytest.fixture
def flashing(fake):
    """A daemon that flashes in one poll and goes down in the next."""
    fake.on("GetParameterValues", progress(40), Close())
    fake.on("GetParameterAttributes", {"ParameterList": []})
    return fake


@pytest.fixture
def image(tmp_path):
    path = tmp_path / "image.bin"
    path.write_bytes(b"firmware")
    return path


# The words


@pytest.mark.parametrize("words", [(), ("firmware",), ("image", "x"), ("config", "a", "b", "c"), ("Config", "a")])
def test_wrong_words_send_nothing(fake, kest, words):
    run = kest("-r", "download", *words, to=fake)
    assert (run.out, run.status) == (SYNTAX.format("download"), 255)
    assert fake.methods() == ["JoinGroup"]


def test_the_method_name_stands_in_the_syntax(fake, kest):
    assert kest("-r", "Download", "x", to=fake).out == SYNTAX.format("Download")


def test_upgrade_speaks_as_download(fake, kest):
    run = kest("-r", "upgrade", to=fake)
    assert (run.out, run.status) == (SYNTAX.format("download"), 255)


def test_a_file_that_is_not_there_is_a_wrong_word(fake, kest):
    run = kest("-r", "download", "config", "/no/such/file", to=fake)
    assert (run.out, run.status) == (SYNTAX.format("download"), 255)
    assert fake.methods() == ["JoinGroup"]


# Where the daemon gets the file


def test_a_local_file_goes_by_its_absolute_path(fake, kest, tmp_path):
    fake.on("Download", {"Status": 0})
    (tmp_path / "dir").mkdir()
    (tmp_path / "dir" / "x.cfg").write_bytes(b"abc")
    run = kest("-r", "download", "config", "dir/../dir/x.cfg", to=fake)
    assert (run.out, run.status) == ("", 0)
    assert fake.params("Download") == [
        {"FileType": "Config", "URL": f"file://{tmp_path}/dir/x.cfg", "MD5": md5(b"abc")}]


def test_a_target_name_is_passed_on(fake, kest, image):
    fake.on("Download", {"Status": 0})
    assert kest("-r", "download", "file", image.name, "target.txt", to=fake).status == 0
    assert fake.params("Download")[0]["TargetFileName"] == "target.txt"
    assert fake.params("Download")[0]["FileType"] == "File"


def test_a_url_is_sent_untouched_and_without_a_digest(fake, kest):
    fake.on("Download", {"Status": 0})
    assert kest("-r", "download", "config", "http://host/../x y", to=fake).status == 0
    assert fake.params("Download") == [{"FileType": "Config", "URL": "http://host/../x y"}]


def test_a_relative_path_with_a_colon_is_a_file(fake, kest, tmp_path):
    fake.on("Download", {"Status": 0})
    (tmp_path / "a:b").write_bytes(b"")
    assert kest("-r", "download", "file", "a:b", to=fake).status == 0
    assert fake.params("Download") == [{"FileType": "File", "URL": f"file://{tmp_path}/a:b", "MD5": md5(b"")}]


@pytest.mark.parametrize("make", [lambda path: path.mkdir(), lambda path: os.mkfifo(path)], ids=["directory", "fifo"])
def test_what_is_no_plain_file_has_no_digest(fake, kest, tmp_path, make):
    fake.on("Download", Error(9010, "not a file"))
    make(tmp_path / "odd")
    run = kest("-r", "download", "file", "odd", to=fake)
    assert (run.out, run.status) == ("[9010] File transfer failure: not a file\n", 255)
    assert "MD5" not in fake.params("Download")[0]


def test_a_refusal_is_shown(fake, kest, image):
    fake.on("Download", Error(9018, "bad image", {"MD5": "differs"}))
    run = kest("-r", "upgrade", image.name, to=fake)
    assert (run.out, run.status) == ('[9018] File corrupted or unusable: bad image\nMD5: "differs"\n', 255)


# The one-shot server


def fetch(url, pieces=None):
    host, port = url.removeprefix("netcat://").split(":")
    with socket.create_connection((host, int(port)), 10) as link:
        data = b""
        while piece := link.recv(65536):
            data += piece
            if pieces is not None and len(data) >= pieces:
                break
        return data


@pytest.fixture
def remote(fake_start):
    """A daemon behind a TCP link."""
    return fake_start("tcp://127.0.0.1:0")


@pytest.mark.parametrize("size", [0, 1, 5000, 20_000_000])
def test_over_tcp_the_client_serves_the_file(remote, kest, tmp_path, size):
    data = os.urandom(size)
    (tmp_path / "f.bin").write_bytes(data)
    got = []

    def download(request):
        got.append(fetch(request.params["URL"]))
        return {"Status": 0}

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    url = remote.params("Download")[0]["URL"]
    assert run.out == f"Sending file (f.bin, {size} bytes) via netcat ({url})...\n"
    assert run.status == 0
    assert got == [data]
    assert remote.params("Download") == [{"FileType": "File", "URL": url, "MD5": md5(data)}]


def test_a_one_shot_ends_only_after_its_transfer(remote, kest, tmp_path):
    (tmp_path / "f.bin").write_bytes(b"late")
    got = []

    def download(request):
        threading.Timer(0.5, lambda: got.append(fetch(request.params["URL"]))).start()
        return {"Status": 0}

    remote.on("Download", download)
    assert kest("-r", "download", "file", "f.bin", to=remote).status == 0
    assert got == [b"late"]


def test_a_file_that_cannot_be_mapped_still_sends_the_request(remote, kest, tmp_path):
    remote.on("Download", Error(9010, "no URL"))
    run = kest("-r", "download", "config", "missing", to=remote)
    assert run.out == "Cannot open file (missing), aborting.\n[9010] File transfer failure: no URL\n"
    assert remote.params("Download") == [{"FileType": "Config", "URL": ""}]


def test_an_ipv6_link_has_no_local_address(fake_start, kest, image):
    try:
        daemon = fake_start("tcp://[::1]:0")
    except OSError:
        pytest.skip("this machine has no IPv6")
    daemon.on("Download", {"Status": 0})
    run = kest("-r", "download", "file", image.name, to=daemon)
    assert run.out == "Cannot get local address, aborting.\n"
    assert daemon.params("Download")[0]["URL"] == ""


def test_an_error_answer_ends_the_server(remote, kest, image):
    remote.on("Download", Error(9001, "no"))
    begin = time.monotonic()
    run = kest("-r", "download", "file", image.name, to=remote)
    assert run.out.endswith("...\n[9001] Request denied: no\n")
    assert time.monotonic() - begin < 5, "nobody waits ten seconds for a daemon that said no"
    url = remote.params("Download")[0]["URL"]
    with pytest.raises(OSError):
        fetch(url)


@pytest.mark.deadline(40)
def test_a_daemon_that_never_connects_is_waited_for_ten_seconds(remote, kest, image):
    remote.on("Download", {"Status": 0})
    begin = time.monotonic()
    run = kest("-r", "download", "file", image.name, to=remote, timeout=30)
    assert run.out.endswith("...\nWaiting timeout, abort.\n")
    assert 9 < time.monotonic() - begin


def test_a_daemon_that_stops_in_the_middle_is_told(remote, kest, tmp_path):
    (tmp_path / "f.bin").write_bytes(os.urandom(30_000_000))

    def download(request):
        fetch(request.params["URL"], 1000)
        return {"Status": 0}

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    last = run.lines[-1]
    assert last.startswith("send() failed (expected 30000000 bytes, transferred ") and last.endswith(" bytes), abort.")


def test_strangers_are_turned_away_and_the_daemon_still_served(fake_start, kest, tmp_path):
    daemon = fake_start("tcp://127.0.0.1:0")
    (tmp_path / "f.bin").write_bytes(b"for the daemon")
    got = []

    def download(request):
        host, port = request.params["URL"].removeprefix("netcat://").split(":")
        stranger = socket.socket()
        stranger.bind(("127.0.0.77", 0))
        stranger.connect((host, int(port)))
        stranger.settimeout(10)
        got.append(stranger.recv(100))
        got.append(fetch(request.params["URL"]))
        return {"Status": 0}

    daemon.on("Download", download)
    assert kest("-r", "download", "file", "f.bin", to=daemon).status == 0
    assert got == [b"", b"for the daemon"]


# Firmware


def bar(run):
    return [line for line in run.lines if line.startswith("Flashing:")]


@pytest.mark.parametrize("current, new, message", [
    ("1.2.3", "1.2.4", "Build upgrade..."),
    ("1.2.3", "1.2.2", "Build downgrade..."),
    ("1.2.3", "1.3.0", "Minor upgrade..."),
    ("1.2.3", "1.1.9", "Minor downgrade..."),
    ("1.2.3", "odd", None),
])
def test_a_small_step_is_confirmed_at_once(flashing, kest, image, current, new, message):
    flashing.on("Download", offer(current, new), {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing)
    assert run.status == 0
    assert run.lines[:1] == ([message] if message else bar(run)[:1])
    first = {"FileType": "Firmware", "URL": f"file://{image}", "MD5": md5(b"firmware")}
    assert flashing.params("Download") == [
        first, {**first, "URL": "file:///saved/image", "TransactionID": "t-1"}]
    assert flashing.params("GetParameterValues") == [{"ParameterNames": PROGRESS}] * 2
    assert "Rebooting..." in run.out


def test_equal_versions_are_not_confirmed(flashing, kest, image):
    flashing.on("Download", offer("1.2.3", "1.2.3"))
    assert kest("-r", "upgrade", image.name, to=flashing).status == 0
    assert len(flashing.of("Download")) == 1
    assert len(flashing.of("GetParameterValues")) == 2


def test_nothing_to_confirm_goes_straight_to_the_bar(flashing, kest, image):
    flashing.on("Download", {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing)
    assert run.status == 0
    assert len(flashing.of("Download")) == 1
    assert bar(run)


def test_other_products_reset_the_configuration(flashing, kest, image):
    flashing.on("Download", offer("GW-1.2.3", "AP-1.2.4"), {"Status": 0}).on("FactoryReset", {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing)
    assert run.lines[:2] == ["Resetting config...", "Status: OK"]
    assert flashing.methods(but=("JoinGroup", "GetParameterAttributes", "Logout"))[:3] == [
        "Download", "FactoryReset", "Download"]


@pytest.mark.parametrize("typed, resets", [("y\n", 1), ("Y\n", 1), ("n\n", 0), ("yes\n", 0), ("\n", 0), ("", 0)])
def test_a_major_step_asks_whether_to_reset(flashing, kest, image, typed, resets):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0}).on("FactoryReset", {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing, stdin=typed)
    assert run.lines[0] == "Major upgrade..."
    assert len(flashing.of("FactoryReset")) == resets
    assert len(flashing.of("Download")) == 2
    assert run.status == 0


@pytest.mark.parametrize("typed", ["c\n", "C\n"])
def test_a_major_step_can_be_cancelled(flashing, kest, image, typed):
    flashing.on("Download", offer("2.2.3", "1.0.0"), {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing, stdin=typed)
    assert (run.out, run.status) == ("Major downgrade...\n", 0)
    assert flashing.params("Download")[1:] == [{"FileType": "Firmware", "TransactionID": "t-1"}]
    assert flashing.of("GetParameterValues") == []


def test_a_failed_flash_ends_the_polling(fake, kest, image):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", progress(10), progress(20, -3))
    run = kest("-r", "upgrade", image.name, to=fake)
    assert run.status == 0
    assert len(fake.of("GetParameterValues")) == 2
    assert "100%" in run.out


def test_after_the_flash_the_client_is_anonymous(flashing, shell, image):
    flashing.on("Download", {"Status": 0}).on("Login", {})
    term = shell(to=flashing)
    assert term.lines[-1].rstrip().endswith("@kest:>")
    term.type(f"upgrade {image.name}\r")
    term.wait_for(lambda t: t.lines[-1].rstrip() == "kest:>")
    assert any("Flashing:" in line and "100%" in line for line in term.all_lines)


@pytest.mark.parametrize("answer", [
    {"Status": 1}, {"Status": 1, "CurrentVersion": 5, "NewVersion": None, "SavedFirmware": 7, "TransactionID": {}},
    {"Status": "1"}, {},
])
def test_answers_of_wrong_types_do_no_harm(flashing, kest, image, answer):
    flashing.on("Download", answer, {"Status": 0})
    assert kest("-r", "upgrade", image.name, to=flashing).status == 0


@pytest.mark.parametrize("values", [
    {"ParameterList": 7}, {"ParameterList": [1, {"Name": 3}]}, progress("x", "y"), progress(-40), progress(10**12), {}])
def test_odd_progress_is_drawn_within_its_bounds(fake, kest, image, values):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", values, Close())
    run = kest("-r", "upgrade", image.name, to=fake)
    assert run.status == 0
    assert bar(run)[-1].count("100%") == 1


def test_ctrl_c_in_a_one_shot_ends_the_program_at_the_question(flashing, terminal, image):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    term = terminal("-r", "upgrade", image.name, to=flashing)
    term.wait_for("Reset config[(N)o/(y)es/(c)ancel]")
    term.type("\x03")
    term.wait_exit()
    assert len(flashing.of("Download")) == 1
    assert term.echoes


def test_ctrl_c_in_the_shell_abandons_the_question(flashing, shell, image):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    term = shell(to=flashing)
    term.type(f"upgrade {image.name}\r")
    term.wait_for("Reset config[(N)o/(y)es/(c)ancel]")
    term.type("\x03")
    term.wait_prompt()
    assert len(flashing.of("Download")) == 1
    assert term.run("pwd") == [":"]


def test_ctrl_c_leaves_the_polling(fake, shell, image):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", progress(10))
    term = shell(to=fake)
    term.type(f"upgrade {image.name}\r")
    term.wait_for("Flashing:")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd")[-1] == ":"
    fake.on("GetParameterValues", Close())
    term.type(f"upgrade {image.name}\r")
    fake.wait_for(lambda f: len(f.of("Download")) == 2)
    term.wait_prompt()


def test_a_dropped_event_link_at_the_question_abandons_the_upgrade(flashing, shell, image):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    term = shell(to=flashing)
    term.type(f"upgrade {image.name}\r")
    term.wait_for("Reset config[(N)o/(y)es/(c)ancel]")
    for connection in flashing.receivers():
        connection.close()
    term.wait_exit()
    assert len(flashing.of("Download")) == 1


def test_a_slow_answer_can_be_left(fake, shell, image):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", Slow(30, {"Status": 0}))
    term = shell(to=fake)
    term.type(f"upgrade {image.name}\r")
    fake.wait_for("Download")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd")[-1] == ":"
