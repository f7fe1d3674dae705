"""The gateway's methods, run by the real client on the real daemon."""

import json
import os
import socket
import struct
import threading
import time

import pytest

from lib import settings


class NameServer:
    """A name server on the loopback: host.example is 192.0.2.7, other names do not exist, silent.example gets no answer."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.address = "127.0.0.1:%d" % self.socket.getsockname()[1]
        self.asked = []
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            try:
                query, client = self.socket.recvfrom(4096)
            except OSError:
                return
            if len(query) < 17:  # the end
                return
            at, labels = 12, []
            while query[at]:
                labels.append(query[at + 1 : at + 1 + query[at]].decode())
                at += query[at] + 1
            question = query[12 : at + 5]
            (kind,) = struct.unpack(">H", query[at + 1 : at + 3])
            name = ".".join(labels)
            self.asked.append((name, kind))
            if name == "silent.example":
                continue
            answers = b""
            if name == "host.example" and kind == 1:
                answers = b"\xc0\x0c" + struct.pack(">HHIH", 1, 1, 60, 4) + bytes([192, 0, 2, 7])
            flags = 0x8180 if name == "host.example" else 0x8183
            head = query[:2] + struct.pack(">HHHHH", flags, 1, 1 if answers else 0, 0, 0)
            self.socket.sendto(head + question + answers, client)

    def close(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as last:
            last.sendto(b"end", self.socket.getsockname())
        self.thread.join()
        self.socket.close()


@pytest.fixture
def name_server():
    server = NameServer()
    yield server
    server.close()


@pytest.fixture
def admin(veld):
    peer = veld.connect()
    peer.call("Login", User="admin", Password="admin")
    return peer


def descriptors(veld):
    return len(os.listdir(f"/proc/{veld.pid}/fd"))


def wait_until(held):
    moment = settings.deadline()
    while not held():
        assert settings.remaining(moment), "never happened"
        time.sleep(0.005)


def lookup(server, name, **more):
    values = {"HostName": name, "DNSServer": server.address, **more}
    entries = [{"Name": name, "Value": value} for name, value in values.items()]
    return {"Path": "Device.DNS.Diagnostics.NSLookup", "ParameterList": entries}


def test_a_look_up_prints_its_result_as_a_tree(veld, kest, name_server):
    run = kest(
        to=veld,
        stdin="login admin -p admin\n"
        f"execute Device.DNS.Diagnostics.NSLookup HostName=host.example DNSServer={name_server.address} NumberOfRepetitions=2\n",
    )
    lines = run.lines
    lines = lines[lines.index("key = HostName, value = host.example") :]
    assert lines[:3] == [
        "key = HostName, value = host.example",
        f"key = DNSServer, value = {name_server.address}",
        "key = NumberOfRepetitions, value = 2",
    ]
    tree = "\n".join(lines)
    for part in ('IPAddresses      = "192.0.2.7"', 'HostNameReturned = "host.example"', 'Status = "Complete"', "SuccessCount = 2"):
        assert part in tree
    assert sorted(name_server.asked) == [("host.example", 1)] * 2 + [("host.example", 28)] * 2


def test_a_name_that_does_not_exist_is_a_result(admin, name_server):
    result = admin.call("Execute", **lookup(name_server, "nobody.example"))["ParameterList"]
    values = {entry["Name"]: entry["Value"] for entry in result}
    assert (values["Status"], values["SuccessCount"]) == ("Complete", 0)
    assert values["Result.1.Status"] == "Error_HostNameNotResolved"


def test_a_slow_method_holds_nobody_up_and_ends_with_its_client(veld, admin, name_server):
    before = descriptors(veld)
    slow = veld.connect()
    slow.call("Login", User="admin", Password="admin")
    slow.request("Execute", lookup(name_server, "silent.example", Timeout=30000, NumberOfRepetitions=16))
    wait_until(lambda: name_server.asked)
    for _ in range(100):
        assert admin.call("GetParameterValues", ParameterNames=["Device.DeviceInfo.Uptime"], timeout=2)
    # The same connection may go on too, before its method has ended.
    assert slow.call("GetParameterValues", ParameterNames=["Device.DeviceInfo.Uptime"], timeout=2)
    assert descriptors(veld) > before + 1
    slow.close()
    wait_until(lambda: descriptors(veld) == before)


def test_a_method_that_waits_costs_no_processor_time(veld, admin, name_server):
    def ticks():
        with open(f"/proc/{veld.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    number = admin.request("Execute", lookup(name_server, "silent.example", Timeout=1500))
    wait_until(lambda: name_server.asked)
    before = ticks()
    result = admin.answer(number)["result"]["ParameterList"]
    assert {"Name": "Result.1.Status", "Value": "Error_Timeout"} in result
    assert ticks() - before <= 30  # of about 150 that a busy wait would take


def test_arguments_are_checked(admin):
    def refused(path, **values):
        entries = [{"Name": name, "Value": value} for name, value in values.items()]
        return admin.answer(admin.request("Execute", {"Path": path, "ParameterList": entries}))["error"]

    ping = "Device.IP.Diagnostics.IPPing"
    assert refused(ping)["code"] == 9003
    assert refused(ping, Host=7)["code"] == 9006
    assert refused(ping, Host="127.0.0.1", NumberOfRepetitions=0)["code"] == 9007
    assert refused(ping, Host="127.0.0.1", DSCP=64)["data"] == {"DSCP": "must be at most 63"}
    assert refused(ping, Host="x" * 257)["code"] == 9007
    assert refused(ping, Host="x" * 1000000)["code"] == 9007
    assert refused(ping, Host="127.0.0.1", SuccessCount=1)["code"] == 9003
    assert refused("Device.DNS.Diagnostics.NSLookup", HostName="no name")["message"] == "HostName: not a host name"


def test_an_interface_is_known_to_those_who_may_read_its_name(veld_start, tmp_path, name_server):
    gateway = json.loads((settings.MODELS / "gateway.json").read_text())["root"]["Device"]["children"]
    children = {
        "DNS": gateway["DNS"],
        "Closed": {"type": "object", "read": "admin", "children": {"Name": {"type": "string", "default": "nosuch0"}}},
        "Open": {"type": "object", "children": {"Name": {"type": "string", "default": "nosuch0"}}},
        "Odd": {"type": "object", "children": {"Name": {"type": "object", "children": {}}}},
    }
    (tmp_path / "model.json").write_text(json.dumps({"format": 1, "root": {"Device": {"children": children}}}))

    def answered(rights, interface):
        veld = veld_start("--anonymous", rights, model=tmp_path / "model.json")
        peer = veld.connect()
        answer = peer.answer(peer.request("Execute", lookup(name_server, "host.example", Interface=interface)))
        return answer["error"]["message"]

    for rights, interface in (("user", "Device.Closed."), ("admin", "Device.Odd."), ("admin", "Device.Nothing.")):
        assert answered(rights, interface) == "Interface: no such interface"
    for rights, interface in (("admin", "Device.Closed."), ("user", "Device.Open.")):
        assert answered(rights, interface) == "cannot use the interface nosuch0"


def test_a_ping_answers_or_says_why_not(admin):
    entries = [{"Name": "Host", "Value": "127.0.0.1"}, {"Name": "Interface", "Value": "Device.IP.Interface.1."}]
    answer = admin.answer(admin.request("Execute", {"Path": "Device.IP.Diagnostics.IPPing", "ParameterList": entries[:1]}))
    try:
        socket.socket(socket.AF_INET, socket.SOCK_DGRAM, socket.IPPROTO_ICMP).close()
    except PermissionError:
        assert answer["error"]["code"] == 9001
        assert "net.ipv4.ping_group_range" in answer["error"]["message"]
        return
    values = {entry["Name"]: entry["Value"] for entry in answer["result"]["ParameterList"]}
    assert (values["Status"], values["SuccessCount"], values["FailureCount"]) == ("Complete", 4, 0)
    assert values["IPAddressUsed"] == "127.0.0.1"
