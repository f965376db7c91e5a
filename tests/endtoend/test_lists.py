"""What the two lists show on the screen, to the pixel."""

import unittest
from drive.processes import wait_for
from launchertest import LauncherTest


TALK = 'echo "{}"; exec sleep infinity'
NO_SERVICE = "File not found"
FOUND = "File found"
# What the child writes when it cannot execute its program, after the launcher's own lines that
# were not written yet: all of those so far when its output is a file.
EXEC_FAILED = "Child progress ready\nchild progress loaded fail\n"


class Lists(LauncherTest):

    def test_path_then_found_then_the_output(self):
        services = self.bundle(nginx=TALK.format("web ready"), rpc=TALK.format("rpc ready"))
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.assert_list_shows(launcher, "nginx", str(services.nginx), FOUND, "web ready\n")
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND, "rpc ready\n")

    def test_standard_error_is_shown_too(self):
        services = self.bundle(rpc="echo complaint >&2; exec sleep infinity")
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND, "complaint\n")

    def test_output_of_services_that_have_ended_stays(self):
        services = self.bundle(nginx="echo short", rpc="echo brief")
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.assert_list_shows(launcher, "nginx", str(services.nginx), FOUND, "short\n")
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND, "brief\n")
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.assert_list_shows(launcher, "nginx", str(services.nginx), FOUND, "short\n")
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND, "brief\n")

    def test_bytes_are_taken_as_utf8(self):
        services = self.bundle(rpc=TALK.format("Müller → äöü"))
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND, "Müller → äöü\n")

    def test_redeploy_starts_the_lists_anew(self):
        turn = 'echo "turn $(grep -c "^{0} started" ../journal)"; exec sleep infinity'
        services = self.bundle(nginx='cd ..; ' + turn.format("nginx"),
                               rpc=f'cd "{self.directory}/orvane.app"; ' + turn.format("rpc"))
        launcher = self.launch(services.program)
        for number in (1, 2):
            self.deploy(launcher, services)
            rows = FOUND, f"turn {number}\n"
            self.assert_list_shows(launcher, "nginx", str(services.nginx), *rows)
            self.assert_list_shows(launcher, "rpc", str(services.rpc), *rows)

    def test_missing_programs(self):
        services = self.bundle(nginx=None, rpc=None)
        launcher = self.launch(services.program)
        launcher.click("deploy")
        self.assert_list_shows(launcher, "nginx", str(services.nginx), NO_SERVICE)
        self.assert_list_shows(launcher, "rpc", str(services.rpc), NO_SERVICE)

    def test_rpc_server_that_cannot_be_executed(self):
        services = self.bundle(nginx=None)
        services.rpc.chmod(0o644)
        launcher = self.launch(services.program)
        launcher.click("deploy")
        # Its pipe is the first; nginx was not started.
        self.assert_list_shows(launcher, "rpc", str(services.rpc), FOUND,
                               "Pipe ready\n" + EXEC_FAILED)
        wait_for("the end of the child itself", lambda: not launcher.started())
        self.close(launcher)

    def test_nginx_that_cannot_be_executed(self):
        services = self.bundle()
        services.nginx.chmod(0o644)
        launcher = self.launch(services.program)
        launcher.click("deploy")
        self.assert_list_shows(launcher, "nginx", str(services.nginx), FOUND,
                               "bash: line 1: sbin/nginx: Permission denied\n")


if __name__ == "__main__":
    unittest.main()
