"""What the build itself sees to: a unit includes only from what it names."""
import subprocess
from pathlib import Path

import pytest

from lib import settings

TOP = Path(__file__).resolve().parents[2]


@pytest.fixture
def build(tmp_path):
    """Builds a house of three units: low, beside it side, and over it high, which depends on what is given."""
    def run(include, depends="low", order=("low", "side", "high")):
        (tmp_path / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(house LANGUAGES CXX)\n"
            "function(kest_use_precompiled)\nendfunction()\n"
            f"include({TOP}/cmake/units.cmake)\n" + "".join(f"add_subdirectory(src/{unit})\n" for unit in order))
        for unit in order:
            folder = tmp_path / "src" / unit
            folder.mkdir(parents=True)
            (folder / f"{unit}.h").write_text("#pragma once\n#include <string>\n")
            (folder / f"{unit}.cpp").write_text(f'#include "{unit}/{unit}.h"\n')
            (folder / "CMakeLists.txt").write_text(f"kest_unit({unit})\n")
        high = tmp_path / "src" / "high"
        high.joinpath("CMakeLists.txt").write_text(f"kest_unit(high DEPENDS {depends})\n")
        high.joinpath("high.h").write_text(f'#pragma once\n#include "low/low.h"\n{include}\n')
        said = ""
        for command in (["-S", tmp_path, "-B", tmp_path / "b", "-G", "Ninja", "-DCMAKE_CXX_COMPILER_WORKS=TRUE"],
                        ["--build", tmp_path / "b"]):
            done = subprocess.run(["cmake", *command], capture_output=True, text=True, timeout=settings.TEST_DEADLINE)
            said += done.stdout + done.stderr
            if done.returncode != 0:
                return " ".join(said.split())
        return None

    return run


def test_a_unit_includes_from_what_it_names(build):
    assert build('#include "high/high.h"\n#include "side/side.h"', depends="low side") is None


@pytest.mark.parametrize("include", ['#include "side/side.h"', '#  include <side/side.h>  // why not', '#include "../side/side.h"'])
def test_an_include_from_a_unit_that_is_not_named_fails_the_build(build, include):
    said = build(include)
    assert said and "high.h includes" in said and "side/side.h" in said and "the unit high" in said


def test_a_unit_cannot_name_one_of_an_upper_floor(build):
    said = build("", depends="side", order=("low", "high", "side"))
    assert said and "The unit high depends on side" in said
