"""What a stranger or a browser can send to the page's port: raw requests, and a small websocket."""
import base64
import collections
import hashlib
import json
import os
import socket
import ssl
import struct
import time

PATIENCE = 60  # Seconds; what is waited for ends the wait.
TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10
GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"

Answer = collections.namedtuple("Answer", "status headers body")
Frame = collections.namedtuple("Frame", "side flags rate position age samples")


def connect(port, secure=False):
    connection = socket.create_connection(("127.0.0.1", port), timeout=PATIENCE)
    if secure:
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        connection = context.wrap_socket(connection)
    return connection


def read_head(connection):
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        byte = connection.recv(1)
        if not byte:
            raise EOFError(head)
        head += byte
    first, *lines = head.decode("latin-1").split("\r\n")[:-2]
    headers = {}
    for line in lines:
        name, _, value = line.partition(": ")
        headers[name.lower()] = value
    return int(first.split(" ")[1]), headers


def exchange(port, request, secure=False):
    """Sends these bytes and returns the answer."""
    with connect(port, secure) as connection:
        try:
            connection.sendall(request)
        except (BrokenPipeError, ConnectionResetError):
            pass  # Refused before all of it was sent; the answer may be there.
        status, headers = read_head(connection)
        body = b""
        wanted = int(headers["content-length"])
        while len(body) < wanted:
            part = connection.recv(65536)
            if not part:
                break
            body += part
        return Answer(status, headers, body)


def ask(port, path, method="GET", headers=None, body=b"", secure=False):
    lines = [f"{method} {path} HTTP/1.1", f"Host: 127.0.0.1:{port}"]
    lines += [f"{name}: {value}" for name, value in (headers or {}).items()]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return exchange(port, "\r\n".join(lines + ["", ""]).encode("latin-1") + body, secure)


class Page:
    """The websocket of an open page."""

    def __init__(self, port, headers=None, path="/api/live", secure=False, receive_buffer=None):
        self.socket = connect(port, secure)
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        key = base64.b64encode(os.urandom(16))
        lines = {"Host": f"127.0.0.1:{port}", "Upgrade": "websocket", "Connection": "Upgrade",
                 "Sec-WebSocket-Key": key.decode(), "Sec-WebSocket-Version": "13",
                 "Origin": f"{'https' if secure else 'http'}://127.0.0.1:{port}"}
        lines.update(headers or {})
        text = "".join(f"{name}: {value}\r\n" for name, value in lines.items() if value)
        self.socket.sendall(f"GET {path} HTTP/1.1\r\n{text}\r\n".encode("latin-1"))
        self.status, self.headers = read_head(self.socket)
        self.bytes = b""
        self.messages = []  # JSON objects that came, in order.
        self.frames = []    # Of audio, likewise.
        self.closed = False
        if self.status == 101:
            accept = base64.b64encode(hashlib.sha1(key + GUID).digest()).decode()
            assert self.headers["sec-websocket-accept"] == accept

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send_frame(self, opcode, payload, final=True):
        mask = os.urandom(4)
        size = len(payload)
        head = bytes([(0x80 if final else 0) | opcode])
        if size < 126:
            head += bytes([0x80 | size])
        elif size < 65536:
            head += bytes([0x80 | 126]) + struct.pack(">H", size)
        else:
            head += bytes([0x80 | 127]) + struct.pack(">Q", size)
        masked = bytes(byte ^ mask[i % 4] for i, byte in enumerate(payload))
        self.socket.sendall(head + mask + masked)

    def send(self, **message):
        self.send_frame(TEXT, json.dumps(message).encode())

    def need(self, count):
        while len(self.bytes) < count:
            part = self.socket.recv(65536)
            if not part:
                raise EOFError
            self.bytes += part
        taken, self.bytes = self.bytes[:count], self.bytes[count:]
        return taken

    def read_frame(self):
        first, size = self.need(2)
        if size == 126:
            size = struct.unpack(">H", self.need(2))[0]
        elif size == 127:
            size = struct.unpack(">Q", self.need(8))[0]
        return first & 0xF, self.need(size)

    def read(self):
        """Reads and keeps one message. Returns it, or None once the connection is closed."""
        try:
            opcode, payload = self.read_frame()
        except (EOFError, ConnectionResetError):
            self.closed = True
            return None
        if opcode == TEXT:
            self.messages.append(json.loads(payload.decode("utf-8")))
            return self.messages[-1]
        if opcode == BINARY:
            version, side, flags, rate, position, age = struct.unpack_from("<BBHIQq", payload)
            assert version == 1
            samples = struct.unpack(f"<{(len(payload) - 24) // 2}h", payload[24:])
            self.frames.append(Frame(side, flags, rate, position, age, samples))
            return self.frames[-1]
        if opcode == PING:
            self.send_frame(PONG, payload)
        if opcode == CLOSE:
            self.closed = True
            return None
        return payload

    def wait_for(self, wanted, seconds=PATIENCE):
        """Reads on until a message is wanted."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            message = self.read()
            if message is None:
                raise AssertionError(f"closed; before it came {self.messages[-5:]}")
            if wanted(message):
                return message
        raise AssertionError(f"not within {seconds} s; there came {self.messages[-5:]}")

    def wait_for_type(self, kind):
        return self.wait_for(lambda message: isinstance(message, dict) and message["type"] == kind)

    def wait_for_call(self, condition=lambda call: True):
        def found(message):
            return isinstance(message, dict) and message["type"] == "calls" and any(
                condition(call) for call in message["calls"])
        return next(filter(condition, self.wait_for(found)["calls"]))

    def hear(self, side, count):
        """Reads until that many samples of the side have come. Returns them by position."""
        heard = {}
        while len(heard) < count:
            for frame in self.frames:
                if frame.side == side:
                    heard.update(enumerate(frame.samples, frame.position))
            if len(heard) < count and self.read() is None:
                raise AssertionError(f"closed after {len(heard)} samples")
        return heard
