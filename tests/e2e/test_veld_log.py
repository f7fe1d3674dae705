"""What the daemon's log says."""

import os
import re
from pathlib import Path

import pytest

from lib.wire import WireError
from test_veld_hostile import SMALL


@pytest.fixture
def small(veld_start):
    return veld_start("--log", "debug", model=SMALL)


def lines(veld, number):
    """What the log says of a client's messages, without the times."""
    return re.findall(rf"^\S+Z veld debug: client {number} \((.*)$", veld.log, re.M)


def test_debug_shows_each_request_and_answer_with_its_user(small):
    peer = small.connect()
    peer.call("GetParameterValues", ParameterNames=["Device.Name"])
    peer.call("Login", User="root")
    with pytest.raises(WireError):
        peer.call("Nothing")
    assert lines(small, 2) == [
        'uid 0): 1 GetParameterValues {"ParameterNames":["Device.Name"]}',
        'uid 0): answer 1 result {"ParameterList":[{"Name":"Device.Name","Value":"box"}]}',
        'uid 0): 2 Login {"User":"root"}',
        "root): answer 2 result {}",
        "root): 3 Nothing",
        'root): answer 3 error {"code":-32601,"message":"unknown method: Nothing"}',
    ]


def test_secrets_are_masked(small):
    peer = small.connect()
    peer.call("Login", User="admin", Password="admin")
    values = {"Device.Key": "hidden", "Device.Users.User.2.Password": "hidden", "Device.Name": "shown"}
    peer.call("SetParameterValues", ParameterList=[{"Name": name, "Value": value} for name, value in values.items()])
    assert peer.call("GetParameterValues", ParameterNames=["Device.Key"])["ParameterList"][0]["Value"] == "hidden"
    with pytest.raises(WireError):
        peer.call("Execute", Path="Device.Echo", ParameterList=[{"Name": "PreSharedKey", "Value": "hidden"}])
    with pytest.raises(WireError):  # what does not exist, however it is written
        peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Users.User.99.Password.", "Value": "hidden"}])
    assert "hidden" not in small.log and '"admin","Password":"***"' in small.log and '"shown"' in small.log


def test_logins_are_logged(veld_start):
    small = veld_start("--log", "info", model=SMALL)
    peer = small.connect()
    with pytest.raises(WireError):
        peer.call("Login", User="admin", Password="wrong")
    peer.call("Login", User="admin", Password="admin")
    uid = f"uid {os.geteuid()}"
    assert re.findall(r"veld (\w+: .*login .*|\w+: .*logged in.*)$", small.log, re.M) == [
        f'warning: {uid}: login as "admin" refused',
        f'info: {uid}: logged in as "admin"',
    ]


def test_what_clients_send_is_escaped(small):
    peer = small.connect()
    with pytest.raises(WireError):
        peer.call("Login", User="eve\n\x1b[31m2026 veld error: \u202e", Password="x")
    shown = [line for line in small.log.splitlines() if "eve" in line]
    assert shown and all(re.match(r"^\S+Z veld (debug|warning): ", line) for line in shown)
    assert "\x1b" not in small.log and "\u202e" not in small.log


def test_a_long_answer_is_shown_by_its_length(veld_start):
    veld = veld_start("--log", "debug", "--populate", "50,10")
    answer = veld.call("GetParameterValues", ParameterNames=["."])
    assert len(answer["ParameterList"]) > 10000
    assert re.fullmatch(r"uid \d+\): answer \d{6,} bytes", lines(veld, 2)[-1])


def test_a_log_that_cannot_be_opened_again_stays(veld_start, tmp_path):
    log = Path(tmp_path) / "log"
    veld = veld_start("--log", log, model=SMALL)
    log.rename(log.with_suffix(".old"))
    log.mkdir()
    veld.process.send_signal(1)
    while "cannot open the log file again" not in log.with_suffix(".old").read_text():
        veld.call("GetParameterValues", ParameterNames=["Device.Name"])
    assert f"error: cannot open the log file again: {log}: not a regular file\n" in log.with_suffix(".old").read_text()
    veld.call("Login", User="root")
    assert 'logged in as "root"' in log.with_suffix(".old").read_text()


def test_the_log_is_opened_again_at_a_hang_up(veld_start, tmp_path):
    log = Path(tmp_path) / "log"
    veld = veld_start("--log", log, model=SMALL)
    log.rename(log.with_suffix(".old"))
    veld.process.send_signal(1)
    while not log.exists():
        veld.call("GetParameterValues", ParameterNames=["Device.Name"])
    veld.call("Login", User="root")
    assert 'logged in as "root"' in log.read_text()
