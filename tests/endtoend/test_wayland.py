"""The launcher under a real compositor, in a session that has no X server."""

import pytest
from steps import deploy, settled, stop

from drive.compositor import Compositor
from drive.desktop import Launcher
from drive.processes import wait_for


@pytest.fixture
def compositor(ending):
    """A Wayland compositor."""
    return ending.enter_context(Compositor())


@pytest.fixture
def services(throw_away):
    """A bundle with services that only note that they run."""
    return throw_away()


@pytest.fixture
def starter(services, add_starter):
    """What the menu starts."""
    return add_starter(services.program)


@pytest.fixture
def launcher(compositor, starter, build, ending):
    """The launcher in its window."""
    return ending.enter_context(Launcher(compositor, starter, landmarks=build / "landmarks"))


@pytest.fixture
def deployed(launcher, services):
    """The same, with its services running."""
    settled(launcher.picture)  # a user clicks on what is there to be seen
    deploy(launcher, services)
    return launcher


def test_window_shows_what_it_shows_under_x(launcher, starter, launch):
    expected = settled(launch(starter).picture)
    seen = settled(launcher.picture)
    assert seen.tobytes() == expected.tobytes()


def test_press_on_deploy_starts_both_services(deployed):
    assert len(deployed.started()) == 2


def test_press_on_stop_ends_the_services(deployed):
    stop(deployed)


def test_closing_the_window_ends_the_launcher_in_good_order(deployed):
    deployed.close()
    assert deployed.wait() == 0


def test_closing_the_window_ends_the_services(deployed):
    deployed.close()
    deployed.wait()
    wait_for("the end of the services", lambda: not deployed.started())
