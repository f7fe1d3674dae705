"""Questions about much of the model are answered in slices: nobody waits for them, and each answer tells of one moment."""

import re
import select
import socket
import threading

import pytest

from lib.program import cpu_seconds
from lib.wire import Peer

FIRST, LAST = "Device.DeviceInfo.ProvisioningCode", "Device.Time.NTPServer1"


@pytest.fixture
def large(veld_start):
    return veld_start("--populate", "50,10")


@pytest.fixture
def admin(large):
    peer = large.connect()
    peer.call("Login", User="root")
    return peer


def entries(*names_and_values):
    return [{"Name": name, "Value": value} for name, value in names_and_values]


def values(result):
    return {entry["Name"]: entry["Value"] for entry in result["ParameterList"]}


def get(peer, *names):
    return peer.request("GetParameterValues", {"ParameterNames": list(names)})


def test_others_are_answered_while_a_long_answer_is_made(large):
    asks, other = large.connect(), large.connect()
    for _ in range(50):
        number = get(asks, ".")
        other.call("GetParameterValues", ParameterNames=["Device.DeviceInfo.ModelName"])
        waits = not select.select([asks.link], [], [], 0)[0]
        assert len(asks.answer(number)["result"]["ParameterList"]) > 10000
        if waits:
            return
    assert False, "the long answer always came first"


def test_what_is_set_together_is_told_together(large, admin):
    stop = threading.Event()
    admin.call("SetParameterValues", ParameterList=entries((FIRST, "0"), (LAST, "0")))

    def setting():
        writer = large.connect()
        writer.call("Login", User="root")
        count = 0
        while not stop.is_set():
            count += 1
            writer.call("SetParameterValues", ParameterList=entries((FIRST, str(count)), (LAST, str(count))))
            number = writer.call("AddObject", ObjectName="Device.NAT.PortMapping.")["InstanceNumber"]
            writer.call("DeleteObject", ObjectName=f"Device.NAT.PortMapping.{number}.")

    thread = threading.Thread(target=setting)
    thread.start()
    try:
        seen = set()
        for _ in range(1000):
            told = values(admin.call("GetParameterValues", ParameterNames=["Device."]))
            assert told[FIRST] == told[LAST]
            mappings = {name.split(".")[3] for name in told if name.startswith("Device.NAT.PortMapping.") and name.count(".") > 3}
            assert told["Device.NAT.PortMappingNumberOfEntries"] == len(mappings)
            seen.add(told[FIRST])
            if len(seen) > 8:
                break
        assert len(seen) > 8
    finally:
        stop.set()
        thread.join()


def test_a_clients_answers_keep_their_order(large):
    peer = large.connect()
    numbers = [get(peer, "."), get(peer, "Device.DeviceInfo.ModelName"), get(peer, "."), get(peer, "Device.Nothing")]
    came = [peer.receive()["id"] for _ in numbers]
    assert came == numbers


def test_an_answer_reaches_who_sends_no_more_and_leaving_harms_nobody(large):
    leaving = [large.connect() for _ in range(20)]
    for peer in leaving:
        get(peer, ".")
    for peer in leaving:
        peer.close()
    asks = large.connect()
    number = get(asks, ".")
    asks.link.shutdown(socket.SHUT_WR)
    assert len(asks.answer(number)["result"]["ParameterList"]) > 10000
    assert asks.closed()


def test_many_at_once_are_all_answered_with_the_same(large):
    peers = [large.connect() for _ in range(8)]
    questions = [
        ("GetParameterNames", {"ParameterPath": ".", "NextLevel": False}),
        ("GetParameterAttributes", {"ParameterNames": ["Device."], "Depth": 20}),
    ]
    numbers = [(peer, peer.request(*questions[at % 2])) for at, peer in enumerate(peers)]
    answers = [peer.answer(number)["result"]["ParameterList"] for peer, number in numbers]
    assert all(len(answer) > 10000 for answer in answers)
    # The machine's own rows come and go.
    kept = [[entry for entry in answer if entry["Name"].startswith("Device.NAT.")] for answer in answers]
    assert all(answer == kept[at % 2] for at, answer in enumerate(kept))


@pytest.mark.parametrize("method, parameters", [("Reboot", {"Force": False}), ("Reboot", {"Force": True}), ("FactoryReset", {})])
def test_what_was_asked_before_the_device_goes_is_still_answered(veld_start, method, parameters):
    large = veld_start("--populate", "50,10", "--reboot-time", "0")
    asks, admin = large.connect(), large.connect()
    admin.call("Login", User="root")
    number = get(asks, ".")
    admin.request(method, parameters)
    assert len(asks.answer(number)["result"]["ParameterList"]) > 10000


def test_another_account_does_not_wait_behind_all_questions_of_one(veld_start):
    veld = veld_start("--populate", "50,10", "--listen", "tcp://127.0.0.1:0", "--log", "debug")
    admin = veld.connect()
    admin.call("Login", User="root")
    many = [Peer(veld.tcp_address()) for _ in range(30)]
    numbers = [get(peer, ".") for peer in many]
    number = get(admin, ".")
    assert len(admin.answer(number)["result"]["ParameterList"]) > 10000
    for peer, own in zip(many, numbers):
        assert len(peer.answer(own)["result"]["ParameterList"]) > 10000
    # Of theirs there is the one that was under way, and one before it in the turn.
    lines = re.findall(r"client \d+ \((127\.0\.0\.1|root)\): (?:\d+ )?(GetParameterValues|answer)", veld.log)
    asked = lines.index(("root", "GetParameterValues"))
    answered = lines.index(("root", "answer"), asked)
    assert lines[asked:answered].count(("127.0.0.1", "answer")) <= 3


def test_questions_that_wait_do_not_keep_the_device_from_its_reboot(veld_start):
    veld = veld_start("--populate", "50,10", "--listen", "tcp://127.0.0.1:0", "--reboot-time", "0.1")
    admin = veld.connect()
    admin.call("Login", User="root")
    many = [Peer(veld.tcp_address()) for _ in range(30)]
    for peer in many:
        get(peer, *["."] * 40)
    admin.call("Reboot", Force=True)
    before = cpu_seconds(veld.pid)
    assert admin.closed()
    assert cpu_seconds(veld.pid) - before < 8  # of half a second and more for each of thirty
