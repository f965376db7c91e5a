"""The launcher with the bundle's real nginx and RPC server."""

import unittest
from drive.bundle import SITE_PORT, port_open, site_answers
from drive.processes import wait_for
from launchertest import LauncherTest


RPC_PORT = 4201
CYCLES = 10


class RealServices(LauncherTest):

    def deploy_real(self, launcher):
        launcher.click("deploy")
        wait_for("the site", site_answers)
        wait_for("the rpc server", lambda: port_open(RPC_PORT))

    def assert_nothing_left(self, launcher):
        wait_for("the end of the services", lambda: not launcher.started())
        self.assertFalse(port_open(SITE_PORT), "nginx's port is open")
        self.assertFalse(port_open(RPC_PORT), "the rpc server's port is open")

    def test_deploy_and_stop_again_and_again(self):
        launcher = self.launch(self.real_bundle())
        for _ in range(CYCLES):
            self.deploy_real(launcher)
            launcher.click("stop")
            self.assert_nothing_left(launcher)
        self.close(launcher)

    def test_redeploy_again_and_again_then_close(self):
        launcher = self.launch(self.real_bundle())
        for _ in range(CYCLES):
            self.deploy_real(launcher)
        self.close(launcher)
        self.assert_nothing_left(launcher)

    def test_close_right_after_deploy(self):
        launcher = self.launch(self.real_bundle())
        launcher.click("deploy")
        self.close(launcher)
        self.assert_nothing_left(launcher)

    def test_deploy_after_a_killed_launcher(self):
        program = self.real_bundle()
        killed = self.launch(program)
        self.deploy_real(killed)
        killed.kill()
        self.assertTrue(site_answers(), "the services go on")
        self.assertEqual(len(killed.started()), 2)
        killed.end()

        launcher = self.launch(program)
        self.deploy_real(launcher)
        launcher.click("stop")
        self.assert_nothing_left(launcher)
        self.close(launcher)


if __name__ == "__main__":
    unittest.main()
