"""Which tests come to a mutant, and whether one of them notices it.

Programs run from a tree of their own: links to what was built, beside the file that says which mutant is in force (choice.cpp).
They have process numbers of their own where the kernel allows it, since a mutant may kill what it finds.
"""

import hashlib
import json
import os
import shutil
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

ROOM = 65536
APART = ["/usr/bin/unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
BOUNDS = ["/usr/bin/prlimit", "--as=8000000000", "--fsize=2000000000", "--core=0"]
# They look at files and packages, or do each thing many times over.
LEFT_OUT = {"test_install.py", "test_packaging.py", "test_release.py", "test_demo.py", "test_torture.py", "test_mutants.py"}


@dataclass
class Test:
    name: str
    seconds: float
    reached: frozenset
    command: tuple = ()  # of a unit test; an end-to-end test has none


class Tree:
    def __init__(self, build, folder):
        shutil.rmtree(folder, ignore_errors=True)
        for file in programs(build):
            place = folder / file.relative_to(build)
            place.parent.mkdir(parents=True, exist_ok=True)
            os.link(file, place)
        self.folder = folder
        (folder / "mutants").write_bytes(bytes(4 + ROOM))

    def choose(self, number):
        with open(self.folder / "mutants", "r+b") as file:
            file.write(number.to_bytes(4, sys.byteorder) + bytes(ROOM))

    def reached(self):
        return reached(self.folder)

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def reached(folder):
    return [number for number, byte in enumerate((folder / "mutants").read_bytes()[4:]) if byte]


def programs(build):
    for folder, folders, names in os.walk(build):
        folders[:] = [name for name in folders if name not in ("CMakeFiles", "trees")]
        for name in names:
            file = Path(folder, name)
            if name == "CMakeCache.txt" or folder == f"{build}/completion" or file.suffix in ("", ".so") and os.access(file, os.X_OK):
                yield file


def run(command, cwd, env, limit):
    """The status of a command, -1 when it did not end in time."""
    apart = APART if subprocess.run([*APART, "true"], capture_output=True).returncode == 0 else []
    with subprocess.Popen([*apart, *BOUNDS, *map(str, command)], cwd=cwd, env={**os.environ, **env}, stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True) as process:  # fmt: skip
        try:
            return process.wait(limit)
        except subprocess.TimeoutExpired:
            process.kill()
            return -1


class Suite:
    """The tests of the tree of sources `source`, built in `build`."""

    def __init__(self, source, build, jobs, patience):
        self.source, self.build, self.jobs, self.patience = source, build, jobs, patience
        self.sound = Tree(build, build / "trees" / "sound")  # stays as it is while other things are built
        self.units, self.end_to_end = [], []

    # Who comes where

    def look(self, known):
        """Runs every test without a mutant, or takes what is known of it. What fails then is no judge. `known` holds, for each
        file of tests, what it was like then and the tests in it."""
        text = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.build, capture_output=True, check=True).stdout
        commands = {test["name"]: test["command"] for test in json.loads(text)["tests"]}
        state = stamp([*(self.source / "tests/unit").iterdir(), *(self.source / "tests/fuzz").iterdir()])
        if known.get("units", {}).get("state") != state:
            with ThreadPoolExecutor(self.jobs) as pool:
                rows = pool.map(self._look_at_unit, range(len(commands)), commands.items())
                known["units"] = {"state": state, "tests": list(filter(None, rows))}
        self.units = [Test(*row[:2], frozenset(row[2]), tuple(row[3])) for row in known["units"]["tests"]]

        tests = self.source / "tests/e2e"
        harness = [*(tests / "lib").glob("*.py"), tests / "conftest.py"]
        states = {path.name: stamp([path, *harness]) for path in sorted(tests.glob("test_*.py")) if path.name not in LEFT_OUT}
        stale = [name for name, state in states.items() if known.get(name, {}).get("state") != state]
        if stale:
            rows = self._look_end_to_end(stale)
            for name in stale:
                known[name] = {"state": states[name], "tests": [row for row in rows if row[0].startswith(name + "::")]}
        self.end_to_end = [Test(*row[:2], frozenset(row[2])) for name in states for row in known[name]["tests"]]

    def _look_at_unit(self, number, test):
        name, command = test
        tree = Tree(self.sound.folder, self.build / "trees" / f"look{number}")
        began = time.monotonic()
        status = self._unit(tree, command, 300)
        row = [name, time.monotonic() - began, tree.reached(), command]
        tree.remove()
        return row if status == 0 else None

    def _look_end_to_end(self, names):
        folder = self.build / "trees" / "look"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        workers = 2 * self.jobs
        for number in range(workers):
            Tree(self.sound.folder, folder / f"gw{number}")
        self._pytest(names, ["-n", str(workers)], {"KEST_MUTANTS_LOOK": str(folder)}, 3600)
        rows = [json.loads(line) for file in folder.glob("*.seen") for line in file.read_text().splitlines()]
        shutil.rmtree(folder)
        return [row[:3] for row in rows if row[3]]

    def take(self, texts):
        """Goes on with those tests only whose name has one of these texts."""
        for tests in (self.units, self.end_to_end):
            tests[:] = [test for test in tests if any(text in test.name for text in texts)]

    # What they notice

    def notices(self, number, of, build, limit):
        """The name of a test that fails with a mutant and passes without it; None when there is no such test among those that
        reach the number `of`. `build` holds the programs, with `number` to be chosen in them. The end-to-end tests together last
        `limit` seconds."""
        tree = Tree(build, self.build / "trees" / f"{os.getpid()}-{of}")
        tree.choose(number)
        sound = Tree(self.sound.folder, self.build / "trees" / f"{os.getpid()}-{of}-sound")
        try:
            for test in sorted((test for test in self.units if of in test.reached), key=lambda test: test.seconds):
                bound = 30 + 20 * test.seconds
                failed = self._unit(tree, test.command, bound) != 0
                if failed and self._unit(sound, test.command, bound) == 0 and self._unit(tree, test.command, bound) != 0:
                    return test.name
            left = self._end_to_end_tests(of, limit)
            while left and (failed := self._first_failed(tree, left)):
                if not self._first_failed(sound, [failed]) and self._first_failed(tree, [failed]):
                    return failed
                left = left[left.index(failed) + 1 :]  # it fails on its own
            return None
        finally:
            tree.remove()
            sound.remove()

    def _end_to_end_tests(self, number, limit):
        """Of each file the test that reaches the fewest mutants, then of each the next, up to `limit` seconds."""
        ordered, places = [], {}
        reaching = [test for test in self.end_to_end if number in test.reached]
        for test in sorted(reaching, key=lambda test: (len(test.reached), test.seconds)):
            file = test.name.split("::")[0]
            places[file] = places.get(file, 0) + 1
            ordered.append((places[file], len(test.reached), test))
        chosen, taken = [], 0.0
        for *_, test in sorted(ordered, key=lambda row: row[:2]):
            taken += test.seconds
            if chosen and taken > limit:
                break
            chosen.append(test.name)
        return chosen

    def _unit(self, tree, command, limit):
        program = tree.folder / Path(command[0]).relative_to(self.build)
        return run([program, *command[1:]], program.parent, {}, limit)

    def _first_failed(self, tree, names):
        plan, failed = tree.folder / "plan", tree.folder / "failed"
        plan.write_text("\n".join(names))
        failed.unlink(missing_ok=True)
        environment = {"KEST_BUILD": str(tree.folder), "KEST_MUTANTS_PLAN": str(plan), "KEST_MUTANTS_FAILED": str(failed)}
        status = self._pytest(dict.fromkeys(name.split("::")[0] for name in names), ["-x", "-p", "no:xdist"], environment, 1800)
        if failed.exists():
            return failed.read_text()
        return names[0] if status not in (0, 5) else None

    def _pytest(self, files, options, env, limit):
        here = Path(__file__).resolve().parent
        command = ["/usr/bin/env", "--default-signal", sys.executable, "-m", "pytest", "-q", "-p", "plugin", *options]
        env = {"PYTHONPATH": str(here), "KEST_PATIENCE": str(self.patience), **env}
        return run([*command, *(f"tests/e2e/{name}" for name in files)], self.source, env, limit)


def stamp(paths):
    """What changes when one of the files does."""
    return hashlib.sha256(b"".join(path.read_bytes() for path in sorted(paths) if path.is_file())).hexdigest()
