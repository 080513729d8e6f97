#!/usr/bin/env python3
"""Follows the audio of calls on NATS and writes a WAV file per side, as quorvane-node does.

It stands for a recogniser: take() is where one would listen. Needs only Python 3.10, because the
protocol of NATS is text. docs/node.md describes the subjects and the headers.
"""
import argparse
import json
import pathlib
import socket
import sys
import urllib.parse
import wave

MAX_WAIT = 0.2  # Seconds between two looks at the time.


class Connection:
    """A subscriber. Iterating over it gives subject, headers and data of each message; None if
    nothing came for a moment."""

    def __init__(self, url):
        where = urllib.parse.urlsplit(url if "://" in url else "nats://" + url)
        self.socket = socket.create_connection((where.hostname, where.port or 4222), timeout=10)
        self.socket.settimeout(MAX_WAIT)
        self.waiting = b""
        self.subscriptions = 0
        login = {"verbose": False, "pedantic": False, "headers": True, "name": "worker.py",
                 "lang": "python", "version": "1", "protocol": 1}
        if where.password:
            login.update(user=where.username, **{"pass": where.password})
        self.say("CONNECT " + json.dumps(login))

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
            words = line.split()
            if words[0] == "PING":
                self.say("PONG")
            elif words[0] == "-ERR":
                raise ConnectionError(line)
            elif words[0] == "MSG":
                yield words[1], {}, self.bytes(int(words[-1]))
            elif words[0] == "HMSG":
                head, whole = int(words[-2]), self.bytes(int(words[-1]))
                fields = whole[:head].decode().split("\r\n")[1:]
                yield words[1], dict(field.split(": ", 1) for field in fields if field), whole[head:]


class Stream:
    """The audio of one side of a call."""

    def __init__(self, folder, call, side):
        self.call, self.side = call, side
        self.folder = folder
        self.sequence = self.position = self.lost_chunks = self.lost_samples = 0
        self.rate, self.file, self.parts = 0, None, 0
        self.ended = False

    def take(self, headers, audio):
        number = {name: int(headers.get("Quorvane-" + name, 0))
                  for name in ("Sequence", "Position", "Gap", "Pause", "Sample-Rate")}
        if number["Sequence"] <= self.sequence:
            return  # It was sent again.
        # What is missing although it was not lost before the node.
        lost = number["Position"] - number["Gap"] - self.position
        self.lost_chunks += number["Sequence"] - self.sequence - 1
        self.lost_samples += lost
        self.sequence = number["Sequence"]
        if audio or lost or number["Gap"]:
            self.write(number["Sample-Rate"], bytes(2 * (lost + number["Gap"])) + audio)
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
            opened = self.file._file
            self.file.close()
            opened.close()
            self.file = None


class Worker:
    def __init__(self, connection, folder):
        self.connection = connection
        self.folder = folder
        self.streams = {}
        self.calls = {}  # The subscription of each call, in a group.
        self.ended = 0

    def follow(self, call):
        """Of the starts of a group each comes to one worker, which then takes the whole call."""
        if call not in self.calls:
            self.calls[call] = self.connection.subscribe(f"quorvane.audio.{call}.*")

    def take(self, subject, headers, data):
        _, kind, call, last = subject.split(".")
        if kind == "events":
            self.follow(call)
            return
        name = headers["Quorvane-Stream"]
        if name not in self.streams:
            self.streams[name] = Stream(self.folder, call, last)
        stream = self.streams[name]
        if stream.ended:
            return
        stream.take(headers, data)
        if stream.ended:
            self.ended += 1
            print(json.dumps({"call": call, "side": last, "stream": name,
                              "chunks": stream.sequence, "lost_chunks": stream.lost_chunks,
                              "samples": stream.position,
                              "lost_samples": stream.lost_samples}), flush=True)
            self.forget(call)

    def forget(self, call):
        of_call = [name for name, stream in self.streams.items() if stream.call == call]
        if call in self.calls and all(self.streams[name].ended for name in of_call):
            self.connection.unsubscribe(self.calls.pop(call))
            for name in of_call:
                del self.streams[name]

    def close(self):
        for stream in self.streams.values():
            stream.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--nats", metavar="URL", default="nats://127.0.0.1:4222",
                        help="the server (default: %(default)s)")
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
    connection = Connection(options.nats)
    worker = Worker(connection, options.output)
    if options.group:
        connection.subscribe("quorvane.events.*.start", options.group)
    else:
        connection.subscribe(f"quorvane.audio.{options.call}.{options.side}")
    print("ready", file=sys.stderr, flush=True)
    try:
        for message in connection:
            if message is not None:
                worker.take(*message)
            if options.streams and worker.ended >= options.streams:
                break
    except KeyboardInterrupt:
        pass
    finally:
        worker.close()


if __name__ == "__main__":
    main()
