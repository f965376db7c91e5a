"""Which requests have a row in a list of the launcher, whose memory is never given back."""

import socket
import time

import pytest
from machine import JSON, OPEN, rows
from strangers import REFUSED, status

from drive.bundle import RPC_PORT, ask
from drive.processes import wait_for

BY_PAGE = {"Sec-Fetch-Site": "same-origin", "Sec-Fetch-Mode": "no-cors", "Sec-Fetch-Dest": "style"}
TYPED = {"Sec-Fetch-Site": "none", "Sec-Fetch-Mode": "navigate", "Sec-Fetch-Dest": "document",
         "Sec-Fetch-User": "?1"}
LINK = {**TYPED, "Sec-Fetch-Site": "same-origin"}
CLICKED_ELSEWHERE = {**TYPED, "Sec-Fetch-Site": "cross-site"}
LED_HERE = {name: value for name, value in CLICKED_ELSEWHERE.items() if name != "Sec-Fetch-User"}
MANY = 30  # requests; none takes as long as a second


@pytest.fixture
def nginx(deploy_nginx):
    """nginx, which serves."""
    return deploy_nginx()


@pytest.fixture
def rpc_server(start_rpc_server):
    """The RPC server, which listens."""
    server = start_rpc_server()
    assert server.stdout.readline()
    return server


def call():
    """A page's call to the RPC server. Returns the status."""
    return ask("/rpc", OPEN, headers={**JSON, **BY_PAGE, "Sec-Fetch-Dest": "empty"})[0]


@pytest.mark.parametrize(("path", "headers", "row"), [
    pytest.param("/", TYPED, "200 GET /", id="a typed address"),
    pytest.param("/", LINK, "200 GET /", id="a link of the site itself"),
    pytest.param("/", CLICKED_ELSEWHERE, "200 GET /", id="a click on another site's link"),
    pytest.param("/page.js", {}, "200 GET /page.js", id="a program that is no browser"),
    pytest.param("/missing", TYPED, "404 GET /missing", id="a missing page"),
    pytest.param("/missing.css", BY_PAGE, "404 GET /missing.css", id="a page's missing file"),
    pytest.param("/loop", BY_PAGE, "403 GET /loop", id="a page's file that may not be opened"),
    pytest.param("/socket", BY_PAGE, "500 GET /socket", id="a page's file that cannot be opened"),
    pytest.param("/a.bak", BY_PAGE, "404 GET /a.bak", id="a file that an editor left"),
    pytest.param("/" + "x" * 4000, {}, "404 GET /" + "x" * 59, id="a long address, cut off"),
    pytest.param("/two%0alines", {}, "404 GET /two%0alines", id="an address with a line feed")])
def test_request_has_a_row(nginx, ending, path, headers, row):
    (nginx.directory / "html/loop").symlink_to("loop")
    ending.enter_context(socket.socket(socket.AF_UNIX)).bind(str(nginx.directory / "html/socket"))
    ask(path, headers=headers)
    assert rows(nginx) == [row]


@pytest.mark.parametrize(("path", "headers", "status"), [
    pytest.param("/page.css", BY_PAGE, 200, id="a page's file"),
    pytest.param("/", LED_HERE, 200, id="a visit that another site's page makes by itself"),
    pytest.param("/missing", LED_HERE, 404, id="such a visit to a missing page")])
def test_request_has_no_row(nginx, path, headers, status):
    assert ask(path, headers=headers)[0] == status
    assert rows(nginx) == []


def test_call_that_is_answered_has_no_row(nginx, rpc_server):
    assert call() == 200
    assert rows(nginx) == []


def test_call_that_is_not_answered_has_a_row(nginx):
    assert call() == 502
    assert rows(nginx) == ["502 POST /rpc"]


def test_call_that_is_answered_too_late_has_a_row(nginx, ending):
    ending.enter_context(socket.create_server(("127.0.0.1", RPC_PORT)))
    assert call() == 504
    assert rows(nginx) == ["504 POST /rpc"]


@pytest.mark.parametrize("path", [
    pytest.param("/", id="visits"), pytest.param("/missing-{}.css", id="failures")])
def test_many_of_a_kind_have_one_row_a_second(nginx, path):
    begin = time.monotonic()
    headers = TYPED if path == "/" else BY_PAGE
    for number in range(MANY):
        ask(path.format(number), headers=headers)
    seconds = time.monotonic() - begin
    assert 1 <= len(rows(nginx)) <= 1 + seconds


def test_same_failure_has_one_row_a_minute(nginx):
    ask("/missing.css", headers=BY_PAGE)

    def another_failure_has_a_row():
        ask("/missing.css", headers=BY_PAGE)  # the first that could have the next second's row
        ask("/other.css", headers=BY_PAGE)
        return "404 GET /other.css" in nginx.output

    wait_for("the row of another failure", another_failure_has_a_row)
    assert rows(nginx) == ["404 GET /missing.css", "404 GET /other.css"]


def test_visit_does_not_hide_a_failure(nginx):
    ask(headers=TYPED)
    ask("/missing.css", headers=BY_PAGE)
    assert rows(nginx) == ["200 GET /", "404 GET /missing.css"]


def test_failure_does_not_hide_a_visit(nginx):
    ask("/missing.css", headers=BY_PAGE)
    ask(headers=TYPED)
    assert rows(nginx) == ["404 GET /missing.css", "200 GET /"]


def test_answered_calls_do_not_hide_a_visit(nginx, rpc_server):
    for _ in range(3):
        call()
    ask(headers=TYPED)
    assert rows(nginx) == ["200 GET /"]


def test_refusals_of_the_rpc_server_have_no_row(rpc_server):
    for refused in REFUSED.values():
        with socket.create_connection(("127.0.0.1", RPC_PORT), 10) as connection:
            connection.sendall(refused.head(RPC_PORT))
            assert status(connection)
    ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)
    assert rpc_server.stdout.readline() == "channel.open\n"
