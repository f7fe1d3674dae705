"""Fixtures of the end-to-end tests.

    def test_a_value_is_read(veld, kest):
        run = kest("-r", "get", "Device.Time.Enable", to=veld)
        assert run.out == "Enable = true\n"
        assert run.status == 0

    def test_the_shell_shows_where_it_stands(veld, shell):
        term = shell(to=veld)
        assert term.run("cd Device.Time") == []
        assert term.run("pwd") == [":Device.Time"]

kest        runs the client on pipes to its end                 kest(*words, to=, stdin=, env=, status=...)
kest_start  starts the client on pipes, to be watched           kest_start(*words, to=) → Program
terminal    runs the client (or any program) on a terminal      terminal(*words, to=, columns=, rows=) → Terminal
shell       a terminal that stands at the shell's first prompt  shell(*words, to=) → Terminal
veld        a running daemon with the gateway model
veld_start  starts further daemons                              veld_start(*options, model=) → Veld
fake        a daemon that follows a script (lib/fake.py)
relay_start a wire between a client and a daemon (lib/relay.py)   relay_start(veld) → Relay
certificate (certificate, key): files of a daemon that speaks TLS as localhost
fake_start  further ones                                        fake_start("tcp://127.0.0.1:0") → Fake
private_tmp the directory that the programs of this test see as /tmp (histories)
home        their home directory       tmp_path  their working directory
"""

import os
import re
import signal
import tempfile
import threading
from pathlib import Path

import pytest

from lib import inherited, settings
from lib.certificate import make_certificate
from lib.fake import Fake
from lib.program import Program
from lib.relay import Relay
from lib.sandbox import BASE, Sandbox
from lib.terminal import Terminal
from lib.veld import Veld

inherited.make_usual()


class Overdue(Exception):
    pass


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item):
    """No test runs longer than its deadline, whatever hangs in it."""

    def overdue(*_):
        raise Overdue(f"longer than {limit:.0f} seconds")

    marker = item.get_closest_marker("deadline")
    limit = marker.args[0] * settings.PATIENCE if marker else settings.TEST_DEADLINE
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    before = signal.signal(signal.SIGALRM, overdue)
    signal.setitimer(signal.ITIMER_REAL, limit)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)


def pytest_collection_modifyitems(items):
    """What the programs were built without is not tested: what is marked so, asks for its fixture, or is a variant named after it."""
    for what, there, fixture in (("lua", settings.LUA, None), ("tls", settings.TLS, "certificate")):
        for item in () if there else items:
            variant = item.name.partition("[")[2]
            if item.get_closest_marker(what) or fixture in item.fixturenames or re.search(rf"\b{what}\b", variant, re.I):
                item.add_marker(pytest.mark.skip(reason=f"built without {what}"))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test shows what its daemons logged."""
    outcome = yield
    report = outcome.get_result()
    if report.when == "call" and report.failed:
        for thing in getattr(item, "things", []):
            report.sections.append((type(thing).__name__, thing.report()))


@pytest.fixture
def sandbox():
    box = Sandbox()
    yield box
    reports = box.sanitizer_reports()
    box.close()
    assert not reports, "\n".join(reports)


@pytest.fixture
def things(request, sandbox):
    """What a test started, ended after it in reverse order."""
    request.node.things = []
    yield request.node.things
    problems = []
    for thing in reversed(request.node.things):
        try:
            thing.close()
        except AssertionError as problem:
            problems.append(str(problem))
    assert not problems, "\n".join(problems)


@pytest.fixture
def private_tmp(sandbox):
    return sandbox.tmp


@pytest.fixture
def home(sandbox):
    return sandbox.home


@pytest.fixture
def tmp_path(sandbox):
    return sandbox.work


@pytest.fixture
def veld_start(sandbox, things):
    def start(*options, model="gateway", socket=None, env=None):
        things.append(Veld(sandbox, model, options, socket, env))
        return things[-1]

    return start


@pytest.fixture
def veld(veld_start):
    return veld_start()


@pytest.fixture
def fake_start(sandbox, things):
    def start(address=None):
        things.append(Fake(address or sandbox.new_socket()))
        return things[-1]

    return start


@pytest.fixture
def relay_start(sandbox, things):
    def start(to):
        things.append(Relay(sandbox.new_socket(), to))
        return things[-1]

    return start


@pytest.fixture
def fake(fake_start):
    return fake_start()


def client_words(words, to, name, sandbox):
    """argv of the client: under its own or another name, with the daemon to talk to in front of the words."""
    program = settings.KEST
    if name != "kest":
        program = sandbox.root / name
        if not os.path.lexists(program):
            program.symlink_to(settings.KEST)
    if to is not None:
        words = ("-u", getattr(to, "address", to), *words)
    return [program, *words]


@pytest.fixture(scope="session")
def certificate():
    """A certificate for localhost and its key, signed by themselves."""
    with tempfile.TemporaryDirectory(prefix="kest-e2e-tls-", dir=BASE) as name:
        yield make_certificate(Path(name))


@pytest.fixture
def kest_start(sandbox, things):
    def start(*words, to=None, stdin=None, env=None, name="kest", cwd=None, stdout=None, ignored=()):
        argv = client_words(words, to, name, sandbox)
        if ignored:
            argv = ["/usr/bin/env", "--ignore-signal=" + ",".join(number.name[3:] for number in ignored), *argv]
        things.append(_Ending(argv, sandbox.environment(env), cwd or sandbox.work, stdin, sandbox.wrap, stdout))
        return things[-1]

    return start


class _Ending(Program):
    """A program that does not outlive its test."""

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        super().close()


@pytest.fixture
def kest(kest_start):
    def run(*words, timeout=None, **options):
        return kest_start(*words, **options).finish(timeout)

    return run


@pytest.fixture
def terminal(sandbox, things):
    def start(*words, to=None, columns=80, rows=24, env=None, name="kest", cwd=None, program=None):
        argv = [program, *words] if program else client_words(words, to, name, sandbox)
        things.append(Terminal(argv, sandbox.environment(env), cwd or sandbox.work, columns, rows, sandbox.wrap))
        return things[-1]

    return start


@pytest.fixture
def shell(terminal):
    def start(*words, **options):
        return terminal(*words, **options).wait_prompt()

    return start
