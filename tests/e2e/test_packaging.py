"""The recipes of packaging/, as far as they can be tried without their build systems: in stubs of those, with what is installed here."""

import hashlib
import os
import re
import subprocess
import textwrap

import pytest

from lib import settings
from lib.exclusive import exclusive

PACKAGING = settings.SOURCE / "packaging"


def run(*command, **more):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=settings.TEST_DEADLINE, check=True, **more)


def stubs(folder, scripts):
    folder.mkdir()
    for name, body in scripts.items():
        (folder / name).write_text(f"#!/bin/sh\n{body}\n")
        (folder / name).chmod(0o755)
    return {"PATH": f"{folder}:/usr/bin:/bin"}


def test_options_of_the_recipes_are_options_of_the_build():
    sources = [settings.SOURCE / "CMakeLists.txt", *(settings.SOURCE / "cmake").glob("*.cmake"), *settings.SOURCE.glob("*/CMakeLists.txt")]
    known = {name for path in sources for name in re.findall(r"(?:option\(|set\()((?:KEST|VELD)_\w+)", path.read_text())}
    for recipe in ("openwrt/Makefile", "buildroot/kest.mk", "yocto/kest_%s.bb" % settings.VERSION):
        used = set(re.findall(r"-D((?:KEST|VELD)_\w+)=", (PACKAGING / recipe).read_text()))
        assert used and used <= known, recipe
    documented = set(re.findall(r"(?:KEST|VELD)_[A-Z_]+", (PACKAGING / "README.md").read_text()))
    assert documented <= known


@pytest.mark.parametrize(
    "asked, type, optimised, fortified, asserts",
    [
        ("", "", True, "2", False),
        ("", "Debug", False, None, True),
        ("", "Release", True, "2", False),
        ("-O3 -D_FORTIFY_SOURCE=3", "", True, "3", True),
    ],
)
def test_flags_of_whoever_builds_win(tmp_path, asked, type, optimised, fortified, asserts):
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\nproject(flags LANGUAGES CXX)\n"
        f"include({settings.SOURCE}/cmake/flags.cmake)\n"
        'file(WRITE ${CMAKE_BINARY_DIR}/flags "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}}")\n'
        'file(WRITE ${CMAKE_BINARY_DIR}/lto "${CMAKE_INTERPROCEDURAL_OPTIMIZATION}")\n'
    )
    run("cmake", "-S", tmp_path, "-B", tmp_path / "build", f"-DCMAKE_BUILD_TYPE={type}", f"-DCMAKE_CXX_FLAGS={asked}")
    flags = (tmp_path / "build/flags").read_text().split()
    macros = run("c++", *flags, "-dM", "-E", "-x", "c++", "/dev/null").stdout
    assert ("#define __OPTIMIZE__" in macros) == optimised
    assert re.findall(r"#define _FORTIFY_SOURCE (\d)", macros) == ([fortified] if fortified else [])
    assert ("#define NDEBUG" not in macros) == asserts
    assert "#define __PIE__" in macros
    # What the measurements were made with goes with no other choice.
    assert (tmp_path / "build/lto").read_text() in (("YES", "ON", "TRUE") if asked == type == "" else ("", "OFF"))


def test_the_licence_that_yocto_checks_is_the_licence():
    recipe = (PACKAGING / f"yocto/kest_{settings.VERSION}.bb").read_text()
    assert re.search(r"LICENSE;md5=(\w+)", recipe)[1] == hashlib.md5((settings.SOURCE / "LICENSE").read_bytes()).hexdigest()


def test_openwrt_installs_what_was_built(tmp_path):
    """A build root of no more than the names that the recipe uses."""
    install = tmp_path / "install"
    with exclusive("install"):  # which writes one manifest
        run("make", "-s", "-C", settings.SOURCE, "install", f"BUILD={settings.BUILD}", f"DESTDIR={install}", "PREFIX=/usr")
    root = tmp_path / "root"
    (root / "include").mkdir(parents=True)
    (root / "rules.mk").write_text(
        f"INCLUDE_DIR:={root}/include\nPKG_INSTALL_DIR:={install}\nPKG_BUILD_DIR:={settings.SOURCE}\n"
        "INSTALL_DIR:=install -d -m 755\nINSTALL_BIN:=install -m 755\nINSTALL_DATA:=install -m 644\nINSTALL_CONF:=install -m 600\nLN:=ln -sf\n"
    )
    (root / "include/package.mk").write_text(f"define BuildPackage\n$(1)-install:\n\t$$(call Package/$(1)/install,{tmp_path}/image)\nendef\n")
    (root / "include/cmake.mk").touch()
    run("make", "-s", f"TOPDIR={root}", "kest-install", "veld-install", cwd=PACKAGING / "openwrt")
    image = tmp_path / "image"
    for name in ("usr/bin/kest", "usr/sbin/veld", "etc/init.d/veld"):
        assert os.access(image / name, os.X_OK), name
    assert run(image / "usr/bin/kest_lua", "--version").stdout == run(settings.KEST, "--version").stdout
    assert (image / "usr/share/kest/models/gateway.json").read_bytes() == (install / "usr/share/kest/models/gateway.json").read_bytes()
    assert (image / "etc/default/veld").is_file()


def understood(words):
    """veld takes these words for options."""
    assert "--state" in words and words[words.index("--run-as") + 1] == "veld"
    assert run(settings.VELD, *words, "--version").stdout == run(settings.VELD, "--version").stdout


def test_init_scripts_start_the_daemon_with_options_that_it_has(tmp_path):
    env = stubs(tmp_path / "tools", {"mkdir": "", "start-stop-daemon": f'printf "%s\\n" "$@" >{tmp_path}/started'})
    out = run("sh", PACKAGING / "buildroot/S95veld", "start", env=env).stdout
    assert out == "Starting veld: OK\n"
    words = (tmp_path / "started").read_text().splitlines()
    assert words[words.index("-x") + 1] == "/usr/sbin/veld"
    understood(words[words.index("--") + 1 :])

    script = textwrap.dedent(
        f"""\
        procd_open_instance() {{ :; }}; procd_close_instance() {{ :; }}
        procd_set_param() {{ [ "$1" != command ] || {{ shift; printf '%s\\n' "$@"; }}; }}
        . {PACKAGING}/openwrt/veld.init
        start_service
        """
    )
    words = run("sh", "-c", script, env=env).stdout.splitlines()
    assert words[0] == "/usr/sbin/veld"
    understood(words[1:])


@pytest.mark.parametrize("chosen", ["LUA_5_3", "OPENSSL", "KEST_VELD", "INIT_SYSTEMD"])
def test_buildroot_builds_what_was_chosen(tmp_path, chosen):
    (tmp_path / "make").write_text(f"cmake-package = $(info $(KEST_CONF_OPTS))\ninclude {PACKAGING}/buildroot/kest.mk\nall:\n")

    def options(*words):
        return dict(re.findall(r"-D(\w+)=(\w+)", run("make", "-s", "-f", tmp_path / "make", *words, cwd=tmp_path).stdout))

    option = {"LUA_5_3": "KEST_LUA", "OPENSSL": "KEST_TLS", "KEST_VELD": "KEST_DAEMON", "INIT_SYSTEMD": "KEST_SYSTEMD"}[chosen]
    without = options()
    assert without[option] == "OFF"
    prefix = "BR2_" if chosen == "INIT_SYSTEMD" else "BR2_PACKAGE_"
    assert options(f"{prefix}{chosen}=y") == {**without, option: "ON"}


def test_buildroot_has_the_daemons_user_and_script_where_the_daemon_is(tmp_path):
    said = "cmake-package = $(info user: $(KEST_USERS))$(info script: $(KEST_INSTALL_INIT_SYSV))"
    (tmp_path / "make").write_text(f"{said}\ninclude {PACKAGING}/buildroot/kest.mk\nall:\n")

    def words(*chosen):
        return run("make", "-s", "-f", tmp_path / "make", *chosen, cwd=tmp_path).stdout.split()

    assert words() == ["user:", "script:"]
    there = words("BR2_PACKAGE_KEST_VELD=y")
    assert there[:3] == ["user:", "veld", "-1"] and there[-1].endswith("/etc/init.d/S95veld")
