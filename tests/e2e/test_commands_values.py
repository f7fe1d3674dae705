"""cat, get, catree, set, and the printer of results."""

import pytest

from lib.commands import MODEL, asked, refuse_logins, typed, values
from lib.fake import Answer, Close, Error, Silence

TIME = "Enable = true\nZone   = \"UTC\"\nOffset = 60\nDrift  = 1.5\n"


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


def listed(*entries):
    return {"ParameterList": [{"Name": name, "Value": value} for name, value in entries]}


# cat

def test_cat_asks_for_the_place_and_shows_names_below_it(kest, model):
    assert typed(kest, model, "cd Device.Time", "cat", "cat Enable", "get :Device.Time Zone") == (
        TIME + "Enable = true\n" + TIME + 'Zone = "UTC"\n')
    assert [params["ParameterNames"][0] for method, params in asked(model) if method == "GetParameterValues"] == [
        "Device.Time.", "Device.Time.Enable", "Device.Time.", "Device.Time.Zone"]


def test_cat_of_the_root_shows_whole_names(kest, model):
    out = typed(kest, model, "cat").splitlines()
    assert out[0] == 'DataModelVersion         = "2"'
    assert out[1] == 'Device.Version           = "1.0"'
    assert 'Device.List.max_instance = 1' in out
    assert asked(model) == [values(".")]


def test_the_tables_own_parameters_are_asked_without_a_dot(kest, model):
    assert typed(kest, model, "cd Device.Host", "cat max_instance order 1.Name 10") == (
        'max_instance = 10\norder = "1,10,2"\nName = "desk"\nName = "lamp"\n')
    assert [params["ParameterNames"][0] for method, params in asked(model) if method == "GetParameterValues"] == [
        "Device.Host.max_instance", "Device.Host.order", "Device.Host.1.Name", "Device.Host.10."]


def test_cat_goes_on_after_a_path_that_is_not_there(kest, model):
    assert typed(kest, model, "cd Device.Time", "cat Nothing Offset") == (
        "cat: Nothing: no such node.\nOffset = 60\n")


def test_get_in_request_mode_sends_what_was_typed(kest, fake):
    fake.on("GetParameterValues", listed(("Device.Time.Zone", "UTC"), ("Device.Time.Enable", False)))
    run = kest("-r", "get", "Device.Time", to=fake)
    assert (run.out, run.status) == ('.Zone   = "UTC"\n.Enable = false\n', 0)
    run = kest("-r", "get", ":Device.Time.Zone", to=fake)
    assert run.out == 'Device.Time.Zone   = "UTC"\nDevice.Time.Enable = false\n'
    run = kest("-r", "GetParameterValues", "", to=fake)
    assert (run.out, run.status) == ("GetParameterValues: no argument.\n", 0)
    run = kest("-r", "cat", to=fake)
    assert fake.params("GetParameterValues") == [{"ParameterNames": ["Device.Time"]},
                                                 {"ParameterNames": [":Device.Time.Zone"]}, {"ParameterNames": ["."]}]


def test_values_are_json(kest, fake):
    fake.on("GetParameterValues", listed(
        ("X.a", 'q"\\\n\u0000é/'), ("X.longer", -9223372036854775808), ("X.r", 1e300), ("X.n", None),
        ("X.o", {"b": [1, {}], "a": "z"}), ("X.big", "18446744073709551615")))
    assert kest("-r", "get", "X.", to=fake).out == (
        'a      = "q\\"\\\\\\n\\u0000é/"\n'
        "longer = -9223372036854775808\n"
        "r      = 1.0000000000000001e300\n"
        "n      = null\n"
        'o      = {"b": [1, {}], "a": "z"}\n'
        'big    = "18446744073709551615"\n')


def test_names_are_cut_only_where_the_query_really_stands(kest, fake):
    fake.on("GetParameterValues", listed(("X", 1), ("Elsewhere.A", 2), ("X.Y.Z", 3), ("", 4)))
    assert kest("-r", "get", "X.Y.", to=fake).out == "X           = 1\nElsewhere.A = 2\nZ           = 3\n            = 4\n"


@pytest.mark.parametrize("answer", [{}, {"ParameterList": 7}, {"ParameterList": [7, None, {}, {"Name": 7, "Value": 1}]}])
def test_useless_answers_print_nothing(kest, fake, answer):
    fake.on("GetParameterValues", answer)
    run = kest("-r", "get", "X", to=fake)
    assert (run.out, run.err, run.status) == ("", "", 0)


def test_a_hundred_thousand_values(kest, fake):
    fake.on("GetParameterValues", listed(*((f"X.{n}.Name", n) for n in range(100000))))
    out = kest("-r", "get", "X.", to=fake).out.splitlines()
    assert len(out) == 100000
    assert (out[0], out[-1]) == ("0.Name     = 0", "99999.Name = 99999")


# Errors

def test_an_error_is_shown_with_its_data(kest, fake):
    fake.on("GetParameterValues", Error(9005, "no such thing", {"Device.X": "gone", "Device.A": {"why": [1]}, "B": 5}))
    run = kest("-r", "get", "X", to=fake)
    assert (run.out, run.status) == (
        '[9005] Invalid parameter name: no such thing\nDevice.X: "gone"\nDevice.A: {"why": [1]}\nB: 5\n', 0)


@pytest.mark.parametrize("error, line", [
    ({"code": 9001, "message": "not you"}, "[9001] Request denied: not you\n"),
    ({"code": 12, "message": "odd"}, "[12] Error: odd\n"),
    ({"code": -32601, "message": "what?", "data": 5}, "[-32601] Method not found: what?\n"),
    ({"code": 9002, "message": "", "data": {}}, "[9002] Internal error: \n"),
])
def test_titles_of_errors(kest, fake, error, line):
    fake.on("GetParameterValues", Answer({"jsonrpc": "2.0", "error": error}))
    assert kest("-r", "get", "X", to=fake).out == line


def test_a_link_lost_twice_is_no_success(kest, fake):
    fake.on("SetParameterValues", Close())
    run = kest("-r", "set", "X=1", to=fake)
    assert "[-32002] Connection lost: the daemon closed the link\n" in run.out
    assert "Status: OK" not in run.out


# catree

def test_catree_draws_instances_in_numeric_order(kest, model):
    assert typed(kest, model, "catree Device.Host") == (
        "Device.Host.\n"
        "├── max_instance = 10\n"
        '├── order = "1,10,2"\n'
        "├── 1\n"
        '│   └── Name = "desk"\n'
        "├── 2\n"
        '│   └── Name = "door"\n'
        "└── 10\n"
        '    └── Name = "lamp"\n')


def test_catree_of_values_aligns_names(kest, model):
    assert typed(kest, model, "cd Device", "catree Time List.1") == (
        "Device.Time.\n"
        "├── Drift  = 1.5\n"
        "├── Enable = true\n"
        "├── Offset = 60\n"
        '└── Zone   = "UTC"\n'
        'Device.List.1 = "first"\n')


def test_catree_of_hostile_names_ends(kest, fake):
    deep = ".".join(["a"] * 100000)
    fake.serve({"D.": {}})
    fake.on("GetParameterValues", listed(("D." + deep, 1), ("D..x..y.", 2), ("D.a", 3)))
    refuse_logins(fake)
    out = typed(kest, fake, "catree D", "pwd")
    assert out.startswith("D.\n├── a = 3\n│   └── a\n")
    assert out.endswith("└── x\n    └── y = 2\n:\n")
    assert out.count("a") == 100000


def test_catree_of_ten_thousand_instances_is_no_slower_than_the_list_by_much(kest, fake):
    names = [f"D.T.{n}.P{p}" for n in range(1, 10001) for p in range(10)]
    fake.serve({"D.": {}, "D.T.": {}})
    fake.on("GetParameterValues", listed(*((name, 1) for name in names), ("D.T.max_instance", 10000)))
    refuse_logins(fake)
    out = typed(kest, fake, "catree D.T").splitlines()
    assert len(out) == 110002
    assert out[1] == "├── max_instance = 10000"
    assert out[2] == "├── 1" and out[-11] == "└── 10000"


# set

def test_set_sends_one_request_with_typed_values(kest, model):
    assert typed(kest, model, "cd Device.Time", "set Enable=FALSE Zone=a=b Offset=-7", "set :Device.Time.Zone=", "cat") == (
        "key = Enable, value = FALSE\n"
        "key = Zone=a, value = b\n"
        "set: Zone=a: no such node.\n"
        "key = Offset, value = -7\n"
        "Status: OK\n"
        "key = :Device.Time.Zone, value = \n"
        "Status: OK\n"
        'Enable = false\nZone   = ""\nOffset = -7\nDrift  = 1.5\n')
    assert model.params("SetParameterValues") == [
        {"ParameterList": [{"Name": "Device.Time.Enable", "Value": False}, {"Name": "Device.Time.Offset", "Value": -7}]},
        {"ParameterList": [{"Name": "Device.Time.Zone", "Value": ""}]}]


@pytest.mark.parametrize("word, message", [
    ("Time.Enable", "set: Time.Enable: no value.\n"),
    ("Time.Nothing=1", "key = Time.Nothing, value = 1\nset: Time.Nothing: no such node.\n"),
    ("Time=1", "key = Time, value = 1\nset: Time: is an object or doesn't have default value.\n"),
    ("Ping=1", "key = Ping, value = 1\nset: Ping: is an object or doesn't have default value.\n"),
    ("=1", "key = , value = 1\nset: : is an object or doesn't have default value.\n"),
    ("Time.Enable=yes", "key = Time.Enable, value = yes\nset: Time.Enable: invalid value yes.\n"),
    ("Time.Offset=1x", "key = Time.Offset, value = 1x\nset: Time.Offset: invalid value 1x.\n"),
    ("Time.Offset=", "key = Time.Offset, value = \nset: Time.Offset: invalid value .\n"),
    ("Time.Offset=2147483648", "key = Time.Offset, value = 2147483648\nset: Time.Offset: invalid value 2147483648.\n"),
    ("Time.Drift=nan", "key = Time.Drift, value = nan\nset: Time.Drift: invalid value nan.\n"),
    ("Time.Drift=inf", "key = Time.Drift, value = inf\nset: Time.Drift: invalid value inf.\n"),
    ("Time.Drift=1e999", "key = Time.Drift, value = 1e999\nset: Time.Drift: invalid value 1e999.\n"),
])
def test_what_set_does_not_take(kest, model, word, message):
    assert typed(kest, model, "cd Device", f"set {word}") == message + "set: no argument.\n"
    assert model.of("SetParameterValues") == []


def test_set_of_nothing(kest, fake):
    run = kest("-r", "set", to=fake)
    assert (run.out, run.status) == ("set: no argument.\n", 255)
    run = kest("-r", "set", "A", "B={", "C=1 2", to=fake)
    assert (run.out, run.status) == (
        "set: A: no value.\nkey = B, value = {\nkey = C, value = 1 2\nset: no argument.\n", 255)
    assert fake.of("SetParameterValues") == []


def test_set_in_request_mode_takes_any_json(kest, fake):
    fake.on("SetParameterValues", {"Status": 0})
    run = kest("-r", "set", "A.B=5", 'C="t"', "D=[1,{}]", "E=null", "F=2.5", 'X=a=true', 'G="\\u0000"', to=fake)
    assert (run.out, run.status) == (
        'key = A.B, value = 5\nkey = C, value = "t"\nkey = D, value = [1,{}]\nkey = E, value = null\n'
        'key = F, value = 2.5\nkey = X=a, value = true\nkey = G, value = "\\u0000"\nStatus: OK\n', 0)
    assert fake.params("SetParameterValues") == [{"ParameterList": [
        {"Name": "A.B", "Value": 5}, {"Name": "C", "Value": "t"}, {"Name": "D", "Value": [1, {}]},
        {"Name": "E", "Value": None}, {"Name": "F", "Value": 2.5}, {"Name": "X=a", "Value": True},
        {"Name": "G", "Value": "\0"}]}]


def test_long_values_are_sent_whole(kest, model):
    value = "v" * 100000
    typed(kest, model, f"set Device.Time.Zone={value}")
    assert model.params("SetParameterValues")[0]["ParameterList"][0]["Value"] == value


def test_a_refused_set_shows_the_error_and_is_no_failure(kest, fake):
    fake.on("SetParameterValues", Error(9003, "Invalid arguments", {"A": "read-only"}))
    run = kest("-r", "SetParameterValues", "A=1", to=fake)
    assert (run.out, run.status) == (
        'key = A, value = 1\n[9003] Invalid arguments: Invalid arguments\nA: "read-only"\n', 0)


def test_a_value_is_set_and_read_on_the_real_daemon(kest, veld):
    out = typed(kest, veld, "cd Device.Time", "set Enable=false NTPServer1=ntp.example", "cat Enable NTPServer1",
                "set LocalTimeZone=x", "set Status=y")
    assert out.startswith(
        "key = Enable, value = false\nkey = NTPServer1, value = ntp.example\nStatus: OK\n"
        'Enable = false\nNTPServer1 = "ntp.example"\n')
    assert "[9008]" in out or "[9003]" in out
    assert veld.value("Device.Time.NTPServer1") == "ntp.example"


def test_requests_know_the_scheme_once_the_configuration_logged_in(kest, fake, home):
    (home / ".local/kest").mkdir(parents=True)
    (home / ".local/kest/config").write_text("login anna -p x\ncd Device.Time\n")
    fake.serve(MODEL)
    assert kest("-r", "get", "Offset", to=fake).out == "Offset = 60\n"
    assert kest("-r", "set", "Enable=FALSE", "Zone=z", "Offset=x", to=fake).out == (
        "key = Enable, value = FALSE\nkey = Zone, value = z\nkey = Offset, value = x\n"
        "set: Offset: invalid value x.\nStatus: OK\n")
    assert fake.params("SetParameterValues") == [{"ParameterList": [
        {"Name": "Device.Time.Enable", "Value": False}, {"Name": "Device.Time.Zone", "Value": "z"}]}]
    fake.on("AddObject", {"InstanceNumber": 11, "Status": 0}).on("DeleteObject", {"Status": 0})
    kest("-r", "add", ":Device.Host", to=fake)
    kest("-r", "del", "<.Host.2", to=fake)
    assert fake.params("AddObject") == [{"ObjectName": "Device.Host."}]
    assert fake.params("DeleteObject") == [{"ObjectName": "Device.Host.2."}]


# On a terminal

def test_what_the_daemon_sends_is_shown_safely_on_a_terminal(shell, fake):
    fake.serve({"Device.": {}, "Device.\x1b[31mred": "\x9b\x7f\x1b"})
    refuse_logins(fake)
    term = shell(to=fake)
    assert term.run("cat Device") == [r'\x1b[31mred = "\u009b\x7f\u001B"']
    fake.on("GetParameterValues", Error(9001, "\x1b]0;x\x07", {"\x1bk": "\x9b"}))
    assert term.run("cat Device") == [r"[9001] Request denied: \x1b]0;x\x07", r'\x1bk: "\u009b"']


def test_nothing_from_the_daemon_hides_or_turns_a_line_around_on_a_terminal(shell, fake):
    fake.serve({"Device.": {}, "Device.a\u202eb": "\u200bc\u2066", "Device.d": {"type": "string", "default": ["\ufeff"], "value": ""}})
    refuse_logins(fake)
    term = shell(to=fake)
    assert term.run("cat Device") == [r'a\u202eb = "\u200bc\u2066"', 'd        = ""']
    assert term.run("catree Device") == ["Device.", r'├── a\u202eb = "\u200bc\u2066"', '└── d        = ""']
    assert term.run("ls Device") == [r"Device.a\u202eb  Device.d"]
    assert term.run("attr Device.d")[3:] == ["Default:            [", r'    "\ufeff"', "]"]
    fake.on("GetParameterValues", Error(9001, "a\u202eb", {"c\u200f": "\u061c"}))
    assert term.run("cat Device") == [r"[9001] Request denied: a\u202eb", r'c\u200f: "\u061c"']


def test_no_name_or_message_looks_like_a_line_of_its_own_on_a_terminal(shell, fake):
    fake.serve({"Device.": {}, "Device.a\n[0] b\tc": {"type": "string", "default": ["x"], "value": "d\ne"}})
    refuse_logins(fake)
    term = shell(to=fake)
    assert term.run("cat Device") == [r'a\x0a[0] b\x09c = "d\ne"']
    assert term.run("catree Device") == ["Device.", r'└── a\x0a[0] b\x09c = "d\ne"']
    assert term.run("ls -l Device")[1:] == [r"string  RO      r      -      a\x0a[0] b\x09c"]
    fake.on("GetParameterValues", Error(9001, "no\nStatus: OK"))
    assert term.run("cat Device") == [r"[9001] Request denied: no\x0aStatus: OK"]


def test_lines_stay_lines_on_a_terminal(shell, terminal, fake):
    fake.serve({"Device.": {}, "Device.a": {"type": "string", "default": ["x\x7f"], "value": ""}})
    refuse_logins(fake)
    assert shell(to=fake).run("attr Device.a")[3:] == ["Default:            [", r'    "x\x7f"', "]"]
    term = terminal("--raw", '{"id":1,"method":"GetParameterNames","params":{"ParameterPath":"."}}', to=fake)
    assert term.wait_exit() == 0
    assert term.lines[0] == "<< {" and len(term.lines) > 3


def test_values_and_verdicts_are_coloured_on_a_terminal(shell, model):
    term = shell(to=model)
    term.run("set Device.Time.Offset=5")
    row = term.find("Status: OK")[0]
    assert term.colours(row)[1][0].startswith("OK") and term.colours(row)[1][1] == "green"
    term.run("cat Device.Time.Offset")
    row = term.find("Offset = 5")[0]
    assert [run[0].strip() for run in term.colours(row)] == ["Offset =", "5"]


def test_a_long_listing_is_stopped_by_ctrl_c(shell, fake):
    fake.serve({"Device.": {}})
    refuse_logins(fake)
    fake.on("GetParameterValues", Silence())
    term = shell(to=fake)
    term.type("cat Device\r")
    fake.wait_for("GetParameterValues")
    term.type("\x03")
    term.wait_prompt()
    assert term.run("pwd") == [":"]


# Columns are the terminal's, not bytes

WIDE = {"Device.": {}, "Device.Grün": 1, "Device.漢字": 2, "Device.Plain": 3}


@pytest.mark.parametrize("command, rows", [
    ("cat Device", ["Grün  = 1", "漢字  = 2", "Plain = 3"]),
    ("catree Device", ["Device.", "├── Grün  = 1", "├── Plain = 3", "└── 漢字  = 2"]),
])
def test_values_stand_below_each_other(kest, fake, command, rows):
    fake.serve(WIDE)
    refuse_logins(fake)
    assert typed(kest, fake, command).splitlines() == rows


def test_a_long_list_stands_below_each_other(kest, fake):
    fake.serve({"Device.": {}, "Device.A": {"type": "größe", "default": 1}, "Device.B": {"type": "string", "default": ""}})
    refuse_logins(fake)
    header, first, second = typed(kest, fake, "ls -l Device").splitlines()
    assert header.index("Access") == first.index("RO") == second.index("RO") == len("string ") + 1


def test_a_denied_object_says_why(kest, veld):
    for command in ("ls Device.Users", "cat Device.Users", "catree Device.Users"):
        assert typed(kest, veld, "logout", command) == (
            "[9001] Request denied: Device.Users. may not be read by this user: not logged in\n")
