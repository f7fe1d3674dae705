"""That make coverage counts what a program did however it ends. (All of it takes half an hour.)"""

import signal
import subprocess

import pytest

from lib import settings

COUNTING = settings.SOURCE / "tests" / "coverage" / "counting.cpp"
PROGRAM = """\
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
int main(int, char **words)
{
    const std::string end = words[1];
    const rlimit none{0, RLIM_INFINITY};
    const rlimit nothing{0, 0};
    printf("ends by %s\\n", words[1]);
    if (end == "_exit")
        fflush(stdout), _exit(3);
    if (end == "abort")
        abort();
    if (end == "raise")
        raise(SIGTERM);
    if (end == "limit")
        fflush(stdout), signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &none);
    if (end == "nothing may be written")
        fflush(stdout), signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &nothing);
    return 4;
}
"""


@pytest.fixture(scope="module")
def program(tmp_path_factory):
    folder = tmp_path_factory.mktemp("coverage")
    (folder / "ends.cpp").write_text(PROGRAM)
    subprocess.run(["g++", "-std=c++20", "-O0", "--coverage", "-o", "ends", "ends.cpp", COUNTING], cwd=folder, check=True)
    return folder / "ends"


@pytest.mark.parametrize("end, status", [
    ("exit", 4), ("_exit", 3), ("abort", -signal.SIGABRT), ("raise", -signal.SIGTERM), ("limit", 4),
])  # fmt: skip
def test_a_program_counts_however_it_ends(program, end, status):
    counts = program.with_name("ends-ends.gcda")
    counts.unlink(missing_ok=True)
    assert subprocess.run([program, end], capture_output=True).returncode == status
    said = subprocess.run(["gcov", "-t", counts], cwd=program.parent, capture_output=True, text=True, check=True).stdout
    assert "        1:   12:" in said, said


def test_what_the_torture_watches_makes_no_calls_for_its_counts(program):
    counts = program.with_name("ends-ends.gcda")
    counts.unlink(missing_ok=True)
    run = subprocess.run([program, "exit"], env={"TORTURE_COUNTERS": "x"}, capture_output=True, text=True)
    assert (run.stdout, run.returncode, counts.exists()) == ("ends by exit\n", 4, False)


def test_counts_that_cannot_be_written_are_no_output(program):
    run = subprocess.run([program, "nothing may be written"], capture_output=True, text=True)
    assert (run.stdout, run.stderr, run.returncode) == ("ends by nothing may be written\n", "", 4)
