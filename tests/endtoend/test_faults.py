"""What the tabs say when a port or nginx itself is not to be had."""

import socket
import subprocess
import unittest
from drive.bundle import SITE_PORT, port_open
from drive.processes import wait_for
from launchertest import LauncherTest


RPC_PORT = 4201
HIDE_NGINX = ["unshare", "--mount", "sh", "-c",
              'mount --bind /dev/null /usr/sbin/nginx && exec "$@"', "sh"]


def can_hide_nginx():
    return subprocess.run([*HIDE_NGINX, "true"], check=False, stderr=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL).returncode == 0


class Faults(LauncherTest):

    def hold(self, port):
        holder = self.enterContext(socket.socket())
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("127.0.0.1", port))
        holder.listen(128)
        return holder

    def assert_tab_says(self, launcher, name, program, line):
        path = launcher.bundle / program
        self.assert_list_shows(launcher, name, str(path), "File found", line + "\n")

    def test_nginx_tab_names_the_port_that_another_program_has(self):
        holder = self.hold(SITE_PORT)
        launcher = self.launch(self.real_bundle())
        launcher.click("deploy")
        self.assert_tab_says(launcher, "nginx", "nginx/sbin/nginx",
                             "nginx: port 4200 is taken by another program. Close that program, "
                             "then press [Deploy Service] again.")
        holder.close()
        launcher.click("deploy")
        wait_for("nginx on the port that is free now", lambda: port_open(SITE_PORT))
        self.close(launcher)

    def test_rpc_tab_names_the_port_that_another_program_has(self):
        holder = self.hold(RPC_PORT)
        launcher = self.launch(self.real_bundle())
        launcher.click("deploy")
        self.assert_tab_says(launcher, "rpc", "rpcServer/MacOs/rpcServer",
                             "rpcServer: port 4201 is taken by another program, or by a server "
                             "that a killed launcher left running. End it, then press "
                             "[Deploy Service] again.")
        holder.close()
        launcher.click("deploy")
        wait_for("the RPC server on the port that is free now", lambda: port_open(RPC_PORT))
        self.close(launcher)

    @unittest.skipUnless(can_hide_nginx(), "takes a mount of its own to hide the machine's nginx")
    def test_nginx_tab_says_that_nginx_is_not_installed(self):
        launcher = self.launch(self.real_bundle(), within=HIDE_NGINX)
        launcher.click("deploy")
        self.assert_tab_says(launcher, "nginx", "nginx/sbin/nginx",
                             "nginx: nginx is not installed on this machine. Install it (sudo "
                             "apt-get install nginx), then press [Deploy Service] again.")
        self.close(launcher)


if __name__ == "__main__":
    unittest.main()
