"""What make mutants changes in a program, and that a test which comes there would see it. (All of it takes an hour.)"""

import subprocess
import sys

import pytest

from lib import settings

pytest.importorskip("clang.cindex")  # a package that only this needs

HERE = settings.SOURCE / "tests" / "mutants"
sys.path.append(str(HERE))
import places  # noqa: E402

PROGRAM = """\
#include <cstdio>
static constexpr int lowest = -1;
static int clamp(int value, bool *changed)
{
    *changed = value < lowest;
    if (*changed)
        puts("too low");
    return !*changed && value > 40 + 2 ? 42 : value;
}
int main()
{
    bool changed = false;
    for (int i = 0; i < 2; i++)
        printf("%d\\n", clamp(43 * i - 2, &changed));
    return changed;
}
"""
NOTICED = {  # what it prints with some of them
    "without the call of puts": "-2\n41\n",
    "&& → ||": "too low\n-2\n42\n",
    "+ → -": "too low\n-2\n42\n",
    "0 → 1": "41\n",
    "43 → 44": "too low\n-2\n42\n",
    "- → +": "2\n42\n",
}
WITH = ["-include", str(HERE / "choice.h"), str(HERE / "choice.cpp")]


@pytest.fixture
def source(tmp_path):
    (tmp_path / "clamp.cpp").write_text(PROGRAM)
    return tmp_path


def output(program, number):
    (program.parent / "mutants").write_bytes(number.to_bytes(4, sys.byteorder) + bytes(65536))
    out = subprocess.run([program], capture_output=True, text=True).stdout
    return out, [place for place, byte in enumerate((program.parent / "mutants").read_bytes()[4:]) if byte]


def test_mutants_are_operators_constants_and_calls(source):
    found, functions = places.mutants(source, "clamp.cpp", ["-std=c++20"])
    assert [(mutant.line, mutant.what) for mutant in found] == [
        (2, "-1 → 0"), (5, "< → <="), (7, "without the call of puts"),
        (8, "! → !!"), (8, "&& → ||"), (8, "> → >="), (8, "40 → 41"), (8, "+ → -"), (8, "2 → 3"), (8, "42 → 43"),
        (12, "false → true"), (13, "0 → 1"), (13, "< → <="), (13, "2 → 3"), (13, "++ → --"),
        (14, "without the call of printf"), (14, "43 → 44"), (14, "* → /"), (14, "- → +"), (14, "2 → 3"),
    ]  # fmt: skip
    assert [PROGRAM[: place].count("\n") + 1 for place in functions] == [4, 11]


def test_all_mutants_are_in_one_program_and_one_is_chosen(source):
    found, _ = places.mutants(source, "clamp.cpp", ["-std=c++20"])
    data = PROGRAM.encode()
    chosen = [(number, mutant) for number, mutant in enumerate(found, 1) if number > 1]
    (source / "clamp.cpp").write_bytes(places.together(data, chosen))
    program = source / "clamp"
    subprocess.run(["c++", "-O0", "-w", "-o", program, *WITH, source / "clamp.cpp"], check=True)
    assert output(program, 0) == ("too low\n-2\n41\n", [number for number, _ in chosen if number != 10])  # nothing is clamped to 42
    seen = {mutant.what: output(program, number)[0] for number, mutant in chosen if mutant.what in NOTICED}
    assert seen == NOTICED


def test_a_mutant_is_drawn_for_itself(source):
    """A change elsewhere in the file leaves the order of the others as it was."""
    before, _ = places.mutants(source, "clamp.cpp", ["-std=c++20"])
    (source / "clamp.cpp").write_text("static int other() { return 5; }\n" + PROGRAM)
    after, _ = places.mutants(source, "clamp.cpp", ["-std=c++20"])
    assert len(after) == len(before) + 1
    for seed in ("1", "2"):
        order = [mutant.name for mutant in sorted(after, key=lambda mutant: mutant.rank(seed)) if mutant.line > 1]
        assert order == [mutant.name for mutant in sorted(before, key=lambda mutant: mutant.rank(seed))]
