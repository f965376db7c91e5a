"""Reads the documents, which are Markdown: their sections, what stands in them, their links."""

import re
from functools import lru_cache
from pathlib import Path
from typing import List, NamedTuple, Optional

from markdown_it import MarkdownIt

PROJECT = Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*PROJECT.glob("*.md"), *PROJECT.glob("docs/*.md")])


class Link(NamedTuple):
    """A link or a picture, and the line of its paragraph or row."""

    target: str
    line: int


class Item(NamedTuple):
    """A paragraph, an entry of a list or a row of a table: the words and the code of each cell."""

    line: int
    cells: List[str]
    code: List[List[str]]

    def add(self, inline):
        """Adds a cell, or a paragraph of an entry."""
        self.cells.append(words(inline))
        self.code.append([part.content for part in inline.children if part.type == "code_inline"])
        return self


class Section(NamedTuple):
    """A heading, with where it leads if it is a link, and the items up to the next heading."""

    title: str
    leads_to: Optional[str]
    items: List[Item]

    @property
    def anchor(self):
        """What stands behind # in a link to it, by the rule of the sites that show Markdown."""
        return re.sub(r"[^\w\- ]", "", self.title.lower()).replace(" ", "-")


@lru_cache(maxsize=None)
class Page:
    """A document."""

    def __init__(self, path):
        self.path = path
        self.name = str(path.relative_to(PROJECT))
        self.sections, self.links = [], []
        open_items, line, within = [], 0, ""
        for token in MarkdownIt("commonmark").enable("table").parse(path.read_text("utf-8")):
            line = token.map[0] + 1 if token.map else line
            if token.type in ("heading_open", "heading_close", "thead_open", "thead_close"):
                within = token.type
            elif token.type in ("tr_open", "list_item_open"):
                open_items.append(Item(line, [], []))
            elif token.type in ("tr_close", "list_item_close"):
                item = open_items.pop()
                if open_items:  # a table within an entry is part of it
                    open_items[-1].cells.extend(item.cells)
                else:
                    self.add(item, within)
            elif token.type == "inline":
                self.links += [Link(target, line) for target in targets(token)]
                if within == "heading_open":
                    self.sections.append(Section(words(token), next(targets(token), None), []))
                elif open_items:
                    open_items[-1].add(token)
                else:
                    self.add(Item(line, [], []).add(token), within)

    def add(self, item, within):
        """Adds what is no head of a table and has words."""
        if within != "thead_open" and any(item.cells):
            self.sections[-1].items.append(item)

    def section(self, anchor):
        """Returns the one with this anchor; StopIteration if there is none."""
        return next(section for section in self.sections if section.anchor == anchor)


def words(inline):
    """Returns a text as it is read, in one line."""
    return "".join(" " if part.type == "softbreak" else part.content for part in inline.children
                   if part.type in ("text", "code_inline", "softbreak"))


def targets(inline):
    """Yields where the links and the pictures of a text lead."""
    for part in inline.children:
        if part.type in ("link_open", "image"):
            yield part.attrGet("href") or part.attrGet("src")
