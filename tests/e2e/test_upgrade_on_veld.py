"""Firmware, configuration and files on the real daemon, from the client's word to the device's new version."""

import filecmp
import json
import os
import re
import socket
import subprocess

import pytest

from lib import settings

VERSION = "Device.DeviceInfo.SoftwareVersion"
NAME = "Device.DeviceInfo.FriendlyName"
FACTORY_NAME = "My gateway"
QUESTION = "Reset config[(N)o/(y)es/(c)ancel]"


def lines(run):
    """What it printed, but for the notice of the dropped link, which comes at any time."""
    return [line for line in run.lines if line != "Connection dropped"]


@pytest.fixture
def device(veld_start, tmp_path):
    return veld_start("--state", tmp_path / "state", "--flash-time", "0.3", "--reboot-time", "0.1")


@pytest.fixture
def admin(tmp_path):
    """Words that log the client in before its request."""
    (tmp_path / "config").write_text("login admin -p admin\n")
    return ("-c", str(tmp_path / "config"))


@pytest.fixture
def image(tmp_path):
    def make(version, payload=b"payload"):
        (tmp_path / "payload").write_bytes(payload)
        path = tmp_path / f"{version}.img"
        subprocess.run([settings.VELD, "--make-image", version, "--payload", tmp_path / "payload", "--output", path], check=True)
        return str(path)

    return make


@pytest.fixture
def named(device):
    """A device whose configuration is not the factory's."""
    give_name(device)
    return device


def give_name(device):
    peer = device.connect()
    peer.call("Login", User="admin", Password="admin")
    peer.call("SetParameterValues", ParameterList=[{"Name": NAME, "Value": "mine"}])
    peer.call("SaveConfig")


def waiting_images(device):
    """The images that wait for somebody's decision."""
    return list((device.sandbox.work / "state" / "spool").iterdir())


@pytest.mark.parametrize("new, first", [("1.2.4", "Build upgrade..."), ("1.2.2", "Build downgrade..."), ("1.3.0", "Minor upgrade..."),
                                        ("1.1.0", "Minor downgrade...")])
def test_a_confirmed_version_runs_after_the_reboot(device, admin, image, kest, new, first):
    run = kest(*admin, "-r", "upgrade", image(new), to=device, timeout=30)
    assert (run.lines[0], run.status) == (first, 0)
    assert device.value(VERSION) == new


def test_a_cancelled_major_step_leaves_the_device_alone(device, admin, image, kest):
    run = kest(*admin, "-r", "upgrade", image("2.0.0"), to=device, stdin="c\n")
    assert (run.out, run.status) == ("Major upgrade...\n", 0)
    assert device.value(VERSION) == "1.2.3"
    assert not waiting_images(device)


def test_what_is_no_image_is_refused(device, admin, kest, tmp_path):
    (tmp_path / "no.img").write_bytes(b"")
    run = kest(*admin, "-r", "upgrade", "no.img", to=device)
    assert run.status == 255
    assert run.out.startswith("[9018] File corrupted or unusable: ")


@pytest.mark.parametrize("size", [0, 1, 20_000_000])
def test_a_file_arrives_whole(device, admin, kest, tmp_path, size):
    data = os.urandom(size)
    (tmp_path / "f.bin").write_bytes(data)
    run = kest(*admin, "-r", "download", "file", "f.bin", "stored.bin", to=device, timeout=30)
    assert (run.out, run.status) == ("", 0)
    stored = list((tmp_path / "state").rglob("stored.bin"))
    assert [path.read_bytes() for path in stored] == [data]


def test_a_failed_flash_leaves_the_version_and_the_link_comes_back(device, admin, image, kest):
    run = kest(*admin, "-r", "upgrade", image("1.2.4 fail=-7"), to=device, timeout=30)
    assert lines(run)[-3:] == ["Flashing: 100%", "", ""]
    assert run.status == 0
    assert device.value(VERSION) == "1.2.3"
    assert device.value("Device.DeviceInfo.UpgradeStatus") == -7


# The same over TCP, in clear and through TLS


@pytest.fixture(params=["tcp", "tls"])
def remote(request, veld_start, admin, certificate, kest_start, tmp_path):
    """A daemon behind a TCP link, and its client run as an administrator: remote(*words) → Program."""
    options = ["--state", tmp_path / "state", "--listen", "tcp://127.0.0.1:0", "--flash-time", "0.3", "--reboot-time", "0.1"]
    words, env = admin, None
    if request.param == "tls":
        options += ["--tls-cert", certificate[0], "--tls-key", certificate[1]]
        words, env = (*admin, "--ssl"), {"SSL_CERT_FILE": str(certificate[0])}
    address = veld_start(*options).tcp_address()
    return lambda *request: kest_start(*words, "-r", *request, to=address, env=env).finish(40)


@pytest.mark.parametrize("size", [0, 1, 100_000_000])
def test_a_file_arrives_whole_over_tcp(remote, tmp_path, size):
    with open(tmp_path / "f.bin", "wb") as file:
        file.write(os.urandom(min(size, 1 << 20)))
        file.truncate(size)
    run = remote("download", "file", "f.bin", "stored.bin")
    assert run.out.startswith(f"Sending file (f.bin, {size} bytes) via netcat (netcat://127.0.0.1:")
    assert (len(run.lines), run.status) == (1, 0)
    assert filecmp.cmp(tmp_path / "state" / "files" / "stored.bin", tmp_path / "f.bin", shallow=False)


def test_a_file_keeps_its_name_over_tcp(remote, tmp_path):
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder" / "f.bin").write_bytes(b"content")
    run = remote("download", "file", "folder/f.bin")
    assert (len(run.lines), run.status) == (1, 0)
    stored = tmp_path / "state" / "files"
    assert {entry.name: entry.read_bytes() for entry in stored.iterdir()} == {"f.bin": b"content"}


def test_a_firmware_is_flashed_over_tcp_and_the_link_comes_back(remote, image):
    run = remote("upgrade", image("1.3.0", os.urandom(3_000_000)))
    assert run.lines[0].startswith("Sending file (")
    assert run.lines[1] == "Minor upgrade..."
    assert lines(run)[-3:] == ["Flashing: 100%", "", ""]
    assert run.status == 0
    assert remote("get", VERSION).out == 'SoftwareVersion = "1.3.0"\n'


# Configurations


def configuration(tmp_path, **info):
    (tmp_path / "new.cfg").write_text(json.dumps({"veld-config": 1, "config": {"Device": {"DeviceInfo": info}}}))
    return "new.cfg"


def test_a_configuration_replaces_the_one_before(named, admin, kest, tmp_path):
    run = kest(*admin, "-r", "download", "config", configuration(tmp_path, ProvisioningCode="p-1"), to=named)
    assert (run.out, run.status) == ("", 0)
    for _ in range(2):
        assert named.value("Device.DeviceInfo.ProvisioningCode") == "p-1"
        assert named.value(NAME) == FACTORY_NAME, "what the new one does not name is the factory's again"
        named.restart()


def test_a_bad_configuration_changes_nothing(named, admin, kest, tmp_path):
    file = configuration(tmp_path, FriendlyName="new", SoftwareVersion="9.9.9")
    run = kest(*admin, "-r", "download", "config", file, to=named)
    assert run.out.startswith("[9018] File corrupted or unusable: the configuration Device.DeviceInfo.SoftwareVersion: ")
    assert run.status == 255
    assert named.value(NAME) == "mine"


def test_a_configuration_goes_over_tcp(remote, tmp_path):
    assert remote("set", f"{NAME}=mine").status == 0
    run = remote("download", "config", configuration(tmp_path, FriendlyName="new", Nothing=1))
    assert run.lines[0].startswith("Sending file (new.cfg, ")
    assert run.lines[1].startswith("[9018] File corrupted or unusable: the configuration Device.DeviceInfo.: ")
    assert remote("get", NAME).out == 'FriendlyName = "mine"\n'
    assert remote("download", "config", configuration(tmp_path, FriendlyName="new")).status == 0
    assert remote("get", NAME).out == 'FriendlyName = "new"\n'


# Versions


@pytest.mark.parametrize("version", ["1.2.3", "1.02.3"])
def test_an_equal_version_is_flashed_without_a_word(named, admin, image, kest, version):
    run = kest(*admin, "-r", "upgrade", image(version), to=named, timeout=30)
    assert run.lines[0].startswith("Flashing: ")
    assert lines(run)[-2:] == ["", ""]
    assert named.value(VERSION) == version
    assert named.value(NAME) == "mine"


@pytest.mark.parametrize("version", ["BOX-1.2.4", "BOX-1.0.0"])
def test_another_product_resets_the_configuration(named, admin, image, kest, version):
    run = kest(*admin, "-r", "upgrade", image(version), to=named, timeout=30)
    assert run.lines[:2] == ["Resetting config...", "Status: OK"]
    assert lines(run)[-2:] == ["", ""]
    assert named.value(VERSION) == version
    assert named.value(NAME) == FACTORY_NAME


@pytest.mark.parametrize("version, typed, lines, name", [
    ("2.0.0", "y\n", ["Major upgrade...", "Resetting config...", "Status: OK"], FACTORY_NAME),
    ("0.9.0", "n\n", ["Major downgrade..."], "mine"),
    ("2.0.0", "", ["Major upgrade..."], "mine"),
])
def test_a_major_step_resets_what_the_user_says(named, admin, image, kest, version, typed, lines, name):
    run = kest(*admin, "-r", "upgrade", image(version), to=named, stdin=typed, timeout=30)
    assert run.lines[: len(lines)] == lines
    assert run.lines[len(lines)].startswith("Flashing: ")
    assert named.value(VERSION) == version
    assert named.value(NAME) == name


# What a person sees


def asked(term, file):
    """A shell that was told to upgrade and asks about the configuration."""
    term.type(f"upgrade {os.path.basename(file)}\r")
    term.wait_for(lambda t: t.line(t.cursor[0]) == QUESTION)
    return term


@pytest.mark.parametrize("keys, name", [("y\r", FACTORY_NAME), ("\x04", "mine")], ids=["yes", "end-of-input"])
def test_the_question_on_a_terminal(named, image, shell, keys, name):
    term = asked(shell(to=named), image("2.0.0"))
    above, below = term.lines[-2:]
    assert (above, below) == ("Major upgrade...", QUESTION)
    term.type(keys)
    assert term.wait_exit(30) == 0
    lines = term.all_lines
    bars = [line for line in lines if line.startswith("Flashing:")]
    assert re.fullmatch(r"Flashing: 100% \[#+\]", bars[-1])
    assert len(bars) in (1, 2), "it is drawn in place, and once more below what the dropped link says"
    assert "Connection dropped" in lines, "on a row of its own"
    assert any(line.startswith("Rebooting... ") for line in lines)
    assert lines.count("Resetting config...") == (1 if keys == "y\r" else 0)
    assert named.value(VERSION) == "2.0.0"
    assert named.value(NAME) == name


def test_cancel_on_a_terminal(named, image, shell):
    term = asked(shell(to=named), image("2.0.0"))
    term.type("C\r")
    term.wait_prompt()
    assert term.lines[-2] == QUESTION + " C"
    assert not waiting_images(named)
    assert named.value(VERSION) == "1.2.3"


def test_ctrl_c_at_the_question_confirms_nothing_and_the_next_upgrade_works(named, image, shell):
    file = image("2.0.0")
    term = asked(shell(to=named), file)
    term.type("y\x03")
    term.wait_prompt()
    assert (named.value(NAME), named.value(VERSION)) == ("mine", "1.2.3")
    assert named.value("Device.DeviceInfo.UpgradeStatus") == 0
    asked(term, file).type("n\r")
    assert term.wait_exit(30) == 0
    assert (named.value(NAME), named.value(VERSION)) == ("mine", "2.0.0")


def test_ctrl_c_leaves_the_bar_and_the_device_goes_on(device, image, shell):
    term = shell(to=device)
    term.type(f"upgrade {os.path.basename(image('1.3.0'))}\r")
    term.wait_for("Flashing:")
    term.type("\x03")
    term.wait_for(lambda t: t.at_prompt() or "Connection dropped" in t.text)
    term.wait_for("Connection dropped")
    term.wait_exit()
    assert not [line for line in term.all_lines if "Connection dropped" in line and line != "Connection dropped"]
    device.wait_until_up()
    assert device.value(VERSION) == "1.3.0"


# The device goes down in the middle


@pytest.fixture
def source(things):
    """A place to fetch from that stands still after what it was told to send: source(data) → URL."""

    class Source:
        def __init__(self, data):
            self.listener = socket.create_server(("127.0.0.1", 0))
            self.listener.settimeout(settings.DEADLINE)
            self.url = f"netcat://127.0.0.1:{self.listener.getsockname()[1]}"
            self.data = data

        def connected(self):
            self.link, _ = self.listener.accept()
            self.link.sendall(self.data)

        def close(self):
            self.listener.close()
            self.link.close()

        def report(self):
            return self.url

    def start(data):
        things.append(Source(data))
        return things[-1]

    return start


def reboot(device):
    peer = device.connect()
    peer.call("Login", User="admin", Password="admin")
    peer.call("Reboot", Force=True)


@pytest.mark.parametrize("sent", [b"", b"VELD-FIRMWARE 1 1.3.0\nthe beg"], ids=["before", "amid"])
def test_the_device_goes_down_during_the_transfer(device, admin, kest_start, source, sent):
    place = source(sent)
    run = kest_start(*admin, "-r", "upgrade", place.url, to=device)
    place.connected()
    reboot(device)
    run.finish(30)
    assert (run.lines[-1], run.status) == ("[9001] Request denied: only an administrator may do that: not logged in", 255)
    assert device.value(VERSION) == "1.2.3"
    assert not waiting_images(device)


@pytest.mark.parametrize("way", ["terminal", "pipe"])
def test_the_device_goes_down_at_the_question(named, admin, image, terminal, kest_start, way):
    words = (*admin, "-r", "upgrade", image("2.0.0"))
    read_end, write_end = os.pipe()
    run = terminal(*words, to=named) if way == "terminal" else kest_start(*words, to=named, stdin=read_end)
    run.wait_for(QUESTION if way == "terminal" else "Major upgrade...")
    reboot(named)
    status = run.wait_exit() if way == "terminal" else run.finish().status
    os.close(read_end)
    os.close(write_end)
    assert status == 255
    named.wait_until_up()
    assert (named.value(NAME), named.value(VERSION)) == ("mine", "1.2.3")
    assert not waiting_images(named)
    if way == "terminal":
        assert run.lines == ["Major upgrade...", "Connection dropped"]
    else:
        assert run.out == "Major upgrade...\nConnection dropped\n"


def test_the_device_goes_down_while_it_flashes(veld_start, admin, image, kest_start, kest, tmp_path):
    device = veld_start("--state", tmp_path / "state", "--flash-time", "60", "--reboot-time", "0.1")
    run = kest_start(*admin, "-r", "upgrade", image("1.3.0"), to=device)
    run.wait_for("Flashing: ")
    reboot(device)
    run.finish(30)
    assert lines(run)[-3:] == ["Flashing: 100%", "", ""]
    assert run.status == 0
    assert device.value(VERSION) == "1.2.3"
    assert device.value("Device.DeviceInfo.UpgradeStatus") == 0


def test_the_device_stays_away_for_longer(device, admin, image, kest_start):
    run = kest_start(*admin, "-r", "upgrade", image("1.3.0"), to=device)
    run.wait_for("Minor upgrade...\n")
    run.wait_for("Flashing: ")
    device.stop()
    run.wait_for("Flashing: 100%\n")
    device.start()
    assert run.finish(30).status == 0
    again = kest_start(*admin, "-r", "upgrade", image("1.3.0"), to=device).finish(30)
    assert again.status == 0
    assert device.value(VERSION) == "1.3.0"


def test_ctrl_c_leaves_the_wait_for_the_device(device, image, shell):
    term = shell(to=device)
    term.type(f"upgrade {os.path.basename(image('1.3.0'))}\r")
    term.wait_for("Flashing:")
    device.stop()
    term.wait_for("Rebooting...")
    term.type("\x03")
    assert term.wait_exit() == 0, "its event link is gone"
    assert term.echoes
