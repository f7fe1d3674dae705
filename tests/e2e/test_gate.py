"""What make test says at its end: what it ran, how long that took, and what it left out. Its stages are stubs here."""

import re
import shutil
import subprocess
import time

import pytest

from lib import settings
from lib.program import proc_status


class Gate:
    """scripts/test among stubs of what it calls, with a home of its own."""

    def __init__(self, folder):
        self.folder = folder
        (folder / "scripts").mkdir()
        (folder / "tools").mkdir()
        shutil.copy(settings.SOURCE / "scripts/test", folder / "scripts")
        for name in ("need", "format", "build", "tidy", "sysroot", "system", "cross", "suite"):
            self.stub(f"scripts/{name}", f'echo "$*" >>{folder}/{name}.called; echo "7 passed in 3s"')
        self.stub("tools/ctest", 'echo "100% tests passed"')
        self.stub("tools/id", "echo 0")
        (folder / "pytest.py").write_text('print("12 passed in 1s")\n')

    def stub(self, name, text):
        (self.folder / name).write_text(f"#!/bin/sh\n{text}\n")
        (self.folder / name).chmod(0o755)

    def called(self, name):
        """The words that a script was called with, a line each."""
        path = self.folder / f"{name}.called"
        return path.read_text().splitlines() if path.exists() else []

    def took(self, name, seconds=None):
        """How long a machine took when it was last tried; or lets that be remembered."""
        path = self.folder / ".cache/kest/seconds" / name
        if seconds is not None:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(f"{seconds}\n")
        return int(path.read_text())

    def start(self, **asked):
        """The whole run, which has ended."""
        env = {"PATH": f"{self.folder}/tools:/usr/bin:/bin", "TMPDIR": str(self.folder), "HOME": str(self.folder), **asked}
        return subprocess.run([self.folder / "scripts/test"], env=env, capture_output=True, text=True, timeout=settings.TEST_DEADLINE)

    def run(self, **asked):
        """The lines behind "all of it passed"."""
        done = self.start(**asked)
        assert (done.returncode, done.stderr) == (0, "")
        return re.split(r"\n== all of it passed .*\n", done.stdout)[1].splitlines()


@pytest.fixture
def gate(tmp_path):
    return Gate(tmp_path)


def tried(lines, title):
    """Whether a closing line says that this was tried, and what came out."""
    (line,) = [line for line in lines if line.startswith(title)]
    return bool(re.search(r" \d+ s  7 passed in 3s$", line))


def test_the_gate_tries_other_machines_while_there_is_time(gate):
    lines = gate.run()
    assert re.fullmatch(r"units {28} +\d+ s  100% tests passed", lines[0])
    assert (gate.called("cross"), gate.called("suite")) == (["arm64", "armhf"], ["trixie"])
    assert all(tried(lines, title) for title in ("other machine, arm64", "other machine, armhf", "Debian trixie"))
    assert not [line for line in lines if "left out" in line]
    # The packages, too, are had before anything of the system is tried.
    (system,) = gate.called("system")
    assert re.fullmatch(r"trixie \S+/systems/trixie suite", system)
    assert max(gate.took(name) for name in ("arm64", "armhf", "trixie")) < 60


def test_what_goes_on_behind_ends_with_the_gate(gate):
    gate.stub("scripts/tidy", f"sleep 1000 & echo $! >{gate.folder}/behind; wait")
    gate.stub("tools/ctest", f"until [ -s {gate.folder}/behind ]; do sleep 0.01; done; exit 1")
    done = gate.start()
    assert done.returncode == 1 and done.stdout.endswith("FAILED: units\n")
    process = (gate.folder / "behind").read_text().strip()

    def runs():
        try:
            return not proc_status(process)["State"].startswith("Z")
        except OSError:
            return False

    moment = settings.deadline()
    while runs() and settings.remaining(moment):
        time.sleep(0.01)
    assert not runs()


def test_the_gate_leaves_out_what_there_is_no_time_for(gate):
    gate.took("armhf", 901)
    lines = gate.run()
    assert gate.called("cross") == ["arm64"]
    (line,) = [line for line in lines if "left out" in line]
    assert re.fullmatch(
        r"other machine, armhf             left out: it took 901 s, and \d+ of 900 s are gone; KEST_CROSS=armhf make test", line
    )
    assert gate.took("armhf") == 901


def test_the_gate_says_what_it_cannot_have(gate):
    gate.stub("scripts/sysroot", '[ "$1" != arm64 ]')
    gate.stub("tools/id", "echo 1000")
    lines = gate.run()
    assert [line for line in lines if "left out" in line] == [
        "other machine, arm64             left out: what it needs cannot be had",
        "Debian trixie                    left out: what it needs cannot be had",
    ]
    assert gate.called("cross") == ["armhf"]


def test_the_gate_tries_the_machines_that_it_is_asked_for(gate):
    gate.took("s390x", 2000)
    lines = gate.run(KEST_CROSS="s390x", KEST_SUITES="sid")
    assert (gate.called("cross"), gate.called("suite")) == (["s390x"], ["sid"])
    assert tried(lines, "other machine, s390x") and tried(lines, "Debian sid")
    assert gate.took("s390x") < 60


def test_the_gate_tries_no_machine_when_it_is_told_so(gate):
    lines = gate.run(KEST_CROSS="", KEST_SUITES="")
    assert (gate.called("cross"), gate.called("suite")) == ([], [])
    assert not [line for line in lines if "machine" in line or "Debian" in line]
