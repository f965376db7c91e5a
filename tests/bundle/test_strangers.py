"""What a stranger may send to the services, byte by byte: who is let in, and what it costs."""

import re
import resource
import select
import socket
import subprocess
import tempfile
from contextlib import ExitStack, suppress
from pathlib import Path
from typing import Callable, NamedTuple

import pytest
from machine import JSON, OPEN, rows, takes_ipv6
from strangers import REFUSED, head, status

from drive.bundle import RPC_PORT, SITE_PORT, Nginx, ask
from drive.processes import wait_for

CROSS_SITE = {"Sec-Fetch-Site": "cross-site"}
VISIT = {**CROSS_SITE, "Sec-Fetch-Mode": "navigate", "Sec-Fetch-Dest": "document"}
PORTS = pytest.mark.parametrize("port", [
    pytest.param(SITE_PORT, id="nginx"), pytest.param(RPC_PORT, id="RPC server")])
IPV6 = pytest.param("[::1]", marks=takes_ipv6, id="IPv6 address")


class Services(NamedTuple):
    """Both, which serve."""

    nginx: Nginx
    rpc_server: subprocess.Popen


@pytest.fixture(scope="module", autouse=True)
def services(project, build):
    """Services that all tests here share: none of what is sent changes them."""
    with ExitStack() as stack:
        directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="orvane-test-"))
        nginx = stack.enter_context(Nginx(Path(directory).resolve(), project / "bundle/nginx"))
        nginx.deploy()
        rpc_server = stack.enter_context(subprocess.Popen(
            [build / "orvane.app/rpcServer/MacOs/rpcServer"], env={}, text=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT))
        stack.callback(rpc_server.kill)
        assert rpc_server.stdout.readline()
        yield Services(nginx, rpc_server)


@pytest.fixture
def connect(ending):
    """connect(port, sent): a connection on which that was sent already."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, hard), hard))
    ending.callback(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))

    def connected(port, sent=b""):
        connection = ending.enter_context(socket.create_connection(("127.0.0.1", port), 10))
        connection.sendall(sent)
        return connection

    return connected


@PORTS
@pytest.mark.parametrize("refused", REFUSED.values(), ids=REFUSED)
def test_stranger_is_refused_before_the_body(connect, port, refused):
    assert status(connect(port, refused.head(port))) in refused.statuses


@pytest.mark.parametrize("refused", REFUSED.values(), ids=REFUSED)
def test_refusal_has_no_row(services, connect, refused):
    before = rows(services.nginx)
    connection = connect(SITE_PORT, refused.head(SITE_PORT))
    assert status(connection)
    connection.close()  # a row is written when the connection ends
    assert rows(services.nginx) == before


@pytest.mark.parametrize(("sent", "refusal"), [
    pytest.param(head(RPC_PORT, path="/"), 404, id="path: the site"),
    pytest.param(head(RPC_PORT, path="/rpc/"), 404, id="path: a slash more"),
    pytest.param(head(RPC_PORT, path="/RPC"), 404, id="path: capitals"),
    pytest.param(head(RPC_PORT, headers={"Host": ""}), 403, id="Host: empty")])
def test_rpc_server_refuses_what_is_not_for_it(connect, sent, refusal):
    assert status(connect(RPC_PORT, sent)) == refusal


@pytest.mark.parametrize(("method", "headers", "answer"), [
    pytest.param("GET", VISIT, 200, id="link"),
    pytest.param("HEAD", VISIT, 200, id="link that is only checked"),
    pytest.param("POST", VISIT, 403, id="form"),
    pytest.param("GET", {**VISIT, "Sec-Fetch-Dest": "iframe"}, 403, id="frame"),
    pytest.param("GET", {**CROSS_SITE, "Sec-Fetch-Mode": "no-cors", "Sec-Fetch-Dest": "image"}, 403,
                 id="picture"),
    pytest.param("GET", {"Sec-Fetch-Site": "none"}, 200, id="typed address"),
    pytest.param("GET", {"Sec-Fetch-Site": "same-origin"}, 200, id="the site's own page")])
def test_link_on_another_site_leads_to_the_page_and_nothing_else_does(method, headers, answer):
    assert ask(method=method, headers=headers)[0] == answer


AHEAD = [
    pytest.param({"Sec-Purpose": "prefetch"}, id="prefetch"),
    pytest.param({"Sec-Purpose": "prefetch;prerender"}, id="prerender"),
    pytest.param({"Sec-Purpose": "prefetch;anonymous-client-ip"}, id="prefetch by a proxy"),
    pytest.param({"Purpose": "prefetch"}, id="prefetch of an older browser"),
    pytest.param({"X-Moz": "prefetch"}, id="prefetch of an older Firefox")]


@pytest.mark.parametrize("headers", AHEAD)
def test_what_a_browser_loads_ahead_is_refused(headers):
    assert ask(headers={"Sec-Fetch-Site": "none", **headers})[0] == 403


@pytest.mark.parametrize("headers", AHEAD)
def test_what_a_browser_loads_ahead_has_no_row(services, headers):
    before = rows(services.nginx)
    ask(headers={"Sec-Fetch-Site": "none", **headers})
    assert rows(services.nginx) == before


NAMES = pytest.mark.parametrize("name", [
    pytest.param("localhost", id="name"), pytest.param("127.0.0.1", id="IPv4 address"), IPV6])


def own(name):
    """Returns the headers of the page that was loaded by this name."""
    site = f"{name}:{SITE_PORT}"
    return {"Content-Type": "Application/JSON; charset=utf-8", "Host": site,
            "Origin": f"http://{site}", "Sec-Fetch-Site": "same-origin"}


@NAMES
def test_page_is_served_by_each_of_its_names(name):
    assert ask(headers=own(name))[0] == 200


@PORTS
@NAMES
def test_page_may_call_by_each_of_its_names(port, name):
    assert ask("/rpc", OPEN, port=port, headers=own(name))[0] == 200


class Silence(NamedTuple):
    """Connections that say little: what each sends at first and then, over and over."""

    connections: int
    first: Callable[[int], bytes]  # for this port
    then: bytes


SILENCES = pytest.mark.parametrize("silence", [
    # half a minute of 16 a second, at once
    pytest.param(Silence(480, lambda port: b"", b"\r\n"), id="no request"),
    pytest.param(Silence(600, lambda port: head(port)[:30], b" "), id="half a head"),
    pytest.param(Silence(64, head, b" "), id="a body, byte by byte")])


@SILENCES
@pytest.mark.parametrize(("port", "asked", "request_of"), [
    pytest.param(SITE_PORT, SITE_PORT, "page", id="nginx, the page"),
    pytest.param(SITE_PORT, SITE_PORT, "call", id="nginx, a call"),
    pytest.param(RPC_PORT, SITE_PORT, "call", id="RPC server, a call through nginx"),
    pytest.param(RPC_PORT, RPC_PORT, "call", id="RPC server, a call")])
def test_connection_that_says_little_keeps_nobody_waiting(
        services, connect, silence, port, asked, request_of):
    held = [connect(port, silence.first(port)) for _ in range(silence.connections)]
    if port == SITE_PORT:
        nginx, = services.nginx.left()
        wait_for("all are taken", lambda: len(nginx.connections()) >= silence.connections)
    if request_of == "page":
        good = connect(asked, head(asked, "GET", "/", {"Content-Length": None}))
    else:
        good = connect(asked, head(asked, headers={"Content-Length": len(OPEN)}) + OPEN.encode())

    def answered():
        """Whoever waits for the strangers to fall silent waits for ever."""
        came = select.select([good], [], [], 0.2)[0]
        for connection in held:
            with suppress(OSError):  # it was closed, to make room
                connection.send(silence.then)
        return came

    wait_for("an answer", answered)
    assert status(good) == 200


BODY = b" " * 0x8000
CHUNK = b"8000\r\n" + BODY + b"\r\n"
CHUNKED = {"Content-Length": None, "Transfer-Encoding": "chunked"}


@pytest.mark.parametrize(("start", "piece"), [
    pytest.param(head(RPC_PORT, path="/other"), BODY, id="body, another path"),
    pytest.param(head(RPC_PORT, method="PUT"), BODY, id="body, another method"),
    pytest.param(head(RPC_PORT, headers={"Content-Length": 10 ** 9}), BODY, id="body, a large one"),
    pytest.param(head(RPC_PORT, headers={"Content-Length": 2 ** 64 + 2}), BODY,
                 id="body, its length too long"),
    pytest.param(head(RPC_PORT, headers={"Content-Encoding": "gzip"}), BODY, id="body, packed"),
    pytest.param(head(RPC_PORT, headers={"Content-Type": "multipart/form-data; boundary=x"}), BODY,
                 id="body, a form"),
    pytest.param(head(RPC_PORT, headers=CHUNKED), CHUNK, id="chunks"),
    pytest.param(head(RPC_PORT, "PUT", headers=CHUNKED), CHUNK, id="chunks, another method"),
    pytest.param(head(RPC_PORT, path="/other", headers=CHUNKED), CHUNK, id="chunks, another path"),
    pytest.param(head(RPC_PORT)[:-2], b"a: b\r\n" * 5000, id="headers"),
    pytest.param(b"G", b"G" * 0x8000, id="method")])
def test_request_without_end_takes_little_memory(services, connect, start, piece):
    ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)
    connection, most = connect(RPC_PORT, start), 16 * 1024  # KiB

    def peak():
        status_of = Path(f"/proc/{services.rpc_server.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"VmHWM:\s+(\d+) kB", status_of)[1])

    Path(f"/proc/{services.rpc_server.pid}/clear_refs").write_text("5", encoding="ascii")
    before = peak()
    with suppress(OSError):  # it was closed
        for _ in range(1500):  # of about 32 KiB
            connection.sendall(piece)
    ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)
    assert peak() - before < most


@pytest.mark.parametrize("sent", [
    pytest.param(b"nonsense\r\n\r\n", id="no request"),
    pytest.param(b"GET / HTTP/1.1\r\n\r\n", id="no Host"),
    pytest.param(b"\0" * 9000, id="zeros"),
    pytest.param(head(SITE_PORT, path="/" + "x" * 7000, headers={"Host": "other.example"}),
                 id="a long address"),
    pytest.param(head(SITE_PORT, headers={"Content-Length": 70000}), id="a large body"),
    pytest.param(head(SITE_PORT, headers={"Content-Length": "x"}),
                 id="a length that is no number")])
def test_bad_request_has_no_row(services, connect, sent):
    before = rows(services.nginx)
    connection = connect(SITE_PORT, sent)
    assert status(connection) in (400, 403, 413)
    connection.close()
    assert rows(services.nginx) == before


def test_connection_that_falls_silent_is_closed(connect):
    held = {f"port {port}, {when}": connect(port, sent) for port in (SITE_PORT, RPC_PORT)
            for when, sent in (("before the head", b""), ("in the head", head(port)[:30]),
                               ("before the body", head(port)))}  # at once: each takes seconds

    def still_open(connection):
        connection.settimeout(20)  # the libraries' own limits are longer, or none
        try:
            while connection.recv(4096):  # nginx says why
                pass
        except ConnectionResetError:
            pass
        except TimeoutError:
            return True
        return False

    assert [name for name, connection in held.items() if still_open(connection)] == []


NO_BODY = {"Content-Length": 0}
ANSWERS = pytest.mark.parametrize(("sent", "answer"), [
    pytest.param(head(SITE_PORT, "GET", "/", NO_BODY), 200, id="the page"),
    pytest.param(head(SITE_PORT, "GET", "/page.js", NO_BODY), 200, id="its script"),
    pytest.param(head(SITE_PORT, "GET", "/page.css", NO_BODY), 200, id="its style"),
    pytest.param(head(SITE_PORT, headers={"Content-Length": 2}) + b"{}", 200, id="a call"),
    pytest.param(b"nonsense\r\n\r\n", 400, id="400"),
    pytest.param(head(SITE_PORT, headers={"Host": "a"}), 403, id="403"),
    pytest.param(head(SITE_PORT, "GET", "/x", NO_BODY), 404, id="404"),
    pytest.param(head(SITE_PORT, "GET"), 405, id="405"),
    pytest.param(head(SITE_PORT, headers={"Content-Length": 70000}), 413, id="413"),
    pytest.param(head(SITE_PORT, headers={"Content-Type": ""}), 415, id="415")])


@ANSWERS
def test_answer_has_the_headers_that_keep_other_sites_out(connect, sent, answer):
    got = connect(SITE_PORT, sent).recv(4096).decode()
    assert int(got.split()[1]) == answer
    expected = ["Cache-Control: no-cache", "Cross-Origin-Opener-Policy: same-origin",
                "Cross-Origin-Resource-Policy: same-origin", "Referrer-Policy: no-referrer",
                "Server: nginx", "X-Content-Type-Options: nosniff"]
    lines = got.split("\r\n")
    assert [line for line in expected if lines.count(line) != 1] == []


@ANSWERS
def test_answer_lets_the_page_load_and_show_nothing_of_others(connect, sent, answer):
    got = connect(SITE_PORT, sent).recv(4096).decode()
    assert int(got.split()[1]) == answer
    policy, = re.findall("(?m)^Content-Security-Policy: (.*)\r$", got)
    assert set(policy.split("; ")) == {
        "default-src 'self'", "img-src 'self' data:", "object-src 'none'", "base-uri 'none'",
        "form-action 'self'", "frame-ancestors 'none'"}


def test_answer_of_the_rpc_server_keeps_its_type(connect):
    sent = head(SITE_PORT, headers={"Content-Length": 2}) + b"{}"
    got = connect(SITE_PORT, sent).recv(4096).decode()
    assert "\r\nContent-Type: application/json\r\n" in got


@pytest.mark.parametrize("name", [
    ".htpasswd", ".git/config", "a/.env", "page.js~", "page.js.~1~", "page.js.bak", "page.js.BAK",
    "page.js.backup", "page.js.old", "page.js.orig", "page.js.rej", "page.js.tmp", "page.js.save",
    "page.js.save.1", "page.js.swp", "page.js.swx", ".page.js.swp", "#page.js#", "page.js.dpkg-old",
    "page.js.dpkg-dist", "page.js.ucf-dist", "old.bak/page.js", "d~/page.js", "a.save.2/b/page.js"])
@pytest.mark.parametrize("encoded", [
    pytest.param(lambda path: path, id="plain"),
    pytest.param(lambda path: "a/../" + path.replace(".", "%2e"), id="disguised")])
def test_what_an_editor_leaves_beside_the_files_is_not_served(services, name, encoded):
    place_file(services.nginx, name)
    assert ask("/" + encoded(name.replace("#", "%23")))[0] == 404


@pytest.mark.parametrize("name", [
    "film.swf", "backup.js", "old.js", "x.old.js", "savefile", "x.save.js", "x.bakery", "a~b/x.js",
    "tmp/x.js", "orig", "page.js.saved"])
def test_file_with_an_ordinary_name_is_served(services, name):
    place_file(services.nginx, name)
    assert ask("/" + name) == (200, "secret")


def place_file(nginx, name):
    """Puts a file below the site's directory."""
    path = nginx.directory / "html" / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("secret", encoding="ascii")
