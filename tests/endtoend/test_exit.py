"""How the launcher ends, and what it leaves running."""

import signal
import unittest
from drive.bundle import NOTE_WHO_RUNS
from drive.processes import runs, wait_for
from launchertest import LauncherTest



class Exit(LauncherTest):

    def test_close_while_idle_runs_nothing(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.close(launcher)
        self.assertEqual(services.lines(), [])
        self.assertEqual(launcher.output, "")

    def test_close_while_deployed_ends_the_rpc_server_then_stops_nginx(self):
        services = self.bundle(stop=NOTE_WHO_RUNS)
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.close(launcher)
        self.assertEqual(services.events()[2:], ["nginx asked to stop: rpc ended, nginx runs"])

    def test_exit_waits_for_the_stop_command(self):
        services = self.bundle(stop='    echo asked >>"{journal}"\n'
                                    '    until [ -e "{journal}.go" ]; do sleep 0.05; done\n'
                                    '    echo done >>"{journal}"')
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        launcher.close()
        wait_for("the stop command", lambda: services.lines()[2:] == ["asked"])
        self.assertIsNone(launcher.process.poll())
        self.assertTrue(runs(services.pids("nginx")[0]), "killed only after the stop command")
        services.journal.with_suffix(".go").touch()
        self.assertEqual(launcher.wait(), 0)
        self.assertEqual(services.lines()[3:], ["done"])

    def test_stop_while_idle_ends_by_invalid_memory_access(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        launcher.click("stop")
        self.assertEqual(launcher.wait(), -signal.SIGSEGV)
        self.assertEqual(services.lines(), [])
        self.assertEqual(launcher.started(), [])

    def test_second_stop_in_a_row_ends_by_invalid_memory_access(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.assertIsNone(launcher.process.poll())
        launcher.click("stop")
        self.assertEqual(launcher.wait(), -signal.SIGSEGV)
        self.assertEqual(services.events().count("nginx asked to stop"), 1)

    def test_killed_launcher_leaves_the_services_running(self):
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(signal=number.name):
                services = self.bundle()
                launcher = self.launch(services.program)
                self.deploy(launcher, services)
                launcher.process.send_signal(number)
                self.assertEqual(launcher.wait(), -number)
                self.assertTrue(runs(services.pids("nginx")[0]))
                self.assertTrue(runs(services.pids("rpc")[0]))
                self.assertNotIn("nginx asked to stop", services.events())
                launcher.end()
                self.directory = self.directory / "next"

    def test_services_that_ended_by_themselves_leave_the_launcher_running(self):
        services = self.bundle(nginx="exit 3", rpc="exit 4")
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        wait_for("the end of the services", lambda: not launcher.started())
        launcher.click("stop")
        wait_for("the stop command", lambda: services.lines()[2:] == ["nginx asked to stop"])
        self.close(launcher)
        self.assertEqual(len(services.lines()), 3)


if __name__ == "__main__":
    unittest.main()
