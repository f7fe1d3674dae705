"""execute."""

import pytest

from lib.commands import MODEL, asked, attributes, refuse_logins, typed
from lib.fake import Error


@pytest.fixture
def model(fake):
    fake.serve(MODEL)
    refuse_logins(fake)
    fake.on("Execute", {"ParameterList": [{"Name": "Sent", "Value": 3}, {"Name": "Result.1.Time", "Value": "2 ms"},
                                          {"Name": "Result.max_instance", "Value": 1}]})
    return fake


OUTPUT = "\n├── Result\n│   ├── max_instance = 1\n│   └── 1\n│       └── Time = \"2 ms\"\n└── Sent = 3\n"


def test_arguments_are_typed_by_their_defaults(kest, model):
    assert typed(kest, model, "cd Device", "execute Ping Host=a=b Host=h Count=-3 Opt.Size=9") == (
        "key = Host=a, value = b\nexecute: Host=a: no such argument.\n")
    assert model.of("Execute") == []
    assert typed(kest, model, "cd Device", "execute Ping Host=h Count=-3 Opt.Size=9") == (
        "key = Host, value = h\nkey = Count, value = -3\nkey = Opt.Size, value = 9\n" + OUTPUT)
    assert model.params("Execute") == [{"Path": "Device.Ping", "ParameterList": [
        {"Name": "Host", "Value": "h"}, {"Name": "Count", "Value": -3}, {"Name": "Opt.Size", "Value": 9}]}]


def test_a_call_without_arguments_first_learns_the_input(kest, model):
    assert typed(kest, model, "execute Device.Ping") == OUTPUT
    assert asked(model) == [attributes("Device."), ("GetParameterAttributes", {"ParameterNames": ["Device.Ping."]}),
                            ("Execute", {"Path": "Device.Ping", "ParameterList": []})]


@pytest.mark.parametrize("line, message", [
    ("execute", "execute: no method.\n"),
    ("execute Nothing", "execute: Nothing: no such method.\n"),
    ("execute Ping Host", "execute: Host: no value.\n"),
    ("execute Ping Sent=1", "key = Sent, value = 1\nexecute: Sent: no such argument.\n"),
    ("execute Ping =1", "key = , value = 1\nexecute: : no such argument.\n"),
    ("execute Ping '#attr=1'", "key = #attr, value = 1\nexecute: #attr: no such argument.\n"),
    ("execute Ping Opt=1", "key = Opt, value = 1\nexecute: Opt: is an object or doesn't have default value.\n"),
    ("execute Ping Count=x", "key = Count, value = x\nexecute: Count: invalid value x.\n"),
    ("execute Ping Host=h Count= Nothing=1",
     "key = Host, value = h\nkey = Count, value = \nexecute: Count: invalid value .\n"),
    ("execute Time Host=h", "key = Host, value = h\nexecute: Host: no such argument.\n"),
])
def test_what_is_refused_before_anything_is_sent(kest, model, line, message):
    assert typed(kest, model, "cd Device", line) == message
    assert model.of("Execute") == []


def test_a_method_without_output_shows_its_status(kest, model):
    for answer in ({}, {"ParameterList": []}, {"ParameterList": 5}):
        model.on("Execute", answer)
        assert typed(kest, model, "execute Device.Ping") == "Status: OK\n"
    model.on("Execute", Error(9002, "it broke", {"Device.Ping": "busy"}))
    assert typed(kest, model, "execute Device.Ping") == '[9002] Internal error: it broke\nDevice.Ping: "busy"\n'


def test_requests(kest, fake):
    fake.on("Execute", {})
    run = kest("-r", "execute", "Device.Ping", to=fake)
    assert (run.out, run.status) == ("Status: OK\n", 255)
    run = kest("-r", "execute", "Device.Ping", "Host=h", to=fake)
    assert (run.out, run.status) == ("key = Host, value = h\nexecute: Host: no such argument.\n", 255)
    run = kest("-r", "execute", "", to=fake)
    assert (run.out, run.status) == ("execute: no method.\n", 255)
    fake.on("Execute", {"ParameterList": [{"Name": "Done", "Value": True}]})
    run = kest("-r", "execute", "Any", to=fake)
    assert (run.out, run.status) == ("\n└── Done = true\n", 0)
    assert fake.params("Execute") == 2 * [{"Path": "", "ParameterList": []}]


def test_an_argument_of_a_megabyte(kest, model):
    text = "x" * 1_000_000
    assert typed(kest, model, f"execute Device.Ping Host={text}").endswith(OUTPUT)
    assert model.params("Execute")[0]["ParameterList"][0]["Value"] == text


def test_a_ping_on_the_real_daemon(kest, veld):
    out = typed(kest, veld, "execute Device.IP.Diagnostics.IPPing Host=127.0.0.1 NumberOfRepetitions=1")
    assert out.startswith("key = Host, value = 127.0.0.1\nkey = NumberOfRepetitions, value = 1\n"), out
    assert "SuccessCount" in out or "[90" in out
