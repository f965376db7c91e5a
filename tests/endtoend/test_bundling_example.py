"""The example of docs/bundling.md, command by command as it stands there."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from steps import close, deploy_real

from drive.bundle import RPC_PORT, ask
from drive.processes import processes_below


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
    for status, foreign in ((403, {"Host": "other.example"}), (415, {"Content-Type": "text/plain"}),
                            (403, {"Origin": "null"}), (403, {"Sec-Fetch-Site": "same-site"}),
                            (413, {"Content-Length": "9" * 5000})):
        assert ask("/rpc", "{}", port=RPC_PORT, headers={**json, **foreign})[0] == status
    server = bundle / "rpcServer/MacOs/rpcServer"
    started, = processes_below(server.parent)
    inherited = Path(f"/proc/{started.pid}/fd")
    assert not [fd for fd in inherited.iterdir()
                if int(fd.name) > 2 and "pipe:" in os.readlink(fd)], "the launcher's own"
    second = subprocess.run([server], check=False, stdout=subprocess.PIPE, text=True,
                            stderr=subprocess.STDOUT)
    assert second.stdout == "mine: port 4201: Address already in use\n"
    close(launcher)
