"""Events: printed by the listener, above what is being typed; notices of instances kept silently; the end of the link."""

import fcntl
import os
import signal
import sys
import termios
import time

import pytest

from lib.fake import Error, Raw, Several, Slow
from lib.terminal import Key

MODEL = {"Device.": {}, "Device.A": 1, "Device.B": "text"}


@pytest.fixture(autouse=True)
def nobody(fake):
    """The fake knows no user, so that prompts show no name."""
    fake.on("Login", Error(9001, "who is that"))


@pytest.fixture
def listener(kest_start, fake):
    """A client in listen mode that has joined group 12 and whose Ctrl-C is the one of that mode."""

    def start():
        joined = len(fake.of("JoinGroup"))
        run = kest_start("-l", "-g", "12", to=fake)
        fake.wait_for(lambda fake: len(fake.of("JoinGroup")) == joined + 2)
        run.wait_for(lambda run: run.catches(signal.SIGINT))
        return run

    return start


@pytest.mark.threads
@pytest.mark.parametrize("value, shown", [
    ([], ""),
    ([{"a": 1, "b": [True, None]}], '{\n    "a": 1,\n    "b": [\n        true,\n        null\n    ]\n}\n'),
    ([[]], "[]\n"),
    ([3], "3\n"),
    (["text"], '"text"\n'),
    ([None], "null\n"),
    (["zwölf\n"], '"zwölf\\n"\n'),
])
def test_an_event_is_printed_with_its_value(listener, fake, value, shown):
    run = listener()
    fake.event(12, *value)
    run.wait_for(lambda run: run.out.endswith(shown or "EVENT 12:\n"))
    run.interrupt()
    run.finish()
    assert (run.out, run.err, run.status) == (f"\nEVENT 12:\n{shown}", "", 0)


@pytest.mark.threads
def test_the_largest_group_is_joined_and_heard(kest, kest_start, veld):
    run = kest_start("-l", "-g", str(2**32 - 1), to=veld)
    run.wait_for(lambda run: run.catches(signal.SIGINT))
    kest("-e", str(2**32 - 1), "1", to=veld)
    run.wait_for(f"\nEVENT {2**32 - 1}:\n1\n")
    run.interrupt()
    assert run.finish().status == 0


@pytest.mark.threads
def test_notices_of_instances_are_silent(listener, fake):
    run = listener()
    fake.event(4, {"Action": "Add", "Path": "Device.Host.", "InstanceNumber": 1})
    fake.event(4)
    fake.event(4, {"Action": "Add"})
    fake.event(5, "seen")
    run.wait_for("seen")
    run.interrupt()
    assert run.finish().out == '\nEVENT 5:\n"seen"\n'


@pytest.mark.threads
def test_notifications_and_strangers_are_passed_over(listener, fake):
    run = listener()
    receiver, = fake.receivers()
    for message in ({"method": "Else", "params": {}}, {"method": "Event"}, {"method": "Event", "params": {"Id": "x"}},
                    {"method": "Event", "params": 3}, {"id": 99, "result": {}}, {"id": [], "result": 1}, {}, {"x": 1}):
        receiver.send(message)
    fake.event(12, "last")
    run.wait_for("last")
    run.interrupt()
    assert run.finish().out == '\nEVENT 12:\n"last"\n'


@pytest.mark.threads
def test_events_that_come_before_the_group_is_joined_are_shown(kest_start, fake):
    event = b'{"jsonrpc":"2.0","method":"Event","params":{"Id":5,"Value":"early"}}\n'
    fake.on("JoinGroup", lambda request: Several([Raw(event), {}]))
    run = kest_start("-l", to=fake)
    fake.wait_for("JoinGroup")
    fake.event(5, "later")
    run.wait_for("later")
    assert run.out == '\nEVENT 5:\n"early"\n\nEVENT 5:\n"later"\n'


@pytest.mark.threads
def test_listening_ends_when_nobody_reads_what_it_prints(kest_start, fake):
    reader, writer = os.pipe()
    run = kest_start("-l", to=fake, stdout=writer)
    os.close(writer)
    fake.event(12)
    assert os.read(reader, 100) == b"\nEVENT 12:\n"
    os.close(reader)
    fake.event(12)
    assert run.finish().status == -signal.SIGPIPE


@pytest.mark.threads
@pytest.mark.parametrize("events, size", [(90, 1000), (1, 200_000)])
def test_the_first_ctrl_c_ends_listening_for_a_reader_that_stalls(kest_start, fake, events, size):
    reader, writer = os.pipe()
    run = kest_start("-l", to=fake, stdout=writer)
    os.close(writer)
    run.wait_for(lambda run: run.catches(signal.SIGINT))
    for _ in range(events):
        fake.event(12, "x" * size)
    run.wait_for(lambda _: queued(reader) > 60_000)
    run.interrupt()
    assert run.finish().status == 0
    os.close(reader)


def queued(descriptor):
    """The bytes that a pipe holds."""
    count = fcntl.ioctl(descriptor, termios.FIONREAD, b"\0" * 4)
    return int.from_bytes(count, sys.byteorder)


@pytest.mark.threads
def test_ctrl_c_ends_listening_at_once(listener):
    spent = []
    for _ in range(3):
        run = listener()
        began = time.monotonic()
        run.interrupt()
        assert run.finish().status == 0
        spent.append(time.monotonic() - began)
        assert run.out == ""
    assert min(spent) < 0.8  # less than the wait for one event


@pytest.mark.threads
def test_a_dropped_link_ends_listening(listener, fake):
    run = listener()
    fake.drop_all()
    run.finish()
    assert (run.out, run.status) == ("Connection dropped\n", 0)


def test_listening_without_a_daemon_ends(kest, tmp_path):
    run = kest("-l", "-g", "1", "-u", tmp_path / "none")
    assert (run.out, run.status) == ("Connection dropped\n", 0)


@pytest.mark.threads
def test_an_event_stands_above_the_line_that_is_being_typed(shell, fake):
    fake.serve(MODEL)
    term = shell("-g", "12", to=fake)
    term.run("opt hint off")  # the line is looked at as it was typed
    term.type("cat Dev")
    term.wait_for("kest:> cat Dev")
    fake.event(12, {"n": 1})
    term.wait_for("EVENT 12:")
    term.wait_for(lambda term: term.line(term.cursor[0]).endswith("> cat Dev"))
    assert term.lines[-6:] == ["", "EVENT 12:", "{", '    "n": 1', "}", "kest:> cat Dev"]
    assert term.text.count("cat Dev") == 1
    term.type("ice.A")
    assert term.enter() == ["A = 1"]


@pytest.mark.threads
def test_an_event_neither_steers_nor_hides_on_a_terminal(shell, fake):
    term = shell("-g", "12", to=fake)
    fake.event(12, {"a\u202eb": "\x7f\x9b\u200b"})
    term.wait_for(lambda term: term.line(term.cursor[0]) == "kest:>" and "EVENT 12:" in term.text)
    assert term.lines[-4:-1] == ["{", r'    "a\u202eb": "\x7f\u009b\u200b"', "}"]


@pytest.mark.threads
def test_many_events_leave_one_prompt(shell, fake):
    fake.serve(MODEL)
    term = shell("-g", "12", to=fake)
    term.type("pwd")
    term.wait_for("> pwd")
    for number in range(30):
        fake.event(12, number)
    term.wait_for("\n29\n")
    term.wait_for(lambda term: term.line(term.cursor[0]).endswith("> pwd"))
    assert sum("pwd" in row for row in term.all_lines) == 1
    shown = [row for row in term.all_lines if row.isdigit()]
    assert shown == [str(number) for number in range(30)]
    assert term.enter() == [":"]


@pytest.mark.threads
def test_a_dropped_link_ends_the_shell(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    term.type("half a line")
    term.wait_for("half a line")
    fake.drop_all()
    assert term.wait_exit() == 0
    assert "Connection dropped" in term.text
    assert term.echoes  # the terminal's modes are back


@pytest.mark.threads
def test_a_hundred_thousand_notices_in_a_row(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    notice = b'{"jsonrpc":"2.0","method":"Event","params":{"Id":4,"Value":{"Action":"Add","Path":"Device.T.","InstanceNumber":%d}}}\n'
    fake.receivers()[0].send_raw(b"".join(notice % number for number in range(1, 100_001)))
    fake.event(9, "after them")
    term.wait_for("after them")
    assert term.run("cat Device.A") == ["A = 1"]
    term.type("q" + Key.ENTER)
    assert term.wait_exit() == 0


@pytest.mark.threads
def test_events_while_a_command_waits_are_shown(shell, fake):
    scheme = fake.serve(MODEL)
    term = shell("-g", "12", to=fake)
    fake.on("GetParameterValues", Slow(0.3, scheme.GetParameterValues))
    term.type("cat Device.A" + Key.ENTER)
    fake.wait_for("GetParameterValues")
    fake.event(12, "meanwhile")
    term.wait_for("meanwhile")
    term.wait_for("A = 1")
    term.wait_prompt()


@pytest.mark.threads
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_a_fatal_signal_leaves_the_terminal_as_it_was(shell, fake, number):
    fake.serve(MODEL)
    term = shell(to=fake)
    term.type("half")
    term.wait_for("half")
    term.signal(number)
    assert term.wait_exit() == -number
    assert term.echoes


@pytest.mark.threads
def test_an_idle_shell_does_nothing(shell, fake):
    fake.serve(MODEL)
    term = shell(to=fake)
    term.quiet(0.3)
    assert term.idles()
