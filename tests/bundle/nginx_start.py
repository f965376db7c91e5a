"""What sbin/nginx does when it is started."""

import os
import re
import socket
import stat
import unittest
from pathlib import Path

from bundle import (ME, PLAIN, PORT, USER, BundleTest, can_mount, get, has_ipv6, listening,
                    wait_for, with_mount)

CLEAN_TEST = re.compile(r"nginx: the configuration file \S+ syntax is ok\n"
                        r"nginx: configuration file \S+ test is successful\n")


class Serving(BundleTest):
    def test_serves_the_page_as_this_user_and_as_an_ordinary_one(self):
        for user in {ME, USER}:
            with self.subTest(user=user):
                nginx = self.deployed(f"of-{user}/orvane.app", user=user)
                page = (nginx.directory / "html/index.html").read_text(encoding="utf-8")
                self.assertEqual(get(), (200, page))
                nginx.stop()
                self.assert_nothing_left(nginx)

    def test_is_one_process_the_one_that_was_started(self):
        nginx = self.deployed()
        self.assertEqual([process.pid for process in nginx.left()], [nginx.child.pid])

    def test_listens_on_loopback_only(self):
        nginx = self.deployed()
        expected = {"127.0.0.1", "::1"} if has_ipv6() else {"127.0.0.1"}
        self.assertEqual(listening(nginx.left()[0]), expected)

    @unittest.skipUnless(ME == 0 and os.environ["ORVANE_ISOLATED"] == "network" and has_ipv6(),
                         "takes a network of its own, as root, with IPv6")
    def test_serves_where_there_is_no_ipv6(self):
        switch = Path("/proc/sys/net/ipv6/conf/lo/disable_ipv6")
        switch.write_text("1", encoding="ascii")
        self.addCleanup(switch.write_text, "0", encoding="ascii")
        nginx = self.deployed()
        self.assertEqual(listening(nginx.left()[0]), {"127.0.0.1"})
        self.assertEqual(get()[0], 200)

    def test_writes_one_line_for_each_request(self):
        nginx = self.deployed()
        get()
        get("/missing")
        get("/" + "x" * 4000)
        get("/two%0alines")
        wait_for("four lines", lambda: nginx.output.count("\n") >= 4)
        expected_lines = (" 200 GET /", " 404 GET /missing", " 404 GET /" + "x" * 59,
                          " 404 GET /two%0alines")
        for line, expected in zip(nginx.output.splitlines(), expected_lines, strict=True):
            self.assertRegex(line, r"^\d\d:\d\d:\d\d" + re.escape(expected) + "$")

    def test_serves_on_when_nobody_reads_its_output(self):
        for early in (False, True):
            nginx = self.nginx(f"{early}/orvane.app")
            reading, writing = os.pipe()
            if early:
                os.close(reading)
            nginx.deploy(stdout=writing)
            os.close(writing)
            if not early:
                os.close(reading)
            for _ in range(3):
                self.assertEqual(get()[0], 200)
            nginx.stop()

    def test_names_the_rpc_server_that_does_not_answer(self):
        nginx = self.deployed()
        self.assertEqual(get("/rpc")[0], 502)
        wait_for("the line", lambda: " 502 GET /rpc\n" in nginx.output)
        self.assertIn("Connection refused", nginx.output)
        self.assertIn("127.0.0.1:4201", nginx.output)

    def test_writes_in_its_run_directory_only(self):
        nginx = self.nginx()
        before = sorted(nginx.directory.rglob("*"))
        nginx.deploy()
        get()
        run = nginx.directory / "run"
        self.assertEqual({path.name for path in run.iterdir()}, {
            "nginx.pid", "ipv6.conf", "client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        self.assertEqual(stat.S_IMODE(run.stat().st_mode), 0o700)
        nginx.stop()
        after = sorted(p for p in nginx.directory.rglob("*")
                       if run not in [p, *p.parents])
        self.assertEqual(after, before)
        self.assertEqual(sorted(self.scratch.iterdir()), [self.scratch / "orvane.app"])

    def test_takes_no_harm_from_the_environment(self):
        (self.scratch / "bash_env").write_text("exit 3\n", encoding="ascii")
        for name, value in (("HOME", ""), ("CDPATH", "/usr:/"), ("NGINX", "99;"), ("IFS", "n/"),
                            ("BASH_ENV", f"{self.scratch}/bash_env"), ("SHELLOPTS", "noexec")):
            with self.subTest(name=name):
                nginx = self.nginx(f"{name}/orvane.app", environment={**PLAIN, name: value})
                status, output = nginx.run("-t")
                self.assertEqual(status, 0, output)
                self.assertRegex(output, CLEAN_TEST)


class Testing(BundleTest):
    def test_checks_the_configuration_without_a_warning(self):
        for user in {ME, USER}:
            status, output = self.nginx(f"of-{user}/orvane.app", user=user).run("-t")
            self.assertEqual(status, 0, output)
            self.assertRegex(output, CLEAN_TEST)

    def test_names_the_file_of_a_broken_configuration(self):
        nginx = self.nginx()
        with open(nginx.directory / "conf/nginx.conf", "a", encoding="ascii") as file:
            file.write("nonsense;\n")
        status, output = nginx.run("-t")
        self.assertNotEqual(status, 0)
        self.assertIn("conf/nginx.conf", output)

    def test_runs_from_any_directory_and_in_a_path_with_blanks_and_quotes(self):
        nginx = self.nginx("an 'odd' \"path\"; $(touch x) *")
        for script, cwd in ((nginx.directory / "sbin/nginx", "/"), ("./nginx", "sbin"),
                            ("../sbin/nginx", "html")):
            status, output = nginx.run("-v", script=script, cwd=nginx.directory / cwd)
            self.assertEqual(status, 0, output)
            self.assertRegex(output, r"^nginx version: nginx/")


class Finding(BundleTest):
    def test_takes_the_first_nginx_in_the_path_that_is_not_itself(self):
        nginx = self.nginx()
        first = self.directory("bin", ME, 0o755) / "nginx"
        first.write_text("#!/bin/sh\necho the first one\n", encoding="ascii")
        first.chmod(0o755)
        link = self.directory("link", ME, 0o755) / "nginx"
        link.symlink_to(nginx.directory / "sbin/nginx")
        nginx.environment = {
            "PATH": f"sbin::{nginx.directory}/sbin:{link.parent}:{first.parent}:/usr/sbin"}
        self.assertEqual(nginx.run("-v"), (0, "the first one\n"))

    def test_finds_the_system_nginx_without_a_path(self):
        status, output = self.nginx(environment={}).run("-v")
        self.assertEqual(status, 0, output)
        self.assertRegex(output, r"^nginx version: nginx/")

    @unittest.skipUnless(can_mount(), "takes a mount of its own to hide the machine's nginx")
    def test_says_how_to_install_nginx(self):
        hidden = with_mount("--bind /dev/null /usr/sbin/nginx")
        nginx = self.nginx()
        status, output = nginx.run(before=hidden)
        self.assertNotEqual(status, 0)
        self.assert_one_line(output, "nginx is not installed", "sudo apt-get install nginx",
                             "[Deploy Service]")


class PortTaken(BundleTest):
    def hold(self, family=socket.AF_INET, address="127.0.0.1"):
        holder = socket.socket(family)
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind((address, PORT))
        holder.listen(128)
        self.addCleanup(holder.close)
        return holder

    def assert_refuses(self):
        nginx = self.nginx()
        nginx.start()
        self.assertNotEqual(nginx.child.wait(30), 0)
        self.assert_one_line(nginx.output, "port 4200", "taken by another program",
                             "[Deploy Service]")
        self.assertEqual(nginx.left(), [])

    def test_says_that_another_program_has_the_port(self):
        self.hold()
        self.assert_refuses()

    def test_says_so_when_every_address_is_taken(self):
        self.hold(address="0.0.0.0")
        self.assert_refuses()

    @unittest.skipUnless(has_ipv6(), "there is no IPv6 here")
    def test_says_so_when_only_the_ipv6_port_is_taken(self):
        self.hold(socket.AF_INET6, "::1")
        self.assert_refuses()

    def test_waits_for_a_port_that_is_about_to_be_free(self):
        holder = self.hold()
        nginx = self.nginx()
        nginx.start()
        holder.accept()[0].close()  # it has looked
        holder.close()
        wait_for("nginx serves", nginx.serves)
        self.assertEqual(nginx.output, "")

    def test_names_its_own_nginx_that_a_killed_launcher_left(self):
        nginx = self.deployed()
        first = nginx.child
        nginx.start()
        self.assertNotEqual(nginx.child.wait(30), 0)
        self.assert_one_line(nginx.output, "port 4200", "this bundle's own nginx",
                             f"process {first.pid}", "[Stop Service]", "[Deploy Service]")
        self.assertEqual(get()[0], 200)
        nginx.stop()
        wait_for("the first one has gone", lambda: first.poll() is not None)
        nginx.deploy()


if __name__ == "__main__":
    unittest.main()
