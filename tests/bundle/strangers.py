"""What a stranger may send, byte by byte."""

from typing import NamedTuple

from machine import JSON

from drive.bundle import RPC_PORT, SITE_PORT


def head(port, method="POST", path="/rpc", headers=None):
    """Returns the head of a request. It is let in, unless these headers replace some of its own.

    One that is None is left out.
    """
    headers = {"Host": f"localhost:{port}", **JSON, "Content-Length": 60000, **(headers or {})}
    lines = [f"{name}: {value}" for name, value in headers.items() if value is not None]
    return "\r\n".join([f"{method} {path} HTTP/1.1", *lines, "", ""]).encode()


def status(connection):
    """Returns the HTTP status of the answer."""
    return int(connection.recv(4096).split()[1])


class Refused(NamedTuple):
    """A request that has one of these statuses. In `headers`, PORT is the port it is sent to."""

    statuses: tuple
    headers: dict = {}
    method: str = "POST"

    def head(self, port):
        """Returns the head of this request to a port."""
        return head(port, self.method, headers={
            name: value and value.replace("PORT", str(port)) for name, value in self.headers.items()
        })


# nginx 1.30 answers a Host that is no name with 400 by itself, before it looks further.
NO_NAME = (400, 403)
REFUSED = {  # by what is wrong
    "Host: another site": Refused((403,), {"Host": "other.example:PORT"}),
    "Host: no port": Refused((403,), {"Host": "localhost"}),
    "Host: another port": Refused((403,), {"Host": "localhost:80"}),
    "Host: another address": Refused((403,), {"Host": "127.0.0.2:PORT"}),
    "Host: ours and more": Refused(NO_NAME, {"Host": "localhost:PORT.example"}),
    "Host: ours and a user": Refused(NO_NAME, {"Host": "user@localhost:PORT"}),
    "Origin: another site": Refused((403,), {"Origin": "http://other.example"}),
    "Origin: another port": Refused((403,), {"Origin": "http://localhost:3000"}),
    "Origin: another scheme": Refused((403,), {"Origin": f"https://localhost:{SITE_PORT}"}),
    "Origin: a page that has none": Refused((403,), {"Origin": "null"}),
    "Origin: ours and more": Refused((403,), {"Origin": f"http://localhost:{SITE_PORT}.example"}),
    "Origin: the RPC server itself": Refused((403,), {"Origin": f"http://localhost:{RPC_PORT}"}),
    "asked by another site": Refused((403,), {"Sec-Fetch-Site": "cross-site"}),
    "asked by another port": Refused((403,), {"Sec-Fetch-Site": "same-site"}),
    "type: plain text": Refused((415,), {"Content-Type": "text/plain"}),
    "type: a form": Refused((415,), {"Content-Type": "multipart/form-data; boundary=x"}),
    "type: an encoded form": Refused((415,), {"Content-Type": "application/x-www-form-urlencoded"}),
    "type: JSON and more": Refused((415,), {"Content-Type": "application/jsonx"}),
    "type: JSON behind": Refused((415,), {"Content-Type": "text/plain; application/json"}),
    "type: none": Refused((415,), {"Content-Type": None}),
    "method: GET": Refused((405,), method="GET"),
    "method: HEAD": Refused((405,), method="HEAD"),
    "method: PUT": Refused((405,), method="PUT"),
    "method: OPTIONS": Refused((405,), method="OPTIONS"),
    "method: DELETE": Refused((405,), method="DELETE")}
