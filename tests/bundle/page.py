"""The sample page in a real browser, with real services."""

import os
import signal
import subprocess
import unittest

from drive.browser import Browser
from bundle import BundleTest, wait_for

PROGRAM = os.environ["ORVANE_RPC_SERVER"]


class Page(BundleTest):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.end)

    def setUp(self):
        super().setUp()
        self.services = self.nginx()
        self.services.deploy()
        self.deploy_rpc()
        self.browser.visit()

    def deploy_rpc(self):
        self.rpc = subprocess.Popen([PROGRAM], env={}, stdout=subprocess.DEVNULL)
        self.addCleanup(self.rpc.wait)
        self.addCleanup(self.rpc.kill)

    def stop_rpc(self):
        self.rpc.kill()
        self.rpc.wait()

    def wait_for_pictures(self):
        wait_for("pictures arrive", lambda: self.browser.dps() > 0)
        before = self.browser.run("return document.querySelector('canvas').toDataURL()")
        wait_for("the picture moves", lambda: before != self.browser.run(
            "return document.querySelector('canvas').toDataURL()"))

    def wait_for_none(self):
        wait_for("no picture arrives", lambda: self.browser.dps() == 0)

    def wait_for_requests(self, number):
        """Returns what the page says of itself while that many further requests are answered."""
        count = "return performance.getEntriesByType('resource').length"
        enough, shown = self.browser.run(count) + number, set()

        def look():
            shown.add(self.browser.text("status"))
            return self.browser.run(count) >= enough

        wait_for("the requests", look)
        return shown

    def test_shows_moving_pictures_after_the_channel_is_opened(self):
        self.assertEqual(self.browser.text("dps"), "0")
        self.browser.click("open")
        self.wait_for_pictures()
        wait_for("about 25 pictures a second", lambda: 20 <= self.browser.dps() <= 30)

    def test_comes_back_after_the_rpc_server_was_gone(self):
        self.browser.click("open")
        self.wait_for_pictures()
        self.stop_rpc()
        self.wait_for_none()
        self.deploy_rpc()
        self.wait_for_pictures()

    def test_comes_back_after_nginx_was_gone(self):
        self.browser.click("open")
        self.wait_for_pictures()
        self.services.stop()
        self.wait_for_none()
        self.services.deploy()
        self.wait_for_pictures()

    def test_opens_a_channel_again_at_the_next_click(self):
        self.browser.click("open")
        self.wait_for_pictures()
        self.browser.click("open")
        wait_for("the second channel", lambda: "Channel 2 " in self.browser.text("status"))
        self.wait_for_pictures()
        self.assertEqual(self.wait_for_requests(4), {"Channel 2 is open."})

    def test_falls_to_zero_when_the_rpc_server_hangs(self):
        self.browser.click("open")
        self.wait_for_pictures()
        self.rpc.send_signal(signal.SIGSTOP)
        self.wait_for_none()

    def test_falls_to_zero_when_nginx_hangs(self):
        self.browser.click("open")
        self.wait_for_pictures()
        self.services.child.send_signal(signal.SIGSTOP)
        self.wait_for_none()

    def test_shows_the_number_inside_the_video_window_at_its_top_right(self):
        video, number = (self.browser.run(
            f"return document.querySelector('{element}').getBoundingClientRect()")
            for element in ("canvas", "#dps"))
        self.assertLess(number["right"], video["right"])
        self.assertLess(video["right"] - number["right"], video["width"] / 10)
        self.assertGreater(number["top"], video["top"])
        self.assertLess(number["bottom"] - video["top"], video["height"] / 5)

    def test_loads_nothing_from_outside(self):
        self.browser.click("open")
        self.wait_for_pictures()
        names = self.browser.run("return performance.getEntries().map(entry => entry.name)")
        addresses = {name for name in names if "//" in name}
        self.assertEqual(addresses, {"http://localhost:4200/", "http://localhost:4200/rpc"})


if __name__ == "__main__":
    unittest.main()
