"""A client of the host's event socket: commands with their answers, and events."""

import json
import socket
import threading
import time


class EventSocketError(OSError):
    """The host refused, or the connection ended."""


class Connection:
    """One connection, used by one thread at a time."""

    def __init__(self, port: int, password: str, timeout: float = 15.0):
        self._socket = socket.create_connection(("127.0.0.1", port), timeout=timeout)
        self._input = self._socket.makefile("rb")
        self._read_message()  # The host's auth/request.
        answer, _ = self.command(f"auth {password}")
        if not answer.get("Reply-Text", "").startswith("+OK"):
            raise EventSocketError(f"the host refused the password: {answer}")

    def close(self) -> None:
        # A plain close would not end the connection while another thread is blocked reading.
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._socket.close()

    def command(self, text: str):
        """Sends a command; returns the headers and the body of its answer."""
        self.post(text)
        return self.read_answer()

    def post(self, text: str) -> None:
        """Sends a command; the caller has to read its answer later."""
        self._socket.sendall(f"{text}\n\n".encode())

    def read_answer(self):
        while True:
            headers, body = self._read_message()
            if headers.get("Content-Type") in ("command/reply", "api/response", "auth/request"):
                return headers, body

    def api(self, text: str) -> str:
        """Runs an API command; returns the host's answer unchanged."""
        return self.command(f"api {text}")[1].decode(errors="replace")

    def read_event(self) -> dict:
        """Waits for an event of a subscription in JSON form."""
        while True:
            headers, body = self._read_message()
            if headers.get("Content-Type") == "text/event-json":
                return json.loads(body)

    def wait_without_limit(self) -> None:
        self._socket.settimeout(None)

    def _read_message(self):
        headers = {}
        while True:
            line = self._input.readline()
            if not line:
                raise EventSocketError("the host closed the connection")
            if line == b"\n":
                if headers:
                    break
                continue
            name, _, value = line.decode(errors="replace").rstrip("\n").partition(": ")
            headers[name] = value
        length = int(headers.get("Content-Length", "0"))
        return headers, self._input.read(length) if length else b""


class EventRecorder:
    """Collects events of the named kinds on a thread of its own."""

    def __init__(self, port: int, password: str, names: str):
        self._connection = Connection(port, password)
        self._connection.command(f"event json {names}")
        self._connection.wait_without_limit()
        self._changed = threading.Condition()
        self._events = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._connection.close()
        self._thread.join(5)

    def events(self, name: str) -> list:
        with self._changed:
            return [event for event in self._events if event["Event-Name"] == name]

    def wait_for(self, name: str, uuid: str, timeout: float = 10.0, **headers) -> dict:
        """Returns the first such event of the channel `uuid` with these headers. Looks at recorded
        events first, then waits for new ones."""
        wanted = {"Event-Name": name, "Unique-ID": uuid, **headers}
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                for event in self._events:
                    if wanted.items() <= event.items():
                        return event
                if not self._changed.wait(deadline - time.monotonic()):
                    raise TimeoutError(f"no event {name} of channel {uuid}")

    def _run(self) -> None:
        try:
            while True:
                event = self._connection.read_event()
                with self._changed:
                    self._events.append(event)
                    self._changed.notify_all()
        except (EventSocketError, OSError, ValueError):
            pass
