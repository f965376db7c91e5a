"""The example of docs/bundling.md, command by command as it stands there."""

import http.client
import re
import shutil
import subprocess
import unittest
from pathlib import Path
from drive.bundle import SITE_PORT, port_open
from drive.processes import wait_for
from launchertest import LauncherTest


PROJECT = Path(__file__).resolve().parents[2]
RPC_PORT = 4201


def ask(method, path, body=None):
    """The body of nginx's answer."""
    connection = http.client.HTTPConnection("localhost", SITE_PORT, timeout=5)
    try:
        connection.request(method, path, body)
        return connection.getresponse().read().decode()
    finally:
        connection.close()


class BundlingExample(LauncherTest):

    def copy_of_the_project(self):
        copy = self.directory / "project"
        listed = subprocess.run(["git", "ls-files", "-z"], cwd=PROJECT, check=True,
                                stdout=subprocess.PIPE, text=True).stdout
        for name in filter(None, listed.split("\0")):
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(PROJECT / name, copy / name)
        return copy

    def test_the_documented_commands_bundle_other_services(self):
        copy = self.copy_of_the_project()
        commands = re.findall(r"^```sh\n(.*?)^```$", (copy / "docs/bundling.md").read_text(),
                              re.DOTALL | re.MULTILINE)
        self.assertEqual(len(commands), 3, "blocks of commands in the example")
        done = subprocess.run(["bash", "-e", "-c", "".join(commands)], cwd=copy, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 0, done.stdout)

        launcher = self.launch(copy / "build/release/orvane.app/Contents/MacOS/orvane")
        launcher.click("deploy")
        wait_for("the site", lambda: port_open(SITE_PORT))
        wait_for("the rpc server", lambda: port_open(RPC_PORT))
        self.assertIn("My own product", ask("GET", "/"))
        self.assertIn('"result": "mine"', ask("POST", "/rpc", "{}"))
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.close(launcher)


if __name__ == "__main__":
    unittest.main()
