"""Firmware, configuration and files on the real daemon, from the client's word to the device's new version."""

import filecmp
import os
import socket
import subprocess

import pytest

from lib import settings

VERSION = "Device.DeviceInfo.SoftwareVersion"


@pytest.fixture
def device(veld_start, tmp_path):
    return veld_start("--state", str(tmp_path / "state"), "--flash-time", "1", "--reboot-time", "1")


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


def product_of(version):
    return version.rsplit("-", 1)[0] + "-" if "-" in version else ""


@pytest.mark.parametrize("new, first", [("1.2.4", "Build upgrade..."), ("1.2.2", "Build downgrade..."), ("1.3.0", "Minor upgrade..."),
                                        ("1.1.0", "Minor downgrade...")])
def test_a_confirmed_version_runs_after_the_reboot(device, admin, image, kest, new, first):
    version = product_of(device.value(VERSION)) + new
    run = kest(*admin, "-r", "upgrade", image(version), to=device, timeout=30)
    assert (run.lines[0], run.status) == (first, 0)
    device.wait_until_up()
    assert device.value(VERSION) == version


def test_a_cancelled_major_step_leaves_the_device_alone(device, admin, image, kest):
    before = device.value(VERSION)
    run = kest(*admin, "-r", "upgrade", image(product_of(before) + "2.0.0"), to=device, stdin="c\n")
    assert (run.lines[0], run.status) == ("Major upgrade...", 0)
    assert device.value(VERSION) == before


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
    before = device.value(VERSION)
    run = kest(*admin, "-r", "upgrade", image(product_of(before) + "1.2.4 fail=-7"), to=device, timeout=30)
    assert run.status == 0
    assert device.value(VERSION) == before
    assert device.value("Device.DeviceInfo.UpgradeStatus") == -7


@pytest.mark.parametrize("size", [0, 1, 100_000_000])
def test_a_file_arrives_whole_over_tcp(veld_start, admin, kest, tmp_path, size):
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    veld_start("--state", str(tmp_path / "state"), "--listen", f"tcp://127.0.0.1:{port}")
    with open(tmp_path / "f.bin", "wb") as file:
        file.write(os.urandom(min(size, 1 << 20)))
        file.truncate(size)
    run = kest(*admin, "-r", "download", "file", "f.bin", "stored.bin", to=f"tcp://127.0.0.1:{port}", timeout=40)
    assert run.out.startswith(f"Sending file (f.bin, {size} bytes) via netcat (netcat://127.0.0.1:")
    assert (len(run.lines), run.status) == (1, 0)
    stored = list((tmp_path / "state").rglob("stored.bin"))
    assert [filecmp.cmp(path, tmp_path / "f.bin", shallow=False) for path in stored] == [True]
