"""A machine for the scripts: a copy of them, and stand-ins for all that they call."""

import shutil
import subprocess
from pathlib import Path
from typing import NamedTuple

import pytest

PROJECT = Path(__file__).resolve().parents[2]
FILES = PROJECT / "tests/scripts/stand-ins"
TOOLS = "bash cat cut dirname dpkg env grep make mkdir sed true uname unshare".split()
STAND_INS = {
    **dict.fromkeys("chmod clang++ gcovr rm sleep update-rc.d".split(), ""),
    "cmake": '[ "$1" != "${FAILS-}" ] || exit 3',
    "ctest": 'exit "${CTEST-0}"',
    "getconf": "echo 2",
    "id": 'echo "${ID-1000}"',
    "sudo": '[ "${MAY-yes}" = yes ] || { echo "sudo: not allowed" >&2; exit 1; }; exec "$@"',
    "tee": 'cat >"$LOG.policy"',
}
LONGER_STAND_INS = ("apt-cache", "apt-get", "dpkg-query")  # in files of their own
BUILT = {
    "drive/isolated": '[ "$PYTHONPATH" != "${0%/drive/*}" ] || exit 4',
    "build/fuzz/calls": "exit 7",
    "build/release/landmarks": '[ "${ANSWERS-yes}" = yes ] || { echo abort >&2; kill -ABRT $$; }',
    "build/release/orvane.app/Contents/MacOS/orvane": "",
    "build/release/orvane.app/Contents/MacOS/orvane-launcher": "exit 5",
    "scripts/demo": "exit 6",
}
QUESTIONS = ("apt-cache", "dpkg-query", "getconf", "id", "sleep")  # asked often, and change nothing


class Result(NamedTuple):
    """How a script ended, and the lines that it wrote to standard output and standard error."""

    status: int
    output: list
    errors: list


class Machine:
    """It has all packages and an ordinary user, who may use sudo.

    These variables of run() change that:

        ID=0               the user is root
        MAY=no             sudo refuses
        MISSING="A B"      these packages are not installed
        FAILS=--build      cmake fails with status 3 if this is its first argument
        CTEST=8            ctest ends with this status
        ANSWERS=no         the display does not answer the program landmarks, which aborts

    stand-ins/apt-get, apt-cache and dpkg-query say which more of them they read.
    """

    def __init__(self, directory, name):
        self.project, self.tools = directory / name, directory / "bin"
        self.log, self.policy = directory / "log", directory / "policy-rc.d"
        for part in ("bundle/rpcServer", "drive", "scripts", "tests/bundle"):
            shutil.copytree(PROJECT / part, self.project / part)
        common = self.project / "scripts/common.sh"  # this machine may have a policy of its own
        common.write_text(common.read_text().replace("/usr/sbin/policy-rc.d", str(self.policy)))
        self.tools.mkdir()
        for tool in TOOLS:
            (self.tools / tool).symlink_to(shutil.which(tool))
        for path, does in STAND_INS.items():
            self.put(self.tools / path, does)
        for longer in LONGER_STAND_INS:
            shutil.copy(FILES / longer, self.tools)
        shutil.copy(FILES / "write-down", directory)
        for path, does in BUILT.items():
            self.put(self.project / path, does)
        for preset in ("dev", "asan", "coverage"):
            (self.project / "build" / preset).mkdir()

    def put(self, path, does):
        """Puts a program there that writes down how it is called."""
        path.parent.mkdir(parents=True, exist_ok=True)
        path.unlink(missing_ok=True)  # which may be a link to the machine's own
        path.write_text(f'#!/bin/bash\n. "${{LOG%/*}}/write-down"\n{does}\n')
        path.chmod(0o755)

    def run(self, script, *arguments, **variables):
        """Runs the script to its end and returns the Result."""
        done = subprocess.run(
            ["env", "--default-signal", "bash", self.project / "scripts" / script, *arguments],
            check=False, text=True, errors="surrogateescape", capture_output=True,
            env={"PATH": str(self.tools), "LC_ALL": "C", "LOG": str(self.log), **variables})
        return Result(done.returncode, done.stdout.splitlines(), done.stderr.splitlines())

    def calls(self, *programs):
        """Returns how these programs were called, or all that change something, a line each."""
        text = self.log.read_text() if self.log.exists() else ""
        return [line for line in text.replace(f"{self.project}/", "").splitlines()
                if (line.split()[0] in programs if programs else line.split()[0] not in QUESTIONS)]


@pytest.fixture
def make_machine(directory):
    """make_machine(name): a machine that has the project in a directory of this name."""
    for tool in ("dpkg", "make"):
        if not shutil.which(tool):
            pytest.skip(f"{tool} is not installed")
    return lambda name="project": Machine(directory, name)


@pytest.fixture
def machine(make_machine):
    """A machine."""
    return make_machine()
