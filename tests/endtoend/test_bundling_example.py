"""The example of docs/bundling.md, command by command as it stands there."""

import re
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest
from steps import close, deploy_real

from drive.bundle import ask

pytestmark = pytest.mark.timeout(600)  # the first of them waits for a build of the release preset


def succeed(*command, cwd):
    """Runs it; a failed one shows what it wrote."""
    done = subprocess.run(command, cwd=cwd, check=False, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


@pytest.fixture(scope="module")
def example(project):
    """A copy of the project in which the documented commands have been run."""
    with tempfile.TemporaryDirectory(prefix="orvane-example-") as made:
        copy = Path(made).resolve() / "project"
        for name in filter(None, succeed("git", "ls-files", "-z", cwd=project).split("\0")):
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(project / name, copy / name)
        commands = re.findall(r"^```sh\n(.*?)^```$", (copy / "docs/bundling.md").read_text(),
                              re.DOTALL | re.MULTILINE)
        assert len(commands) == 3, "blocks of commands in the example"
        succeed("bash", "-e", "-c", "".join(commands), cwd=copy)
        yield copy


@pytest.fixture
def deployed(example, launch):
    """The launcher of the example's bundle, with its services running."""
    launcher = launch(example / "build/release/orvane.app/Contents/MacOS/orvane")
    deploy_real(launcher)
    yield launcher
    close(launcher)


@pytest.mark.usefixtures("deployed")
def test_documented_commands_bundle_another_site():
    assert "My own product" in ask()[1]


@pytest.mark.usefixtures("deployed")
def test_documented_commands_bundle_another_rpc_server():
    json = {"Content-Type": "application/json"}
    assert '"result": "mine"' in ask("/rpc", "{}", headers=json)[1]


def test_documented_package_depends_on_what_the_services_take(example):
    succeed("cmake", "--build", "--preset", "release", "--target", "package", cwd=example)
    package, = (example / "build/release/packages").glob("*.deb")
    depends = succeed("dpkg-deb", "--field", package, "Depends", cwd=example)
    names = {group.split()[0] for group in depends.split(", ")}
    assert {"nginx", "python3"} <= names, depends
