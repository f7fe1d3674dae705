"""Tab and hints on a terminal: what is offered, what goes into the line, what is asked of the daemon."""

import os
import re

import pytest

from lib import settings
from lib.fake import Close, Error, Silence, Slow
from lib.terminal import Key

PROMPT = "kest:> "


def parameter(kind, **more):
    return {"type": kind, "access": "readWrite", "default": "", "value": "", **more}


MODEL = {
    "DataModelVersion": "1.0",
    "Device.": {},
    "Device.DeviceInfo.": {},
    "Device.DeviceInfo.Uptime": 5,
    "Device.DeviceInfo.UpgradeStatus": 0,
    "Device.DeviceInfo.Name": "box",
    "Device.Hosts.": {},
    "Device.Hosts.Host.": {"multi": True},
    "Device.Hosts.Host.{i}.": {},
    "Device.Hosts.Host.{i}.Alias": "",
    "Device.Hosts.Host.1.": {},
    "Device.Hosts.Host.1.Alias": "first",
    "Device.Hosts.Host.2.": {},
    "Device.Hosts.Host.2.Alias": "second",
    "Device.Hosts.Host.max_instance": {"type": "unsignedInt", "default": 0, "value": 2},
    "Device.DNS.": {},
    "Device.DNS.SearchDomain.": {"multi": True},
    "Device.DNS.SearchDomain.{i}": "",
    "Device.DNS.SearchDomain.1": "example.org",
    "Device.DNS.SearchDomain.max_instance": {"type": "unsignedInt", "default": 0, "value": 1},
    "Device.Time.": {},
    "Device.Time.Enable": True,
    "Device.Time.Sync": parameter("switch"),
    "Device.Time.Zone": parameter("string", enum=["utc", "zone.b", "zone.a", "zone two", 5]),
    "Device.Time.Source": parameter("path"),
    "Device.Ping": {"type": "method"},
    "Services.": {},
}


class Line:
    """The line that is being typed in a shell."""

    def __init__(self, term, fake):
        self.term = term
        self.fake = fake
        self.events = 0

    @property
    def typed(self):
        row, column = self.term.cursor
        return self.term.line(row).ljust(column)[:column]

    def wait(self, expected):
        self.term.wait_for(lambda term: self.typed == PROMPT + expected)

    def hint(self, expected=None):
        """Waits for the hint behind the cursor, or for nothing there."""
        def rest(term):
            row, column = term.cursor
            return term.line(row)[column:]

        self.term.wait_for(lambda term: rest(term) == (expected or ""))
        if expected is None:
            self.term.quiet()
            assert rest(self.term) == ""

    def tab(self, line, expected):
        """Types `line` anew and Tab; the line must become `expected`."""
        self.term.type(Key.CTRL_U + line)
        self.wait(line)
        self.term.type(Key.TAB)
        if expected != line:
            self.wait(expected)
        else:
            self.term.type("Z")
            self.wait(expected + "Z")

    def candidates(self, line):
        """The candidates for `line` in the order in which they are listed."""
        self.term.type(Key.CTRL_U + line)
        self.wait(line)
        start = self.term._absolute_row()
        self.term.type(Key.TAB + Key.TAB)
        self.term.wait_for(lambda term: term._absolute_row() > start and self.typed == PROMPT + line)
        rows = (self.term.all_lines + [""])[start + 1:self.term._absolute_row()]
        return by_column(rows)

    def seen(self):
        """Waits until the shell has taken the events that were sent so far."""
        self.events += 1
        self.fake.event(12, f"event {self.events}")
        self.term.wait_for(f'"event {self.events}"')

    def asked(self):
        """How many requests the daemon got since the last time."""
        self.term.quiet()
        count = len(self.fake.requests)
        self.fake.requests.clear()
        return count


def by_column(rows):
    """The names of a listing, column by column."""
    if not rows:
        return []
    starts = [match.start() for match in re.finditer(r"(?<!\S)\S", max(rows, key=lambda row: len(row.split())))]
    names = []
    for at, start in enumerate(starts):
        end = starts[at + 1] if at + 1 < len(starts) else None
        names += [name for name in (row[start:end].strip() for row in rows) if name]
    return names


@pytest.fixture
def line(shell, fake):
    """A shell at its first prompt, nobody logged in."""
    fake.scheme = fake.serve(MODEL)
    fake.on("Login", Error(9001, "Request denied"))
    term = shell(to=fake)
    fake.requests.clear()
    return Line(term, fake)


# Commands and keywords

def test_several_candidates_insert_what_they_share(line):
    line.tab("opt hint ", "opt hint o")
    line.tab("lo", "log")


def test_command_words(line):
    line.tab("pw", "pwd")
    line.tab("  pw", "  pwd")
    line.tab("\"pw", "\"pwd")
    line.tab("xyz", "xyz")
    assert line.candidates("re") == ["reboot", "reset", "record"]
    assert line.asked() == 0


def test_an_empty_line_offers_all_commands(line):
    assert len(line.candidates("")) == 33


@pytest.mark.parametrize("typed, offered", [
    ("color ", ["prompt", "autocomplete", "hint"]),
    ("download ", ["config", "file", "firmware"]),
    ("download fi", ["file", "firmware"]),
    ("opt ", ["autocomplete", "hint"]),
    ("opt hint o", ["off", "on"]),
])
def test_keywords(line, typed, offered):
    assert line.candidates(typed) == offered
    assert line.asked() == 0


@pytest.mark.parametrize("typed", ["color prompt ", "opt hint on ", "pwd ", "login ", "nonsense ", "download file a ",
                                   "order Device ", "up ", "lua pr", "help ", "cat # Dev", "reboot -"])
def test_nothing_is_offered(line, typed):
    line.tab(typed, typed)
    assert line.asked() == 0


# Paths

@pytest.mark.parametrize("typed, expected", [
    ("cd Dev", "cd Device."),
    ("cd Device.De", "cd Device.DeviceInfo."),
    ("cat Device.DeviceInfo.Upt", "cat Device.DeviceInfo.Uptime"),
    ("cat Device.DeviceInfo.U", "cat Device.DeviceInfo.Up"),
    ("cd Device.DeviceInfo.Upt", "cd Device.DeviceInfo.Upt"),
    ("cd :S", "cd :Services."),
    ("cd :Device.T", "cd :Device.Time."),
    ("cat a b Dev", "cat a b Device."),
    ("cat \"Dev", "cat \"Device."),
    ("cat 'Device.T", "cat 'Device.Time."),
    ("cat Device.No.X", "cat Device.No.X"),
    ("cd Device.Hosts.Host.1.A", "cd Device.Hosts.Host.1.A"),
    ("cat Device.Hosts.Host.1.A", "cat Device.Hosts.Host.1.Alias"),
    ("cat Device.Hosts.Host.m", "cat Device.Hosts.Host.max_instance"),
    ("execute Device.P", "execute Device.Ping"),
    ("order Device.H", "order Device.Hosts."),
    ("cat Device..Ti", "cat Device..Time."),
    ("cat Device.#", "cat Device.#"),
    ("cat <Dev", "cat <Dev"),
])
def test_paths(line, typed, expected):
    line.tab(typed, expected)


def test_paths_are_listed_sorted(line):
    assert line.candidates("cat Device.") == ["DNS.", "DeviceInfo.", "Hosts.", "Ping", "Time."]
    assert line.candidates("cd Device.") == ["DNS.", "DeviceInfo.", "Hosts.", "Time."]
    assert line.candidates("cat :") == [":Device.", ":Services."]
    assert line.candidates("ls ") == ["Device.", "Services."]
    assert line.candidates("cat Device.Hosts.Host.") == ["1.", "2.", "max_instance"]
    assert line.candidates("cat Device.DNS.SearchDomain.") == ["1", "max_instance"]


def test_values_that_are_paths_are_listed_as_paths_are(shell, fake):
    numbers = (1, 2, 10, 20, 3)
    rows = {f"Device.Host.{i}.": {} for i in numbers} | {f"Device.Host.{i}.Alias": "" for i in numbers}
    fake.serve({"DataModelVersion": "1.0", "Device.": {}, "Device.Ref": parameter("path"), "Device.Host.": {"multi": True},
                "Device.Host.{i}.": {}, "Device.Host.{i}.Alias": "", **rows})
    fake.on("Login", Error(9001, "Request denied"))
    line = Line(shell(to=fake), fake)
    listed = line.candidates("cat Device.Host.")
    assert listed == ["1.", "10.", "2.", "20.", "3."]
    assert line.candidates("set Device.Ref=Device.Host.") == listed


def test_paths_begin_where_the_shell_stands(line):
    term = line.term
    term.run("cd Device.Time")
    global_prompt = "kest:Device.Time> "
    term.type("cat En\t")
    term.wait_for(lambda term: line.typed == global_prompt + "cat Enable")
    term.type(Key.CTRL_U + "cat <.Ho\t")
    term.wait_for(lambda term: line.typed == global_prompt + "cat <.Hosts.")
    term.type(Key.CTRL_U + "cat -.Dev\t")
    term.wait_for(lambda term: line.typed == global_prompt + "cat -.Device.")
    term.type(Key.CTRL_U)
    assert term.run("pwd") == [":Device.Time"]


def test_a_level_is_asked_for_once(line):
    line.tab("cat Device.Time.E", "cat Device.Time.Enable")
    asked = line.asked()
    assert asked > 0
    line.tab("cat Device.Time.Z", "cat Device.Time.Zone")
    line.tab("set Device.Time.Enable=t", "set Device.Time.Enable=true")
    line.candidates("cat Device.Time.")
    assert line.asked() == 0


def test_tabs_and_hints_at_known_levels_ask_nothing(line):
    lists = {
        "cat ": ["Device.", "Services."],
        "cat Device.": ["DNS.", "DeviceInfo.", "Hosts.", "Ping", "Time."],
        "cd :": [":Device.", ":Services."],
        "cat Device.Time.": ["Enable", "Source", "Sync", "Zone"],
        "cat Device.DeviceInfo.": ["Name", "UpgradeStatus", "Uptime"],
        "cat Device.Hosts.Host.": ["1.", "2.", "max_instance"],
        "cat Device.DNS.SearchDomain.": ["1", "max_instance"],
    }
    for typed, names in lists.items():
        assert line.candidates(typed) == names
    line.tab("cat Device.Hosts.Host.1.", "cat Device.Hosts.Host.1.Alias")
    assert line.asked() > 0
    for _ in range(3):
        for typed, names in lists.items():
            assert line.candidates(typed) == names
        line.tab("cat Device.Hosts.Host.1.Al", "cat Device.Hosts.Host.1.Alias")
        line.tab("cd Device.Ho", "cd Device.Hosts.")
        for typed, hint in [("cd Device.Ti", "me."), ("cat Device.Hosts.Host.1.A", "lias"), ("cd Device.Hosts.Host.2", "."),
                            ("set Device.Time.Enable=f", "alse"), ("cd :S", "ervices.")]:
            line.term.type(Key.CTRL_U + typed)
            line.wait(typed)
            line.hint(hint)
    assert line.asked() == 0


@pytest.mark.parametrize("columns", [40, 100])
def test_lists_and_hints_on_other_widths(shell, fake, columns):
    fake.serve(MODEL)
    fake.on("Login", Error(9001, "Request denied"))
    line = Line(shell(to=fake, columns=columns), fake)
    assert line.candidates("cat Device.") == ["DNS.", "DeviceInfo.", "Hosts.", "Ping", "Time."]
    assert len(line.candidates("")) == 33
    wrapped = "cat " + "Device.Hosts. " * 8 + "Device.DeviceIn"
    line.term.type(Key.CTRL_U + wrapped)
    text = PROMPT + wrapped + "fo."
    rows = [text[at:at + columns].rstrip() for at in range(0, len(text), columns)]
    line.term.wait_for(lambda term: term.lines[-len(rows):] == rows)
    line.term.type(Key.TAB + "U")
    line.term.wait_for(lambda term: "".join(row.ljust(columns) for row in term.lines[-len(rows):]).rstrip() == text + "U")


def test_a_hint_is_accepted_where_tab_completes_nothing(line):
    line.term.run("opt autocomplete off")
    line.term.type("cd Device.Ti")
    line.hint("me.")
    before = len(line.term.raw)
    line.term.type(Key.RIGHT)
    line.wait("cd Device.Time.")
    line.term.quiet()
    assert b"\x07" not in line.term.raw[before:]


@pytest.mark.parametrize("typed, hint, accepted", [
    ("record xa", " yb", 'record "xa yb"'), ("record 'xa ", "yb", "record 'xa yb"), ("record xc", "^A", "record xc^A"),
])
def test_a_hint_that_is_accepted_is_one_word(line, tmp_path, typed, hint, accepted):
    for name in ["xa yb", "xc\x01"]:
        (tmp_path / name).touch()
    line.term.run("opt autocomplete off")
    line.term.type(typed)
    line.hint(hint)
    line.term.type(Key.RIGHT)
    line.wait(accepted)


# Values

@pytest.mark.parametrize("typed, expected", [
    ("set Device.Time.Enable=t", "set Device.Time.Enable=true"),
    ("set Device.Time.Sync=f", "set Device.Time.Sync=false"),
    ("set Device.Time.Zone=u", "set Device.Time.Zone=utc"),
    ("set Device.Time.Zone=z", "set Device.Time.Zone=zone"),
    ("set Device.Time.Zone=zone.b", "set Device.Time.Zone=zone.b"),
    ("set Device.Time.Zone=5", "set Device.Time.Zone=5"),
    ("set Device.Time.Zone=\"u", "set Device.Time.Zone=\"utc"),
    ("set Device.Time.Zone=\"zone t", "set Device.Time.Zone=\"zone two"),
    ("set Device.Time.Zone=x", "set Device.Time.Zone=x"),
    ("set Device.Time=", "set Device.Time="),
    ("set Device.Gone=t", "set Device.Gone=t"),
    ("set Device.Time.Enable.X=t", "set Device.Time.Enable.X=t"),
    ("set Device.Time.Source=Dev", "set Device.Time.Source=Device."),
    ("set Device.Time.Source=Device.Ho", "set Device.Time.Source=Device.Hosts."),
    ("set Device.Time.Source=:S", "set Device.Time.Source=:Services."),
    ("set x=y Device.Time.Enable=f", "set x=y Device.Time.Enable=false"),
])
def test_values(line, typed, expected):
    line.tab(typed, expected)


def test_values_keep_their_order(line):
    assert line.candidates("set Device.Time.Enable=") == ["true", "false"]
    assert line.candidates("set Device.Time.Zone=zone.") == ["zone.b", "zone.a"]


# Files

@pytest.fixture
def files(tmp_path):
    (tmp_path / "dl" / "dl").mkdir(parents=True)
    (tmp_path / "dl" / "x").touch()
    (tmp_path / "firmware.bin").touch()
    (tmp_path / "my file").touch()
    return tmp_path


@pytest.mark.parametrize("typed, expected", [
    ("upgrade firmware.b", "upgrade firmware.bin"),
    ("upgrade f", "upgrade firmware.bin"),
    ("upgrade dl/d", "upgrade dl/dl/"),
    ("upgrade d", "upgrade dl/"),
    ("upgrade \"my", "upgrade \"my file"),
    ("upgrade a firm", "upgrade a firmware.bin"),
    ("download file fir", "download file firmware.bin"),
    ("download fir firm", "download fir firmware.bin"),
    ("record a", "record abort"),
    ("luarecord f", "luarecord firmware.bin"),
    ("record x f", "record x f"),
    ("sh ls fir", "sh ls firmware.bin"),
    ("sh ls /et", "sh ls /etc/"),
    ("upgrade missing/f", "upgrade missing/f"),
])
def test_file_names(files, line, typed, expected):
    line.tab(typed, expected)
    assert line.asked() == 0


def test_keyword_and_files_are_sorted_together(files, line):
    (files / "about").touch()
    (files / "abo").touch()
    assert line.candidates("record abo") == ["abo", "abort", "about"]


@pytest.fixture
def path_line(files, fake, terminal):
    """A shell whose PATH has directories of the test's own."""
    fake.serve(MODEL)
    fake.on("Login", Error(9001, "Request denied"))

    def start(path):
        words = (f"PATH={path}", str(settings.KEST), "-u", fake.address)
        return Line(terminal(*words, program="/usr/bin/env").wait_prompt(), fake)

    for name in ("bin/tool-one", "bin/tool-two", "more/tool-two", "more/other"):
        (files / name).parent.mkdir(exist_ok=True)
        (files / name).touch(0o755)
    (files / "bin" / "tool-data").touch(0o644)
    return start


def test_programs_come_from_path(path_line, files):
    line = path_line(f"{files}/bin:{files}/missing:{files}/more:{files}/bin")
    line.tab("sh ot", "sh other")
    line.tab("sh t", "sh tool-")
    assert line.candidates("sh tool-") == ["tool-one", "tool-two"]


def test_an_empty_path_offers_no_programs(path_line):
    line = path_line("")
    line.tab("sh l", "sh l")


def test_a_new_program_is_found_in_the_next_line(path_line, files):
    line = path_line(f"{files}/bin")
    line.tab("sh new", "sh new")
    (files / "bin" / "new-tool").touch(0o755)
    line.term.type(Key.CTRL_U)
    line.term.run("pwd")
    line.tab("sh new", "sh new-tool")


def test_a_directory_of_many_files(files, line):
    directory = files / "many"
    directory.mkdir()
    for n in range(50_000):
        os.close(os.open(directory / f"file-{n:05}", os.O_CREAT | os.O_WRONLY))
    before = line.term.cpu_seconds()
    line.tab("upgrade many/file-4999", "upgrade many/file-4999")
    line.tab("upgrade many/file-49998", "upgrade many/file-49998")
    line.tab("upgrade many/f", "upgrade many/file-")
    assert line.term.cpu_seconds() - before < 5 * settings.PATIENCE


# Notices of instances

def notice(action, number, path="Device.Hosts.Host."):
    return {"Action": action, "Path": path, "InstanceNumber": number}


def test_added_and_deleted_instances_are_known_without_asking(line):
    line.candidates("cat Device.Hosts.Host.")
    line.candidates("cat Device.DNS.SearchDomain.")
    line.fake.event(4, notice("Add", 5))
    line.fake.event(4, notice("Add", 10))
    line.fake.event(4, notice("Delete", 2))
    line.fake.event(4, notice("Add", 7, "Device.DNS.SearchDomain."))
    line.fake.event(4, notice("Add", 7, "Device.Nowhere."))
    line.fake.event(4, {"Action": "Add"})
    for number in (-1, 0, 2**32, 2**62):
        line.fake.event(4, notice("Add", number))
    line.seen()
    line.asked()
    assert line.candidates("cat Device.Hosts.Host.") == ["1.", "10.", "5.", "max_instance"]
    assert line.candidates("cat Device.DNS.SearchDomain.") == ["1", "7", "max_instance"]
    assert line.asked() == 0
    line.tab("cat Device.Hosts.Host.2", "cat Device.Hosts.Host.2")


def test_an_added_instance_is_fetched_when_walked_into(line):
    line.candidates("cat Device.Hosts.Host.")
    line.fake.scheme.add("Device.Hosts.Host.5.", {})
    line.fake.scheme.add("Device.Hosts.Host.5.Alias", "new")
    line.fake.event(4, notice("Add", 5))
    line.seen()
    line.tab("cat Device.Hosts.Host.5.A", "cat Device.Hosts.Host.5.Alias")


def test_an_instance_that_does_not_exist_hurts_nothing(line):
    line.candidates("cat Device.Hosts.Host.")
    line.asked()
    line.tab("cat Device.Hosts.Host.9.", "cat Device.Hosts.Host.9.Alias")
    assert line.asked() == 0
    line.tab("cat Device.Hosts.Host.8.A", "cat Device.Hosts.Host.8.Alias")
    line.candidates("cat Device.DNS.SearchDomain.")
    line.asked()
    line.tab("cat Device.DNS.SearchDomain.9.", "cat Device.DNS.SearchDomain.9.")
    assert line.asked() == 0


def test_a_table_nobody_looked_at_stays_unfetched(line):
    line.fake.event(4, notice("Add", 5))
    line.tab("cat Dev", "cat Device.")
    line.fake.wait_for("GetParameterAttributes")
    assert line.fake.params("GetParameterAttributes") == [{"ParameterNames": ["Device."], "Depth": 1}]
    assert line.candidates("cat Device.Hosts.Host.") == ["1.", "2.", "max_instance"]


@pytest.mark.deadline(120)
def test_many_notices_cost_little(line):
    line.candidates("cat Device.Hosts.Host.")
    for connection in line.fake.receivers():
        connection.send_raw(b"".join(
            b'{"jsonrpc":"2.0","method":"Event","params":{"Id":4,"Value":{"Action":"%s","Path":"Device.Hosts.Host.",'
            b'"InstanceNumber":%d}}}\n' % (action, n) for n in range(100, 50_100) for action in (b"Add", b"Delete")))
    line.fake.event(12)
    line.term.wait_for("EVENT 12:", timeout=60)
    before = line.term.cpu_seconds()
    assert line.candidates("cat Device.Hosts.Host.") == ["1.", "2.", "max_instance"]
    assert line.term.cpu_seconds() - before < 2 * settings.PATIENCE


# Hints

@pytest.mark.parametrize("typed, hint", [
    ("pw", "d"),
    ("cd Device.DeviceIn", "fo."),
    ("cd Dev", "ice."),
    ("cd :S", "ervices."),
    ("set Device.Time.Enable=t", "rue"),
    ("set Device.Time.Zone=\"u", "tc"),
    ("set Device.Time.Zone=zone.b", None),
    ("upgrade firmware.b", "in"),
    ("upgrade dl/d", "l/"),
    ("sh ls /et", "c/"),
    ("re", None),
    ("nonsense ", None),
    ("cat Device.DeviceInfo.Up", None),
    ("pwd", None),
])
def test_hints(files, line, typed, hint):
    line.term.type(typed)
    line.wait(typed)
    line.hint(hint)


def test_a_hint_is_not_part_of_the_line(line):
    line.term.type("pw")
    line.hint("d")
    assert line.term.enter() == ["pw: command not found."]
    assert "pwd" not in line.term.text


@pytest.mark.parametrize("key", [Key.RIGHT, Key.END, Key.CTRL_F, Key.CTRL_E, Key.TAB])
def test_accepting_a_hint_inserts_what_tab_would(line, key):
    line.term.type("cd Device.DeviceIn")
    line.hint("fo.")
    line.term.type(key)
    line.wait("cd Device.DeviceInfo.")


def test_hints_and_completion_can_be_switched_off(line):
    line.term.run("opt hint off")
    line.term.type("pw")
    line.wait("pw")
    line.hint(None)
    line.tab("pw", "pwd")
    line.term.type(Key.CTRL_U)
    line.term.run("opt autocomplete off")
    line.tab("pw", "pw")
    line.term.type(Key.CTRL_U)
    line.term.run("opt hint on")
    line.term.type("pw")
    line.hint("d")


# A daemon in trouble

def test_ctrl_c_abandons_a_tab(line):
    line.fake.on("GetParameterAttributes", Silence())
    line.term.type("cat Device.Time.E\t")
    line.fake.wait_for("GetParameterAttributes")
    line.term.type(Key.CTRL_C)
    line.wait("cat Device.Time.E")
    # The level stays unknown and is asked for again.
    line.fake.on("GetParameterAttributes", line.fake.scheme.GetParameterAttributes)
    line.tab("cat Device.Time.E", "cat Device.Time.Enable")


def test_keys_typed_during_a_slow_tab_are_kept(line):
    slow = line.fake.scheme.GetParameterAttributes
    line.fake.on("GetParameterAttributes", lambda request: Slow(0.5, slow(request)))
    line.term.type("cat Device.Time.E\t=x")
    line.wait("cat Device.Time.Enable=x")


def test_an_event_during_a_slow_tab_is_shown(line):
    line.fake.on("GetParameterAttributes", Silence())
    line.term.type("cat Device.Time.E\t")
    line.fake.wait_for("GetParameterAttributes")
    line.fake.event(12, {"a": 1})
    line.term.wait_for("EVENT 12:")
    line.term.type(Key.CTRL_C)
    line.wait("cat Device.Time.E")


def test_a_refused_level_offers_nothing(line):
    line.fake.on("GetParameterAttributes", Error(9001, "Request denied"))
    line.tab("cat Device.Time.E", "cat Device.Time.E")


def test_a_lost_link_offers_nothing_and_the_next_command_reconnects(line):
    line.fake.on("GetParameterAttributes", Close())
    line.tab("cat Device.Time.E", "cat Device.Time.E")
    assert "Reconnecting" not in line.term.text
    line.fake.on("GetParameterAttributes", line.fake.scheme.GetParameterAttributes)
    line.term.type(Key.CTRL_U)
    out = line.term.run("cat Device.DeviceInfo.Name")
    assert out[0].startswith("Reconnecting...") and out[-1] == 'Name = "box"'


def test_names_with_odd_characters(line):
    line.fake.scheme.add("Device.Odd.", {})
    line.fake.scheme.add("Device.Odd.\x1b[31mred", "x")
    line.fake.scheme.add("Device.Odd.two words", "x")
    line.fake.scheme.add("Device.Odd." + "l" * 10_000, "x")
    line.tab("cat Device.Odd.two", 'cat Device.Odd."two words"')
    line.term.type(Key.CTRL_U + "cat Device.Odd.l" + Key.TAB)
    line.term.quiet()
    line.term.type(Key.CTRL_U)
    line.wait("")
    line.term.type("pwd\r")
    line.term.wait_for(re.compile(r"^:$", re.M))
