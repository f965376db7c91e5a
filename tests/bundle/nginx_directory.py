"""Where nginx writes when the bundle is not its user's to write in."""

import os
import stat
import unittest

from bundle import ME, PLAIN, USER, BundleTest, can_mount, get, with_mount

STRANGER = 12345  # a user who is neither root nor the ordinary one


class PrivateDirectory(BundleTest):
    def shipped(self, name="orvane.app", **environment):
        """A bundle that the ordinary user cannot write in; the values are paths or None."""
        set_ones = {key: str(value) for key, value in environment.items() if value is not None}
        return self.nginx(name, user=USER, writable=False, environment={**PLAIN, **set_ones})

    def assert_serves_from(self, nginx, base):
        """It writes below base and nowhere else, and the stop command finds it."""
        nginx.deploy()
        lines = nginx.output.splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(f"{nginx.directory}/run cannot be written by this user", lines[0])
        self.assertRegex(lines[0], f"nginx writes in {base}/orvane/")
        made, = (base / "orvane").iterdir()
        self.assertTrue((made / "run/nginx.pid").exists())
        for directory in (base / "orvane", made, made / "run"):
            self.assertEqual(stat.S_IMODE(directory.stat().st_mode), 0o700, directory)
            self.assertEqual(directory.stat().st_uid, USER)
        self.assertFalse((nginx.directory / "run").exists())
        self.assertEqual(get()[0], 200)
        self.assertEqual(nginx.stop_command(), (0, ""))
        self.assert_nothing_left(nginx)

    def assert_refuses(self, nginx):
        nginx.start()
        self.assertNotEqual(nginx.child.wait(30), 0)
        self.assert_one_line(nginx.output, "no place to write", str(nginx.directory / "run"),
                             "[Deploy Service]")

    def test_is_the_runtime_directory_of_the_session(self):
        runtime, home = self.directory("runtime"), self.directory("home")
        self.assert_serves_from(self.shipped(XDG_RUNTIME_DIR=runtime, HOME=home), runtime)
        self.assertEqual(list(home.iterdir()), [])

    def test_is_the_state_directory_without_a_session(self):
        state, home = self.scratch / "home/state", self.directory("home")
        self.assert_serves_from(self.shipped(XDG_STATE_HOME=state, HOME=home), state)

    def test_is_in_the_home_without_xdg_variables(self):
        home = self.directory("home")
        self.assert_serves_from(self.shipped(HOME=home), home / ".local/state")

    def test_takes_only_absolute_paths_from_the_environment(self):
        home = self.directory("home")
        nginx = self.shipped(XDG_RUNTIME_DIR="html", XDG_STATE_HOME="html", HOME=home)
        os.chown(nginx.directory / "html", USER, -1)
        self.assert_serves_from(nginx, home / ".local/state")

    def test_is_not_made_where_the_bundle_can_be_written(self):
        runtime = self.directory("runtime")
        nginx = self.deployed(user=USER, environment={**PLAIN, "XDG_RUNTIME_DIR": str(runtime)})
        self.assertEqual(nginx.output, "")
        self.assertTrue(nginx.pid_file.exists())
        self.assertEqual(list(runtime.iterdir()), [])

    def test_differs_from_bundle_to_bundle(self):
        runtime = self.directory("runtime")
        # These differ in characters that no directory's name keeps, and only far from their ends.
        for name in ("a.app", "a-app", "1" + "x" * 80, "2" + "x" * 80):
            nginx = self.shipped(name, XDG_RUNTIME_DIR=runtime)
            self.assertEqual(nginx.run("-t")[0], 0)
        self.assertEqual(len(list((runtime / "orvane").iterdir())), 4)

    def test_mends_a_directory_that_others_can_enter(self):
        runtime = self.directory("runtime")
        self.directory("runtime/orvane", mode=0o777)
        self.assert_serves_from(self.shipped(XDG_RUNTIME_DIR=runtime), runtime)

    def test_is_no_symbolic_link(self):
        runtime, elsewhere = self.directory("runtime"), self.directory("elsewhere")
        (runtime / "orvane").symlink_to(elsewhere)
        self.assert_refuses(self.shipped(XDG_RUNTIME_DIR=runtime, XDG_STATE_HOME=runtime))
        self.assertEqual(list(elsewhere.iterdir()), [])

    def test_is_no_dangling_link(self):
        runtime = self.directory("runtime")
        (runtime / "orvane").symlink_to(self.scratch / "nowhere")
        self.assert_refuses(self.shipped(XDG_RUNTIME_DIR=runtime, XDG_STATE_HOME=runtime))

    def test_says_so_when_no_directory_can_be_written(self):
        closed = self.directory("closed", mode=0o500)
        if ME != 0:
            self.addCleanup(closed.chmod, 0o700)
        self.assert_refuses(self.shipped(XDG_RUNTIME_DIR=closed, HOME=closed))

    @unittest.skipUnless(ME == 0, "takes root to give files away")
    def test_is_nobody_elses(self):
        for name, user, inner in (("theirs", STRANGER, None), ("shared", USER, STRANGER)):
            base = self.directory(name, user, 0o777)
            if inner:
                self.directory(f"{name}/orvane", inner, 0o777)
            nginx = self.shipped(f"{name}.app", XDG_RUNTIME_DIR=base, XDG_STATE_HOME=base)
            self.assert_refuses(nginx)
            self.assertEqual([p.name for p in base.iterdir()], ["orvane"] if inner else [])

    @unittest.skipUnless(ME == 0, "takes root to give files away")
    def test_is_used_where_the_run_directory_is_another_users(self):
        nginx = self.nginx(user=USER)
        self.directory("orvane.app/nginx/run", STRANGER, 0o777)
        home = self.directory("home")
        nginx.environment = {**PLAIN, "HOME": str(home)}
        nginx.deploy()
        self.assertIn(f"nginx writes in {home}/.local/state/orvane/", nginx.output)
        self.assertFalse(nginx.pid_file.exists())

    @unittest.skipUnless(ME == 0 and can_mount(), "takes root and a mount of its own")
    def test_serves_root_from_a_read_only_disk(self):
        home = self.directory("home", 0)
        nginx = self.nginx(environment={**PLAIN, "HOME": str(home)})
        self.assertEqual(nginx.run("-t")[0], 0)
        self.assertEqual(list(home.iterdir()), [])
        read_only = with_mount(f"--bind -o ro {nginx.directory} {nginx.directory}")
        status, output = nginx.run("-t", before=read_only, cwd="/",
                                   script=nginx.directory / "sbin/nginx")
        self.assertEqual(status, 0, output)
        self.assertTrue(list(home.glob(".local/state/orvane/*/run/nginx.pid")))


if __name__ == "__main__":
    unittest.main()
