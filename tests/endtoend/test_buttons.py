"""What the mouse and the keyboard set off on the two buttons."""

import unittest
from drive.processes import wait_for
from launchertest import LauncherTest



class Buttons(LauncherTest):

    def setUp(self):
        super().setUp()
        self.services = self.bundle()
        self.launcher = self.launch(self.services.program)

    def assert_deployed(self, times):
        """Closes the window first, so that a late start counts too."""
        self.close(self.launcher)
        self.assertEqual(self.launcher.output.count("pid:"), 2 * times, "services started")

    def test_press_starts_both_services_before_the_release(self):
        self.launcher.press("deploy")
        wait_for("the start of both services", self.services.deployed)
        self.desktop.release()
        self.assert_deployed(1)

    def test_press_stops_both_services_before_the_release(self):
        self.deploy(self.launcher, self.services)
        self.launcher.press("stop")
        wait_for("the end of the services", lambda: not self.launcher.started())
        self.desktop.release()
        self.assert_deployed(1)

    def test_right_and_middle_press_start_nothing(self):
        for button in (3, 2):
            self.launcher.click("deploy", button)
            self.launcher.click("stop", button)  # a stop now would end the launcher
        self.assert_deployed(0)

    def test_left_press_with_the_right_button_held_starts_the_services(self):
        self.launcher.press("deploy", 3)
        self.launcher.press("deploy", 1)
        wait_for("the start of both services", self.services.deployed)
        self.desktop.release(1)
        self.desktop.release(3)
        self.assert_deployed(1)

    def test_space_bar_on_a_focused_button_starts_nothing(self):
        self.launcher.take_focus()
        for button in ("deploy", "stop"):
            self.launcher.click(button, 3)  # gives the button the focus
            self.launcher.point_at("title")
            self.desktop.key("space")
        self.assert_deployed(0)

    def test_left_press_and_release_outside_runs_once(self):
        self.launcher.press("deploy")
        self.launcher.point_at("title")
        self.desktop.release()
        wait_for("the start of both services", self.services.deployed)
        self.assert_deployed(1)

    def test_click_runs_once_and_not_again_on_the_release(self):
        self.deploy(self.launcher, self.services)
        self.assert_deployed(1)

    def test_double_click_deploys_twice(self):
        self.launcher.double_click("deploy")
        self.assert_deployed(2)


if __name__ == "__main__":
    unittest.main()
