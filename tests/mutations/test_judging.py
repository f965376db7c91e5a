"""What becomes of a change, by a tree whose tests only look at the changed file."""

import pytest

from mutations import covered
from mutations.__main__ import outcome
from mutations.changes import Change
from mutations.judging import Tree, Verdict

SOURCE = "one();\ntwo();\n"


class LookingTree(Tree):
    """A tree of one file that is neither built nor tested by others."""

    def __init__(self, directory, line):
        super().__init__(0)
        self.source, self.line, self.ran = directory, line, []
        self.file = directory / "ui/a.cpp"
        self.file.parent.mkdir()
        self.file.write_text(SOURCE)
        self.tests = {covered.tests_of("ui/a.cpp"): {"slow": [], "quick": []}}
        self.usual = {"slow": 2, "quick": 1}
        self.seen = type(Tree.seen)()

    def make(self, *_, **__):
        """Passes unless the file has "!"."""
        return "!" not in self.file.read_text(), ""

    def test(self, name, **_):
        """Passes as long as the file has the line."""
        self.ran.append(name)
        return self.line in self.file.read_text(), ""


def replaced(after):
    """Returns the change that puts this line in the place of the first."""
    return Change("ui/a.cpp", ("one();",), (after,))


@pytest.mark.parametrize("change, verdict", [
    pytest.param(replaced("1();"), Verdict.NOTICED, id="a test fails"),
    pytest.param(replaced("one(); // 1"), Verdict.UNNOTICED, id="all tests pass"),
    pytest.param(replaced("!"), Verdict.INVALID, id="it does not build")])
def test_verdict(tmp_path, change, verdict):
    assert LookingTree(tmp_path, "one();").judge(change) is verdict


def test_test_that_hangs_has_noticed_the_change(tmp_path):
    tree = LookingTree(tmp_path, "one();")
    tree.test = lambda *_, **__: (False, None)
    assert tree.judge(replaced("1();")) is Verdict.HANGS


def test_change_is_taken_back(tmp_path):
    tree = LookingTree(tmp_path, "one();")
    tree.judge(replaced("1();"))
    assert tree.file.read_text() == SOURCE


def test_quick_test_runs_first(tmp_path):
    tree = LookingTree(tmp_path, "")
    tree.judge(replaced("1();"))
    assert tree.ran == ["quick", "slow"]


def test_test_that_noticed_changes_of_the_file_runs_first(tmp_path):
    tree = LookingTree(tmp_path, "")
    tree.seen["ui/a.cpp", "slow"] = 1
    tree.judge(replaced("1();"))
    assert tree.ran == ["slow", "quick"]


@pytest.mark.parametrize("verdict, reason, said", [
    pytest.param(Verdict.NOTICED, "", "noticed", id="noticed"),
    pytest.param(Verdict.UNNOTICED, "", "unnoticed", id="unnoticed"),
    pytest.param(Verdict.UNNOTICED, "why", "explained", id="unnoticed, with a reason"),
    pytest.param(Verdict.NOTICED, "why", "noticed, against the reason in the table",
                 id="noticed, with a reason"),
    pytest.param(Verdict.INVALID, "why", "does not build", id="what does not build says nothing")])
def test_outcome(verdict, reason, said):
    assert outcome(verdict, reason) == said
