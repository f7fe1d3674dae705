"""veld --behaviour: a device in a file. The examples of docs/behaviour.md, as printed, and what a file cannot do."""

import json
import re
import signal
import subprocess
import time

import pytest

from lib import settings
from lib.wire import Closed

pytestmark = pytest.mark.lua

DOCUMENT = (settings.SOURCE / "docs" / "behaviour.md").read_text()


def example(sandbox, name):
    """Writes an example's two files as the page prints them, and returns their paths."""
    paths = []
    for file in (f"{name}.json", f"{name}.lua"):
        found = re.search(rf"`{re.escape(file)}`[^`]*```(?:json|lua)\n(.*?)```", DOCUMENT, re.S)
        paths.append(sandbox.work / file)
        paths[-1].write_text(found[1])
    return paths


@pytest.fixture
def device(sandbox, veld_start):
    def start(model, behaviour, *options):
        return veld_start("--behaviour", behaviour, "--anonymous", "admin", *options, model=model)

    return start


MODEL = {
    "A": {"type": "int", "access": "readWrite", "default": 1},
    "B": {"type": "int", "access": "readWrite", "default": 2},
    "C": {"type": "string", "access": "readWrite", "default": "c"},
    "Up": {"type": "unsignedInt", "default": 0, "live": "uptime"},
    "Log": {"type": "string", "default": ""},
    "Run": {"type": "method", "input": {"What": {"type": "string", "default": ""}}, "output": {"R": {"type": "string", "default": ""}}},
    "T": {"multi": True, "template": {"children": {"N": {"type": "int", "default": 0}}}},
    "Count": {"type": "unsignedInt", "default": 0, "entries": "U"},
    "Pin": {"type": "string", "default": "", "handler_set": "password"},
    "U": {"multi": True, "template": {"children": {"N": {"type": "int", "default": 0, "unique": True}}}, "instances": {"1": {"N": 7}, "2": {}}},
}


@pytest.fixture
def filed(sandbox, device):
    """A daemon of a small model with a behaviour that is given as text."""

    def start(text, *options):
        (sandbox.work / "model.json").write_text(json.dumps({"format": 1, "root": {"Device": {"children": MODEL}}}))
        (sandbox.work / "b.lua").write_text(text)
        return device(sandbox.work / "model.json", sandbox.work / "b.lua", *options)

    return start


def error_of(peer, method, **params):
    error = peer.answer(peer.request(method, params)).get("error")
    return error and (error["code"], list(error["data"].values())[0] if "data" in error else error["message"])


def set_error(peer, values):
    return error_of(peer, "SetParameterValues", ParameterList=[{"Name": name, "Value": values[name]} for name in values])


def execute(peer, path, **arguments):
    entries = [{"Name": name, "Value": value} for name, value in arguments.items()]
    return peer.request("Execute", {"Path": path, "ParameterList": entries})


def outputs(answer):
    return {entry["Name"]: entry["Value"] for entry in answer["result"]["ParameterList"]}


# --- the page ---


def test_a_switch_acts(sandbox, device):
    veld = device(*example(sandbox, "switch"), "--log", "info")
    peer = veld.connect()
    assert veld.value("Device.Lamp.Power") == 0
    assert set_error(peer, {"Device.Lamp.On": True}) is None
    assert veld.value("Device.Lamp.Power") == 6.5
    peer.join(1)
    assert set_error(peer, {"Device.Lamp.Toggle": True}) is None
    assert [peer.event()[1]["Name"] for _ in range(2)] == ["Device.Lamp.Toggle", "Device.Lamp.On"]
    assert veld.value("Device.Lamp.On") is False
    assert set_error(peer, {"Device.Lamp.Level": 0}) is None
    assert set_error(peer, {"Device.Lamp.On": True}) == (9001, "the lamp is dimmed to nothing")
    assert veld.value("Device.Lamp.On") is False
    assert "switch.lua: the lamp goes on" in veld.log


def test_a_table_of_counters_lives(sandbox, device):
    for _ in range(5):
        veld = device(*example(sandbox, "ports"))
        peer = veld.connect()
        peer.join(12)
        if veld.value("Device.PortNumberOfEntries") == 2:
            break  # else it had come already
    assert peer.event() == (12, {"Port": "usb1"})
    assert [veld.value(f"Device.Port.{i}.Name") for i in (1, 2, 3)] == ["lan1", "lan2", "usb1"]
    assert veld.value("Device.PortNumberOfEntries") == 3
    before = veld.value("Device.Port.1.Stats.Sent")
    assert set_error(peer, {"Device.Port.3.Note": "mine"}) is None
    moment = settings.deadline()
    while veld.value("Device.Port.1.Stats.Sent") == before:
        assert settings.remaining(moment)
    assert veld.value("Device.Port.3.Note") == "mine"


def test_a_method_takes_its_time_and_reports(sandbox, device):
    veld = device(*example(sandbox, "selftest"))
    peer, other = veld.connect(), veld.connect()
    peer.join(1)
    first = execute(peer, "Device.SelfTest.Run", Seconds=1.5)
    assert peer.event()[1] == {"Name": "Device.SelfTest.Progress", "Value": 10, "User": ""}
    second = execute(other, "Device.SelfTest.Run")
    assert other.answer(second)["error"] == {"code": 9004, "message": "a test is running"}
    assert outputs(peer.answer(first)) == {"Status": "Complete", "Part.1.Name": "memory", "Part.2.Name": "radio"}
    assert veld.value("Device.SelfTest.Progress") == 100


def test_a_timer_that_was_cancelled_rings_no_more(filed):
    veld = filed("""
        local rung, ticks = 0, 2
        local timer = every(0.01, function() rung = rung + 1 set("Device.Log", "rung " .. rung) end)
        on_set("Device.A", function()
            cancel(timer)
            cancel(timer)
            rung = 100
            every(0.01, function() ticks = ticks + 1 set("Device.B", ticks) end)
        end)
    """)
    moment = settings.deadline()
    while "rung" not in veld.value("Device.Log"):
        assert settings.remaining(moment)
    veld.set_values({"Device.A": 5})
    last = veld.value("Device.Log")
    while veld.value("Device.B") < 8:
        assert settings.remaining(moment)
    assert veld.value("Device.Log") == last != "rung 101"


def test_a_timer_that_cancels_itself_or_fails_rings_no_more(filed):
    veld = filed("""
        local own, rung, ticks = nil, 0, 2
        own = every(0.01, function()
            rung = rung + 1
            set("Device.Log", "rung " .. rung)
            if rung == 3 then cancel(own) end
        end)
        every(0.01, function() error("oh") end)
        local other = after(0.01, function() set("Device.A", 7) end)
        cancel(other + (1 << 32)) -- which is another number
        every(0.05, function() ticks = ticks + 1 set("Device.B", ticks) end)
    """)
    moment = settings.deadline()
    while veld.value("Device.B") < 8:
        assert settings.remaining(moment)
    assert veld.value("Device.Log") == "rung 3"
    assert veld.value("Device.A") == 7
    assert veld.log.count("a timer: ") == 1 and "b.lua: a timer: b.lua:8: oh; it is ended\n" in veld.log
    assert veld.value("Device.Up") > 0  # which the machine tells


# --- sequences ---


def test_an_account_that_a_file_disables_has_no_rights_any_more(sandbox, veld_start):
    (sandbox.work / "b.lua").write_text("""
        on_set("Device.DeviceInfo.ProvisioningCode", function() set("Device.Users.User.1.Enable", false) end)
    """)
    veld = veld_start("--behaviour", sandbox.work / "b.lua")
    peer = veld.connect()
    peer.call("Login", User="admin", Password="admin")
    assert not set_error(peer, {"Device.DeviceInfo.ProvisioningCode": "one"})
    moment = settings.deadline()
    while not (refused := set_error(peer, {"Device.DeviceInfo.ProvisioningCode": "two"})):
        assert settings.remaining(moment)
    assert refused[0] == 9001


ACCOUNTS = {
    "Code": {"type": "string", "access": "readWrite", "default": ""},
    "Users": {
        "write": "admin",
        "children": {
            "User": {
                "multi": True,
                "template": {
                    "children": {
                        "Enable": {"type": "boolean", "default": False},
                        "Username": {"type": "string", "default": "", "unique": True},
                        "Password": {"type": "string", "default": "", "secret": True, "handler_set": "password"},
                    }
                },
            }
        },
    },
}
# Of "secret".
HASH = "$6$salt$egUxKNxDs8kPfh8iPMNcosMhb2eWah6d3R44JDm5Rj/j/XWR5E33QPd0YmHXoDHOIDR6kL5D3JcQcz0O8FHE00"
CODE = "Device.Code"


def login_error(peer, user):
    return error_of(peer, "Login", User=user, Password="secret")


@pytest.fixture
def with_accounts(sandbox, veld_start):
    """A daemon whose accounts are those of a behaviour that is given as text."""

    def start(text):
        (sandbox.work / "model.json").write_text(json.dumps({"format": 1, "root": {"Device": {"children": ACCOUNTS}}}))
        (sandbox.work / "b.lua").write_text(text)
        return veld_start("--behaviour", sandbox.work / "b.lua", "--log", "info", model=sandbox.work / "model.json")

    return start


def test_accounts_of_a_file_are_those_that_it_has_when_somebody_logs_in(with_accounts):
    veld = with_accounts(f"""
        local names = {{"anna"}}
        on_rows("Device.Users.User.", function()
          local rows = {{}}
          for i, name in ipairs(names) do
            rows[i] = {{key = name, Username = name, Enable = true, Password = "{HASH}"}}
          end
          return rows
        end)
        on_set("{CODE}", function(_, name) names = {{name}} end)
    """)
    anna, berta = veld.connect(), veld.connect()
    # Nobody has asked for the rows before.
    assert login_error(berta, "berta")[0] == 9001
    assert login_error(anna, "anna") is None
    # One that is there no more has no rights, and none that was not there before is missed.
    assert set_error(anna, {CODE: "berta"}) is None
    assert set_error(anna, {CODE: "anna"})[0] == 9001
    assert login_error(veld.connect(), "anna")[0] == 9001
    assert login_error(berta, "berta") is None
    assert set_error(berta, {CODE: "berta"}) is None


def test_an_account_that_a_file_has_no_more_hears_no_more(with_accounts):
    veld = with_accounts(f"""
        local rows = {{{{Username = "anna", Enable = true, Password = "{HASH}"}}}}
        on_rows("Device.Users.User.", function() return rows end)
        on_set("{CODE}", function() rows = {{}} end)
    """)
    anna = veld.connect()
    assert login_error(anna, "anna") is None and set_error(anna, {CODE: "x"}) is None
    moment = settings.deadline()
    while 'the rights of "anna" have changed' not in veld.log:
        assert settings.remaining(moment)


@pytest.mark.parametrize("code", [0, 8999, 9216, 9984, 10000])
def test_a_refusal_has_a_code_that_no_client_takes_for_a_success(filed, code):
    veld = filed(f"on_set('Device.A', function() refuse('no', {code}) end)")
    given, text = set_error(veld.connect(), {"Device.A": 5})
    assert given == 9002 and "no code of a refusal" in text


def test_a_refusal_takes_back_what_was_done_before_it(filed):
    veld = filed("""
        local done = ""
        local function note(path, value) done = done .. path:sub(8) .. "=" .. tostring(value) .. " "; set("Device.Log", done) end
        on_set("Device.A", note)
        on_set("Device.B", note)
        on_set("Device.C", function(path, value) if value == "no" then refuse("not that", 9007) end error("broken") end)
    """)
    peer = veld.connect()
    assert set_error(peer, {"Device.A": 5, "Device.B": 6, "Device.C": "no"}) == (9007, "not that")
    assert veld.value("Device.Log") == "A=5 B=6 B=2 A=1 "
    assert [veld.value(f"Device.{name}") for name in "ABC"] == [1, 2, "c"]
    code, text = set_error(peer, {"Device.C": "yes"})
    assert code == 9002 and "b.lua:6: broken" in text
    # What cannot be taken back is said.
    other = filed("""
        on_set("Device.A", function(path, value) if value == 1 then error("stuck") end end)
        on_set("Device.B", function() refuse("not that", 9007) end)
    """)
    assert set_error(other.connect(), {"Device.A": 5, "Device.B": 6}) == (9007, "not that")
    assert "warning: Device.A: cannot be set back: b.lua:2: stuck\n" in other.log
    # What does not fit the model never comes as far.
    assert set_error(peer, {"Device.A": 7, "Device.B": "x"})[0] == 9006
    assert veld.value("Device.Log") == "A=5 B=6 B=2 A=1 "


def test_what_fails_is_the_default_and_leaves_the_rest_alone(filed):
    veld = filed("""
        on_get("Device.A", function() return "text" end)
        on_get("Device.Up", function() return 6.0 end)
        on_get("Device.B", function() error("oh") end)
        on_get("Device.C", function() return get("Device.C") end)
        on_rows("Device.T", function() return {{key = "x", N = 3.0}, {N = "no"}, 7} end)
        on_call("Device.Run", function(input)
            if input.What == "bad" then return {R = print} end
            if input.What == "worse" then error("ah") end
            if input.What == "long" then sleep(1000) end
            return {R = input.What}
        end)
    """)
    assert [veld.value(f"Device.{name}") for name in "ABC"] == [1, 2, "c"]
    assert [veld.value(f"Device.T.{i}.N") for i in (1, 2)] == [3, 0]
    assert "Device.B: b.lua:4: oh" in veld.log
    assert veld.value("Device.Up") == 6
    peer = veld.connect()
    error = peer.answer(execute(peer, "Device.Run", What="worse"))["error"]
    assert (error["code"], error["message"]) == (9002, "the behaviour failed: b.lua:9: ah")
    assert "warning: Device.Run: b.lua:9: ah\n" in veld.log
    assert outputs(peer.answer(execute(peer, "Device.Run", What="x"))) == {"R": "x"}
    assert peer.answer(execute(peer, "Device.Run", What="bad"))["error"]["code"] == 9002
    # A call that sleeps ends with its client, and with the daemon.
    execute(peer, "Device.Run", What="long")
    with veld.connect() as leaving:
        execute(leaving, "Device.Run", What="long")
        leaving.call("GetParameterValues", ParameterNames=["Device.A"])
    assert veld.value("Device.A") == 1


def test_a_call_sleeps_no_shorter_than_it_says(filed):
    veld = filed("""
        on_call("Device.Run", function(input)
            for i = 1, 50 do sleep(0.0019) end
            return {R = input.What}
        end)
    """)
    peer = veld.connect()
    began = time.monotonic()
    assert outputs(peer.answer(execute(peer, "Device.Run", What="rested"))) == {"R": "rested"}
    assert time.monotonic() - began >= 50 * 0.0019


def test_rows_stay_when_they_cannot_be_told(filed):
    veld = filed("""
        local broken = false
        on_set("Device.A", function() broken = true end)
        on_rows("Device.T", function() if broken then error("oh") end return {{key = "b", N = 1}, {key = "a", N = 2}} end)
        function on_reboot(action) broken = action ~= "FactoryReset" end
    """)
    assert [veld.value(f"Device.T.{i}.N") for i in (1, 2)] == [1, 2]
    assert set_error(veld.connect(), {"Device.A": 2}) is None
    assert [veld.value(f"Device.T.{i}.N") for i in (1, 2)] == [1, 2]
    assert "Device.T.: b.lua:4: oh" in veld.log
    veld.call("FactoryReset")
    assert [veld.value(f"Device.T.{i}.N") for i in (1, 2)] == [1, 2]


HOSTILE = {
    "while true do end": "takes too long",
    "while true do pcall(function() while true do end end) end": "takes too long",
    "local t = {} while true do t[#t + 1] = {} end": "not enough memory",
    "local s = 'x' while true do s = s .. s end": "not enough memory",
    "local s = 'x' while true do s:rep(1000000) end": "",
    "('a'):rep(5000):find(('.-'):rep(20) .. 'b')": "takes too long",
    "local function f() return f() + 1 end f()": "not enough memory",
    "return ('').rep('', 1e9)": None,
    "local r, s = ('').rep, 'x' while true do " + "r(s, 2000000) " * 30 + "end": "",
    "setmetatable({}, {__gc = function() while true do end end})": "__gc is not allowed",
    "table.insert(setmetatable({}, {__len = function() return 1e15 end}), 1, 1)": "must not have a metatable",
    "return io.open('/etc/passwd')": "nil value (global 'io')",
    "return os.execute('true')": "nil value (field 'execute')",
    "return load('return 1')": "nil value (global 'load')",
    "return require('io')": "nil value (global 'require')",
    "sleep(1)": "only a call can sleep()",
}


def test_no_file_holds_up_the_daemon_or_gets_out(filed):
    handlers = "".join(f"[{i}] = function() {text} end,\n" for i, text in enumerate(HOSTILE, 1))
    veld = filed(f"local all = {{{handlers}}}\non_set('Device.A', function(path, value) all[value]() end)")
    peer = veld.connect()
    for i, (text, expected) in enumerate(HOSTILE.items(), 1):
        refused = set_error(peer, {"Device.A": i})
        if expected is None:
            assert refused is None, text
        else:
            assert refused[0] == 9002 and expected in refused[1], (text, refused)
    assert veld.peak_kib() < 64 * 1024 or settings.PATIENCE > 1


def test_what_is_called_when_the_memory_is_used_up_is_refused(filed):
    veld = filed("""
        local kept = {}
        on_set("Device.A", function()
            for _, size in ipairs({100000, 1000, 100, 10}) do
                pcall(function() while true do kept = {kept, ("x"):rep(size) .. #kept} end end)
            end
            pcall(function() while true do kept = {kept} end end)
        end)
        on_set("Device.B", function() kept = {} end)
        on_call("Device.Run", function() return {R = "done"} end)
    """)
    peer = veld.connect()
    assert set_error(peer, {"Device.A": 2}) is None
    error = peer.answer(execute(peer, "Device.Run"))["error"]
    assert (error["code"], error["message"]) == (9004, "the behaviour has no memory left")
    assert set_error(peer, {"Device.B": 3}) is None
    assert outputs(peer.answer(execute(peer, "Device.Run"))) == {"R": "done"}


def test_an_instance_of_a_result_has_its_own_number(sandbox, device):
    model, behaviour = example(sandbox, "selftest")
    behaviour.write_text("""on_call("Device.SelfTest.Run", function() return {Part = {[2] = {Name = "radio"}}} end)""")
    peer = device(model, behaviour).connect()
    assert outputs(peer.answer(execute(peer, "Device.SelfTest.Run"))) == {"Part.2.Name": "radio"}


def test_only_numbers_of_instances_are_numbers_to_a_file(sandbox, device):
    names = ["1", "20", "01", "0x1", "1e3", "-1", "4294967296"]
    argument = {"type": "int", "default": 5}
    run = {"type": "method", "input": dict.fromkeys(names, argument), "output": {"R": {"type": "string", "default": ""}}}
    (sandbox.work / "m.json").write_text(json.dumps({"format": 1, "root": {"Run": run}}))
    (sandbox.work / "b.lua").write_text("""
        on_call("Run", function(input)
            local keys = {}
            for name, value in pairs(input) do keys[#keys + 1] = (math.type(name) or "text") .. " " .. name .. "=" .. value end
            table.sort(keys)
            return {R = table.concat(keys, ",")}
        end)
    """)
    peer = device(sandbox.work / "m.json", sandbox.work / "b.lua").connect()
    expected = ["integer 1=5", "integer 20=5", *sorted(f"text {name}=5" for name in names[2:])]
    assert outputs(peer.answer(execute(peer, "Run"))) == {"R": ",".join(expected)}


def test_a_mistake_is_logged_and_a_refusal_is_not(filed):
    veld = filed("""
        on_set("Device.A", function() refuse("not now", 9001) end)
        on_set("Device.B", function() error("oh") end)
    """)
    peer = veld.connect()
    assert set_error(peer, {"Device.A": 2}) == (9001, "not now")
    assert "not now" not in veld.log and "Device.A" not in veld.log
    assert set_error(peer, {"Device.B": 2})[0] == 9002
    assert "warning: Device.B: b.lua:3: oh\n" in veld.log


def test_what_a_library_function_costs_beside_its_work(filed):
    """Five million steps: four instructions, and one for the function, in each of these rounds."""
    veld = filed("""
        local t, remove = {}, table.remove
        on_set("Device.A", function(path, rounds) for i = 1, rounds do remove(t) end end)
        local long = {}
        for i = 1, 160000 do long[i] = "" end
        on_set("Device.B", function(path, rounds) for i = 1, rounds do table.concat(long, "", 1, 1) end end)
    """)
    peer = veld.connect()
    assert set_error(peer, {"Device.B": 300}) is None  # a sixteenth of the table's length each
    refused = set_error(peer, {"Device.B": 600})
    assert refused[0] == 9002 and "takes too long" in refused[1]
    # A machine that does something else for the time being is no function that costs more.
    assert any(set_error(peer, {"Device.A": 900000}) is None for _ in range(5))
    refused = set_error(peer, {"Device.A": 1100000})
    assert refused[0] == 9002 and "takes too long" in refused[1]


# --- the device as a whole ---

INFO = "Device.DeviceInfo."
FIRMWARE = {"DeviceInfo": {"children": {
    "SoftwareVersion": {"type": "string", "default": "1.0.0"},
    "UpgradeProgress": {"type": "unsignedInt", "default": 0},
    "UpgradeStatus": {"type": "int", "default": 0}}},
    "Go": {"type": "boolean", "access": "readWrite", "default": False},
    "Log": {"type": "string", "default": ""}}  # fmt: skip


@pytest.fixture
def upgradable(sandbox, device):
    """A daemon of a model with a firmware, and what to download into it."""

    def start(text, image="VELD-FIRMWARE 1 2.0.0\n", *options):
        (sandbox.work / "model.json").write_text(json.dumps({"format": 1, "root": {"Device": {"children": FIRMWARE}}}))
        (sandbox.work / "b.lua").write_text(text)
        path = sandbox.work / "image"
        path.write_text(image)
        veld = device(sandbox.work / "model.json", sandbox.work / "b.lua", "--reboot-time", "0.1", "--flash-time", "0", *options)
        return veld, path

    return start


def offer(peer, path):
    return peer.request("Download", {"FileType": "Firmware", "URL": f"file://{path}"})


def confirm(peer, offered):
    url = f"file://{offered['SavedFirmware']}"
    return peer.call("Download", FileType="Firmware", URL=url, TransactionID=offered["TransactionID"])


def restarted(veld, peer):
    """Returns when the device is back; `peer` has joined group 2."""
    assert peer.event() == (2, {"Action": "Upgrade"})
    with pytest.raises(Closed):
        peer.receive()
    veld.wait_until_up()


def test_a_file_flashes_and_restarts(upgradable):
    veld, path = upgradable("""
        function on_image(beginning)
          if beginning:sub(1, 3) ~= "BOX" then refuse("not for this box", 9018) end
          return beginning:match("^BOX (%S+)")
        end
        function on_flash(image)
          progress(30)
          while not get("Device.Go") do sleep(0.01) end
          log("flashes " .. image.version .. (image.path:match("/firmware.image$") and " from the spool" or ""))
        end
        function on_reboot(action) log("hears of " .. action) end
        function on_restart(action) log("restarts for " .. action); sleep(0.05); log("is back") end
    """, "BOX 7.0.1 rest", "--log", "info")  # fmt: skip
    peer = veld.connect()
    offered = peer.answer(offer(peer, path))["result"]
    assert (offered["Status"], offered["CurrentVersion"], offered["NewVersion"]) == (1, "1.0.0", "7.0.1")
    assert confirm(peer, offered) == {"Status": 0}
    assert [veld.value(INFO + name) for name in ("UpgradeProgress", "UpgradeStatus")] == [30, 1]
    peer.join(2)
    assert set_error(peer, {"Device.Go": True}) is None
    restarted(veld, peer)
    assert [veld.value(INFO + name) for name in ("SoftwareVersion", "UpgradeStatus")] == ["7.0.1", 0]
    told = re.findall(r"b\.lua: (.*)", veld.log)
    assert told == ["flashes 7.0.1 from the spool", "hears of Upgrade", "restarts for Upgrade", "is back"]
    path.write_text("PK")
    peer = veld.connect()
    assert peer.answer(offer(peer, path))["error"] == {"code": 9018, "message": "not for this box"}


def test_a_flash_that_a_file_refuses_fails(upgradable):
    veld, path = upgradable("function on_flash(image) progress(60) refuse('the flash is worn out') end")
    peer = veld.connect()
    assert confirm(peer, peer.answer(offer(peer, path))["result"]) == {"Status": 0}
    assert [veld.value(INFO + name) for name in ("UpgradeProgress", "UpgradeStatus")] == [60, -1]
    assert veld.value(INFO + "SoftwareVersion") == "1.0.0"
    assert "flashing 2.0.0 failed: the flash is worn out" in veld.log


def test_how_a_flash_went_is_no_configuration(upgradable, tmp_path):
    veld, path = upgradable("function on_flash(image) progress(60) refuse('worn out') end", "VELD-FIRMWARE 1 2.0.0\n",
                            "--state", tmp_path / "state")  # fmt: skip
    peer = veld.connect()
    assert set_error(peer, {"Device.Go": True}) is None
    assert confirm(peer, peer.answer(offer(peer, path))["result"]) == {"Status": 0}
    assert [veld.value(INFO + name) for name in ("UpgradeProgress", "UpgradeStatus")] == [60, -1]
    peer.call("SaveConfig")
    assert json.loads((tmp_path / "state" / "config.json").read_text())["config"] == {"Device": {"Go": True}}


def test_what_a_file_does_not_do_the_machine_does(upgradable):
    veld, path = upgradable("on_get('Device.Log', function() progress(1) end)")
    peer = veld.connect()
    peer.join(2)
    assert confirm(peer, peer.answer(offer(peer, path))["result"]) == {"Status": 0}
    restarted(veld, peer)
    assert veld.value(INFO + "SoftwareVersion") == "2.0.0"
    assert veld.value("Device.Log") == "" and "only on_flash() can report progress()" in veld.log


@pytest.mark.parametrize(
    "text, expected",
    (
        ("on_get('Device.X', print)", "veld: b.lua: on_get: the model has no parameter Device.X\n"),
        ("on_rows('Device.A', print)", "veld: b.lua: on_rows: the model has no table Device.A\n"),
        ("on_set('Device.Log', print)", "veld: b.lua: on_set: the model has no writable parameter Device.Log\n"),
        ("on_call('Device.T', print)", "veld: b.lua: on_call: the model has no method Device.T\n"),
        ("x = = 1", "veld: b.lua:1: unexpected symbol near '='\n"),
        ("while true do end", "veld: b.lua:1: takes too long\n"),
        ("get('Device.A')", "veld: b.lua:1: get() is not for the beginning\n"),
        ("refuse('')", "veld: b.lua: refused without a text\n"),
        (None, "veld: b.lua: No such file or directory\n"),
    ),
)
def test_a_file_that_does_not_fit_stops_the_start(sandbox, text, expected):
    (sandbox.work / "model.json").write_text(json.dumps({"format": 1, "root": {"Device": {"children": MODEL}}}))
    if text:
        (sandbox.work / "b.lua").write_text(text)
    argv = [settings.VELD, "--socket", sandbox.new_socket(), "--model", "model.json", "--behaviour", "b.lua"]
    done = subprocess.run(argv, env=sandbox.environment(None), cwd=sandbox.work, capture_output=True, timeout=settings.DEADLINE)
    assert (done.returncode, done.stderr.decode()) == (1, expected)


def test_an_image_must_get_a_version(upgradable):
    veld, path = upgradable("function on_image(beginning) return 7 end")
    peer = veld.connect()
    error = peer.answer(offer(peer, path))["error"]
    assert (error["code"], error["message"]) == (9002, "the behaviour failed: b.lua: on_image gave back no version")


def test_a_file_that_only_knows_its_images_leaves_the_flashing_to_the_daemon(upgradable):
    veld, path = upgradable("function on_image(beginning) return beginning:match('^BOX (%S+)') end", "BOX 7.0.1 rest")
    peer = veld.connect()
    offered = peer.answer(offer(peer, path))["result"]
    peer.join(2)
    assert confirm(peer, offered) == {"Status": 0}
    restarted(veld, peer)
    assert [veld.value(INFO + name) for name in ("SoftwareVersion", "UpgradeStatus")] == ["7.0.1", 0]


def test_what_a_file_asks_for_in_vain_is_said(filed):
    """In its beginning, and later, in a call."""
    veld = filed("""
        local said = {}
        local function try(f, ...) said[#said + 1] = tostring(select(2, pcall(f, ...))) end
        on_set("Device.A", function() end)
        try(on_set, "Device.A", print)
        try(get, "Device.A")
        try(set, "Device.B", 1)
        try(event, 12)
        local timers = {}
        for i = 1, 1000 do timers[i] = after(3600, print) end
        try(after, 1, print)
        for i = 1, 1000 do cancel(timers[i]) end
        on_call("Device.Run", function(input)
            try(on_get, "Device.A", print)
            try(get, "Device.None")
            try(set, "Device.B", nil)
            try(set, "Device.B", print)
            try(set, "Device.B", "text")
            try(set, "Device.None", 1)
            try(set, "Device.Count", 1)
            try(set, "Device.Pin", "1")
            try(set, "Device.U.2.N", 7)
            try(set, "Device.C", "\\xff")
            try(event, 12, 0/0)
            try(event, 12, {[true] = 1})
            try(event, 12, {a = "\\xff"})
            try(event, 12, {["\\xff"] = 1})
            local deep = {}
            for i = 1, 20 do deep = {deep} end
            try(event, 12, deep)
            return {R = table.concat(said, "\\n")}
        end)
    """)
    peer = veld.connect()
    assert outputs(peer.answer(execute(peer, "Device.Run")))["R"].splitlines() == [
        "a second on_set() for Device.A",
        "get() is not for the beginning",
        "set() is not for the beginning",
        "event() is not for the beginning",
        "too many timers",
        "on_get() is for the beginning",
        "no such parameter: Device.None",
        "Device.B: cannot be nil",
        "Device.B: cannot be a value that is no text, number, boolean or table",
        "Device.B: must be an integer",
        "Device.None: no such parameter",
        "Device.Count: has no value of its own",
        "Device.Pin: is a password",
        "Device.U.2.N: is already used by instance 1",
        "Device.C: cannot be a text that is not UTF-8",
        "an event cannot carry a number that is none",
        "an event cannot carry a table with a key that is neither a text nor an integer",
        "an event cannot carry a text that is not UTF-8",
        "an event cannot carry a text that is not UTF-8",
        "an event cannot carry a table that is nested too deep",
    ]


@pytest.mark.parametrize("options, kinds", [((), "nil nil function"), (("--trust-behaviour",), "table function function")])
def test_only_a_trusted_file_has_all_libraries(filed, options, kinds):
    veld = filed("""on_get("Device.Log", function() return type(io) .. " " .. type(os.execute) .. " " .. type(os.time) end)""", *options)
    assert veld.value("Device.Log") == kinds


def test_children_of_a_trusted_file_have_the_signals_of_any_program(filed):
    veld = filed(
        """
        on_get("Device.Log", function()
          local program = io.popen("exec grep -h Sig[BI] /proc/self/status")
          local signals = program:read("a")
          program:close()
          os.execute("exec grep -h Sig[BI] /proc/self/status >signals")
          return signals .. io.open("signals"):read("a")
        end)
        on_get("Device.C", function()
          local said = {tostring(os.execute()), tostring(os.execute("exit 3")) .. table.concat({select(2, os.execute("exit 3"))}, " ")}
          local cat = io.popen("cat >copy; kill -9 $$", "w")
          said[#said + 1] = io.type(cat) .. tostring(cat:write("text") == cat)
          said[#said + 1] = table.concat({select(2, cat:close())}, " ") .. io.open("copy"):read("a")
          said[#said + 1] = tostring(pcall(io.popen, "true", "rw")) .. tostring(io.popen("exit 0"):close())
          return table.concat(said, ",")
        end)
        """,
        "--trust-behaviour",
    )  # fmt: skip
    rows = [row.split() for row in veld.value("Device.Log").splitlines()]
    bits = sum(1 << number - 1 for number in (signal.SIGPIPE, signal.SIGXFSZ, signal.SIGTERM, signal.SIGHUP))
    assert [(name, int(mask, 16) & bits) for name, mask in rows] == [("SigBlk:", 0), ("SigIgn:", 0)] * 2
    assert veld.value("Device.C") == "true,nilexit 3,filetrue,signal 9text,falsetrue"


def test_a_finalizer_of_a_trusted_file_finds_no_device_any_more(filed):
    veld = filed(
        """
        kept = setmetatable({}, {__gc = function()
            for i = 1, 100000 do end
            log(select(2, pcall(set, "Device.A", 1)))
            log(select(2, pcall(event, 12)))
            log(select(2, pcall(get, "Device.A")))
            log("timer " .. after(1, print))
        end})
        every(3600, print)
        """,
        "--trust-behaviour", "--log", "info",
    )  # fmt: skip
    assert veld.value("Device.A") == 1
    assert veld.stop() == 0
    assert re.findall(r"b\.lua: (.*)", veld.log) == [
        "set() is not for the beginning",
        "event() is not for the beginning",
        "get() is not for the beginning",
        "timer 2",
    ]
