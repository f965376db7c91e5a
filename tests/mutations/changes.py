"""One change of a source."""

import json
from dataclasses import dataclass
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]


@dataclass(frozen=True)
class Change:
    """In `file`, the lines `before` become the lines `after`, or go where there are none.

    They stand there `places` times, and the one that counts is the `place`, from 1.
    """

    file: str
    before: tuple
    after: tuple
    place: int = 1
    places: int = 1

    def made_in(self, text):
        """Returns the text of the file with the change made."""
        lines = text.splitlines()
        first = places_of(self.before, lines)[self.place - 1]
        lines[first:first + len(self.before)] = self.after
        return "".join(f"{line}\n" for line in lines)

    def __str__(self):
        """Returns the change as an entry of the table, without its verdict."""
        where = [f"place = {self.place}", f"places = {self.places}"] if self.places > 1 else []
        return "\n".join(["[[change]]", f'file = "{self.file}"', *where,
                          f"before = {_quoted(self.before)}", f"after = {_quoted(self.after)}"])


def places_of(before, lines):
    """Returns the numbers of the lines, from 0, at which the lines `before` begin."""
    return [first for first in range(len(lines))
            if tuple(lines[first:first + len(before)]) == tuple(before)]


def _quoted(lines):
    """Returns the lines as a text of TOML, without escapes where that can be."""
    text = "\n".join(lines)
    if "'''" in text or text.endswith("'"):
        return json.dumps(text, ensure_ascii=False)
    if len(lines) > 1:
        return f"'''\n{text}'''"
    return f"'''{text}'''" if "'" in text else f"'{text}'"
