"""Reading lines where there is no terminal."""

import os
import signal
import socket
import subprocess

import pytest

from lib import settings

DEMO = settings.BUILD / "tests" / "programs" / "rl_demo"


@pytest.fixture
def demo(sandbox):
    """demo(input, ...): the demo program on pipes, to its end."""

    def run(data=None, stdin=None, **env):
        return subprocess.run(
            [DEMO], input=data, stdin=stdin, capture_output=True, env=sandbox.environment(env), timeout=settings.TEST_DEADLINE
        )

    return run


def test_lines_are_read_without_prompt_echo_or_escapes(demo):
    run = demo(b"one\n\ntwo\n", DEMO_COLORS="1", DEMO_PROMPT="prompt> ")
    assert run.stdout == b'got "one"\ngot ""\ngot "two"\nend\n'
    assert run.stderr == b""


def test_a_last_line_without_line_feed_is_a_line(demo):
    assert demo(b"one\ntwo").stdout == b'got "one"\ngot "two"\nend\n'


def test_a_nul_is_no_word_and_ends_nothing(demo):
    assert demo(b"a\0b\nnext\n").stdout == b'got not UTF-8\ngot "next"\nend\n'


@pytest.mark.parametrize("size", [4095, 4096, 4097, 16384, 65536, 10_000_000])
def test_long_lines_are_taken_whole(demo, size):
    wanted = f"got {size} bytes\ngot \"next\"\nend\n".encode()
    data = b"x" * size + b"\nnext\n"
    assert demo(data).stdout == wanted


def test_a_long_line_from_a_file(demo, tmp_path):
    path = tmp_path / "input"
    path.write_bytes(b"y" * 10_000_000 + b"\nnext\n")
    with open(path) as stdin:
        assert demo(stdin=stdin).stdout == b'got 10000000 bytes\ngot "next"\nend\n'


CHILD = b'child read a; echo "child has $a"\nfor the child\nlast\n'
CHILD_OUTPUT = b'child has for the child\ngot "child read a; echo \\"child has $a\\""\ngot "last"\nend\n'


def test_a_child_finds_the_next_line_of_a_pipe(demo):
    assert demo(CHILD).stdout == CHILD_OUTPUT


def test_a_child_finds_the_next_line_of_a_file(demo, tmp_path):
    path = tmp_path / "input"
    path.write_bytes(CHILD)
    with open(path) as stdin:
        assert demo(stdin=stdin).stdout == CHILD_OUTPUT


def test_a_child_finds_the_next_line_of_a_socket(demo):
    ours, theirs = socket.socketpair()
    ours.sendall(CHILD)
    ours.close()
    assert demo(stdin=theirs).stdout == CHILD_OUTPUT


def test_an_input_that_cannot_be_looked_into(demo):
    with open("/dev/null") as stdin:
        assert demo(stdin=stdin).stdout == b"end\n"


def test_a_directory_as_input_is_the_end(demo, tmp_path):
    stdin = os.open(tmp_path, os.O_RDONLY)
    assert demo(stdin=stdin).stdout == b"end\n"


@pytest.fixture
def waiting(sandbox):
    """The demo program, waiting for a line on a pipe that stays open."""
    read, write = os.pipe()
    orders_read, orders_write = os.pipe()

    def start(**env):
        process = subprocess.Popen(
            ["/bin/bash", "-c", f'exec "{DEMO}" 3<&{orders_read}'],
            stdin=read, stdout=subprocess.PIPE, env=sandbox.environment(env), pass_fds=[orders_read],
        )
        os.write(write, b"first\n")
        assert process.stdout.readline() == b'got "first"\n'
        process.type = lambda data: os.write(write, data)
        process.order = lambda text: os.write(orders_write, text.encode() + b"\n")
        processes.append(process)
        return process

    processes = []
    yield start
    for process in processes:
        process.kill()
        process.wait()
    for fd in (read, write, orders_read, orders_write):
        os.close(fd)


def test_a_stop_ends_the_wait_for_a_line(waiting):
    process = waiting(DEMO_UNBUFFERED="1")
    process.type(b"half a line")
    process.order("stop")
    assert process.wait(10) == 0
    assert process.stdout.read() == b"none\n"


def test_events_are_printed_while_a_line_is_awaited(waiting):
    process = waiting(DEMO_UNBUFFERED="1")
    process.order("event 5")
    assert process.stdout.readline() == b"\n"
    assert process.stdout.readline() == b"EVENT 5\n"


def test_ctrl_c_has_its_disposition(waiting):
    process = waiting(DEMO_UNBUFFERED="1")
    process.send_signal(signal.SIGINT)
    assert process.wait(10) == -signal.SIGINT


def test_ctrl_c_drops_half_a_line_when_its_handler_notes_it(waiting):
    process = waiting(DEMO_UNBUFFERED="1")
    process.type(b"handler note\n")
    assert process.stdout.readline() == b'got "handler note"\n'
    process.type(b"half")
    process.send_signal(signal.SIGINT)
    assert process.stdout.readline() == b"\n"
    assert process.stdout.readline() == b"noted\n"
    process.type(b"whole\n")
    assert process.stdout.readline() == b'got "whole"\n'


def test_lists_and_bars_are_plain(demo):
    run = demo(b"list 3\nbar 5 Flashing:\nbar 39 Flashing:\nbar 31 Flashing:\nbar 100 Flashing:\n")
    lines = [line for line in run.stdout.decode().splitlines() if not line.startswith("got")]
    assert lines == ["name0", "name1", "name2", "Flashing: 0%", "Flashing: 30%", "Flashing: 100%", "end"]
