"""How a change is made in a text, and how it is written down."""

import tomllib

import pytest

from mutations.changes import Change


def test_the_named_one_of_several_places_is_changed():
    change = Change("a.cpp", ("same();",), ("other();",), place=2, places=3)
    assert change.made_in("same();\nsame();\nsame();\n") == "same();\nother();\nsame();\n"


def test_lines_without_an_after_go():
    change = Change("a.cpp", ("first();", "second();"), ())
    assert change.made_in("first();\nsecond();\nthird();\n") == "third();\n"


@pytest.mark.parametrize("lines", [
    pytest.param(("    plain();",), id="a line"),
    pytest.param(("    one();", "    two();"), id="two lines"),
    pytest.param(("    one();", "", "    two();"), id="an empty line between two"),
    pytest.param(("  say 'it' \"twice\" \\n",), id="both quotes and a backslash"),
    pytest.param(("  sed 's/a/b/'",), id="a quote at the end"),
    pytest.param(("x = '''three''';",), id="the quotes of TOML"),
    pytest.param(("\tä",), id="a tab and an umlaut"),
    pytest.param((), id="nothing")])
def test_what_is_printed_is_read_as_the_same_lines(lines):
    printed = str(Change("a.cpp", ("before",), lines))
    assert tuple(tomllib.loads(printed)["change"][0]["after"].splitlines()) == lines


@pytest.mark.parametrize("change, keys", [
    pytest.param(Change("a.cpp", ("a;",), ("b;",), place=1, places=2),
                 ["file", "place", "places", "before", "after"], id="one of two"),
    pytest.param(Change("a.cpp", ("a;",), ("b;",)),
                 ["file", "before", "after"], id="the only one")])
def test_place_is_printed_where_there_are_several(change, keys):
    assert list(tomllib.loads(str(change))["change"][0]) == keys
