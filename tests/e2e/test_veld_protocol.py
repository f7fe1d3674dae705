"""What the daemon answers, byte by byte, and whom it lets do what."""

import json
import os
from pathlib import Path

import pytest

from lib import settings
from lib.wire import WireError

SMALL = Path(__file__).parent / "models" / "small.json"


@pytest.fixture
def small(veld_start):
    return veld_start(model=SMALL)


@pytest.fixture
def root(small):
    peer = small.connect()
    peer.call("Login", User="root")
    return peer


def raw(peer, line):
    """One line out, one line back, as bytes."""
    peer.send_raw(line + b"\n")
    message = peer.receive()
    return json.dumps(message, separators=(",", ":"), ensure_ascii=False)


def ask(peer, method, **params):
    """The result of a request as the text that went over the wire."""
    number = peer.request(method, params)
    while b"\n" not in peer.buffer:
        peer.buffer += peer.link.recv(1 << 20)
    line, _, rest = peer.buffer.partition(b"\n")
    peer.buffer = bytearray(rest)
    head = f'{{"jsonrpc":"2.0","id":{number},"result":'.encode()
    assert line.startswith(head) and line.endswith(b"}"), line
    return line[len(head) : -1].decode()


def names(result):
    return [entry["Name"] for entry in result["ParameterList"]]


def refused(peer, method, **params):
    with pytest.raises(WireError) as error:
        peer.call(method, **params)
    return error.value


def set_one(peer, name, value):
    return peer.call("SetParameterValues", ParameterList=[{"Name": name, "Value": value}])


def test_the_children_of_the_root(root):
    assert ask(root, "GetParameterNames", ParameterPath=".", NextLevel=True) == (
        '{"ParameterList":[{"Name":"Device.","Writable":false},{"Name":"DataModelVersion","Writable":false}]}'
    )


def test_a_table_lists_its_instances_then_its_own_parameters(root):
    assert ask(root, "GetParameterNames", ParameterPath="Device.Host.", NextLevel=True) == (
        '{"ParameterList":[{"Name":"Device.Host.1.","Writable":true},{"Name":"Device.Host.2.","Writable":true},'
        '{"Name":"Device.Host.max_instance","Writable":false}]}'
    )


def test_an_ordered_table_lists_its_instances_in_order(root):
    assert ask(root, "GetParameterNames", ParameterPath="Device.Search", NextLevel=True) == (
        '{"ParameterList":[{"Name":"Device.Search.2","Writable":true},{"Name":"Device.Search.1","Writable":true},'
        '{"Name":"Device.Search.max_instance","Writable":false},{"Name":"Device.Search.order","Writable":false}]}'
    )


def test_names_of_everything_begin_with_the_object_itself(root):
    assert names(root.call("GetParameterNames", ParameterPath="Device.Host.1", NextLevel=False)) == [
        "Device.Host.1.",
        "Device.Host.1.Alias",
        "Device.Host.1.Port",
        "Device.Host.1.Address.",
        "Device.Host.1.Address.max_instance",
    ]


def test_names_and_attributes_agree_on_what_is_writable(root):
    listed = root.call("GetParameterNames", ParameterPath="Device.", NextLevel=False)["ParameterList"]
    assert root.call("GetParameterNames", ParameterPath="Device.")["ParameterList"] == listed
    described = root.call("GetParameterAttributes", ParameterNames=[entry["Name"] for entry in listed], Depth=0)
    assert {entry["Name"]: entry["Writable"] for entry in listed} == {
        entry["Name"]: entry["Attributes"]["access"] == "readWrite" for entry in described["ParameterList"]
    }


def test_values_come_in_the_models_order(root):
    assert ask(root, "GetParameterValues", ParameterNames=["Device.Host."]) == (
        '{"ParameterList":[{"Name":"Device.Host.1.Alias","Value":"one"},{"Name":"Device.Host.1.Port","Value":80},'
        '{"Name":"Device.Host.1.Address.max_instance","Value":0},{"Name":"Device.Host.2.Alias","Value":"two"},'
        '{"Name":"Device.Host.2.Port","Value":8080},{"Name":"Device.Host.2.Address.max_instance","Value":0},'
        '{"Name":"Device.Host.max_instance","Value":2}]}'
    )
    assert ask(root, "GetParameterValues", ParameterNames=["Device.Search."]) == (
        '{"ParameterList":[{"Name":"Device.Search.2","Value":"home"},{"Name":"Device.Search.1","Value":"lan"},'
        '{"Name":"Device.Search.max_instance","Value":2},{"Name":"Device.Search.order","Value":"2,1"}]}'
    )


def test_a_name_is_taken_with_and_without_its_final_dot(root):
    for name in ("Device.Level", "Device.Level."):
        assert ask(root, "GetParameterValues", ParameterNames=[name]) == (
            '{"ParameterList":[{"Name":"Device.Level","Value":5}]}'
        )


def test_no_names_no_values(root):
    assert ask(root, "GetParameterValues", ParameterNames=[]) == '{"ParameterList":[]}'


def test_attributes_of_a_table_come_with_the_template(root):
    assert ask(root, "GetParameterAttributes", ParameterNames=["Device.Host."], Depth=1) == (
        '{"ParameterList":[{"Name":"Device.Host.","Attributes":{"type":"object","access":"readWrite","perms":"rw",'
        '"multi":true,"maxCount":4},"Template":[{"Name":"","Attributes":{"type":"object","access":"readWrite",'
        '"perms":"rw"}},{"Name":"Alias","Attributes":{"type":"string","access":"readWrite","perms":"rw","default":"",'
        '"unique":true}},{"Name":"Port","Attributes":{"type":"unsignedInt","access":"readWrite","perms":"rw",'
        '"default":80}},{"Name":"Address.","Attributes":{"type":"object","access":"readWrite","perms":"rw",'
        '"multi":true}}]},{"Name":"Device.Host.1.","Attributes":{"type":"object","access":"readWrite","perms":"rw"}},'
        '{"Name":"Device.Host.2.","Attributes":{"type":"object","access":"readWrite","perms":"rw"}},'
        '{"Name":"Device.Host.max_instance","Attributes":{"type":"unsignedInt","access":"readOnly","perms":"r",'
        '"default":0}}]}'
    )


def test_a_table_at_the_edge_of_the_depth_has_no_template(root):
    answer = root.call("GetParameterAttributes", ParameterNames=["Device."], Depth=1)
    assert names(answer)[0] == "Device."
    assert all("Template" not in entry for entry in answer["ParameterList"])
    answer = root.call("GetParameterAttributes", ParameterNames=["Device."], Depth=2)
    entries = {entry["Name"]: entry for entry in answer["ParameterList"]}
    assert "Template" in entries["Device.Host."]
    assert entries["Device.Search."]["Template"] == [
        {
            "Name": "",
            "Attributes": {
                "type": "string",
                "access": "readWrite",
                "perms": "rw",
                "default": "",
                "unique": True,
                "maxLength": 10,
            },
        }
    ]
    assert "Device.Host.1.Alias" not in entries


def test_depth_0_is_the_node_alone_and_the_root_has_no_entry(root):
    assert ask(root, "GetParameterAttributes", ParameterNames=["Device.Level"], Depth=0) == (
        '{"ParameterList":[{"Name":"Device.Level","Attributes":{"type":"unsignedInt","access":"readWrite",'
        '"perms":"rw","default":5,"minInclusive":1,"maxInclusive":10,"offValue":0}}]}'
    )
    assert names(root.call("GetParameterAttributes", ParameterNames=["."])) == ["Device.", "DataModelVersion"]
    assert names(root.call("GetParameterAttributes", ParameterNames=["."], Depth=0)) == []


def test_a_method_shows_all_its_arguments(root):
    assert ask(root, "GetParameterAttributes", ParameterNames=["Device.Echo."]) == (
        '{"ParameterList":[{"Name":"Device.Echo","Attributes":{"type":"method","access":"readOnly","perms":"rw"}},'
        '{"Name":"Device.Echo.Text","Attributes":{"type":"string","access":"readOnly","perms":"r","default":"hi",'
        '"Direction":"input"}},{"Name":"Device.Echo.Result.","Attributes":{"type":"object","access":"readOnly",'
        '"perms":"r","Direction":"output"}},{"Name":"Device.Echo.Result.Text","Attributes":{"type":"string",'
        '"access":"readOnly","perms":"r","default":"","Direction":"output"}}]}'
    )


def test_a_method_has_no_value(root):
    assert refused(root, "GetParameterValues", ParameterNames=["Device.Echo"]).code == 9005
    assert refused(root, "GetParameterValues", ParameterNames=["Device.Echo.Text"]).code == 9005


def test_one_unknown_name_is_refused_of_several_it_is_left_out(root):
    assert refused(root, "GetParameterValues", ParameterNames=["Device.Nothing"]).code == 9005
    assert refused(root, "GetParameterNames", ParameterPath="Device.Host.7.", NextLevel=True).code == 9005
    assert refused(root, "GetParameterAttributes", ParameterNames=["Device..Level"]).code == 9005
    for method in ("GetParameterValues", "GetParameterAttributes"):
        assert names(root.call(method, ParameterNames=["Device.Nothing", "Device.Level"])) == ["Device.Level"]


@pytest.mark.parametrize(
    "name, value, code, text",
    [
        ("Name", "", 9007, "must have at least 1 characters"),
        ("Name", "123456789", 9007, "must have at most 8 characters"),
        ("Name", 7, 9006, "must be a text"),
        ("Serial", "x", 9008, "is not writable"),
        ("Level", 11, 9007, "must be at most 10"),
        ("Level", -1, 9007, "must be at least 0"),
        ("Level", "5", 9006, "must be an integer"),
        ("Level", 5.0, 9006, "must be an integer"),
        ("Offset", 2147483648, 9007, "must be at most 2147483647"),
        ("Offset", -2147483649, 9007, "must be at least -2147483648"),
        ("Big", -1, 9007, "must be at least 0"),
        ("Big", "18446744073709551616", 9006, "must be an integer"),
        ("Big", "x", 9006, "must be an integer"),
        ("Ratio", 1.5, 9007, "must be at most 1"),
        ("Ratio", "0.5", 9006, "must be a number"),
        ("Mode", "auto", 9007, 'must be one of "Auto", "On", "Off"'),
        ("Code", "AAA", 9007, "does not match the pattern [A-Z]{2}|[0-9]+"),
        ("Code", "1A", 9007, "does not match the pattern [A-Z]{2}|[0-9]+"),
        ("Code", "AA\n", 9007, "does not match the pattern [A-Z]{2}|[0-9]+"),
        ("When", "yesterday", 9007, "is not a date and time (like 2024-01-31T23:59:00Z)"),
        ("When", "2024-01-31 23:59:00Z", 9007, "is not a date and time (like 2024-01-31T23:59:00Z)"),
        ("When", "2024-01-31T23:59:00.Z", 9007, "is not a date and time (like 2024-01-31T23:59:00Z)"),
        ("When", "2023-02-29T00:00:00Z", 9007, "is not a date and time (like 2024-01-31T23:59:00Z)"),
        ("Blob", "YWJjZA==", 9007, "must have at most 3 bytes"),
        ("Blob", "YWJ", 9007, "is not base64"),
        ("Hex", "ABC", 9007, "is not an even number of hexadecimal digits"),
        ("Hex", "ABCDEF", 9007, "must have at most 2 bytes"),
        ("Ref", "a b", 9007, "is not a path of the data model"),
        ("Enable", 1, 9006, "must be true or false"),
        ("Enable", None, 9006, "must be true or false"),
        ("Nothing", 1, 9005, "no such parameter"),
        ("Host.", 1, 9005, "is not a parameter"),
        ("Echo", 1, 9005, "is not a parameter"),
        ("Host.max_instance", 1, 9008, "is not writable"),
        ("Users.User.1.Password", "a\0b", 9007, "is not possible as a password"),
        ("Users.User.1.Password", "x" * 512, 9007, "is not possible as a password"),
        ("Host.1.Alias", "two", 9007, "is already used by instance 2"),
        ("Search.1", "home", 9007, "is already used by instance 2"),
    ],
)
def test_a_value_that_does_not_fit_is_refused(root, name, value, code, text):
    error = refused(root, "SetParameterValues", ParameterList=[{"Name": "Device." + name, "Value": value}])
    assert (error.code, error.message, error.data) == (code, "nothing was set", {"Device." + name: text})


@pytest.mark.parametrize("end", ["", "."])
def test_one_request_has_so_many_passwords(root, end):
    name = "Device.Users.User.1.Password" + end
    error = refused(root, "SetParameterValues", ParameterList=[{"Name": name, "Value": f"p{i}"} for i in range(257)])
    assert (error.code, error.message) == (9004, "too many passwords in one request")


@pytest.mark.parametrize(
    "name, value, kept",
    [
        ("Name", "äöüß日本語x", "äöüß日本語x"),
        ("Level", 0, 0),  # outside the range, but the value that switches it off
        ("Level", 10, 10),
        ("Big", "18446744073709551615", "18446744073709551615"),
        ("Big", "12", 12),
        ("Big", 9223372036854775807, 9223372036854775807),
        ("Ratio", 1, 1.0),
        ("Code", "0815", "0815"),
        ("When", "2024-02-29T23:59:59.5+01:00", "2024-02-29T23:59:59.5+01:00"),
        ("Blob", "YWJj", "YWJj"),
        ("Hex", "aBcD", "aBcD"),
        ("Ref", "Device.Host.1.", "Device.Host.1."),
        ("Restart", True, False),  # it acts, and reads as before
        ("Host.1.Alias", "one", "one"),
    ],
)
def test_a_value_that_fits_is_kept(root, name, value, kept):
    assert set_one(root, "Device." + name, value) == {"Status": 0}
    answer = root.call("GetParameterValues", ParameterNames=["Device." + name])
    assert answer["ParameterList"] == [{"Name": "Device." + name, "Value": kept}]
    assert isinstance(answer["ParameterList"][0]["Value"], type(kept))


def test_one_bad_entry_and_nothing_is_set(root):
    error = refused(
        root,
        "SetParameterValues",
        ParameterList=[
            {"Name": "Device.Name", "Value": "new"},
            {"Name": "Device.Serial", "Value": "x"},
            {"Name": "Device.Level", "Value": 99},
            {"Name": "Device.Offset", "Value": 1},
            {"Name": "Device.Offset", "Value": 2},
        ],
    )
    assert error.code == 9003
    assert error.data == {
        "Device.Serial": "is not writable",
        "Device.Level": "must be at most 10",
        "Device.Offset": "is named more than once",
    }
    assert root.call("GetParameterValues", ParameterNames=["Device.Name"])["ParameterList"][0]["Value"] == "box"


def test_unique_values_may_change_places_in_one_request(root):
    swap = [{"Name": "Device.Host.1.Alias", "Value": "two"}, {"Name": "Device.Host.2.Alias", "Value": "one"}]
    assert root.call("SetParameterValues", ParameterList=swap) == {"Status": 0}
    assert refused(root, "SetParameterValues", ParameterList=[swap[1] | {"Value": "two"}]).data == {
        "Device.Host.2.Alias": "is already used by instance 1"
    }
    both = [entry | {"Value": "same"} for entry in swap]
    assert refused(root, "SetParameterValues", ParameterList=both).data == {
        "Device.Host.1.Alias": "would be used by two instances",
        "Device.Host.2.Alias": "would be used by two instances",
    }


def test_instances_come_and_go_and_numbers_are_never_used_again(root):
    root.join(4)
    assert ask(root, "AddObject", ObjectName="Device.Host.") == '{"InstanceNumber":3,"Status":0}'
    assert root.event() == (4, {"Action": "Add", "Path": "Device.Host.", "InstanceNumber": 3})
    assert root.call("DeleteObject", ObjectName="Device.Host.3.") == {"Status": 0}
    assert root.event() == (4, {"Action": "Delete", "Path": "Device.Host.", "InstanceNumber": 3})
    assert root.call("AddObject", ObjectName="Device.Host")["InstanceNumber"] == 4
    answer = root.call("GetParameterValues", ParameterNames=["Device.Host.max_instance", "Device.HostNumberOfEntries"])
    assert [entry["Value"] for entry in answer["ParameterList"]] == [4, 3]
    assert root.call("AddObject", ObjectName="Device.Host.")["InstanceNumber"] == 5
    assert refused(root, "AddObject", ObjectName="Device.Host.").code == 9004
    assert root.call("AddObject", ObjectName="Device.Host.5.Address.")["InstanceNumber"] == 1


def test_what_cannot_be_added_or_deleted(root):
    assert refused(root, "AddObject", ObjectName="Device.").code == 9005
    assert refused(root, "AddObject", ObjectName="Device.Nothing.").code == 9005
    assert refused(root, "AddObject", ObjectName="Device.Host.", Order=1).code == 9003
    assert refused(root, "AddObject", ObjectName="Device.Search.", Order=0).code == 9003
    assert refused(root, "DeleteObject", ObjectName="Device.Host.").code == 9005
    assert refused(root, "DeleteObject", ObjectName="Device.Host.9.").code == 9005
    assert refused(root, "DeleteObject", ObjectName="Device.Name").code == 9005
    assert root.call("DeleteObject", ObjectName="Device.Search.2") == {"Status": 0}
    assert refused(root, "DeleteObject", ObjectName="Device.Search.1").code == 9001


def order(peer):
    return peer.call("GetParameterValues", ParameterNames=["Device.Search.order"])["ParameterList"][0]["Value"]


def test_the_order_of_instances(root):
    assert root.call("AddObject", ObjectName="Device.Search.", Order=2) == {"InstanceNumber": 3, "Status": 0}
    assert order(root) == "2,3,1"
    assert root.call("AddObject", ObjectName="Device.Search.") == {"InstanceNumber": 4, "Status": 0}
    assert order(root) == "2,3,1,4"
    assert root.call("ChangeOrder", ObjectName="Device.Search.4", Order=1) == {"Status": 0}
    assert order(root) == "4,2,3,1"
    assert root.call("ChangeOrder", ObjectName="Device.Search.4.", Order=4294967295) == {"Status": 0}
    assert order(root) == "2,3,1,4"
    assert root.call("DeleteObject", ObjectName="Device.Search.3.") == {"Status": 0}
    assert order(root) == "2,1,4"
    assert refused(root, "ChangeOrder", ObjectName="Device.Search.1", Order=0).code == 9003
    assert refused(root, "ChangeOrder", ObjectName="Device.Search.1").code == -32602
    assert refused(root, "ChangeOrder", ObjectName="Device.Host.1.", Order=1).code == 9003


def test_new_instances_have_their_defaults_and_empty_unique_values_do_not_collide(root):
    root.call("AddObject", ObjectName="Device.Host.")
    root.call("AddObject", ObjectName="Device.Host.")
    answer = root.call("GetParameterValues", ParameterNames=["Device.Host.3.", "Device.Host.4.Alias"])
    assert [entry["Value"] for entry in answer["ParameterList"]] == ["", 80, 0, ""]


def test_anonymous_reads_what_is_public_and_changes_nothing(small):
    peer = small.connect()
    assert peer.call("GetParameterValues", ParameterNames=["Device.Name"])["ParameterList"][0]["Value"] == "box"
    assert refused(peer, "GetParameterValues", ParameterNames=["Device.Admin.Secret"]).code == 9001
    assert refused(peer, "GetParameterValues", ParameterNames=["Device.Admin."]).code == 9001
    assert refused(peer, "GetParameterNames", ParameterPath="Device.Admin.", NextLevel=True).code == 9001
    assert refused(peer, "GetParameterAttributes", ParameterNames=["Device.Admin.Secret"]).code == 9001
    values = names(peer.call("GetParameterValues", ParameterNames=["."]))
    assert "Device.Name" in values and not [name for name in values if "Admin" in name or "User" in name]
    answer = peer.call("GetParameterAttributes", ParameterNames=["Device."])
    perms = {entry["Name"]: entry["Attributes"]["perms"] for entry in answer["ParameterList"]}
    assert (perms["Device.Name"], perms["Device.Admin."], perms["Device.Echo"]) == ("r", "", "r")
    assert refused(peer, "SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": "x"}]).data == {
        "Device.Name": "may not be written by this user"
    }
    for method, params in (
        ("AddObject", {"ObjectName": "Device.Host."}),
        ("DeleteObject", {"ObjectName": "Device.Host.1."}),
        ("ChangeOrder", {"ObjectName": "Device.Search.1", "Order": 1}),
        ("Execute", {"Path": "Device.Echo"}),
        ("SaveConfig", {}),
        ("FactoryReset", {}),
        ("Reboot", {}),
    ):
        assert refused(peer, method, **params).code == 9001, method


REFUSED = {
    "GetParameterNames": {"ParameterPath": "Device.Admin.", "NextLevel": True},
    "GetParameterValues": {"ParameterNames": ["Device.Admin.Secret"]},
    "GetParameterAttributes": {"ParameterNames": ["Device.Admin."]},
    "SetParameterValues": {"ParameterList": [{"Name": "Device.Admin.Secret", "Value": "x"}, {"Name": "Device.None", "Value": 1}]},
    "AddObject": {"ObjectName": "Device.Users.User."},
    "DeleteObject": {"ObjectName": "Device.Users.User.1."},
    "ChangeOrder": {"ObjectName": "Device.Search.1", "Order": 1},
    "Execute": {"Path": "Device.Echo"},
    "SaveConfig": {},
    "FactoryReset": {},
    "Reboot": {"Force": True},
    "Download": {"FileType": "File", "URL": "file:///none"},
}


@pytest.mark.parametrize("method", REFUSED)
def test_a_refusal_says_when_nobody_is_logged_in(small, method):
    peer = small.connect()
    error = refused(peer, method, **REFUSED[method])
    assert error.code == (9003 if method == "SetParameterValues" else 9001)
    assert error.message.endswith(": not logged in")
    peer.call("Login", User="user", Password="user")
    try:
        peer.call(method, **REFUSED[method])
    except WireError as error:
        assert not error.message.endswith("not logged in")


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root")
def test_an_account_that_is_not_enabled_lets_its_system_user_not_in(small, root):
    user = "Device.Users.User.4."
    assert root.call("AddObject", ObjectName="Device.Users.User.")["InstanceNumber"] == 4
    set_one(root, user + "Username", "nobody")
    peer = small.connect()
    assert refused(peer, "Login", User="nobody").code == 9001
    set_one(root, user + "Enable", True)
    assert peer.call("Login", User="nobody") == {}
    assert refused(peer, "GetParameterValues", ParameterNames=["Device.Admin.Secret"]).code == 9001


def test_users_and_administrators(small):
    user = small.connect()
    assert user.call("Login", User="user", Password="user") == {}
    assert set_one(user, "Device.Name", "mine") == {"Status": 0}
    assert refused(user, "SetParameterValues", ParameterList=[{"Name": "Device.Admin.Secret", "Value": "y"}]).code == 9001
    assert refused(user, "GetParameterValues", ParameterNames=["Device.Users."]).code == 9001
    assert refused(user, "Reboot", Force=True).code == 9001
    set_one(user, "Device.Key", "hidden")
    assert user.call("GetParameterValues", ParameterNames=["Device.Key"])["ParameterList"][0]["Value"] == ""
    admin = small.connect()
    assert admin.call("Login", User="admin", Password="admin") == {}
    assert admin.call("GetParameterValues", ParameterNames=["Device.Key"])["ParameterList"][0]["Value"] == "hidden"
    assert set_one(admin, "Device.Admin.Secret", "y") == {"Status": 0}
    assert admin.call("Logout") == {}
    assert refused(admin, "GetParameterValues", ParameterNames=["Device.Admin.Secret"]).code == 9001


def test_logins_that_are_refused(small):
    peer = small.connect()
    for params in (
        {"User": "admin", "Password": "wrong"},
        {"User": "former", "Password": "user"},
        {"User": "nobody-of-this-name", "Password": "x"},
        {"User": "nobody-of-this-name"},
        {"User": ""},
        {"User": "admin", "Password": ""},
    ):
        assert refused(small.connect(), "Login", **params).code == 9001, params
    assert refused(peer, "Login").code == -32602
    assert refused(peer, "Login", User=1).code == -32602


def test_a_password_is_kept_as_a_salted_hash_and_lets_in(root, small):
    assert root.call("AddObject", ObjectName="Device.Users.User.")["InstanceNumber"] == 4
    user = "Device.Users.User.4."
    fields = {"Username": "eve", "Password": "pässword", "Enable": True}
    root.call("SetParameterValues", ParameterList=[{"Name": user + k, "Value": v} for k, v in fields.items()])
    # Not even an administrator reads what it was turned into.
    assert root.call("GetParameterValues", ParameterNames=[user + "Password"])["ParameterList"][0]["Value"] == ""
    assert root.call("SaveConfig") == {"Status": 0}
    assert small.connect().call("Login", User="eve", Password="pässword") == {}
    assert refused(small.connect(), "Login", User="eve", Password="password").code == 9001


def test_event_1_tells_what_was_set_and_by_whom(root, small):
    listener = small.connect()
    listener.join(1)
    set_one(root, "Device.Enable", False)
    assert listener.event() == (1, {"Name": "Device.Enable", "Value": False, "User": "root"})
    set_one(root, "Device.Key", "hidden")
    assert listener.event() == (1, {"Name": "Device.Key", "Value": "", "User": "root"})
    # Who may not read a value does not hear of it either.
    set_one(root, "Device.Admin.Secret", "s")
    set_one(root, "Device.Level", 3)
    assert listener.event() == (1, {"Name": "Device.Level", "Value": 3, "User": "root"})


def test_names_are_of_all_levels_unless_the_next_is_asked_for(root):
    def names(**more):
        answer = root.call("GetParameterNames", ParameterPath="Device.Host.1.", **more)
        return [entry["Name"] for entry in answer["ParameterList"]]

    below = names(NextLevel=False)
    assert names() == below != []
    everything = root.call("GetParameterNames", ParameterPath="Device.")["ParameterList"]
    assert len(everything) > len(root.call("GetParameterNames", ParameterPath="Device.", NextLevel=True)["ParameterList"])
    assert set(below) <= {entry["Name"] for entry in everything}


def test_a_session_hears_each_event_once_on_its_receiver(small):
    requests, events, other = small.connect(), small.connect(), small.connect()
    session = "0123456789abcdef0123456789abcdef"
    events.call("JoinGroup", Group=4, Session=session, Receiver=True)
    requests.call("JoinGroup", Group=12, Session=session)
    events.call("JoinGroup", Group=12, Session=session, Receiver=True)
    other.join(12)
    other.send_event(12, {"a": 1})
    other.send_event(12)
    assert events.event() == (12, {"a": 1})
    assert events.event() == (12, None)
    assert other.event() == (12, {"a": 1})
    assert other.event() == (12, None)
    # Nothing arrived twice, nothing on the connection for requests.
    requests.call("GetParameterValues", ParameterNames=[])
    assert requests.events == []
    events.call("GetParameterValues", ParameterNames=[])
    assert events.events == []
    # The membership of the connection that is left lives on.
    events.close()
    requests.send_event(12, 3)
    assert other.event() == (12, 3)
    moment = settings.deadline()
    while not requests.events:  # until it is known that the other has gone
        assert settings.remaining(moment)
        requests.send_event(12, 3)
        requests.call("GetParameterValues", ParameterNames=[])
    assert requests.event() == (12, 3)
    assert requests.event() == (12, 3)


def test_the_daemons_own_events_are_not_for_everybody_to_send(small):
    listener, sender = small.connect(), small.connect()
    for group in (9, 10):
        listener.join(group)
    sender.send_event(9, "forged")
    sender.send_event(10, "free")
    assert listener.event() == (10, "free")
    sender.call("Login", User="root")
    sender.send_event(9, "genuine")
    assert listener.event() == (9, "genuine")


@pytest.mark.parametrize(
    "line, answer",
    [
        (
            b'{"jsonrpc":"2.0","id":1,"method":"Nothing"}',
            '{"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"unknown method: Nothing"}}',
        ),
        (
            b'{"id":"seven","method":"GetParameterNames","params":[1]}',
            '{"jsonrpc":"2.0","id":"seven","error":{"code":-32602,"message":"\\"params\\" must be an object"}}',
        ),
        (
            b'{"id":7,"method":"GetParameterNames","params":{"ParameterPath":1}}',
            '{"jsonrpc":"2.0","id":7,"error":{"code":-32602,"message":"\\"ParameterPath\\" must be a text"}}',
        ),
        (
            b'{"jsonrpc":"1.0","id":7,"method":"Logout"}',
            '{"jsonrpc":"2.0","id":7,"error":{"code":-32600,"message":"not a request of JSON-RPC 2.0"}}',
        ),
        (
            b'{"id":7,"method":5}',
            '{"jsonrpc":"2.0","id":7,"error":{"code":-32600,"message":"not a request of JSON-RPC 2.0"}}',
        ),
        (
            b'{"id":[],"method":"Logout"}',
            '{"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"not a request of JSON-RPC 2.0"}}',
        ),
        (b'\r\n\n{"id":1,"method":"Logout","more":[1,{}]}\r', '{"jsonrpc":"2.0","id":1,"result":{}}'),
    ],
)
def test_requests_of_every_shape(small, line, answer):
    assert raw(small.connect(), line) == answer


def test_answers_and_notifications_are_passed_over(small):
    peer = small.connect()
    peer.send_raw(b'{"id":1,"result":{}}\n{"method":"Anything"}\n{"method":"Event"}\n{"method":"Event","params":7}\n')
    assert raw(peer, b'{"id":2,"method":"Logout"}') == '{"jsonrpc":"2.0","id":2,"result":{}}'


def test_texts_with_nul_travel_whole(root):
    set_one(root, "Device.Name", "a\0b")
    assert ask(root, "GetParameterValues", ParameterNames=["Device.Name"]) == (
        '{"ParameterList":[{"Name":"Device.Name","Value":"a\\u0000b"}]}'
    )


def test_a_method_that_nobody_implements_is_refused(root):
    assert refused(root, "Execute", Path="Device.Echo").code == 9000
    error = refused(
        root,
        "Execute",
        Path="Device.Echo",
        ParameterList=[
            {"Name": "Text", "Value": 1},
            {"Name": "Nothing", "Value": 1},
            {"Name": "Result.Text", "Value": "x"},
        ],
    )
    assert (error.code, error.message) == (9003, "the method was not run")
    assert error.data == {
        "Text": "must be a text",
        "Nothing": "no such argument",
        "Result.Text": "is not an input argument",
    }
    assert refused(root, "Execute", Path="Device.Name").code == 9005
    assert refused(root, "Execute", Path="Device.Nothing").code == 9005
