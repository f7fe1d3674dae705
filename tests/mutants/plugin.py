"""What the end-to-end tests do for the mutants, as a plugin of pytest: each worker has a tree of programs, and notes which mutants its
tests reach (KEST_MUTANTS_LOOK); or it runs a list of tests in its order (KEST_MUTANTS_PLAN) and names the first that fails."""

import json
import os
import time
from pathlib import Path

import pytest
from notice import ROOM, reached

LOOK = os.environ.get("KEST_MUTANTS_LOOK")
PLAN = os.environ.get("KEST_MUTANTS_PLAN")
WORKER = os.environ.get("PYTEST_XDIST_WORKER")
if LOOK and WORKER:  # before the tests read where the programs are
    os.environ["KEST_BUILD"] = f"{LOOK}/{WORKER}"
if "KEST_BUILD" in os.environ:  # for programs that a test copies
    os.environ["KEST_MUTANTS"] = f"{os.environ['KEST_BUILD']}/mutants"

_passed = True


def pytest_collection_modifyitems(items):
    if PLAN:
        wanted = {name: index for index, name in enumerate(Path(PLAN).read_text().split("\n"))}
        items[:] = sorted((item for item in items if item.nodeid in wanted), key=lambda item: wanted[item.nodeid])


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item):
    global _passed
    _passed = True
    if not (LOOK and WORKER):
        yield
        return
    tree = Path(LOOK, WORKER)
    with open(tree / "mutants", "r+b") as file:
        file.write(bytes(4 + ROOM))
    began = time.monotonic()
    yield
    with open(tree.with_suffix(".seen"), "a") as file:
        file.write(json.dumps([item.nodeid, time.monotonic() - began, reached(tree), _passed]) + "\n")


def pytest_runtest_logreport(report):
    global _passed
    if report.failed:
        _passed = False
        if PLAN and not Path(os.environ["KEST_MUTANTS_FAILED"]).exists():
            Path(os.environ["KEST_MUTANTS_FAILED"]).write_text(report.nodeid)
