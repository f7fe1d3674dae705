"""A sample of the torture that `make torture` does to the end: calls that fail, one at a time, in every scenario."""

import re
import subprocess
import sys

import pytest

from lib import settings

pytestmark = pytest.mark.load  # the sanitizers have allocators of their own

RUN = settings.SOURCE / "tests" / "torture" / "run"


def torture(*options):
    done = subprocess.run([sys.executable, RUN, "--jobs", "2", *options], capture_output=True, text=True)
    return done.returncode, done.stdout + done.stderr


@pytest.mark.tls
@pytest.mark.lua
@pytest.mark.deadline(120)
def test_a_call_that_fails_loses_nothing_and_is_not_silent():
    status, text = torture("--sample", "5", "--seed", settings.VERSION)
    assert status == 0, text
    assert int(re.search(r"^(\d+) faults in", text, re.M)[1]) > 150


@pytest.mark.lua
@pytest.mark.parametrize("fault", ["read:EIO=25", "ioctl:EIO=4"])
def test_a_terminal_that_fails_once_ends_the_session_and_keeps_its_modes(fault):
    """What was typed behind a read that failed in the Lua console is no command of the shell's."""
    status, text = torture("--only", "lua-terminal", "--fault", fault)
    assert status == 0, text


def test_the_torture_sees_what_is_wrong(tmp_path):
    """A program that a failed allocation ends without a word is found."""
    (tmp_path / "silent.c").write_text("#include <stdlib.h>\nint main() { char *p = malloc(9); if (!p) return 3; *p = 1; }\n")
    silent = tmp_path / "silent"
    subprocess.run(["cc", "-O0", "-o", silent, tmp_path / "silent.c"], check=True)
    status, text = torture("--program", str(silent))
    assert status == 1 and "status 3 without a message" in text, text
