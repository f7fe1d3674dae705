"""What veld makes of the documents and options that describe its device, before anybody connects."""

import json
import shutil
import subprocess

from lib import settings


def refusal(sandbox, children, *options):
    """What veld says, on its way out with status 1, of a model whose "Device." has these children."""
    path = sandbox.work / "model.json"
    document = {"format": 1, "root": {"Device": {"type": "object", "children": children}}}
    path.write_text(json.dumps(document) if isinstance(children, dict) else children)
    argv = [settings.VELD, "--socket", sandbox.new_socket(), "--model", path, *options]
    done = subprocess.run(argv, env=sandbox.environment(None), cwd=sandbox.work, capture_output=True, timeout=settings.DEADLINE)
    said = done.stderr.decode()
    assert done.returncode == 1, said
    assert said.startswith(f"veld: {path}: ") and said.endswith("\n") and said.count("\n") == 1, said
    return said.removeprefix(f"veld: {path}: ").rstrip("\n")


def parameter(**keys):
    return {"P": {"type": "string", "default": "", **keys}}


def table(template, **keys):
    return {"T": {"multi": True, "template": {"children": template}, **keys}}


MISTAKES = {
    # keys
    'Device.P: unknown key "acces"': parameter(acces="readWrite"),
    'Device.P: unknown key "children"': parameter(children={}),
    'Device.O.: unknown key "default"': {"O": {"default": 1}},
    'Device.M: unknown key "inputs"': {"M": {"type": "method", "inputs": {}}},
    'Device.M.A: unknown key "Default"': {"M": {"type": "method", "input": {"A": {"type": "int", "default": 0, "Default": 1}}}},
    'Device.T.{i}.P: unknown key "maxlength"': table(parameter(maxlength=3)),
    'Device.T.: unknown key "instance"': table({}, instance={}),
    'Device.O.E!: unknown key "input"': {"O": {"events": {"E": {"input": {}}}}},
    # names of what is behind the model
    'Device.P: "live" names an unknown "uptimes"': parameter(live="uptimes"),
    'Device.T.: "live" names an unknown "process"': table({}, live="process"),
    'Device.M: "method" names an unknown "Ping"': {"M": {"type": "method", "method": "Ping"}},
    # values that their own constraints do not take
    'Device.P: "default" must be one of "a", "b"': parameter(enum=["a", "b"]),
    'Device.P: "default" must have at least 1 characters': parameter(minLength=1),
    'Device.P: "default" must have at most 2 characters': parameter(default="abc", maxLength=2),
    'Device.P: "default" does not match the pattern [0-9]+': parameter(default="a", regex="[0-9]+"),
    'Device.P: "default" must be at most 9': parameter(type="int", default=10, maxInclusive=9),
    'Device.P: "default" must be at least 0': parameter(type="unsignedInt", default=-1),
    'Device.P: "default" must be 1 to 5 or 9 and more': parameter(type="int", default=7, ranges=[[1, 5], [9, None]]),
    'Device.P: "default" is not a date and time (like 2024-01-31T23:59:00Z)': parameter(type="dateTime", default="today"),
    'Device.P: "default" must have items of 1 to 3': parameter(default="1,4", itemRanges=[[1, 3]]),
    'Device.P: "default" is no int': parameter(type="int", default="1"),
    'Device.P: "value" must have at most 2 characters': parameter(value="abc", maxLength=2),
    'Device.P: "offValue" is no boolean': parameter(type="boolean", default=False, offValue=0),
    'Device.P: "enum" holds what is no int': parameter(type="int", default=1, enum=[1, "2"]),
    "Device.T.1.P: the value must have at most 2 characters": table(parameter(maxLength=2), instances={"1": {"P": "abc"}}),
    'Device.M.A: "default" must be at least 1': {
        "M": {"type": "method", "input": {"A": {"type": "int", "default": 0, "minInclusive": 1}}}
    },
    # what is written in a wrong way
    'Device.P: "ranges" must be an array of [low, high] or [low, high, step]': parameter(type="int", default=0, ranges=[1, 5]),
    'Device.P: "ranges" belongs to a number': parameter(ranges=[[1, 5]]),
    'Device.P: "targets" must be an array of paths of objects': parameter(type="path", targets=["Device.X"]),
    'Device.P: "targetType" must be "row", "table", "object", "single" or "parameter"': parameter(targets=[], targetType="rows"),
    'Device.T.: "keys" names no parameter of the template': table(parameter(), keys=[{"parameters": ["Q"]}]),
}


def test_a_mistake_in_a_model_is_refused_with_its_place(sandbox):
    for expected, children in MISTAKES.items():
        assert refusal(sandbox, children) == expected
    assert refusal(sandbox, '{"format": 1, "root": {}, "roots": {}}') == 'the root: unknown key "roots" beside it'


def test_what_no_default_can_be_made_up_for_is_empty_at_first(sandbox, veld_start):
    children = {
        "Code": {"type": "string", "default": "", "regex": "[A-Z]{2}"},
        "Peer": {"type": "path", "default": "", "targets": []},
        "When": {"type": "dateTime", "default": ""},
        "Key": {"type": "hexBinary", "default": "", "minLength": 4},
    }
    path = sandbox.work / "model.json"
    path.write_text(json.dumps({"format": 1, "root": {"Device": {"children": children}}, "description": "a test"}))
    veld = veld_start(model=path)
    assert [veld.value(f"Device.{name}") for name in children] == [""] * 4


# --- one instance of many ---

USERS = {
    "Serial": {"type": "string", "default": "S0", "minLength": 2},
    "Level": {"type": "unsignedInt", "access": "readWrite", "default": 5, "maxInclusive": 10},
    "Big": {"type": "unsignedLong", "default": 0},
    "Up": {"type": "unsignedInt", "default": 0, "live": "uptime"},
    "Pin": {"type": "string", "default": "", "handler_set": "password"},
    "SlotNumberOfEntries": {"type": "unsignedInt", "default": 0, "entries": "Slot"},
    "Slot": {
        "multi": True,
        "template": {"children": {"Name": {"type": "string", "default": "", "unique": True}}},
        "instances": {"1": {"Name": "left"}, "2": {}},
    },
    "Users": {
        "write": "admin",
        "children": {
            "User": {
                "multi": True,
                "access": "readWrite",
                "template": {
                    "access": "readWrite",
                    "children": {
                        "Enable": {"type": "boolean", "access": "readWrite", "default": False},
                        "Username": {"type": "string", "access": "readWrite", "default": "", "unique": True},
                        "Password": {
                            "type": "string",
                            "access": "readWrite",
                            "default": "",
                            "maxLength": 16,
                            "secret": True,
                            "handler_set": "password",
                        },
                    },
                },
                "instances": {"1": {"Enable": True, "Username": "anna"}},
            }
        },
    },
}


def model_file(sandbox, children, root="Device"):
    path = sandbox.work / "instance.json"
    path.write_text(json.dumps({"format": 1, "root": {root: {"children": children}}}))
    return path


def login(veld, user, password):
    """A connection that has logged in, or the code of the refusal."""
    peer = veld.connect()
    answer = peer.answer(peer.request("Login", {"User": user, "Password": password}))
    return peer if "result" in answer else answer["error"]["code"]


def code_of(peer, method, **params):
    return peer.answer(peer.request(method, params)).get("error", {}).get("code")


def set_one(peer, name, value):
    return code_of(peer, "SetParameterValues", ParameterList=[{"Name": name, "Value": value}])


def test_an_instance_has_values_of_its_own_from_the_factory(sandbox, veld_start):
    (sandbox.work / "box.values").write_bytes(b"# this box\r\n\r\nDevice.Serial=S=41\r\nDevice.Level=7\n")
    (sandbox.work / "box.json").write_text('{"Device.Big": "18446744073709551615", "Device.Level": 8}')
    veld = veld_start(
        *("--values", sandbox.work / "box.values", "--values", "box.json", "--set", "Device.Serial=S42", "--set", "Device.Up=3"),
        *("--reboot-time", "0", "--set", "Device.Users.User.1.Password=secret word"),
        model=model_file(sandbox, USERS),
    )
    values = {"Device.Serial": "S42", "Device.Level": 8, "Device.Big": "18446744073709551615", "Device.Up": 3}
    assert {name: veld.value(name) for name in values} == values
    assert login(veld, "anna", "wrong") == 9001
    assert login(veld, "anna", "secret word") != 9001
    # They are the factory's: a reset comes back to them, and what was set since is gone.
    admin = veld.connect()
    admin.call("Login", User="root")
    assert set_one(admin, "Device.Level", 2) is None
    admin.call("FactoryReset")
    assert {name: veld.value(name) for name in values} == values
    assert login(veld, "anna", "secret word") != 9001


def test_values_that_do_not_fit_stop_the_start(sandbox):
    path = model_file(sandbox, USERS)
    (sandbox.work / "bad.values").write_text("Device.Serial=S1\nDevice.Level\n")
    (sandbox.work / "bad.json").write_text("{\n  1\n}\n")
    for options, status, expected in (
        (["--set", "Device.Serial=1"], 1, "Device.Serial: must have at least 2 characters"),
        (["--set", "Device.Level=eleven"], 1, 'Device.Level: "eleven" is no value of type unsignedInt'),
        (["--set", "Device.Level=11"], 1, "Device.Level: must be at most 10"),
        (["--set", "Device.Serials=S1"], 1, "Device.Serials: no such parameter"),
        (["--set", "Device.Users.User.2.Enable=true"], 1, "Device.Users.User.2.Enable: no such parameter"),
        (["--set", "Device.SlotNumberOfEntries=2"], 1, "Device.SlotNumberOfEntries: has no value of its own"),
        (["--set", "Device.Slot.2.Name=left"], 1, "Device.Slot.2.Name: is already used by instance 1"),
        (["--set", "Device.Pin=" + "1" * 512], 1, "Device.Pin: is not possible as a password"),
        (["--set", "Device.Level"], 2, "--set Device.Level: must be of the form PATH=VALUE"),
        (["--values", "bad.values"], 2, '--values bad.values:2: "Device.Level" is not of the form PATH=VALUE'),
        (["--values", "none"], 2, "--values none: No such file or directory"),
        (["--values", "bad.json"], 2, "--values bad.json:2:3: string or '}' expected near '1'"),
        (["--anonymous", "root"], 2, '--anonymous root: must be "public", "user" or "admin"'),
        (["--user", "anna"], 2, '--user anna: must be of the form NAME:ROLE, with "user" or "admin"'),
        (["--user", "anna:admin"], 1, "--user anna: no password"),
        (["--user", "anna:admin", "--password-file", "none"], 1, "none: No such file or directory"),
    ):
        argv = [settings.VELD, "--socket", sandbox.new_socket(), "--model", path, *options]
        done = subprocess.run(
            argv,
            env=sandbox.environment(None),
            cwd=sandbox.work,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=settings.DEADLINE,
        )
        assert (done.returncode, done.stderr.decode()) == (status, f"veld: {expected}\n")


def test_a_model_is_found_beside_the_installed_daemon(sandbox):
    program, models = sandbox.work / "prefix" / "sbin" / "veld", sandbox.work / "prefix" / "share" / "kest" / "models"
    for place in (program.parent, models):
        place.mkdir(parents=True)
    shutil.copy(settings.VELD, program)
    (models / "own.json").write_text("{}")
    for name, expected in (("own", "own: not a model document of format 1"), ("other", "other.json: No such file or directory")):
        done = subprocess.run([program, "--socket", sandbox.new_socket(), "--model", name], env=sandbox.environment(), cwd=sandbox.work,
                              capture_output=True, text=True, timeout=settings.DEADLINE)  # fmt: skip
        assert (done.returncode, done.stderr) == (1, f"veld: {expected}\n")


def test_the_command_line_brings_the_first_administrator(sandbox, veld_start):
    (sandbox.work / "passwords").write_text("one\ntwo\n")
    users = ("--user", "boss:admin", "--user", "anna:user", "--password-file", "passwords")
    state = ("--state", "state", "--reboot-time", "0")
    veld = veld_start(*users, *state, model=model_file(sandbox, USERS))
    boss = login(veld, "boss", "one")
    anna = login(veld, "anna", "two")
    assert login(veld, "boss", "two") == 9001
    # The model has no say in who administers it: the command line has.
    assert set_one(boss, "Device.Users.User.1.Username", "anne") is None
    assert set_one(anna, "Device.Users.User.2.Username", "me") == 9001
    assert veld.value("Device.Users.User.2.Username") == "boss"
    # What is set and saved stands before the command line, and is kept as a hash however short passwords may be.
    assert set_one(boss, "Device.Users.User.2.Password", "three") is None
    boss.call("SaveConfig")
    saved = json.loads((sandbox.work / "state" / "config.json").read_text())
    assert saved["config"]["Device"]["Users"]["User"]["instances"]["2"]["Password"].startswith("$6$")
    veld.restart()
    assert login(veld, "boss", "one") == 9001
    boss = login(veld, "boss", "three")
    boss.call("FactoryReset")
    assert login(veld, "boss", "one") != 9001


def test_a_model_without_users_has_those_of_the_command_line(sandbox, veld_start):
    (sandbox.work / "passwords").write_text("one\n")
    path = model_file(sandbox, {"Line": {"type": "int", "access": "readWrite", "default": 0}}, root="VoiceService")
    veld = veld_start("--user", "boss:admin", "--password-file", "passwords", model=path)
    assert login(veld, "nobody", "one") == 9001
    boss = login(veld, "boss", "one")
    assert set_one(boss, "VoiceService.Line", 1) is None
    assert code_of(boss, "FactoryReset") is None


def test_the_password_is_asked_for_on_the_terminal(sandbox, terminal):
    path = model_file(sandbox, USERS)
    term = terminal(
        *("--socket", sandbox.new_socket(), "--listen", "tcp://127.0.0.1:0", "--model", path, "--user", "boss:admin"),
        program=settings.VELD,
    )
    term.wait_for("Password of boss:")
    term.type("topsecret\r")
    term.wait_for("listening on tcp://127.0.0.1:")
    assert "topsecret" not in term.text
    assert term.echoes
    term.type("\x03")
    assert term.wait_exit() == 0


def test_what_nobody_in_particular_may_do_is_chosen(sandbox, veld_start):
    path = model_file(sandbox, USERS)
    for rights, level, user, reset in (("public", 9001, 9001, 9001), ("user", None, 9001, 9001), ("admin", None, None, None)):
        veld = veld_start("--anonymous", rights, model=path)
        peer = veld.connect()
        assert set_one(peer, "Device.Level", 1) == level
        assert set_one(peer, "Device.Users.User.1.Username", "x") == user
        assert code_of(peer, "FactoryReset") == reset
        peer.call("Login", User="root")
        assert set_one(peer, "Device.Users.User.1.Username", "y") is None
        peer.call("Logout")
        assert set_one(peer, "Device.Users.User.1.Username", "z") == user


def test_the_firmware_is_that_of_whatever_root_there_is(sandbox, veld_start):
    children = {"DeviceInfo": {"children": {"SoftwareVersion": {"type": "string", "default": "1.0.0"}}}}
    image = sandbox.work / "image"
    subprocess.run([settings.VELD, "--make-image", "BOX-1.2.0", "--output", image], check=True, env=sandbox.environment(None))
    veld = veld_start("--anonymous", "admin", model=model_file(sandbox, children, root="InternetGatewayDevice"))
    answer = veld.call("Download", FileType="Firmware", URL=f"file://{image}")
    assert (answer["CurrentVersion"], answer["NewVersion"]) == ("1.0.0", "BOX-1.2.0")


def test_one_rule_alone_holds(sandbox, veld_start):
    def text(**rule):
        return {"type": "string", "access": "readWrite", "default": "", **rule}

    children = {
        "Ranges": {"type": "int", "access": "readWrite", "default": 1, "ranges": [[1, 2], [5, 6]]},
        "Lengths": text(lengths=[[0, 1], [3, 3]]),
        "ItemRanges": text(itemRanges=[[1, 2], [5, 6]]),
        "ItemLengths": text(itemLengths=[[1, 1], [3, 3]]),
    }
    peer = veld_start("--anonymous", "admin", model=model_file(sandbox, children)).connect()
    for name, good, bad in (("Ranges", 6, 3), ("Lengths", "abc", "ab"), ("ItemRanges", "2,5", "2,3"), ("ItemLengths", "a,abc", "a,ab")):
        assert set_one(peer, f"Device.{name}", good) is None, name
        assert set_one(peer, f"Device.{name}", bad) == 9007, name
