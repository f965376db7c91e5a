"""What another site's page can do to the services, in a real browser."""

import http.server
import json
import threading

import pytest
from machine import JSON, OPEN

from drive.browser import Browser
from drive.bundle import RPC_PORT, ask
from drive.processes import wait_for

BATCH = f"[{', '.join([OPEN] * 16)}]"
LOADED = "return document.readyState == 'complete' && location.href"
IS_THE_PAGE = "return document.getElementById('open') != null"
# Every name ends at this machine, as its owner may have it.
BROWSER_FLAGS = ["--host-resolver-rules=MAP *.example 127.0.0.1", "--disable-popup-blocking"]
# Each is a page that attacks as soon as it is loaded, or clicked.
PAGES = {
    "form": """<form method=post enctype=text/plain action=http://{target}/rpc>
        <input name='{batch}'></form><script>document.forms[0].submit()</script>""",
    "fetch": """<script>fetch('http://{target}/rpc', {{method: 'POST', mode: 'no-cors',
        body: '{batch}'}}).catch(() => 0).finally(() => document.title = 'sent')</script>""",
    "frame": "<iframe src=http://{target}/></iframe>",
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
def attack(browser, deploy_nginx, start_rpc_server, ending):
    """attack(kind, target): the browser visits that page. Returns the RPC server's output."""
    deploy_nginx()
    rows = start_rpc_server().stdout
    assert "listening" in rows.readline()
    server = ending.enter_context(http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site))
    threading.Thread(target=server.serve_forever).start()
    ending.callback(server.shutdown)

    def visit(kind, target):
        browser.visit(f"http://attacker.example:{server.server_port}/{kind}/{target}")
        return rows

    return visit


def assert_untouched(rows):
    """No channel was opened, and no row tells of one that was refused."""
    assert json.loads(ask("/rpc", OPEN, headers=JSON)[1])["result"] == {"channel": 1}
    assert rows.readline() == "channel.open\n"


@pytest.mark.parametrize("target", [
    "localhost:4200", f"127.0.0.1:{RPC_PORT}", "rebound.example:4200"])
@pytest.mark.parametrize("kind", ["form", "fetch"])
def test_request_has_no_effect(browser, attack, kind, target):
    rows = attack(kind, target)
    if kind == "form":
        wait_for("the answer", lambda: "attacker" not in (browser.run(LOADED) or "attacker"))
    else:
        wait_for("the request", lambda: browser.run("return document.title") == "sent")
    assert_untouched(rows)


@pytest.mark.parametrize("target", ["localhost:4200", "rebound.example:4200"])
def test_frame_does_not_show_the_page(browser, attack, target):
    attack("frame", target)
    with browser.elsewhere():
        assert not browser.run(IS_THE_PAGE)


@pytest.mark.parametrize(("target", "shown"), [
    ("rebound.example:4200", False), ("localhost:4200", True)])
def test_window_shows_the_page_under_its_own_name_only(browser, attack, target, shown):
    attack("popup", target)
    browser.click("go")
    with browser.elsewhere(window=True):
        wait_for("an answer", lambda: target in (browser.run(LOADED) or ""))
        assert browser.run(IS_THE_PAGE) == shown
        if shown:
            assert browser.run("return window.opener == null")
