"""What the window looks like on other people's desktops, when orvane-launcher starts it."""

import pytest
from steps import looks, settled, shown
from Xlib import Xatom

from drive.desktop import Desktop

# Plasma's own name and settings, as the toolkit itself reads them where no plugin is installed.
PLASMA = {"XDG_CURRENT_DESKTOP": "KDE", "KDE_SESSION_VERSION": "5"}


def test_dark_settings_are_those_that_the_toolkit_reads(desktop, home):
    assert looks(desktop, home.launcher, **PLASMA) != looks(desktop, home.launcher)


def test_dark_settings_stay_out(desktop, home):
    assert looks(desktop, home.starter, **PLASMA) == looks(desktop, home.starter)


def test_theme_that_the_user_asks_for_is_taken(desktop, home):
    asked = looks(desktop, home.starter, "-platformtheme", "kde", **PLASMA)
    assert asked != looks(desktop, home.starter)


@pytest.mark.parametrize("dpi", [96, 134, 144, 192], ids="{} dpi".format)
def test_directions_lose_no_line_in_the_initial_size(dpi, home, ending):
    tall = ending.enter_context(Desktop(1024, 1400))
    tall.root.change_property(Xatom.RESOURCE_MANAGER, Xatom.STRING, 8,
                              f"Xft.dpi:\t{dpi}\n".encode())
    tall.display.sync()

    def ink(window):
        """The amount of text in the palette's colour."""
        picture = settled(lambda: tall.picture_of(window))
        return sum(1 for grey in picture.convert("L").getdata() if grey < 90)

    as_in_plasma = {"QT_AUTO_SCREEN_SCALE_FACTOR": "0"}
    with shown(tall, home.starter, **as_in_plasma) as window:
        initially = ink(window)
        window.configure(height=1300)  # room for every line
        tall.display.sync()
        assert initially >= 0.98 * ink(window) > 0
