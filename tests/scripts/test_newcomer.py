"""What a newcomer's machine may lack, and what scripts/run says then.

The script runs with stand-ins for the package manager, sudo and CMake, which write down how they
were called. An ordinary user calls it; the machine has all the packages unless a test says else.
"""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
TOOLS = "apt-get bash chmod cmake cut dirname dpkg env grep head rm sed sleep uname".split()
STAND_INS = {
    "id": "echo 1000",
    "dpkg-query": 'case " $MISSING " in *" ${!#} "*) exit 1 ;; esac; echo installed',
    "apt-cache": """case $2 in
        cmake) echo "  Installed: (none)"; echo "  Candidate: $CMAKE_VERSION" ;;
        *) echo "  Candidate: ${CANDIDATE-1.0}" ;;
        esac""",
    "sudo": """[ "$MAY" = yes ] || { echo "sudo: not allowed" >&2; exit 1; }
        case $1 in env) exec "$@" ;; tee) cat >/dev/null ;; esac""",
    "apt-get": """case "$*" in
        *update*) [ -e "$LOG.waited" ] || [ -z "$LOCKED" ] || {
            touch "$LOG.waited"; echo "E: Could not get lock /var/lib/apt/lists/lock." >&2
            exit 100; } ;;
        esac""",
    "cmake": "exit $BUILT",
    "sleep": ":",
}
BUILD_REACHED = "== configure the release preset"


class Newcomer:
    """One user and machine. `run()` runs scripts/run there, `calls` is what it called."""

    def __init__(self, directory, name="project"):
        self.project = directory / name
        shutil.copytree(PROJECT / "scripts", self.project / "scripts")
        self.log = directory / "log"
        tools = directory / "bin"
        tools.mkdir()
        for name in set(TOOLS) - set(STAND_INS) | {"touch", "cat"}:
            (tools / name).symlink_to(shutil.which(name))
        for name, does in STAND_INS.items():
            (tools / name).write_text(f'#!/bin/bash\necho "{name} $*" >>"$LOG"\n{does}\n')
            (tools / name).chmod(0o755)
        self.environment = {
            "PATH": str(tools), "LC_ALL": "C", "LOG": str(self.log), "DISPLAY": ":1",
            "MISSING": "", "CMAKE_VERSION": "3.25.1-1", "MAY": "yes", "LOCKED": "",
            "BUILT": "3"}  # that it was tried is mostly enough

    def run(self, **environment):
        """Returns the exit status, the lines of the output and those of the errors."""
        done = subprocess.run([self.project / "scripts/run"], check=False, text=True,
                              errors="surrogateescape", env={**self.environment, **environment},
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return done.returncode, done.stdout.splitlines(), done.stderr.splitlines()

    def calls(self, program):
        """Returns how the program was called, a line each."""
        lines = self.log.read_text().splitlines() if self.log.exists() else []
        return [line for line in lines if line.split()[0] == program]


@pytest.fixture
def newcomer(directory):
    if not shutil.which("dpkg"):
        pytest.skip("dpkg is not installed")
    return Newcomer(directory)


@pytest.mark.parametrize("name", ["a b", "a'b", "a$b", "a;b", "a(b", "a*b", "a[b", "a\tb"])
def test_path_that_nginx_cannot_start_in_is_said_before_anything_is_done(directory, name):
    newcomer = Newcomer(directory, name)
    status, output, errors = newcomer.run()
    assert (status, output, len(errors)) == (1, [], 1)
    assert str(newcomer.project) in errors[0] and errors[0].endswith("move it.")
    assert not newcomer.log.exists()


@pytest.mark.parametrize("name", ["plain", "a,b@c=d+e-f_g%h^i~j#k", "ö",
                                  os.fsdecode(b"\xf6")])
def test_path_that_nginx_can_start_in_is_not_worth_a_word(directory, name):
    assert BUILD_REACHED in Newcomer(directory, name).run()[1]


def test_machine_with_all_packages_needs_no_package_manager_and_no_rights(newcomer):
    assert BUILD_REACHED in newcomer.run(MAY="no")[1]
    assert newcomer.calls("apt-get") == newcomer.calls("sudo") == []


def test_machine_without_apt_is_told_what_must_be_there_and_goes_on(newcomer):
    (newcomer.project.parent / "bin/apt-get").unlink()
    _, output, _ = newcomer.run(MISSING="make")
    told, = (line for line in output if line.startswith("No apt-get here."))
    assert " make " in told and BUILD_REACHED in output
    assert newcomer.calls("sudo") == []


@pytest.mark.parametrize("missing, installs", [
    ("", []), ("cmake nginx", ["brew install cmake nginx"])])
def test_macos_gets_what_is_missing_from_homebrew(newcomer, missing, installs):
    tools = newcomer.project.parent / "bin"
    for name, does in {
            "uname": "echo Darwin", "cmake": 'echo "Qt $CMAKE_PREFIX_PATH ${PATH%%:*}" >>"$LOG"',
            "brew": 'case $1 in list) [[ " $MISSING " != *" $2 "* ]] ;; --prefix) echo /qt ;; esac',
            }.items():
        (tools / name).unlink(missing_ok=True)  # which may be a link to the machine's own
        (tools / name).write_text(f'#!/bin/bash\necho "{name} $*" >>"$LOG"\n{does}\n')
        (tools / name).chmod(0o755)
    newcomer.run(MISSING=missing)
    assert [call for call in newcomer.calls("brew") if "install" in call] == installs
    assert newcomer.calls("Qt") == ["Qt /qt /qt/bin"] * 2
    assert newcomer.calls("apt-get") == []


@pytest.mark.parametrize("sudo", ["not installed", "not allowed"])
def test_missing_right_is_said_once_with_what_to_do(newcomer, sudo):
    if sudo == "not installed":
        (newcomer.project.parent / "bin/sudo").unlink()
    status, output, errors = newcomer.run(MISSING="cmake nginx", MAY="no")
    assert status == 1 and BUILD_REACHED not in output
    errors = [line for line in errors if not line.startswith("sudo:")]
    assert len(errors) == 3
    assert errors[1] == "  apt-get install --no-install-recommends cmake nginx"
    assert errors[2].endswith("this step failed: install what is missing (status 1)")


def test_busy_package_manager_is_waited_for(newcomer):
    output = newcomer.run(MISSING="make", LOCKED="yes")[1]
    assert output.count("Another program is at the packages: waiting until it has ended.") == 1
    assert BUILD_REACHED in output
    install, = (call for call in newcomer.calls("apt-get") if " make" in call)
    assert "DPkg::Lock::Timeout=600" in install


def test_release_that_is_too_old_is_said_before_anything_is_done(newcomer):
    status, _, errors = newcomer.run(MISSING="make", CMAKE_VERSION="3.18.4-2", MAY="no")
    assert status == 1 and len(errors) == 1 and "lacks CMake 3.21." in errors[0]
    assert newcomer.calls("sudo") == []


def test_package_that_the_release_does_not_have_is_named(newcomer):
    status, _, errors = newcomer.run(MISSING="make", CANDIDATE="(none)")
    assert status == 1 and len(errors) == 1 and "lacks make." in errors[0]
    assert not any("install" in call for call in newcomer.calls("apt-get"))


def test_machine_that_cannot_fetch_any_list_is_told_to_look_at_the_network(newcomer):
    status, _, errors = newcomer.run(MISSING="cmake", CMAKE_VERSION="")
    assert status == 1 and len(errors) == 1 and "look at the network" in errors[0]


@pytest.mark.parametrize("missing, off", [("make nginx", True), ("make", False)])
def test_nginx_that_came_along_stays_off_and_another_is_left_alone(newcomer, missing, off):
    newcomer.run(MISSING=missing)
    assert ("sudo update-rc.d nginx disable" in newcomer.calls("sudo")) == off


@pytest.mark.parametrize("answers", [True, False])
def test_display_that_does_not_answer_is_said_instead_of_an_abort(newcomer, answers):
    release = newcomer.project / "build/release"
    for name, does in (("landmarks", "" if answers else "echo abort >&2; kill -ABRT $$"),
                       ("orvane.app/Contents/MacOS/orvane-launcher", "echo launched")):
        (release / name).parent.mkdir(parents=True, exist_ok=True)
        (release / name).write_text(f"#!/bin/bash\n{does}\n")
        (release / name).chmod(0o755)
    status, output, errors = newcomer.run(BUILT="0", DISPLAY=":77")
    assert ("launched" in output) == answers
    if not answers:
        assert status == 1 and len(errors) == 1
        assert "the display :77 does not answer" in errors[0]
