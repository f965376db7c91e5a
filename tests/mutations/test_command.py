"""What the command prints without judging anything."""

import shutil
import subprocess
from pathlib import Path

import pytest

PACKAGE = Path("tests/mutations")
WRONG = """[[change]]
file = "services/Connect.cpp"
before = "no such line"
after = ""
noticed = true
"""


@pytest.fixture
def mutate(project, tmp_path):
    """mutate(argument..., entries=""): the command's result for a project that has only services/,
    and only these entries for it."""
    for path in (project / PACKAGE).glob("*.py"):
        (tmp_path / PACKAGE).mkdir(parents=True, exist_ok=True)
        shutil.copy(path, tmp_path / PACKAGE)
    shutil.copytree(project / "services", tmp_path / "services")
    (tmp_path / "scripts").mkdir()
    shutil.copy(project / "scripts/mutate", tmp_path / "scripts")
    subprocess.run(["git", "init", "--quiet", tmp_path], check=True)

    def run(*arguments, entries=""):
        (tmp_path / PACKAGE / "entries").mkdir(exist_ok=True)
        (tmp_path / PACKAGE / "entries/services.toml").write_text(entries)
        return subprocess.run([tmp_path / "scripts/mutate", *arguments], check=False, text=True,
                              capture_output=True)
    return run


def test_list_holds_the_files_that_begin_as_typed(mutate):
    listed = mutate("--list", "services/Conn", "services/Rpc").stdout
    assert {line for line in listed.splitlines() if line.startswith("file = ")} == {
        'file = "services/Connect.cpp"', 'file = "services/RpcServer.cpp"'}


def test_list_holds_the_changes_with_the_text(mutate):
    listed = mutate("--list", "--text", "abolish").stdout.split("\n\n")
    assert [change for change in listed if "abolish" not in change] == []


def test_sample_has_the_size_that_is_asked_for(mutate):
    assert mutate("--list", "--sample", "5").stdout.count("[[change]]") == 5


def test_sample_is_the_same_for_the_same_seed(mutate):
    assert mutate("--list", "--sample", "5").stdout == mutate("--list", "--sample", "5").stdout


def test_sample_is_another_for_another_seed(mutate):
    one, other = (mutate("--list", "--sample", "5", "--seed", seed).stdout for seed in ("1", "2"))
    assert one != other


def test_choice_without_changes_is_refused(mutate):
    result = mutate("--list", "no/such/folder")
    assert (result.returncode, result.stderr) == (1, "scripts/mutate: no change is like that\n")


def test_check_of_entries_that_fit_ends_well_and_says_nothing(mutate):
    result = mutate("--check")
    assert (result.returncode, result.stdout + result.stderr) == (0, "")


def test_check_of_an_entry_that_does_not_fit_fails_and_says_which(mutate):
    result = mutate("--check", entries=WRONG)
    assert (result.returncode, result.stderr) == (
        1, "services.toml, entry 1 (no such line): services/Connect.cpp has the lines of before 0 "
           "times, not 1\n")
