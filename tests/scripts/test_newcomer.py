"""What a newcomer's machine may lack, and what scripts/run says then."""

import os
import subprocess
from pathlib import Path

import pytest

POLICY = Path("/usr/sbin/policy-rc.d")
BUILD_REACHED = "== configure the release preset"
FAILED = "{}/scripts/run: this step failed: install what is missing (status {})"


@pytest.mark.parametrize("name", ["a b", "a'b", "a$b", "a;b", "a(b", "a*b", "a[b", "a\tb"])
def test_path_that_nginx_cannot_start_in_is_said_before_anything_is_done(make_machine, name):
    machine = make_machine(name)
    status, output, errors = machine.run("run")
    assert (status, output, len(errors)) == (1, [], 1)
    assert str(machine.project) in errors[0] and errors[0].endswith("move it.")
    assert not machine.log.exists()


@pytest.mark.parametrize("name", ["plain", "a,b@c=d+e-f_g%h^i~j#k", "ö", os.fsdecode(b"\xf6")])
def test_path_that_nginx_can_start_in_is_not_worth_a_word(make_machine, name):
    assert BUILD_REACHED in make_machine(name).run("run")[1]


def test_machine_with_all_packages_needs_no_package_manager_and_no_rights(machine):
    assert BUILD_REACHED in machine.run("run", MAY="no")[1]
    assert machine.calls("apt-get", "sudo") == []


def test_machine_without_apt_is_told_what_must_be_there_and_goes_on(machine):
    (machine.tools / "apt-get").unlink()
    _, output, _ = machine.run("run", MISSING="make")
    assert output[1].startswith("No apt-get here.") and " make " in output[1]
    assert BUILD_REACHED in output and not machine.calls("sudo")


@pytest.mark.parametrize("missing, installs", [
    ("", []), ("cmake qt@5", ["brew install cmake qt@5"])])
def test_macos_gets_what_is_missing_from_homebrew(machine, missing, installs):
    for name, does in {
            "uname": "echo Darwin", "cmake": 'echo "Qt $CMAKE_PREFIX_PATH ${PATH%%:*}" >>"$LOG"',
            "brew": 'echo "/$2"; [ $1 != list ] || [[ " $MISSING " != *" $2 "* ]] || ! echo no >&2',
            }.items():
        machine.put(machine.tools / name, does)
    assert machine.run("run", MISSING=missing)[::2] == (0, [])
    assert [call for call in machine.calls("brew") if "install" in call] == installs
    assert machine.calls("Qt") == ["Qt /qt@5 /qt@5/bin"] * 2
    assert machine.calls("apt-get", "orvane") == ["orvane "]


@pytest.mark.parametrize("sudo", ["not installed", "not allowed"])
def test_missing_right_is_said_once_with_what_to_do(machine, sudo):
    if sudo == "not installed":
        (machine.tools / "sudo").unlink()
    status, output, errors = machine.run("run", MISSING="cmake nginx", MAY="no")
    assert status == 1 and BUILD_REACHED not in output
    errors = [line for line in errors if not line.startswith("sudo:")]
    assert errors[1:] == [
        "  systemctl mask nginx && apt-get install --no-install-recommends cmake nginx",
        FAILED.format(machine.project, 1)]


def test_busy_package_manager_is_waited_for(machine):
    output = machine.run("run", MISSING="make", LOCKED="3")[1]
    assert output.count("Another program is at the packages: waiting until it has ended.") == 1
    assert "DPkg::Lock::Timeout=600 install" in machine.calls("apt-get")[-1]
    assert machine.calls("sleep") == ["sleep 2"] * 3


@pytest.mark.parametrize("apt_get, status, said", [
    ('echo "E: no network" >&2; exit 100', 1, ["E: no network"]),
    ('[ "$4" != install ] || kill -INT $PPID', 130, []),
    ('[ "$4" != install ] || kill -TERM $PPID', 143, [])])
def test_install_that_ends_early_ends_the_script_and_is_named(machine, apt_get, status, said):
    machine.put(machine.tools / "apt-get", apt_get)
    assert machine.run("run", MISSING="make")[::2] == (
        status, [*said, FAILED.format(machine.project, status)])


@pytest.mark.parametrize("variables, said", [
    ({"CMAKE_VERSION": "3.18.4-2", "MAY": "no"}, "lacks CMake 3.21. Debian 12 and 13 have"),
    ({"CANDIDATE": "(none)"}, "lacks make."), ({"CMAKE_VERSION": ""}, "look at the network")])
def test_release_that_does_not_have_it_is_said_before_anything_is_done(machine, variables, said):
    status, _, errors = machine.run("run", MISSING="make", **variables)
    assert status == 1 and len(errors) == 1 and said in errors[0]
    assert not any("install" in call for call in machine.calls("apt-get"))


@pytest.mark.skipif(POLICY.exists(), reason="the machine has a policy of its own")
def test_no_service_of_another_program_is_kept_from_starting_meanwhile(machine):
    machine.run("run", MISSING="make")
    policy = machine.log.with_suffix(".policy")
    answers = [subprocess.run(["sh", policy, *how], check=False).returncode for how in (
        ["--quiet", "nginx", "start"], ["nginx.service", "start"], ["supervisor", "start"],
        ["ssh", "restart"])]
    assert answers == [101, 101, 101, 0]
    made, _, gone, *_ = machine.calls("sudo", "cmake")[-6:]
    assert (made, gone) == (f"sudo chmod 755 {POLICY}", f"sudo rm -f {POLICY}")
    machine.put(machine.tools / "apt-get", '[ "$4" != install ]')
    machine.run("run", MISSING="make")
    assert machine.calls("sudo")[-1] == gone


@pytest.mark.parametrize("missing, off", [("make nginx", True), ("make", False)])
def test_nginx_that_came_along_stays_off_and_another_is_left_alone(machine, missing, off):
    machine.run("run", MISSING=missing)
    assert ("sudo update-rc.d nginx disable" in machine.calls("sudo")) == off


@pytest.mark.parametrize("script, variables, missing", [
    ("run", {}, "xvfb"), ("run", {"WAYLAND_DISPLAY": "w"}, "qtwayland5"), ("test", {}, "xvfb"),
    ("test", {}, "shellcheck"), ("soak", {}, "chromium-driver"), ("fuzz", {}, "clang"),
    ("run", {"ID": "0", "MAY": "no"}, "make")])
def test_script_installs_what_it_takes(machine, script, variables, missing):
    assert machine.run(script, "5", MISSING=missing, **variables)[1][0].startswith("== install")
    assert machine.calls("apt-get")[-1].endswith(f"--no-install-recommends {missing}")
