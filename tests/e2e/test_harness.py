"""The tools of the tests themselves."""

import json
import os
import signal
import sys

import pytest

from lib.fake import Chunked, Close, Error, Raw, Silence, Slow
from lib.program import Program
from lib.terminal import Key
from lib.wire import Closed, Peer, WireError


@pytest.fixture
def peer(fake):
    with Peer(fake.address) as peer:
        yield peer


def test_a_program_is_fed_and_its_end_is_seen(sandbox):
    run = Program(["sh", "-c", "cat; echo oops >&2; exit 3"], sandbox.environment(), sandbox.work, "in\n").finish()
    assert (run.out, run.err, run.status) == ("in\n", "oops\n", 3)


def test_a_program_can_be_watched_while_it_runs(sandbox):
    run = Program(["sh", "-c", "trap 'echo bye; exit 0' INT; echo ready; while :; do sleep 0.01; done"],
                  sandbox.environment(), sandbox.work)
    run.wait_for("ready")
    run.signal(signal.SIGINT)
    assert run.finish().out == "ready\nbye\n"


def test_programs_start_as_at_login(sandbox):
    seen = "umask; ulimit -S -s; ulimit -S -c; ulimit -S -f; ulimit -S -t; ulimit -S -n; exec grep -E 'Sig(Blk|Ign)' /proc/self/status"
    run = Program(["sh", "-c", seen], sandbox.environment(), sandbox.work).finish()
    *seen, files, blocked, ignored = run.out.splitlines()
    assert seen == ["0022", "8192", "0", "unlimited", "unlimited"]
    assert int(files) > 1000
    own = 3 << 31  # signals 32 and 33, which the C library keeps for itself and lets nobody set
    assert [int(row.split()[1], 16) & ~own for row in (blocked, ignored)] == [0, 0]


def test_programs_start_so_however_the_tests_are_started(sandbox):
    odd = "trap '' HUP QUIT USR1 WINCH; umask 077; ulimit -S -s 900; ulimit -S -f 100; ulimit -S -t 30; ulimit -S -n 80; exec \"$@\""
    again = [sys.executable, "-m", "pytest", "-q", f"{__file__}::test_programs_start_as_at_login"]
    run = Program(["sh", "-c", odd, "sh", *again], sandbox.environment({"HOME": os.environ.get("HOME", "/")}), sandbox.work).finish()
    assert (run.status, run.err) == (0, ""), run.out


def test_programs_see_a_tmp_of_their_own(terminal, private_tmp):
    term = terminal("-c", "echo kept > /tmp/.kest.hist; ls -A /tmp | grep '[.]hist$'; exit 7", program="/bin/sh")
    assert term.wait_exit() == 7
    assert (private_tmp / ".kest.hist").read_text() == "kept\n"
    assert term.lines == [".kest.hist"]


def test_a_terminal_shows_text_colours_and_the_cursor(terminal):
    term = terminal("-c", r"printf 'a\033[31mred\033[0m\n\346\227\245x> '; read line; echo got $line", program="/bin/sh",
                    columns=20, rows=5)
    term.wait_for("x>")
    assert term.lines == ["ared", "日x>"]
    assert term.colours(0) == [("a", "default"), ("red", "red")]
    assert term.cursor == (1, 5)
    term.type("hello" + Key.ENTER)
    assert term.wait_exit() == 0
    assert term.lines[-1] == "got hello"


def test_rows_that_scrolled_away_are_kept(terminal):
    term = terminal("-c", "seq 1 100", program="/bin/sh", rows=10)
    term.wait_exit()
    assert term.all_lines == [str(n) for n in range(1, 101)]
    assert term.lines[0] == "92"


def test_a_terminal_can_be_resized(terminal):
    term = terminal("-c", "trap 'stty size; exit' WINCH; echo ready; while :; do sleep 0.01; done", program="/bin/sh")
    term.wait_for("ready")
    term.resize(100, 30)
    term.wait_for("30 100")


def test_the_fake_answers_by_its_script(fake, peer):
    fake.on("A", {"x": 1}).on("B", Error(9005, "no such", {"B": "gone"}))
    fake.on("C", lambda request: {"was": request.params})
    fake.on("D", {"n": 1}, {"n": 2})
    assert peer.call("A") == {"x": 1}
    with pytest.raises(WireError) as raised:
        peer.call("B")
    assert (raised.value.code, raised.value.data) == (9005, {"B": "gone"})
    assert peer.call("C", p="q") == {"was": {"p": "q"}}
    assert [peer.call("D")["n"] for _ in range(3)] == [1, 2, 2]
    with pytest.raises(WireError, match="-32601"):
        peer.call("E")
    assert fake.methods() == ["A", "B", "C", "D", "D", "D", "E"]
    assert fake.params("C") == [{"p": "q"}]


def test_the_fake_misbehaves_on_demand(fake, peer):
    fake.on("Slow", Slow(0.3, {"late": True})).on("Fast", {}).on("Never", Silence())
    fake.on("Bits", Chunked({"v": "é"}, 1)).on("Junk", Raw(b"\xff\n")).on("Bye", Close(b'{"half'))
    slow = peer.request("Slow")
    assert peer.answer(peer.request("Fast"))["result"] == {}
    assert peer.answer(slow)["result"] == {"late": True}
    assert peer.call("Bits") == {"v": "é"}
    peer.request("Never")
    with pytest.raises(TimeoutError):
        peer.receive(0.05)
    peer.request("Junk")
    with pytest.raises(ValueError):
        peer.receive()
    peer.request("Bye")
    with pytest.raises(Closed):
        peer.receive()


def test_the_fake_sends_events_to_those_who_read_them(fake):
    with Peer(fake.address) as one, Peer(fake.address) as two:
        one.join(4, Receiver=True)
        two.join(4)
        fake.event(12, {"a": 1})
        assert one.event() == (12, {"a": 1})
        with pytest.raises(TimeoutError):
            two.receive(0.05)


def test_the_fake_goes_down_and_comes_back(fake, peer):
    peer.join(4)
    fake.go_down()
    with pytest.raises(Closed):
        peer.receive()
    with pytest.raises(OSError):
        Peer(fake.address)
    fake.come_back()
    with Peer(fake.address) as again:
        assert again.join(4) == {}


def test_the_fake_serves_a_model(fake, peer):
    fake.serve({
        "DataModelVersion": "1",
        "Device.": {},
        "Device.Name": "box",
        "Device.Host.": {"multi": True},
        "Device.Host.{i}.": {},
        "Device.Host.{i}.Alias": "",
        "Device.Host.1.": {},
        "Device.Host.1.Alias": "first",
        "Device.Host.max_instance": {"type": "unsignedInt", "default": 0, "value": 1},
    })
    def names(answer):
        return [entry["Name"] for entry in answer["ParameterList"]]

    assert names(peer.call("GetParameterNames", ParameterPath=".", NextLevel=True)) == ["DataModelVersion", "Device."]
    assert names(peer.call("GetParameterNames", ParameterPath="Device.Host.", NextLevel=True)) == [
        "Device.Host.1.", "Device.Host.max_instance"]
    entries = peer.call("GetParameterAttributes", ParameterNames=["Device.Host."], Depth=1)["ParameterList"]
    assert names({"ParameterList": entries}) == ["Device.Host.", "Device.Host.1.", "Device.Host.max_instance"]
    assert [entry["Name"] for entry in entries[0]["Template"]] == ["", "Alias"]
    assert peer.call("GetParameterValues", ParameterNames=["Device."]) == {"ParameterList": [
        {"Name": "Device.Name", "Value": "box"},
        {"Name": "Device.Host.1.Alias", "Value": "first"},
        {"Name": "Device.Host.max_instance", "Value": 1}]}
    assert peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": "b"}]) == {"Status": 0}
    assert peer.call("GetParameterValues", ParameterNames=["Device.Name"])["ParameterList"][0]["Value"] == "b"


def test_large_answers_pass_the_fake_while_it_serves_others(fake, peer):
    fake.on("Big", Raw(json.dumps({"id": 1, "result": {"t": "x" * 20_000_000}}).encode() + b"\n")).on("Small", {})
    peer.request("Big")
    with Peer(fake.address) as other:
        assert other.call("Small") == {}
    assert len(peer.receive()["result"]["t"]) == 20_000_000
