"""veld --import: a data model of the Broadband Forum, served, and walked with the real client."""

import gzip
import json
import os
import re
import subprocess
from xml.etree import ElementTree

import pytest

from lib import settings

SMALL = """<?xml version="1.0"?>
<dm:document xmlns:dm="urn:broadband-forum-org:cwmp:datamodel-1-15">
  <dataType name="Address"><string><size maxLength="15"/><pattern value=""/><pattern value="[0-9.]+"/></string></dataType>
  <model name="Device:2.0">
    <object name="Device."/>
    <object name="Device.Hosts."><parameter name="HostNumberOfEntries"><syntax><unsignedInt/></syntax></parameter></object>
    <object name="Device.Hosts.Host.{i}." access="readWrite" minEntries="0" maxEntries="unbounded"
            numEntriesParameter="HostNumberOfEntries">
      <parameter name="IPAddress" access="readWrite"><syntax><dataType ref="Address"/></syntax></parameter>
      <parameter name="Kind" access="readWrite"><syntax><string><enumeration value="Wired"/><enumeration value="Wireless"/></string></syntax></parameter>
      <command name="Wake()"><input><parameter name="Times"><syntax><unsignedInt/></syntax></parameter></input></command>
    </object>
  </model>
</dm:document>
"""


def run_import(sandbox, xml, *options):
    """veld --import on a file: (status, standard output, standard error)."""
    argv = [settings.VELD, "--import", xml, *options]
    done = subprocess.run(argv, env=sandbox.environment(None), cwd=sandbox.work, capture_output=True, timeout=settings.DEADLINE)
    return done.returncode, done.stdout, done.stderr.decode()


@pytest.fixture
def small(sandbox, tmp_path):
    (tmp_path / "small.xml").write_text(SMALL)
    status, _, said = run_import(sandbox, tmp_path / "small.xml", "--output", tmp_path / "small.json")
    assert (status, said) == (
        0,
        "veld: imported 3 objects (1 of them tables), 3 parameters, 1 commands with 1 input and 0 output arguments\n",
    )
    return tmp_path / "small.json"


def test_an_imported_model_is_served_and_obeyed(small, veld_start, kest):
    veld = veld_start("--populate", "2", model=small)
    run = kest("-r", "get", "Device.Hosts.Host.2.Kind", to=veld)
    assert (run.out, run.status) == ('Kind = "Wired"\n', 0)
    peer = veld.connect()
    peer.call("Login", User="root") if os.getuid() == 0 else None
    assert peer.call("AddObject", ObjectName="Device.Hosts.Host.")["InstanceNumber"] == 3
    assert veld.value("Device.Hosts.HostNumberOfEntries") == 3
    for value, code in (("10.0.0.1", None), ("", None), ("ten", 9007), (10, 9006), ("1" * 16, 9007)):
        entry = {"Name": "Device.Hosts.Host.3.IPAddress", "Value": value}
        answer = peer.answer(peer.request("SetParameterValues", {"ParameterList": [entry]}))
        assert answer.get("error", {}).get("code") == code, value


def test_a_method_that_nobody_implements_is_not_supported(small, veld_start):
    veld = veld_start("--populate", "1", model=small)
    peer = veld.connect()
    peer.call("Login", User="root") if os.getuid() == 0 else None
    answer = peer.answer(peer.request("Execute", {"Path": "Device.Hosts.Host.1.Wake"}))
    assert answer["error"]["code"] == 9000


def test_what_cannot_be_imported_leaves_nothing(sandbox, tmp_path):
    bad = {
        "cut.xml": SMALL[: len(SMALL) // 2],
        "page.xml": "<html><head/></html>",
        "model.json": '{"format": 1}',
        "empty.xml": "",
    }
    for name, text in bad.items():
        (tmp_path / name).write_text(text)
        before = sorted(path.name for path in tmp_path.iterdir())
        status, out, said = run_import(sandbox, tmp_path / name, "--output", tmp_path / "out.json")
        assert status == 1 and out == b"", name
        assert said.startswith(f"veld: {tmp_path / name}: ") and said.count("\n") == 1, said
        assert sorted(path.name for path in tmp_path.iterdir()) == before, name
        status, out, said = run_import(sandbox, tmp_path / name)
        assert status == 1 and out == b"", name


def test_one_bad_node_never_loses_the_model(sandbox, tmp_path, veld_start):
    bad = SMALL.replace('<dataType name="Address">', '<dataType name="Address" base="Address"/><dataType name="Other">').replace(
        '<object name="Device."/>', '<object name="Device."/><object name="Device.Bad Name."/><object name="Device.Lost.Child."/>'
    ).replace('<command name="Wake()">', '<command name="Wake()" x:old="1">')
    (tmp_path / "bad.xml").write_text(bad)
    status, _, said = run_import(sandbox, tmp_path / "bad.xml", "--output", tmp_path / "bad.json")
    warning = f"veld: {tmp_path / 'bad.xml'}: warning: line"
    assert (status, said.splitlines()) == (
        0,
        [
            f'{warning} 11: Device.Hosts.Host.{{i}}.: the prefix "x" is not declared',
            f'{warning} 5: Device.Bad Name.: "Bad Name" is no name that can be served; left out',
            f"{warning} 5: Device.Lost.Child.: there is no Device.Lost.; left out",
            f"{warning} 9: Device.Hosts.Host.{{i}}.IPAddress: a data type is based on itself: Address -> Address; left out",
            "veld: imported 3 objects (1 of them tables), 2 parameters, 1 commands with 1 input and 0 output arguments",
        ],
    )
    veld = veld_start("--populate", "1", model=tmp_path / "bad.json")
    assert veld.value("Device.Hosts.Host.1.Kind") == "Wired"


ROOTS = """<?xml version="1.0"?>
<dm:document xmlns:dm="urn:broadband-forum-org:cwmp:datamodel-1-3">
  <model name="InternetGatewayDevice:1.1">
    <object name="InternetGatewayDevice."><parameter name="Summary" access="readWrite"><syntax><string/></syntax></parameter></object>
    <object name="InternetGatewayDevice.Key.{i}." minEntries="4" maxEntries="4">
      <parameter name="Text" access="readWrite"><syntax><string/></syntax></parameter></object>
  </model>
  <model name="VoiceService:2.0" isService="true">
    <parameter name="VoiceServiceNumberOfEntries"><syntax><unsignedInt/></syntax></parameter>
    <object name="VoiceService.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" numEntriesParameter="VoiceServiceNumberOfEntries"/>
    <object name="VoiceService.{i}.Line.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" enableParameter="Enable">
      <uniqueKey functional="true"><parameter ref="Port"/><parameter ref="Side"/></uniqueKey>
      <parameter name="Enable" access="readWrite"><syntax><boolean/></syntax></parameter>
      <parameter name="Port" access="readWrite"><syntax><unsignedInt><range maxInclusive="9"/><range minInclusive="100" maxInclusive="200" step="50"/></unsignedInt></syntax></parameter>
      <parameter name="Side" access="readWrite"><syntax><string/></syntax></parameter>
      <parameter name="Peer" access="readWrite"><syntax><string><pathRef refType="strong" targetType="row" targetParent="#.Line."/></string></syntax></parameter>
      <parameter name="Peers" access="readWrite"><syntax><list/><string><pathRef refType="weak"/></string></syntax></parameter>
      <parameter name="Known" access="readWrite"><syntax><list/><string><pattern value="[a-z]+"/></string></syntax></parameter>
      <parameter name="Mode" access="readWrite"><syntax><string><enumerationRef targetParam="Known" nullValue="off"/></string></syntax></parameter>
      <parameter name="Modes" access="readWrite"><syntax><list/><string><enumerationRef targetParam="Known"/></string></syntax></parameter>
      <parameter name="Tones" access="readWrite"><syntax><list/><unsignedInt><range minInclusive="1" maxInclusive="3"/></unsignedInt></syntax></parameter>
    </object>
  </model>
</dm:document>
"""


@pytest.fixture
def roots(sandbox, tmp_path, veld_start):
    (tmp_path / "roots.xml.gz").write_bytes(gzip.compress(ROOTS.encode()))
    status, _, said = run_import(sandbox, tmp_path / "roots.xml.gz", "--output", tmp_path / "roots.json")
    assert (status, said) == (
        0,
        "veld: imported 4 objects (3 of them tables), 12 parameters, 0 commands with 0 input and 0 output arguments\n",
    )
    return veld_start("--populate", "2,2", model=tmp_path / "roots.json")


def test_all_roots_of_a_document_are_served_alike(roots, kest, shell):
    term = shell(to=roots)
    assert term.run("ls") == ["InternetGatewayDevice.       VoiceServiceNumberOfEntries", "VoiceService."]
    term.type("cd Inter\tKe\t\r")
    term.wait_for("kest:InternetGatewayDevice.Key>")
    assert term.run("ls") == ["1.            2.            3.            4.            max_instance"]
    assert term.run("cd :VoiceService.2.Line.1") == []
    assert term.run("cat Port") == ["Port = 0"]
    assert kest("-r", "get", "VoiceServiceNumberOfEntries", to=roots).out == "VoiceServiceNumberOfEntries = 2\n"
    assert kest("-r", "get", "DataModelVersion", to=roots).out == (
        'DataModelVersion = "InternetGatewayDevice:1.1,VoiceService:2.0"\n'
    )


def test_a_root_that_is_a_table_takes_instances_and_tells_of_them(roots):
    admin = roots.connect()
    admin.call("Login", User="root")
    admin.join(4)
    assert admin.call("AddObject", ObjectName="VoiceService.")["InstanceNumber"] == 3
    assert admin.event() == (4, {"Action": "Add", "Path": "VoiceService.", "InstanceNumber": 3})
    assert roots.value("VoiceServiceNumberOfEntries") == 3


def refusal(peer, values):
    """What a SetParameterValues says of its one bad entry; None when it is done."""
    entries = [{"Name": f"VoiceService.1.Line.{name}", "Value": value} for name, value in values.items()]
    error = peer.answer(peer.request("SetParameterValues", {"ParameterList": entries})).get("error")
    return error and (error["code"], *error["data"].values())


def test_what_another_parameter_lists_can_be_set(roots):
    admin = roots.connect()
    admin.call("Login", User="root")
    known = "VoiceService.1.Line.1.Known"
    # As long as it lists nothing, whatever it could list.
    assert refusal(admin, {"1.Mode": "any"}) is None
    assert refusal(admin, {"1.Mode": "ANY"}) == (9007, f"must be something that {known} could list")
    assert refusal(admin, {"1.Known": "slow, fast"}) is None
    assert refusal(admin, {"1.Mode": "any"}) == (9007, f"must be among what {known} lists")
    for mode in ("slow", "fast", "off", ""):
        assert refusal(admin, {"1.Mode": mode}) is None, mode
    assert refusal(admin, {"1.Modes": "fast,slow"}) is None
    assert refusal(admin, {"1.Modes": "fast,any"}) == (9007, f"must be among what {known} lists")
    # The other instance has a list of its own.
    assert refusal(admin, {"2.Mode": "any"}) is None


def test_what_a_document_demands_holds_when_values_are_set(roots):
    admin = roots.connect()
    admin.call("Login", User="root")
    for port in (0, 9, 100, 150, 200):
        assert refusal(admin, {"1.Port": port}) is None
    for port in (10, 99, 101, 125):
        assert refusal(admin, {"1.Port": port}) == (9007, "must be up to 9 or 100 to 200 in steps of 50")
    assert refusal(admin, {"1.Port": 201}) == (9007, "must be at most 200")
    assert refusal(admin, {"1.Tones": "1, 3"}) is None
    assert refusal(admin, {"1.Tones": "1,4"}) == (9007, "must have items of 1 to 3")
    # A path leads to what is there, and is of the kind that the document names.
    assert refusal(admin, {"1.Peer": "VoiceService.1.Line.2"}) is None
    assert refusal(admin, {"1.Peer": "VoiceService.2.Line.1."}) is None
    assert refusal(admin, {"1.Peer": ""}) is None
    assert refusal(admin, {"1.Peer": "VoiceService.1.Line.7"}) == (
        9007,
        "leads to nothing that is there: VoiceService.1.Line.7",
    )
    assert refusal(admin, {"1.Peer": "VoiceService.1"}) == (9007, "must lead to a row in VoiceService.{i}.Line.")
    assert refusal(admin, {"1.Peers": "VoiceService.1.Line.2, InternetGatewayDevice.Summary"}) is None
    assert refusal(admin, {"1.Peers": "VoiceService.1.Line.2,Device."}) == (9007, "leads to nothing that is there: Device.")
    # A key of two parameters holds among what is enabled.
    same = {"1.Port": 1, "1.Side": "a", "2.Port": 1, "2.Side": "a"}
    assert refusal(admin, same) is None
    assert refusal(admin, {"1.Enable": True}) is None
    assert refusal(admin, {"2.Enable": True}) == (9007, "would give the instance the key (Port, Side) of instance 1")
    assert refusal(admin, {"2.Enable": True, "2.Side": "b"}) is None
    assert refusal(admin, {"1.Side": "b", "2.Side": "a"}) is None


def test_one_of_several_models_is_chosen(sandbox, tmp_path):
    (tmp_path / "roots.xml").write_text(ROOTS)
    status, out, _ = run_import(sandbox, tmp_path / "roots.xml", "--model", "VoiceService:2.0")
    assert status == 0
    assert list(json.loads(out)["root"]) == ["VoiceServiceNumberOfEntries", "VoiceService", "DataModelVersion"]
    status, out, said = run_import(sandbox, tmp_path / "roots.xml", "--model", "FAPService")
    assert (status, out) == (1, b"")
    assert said == (
        f'veld: {tmp_path / "roots.xml"}: holds no model "FAPService"; its models are InternetGatewayDevice:1.1, VoiceService:2.0\n'
    )


# --- the standard's own models, read a second time by other means ---


def published(name):
    """The path of one of the standard's documents, compressed, or None where it is not at hand."""
    places = [parent / "shared/data" / name for parent in list(settings.SOURCE.parents)[:2]]
    return next((place for place in places if place.exists()), None)


def token(text):
    return " ".join((text or "").split())


class Reading:
    """What an XML document declares, as path → (type, access, enumeration, longest, default); None: not looked at."""

    BASIC = "string boolean int unsignedInt long unsignedLong decimal dateTime base64 hexBinary".split()

    def __init__(self, xml):
        if b"xmlns:dmr" not in xml:
            xml = xml.replace(b"dmr:", b"dmr_")
        root = ElementTree.fromstring(xml)
        self.types = {token(each.get("name")): each for each in root.findall("dataType")}
        self.nodes = {}
        for model in root.findall("model"):
            for item in self.alive(model, "object"):
                path = token(item.get("name"))
                self.nodes[path] = ("object", None, None, None, None)
                for parameter in self.alive(item, "parameter"):
                    self.nodes[path + token(parameter.get("name"))] = self.parameter(parameter)
                for command in self.alive(item, "command"):
                    self.nodes[path + token(command.get("name"))] = ("method", None, None, None, None)

    @staticmethod
    def alive(of, name):
        return [each for each in of.findall(name) if each.get("status") != "deleted"]

    def chain(self, of):
        """The elements that say what a type is, from the outermost one down to the basic one."""
        for each in of:
            if each.tag in self.BASIC:
                return [each]
            if each.tag == "dataType":
                return [each, *self.named(token(each.get("ref") or each.get("base")))]
        raise ValueError("no type")

    def named(self, name):
        declared = self.types[name]
        base = declared.get("base")
        return [declared, *(self.named(token(base)) if base else self.chain(declared))]

    def parameter(self, declared):
        syntax = declared.find("syntax")
        chain = self.chain(syntax)
        access = "readOnly" if declared.get("access", "readOnly") == "readOnly" else "readWrite"
        kind = chain[-1].tag
        if any(each.find("list") is not None for each in [syntax, *chain]):
            return ("string", access, None, None, None)
        if kind == "boolean" and syntax.get("command") == "true":
            kind = "switch"
        if kind == "string" and any(each.find("pathRef") is not None for each in chain):
            kind = "path"
        values = next((v for each in chain if (v := [one.get("value") for one in self.alive(each, "enumeration")])), None)
        sizes = [size for each in chain for size in self.alive(each, "size")]
        longest = int(sizes[0].get("maxLength")) if len(sizes) == 1 and sizes[0].get("maxLength") else None
        default = self.alive(syntax, "default")
        return (kind, access, values, longest, default[0].get("value") if default else None)


def served(children, path=""):
    """The nodes of a model document, by the paths that the standard gives them."""
    for name, node in children.items():
        kind = node["type"]
        if kind == "object":
            here = path + name + (".{i}." if node.get("multi") else ".")
            yield here, node
            yield from served(node.get("template", node)["children"], here)
        else:
            yield path + name + ("()" if kind == "method" else ""), node


PUBLISHED = {
    "tr-098-1-1-0-full.xml.gz": (63, 29, 675, ['line 307: InternetGatewayDevice.: the prefix "dmr" is not declared']),
    "tr-157-1-3-0-full.xml.gz": (206, 91, 1794, []),
    "tr-181-2-11-0-full.xml.gz": (472, 225, 3925, []),
    "tr-181-2-19-1-usp-full.xml.gz": (809, 417, 6581, []),
}


@pytest.mark.parametrize("name", PUBLISHED)
def test_a_published_model_comes_out_as_it_stands_there(name, sandbox):
    path = published(name)
    if path is None:
        pytest.skip("the data model is not here")
    objects, tables, parameters, warnings = PUBLISHED[name]
    status, out, said = run_import(sandbox, path)
    assert status == 0
    assert said.splitlines()[:-1] == [f"veld: {path}: warning: {warning}" for warning in warnings]
    assert f"imported {objects} objects ({tables} of them tables), {parameters} parameters" in said
    reading = Reading(gzip.decompress(path.read_bytes())).nodes
    nodes = dict(served(json.loads(out)["root"]))
    del nodes["DataModelVersion"]
    assert nodes.keys() == reading.keys()
    for where, (kind, access, values, longest, default) in reading.items():
        node = nodes[where]
        assert node["type"] == kind, where
        assert access is None or node.get("access", "readOnly") == access, where
        assert values is None or [str(value) for value in node["enum"]] == values, where
        assert longest is None or node["maxLength"] == longest, where
        if default is not None:
            given = node["default"]
            assert (str(given).lower() if isinstance(given, bool) else str(given)) == default or given == float(default), where


def standard():
    """The XML of TR-181 as bytes, or None where it is not at hand: TR181_XML, or beside the source tree."""
    place = os.environ.get("TR181_XML") or published("tr-181-2-19-1-usp-full.xml.gz")
    if not place or not os.path.exists(place):
        return None
    with gzip.open(place) if str(place).endswith(".gz") else open(place, "rb") as file:
        return file.read()


@pytest.mark.deadline(180)
def test_the_whole_standard_is_walked(sandbox, tmp_path, veld_start, kest):
    """Every command that looks at objects, on every object of about 20,000 parameters: no error, and everything is there."""
    xml = standard()
    if xml is None:
        pytest.skip("the data model is not here (set TR181_XML)")
    (tmp_path / "tr-181.xml").write_bytes(xml)
    status, out, said = run_import(sandbox, tmp_path / "tr-181.xml")
    assert status == 0
    assert said == (
        "veld: imported 809 objects (417 of them tables), 6581 parameters, 178 commands with 425 input and 505 output arguments\n"
    )
    (tmp_path / "tr-181.json").write_bytes(out)
    assert json.loads(out)["format"] == 1

    veld = veld_start("--populate", "2,2", model=tmp_path / "tr-181.json")
    names = [entry["Name"] for entry in veld.call("GetParameterNames", ParameterPath=".", NextLevel=False)["ParameterList"]]
    every = set(names)
    # The arguments of a method are named too; they stand below a name without a final dot.
    names = [name for name in names if not any(name[:dot.start()] in every for dot in re.finditer(r"\.", name))]
    objects = [name for name in names if name.endswith(".")]
    values = [entry["Name"] for entry in veld.call("GetParameterValues", ParameterNames=["."])["ParameterList"]]
    assert len(values) > 20000

    script = []
    for name in objects:
        script += [f"ls :{name}", f"ls -l :{name}", f"cat :{name}", f"attr :{name}"]
    script.append("sh grep VmHWM /proc/$PPID/status")
    run = kest(to=veld, stdin="\n".join(script) + "\n", timeout=150)
    assert run.status == 0 and run.err == ""

    lines = run.lines
    assert not [line for line in lines if re.search(r"no such node|ERROR$|parse error|Status: |Denied|\(null\)", line)]
    # ls of every object names everything below the root; attr describes every object.
    listed = {line[1:] for line in lines if line.startswith(":")}
    assert listed == {name for name in names if "." in name.rstrip(".")}
    described = [line.split(":", 2)[2] for line in lines if line.startswith("Canonical path:")]
    assert sorted(path.rstrip(".") for path in described) == sorted(name.rstrip(".") for name in objects)
    # cat of "Device." shows every value; the widest of its names ends in " = " like all of them.
    shown = {line.split(" = ", 1)[0].rstrip() for line in lines if " = " in line}
    missing = {name.removeprefix("Device.") for name in values if name.startswith("Device.")} - shown
    assert not missing

    peak = int(re.search(r"^VmHWM:\s+(\d+) kB$", run.out, re.M)[1])
    assert peak < 64 * 1024 or settings.PATIENCE > 1
