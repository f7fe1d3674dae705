"""What goes over the two links of a run, and where its configuration is looked for."""

import pytest

from lib import settings
from lib.program import Program
from lib.sandbox import namespace_command

VALUE = {"ParameterList": [{"Name": "Device.A", "Value": 1}]}


def test_every_run_has_a_session_of_its_own(kest, fake):
    kest("-n", "x", to=fake)
    kest("-n", "x", to=fake)
    one, two = fake.params("JoinGroup")
    assert one["Session"] != two["Session"]


def test_requests_are_compact_lines_with_ids_from_one(kest, fake):
    fake.on("GetParameterValues", VALUE)
    kest("-r", "get", "Device.A", "Device.B", to=fake)
    first, second = fake.of("GetParameterValues")
    assert first.raw == (b'{"jsonrpc":"2.0","id":1,"method":"GetParameterValues",'
                         b'"params":{"ParameterNames":["Device.A"]}}')
    assert second.id == 2


SHELL_ONLY = ["cd", "catree", "clear", "color", "help", "luarecord", "opt", "pwd", "record", "take", "tree", "up", "?"]


@pytest.mark.parametrize("name", SHELL_ONLY)
def test_what_only_the_shell_can_is_unknown_to_requests(kest, fake, name):
    run = kest("-r", name, to=fake)
    assert (run.out, run.status) == (f"{name}: unknown method.\n", 255)
    assert fake.methods() == ["JoinGroup"]


@pytest.mark.parametrize("name", ["get", "cat", "GetParameterValues"])
def test_requests_go_by_command_and_by_method_name(kest, fake, name):
    fake.on("GetParameterValues", VALUE)
    assert kest("-r", name, "Device.A", to=fake).out == "A = 1\n"


def test_an_event_carries_its_first_word_only(kest, fake):
    kest("-e", "12", '{"a": [1, null]}', "2", to=fake)
    fake.wait_for("Event")
    assert fake.params("Event") == [{"Id": 12, "Value": {"a": [1, None]}}]
    assert "id" not in fake.of("Event")[0].message


@pytest.mark.parametrize("home", ["", "/" + "h" * 250, "/" + "h" * 5000, None])
def test_a_home_of_any_length_is_survived(kest, fake, home):
    run = kest("-n", "x", to=fake, env={"HOME": home})
    assert (run.out, run.err, run.status) == ("Unsupported :(\n", "", 0)


def test_a_login_in_the_configuration_lasts(shell, fake, home):
    fake.serve({"Device.": {}, "Device.A": 1})
    config = home / ".local" / "kest" / "config"
    config.parent.mkdir(parents=True)
    config.write_text("login admin -p secret\n")
    shell(to=fake)
    assert fake.params("Login")[:2] == [{"User": "admin", "Password": "secret"}] * 2


def test_a_user_of_whom_the_system_knows_no_name_is_not_logged_in(sandbox, fake):
    if namespace_command() is None:
        pytest.skip("no permission for mounts of its own")
    fake.serve({"Device.": {}, "Device.A": 1})
    (sandbox.work / "names").write_text("passwd: files\n")
    command = (f"mount --bind names /etc/nsswitch.conf && mount --bind /dev/null /etc/passwd && "
               f'exec "{settings.KEST}" -u {fake.address}')
    run = Program([*namespace_command(), "sh", "-c", command], sandbox.environment(), sandbox.work, "pwd\n").finish()
    assert run.lines[-1] == ":", run.report()
    assert not fake.of("Login")


@pytest.mark.parametrize("failing", ["info", "info Device.B", "nothing"])
def test_a_command_that_fails_ends_the_configuration(kest, fake, tmp_path, failing):
    fake.serve({"Device.": {}, "Device.A": 1})
    config = tmp_path / "config"
    config.write_text(f"pwd\ncat Device.A\n{failing}\ncat Device.A\n")
    kest("-c", config, "-n", "x", to=fake)
    assert len(fake.params("GetParameterValues")) == 1
