"""Makes changes in a copy of the tree and looks whether a test that covers them notices."""

import collections
import enum
import json
import os
import re
import subprocess
import sys
import tempfile
import time

from mutations.changes import PROJECT
from mutations.covered import files, tests_of

WORK = PROJECT / "build/mutate"  # the trees
HANG_SECONDS = 30  # more than a test takes without a change
# A changed launcher may signal whatever it can reach and leave children behind, and root's changed
# installation may write anywhere. What runs here sees only the processes of a namespace of its own,
# which ends with it (unshare(1)) and with this program, and root a root file system that is
# read-only but for two places.
ISOLATED = ["setpriv", "--pdeathsig", "KILL",
            "unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
WRITABLE = [tempfile.gettempdir(), str(PROJECT / "build")]
if os.getuid() != 0:
    ISOLATED += ["--user", "--map-root-user"]
else:
    ISOLATED += ["sh", "-c", 'mount --bind "$0" "$0" && mount --bind "$1" "$1" && shift &&'
                 ' mount -o remount,bind,ro / && cd "$PWD" && exec "$@"', *WRITABLE]
COMPILED = (".cpp", ".h", ".ui")  # a change that the compiler refuses says nothing
DESCRIBES_THE_BUILD = (".txt", ".cmake", ".in")
# What a test needs to be built if it is no program itself.
BUILT_FOR_SCRIPTS = ["app/all", "bundle/all", "drive/all"]


class Verdict(enum.Enum):
    """What became of a change."""

    NOTICED = "noticed"
    HANGS = "noticed by a hang"
    UNNOTICED = "unnoticed"
    INVALID = "does not build"


class Tree:
    """A copy of the sources with a build of its own, below build/mutate/.

    Order: prepare(), measure() for one of them, judge() for each change.
    """

    tests = {}  # by pattern: the names of the tests with the targets that these need
    usual = {}  # by test: the seconds that it takes without a change
    seen = collections.Counter()  # by file and test: the changes noticed

    def __init__(self, job):
        self.source, self.build = (WORK / str(job) / folder for folder in ("source", "build"))

    def run(self, *command, seconds=None, must=False):
        """Returns whether the command ended with 0 in time, and its output, or None if it hangs.

        What must and does not ends the program.
        """
        try:
            done = subprocess.run(ISOLATED + list(command), cwd=self.build, check=False,
                                  errors="replace", stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, timeout=seconds)
        except subprocess.TimeoutExpired:
            return False, None
        if must and done.returncode != 0:
            sys.exit(f"scripts/mutate: {command} fails without a change:\n{done.stdout}")
        return done.returncode == 0, done.stdout

    def make(self, *targets, **how):
        """Builds them. Returns what run() does."""
        return self.run("cmake", "--build", ".", "--target", *targets, **how)

    def test(self, name, **how):
        """Runs the test. Returns what run() does."""
        return self.run("ctest", "--output-on-failure", "--no-tests=error",
                        "-R", f"^{re.escape(name)}$", **how)

    def prepare(self, patterns):
        """Brings the copy up to date and builds what the tests of these patterns need."""
        self.copy_sources()
        self.build.mkdir(parents=True, exist_ok=True)
        # Clang compiles quicker. -w: a change may leave something unused behind.
        self.run("cmake", "-GNinja", "-DCMAKE_CXX_COMPILER=clang++", "-DCMAKE_BUILD_TYPE=Debug",
                 "-DCMAKE_CXX_FLAGS_DEBUG=-w", str(self.source), must=True)
        targets = self.run("ninja", "-t", "targets", "all", must=True)[1]
        for pattern in patterns:
            found = self.run("ctest", "--show-only=json-v1", "-R", pattern, must=True)[1]
            names = [test["name"] for test in json.loads(found)["tests"]]
            if not names:
                sys.exit(f"scripts/mutate: no test here has a name like {pattern}")
            self.tests[pattern] = {}
            for name in names:
                program = re.search(rf"^(tests/.*/{re.escape(name)}):", targets, re.M)
                self.tests[pattern][name] = [program[1]] if program else BUILT_FOR_SCRIPTS
                self.make(*self.tests[pattern][name], must=True)

    def copy_sources(self):
        """Copies what differs, so that it is newer than what was built of it before."""
        here = set(files())
        for old in self.source.rglob("*"):
            if old.is_file() and str(old.relative_to(self.source)) not in here:
                old.unlink()
        for name in sorted(here):
            now, copy = PROJECT / name, self.source / name
            if now.is_file() and not (copy.is_file() and copy.read_bytes() == now.read_bytes()):
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(now.read_bytes())
                copy.chmod(now.stat().st_mode)

    def measure(self):
        """Runs the tests without a change."""
        for name in {name for tests in self.tests.values() for name in tests}:
            started = time.monotonic()
            self.test(name, must=True)
            self.usual[name] = time.monotonic() - started

    def judge(self, change):
        """Makes the change, lets the tests look at it, and takes it back. Returns a Verdict."""
        path = self.source / change.file
        original = path.read_text()
        path.write_text(change.made_in(original))
        try:
            folder = path.parent.relative_to(self.source)
            if path.suffix in COMPILED and not self.make(f"{folder}/all")[0]:
                return Verdict.INVALID
            if path.suffix in DESCRIBES_THE_BUILD and not self.describe_anew():
                return Verdict.NOTICED
            return self.verdict_of_tests(change.file)
        finally:
            path.write_text(original)

    def describe_anew(self):
        """Configures, and removes what would not be built any more. Returns whether that went."""
        return self.run("cmake", ".")[0] and self.run("ninja", "-t", "cleandead")[0]

    def verdict_of_tests(self, file):
        """Runs the tests of a file until one fails: first what has noticed most, then the quick."""
        tests = self.tests[tests_of(file)]
        for name in sorted(tests, key=lambda test: (-self.seen[file, test], self.usual[test])):
            if not self.make(*tests[name])[0]:
                return Verdict.NOTICED
            passed, output = self.test(name, seconds=self.usual[name] + HANG_SECONDS)
            if not passed:
                self.seen[file, name] += 1
                return Verdict.HANGS if output is None else Verdict.NOTICED
        return Verdict.UNNOTICED
