"""attr (info), in the shell and as a request."""

import pytest

from lib.commands import MODEL, asked, attributes, refuse_logins, typed
from lib.fake import Error, Silence

FULL = {
    "regex": "^[a-z\"]+$", "offValue": {"a": [1]}, "maxCount": 6, "minCount": 5, "maxInclusive": 4294967297,
    "minInclusive": -9223372036854775808, "maxLength": 2, "minLength": 1, "multi": False, "unique": True,
    "runtime": 1, "ordered": True, "enum": ["a", 5, None], "default": {"x": [1, 2]}, "handler_set": "sets",
    "handler_get": "gets", "access": "readWrite", "type": "string", "perms": "rw", "unheard": "of",
}

FULL_BLOCK = """\
Canonical path:     :Device.Full
Type:               string
Access:             readWrite
Default:            {
    "x": [
        1,
        2
    ]
}
Enum: 
  "a"
  5
  null
Ordered:            true
Runtime:            false
Unique:             true
Multi-instance:     false
Minimal length:     1
Maximum length:     2
Minimal inclusive:  -9223372036854775808
Maximum inclusive:  4294967297
Minimal count:      5
Maximum count:      6
GET handler:        gets
SET handler:        sets
OFF value:          {"a": [1]}
Regex:              "^[a-z\\"]+$"
"""

ROOT_BLOCK = "Canonical path:     :\nType:               config root\nAccess:             readOnly\n"
TIME_BLOCK = "Canonical path:     :Device.Time\nType:               object\nAccess:             readOnly\n"
ENABLE_BLOCK = ("Canonical path:     :Device.Time.Enable\nType:               boolean\nAccess:             readWrite\n"
                "Default:            false\n")


def entry(name, what):
    return {"ParameterList": [{"Name": name, "Attributes": what}]}


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    return fake


def test_the_root_is_three_fixed_lines(kest, model):
    assert typed(kest, model, "attr", "cd Device", "info :", "attr <") == 3 * ROOT_BLOCK


def test_objects_are_asked_with_a_dot_and_parameters_without(kest, model):
    assert typed(kest, model, "attr Device.Time", "info Device.Time.Enable", "cd Device.Time", "attr") == (
        TIME_BLOCK + ENABLE_BLOCK + TIME_BLOCK)
    assert asked(model) == [attributes("Device."), attributes("Device.Time.", 0), attributes("Device.Time."),
                            attributes("Device.Time.Enable", 0), attributes("Device.Time.", 0)]


def test_several_paths(kest, model):
    assert typed(kest, model, "cd Device", "info Time Nothing Time.Enable") == (
        f"Time:\n{TIME_BLOCK}\nNothing:\ninfo: Nothing: no such node\n\nTime.Enable:\n{ENABLE_BLOCK}\n")


def test_everything_that_can_be_said_of_a_node(kest, fake):
    fake.serve({"Device.": {}, "Device.Full": "x"})
    refuse_logins(fake)
    served = fake.on("GetParameterAttributes", {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]},
                     {"ParameterList": [{"Name": "Device.Full", "Attributes": {"type": "string"}}]},
                     entry("Device.Full", FULL))
    assert typed(kest, served, "attr Device.Full") == FULL_BLOCK


@pytest.mark.parametrize("answer", [Error(9001, "no"), {}, {"ParameterList": []}, {"ParameterList": [{"Name": "x"}]}])
def test_a_node_that_is_refused_is_shown_from_the_cache(kest, fake, answer):
    fake.on("GetParameterAttributes", {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]},
            {"ParameterList": [{"Name": "Device.X", "Attributes": {"type": "int", "access": "readWrite", "default": 5}}]},
            answer)
    refuse_logins(fake)
    assert typed(kest, fake, "attr Device.X") == (
        "Canonical path:     :Device.X\nType:               int\nAccess:             Denied\nDefault:            5\n")


def test_a_node_of_which_nothing_is_known_is_shown_by_its_name(kest, fake):
    fake.on("GetParameterAttributes", {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]},
            {"ParameterList": [{"Name": "Device.X"}]}, Error(9001, "no"))
    refuse_logins(fake)
    assert typed(kest, fake, "attr Device.X") == (
        "attr parse error on 1:6 : Object item not found: type\n"
        "Canonical path:     :Device.X\nType:               (null)\nAccess:             (null)\n")


def test_a_daemon_that_keeps_silent_is_given_a_second(kest, fake):
    fake.on("GetParameterAttributes", {"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]},
            Silence())
    refuse_logins(fake)
    assert typed(kest, fake, "attr Device") == (
        "Canonical path:     :Device\nType:               object\nAccess:             Denied\n")


@pytest.mark.parametrize("what, block", [
    ({}, "attr parse error on 1:5 : Object item not found: type\n"
         "Canonical path:     :X\nType:               (null)\nAccess:             (null)\n"),
    ({"type": "int"}, "attr parse error on 1:12 : Object item not found: access\n"
                      "Canonical path:     :X\nType:               int\nAccess:             (null)\n"),
    ({"type": 5, "access": "readOnly"}, "attr parse error on 1:5 : Expected string, got integer\n"
                                        "Canonical path:     :X\nType:               (null)\nAccess:             (null)\n"),
    ({"type": "int", "access": "readOnly", "handler_get": []},
     "attr parse error on 1:19 : Expected string, got array\n"
     "Canonical path:     :X\nType:               int\nAccess:             readOnly\n"),
    ({"type": "int", "access": "readOnly", "enum": "e", "multi": "yes", "minLength": "9", "regex": 7, "maxCount": 1.5},
     "Canonical path:     :X\nType:               int\nAccess:             readOnly\nMulti-instance:     false\n"
     "Minimal length:     0\nMaximum count:      0\nRegex:              7\n"),
])
def test_attributes_of_wrong_types(kest, fake, what, block):
    fake.on("GetParameterAttributes", entry("X", what))
    run = kest("-r", "attr", "X", to=fake)
    shown = run.out.splitlines()
    expected = (block + "\n").splitlines()
    if expected[0].startswith("attr parse error"):
        # The column within the format is the JSON library's.
        assert shown[0].startswith("attr parse error on 1:") and shown[0].split(" : ")[1] == expected[0].split(" : ")[1]
        shown, expected = shown[1:], expected[1:]
    assert shown == expected
    assert run.status == 0


def test_requests_send_the_words_as_they_are(kest, fake):
    fake.on("GetParameterAttributes", {"ParameterList": [
        {"Name": "Device.Full", "Attributes": FULL}, 5, {"Name": 5, "Attributes": {}}, {"Name": "A"},
        {"Name": "B", "Attributes": {"type": "int", "access": "readOnly"}}]})
    run = kest("-r", "attr", "Device.Full", ":B", to=fake)
    assert run.out == FULL_BLOCK + "\nCanonical path:     :B\nType:               int\nAccess:             readOnly\n\n"
    assert run.status == 0
    assert kest("-r", "GetParameterAttributes", to=fake).status == 0
    assert fake.params("GetParameterAttributes") == [{"ParameterNames": ["Device.Full", ":B"]}, {"ParameterNames": []}]


@pytest.mark.parametrize("word", ["attr", "info", "GetParameterAttributes"])
def test_a_request_that_fails_says_no_more_than_that(kest, fake, word):
    fake.on("GetParameterAttributes", Error(9005, "Invalid parameter name"))
    run = kest("-r", word, "X", to=fake)
    assert (run.out, run.status) == (f"{word}: ERROR\n", 255)


def test_what_a_user_may_not_read_is_still_described(kest, veld):
    assert typed(kest, veld, "logout", "attr Device.Users") == (
        "Canonical path:     :Device.Users\nType:               object\nAccess:             Denied\n")
