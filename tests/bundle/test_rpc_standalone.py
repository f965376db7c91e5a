"""The sample RPC server's folder is all that an integrator copies."""

import shutil
import subprocess

import pytest
from machine import JSON, OPEN

from drive.bundle import RPC_PORT, ask
from drive.processes import PATIENCE


@pytest.mark.timeout(6 * PATIENCE)  # it builds the server
def test_builds_and_answers_without_the_rest_of_the_project(project, directory, start_rpc_server):
    shutil.copytree(project / "bundle/rpcServer", directory / "rpcServer")
    for arguments in (["-S", "rpcServer", "-B", "build"], ["--build", "build"]):
        done = subprocess.run(["cmake", *arguments], cwd=directory, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert done.returncode == 0, done.stdout
    server = start_rpc_server(program=directory / "build/rpcServer")
    server.stdout.readline()
    assert ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)[0] == 200
