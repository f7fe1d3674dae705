"""The scheme cache tells the truth, whatever happened before: typed and half typed paths, refusals, logins, notices."""

import json

import pytest

from lib import settings
from lib.commands import refuse_logins
from lib.fake import Close, Error, Silence
from lib.terminal import Key

PROMPT = "kest:> "
SANITIZED = b"__asan_init" in settings.KEST.read_bytes() or b"__tsan_init" in settings.KEST.read_bytes()  # keep what is freed
TABLE = {"multi": True, "access": "readWrite"}
MODEL = {
    "DataModelVersion": "2",
    "Device.": {},
    "Device.Time.": {"runtime": True},
    "Device.Time.Zone": "UTC",
    "Device.Host.": TABLE,
    "Device.Host.{i}.": {},
    "Device.Host.{i}.Alias": "",
    "Device.Host.{i}.Sub.": TABLE,
    "Device.Host.max_instance": {"type": "unsignedInt", "default": 0, "value": 2},
}


def instance(number):
    table = f"Device.Host.{number}.Sub."
    return {f"Device.Host.{number}.": {}, f"Device.Host.{number}.Alias": f"host {number}", table: TABLE, table + "{i}.": {},
            table + "{i}.Deep": "", table + "1.": {}, table + "1.Deep": f"below {number}",
            table + "max_instance": {"type": "unsignedInt", "default": 0, "value": 1}}


class Shell:
    def __init__(self, term, fake):
        self.term, self.fake = term, fake
        self.scheme = fake.scheme

    def add(self, number):
        for name, what in instance(number).items():
            self.scheme.add(name, what)

    def remove(self, prefix):
        for name in [name for name in self.scheme.names if name.startswith(prefix)]:
            del self.scheme.names[name]

    def notice(self, action, number, path="Device.Host."):
        """A notice that the shell has taken in when this returns."""
        self.fake.event(4, {"Action": action, "Path": path, "InstanceNumber": number})
        self.fake.event(77)
        self.term.wait_for(lambda term: term.all_lines.count("EVENT 77:") > getattr(self, "events", 0))
        self.events = self.term.all_lines.count("EVENT 77:")
        self.term.wait_prompt()

    def type(self, line, prompt=PROMPT):
        """Types a line at human speed, so that there is a hint, or none, behind every key. It is not run."""
        for end in range(1, len(line) + 1):
            self.term.type(line[end - 1])
            self.term.wait_for(lambda term: self.typed() == (prompt + line[:end]))

    def typed(self):
        row, column = self.term.cursor
        return self.term.line(row).ljust(column)[:column]

    def drop(self):
        self.term.type(Key.CTRL_U)
        self.term.wait_prompt()

    def tab(self, line, expected, prompt=PROMPT):
        self.term.type(line + Key.TAB)
        self.term.wait_for(lambda term: self.typed() == prompt + expected)
        self.drop()

    def run(self, line):
        return self.term.run(line)

    def names(self, line):
        """What a listing shows, in no order."""
        return sorted(" ".join(self.run(line)).split())

    def asked(self):
        asked = [(request.method, request.params) for request in self.fake.requests]
        self.fake.requests.clear()
        return asked


@pytest.fixture
def plain(shell, fake):
    """A shell without hints, nobody logged in, that knows two instances."""
    names = {**MODEL, **instance(1), **instance(2)}
    fake.scheme = fake.serve(names)
    refuse_logins(fake)
    started = Shell(shell(to=fake), fake)
    started.run("opt hint off")
    started.asked()
    return started


@pytest.fixture
def hinting(plain):
    plain.run("opt hint on")
    return plain


# Instances that do not exist

@pytest.mark.parametrize("line", ["cat Device.Host.9.Sub.", "cat Device.Host.9.Sub.1.De", "cat Device.Host.9.zzz",
                                  "set Device.Host.9.Sub.1.Deep=x", "cd Device.Host.9.Sub.1.", "cat Device.Host.9.Alias."])
def test_a_line_half_typed_hurts_no_instance(hinting, line):
    hinting.type(line)
    hinting.drop()
    for number in (1, 2):
        hinting.tab(f"cat Device.Host.{number}.Sub.1.D", f"cat Device.Host.{number}.Sub.1.Deep")
    hinting.tab("cat Device.Host.8.S", "cat Device.Host.8.Sub.")
    # Nor one that nobody has told of, nor one that comes later.
    hinting.add(10)
    hinting.tab("cat Device.Host.10.Sub.1.D", "cat Device.Host.10.Sub.1.Deep")
    hinting.add(9)
    hinting.notice("Add", 9)
    hinting.tab("cat Device.Host.9.A", "cat Device.Host.9.Alias")
    hinting.tab("cat Device.Host.9.Sub.1.D", "cat Device.Host.9.Sub.1.Deep")
    assert hinting.run("cat Device.Host.9.Sub.1.Deep") == ['Deep = "below 9"']


@pytest.mark.parametrize("line", ["ls Device.Host.9", "ls Device.Host.9.Sub", "cat Device.Host.9.Sub.1.Deep",
                                  "tree Device.Host.9.Sub", "attr Device.Host.9.Sub.1.Deep", "ls -l Device.Host.9"])
def test_a_command_hurts_no_instance(plain, line):
    plain.run(line)
    assert plain.names("ls Device.Host.1.Sub") == ["Device.Host.1.Sub.1.", "Device.Host.1.Sub.max_instance"]
    assert plain.run("cat Device.Host.2.Sub.1.Deep") == ['Deep = "below 2"']
    plain.add(9)
    plain.notice("Add", 9)
    assert plain.run("cat Device.Host.9.Sub.1.Deep") == ['Deep = "below 9"']


def test_an_instance_that_is_not_there_is_asked_for_once(plain):
    plain.run("ls Device.Host")
    plain.asked()
    for _ in range(2):
        assert plain.run("ls Device.Host.9") == []
    assert plain.asked() == [("GetParameterAttributes", {"ParameterNames": ["Device.Host.9."], "Depth": 1})]
    plain.add(9)
    plain.notice("Add", 9)
    assert plain.names("ls Device.Host.9") == ["Device.Host.9.Alias", "Device.Host.9.Sub."]


# Refusals and faults

@pytest.mark.parametrize("code", [9001, 9005])
def test_what_is_refused_keeps_its_attributes(plain, code):
    plain.fake.on("GetParameterAttributes", lambda request: Error(code, "no") if request.params["ParameterNames"] == ["Device.Time."]
                  else plain.scheme.GetParameterAttributes(request))
    for _ in range(2):
        assert plain.run("ls Device.Time") == (["[9001] Request denied: no"] if code == 9001 else [])
    assert plain.run("ls Device.Time Device.Time") == ["Device.Time:", "", "Device.Time:", ""]
    assert [params["ParameterNames"] for _, params in plain.asked()] == [["Device."], ["Device.Time."]]
    assert plain.run("attr Device.Time") == ["Canonical path:     :Device.Time", "Type:               object",
                                             "Access:             Denied", "Runtime:            true"]


@pytest.mark.parametrize("code", [9000, 9002, 9003, -32603])
def test_a_fault_is_asked_for_again(plain, code):
    plain.fake.on("GetParameterAttributes", Error(code, "broken"))
    assert plain.run("cat Device.Time.Zone") == ["cat: Device.Time.Zone: no such node."]
    plain.fake.on("GetParameterAttributes", plain.scheme.GetParameterAttributes)
    assert plain.run("cat Device.Time.Zone") == ['Zone = "UTC"']


@pytest.mark.parametrize("method", ["GetParameterNames", "GetParameterAttributes"])
def test_a_fault_on_the_way_to_a_table_is_asked_for_again(plain, method):
    answers = getattr(plain.scheme, method)
    plain.run("ls Device")
    plain.fake.on(method, lambda request: Error(9002, "broken") if request.params.get("Depth") is None else answers(request))
    assert plain.run("ls Device.Host") == []
    plain.fake.on(method, answers)
    assert plain.names("ls Device.Host") == ["Device.Host.1.", "Device.Host.2.", "Device.Host.max_instance"]


def test_ctrl_c_in_a_table_leaves_it_unknown(plain):
    plain.run("ls Device")
    plain.asked()
    for silent in range(3):
        count = {"asked": 0}

        def answer(request):
            count["asked"] += 1
            return Silence() if count["asked"] > silent else getattr(plain.scheme, request.method)(request)

        for method in ("GetParameterNames", "GetParameterAttributes"):
            plain.fake.on(method, answer)
        plain.term.type("cat Device.Host.1.Alias" + Key.ENTER)
        plain.fake.wait_for(lambda fake: count["asked"] > silent)
        plain.term.type(Key.CTRL_C)
        plain.term.wait_prompt()
        assert len(plain.asked()) == silent + 1
    plain.fake.serve(plain.scheme)
    assert plain.run("cat Device.Host.1.Alias") == ['Alias = "host 1"']
    assert [method for method, _ in plain.asked()] == [
        "GetParameterAttributes", "GetParameterNames", "GetParameterAttributes", "GetParameterValues"]


def test_the_root_has_no_version_after_a_reload_that_was_left(plain):
    plain.fake.on("Login", {})
    plain.fake.on("GetParameterAttributes", Silence())
    plain.term.type("login admin -p x" + Key.ENTER)
    plain.fake.wait_for(lambda fake: fake.params("GetParameterAttributes") == [{"ParameterNames": ["."], "Depth": 1}])
    plain.term.type(Key.CTRL_C)
    plain.term.wait_prompt()
    plain.fake.on("GetParameterAttributes", plain.scheme.GetParameterAttributes)
    assert plain.run("cat DataModelVersion") == ["cat: DataModelVersion: no such node."]
    assert plain.run("ls") == ["Device."]


# Where the shell stands

def test_the_place_before_a_login_is_found_as_it_is_now(plain):
    plain.run("cd Device.Host.1")
    plain.run("ls")
    plain.run("cd")
    plain.fake.on("Login", {})
    plain.run("login admin -p x")
    plain.scheme.add("Device.Host.1.New", 5)
    assert plain.run("cd -") == [":Device.Host.1"]
    assert plain.names("ls") == ["Alias", "New", "Sub."]
    assert plain.run("cat New") == ["New = 5"]
    plain.remove("Device.Host.")
    plain.run("cd")
    plain.run("login admin -p x")
    assert plain.run("cd -") == [":Device.Host.1", "cd: -: no such node"]
    assert plain.run("pwd") == [":"]


def test_the_place_before_a_reconnect_is_found_as_it_is_now(plain):
    plain.run("cd Device.Time")
    answers = plain.scheme.GetParameterValues
    plain.fake.on("GetParameterValues", Close(), answers)
    assert plain.run("cat Zone")[-1] == 'Zone = "UTC"'
    plain.scheme.add("Device.Time.New", True)
    assert plain.run("pwd") == [":"]
    plain.run("cd Device.Time")
    assert plain.names("ls") == ["New", "Zone"]


def test_an_instance_that_goes_and_comes_back_below_the_shell(plain):
    plain.run("cd Device.Host.2.Sub.1")
    assert plain.run("cat Deep") == ['Deep = "below 2"']
    plain.remove("Device.Host.2.")
    plain.notice("Delete", 2)
    assert plain.run("cat Deep") == ["cat: Deep: no such node."]
    assert plain.run("ls") == ["ls: :Device.Host.2.Sub.1: no such node"]
    assert plain.run("cat") == ["cat: .: no such node."]
    plain.tab("cat D", "cat D", "kest:Device.Host.2.Sub.1> ")
    assert plain.run("pwd") == [":Device.Host.2.Sub.1"]
    plain.add(2)
    plain.notice("Add", 2)
    assert plain.run("cat Deep") == ['Deep = "below 2"']
    assert plain.run("ls") == ["Deep"]
    assert plain.run("up 2") == []
    assert plain.run("cat Alias") == ['Alias = "host 2"']


def test_an_instance_that_was_taken_is_the_one_that_the_daemon_tells_of(plain):
    plain.fake.on("AddObject", {"InstanceNumber": 3, "Status": 0})
    assert plain.run("take Device.Host") == ["Instance number: 3", "Status: OK"]
    plain.add(3)
    plain.notice("Add", 3)
    plain.tab("cat Al", "cat Alias", "kest:Device.Host.3> ")
    assert plain.run("cat Alias") == ['Alias = "host 3"']
    assert plain.names("ls <") == ["<.1.", "<.2.", "<.3.", "<.max_instance"]


# Notices

def notices(count):
    text = '{"jsonrpc":"2.0","method":"Event","params":{"Id":4,"Value":{"Action":"%s","Path":"Device.Host.","InstanceNumber":%d}}}\n'
    return "".join(text % ("Delete" if number % 2 else "Add", 100 + number // 2) for number in range(count)).encode()


@pytest.mark.deadline(180)
def test_a_million_notices_cost_an_idle_shell_nothing(plain):
    plain.run("ls Device.Host")
    before = plain.term.peak_kib()
    receiver = plain.fake.receivers()[0]
    for _ in range(10):
        receiver.send_raw(notices(100_000))
    plain.fake.event(77)
    plain.term.wait_for("EVENT 77:", timeout=120)
    assert SANITIZED or plain.term.peak_kib() - before < 1024
    assert plain.names("ls Device.Host") == ["Device.Host.1.", "Device.Host.2.", "Device.Host.max_instance"]


@pytest.mark.deadline(180)
def test_a_million_notices_cost_a_listener_nothing(kest_start, fake):
    listener = kest_start("-l", "-g", "77", to=fake)
    fake.event(77)
    listener.wait_for("EVENT 77:")
    before = listener.peak_kib()
    receiver = fake.receivers()[0]
    for number in range(10):
        receiver.send_raw(notices(100_000).replace(b"Host", b"Host%d" % number))
    fake.event(78)
    listener.wait_for("EVENT 78:", timeout=120)
    assert SANITIZED or listener.peak_kib() - before < 1024


def test_more_changes_than_are_kept_are_asked_for(plain):
    plain.run("ls Device.Host")
    text = '{"jsonrpc":"2.0","method":"Event","params":{"Id":4,"Value":{"Action":"Add","Path":"Device.T%d.","InstanceNumber":1}}}\n'
    plain.fake.receivers()[0].send_raw("".join(text % number for number in range(20_000)).encode())
    plain.add(3)
    plain.notice("Add", 3)
    plain.asked()
    assert plain.names("ls Device.Host") == ["Device.Host.1.", "Device.Host.2.", "Device.Host.3.", "Device.Host.max_instance"]
    assert len(plain.asked()) >= 3
