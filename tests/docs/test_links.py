"""The links of the documents."""

import pytest
from pages import DOCUMENTS, Page


def wrong(page, link):
    """Returns whether there is no such file, or no such section in it. The web is not asked."""
    path, _, anchor = link.target.partition("#")
    place = (page.path.parent / path).resolve() if path else page.path
    if not place.exists():
        return True
    return bool(anchor) and anchor not in [section.anchor for section in Page(place).sections]


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_every_link_leads_somewhere(path):
    page = Page(path)
    astray = [f"{page.name}:{link.line}: {link.target}" for link in page.links
              if "://" not in link.target and wrong(page, link)]
    assert astray == []
