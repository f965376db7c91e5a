"""A real browser (Chromium, without a window) that looks at the sample page."""

import http.client
import os
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from desktop import wait_for
from processes import GONE, adopt_orphans, descendants, existing, running

SITE_PORT = 4200
SITE = f"http://localhost:{SITE_PORT}/"
FLAGS = ["--headless=new", "--disable-gpu", "--disable-quic", "--no-first-run", "--no-proxy-server",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--window-size=1000,800",
         # A container has no sandbox to offer, nor has root; the only page visited is our own.
         "--no-sandbox"]


def site_answers():
    """Whether the site's first page is served."""
    connection = http.client.HTTPConnection("localhost", SITE_PORT, timeout=5)
    try:
        connection.request("GET", "/")
        return connection.getresponse().status == http.client.OK
    except (OSError, http.client.HTTPException):
        return False
    finally:
        connection.close()


class Browser:
    """Chromium with a fresh profile, through its driver."""

    def __init__(self):
        adopt_orphans()
        self._home = tempfile.TemporaryDirectory(prefix="orvane-browser-",
                                                 ignore_cleanup_errors=True)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in [*FLAGS, f"--user-data-dir={self._home.name}/profile"]:
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
        self._driver.get(address)

    def click(self, name):
        """A real click in the middle of the element with this id."""
        self._driver.find_element(By.ID, name).click()

    def text(self, name):
        return self._driver.find_element(By.ID, name).text

    def dps(self):
        """The number of frames a second that the page shows."""
        return float(self.text("dps"))

    def run(self, script):
        """What the script, a function's body in the page, returns."""
        return self._driver.execute_script(script)

    def picture(self, path):
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
        try:
            if self._driver:
                self._driver.quit()
        finally:
            for process in self._processes():
                process.kill()
            wait_for("the browser's end", lambda: not self._processes())
            self._home.cleanup()
