"""make install and make uninstall, as a packager and as root run them, and what installs the packages that a build needs."""

import os
import shutil
import stat
import subprocess

import pytest

from lib import settings
from lib.exclusive import exclusive
from lib.terminal import Key

FORBIDDEN = ("apt-get", "apt", "sudo", "ninja", "c++", "g++", "cc", "gcc", "clang++")


def make(target, destination, tools, umask=0o077, prefix="/usr/local"):
    return subprocess.run(
        ["make", "-s", "-C", settings.SOURCE, target, f"BUILD={settings.BUILD}", f"DESTDIR={destination}", f"PREFIX={prefix}"],
        env={"PATH": f"{tools}:/usr/sbin:/usr/bin:/sbin:/bin", "MAKEFLAGS": "", "HOME": "/nonexistent"},
        umask=umask,
        capture_output=True,
        text=True,
        timeout=settings.TEST_DEADLINE,
    )


def files_of(folder):
    return sorted(path.relative_to(folder) for path in folder.rglob("*") if path.is_symlink() or not path.is_dir())


@pytest.fixture
def manifest():
    """Nobody else installs, which would write the same list of what there is."""
    with exclusive("install"):
        yield settings.BUILD / "install_manifest.txt"


def test_install_builds_and_fetches_nothing_and_uninstall_takes_it_all_back(tmp_path, manifest, terminal, veld_start):
    tools = tmp_path / "tools"
    tools.mkdir()
    for name in FORBIDDEN:
        (tools / name).write_text(f'#!/bin/sh\necho "{name} $*" >>{tmp_path}/called\nexit 1\n')
        (tools / name).chmod(0o755)
    destination = tmp_path / "destination"
    run = make("install", destination, tools)
    assert (run.returncode, run.stderr) == (0, "")
    assert not (tmp_path / "called").exists()

    # Everybody can read all of it, whatever the umask was, and nobody else can change it.
    root = destination / "usr/local"
    for path in (root, *root.rglob("*")):
        if not path.is_symlink():
            program = path.is_dir() or path.parent.name in ("bin", "sbin")
            assert stat.S_IMODE(path.stat().st_mode) == (0o755 if program else 0o644), path
    for name in ("bin/kest", "sbin/veld", "share/man/man1/kest.1", "share/man/man8/veld.8", "share/kest/models/gateway.json"):
        assert (root / name).is_file(), name
    for name in ("kest_interpreter", "kest_lua"):
        assert os.readlink(root / "bin" / name) == "kest"
        assert os.readlink(root / "share/man/man1" / (name + ".1")) == "kest.1"

    # No password that stands in these sources opens an installed daemon.
    models = list((root / "share/kest/models").glob("*.json"))
    assert models and '"Password": "$' in (settings.MODELS / "gateway.json").read_text()
    for model in models:
        assert '"Password": "$' not in model.read_text(), model
    assert f"ExecStart=/usr/local/sbin/veld " in (root / "lib/systemd/system/veld.service").read_text()

    # What is there is what the manifest lists.
    listed = manifest.read_text().split("\n")
    assert sorted(line.removeprefix("/") for line in listed if line) == [str(path) for path in files_of(destination)]

    # bash finds the completion by itself where it is installed.
    if os.path.exists("/usr/share/bash-completion/bash_completion"):
        rc = tmp_path / "rc"
        rc.write_text("PS1='% '; unset HISTFILE\n. /usr/share/bash-completion/bash_completion\n")
        term = terminal("--noprofile", "--rcfile", rc, "-i", program="/bin/bash", env={"XDG_DATA_DIRS": str(root / "share")})
        term.wait_prompt("% ").type("kest_lua --unixp" + Key.TAB)
        term.wait_for("kest_lua --unixpath")

    # So the daemon says that the first administrator is missing, until there is one.
    said = "no administrator can log in with a password: --user NAME:admin makes the first one"
    installed = veld_start(model=root / "share/kest/models/gateway.json")
    assert said in installed.log
    password = tmp_path / "password"
    password.write_text("a long one\n")
    password.chmod(0o600)
    installed = veld_start("--user", "chief:admin", "--password-file", password, model=root / "share/kest/models/gateway.json")
    assert said not in installed.log
    with installed.connect() as peer:
        peer.call("Login", User="chief", Password="a long one")

    other = destination / "usr/local/bin/other"
    other.touch()
    run = make("uninstall", destination, tools)
    assert (run.returncode, run.stderr) == (0, "")
    assert files_of(destination) == [other.relative_to(destination)]
    assert not (root / "share/kest").exists()
    assert make("uninstall", destination, tools).returncode != 0


def test_install_says_when_nothing_was_built(tmp_path):
    source = tmp_path / "source"
    (source / "scripts").mkdir(parents=True)
    for name in ("Makefile", "scripts/install", "scripts/need", "scripts/build"):
        shutil.copy(settings.SOURCE / name, source / name)
    command = ["make", "-s", "-C", source, "install", f"DESTDIR={tmp_path}/d"]
    run = subprocess.run(command, capture_output=True, text=True, timeout=settings.TEST_DEADLINE)
    assert run.returncode != 0
    assert "build first" in run.stderr
    assert not (tmp_path / "d").exists()


def need(tmp_path, apt_get):
    """scripts/need on a system that has none of the packages, with an apt-get that is the shell script given."""
    tools = tmp_path / "tools"
    tools.mkdir()
    for name, script in (("dpkg-query", "exit 1"), ("apt-get", f'echo "$*" >>{tmp_path}/called\n{apt_get}'), ("sudo", 'exec "$@"')):
        (tools / name).write_text(f"#!/bin/sh\n{script}\n")
        (tools / name).chmod(0o755)
    run = subprocess.run(
        [settings.SOURCE / "scripts/need", "build"],
        env={"PATH": f"{tools}:/usr/bin:/bin"},
        capture_output=True,
        text=True,
        timeout=settings.TEST_DEADLINE,
    )
    return run, (tmp_path / "called").read_text().splitlines()


def test_packages_are_installed_though_an_index_cannot_be_fetched(tmp_path):
    run, calls = need(tmp_path, 'case "$*" in *update*) echo "E: no route" >&2; exit 100 ;; esac')
    assert run.returncode == 0
    assert "Not every index could be fetched" in run.stderr
    assert "libjansson-dev" in calls[-1] and "Lock::Timeout" in calls[-1]


def test_packages_that_cannot_be_installed_end_the_build(tmp_path):
    run, _ = need(tmp_path, 'case "$*" in *install*) exit 100 ;; esac')
    assert run.returncode == 100
