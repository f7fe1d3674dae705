"""Requests made at random from what could be meant: the daemon answers each, or closes the link, and never ends."""

import json
import random
from pathlib import Path

import pytest

from lib.wire import Closed

SMALL = Path(__file__).parent / "models" / "small.json"

METHODS = (
    "GetParameterNames GetParameterValues GetParameterAttributes SetParameterValues AddObject DeleteObject ChangeOrder "
    "Execute Login Logout JoinGroup SaveConfig FactoryReset Download Event Nothing"
).split()
PATHS = (
    ". Device. Device.Host. Device.Host.1. Device.Host.1.Alias Device.Host.3.Address. Device.Search. Device.Search.1 "
    "Device.Search.order Device.Echo Device.Echo.Text Device.Users.User. Device.Users.User.4.Password Device.Key "
    "Device.Level Device.Big Device.Ratio Device.Code Device.When Device.Restart Device.. .. Device.Host.99999999999999999999."
).split() + ["", "\0", "é" * 50]
VALUES = [0, 1, -1, 2**31, 2**63 - 1, -(2**63), 1.5, 1e308, True, False, None, "", "x", "AA", "x" * 300, [], {}, [[]]]
VALUES += ["18446744073709551615", "2024-01-01T00:00:00Z", "YWJj", "one", "two", "\0"]
URLS = ["file:///etc/hostname", "file:///nowhere", "file:///dev/zero", "netcat://127.0.0.1:1", "http://127.0.0.1:1/", ""]


class Chance(random.Random):
    def member(self, key):
        """A value for a member, of the right kind as a rule."""
        if self.random() < 0.08:
            return self.choice(VALUES + PATHS)
        if key == "ParameterNames":
            return [self.choice(PATHS) for _ in range(self.randint(0, 4))]
        if key == "ParameterList":
            names = PATHS + ["Text", "Result.Text"]
            count = self.randint(0, 4)
            return [{"Name": self.choice(names), "Value": self.choice(VALUES + PATHS)} for _ in range(count)]
        kinds = {
            ("ParameterPath", "ObjectName", "Path"): PATHS,
            ("Order", "Depth", "Group", "Id"): [0, 1, 2, 3, 9, 10, 12, 2**32 - 1, 2**62, -1],
            ("FileType",): ["File", "Config", "Firmware", "Other"],
            ("URL",): URLS,
            ("User",): ["root", "admin", "nobody-of-this-name"],
            ("NextLevel", "Receiver"): [True, False],
            ("Session", "MD5", "TargetFileName", "TransactionID", "Value"): VALUES,
        }
        return self.choice(next(choices for keys, choices in kinds.items() if key in keys))

    def line(self):
        keys = (
            "ParameterPath NextLevel ParameterNames Depth ParameterList ObjectName Order Path Group Session Receiver User "
            "Id Value FileType URL MD5 TargetFileName TransactionID"
        ).split()
        message = {"jsonrpc": "2.0", "id": "random", "method": self.choice(METHODS)}
        message["params"] = {key: self.member(key) for key in keys if self.random() < 0.5}
        if message["method"] == "Event":
            del message["id"]
        if self.random() < 0.02:
            del message[self.choice(list(message))]
        line = bytearray(json.dumps(message).encode())
        if self.random() < 0.03:
            for _ in range(self.randint(1, 4)):
                line[self.randrange(len(line))] = self.randrange(256)
        return bytes(line) + b"\n"


@pytest.mark.parametrize("seed", range(4))
def test_nothing_at_random_ends_the_daemon(veld_start, tmp_path, seed):
    veld = veld_start("--state", Path(tmp_path) / "state", "--populate", "2", "--download-timeout", "1", model=SMALL)
    chance = Chance(seed)
    peer = None
    for _ in range(1000):
        try:
            if peer is None:
                peer = veld.connect()
                peer.call("Login", User="root")
            peer.send_raw(chance.line())
            if chance.random() < 0.3:
                peer.call("GetParameterValues", ParameterNames=[])
        except (Closed, BrokenPipeError, ConnectionResetError):
            peer = None
    assert veld.value("Device.Serial") == "S1"
