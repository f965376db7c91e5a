"""What the entries of the table mean, and what is said of wrong ones."""

import pytest

from mutations.changes import Change
from mutations.table import read_table

SOURCE = "one();\ntwo();\ntwo();\n"
BY_RULE = Change("app/a.cpp", ("one();",), ())
ENTRY = {"file": '"app/a.cpp"', "before": '"one();"', "after": '"other();"', "noticed": "true"}


@pytest.fixture
def read(tmp_path):
    """read(text, name): the table of one file of this name and text, for a project of one file."""
    (tmp_path / "app").mkdir()
    (tmp_path / "app/a.cpp").write_text(SOURCE)

    def written_and_read(text, name="app.toml"):
        (tmp_path / name).write_text(text)
        return read_table(tmp_path, tmp_path, {BY_RULE})
    return written_and_read


def entry(**keys):
    """Returns the text of an entry: one that is right, but for these keys. None leaves one out."""
    return "[[change]]\n" + "".join(f"{key} = {value}\n" for key, value in {**ENTRY, **keys}.items()
                                    if value is not None)


def test_change_that_a_test_must_notice_has_no_reason(read):
    assert read(entry()).reasons == {Change("app/a.cpp", ("one();",), ("other();",)): ""}


def test_change_of_a_rule_gets_the_reason_why_it_goes_unnoticed(read):
    table = read(entry(after='""', noticed=None, unnoticed_because='"It does nothing."'))
    assert table.reasons == {BY_RULE: "It does nothing."}


def test_entry_without_a_place_stands_for_each_of_its_places(read):
    table = read(entry(before='"two();"', places=2))
    assert [change.place for change in table.reasons] == [1, 2]


def test_entry_with_a_place_stands_for_that_one(read):
    table = read(entry(before='"two();"', places=2, place=2))
    assert [change.place for change in table.reasons] == [2]


def test_table_that_fits_has_no_errors(read):
    assert read(entry()).errors == []


@pytest.mark.parametrize("text, error", [
    pytest.param(entry(reason='"none"'), "unknown key reason", id="unknown key"),
    pytest.param(entry(after=None), "after is missing", id="key missing"),
    pytest.param(entry(places='"2"'), "places takes a value of the type int", id="wrong type"),
    pytest.param(entry(noticed="1"), "noticed takes a value of the type bool", id="1 for true"),
    pytest.param(entry(noticed="false"), "either noticed = true or", id="not noticed, no reason"),
    pytest.param(entry(noticed=None), "either noticed = true or", id="no verdict"),
    pytest.param(entry(unnoticed_because='"x"'), "either noticed = true or", id="both verdicts"),
    pytest.param(entry(noticed=None, unnoticed_because='""'), "either noticed = true or",
                 id="empty reason"),
    pytest.param(entry(after='"one();"'), "before and after are the same", id="no change"),
    pytest.param(entry(file='"app/b.cpp"'), "there is no app/b.cpp", id="no such file"),
    pytest.param(entry(file='"ui/a.cpp"'), "ui/a.cpp belongs into ui.toml", id="another folder"),
    pytest.param(entry(file='"README.md"'), "README.md belongs into project.toml", id="no folder"),
    pytest.param(entry(before='"three();"'), "has the lines of before 0 times, not 1",
                 id="lines gone"),
    pytest.param(entry(before='""'), "has the lines of before 0 times, not 1", id="no lines"),
    pytest.param(entry(before='"two();"'), "has the lines of before 2 times, not 1",
                 id="several places, unsaid"),
    pytest.param(entry(before='"two();"', places=2, place=3), "place is a number from 1 to places",
                 id="no such place"),
    pytest.param(entry(noticed=None, unnoticed_because='"x"'), "no rule makes this change",
                 id="reason for what no rule makes"),
    pytest.param(entry(after='""'), "a rule makes this change by itself", id="rule makes it"),
    pytest.param(entry() + entry(), "another entry makes the same change", id="made twice")])
def test_wrong_entry_is_said(read, text, error):
    errors = read(text).errors
    assert len(errors) == 1 and error in errors[0], errors


def test_error_names_the_file_the_entry_and_its_first_line(read):
    assert read(entry() + entry(before='"  gone();"')).errors[0].startswith(
        "app.toml, entry 2 (gone();): ")


@pytest.mark.parametrize("text, error", [
    pytest.param("[[change]\n", "app.toml: ", id="no TOML"),
    pytest.param("version = 1\n", "app.toml: it holds [[change]] and nothing else, not version",
                 id="key outside of an entry"),
    pytest.param("[change]\n", "app.toml: an entry begins with [[change]]", id="single brackets")])
def test_file_that_is_no_table_is_said(read, text, error):
    errors = read(text).errors
    assert len(errors) == 1 and errors[0].startswith(error), errors


def test_wrong_entry_hides_no_other(read):
    table = read(entry(noticed=None) + entry(file='"app/b.cpp"') + entry())
    assert [len(table.errors), len(table.reasons)] == [2, 1]
