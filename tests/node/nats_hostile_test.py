"""Runs quorvane-node with servers that are none, that lie, or that stop at any moment."""
import json
import random
import signal
import socket
import sys
import threading
import time
import unittest

import nats_test
from end_to_end_test import OTHER_ARGUMENTS, data, uuid_of

PATIENCE = nats_test.PATIENCE
INFO = {"server_id": "A", "version": "2.9.10", "proto": 1, "headers": True, "max_payload": 1 << 20,
        "jetstream": True}


def info(**changes):
    return b"INFO " + json.dumps({**INFO, **changes}).encode() + b"\r\n"


class FakeServer:
    """Handles its connections one after the other, each with the next of these functions. After the
    last one it hangs up at once."""

    def __init__(self, *behaviours, port=0, small_buffers=False):
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if small_buffers:  # At both ends: less than a batch of audio fills them.
            self.listener.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 536)
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self.listener.bind(("127.0.0.1", port))
        self.listener.listen(100)
        self.port = self.listener.getsockname()[1]
        self.url = f"nats://127.0.0.1:{self.port}"
        self.behaviours = list(behaviours)
        self.greeted = 0
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return  # It is closed.
            with connection:
                connection.settimeout(1)
                try:
                    if self.behaviours:
                        self.behaviours.pop(0)(self, connection)
                except OSError:
                    pass

    def greet(self, connection, **changes):
        """Up to the point at which the client takes the connection for complete."""
        connection.sendall(info(**changes))
        heard = b""
        while b"PING\r\n" not in heard:
            more = connection.recv(65536)
            if not more:
                raise OSError
            heard += more
        connection.sendall(b"PONG\r\n")
        self.greeted += 1

    def close(self):
        self.over.set()
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.listener.close()
        self.thread.join()


def says(*parts):
    """Says this in place of a greeting."""
    def behave(_, connection):
        connection.sendall(b"".join(parts))
        time.sleep(0.02)
    return behave


def greets_and_says(*parts, **changes):
    def behave(server, connection):
        server.greet(connection, **changes)
        connection.sendall(b"".join(parts))
        time.sleep(0.05)
    return behave


def answers(text):
    """Answers each event, of whatever length, with this. The client gets all of the last answer:
    its library does not free what it has of a message when the connection ends within it."""
    def behave(server, connection):
        server.greet(connection)
        heard, end = b"", time.monotonic() + 0.3
        while time.monotonic() < end:
            heard += connection.recv(65536)
            *lines, heard = heard.split(b"\r\n")
            for line in lines:
                words = line.split()
                if words[:1] == [b"HPUB"] and len(words) == 5:
                    connection.sendall(b"MSG %s 1 %d\r\n%s\r\n" % (words[2], len(text), text))
                elif words[:1] == [b"PING"]:
                    connection.sendall(b"PONG\r\n")
        connection.shutdown(socket.SHUT_WR)
        while connection.recv(65536):
            pass
    return behave


def stops_reading(server, connection):
    server.greet(connection)
    server.over.wait(PATIENCE)


def stays_silent(held):
    """Neither reads nor hangs up; the next connection is handled meanwhile."""
    def behave(server, connection):
        server.greet(connection)
        held.append(connection.dup())
    return behave


def hangs_up_after(text, delays):
    """Answers nothing, and notes how long it took until this came."""
    def behave(server, connection):
        server.greet(connection)
        connection.settimeout(PATIENCE)
        begun, heard = time.monotonic(), b""
        while text not in heard:
            more = connection.recv(65536)
            if not more:
                raise OSError
            heard += more
        delays.append(time.monotonic() - begun)
    return behave


def garbage(seed):
    """Words of the protocol in a random order."""
    words = [b"INFO ", b"{", b"}", b"MSG ", b"HMSG ", b"PING", b"PONG", b"-ERR ", b"+OK", b"\r\n",
             b"\r\n", b"1 ", b"5 ", b"-1 ", b"99999999999 ", b"a.b ", b"'", b"\0", b"\xff",
             b"NATS/1.0 503\r\n\r\n", b"_INBOX.x.1 ", b"{\"max_payload\":-1}"]
    drawn = random.Random(seed)
    return b"".join(drawn.choice(words) for _ in range(40))


NO_SERVERS = [
    says(b""), says(b"HTTP/1.1 400 Bad Request\r\n\r\n"), says(b"INFO"), says(b"INFO {\r\n"),
    says(b"INFO []\r\n"), says(b"INFO {\"max_payload\":\"x\",\"port\":{},\"headers\":7}\r\n"),
    says(b"INFO " + b"[" * 30_000 + b"\r\n"), says(b"\0" * 70_000), says(b"x" * 70_000),
    says(info(), b"-ERR 'Authorization Violation'\r\n"), says(info(), b"PING\r\n"),
    says(info(connect_urls=["127.0.0.1:1", "", "[::", "x" * 5000, "localhost:99999"])),
    says(info(tls_required=True)), says(info(max_payload=-1, proto=-7, nonce="x" * 9000)),
]
LIARS = [
    greets_and_says(b"-ERR '\x1b[2J\x07 \xff'\r\n"), greets_and_says(b"-ERR\r\n"),
    greets_and_says(b"MSG\r\n"), greets_and_says(b"MSG a 1 -5\r\n"),
    greets_and_says(b"MSG a 99 5\r\nabcde\r\n"), greets_and_says(b"MSG a 1 5\r\nabcdefgh\r\n"),
    greets_and_says(b"MSG a 1 99999999999999999999\r\nabc"),
    greets_and_says(b"HMSG a 1 50 5\r\nabcde\r\n"), greets_and_says(b"HMSG a 1 5 5\r\nabcde\r\n"),
    greets_and_says(b"HMSG a 1 12 12\r\nNATS/1.0\r\n\r\n\r\n"), greets_and_says(b"+OK\r\n" * 999),
    greets_and_says(b"PING\r\n" * 999), greets_and_says(b"PONG\r\n" * 999),
    greets_and_says(info(max_payload=0)), greets_and_says(b"INFO {}\r\n"),
    answers(b""), answers(b"\xff" * 1000), answers(b"[" * 100_000),
    answers(b'{"error":{"description":"\\u001b[2J' + b"x" * 10_000 + b'"}}'),
    answers(b'{"error":{"code":"x","description":null}}'),
    *(greets_and_says(garbage(seed)) for seed in range(15)),
]


@unittest.skipIf(nats_test.SERVER is None, "nats-server is not installed")
class NatsHostileTest(nats_test.Fixture):
    def fake(self, *behaviours, **options):
        server = FakeServer(*behaviours, **options)
        self.addCleanup(server.close)
        return server

    def survive(self, behaviours):
        """After all of these, a server gets everything."""
        fake = self.fake(*behaviours)
        node = self.node("--rate", "8000", *self.settings("reconnect = 10\nduplicates = 60\n"),
                         url=fake.url)
        number = 0
        end = time.monotonic() + PATIENCE
        while fake.behaviours:
            self.assertIsNone(node.process.poll(), node.text())
            self.assertLess(time.monotonic(), end, len(fake.behaviours))
            number += 1
            node.send(data(1, number))
            time.sleep(0.02)
        fake.close()
        self.server("one", fake.port)
        node.end([1])
        self.assertEqual(node.stop(), 0, node.text())
        self.assert_all_stored(self.last_server)
        self.assertRegex(node.text(), r"^[\n -~]*$")
        self.assertLess(len(node.text().splitlines()), 40 + 6 * len(behaviours))
        return fake

    def test_what_is_no_server_harms_nobody(self):
        self.assertEqual(self.survive(NO_SERVERS).greeted, 0)

    def test_servers_that_lie_harm_nobody(self):
        self.assertEqual(self.survive(LIARS).greeted, len(LIARS))

    def test_event_without_an_answer_is_sent_again_as_soon_as_there_is_a_connection(self):
        delays = []
        fake = self.fake(*[hangs_up_after(b"HPUB quorvane.events.node.listening ", delays)] * 2)
        node = self.node(*self.settings("reconnect = 10\nexit_wait = 0\n"), url=fake.url)
        nats_test.wait_until(lambda: len(delays) == 2, "sent twice")
        node.stop()
        self.assertLess(delays[1], 4)  # Without a new connection, the node waits for 5 s.

    def test_audio_that_a_server_did_not_confirm_is_sent_again(self):
        delays = []
        fake = self.fake(*[hangs_up_after(b"Quorvane-Sequence: 1\r\n", delays)] * 3)
        node = self.node("--rate", "8000", *self.settings("reconnect = 10\nexit_wait = 0\n"),
                         url=fake.url)
        node.talk([1], 10)
        nats_test.wait_until(lambda: len(delays) == 3, "sent three times")
        self.assertEqual(node.stop(), 1)

    def test_spool_keeps_what_was_sent_until_the_server_confirms_it(self):
        delays = []
        fake = self.fake(hangs_up_after(b"HPUB quorvane.events.%s.start " % uuid_of(1).encode(),
                                        delays))
        spool = "--nats-spool", str(self.home / "spool"), "--rate", "8000", "--no-sides"
        with nats_test.Node(*spool, "--events", str(self.home / "events"), "--nats",
                            fake.url) as first:
            first.wait_for("nats connected")
            first.talk([1], 1)
            nats_test.wait_until(lambda: delays, "sent")
            for pattern in "spool/*.events", "events":
                nats_test.wait_until(lambda: uuid_of(1) in "".join(
                    path.read_text() for path in self.home.glob(pattern)), "kept")
            first.process.kill()
        server = self.server()
        node = self.node(*spool, url=server.url)
        node.wait_for("nats spool")
        self.assertEqual(node.stop(), 0)
        self.assert_all_stored(server)

    def test_server_that_stops_reading_delays_neither_the_files_nor_the_end(self):
        fake = self.fake(*[stops_reading] * 100)
        node = self.node("--rate", "8000", "--nats-queue", "1", "--packets",
                         *self.settings("exit_wait = 0\n"), url=fake.url)
        node.wait_for("nats connected")
        calls = range(1, 41)
        for number in range(1, 201):
            node.send(*(data(call, number) for call in calls))
        node.end(calls)
        node.wait_for("lost for nats")
        begun = time.monotonic()
        self.assertEqual(node.stop(), 1)
        self.assertLess(time.monotonic() - begun, 30)
        self.assertRegex(node.text(), "not sent to nats")
        lengths = {path.stat().st_size for path in node.folder.glob("*.wav")}
        self.assertEqual(lengths, {44 + 2 * 160 * 200})

    def test_server_that_stops_reading_is_left_although_a_write_to_it_waits(self):
        port = nats_test.free_ports(1)[0]  # There is a server when enough audio waits.
        node = self.node("--rate", "8000", *self.settings("reconnect = 10\nexit_wait = 0\n"),
                         url=f"127.0.0.1:{port}")
        calls = range(1, 41)
        for number in range(1, 101):
            node.send(*(data(call, number) for call in calls))
        node.end(calls)
        nats_test.wait_until(lambda: uuid_of(40) in self.events_file.read_text(), "received")
        held, delays = [], []
        self.addCleanup(lambda: [each.close() for each in held])
        self.fake(stays_silent(held), hangs_up_after(b"HPUB quorvane.audio.", delays), port=port,
                  small_buffers=True)
        nats_test.wait_until(lambda: delays, "sent to the next server")

    def test_server_that_is_killed_or_frozen_at_any_moment_stores_each_event_once(self):
        server = self.server()
        node = self.node("--rate", "8000", "--packets", "--no-sides",
                         *self.settings("reconnect = 50\nping = 200\n"), url=server.url)
        node.wait_for("nats stream")
        drawn = random.Random(1)
        number = 0
        for fault in ("kill", "freeze", "kill", "kill", "freeze", "kill"):
            end = time.monotonic() + drawn.uniform(0.05, 0.5)
            while time.monotonic() < end:
                number += 1
                node.send(*(data(call, number) for call in range(1, 11)))
                time.sleep(0.005)
            if fault == "kill":
                server.kill()
                server.start()
            else:
                server.process.send_signal(signal.SIGSTOP)
                before = node.text().count("nats disconnected")
                nats_test.wait_until(lambda: node.text().count("nats disconnected") > before,
                                     "noticed by the pings")
                server.process.send_signal(signal.SIGCONT)
        node.end(range(1, 11))
        self.assertEqual(node.stop(), 0, node.text())
        self.assertGreater(node.text().count("nats disconnected"), 3)
        self.assert_all_stored(server)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + OTHER_ARGUMENTS, verbosity=1)
