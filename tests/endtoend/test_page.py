"""The sample page in a real browser, as the directions on the first tab describe it."""

import unittest
from drive.browser import Browser
from drive.bundle import site_answers
from drive.processes import wait_for
from launchertest import LauncherTest



class Page(LauncherTest):

    def test_dps_rises_after_deploy_falls_after_stop_and_rises_after_the_next_deploy(self):
        launcher = self.launch(self.real_bundle())
        launcher.click("deploy")
        wait_for("the site", site_answers)
        browser = self.enterContext(Browser())
        browser.visit()
        self.assertEqual(browser.dps(), 0, "before a channel is open")
        browser.click("open")
        wait_for("a DPS number above 0", lambda: browser.dps() > 0)

        launcher.click("stop")
        wait_for("a DPS number of 0", lambda: browser.dps() == 0)

        launcher.click("deploy")
        wait_for("the site", site_answers)
        browser.visit()
        browser.click("open")
        wait_for("a DPS number above 0", lambda: browser.dps() > 0)
        self.close(launcher)
        wait_for("a DPS number of 0", lambda: browser.dps() == 0)


if __name__ == "__main__":
    unittest.main()
