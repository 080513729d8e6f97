"""A private FreeSWITCH: its own folders, its own ports, loopback only."""

import itertools
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

from harness.event_socket import Connection, EventRecorder, EventSocketError
from harness.host_files import PASSWORD, choose_ports, write_host_files

CHANNEL_EVENTS = ("CHANNEL_CREATE CHANNEL_ANSWER CHANNEL_EXECUTE CHANNEL_HANGUP_COMPLETE "
                  "CHANNEL_DESTROY CHANNEL_BRIDGE MEDIA_BUG_START MEDIA_BUG_STOP")


def can_have_private_etc() -> bool:
    return private_mounts() is not None


def private_mounts():
    """The command line that enters a mount namespace of its own, or None."""
    for options in (["--mount"], ["--user", "--map-root-user", "--mount"]):
        command = ["unshare", *options, "--propagation", "private"]
        probe = command + ["mount", "--bind", "/tmp", "/tmp"]
        try:
            if subprocess.run(probe, capture_output=True, check=False).returncode == 0:
                return command
        except FileNotFoundError:
            return None
    return None


class Host:
    """One private host. It loads the shipped module if a private /etc is possible; otherwise the
    module that reads its configuration under the current folder."""

    def __init__(self, installation, folder: pathlib.Path, module: pathlib.Path,
                 relocated: pathlib.Path, dialplan: str, sanitizer=None):
        self.folder = folder
        self.ports = choose_ports()
        self.module_configuration = folder / "delmaren/quorvane/freeswitch_mod.conf"
        self.log_file = folder / "log/freeswitch.log"
        self._installation = installation
        self._sanitizer = sanitizer
        self._mounts = private_mounts()
        self.module = module if self._mounts else relocated
        self._process = None
        self._connection = None
        self._numbers = itertools.count(1)
        self.events = None
        for name in ("log", "db", "run", "storage", "recordings", "temp", "delmaren/quorvane"):
            (folder / name).mkdir(parents=True)
        # The relocated module reads this folder; with a private /etc it is not used.
        (folder / "work/etc").mkdir(parents=True)
        os.symlink(folder / "delmaren", folder / "work/etc/delmaren")
        write_host_files(folder / "conf", installation, self.ports, dialplan)

    @property
    def pid(self) -> int:
        return self._process.pid

    # ---- start and stop

    def start(self) -> None:
        with open(self.folder / "output.txt", "wb") as output:
            self._process = subprocess.Popen(self._command_line(), stdout=output, stderr=output,
                                             stdin=subprocess.DEVNULL, cwd=self.folder / "work")
        self._connect_and_listen()

    def reconnect(self) -> None:
        """Connects again to a host that restarts by itself."""
        for connection in (self._connection, self.events):
            connection.close()
        self._connect_and_listen()

    def _connect_and_listen(self) -> None:
        self._connection = self._connect()
        while "is ready" not in self.api("status"):
            time.sleep(0.1)
        self.events = EventRecorder(self.ports.event_socket, PASSWORD, CHANNEL_EVENTS)

    def write_stacks(self) -> str:
        """What each thread of a host that hangs is doing, if gdb is installed. Also returns it."""
        if not shutil.which("gdb"):
            return ""
        path = self.folder / "stacks.txt"
        with open(path, "wb") as stacks:
            subprocess.run(["gdb", "-batch", "-nx", "-p", str(self.pid),
                            "-ex", "thread apply all backtrace"],
                           stdin=subprocess.DEVNULL, stdout=stacks, stderr=stacks, check=False)
        return path.read_text(errors="replace")

    def answers(self) -> bool:
        """Whether the host still answers on its event socket."""
        try:
            self.new_connection().close()
            return True
        except OSError:
            return False

    def send_signal(self, number: int) -> None:
        self._process.send_signal(number)

    def stop(self, timeout: float = 40.0) -> int:
        """Stops the host in an orderly way. Returns its exit status; a negative status is the
        signal that ended it."""
        if self._process.poll() is None:
            try:
                self.api("fsctl shutdown")
            except (EventSocketError, OSError):
                self._process.send_signal(signal.SIGTERM)
        return self.wait_for_end(timeout)

    def wait_for_end(self, timeout: float) -> int:
        try:
            return self._process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.write_stacks()
            self._process.kill()
            self._process.wait()
            raise

    def close(self) -> None:
        """Ends all processes, whatever happened before."""
        if self._process is not None and self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        for connection in (self._connection, self.events):
            if connection is not None:
                connection.close()

    def is_running(self) -> bool:
        return self._process.poll() is None

    def _command_line(self) -> list:
        folders = [word for name in ("conf", "log", "db", "run", "storage", "recordings", "temp")
                   for word in (f"-{name}", str(self.folder / name))]
        host = [str(self._installation.program), "-nc", "-nf", "-nonat", "-np", *folders,
                "-mod", str(self._installation.modules)]
        if self._sanitizer is not None:
            host = [*self._sanitizer.command_prefix(self.folder), *host,
                    *self._sanitizer.host_options]
        if not self._mounts:
            return host
        helper = pathlib.Path(__file__).with_name("private_etc.py")
        return [*self._mounts, sys.executable, str(helper), str(self.folder / "namespace"),
                str(self.folder / "delmaren"), *host]

    def _connect(self) -> Connection:
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and self._process.poll() is None:
            try:
                return Connection(self.ports.event_socket, PASSWORD, timeout=30)
            except (OSError, EventSocketError):
                time.sleep(0.1)
        raise RuntimeError(f"the host did not start; see {self.folder}/output.txt and "
                           f"{self.log_file}")

    # ---- commands

    def new_connection(self) -> Connection:
        return Connection(self.ports.event_socket, PASSWORD, timeout=30)

    def api(self, text: str) -> str:
        return self._connection.api(text)

    def quorvane(self, words: str) -> str:
        return self.api(f"quorvane {words}")

    def write_module_configuration(self, **options) -> None:
        self.module_configuration.write_text(
            "".join(f"{name}={value}\n" for name, value in options.items()))

    def load_module(self) -> str:
        return self.api(f"load {self.module}").strip()

    def unload_module(self) -> str:
        return self.api("unload mod_quorvane").strip()

    # ---- calls

    def originate(self, arguments: str) -> str:
        """Starts a call that is answered at once; returns its UUID."""
        answer = self.api(f"originate {arguments}").strip()
        if not answer.startswith("+OK "):
            raise RuntimeError(f"originate {arguments}: {answer}")
        return answer[4:]

    def kill(self, uuid: str) -> str:
        return self.api(f"uuid_kill {uuid}")

    def hang_up_everything(self, timeout: float = 10.0) -> None:
        self.api("hupall")
        deadline = time.monotonic() + timeout
        while "0 total" not in self.api("show channels count"):
            if time.monotonic() > deadline:
                raise TimeoutError("channels are still there: " + self.api("show channels"))
            time.sleep(0.1)

    def variable(self, uuid: str, name: str) -> str:
        return self.api(f"uuid_getvar {uuid} {name}").strip()

    # ---- log

    def log_mark(self) -> int:
        """The position of the end of the log. All lines logged before this call are before it."""
        self.flush_log()
        return self._log_size()

    def _log_size(self) -> int:
        return self.log_file.stat().st_size if self.log_file.exists() else 0

    def log_since(self, mark: int) -> list:
        with open(self.log_file, "rb") as log:
            log.seek(mark)
            return log.read().decode(errors="replace").splitlines()

    def flush_log(self) -> None:
        """Waits until the host's log thread has written all lines logged so far."""
        mark, text = self._log_size(), f"flushed {next(self._numbers)}"
        self.api(f"log notice {text}.")
        self.wait_for_line(mark, f"{text}.")

    def module_lines(self, mark: int) -> list:
        """The module's own lines since a mark: level and text, without times and places."""
        self.flush_log()
        lines = []
        for line in self.log_since(mark):
            head, found, text = line.partition("[quorvane]: ")
            if found and "[" in head:
                lines.append(f"{head[head.rindex('[') + 1:head.rindex(']')]} {text}")
        return lines

    def wait_for_line(self, mark: int, text: str, timeout: float = 8.0) -> str:
        deadline = time.monotonic() + timeout
        while True:
            found = next((line for line in self.log_since(mark) if text in line), None)
            if found is not None:
                return found
            if time.monotonic() > deadline:
                raise TimeoutError(f"the host's log has no line with: {text}")
            time.sleep(0.05)
