"""A client of the accessibility bus walks the window, as a screen reader does."""

from contextlib import suppress

import pytest
from steps import deploy

from drive.assistive import AccessibleDesktop, Node, Walker
from drive.processes import GONE, running, wait_for


@pytest.fixture
def desktop(ending):
    """A virtual X server with accessibility switched on."""
    return ending.enter_context(AccessibleDesktop())


@pytest.fixture
def launcher(launch, throw_away):
    """The launcher, deployed; each of its services has written a row."""
    services = throw_away(nginx="echo a row; exec sleep infinity",
                          rpc="echo a row; exec sleep infinity")
    launched = launch(services.program)
    deploy(launched, services)
    return launched


@pytest.fixture
def walker(desktop, launcher, ending):
    """The client."""
    return ending.enter_context(Walker(desktop, launcher.pid))


def read_of(walker):
    """Returns what the client reads of the window in its first walk."""
    return wait_for("a walk", lambda: walker.seen)


@pytest.mark.parametrize("name", ["RPC Service", "Nginx"])
def test_a_list_has_the_title_of_its_tab(walker, name):
    assert Node("list", name) in read_of(walker)


@pytest.mark.parametrize("role, name", [
    ("frame", "MainWindow"), ("label", "Orvane Launcher"), ("page tab", "Directions"),
    ("button", "Deploy Servicde")], ids=["window", "title", "tab", "button"])
def test_what_is_no_list_keeps_its_text(walker, role, name):
    # Before at-spi2-core 2.53 the bus called a button "push button".
    seen = read_of(walker)
    nodes = {Node(node.role.replace("push button", "button"), node.name) for node in seen}
    assert Node(role, name) in nodes


def test_rows_are_not_read(walker):
    assert "list item" not in [node.role for node in read_of(walker)]


def test_desktop_ends_what_its_bus_has_started():
    with AccessibleDesktop() as accessible:
        helper, *_ = accessible.started()
        helper.suspend()  # so that it does not end by itself
    try:
        assert not running(helper)
    finally:
        with suppress(*GONE):
            helper.kill()
