"""The line editor on a terminal: keys, history, signals, completion, hints, what other threads print."""

import json
import os
import re
import signal
import time
from pathlib import Path

import pytest

from lib import settings
from lib.terminal import Key

DEMO = settings.BUILD / "tests" / "programs" / "rl_demo"
PROMPT = "> "


@pytest.fixture
def editor(terminal, tmp_path):
    """editor(...): the demo program at its first prompt; `words` are what it completes, `order` tells its other thread."""

    def start(words=None, columns=80, rows=24, wait=True, before="", after="", **env):
        fifo = tmp_path / "orders"
        if not fifo.exists():
            os.mkfifo(fifo)
        if words is not None:
            env["DEMO_WORDS"] = json.dumps(words)
        term = terminal(
            "-c", f'{before}\n"{DEMO}" 3<>"{fifo}"\nstatus=$?\n{after}\nexit $status' if before or after
            else f'exec "{DEMO}" 3<>"{fifo}"',
            program="/bin/sh", columns=columns, rows=rows, env=env,
        )
        term.prompt = re.compile("^>$")
        orders = os.open(fifo, os.O_RDWR)
        term.order = lambda text: os.write(orders, text.encode() + b"\n")
        if wait:
            term.wait_prompt(PROMPT)
        return term

    return start


@pytest.fixture
def remembering(editor):
    """remembering(line, ...): the demo program with these lines in its history."""

    def start(*lines):
        term = editor()
        for line in lines:
            term.run(line)
        return term

    return start


@pytest.fixture
def hinting(editor):
    """The demo program behind three letters and a hint of the rest."""
    term = editor(words=["alphabet"], DEMO_HINTS="1")
    term.type("alp")
    term.wait_for("> alphabet")
    return term


@pytest.fixture
def two_rows(editor):
    """The demo program with a line on two rows."""
    term = editor(columns=20)
    term.type("a line that takes more than one row")
    term.wait_for(shows("> a line that takes", "more than one row"))
    return term


@pytest.fixture
def held_up(editor, tmp_path):
    """held_up(typed, moment): the demo program where what it does with these keys waits, at one moment of several:
    before Ctrl-C becomes a signal, or ("STRUCK") a key again."""

    def start(typed, moment, way="TYPED", meanwhile=""):
        if b"san_init" in Path(DEMO).read_bytes():
            pytest.skip("a sanitizer wants to come first")
        waits = tmp_path / "waits"
        term = editor(LD_PRELOAD=str(DEMO.with_name("troubled.so")), **{f"TROUBLE_{way}": f"{moment}:{waits}"})
        term.type(typed)
        if meanwhile:
            term.wait_for("\nhalf")
            term.quiet(0.1).type(meanwhile)
        while not waits.exists():
            term.quiet(0.02)
        return term

    return start


def shows(*rows):
    """The screen's rows are these."""
    return lambda term: term.lines == [row.rstrip() for row in rows]


def in_json(text):
    """The text as the demo program answers it."""
    return re.sub(r"\\u[0-9a-f]{4}", lambda found: "\\u" + found[0][2:].upper(), json.dumps(text))


def cursor_line(term):
    return term.line(term.cursor[0])


# Keys


def test_a_line_is_edited_and_read(editor):
    term = editor()
    term.type("helo" + Key.LEFT + "l" + Key.ENTER)
    term.wait_for(shows("> hello", 'got "hello"', ">"))


@pytest.mark.parametrize(
    "keys,line",
    [
        ("abc" + Key.HOME + "x", "xabc"),
        ("abc\x1bOHx", "xabc"),
        ("abc" + Key.CTRL_A + "x" + Key.CTRL_E + "y", "xabcy"),
        ("abc\x1b[1~x\x1b[4~y", "xabcy"),
        ("abc" + Key.LEFT + Key.LEFT + Key.DELETE, "ac"),
        ("abc" + Key.LEFT + Key.CTRL_D, "ab"),
        ("abc" + Key.CTRL_D + "d", "abcd"),
        ("one two three" + Key.CTRL_LEFT + Key.CTRL_LEFT + "x", "one xtwo three"),
        ("one two" + Key.HOME + Key.CTRL_RIGHT + "x", "onex two"),
        ("one two" + Key.CTRL_W, "one "),
        ("one two" + Key.CTRL_W + Key.CTRL_Y + Key.CTRL_Y, "one twotwo"),
        ("abcd" + Key.LEFT + Key.CTRL_U, "d"),
        ("abcd" + Key.LEFT + Key.LEFT + Key.CTRL_K + "x", "abx"),
        ("abcd" + Key.CTRL_U + "x" + Key.HOME + Key.DELETE + Key.CTRL_Y, "abcd"),
        ("ab\x14", "ba"),
        ("word\x1bb\x1bu", "WORD"),
        ("aé漢b" + Key.BACKSPACE * 2, "aé"),
        ("a\x16\x03b", "a\x03b"),
        ("\x1b[5~\x1b[6~\x1b[2~\x1b[24~\x1bOP\x1b[[Ax", "x"),  # keys that mean nothing here leave nothing
        ("\x1b[200~pasted\x1b[201~", "pasted"),
        ("cat A.B.C" + Key.CTRL_LEFT + "\x1b\x7f", "cat A.C"),
        ("set A.B=c" + Key.HOME + "\x1bd\x1bd", ".B=c"),
        ("cat A.B. C.D=e" + Key.CTRL_W, "cat A.B. "),
        ("one" + Key.CTRL_U + "two" + Key.CTRL_U + Key.CTRL_Y + "\x1by", "one"),
        ("one two" + Key.CTRL_W + "x\x1f\x1f", "one two"),
        (b"a\xff\xc3(b", None),  # bytes that are no UTF-8 are kept for whoever judges words
        ("x" * 3000, "x" * 3000),
    ],
)
def test_keys_do_what_they_do_elsewhere(editor, keys, line):
    term = editor()
    term.type(keys)
    term.quiet(0.1).type(Key.ENTER)
    wanted = "not UTF-8" if line is None else in_json(line)
    if len(wanted) > 2000:
        term.wait_for(f"got {len(line)} bytes")
    else:
        term.wait_for(f"got {wanted}")
    term.wait_prompt(PROMPT)


def test_bytes_that_are_not_utf8_are_shown_as_escapes(editor):
    term = editor()
    term.type(b"a\xe9b\xc2\x85")
    term.wait_for(lambda term: cursor_line(term) == r"> a\xe9b\u0085")


def test_invisible_characters_are_shown(editor):
    term = editor()
    term.type("a\u200bb\u202ec")
    term.wait_for(lambda term: cursor_line(term) == r"> a\u200bb\u202ec")


def test_the_prompt_has_its_colour_and_shows_control_characters(editor):
    term = editor(wait=False, DEMO_COLORS="1", DEMO_PROMPT="us\x1b[31mer> ")
    term.wait_for("us^[[31mer>")
    assert term.colours(0)[0] == ("us^[[31mer> ", "5f87ff")


def test_delete_on_an_empty_line_is_not_the_end(editor):
    term = editor()
    term.type(Key.DELETE + "x" + Key.ENTER)
    term.wait_for('got "x"')


def test_ctrl_d_ends_an_empty_line(editor):
    term = editor()
    term.type(Key.CTRL_D)
    assert term.wait_exit() == 0
    assert term.lines == [">", "end"]


def test_a_closed_terminal_is_the_end(editor):
    term = editor()
    term.hang_up()
    assert term.wait_exit() in (0, -signal.SIGHUP)


def test_ctrl_l_clears_the_screen(editor):
    term = editor()
    term.run("a")
    term.type("half" + Key.CTRL_L)
    term.wait_for(shows("> half"))


def test_a_prompt_wider_than_the_screen_wraps(editor):
    term = editor(columns=10, wait=False, DEMO_PROMPT="a-long-prompt> ")
    term.type("xyz12345")
    term.wait_for(shows("a-long-pro", "mpt> xyz12", "345"))
    assert term.cursor == (2, 3)


# History


def test_history_keys_walk_and_keep_the_line(remembering):
    term = remembering("one", "two ")
    term.type("half" + Key.UP)
    term.wait_for(lambda term: cursor_line(term) == "> two" and term.cursor[1] == 6)
    term.type(Key.UP + Key.UP + Key.UP)
    term.wait_for(lambda term: cursor_line(term) == "> one")
    term.type(Key.DOWN + Key.DOWN + Key.DOWN + Key.DOWN)
    term.wait_for(lambda term: cursor_line(term) == "> half")


def test_the_last_words_of_the_history_are_inserted(remembering):
    term = remembering('ls "my file"', "cd other")
    term.type("x \x1b.")
    term.wait_for(lambda term: cursor_line(term) == "> x other")
    term.type("\x1b.")
    term.wait_for(lambda term: cursor_line(term) == '> x "my file"')


def test_a_long_line_comes_back_from_the_history_whole(editor):
    term = editor()
    term.run("old")
    term.type("y" * 1500 + "END")
    term.wait_for("END")
    term.type(Key.UP)
    term.wait_for(lambda term: cursor_line(term) == "> old")
    term.type(Key.DOWN + "!" + Key.ENTER)
    term.wait_for(lambda term: f'got "{"y" * 1500}END!"' in "".join(term.all_lines))


def test_a_multi_line_entry_is_shown_and_edited_on_its_rows(editor, tmp_path):
    history = tmp_path / "history"
    history.write_bytes(b"plain\n\x01for i=1,2 do\\nprint(i)\\nend\n")
    history.chmod(0o600)
    term = editor(DEMO_HISTORY=str(history))
    term.type(Key.UP)
    term.wait_for(shows("> for i=1,2 do", "print(i)", "end"))
    term.type("X")
    term.wait_for(shows("> for i=1,2 do", "print(i)", "endX"))
    term.type(Key.ENTER)
    term.wait_for(r'got "for i=1,2 do\nprint(i)\nendX"')
    term.wait_prompt(PROMPT).type(Key.CTRL_D)
    assert term.wait_exit() == 0
    assert history.read_bytes().endswith(b"end\n\x01for i=1,2 do\\nprint(i)\\nendX\n")


def test_reverse_search_finds_goes_on_and_gives_up(remembering):
    term = remembering("first match", "other", "second match")
    term.type(Key.CTRL_R + "match")
    term.wait_for(re.compile("> second match\nbck:match$"))
    term.type(Key.CTRL_R)
    term.wait_for(re.compile("> first match\nbck:match$"))
    term.type(Key.CTRL_R)
    term.wait_for(re.compile("> .*\nbck\\?match$"))
    term.type(Key.CTRL_G * 4)
    term.wait_for(lambda term: "bck" not in term.text)
    term.type(Key.CTRL_C + Key.CTRL_R)
    term.wait_for("bck:")
    term.type(Key.CTRL_C)
    term.wait_prompt(PROMPT)


def test_a_search_is_ended_by_escape_and_by_arrows(remembering):
    term = remembering("alpha")
    term.type(Key.CTRL_R + "lph")
    term.wait_for("bck:lph")
    term.type(Key.ESCAPE)
    term.wait_for(lambda term: "bck" not in term.text)
    term.type(Key.CTRL_C + Key.CTRL_R + "alph")
    term.wait_for("bck:")
    term.type(Key.HOME + "X")
    term.wait_for(lambda term: cursor_line(term) == "> Xalpha")


def test_a_search_takes_characters_of_any_script(remembering):
    term = remembering("Привет Москва", "一上本語字", "other")
    for part, wanted in (("ПРИ", None), ("Моск", "> Привет Москва"), ("上本語", "> 一上本語字"), ("一", "> 一上本語字")):
        term.type(Key.CTRL_R + part)
        if wanted:
            term.wait_for(lambda term: wanted + "\nbck:" + part in term.text)
        else:
            term.wait_for("bck?" + part)  # letters are not folded
        term.type(Key.CTRL_C)
        term.wait_prompt()
        # The keys whose codes the characters hold work as ever.
        term.type("ab" + Key.BACKSPACE + Key.UP + Key.UP + Key.CTRL_A + "x")
        term.wait_for(lambda term: cursor_line(term) == "> x一上本語字")
        term.type(Key.CTRL_C)
        term.wait_prompt()


def test_a_search_reaches_long_entries(editor):
    term = editor(rows=40)
    term.type("needle" + "z" * 9000 + Key.ENTER)
    term.wait_prompt(PROMPT)
    for line in ("b" * 5000, "short"):
        term.run(line)
    term.type(Key.CTRL_R + "needle" + "z" * 500)
    term.wait_for(lambda term: term.line(0).startswith("> needlezz"))
    term.type(Key.ENTER)
    term.wait_for("got 9006 bytes")


@pytest.mark.deadline(120)
def test_a_history_of_100000_entries_is_searched_at_once(editor, tmp_path):
    history = tmp_path / "history"
    history.write_text("the oldest entry\n" + "".join(f"set Device.A.{n}=value\n" for n in range(100000)))
    history.chmod(0o600)
    term = editor(DEMO_HISTORY=str(history))
    before = term.cpu_seconds()
    term.type(Key.UP * 50)
    term.wait_for(lambda term: cursor_line(term) == "> set Device.A.99950=value")
    term.type(Key.CTRL_U + Key.CTRL_R + "oldest")
    term.wait_for(re.compile("> the oldest entry\nbck:oldest$"), timeout=60)
    assert term.cpu_seconds() - before < 2 * settings.PATIENCE


# Ctrl-C, signals, the terminal's modes


def test_ctrl_c_drops_the_line(editor):
    term = editor()
    term.type("dropped" + Key.CTRL_C)
    term.wait_for(shows("> dropped^C", ">"))
    term.type("kept" + Key.ENTER)
    term.wait_for('got "kept"')


def test_ctrl_c_goes_to_a_handler_with_the_terminal_as_it_was(editor):
    term = editor()
    term.run("handler note")
    term.type("half" + Key.CTRL_C)
    term.wait_for("noted")
    term.run("handler return")
    term.type("more" + Key.CTRL_C)
    term.wait_for(re.compile("> more\\^C\n>$"))
    term.type("next" + Key.ENTER)
    term.wait_for('got "next"')


MODES = 'stty -a | grep -v speed >{}; stty -a | grep -o "speed.*" >>{}'


def modes_kept(term, tmp_path):
    before, after = (tmp_path / "before").read_text(), (tmp_path / "after").read_text()
    assert before == after and "icanon" in before and "-icanon" not in before


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGINT])
def test_a_fatal_signal_takes_the_hint_away_and_restores_the_terminal(editor, tmp_path, number):
    term = editor(
        words=["alphabet"], DEMO_HINTS="1",
        before="trap '' HUP; ulimit -c 0; stty -a >before; echo $$ >pid; trap - HUP",
        after="stty -a >after; echo status $status",
    )
    term.type("alp")
    term.wait_for("> alphabet")
    term.type(Key.ESCAPE)  # a sequence that never ends
    shell = int((tmp_path / "pid").read_text())
    children = f"/proc/{shell}/task/{shell}/children"
    os.kill(int(open(children).read().split()[0]), number)
    term.wait_for(f"status {128 + number}")
    assert term.line(0) == "> alp"
    term.wait_exit()
    modes_kept(term, tmp_path)


@pytest.mark.parametrize("before, got, status", [("ulimit -c 0", "", 128 + signal.SIGQUIT), ("trap '' QUIT", '> abc\ngot "abc"\n>\n', 0)])
def test_the_quit_key_is_what_it_is_elsewhere(editor, tmp_path, before, got, status):
    term = editor(before=f"{before}; stty -a >before", after="stty -a >after; echo status $status")
    term.type("ab\x1cc" + Key.ENTER + Key.CTRL_D)
    term.wait_for(f"status {status}")
    assert "\n".join(term.lines).startswith(got)
    term.wait_exit()
    modes_kept(term, tmp_path)


@pytest.mark.parametrize("printed, row", [
    ("aX\bb", "ab"), ("aXY\b\bb", "ab"), ("é\bab", "ab"), ("w" * 78 + "\033[1;1Hab", "ab"),
])
def test_a_prompt_follows_a_row_that_was_written_over(editor, printed, row):
    term = editor()
    term.type("part " + re.sub("([\\0-\\x1f])", "\x16\\1", printed) + Key.ENTER + "x" + Key.CTRL_A + "y")
    column = len(row) + len(PROMPT) + 1
    term.wait_for(lambda term: cursor_line(term)[:column + 1] == f"{row}> yx" and term.cursor[1] == column)


@pytest.mark.parametrize("odd", ["-onlcr", "-echo", "intr ^G", "susp undef", "-icrnl", "min 5", "-ixon"])
def test_the_terminal_is_restored_exactly(editor, tmp_path, odd):
    term = editor(before=f"stty {odd}; stty -a >before", after="stty -a >after; stty sane", wait=False)
    term.wait_for(">")
    term.type("x" + (Key.ENTER if odd != "-icrnl" else "\n") + Key.CTRL_D)
    term.wait_exit()
    assert (tmp_path / "before").read_text() == (tmp_path / "after").read_text()


def test_ctrl_z_stops_and_comes_back_to_the_line(editor, tmp_path):
    term = editor(before="set -m; stty -a >before", after="stty -a >after; echo stopped; fg >/dev/null")
    term.type("half typed" + Key.CTRL_Z)
    term.wait_for("stopped")
    term.wait_for(lambda term: cursor_line(term) == "> half typed" and "stopped" in term.text)
    term.type(" done" + Key.ENTER)
    term.wait_for('got "half typed done"')
    modes_kept(term, tmp_path)


def test_a_stop_signal_stops_as_ctrl_z_does(editor, tmp_path):
    term = editor(before="set -m; stty -a >before", after="stty -a >after; echo stopped; fg >/dev/null")
    term.type("half typed")
    term.wait_for("> half typed")
    (reader,) = Path(f"/proc/{term.pid}/task/{term.pid}/children").read_text().split()
    os.kill(int(reader), signal.SIGTSTP)
    term.wait_for("stopped")
    term.wait_for(lambda term: cursor_line(term) == "> half typed" and "stopped" in term.text)
    term.type(" done" + Key.ENTER)
    term.wait_for('got "half typed done"')
    modes_kept(term, tmp_path)


def test_keys_that_another_program_took_while_it_was_stopped_are_not_waited_for(editor):
    term = editor(before="set -m", after="timeout 1 cat -v; echo taken; fg >/dev/null")
    term.type("half typed" + Key.CTRL_Z + "meanwhile")
    term.wait_for("taken")
    term.wait_for(lambda term: cursor_line(term) == "> half typed" and "taken" in term.text)
    term.type(" done" + Key.ENTER)
    term.wait_for('got "half typed done"')


def test_a_stop_from_outside_brings_the_editor_back(editor):
    term = editor()
    term.type("half")
    term.wait_for("> half")
    term.signal(signal.SIGSTOP)
    term.signal(signal.SIGCONT)
    term.type(" done" + Key.ENTER)
    term.wait_for('got "half done"')


def test_echo_is_off_for_a_secret_and_back_afterwards(editor):
    term = editor()
    term.type("secret" + Key.ENTER)
    term.wait_for(lambda term: "secret:" in term.text and not term.echoes)
    term.type("pssst\n")
    term.wait_for("read 6 bytes")
    assert "pssst" not in term.text


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT])
def test_echo_comes_back_when_a_signal_ends_the_program(editor, tmp_path, number):
    term = editor(
        before="ulimit -c 0; stty -a >before; echo $$ >pid", after="stty -a >after; echo status $status"
    )
    term.type("secret" + Key.ENTER)
    term.wait_for(lambda term: "secret:" in term.text and not term.echoes)
    shell = int((tmp_path / "pid").read_text())
    os.kill(int(open(f"/proc/{shell}/task/{shell}/children").read().split()[0]), number)
    term.wait_for(f"status {128 + number}")
    modes_kept(term, tmp_path)


def test_an_idle_editor_does_nothing(hinting):
    term = hinting
    term.quiet(0.5)
    assert term.idles()


# What is typed ahead, what is pasted


def test_a_paste_of_many_lines_runs_them_one_by_one(editor):
    term = editor(rows=60)
    term.type("".join(f"line {n}\r" for n in range(20)) + "rest")
    term.wait_for("> rest")
    rows = []
    for n in range(20):
        rows += [f"> line {n}", f'got "line {n}"']
    assert term.lines == rows + ["> rest"]


def pasted(text):
    return f"\x1b[200~{text}\x1b[201~"


def test_tabs_and_control_keys_of_a_paste_are_text(editor):
    term = editor(words=["alphabet"])
    term.type("a" + pasted("al\tx\x03\x1a\x04\x1b[A") + "b" + Key.ENTER)
    term.wait_for("got " + in_json("aal\tx\x03\x1a\x04\x1b[Ab"))


def test_the_lines_of_a_marked_paste_run_one_by_one(editor):
    term = editor(words=["alphabet"])
    term.type(pasted("one\rtwo\r\tthree") + "\t")
    term.wait_for(shows("> one", 'got "one"', "> two", 'got "two"', ">       three"))


def test_a_paste_whose_end_never_comes_is_over_after_a_pause(editor):
    term = editor(words=["alphabet"])
    term.type("\x1b[200~al")
    term.wait_for("> al")
    term.type("\t")
    term.wait_for("> alphabet")


@pytest.mark.parametrize("typed, kept", [
    ("one\r\x03", ""),
    ("one\rtwo\rthr\x03ee\r", "ee"),
    ("one\r\x03two\rthree\x03four\r", "four"),
    ("one\r\x1b[200~two\r\x1b[201~\x03three\r", "three"),
])
def test_ctrl_c_in_one_packet_with_enter_drops_all_before_it(editor, typed, kept):
    term = editor()
    term.type(typed + "end" + Key.ENTER)
    term.wait_for('got "end"')
    got = re.findall('^got "(.*)"', term.text, re.M)
    assert got == [kept, "end"] if kept else ["end"]


@pytest.mark.parametrize("moment", [1, 2, 3, 4])
def test_a_ctrl_c_while_it_becomes_a_signal_stops_the_line(held_up, moment):
    term = held_up("sleep 1000000" + Key.ENTER, moment)
    term.type(Key.CTRL_C)
    # First it takes the line back; later it is for what the line starts.
    if moment == 1:
        term.wait_for(lambda term: term.lines[:2] == ["> sleep 1000000^C", ">"])
    else:
        assert term.wait_exit() == -signal.SIGINT


def test_what_is_typed_behind_a_ctrl_c_that_was_a_signal_while_the_line_ended_is_kept(held_up):
    term = held_up("handler note" + Key.ENTER + "sleep 1000000" + Key.ENTER, 4, "STRUCK")
    term.type(Key.CTRL_C + "kept")
    term.wait_for(lambda term: cursor_line(term) == "> kept")
    assert term.lines[-4:] == ["> sleep 1000000", "^C", "noted", "> kept"]


def test_a_ctrl_c_that_empties_the_terminal_before_the_prompt_does_not_keep_it_back(held_up):
    term = held_up("half 500" + Key.ENTER, 3, "STRUCK", meanwhile="lost, and longer" + Key.ENTER)
    term.type(Key.CTRL_C + "kept")
    term.wait_for(lambda term: cursor_line(term) == "> kept")


def test_a_signal_that_comes_while_the_editor_stops_is_not_lost(held_up):
    term = held_up("half" + Key.CTRL_Z, 1)
    term.signal(signal.SIGTERM)
    term.type("x")  # where the signal came before it was held up
    assert term.wait_exit() == -signal.SIGTERM


@pytest.mark.parametrize("typed", ["one\r\x1b[200~t\x03wo\r\x1b[201~", "one\r\x16\x03\r"])
def test_ctrl_c_in_a_paste_typed_ahead_is_text(editor, typed):
    term = editor()
    term.type(typed + "end" + Key.ENTER)
    term.wait_for('got "end"')
    assert 'got "one"' in term.text and "^C" in term.text


def test_a_long_paste_of_lines_keeps_their_order(editor):
    term = editor()
    lines = [f"line {number}" for number in range(2000)]
    term.type("\r".join(lines) + "\r")
    term.wait_for('got "line 1999"')
    assert re.findall(rb'got "(line \d+)"', term.raw) == [line.encode() for line in lines]


def test_pastes_are_marked_only_while_a_line_is_read(editor):
    term = editor()
    term.run("one")
    modes = [mode.decode() for mode in re.findall(rb"\x1b\[\?2004([hl])", term.raw)]
    assert modes == ["h", "l", "h"]


def test_a_child_finds_a_line_of_the_paste(editor):
    term = editor()
    term.type(pasted('child read a; echo "child has $a"\rfor the child\rnext\r'))
    term.wait_for("child has for the child")
    term.wait_for('got "next"')


def test_type_ahead_is_kept_while_a_command_runs(editor):
    term = editor()
    term.type("sleep 2000" + Key.ENTER)
    term.wait_for(lambda term: term.echoes)
    term.type("ahead" + Key.ENTER + "half")
    term.wait_for('got "ahead"')
    term.wait_for(lambda term: cursor_line(term) == "> half")


def test_a_child_finds_what_was_typed_for_it(editor):
    term = editor()
    term.type('child read a; echo "child has $a"' + Key.ENTER + "for the child" + Key.ENTER + "next" + Key.ENTER)
    term.wait_for("child has for the child")
    term.wait_for('got "next"')


def test_a_child_finds_what_was_typed_in_its_order(editor):
    term = editor()
    term.type('later read a; read b; echo "child has $a, $b"' + Key.ENTER + "first" + Key.ENTER)
    term.wait_for(lambda term: term.echoes)
    term.type("second" + Key.ENTER + "next" + Key.ENTER)
    term.wait_for("child has first, second")
    term.wait_for('got "next"')


@pytest.mark.parametrize("marks", [("", ""), ("\x1b[200~", "\x1b[201~")])
def test_a_long_paste_is_taken(editor, marks):
    term = editor()
    term.type(marks[0] + "p" * 200000 + marks[1] + Key.ENTER)
    term.wait_for("got 200000 bytes")


def test_a_ctrl_c_just_before_the_prompt_is_a_key(editor):
    term = editor()
    term.type("busy 2000" + Key.ENTER)
    term.wait_for(lambda term: term.echoes)
    term.type(Key.CTRL_C)
    term.wait_for('got "busy 2000"')
    term.type("alive" + Key.ENTER)
    term.wait_for('got "alive"')


# What others print


@pytest.mark.parametrize("size", [0, 1, 2, 5, 39, 40, 41, 80])
def test_what_a_child_left_without_line_end_is_not_wiped(editor, size):
    term = editor(columns=40)
    term.type(f"quiet printf %{size}s | tr ' ' y" + Key.ENTER)
    rows = ["y" * 40] * (size // 40) + (["y" * (size % 40)] if size % 40 else [])
    term.wait_for(lambda term: term.lines[1:] == [*rows, ">"] and term.at_prompt())


def leave_unfinished(term):
    """Has a message printed without a line end, which the prompt goes behind."""
    term.type("part syntax: cd" + Key.ENTER)
    term.wait_for(lambda term: cursor_line(term) == "syntax: cd>")


def test_a_message_without_line_end_stays_before_the_prompt(editor):
    term = editor(columns=40)
    leave_unfinished(term)
    term.type("half")
    term.wait_for(lambda term: cursor_line(term) == "syntax: cd> half")
    term.order("event one")
    term.wait_for(shows("> part syntax: cd", "", "EVENT one", "syntax: cd> half"))
    term.type(Key.ENTER)
    term.wait_for(lambda term: term.lines[3:] == ["syntax: cd> half", 'got "half"', ">"])


def test_a_message_without_line_end_outlives_that_the_line_is_hidden_again(editor):
    term = editor(columns=40)
    leave_unfinished(term)
    term.order("hide")
    term.wait_for(lambda term: cursor_line(term) == "")
    for _ in range(50):
        term.order("hide")
    term.order("show")
    term.wait_for(lambda term: cursor_line(term) == "syntax: cd>")


def test_a_message_without_line_end_is_not_repeated_after_a_stop(editor):
    term = editor(before="set -m", after="echo stopped; fg >/dev/null", columns=40)
    leave_unfinished(term)
    term.type("half" + Key.CTRL_Z)
    term.wait_for("stopped")
    term.wait_for(lambda term: cursor_line(term) == "> half")
    assert term.text.count("syntax: cd") == 2  # typed, and told


def test_a_long_message_without_line_end_stays_whole(editor):
    term = editor(columns=10)
    term.type("part " + "m" * 20 + Key.ENTER)
    term.wait_for(lambda term: term.lines[-3:] == ["m" * 10, "m" * 10, ">"])
    term.type("x")
    term.wait_for(lambda term: term.lines[-3:] == ["m" * 10, "m" * 10, "> x"])


def test_an_event_steps_over_the_half_typed_line(two_rows):
    term = two_rows
    term.order("event 1")
    term.wait_for(shows("", "EVENT 1", "> a line that takes", "more than one row"))


@pytest.mark.parametrize("then", ["x", Key.ENTER, "event"])
def test_who_does_not_wait_for_the_line_to_step_aside_is_not_wiped_out(two_rows, then):
    term = two_rows
    term.order("shout OI")
    term.wait_for("rowOI")
    above = ["> a line that takes", "more than one rowOI"]
    line = ["> a line that takes", "more than one row"]
    if then == "event":
        term.order("event 1")
        term.wait_for(lambda term: term.lines == [*above, "EVENT 1", *line])
    elif then == "x":
        term.type(then)
        term.wait_for(lambda term: term.lines == [*above, line[0], line[1] + "x"])
    else:
        term.type(then)
        term.wait_for(lambda term: term.lines[:4] == [*above, *line] and term.lines[-1] == ">")


def test_a_flood_of_events_leaves_one_prompt(editor):
    term = editor(rows=20)
    term.type("half")
    term.order("flood 300")
    term.wait_for("EVENT 299")
    term.wait_for(lambda term: cursor_line(term) == "> half")
    rows = [row for row in term.all_lines if row]
    assert rows == [f"EVENT {n}" for n in range(300)] + ["> half"]


def test_an_event_in_the_middle_of_a_search(remembering):
    term = remembering("alpha")
    term.type(Key.CTRL_R + "lp")
    term.wait_for("bck:lp")
    term.order("event 7")
    term.wait_for(shows("> alpha", 'got "alpha"', "", "EVENT 7", "> alpha", "bck:lp"))
    term.type(Key.ENTER)
    term.wait_prompt(PROMPT)


def test_an_event_while_a_hint_is_shown(hinting):
    term = hinting
    term.order("event 7")
    term.wait_for(shows("", "EVENT 7", "> alphabet"))
    assert term.cursor == (2, 5)


def test_a_stop_ends_the_read(editor):
    term = editor()
    term.type("half")
    term.wait_for("> half")
    term.order("drop")
    assert term.wait_exit() == 0
    assert term.lines == ["dropped", "none"]


def test_a_stop_between_two_reads_ends_the_next(editor):
    term = editor()
    term.type("later true" + Key.ENTER)
    term.wait_for(lambda term: term.echoes)
    term.order("stop")
    term.type(Key.ENTER)
    assert term.wait_exit() == 0
    assert term.lines[-1] == "none"


def test_a_thread_that_never_shows_the_line_again_does_not_hold_it_for_ever(editor):
    term = editor()
    term.order("hide")
    term.wait_for(lambda term: term.lines == [])
    term.type("x" + Key.ENTER)
    term.wait_for('got "x"')


def test_a_read_with_a_time_limit_keeps_what_was_typed(editor):
    term = editor(DEMO_TIMEOUT="700", rows=200)
    term.type("half")
    term.wait_for("> half")
    count = term.text.count("none")
    term.wait_for(lambda term: term.text.count("none") > count)
    term.wait_for(lambda term: cursor_line(term) == "> half")
    term.type(" done" + Key.ENTER)
    term.wait_for('got "half done"')


# Completion


def test_one_candidate_is_inserted(editor):
    term = editor(words=["alphabet", "beta"])
    term.type("al\tx")
    term.wait_for("> alphabetx")


def test_several_insert_their_beginning_and_a_second_tab_lists_them(editor):
    term = editor(words=["alphabet", "alpine", "beta"], DEMO_COLORS="1")
    term.type("a\t")
    term.wait_for("> alp")
    term.type("\t")
    term.wait_for(shows("> alp", "alphabet  alpine", "> alp"))
    assert term.colours(1)[0] == ("alphabet  alpine", "878700")
    term.type("h\t")
    term.wait_for(lambda term: cursor_line(term) == "> alphabet")


@pytest.mark.parametrize(
    "word,typed,line",
    [
        ("my file", "m", '"my file"'),
        ("it's", "it", "it\\'s"),
        ("a#b", "a", "a\\#b"),
        ("back\\slash", "b", "back\\\\slash"),
        ('q"q r', "q", '"q\\"q r"'),
        ("dir name/", "dir", '"dir name/'),
        ("inside quotes", '"ins', '"inside quotes'),
        ("inside 'quotes", "'ins", "'inside \\'quotes"),
        ("tab\tbed", "ta", '"tab^Ibed"'),
        ("bell\x07", "be", "bell^G"),
    ],
)
def test_a_candidate_is_inserted_so_that_it_is_read_back(editor, word, typed, line):
    term = editor(words=[word])
    term.type(typed + "\t")
    wanted = "> " + line.replace("^I", " " * (8 - len("> \"tab") % 8))
    term.wait_for(lambda term: cursor_line(term) == wanted)


def ask_for_all(term, count):
    """Two tabs behind a letter that all of so many words have."""
    term.type("w\t")
    term.quiet(0.1).type("\t")
    term.wait_for(f"Display all {count} possibilities? (y or n)")


def test_a_list_longer_than_the_screen_asks_first(editor):
    words = [f"w{n:05}" for n in range(1000)]
    term = editor(words=words, columns=40, rows=10)
    ask_for_all(term, 1000)
    term.order("event 3")
    term.wait_for(re.compile("EVENT 3\n> w00\nDisplay all 1000"))
    term.type(Key.LEFT + "x" + Key.UP)  # no answers
    term.order("event 4")
    term.wait_for(re.compile("EVENT 4\n> w00\nDisplay all 1000"))
    term.type("n")
    term.wait_for(lambda term: cursor_line(term) == "> w00")
    term.type("\t")
    term.wait_for(re.compile("Display all.*$"))
    term.type("y")
    term.wait_for("w00999")
    term.wait_for(lambda term: cursor_line(term) == "> w00")
    listed = [name for row in term.all_lines for name in re.findall(r"w\d{5}", row)]
    assert sorted(listed) == words


def test_a_list_fits_the_screen_as_it_is_when_the_question_is_answered(editor):
    words = [f"w{n:05}" for n in range(60)]
    term = editor(words=words, columns=60, rows=6)
    ask_for_all(term, 60)
    term.resize(20, 6)
    term.wait_for(re.compile("^Display all 60 possi$", re.M))
    term.type("y")
    term.wait_for("w00059")
    term.wait_for(lambda term: cursor_line(term) == "> w000")
    listed = [name for row in term.all_lines for name in re.findall(r"w\d{5}", row)]
    assert sorted(listed) == words


def test_ctrl_c_at_the_question_keeps_the_line(editor):
    term = editor(words=[f"w{n:05}" for n in range(1000)], rows=10)
    ask_for_all(term, 1000)
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: cursor_line(term) == "> w00")


@pytest.mark.deadline(60)
def test_100000_candidates_are_listed_and_left_with_ctrl_c(editor):
    term = editor(words=["w"], DEMO_MANY="99999", rows=10)
    term.type("w\t")
    term.quiet(0.1)
    before = term.cpu_seconds()
    term.type("\t")
    term.wait_for("Display all 100000 possibilities?")
    assert term.cpu_seconds() - before < 2 * settings.PATIENCE
    term.type("y")
    term.wait_for(re.compile(r"w00\d+"))
    term.type(Key.CTRL_C)
    term.wait_for(lambda term: cursor_line(term) == "> w")
    assert "w0099998" not in term.text


def test_a_candidate_of_10000_characters(editor):
    term = editor(words=["x" * 10000])
    term.type("x\t")
    term.wait_for(lambda term: len(term.lines) == 24)
    term.type(Key.ENTER)
    term.wait_for("got 10000 bytes")


# Hints


def test_a_hint_is_shown_in_its_colour_and_is_no_part_of_the_line(editor):
    term = editor(words=["alphabet"], DEMO_HINTS="1", DEMO_COLORS="1")
    term.type("alp")
    term.wait_for("> alphabet")
    assert term.colours(0)[2] == ("habet", "008700")
    assert term.cursor == (0, 5)
    term.type(Key.ENTER)
    term.wait_for(shows("> alp", 'got "alp"', ">"))


@pytest.mark.parametrize("key", [Key.RIGHT, Key.END, Key.CTRL_E, Key.CTRL_F, "\x1bOC"])
def test_a_hint_is_accepted_as_tab_would(editor, key):
    # Two words: behind the quote that ends the first, either could follow, and no hint is shown there.
    term = editor(words=["my file", "other"], DEMO_HINTS="1")
    term.type("m")
    term.wait_for("> my file")
    term.type(key)
    term.wait_for(lambda term: cursor_line(term) == '> "my file"')
    term.type(Key.ENTER)
    term.wait_for("got ")
    assert b"\a" not in term.raw


def test_a_hint_goes_when_the_cursor_does(hinting):
    term = hinting
    term.type(Key.LEFT)
    term.wait_for(lambda term: cursor_line(term) == "> alp")
    term.type(Key.RIGHT)
    term.wait_for(lambda term: term.cursor == (0, 5))


def test_typing_what_the_hint_says_keeps_the_rest_of_it(hinting):
    term = hinting
    before = len(term.raw)
    term.type("h")
    term.wait_for(lambda term: term.cursor == (0, 6))
    term.quiet(0.3)
    assert cursor_line(term) == "> alphabet"
    assert b"alp\x1b[J" not in term.raw[before:]


def test_a_paste_does_not_ask_for_hints_at_every_byte(editor):
    term = editor(words=["x" * 300], DEMO_HINTS="1", DEMO_SLOW="100")
    start = time.monotonic()
    term.type("x" * 200 + Key.ENTER)
    term.wait_for("got ")
    assert time.monotonic() - start < 5 * settings.PATIENCE


def test_a_hint_wraps_and_is_cut_with_the_screen(editor):
    term = editor(words=["x" * 100], DEMO_HINTS="1", columns=10, rows=5)
    term.type("xx")
    term.wait_for(lambda term: term.line(4) == "x" * 10)
    assert term.cursor == (0, 4)
    term.type(Key.ENTER)
    term.wait_for('got "xx"')


# Callbacks that wait


def test_keys_typed_while_tab_waits_are_kept(editor):
    term = editor(words=["alphabet"], DEMO_SLOW="600")
    term.type("al\t")
    term.quiet(0.1).type(" beta" + Key.ENTER)
    term.wait_for('got "alphabet beta"')


def test_ctrl_c_while_tab_waits_keeps_the_line(editor):
    term = editor(words=["alphabet"], DEMO_SLOW="30000")
    term.type("al\t")
    term.quiet(0.2).type("x" + Key.CTRL_C + "y")
    term.wait_for(lambda term: cursor_line(term) == "> aly")


def test_ctrl_c_right_behind_a_tab_keeps_the_line(editor):
    term = editor(words=["alphabet"], DEMO_SLOW="30000")
    term.type("al\tx" + Key.ENTER + Key.CTRL_C + "y")
    term.wait_for(lambda term: cursor_line(term) == "> aly")


def test_ctrl_c_while_a_hint_is_awaited_drops_the_line(editor):
    term = editor(words=["alphabet"], DEMO_HINTS="1", DEMO_SLOW="30000")
    term.type("al")
    term.wait_for("> al")
    term.quiet(0.2).type(Key.CTRL_C + "one" + Key.ENTER)
    term.wait_for(lambda term: term.lines[:3] == ["> al^C", "> one", 'got "one"'])


def test_ctrl_c_while_a_hint_is_accepted_keeps_the_line(editor):
    term = editor(words=["alphabet"], DEMO_HINTS="1", DEMO_SLOW="4000")
    term.type("al")
    term.wait_for("> alphabet")
    term.type(Key.RIGHT)
    term.quiet(0.2).type(Key.CTRL_C)
    term.type("x" + Key.ENTER)
    term.wait_for('got "alx"')
    assert b"\a" not in term.raw


def test_an_event_while_tab_waits_is_printed_at_once(editor):
    term = editor(words=["alphabet"], DEMO_SLOW="30000")
    term.type("al\t")
    term.quiet(0.2).order("event 9")
    term.wait_for(shows("", "EVENT 9"), timeout=3)
    term.type(Key.CTRL_C)
    term.wait_for(shows("", "EVENT 9", "> al"))


def test_an_event_while_tab_waits_leaves_what_stands_before_the_prompt(editor):
    term = editor(words=["alphabet"], DEMO_SLOW="30000")
    leave_unfinished(term)
    term.type("al\t")
    term.quiet(0.2).order("event 9")
    term.wait_for(shows("> part syntax: cd", "", "EVENT 9"), timeout=3)
    term.type(Key.CTRL_C)
    term.wait_for(shows("> part syntax: cd", "", "EVENT 9", "syntax: cd> al"))


def test_typing_goes_on_while_a_hint_is_awaited(editor):
    term = editor(words=["alphabet"], DEMO_HINTS="1", DEMO_SLOW="5000")
    term.type("al")
    term.wait_for("> al")
    term.quiet(0.2).type("p")
    term.wait_for(lambda term: cursor_line(term) == "> alp", timeout=2)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_program_while_tab_waits(editor, number):
    term = editor(words=["alphabet"], DEMO_SLOW="30000")
    term.type("al\t")
    term.quiet(0.2).signal(number)
    assert term.wait_exit() == -number


# Displays


def test_a_list_is_shown_in_columns(editor):
    term = editor(columns=40)
    term.type("list 7" + Key.ENTER)
    term.wait_for(lambda term: term.lines[1:4] == ["name0  name2  name4  name6", "name1  name3  name5", 'got "list 7"'])


def test_a_progress_bar_fits_the_terminal(editor):
    term = editor(columns=40)
    term.type("bar 50 Flashing:" + Key.ENTER)
    term.wait_for("50%")
    term.wait_prompt(PROMPT)
    assert re.fullmatch(r"Flashing:  50% \[#+ +\]", term.line(1)) and len(term.line(1)) < 40
    term.type("bar 250 Flashing:" + Key.ENTER)
    term.wait_for("100%")


def test_where_nothing_fits_but_the_percentage_that_is_shown(editor):
    term = editor(columns=16)
    term.type("bar 50 Flashing much:" + Key.ENTER)
    term.wait_for(lambda term: " 50%" in term.lines)
    term = editor(columns=24)
    term.type("bar 50 Flashing much:" + Key.ENTER)
    term.wait_for(lambda term: "Flashing much:  50%" in term.lines)


@pytest.mark.parametrize("name", ["linux", "vt100", "no-such-terminal"])
def test_any_kind_of_terminal_will_do(editor, name):
    term = editor(TERM=name)
    term.type("helo" + Key.LEFT + "l" + Key.ENTER)
    term.wait_for('got "hello"')


NO_ESCAPES = pytest.mark.parametrize("name", ["dumb", "", None])


@NO_ESCAPES
def test_a_terminal_without_escape_sequences_reads_plain_lines(editor, name):
    term = editor(words=["alphabet"], DEMO_HINTS="1", DEMO_COLORS="1", TERM=name)
    term.type("alp" + Key.ENTER)
    term.wait_for(shows("> alp", 'got "alp"', ">"))
    term.type("part syntax: cd" + Key.ENTER + "next" + Key.ENTER)
    term.wait_for('got "next"')
    term.wait_prompt(PROMPT)
    term.type(Key.CTRL_D)
    assert term.wait_exit() == 0
    assert b"\x1b" not in term.raw


@NO_ESCAPES
def test_ctrl_c_drops_a_plain_line(editor, name):
    term = editor(TERM=name)
    term.type("dropped")
    term.wait_for("> dropped")
    term.type(Key.CTRL_C)
    term.wait_for(shows("> dropped^C", ">"))
    term.type("kept" + Key.ENTER)
    term.wait_for('got "kept"')


@NO_ESCAPES
def test_the_prompt_of_a_plain_line_stands_behind_what_others_printed(editor, name):
    term = editor(TERM=name)
    term.order("event 1")
    term.wait_for(shows(">", "EVENT 1", ">"))
    term.order("drop")
    assert term.wait_exit() == 0


@pytest.mark.parametrize("locale", ["C", "POSIX", "de_DE.ISO-8859-1", "C.UTF-8"])
def test_utf8_works_in_every_locale(editor, locale):
    term = editor(LC_ALL=locale, LANG=locale)
    term.type("漢é" + Key.LEFT + Key.BACKSPACE + Key.ENTER)
    term.wait_for(r'got "\u00E9"')
