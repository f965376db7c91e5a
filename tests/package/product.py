"""Uses the launcher as its user would: deploy, look at the product, stop, close."""

import json
import sys
import urllib.request

from built import PROJECT

sys.path.insert(0, str(PROJECT / "tests/endtoend"))

# pylint: disable=wrong-import-position
from browser import SITE, SITE_PORT, Browser, site_answers  # noqa: E402, F401
from desktop import Desktop, Launcher, port_open, running, wait_for  # noqa: E402, F401

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))  # past any proxy


def fetch(path, body=None):
    with DIRECT.open(urllib.request.Request(SITE + path, data=body), timeout=30) as answer:
        return answer.read()


def call(method):
    """The result of a JSON-RPC call that goes through nginx to the RPC server."""
    request = {"jsonrpc": "2.0", "id": 1, "method": method}
    return json.loads(fetch("rpc", json.dumps(request).encode()))["result"]


def use(launcher, page, look=lambda: None):
    """Deploys with a click, checks that the product is this page and its RPC server, calls look(),
    stops with a click and closes the window. AssertionError or TimeoutError say what is wrong."""
    assert not port_open(SITE_PORT), f"port {SITE_PORT} is taken"
    launcher.click("deploy")
    wait_for(f"an answer from {SITE}", site_answers)
    assert fetch("") == page, "another page is served than the bundle's"
    wait_for("an open RPC port", lambda: port_open(4201))
    assert call("channel.open")["channel"] > 0
    assert launcher.started(), "the services are no children of the launcher"
    look()
    launcher.click("stop")
    wait_for("the end of the services", lambda: not launcher.started())
    wait_for("closed ports", lambda: not (port_open(SITE_PORT) or port_open(4201)))
    launcher.close()
    assert launcher.wait() == 0, f"the launcher's exit status is {launcher.process.returncode}"
