"""Firmware, configuration and files on their way to the device: every request and every message of download and upgrade."""

import hashlib
import os
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from lib import settings
from lib.fake import Close, Error, Silence, Slow

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


def test_a_file_below_a_name_that_is_no_text_is_refused(fake, kest, tmp_path):
    folder = os.fsencode(tmp_path) + b"/\xff"
    os.mkdir(folder)
    with open(folder + b"/file", "w"):
        pass
    run = kest("-r", "download", "file", "file", to=fake, cwd=folder)
    assert (run.out, run.status) == ("download: file: the path is not UTF-8.\n", 255)
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


def connect(url):
    host, port = url.removeprefix("netcat://").split(":")
    return socket.create_connection((host, int(port)), settings.DEADLINE)


def fetch(url, pieces=None):
    with connect(url) as link:
        data = bytearray()
        while piece := link.recv(65536):
            data += piece
            if pieces is not None and len(data) >= pieces:
                break
        return bytes(data)


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
    later = []

    def download(request):
        later.append(threading.Timer(0.5, lambda: got.append(fetch(request.params["URL"]))))
        later[0].start()
        return {"Status": 0}

    remote.on("Download", download)
    assert kest("-r", "download", "file", "f.bin", to=remote).status == 0
    later[0].join(settings.DEADLINE)
    assert got == [b"late"]


def test_a_file_that_cannot_be_mapped_still_sends_the_request(remote, kest, tmp_path):
    remote.on("Download", Error(9010, "no URL"))
    run = kest("-r", "download", "config", "missing", to=remote)
    assert run.out == "Cannot open file (missing), aborting.\n[9010] File transfer failure: no URL\n"
    assert remote.params("Download") == [{"FileType": "Config", "URL": ""}]


@pytest.mark.parametrize("make", [lambda path: path.mkdir(), lambda path: os.mkfifo(path)], ids=["directory", "fifo"])
def test_what_is_no_plain_file_is_not_served(remote, kest, tmp_path, make):
    remote.on("Download", Error(9003, "a URL is needed"))
    make(tmp_path / "odd")
    run = kest("-r", "download", "file", "odd", to=remote)
    assert (run.out, run.status) == ("Cannot open file (odd), aborting.\n[9003] Invalid arguments: a URL is needed\n", 255)
    assert remote.params("Download") == [{"FileType": "File", "URL": ""}]


@pytest.mark.skipif(os.geteuid() != 0, reason="needs a privilege to give up")
@pytest.mark.parametrize("link", ["unix", "tcp"])
def test_an_unreadable_file(fake_start, sandbox, tmp_path, link):
    daemon = fake_start("tcp://127.0.0.1:0" if link == "tcp" else None)
    daemon.on("Download", Error(9010, "no"))
    (tmp_path / "secret").write_bytes(b"x")
    (tmp_path / "secret").chmod(0)
    powers = "-dac_override,-dac_read_search"
    run = subprocess.run(
        ["setpriv", f"--bounding-set={powers}", f"--inh-caps={powers}", settings.KEST, "-u", daemon.address,
         "-r", "download", "file", "secret"],
        env=sandbox.environment(), cwd=tmp_path, capture_output=True, text=True, timeout=settings.DEADLINE)
    first = "" if link == "unix" else "Cannot open file (secret), aborting.\n"
    assert (run.stdout, run.returncode) == (first + "[9010] File transfer failure: no\n", 255)
    url = f"file://{tmp_path}/secret" if link == "unix" else ""
    assert daemon.params("Download") == [{"FileType": "File", "URL": url}]


def test_a_file_that_shrinks_while_it_is_served_is_an_error(remote, kest, tmp_path):
    (tmp_path / "f.bin").write_bytes(os.urandom(3_000_000))
    got = []

    def download(request):
        os.truncate(tmp_path / "f.bin", 100_000)
        got.append(fetch(request.params["URL"]))
        return Error(9018, "half of it")

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    assert len(got[0]) < 3_000_000
    assert run.status == 255
    assert re.search(r"^send\(\) failed \(expected 3000000 bytes, transferred \d+ bytes\), abort\.$", run.out, re.M)
    assert "[9018] File corrupted or unusable: half of it" in run.lines


def test_a_file_that_vanishes_while_it_is_served_arrives_all_the_same(remote, kest, tmp_path):
    (tmp_path / "f.bin").write_bytes(b"still there")
    got = []

    def download(request):
        (tmp_path / "f.bin").unlink()
        got.append(fetch(request.params["URL"]))
        return {"Status": 0}

    remote.on("Download", download)
    assert kest("-r", "download", "file", "f.bin", to=remote).status == 0
    assert got == [b"still there"]


@pytest.mark.parametrize("words, named", [(("file", "f.bin"), 1), (("file", "f.bin", "target"), 0), (("config", "f.bin"), 0)])
def test_only_a_file_that_has_no_name_yet_is_given_one(remote, kest, tmp_path, words, named):
    (tmp_path / "f.bin").write_bytes(b"content")

    def download(request):
        if "URL" in request.params:
            fetch(request.params["URL"])
        return {"Status": 0, "TransactionID": "t-1"}

    remote.on("Download", download)
    assert kest("-r", "download", *words, to=remote).status == 0
    name = {"FileType": "File", "TargetFileName": "f.bin", "TransactionID": "t-1"}
    assert remote.params("Download")[1:] == [name] * named


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


@pytest.fixture
def idle():
    """Connects to a URL and takes nothing: idle(url) → socket."""
    links = []

    def start(url):
        links.append(connect(url))
        return links[-1]

    yield start
    for link in links:
        link.close()


def test_an_error_answer_ends_a_transfer_that_stands_still(remote, kest, tmp_path, idle):
    with open(tmp_path / "f.bin", "wb") as file:
        file.truncate(50_000_000)

    answered = []

    def download(request):
        idle(request.params["URL"])
        answered.append(time.monotonic())
        return Error(9010, "too large")

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    assert time.monotonic() - answered[0] < 9, "nobody waits ten seconds for a daemon that said no"
    assert "[9010] File transfer failure: too large" in run.lines
    assert run.status == 255


@pytest.mark.deadline(60)
@pytest.mark.load
def test_nobody_is_waited_for_longer_than_ten_seconds(fake_start, kest_start, tmp_path, idle):
    """A daemon that never connects, one that takes a bit and stops, one that takes a byte a second; all at once."""
    with open(tmp_path / "f.bin", "wb") as file:
        file.truncate(50_000_000)
    ended = threading.Event()

    def trickle(link):
        while not ended.wait(1):
            link.recv(1)

    def never(request):
        return {"Status": 0}

    def stops(request):
        idle(request.params["URL"]).recv(1000)
        return {"Status": 0}

    def crawls(request):
        threading.Thread(target=trickle, args=(idle(request.params["URL"]),), daemon=True).start()
        return {"Status": 0}

    begin = time.monotonic()
    runs = []
    for download in (never, stops, crawls):
        daemon = fake_start("tcp://127.0.0.1:0").on("Download", download)
        runs.append(kest_start("-r", "download", "file", "f.bin", to=daemon))
    last = [run.finish(40).lines[-1] for run in runs]
    ended.set()
    assert 9 < time.monotonic() - begin
    assert last[0] == "Waiting timeout, abort."
    for line in last[1:]:
        assert re.fullmatch(r"send\(\) failed \(expected 50000000 bytes, transferred \d+ bytes\), abort\.", line)
    assert [run.status for run in runs] == [0, 0, 0]


def test_what_the_server_says_leaves_the_prompt_alone(remote, shell, tmp_path, idle):
    with open(tmp_path / "f.bin", "wb") as file:
        file.truncate(50_000_000)
    remote.on("GetParameterAttributes", {"ParameterList": []})
    links = []

    def download(request):
        links.append(idle(request.params["URL"]))
        return {"Status": 0}

    remote.on("Download", download)
    term = shell(to=remote)
    term.type("download file f.bin\r")
    remote.wait_for("Download")
    term.wait_prompt()
    term.type("help m")
    term.wait_for("> help m")
    links[0].close()
    term.wait_for("abort.")
    term.wait_for(lambda t: t.line(t.cursor[0]).endswith("> help m"))
    said = [line for line in term.all_lines if line.startswith("send() failed (")]
    assert len(said) == 1, "on a row of its own"
    assert sum(line.endswith("> help m") for line in term.lines) == 1


def test_a_device_that_goes_down_while_it_fetches_is_asked_again(remote, kest_start, tmp_path):
    with open(tmp_path / "f.bin", "wb") as file:
        file.truncate(50_000_000)
    remote.on("GetParameterAttributes", {"ParameterList": []})
    down = threading.Event()

    def download(request):
        with connect(request.params["URL"]) as link:
            link.recv(1000)
        remote.on("Download", Error(9016, "nobody serves it any more"))
        remote.go_down()
        down.set()
        return Silence()

    remote.on("Download", download)
    run = kest_start("-r", "download", "file", "f.bin", to=remote)
    run.wait_for(lambda run: down.is_set() and "Connection refused\n" in run.err and "abort.\n" in run.out)
    remote.come_back()
    run.finish(30)
    assert re.search(r"send\(\) failed \(expected 50000000 bytes, transferred \d+ bytes\), abort\.\n", run.out)
    assert run.lines[-1] == "[9016] File transfer server unreachable: nobody serves it any more"
    assert run.status == 255
    first, second = remote.params("Download")
    assert first == second


def test_a_daemon_that_stops_in_the_middle_is_told(remote, kest, tmp_path):
    (tmp_path / "f.bin").write_bytes(os.urandom(30_000_000))

    def download(request):
        fetch(request.params["URL"], 1000)
        return {"Status": 0}

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    last = run.lines[-1]
    assert last.startswith("send() failed (expected 30000000 bytes, transferred ") and last.endswith(" bytes), abort.")


def test_a_connection_that_is_reset_is_a_failed_send(remote, kest, tmp_path):
    with open(tmp_path / "f.bin", "wb") as file:
        file.truncate(50_000_000)

    def download(request):
        link = connect(request.params["URL"])
        link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        link.close()
        return {"Status": 0}

    remote.on("Download", download)
    run = kest("-r", "download", "file", "f.bin", to=remote)
    assert re.search(r"^send\(\) failed \(expected 50000000 bytes, transferred \d+ bytes\), abort\.$", run.out, re.M)


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
    assert run.out.endswith("Flashing: 100%\n\n\n")


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
    {"ParameterList": 7}, {"ParameterList": [1, {"Name": 3}]}, progress("x", "y"), progress(-40), progress(101), progress(10**12), {}])
def test_odd_progress_is_drawn_within_its_bounds(fake, kest, image, values):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", values, Close())
    run = kest("-r", "upgrade", image.name, to=fake)
    assert run.status == 0
    assert bar(run)[-1].count("100%") == 1
    assert all(int(percent) <= 100 for percent in re.findall(r"(\d+)%", run.out))


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


@pytest.mark.parametrize("elsewhere, shown", [("| cat", "Major upgrade...\n"), ("> log", "")])
def test_who_types_is_asked_wherever_the_output_goes(flashing, terminal, image, elsewhere, shown):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    command = f"'{settings.KEST}' -u '{flashing.address}' -r upgrade {image.name} {elsewhere}"
    term = terminal("-c", command, program="/bin/sh")
    term.wait_for(lambda t: t.text == shown + "Reset config[(N)o/(y)es/(c)ancel]")
    term.type("c\r")
    assert term.wait_exit() == 0
    assert flashing.params("Download")[1:] == [{"FileType": "Firmware", "TransactionID": "t-1"}]


def test_ctrl_c_leaves_the_digest_of_a_large_file(fake, shell, tmp_path):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    with open(tmp_path / "large", "wb") as file:
        file.truncate(1 << 40)
    term = shell(to=fake)
    row = term.cursor[0]
    term.type("download file large\r")
    term.wait_for(lambda t: t.cursor[0] > row)
    term.type("\x03")
    term.wait_prompt()
    assert fake.of("Download") == []
    assert term.run("pwd")[-1] == ":"


def test_ctrl_c_at_the_question_on_a_pipe_ends_the_program(flashing, kest_start, image):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    read_end, write_end = os.pipe()
    run = kest_start("-r", "upgrade", image.name, to=flashing, stdin=read_end)
    run.wait_for("Major upgrade...\n")
    run.interrupt()
    assert run.finish().status == -signal.SIGINT
    os.close(read_end)
    os.close(write_end)
    assert len(flashing.of("Download")) == 1


def test_a_shell_on_a_pipe_takes_the_answer_from_its_next_line(flashing, kest, image):
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    run = kest(to=flashing, stdin=f"upgrade {image.name}\nc\npwd\n")
    assert run.lines[-2:] == ["Major upgrade...", ":"]
    assert flashing.params("Download")[1:] == [{"FileType": "Firmware", "TransactionID": "t-1"}]


def test_ctrl_c_leaves_the_polling(fake, shell, image):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", progress(10))
    term = shell(to=fake)
    term.type(f"upgrade {image.name}\r")
    term.wait_for("Flashing:")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd")[-1] == ":"
    fake.on("GetParameterValues", Slow(60, {}))
    asked = len(fake.of("GetParameterValues"))
    term.type(f"upgrade {image.name}\r")
    fake.wait_for(lambda f: len(f.of("GetParameterValues")) > asked)
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd")[-1] == ":"
    fake.on("GetParameterValues", Close())
    term.type(f"upgrade {image.name}\r")
    fake.wait_for(lambda f: len(f.of("Download")) == 3)
    term.wait_prompt()


def test_ctrl_c_leaves_the_wait_for_the_device_and_the_next_upgrade_works(flashing, shell, image):
    flashing.on("Download", {"Status": 0})

    def goes_away(request):
        flashing.refuse()
        return Close()

    flashing.on("GetParameterValues", progress(40), goes_away)
    term = shell(to=flashing)
    term.type(f"upgrade {image.name}\r")
    term.wait_for("Rebooting...")
    term.type("\x03")
    term.wait_prompt()
    flashing.come_back()
    flashing.on("GetParameterValues", progress(40), Close())
    term.type(f"upgrade {image.name}\r")
    term.wait_for(lambda t: any(line.startswith("Reconnecting...") for line in t.lines))
    flashing.wait_for(lambda f: len(f.of("Download")) == 2)
    term.wait_prompt()
    assert sum(line.startswith("Flashing: 100% [") for line in term.all_lines) == 2


def test_a_link_lost_at_the_confirmation_is_found_again(flashing, kest, image):
    flashing.on("Download", offer("1.2.3", "1.3.0"), Close(), {"Status": 0})
    run = kest("-r", "upgrade", image.name, to=flashing)
    assert run.lines[:2] == ["Minor upgrade...", ""]
    assert run.status == 0
    confirm = flashing.params("Download")[1:]
    assert len(confirm) == 2 and confirm[0] == confirm[1]
    assert confirm[0]["TransactionID"] == "t-1"


def test_the_dropped_event_link_is_told_below_the_bar(fake, terminal, image):
    fake.on("GetParameterAttributes", {"ParameterList": []})
    fake.on("Download", {"Status": 0}).on("GetParameterValues", progress(40))
    term = terminal("-r", "upgrade", image.name, to=fake, columns=50)
    term.wait_for("Flashing:  40% [")
    for connection in fake.receivers():
        connection.close()
    term.wait_for("Connection dropped")
    fake.on("GetParameterValues", Close())
    term.wait_exit()
    rows = [line for line in term.all_lines if "Flashing" in line or "Connection" in line]
    assert re.fullmatch(r"Flashing:  40% \[#+ +\]", rows[0])
    assert rows[1] == "Connection dropped"
    assert re.fullmatch(r"Flashing: 100% \[#+\]", rows[2])


def test_the_question_offers_no_commands(flashing, shell, image):
    question = "Reset config[(N)o/(y)es/(c)ancel]"
    flashing.serve({"Device.": {}, "Device.Sub.": {}})
    flashing.on("Download", offer("1.2.3", "2.0.0"), {"Status": 0})
    term = shell(to=flashing)
    term.type("cd ")
    term.wait_for("> cd Device.")
    term.type("\x15" + f"upgrade {image.name}\r")
    term.wait_for(question)
    term.type("cd \tx")
    term.wait_for(re.compile(re.escape(question) + " cd +x$"))
    term.type("\x03")
    term.wait_prompt()
    term.type("cd ")
    term.wait_for("> cd Device.")


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
