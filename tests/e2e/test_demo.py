"""The demo: a shell on a daemon of its own, which ends with it."""

import os
import signal
import time

import pytest

from lib import settings
from lib.program import Program
from lib.terminal import Key

DEMO = settings.SOURCE / "scripts" / "demo"


@pytest.fixture
def build():
    return os.path.relpath(settings.BUILD, settings.SOURCE)


def daemons(sandbox):
    """Process ids of the daemons that serve this test's demos."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as line:
                words = line.read().split(b"\0")
        except OSError:
            continue
        if words[0].endswith(b"/veld") and any(word.startswith(bytes(sandbox.root)) for word in words):
            found.append(int(pid))
    return found


def until_ended(sandbox):
    moment = settings.deadline()
    while daemons(sandbox):
        assert settings.remaining(moment) > 0, "the daemon is still there"
        time.sleep(0.005)


def test_without_a_terminal_it_is_a_tour(sandbox, build):
    run = Program([DEMO, build], sandbox.environment({"TMPDIR": str(sandbox.root)}), sandbox.work).finish(60)
    assert (run.status, run.err) == (0, "")
    assert "$ kest -r get Device.DeviceInfo.Uptime\nUptime = " in run.out
    assert "Status: OK\n\nEVENT 1:\n{\n" in run.out
    assert "Type         Access  Perms  Flags  Name\n" in run.out
    assert list(sandbox.root.glob("kest-demo.*")) == []


@pytest.fixture
def demo(terminal, sandbox, build):
    term = terminal(build, program=DEMO, env={"TMPDIR": str(sandbox.root)})
    term.wait_prompt(timeout=30)
    assert len(daemons(sandbox)) == 1
    yield term
    until_ended(sandbox)


def test_leaving_the_shell_ends_the_daemon(demo, sandbox):
    assert demo.run("cd Device.DeviceInfo") == []
    assert demo.run("cat Uptime")[0].startswith("Uptime = ")
    demo.type(Key.CTRL_C)
    demo.wait_prompt()
    demo.type("q" + Key.ENTER)
    assert demo.wait_exit() == 0
    assert list(sandbox.root.glob("kest-demo.*")) == []


def test_ctrl_c_leaves_a_command_and_not_the_demo(demo):
    demo.type("sh sleep 100" + Key.ENTER)
    demo.wait_for("sleep 100")
    demo.quiet(0.2)
    demo.type(Key.CTRL_C)
    demo.wait_prompt()
    assert demo.run("pwd") == [":"]
    demo.type(Key.CTRL_D)
    assert demo.wait_exit() == 0


def test_a_stopped_shell_goes_on_and_ends_well(demo):
    row = demo.cursor[0]
    demo.type(Key.CTRL_Z)
    demo.wait_for(lambda term: term.cursor[0] > row and term.at_prompt())
    assert demo.run("pwd") == [":"]
    demo.type("q" + Key.ENTER)
    assert demo.wait_exit() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
def test_the_daemon_ends_with_the_demo(demo, sandbox, number):
    demo.process.send_signal(number)
    demo.process.wait(settings.DEADLINE)
    until_ended(sandbox)
