"""What the Python tests share. ORVANE_BUILD names the build directory, build/dev if it is unset."""

import os
import tempfile
from contextlib import ExitStack
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[1]
BUILD = Path(os.environ.get("ORVANE_BUILD", PROJECT / "build/dev")).resolve()


@pytest.fixture(scope="session")
def project():
    """The project's directory."""
    return PROJECT


@pytest.fixture(scope="session")
def build():
    """The build directory."""
    return BUILD


@pytest.fixture
def ending():
    """An ExitStack whose contexts end with the test."""
    with ExitStack() as stack:
        yield stack


@pytest.fixture
def directory():
    """An empty directory that every user can look into, and that goes with the test."""
    with tempfile.TemporaryDirectory(prefix="orvane-test-") as made:
        os.chmod(made, 0o755)
        yield Path(made).resolve()
