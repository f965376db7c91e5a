"""What another site's page can do to the services, in a real browser."""

import http.server
import json
import threading
from typing import NamedTuple

import pytest
from machine import JSON, OPEN, rows

from drive.browser import Browser
from drive.bundle import RPC_PORT, SITE_PORT, ask
from drive.processes import wait_for

BATCH = f"[{', '.join([OPEN] * 16)}]"
LOADED = "return document.readyState == 'complete' && location.href"
IS_THE_PAGE = "return document.getElementById('open') != null"
# Every name ends at this machine, as its owner may have it.
BROWSER_FLAGS = ["--host-resolver-rules=MAP *.example 127.0.0.1", "--disable-popup-blocking"]
# The browser is asked to load the address at once, without a click; then there is a link to it.
AHEAD = """<script type=speculationrules>{{"%s":
    [{{"source": "list", "urls": ["http://{target}/"], "eagerness": "immediate"}}]}}</script>
    <a id=go href=http://{target}/>go</a>"""
# Each is a page that attacks as soon as it is loaded, or clicked.
PAGES = {
    "form": """<form method=post enctype=text/plain action=http://{target}/rpc>
        <input name='{batch}'></form><script>document.forms[0].submit()</script>""",
    "fetch": """<script>fetch('http://{target}/rpc', {{method: 'POST', mode: 'no-cors',
        body: '{batch}'}}).catch(() => 0).finally(() => document.title = 'sent')</script>""",
    "frame": "<iframe src=http://{target}/></iframe>",
    "prefetch": AHEAD % "prefetch",
    "prerender": AHEAD % "prerender",
    "popup": """<button id=go onclick="window.open('http://{target}/')">go</button>""",
}


class Site(http.server.BaseHTTPRequestHandler):
    """The other site: /form/TARGET is the page that attacks TARGET so."""

    def do_GET(self):
        """Answers with the page."""
        _, kind, target = self.path.split("/")
        page = PAGES[kind].format(target=target, batch=BATCH)
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(f"<!doctype html><link rel=icon href=data:,>{page}".encode())

    def log_message(self, *_):
        """Writes nothing."""


@pytest.fixture(scope="module")
def browser():
    """A browser that finds every name of .example here."""
    with Browser(BROWSER_FLAGS) as started:
        yield started


@pytest.fixture
def nginx(deploy_nginx):
    """nginx, which serves."""
    return deploy_nginx()


@pytest.fixture
def foreign_site(ending):
    """The address of the other site."""
    server = ending.enter_context(http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site))
    threading.Thread(target=server.serve_forever).start()
    ending.callback(server.shutdown)
    return f"http://attacker.example:{server.server_port}"


@pytest.fixture
def attack(browser, nginx, start_rpc_server, foreign_site):
    """attack(kind, target): the browser visits that page. Returns the RPC server's output."""
    output = start_rpc_server().stdout
    assert "listening" in output.readline()

    def visit(kind, target):
        browser.visit(f"{foreign_site}/{kind}/{target}")
        return output

    return visit


def assert_untouched(output):
    """No channel was opened, and no row tells of one that was refused."""
    assert json.loads(ask("/rpc", OPEN, headers=JSON)[1])["result"] == {"channel": 1}
    assert output.readline() == "channel.open\n"


@pytest.mark.parametrize("target", [
    f"localhost:{SITE_PORT}", f"127.0.0.1:{RPC_PORT}", f"rebound.example:{SITE_PORT}"])
@pytest.mark.parametrize("kind", ["form", "fetch"])
def test_request_has_no_effect(browser, attack, kind, target):
    output = attack(kind, target)
    if kind == "form":
        wait_for("the answer", lambda: "attacker" not in (browser.run(LOADED) or "attacker"))
    else:
        wait_for("the request", lambda: browser.run("return document.title") == "sent")
    assert_untouched(output)


@pytest.mark.parametrize("target", [f"localhost:{SITE_PORT}", f"rebound.example:{SITE_PORT}"])
def test_frame_does_not_show_the_page(browser, attack, target):
    attack("frame", target)
    with browser.elsewhere():
        assert not browser.run(IS_THE_PAGE)


@pytest.mark.parametrize(("target", "shown"), [
    (f"rebound.example:{SITE_PORT}", False), (f"localhost:{SITE_PORT}", True)])
def test_window_shows_the_page_under_its_own_name_only(browser, attack, target, shown):
    attack("popup", target)
    browser.click("go")
    with browser.elsewhere(window=True):
        wait_for("an answer", lambda: target in (browser.run(LOADED) or ""))
        assert browser.run(IS_THE_PAGE) == shown
        if shown:
            assert browser.run("return window.opener == null")


class Answer(NamedTuple):
    """What nginx answered to a request of the browser."""

    purpose: str  # why the browser asked
    status: int


class Relay(http.server.BaseHTTPRequestHandler):
    """Stands between the browser and nginx, and notes the Answer to each request."""

    def do_GET(self):
        """Hands the request to nginx, and its answer to the browser."""
        status, text = ask(self.path, headers=dict(self.headers))
        self.send_response(status)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(text.encode())
        self.server.answers.append(Answer(self.headers.get("Sec-Purpose", ""), status))

    def log_message(self, *_):
        """Writes nothing."""


@pytest.fixture(scope="module")
def relay():
    """Serves for the browser on a port of its own; `answers` are those of nginx."""
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Relay) as server:
        threading.Thread(target=server.serve_forever).start()
        yield server
        server.shutdown()


@pytest.fixture(scope="module")
def relayed_browser(relay):
    """A browser that finds nginx behind the relay."""
    rules = (f"MAP localhost:{SITE_PORT} 127.0.0.1:{relay.server_port}, "
             "MAP *.example 127.0.0.1")
    with Browser([f"--host-resolver-rules={rules}"]) as started:
        yield started


@pytest.fixture(params=["prefetch", "prerender"])
def loaded_ahead(request, relayed_browser, nginx, relay, foreign_site):
    """Once a foreign page has had the browser load the site ahead: what nginx answered to that."""
    relay.answers = []
    relayed_browser.visit(f"{foreign_site}/{request.param}/localhost:{SITE_PORT}")
    return wait_for("a request ahead", lambda: [
        answer for answer in relay.answers if answer.purpose])


def test_what_a_foreign_page_has_loaded_ahead_is_refused(loaded_ahead):
    assert {answer.status for answer in loaded_ahead} == {403}


def test_what_a_foreign_page_has_loaded_ahead_has_no_row(nginx, loaded_ahead):
    assert rows(nginx) == []


def test_click_after_a_refused_prefetch_opens_the_page(relayed_browser, loaded_ahead):
    relayed_browser.click("go")
    wait_for("the page", lambda: relayed_browser.run(IS_THE_PAGE))
