"""scripts/releases: what its table says, and that it fails when a system does."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
sys.path.append(str(PROJECT / "tests"))

from releases.table import Outcome, lines  # noqa: E402

# What CTest runs in a made-up system: a name, and what the test writes and ends with.
TESTS = {
    "passes": "true",
    "fails": "echo no; exit 1",
    "left_out": "echo skipped: tidy is not installed",
    "skips_one": "echo 'SKIPPED [2] tests/a.py:1: takes root'",
    "qt_skips_one": "echo 'SKIP   : ATest::one() takes a terminal'",
    "long": "seq 100000; echo 'SKIPPED [1] tests/b.py:2: at the end'",
}
# Stands in for what makes a system and runs the tests in it: the results are a file of the test's.
SYSTEM = """#!/bin/bash
results=$(printf '%s\\n' "$@" | grep -m 1 /build/releases/)/results
[ -z "${XML-}" ] || cp "$XML" "$results/1-tests.xml"
echo "${SAYS-}"
case " $* " in
*" ${BROKEN-none} "*) exit 1 ;;
esac
exit "${ENDS-0}"
"""


def write_down(directory, *names):
    """Has CTest run some of TESTS and returns the file that it writes down."""
    lists = "".join(f'add_test({name} bash -c [[{does}]])\n' for name, does in TESTS.items())
    lists += 'set_tests_properties(left_out PROPERTIES SKIP_REGULAR_EXPRESSION "^skipped: ")\n'
    (directory / "CTestTestfile.cmake").write_text(lists)
    file = directory / "1-tests.xml"
    subprocess.run(["ctest", "--output-junit", file, "--test-output-size-passed", "1000000",
                    "-R", f"^({'|'.join(names)})$"],
                   cwd=directory, stdout=subprocess.DEVNULL, check=False)
    return file


@pytest.fixture
def outcome(directory):
    """outcome(*names, status=0, log=""): that of a system in which some of TESTS were run."""
    def read(*names, status=0, log=""):
        (directory / "results").mkdir()
        if names:
            write_down(directory, *names).rename(directory / "results/1-tests.xml")
        (directory / "log").write_text(log)
        return Outcome.read("trixie", directory, status, 61)

    return read


@pytest.mark.parametrize("names, passed, failed, skipped", [
    pytest.param(["passes"], 1, 0, 0, id="a test that passes"),
    pytest.param(["passes", "fails"], 1, 1, 0, id="a test that fails"),
    pytest.param(["passes", "left_out"], 1, 0, 1, id="a test that is skipped has not passed"),
    pytest.param(["skips_one"], 1, 0, 2, id="a module that skips two"),
    pytest.param(["qt_skips_one"], 1, 0, 1, id="a class that skips one"),
    pytest.param(["long"], 1, 0, 1, id="a module that says it at the end of much")])
def test_row_counts_what_passed_and_failed_and_was_skipped(
        outcome, names, passed, failed, skipped):
    assert outcome(*names).row().split() == [
        "trixie", str(passed), str(failed), str(skipped), "1:01"]


@pytest.mark.parametrize("name, said", [
    pytest.param("fails", "trixie: fails: failed: no", id="failure"),
    pytest.param("left_out", "trixie: left_out: skipped: tidy is not installed", id="skip"),
    pytest.param("skips_one", "trixie: skips_one: skipped in it: tests/a.py:1: takes root",
                 id="skip in a module"),
    pytest.param("qt_skips_one", "trixie: qt_skips_one: skipped in it: ATest::one() takes a "
                 "terminal", id="skip in a class")])
def test_table_explains_what_did_not_pass(outcome, name, said):
    assert lines([outcome("passes", name)])[2:] == [said]


def test_later_run_of_a_test_replaces_the_earlier_one(outcome, directory):
    first = outcome("fails", "passes")
    assert not first.passed
    later = (directory / "results/1-tests.xml").read_text().replace('status="fail"', 'status="run"')
    (directory / "results/2-desktop.xml").write_text(later)
    assert Outcome.read("trixie", directory, 0, 61).passed


def test_test_that_got_what_it_needs_later_is_not_skipped(outcome, directory):
    first = outcome("left_out", "passes")
    assert "left_out" in first.tests
    text = (directory / "results/1-tests.xml").read_text()
    (directory / "results/1-tests.xml").write_text(
        text.replace('"left_out"', '"passes.needs-plasma-integration"'))
    write_down(directory, "passes").rename(directory / "results/2-desktop.xml")
    assert list(Outcome.read("trixie", directory, 0, 61).tests) == ["passes"]


def test_size_of_the_download_is_shown(outcome):
    log = "Need to get 1,234 kB/497 MB of archives.\nNeed to get 5 MB of archives.\n"
    assert outcome("passes", log=log).row().endswith("  497 MB")


def test_expired_lists_are_in_the_table(outcome):
    said = "The lists of packages have expired: the check of their date is off."
    assert lines([outcome("passes", log=f"W: a\n{said}\n")])[2:] == [f"trixie: {said}"]


@pytest.mark.parametrize("names, status", [
    pytest.param(["passes", "fails"], 1, id="a test failed"),
    pytest.param(["passes", "fails"], 0, id="a test failed and the status was lost"),
    pytest.param(["passes"], 1, id="something else failed"),
    pytest.param([], 1, id="it never came up"),
    pytest.param([], 0, id="no test was run")])
def test_system_has_not_passed(outcome, names, status):
    assert not outcome(*names, status=status).passed


@pytest.mark.parametrize("status, log, said", [
    pytest.param(3, "E: no network\n", "failed with status 3: E: no network", id="status"),
    pytest.param(3, "", "failed with status 3: it said nothing", id="no word"),
    pytest.param(0, "", "failed: there are no results of any test", id="no results")])
def test_system_that_never_came_up_is_explained(outcome, status, log, said):
    assert outcome(status=status, log=log).remarks == [said]


@pytest.fixture
def releases(machine, directory):
    """releases(*names, **variables): scripts/releases where stand-ins make the systems."""
    shutil.copytree(PROJECT / "tests/releases", machine.project / "tests/releases")
    (machine.tools / "setpriv").write_text(SYSTEM)
    (machine.tools / "setpriv").chmod(0o755)
    for tool in ("cp", "ls", "printf", "grep"):
        if not (machine.tools / tool).exists():
            (machine.tools / tool).symlink_to(shutil.which(tool))
    files = {"passes": write_down(directory, "passes").rename(directory / "passes.xml"),
             "fails": write_down(directory, "passes", "fails").rename(directory / "fails.xml")}

    def run(*names, results="passes", **variables):
        xml = {"XML": str(files[results])} if results else {}
        return machine.run("releases", *names, **{"ID": "0", **xml, **variables})

    return run


def rows(result):
    """Returns the words of each row of the table below its header."""
    at = next(n for n, line in enumerate(result.output) if line.startswith("system "))
    return [line.split() for line in result.output[at + 1:]]


def test_releases_passes_when_every_system_has_passed(releases):
    result = releases("bookworm", "trixie")
    assert result.errors == []
    assert [row[:4] for row in rows(result)] == [["bookworm", "1", "0", "0"],
                                                 ["trixie", "1", "0", "0"]]
    assert result.status == 0


def test_releases_takes_every_system_when_none_is_named(releases):
    assert [row[0] for row in rows(releases())] == ["bookworm", "trixie", "forky", "arm64"]


@pytest.mark.parametrize("results, ends", [
    pytest.param("fails", "1", id="tests failed there"),
    pytest.param("fails", "0", id="tests failed there and the status was lost"),
    pytest.param("passes", "1", id="it ended badly"),
    pytest.param(None, "1", id="it never came up"),
    pytest.param(None, "0", id="it says nothing of any test")])
def test_releases_fails_when_a_system_has_failed(releases, results, ends):
    assert releases("trixie", results=results, ENDS=ends).status == 1


@pytest.mark.parametrize("broken", ["bookworm", "trixie"], ids=["the first", "the last"])
def test_releases_fails_when_one_of_two_systems_has_failed(releases, broken):
    assert releases("bookworm", "trixie", BROKEN=broken).status == 1


def test_releases_reads_no_results_of_an_earlier_run(releases):
    releases("trixie")
    assert releases("trixie", results=None).status == 1


def test_releases_refuses_unknown_systems_before_anything_is_made(releases, machine):
    result = releases("trixie", "sarge", "slink", "--", "-R", "a b")
    assert result.errors == ["scripts/releases: no such system: sarge slink. "
                             "There are: bookworm trixie forky arm64."]
    assert result.status == 2
    assert not (machine.project / "build/releases").exists()


def test_releases_hands_what_follows_the_dashes_to_ctest(releases, machine):
    machine.put(machine.tools / "setpriv", "")
    releases("trixie", "--", "-R", "a b")
    assert machine.calls("setpriv")[0].endswith(
        "build/releases/trixie trixie 'plasma5-integration kde-style-breeze-qt5' -R 'a b'")


def test_releases_takes_root(machine):
    result = machine.run("releases")
    assert result.errors == [f"{machine.project}/scripts/releases: this takes root, since it "
                             "mounts systems of its own."]


@pytest.mark.skipif(os.getuid() != 0, reason="takes root")
@pytest.mark.parametrize("bare", ["exit 1", "kill -KILL $PPID"], ids=["fails", "is killed"])
def test_nothing_stays_mounted_when_a_system_does_not_come_up(releases, machine, bare):
    mounts = Path("/proc/self/mounts").read_text()
    for tool in (*"setpriv mount sh find tee cp".split(), "unshare", "apt-get", "apt-config"):
        (machine.tools / tool).unlink(missing_ok=True)
        (machine.tools / tool).symlink_to(shutil.which(tool))
    machine.put(machine.tools / "mmdebstrap", f"echo tried; {bare}")
    result = releases("trixie")
    assert result.status == 1
    assert machine.calls("mmdebstrap") != []
    assert Path("/proc/self/mounts").read_text() == mounts
