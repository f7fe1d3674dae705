"""What make test says at its end: what it ran, how long that took, and what it left out. Its stages are stubs here."""

import re
import shutil
import subprocess

import pytest

from lib import settings


@pytest.fixture
def gate(tmp_path):
    """Runs scripts/test with KEST_CROSS and KEST_SUITES; returns the lines behind "all of it passed"."""
    scripts = tmp_path / "scripts"
    scripts.mkdir()
    shutil.copy(settings.SOURCE / "scripts/test", scripts)
    for name in ("need", "format", "build", "tidy", "cross", "suite"):
        (scripts / name).write_text(f'#!/bin/sh\necho "$* passed" >>{tmp_path}/{name}.called\necho "7 passed in 3s"\n')
        (scripts / name).chmod(0o755)
    (tmp_path / "tools").mkdir()
    (tmp_path / "tools/ctest").write_text('#!/bin/sh\necho "100% tests passed"\n')
    (tmp_path / "tools/ctest").chmod(0o755)
    (tmp_path / "pytest.py").write_text('print("12 passed in 1s")\n')

    def run(cross, suites):
        env = {"PATH": f"{tmp_path}/tools:/usr/bin:/bin", "TMPDIR": str(tmp_path), "KEST_CROSS": cross, "KEST_SUITES": suites}
        done = subprocess.run([scripts / "test"], env=env, capture_output=True, text=True, timeout=settings.TEST_DEADLINE)
        assert (done.returncode, done.stderr) == (0, "")
        return re.split(r"\n== all of it passed .*\n", done.stdout)[1].splitlines()

    return run


def test_the_gate_says_what_it_left_out(gate):
    lines = gate("", "")
    assert lines[-3:] == [
        "other machine, arm64             left out: KEST_CROSS=arm64 make test",
        "other machine, armhf             left out: KEST_CROSS=armhf make test",
        "Debian trixie                    left out: KEST_SUITES=trixie make test",
    ]
    assert re.fullmatch(r"units {28} +\d+ s  100% tests passed", lines[0])


def test_the_gate_tries_the_machines_that_it_is_asked_for(gate, tmp_path):
    lines = gate("armhf s390x", "trixie")
    assert (tmp_path / "cross.called").read_text() == "armhf passed\ns390x passed\n"
    assert (tmp_path / "suite.called").read_text() == "trixie passed\n"
    assert [line for line in lines if "left out" in line] == ["other machine, arm64             left out: KEST_CROSS=arm64 make test"]
    for title in ("other machine, armhf", "other machine, s390x", "Debian trixie"):
        (line,) = [line for line in lines if line.startswith(title)]
        assert re.search(r" \d+ s  7 passed in 3s$", line)
