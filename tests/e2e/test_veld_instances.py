"""Instances that come and go by themselves are told like those that clients add and delete."""

import json
import subprocess
from pathlib import Path

import pytest

from test_veld_hostile import SMALL

ADD = "Add"
DELETE = "Delete"


@pytest.fixture
def small(veld_start):
    return veld_start(model=SMALL)


def root(veld):
    peer = veld.connect()
    peer.call("Login", User="root")
    return peer


def told(listener, end):
    """What event 4 tells up to an event of group 20 that was sent last."""
    found = []
    while True:
        number, value = listener.event()
        if number == 20:
            assert value == end
            return found
        found.append((value["Action"], value["Path"], value["InstanceNumber"]))


def listening(veld):
    listener = veld.connect()
    listener.join(4)
    listener.join(20)
    return listener


def test_a_reset_tells_which_instances_came_and_went(small):
    admin, listener = root(small), listening(small)
    admin.call("AddObject", ObjectName="Device.Host.")
    admin.call("AddObject", ObjectName="Device.Host.3.Address.")
    admin.call("AddObject", ObjectName="Device.Host.1.Address.")
    admin.call("DeleteObject", ObjectName="Device.Host.2.")
    admin.send_event(20, "changed")
    assert len(told(listener, "changed")) == 4
    admin.call("FactoryReset")
    admin.send_event(20, "reset")
    assert told(listener, "reset") == [
        (DELETE, "Device.Host.1.Address.", 1),
        (ADD, "Device.Host.", 2),
        (DELETE, "Device.Host.", 3),
    ]
    admin.call("FactoryReset")
    admin.send_event(20, "again")
    assert told(listener, "again") == []


def test_a_configuration_tells_which_instances_came_and_went(small, tmp_path):
    admin, listener = root(small), listening(small)
    hosts = {"instances": {"1": {}, "4": {"Alias": "four"}}, "max_instance": 4}
    document = Path(tmp_path) / "config"
    document.write_text(json.dumps({"veld-config": 1, "config": {"Device": {"Host": hosts}}}))
    admin.call("Download", FileType="Config", URL=f"file://{document}")
    admin.send_event(20, "done")
    assert told(listener, "done") == [(DELETE, "Device.Host.", 2), (ADD, "Device.Host.", 4)]


def test_only_those_hear_of_instances_who_may_read_them(small):
    admin, anybody, other = root(small), listening(small), root(small)
    other.join(4)
    other.join(20)
    admin.call("DeleteObject", ObjectName="Device.Users.User.3.")
    admin.call("FactoryReset")
    admin.send_event(20, "reset")
    assert told(anybody, "reset") == []
    assert told(other, "reset") == [(DELETE, "Device.Users.User.", 3), (ADD, "Device.Users.User.", 3)]


def test_rows_of_the_machine_are_told_when_somebody_has_looked(veld):
    table = "Device.DeviceInfo.ProcessStatus.Process."
    listener = listening(veld)
    names = {"ParameterNames": [table]}
    known = {entry["Name"] for entry in listener.call("GetParameterValues", **names)["ParameterList"]}
    with subprocess.Popen(["sleep", "1000"]) as process:
        try:
            added = first(listener, ADD, table, lambda number: pid_of(veld, table, number) == process.pid)
            assert f"{table}{added}.PID" not in known
        finally:
            process.kill()
    assert first(listener, DELETE, table, lambda number: number == added) == added


def first(listener, action, table, wanted):
    """The number of the first instance that is told and wanted."""
    while True:
        number, value = listener.event()
        if number == 4 and (value["Action"], value["Path"]) == (action, table) and wanted(value["InstanceNumber"]):
            return value["InstanceNumber"]


def pid_of(veld, table, number):
    entries = veld.call("GetParameterValues", ParameterNames=[f"{table}{number}.PID", "Device.Time.Enable"])["ParameterList"]
    return next((entry["Value"] for entry in entries if entry["Name"].endswith(".PID")), None)
