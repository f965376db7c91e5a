"""The window beside a desktop's own theme plugin, which the toolkit loads by the desktop's name.

A theme's tests take its plugin; ctest runs those of the plugins that are installed.
"""

import pytest
from steps import looks

DESKTOPS = {"gnome": {"XDG_CURRENT_DESKTOP": "GNOME", "GTK_THEME": "Adwaita:dark"},
            "lxqt": {"XDG_CURRENT_DESKTOP": "LXQt"},
            "plasma": {"XDG_CURRENT_DESKTOP": "KDE", "KDE_SESSION_VERSION": "5"}}


@pytest.fixture(params=DESKTOPS.values(), ids=DESKTOPS.keys())
def session(request):
    """The variables by which that desktop's session says what it is."""
    return request.param


def test_plugin_changes_a_window_that_is_started_directly(session, desktop, home):
    assert looks(desktop, home.launcher, **session) != looks(desktop, home.launcher)


def test_plugin_changes_nothing_of_the_launchers_window(session, desktop, home):
    assert looks(desktop, home.starter, **session) == looks(desktop, home.starter)
