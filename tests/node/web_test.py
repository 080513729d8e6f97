"""Runs quorvane-node --http: what its port answers, to whom, and what a page hears."""
import concurrent.futures
import contextlib
import json
import os
import pathlib
import random
import re
import shutil
import socket
import ssl
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from end_to_end_test import NODE, Node, golden, listed_event_fields, of_call, uuid_of
from web_client import BINARY, PATIENCE, TEXT, Page, ask, connect, exchange, read_head

TOKEN = "correct-horse-battery"
FRAME = 160  # Samples of a packet.


def packet(call, number, terminator, audio):
    """The packet of that number of a side at 8 kHz, sent in time."""
    head = of_call(call, golden("call_3_write" if terminator else "call_2_read"))[:32]
    head += struct.pack("<q", 3_600_000_000 + number * 20_000)
    fixed = struct.pack("<IIH", number, (number - 1) * FRAME, FRAME)
    return head + fixed + struct.pack(f"<{FRAME}h", *audio)


def start_with_reference(call, reference):
    start = golden("call_1_start")[:80] + struct.pack("<H", len(reference) + 1)
    return of_call(call, start + reference + b"\0")


class Served(Node):
    """A media node with a page."""

    def __init__(self, *options, http="0", **others):
        super().__init__("--http", http, *options, **others)
        self.port = int(self.wait_for(r"page +https?://[\d.]+:(\d+)/")[1])

    def calls(self, **others):
        return json.loads(ask(self.port, "/api/calls", **others).body)

    def finished(self):
        """The finished calls, once there is one."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            calls = self.calls()["finished"]
            if calls:
                return calls
            time.sleep(0.05)
        raise AssertionError("no call ends")

    def send_whole_call(self, call=1, packets=60):
        self.send(of_call(call, golden("call_1_start")))
        for number in range(1, packets + 1):
            for terminator in (False, True):
                self.send(packet(call, number, terminator,
                                 [number if terminator else -number] * FRAME))
        self.send(of_call(call, golden("call_7_terminate")))


class Talk:
    """A call whose two sides send different noise, one packet in 20 ms, until the end of the block.
    `lost` are numbers of packets that the originator's side leaves out."""

    def __init__(self, node, call=1, lost=()):
        self.node, self.call, self.lost = node, call, lost
        self.sent = ([], [])
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.node.send(of_call(self.call, golden("call_1_start")))
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if not self.over.is_set():
            self.over.set()
            self.thread.join()
            self.node.send(of_call(self.call, golden("call_7_terminate")))

    def run(self):
        chance = random.Random(self.call)
        number = 0
        while not self.over.is_set():
            number += 1
            for side in (0, 1):
                audio = [chance.randint(-32768, 32767) for _ in range(FRAME)]
                self.sent[side].extend(audio)
                if side == 1 or number not in self.lost:
                    self.node.send(packet(self.call, number, side == 1, audio))
            self.over.wait(0.02)


def listen(page, call, sides="both"):
    page.send(type="listen", call=call["id"], sides=sides)
    return page.wait_for_type("listening")


class ThePort(unittest.TestCase):
    def test_serves_the_page_and_nothing_that_may_run_from_elsewhere(self):
        with Served() as node:
            page = ask(node.port, "/")
            self.assertEqual((page.status, page.headers["content-type"]),
                             (200, "text/html; charset=utf-8"))
            self.assertIn("default-src 'none'; script-src 'self'",
                          page.headers["content-security-policy"])
            self.assertEqual(page.headers["x-content-type-options"], "nosniff")
            self.assertEqual(page.headers["referrer-policy"], "same-origin")
            self.assertEqual(page.headers["cache-control"], "no-store")
            self.assertNotRegex(page.body.decode(), r"(?i)<style|<script(?![^>]*\bsrc=)| style=| on\w+=")
            names = re.findall(r'(?:src|href)="/?([\w.]+)"', page.body.decode())
            self.assertTrue(names)
            for name in names:
                self.assertEqual(ask(node.port, "/" + name).status, 200, name)
            head = ask(node.port, "/", "HEAD")
            self.assertEqual((head.headers["content-length"], head.body),
                             (page.headers["content-length"], b""))
            self.assertIn(b"quorvane_node_received_packets_total", ask(node.port, "/metrics").body)

    def test_answers_what_it_does_not_have_with_an_error(self):
        with Served() as node:
            for path, status in (("/nothing", 404), ("/api/nothing", 404), ("/api/live", 404),
                                 ("/api/calls/nothing", 404), ("/api/calls/x/files/y", 404)):
                self.assertEqual(ask(node.port, path).status, status, path)
            self.assertEqual(json.loads(ask(node.port, "/api/calls/<b>").body)["error"][:7],
                             "no call")
            for method, path in (("POST", "/"), ("DELETE", "/api/calls"), ("PUT", "/metrics"),
                                 ("OPTIONS", "/"), ("GET", "/logout")):
                self.assertIn(ask(node.port, path, method).status, (405, 413), (method, path))

    def test_answers_tricks_with_paths_with_an_error(self):
        with Served() as node:
            secret = pathlib.Path(node.home.name) / "secret.wav"
            secret.write_bytes(b"not for everybody")
            node.send_whole_call()
            call = node.finished()[0]
            os.symlink(secret, node.folder / "link.wav")
            shutil.copy(secret, node.folder / "other.wav")
            name = call["files"][0]["name"]
            self.assertEqual(ask(node.port, f"/api/calls/{call['call_uuid']}/files/{name}").status, 200)
            base = f"/api/calls/{call['call_uuid']}/files/"
            for path in ("link.wav", "other.wav", "../secret.wav", "..%2fsecret.wav",
                         "%2e%2e/secret.wav", "..\\secret.wav", str(secret), "%00", name + "%00",
                         "./" + name + "/..", "", ".", "..", "....//secret.wav", "%252e%252e/x"):
                answer = ask(node.port, base + path)
                self.assertIn(answer.status, (400, 404), path)
                self.assertNotIn(b"not for everybody", answer.body, path)
            for path in ("/../secret.wav", "/%2e%2e/%2e%2e/etc/passwd", "//etc/passwd",
                         "/page.html/../../etc/passwd", "/" + "../" * 40 + "etc/passwd",
                         "http://elsewhere/etc/passwd", "*", "/%", "/%zz", "/\xff\xfe"):
                try:
                    answer = ask(node.port, path)
                except (EOFError, ConnectionResetError):
                    continue  # No answer at all.
                self.assertIn(answer.status, (400, 403, 404), path)
                self.assertNotIn(b"root:", answer.body, path)
            # The file goes, and a link takes its place.
            (node.folder / name).unlink()
            os.symlink(secret, node.folder / name)
            self.assertEqual(ask(node.port, base + name).status, 404)

    def test_refuses_what_is_too_long_or_no_request(self):
        with Served() as node:
            host = f"Host: 127.0.0.1:{node.port}\r\n"
            requests = (b"GET /" + b"a" * 100_000 + b" HTTP/1.1\r\n\r\n",
                        f"GET / HTTP/1.1\r\n{host}X: {'a' * 100_000}\r\n\r\n".encode(),
                        ("GET / HTTP/1.1\r\n" + host + "X: a\r\n" * 20_000 + "\r\n").encode(),
                        b"\0" * 1000, b"GET\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
                        f"POST /login HTTP/1.1\r\n{host}Content-Length: 99999999\r\n\r\n".encode(),
                        f"POST /login HTTP/1.1\r\n{host}Content-Length: -1\r\n\r\n".encode(),
                        f"POST /login HTTP/1.1\r\n{host}\r\n".encode())

            def status_of(request):
                try:
                    return exchange(node.port, request + b"\r\n\r\n").status
                except (EOFError, ConnectionResetError):
                    return 400  # No answer at all.

            with concurrent.futures.ThreadPoolExecutor(len(requests)) as pool:
                for request, status in zip(requests, pool.map(status_of, requests)):
                    self.assertTrue(status >= 400 or status == 303, (status, request[:40]))
            self.assertEqual(ask(node.port, "/").status, 200)

    def test_serves_others_while_requests_do_not_end(self):
        with Served() as node:
            begun = [connect(node.port) for _ in range(20)]
            for connection in begun:
                connection.sendall(b"GET / HTTP/1.1\r\nHost: ")
            self.assertEqual(ask(node.port, "/").status, 200)
            for connection in begun:
                connection.close()

    def test_does_not_wait_for_bodies_that_come_slowly(self):
        with Served() as node:
            def begin(method, size):
                connection = connect(node.port)
                connection.sendall(f"{method} /login HTTP/1.1\r\nHost: 127.0.0.1:{node.port}\r\n"
                                   f"Content-Length: {size}\r\n\r\n".encode())
                return connection

            form = begin("POST", 4096)
            begun = [form, *(begin("GET", 10 ** 12) for _ in range(47))]
            over = threading.Event()

            def send_bytes():
                while not over.wait(1):
                    for connection in begun:
                        try:
                            connection.sendall(b"x")
                        except OSError:
                            pass  # Cut off.

            sender = threading.Thread(target=send_bytes)
            sender.start()
            try:
                self.assertEqual(ask(node.port, "/").status, 200)
                self.assertEqual(read_head(form)[0], 413)
            finally:
                over.set()
                sender.join()
                for connection in begun:
                    connection.close()

    def test_shows_a_reference_as_text_only(self):
        reference = b'"<img src=x onerror=alert(1)>\\ \xff\xe2\x80\xae</script>'
        with Served() as node, Page(node.port) as page:
            node.send(start_with_reference(1, reference))
            call = page.wait_for_call(lambda each: each["started"])
            self.assertEqual(call["call_ref"], reference.decode("utf-8", "replace"))

    def test_shuts_down_at_once_with_connections_open(self):
        with Served() as node, Talk(node) as talk:
            pages = [Page(node.port) for _ in range(5)]
            listen(pages[0], pages[0].wait_for_call())
            half = connect(node.port)
            half.sendall(b"GET / HTTP/1.1\r\n")
            talk.end()
            begin = time.monotonic()
            self.assertEqual(node.stop(), 0)
            # The library alone would take two seconds and more, but machines may be slow.
            print(f"shut down in {time.monotonic() - begin:.2f} s")
            for connection in [*(page.socket for page in pages), half]:
                connection.close()


class APage(unittest.TestCase):
    def test_sees_calls_begin_change_and_end(self):
        with Served("--activity-minimum", "20") as node, Page(node.port) as page:
            hello = page.wait_for_type("hello")
            self.assertEqual(hello["login"], False)
            first = page.wait_for_type("calls")
            self.assertEqual((first["reset"], first["calls"], first["finished"]), (True, [], []))
            with Talk(node) as talk:
                call = page.wait_for_call(lambda each: each["started"])
                self.assertEqual(call["call_uuid"], uuid_of(1))
                self.assertEqual(call["call_ref"], "a84b4c76e66710@192.0.2.7")
                self.assertEqual(call["trouble"], [])
                page.send(type="watch", calls=[call["id"]])
                page.wait_for(lambda message: isinstance(message, dict) and
                              message["type"] == "levels" and message["rows"][0][1] is not None and
                              -15 < message["rows"][0][1] < 0 and message["rows"][0][2] is not None)
                page.wait_for_call(lambda each: each["sides"]["originator"] and
                                   each["sides"]["originator"]["packets"] > 50)
                talk.end()
            page.wait_for(lambda message: isinstance(message, dict) and
                          call["id"] in message.get("removed", []))
            last = node.finished()[0]
            self.assertEqual((last["id"], last["reason"]), (call["id"], "terminated"))
            self.assertEqual({(file["kind"], file["call_side"]) for file in last["files"]},
                             {("wav", "originator"), ("wav", "terminator")})

    def test_sees_the_wave_and_the_marks_of_the_call_that_it_opens(self):
        with Served() as node, Page(node.port) as page, Talk(node, lost=[30]):
            call = page.wait_for_call()
            page.send(type="open", call=call["id"])
            detail = page.wait_for_type("detail")
            self.assertEqual(detail["column_ms"], 50)
            page.wait_for(lambda message: isinstance(message, dict) and any(
                mark["kind"] == "gap" for mark in message.get("marks", [])))
            gap = next(mark for message in page.messages for mark in message.get("marks", [])
                       if mark["kind"] == "gap")
            self.assertEqual((gap["call_side"], gap["begin"], gap["end"]), ("originator", 0.58, 0.6))
            page.send(type="open", call=None)

    def test_is_told_what_is_wrong_with_its_messages(self):
        with Served() as node, Page(node.port) as page:
            for message in (b"", b"x", b"[]", b"{}", b'{"type":"x"}', b'{"type":"watch"}',
                            b'{"type":"watch","calls":[-1]}', b'{"type":"watch","calls":"x"}',
                            json.dumps({"type": "watch", "calls": list(range(101))}).encode(),
                            b'{"type":"open","call":"x"}', b'{"type":"open","call":999}',
                            b'{"type":"listen","call":1,"sides":"all"}', b"[" * 4000, b"\xff\xfe",
                            b'{"type":"stop","x":"' + b"a" * 5000 + b'"}'):
                page.send_frame(TEXT, message)
                page.wait_for_type("error")
            page.send(type="listen", call=999, sides="both")
            self.assertEqual(page.wait_for_type("stopped")["reason"], "ended")

    def test_that_sends_very_many_messages_has_to_wait(self):
        with Served() as node, Page(node.port) as page:
            begin = time.monotonic()
            for _ in range(4):
                for _ in range(50):
                    page.send_frame(TEXT, b"x")
                for _ in range(50):
                    page.wait_for_type("error")
            self.assertGreater(time.monotonic() - begin, 0.9)  # 100 at once, then 100 a second.

    def test_is_cut_off_when_a_message_does_not_end(self):
        with Served() as node, Page(node.port) as page:
            page.socket.sendall(struct.pack(">BBQI", 0x80 | TEXT, 0x80 | 127, 2 ** 30, 0))
            with self.assertRaises((BrokenPipeError, ConnectionResetError)):
                for _ in range(2000):
                    page.socket.sendall(b"0" * 65536)
                    time.sleep(0.005)
            self.assertEqual(Page(node.port).status, 101)

    def test_is_cut_off_when_it_sends_what_no_page_sends(self):
        with Served() as node:
            # A part of a text, its continuation, and an opcode that is not in use.
            for opcode, final in (BINARY, True), (TEXT, False), (0, True), (11, True):
                with self.subTest(opcode=opcode, final=final), Page(node.port) as page:
                    page.wait_for_type("calls")
                    page.send_frame(opcode, b"x", final)
                    end = time.monotonic() + PATIENCE
                    while not page.closed and time.monotonic() < end:
                        page.read()
                    self.assertTrue(page.closed)

    def test_is_cut_off_when_it_does_not_read(self):
        with Served() as node:
            # Together they are more than the buffers of the system hold.
            for call in range(4000):
                start = bytearray(start_with_reference(0, b"x" * 1200))
                start[28:32] = struct.pack(">I", call)
                node.send(bytes(start))
                if call % 50 == 0:
                    time.sleep(0.005)
            with Page(node.port, receive_buffer=4096), Page(node.port) as other:
                other.wait_for_type("calls")
                end = time.monotonic() + PATIENCE
                while node_connections(node) > 1 and time.monotonic() < end:
                    other.read()
                self.assertEqual(node_connections(node), 1)
                other.wait_for_type("calls")

    def test_is_refused_when_too_many_are_open(self):
        with Served() as node:
            pages = [Page(node.port) for _ in range(24)]
            self.assertEqual({page.status for page in pages}, {101})
            self.assertEqual(Page(node.port).status, 503)
            self.assertEqual(ask(node.port, "/").status, 200)
            with Talk(node):
                for page in pages:
                    page.wait_for_call()
            for page in pages:
                page.socket.close()
            end = time.monotonic() + PATIENCE
            while Page(node.port).status != 101:
                self.assertLess(time.monotonic(), end)
                time.sleep(0.05)


    def test_that_never_opened_does_not_count(self):
        with Served() as node:
            for _ in range(25):
                self.assertEqual(Page(node.port, {"Sec-WebSocket-Key": "A" * 90}).status, 400)
            self.assertEqual(Page(node.port).status, 101)


def node_connections(node):
    """The connections to the node's page that are open at its end."""
    lines = pathlib.Path(f"/proc/{node.process.pid}/net/tcp").read_text().splitlines()[1:]
    local = f":{node.port:04X}"
    return sum(line.split()[1].endswith(local) and line.split()[3] == "01" for line in lines)


class Listening(unittest.TestCase):
    def check(self, heard, sent):
        self.assertEqual([heard[at] for at in sorted(heard)], [sent[at] for at in sorted(heard)])

    def test_gives_every_sample_of_each_side(self):
        with Served() as node, Page(node.port) as page, Talk(node) as talk:
            listen(page, page.wait_for_call())
            first = page.hear(0, 16_000)
            second = page.hear(1, 16_000)
            for heard, sent in ((first, talk.sent[0]), (second, talk.sent[1])):
                self.check(heard, sent)
                self.assertEqual(max(heard) - min(heard) + 1, len(heard))  # Nothing is missing.
            self.assertEqual({frame.rate for frame in page.frames}, {8000})
            self.assertEqual({frame.flags for frame in page.frames}, {0})
            print(f"at most {max(frame.age for frame in page.frames) / 1000:.0f} ms old when sent")
            talk.end()
            self.assertEqual(page.wait_for_type("stopped")["reason"], "ended")

    def test_gives_one_side_only_and_ends_when_asked(self):
        with Served() as node, Page(node.port) as page, Talk(node) as talk:
            call = page.wait_for_call()
            listen(page, call, "terminator")
            self.check(page.hear(1, 4000), talk.sent[1])
            self.assertEqual({frame.side for frame in page.frames}, {1})
            page.send(type="stop")
            self.assertEqual(page.wait_for_type("stopped")["reason"], "stopped")
            page.frames.clear()
            page.send(type="watch", calls=[call["id"]])
            for _ in range(10):
                page.wait_for_type("levels")
            self.assertEqual(page.frames, [])

    def test_marks_what_is_lost(self):
        with Served() as node, Page(node.port) as page:
            with Talk(node, lost=[60]) as talk:
                listen(page, page.wait_for_call())
                page.wait_for(lambda message: message in page.frames and message.flags == 1)
                frame = page.frames[-1]
                self.assertEqual((frame.side, frame.position), (0, 60 * FRAME))
                self.assertEqual(frame.samples, tuple(talk.sent[0][60 * FRAME:][:len(frame.samples)]))

    def test_serves_several_pages_at_once(self):
        with Served() as node, Talk(node) as talk:
            pages = [Page(node.port) for _ in range(4)]
            for page in pages:
                listen(page, page.wait_for_call())
            for page in pages:
                self.check(page.hear(0, 4000), talk.sent[0])
                page.socket.close()

    def test_is_an_event_when_it_begins_and_when_it_ends(self):
        with Served("--events", "-") as node:
            with Talk(node), Page(node.port) as page:
                listen(page, page.wait_for_call(), "originator")
                page.hear(0, 2000)
            node.wait_for(r'"event":"listen".*"ended":true')
            begin, end = node.events("listen")
            self.assertEqual(set(begin) | set(end), listed_event_fields()["listen"])
            for event in begin, end:
                self.assertEqual((event["call_uuid"], event["sides"]), (uuid_of(1), "originator"))
                self.assertRegex(event["from"], r"^127\.0\.0\.1:\d+$")
            self.assertEqual((begin["ended"], begin["seconds"], end["ended"]), (False, 0, True))
            self.assertGreater(end["seconds"], 0)


class Files(unittest.TestCase):
    def test_of_a_finished_call_can_be_fetched(self):
        with Served("--stereo", "--timeline", "--sidecar", "--format", "flac") as node:
            node.send_whole_call()
            call = node.finished()[0]
            kinds = {}
            for file in call["files"]:
                path = f"/api/calls/{call['call_uuid']}/files/{file['name']}"
                answer = ask(node.port, path)
                self.assertEqual(answer.status, 200, path)
                self.assertEqual(answer.body, (node.folder / file["name"]).read_bytes())
                self.assertEqual(file["bytes"], len(answer.body))
                kinds[file["kind"], file["call_side"]] = answer.headers
            self.assertEqual(set(kinds), {("flac", "originator"), ("flac", "terminator"),
                                          ("flac", "both"), ("timeline", "both"),
                                          ("sidecar", "both")})
            self.assertEqual(kinds["flac", "both"]["content-type"], "audio/flac")
            self.assertEqual(kinds["timeline", "both"]["content-type"], "image/svg+xml")
            self.assertIn("sandbox", kinds["timeline", "both"]["content-security-policy"])
            self.assertNotIn("script-src", kinds["timeline", "both"]["content-security-policy"])

    def test_are_sent_in_part_when_asked(self):
        with Served() as node:
            node.send_whole_call()
            call = node.finished()[0]
            name = call["files"][0]["name"]
            whole = (node.folder / name).read_bytes()
            path = f"/api/calls/{call['call_uuid']}/files/{name}"
            size = len(whole)
            for text, begin, end in (("0-0", 0, 1), ("0-99", 0, 100), ("44-", 44, size),
                                     ("-100", size - 100, size), (f"0-{size * 2}", 0, size),
                                     (f"{size - 1}-", size - 1, size)):
                answer = ask(node.port, path, headers={"Range": "bytes=" + text})
                self.assertEqual((answer.status, answer.body), (206, whole[begin:end]), text)
                self.assertEqual(answer.headers["content-range"], f"bytes {begin}-{end - 1}/{size}")
            for text in (f"{size}-", "99999999-", "-0"):
                answer = ask(node.port, path, headers={"Range": "bytes=" + text})
                self.assertEqual((answer.status, answer.headers["content-range"]),
                                 (416, f"bytes */{size}"))
            for text in ("bytes=5-2", "bytes=a-b", "bytes=0-1,5-6", "lines=1-2", "bytes=", "bytes=-"):
                answer = ask(node.port, path, headers={"Range": text})
                self.assertEqual((answer.status, answer.body), (200, whole), text)
            head = ask(node.port, path, "HEAD", {"Range": "bytes=0-9"})
            self.assertEqual((head.status, head.headers["content-length"], head.body),
                             (206, "10", b""))


class Strangers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.TemporaryDirectory(prefix="quorvane-web-")
        cls.token_file = pathlib.Path(cls.home.name) / "token"
        cls.token_file.write_text(TOKEN + "\n")
        cls.token_file.chmod(0o600)

    @classmethod
    def tearDownClass(cls):
        cls.home.cleanup()

    def served(self, *options):
        return Served("--http-token-file", str(self.token_file), *options)

    def log_in(self, node, token=TOKEN, **others):
        return ask(node.port, "/login", "POST", body=b"token=" + token.encode(), **others)

    def test_without_the_token_see_nothing(self):
        with self.served() as node:
            for path in ("/", "/page.js", "/nothing"):
                answer = ask(node.port, path)
                self.assertEqual((answer.status, answer.headers["location"]), (303, "/login"))
            for path in ("/api/calls", "/api/calls/x", "/api/nothing", "/metrics",
                         "/api/calls/x/files/y"):
                self.assertEqual(ask(node.port, path).status, 401, path)
            self.assertIn(b"<form", ask(node.port, "/login").body)
            self.assertEqual(Page(node.port).status, 401)
            cookie = {"Cookie": "quorvane_session=" + "0" * 64}
            self.assertEqual(ask(node.port, "/api/calls", headers=cookie).status, 401)

    def test_with_the_token_see_everything(self):
        with self.served() as node:
            bearer = {"Authorization": "Bearer " + TOKEN}
            self.assertEqual(ask(node.port, "/api/calls", headers=bearer).status, 200)
            self.assertEqual(Page(node.port, bearer).status, 101)
            answer = self.log_in(node)
            self.assertEqual((answer.status, answer.headers["location"]), (303, "/"))
            cookie, *attributes = answer.headers["set-cookie"].split("; ")
            self.assertEqual(set(attributes), {"Path=/", "HttpOnly", "SameSite=Strict"})
            self.assertNotIn(TOKEN, cookie)
            headers = {"Cookie": "other=1; " + cookie}
            self.assertEqual(ask(node.port, "/", headers=headers).status, 200)
            with Page(node.port, headers) as page:
                self.assertEqual(page.wait_for_type("hello")["login"], True)
                self.assertEqual(ask(node.port, "/logout", "POST", headers, b"x=").status, 303)
                with self.assertRaisesRegex(AssertionError, "^closed"):
                    page.wait_for(lambda _: False)
            self.assertEqual(ask(node.port, "/api/calls", headers=headers).status, 401)

    def test_with_wrong_tokens_have_to_wait(self):
        with self.served() as node:
            answers = [self.log_in(node, "x" * 21) for _ in range(7)]
            self.assertEqual([answer.status for answer in answers[:5]], [303] * 5)
            self.assertEqual(answers[0].headers["location"], "/login#wrong")
            self.assertIn(429, [answer.status for answer in answers[5:]])
            self.assertEqual(ask(node.port, "/api/calls", headers={
                "Authorization": "Bearer wrong"}).status, 429)

    def test_of_other_sites_are_refused(self):
        with Served() as node:
            other = {"Origin": "http://elsewhere.example"}
            self.assertEqual(Page(node.port, other).status, 403)
            self.assertEqual(Page(node.port, {"Origin": "null"}).status, 403)
            self.assertEqual(Page(node.port, {"Origin": f"http://127.0.0.1:{node.port + 1}"}).status, 403)
            self.assertEqual(Page(node.port, {"Origin": f"https://127.0.0.1:{node.port}"}).status, 403)
            self.assertEqual(ask(node.port, "/api/calls", headers=other).status, 403)
            # A name of theirs that leads to this machine.
            for host in (f"elsewhere.example:{node.port}", "127.0.0.1.elsewhere.example", ""):
                request = f"GET /api/calls HTTP/1.1\r\nHost: {host}\r\n\r\n".encode()
                self.assertIn(exchange(node.port, request).status, (400, 403), host)
            request = f"GET /api/calls HTTP/1.1\r\nHost: localhost:{node.port}\r\n\r\n".encode()
            self.assertEqual(exchange(node.port, request).status, 200)
            # The library would allow every site every method of the websocket's path.
            preflight = ask(node.port, "/api/live", "OPTIONS", {
                **other, "Access-Control-Request-Method": "GET", "Upgrade": "websocket"})
            self.assertEqual(preflight.status, 403)
            self.assertNotIn("access-control-allow-origin", preflight.headers)

    def run_node(self, *options):
        return subprocess.run([NODE, "--listen", "127.0.0.1:0", "--output", self.home.name, *options],
                              capture_output=True, text=True, timeout=PATIENCE)

    def test_of_other_machines_need_a_token(self):
        result = self.run_node("--http", "0.0.0.0:0")
        self.assertEqual(result.returncode, 2)
        self.assertIn("--http-token-file is needed", result.stderr)

    def test_cannot_read_the_token(self):
        bad = pathlib.Path(self.home.name) / "bad"
        for text, mode, complaint in ((TOKEN, 0o644, "may read it"), ("short", 0o600, "16 to 512"),
                                      ("two lines of\ntoken text", 0o600, "one line"),
                                      ("", 0o600, "16 to 512"), ("x" * 1000, 0o600, "16 to 512")):
            bad.write_text(text)
            bad.chmod(mode)
            result = self.run_node("--http", "0", "--http-token-file", str(bad))
            self.assertEqual(result.returncode, 3)
            self.assertIn(complaint, result.stderr)

    def check_server_behind(self, node, bearer):
        """The server behind the relay answers nobody else."""
        def connections(state):
            lines = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
            return [[int(end.split(":")[1], 16) for end in line.split()[1:3]] for line in lines
                    if line.split()[3] == state and line.split()[9] in sockets_of(node)]
        port, = (local for local, _ in connections("0A") if local != node.port)
        with self.assertRaises((EOFError, ConnectionResetError)):
            ask(port, "/login", headers=bearer)
        # Nor somebody with the relay's port, but another address of this machine.
        with Page(node.port, bearer, secure=True), socket.socket() as other:
            own = next(local for local, remote in connections("01") if remote == port)
            other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            other.bind(("127.0.0.2", own))
            other.connect(("127.0.0.1", port))
            other.sendall(b"GET /login HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
            with self.assertRaises((EOFError, ConnectionResetError)):
                read_head(other)

    @unittest.skipUnless(shutil.which("openssl"), "openssl makes the certificate")
    def test_who_watch_the_network_see_only_tls(self):
        certificate = pathlib.Path(self.home.name) / "certificate.pem"
        key = pathlib.Path(self.home.name) / "key.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "1", "-subj",
                        "/CN=localhost", "-keyout", str(key), "-out", str(certificate)],
                       check=True, capture_output=True)
        certificate.write_text(certificate.read_text() + key.read_text())
        with self.served("--http-cert", str(certificate)) as node, Talk(node) as talk:
            answer = self.log_in(node, secure=True)
            self.assertIn("Secure", answer.headers["set-cookie"].split("; "))
            bearer = {"Authorization": "Bearer " + TOKEN}
            with Page(node.port, bearer, secure=True) as page:
                listen(page, page.wait_for_call())
                heard = page.hear(0, 8000)
                self.assertEqual([heard[at] for at in sorted(heard)],
                                 [talk.sent[0][at] for at in sorted(heard)])
            with self.assertRaises((EOFError, ConnectionResetError, ssl.SSLError, ValueError)):
                ask(node.port, "/login")
            old = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            old.check_hostname, old.verify_mode = False, ssl.CERT_NONE
            old.maximum_version = ssl.TLSVersion.TLSv1_1
            with self.assertRaises((ssl.SSLError, OSError)):
                old.wrap_socket(socket.create_connection(("127.0.0.1", node.port)))
            self.check_server_behind(node, bearer)
            # Nor do people who never finish a handshake keep others out.
            with contextlib.ExitStack() as silent:
                for _ in range(100):
                    silent.enter_context(socket.create_connection(("127.0.0.1", node.port)))
                began = time.monotonic()
                self.assertEqual(ask(node.port, "/login", headers=bearer, secure=True).status, 200)
                self.assertLess(time.monotonic() - began, 8)  # They have 10 s.
            talk.end()
            self.assertEqual(node.stop(), 0)

    def test_get_a_reason_when_the_certificate_is_no_good(self):
        for path in ("/nonexistent", str(self.token_file)):
            result = self.run_node("--http", "0", "--http-cert", path)
            self.assertEqual(result.returncode, 3)
            self.assertIn("certificate and key in " + path, result.stderr)


def sockets_of(node):
    """The numbers of the node's sockets."""
    links = []
    for entry in pathlib.Path(f"/proc/{node.process.pid}/fd").iterdir():
        try:
            links.append(os.readlink(entry))
        except FileNotFoundError:
            pass
    return {link[8:-1] for link in links if link.startswith("socket:[")}


if __name__ == "__main__":
    unittest.main(argv=["web_test"], verbosity=1, warnings="ignore")
