"""The command line as a user meets it: what is printed where, and the exit status."""

import pytest

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
    assert (run.out, run.err, run.status) == ("Veltro Management System client.\nkest version 0.2.1\n", "", 0)


@pytest.mark.parametrize("words", [["-x"], ["--none"], ["-r"], ["-i"], ["-i", "1"], ["--groups"]])
def test_wrong_options_show_the_usage(kest, words):
    run = kest(*words)
    assert run.status == 1
    assert run.out == ""
    assert run.err.endswith(USAGE)


@pytest.mark.parametrize("words, message", [
    (["-l", "-l"], "Cannot execute 'listen' and 'listen' modes simultaneously.\n"),
    (["-s", "a", "-S", "b"], "Cannot execute 'script' and 'script' modes simultaneously.\n"),
    (["-S", "a", "-r", "x"], "Cannot execute 'request' and 'script-lua' modes simultaneously.\n"),
    (["--raw", "{}", "-e", "1"], "Cannot execute 'event' and 'raw' modes simultaneously.\n"),
    (["-g", "1,x"], "Invalid group number: 'x'.\n"),
    (["-g", ",".join(map(str, range(1, 66)))], "Too many groups: at most 64 can be joined.\n"),
    (["-r", "get", b"Device.\xff"], "Argument 5 is not valid UTF-8 text.\n"),
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
