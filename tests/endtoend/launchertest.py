"""What the end-to-end tests share: a desktop of its own for each test, bundles and launchers."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

from PIL import Image

from drive.bundle import Bundle, ThrowAway
from drive.desktop import Desktop, Launcher
from drive.processes import wait_for

LAUNCHER = Path(os.environ["ORVANE_LAUNCHER"])


def soon(condition):
    """Whether it comes true within a second."""
    try:
        return wait_for("", condition, seconds=1)
    except TimeoutError:
        return False


def copy_real_bundle(directory):
    """Copies the bundle with the real services; returns the launcher's program in the copy."""
    return Bundle.copy_of(LAUNCHER.parents[2], directory).program


class LauncherTest(unittest.TestCase):
    """Every test has a desktop and a directory of its own."""

    longMessage = True

    def setUp(self):
        self.desktop = self.enterContext(Desktop())
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="orvane-test-")))

    def bundle(self, **services):
        return ThrowAway(self.directory, LAUNCHER, **services)

    def real_bundle(self):
        return copy_real_bundle(self.directory)

    def launch(self, program, options=(), **how):
        # Not in the bundle's directory: the launcher must not depend on where it was started.
        return self.enterContext(Launcher(self.desktop, program, options, cwd="/",
                                          landmarks=os.environ["ORVANE_LANDMARKS"], **how))

    def deploy(self, launcher, bundle):
        """Clicks on deploy and waits until both services of the throw-away bundle have started."""
        before = min(len(bundle.pids("nginx")), len(bundle.pids("rpc")))
        launcher.click("deploy")
        wait_for("the start of both services", lambda: bundle.deployed(before + 1))

    def close(self, launcher):
        """Closes the window. What was clicked before has happened when this returns."""
        launcher.close()
        self.assertEqual(launcher.wait(), 0, "exit status")
        # A process that was killed just now may take a moment to go.
        wait_for("nothing left running", lambda: not launcher.started())

    def assert_list_shows(self, launcher, name, *rows):
        """The tab "rpc" or "nginx" comes to show these rows, to the pixel."""
        expected = self.directory / "expected.png"
        subprocess.run([os.environ["ORVANE_LIST_PICTURE"], name, expected, *rows],
                       env=launcher.environment, check=True)
        pixels = Image.open(expected).convert("RGB").tobytes()

        def shown():
            # The list repaints when its tab comes to the front, at the latest; not asked for too
            # often, or a slow launcher has more clicks to work off than it gets done.
            launcher.click("directions")
            launcher.click(name)
            launcher.point_at("title")
            return soon(lambda: launcher.picture(f"{name} list").tobytes() == pixels)

        try:
            wait_for(f"rows {rows} in the {name} list", shown)
        except TimeoutError as why:
            seen = Path(tempfile.gettempdir()) / f"orvane-{self.id()}.png"
            launcher.picture().save(seen)
            self.fail(f"{why}; what was seen is in {seen}")
