#!/usr/bin/env python3
"""Follows the audio of calls on NATS and writes a WAV file per side, as quorvane-node does.

Use it as the start of a recogniser: Stream.take() gets the audio. Needs only Python 3.10, because
the protocol of NATS is text. docs/node.md describes the subjects and the headers.
"""
import argparse
import json
import os
import pathlib
import socket
import ssl
import sys
import time
import urllib.parse
import uuid
import wave

MAX_WAIT = 0.2  # Seconds between two looks at the time.
MOST_WAITING = 1 << 26  # Bytes of a message; servers allow 64 MiB at most.
REMEMBERED = 60  # Seconds for which a call that has ended is known, because chunks may come again.
GIVEN_UP = 12 * 3600  # Seconds without a chunk after which the end of a call is not awaited.
MOST_SILENCE = 3600  # Seconds of lost audio that are written as silence, at most.
SIDES = ("originator", "terminator")


class Connection:
    """A subscriber. Iterating over it gives subject, headers and data of each message; None if
    nothing came for a moment."""

    def __init__(self, url):
        where = urllib.parse.urlsplit(url if "://" in url else "nats://" + url)
        if where.scheme not in ("nats", "tls") or not where.hostname:
            raise ConnectionError("the URL is neither nats://HOST:PORT nor tls://HOST:PORT")
        self.socket = socket.create_connection((where.hostname, where.port or 4222), timeout=10)
        self.waiting = b""
        self.subscriptions = 0
        if where.scheme == "tls":
            self.encrypt(where.hostname)
        self.socket.settimeout(MAX_WAIT)
        login = {"verbose": False, "pedantic": False, "headers": True, "name": "worker.py",
                 "lang": "python", "version": "1", "protocol": 1}
        if where.password:
            login.update(user=urllib.parse.unquote(where.username or ""),
                         **{"pass": urllib.parse.unquote(where.password)})
        self.say("CONNECT " + json.dumps(login))

    def encrypt(self, name):
        """The server speaks first, and TLS begins after its line. SSL_CERT_FILE may name a file
        with the certificates of authorities."""
        self.line()
        if self.waiting:
            raise ConnectionError("the server says more than it may before TLS")
        self.socket = ssl.create_default_context().wrap_socket(self.socket, server_hostname=name)

    def say(self, line):
        self.socket.sendall(line.encode() + b"\r\n")

    def subscribe(self, subject, group=""):
        self.subscriptions += 1
        self.say(f"SUB {subject} {group} {self.subscriptions}")
        return self.subscriptions

    def unsubscribe(self, subscription):
        self.say(f"UNSUB {subscription}")

    def receive(self):
        more = self.socket.recv(1 << 16)
        if not more:
            raise ConnectionError("the server closed the connection")
        self.waiting += more

    def line(self):
        while b"\r\n" not in self.waiting:
            if len(self.waiting) > MOST_WAITING:
                raise ConnectionError("the server does not speak NATS")
            self.receive()
        line, self.waiting = self.waiting.split(b"\r\n", 1)
        return line.decode()

    def bytes(self, size):
        while len(self.waiting) < size + 2:
            try:
                self.receive()
            except socket.timeout:
                pass  # The rest of a message is on its way.
        data, self.waiting = self.waiting[:size], self.waiting[size + 2:]
        return data

    def __iter__(self):
        while True:
            try:
                line = self.line()
            except socket.timeout:
                yield None
                continue
            except UnicodeDecodeError:
                raise ConnectionError("the server does not speak NATS") from None
            kind, *words = line.split() or [""]
            if kind == "PING":
                self.say("PONG")
            elif kind == "-ERR":
                raise ConnectionError(line)
            elif kind == "MSG":
                yield words[0], {}, self.bytes(int(words[-1]))
            elif kind == "HMSG":
                head, whole = int(words[-2]), self.bytes(int(words[-1]))
                yield words[0], headers_of(whole[:head]), whole[head:]


def headers_of(head):
    fields = [field.partition(":") for field in head.decode(errors="replace").split("\r\n")[1:]]
    return {name: value.strip() for name, colon, value in fields if colon}


class Nonsense(Exception):
    """A message that no media node sends. Every client that the server accepts may send one."""


class Stream:
    """The audio of one side of a call."""

    def __init__(self, folder, call, side):
        self.call, self.side = call, side
        self.folder = folder
        self.time = time.monotonic()  # Of its latest chunk.
        self.sequence = self.position = self.lost_chunks = self.lost_samples = 0
        self.rate, self.file, self.parts = 0, None, 0
        self.ended = False

    def take(self, headers, audio):
        number = {name: number_in(headers, name)
                  for name in ("Sequence", "Position", "Gap", "Sample-Rate")}
        if self.ended or number["Sequence"] <= self.sequence:
            return  # It was sent again.
        # Samples that the node had but that did not arrive here.
        lost = number["Position"] - number["Gap"] - self.position
        rate, silence = number["Sample-Rate"], lost + number["Gap"]
        if not 0 < rate <= 192_000 or len(audio) % 2 or lost < 0:
            raise Nonsense(f"{headers}, {len(audio)} bytes of audio")
        self.lost_chunks += number["Sequence"] - self.sequence - 1
        self.lost_samples += lost
        self.sequence = number["Sequence"]
        if silence > MOST_SILENCE * rate:
            self.close()  # The next part begins after it.
            silence = 0
        if audio or silence:
            self.write(rate, bytes(2 * silence) + audio)
        self.position = number["Position"] + len(audio) // 2
        self.ended = "Quorvane-End" in headers
        if self.ended:
            self.close()

    def write(self, rate, audio):
        if self.file is not None and rate != self.rate:
            self.close()
        if self.file is None:
            self.rate = rate
            self.parts += 1
            self.file = self.create("" if self.parts == 1 else f"-part{self.parts}")
            self.file.setparams((1, 2, rate, 0, "NONE", None))
        self.file.writeframes(audio)

    def create(self, ending):
        """A new file; like the node's, it gets a number if there is one of that name."""
        for number in range(1, 1000):
            stem = self.call if number == 1 else f"{self.call}-{number}"
            try:
                return wave.open(open(self.folder / f"{stem}-{self.side}{ending}.wav", "xb"), "wb")
            except FileExistsError:
                pass
        raise FileExistsError(f"a thousand files of {self.call}")

    def close(self):
        if self.file is not None:
            file, self.file = self.file, None
            with file._file:
                file.close()


def number_in(headers, name):
    text = headers.get("Quorvane-" + name, "0")
    if not (text.isascii() and text.isdigit() and len(text) < 20):
        raise Nonsense(f"Quorvane-{name}: {text}")
    return int(text)


class FollowedCall:
    """A call that this worker of a group follows."""

    def __init__(self, subscription):
        self.subscription = subscription
        self.since = time.monotonic()
        self.starts = 0
        self.taps = set()  # One for each start: what the streams of both sides have in common.

    def has(self, stream):
        """A call that is tapped again may have become another worker's."""
        tap = stream.rpartition("-")[0]
        if len(self.taps) < self.starts:
            self.taps.add(tap)
        return tap in self.taps


class Worker:
    def __init__(self, connection, folder):
        self.connection = connection
        self.folder = folder
        self.streams = {}
        self.calls = {}  # In a group.
        self.ended = 0

    def follow(self, call):
        """Each start event goes to one worker of a group, which then takes the whole call."""
        if call not in self.calls:
            self.calls[call] = FollowedCall(self.connection.subscribe(f"quorvane.audio.{call}.*"))
        self.calls[call].starts += 1

    def take(self, subject, headers, data):
        _, kind, call, last = (subject + "...").split(".")[:4]
        if not is_uuid(call):  # It becomes part of a file name.
            raise Nonsense(subject)
        if kind == "events":
            self.follow(call)
            return
        name = headers.get("Quorvane-Stream", "")
        if not name or last not in SIDES:
            raise Nonsense(f"{subject} {headers}")
        if call in self.calls and not self.calls[call].has(name):
            return
        stream = self.streams.get(name) or Stream(self.folder, call, last)
        if (stream.call, stream.side) != (call, last):
            raise Nonsense(f"{subject} {headers}")
        known = stream.ended
        stream.take(headers, data)
        stream.time = time.monotonic()
        self.streams[name] = stream
        if stream.ended and not known:
            self.ended += 1
            print(json.dumps({"call": call, "side": last, "stream": name,
                              "chunks": stream.sequence, "lost_chunks": stream.lost_chunks,
                              "samples": stream.position,
                              "lost_samples": stream.lost_samples}), flush=True)

    def forget(self, now):
        """Forgets the calls that are over. The sides of a call need not end, nor begin, together."""
        over = set()
        for name, stream in list(self.streams.items()):
            if now - stream.time > (REMEMBERED if stream.ended else GIVEN_UP):
                stream.close()
                over.add(stream.call)
                del self.streams[name]
        alive = {stream.call for stream in self.streams.values()}
        for name, call in list(self.calls.items()):
            if name not in alive and (name in over or now - call.since > GIVEN_UP):
                self.connection.unsubscribe(call.subscription)
                del self.calls[name]

    def close(self):
        for stream in self.streams.values():
            try:
                stream.close()
            except OSError as error:  # The disk may be full; the other files are complete.
                print(f"worker.py: {stream.call}, {stream.side}: {error}", file=sys.stderr)


def is_uuid(text):
    try:
        return str(uuid.UUID(text)) == text.lower()
    except ValueError:
        return False


def follow(connection, worker, streams):
    """Ends after that number of streams; 0 means never."""
    looked = time.monotonic()
    for message in connection:
        if message is not None:
            try:
                worker.take(*message)
            except Nonsense as reason:
                print(f"worker.py: ignored: {str(reason)!a}", file=sys.stderr, flush=True)
        if streams and worker.ended >= streams:
            break
        if time.monotonic() - looked > 1:
            looked = time.monotonic()
            worker.forget(looked)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--nats", metavar="URL",
                        default=os.environ.get("NATS_URL", "nats://127.0.0.1:4222"),
                        help="the server (default: the variable NATS_URL, which hides a password "
                             "from the list of processes, or nats://127.0.0.1:4222)")
    parser.add_argument("--output", metavar="FOLDER", type=pathlib.Path, default=".",
                        help="where the files go (default: here)")
    parser.add_argument("--call", metavar="UUID", default="*", help="only this call")
    parser.add_argument("--side", choices=("originator", "terminator"), default="*",
                        help="only this side")
    parser.add_argument("--group", metavar="NAME",
                        help="share the calls with the other workers of this group")
    parser.add_argument("--streams", metavar="N", type=int, default=0,
                        help="end after this many sides have ended")
    options = parser.parse_args()
    options.output.mkdir(parents=True, exist_ok=True)
    worker = None
    try:
        connection = Connection(options.nats)
        worker = Worker(connection, options.output)
        if options.group:
            connection.subscribe("quorvane.events.*.start", options.group)
        else:
            connection.subscribe(f"quorvane.audio.{options.call}.{options.side}")
        print("ready", file=sys.stderr, flush=True)
        follow(connection, worker, options.streams)
    except KeyboardInterrupt:
        pass
    except (OSError, ValueError, IndexError) as error:  # Of a URL, or of what the server says.
        sys.exit(f"worker.py: {error}")
    finally:
        if worker:
            worker.close()


if __name__ == "__main__":
    main()
