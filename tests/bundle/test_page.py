"""The sample page in a real browser, with real services."""

import signal
from itertools import groupby
from pathlib import Path
from typing import NamedTuple

import pytest
from machine import JSON, OPEN

from drive.browser import Browser
from drive.bundle import ask
from drive.processes import wait_for

PIXELS = """const shown = document.querySelector('canvas').getContext('2d');
    const {data} = shown.getImageData(0, 0, 960, 540);
    const pixels = Array.from({length: 960 * 540}, (_, i) => [...data.slice(4 * i, 4 * i + 3)]);"""


@pytest.fixture(scope="module")
def shared_browser():
    """One browser for all, since it takes its time to start."""
    with Browser() as browser:
        yield browser


@pytest.fixture
def nginx(deploy_nginx):
    """nginx, which serves."""
    return deploy_nginx()


@pytest.fixture
def rpc_server(start_rpc_server):
    """The RPC server, a subprocess.Popen."""
    return start_rpc_server()


@pytest.fixture
def page(shared_browser, nginx, rpc_server):
    """The browser at the page, with no channel open yet."""
    shared_browser.visit()
    return shared_browser


@pytest.fixture
def playing(page):
    """The browser at the page that shows a channel's moving pictures."""
    page.click("open")
    wait_for_pictures(page)
    return page


def wait_for_pictures(page):
    """Waits until they are counted, and until the one that is shown moves."""
    wait_for("pictures are counted", lambda: page.dps() > 0)
    before = page.canvas()
    wait_for("the picture moves", lambda: before != page.canvas())


def wait_for_none(page):
    """Waits until no picture is counted. The one that is shown stays still from then on."""
    wait_for("no picture is counted", lambda: page.dps() == 0)
    before = page.canvas()
    page.run("return new Promise(resolve => setTimeout(resolve, 400))")  # the time of ten pictures
    assert before == page.canvas()


def test_shows_moving_pictures_after_the_channel_is_opened(page):
    assert page.text("dps") == "0"
    page.click("open")
    wait_for_pictures(page)
    assert 0 < page.dps() <= 30  # 25 a second, or what the machine manages


class Delivery(NamedTuple):
    """How many frames come at once, and from which one on each is drawn: 40 wait at most."""

    frames: int
    caught_up: int

    @property
    def drawn(self):
        """The numbers of the frames that are drawn: every other one while the page is behind."""
        behind = range(self.caught_up - 9, self.caught_up, 2)
        return [*behind, *range(self.caught_up, self.frames + 1)]


@pytest.fixture(params=[pytest.param(Delivery(49, 11), id="49 frames, fewer than it keeps"),
                        pytest.param(Delivery(60, 21), id="60 frames, more than it keeps")])
def delivery(request, page):
    """A Delivery, of which the page has drawn and counted all that it draws."""
    page.run(Path(__file__).with_name("deliver.js").read_text(encoding="utf-8"),
             request.param.frames)
    page.click("open")
    wait_for("all are counted",
             lambda: page.run("return seen.counted") == len(request.param.drawn))
    return request.param


def test_draws_every_other_frame_while_it_is_behind(page, delivery):
    assert page.run("return seen.drawn") == [
        f"22px sans-serif frame {number} 24 512" for number in delivery.drawn]


def test_asks_for_what_comes_after_the_last_frame(page, delivery):
    assert page.run("return seen.asked")[:3] == [
        None, {"channel": 1, "after": 0}, {"channel": 1, "after": delivery.frames}]


def test_says_that_the_services_do_not_answer(page, delivery):
    assert page.text("status") == "The services do not answer. Trying again."


def test_shows_the_last_frame_while_none_comes(page, delivery):
    assert page.frame() == delivery.frames


def test_draws_the_disc_where_the_frame_says(page, delivery):
    disc = page.run(Path(__file__).with_name("disc.js").read_text(encoding="utf-8"))
    assert disc == {"left": 440, "right": 519, "top": 230, "bottom": 309}


def test_draws_eight_bars_that_grow_darker(playing):
    top, bottom = playing.run(PIXELS + "return [pixels.slice(0, 960), pixels.slice(-960)]")
    bars = [(max(rgb), len(list(pixels))) for rgb, pixels in groupby(top)]
    assert [width for _, width in bars] == [120] * 8
    assert sorted(bars, reverse=True) == bars
    assert bottom == top


def test_comes_back_after_the_rpc_server_was_gone(playing, rpc_server, start_rpc_server):
    rpc_server.kill()
    rpc_server.wait()
    wait_for_none(playing)
    start_rpc_server()
    wait_for_pictures(playing)


def test_comes_back_when_its_channel_is_another_pages_after_a_start(
        playing, rpc_server, start_rpc_server):
    rpc_server.kill()
    rpc_server.wait()
    assert start_rpc_server().stdout.readline()  # before the page has asked
    ask("/rpc", OPEN, headers=JSON)
    wait_for("it opens one of its own", lambda: "Channel 2 " in playing.text("status"))
    wait_for_pictures(playing)


@pytest.mark.parametrize("service", ["nginx", "rpc_server"])
def test_falls_to_zero_only_while_a_service_hangs(playing, nginx, rpc_server, service):
    process = nginx.child if service == "nginx" else rpc_server
    process.send_signal(signal.SIGSTOP)
    wait_for_none(playing)
    process.send_signal(signal.SIGCONT)
    wait_for_pictures(playing)


def test_opens_a_channel_again_at_the_next_click(playing):
    playing.click("open")
    wait_for("the second channel", lambda: "Channel 2 " in playing.text("status"))
    wait_for_pictures(playing)
    count = "return performance.getEntriesByType('resource').length"
    enough, shown = playing.run(count) + 4, set()

    def four_more_answers():
        shown.add(playing.text("status"))
        return playing.run(count) >= enough

    wait_for("further requests", four_more_answers)
    assert shown == {"Channel 2 is open."}


def test_shows_the_number_inside_the_video_window_at_its_top_right(page):
    video, number = (page.run(
        f"return document.querySelector('{element}').getBoundingClientRect()")
        for element in ("canvas", "#dps"))
    assert video["right"] - video["width"] / 10 < number["right"] < video["right"]
    assert video["top"] < number["top"] < number["bottom"] < video["top"] + video["height"] / 5
