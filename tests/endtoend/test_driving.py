"""What drives the launcher ends all that it has started, and nothing else."""

import os
import signal
import subprocess
import sys
from contextlib import suppress

import pytest
from selenium.common import WebDriverException
from urllib3.exceptions import HTTPError

from drive.browser import Browser
from drive.processes import descendants, existing, processes_below, running, wait_for

HANGS_UP = """import signal; from drive.processes import exit_on_signals
exit_on_signals(); signal.raise_signal(signal.SIGHUP)"""


def test_bundle_whose_path_begins_alike_is_another(directory, ending):
    (directory / "orvane.app.old").mkdir()
    other = ending.enter_context(
        subprocess.Popen(["sleep", "infinity"], cwd=directory / "orvane.app.old"))
    ending.callback(other.kill)
    assert processes_below(directory / "orvane.app") == []


@pytest.mark.parametrize("before, status", [
    pytest.param(signal.SIG_DFL, 128 + signal.SIGHUP, id="ends a program"),
    pytest.param(signal.SIG_IGN, 0, id="does not end one that was started by nohup")])
def test_end_of_the_terminal(project, before, status):
    done = subprocess.run([sys.executable, "-B", "-c", HANGS_UP], cwd=project, check=False,
                          preexec_fn=lambda: signal.signal(signal.SIGHUP, before))
    assert done.returncode == status


def test_browser_ends_although_its_driver_has_been_killed():
    earlier = set(descendants(os.getpid()))
    browser = Browser()
    started = existing(set(descendants(os.getpid())) - earlier)
    driver, = (process for process in started if process.name() == "chromedriver")
    driver.kill()
    with suppress(WebDriverException, HTTPError):
        browser.end()
    # A process that was killed just now may take a moment to go.
    wait_for("the end of the browser", lambda: not any(map(running, started)))
