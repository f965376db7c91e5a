"""A real browser (Chromium, without a window) that looks at the sample page."""

import os
import tempfile
from contextlib import contextmanager

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from drive.bundle import SITE
from drive.processes import GONE, adopt_orphans, descendants, existing, kill_all, running, wait_for

FLAGS = ["--headless=new", "--disable-gpu", "--disable-quic", "--no-first-run", "--no-proxy-server",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--window-size=1000,800",
         # A container has no sandbox to offer, nor has root; the only page visited is our own.
         "--no-sandbox"]


class Browser:
    """Chromium with a fresh profile, through its driver.

    Raises selenium.common.WebDriverException: no browser, no answer, no such element.
    """

    def __init__(self, flags=()):
        adopt_orphans()
        self._home = tempfile.TemporaryDirectory(prefix="orvane-browser-",
                                                 ignore_cleanup_errors=True)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in [*FLAGS, *flags, f"--user-data-dir={self._home.name}/profile"]:
            options.add_argument(flag)
        os.environ["no_proxy"] = "localhost,127.0.0.1"  # between Selenium and the driver
        self._service = Service("/usr/bin/chromedriver",
                                env={**os.environ, "HOME": self._home.name,
                                     "XDG_CONFIG_HOME": f"{self._home.name}/config",
                                     "XDG_CACHE_HOME": f"{self._home.name}/cache"})
        self._driver = None
        try:
            self._driver = webdriver.Chrome(service=self._service, options=options)
        except BaseException:
            self.end()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def visit(self, address=SITE):
        """Loads the page at this address."""
        self._driver.get(address)

    def click(self, name):
        """A real click in the middle of the element with this id."""
        self._driver.find_element(By.ID, name).click()

    def text(self, name):
        """Returns the text of the element with this id."""
        return self._driver.find_element(By.ID, name).text

    def dps(self):
        """Returns the number of frames a second that the page shows."""
        return float(self.text("dps"))

    def frame(self):
        """Returns the number of the frame that the page shows, 0 before the first."""
        return int(self.run("return document.querySelector('canvas').dataset.frame || 0"))

    def canvas(self):
        """Returns what the page's moving picture looks like."""
        return self.run("return document.querySelector('canvas').toDataURL()")

    def run(self, script, *arguments):
        """Returns what the script, a function's body in the page, returns."""
        return self._driver.execute_script(script, *arguments)

    @contextmanager
    def elsewhere(self, window=False):
        """Inside of this, the calls mean the page's first frame, or the window that it opened."""
        first = self._driver.current_window_handle
        if window:
            wait_for("the window", lambda: len(self._driver.window_handles) == 2)
            self._driver.switch_to.window(self._driver.window_handles[1])
        else:
            self._driver.switch_to.frame(0)
        yield
        if window:
            self._driver.close()
        self._driver.switch_to.window(first)

    def picture(self, path):
        """Writes what the page looks like to this file."""
        self._driver.save_screenshot(str(path))

    def _processes(self):
        # Chromium's helpers leave the driver's tree; all of them name the profile.
        def ours(process):
            try:
                return process.pid == self._service.process.pid or any(
                    self._home.name in word for word in process.cmdline())
            except GONE:
                return False

        return [p for p in existing(descendants(os.getpid())) if running(p) and ours(p)]

    def end(self):
        """Ends the browser and all of its processes."""
        try:
            if self._driver:
                self._driver.quit()
        finally:
            kill_all(self._processes)
            self._home.cleanup()
