"""add (touch), take, del (rm), order."""

import pytest

from lib.commands import MODEL, refuse_logins, typed
from lib.fake import Error


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    fake.on("AddObject", {"InstanceNumber": 11, "Status": 0})
    fake.on("DeleteObject", {"Status": 0})
    fake.on("ChangeOrder", {"Status": 0})
    return fake


def test_add_sends_the_resolved_object(kest, model):
    assert typed(kest, model, "cd Device.Host", "add", "touch :Device.List", "add 1.< 3", "add . 0",
                 "add . 4294967295") == 5 * "Instance number: 11\nStatus: OK\n"
    assert model.params("AddObject") == [
        {"ObjectName": "Device.Host."}, {"ObjectName": "Device.List."}, {"ObjectName": "Device.Host.", "Order": 3},
        {"ObjectName": "Device.Host.", "Order": 0}, {"ObjectName": "Device.Host."}]


@pytest.mark.parametrize("line, message", [
    ("add a b c", "syntax: add <path> [<order_num>]\n"),
    ("touch Host x", "touch: invalid order integer: x\n"),
    ("add Host -1", "add: invalid order integer: -1\n"),
    ("add Host +1", "add: invalid order integer: +1\n"),
    ("add Host ' 1'", "add: invalid order integer:  1\n"),
    ("add Host 4294967296", "add: invalid order integer: 4294967296\n"),
    ("add Nothing", "add: Nothing: no such node.\n"),
    ("take Nothing", "take: Nothing: no such node.\n"),
    ("take a b c", "syntax: take <path> [<order_num>]\n"),
    ("take Host 0x1", "take: invalid order integer: 0x1\n"),
    ("del", "syntax: del <path>\n"),
    ("rm a b", "syntax: rm <path>\n"),
    ("rm Nothing", "rm: Nothing: no such node.\n"),
    ("order Host.1", "syntax: order <path> <order_num>\n"),
    ("order Host.1 2 3", "syntax: order <path> <order_num>\n"),
    ("order Host.1 two", "order: invalid order integer: two\n"),
    ("order Host.Nothing 1", "order: Host.Nothing: no such node.\n"),
])
def test_what_is_refused_before_anything_is_sent(kest, model, line, message):
    assert typed(kest, model, "cd Device", line, "pwd") == message + ":Device\n"
    assert not set(model.methods()) & {"AddObject", "DeleteObject", "ChangeOrder"}


def test_take_enters_what_it_added(kest, model):
    assert typed(kest, model, "take Device.Host", "pwd", "cd :Device", "take Host. 2", "pwd", "up", "take", "pwd") == (
        "Instance number: 11\nStatus: OK\n:Device.Host.11\n"
        "Instance number: 11\nStatus: OK\n:Device.Host.11\n"
        "Instance number: 11\nStatus: OK\n:Device.Host.11\n")
    assert model.params("AddObject") == [{"ObjectName": "Device.Host."}, {"ObjectName": "Device.Host.", "Order": 2},
                                         {"ObjectName": "Device.Host."}]


@pytest.mark.parametrize("answer, shown", [
    (Error(9005, "no table"), "[9005] Invalid parameter name: no table\n"),
    ({"Status": 0}, "Status: OK\n"),
    ({"InstanceNumber": "11"}, "Status: OK\n"),
    ({"InstanceNumber": 0}, "Status: OK\n"),
    ({"InstanceNumber": -3}, "Status: OK\n"),
])
def test_without_a_number_nothing_is_entered(kest, model, answer, shown):
    model.on("AddObject", answer)
    assert typed(kest, model, "take Device.Host", "pwd") == shown + ":\n"


def test_del_spells_objects_and_values_as_the_daemon_does(kest, model):
    assert typed(kest, model, "cd Device", "del Host.10", "rm List.1.", "del :Device.Host.77") == 3 * "Status: OK\n"
    assert model.params("DeleteObject") == [{"ObjectName": "Device.Host.10."}, {"ObjectName": "Device.List.1"},
                                            {"ObjectName": "Device.Host.77."}]


def test_order_sends_what_it_was_given(kest, model):
    assert typed(kest, model, "cd Device.Host", "order 10 1", "order 2. 0", "cd 1", "order . 4294967295") == (
        3 * "Status: OK\n")
    assert model.params("ChangeOrder") == [
        {"ObjectName": "Device.Host.10.", "Order": 1}, {"ObjectName": "Device.Host.2.", "Order": 0},
        {"ObjectName": "Device.Host.1.", "Order": 4294967295}]


def test_refusals_are_shown(kest, model):
    model.on("DeleteObject", Error(9001, "not yours", {"Device.Host.1.": "read-only"}))
    model.on("ChangeOrder", Error(9003, "no order"))
    assert typed(kest, model, "cd Device.Host", "del 1", "order 1 5") == (
        '[9001] Request denied: not yours\nDevice.Host.1.: "read-only"\n[9003] Invalid arguments: no order\n')


def test_requests_send_paths_as_typed(kest, fake):
    fake.on("AddObject", {"InstanceNumber": 3, "Status": 0}).on("DeleteObject", {"Status": 0})
    fake.on("ChangeOrder", Error(9001, "no"))
    assert (run := kest("-r", "add", ":Any.Thing", to=fake)).out == "Instance number: 3\nStatus: OK\n"
    assert run.status == 3
    assert kest("-r", "AddObject", "Any", "7", to=fake).status == 3
    assert kest("-r", "touch", to=fake).status == 3
    assert kest("-r", "rm", "Any.1", to=fake).status == 0
    assert (run := kest("-r", "ChangeOrder", "Any.1", "2", to=fake)).out == "[9001] Request denied: no\n"
    assert run.status == 0
    assert kest("-r", "take", "Any", to=fake).out == "take: unknown method.\n"
    assert fake.methods(but=["JoinGroup"]) == ["AddObject", "AddObject", "AddObject", "DeleteObject", "ChangeOrder"]
    assert fake.params("AddObject") == [{"ObjectName": ":Any.Thing"}, {"ObjectName": "Any", "Order": 7},
                                        {"ObjectName": "."}]
    assert fake.params("DeleteObject") == [{"ObjectName": "Any.1"}]
    assert fake.params("ChangeOrder") == [{"ObjectName": "Any.1", "Order": 2}]


def test_instances_come_go_and_move_on_the_real_daemon(kest, veld):
    out = typed(kest, veld, "cd Device.NAT.PortMapping", "take", "pwd", "set Description=mine", "cat Description",
                "order . 1", "cat <.order", "cd <", "del 4", "cat order", "del 4", "cd 4", "cat Description")
    assert out == (
        "Instance number: 4\nStatus: OK\n:Device.NAT.PortMapping.4\n"
        'key = Description, value = mine\nStatus: OK\nDescription = "mine"\n'
        'Status: OK\norder = "4,2,1,3"\n'
        'Status: OK\norder = "2,1,3"\n'
        "[9005] Invalid parameter name: no such node: Device.NAT.PortMapping.4.\n"
        "[9005] Invalid parameter name: no such node: Device.NAT.PortMapping.4.Description\n")


def test_values_come_and_go_in_a_list(kest, veld):
    out = typed(kest, veld, "cd Device.DNS.SearchDomain", "add", "set 3=third.example", "cat", "del 1", "cat order")
    assert out == (
        "Instance number: 3\nStatus: OK\nkey = 3, value = third.example\nStatus: OK\n"
        '1            = "lan"\n2            = "home.example"\n3            = "third.example"\n'
        'max_instance = 3\norder        = "1,2,3"\n'
        'Status: OK\norder = "2,3"\n')
