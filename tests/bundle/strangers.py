"""What a stranger may send, byte by byte."""

import pytest
from machine import JSON

from drive.bundle import RPC_PORT, SITE_PORT


def head(port, method="POST", path="/rpc", **headers):
    """Returns the head of a request that is let in, but for these headers (_ for -, None: not)."""
    headers = {"Host": f"localhost:{port}", **JSON, "Content-Length": 60000,
               **{name.replace("_", "-"): value for name, value in headers.items()}}
    lines = [f"{name}: {value}" for name, value in headers.items() if value is not None]
    return "\r\n".join([f"{method} {path} HTTP/1.1", *lines, "", ""]).encode()


def status(connection):
    """Returns the HTTP status of the answer."""
    return int(connection.recv(4096).split()[1])


# nginx 1.30 answers a Host that is no name with 400 by itself, before it looks further.
NO_NAME = (400, 403)
REFUSED = [
    pytest.param({"Host": "other.example:{port}"}, 403, id="Host: another site"),
    pytest.param({"Host": "localhost"}, 403, id="Host: no port"),
    pytest.param({"Host": "localhost:80"}, 403, id="Host: another port"),
    pytest.param({"Host": "127.0.0.2:{port}"}, 403, id="Host: another address"),
    pytest.param({"Host": "localhost:{port}.example"}, NO_NAME, id="Host: ours and more"),
    pytest.param({"Host": "user@localhost:{port}"}, NO_NAME, id="Host: ours and a user"),
    pytest.param({"Origin": "http://other.example"}, 403, id="Origin: another site"),
    pytest.param({"Origin": "http://localhost:3000"}, 403, id="Origin: another port"),
    pytest.param({"Origin": f"https://localhost:{SITE_PORT}"}, 403,
                 id="Origin: another scheme"),
    pytest.param({"Origin": "null"}, 403, id="Origin: a page that has none"),
    pytest.param({"Origin": f"http://localhost:{SITE_PORT}.example"}, 403,
                 id="Origin: ours and more"),
    pytest.param({"Origin": f"http://localhost:{RPC_PORT}"}, 403,
                 id="Origin: the RPC server itself"),
    pytest.param({"Sec_Fetch_Site": "cross-site"}, 403, id="asked by another site"),
    pytest.param({"Sec_Fetch_Site": "same-site"}, 403, id="asked by another port"),
    pytest.param({"Content-Type": "text/plain"}, 415, id="type: plain text"),
    pytest.param({"Content-Type": "multipart/form-data; boundary=x"}, 415, id="type: a form"),
    pytest.param({"Content-Type": "application/x-www-form-urlencoded"}, 415,
                 id="type: an encoded form"),
    pytest.param({"Content-Type": "application/jsonx"}, 415, id="type: JSON and more"),
    pytest.param({"Content-Type": "text/plain; application/json"}, 415, id="type: JSON behind"),
    pytest.param({"Content-Type": None}, 415, id="type: none"),
    pytest.param({"method": "GET"}, 405, id="method: GET"),
    pytest.param({"method": "HEAD"}, 405, id="method: HEAD"),
    pytest.param({"method": "PUT"}, 405, id="method: PUT"),
    pytest.param({"method": "OPTIONS"}, 405, id="method: OPTIONS"),
    pytest.param({"method": "DELETE"}, 405, id="method: DELETE")]


def sent_to(port, how):
    """Returns what head() takes for a request to this port."""
    return {name: value and value.format(port=port) for name, value in how.items()}
