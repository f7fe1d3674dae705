"""Completion of kest in the user's own shell: real bash and zsh on a terminal, with the files that are installed for them."""

import os
import re
import socket

import pytest

from lib import settings
from lib.terminal import Key

FILES = settings.BUILD / "completion"
PROMPT = "% "

# The shells wait for kest, and not for long.
pytestmark = pytest.mark.load


class Bash:
    program = "/bin/bash"
    before = "/dev/null"

    def __init__(self, terminal, sandbox):
        rc = sandbox.home / "rc"
        rc.write_text(
            f"PS1='{PROMPT}'; unset HISTFILE; PATH={settings.KEST.parent}:$PATH\nbind 'set bell-style none'\n"
            f"bind 'set enable-bracketed-paste off'\nsource {self.before}\nsource {FILES}/kest\n"
        )
        self.terminal = terminal("--noprofile", "--rcfile", rc, "-i", program=self.program, columns=160, rows=40)


class BashWithPackage(Bash):
    """With the package bash-completion, which completes what it knows in ways of its own."""

    before = "/usr/share/bash-completion/bash_completion"


class Zsh:
    program = "/usr/bin/zsh"

    def __init__(self, terminal, sandbox):
        (sandbox.home / ".zshrc").write_text(
            f"PS1='%{PROMPT}'; unsetopt beep prompt_cr prompt_sp; path=({settings.KEST.parent} $path)\n"
            f"fpath=({FILES} $fpath)\nautoload -Uz compinit; compinit -u -d {sandbox.home}/dump\n"
        )
        self.terminal = terminal("-d", "-i", program=self.program, columns=160, rows=40, env={"ZDOTDIR": str(sandbox.home)})


def shell(kind, terminal, sandbox):
    for file in (kind.program, getattr(kind, "before", kind.program)):
        if not os.path.exists(file):
            pytest.skip(f"there is no {file}")
    return User(kind, terminal, sandbox)


@pytest.fixture(params=[Bash, Zsh])
def user(request, terminal, sandbox):
    """A user's shell: completes(line, to) says what a Tab makes of the line; offered(line, among) is what is listed."""
    return shell(request.param, terminal, sandbox)


@pytest.fixture(params=[Bash, BashWithPackage, Zsh])
def any_user(request, terminal, sandbox):
    return shell(request.param, terminal, sandbox)


@pytest.fixture(params=[Bash, BashWithPackage])
def bash_user(request, terminal, sandbox):
    return shell(request.param, terminal, sandbox)


class User:
    def __init__(self, kind, terminal, sandbox):
        self.kind = kind
        self.terminal = kind(terminal, sandbox).terminal
        self.terminal.prompt = re.compile(re.escape(PROMPT) + "$")
        self.terminal.wait_prompt(PROMPT)

    def drop(self):
        self.terminal.type(Key.CTRL_A + Key.CTRL_K)
        self.run("")

    def run(self, command):
        """Runs the command and clears the screen. What is typed next meets the shell, not the terminal's own echo."""
        self.terminal.type(f"{command}clear")
        self.terminal.wait_for(lambda term: term.line(term.cursor[0]) == f"{PROMPT}{command}clear")
        self.terminal.type(Key.ENTER)
        self.terminal.wait_for(lambda term: term.at_prompt(PROMPT) and term.cursor[0] == 0)

    def _shown(self):
        return self.terminal.line(0)[len(PROMPT) :] + " " * max(0, self.terminal.cursor[1] - len(self.terminal.line(0)))

    def completes(self, line, to):
        """Whether a Tab behind the line makes `to` of it."""
        self.terminal.type(line + Key.TAB)
        self.terminal.wait_for(lambda term: self._shown() == to)
        self.drop()

    def completes_a_quoted(self, line, to):
        """The same where the shells disagree whether a blank follows."""
        self.terminal.type(line + Key.TAB)
        self.terminal.wait_for(lambda term: self._shown().rstrip() == to)
        self.drop()

    def stays(self, line):
        """A Tab behind the line changes and lists nothing: what is typed next stands behind it."""
        self.terminal.type(line + Key.TAB + "#")
        self.terminal.wait_for(lambda term: self._shown() == line + "#")
        assert [text for text in self.terminal.lines[1:] if text] == []
        self.drop()

    def offered(self, line, among):
        """The words listed behind the line once `among` is one of them."""
        self.terminal.type(line + Key.TAB)
        self.terminal.type(Key.TAB)

        def listed(_):
            words = [word for text in self.terminal.lines[1:] if not text.startswith(PROMPT) for word in text.split()]
            return words if among in words else None

        words = self.terminal.wait_for(listed)
        self.drop()
        return words


def test_options_and_requests_are_completed(user):
    user.completes("kest --req", "kest --request " if user.kind is Bash else "kest --request=")
    user.completes("kest -r dow", "kest -r download ")
    user.completes("kest --request=GetParameterV", "kest --request=GetParameterValues ")
    user.completes("kest -r download firm", "kest -r download firmware ")


def test_a_second_mode_is_not_offered(user):
    assert "--script" not in user.offered("kest -r save --", "--config")


def test_files_are_completed_where_files_belong(user, tmp_path):
    (tmp_path / "requests.txt").touch()
    (tmp_path / "image.bin").touch()
    user.completes("kest -s requ", "kest -s requests.txt ")
    user.completes("kest -c requ", "kest -c requests.txt ")
    user.completes("kest -S requests.txt ima", "kest -S requests.txt image.bin ")
    user.completes("kest -r upgrade ima", "kest -r upgrade image.bin ")
    user.completes("kest -r download file ima", "kest -r download file image.bin ")
    user.completes("kest_interpreter requ", "kest_interpreter requests.txt ")


def test_files_are_completed_behind_redirections(user, veld, tmp_path):
    (tmp_path / "answers.txt").touch()
    to = f"kest -u {veld.address} -r get"
    user.completes(f"{to} Device.DeviceInfo.Uptime >answ", f"{to} Device.DeviceInfo.Uptime >answers.txt ")
    user.completes(f"{to} Device.DeviceInfo.Uptime 2> answ", f"{to} Device.DeviceInfo.Uptime 2> answers.txt ")
    to = f"kest -u {veld.address} 2>/dev/null -r execute >answers.txt"
    user.completes(f"{to} Device.IP.Diagnostics.IPP", f"{to} Device.IP.Diagnostics.IPPing ")


def test_two_dashes_end_the_options(user, veld):
    to = f"kest -u {veld.address} -r ls -- -l"
    user.completes(f"{to} Device.Tim", f"{to} Device.Time.")
    user.stays("kest -- --conf")


def test_paths_come_from_the_daemon(user, veld):
    to = f"kest -u {veld.address} -r"
    user.completes(f"{to} get Dev", f"{to} get Device.")
    user.completes(f"{to} get Device.DeviceInfo.Upt", f"{to} get Device.DeviceInfo.Uptime ")
    user.completes(f"{to} ls Device.Time.NTPServer1 Device.DeviceI", f"{to} ls Device.Time.NTPServer1 Device.DeviceInfo.")
    words = user.offered(f"{to} attr Device.IP.", "Diagnostics.")
    assert not [word for word in words if word.startswith("Device")]


def test_set_offers_what_can_be_written_and_its_values(user, veld):
    to = f"kest -u {veld.address} -r set"
    words = user.offered(f"{to} Device.Time.", "NTPServer1=")
    assert "Enable=" in words
    assert not [word for word in words if word.startswith("Status")]
    user.completes(f"{to} Device.Time.NTPServer1", f"{to} Device.Time.NTPServer1=")
    user.completes(f"{to} Device.Time.Enable=t", f"{to} Device.Time.Enable=true ")


def test_values_are_json_texts_that_the_shell_hands_on_whole(user, veld):
    to = f"kest -u {veld.address} -r set"
    path = "Device.Hosts.AccessControl.1.AccessPolicy"
    user.completes_a_quoted(f"{to} {path}=\\\"D", f'{to} {path}=\\"Deny\\"')
    if user.kind is Bash:  # zsh writes a quote in the middle of a word anew
        user.completes_a_quoted(f"{to} {path}='\"D", f"{to} {path}='\"Deny\"'")
    user.completes_a_quoted(f"{to} '{path}=\"D", f"{to} '{path}=\"Deny\"'")


def test_add_offers_tables_and_del_instances(user, veld):
    to = f"kest -u {veld.address} -r"
    user.completes(f"{to} add Device.Hosts.Ho", f"{to} add Device.Hosts.Host.")
    words = user.offered(f"{to} add Device.DeviceInfo.", "MemoryStatus.")
    assert "Uptime" not in words
    words = user.offered(f"{to} del Device.Hosts.Host.", "2.")
    assert "max_instance" not in words
    words = user.offered(f"{to} rm Device.DNS.SearchDomain.", "1")
    assert "max_instance" not in words


def test_execute_offers_methods_and_their_inputs(user, veld):
    to = f"kest -u {veld.address} -r execute"
    user.completes(f"{to} Device.IP.Diagnostics.IPP", f"{to} Device.IP.Diagnostics.IPPing ")
    words = user.offered(f"{to} Device.IP.Diagnostics.IPPing ", "Host=")
    assert "Status=" not in words
    user.completes(f"{to} Device.IP.Diagnostics.IPPing ProtocolVersion=A", f"{to} Device.IP.Diagnostics.IPPing ProtocolVersion=Any ")


def test_a_variable_names_the_daemon(user, veld):
    user.run(f"here={veld.address}; ")
    user.completes("kest -u $here -r get Device.Tim", "kest -u $here -r get Device.Time.")


@pytest.mark.parametrize("before", ["if x=1", "while :; do", "time", "!", "then"])
def test_kest_is_completed_behind_words_of_the_shell(any_user, veld, before):
    to = f"{before} kest -u {veld.address} -r"
    any_user.completes(f"{to} get Device.DeviceInfo.Upt", f"{to} get Device.DeviceInfo.Uptime ")


def test_kest_is_completed_within_a_substitution(any_user, veld):
    kest = f"kest -u {veld.address} -r"
    for before in ("echo $(", "echo a `", "test $(uname -s; kest -v) = $(if "):
        any_user.completes(f"{before}{kest} get Device.Tim", f"{before}{kest} get Device.Time.")
    to = f"{kest} set Device.Time.NTPServer1=$({kest} get"
    any_user.completes(f"{to} Device.DeviceInfo.Upt", f"{to} Device.DeviceInfo.Uptime ")
    assert "Uptime" not in any_user.offered(f"echo $({kest} set Device.Time.", "NTPServer1=")


def test_kest_is_completed_within_double_quotes(bash_user, veld):
    to = f'echo "a $(kest -u {veld.address} -r'
    bash_user.completes(f"{to} get Device.Tim", f"{to} get Device.Time.")
    bash_user.completes(f"{to} get Device.DeviceInfo.Upt", f"{to} get Device.DeviceInfo.Uptime ")
    path = "Device.Hosts.AccessControl.1.AccessPolicy"
    bash_user.completes(f"{to} set '{path}=\"D", f"{to} set '{path}=\"Deny\"' ")
    words = bash_user.offered(f"{to} ls Device.IP.", "Diagnostics.")
    assert not [word for word in words if word.startswith("Device")]


def test_what_stands_beside_kest_is_completed_as_ever(bash_user, veld, tmp_path):
    (tmp_path / "two words").touch()
    for before in ("cat ", f"test $(kest -u {veld.address} -r get Device.DeviceInfo.Uptime) = ", f"kest -u {veld.address} -r get $(cat "):
        bash_user.completes(f"{before}two", f"{before}two\\ words ")
    bash_user.completes("echo kest $HISTSI", "echo kest $HISTSIZE ")
    bash_user.stays("echo $(kest -u /nowhere -r get tw")


def test_no_daemon_is_passed_over_in_silence(user, sandbox):
    user.stays("kest -u /nowhere -r get Dev")
    left = sandbox.new_socket()
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(left))
    user.stays(f"kest -u {left} -r get Dev")


def test_the_users_configuration_is_not_run_for_a_tab(user, veld, home, kest):
    (home / ".local/kest").mkdir(parents=True)
    (home / ".local/kest/config").write_text("set Device.Time.NTPServer1=changed.example\n")
    user.completes(f"kest -u {veld.address} -r get Device.Tim", f"kest -u {veld.address} -r get Device.Time.")
    run = kest("-c", "/dev/null", "-r", "get", "Device.Time.NTPServer1", to=veld)
    assert "changed" not in run.out


def test_the_requests_offered_are_those_of_the_program():
    table = (settings.SOURCE / "src/dispatch/table.cpp").read_text()
    rows = re.findall(r'^    \{"(\w+)", (nullptr|"\w+"), \w+, (\w+),', table, re.M)
    names = {name for name, _, request in rows if request != "nullptr"}
    names |= {method.strip('"') for _, method, request in rows if request != "nullptr" and method != "nullptr"}
    assert len(names) > 20
    for file, pattern in (("kest", r"_kest_requests='([^']*)'"), ("_kest", r"requests=\(([^)]*)\)")):
        assert set(re.search(pattern, (FILES / file).read_text()).group(1).split()) == names
