"""Runs quorvane-node with several threads, as a process, and sends it many calls."""
import collections
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

from end_to_end_test import (NODE, OTHER_ARGUMENTS, STOPPED_DISK, can_see_priorities, golden,
                             normal_threads, samples, watched_by_a_sanitizer)

THREADS = 2
PACKETS = 20  # Of each side of a call.
SAMPLES = 160
PATIENCE = 60
START, READ, WRITE, TERMINATE = map(
    golden, ["call_1_start", "call_2_read", "call_3_write", "call_7_terminate"])
SEND_TIME = 32


def uuid_of(call):
    return "00000000-0000-4000-8000-%012x" % call


def of_call(call, datagram, time_us):
    """The datagram with the key and UUID of that call, sent at that time. Small numbers as keys, as
    in tests of users, must spread as well as checksums do."""
    made = bytearray(datagram)
    struct.pack_into("<Q", made, 8, call)
    made[16:32] = bytes.fromhex(uuid_of(call).replace("-", ""))
    struct.pack_into("<q", made, SEND_TIME, time_us)
    return bytes(made)


def audio(call, side, number):
    return [(call * 31 + side * 7 + number) % 20000 + 1] * SAMPLES


def data(call, side, number):
    head = of_call(call, (READ, WRITE)[side], number * 20_000)[:40]
    return head + struct.pack("<IIH", number, (number - 1) * SAMPLES, SAMPLES) + struct.pack(
        "<160h", *audio(call, side, number))


def bound(port=0, shared=False):
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    if shared:
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    made.bind(("127.0.0.1", port))
    return made


class ThreadsTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.sender = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.node = None
        self.addCleanup(self.kill)

    def kill(self):
        if self.node is not None and self.node.poll() is None:
            self.node.kill()
            self.node.wait()

    def start(self, *options, environment=None, before=()):
        self.log = self.folder / "log"
        command = [*before, NODE, "--listen", "127.0.0.1:0", "--threads", str(THREADS), "--output",
                   str(self.folder / "out"), "--events", str(self.folder / "events"), *options]
        with open(self.log, "w") as log:
            self.node = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT,
                                         env={**os.environ, **(environment or {})})
        self.wait_for(lambda: "listening" in self.text())
        self.port = int(re.search(r"127\.0\.0\.1:(\d+)", self.text())[1])

    def text(self):
        return self.log.read_text()

    def events(self):
        path = self.folder / "events"
        lines = path.read_text().splitlines() if path.exists() else []
        return [json.loads(line) for line in lines]

    def wait_for(self, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, self.text())
            if self.node.poll() is not None:
                self.assertTrue(condition(), self.text())
            time.sleep(0.02)

    def send(self, datagram):
        self.sender.sendto(datagram, ("127.0.0.1", self.port))

    def begin(self, calls):
        for call in calls:
            self.send(of_call(call, START, 0))

    def talk(self, calls, first=1, last=PACKETS):
        """The packets of all calls in turn, so that those of a call lie far apart."""
        for number in range(first, last + 1):
            for call in calls:
                self.send(data(call, 0, number))
                self.send(data(call, 1, number))
            time.sleep(0.005)

    def end(self, calls):
        for call in calls:
            self.send(of_call(call, TERMINATE, (PACKETS + 1) * 20_000))

    def finish(self, code=0):
        self.assertEqual(self.node.wait(PATIENCE), code, self.text())

    def receiving_threads(self):
        """How many threads of the node receive, by their names."""
        tasks = pathlib.Path("/proc/%d/task" % self.node.pid).glob("*/comm")
        return sum(task.read_text().startswith("receiver-") for task in tasks)

    def test_calls_are_those_of_one_program(self):
        calls = range(1, 201)
        self.start("--calls", "200", "--metrics", "0")
        self.wait_for(lambda: self.receiving_threads() == THREADS)
        self.begin(calls)
        self.talk(calls)
        self.wait_for(lambda: "quorvane_node_calls 200" in self.metrics())
        self.wait_for(lambda: "quorvane_node_packets_total{type=\"data\"} %d" %
                      (200 * 2 * PACKETS) in self.metrics())
        self.end(calls)
        self.finish()
        self.assert_files_are_whole(calls)
        kinds = collections.defaultdict(list)
        for event in self.events():
            kinds[event.get("call_uuid")].append(event["event"])
        for call in calls:
            of_this = [kind for kind in kinds[uuid_of(call)] if kind in ("start", "terminate", "end")]
            self.assertEqual(of_this, ["start", "terminate", "end"])
        self.assertRegex(self.text(), r"summary +200 calls, 8,400 packets")
        self.assertNotIn("gap", self.text().split("summary")[0])

    def assert_files_are_whole(self, calls):
        for call in calls:
            for side, name in enumerate(["originator", "terminator"]):
                expected = sum((audio(call, side, n) for n in range(1, PACKETS + 1)), [])
                self.assertEqual(
                    samples(self.folder / "out" / ("%s-%s.wav" % (uuid_of(call), name))), expected)

    def metrics(self):
        address = re.search(r"http://\S+/metrics", self.text())
        with urllib.request.urlopen(address[0], timeout=PATIENCE) as answer:
            return answer.read().decode()

    def test_limit_of_calls_is_that_of_the_program(self):
        self.start("--max-calls", "30")
        self.begin(range(1, 101))
        self.wait_for(lambda: len([1 for e in self.events() if e["event"] == "start"]) == 30)
        self.wait_for(lambda: "too many calls" in self.text())
        self.node.send_signal(signal.SIGTERM)
        self.finish()
        self.assertEqual(len([1 for e in self.events() if e["event"] == "start"]), 30)
        self.assertRegex(self.text(), r"not used: 70 +too many calls at once")

    def test_all_threads_refuse_senders_that_are_not_allowed(self):
        calls = range(1, 41)
        self.start("--allow", "127.0.0.2", "--calls", "40", "--metrics", "0")
        self.begin(calls)
        self.wait_for(lambda: "quorvane_node_not_allowed_packets_total 40" in self.metrics())
        self.assertIn("quorvane_node_calls 0", self.metrics())
        self.sender = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.sender.bind(("127.0.0.2", 0))
        self.begin(calls)
        self.talk(calls)
        self.end(calls)
        self.finish()
        self.assert_files_are_whole(calls)
        refused = [event for event in self.events() if event["event"] == "not_allowed"]
        self.assertEqual(sum(event["packets"] for event in refused), 40)

    @unittest.skipIf(watched_by_a_sanitizer(), "the sanitizer must be loaded first")
    def test_no_thread_waits_for_a_disk_that_stands_still(self):
        calls = range(1, 41)
        moving = self.folder / "moving"
        self.start("--calls", "40", "--metrics", "0", "--block", "1", environment={
            "LD_PRELOAD": STOPPED_DISK, "QUORVANE_STOP_UNTIL": str(moving)})
        self.begin(calls)
        self.talk(calls)
        self.end(calls)
        self.wait_for(lambda: "quorvane_node_packets_total{type=\"data\"} %d" %
                      (40 * 2 * PACKETS) in self.metrics())
        self.assertEqual(list((self.folder / "out").glob("*.wav")), [])
        moving.touch()
        self.finish()
        self.assert_files_are_whole(calls)

    def check_that_only_receivers_have_its_priority(self, *before):
        self.start("--http", "0", "--sync", "1", "--keep", "1d", before=before)
        self.wait_for(lambda: normal_threads(self.node.pid) ==
                      ["quorvane-node", "receiver-0", "receiver-1"])

    @can_see_priorities
    def test_whatever_can_wait_has_a_lower_priority_than_receiving(self):
        self.check_that_only_receivers_have_its_priority()

    @can_see_priorities
    def test_priorities_are_relative_to_that_of_the_program(self):
        self.check_that_only_receivers_have_its_priority("nice", "-n", "3")

    @can_see_priorities
    def test_only_receiving_has_the_real_time_priority_of_the_program(self):
        real_time = ["chrt", "--rr", "1"]
        if shutil.which("chrt") is None or subprocess.run(
                [*real_time, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("real-time priority cannot be had")
        self.check_that_only_receivers_have_its_priority(*real_time)

    def test_signals_concern_all_threads(self):
        calls = range(1, 41)
        self.start()
        self.begin(calls)
        self.talk(calls, 1, 5)
        (self.folder / "events").rename(self.folder / "rotated")
        self.node.send_signal(signal.SIGHUP)
        self.wait_for(lambda: "opened again" in self.text())
        self.talk(calls, 6, 10)
        self.node.send_signal(signal.SIGTERM)
        self.finish()
        ends = [event for event in self.events() if event["event"] == "end"]
        self.assertEqual(len(ends), 40)
        self.assertEqual({event["reason"] for event in ends}, {"shutdown"})
        self.assertEqual({side["packets"] for event in ends for side in event["sides"].values()},
                         {10})

    def test_one_uuid_with_two_keys_is_one_call(self):
        """Whatever threads the keys lead to."""
        self.start()
        other_keys = [bytearray(of_call(1, READ, 20_000)) for _ in range(16)]
        self.begin([1])
        self.wait_for(lambda: any(event["event"] == "start" for event in self.events()))
        for key, datagram in enumerate(other_keys, 2):
            struct.pack_into("<Q", datagram, 8, key)
            self.send(bytes(datagram))
        self.end([1])
        self.wait_for(lambda: any(event["event"] == "end" for event in self.events()))
        self.node.send_signal(signal.SIGTERM)
        self.finish()
        self.assertEqual(len([1 for e in self.events() if e["event"] == "end"]), 1)
        self.assertRegex(self.text(), r"not used: 16 +call key differs from the call's")

    def test_port_in_use_is_refused(self):
        for shared in False, True:
            with bound(shared=shared) as other:
                ended = subprocess.run(
                    [NODE, "--listen", "127.0.0.1:%d" % other.getsockname()[1], "--threads", "2",
                     "--output", str(self.folder / "out")], capture_output=True, text=True,
                    timeout=PATIENCE)
                self.assertEqual(ended.returncode, 3)
                self.assertIn("Address already in use", ended.stderr)

    def test_program_that_joins_the_port_gets_nothing(self):
        self.start("--calls", "50")
        with bound(self.port, shared=True) as joined:
            calls = range(1, 51)
            self.begin(calls)
            self.talk(calls)
            self.end(calls)
            self.finish()
            joined.setblocking(False)
            self.assertRaises(BlockingIOError, joined.recv, 2000)

    def test_capture_has_one_thread(self):
        ended = subprocess.run([NODE, "--read", "any", "--threads", "2"], capture_output=True,
                               text=True, timeout=PATIENCE)
        self.assertEqual(ended.returncode, 2)
        self.assertIn("--threads: one thread reads a capture", ended.stderr)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *OTHER_ARGUMENTS])
