"""What make release refuses: a version that is not told everywhere alike."""

import re
import shutil
import subprocess

import pytest

from lib import settings

DAY = "2031-05-06"
FILES = (
    "CMakeLists.txt", "CHANGELOG.md", "debian/changelog", "docs/kest.1", "docs/veld.8", "packaging/openwrt/Makefile",
    "packaging/buildroot/kest.mk", "scripts/release",
)  # fmt: skip


class Tree:
    """A repository with what names a version, all of it 4.5.6 and of one day."""

    def __init__(self, folder):
        self.folder = folder
        for name in FILES:
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(settings.SOURCE / name, folder / name)
        (folder / "packaging/yocto").mkdir()
        (folder / "packaging/yocto/kest_4.5.6.bb").touch()
        self.replace("CMakeLists.txt", r"^project\(kest VERSION [0-9.]+", "project(kest VERSION 4.5.6")
        self.replace("debian/changelog", r"\A(kest) \([^)]*\)", r"\1 (4.5.6)")
        self.replace("CHANGELOG.md", r"^## \[.*", f"## [4.5.6] - {DAY}")
        self.replace("packaging/openwrt/Makefile", r"^PKG_VERSION:=.*", "PKG_VERSION:=4.5.6")
        self.replace("packaging/buildroot/kest.mk", r"^KEST_VERSION = .*", "KEST_VERSION = 4.5.6")
        for page in ("kest.1", "veld.8"):
            self.replace(f"docs/{page}", r'^(\.TH [A-Z]+ [0-9]) "?[^" ]*"? "(\w+)[^"]*"', rf'\1 {DAY} "\2"')
        self.git("init", "-q")
        self.commit()
        first = self.git("rev-parse", "--short", "HEAD")
        (folder / "bench").mkdir()
        (folder / "bench/10-start.sh").touch()
        (folder / "bench/before.tsv").write_text(f"# script, row, ratio: of the version at {first}, measured so\n10-start\ttime\t1.1\n")
        self.commit()

    def replace(self, name, pattern, by):
        path = self.folder / name
        text, count = re.subn(pattern, by, path.read_text(), count=1, flags=re.M)
        assert count == 1, (name, pattern)
        path.write_text(text)

    def git(self, *words):
        moment = f"{DAY}T12:00:00Z"
        env = {"PATH": "/usr/bin:/bin", "HOME": str(self.folder), "GIT_AUTHOR_DATE": moment, "GIT_COMMITTER_DATE": moment}
        command = ["git", "-c", "user.name=a", "-c", "user.email=a@example.org", *words]
        return subprocess.run(command, cwd=self.folder, env=env, check=True, capture_output=True, text=True).stdout.strip()

    def commit(self):
        self.git("add", "-A")
        self.git("commit", "-q", "-m", "all")

    def release(self, version="4.5.6"):
        return subprocess.run(
            [self.folder / "scripts/release", version],
            env={"PATH": "/usr/bin:/bin", "RELEASE_CHECK_ONLY": "yes", "HOME": str(self.folder)},
            capture_output=True,
            text=True,
            timeout=settings.TEST_DEADLINE,
        )


@pytest.fixture
def tree(tmp_path):
    return Tree(tmp_path)


def test_what_agrees_can_be_released(tree):
    run = tree.release()
    assert (run.returncode, run.stderr) == (0, "")


def test_another_version_is_refused_with_every_place_that_does_not_tell_it(tree):
    run = tree.release("4.5.7")
    assert run.returncode == 1
    places = ("CMakeLists.txt", "debian/changelog", "CHANGELOG.md", "packaging/openwrt", "packaging/buildroot", "packaging/yocto")
    for place in places:
        assert place in run.stderr


def test_no_version_is_refused(tree):
    assert tree.release("").returncode == 2
    assert tree.release("latest").returncode == 2


def test_a_page_that_was_changed_after_its_date_is_refused(tree):
    tree.replace("docs/veld.8", DAY, "2031-05-05")
    tree.commit()
    run = tree.release()
    assert run.returncode == 1
    assert "docs/veld.8 is dated 2031-05-05, and was changed on 2031-05-06" in run.stderr


def test_a_bench_table_of_something_else_is_refused(tree):
    tree.replace("bench/before.tsv", r"at [0-9a-f]+,", "at 0123456,")
    tree.replace("bench/before.tsv", "^10-start", "20-stop")
    tree.commit()
    run = tree.release()
    assert run.returncode == 1
    assert "bench/before.tsv is of no earlier version" in run.stderr
    assert "bench/before.tsv has figures of 20-stop" in run.stderr


def test_an_unreleased_section_is_refused(tree):
    tree.replace("CHANGELOG.md", r"^## \[4", "## [Unreleased]\n\n### Fixed\n\n- A thing.\n\n## [4")
    tree.commit()
    run = tree.release()
    assert (run.returncode, run.stdout) == (1, "")
    assert "CHANGELOG.md still has an unreleased section" in run.stderr
    assert "no section" not in run.stderr


def test_changes_that_are_not_committed_are_refused(tree):
    (tree.folder / "new").touch()
    assert "not committed" in tree.release().stderr
