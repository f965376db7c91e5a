"""What the launcher itself writes to its standard output and error, to the byte."""

import os
import re
import subprocess
import threading
import tty
import unittest
from drive.bundle import STAY
from drive.processes import wait_for
from launchertest import LauncherTest


STARTED = "Pipe ready\npid:N\nMain progress ready\n"
STOPPED = "Progress stopped"  # without a line break
STOP_ANSWER = "nginx's answer\n"

WARNINGS = ("QObject::connect: Cannot connect RpcQListView::updated() to MainWindow::(nullptr)\n"
            "QObject::connect: Cannot connect NginxQListView::nginxUpdatad()"
            " to MainWindow::(nullptr)\n")


def without_pids(text):
    return re.sub(r"pid:\d+\n", "pid:N\n", text)


class Output(LauncherTest):

    def setUp(self):
        super().setUp()
        self.services = self.bundle(stop=f'echo "{STOP_ANSWER.strip()}"')

    def deploy_and_stop(self, launcher):
        self.deploy(launcher, self.services)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.close(launcher)

    def test_lines_in_a_file_follow_what_the_stop_command_wrote(self):
        launcher = self.launch(self.services.program)
        self.deploy_and_stop(launcher)
        self.assertEqual(without_pids(launcher.output), STOP_ANSWER + STARTED * 2 + STOPPED * 2)

    def test_lines_in_a_pipe_follow_what_the_stop_command_wrote(self):
        launcher = self.launch(self.services.program, stdout=subprocess.PIPE)
        self.deploy_and_stop(launcher)
        with launcher.process.stdout as pipe:
            self.assertEqual(without_pids(pipe.read().decode()),
                             STOP_ANSWER + STARTED * 2 + STOPPED * 2)

    def test_lines_on_a_terminal_appear_as_they_are_written(self):
        ours, theirs = os.openpty()
        tty.setraw(theirs)  # no carriage returns
        with open(theirs, "rb") as terminal:
            launcher = self.launch(self.services.program, stdout=terminal)
        seen = []

        def read():
            try:
                while chunk := os.read(ours, 4096):
                    seen.append(chunk)
            except OSError:
                pass  # nobody holds the other end any more

        reader = threading.Thread(target=read)
        reader.start()
        self.deploy(launcher, self.services)
        wait_for("the lines of both starts",
                 lambda: without_pids(b"".join(seen).decode()) == STARTED * 2)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.close(launcher)
        reader.join()
        os.close(ours)
        # A line that is not complete yet waits, and the stop command overtakes it.
        self.assertEqual(without_pids(b"".join(seen).decode()),
                         STARTED * 2 + STOP_ANSWER + STOPPED * 2)

    def test_missing_services_leave_no_line(self):
        services = self.services
        services.nginx.unlink()
        services.rpc.unlink()
        launcher = self.launch(services.program)
        launcher.click("deploy")
        self.close(launcher)
        self.assertEqual(launcher.output, "")

    def test_toolkit_warns_of_two_rejected_connections_at_start(self):
        launcher = self.launch(self.services.program)
        launcher.click("nginx")
        self.deploy_and_stop(launcher)
        self.assertEqual(launcher.errors, WARNINGS)

    def test_toolkit_says_more_when_rows_come_from_another_thread(self):
        self.directory = self.directory / "noisy"
        services = self.bundle(rpc=f"echo output; {STAY}")
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        wait_for("more warnings", lambda: len(launcher.errors) > len(WARNINGS))
        self.assertTrue(launcher.errors.startswith(WARNINGS))
        self.close(launcher)


if __name__ == "__main__":
    unittest.main()
