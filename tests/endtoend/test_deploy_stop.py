"""What deploy and stop do to the services, and in which order."""

import os
import unittest
from pathlib import Path
from drive.bundle import NOTE_WHO_RUNS
from drive.processes import runs, wait_for
from launchertest import LauncherTest



def open_files(pid):
    """What the process's descriptors stand for."""
    links = Path(f"/proc/{pid}/fd").iterdir()
    return {os.readlink(link) for link in links if link.is_symlink()}


class DeployAndStop(LauncherTest):

    def test_deploy_starts_nginx_before_the_rpc_server(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.close(launcher)
        pids = [int(line[4:]) for line in launcher.output.splitlines() if line.startswith("pid:")]
        self.assertEqual(pids, services.pids("nginx") + services.pids("rpc"))

    def test_nginx_is_started_from_its_directory_with_the_launchers_environment(self):
        services = self.bundle(nginx='echo "$PWD $0 $# $DISPLAY" >"$PWD/seen"; exec sleep infinity')
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        seen = services.path / "nginx/seen"
        wait_for("nginx's note", lambda: seen.exists() and seen.read_text())
        self.assertEqual(seen.read_text(),
                         f"{services.path}/nginx sbin/nginx 0 {self.desktop.name}\n")

    def test_rpc_server_is_started_without_arguments_and_environment(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        pid = services.pids("rpc")[0]
        # What the kernel holds for the script's interpreter: the script, and no variable. The
        # shell's own variables come later, into the memory of what it executes.
        wait_for("sleep in the script's place",
                 lambda: Path(f"/proc/{pid}/comm").read_text() == "sleep\n")
        inherited = Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
        names = {variable.split(b"=")[0] for variable in inherited if variable}
        self.assertLessEqual(names, {b"PWD", b"OLDPWD", b"SHLVL", b"_"})
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")

    def test_output_of_both_services_goes_into_pipes_of_the_launcher(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        ends = {name: {os.readlink(f"/proc/{services.pids(name)[0]}/fd/{fd}") for fd in (1, 2)}
                for name in ("nginx", "rpc")}
        for name, targets in ends.items():
            self.assertEqual(len(targets), 1, f"{name}: one pipe for both")
            self.assertRegex(min(targets), r"^pipe:")
            self.assertIn(min(targets), open_files(launcher.pid))
        # Started later, it has the launcher's end of the other's pipe as well.
        self.assertIn(min(ends["nginx"]), open_files(services.pids("rpc")[0]))

    def test_stop_ends_the_rpc_server_then_asks_nginx_to_stop_then_kills_it(self):
        services = self.bundle(stop=NOTE_WHO_RUNS)
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.assertEqual(services.events()[2:], ["nginx asked to stop: rpc ended, nginx runs"])
        self.close(launcher)
        self.assertEqual(len(services.lines()), 3, "nothing happens on close after a stop")

    def test_redeploy_stops_nginx_once_between_the_two_starts(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        first = services.pids("nginx") + services.pids("rpc")
        self.deploy(launcher, services)
        events = services.events()
        self.assertCountEqual(events[:2], ["nginx started", "rpc started"])
        self.assertEqual(events[2], "nginx asked to stop")
        self.assertCountEqual(events[3:], ["nginx started", "rpc started"])
        wait_for("the end of the first services", lambda: not any(map(runs, first)))
        self.assertTrue(runs(services.pids("nginx")[1]))
        self.assertTrue(runs(services.pids("rpc")[1]))

    def test_redeploy_replaces_nginx_before_the_rpc_server(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        self.deploy(launcher, services)
        self.close(launcher)
        nginx, rpc = services.pids("nginx"), services.pids("rpc")

        def start(pid):
            return f"Pipe ready\npid:{pid}\nMain progress ready\n"

        self.assertEqual(launcher.output,
                         start(nginx[0]) + start(rpc[0])
                         + "Progress stopped" + start(nginx[1])
                         + "Progress stopped" + start(rpc[1])
                         + "Progress stopped" * 2)

    def test_deploy_after_a_stop_is_like_the_first(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.deploy(launcher, services)
        self.assertEqual(services.events()[2], "nginx asked to stop")
        self.assertCountEqual(services.events()[3:], ["nginx started", "rpc started"])
        launcher.click("stop")
        wait_for("the end of the services", lambda: not launcher.started())
        self.close(launcher)
        self.assertEqual(services.events().count("nginx asked to stop"), 2)

    def test_grandchildren_outlive_a_stop(self):
        services = self.bundle(rpc="sleep infinity & wait")
        launcher = self.launch(services.program)
        self.deploy(launcher, services)
        sleep = wait_for("the grandchild",
                         lambda: [p for p in launcher.started() if p.name() == "sleep"
                                  and p.ppid() == services.pids("rpc")[0]])[0]
        launcher.click("stop")
        wait_for("the end of the rpc server", lambda: not runs(services.pids("rpc")[0]))
        self.assertTrue(runs(sleep.pid))

    def test_ended_services_stay_unreaped(self):
        services = self.bundle()
        launcher = self.launch(services.program)
        for _ in range(2):
            self.deploy(launcher, services)
            launcher.click("stop")
            wait_for("the end of the services", lambda: not launcher.started())
        children = Path(f"/proc/{launcher.pid}/task/{launcher.pid}/children").read_text().split()
        self.assertCountEqual([int(pid) for pid in children],
                              services.pids("nginx") + services.pids("rpc"))


if __name__ == "__main__":
    unittest.main()
