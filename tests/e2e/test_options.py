"""The command line as a user meets it: what is printed where, and the exit status."""

import pytest

from lib import settings

VALUE = {"ParameterList": [{"Name": "Device.A", "Value": 1}]}
USAGE = """Veltro Management System client.
Usage: kest [options]

Options:
\t-r, --request <name> [<params>]     Proceed request.
\t-n, --notify <name> [<params>]      Send notify.
\t-e, --event <id> [<params>]         Send event.
\t-l, --listen                        Listen for incoming events (specify as -g).
\t    --raw <json-msg>                Send raw JSON-RPC message.
\t-s, --script <path-to-script>       Proceed script file.
\t-S, --lua-script <path-to-script>   Proceed Lua script file.
\t-g, --groups <gr1>[,<gr2>,..,<grN>] Join selected groups.
\t    --ssl                           Use SSL layer.
\t-c, --config <path>                 Path to config file (default is "$HOME/.local/kest/config").
\t-u, --unixpath <path>               UNIX socket path to connect (default is "/var/run/veld.sock").
\t-h, --help                          Print this help message.
\t-v, --version                       Display kest version.
"""


@pytest.mark.parametrize("option", ["-h", "--help", "--he"])
def test_help(kest, option):
    run = kest(option)
    assert (run.out, run.err, run.status) == (USAGE, "", 0)


def test_the_usage_names_the_program_not_its_link(kest):
    assert kest("-h", name="kest_lua").out == USAGE


@pytest.mark.parametrize("option", ["-v", "--version"])
def test_version(kest, option):
    run = kest(option)
    assert (run.out, run.err, run.status) == (f"Veltro Management System client.\nkest version {settings.VERSION}\n", "", 0)


@pytest.mark.parametrize("words", [["-x"], ["--none"], ["-r"], ["-i"], ["-i", "1"], ["--groups"]])
def test_wrong_options_show_the_usage(kest, words):
    run = kest(*words)
    assert run.status == 1
    assert run.out == ""
    assert run.err.endswith(USAGE)


def both(new, old):
    return f"Cannot execute '{new}' and '{old}' modes simultaneously.\n"


@pytest.mark.parametrize("words, message", [
    (["-l", "-l"], both("listen", "listen")),
    (["-r", "a", "-n", "b"], both("notify", "request")),
    (["-n", "a", "-r", "b"], both("request", "notify")),
    (["-e", "1", "-l"], both("listen", "event")),
    (["-l", "-e", "1"], both("event", "listen")),
    (["--raw", "{}", "-e", "1"], both("event", "raw")),
    (["--raw", "{}", "-s", "f"], both("script", "raw")),
    (["-r", "a", "--raw", "{}"], both("raw", "request")),
    (["-s", "a", "-S", "b"], both("script", "script")),
    (["-S", "a", "-s", "b"], both("script", "script-lua")),
    (["-S", "a", "-r", "x"], both("request", "script-lua")),
    (["-g", "1,x"], "Invalid group number: 'x'.\n"),
    (["-g", "1,2,0x3"], "Invalid group number: '0x3'.\n"),
    (["-g", "1,,y,z"], "Invalid group number: 'y'.\n"),
    (["-g", "1 2"], "Invalid group number: '1 2'.\n"),
    (["-g", ",".join(map(str, range(1, 66)))], "Too many groups: at most 64 can be joined.\n"),
    (["-r", "get", b"Device.\xff"], "Argument 'Device.\\xff' is not valid UTF-8 text.\n"),
])
def test_usage_errors_end_before_any_connection(kest, fake, words, message):
    run = kest(*words, to=fake)
    assert (run.out, run.err, run.status) == ("", message, 1)
    assert fake.connections == []


@pytest.mark.parametrize("name", ["kest_interpreter", "kest_lua"])
def test_a_program_name_is_a_mode(kest, fake, name):
    run = kest("-r", "x", to=fake, name=name)
    assert (run.err, run.status) == ("Cannot execute 'request' and 'interactive' modes simultaneously.\n", 1)


def test_standard_output_may_be_closed(kest, sandbox):
    from lib import settings
    from lib.program import Program

    run = Program(["sh", "-c", f'"{settings.KEST}" -h >&-; echo "$?" >&2'], sandbox.environment(), sandbox.work).finish()
    assert run.err == "0\n"


def test_groups_accumulate_in_their_order(kest, fake):
    kest("-g", "1,,2", "-n", "x", "-g", "7", to=fake)
    assert [params["Group"] for params in fake.params("JoinGroup")] == [4, 1, 2, 7]


def test_sixty_four_groups_are_joined(kest, fake):
    groups = list(range(100, 164))
    assert kest("-n", "x", "-g", ",".join(map(str, groups)), to=fake).status == 0
    assert [params["Group"] for params in fake.params("JoinGroup")] == [4, *groups]


def test_an_event_id_that_is_no_number_is_said_and_the_run_goes_on(kest, fake):
    run = kest("-e", "abc", to=fake)
    assert (run.err, run.status) == ("Group id must be an integer.\n", 0)
    fake.wait_for("Event")
    assert fake.params("Event") == [{"Id": 0}]


def test_a_later_socket_path_replaces_an_earlier_one(kest, fake):
    fake.on("GetParameterValues", VALUE)
    run = kest("-u", "/nonexistent/a", "-u", fake.address, "-r", "get", "Device.A")
    assert (run.out, run.status) == ("A = 1\n", 0)


def test_long_options_mean_the_same(kest, fake, tmp_path):
    script = tmp_path / "script"
    script.write_text("echo hello\n")
    run = kest("--unixpath", fake.address, "--config", tmp_path / "none", "--script", script, "--groups", "5")
    assert run.out == "hello\n"
    assert [params["Group"] for params in fake.params("JoinGroup")] == [4, 5]


def test_options_may_follow_positional_arguments(kest, fake):
    fake.on("GetParameterValues", VALUE)
    assert kest("-r", "get", "Device.A", "-u", fake.address, "Device.A").out == "A = 1\nA = 1\n"
