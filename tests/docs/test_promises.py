"""The table of promises in docs/testing.md names a test for all that three documents say."""

import re
from typing import List, NamedTuple

import pytest
from pages import PROJECT, Item, Page

TESTING = Page(PROJECT / "docs/testing.md")
PROMISING = ("README.md", "docs/architecture.md", "docs/bundling.md")
PROMISES_NOTHING = {("README.md", "where-to-go-on")}
FUNCTIONS = {".py": r"^def {}\(", ".cpp": r"^ +(static )?void {}\(\)"}


class Promise(NamedTuple):
    """A row of the table: what is promised, and the tests that hold it."""

    line: int
    words: str
    held_by: str
    tests: List[str]


class Table(NamedTuple):
    """The promises of a section of a document."""

    document: str
    anchor: str
    promises: List[Promise]

    def promised(self):
        """Returns the items of that section, without those that only introduce the next."""
        return [item for item in Page(PROJECT / self.document).section(self.anchor).items
                if not text(item).endswith(":")]


def text(item: Item):
    """Returns all that an item says."""
    return " ".join(item.cells)


def tables():
    """Returns the tables in docs/testing.md, by the links in their headings."""
    found = []
    for section in TESTING.sections:
        if section.leads_to:
            path, anchor = section.leads_to.split("#")
            document = (TESTING.path.parent / path).resolve().relative_to(PROJECT)
            promises = [Promise(item.line, item.cells[0], item.cells[1],
                                [name for name in item.code[1] if "::" in name])
                        for item in section.items if len(item.cells) == 2]
            found.append(Table(str(document), anchor, promises))
    return found


TABLES = tables()
EVERY = pytest.mark.parametrize("table", TABLES,
                                ids=[f"{table.document} {table.anchor}" for table in TABLES])


def exists(test):
    """Returns whether there is a test of this name."""
    name, function = test.split("::")
    path = PROJECT / "tests" / name
    return path.is_file() and re.search(FUNCTIONS[path.suffix].format(re.escape(function)),
                                        path.read_text("utf-8"), re.MULTILINE)


def test_every_section_that_promises_has_a_table():
    sections = {(name, section.anchor) for name in PROMISING
                for section in Page(PROJECT / name).sections if section.items}
    assert {(table.document, table.anchor) for table in TABLES} == sections - PROMISES_NOTHING


@EVERY
def test_promise_stands_in_its_section(table):
    said = [text(item) for item in Page(PROJECT / table.document).section(table.anchor).items]
    gone = [f"docs/testing.md:{promise.line}: {table.document} no longer says: {promise.words}"
            for promise in table.promises if not any(promise.words in words for words in said)]
    assert gone == []


@EVERY
def test_every_item_is_in_the_table(table):
    missing = [f"{table.document}:{item.line}: in no row of docs/testing.md: {text(item)}"
               for item in table.promised()
               if not any(promise.words in text(item) for promise in table.promises)]
    assert missing == []


@EVERY
def test_named_test_exists(table):
    unknown = [f"docs/testing.md:{promise.line}: there is no tests/{test}"
               for promise in table.promises for test in promise.tests if not exists(test)]
    assert unknown == []


@EVERY
def test_promise_names_a_test_or_says_that_there_is_none(table):
    empty = [f"docs/testing.md:{promise.line}: {promise.words}" for promise in table.promises
             if not promise.tests and not re.match("not tested.*: .", promise.held_by)]
    assert empty == []
