"""What veld makes of the documents and options that describe its device, before anybody connects."""

import json
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
