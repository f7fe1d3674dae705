"""The documents: their examples print what they say, and nothing is missing from them."""

import re
import subprocess

import pytest

from lib import pages, picture, settings
from lib.program import Program

MANUALS = sorted(pages.DOCS.glob("*.[18]"))


@pytest.fixture
def bin(sandbox, veld):
    """A folder of programs for which the default daemon is this test's."""
    folder = sandbox.root / "bin"
    folder.mkdir()
    for name in ("kest", "kest_lua", "kest_interpreter"):
        (folder / name).write_text(f'#!/bin/bash\nexec -a {name} {settings.KEST} -u {veld.address} "$@"\n')
        (folder / name).chmod(0o755)
    served = f'[[ $1 == --socket ]] && set -- --model {settings.MODELS}/gateway.json "$@"'
    (folder / "veld").write_text(f'#!/bin/bash\n{served}\nexec {settings.VELD} "$@"\n')
    (folder / "veld").chmod(0o755)
    return folder


@pytest.mark.lua
@pytest.mark.parametrize(
    "line, words",
    [
        ("#!/usr/bin/env kest_lua", ["a", "--", "-n", "5"]),
        ("#!/usr/bin/env -S kest_lua --", ["a", "-n", "5"]),
        ("#!/usr/bin/env -S kest -c login.conf -S", ["a", "--", "-n", "5"]),
        ("#!/usr/bin/env -S kest -c login.conf -S", ["--", "a", "-n", "5"]),
    ],
)
def test_a_script_is_run_as_a_program_with_words_that_look_like_options(sandbox, bin, line, words):
    (sandbox.work / "login.conf").write_text("login\n")
    script = sandbox.work / "script"
    script.write_text(f"{line}\nprint(...) print(pcall(dm.save)) os.exit(7)")
    script.chmod(0o755)
    env = sandbox.environment()
    env["PATH"] = f"{bin}:{env['PATH']}"
    run = Program(sandbox.wrap(["./script", *words]), env, sandbox.work).finish()
    saved = "true\ttrue" if "login" in line else "false\t[9001]"
    assert (run.out.startswith(f"a\t-n\t5\n{saved}"), run.err, run.status) == (True, "", 7)


def test_a_script_of_requests_is_run_as_a_program_with_options(sandbox, bin):
    (sandbox.work / "login.conf").write_text("login\n")
    (sandbox.work / "script").write_text('#!/usr/bin/env -S kest -c login.conf -s\nsave\necho  "as it" # stands\necho never "seen\n')
    (sandbox.work / "script").chmod(0o755)
    env = sandbox.environment()
    env["PATH"] = f"{bin}:{env['PATH']}"
    run = Program(sandbox.wrap(["./script"]), env, sandbox.work).finish()
    assert (run.out, run.err, run.status) == ('Status: OK\n "as it" # stands\n', "", 0)


def pages_with_examples():
    """A fleet is too much work for the programs that sanitizers slow down."""
    for page in pages.documents():
        yield pytest.param(page, id=page.name, marks=[pytest.mark.load] if "fleet" in page.read_text() else [])


@pytest.mark.lua
@pytest.mark.parametrize("page", pages_with_examples())
def test_the_examples_print_what_the_page_says(page, sandbox, bin):
    steps = pages.sessions(page)
    for name, content in pages.shown_files(steps).items():
        (sandbox.work / name).write_text(content)
    script = sandbox.root / "examples"
    script.write_text(pages.shell_script(steps))
    env = sandbox.environment()
    env["PATH"] = f"{bin}:{env['PATH']}"
    env["DEVICES"] = "4"
    # In one stream, as on a terminal.
    argv = sandbox.wrap(["/bin/bash", "-c", f"exec 2>&1; . {script}"])
    run = Program(argv, env, sandbox.work).finish(30)
    printed = run.out.split(pages.MARK + "\n")[1:]
    assert len(printed) == len(steps), run.report()
    for (command, expected), shown in zip(steps, printed):
        assert (command, pages.comparable(shown)) == (command, pages.comparable("\n".join(expected)))


@pytest.mark.parametrize("page", MANUALS, ids=lambda page: page.name)
def test_a_manual_page_is_well_formed(page):
    checked = subprocess.run(["mandoc", "-Tlint", page.name], cwd=page.parent, capture_output=True, text=True)
    assert (checked.stdout, checked.stderr, checked.returncode) == ("", "", 0)


def manual(name):
    page = subprocess.run(["mandoc", "-Tutf8", pages.DOCS / name], capture_output=True, check=True).stdout
    return re.sub(r".\x08", "", page.decode())


def section(page, title):
    return re.search(rf"^{title}\n(.*?)(?=^\S)", page, re.M | re.S)[1]


@pytest.mark.lua
def test_the_picture_shows_what_the_shell_shows(sandbox, veld_start):
    """When it does not: run scripts/picture."""
    assert picture.PICTURE.read_text() == picture.current(sandbox, veld_start("--listen", "tcp://127.0.0.1:0"))


LOGIN_RECIPE = "mkdir -p ~/.local/kest && echo login >~/.local/kest/config"


def test_the_first_screen_says_how_to_log_in():
    page = manual("kest.1").splitlines()
    readme = (settings.SOURCE / "README.md").read_text().splitlines()
    for text, before in ((page, "DESCRIPTION"), (readme, "## Try it")):
        recipe = next(number for number, line in enumerate(text) if LOGIN_RECIPE in line)
        assert recipe < 24 and "values are" in " ".join(text[:40]), before


def command_names():
    """All of the table, since the line of `sh` in the help does not name it."""
    table = (settings.SOURCE / "src/dispatch/table.cpp").read_text()
    names = re.findall(r'^    \{"(\w+)",', table, re.M)
    assert len(names) == 33
    return names


def request_exists(name):
    row = re.search(rf'^    \{{"{name}", [^,]+, process_\w+, (\w+),', (settings.SOURCE / "src/dispatch/table.cpp").read_text(), re.M)
    return row[1] != "nullptr"


def test_the_manual_has_every_command():
    commands = section(manual("kest.1"), "COMMANDS")
    assert [name for name in command_names() if not re.search(rf"(^ {{7}}|, ){name}\b", commands, re.M)] == []


def test_the_manual_marks_the_commands_that_are_no_requests():
    entries = re.findall(r"^ {7}(\w+.*)$", section(manual("kest.1"), "COMMANDS"), re.M)
    marked = {re.match(r"\w+", entry)[0] for entry in entries if re.search(r" \*(?:$| {2})", entry)}
    assert marked == {name for name in command_names() if not request_exists(name)}


@pytest.mark.parametrize("program, page", [(settings.KEST, "kest.1"), (settings.VELD, "veld.8")])
def test_the_manual_has_every_option(program, page):
    usage = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    options = section(manual(page), "OPTIONS")
    names = re.findall(r"--[a-z-]+", usage)
    assert names
    assert [name for name in names if not re.search(rf"{name}\b", options)] == []


def test_the_manual_has_the_exit_status_of_every_request():
    table = section(manual("kest.1"), "EXIT STATUS")
    requests = [name for name in command_names() if request_exists(name)]
    assert len(requests) == 21
    assert [name for name in requests if not re.search(rf"^ +(\S+, )*{name}\b", table, re.M)] == []


STATUSES = [
    (["get", "Device.Nope"], 0), (["get", "Nope"], 0), (["set", "Device.Time.Enable=true"], 0), (["set", "Device.DeviceInfo.Uptime=1"], 0),
    (["set", "Nope=1"], 255), (["del", "Device.Hosts.Host.99"], 0), (["rm"], 255), (["order", "Device.NAT.PortMapping.1", "1"], 0),
    (["order", "Device.Time", "1"], 0), (["order", "Device.NAT.PortMapping.1", "x"], 255), (["save"], 0), (["add", "Device.NAT.PortMapping"], 4),
    (["touch", "Device.Time"], 0), (["add", "Nope"], 255), (["attr", "Device.Time"], 0), (["info", "Device.Nope"], 255), (["ls", "Device"], 0),
    (["ls", "Nope"], 255), (["ls", "Nope", "Device"], 0), (["execute", "Nope"], 255), (["download", "file", "nope"], 255), (["upgrade"], 255),
    (["logout"], 0), (["login", "nobody", "-p", "x"], 255), (["lua", "error('x')"], 0), (["sh", "false"], 0), (["nope"], 255),
]


@pytest.mark.lua
def test_the_exit_statuses_are_those_of_the_manual(kest, veld, sandbox):
    (sandbox.work / "login.conf").write_text("login\n")
    found = [(words, kest("-c", "login.conf", "-r", words[0], "--", *words[1:], to=veld).status) for words, _ in STATUSES]
    assert found == STATUSES


def test_the_manual_has_every_variable_of_the_environment():
    read = {name for path in (settings.SOURCE / "src").rglob("*.cpp") for name in re.findall(r'getenv\("(\w+)"\)', path.read_text())}
    assert {"HOME", "USER", "PATH"} <= read
    assert [name for name in read if not re.search(rf"\b{name}\b", section(manual("kest.1"), "ENVIRONMENT"))] == []


def test_the_version_stands_in_one_place():
    written = re.compile(rf"(?<![\d.]){re.escape(settings.VERSION)}(?!\d)")
    places = []
    for folder in ("base", "completion", "docs", "scripts", "src", "tests", "veld"):
        for path in (settings.SOURCE / folder).rglob("*"):
            if path.is_file() and path.suffix not in (".pyc", ".svg") and written.search(path.read_text(errors="replace")):
                places.append(str(path.relative_to(settings.SOURCE)))
    assert places == []


def test_the_changelog_begins_with_what_is_to_come_and_this_version():
    text = (settings.SOURCE / "CHANGELOG.md").read_text()
    versions = re.findall(r"^## \[(.*?)\](?: - (\d{4}-\d\d-\d\d))?$", text, re.M)
    assert versions[0] == ("Unreleased", "")
    assert versions[1][0] == settings.VERSION
    assert all(date for _, date in versions[1:])
    assert set(re.findall(r"^### (.*)$", text, re.M)) <= {"Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"}


def test_every_document_is_named_where_one_looks_for_it():
    readme = (settings.SOURCE / "README.md").read_text()
    for page in pages.DOCS.glob("*.md"):
        assert f"docs/{page.name}" in readme, page.name


def test_links_between_documents_lead_somewhere():
    for page in (*pages.DOCS.glob("*.md"), *settings.SOURCE.glob("*.md")):
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text()):
            assert (page.parent / target).exists(), f"{page.name}: {target}"
