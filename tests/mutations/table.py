"""Reads the table: the changes that no rule makes, and why some changes go unnoticed.

docs/testing.md says how an entry is written.
"""

import tomllib
from typing import NamedTuple

from mutations.changes import Change, places_of

KEYS = {"file": str, "before": str, "after": str, "place": int, "places": int, "noticed": bool,
        "unnoticed_because": str}
NEEDED = ("file", "before", "after")
ELSEWHERE = "project"  # the name of the table for the files in no folder


class Table(NamedTuple):
    """What the entries say."""

    reasons: dict  # by change: why nothing notices it; "" where a test must
    errors: list  # what is wrong with entries, a line each


class WrongEntry(Exception):
    """What is wrong with an entry."""


def read_table(folder, project, made_by_rule):
    """Returns the table of the folder for the sources of the project.

    `made_by_rule` holds the changes that the rules make by themselves.
    """
    table = Table({}, [])
    for path in sorted(folder.glob("*.toml")):
        try:
            entries = _entries_of(path)
        except WrongEntry as wrong:
            table.errors.append(f"{path.name}: {wrong}")
            continue
        for number, entry in enumerate(entries, 1):
            try:
                _add(entry, path.stem, project, made_by_rule, table.reasons)
            except WrongEntry as wrong:
                table.errors.append(f"{path.name}, entry {number} ({_begins(entry)}): {wrong}")
    return table


def _entries_of(path):
    """Returns the entries of a file."""
    try:
        contents = tomllib.loads(path.read_text())
    except tomllib.TOMLDecodeError as error:
        raise WrongEntry(str(error)) from error
    entries = contents.pop("change", [])
    if contents:
        raise WrongEntry(f"it holds [[change]] and nothing else, not {', '.join(contents)}")
    if not isinstance(entries, list) or not all(isinstance(entry, dict) for entry in entries):
        raise WrongEntry("an entry begins with [[change]]")
    return entries


def _begins(entry):
    """Returns what helps to find the entry: the first line that it changes."""
    return (str(entry.get("before", "")).strip().splitlines() or ["no lines"])[0].strip()


def _add(entry, name, project, made_by_rule, reasons):
    """Adds what an entry of the table of this name says."""
    _check_keys(entry)
    folder = entry["file"].partition("/")[0] if "/" in entry["file"] else ELSEWHERE
    if folder != name:
        raise WrongEntry(f"{entry['file']} belongs into {folder}.toml")
    reason = entry.get("unnoticed_because", "")
    for change in _changes_of(entry, project):
        if change in reasons:
            raise WrongEntry("another entry makes the same change")
        if reason and change not in made_by_rule:
            raise WrongEntry("no rule makes this change, so there is nothing to explain: drop it")
        if not reason and change in made_by_rule:
            raise WrongEntry("a rule makes this change by itself: drop the entry")
        reasons[change] = reason


def _check_keys(entry):
    """Raises what is wrong with the keys of an entry, or the values by themselves."""
    unknown = [key for key in entry if key not in KEYS]
    if unknown:
        raise WrongEntry(f"unknown key {unknown[0]}; an entry has {', '.join(KEYS)}")
    for key in NEEDED:
        if key not in entry:
            raise WrongEntry(f"{key} is missing")
    for key, value in entry.items():
        if type(value) is not KEYS[key]:  # True would pass for an int
            raise WrongEntry(f"{key} takes a value of the type {KEYS[key].__name__}, not {value!r}")
    noticed, reason = entry.get("noticed"), entry.get("unnoticed_because")
    if (noticed is None) == (reason is None) or noticed is False or reason == "":
        raise WrongEntry("it says either noticed = true or unnoticed_because = \"a reason\"")
    if entry["before"] == entry["after"]:
        raise WrongEntry("before and after are the same")


def _changes_of(entry, project):
    """Returns the changes that an entry stands for: of one place, or of each."""
    path = project / entry["file"]
    if not path.is_file():
        raise WrongEntry(f"there is no {entry['file']}")
    before, after = (tuple(entry[key].splitlines()) for key in ("before", "after"))
    places = entry.get("places", 1)
    there = len(places_of(before, path.read_text().splitlines())) if before else 0
    if there != places:
        raise WrongEntry(f"{entry['file']} has the lines of before {there} times, not {places}")
    chosen = [entry["place"]] if "place" in entry else range(1, places + 1)
    if not all(1 <= place <= places for place in chosen):
        raise WrongEntry(f"place is a number from 1 to places, which is {places}")
    return [Change(entry["file"], before, after, place, places) for place in chosen]
