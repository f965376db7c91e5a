"""The example of docs/bundling.md, command by command as it stands there."""

import re
import shutil
import subprocess

import pytest
from steps import close, deploy_real

from drive.bundle import ask


@pytest.mark.timeout(600)  # it builds the release preset
def test_documented_commands_bundle_other_services(project, directory, launch):
    copy = directory / "project"
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=project, check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    for name in filter(None, listed.split("\0")):
        (copy / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(project / name, copy / name)
    commands = re.findall(r"^```sh\n(.*?)^```$", (copy / "docs/bundling.md").read_text(),
                          re.DOTALL | re.MULTILINE)
    assert len(commands) == 3, "blocks of commands in the example"
    done = subprocess.run(["bash", "-e", "-c", "".join(commands)], cwd=copy, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout

    bundle = copy / "build/release/orvane.app"
    launcher = launch(bundle / "Contents/MacOS/orvane")
    deploy_real(launcher)
    assert "My own product" in ask()[1]
    json = {"Content-Type": "application/json"}
    assert '"result": "mine"' in ask("/rpc", "{}", headers=json)[1]
    close(launcher)
