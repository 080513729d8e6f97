"""Runs quorvane-node --live on a pseudo terminal: what its keys do, and how it leaves the terminal."""
import fcntl
import os
import pathlib
import re
import select
import signal
import socket
import struct
import sys
import tempfile
import termios
import time
import unittest

from end_to_end_test import NODE, STOPPED_DISK, golden, of_call, watched_by_a_sanitizer

ENTER, LEAVE = b"\x1b[?1049h", b"\x1b[?1049l"
PAGE_DOWN = b"\x1b[6~"


def of_many(call, datagram):
    """The datagram, as of the call of that number."""
    datagram = bytearray(of_call(0, datagram))
    datagram[28:32] = struct.pack(">I", call)
    return bytes(datagram)


class Screen:
    """A media node on a pseudo terminal of 80 columns and 24 rows."""

    def __init__(self, *options, **environment):
        self.home = tempfile.TemporaryDirectory(prefix="quorvane-live-")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as free:
            free.bind(("127.0.0.1", 0))
            self.address = free.getsockname()
        self.ours, self.theirs = os.openpty()
        fcntl.ioctl(self.theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.before = termios.tcgetattr(self.theirs)
        self.process = os.fork()
        if self.process == 0:
            self.take_terminal()
            os.environ.update({"TERM": "xterm", **environment})
            os.execv(NODE, [NODE, "--live", "--listen", "%s:%d" % self.address,
                            "--output", str(pathlib.Path(self.home.name) / "wav"), *options])
        self.seen = b""
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.wait_for("quorvane-node on ")

    def take_terminal(self):
        os.setsid()
        fcntl.ioctl(self.theirs, termios.TIOCSCTTY, 0)
        for descriptor in range(3):
            os.dup2(self.theirs, descriptor)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process:
            os.kill(self.process, signal.SIGKILL)
            os.waitpid(self.process, 0)
        self.socket.close()
        os.close(self.ours)
        os.close(self.theirs)
        self.home.cleanup()

    def read(self):
        while select.select([self.ours], [], [], 0)[0]:
            self.seen += os.read(self.ours, 65536)

    def frame(self):
        """The lines of the latest frame that is complete."""
        self.read()
        frames = self.seen.split(b"\x1b[H")
        whole = [frame for frame in frames[1:] if frame.endswith(b"\x1b[J")]
        text = whole[-1].decode("utf-8", "replace") if whole else ""
        return [re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", line) for line in text.split("\r\n")]

    def wait_for(self, pattern, seconds=30):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            text = "\n".join(self.frame())
            found = re.search(pattern, text)
            if found:
                return found
            time.sleep(0.02)
        raise AssertionError(f"{pattern!r} is not in:\n{text}\n{self.seen[-2000:]!r}")

    def press(self, keys):
        os.write(self.ours, keys)

    def send_starts(self, calls):
        for call in calls:
            self.socket.sendto(of_many(call, golden("call_1_start")), self.address)
            if call % 50 == 0:
                time.sleep(0.01)

    def wait_for_exit(self):
        end = time.monotonic() + 30
        while time.monotonic() < end:
            self.read()
            pid, status = os.waitpid(self.process, os.WNOHANG)
            if pid:
                self.process = None
                self.read()
                return status
            time.sleep(0.02)
        raise AssertionError("the program does not end")


class Live(unittest.TestCase):
    def check_restored(self, screen):
        self.assertEqual(screen.seen.count(ENTER), 1)
        self.assertGreaterEqual(screen.seen.count(LEAVE), 1)
        self.assertGreater(screen.seen.rindex(LEAVE), screen.seen.rindex(b"\x1b[H"))
        self.assertIn(b"\x1b[?25h", screen.seen)  # The cursor.
        self.assertEqual(termios.tcgetattr(screen.theirs), screen.before)

    def test_59_calls_can_be_reached(self):
        with Screen() as screen:
            screen.send_starts(range(59))
            screen.wait_for("calls 1 to 17 of 59")
            self.assertEqual(len(screen.frame()), 24)
            screen.press(2 * PAGE_DOWN)  # The first one selects the last row.
            screen.wait_for("calls 18 to 34 of 59")
            screen.press(PAGE_DOWN)
            screen.wait_for("calls 35 to 51 of 59")
            screen.press(PAGE_DOWN)
            screen.wait_for("calls 43 to 59 of 59")

    def test_2000_calls_can_be_reached(self):
        with Screen() as screen:
            screen.send_starts(range(2000))
            screen.wait_for("of 2,000")
            screen.press(b"\x1b[F")
            screen.wait_for("calls 1,984 to 2,000 of 2,000")
            screen.press(b"\x1b[5~" * 60)
            screen.wait_for(r"calls 9\d\d to ")
            screen.press(b"\x1b[H")
            screen.wait_for("calls 1 to 17 of 2,000")
            screen.press(b"/000007c7\r")  # The call 1,991.
            screen.wait_for("calls 1 to 1 of 1 that match")
            screen.press(b"\r")
            screen.wait_for(r"call [0-9a-f-]{28}000007c7")

    def test_keys_work_for_the_calls_of_all_threads(self):
        with Screen("--threads", "2") as screen:
            for call in range(1, 41):
                datagram = bytearray(of_many(call, golden("call_1_start")))
                datagram[8:16] = struct.pack("<Q", call)  # The key chooses the thread.
                screen.socket.sendto(datagram, screen.address)
            screen.wait_for("calls 1 to 17 of 40")
            for call in (1, 2, 3, 4, 39, 40):
                screen.press(b"/%08x\r" % call)
                screen.wait_for("calls 1 to 1 of 1 that match")
                screen.press(b"\r")
                screen.wait_for(r"call [0-9a-f-]{28}%08x" % call)
                screen.press(b"\x1b")
                screen.wait_for("calls 1 to 1 of 1 that match")
                screen.press(b"\x1b")
                screen.wait_for(r"calls \d+ to \d+ of 40")
            screen.press(b"q")
            self.assertEqual(screen.wait_for_exit(), 0)
            self.check_restored(screen)

    def test_key_ends_the_program_and_the_terminal_is_as_before(self):
        with Screen() as screen:
            self.assertNotEqual(termios.tcgetattr(screen.theirs), screen.before)
            screen.press(b"q")
            self.assertEqual(screen.wait_for_exit(), 0)
            self.check_restored(screen)
            self.assertIn(b"asked to end", screen.seen)

    def test_stopped_output_does_not_stop_the_node(self):
        with Screen() as screen:
            screen.press(b"\x13")  # Ctrl-S
            time.sleep(0.5)
            screen.read()
            screen.seen = b""  # What follows was shown after the key.
            screen.wait_for("quorvane-node on ")

    def test_terminal_that_takes_nothing_does_not_stop_the_node(self):
        with Screen() as screen:
            fcntl.ioctl(screen.theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 3000, 200, 0, 0))
            screen.send_starts(range(2500))
            time.sleep(1)  # Nobody reads; a frame has hundreds of kilobytes.
            for name in ("call_1_start", "call_2_read", "call_3_write", "call_7_terminate"):
                screen.socket.sendto(golden(name), screen.address)
            files = pathlib.Path(screen.home.name) / "wav"
            end = time.monotonic() + 30
            while len(list(files.glob("*.wav"))) < 2:
                self.assertLess(time.monotonic(), end, "the node stands still")
                time.sleep(0.02)
            os.kill(screen.process, signal.SIGTERM)
            self.assertEqual(screen.wait_for_exit(), 0)

    @unittest.skipIf(watched_by_a_sanitizer(), "the sanitizer must be loaded first")
    def test_view_shows_what_the_end_waits_for_and_a_key_ends_the_wait(self):
        with Screen(LD_PRELOAD=STOPPED_DISK, QUORVANE_STOP_FOR="1000") as screen:
            for name in ("call_1_start", "call_2_read", "call_7_terminate"):
                screen.socket.sendto(golden(name), screen.address)
            screen.wait_for("0 calls now, 0 ended, ")
            screen.press(b"q")
            screen.wait_for(r"ending: waits for the disk: [\d,]+ bytes for 1 file; q or Ctrl-C: now")
            screen.press(b"q")
            self.assertEqual(os.waitstatus_to_exitcode(screen.wait_for_exit()), 1)
            self.check_restored(screen)
            self.assertIn(b"files given up", screen.seen)

    def test_signals_leave_the_terminal_as_before(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGSEGV,
                       signal.SIGABRT):
            with self.subTest(number), Screen() as screen:
                os.kill(screen.process, number)
                status = screen.wait_for_exit()
                if number in (signal.SIGTERM, signal.SIGINT):
                    self.assertEqual(status, 0)
                else:
                    self.assertEqual(os.WTERMSIG(status), number)
                self.check_restored(screen)

    def test_colours_are_shown_unless_they_are_unwanted(self):
        for environment, coloured in (({}, True), ({"NO_COLOR": "1"}, False),
                                      ({"NO_COLOR": ""}, True), ({"TERM": "dumb"}, False)):
            with self.subTest(environment), Screen(**environment) as screen:
                screen.socket.sendto(of_many(1, golden("call_2_read")), screen.address)
                screen.wait_for("no start")
                self.assertEqual(b"\x1b[33m" in screen.seen, coloured)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=1)
