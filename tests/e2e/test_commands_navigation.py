"""cd, up, pwd, ls, tree."""

import re

import pytest

from lib.commands import MODEL, asked, attributes, next_level, refuse_logins, typed
from lib.fake import Error, Silence


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


def test_cd_moves_and_pwd_shows_where(kest, model):
    assert typed(kest, model, "pwd", "cd Device.Time", "pwd", "cd <", "pwd", "cd", "pwd") == (
        ":\n:Device.Time\n:Device\n:\n")
    assert asked(model) == [attributes("Device.")]


def test_cd_to_the_previous_place_says_where_that_is(kest, model):
    assert typed(kest, model, "cd -", "cd Device.Time", "cd :", "cd -", "cd <.-.Enable", "pwd") == (
        ":\n:Device.Time\n:\ncd: <.-.Enable: no such node\n:Device.Time\n")


def test_cd_that_fails_stays(kest, model):
    assert typed(kest, model, "cd Device", "cd Time.Nothing", "pwd", "cd -", "cd a b") == (
        "cd: Time.Nothing: no such node\n:Device\n:\nsyntax: cd [<path>]")


@pytest.mark.parametrize("path", ["#attr", "Device.#fetched", "<x", "Device.Host.0", "Device.Host.4294967296"])
def test_paths_that_lead_nowhere(kest, model, path):
    assert typed(kest, model, "cd Device.Host", f"cd ':{path}'", "pwd") == f"cd: :{path}: no such node\n:Device.Host\n"


def test_empty_components_vanish(kest, model):
    assert typed(kest, model, "cd Device..Time.", "pwd", "cd .<.", "pwd", "cd :", "pwd") == (
        ":Device.Time\n:Device\n:\n")


def test_an_instance_that_is_not_there_yet_resolves_by_the_template(kest, model):
    assert typed(kest, model, "cd Device.Host.77", "pwd") == ":Device.Host.77\n"
    names = ["Device.Host.1.", "Device.Host.10.", "Device.Host.2.", "Device.Host.max_instance", "Device.Host.order"]
    assert asked(model) == [attributes("Device."), attributes("Device.Host."), next_level("Device.Host."),
                            ("GetParameterAttributes", {"ParameterNames": names})]


def test_the_names_of_a_long_list_have_their_colour(shell, model):
    term = shell(to=model)
    before = len(term.raw)
    assert term.run("ls -l Device.Host.1")[1].split()[-1] == "Name"
    assert re.search(rb"\x1b\[38;5;\d+mName\r\n\x1b\[0m", term.raw[before:])


@pytest.mark.parametrize("words, place", [("", "Device.Host"), (" 0", "Device.Host"), (" x", "Device.Host"),
                                          (" 2", "Device"), (" 3", ""), (" -1", "Device.Host.1"),
                                          (" 99999999999999999999", ""), (" 2147483647", "")])
def test_up_climbs(kest, model, words, place):
    assert typed(kest, model, "cd Device.Host.1", f"up{words}", "pwd", "cd -") == f":{place}\n:Device.Host.1\n"


def test_a_path_of_more_than_256_bytes_is_refused(kest, fake):
    name = "n" * 120
    fake.serve({"Device.": {}, f"Device.{name}.": {}, f"Device.{name}.{name}.": {}, f"Device.{name}.{name}.{name}": 1})
    refuse_logins(fake)
    long = f"Device.{name}.{name}.{name}"
    assert typed(kest, fake, f"cd {long}", "pwd", f"cat {long}", f"cd Device.{name}.{name}", "pwd") == (
        f"cd: {long}: no such node\n:\ncat: {long}: no such node.\n:Device.{name}.{name}\n")


def test_ls_lists_children_sorted_and_objects_dotted(kest, model):
    assert typed(kest, model, "ls", "cd Device", "ls", "ls -a Time") == (
        "Device.\n"
        "Host.\nList.\nPing\nTime.\nVersion\n"
        ".\nTime.Drift\nTime.Enable\nTime.Offset\nTime.Zone\n")


def test_ls_puts_the_typed_text_in_front(kest, model):
    assert typed(kest, model, "ls :Device.Time.", "ls Device.Time.Enable", "ls .") == (
        ":Device.Time.Drift\n:Device.Time.Enable\n:Device.Time.Offset\n:Device.Time.Zone\n"
        "Device.Time.Enable\n"
        ".Device.\n")


def test_ls_of_a_table_is_in_byte_order(kest, model):
    assert typed(kest, model, "cd Device.Host", "ls") == "1.\n10.\n2.\nmax_instance\norder\n"


@pytest.mark.parametrize("parameter", ["Device.Time.Zone", "Device.Host.max_instance"])
def test_a_place_that_is_a_parameter_lists_and_shows_itself(kest, model, parameter):
    name = parameter.rpartition(".")[2]
    shown = typed(kest, model, f"cd {parameter}", "pwd", "ls", "cat")
    assert shown == f":{parameter}\n{name}\n{name} = " + ('"UTC"\n' if name == "Zone" else "10\n")


def test_ls_asks_again_only_for_what_was_never_fetched(kest, model):
    typed(kest, model, "cd Device", "ls", "ls", "ls Time", "ls Time")
    assert asked(model) == [attributes("Device."), attributes("Device.Time.")]


def test_ls_of_several_paths(kest, model):
    assert typed(kest, model, "cd Device", "ls Time List Nothing") == (
        "Time:\nTime.Drift\nTime.Enable\nTime.Offset\nTime.Zone\n\n"
        "List:\nList.1\nList.max_instance\n\n"
        "Nothing:\nls: Nothing: no such node\n\n")


def test_ls_by_its_method_name_is_called_ls(kest, model):
    assert typed(kest, model, "GetParameterNames Nothing") == "ls: Nothing: no such node\n"


LONG = {
    "Device.": {},
    "Device.A.": {"multi": True, "ordered": True, "access": "readWrite"},
    "Device.B.": {"runtime": True, "unique": True},
    "Device.m": {"type": "method", "perms": ""},
    "Device.v": {"type": "int", "default": 0, "minInclusive": 0, "maxInclusive": 100, "runtime": True, "value": 0},
    "Device.w": {"type": "int", "access": "readWrite", "default": 0, "minInclusive": 1, "value": 0},
    "Device.x": {"type": "int", "default": 0, "maxInclusive": -5, "unique": True, "value": 0},
    "Device.y": {"type": "string", "default": "", "minLength": 1, "maxLength": 64, "value": ""},
    "Device.z1": {"type": "string", "default": "", "minLength": 8, "value": ""},
    "Device.z2": {"type": "string", "default": "", "maxLength": 64, "value": ""},
    "Device.z3": {"type": "long", "default": 0, "minInclusive": -4294967297, "minLength": 4294967296, "value": 0},
}


def test_the_long_listing(kest, fake):
    fake.serve(LONG)
    refuse_logins(fake)
    assert typed(kest, fake, "cd Device", "ls -l").splitlines() == [
        "Type          Access  Perms  Flags  Name",
        "object        RW      rw     OMO    A.",
        "object        RO      r      ORU    B.",
        "method        RO             -      m",
        "int[0:100]    RO      r      R      v",
        "int[1:]       RW      rw     -      w",
        "int[:-5]      RO      r      U      x",
        "string(1:64)  RO      r      -      y",
        "string(8)     RO      r      -      z1",
        "string(64)    RO      r      -      z2",
        "long[-1:](0)  RO      r      -      z3",
    ]
    assert asked(fake)[-1] == attributes("Device.")


def test_options_stand_anywhere_and_others_are_ignored(kest, fake):
    fake.serve(LONG)
    refuse_logins(fake)
    header = "Type    Access  Perms  Flags  Name\n"
    row = "object  RO      r      O      Device.\n"
    assert typed(kest, fake, "ls : -xl", "ls -la", "ls -x -- -l :") == 3 * (header + row)


@pytest.mark.deadline(20)
def test_a_line_of_a_million_options(kest, model, tmp_path):
    (tmp_path / "script").write_text("ls" + " -x" * 1_000_000 + "\n")
    assert kest("-s", "script", to=model).out == "DataModelVersion\nDevice.\n"


def test_the_long_listing_of_a_parameter_is_its_own_row(kest, fake):
    fake.serve(LONG)
    refuse_logins(fake)
    assert typed(kest, fake, "ls -l Device.y", "ls -l Device.m") == (
        "Type          Access  Perms  Flags  Name\n"
        "string(1:64)  RO      r      -      Device.y\n"
        "Type    Access  Perms  Flags  Name\n"
        "method  RO             -      Device.m\n")
    assert asked(fake)[-2:] == [attributes("Device.y."), attributes("Device.m.")]


@pytest.mark.parametrize("answer", [Error(9002, "broken"), {}, {"ParameterList": "none"},
                                    {"ParameterList": [5, {}, {"Name": 5, "Attributes": {}}, {"Name": "Device.x"}]}])
def test_the_long_listing_without_a_useful_answer_is_its_header(kest, fake, answer):
    fake.on("GetParameterAttributes", {"ParameterList": []}, answer)
    refuse_logins(fake)
    assert typed(kest, fake, "ls -l") == "Type  Access  Perms  Flags  Name\n"


def test_the_long_listing_gives_a_silent_daemon_a_second(kest, fake):
    fake.on("GetParameterAttributes", {"ParameterList": []}, Silence())
    refuse_logins(fake)
    assert typed(kest, fake, "ls -l", "pwd") == "Type  Access  Perms  Flags  Name\n:\n"


def test_attributes_of_every_wrong_type_are_listed(kest, fake):
    odd = {key: [{}] for key in ("type", "access", "perms", "multi", "ordered", "runtime", "unique", "minInclusive",
                                 "maxInclusive", "minLength", "maxLength", "enum", "default")}
    entries = [{"Name": "Device.A", "Attributes": odd}, {"Name": "Device.B", "Attributes": {}},
               {"Name": "Else.C", "Attributes": {"access": None, "perms": None}}, {"Name": "Device.D", "Attributes": 5}]
    root = {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]}
    fake.on("GetParameterAttributes", root, {"ParameterList": entries})
    refuse_logins(fake)
    assert typed(kest, fake, "ls -l Device").splitlines() == [
        "Type         Access  Perms  Flags  Name",
        "-[0:0](0:0)  RW             -      A",
        "-            -              -      B",
        "-            -              -      D",
        "-            RW             -      Else.C",
    ]


def test_ls_as_a_request(kest, model, tmp_path):
    run = kest("-r", "ls", to=model)
    assert (run.out, run.status) == ("DataModelVersion\nDevice.\n", 0)
    run = kest("-r", "GetParameterNames", "Device.Time", to=model)
    assert (run.out, run.status) == ("Device.Time.DataModelVersion\nDevice.Time.Device.\n", 0)
    (tmp_path / "script").write_text("ls -l\n")
    run = kest("-s", "script", to=model)
    assert run.out.splitlines() == ["Type    Access  Perms  Flags  Name",
                                    "object  RO      r      O      Device.",
                                    "string  RW      rw     -      DataModelVersion"]


def test_tree_draws_what_the_cache_holds(kest, model):
    assert typed(kest, model, "tree") == ":\n└── Device\n"
    assert typed(kest, model, "ls Device.Time", "tree Device") == (
        "Device.Time.Drift\nDevice.Time.Enable\nDevice.Time.Offset\nDevice.Time.Zone\n"
        "Device\n"
        "├── Host\n"
        "│   ├── 1\n"
        "│   ├── 10\n"
        "│   ├── 2\n"
        "│   ├── max_instance\n"
        "│   └── order\n"
        "├── List\n"
        "│   ├── 1\n"
        "│   └── max_instance\n"
        "├── Ping\n"
        "├── Time\n"
        "│   ├── Drift\n"
        "│   ├── Enable\n"
        "│   ├── Offset\n"
        "│   └── Zone\n"
        "└── Version\n")
