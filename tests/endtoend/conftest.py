"""A desktop, bundles and launchers of its own for each story."""

import shutil
import subprocess
import tempfile
from pathlib import Path
from typing import NamedTuple

import pytest
from PIL import Image

from drive.bundle import Bundle, ThrowAway
from drive.desktop import Desktop, Launcher
from drive.processes import wait_for

pytest.register_assert_rewrite("steps")

FIRST_ROW_HEIGHT = 16  # pixels, less than a row's
DARK_GREY = 100  # of 255; the letters are black
DARK = """[Colors:Window]
BackgroundNormal=35,38,41
ForegroundNormal=252,252,252
[Colors:View]
BackgroundNormal=27,30,32
ForegroundNormal=252,252,252
[Colors:Button]
BackgroundNormal=49,54,59
ForegroundNormal=252,252,252
"""
DARK_LXQT = """[Palette]
window_color=#232629
base_color=#1b1e20
window_text_color=#fcfcfc
text_color=#fcfcfc
"""


class Home(NamedTuple):
    """Two programs in a user's home: what is started directly, and what a menu starts."""

    launcher: Path
    starter: Path


@pytest.fixture
def desktop(ending):
    """A virtual X server."""
    return ending.enter_context(Desktop())


@pytest.fixture
def throw_away(directory, build):
    """throw_away(place, ...): a bundle with a copy of the launcher, as drive.bundle.ThrowAway."""
    return lambda place="", **services: ThrowAway(
        directory / place, build / "orvane.app/Contents/MacOS/orvane", **services)


@pytest.fixture
def add_starter(project):
    """add_starter(program): puts orvane-launcher beside the launcher; returns its path."""
    source = project / "packaging/linux/orvane-launcher"
    return lambda program: Path(shutil.copy(source, program.parent))


@pytest.fixture
def home(directory, build, add_starter):
    """A home with dark settings, and in it the launcher and orvane-launcher."""
    launcher = directory / "orvane"
    shutil.copy(build / "orvane.app/Contents/MacOS/orvane", launcher)
    (directory / ".config").mkdir()
    (directory / ".config/kdeglobals").write_text(DARK)
    (directory / ".config/lxqt").mkdir()
    (directory / ".config/lxqt/lxqt.conf").write_text(DARK_LXQT)
    return Home(launcher, add_starter(launcher))


@pytest.fixture
def real(directory, build):
    """A copy of the bundle with the real services."""
    return Bundle.copy_of(build / "orvane.app", directory)


@pytest.fixture
def launch(desktop, build, ending):
    """launch(program): the launcher in its window, as drive.desktop.Launcher."""
    # Not in the bundle's directory: the launcher must not depend on where it was started.
    return lambda program: ending.enter_context(
        Launcher(desktop, program, cwd="/usr", landmarks=build / "landmarks"))


@pytest.fixture
def assert_list_shows(directory, build, request):
    """assert_list_shows(launcher, name, rows): the tab comes to show these rows, to the pixel."""
    def check(launcher, name, *rows):
        expected = directory / "expected.png"
        subprocess.run([build / "landmarks", name, expected, *rows], env=launcher.environment,
                       check=True)
        picture = Image.open(expected).convert("RGB")
        pixels = picture.tobytes()
        first_row = picture.convert("L").crop((0, 0, picture.width // 2, FIRST_ROW_HEIGHT))
        assert first_row.getextrema()[0] < DARK_GREY, "what is expected shows no text"

        def shown():
            # The list repaints when its tab comes to the front, at the latest; not asked for too
            # often, or a slow launcher has more clicks to work off than it gets done.
            launcher.click("directions")
            launcher.click(name)
            launcher.point_at("title")
            try:
                wait_for(rows, lambda: launcher.picture(f"{name} list").tobytes() == pixels, 1)
            except TimeoutError:
                return False
            return True

        try:
            wait_for(f"rows {rows} in the {name} list", shown)
        except TimeoutError as why:
            seen = Path(tempfile.gettempdir()) / f"orvane-{request.node.name}.png"
            launcher.picture().save(seen)
            pytest.fail(f"{why}; what was seen is in {seen}")

    return check
