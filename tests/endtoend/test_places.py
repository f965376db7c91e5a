"""Where the launcher's program lies, and what state its bundle is in."""

import os
import shutil
import signal
import unittest
from drive.processes import wait_for
from launchertest import LAUNCHER, LauncherTest



def contents(directory):
    """Every path below it, with what a change would change."""
    return {path: (path.lstat().st_mode, path.lstat().st_mtime_ns, path.lstat().st_size)
            for path in [directory, *directory.rglob("*")]}


class Places(LauncherTest):

    def test_without_services_deploy_and_stop_do_nothing_but_a_second_stop_ends_it(self):
        services = self.bundle(nginx=None, rpc=None)
        launcher = self.launch(services.program)
        launcher.click("deploy")
        launcher.click("stop")
        self.assert_list_shows(launcher, "rpc", str(services.rpc), "File not found")
        self.assertIsNone(launcher.process.poll())
        self.assertEqual(launcher.started(), [])
        launcher.click("stop")
        self.assertEqual(launcher.wait(), -signal.SIGSEGV)

    def test_one_missing_service_does_not_keep_the_other_from_running(self):
        services = self.bundle(nginx=None)
        launcher = self.launch(services.program)
        launcher.click("deploy")
        wait_for("the rpc server", lambda: services.pids("rpc"))
        launcher.click("stop")
        wait_for("the end of the rpc server", lambda: not launcher.started())
        self.close(launcher)
        self.assertEqual(services.events(), ["rpc started"])

    def test_outside_a_bundle_the_services_are_looked_for_from_the_root(self):
        program = self.directory / "bin/orvane"
        program.parent.mkdir()
        shutil.copy(LAUNCHER, program)
        launcher = self.launch(program)
        launcher.click("deploy")
        self.assert_list_shows(launcher, "nginx", "/nginx/sbin/nginx", "File not found")
        self.assert_list_shows(launcher, "rpc", "/rpcServer/MacOs/rpcServer", "File not found")
        self.close(launcher)

    def test_blank_in_the_path_keeps_nginx_from_starting_but_not_the_rpc_server(self):
        self.directory = self.directory / "a blank"
        services = self.bundle()
        launcher = self.launch(services.program)
        launcher.click("deploy")
        wait_for("the rpc server", lambda: services.pids("rpc"))
        self.assert_list_shows(launcher, "nginx", str(services.nginx), "File found",
                               "bash: line 1: cd: too many arguments\n")
        self.close(launcher)
        self.assertEqual(services.events(), ["rpc started"])

    def test_path_with_other_letters(self):
        self.directory = self.directory / "Übergröße"
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.assert_list_shows(launcher, "rpc", str(services.rpc), "File found")
        self.close(launcher)

    def test_started_through_a_link_the_bundle_is_the_one_with_the_program(self):
        services = self.bundle()
        link = self.directory / "link"
        link.symlink_to(services.program)
        launcher = self.launch(link)
        self.deploy(launcher, services)
        self.close(launcher)

    def test_bundle_is_only_read(self):
        services = self.bundle()
        for path in [services.path, *services.path.rglob("*")]:
            path.chmod(path.stat().st_mode & ~0o222)
        before = contents(services.path)
        try:
            launcher = self.launch(services.program)
            self.deploy(launcher, services)
            launcher.click("stop")
            wait_for("the end of the services", lambda: not launcher.started())
            self.close(launcher)
            self.assertEqual(contents(services.path), before)
        finally:
            for path in [services.path, *services.path.rglob("*")]:
                os.chmod(path, path.stat().st_mode | 0o200)

    def test_nothing_is_kept_in_the_home(self):
        services = self.bundle()
        home = self.directory / "home"
        home.mkdir()
        launcher = self.launch(services.program, within=[
            "env", "-u", "XDG_CONFIG_HOME", "-u", "XDG_DATA_HOME", "-u", "XDG_STATE_HOME",
            "-u", "XDG_CACHE_HOME", f"HOME={home}"])
        self.deploy(launcher, services)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.close(launcher)
        # Fonts and pictures that the system's libraries may look up there again.
        self.assertEqual([path for path in home.iterdir() if path.name != ".cache"], [])

    def test_toolkit_takes_its_options(self):
        services = self.bundle()
        pictures = []
        for style in ("fusion", "windows"):
            with self.launch(services.program, ["-style", style]) as launcher:
                launcher.point_at("title")
                self.deploy(launcher, services)
                self.assert_list_shows(launcher, "rpc", str(services.rpc), "File found",
                                       "-style", style)
                pictures.append(launcher.picture())
                self.close(launcher)
        self.assertNotEqual(*pictures)


if __name__ == "__main__":
    unittest.main()
