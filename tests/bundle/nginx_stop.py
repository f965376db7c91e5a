"""What "sbin/nginx -s stop" does, and what a SIGKILL at any moment leaves."""

import array
import fcntl
import http.client
import os
import random
import signal
import subprocess
import termios
import time
import unittest

from bundle import ME, PORT, USER, BundleTest, get, port_open, wait_for

DEPLOYS = 30
LONGEST_START = 0.06  # seconds; nginx serves after about half of it


class StopCommand(BundleTest):
    def test_returns_when_nginx_has_gone(self):
        for user in {ME, USER}:
            nginx = self.deployed(f"of-{user}/orvane.app", user=user)
            self.assertEqual(nginx.stop_command(), (0, ""))
            self.assertEqual(nginx.left(), [])
            self.assertFalse(port_open(PORT))
            self.assertFalse(nginx.pid_file.exists())

    def test_says_that_nothing_is_running(self):
        for name in ("stop", "quit", "reopen"):
            status, output = self.nginx(f"{name}/orvane.app").run("-s", name)
            self.assertEqual(status, 1)
            self.assert_one_line(output, "not running")

    def test_stops_when_the_configuration_is_broken_by_now(self):
        nginx = self.deployed()
        (nginx.directory / "conf/nginx.conf").write_text("nonsense", encoding="ascii")
        self.assertEqual(nginx.stop_command(), (0, ""))
        self.assert_nothing_left(nginx)

    def test_stops_where_the_shell_stays_in_front_of_nginx(self):
        nginx = self.nginx()
        nginx.deploy(command="cd {} && sbin/nginx; exit")  # as an older bash runs it
        self.assertEqual(len(nginx.left()), 2)
        nginx.stop()
        self.assert_nothing_left(nginx)

    def test_stops_an_nginx_whose_output_nobody_reads(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        os.fchown(writing, USER if ME == 0 else -1, -1)
        size = fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        nginx = self.nginx(user=USER)
        nginx.deploy(stdout=writing)
        os.close(writing)
        for _ in range(size // len("12:34:56 200 GET /\n") + 50):  # more lines than fit
            connection = http.client.HTTPConnection("127.0.0.1", PORT)
            self.addCleanup(connection.close)
            connection.request("GET", "/")
        waiting = array.array("i", [0])
        wait_for("the pipe is full", lambda: not fcntl.ioctl(reading, termios.FIONREAD, waiting)
                 and waiting[0] > size - len("12:34:56 200 GET /\n"))
        self.assertEqual(nginx.stop_command()[0], 0)
        self.assert_nothing_left(nginx)

    def test_kills_an_nginx_that_does_not_heed_it(self):
        nginx = self.deployed()
        nginx.child.send_signal(signal.SIGSTOP)
        self.assertEqual(nginx.stop_command()[0], 0)
        self.assert_nothing_left(nginx)

    def test_hands_the_other_signals_to_nginx(self):
        nginx = self.deployed()
        self.assertEqual(nginx.run("-s", "reopen")[0], 0)
        self.assertEqual(get()[0], 200)
        self.assertEqual(nginx.run("-s", "quit")[0], 0)
        self.assert_nothing_left(nginx)

    def test_refuses_to_reload(self):
        nginx = self.deployed()
        status, output = nginx.run("-s", "reload")
        self.assertEqual(status, 1)
        self.assert_one_line(output, "cannot reload", "Stop it and start it again")
        self.assertEqual(get()[0], 200)


class StalePidFile(BundleTest):
    def leave(self, nginx, text):
        nginx.pid_file.parent.mkdir(exist_ok=True)
        nginx.pid_file.write_text(text, encoding="ascii")

    def assert_not_signalled(self, nginx, process):
        status, output = nginx.stop_command()
        self.assertEqual(status, 1)
        self.assert_one_line(output, "not running")
        self.assertIsNone(process.poll())

    def test_does_not_signal_a_program_that_got_the_number(self):
        with subprocess.Popen(["sleep", "600"]) as foreign:
            self.addCleanup(foreign.kill)
            nginx = self.nginx()
            self.leave(nginx, f"{foreign.pid}\n")
            self.assert_not_signalled(nginx, foreign)
            nginx.deploy()
            self.assertIsNone(foreign.poll())
            nginx.stop()
            foreign.kill()

    def test_does_not_signal_the_nginx_of_another_bundle(self):
        other = self.deployed("other/orvane.app")
        nginx = self.nginx()
        self.leave(nginx, f"{other.child.pid}\n")
        self.assert_not_signalled(nginx, other.child)
        self.assertEqual(get()[0], 200)

    def test_takes_no_other_text_for_a_process(self):
        nginx = self.nginx()
        with subprocess.Popen(["sleep", "600"], start_new_session=True) as foreign:
            self.addCleanup(foreign.kill)
            for text in ("", "\n", "0\n", "-1\n", f"-{foreign.pid}\n", "99999999\n", "self\n",
                         "1 $(kill 1)\n", "a[$(kill $PPID)]\n"):
                self.leave(nginx, text)
                self.assert_not_signalled(nginx, foreign)
            foreign.kill()

    def test_a_killed_nginx_is_replaced_at_once(self):
        nginx = self.deployed()
        os.kill(nginx.child.pid, signal.SIGKILL)  # and not waited for, as the launcher does
        wait_for("it has ended", lambda: not nginx.left())
        self.assertEqual(nginx.stop_command()[0], 1)
        self.assertTrue(nginx.pid_file.exists())
        nginx.deploy()
        self.assertEqual(get()[0], 200)


class AnyMoment(BundleTest):
    """The delays differ from run to run; the failure message names the one that mattered."""

    def delays(self):
        return [LONGEST_START * random.random() for _ in range(DEPLOYS)]

    def test_a_kill_while_it_starts_leaves_nothing(self):
        for user, writable in ((ME, True), (USER, False)):
            nginx = self.nginx(f"of-{user}-{writable}/orvane.app", user=user, writable=writable)
            nginx.environment = {**nginx.environment, "XDG_RUNTIME_DIR": str(
                self.directory(f"runtime-{user}-{writable}", user))}
            for delay in self.delays():
                with self.subTest(delay=delay):
                    nginx.start()
                    time.sleep(delay)
                    nginx.kill()
                    self.assert_nothing_left(nginx)

    def test_stop_and_deploy_at_any_moment_ends_with_one_that_serves(self):
        nginx = self.nginx()
        for delay in self.delays():
            with self.subTest(delay=delay):
                nginx.start()
                time.sleep(delay)
                nginx.stop()
        nginx.deploy()
        self.assertEqual([process.pid for process in nginx.left()], [nginx.child.pid])
        self.assertNotIn("taken", nginx.output)
        self.assertNotIn("held", nginx.output)
        nginx.stop()
        self.assert_nothing_left(nginx)


if __name__ == "__main__":
    unittest.main()
