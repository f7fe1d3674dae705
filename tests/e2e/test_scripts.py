"""Script files: what a line is, what runs, where a script ends, and files that are no scripts."""

import os
import signal
import time

import pytest

from lib.fake import Error

MODEL = {"Device.": {}, "Device.Name": "box", "Device.Count": 5}


@pytest.fixture
def script(kest, fake, tmp_path):
    """Runs a text as a script of requests."""
    fake.serve(MODEL)

    def run(text, *words):
        (tmp_path / "file").write_bytes(text if isinstance(text, bytes) else text.encode())
        return kest("-s", "file", *words, to=fake)

    return run


@pytest.mark.parametrize("text, out, status", [
    ("", "", 0),
    ("\n\n", "", 0),
    ("echo\n", "\n", 0),
    ("echo", "\n", 0),
    ("echo one\necho two", "one\ntwo\n", 0),
    ("echo  two  blanks \n", " two  blanks \n", 0),
    ("  echo\ttab\n", "tab\n", 0),
    ("echo a # b\n", "a # b\n", 0),
    ("echo \"q\"\n", "\"q\"\n", 0),
    ("echo $HOME `x`\n", "$HOME `x`\n", 0),
    ("   \t \n", "", 0),
    ("# comment\necho x\n", "x\n", 0),
    ("  # comment\necho x\n", "x\n", 0),
    ("sleep\nsleep x\nsleep 0\nsleep -5\necho x\n", "x\n", 0),
    ("echox\n", "echox: unknown method.\n", 255),
    ("cd Device\necho never\n", "cd: unknown method.\n", 255),
    ("pwd # x\n", "pwd: unknown method.\n", 255),
    ("\r\n", "\r: unknown method.\n", 255),
])
def test_lines(script, text, out, status):
    run = script(text)
    assert (run.out, run.err, run.status) == (out, "", status)


@pytest.mark.parametrize("text, out", [
    ("echo one \\\ntwo\n", "one two\n"),
    ("echo one\\\ntwo\n", "onetwo\n"),
    ("echo a\\\\\necho b\n", "a\\\\\nb\n"),
    ("echo \"a\\\nb\\\nc\n", "\"abc\n"),
    # Each line is judged by itself: one that closes a quote opens it.
    ("echo 'a\nb\n", "'ab\n"),
    ("echo 'a\nb'\necho c\n", "'ab'echo c\n"),
    ("echo it's\necho here\n", "it'secho here\n"),
    ("\\\necho x\n", "x\n"),
    ("\\\n\necho x\n", "x\n"),
    # A comment that goes on swallows what follows, as a joined text that begins with "#" stays pending.
    ("# a \\\necho b\necho c\n", ""),
    ("# it's\necho b\n# don't\necho c\n", ""),
    # Nothing completes the last text.
    ("echo a\necho 'b\n", "a\n"),
    ("echo a\necho b\\", "a\n"),
])
def test_lines_that_go_on(script, text, out):
    run = script(text)
    assert (run.out, run.status) == (out, 0)


def test_words_are_requests_by_command_or_method(script, fake):
    run = script("get Device.Name\nGetParameterValues Device.Count   Device.Name # and no more\n")
    assert run.status == 0
    assert run.out == 'Name = "box"\nCount = 5\nName = "box"\n'


def test_quotes_are_no_quotes_in_a_script(script, fake):
    script("get \"Device.Name Device.Count\"\n")
    assert fake.params("GetParameterValues") == [
        {"ParameterNames": ["\"Device.Name"]}, {"ParameterNames": ["Device.Count\""]}]


def test_the_first_failure_ends_the_script(script, fake):
    fake.on("Login", Error(9001, "Request denied"))
    run = script("echo a\nlogin admin -p x\necho b\n")
    assert run.status == 255
    assert run.out.startswith("a\n") and "b\n" not in run.out


def test_builtins_do_not_change_the_result(script, fake):
    fake.on("AddObject", {"InstanceNumber": 7, "Status": 0})
    assert script("add Device.Host.\necho x\nsleep 0\n").status == 7


def test_sleeping_takes_its_seconds(script):
    start = time.monotonic()
    assert script("echo a\nsleep 1\necho b\n").out == "a\nb\n"
    assert 1.0 <= time.monotonic() - start


def test_what_was_printed_is_seen_before_the_sleep(kest_start, fake, tmp_path):
    (tmp_path / "file").write_text("echo first\nsleep 3000000000\n")
    run = kest_start("-s", "file", to=fake)
    run.wait_for("first\n")
    run.interrupt()
    assert run.finish(2).status == -signal.SIGINT


def test_the_interpreter_takes_its_file_from_the_words(kest, fake, tmp_path):
    (tmp_path / "file").write_text("#!/usr/bin/kest_interpreter\necho x\n")
    assert kest("file", to=fake, name="kest_interpreter").out == "x\n"
    assert kest("other", "-c", "/dev/null", to=fake, name="kest_interpreter").out == "Cannot open script file other\n"


@pytest.mark.parametrize("words, path", [(["-s", "missing"], "missing"), (["-s", "."], "."), (["-s", ""], "")])
def test_a_file_that_cannot_be_opened(kest, fake, words, path):
    run = kest(*words, to=fake)
    assert (run.out, run.status) == (f"Cannot open script file {path}\n", 255)


def test_no_file_at_all(kest, fake):
    run = kest(to=fake, name="kest_interpreter")
    assert (run.out, run.status) == ("Cannot open script file (null)\n", 255)


def test_a_script_on_a_pipe(kest, kest_start, fake, tmp_path):
    assert kest("-s", "/dev/stdin", to=fake, stdin="echo a\necho b").out == "a\nb\n"
    os.mkfifo(tmp_path / "fifo")
    run = kest_start("-s", "fifo", to=fake)
    with open(tmp_path / "fifo", "w") as pipe:
        pipe.write("echo fir")
        pipe.flush()
        pipe.write("st\necho sec")
        pipe.flush()
        run.wait_for("first\n")
        pipe.write("ond")
    assert run.finish().out == "first\nsecond\n"


def test_waiting_for_a_script_on_a_pipe_can_be_interrupted(kest_start, fake, tmp_path):
    os.mkfifo(tmp_path / "fifo")
    run = kest_start("-s", "fifo", to=fake)
    fake.wait_for("JoinGroup")
    with open(tmp_path / "fifo", "w") as pipe:
        pipe.write("echo x\n")
        pipe.flush()
        run.wait_for("x\n")
        run.interrupt()
        assert run.finish(2).status == -signal.SIGINT


@pytest.mark.parametrize("text", [b"echo a\n\x7fELF\0\0\n", b"echo a\nget \xff\n", b"echo a\nDevice\xff.X\n"])
def test_a_line_that_is_no_text(script, text):
    run = script(text)
    assert (run.out, run.err, run.status) == ("a\n", "file: line 2 is not text.\n", 255)


def test_a_script_of_one_long_line(script, fake):
    run = script("x" * 10_000_000)
    assert (run.out, run.status) == ("x" * 10_000_000 + ": unknown method.\n", 255)
    run = script("echo " + "y" * 10_000_000)
    assert (run.out, run.status) == ("y" * 10_000_000 + "\n", 0)
    run = script("nonsense" + " Device.Name" * 800_000)
    assert run.out == "nonsense: unknown method.\n"


def test_a_script_that_cannot_be_read_says_so(kest, fake):
    run = kest("-s", "/proc/self/mem", to=fake)
    assert (run.out, run.err, run.status) == ("", "/proc/self/mem: the script cannot be read to its end.\n", 255)


@pytest.mark.load
def test_lines_that_go_on_for_too_long_end_the_script(script, fake):
    run = script(("echo " + "x" * (33 << 20) + "\\\n") * 2 + "echo y\n")
    assert (run.out, run.err, run.status) == ("", "file: line 2 is too long.\n", 255)


def test_many_lines_are_read_in_one_go(script):
    run = script("echo x\n" * 200_000)
    assert run.out == "x\n" * 200_000


def test_a_configuration_runs_shell_commands(kest, fake, tmp_path):
    fake.serve(MODEL)
    (tmp_path / "config").write_text("login admin -p x\ncd Device\ncat Name\n")
    kest("-c", "config", "-n", "x", to=fake)
    assert fake.params("GetParameterValues") == [{"ParameterNames": ["Device.Name"]}]


def test_commands_of_a_script_share_one_link(script, fake):
    script("get Device.Name\n" * 500)
    assert len(fake.of("GetParameterValues")) == 500
    assert len(fake.connections) == 2
