"""Shell commands on pipes: what they print, and what they ask the daemon for.

    fake.serve(MODEL)
    refuse_logins(fake)
    assert typed(kest, fake, "cd Device", "pwd") == ":Device\\n"
    assert asked(fake) == []
"""

from .fake import Error

LAST_GREETING = "Enter 'help' or '?' for help, 'q' for exit.\n"

MODEL = {
    "DataModelVersion": "2",
    "Device.": {},
    "Device.Version": {"type": "string", "default": "", "value": "1.0"},
    "Device.Time.": {},
    "Device.Time.Enable": True,
    "Device.Time.Zone": "UTC",
    "Device.Time.Offset": 60,
    "Device.Time.Drift": {"type": "decimal", "access": "readWrite", "default": 0.5, "value": 1.5},
    "Device.Host.": {"multi": True, "ordered": True, "access": "readWrite"},
    "Device.Host.{i}.": {"access": "readWrite"},
    "Device.Host.{i}.Name": "",
    "Device.Host.1.": {"access": "readWrite"},
    "Device.Host.1.Name": "desk",
    "Device.Host.10.": {"access": "readWrite"},
    "Device.Host.10.Name": "lamp",
    "Device.Host.2.": {"access": "readWrite"},
    "Device.Host.2.Name": "door",
    "Device.Host.max_instance": {"type": "unsignedInt", "default": 0, "value": 10},
    "Device.Host.order": {"type": "string", "default": "", "value": "1,10,2"},
    "Device.List.": {"multi": True, "access": "readWrite"},
    "Device.List.{i}": "",
    "Device.List.1": "first",
    "Device.List.max_instance": {"type": "unsignedInt", "default": 0, "value": 1},
    "Device.Ping": {"type": "method"},
    "Device.Ping.Host": {"type": "string", "default": "", "Direction": "input", "value": ""},
    "Device.Ping.Count": {"type": "int", "default": 1, "Direction": "input", "value": 0},
    "Device.Ping.Opt.Size": {"type": "unsignedInt", "default": 56, "Direction": "input", "value": 0},
    "Device.Ping.Sent": {"type": "int", "default": 0, "Direction": "output", "value": 0},
}


def refuse_logins(fake):
    """The shell stays anonymous, so that it asks for the root once when it starts."""
    fake.on("Login", Error(9001, "Request denied"))


def typed(kest, to, *lines):
    """What the shell prints for these lines, greeting left out."""
    run = kest(to=to, stdin="".join(line + "\n" for line in lines))
    assert run.err == "" and run.status == 0, run
    return run.out.partition(LAST_GREETING)[2]


def asked(fake):
    """(method, parameters) of what was asked for after the shell's start, which ends with the root's attributes."""
    requests = [(request.method, request.params) for request in fake.requests]
    root = ("GetParameterAttributes", {"ParameterNames": ["."], "Depth": 1})
    return requests[requests.index(root) + 1 :]


def attributes(name, depth=1):
    return "GetParameterAttributes", {"ParameterNames": [name], "Depth": depth}


def values(name):
    return "GetParameterValues", {"ParameterNames": [name]}


def next_level(name):
    return "GetParameterNames", {"ParameterPath": name, "NextLevel": True}
