"""The daemon's doors: TCP beside UNIX, TLS on both."""

import re
import socket
import ssl
import subprocess
import time
from pathlib import Path

import pytest

from lib import settings
from lib.program import cpu_seconds
from lib.wire import Closed, Peer, WireError

SMALL = Path(__file__).parent / "models" / "small.json"


def secure(address, certificate, **options):
    context = ssl.create_default_context(cafile=certificate[0])
    for name, value in options.items():
        setattr(context, name, value)
    if address.startswith("tcp://"):
        host, _, port = address[6:].rpartition(":")
        link = socket.create_connection((host, int(port)), settings.DEADLINE)
    else:
        link = socket.socket(socket.AF_UNIX)
        link.settimeout(settings.DEADLINE)
        link.connect(address)
    return Peer(address, context.wrap_socket(link, server_hostname="localhost"))


def ask(peer):
    answer = peer.call("GetParameterValues", ParameterNames=["Device.Serial"])
    assert answer["ParameterList"] == [{"Name": "Device.Serial", "Value": "S1"}]


def test_tcp_beside_unix_and_the_chosen_port_is_told(veld_start):
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=SMALL)
    address = veld.tcp_address()
    assert not address.endswith(":0")
    ask(Peer(address))
    ask(veld.connect())


def test_ipv6_and_names(veld_start):
    veld = veld_start("--listen", "tcp://[::1]:0", "--listen", "tcp://localhost:0", model=SMALL)
    veld.tcp_address()
    moment = settings.deadline()
    while len(re.findall("^listening on", veld.log, re.M)) < 2 and settings.remaining(moment):
        time.sleep(0.005)
    addresses = re.findall(r"^listening on (tcp://\S+)$", veld.log, re.M)
    assert addresses[0].startswith("tcp://[::1]:") and addresses[1].startswith("tcp://localhost:")
    for address in addresses:
        ask(Peer(address))


def test_over_tcp_nobody_logs_in_without_a_password(veld_start):
    veld = veld_start("--listen", "tcp://127.0.0.1:0", model=SMALL)
    peer = Peer(veld.tcp_address())
    with pytest.raises(WireError) as error:
        peer.call("Login", User="root")
    assert error.value.code == 9001
    assert peer.call("Login", User="admin", Password="admin") == {}


def test_a_reboot_closes_tcp_too_and_opens_the_same_port(veld_start):
    veld = veld_start("--listen", "tcp://127.0.0.1:0", "--reboot-time", "0.2", model=SMALL)
    address = veld.tcp_address()

    def is_away():
        peer = Peer(address)
        peer.call("Login", User="admin", Password="admin")
        peer.call("Reboot", Force=True)
        with pytest.raises(Closed):
            peer.receive()
        try:
            Peer(address).close()
        except OSError:
            away = True
        else:
            away = False
        veld.wait_until_up(address=address)
        ask(Peer(address))
        return away

    assert any(is_away() for _ in range(5))  # the machine may do something else until it is back, but not every time


@pytest.mark.parametrize("kind", ["unix", "tcp"])
def test_tls(veld_start, certificate, kind):
    veld = veld_start(
        "--listen", "tcp://127.0.0.1:0", "--tls-cert", certificate[0], "--tls-key", certificate[1], model=SMALL
    )
    address = veld.tcp_address() if kind == "tcp" else veld.address
    peer = secure(address, certificate)
    assert peer.link.version() in ("TLSv1.2", "TLSv1.3")
    ask(peer)
    peer.send_raw(b'{"id":1,"method":"Logout"}\n' * 2000)
    assert [peer.receive()["id"] for _ in range(2000)] == [1] * 2000
    older = secure(address, certificate, maximum_version=ssl.TLSVersion.TLSv1_2)
    ask(older)
    if kind == "unix":
        assert peer.call("Login", User="root") == {}


def test_tls_large_messages_both_ways(veld_start, certificate):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1], model=SMALL)
    peer = secure(veld.address, certificate)
    names = ["Device."] * 3000
    answer = peer.call("GetParameterValues", ParameterNames=names, timeout=30)
    assert len(answer["ParameterList"]) % 3000 == 0
    big = "x" * (8 << 20)
    peer.join(30)
    peer.send_event(30, big)
    assert peer.event() == (30, big)


def test_a_record_that_does_not_arrive_whole_costs_no_processor_time(veld_start, certificate):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1])
    received, written = ssl.MemoryBIO(), ssl.MemoryBIO()
    context = ssl.create_default_context(cafile=certificate[0])
    session = context.wrap_bio(received, written, server_hostname="localhost")
    slow = veld.connect()

    def finished(step):
        while True:
            try:
                return step()
            except ssl.SSLWantReadError:
                slow.send_raw(written.read())
                received.write(slow.link.recv(65536))

    finished(session.do_handshake)
    session.write(b'{"id":1,"method":"Logout"}\n')
    record = written.read()  # behind the end of the handshake
    slow.send_raw(record[:-20])
    # The daemon meanwhile asks a name server that never answers.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        peer = secure(veld.address, certificate)
        peer.call("Login", User="admin", Password="admin")
        values = {"HostName": "host.example", "DNSServer": "127.0.0.1:%d" % silent.getsockname()[1], "Timeout": 1000}
        entries = [{"Name": name, "Value": value} for name, value in values.items()]
        before = cpu_seconds(veld.pid)
        peer.call("Execute", Path="Device.DNS.Diagnostics.NSLookup", ParameterList=entries)
        assert cpu_seconds(veld.pid) - before < 0.3  # of about 1 that a busy wait would take
    slow.send_raw(record[-20:])
    assert finished(session.read) == b'{"jsonrpc":"2.0","id":1,"result":{}}\n'


def test_a_plain_client_at_a_tls_door_is_turned_away(veld_start, certificate):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1], model=SMALL)
    plain = veld.connect()
    plain.send_raw(b'{"id":1,"method":"Logout"}\n')
    try:
        assert plain.closed()
    except ValueError:
        pass  # the alert, which is no message
    ask(secure(veld.address, certificate))


def test_a_client_that_never_finishes_its_handshake_holds_nobody_up(veld_start, certificate):
    veld = veld_start("--tls-cert", certificate[0], "--tls-key", certificate[1], model=SMALL)
    silent = [veld.connect() for _ in range(20)]
    silent[0].send_raw(b"\x16\x03\x01\x02")
    ask(secure(veld.address, certificate))
    assert all(peer.closed(30) for peer in silent)  # after ten seconds


def started(*options):
    run = subprocess.run([settings.VELD, *options], capture_output=True, text=True, timeout=settings.DEADLINE)
    return run.returncode, run.stdout, run.stderr


def test_what_cannot_be_listened_on_is_said(certificate, tmp_path):
    common = ("--model", SMALL)
    assert started(*common, "--listen", "127.0.0.1:1")[0] == 2
    for address in ("tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://:1", "tcp://127.0.0.1:x", "tcp://127.0.0.1:65536", "tcp://::1:0"):
        status, out, said = started(*common, "--listen", address)
        assert (status, out, said) == (1, "", f"veld: {address}: an address has the form tcp://HOST:PORT\n")
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        address = f"tcp://127.0.0.1:{taken.getsockname()[1]}"
        assert started(*common, "--listen", address) == (1, "", f"veld: {address}: Address already in use\n")
    status, _, said = started(*common, "--listen", "tcp://no..host:1")  # no label is empty
    assert status == 1 and said.startswith("veld: tcp://no..host:1: ")
    assert started(*common, "--tls-cert", certificate[0])[0] == 2
    status, _, said = started(*common, "--tls-cert", tmp_path / "none", "--tls-key", certificate[1])
    assert status == 1 and said.startswith(f"veld: {tmp_path / 'none'}: ")
    status, _, said = started(*common, "--tls-cert", certificate[0], "--tls-key", certificate[0])
    assert status == 1 and said.startswith(f"veld: {certificate[0]}: ")
    locked = tmp_path / "locked"  # nobody is asked for the word
    subprocess.run(["openssl", "pkey", "-in", certificate[1], "-aes128", "-passout", "pass:secret", "-out", locked], check=True)
    status, _, said = started(*common, "--tls-cert", certificate[0], "--tls-key", locked)
    assert status == 1 and said.startswith(f"veld: {locked}: ")


def test_a_path_as_long_as_a_socket_may_have(tmp_path):
    for length, fits in ((107, True), (108, False)):
        path = Path(tmp_path) / ("s" * (length - len(str(tmp_path)) - 1))
        with subprocess.Popen(
            [settings.VELD, "--model", SMALL, "--socket", path], stderr=subprocess.PIPE, text=True
        ) as veld:
            if fits:
                moment = settings.deadline()
                while not path.exists() and settings.remaining(moment):
                    time.sleep(0.005)
                ask(Peer(str(path)))
                veld.terminate()
            assert veld.wait(settings.DEADLINE) == (0 if fits else 1)
            assert veld.stderr.read() == ("" if fits else f"veld: {path}: the path is too long for a socket\n")


def test_populate(veld_start):
    veld = veld_start("--populate", "3,2", model=SMALL)
    peer = veld.connect()
    answer = peer.call("GetParameterValues", ParameterNames=["Device.Host.", "Device.Search.order"])
    names = [entry["Name"] for entry in answer["ParameterList"]]
    assert "Device.Host.3.Address.2.IP" in names and "Device.Host.4.Alias" not in names
    assert answer["ParameterList"][-1]["Value"] == "2,1,3"
    # No more than the table takes.
    crowded = veld_start("--populate", "9", model=SMALL).connect()
    answer = crowded.call("GetParameterValues", ParameterNames=["Device.HostNumberOfEntries"])
    assert answer["ParameterList"][0]["Value"] == 4
