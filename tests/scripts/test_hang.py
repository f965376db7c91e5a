"""What a module of tests shows when one of them hangs."""

import json
import os
import re
import subprocess

import pytest

from drive.processes import end

MODULE = """
import threading


def test_that_passes():
    pass


def test_that_hangs():
    threading.Event().wait()
"""


@pytest.fixture
def command(build, directory):
    """How CTest starts a module of tests; the module here is one with a test that hangs."""
    listed = subprocess.run(["ctest", "--show-only=json-v1", "-R", "^scripts_hang$"], cwd=build,
                            stdout=subprocess.PIPE, check=True).stdout
    (directory / "test_module.py").write_text(MODULE)
    return [*json.loads(listed)["tests"][0]["command"][:-1], directory / "test_module.py"]


def test_module_shows_how_far_it_came_while_it_runs(command):
    module = subprocess.Popen(command, stdout=subprocess.PIPE)
    shown = b""
    try:  # CTest prints what it has read by then when a module reaches its time limit
        while b"::test_that_hangs" not in shown:
            piece = os.read(module.stdout.fileno(), 1000)
            assert piece, f"it has ended, and showed only: {shown.decode()}"
            shown += piece
    finally:
        end(module)
        module.stdout.close()
    assert b"::test_that_passes PASSED" in shown


def test_test_that_hangs_fails_within_30_seconds(command):
    assert int(command[command.index("--timeout") + 1]) <= 30


def test_test_that_hangs_is_named(command):
    limit = command.index("--timeout") + 1
    done = subprocess.run([*command[:limit], "1", *command[limit + 1:]], stdout=subprocess.PIPE,
                          text=True, check=False)
    assert "::test_that_hangs FAILED" in done.stdout
    # Newer releases of the plugin write "Timeout (>1.0s)".
    assert re.search(r"Failed: Timeout \(?>1\.0s", done.stdout), done.stdout
