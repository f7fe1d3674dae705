"""The daemon on a machine in trouble: disks that are full, slow or cut off, a directory service that hangs."""

import errno
import json
from pathlib import Path

import pytest

from lib import settings
from lib.wire import Closed, WireError
from test_veld_hostile import SMALL, ask

LIBRARY = settings.BUILD / "tests" / "programs" / "troubled.so"

SANITIZED = any(name in settings.VELD.read_bytes() for name in (b"__asan_init", b"__tsan_init"))  # would have to come first

pytestmark = pytest.mark.skipif(SANITIZED or not LIBRARY.exists(), reason="needs the library of trouble")


@pytest.fixture
def state(tmp_path):
    return Path(tmp_path) / "state"


def root(veld):
    peer = veld.connect()
    peer.call("Login", User="root")
    return peer


def set_name(peer, name):
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": name}])


def troubled(veld_start, state, **trouble):
    """A daemon for which the trouble begins when arm() is called."""
    armed = state.with_name("armed")
    env = {"LD_PRELOAD": str(LIBRARY), "TROUBLE_ARMED": str(armed), "TROUBLE_BELOW": str(state)}
    env.update({f"TROUBLE_{name.upper()}": str(value) for name, value in trouble.items()})
    veld = veld_start("--state", state, model=SMALL, env=env)
    veld.arm = armed.touch
    veld.disarm = lambda: armed.unlink(missing_ok=True)
    return veld


def saved(state):
    path = state / "config.json"
    return json.loads(path.read_text())["config"]["Device"]["Name"] if path.exists() else None


def calls_of(veld_start, state, act):
    """How many system calls an action makes that change the state."""
    count = state.with_name("count")
    veld = troubled(veld_start, state, count=count)
    peer = root(veld)
    set_name(peer, "old")
    peer.call("SaveConfig")
    set_name(peer, "new")
    veld.arm()
    act(peer)
    veld.disarm()
    veld.stop()
    return int(count.read_text())


def save(peer):
    return peer.call("SaveConfig")


def reset(peer):
    return peer.call("FactoryReset")


@pytest.mark.parametrize("act, after", [(save, "new"), (reset, None)])
def test_every_call_may_fail(veld_start, state, act, after):
    calls = calls_of(veld_start, state, act)
    assert calls >= (2 if act is reset else 6)
    for number in range(1, calls + 1):
        veld = troubled(veld_start, state, fail=f"{number}:{errno.ENOSPC}")
        peer = root(veld)
        set_name(peer, "old")
        peer.call("SaveConfig")
        set_name(peer, "new")
        veld.arm()
        try:
            act(peer)
            assert saved(state) == after, number
        except WireError as error:
            # What was refused is not there, or it is there as a whole.
            assert error.code == 9002 and saved(state) in ("old", after), number
        veld.disarm()
        # It works again when there is room again.
        act(peer)
        assert saved(state) == after
        veld.stop()
        assert {path.name for path in state.iterdir()} <= {"config.json", "files", "spool"}


def test_it_may_be_killed_at_every_call(veld_start, state):
    calls = calls_of(veld_start, state, save)
    for number in range(1, calls + 1):
        veld = troubled(veld_start, state, kill=number)
        peer = root(veld)
        set_name(peer, "old")
        peer.call("SaveConfig")
        set_name(peer, "new")
        veld.arm()
        with pytest.raises(Closed):
            save(peer)
        assert veld.process.wait(settings.DEADLINE) == -9
        assert saved(state) in ("old", "new")
        veld.disarm()
        veld.kill()
        veld.start()
        assert root(veld).call("GetParameterValues", ParameterNames=["Device.Name"])["ParameterList"][0]["Value"] == saved(state)
        veld.stop()


def test_a_slow_disk_delays_only_who_saves(veld_start, state):
    veld = troubled(veld_start, state, fsync_ms=1000)
    slow, other = root(veld), root(veld)
    veld.arm()
    answer = slow.request("SaveConfig")
    slow.request("GetParameterValues", {"ParameterNames": ["Device.Serial"]})
    for _ in range(50):
        ask(other)
    # Not one answer of the one who saves has come meanwhile, not even to what was asked behind it.
    slow.link.setblocking(False)
    with pytest.raises(BlockingIOError):
        slow.link.recv(1)
    assert slow.answer(answer)["result"] == {"Status": 0}
    # What was acknowledged is on the disk although the daemon is told to end at once.
    set_name(other, "last")
    other.request("SaveConfig")
    assert other.receive()["result"] == {"Status": 0}
    veld.stop()
    assert saved(state) == "last"


def test_whoever_saves_and_goes_again_and_again_fills_nothing(veld_start, state):
    veld = troubled(veld_start, state, fsync_ms=2000)
    set_name(root(veld), "first")
    veld.arm()
    for _ in range(20):
        with root(veld) as peer:
            peer.request("SaveConfig")
            peer.request("Logout")
    with pytest.raises(WireError) as full:
        save(root(veld))
    assert (full.value.code, full.value.message) == (9004, "too many operations are under way")
    # What nobody waits for any more is done all the same, and makes room.
    veld.disarm()
    peer = root(veld)
    set_name(peer, "last")
    moment = settings.deadline()
    while saved(state) != "last":
        assert settings.remaining(moment)
        peer.answer(peer.request("SaveConfig"))


def test_a_configuration_is_taken_although_its_client_leaves(veld_start, state):
    veld = troubled(veld_start, state, fsync_ms=300)
    other = root(veld)
    sent = state.with_name("sent.json")
    sent.write_text(json.dumps({"veld-config": 1, "config": {"Device": {"Name": "sent"}}}))
    veld.arm()
    with root(veld) as peer:
        peer.request("Download", {"FileType": "Config", "URL": f"file://{sent}"})
        moment = settings.deadline()
        while not list(state.glob("config.json*")):  # it is being saved
            assert settings.remaining(moment)
            ask(other)
    while veld.value("Device.Name") != "sent":
        assert settings.remaining(moment)
    assert saved(state) == "sent"


def test_a_save_under_way_at_the_end_is_brought_to_its_end(veld_start, state):
    veld = troubled(veld_start, state, fsync_ms=100)
    peer, other = root(veld), veld.connect()
    set_name(peer, "last")
    veld.arm()
    peer.request("SaveConfig")
    ask(other)
    veld.stop()
    assert saved(state) == "last"


def test_a_directory_service_that_hangs_delays_only_who_asks_it(veld_start, state):
    veld = troubled(veld_start, state, names_ms=3000)
    slow = [veld.connect() for _ in range(2)]
    veld.arm()
    for peer in slow:
        peer.request("Login", {"User": "somebody-elsewhere"})
    for _ in range(20):
        ask(root(veld))
    slow[0].link.setblocking(False)
    with pytest.raises(BlockingIOError):
        slow[0].link.recv(1)
    for peer in slow:
        assert peer.receive()["error"]["code"] == 9001
