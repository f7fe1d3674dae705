"""What a device keeps: over a reboot, over a restart, over a kill."""

import json
import os
import resource
import stat
import subprocess
import time
from pathlib import Path

import pytest

from lib import settings
from lib.wire import Closed, Peer, WireError, connect

SMALL = Path(__file__).parent / "models" / "small.json"


@pytest.fixture
def state(tmp_path):
    return Path(tmp_path) / "state"


@pytest.fixture
def small(veld_start, state):
    return veld_start("--state", state, "--reboot-time", "0.2", model=SMALL)


def root(veld):
    peer = veld.connect()
    peer.call("Login", User="root")
    return peer


def values(peer, *names):
    answer = peer.call("GetParameterValues", ParameterNames=list(names) or ["."])
    return {entry["Name"]: entry["Value"] for entry in answer["ParameterList"]}


def set_values(peer, **members):
    entries = [{"Name": "Device." + name.replace("__", "."), "Value": value} for name, value in members.items()]
    peer.call("SetParameterValues", ParameterList=entries)


def change_much(peer):
    set_values(peer, Name="mine", Level=7, Host__1__Alias="uno", Key="k2")
    peer.call("AddObject", ObjectName="Device.Host.")
    peer.call("DeleteObject", ObjectName="Device.Host.2.")
    peer.call("AddObject", ObjectName="Device.Host.3.Address.")
    peer.call("AddObject", ObjectName="Device.Host.")
    peer.call("DeleteObject", ObjectName="Device.Host.4.")
    peer.call("AddObject", ObjectName="Device.Search.", Order=1)
    set_values(peer, Search__3="first", Host__3__Address__1__IP="10.0.0.1")


def wait_gone(peer):
    with pytest.raises(Closed):
        while True:
            peer.receive()


def test_what_was_saved_survives_a_restart_and_a_kill(small):
    peer = root(small)
    change_much(peer)
    before = values(peer)
    assert before["Device.Host.max_instance"] == 4 and before["Device.Search.order"] == "3,2,1"
    assert peer.call("SaveConfig") == {"Status": 0}
    small.kill()
    small.start()
    assert values(root(small)) == before
    # A number that was given to an instance since deleted is not given again.
    assert root(small).call("AddObject", ObjectName="Device.Host.")["InstanceNumber"] == 5


def test_files_that_may_not_grow_end_no_daemon(small, state):
    peer = root(small)
    assert peer.call("SaveConfig") == {"Status": 0}
    before = (state / "config.json").read_bytes()
    change_much(peer)
    most = resource.getrlimit(resource.RLIMIT_FSIZE)[1]
    resource.prlimit(small.pid, resource.RLIMIT_FSIZE, (100, most))
    with pytest.raises(WireError, match="File too large"):
        peer.call("SaveConfig")
    assert (state / "config.json").read_bytes() == before
    resource.prlimit(small.pid, resource.RLIMIT_FSIZE, (most, most))
    assert peer.call("SaveConfig") == {"Status": 0}


def test_what_was_not_saved_is_gone_after_a_reboot(small):
    peer = root(small)
    set_values(peer, Name="kept", Volatile=5)
    peer.call("SaveConfig")
    change_much(peer)
    assert peer.call("Reboot", Force=True) == {"Status": 0}
    wait_gone(peer)
    small.wait_until_up()
    after = values(root(small))
    assert after["Device.Name"] == "kept" and after["Device.Level"] == 5 and after["Device.Volatile"] == 0
    assert "Device.Host.3.Alias" not in after and after["Device.Host.2.Alias"] == "two"


def test_without_a_directory_a_save_lasts_until_the_restart(veld_start):
    small = veld_start("--reboot-time", "0.1", model=SMALL)
    peer = root(small)
    set_values(peer, Name="kept")
    peer.call("SaveConfig")
    set_values(peer, Name="lost")
    peer.call("Reboot", Force=True)
    wait_gone(peer)
    small.wait_until_up()
    assert values(root(small))["Device.Name"] == "kept"
    small.restart()
    assert values(root(small))["Device.Name"] == "box"


def test_a_factory_reset_forgets_everything(small, state):
    peer, listener = root(small), small.connect()
    listener.join(2)
    fresh = values(peer)
    change_much(peer)
    peer.call("SaveConfig")
    assert peer.call("FactoryReset") == {"Status": 0}
    assert listener.event() == (2, {"Action": "FactoryReset"})
    assert values(peer) == fresh
    small.kill()
    small.start()
    assert values(root(small)) == fresh


def test_two_reboots_at_once_are_one(veld_start, state):
    small = veld_start("--state", state, "--reboot-time", "0.2", "--log", "info", model=SMALL)
    peer = root(small)
    assert refused_reboot(peer) == -32602
    reboot = b'{"id":1,"method":"Reboot","params":{"Force":true}}\n'
    peer.send_raw(reboot * 2)
    # The second one is answered, too, where the first one took less than the time that one client gets at once.
    answers = []
    with pytest.raises(Closed):
        while True:
            answers.append(peer.receive()["result"])
    assert answers in ([{"Status": 0}], [{"Status": 0}] * 2)
    small.wait_until_up()
    assert values(root(small))["Device.Name"] == "box"
    assert small.log.count("goes down") == 1


def refused_reboot(peer):
    with pytest.raises(WireError) as error:
        peer.call("Reboot", Force="now")
    return error.value.code


def test_a_reboot_is_announced_and_takes_its_time(small):
    peer, listener = root(small), small.connect()
    listener.join(2)
    assert peer.call("Reboot", Force=False) == {"Status": 0}
    assert listener.event() == (2, {"Action": "Reboot"})
    # In the grace everything goes on.
    assert values(peer, "Device.Name") == {"Device.Name": "box"}
    wait_gone(listener)
    wait_gone(peer)
    with pytest.raises(OSError):
        connect(small.address)
    small.wait_until_up()
    # Nobody is logged in any more.
    with pytest.raises(WireError):
        small.connect().call("SaveConfig")


@pytest.mark.parametrize("name", ["config.json", "firmware.json"])
@pytest.mark.parametrize(
    "damaged, why",
    [
        (b"{", "line 1: "),
        (b"", "line 1: "),
        (b"\xff\xfe", "line 1: "),
        (b"[]", ""),
        (b'{"veld-config":1,"config":{"Device":{"Host":{"instances":{"0":{}}}}}}', ""),
    ],
)
def test_a_state_that_is_not_understood_stops_the_start_and_stays(small, state, name, damaged, why):
    small.stop()
    (state / name).write_bytes(damaged)
    status, said = refused_start(small)
    assert status == 1
    assert said.startswith(f"veld: {state / name}: {why}") and said.count("\n") == 1
    assert (state / name).read_bytes() == damaged
    assert {path.name for path in state.iterdir()} <= {name, "files", "spool"}


def refused_start(veld):
    """The exit status of a start that comes to nothing, and what it says."""
    run = subprocess.run(veld.argv, capture_output=True, text=True, timeout=settings.DEADLINE)
    return run.returncode, run.stderr


@pytest.mark.parametrize("name", ["config.json", "firmware.json"])
def test_what_is_no_file_is_refused_as_a_state_and_not_waited_for(small, state, name):
    small.stop()
    os.mkfifo(state / name)
    assert refused_start(small) == (1, f"veld: {state / name}: not a regular file\n")
    assert stat.S_ISFIFO(os.stat(state / name).st_mode)


@pytest.mark.load
def test_a_state_has_its_limit(small, state):
    small.stop()
    with open(state / "config.json", "w") as file:
        file.truncate(256 << 20)
        status, text = refused_start(small)
        assert status == 1 and "expected near" in text  # nothing of it is JSON
        file.truncate((256 << 20) + 1)
    assert refused_start(small) == (1, f"veld: {state}/config.json: File too large\n")


@pytest.mark.parametrize("below, named", [("", ""), ("/state", "/state"), ("/a/state", "/a")])
def test_a_state_that_can_have_no_directory_stops_the_start(tmp_path, sandbox, below, named):
    (tmp_path / "file").write_text("")
    argv = [settings.VELD, "--socket", sandbox.new_socket(), "--model", SMALL, "--state", f"{tmp_path}/file{below}"]
    run = subprocess.run(argv, capture_output=True, text=True, timeout=settings.DEADLINE)
    assert (run.returncode, run.stderr) == (1, f"veld: {tmp_path}/file{named}: Not a directory\n")


def test_a_state_of_somebody_else_is_left_alone(small, state):
    peer = root(small)
    set_values(peer, Name="mine")
    peer.call("SaveConfig")
    small.stop()
    whole = (state / "config.json").read_bytes()
    state.chmod(0o755)
    for folder in [state, *state.parents]:
        if folder.stat().st_uid == os.getuid() and folder != Path("/"):
            folder.chmod(folder.stat().st_mode | 0o011)
    if os.getuid() != 0:
        (state / "config.json").chmod(0)
        status, said = refused_start(small)
    else:
        run = subprocess.run(
            ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", settings.VELD, "--listen", "tcp://127.0.0.1:0", "--model", SMALL, "--state", state],
            capture_output=True, text=True, timeout=settings.DEADLINE,
        )  # fmt: skip
        status, said = run.returncode, run.stderr
    assert (status, said) == (1, f"veld: {state}/config.json: Permission denied\n")
    if os.getuid() == 0:
        assert (state / "config.json").read_bytes() == whole


def test_a_device_does_not_come_up_again_on_a_state_that_is_not_understood(small, state):
    peer = root(small)
    peer.call("SaveConfig")
    (state / "config.json").write_bytes(b"{")
    peer.call("Reboot", Force=True)
    assert small.process.wait(settings.DEADLINE) == 1
    small.wanted_end = True
    assert f"{state}/config.json: line 1" in small.log
    assert (state / "config.json").read_bytes() == b"{"
    (state / "config.json").unlink()
    small.start()


def test_a_state_of_an_older_model_keeps_what_still_fits(small, state):
    small.stop()
    document = {"veld-config": 1, "config": {"Device": {"Name": "kept", "Level": 99, "Gone": 1, "Host": {"Old": 1}}}}
    (state / "config.json").write_text(json.dumps(document))
    small.start()
    assert values(root(small), "Device.Name", "Device.Level") == {"Device.Name": "kept", "Device.Level": 5}
    assert 'Device.: has no "Gone"' in small.log
    # What was left out is not lost with the next save.
    for name in ("other", "third"):
        set_values(root(small), Name=name)
        root(small).call("SaveConfig")
    assert json.loads((state / "config.json.kept-1").read_text()) == document
    assert json.loads((state / "config.json").read_text())["config"]["Device"]["Name"] == "third"
    assert not (state / "config.json.kept-2").exists()


def test_a_state_that_is_understood_is_replaced_by_the_next_save(small, state):
    change_much(root(small))
    set_values(root(small), Ratio=0.25, Big="18446744073709551615", Key="s", Offset=-3, Blob="YQ==", Ref="Device.Host.1.")
    root(small).call("SaveConfig")
    small.restart()
    set_values(root(small), Name="second")
    root(small).call("SaveConfig")
    assert {path.name for path in state.iterdir()} == {"config.json", "files", "spool"}


def test_a_save_that_fails_keeps_the_old_state_and_says_so(small, state):
    peer = root(small)
    set_values(peer, Name="old")
    peer.call("SaveConfig")
    whole = (state / "config.json").read_bytes()
    (state / "config.json.new").mkdir()
    set_values(peer, Name="new")
    with pytest.raises(WireError) as error:
        peer.call("SaveConfig")
    assert error.value.code == 9002
    assert (state / "config.json").read_bytes() == whole


def test_killed_while_saving_the_state_is_the_old_or_the_new_one(small, state):
    peer = root(small)
    for name in ("aaaa", "bbbb"):
        set_values(peer, Name=name)
        peer.call("SaveConfig")
    for attempt in range(5):
        peer = root(small)
        for count in range(40):
            peer.request("SetParameterValues", {"ParameterList": [{"Name": "Device.Name", "Value": f"{attempt}-{count}"}]})
            peer.request("SaveConfig")
        time.sleep(0.003 * attempt)
        small.kill()
        small.start()
        name = values(root(small), "Device.Name")["Device.Name"]
        assert name in ("bbbb",) or "-" in name
        assert not list(state.glob("*.damaged-*"))


def test_two_daemons_do_not_share_a_state(small, state, tmp_path):
    run = subprocess.run(
        [settings.VELD, "--socket", Path(tmp_path) / "other", "--model", SMALL, "--state", state],
        capture_output=True,
        text=True,
        timeout=settings.DEADLINE,
    )
    assert run.returncode == 1
    assert run.stderr == f"veld: {state}: another daemon keeps its state there\n"
