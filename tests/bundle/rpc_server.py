"""The sample RPC server: the protocol, and how it starts and lives on."""

import ctypes
import gzip
import http.client
import json
import os
import select
import socket
import subprocess
import unittest

import psutil

from drive.processes import wait_for

PROGRAM = os.environ["ORVANE_RPC_SERVER"]
PORT = 4201
LISTENING = "rpcServer: listening on 127.0.0.1:4201\n"
PARSE_ERROR, INVALID_REQUEST, UNKNOWN_METHOD, INVALID_PARAMS, NO_SUCH_CHANNEL = (
    -32700, -32600, -32601, -32602, -32001)
MOST_BYTES = 64 * 1024


def call(method, params=None, **more):
    """A request as an object."""
    return {"jsonrpc": "2.0", "id": 1, "method": method, **({} if params is None else
                                                             {"params": params}), **more}


def post(body, path="/rpc", **headers):
    """HTTP status and body of the answer; a body that is no text is sent as JSON."""
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
    try:
        text = body if isinstance(body, (bytes, str)) else json.dumps(body)
        connection.request("POST", path, text, {"Content-Type": "application/json", **headers})
        answer = connection.getresponse()
        return answer.status, answer.read().decode()
    finally:
        connection.close()


def ask(body):
    """The answer as an object."""
    return json.loads(post(body)[1])


def bare_exec(arguments):
    """Replaces this process by the server, with these arguments and a null environment."""
    words = (ctypes.c_char_p * (len(arguments) + 1))(*arguments, None)
    ctypes.CDLL(None).execve(PROGRAM.encode(), words, None)
    raise OSError("execve")


class RpcServerTest(unittest.TestCase):
    def start(self, **how):
        server = subprocess.Popen([PROGRAM], env={}, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                  **how)
        self.addCleanup(server.stdout.close)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        return server

    def started(self, **how):
        server = self.start(**how)
        self.assertEqual(server.stdout.readline(), LISTENING)
        return server


class Protocol(RpcServerTest):
    def setUp(self):
        self.server = self.started()
        self.channel = ask(call("channel.open"))["result"]["channel"]

    def test_answers_an_error_with_its_code_and_id(self):
        frames = {"channel": self.channel, "after": 0}
        for code, identity, body in (
                (PARSE_ERROR, None, ""), (PARSE_ERROR, None, "{"), (PARSE_ERROR, None, "nonsense"),
                (PARSE_ERROR, None, b'"\xff"'), (PARSE_ERROR, None, '{"id": 1e999}'),
                (PARSE_ERROR, None, '[{"jsonrpc": "2.0", "method": "a"}, {'),
                (INVALID_REQUEST, None, "1"), (INVALID_REQUEST, None, "null"),
                (INVALID_REQUEST, None, []), (INVALID_REQUEST, None, {}),
                (INVALID_REQUEST, None, {"jsonrpc": "2.0", "id": 1}),
                (INVALID_REQUEST, None, call("channel.open", jsonrpc="1.0")),
                (INVALID_REQUEST, None, call("channel.open", jsonrpc=2.0)),
                (INVALID_REQUEST, None, {"id": 1, "method": "channel.open"}),
                (INVALID_REQUEST, None, call(1)),
                (INVALID_REQUEST, None, call("channel.open", "text")),
                (INVALID_REQUEST, None, call("channel.open", id=[1])),
                (INVALID_REQUEST, None, call("channel.open", id={})),
                (INVALID_REQUEST, None, call("channel.open", id=True)),
                (INVALID_REQUEST, None, [call("channel.open")] * 17),
                (UNKNOWN_METHOD, 7, call("channel", id=7)),
                (UNKNOWN_METHOD, "a\u00e4", call("", id="a\u00e4")),
                (UNKNOWN_METHOD, None, call("x" * 60000, id=None)),
                (UNKNOWN_METHOD, 1.5, call("Channel.open", id=1.5)),
                (INVALID_PARAMS, 1, call("channel.frames")),
                (INVALID_PARAMS, 1, call("channel.frames", [self.channel, 0])),
                (INVALID_PARAMS, 1, call("channel.frames", {"channel": self.channel})),
                (INVALID_PARAMS, 1, call("channel.frames", {**frames, "after": "0"})),
                (INVALID_PARAMS, 1, call("channel.frames", {**frames, "after": -1})),
                (INVALID_PARAMS, 1, call("channel.frames", {**frames, "after": 0.5})),
                (INVALID_PARAMS, 1, call("channel.frames", {**frames, "after": None})),
                (INVALID_PARAMS, 1, call("channel.frames", {**frames, "after": [[[[[0]]]]]})),
                (NO_SUCH_CHANNEL, 1, call("channel.frames", {**frames, "channel": 0})),
                (NO_SUCH_CHANNEL, 1, call("channel.frames", {**frames, "channel": 2 ** 64 - 1}))):
            with self.subTest(body=str(body)[:80]):
                status, text = post(body)
                answer = json.loads(text)
                self.assertEqual((status, answer["error"]["code"]), (200, code))
                self.assertEqual((answer["jsonrpc"], answer["id"]), ("2.0", identity))
                self.assertTrue(answer["error"]["message"])
                self.assertNotIn("result", answer)

    def test_returns_the_id_as_it_came(self):
        for identity in (0, -5, 2 ** 53, "text", "", None):
            answer = ask(call("channel.open", id=identity))
            self.assertEqual(answer["id"], identity)
            self.assertIn("result", answer)

    def test_answers_a_batch_in_its_order(self):
        answers = ask([call("channel.open", id=1), 5, call("nothing", id=2)])
        self.assertEqual([answer["id"] for answer in answers], [1, None, 2])
        self.assertIn("result", answers[0])
        self.assertEqual([answer["error"]["code"] for answer in answers[1:]],
                         [INVALID_REQUEST, UNKNOWN_METHOD])

    def test_answers_a_batch_of_one_with_a_batch(self):
        self.assertEqual(len(ask([call("channel.open")])), 1)

    def test_answers_no_notification(self):
        for body in ({"jsonrpc": "2.0", "method": "channel.open"},
                     {"jsonrpc": "2.0", "method": "nothing"},
                     [{"jsonrpc": "2.0", "method": "channel.frames"}] * 2):
            self.assertEqual(post(body), (204, ""))
        answers = ask([{"jsonrpc": "2.0", "method": "nothing"}, call("channel.open", id=3)])
        self.assertEqual([answer["id"] for answer in answers], [3])

    def test_refuses_an_oversized_body(self):
        fits = b" " * (MOST_BYTES - 2) + b"{}"
        self.assertEqual(post(fits)[0], 200)
        for name, body, headers in (
                ("length", fits + b" ", {}),
                ("packed", gzip.compress(b" " * 10_000_000), {"Content-Encoding": "gzip"})):
            with self.subTest(name=name):
                self.assertEqual(post(body, **headers)[0], 413)
        self.assertIn("result", ask(call("channel.open")))

    def test_refuses_a_body_without_end(self):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=30)
        self.addCleanup(connection.close)
        connection.putrequest("POST", "/rpc")
        connection.putheader("Transfer-Encoding", "chunked")
        connection.endheaders()
        piece = b"%x\r\n%s\r\n" % (MOST_BYTES, b" " * MOST_BYTES)
        for _ in range(1000):  # more than the system keeps on the way to a server that is gone
            if select.select([connection.sock], [], [], 0)[0]:
                break
            try:
                connection.send(piece)
            except OSError:
                break
        else:
            self.fail("it took all of the body")
        self.assertIn("result", ask(call("channel.open")))

    def test_survives_a_deeply_nested_body(self):
        deep = "[" * 30000 + "]" * 30000
        for body in (deep, "[" * MOST_BYTES, '{"a":' * 10000 + "1" + "}" * 10000,
                     f'{{"jsonrpc":"2.0","id":1,"method":"a","params":{deep}}}'):
            self.assertEqual(post(body)[0], 200)
        self.assertIn("result", ask(call("channel.open")))

    def test_serves_nothing_else(self):
        for method, path in (("GET", "/rpc"), ("PUT", "/rpc"), ("POST", "/"),
                             ("GET", "/etc/passwd")):
            connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
            self.addCleanup(connection.close)
            connection.request(method, path)
            self.assertIn(connection.getresponse().status, (404, 405))

    def test_writes_a_short_line_for_each_request_at_once(self):
        self.assertEqual(self.server.stdout.readline(), "channel.open\n")
        for body, line in ((call("channel.frames", {"channel": self.channel, "after": 0}),
                            "channel.frames\n"),
                           (call("x" * 1000), "refused: Method not found\n"),
                           ("{", "refused: Parse error\n"),
                           (b" " * (MOST_BYTES + 1), "refused: HTTP status 413\n")):
            post(body)
            self.assertEqual(self.server.stdout.readline(), line)


class Channels(RpcServerTest):
    def setUp(self):
        self.started()

    def frames(self, channel, after=0):
        return ask(call("channel.frames", {"channel": channel, "after": after}))["result"]["frames"]

    def test_delivers_each_frame_once_and_in_order(self):
        channel, numbers = ask(call("channel.open"))["result"]["channel"], []

        def ask_on():
            numbers.extend(f["number"] for f in self.frames(channel, numbers[-1] if numbers else 0))
            return len(numbers) > 10

        wait_for("ten frames", ask_on)
        self.assertEqual(numbers, list(range(1, len(numbers) + 1)))

    def test_delivers_two_seconds_at_most_and_the_newest(self):
        channel = ask(call("channel.open"))["result"]["channel"]
        wait_for("the 60th frame",
                 lambda: any(frame["number"] >= 60 for frame in self.frames(channel)))
        frames = self.frames(channel)
        self.assertEqual(len(frames), 50)
        self.assertGreaterEqual(frames[-1]["number"], 60)

    def test_delivers_nothing_after_a_frame_to_come(self):
        channel = ask(call("channel.open"))["result"]["channel"]
        self.assertEqual(self.frames(channel, 2 ** 64 - 1), [])

    def test_describes_a_moving_picture(self):
        channel = ask(call("channel.open"))["result"]["channel"]
        frames = wait_for("25 frames", lambda: [] if len(f := self.frames(channel)) < 25 else f)
        for frame in frames:
            self.assertTrue(0 <= frame["x"] <= 1000 and 0 <= frame["y"] <= 1000, frame)
            self.assertTrue(0 <= frame["hue"] < 360, frame)
        self.assertEqual(len({(frame["x"], frame["y"]) for frame in frames}), len(frames))

    def test_keeps_the_newest_sixteen(self):
        opened = [ask(call("channel.open"))["result"]["channel"] for _ in range(17)]
        self.assertEqual(len(set(opened)), 17)
        answers = [ask(call("channel.frames", {"channel": channel, "after": 0}))
                   for channel in opened]
        self.assertEqual(answers[0]["error"]["code"], NO_SUCH_CHANNEL)
        self.assertTrue(all("result" in answer for answer in answers[1:]))


class Living(RpcServerTest):
    def test_starts_with_neither_arguments_nor_environment(self):
        for arguments in ([], [b""]):
            with self.subTest(arguments=arguments):
                server = self.started(preexec_fn=lambda words=arguments: bare_exec(words))
                self.assertEqual(psutil.Process(server.pid).environ(), {})
                self.assertIn("result", ask(call("channel.open")))
                server.kill()
                server.wait()

    def test_listens_on_loopback_only(self):
        server = self.started()
        self.assertEqual([c.laddr for c in psutil.Process(server.pid).connections()],
                         [("127.0.0.1", PORT)])

    def test_says_that_its_port_is_taken(self):
        first = self.started()
        second = self.start()
        output = second.communicate(timeout=30)[0]
        self.assertNotEqual(second.returncode, 0)
        self.assertEqual(output.count("\n"), 1, output)
        for words in ("port 4201", "taken by another program", "[Deploy Service]"):
            self.assertIn(words, output)
        self.assertIn("result", ask(call("channel.open")))
        self.assertIsNone(first.poll())

    def test_waits_for_a_port_that_is_about_to_be_free(self):
        holder = socket.create_server(("127.0.0.1", PORT))
        self.addCleanup(holder.close)
        server = self.start()
        started = psutil.Process(server.pid)
        wait_for("it sleeps after a try", lambda: sum(started.num_ctx_switches()) > 2
                 and started.status() == psutil.STATUS_SLEEPING)
        holder.close()
        self.assertEqual(server.stdout.readline(), LISTENING)

    def test_a_killed_server_is_replaced_at_once(self):
        for _ in range(10):
            server = self.started()
            self.assertIn("result", ask(call("channel.open")))
            server.kill()

    def test_answers_on_when_nobody_reads_its_output_any_more(self):
        server = self.started()
        server.stdout.close()
        for _ in range(3):
            self.assertIn("result", ask(call("channel.open")))
        self.assertIsNone(server.poll())

    def test_keeps_none_of_the_descriptors_that_came_along(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        self.started(pass_fds=[reading])
        os.close(reading)
        with self.assertRaises(BrokenPipeError):
            os.write(writing, b"to nobody")


if __name__ == "__main__":
    unittest.main()
