"""The daemon as a service of a machine: its rights, its manager, its sockets."""

import os
import pwd
import signal
import socket
import ssl
import stat
import subprocess
import time
from pathlib import Path

import pytest

from lib import settings
from lib.certificate import make_certificate
from lib.wire import Closed, Peer
from test_veld_hostile import SMALL, ask

NOBODY = pwd.getpwnam("nobody")
only_root = pytest.mark.skipif(os.getuid() != 0, reason="needs root")


def uids(pid):
    status = Path(f"/proc/{pid}/status").read_text()
    return {int(word) for line in status.splitlines() if line.startswith("Uid:") for word in line.split()[1:]}


@only_root
def test_rights_are_given_up_when_sockets_and_state_are_open(veld_start, sandbox):
    state = sandbox.root / "state"
    for folder in [sandbox.root, *sandbox.root.parents]:
        if folder != Path("/"):
            folder.chmod(folder.stat().st_mode | 0o011)
    small = veld_start("--state", state, "--run-as", "nobody", "--reboot-time", "0.1", model=SMALL)
    # The socket is there a moment before the rights are gone.
    ask(small.connect())
    assert uids(small.pid) == {NOBODY.pw_uid}
    assert os.stat(state).st_uid == NOBODY.pw_uid
    peer = small.connect()
    peer.call("Login", User="root")
    peer.call("SetParameterValues", ParameterList=[{"Name": "Device.Name", "Value": "kept"}])
    peer.call("SaveConfig")
    assert os.stat(state / "config.json").st_uid == NOBODY.pw_uid
    # What was opened as root serves on when the device has been away.
    peer.call("Reboot", Force=True)
    assert peer.closed()
    moment = settings.deadline()
    while settings.remaining(moment):
        try:
            assert small.value("Device.Name") == "kept"
            return
        except (Closed, OSError):
            continue
    raise AssertionError(small.report())


def refused_start(*options):
    run = subprocess.run([settings.VELD, "--model", SMALL, *options], capture_output=True, text=True, timeout=settings.DEADLINE)
    return run.returncode, run.stderr


def test_users_groups_and_modes_that_there_are_not(tmp_path):
    place = ("--socket", Path(tmp_path) / "s")
    assert refused_start(*place, "--run-as", "no-such-user") == (1, "veld: no-such-user: no such user\n")
    assert refused_start(*place, "--socket-group", "no-such-group") == (1, "veld: no-such-group: no such group\n")
    assert refused_start(*place, "--socket-mode", "rw") == (2, "veld: --socket-mode rw: must be octal digits, like 0660\n")
    assert refused_start(*place, "--socket-mode", "1777")[0] == 2


@only_root
def test_the_socket_has_the_rights_that_were_asked_for(veld_start):
    small = veld_start("--socket-mode", "0640", "--socket-group", NOBODY.pw_gid, model=SMALL)
    found = os.stat(small.address)
    assert (stat.S_IMODE(found.st_mode), found.st_gid) == (0o640, NOBODY.pw_gid)


def as_nobody(*options):
    run = subprocess.run(
        ["setpriv", f"--reuid={NOBODY.pw_uid}", f"--regid={NOBODY.pw_gid}", "--clear-groups", settings.VELD, "--model", SMALL, *options],
        capture_output=True, text=True, timeout=settings.DEADLINE,
    )  # fmt: skip
    return run.returncode, run.stderr


@only_root
def test_only_root_runs_as_somebody_else():
    here = ("--listen", "tcp://127.0.0.1:0")
    assert as_nobody(*here, "--run-as", "root") == (1, "veld: only root can run as root\n")
    # Who it is already it may become; what is wrong comes later.
    assert as_nobody("--run-as", "nobody", "--socket", "/proc/s") == (1, "veld: /proc/s: No such file or directory\n")


@only_root
def test_without_a_place_to_listen_at_there_is_the_usual_one():
    assert as_nobody() == (1, "veld: /var/run/veld.sock: Permission denied\n")


def test_files_that_can_have_no_directory_stop_the_start(tmp_path):
    (tmp_path / "file").write_text("")
    options = ("--socket", tmp_path / "s", "--files", tmp_path / "file" / "below")
    assert refused_start(*options) == (1, f"veld: {tmp_path}/file/below: Not a directory\n")


@pytest.fixture(params=["path", "abstract"])
def manager(sandbox, request):
    """A service manager's socket."""
    path = sandbox.root / "notify"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as link:
        link.bind(str(path) if request.param == "path" else f"\0{path}")
        link.settimeout(settings.DEADLINE)
        yield link


def place(manager):
    """Its address as a manager writes it."""
    address = manager.getsockname()
    return address if isinstance(address, str) else "@" + address[1:].decode()


def test_the_manager_hears_when_the_daemon_is_ready_and_when_it_ends(veld_start, manager):
    small = veld_start(model=SMALL, env={"NOTIFY_SOCKET": place(manager)})
    assert manager.recv(100) == b"READY=1"
    ask(small.connect())
    small.process.send_signal(signal.SIGHUP)
    assert manager.recv(100).startswith(b"RELOADING=1\nMONOTONIC_USEC=")
    assert manager.recv(100) == b"READY=1"
    small.stop()
    assert manager.recv(100) == b"STOPPING=1"


def test_the_watchdog_is_fed(veld_start, manager):
    veld_start(model=SMALL, env={"NOTIFY_SOCKET": place(manager), "WATCHDOG_USEC": "40000"})
    assert [manager.recv(100) for _ in range(4)] == [b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1", b"WATCHDOG=1"]


def test_a_watchdog_of_another_process_is_not_fed(veld_start, manager):
    small = veld_start(model=SMALL, env={"NOTIFY_SOCKET": place(manager), "WATCHDOG_USEC": "1000", "WATCHDOG_PID": "1"})
    assert manager.recv(100) == b"READY=1"
    for _ in range(50):
        ask(small.connect())
    small.stop()
    assert manager.recv(100) == b"STOPPING=1"


@pytest.mark.parametrize("kind", ["unix", "tcp"])
def test_sockets_that_are_handed_over_are_served(sandbox, kind):
    path = str(sandbox.root / "given")
    with socket.socket(socket.AF_UNIX if kind == "unix" else socket.AF_INET) as given:
        given.bind(path if kind == "unix" else ("127.0.0.1", 0))
        given.listen()
        address = path if kind == "unix" else "tcp://127.0.0.1:%d" % given.getsockname()[1]
        process = subprocess.Popen(
            ["sh", "-c", 'LISTEN_PID=$$ LISTEN_FDS=1 exec "$@" 3<&0 </dev/null', "sh", settings.VELD, "--model", SMALL],
            stdin=given, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
    try:
        with Peer(address) as peer:
            ask(peer)
        process.send_signal(signal.SIGTERM)
        assert process.wait(settings.DEADLINE) == 0
        assert process.stdout.read() == ("" if kind == "unix" else f"listening on {address}\n")
    finally:
        process.kill()
        process.wait()
        process.stdout.close()
    # It belongs to whoever made it.
    assert kind == "tcp" or os.path.exists(path)


@pytest.mark.parametrize("kind", ["datagrams", "connected", "not listening", "nothing"])
def test_what_is_handed_over_and_is_no_listening_socket_is_refused(sandbox, kind):
    path = str(sandbox.root / "given")
    given, other = socket.socketpair()
    if kind in ("datagrams", "not listening"):
        other.close()
        other = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM if kind == "datagrams" else socket.SOCK_STREAM)
        other.bind(path)
    handed = "3<&-" if kind == "nothing" else "3<&0"
    run = subprocess.run(
        ["sh", "-c", f'LISTEN_PID=$$ LISTEN_FDS=1 exec "$@" {handed} </dev/null', "sh", settings.VELD, "--model", SMALL],
        stdin=other, capture_output=True, text=True, timeout=settings.DEADLINE,
    )  # fmt: skip
    given.close()
    other.close()
    what = path if kind in ("datagrams", "not listening") else "descriptor 3"
    assert (run.returncode, run.stdout) == (1, "")
    assert run.stderr == f"veld: {what}: no listening stream socket was handed over\n"


@pytest.mark.tls
def test_a_hang_up_reads_the_certificate_again(veld_start, tmp_path, sandbox):
    folder = Path(tmp_path) / "tls"
    folder.mkdir()
    certificate, key = make_certificate(folder)
    veld = veld_start("--listen", "tcp://127.0.0.1:0", "--tls-cert", certificate, "--tls-key", key, model=SMALL)
    host, port = veld.tcp_address()[len("tcp://") :].rsplit(":", 1)

    def shown():
        return ssl.get_server_certificate((host, int(port)))

    first = shown()
    make_certificate(folder)
    assert shown() == first
    veld.process.send_signal(signal.SIGHUP)
    moment = settings.deadline()
    while shown() == first and settings.remaining(moment):
        time.sleep(0.005)
    second = shown()
    assert second == ssl.DER_cert_to_PEM_cert(ssl.PEM_cert_to_DER_cert(certificate.read_text()))
    # One that is none changes nothing.
    key.write_text("none")
    veld.process.send_signal(signal.SIGHUP)
    while "the certificate stays as it was" not in veld.log and settings.remaining(moment):
        time.sleep(0.005)
    assert shown() == second
