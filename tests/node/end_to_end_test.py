"""Runs quorvane-node as a process and sends it hand-written datagrams."""
import argparse
import array
import concurrent.futures
import fcntl
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest
import urllib.request
import wave
import xml.etree.ElementTree

# Other tests import this file and take the same arguments.
PARSER = argparse.ArgumentParser(description=sys.modules["__main__"].__doc__)
PARSER.add_argument("node", metavar="QUORVANE_NODE")
PARSER.add_argument("golden", metavar="GOLDEN_FOLDER", type=pathlib.Path)
PARSER.add_argument("stopped_disk", metavar="STOPPED_DISK",
                    help="the library of bench/stopped_disk.cpp")
ARGUMENTS, OTHER_ARGUMENTS = PARSER.parse_known_args()
NODE, GOLDEN, STOPPED_DISK = ARGUMENTS.node, ARGUMENTS.golden, ARGUMENTS.stopped_disk
UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"
CALL = ["call_1_start", "call_2_read", "call_3_write", "call_4_read", "call_5_write",
        "call_6_control", "call_7_terminate"]


def golden(name):
    text = (GOLDEN / (name + ".hex")).read_text()
    return bytes.fromhex("".join(line.split("#")[0] for line in text.splitlines()))


def samples(path):
    with wave.open(str(path)) as file:
        return array.array("h", file.readframes(file.getnframes())).tolist()


UUID_END = 0x37  # The last byte of UUID.
DOCUMENT = (pathlib.Path(__file__).resolve().parents[2] / "docs" / "node.md").read_text()
PACKET_FIELDS = {"magic", "packet_type", "protocol_version", "leg_word", "send_time"}
LISTED_SIDE = set(re.findall(r"`(\w+)`", re.search(r"under `sides`[^:|]*:([^|]*)", DOCUMENT)[1]))


def listed_event_fields():
    """The fields of each event by the table of the document."""
    listed = {}
    table = DOCUMENT.split("## Events")[1].split("|---|---|")[1].split("\n## ")[0]
    for kind, text in re.findall(r"^\| `(\w+)`[^|]*\| (.*) \|$", table, re.M):
        # Text in brackets explains the field before it, and may have brackets itself.
        plain = re.sub(r"\((?:[^()]|\([^()]*\))*\)", "", text.split(", and under")[0])
        fields = set(re.findall(r"`(\w+)`", plain)) | {"event", "time"}
        fields |= PACKET_FIELDS if "the common fields" in text else set()
        fields |= {"sides"} if kind == "end" else set()
        if kind not in ("listening", "not_allowed", "malformed", "overflow", "events_lost",
                        "leftover", "audio_dropped", "removed", "nats_lost", "listen"):
            fields |= {"call_key", "call_uuid", "source"}
        listed[kind] = listed["data"] if text.startswith("the same,") else fields
    return listed


def uuid_of(call):
    return UUID[:-2] + "%02x" % call


def of_call(call, datagram):
    """The datagram with the UUID of that call."""
    return datagram[:31] + bytes([call]) + datagram[32:]


def data(call, number):
    """A packet of 160 samples, which count the call and the packet."""
    head = of_call(call, golden("call_2_read"))[:40]
    fixed = struct.pack("<IIH", number, (number - 1) * 160, 160)
    return head + fixed + struct.pack("<160h", *audio(call, number))


def audio(call, number):
    return [100 * call + number % 100] * 160


# Mounts a small private file system over the new folder $0; no other process sees it.
WITH_TMPFS = 'mkdir "$0" && mount -t tmpfs -o size=%s tmpfs "$0" && exec "$@"'


def may_mount():
    try:
        return subprocess.run(["unshare", "--mount", "mount", "-t", "tmpfs", "tmpfs", "/mnt"],
                              capture_output=True).returncode == 0
    except FileNotFoundError:
        return False


def watched_by_a_sanitizer():
    program = pathlib.Path(NODE).read_bytes()
    return b"__ubsan_handle" in program or b"__tsan_init" in program


class Flood:
    """Sends prebuilt datagrams as fast as the receiver takes them in: instead of sleeping it
    looks how full the receiver's socket is, so that the system need not drop any."""

    def __init__(self, node):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(node.address)
        self.port = b":%04X" % node.address[1]
        granted = re.search(r"receive buffer ([\d,]+) ", node.text()).group(1)
        self.room = int(granted.replace(",", "")) * 1024
        self.burst = max(16, self.room // 65536)
        self.sent = 0

    def waiting(self):
        """The bytes that wait in the receiver's socket, which holds twice its room."""
        with open("/proc/net/udp", "rb") as table:
            fields = next(filter(lambda words: words[1].endswith(self.port),
                                 map(bytes.split, table)))
        return int(fields[4].split(b":")[1], 16)

    def send(self, datagrams):
        send = self.socket.send
        for first in range(0, len(datagrams), self.burst):
            while self.waiting() > self.room // 2:
                time.sleep(0.0005)
            for datagram in datagrams[first:first + self.burst]:
                send(datagram)
        self.sent += len(datagrams)

    def send_at_once(self, datagrams):
        """Whether the socket has room or not."""
        for datagram in datagrams:
            self.socket.send(datagram)
        self.sent += len(datagrams)


class Bystander(threading.Thread):
    """An orderly call of 100 packets per second, until it is asked to end."""

    def __init__(self, node):
        super().__init__()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.address = node.address
        self.over = threading.Event()
        self.packets = 0
        self.sent = 0
        self.send(of_call(1, golden("call_1_start")))
        self.start()

    def send(self, datagram):
        self.socket.sendto(datagram, self.address)
        self.sent += 1

    def run(self):
        while not self.over.wait(0.01):
            self.packets += 1
            self.send(data(1, self.packets))
        self.send(of_call(1, golden("call_7_terminate")))

    def end(self):
        self.over.set()
        self.join()
        self.socket.close()

    def audio(self):
        return sum((audio(1, number) for number in range(1, self.packets + 1)), [])


def random_and_mutated_datagrams(count):
    """None of them is of a call of of_call()."""
    choice = random.Random(4711)
    packets = [golden(name) for name in CALL]
    made = []
    for number in range(count):
        datagram = bytearray(choice.choice(packets))
        datagram[16] = 0xaa
        for _ in range(choice.randrange(4)):
            datagram[choice.randrange(4, len(datagram))] = choice.randrange(256)
        if number % 8 == 0:
            datagram = bytearray(choice.randbytes(choice.randrange(1400)))
        elif number % 8 == 1:  # What is random stands behind a good beginning.
            datagram[16:] = choice.randbytes(choice.randrange(1400))
        if datagram[16:17] == bytes.fromhex(UUID[:2]):
            datagram[16] = 0xaa
        made.append(bytes(datagram))
    return made


def of_distinct_calls(datagrams, first, count):
    """The datagrams for so many calls, each with a call key and UUID of its own."""
    made = []
    for number in range(first, first + count):
        for datagram in map(bytearray, datagrams):
            struct.pack_into("<QQQ", datagram, 8, number, number << 8 | 0xbb, number)
            made.append(datagram)
    return made


def mixed(many, few):
    """The few spread evenly over the many."""
    step = len(many) // len(few)
    return [datagram for number, one in enumerate(few)
            for datagram in (*many[number * step:(number + 1) * step], one)] + \
        many[len(few) * step:]


class Counters:
    """The receiver's metrics."""

    def __init__(self, url):
        text = urllib.request.urlopen(url, timeout=5).read().decode()
        self.lines = re.findall(r'^quorvane_node_(\w+)(?:{\w+="(.*)"})? (\S+)$', text, re.M)

    def __getitem__(self, name):
        return sum(int(float(value)) for key, _, value in self.lines if key == name)

    def by_label(self, name):
        return {label: int(float(value)) for key, label, value in self.lines if key == name}

    def came(self):
        return self["received_packets_total"] + self["socket_dropped_packets_total"]


def counters_after(url, sent, seconds=30):
    """The metrics as soon as they count `sent` datagrams, or after `seconds`."""
    end = time.monotonic() + seconds
    while Counters(url).came() < sent and time.monotonic() < end:
        time.sleep(0.1)
    return Counters(url)


def wait_for_files(url, sent, seconds=30):
    """Waits until `sent` datagrams have come and nothing of them waits for the disk."""
    end = time.monotonic() + seconds
    counters_after(url, sent, seconds)
    while Counters(url)["waiting_audio_bytes"] > 0 and time.monotonic() < end:
        time.sleep(0.1)


def wait_for_lines(path, count, seconds=30):
    """Waits until the file has so many lines. The node may write events later than it prints."""
    end = time.monotonic() + seconds
    while path.read_text().count("\n") < count and time.monotonic() < end:
        time.sleep(0.02)


def counted_in_summary(text, what):
    return {reason: int(count.replace(",", ""))
            for count, reason in re.findall(what + r": ([\d,]+) +(\S.*)", text)}


# The check of an object's type opens a pipe, which must not fail.
needs_no_descriptor_of_its_own = unittest.skipIf(
    watched_by_a_sanitizer(), "the undefined behaviour sanitizer needs descriptors itself")


can_see_priorities = unittest.skipIf(
    watched_by_a_sanitizer() or os.getpriority(os.PRIO_PROCESS, 0) > 14,
    "the sanitizer has threads of its own, or there is no lower priority")


def normal_threads(process):
    """The names of its threads that have the priority of its first one."""
    def priority(task):
        fields = task.joinpath("stat").read_text().rsplit(")", 1)[1].split()
        return fields[16], fields[38]  # The nice value and the policy.
    tasks = pathlib.Path(f"/proc/{process}/task")
    first = priority(tasks / str(process))
    return sorted((task / "comm").read_text().strip() for task in tasks.iterdir()
                  if priority(task) == first)


class Node:
    """A running receiver, its folder and its output. With `disk` the folder is a file system
    of that size."""

    def __init__(self, *options, limit=None, disk=None, before=None, folder=None,
                 environment=None):
        self.home = tempfile.TemporaryDirectory(prefix="quorvane-node-")
        self.folder = folder or pathlib.Path(self.home.name) / "wav"
        self.output = pathlib.Path(self.home.name) / "output"
        before = (lambda: resource.setrlimit(*limit)) if limit else before
        wrapper = ["unshare", "--mount", "sh", "-c", WITH_TMPFS % disk, str(self.folder)]
        with open(self.output, "w") as out:
            self.process = subprocess.Popen(
                [*(wrapper if disk else []), NODE, "--listen", "127.0.0.1:0", "--output",
                 str(self.folder), *options],
                stdout=out, stderr=subprocess.STDOUT, preexec_fn=before,
                env={**os.environ, **(environment or {})})
        self.address = ("127.0.0.1", int(self.wait_for(r"127\.0\.0\.1:(\d+)").group(1)))
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.home.cleanup()

    def text(self):
        return self.output.read_text()

    def events(self, kind=None):
        lines = [line for line in self.text().splitlines() if line.startswith("{")]
        return [event for event in map(json.loads, lines) if kind in (None, event["event"])]

    def wait_for(self, pattern, seconds=60):
        """Waits for what the node writes: for an event, or for a line of that kind. The texts of
        lines may change; patterns use their kinds, numbers and names."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            found = re.search(pattern, self.text())
            if found:
                return found
            time.sleep(0.02)
        raise AssertionError(f"{pattern!r} is not in:\n{self.text()}")

    def send(self, *datagrams):
        for datagram in datagrams:
            self.socket.sendto(datagram, self.address)

    def send_call(self):
        self.send(*map(golden, CALL))

    def talk(self, calls, packets):
        """The calls, side by side, without their ends."""
        self.send(*(of_call(call, golden("call_1_start")) for call in calls))
        for number in range(1, packets + 1):
            self.send(*(data(call, number) for call in calls))
            if number % 20 == 0:
                time.sleep(0.02)

    def end(self, calls):
        for call in calls:
            self.send(of_call(call, golden("call_7_terminate")))
        for call in calls:
            self.wait_for(uuid_of(call) + "  end ")

    def originator_path(self, call):
        return self.folder / (uuid_of(call) + "-originator.wav")

    def inside(self, call):
        """The originator's file of that call, as the receiver sees it."""
        return pathlib.Path(f"/proc/{self.process.pid}/root{self.folder}",
                            uuid_of(call) + "-originator.wav")

    def exit_code(self, seconds=20):
        return self.process.wait(seconds)

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.exit_code()


def killed_run(moment):
    """Kills a receiver that takes in calls as fast as it can, at that moment of them (0 to 1).
    Opens its files and returns how many samples they have."""
    heard = 0
    with Node("--block", "1", "--rate", "8000", "--stereo", "--quiet") as node:
        packets = [of_call(call, golden("call_1_start")) for call in (1, 2, 3)]
        packets += [data(call, number) for number in range(1, 60) for call in (1, 2, 3)]
        packets += [of_call(call, golden("call_7_terminate")) for call in (1, 2, 3)]
        kill_at = int(moment * len(packets))
        node.send(*packets[:kill_at])
        node.process.kill()
        node.process.wait()
        for path in node.folder.glob("*.wav"):
            with wave.open(str(path)) as file:
                frames, channels = file.getnframes(), file.getnchannels()
                there = array.array("h", file.readframes(frames))
            assert len(there) == frames * channels, f"{path}: {frames} counted, {len(there)} there"
            call = int(path.name[34:36], 16)
            expected = sum((audio(call, number) for number in range(1, 60)), [])
            assert list(there[::channels]) == expected[:frames], path
            uncounted = path.stat().st_size - 44 - 2 * len(there)
            # While one side is silent, four blocks of each side are written to the stereo file at
            # once.
            block = 1024 + 320 if channels == 1 else 4 * (8 * 512 + 160) // 2
            assert 0 <= uncounted <= block, f"{path}: {uncounted} bytes not counted"
            heard += frames
    return heard


def ipv4(payload, number=1, offset=0, more=False):
    place = offset // 8 | (0x2000 if more else 0)
    return struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), number, place, 64, 17, 0,
                       bytes([192, 0, 2, 1]), bytes([192, 0, 2, 2])) + payload


def udp(datagram, port=40000):
    return struct.pack(">HHHH", 5000, port, 8 + len(datagram), 0) + datagram


ETHERNET = bytes(12) + b"\x08\x00"
QINQ = bytes(12) + b"\x88\xa8\x00\x05\x81\x00\x00\x06\x08\x00"
COOKED_1 = b"\0\0\0\1\0\6" + bytes(8) + b"\x08\x00"
COOKED_2 = b"\x08\x00" + bytes(18)


def pcap(link, frames, first=1_700_000_000, step=0.02):
    file = struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, link)
    for number, frame in enumerate(frames):
        micros = round((first + number * step) * 1e6)
        file += struct.pack("<IIII", *divmod(micros, 1_000_000), len(frame), len(frame)) + frame
    return file


def pcapng(link, frames, first=1_700_000_000):
    def block(kind, body):
        body += bytes(-len(body) % 4)
        return struct.pack("<II", kind, 12 + len(body)) + body + struct.pack("<I", 12 + len(body))

    file = block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
    file += block(1, struct.pack("<HHI", link, 0, 65535))
    for frame in frames:
        micros = first * 1_000_000
        file += block(6, struct.pack("<IIIII", 0, micros >> 32, micros & 0xFFFFFFFF, len(frame),
                                     len(frame)) + frame)
    return file


class ReadsCaptures(unittest.TestCase):
    def read(self, capture, *options, code=0):
        home = tempfile.TemporaryDirectory(prefix="quorvane-node-")
        self.addCleanup(home.cleanup)
        done = subprocess.run([NODE, "--read", "-", "--output", home.name, "--events", "-",
                               *options], input=capture, capture_output=True, timeout=20)
        self.assertEqual(done.returncode, code, done.stderr.decode())
        self.said = done.stderr.decode()
        return pathlib.Path(home.name), [json.loads(x) for x in done.stdout.splitlines()]

    def check_golden_call(self, folder):
        wave_one = [0, 100, 200, 100, 0, -100, -200, -100]
        self.assertEqual(samples(folder / f"{UUID}-originator.wav"), 2 * wave_one)
        self.assertEqual(samples(folder / f"{UUID}-terminator.wav"), 8 * [0] + 4 * [1000, -1000])

    def test_each_link_layer_gives_the_files_of_the_live_call(self):
        packets = [ipv4(udp(golden(name))) for name in CALL]
        for link, head in ((1, ETHERNET), (1, QINQ), (113, COOKED_1), (276, COOKED_2), (101, b""),
                           (0, struct.pack("<I", 2)), (108, struct.pack(">I", 2))):
            with self.subTest(link=link, head=head):
                folder, events = self.read(pcap(link, [head + packet for packet in packets]))
                self.check_golden_call(folder)
                self.assertEqual([event["event"] for event in events],
                                 ["start", "running", "running", "control", "running", "running",
                                  "terminate", "end"])
                self.assertEqual(events[-1]["reason"], "terminated")

    def test_pcapng_is_read(self):
        folder, _ = self.read(pcapng(1, [ETHERNET + ipv4(udp(golden(name))) for name in CALL]))
        self.check_golden_call(folder)

    def test_times_are_those_of_the_capture(self):
        _, events = self.read(pcap(1, [ETHERNET + ipv4(udp(golden(name))) for name in CALL]))
        self.assertEqual(events[0]["time"], "2023-11-14T22:13:20.000000Z")
        terminate, = (event for event in events if event["event"] == "terminate")
        self.assertEqual(terminate["time"], "2023-11-14T22:13:20.120000Z")

    def test_fragments_are_put_together_in_any_order(self):
        frames = []
        for number, name in enumerate(CALL):
            whole = udp(golden(name))
            cuts = [(0, whole[:24], True), (24, whole[24:48], True), (48, whole[48:], False)]
            cuts = [cut for cut in cuts if cut[1]]
            for offset, piece, more in reversed(cuts):
                frames.append(ETHERNET + ipv4(piece, number, offset,
                                              more and offset + 24 < len(whole)))
        folder, _ = self.read(pcap(1, frames, step=0.001))
        self.check_golden_call(folder)

    def test_missing_fragments_and_cut_frames_are_reported(self):
        frames = [ETHERNET + ipv4(udp(golden(name))) for name in CALL]
        frames.append(ETHERNET + ipv4(udp(golden(CALL[1]))[:24], 77, 0, True))
        frames.append((ETHERNET + ipv4(udp(golden(CALL[1]))))[:60])
        folder, _ = self.read(pcap(1, frames))
        self.check_golden_call(folder)
        read, = re.findall("  capture read +(.*)", self.said)
        self.assertEqual(re.findall(r"\d+", read), ["9", "7", "1", "1"])

    def test_call_that_times_out_in_the_capture_ends_there(self):
        frames = [ETHERNET + ipv4(udp(golden(name))) for name in CALL[:2]]
        _, events = self.read(pcap(1, frames + frames[:1], step=500))
        self.assertEqual([event["reason"] for event in events if event["event"] == "end"],
                         ["timed_out", "timed_out", "shutdown"])

    def test_other_traffic_is_left_out(self):
        frames = [ETHERNET + ipv4(udp(b"something else")), b"", bytes(60), ETHERNET + b"\x45"]
        frames += [ETHERNET + ipv4(udp(golden(name), 5000)) for name in CALL]
        folder, _ = self.read(pcap(1, frames))
        self.check_golden_call(folder)
        folder, events = self.read(pcap(1, frames), "--listen", "0.0.0.0:40000")
        self.assertEqual([event["event"] for event in events], ["malformed"])
        self.assertEqual(list(folder.iterdir()), [])

    def test_damaged_capture_is_used_up_to_the_damage(self):
        whole = pcap(1, [ETHERNET + ipv4(udp(golden(name))) for name in CALL])
        folder, _ = self.read(whole + b"\1\2\3", code=1)
        self.check_golden_call(folder)
        self.assertRegex(self.said, "capture damaged +-: ")

    def test_what_is_no_capture_is_refused(self):
        self.read(b"no capture, but long enough for its header", code=3)
        self.assertRegex(self.said, "^quorvane-node: .* -: ")
        self.read(pcap(105, []), code=3)
        self.assertIn("IEEE802_11", self.said)

    def test_signals_end_it_while_nobody_reads_its_output(self):
        start = golden("call_1_start")
        frames = [ETHERNET + ipv4(udp(start[:28] + struct.pack(">I", call) + start[32:]))
                  for call in range(8000)]
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            capture = pathlib.Path(home) / "capture"
            capture.write_bytes(pcap(1, frames, step=0.0001))
            processes = []
            for options in ([], ["--events", "-"]):
                process = subprocess.Popen(
                    [NODE, "--read", str(capture), "--output", home + "/wav", *options],
                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                self.addCleanup(process.stdout.close)
                self.addCleanup(process.wait)
                self.addCleanup(process.kill)
                processes.append(process)
            time.sleep(0.7)
            for number in (signal.SIGHUP, signal.SIGTERM):
                for process in processes:
                    self.assertIsNone(process.poll(), "it does not wait for the reader")
                    process.send_signal(number)
                time.sleep(0.2)
            for process in processes:
                process.wait(30)


def timed(datagram, micros):
    """The datagram, sent so long after the golden start packet."""
    return datagram[:32] + struct.pack("<Q", 3600000250 + micros) + datagram[40:]


def side_of_two_rates(terminator=False):
    """Two seconds of frames of 160 samples, two of 320; one each 20 ms."""
    head = golden("call_3_write" if terminator else "call_2_read")[:40]
    datagrams, offset = [], 0
    for number in range(1, 201):
        count = 160 if number <= 100 or terminator else 320
        fixed = struct.pack("<IIH", number, offset, count)
        packet = head + fixed + struct.pack(f"<{count}h", *[number] * count)
        datagrams.append(timed(packet, 20000 * number))
        offset += count
    return datagrams


@unittest.skipIf(watched_by_a_sanitizer(), "the sanitizer must be loaded first")
class DiskStandsStill(unittest.TestCase):
    """A library that is loaded first holds up everything that reaches the disk."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="quorvane-disk-")
        self.addCleanup(folder.cleanup)
        self.moving = pathlib.Path(folder.name) / "moving"

    def stopped(self, *options):
        return Node("--events", "-", "--rate", "8000", "--block", "1", *options,
                    environment={"LD_PRELOAD": STOPPED_DISK,
                                 "QUORVANE_STOP_UNTIL": str(self.moving)})

    def test_receiver_goes_on_and_nothing_is_lost(self):
        with self.stopped("--calls", "2") as node:
            node.talk((1, 2), 500)
            for call in (1, 2):
                node.send(of_call(call, golden("call_7_terminate")))
            node.wait_for('(?s)("event":"terminate".*){2}')
            self.assertFalse(list(node.folder.glob("*.wav")))
            self.assertFalse(node.events("end"))
            self.moving.touch()
            self.assertEqual(node.exit_code(), 0, node.text())
            for call in (1, 2):
                self.assertEqual(samples(node.originator_path(call)),
                                 sum((audio(call, n) for n in range(1, 501)), []))
            for end in node.events("end"):
                self.assertEqual([file["dropped_samples"] for file in end["files"]], [0])

    def test_second_signal_ends_at_once(self):
        with self.stopped("--exit-wait", "900") as node:
            node.talk((1,), 100)
            node.process.send_signal(signal.SIGTERM)
            node.wait_for("asked to end")
            with self.assertRaises(subprocess.TimeoutExpired):
                node.exit_code(0.5)
            self.assertEqual(node.stop(), 1)
            self.assertIn("files given up", node.text())
            end, = node.events("end")
            self.assertNotEqual(end["files"][0]["error"], "")

    def test_wait_for_the_disk_at_the_end_is_bounded(self):
        with self.stopped("--exit-wait", "0.2", "--timeline") as node:
            node.talk((1,), 100)
            self.assertEqual(node.stop(), 1)
            self.assertIn("files given up", node.text())
            picture, = [file for file in node.events("file_error") if ".svg" in file["path"]]
            self.assertEqual(picture["error"], "the disk was given up")
            self.assertFalse(list(node.folder.glob("*.svg")))

    def test_last_flush_is_waited_for_no_longer_than_the_files(self):
        with self.stopped("--exit-wait", "0.3", "--sync", "1000") as node:
            self.assertEqual(node.stop(), 1)
            self.assertIn("the last flush did not end in time", node.text())

    def test_reading_of_a_capture_can_be_interrupted(self):
        frames = [ETHERNET + ipv4(udp(data(1, number))) for number in range(1, 4500)]
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            capture = pathlib.Path(home) / "capture"
            capture.write_bytes(pcap(1, frames))
            process = subprocess.Popen(
                [NODE, "--read", str(capture), "--output", home + "/wav", "--rate", "8000",
                 "--write-buffer", "1", "--block", "1"], stdout=subprocess.PIPE, text=True,
                env={**os.environ, "LD_PRELOAD": STOPPED_DISK, "QUORVANE_STOP_FOR": "1000"})
            self.addCleanup(process.kill)
            time.sleep(0.5)
            self.assertIsNone(process.poll(), "it does not wait for the disk")
            process.send_signal(signal.SIGINT)
            time.sleep(0.3)
            process.send_signal(signal.SIGINT)
            text, _ = process.communicate(timeout=30)
            self.assertEqual(process.returncode, 1, text)
            self.assertIn("interrupted", text)
            self.assertIn("files given up", text)

    def test_audio_beyond_the_memory_is_lost_and_reported(self):
        calls = (1, 2, 3, 4)
        with self.stopped("--write-buffer", "1", "--calls", "4") as node:
            node.talk(calls, 1200)
            for call in calls:
                node.send(of_call(call, golden("call_7_terminate")))
            node.wait_for('(?s)("event":"terminate".*){4}')
            self.moving.touch()
            self.assertEqual(node.exit_code(40), 1, node.text())
            differ = 0
            for call in calls:
                written = samples(node.originator_path(call))
                sent = sum((audio(call, number) for number in range(1, 1201)), [])
                self.assertEqual(len(written), len(sent))
                differ += sum(1 for one, other in zip(written, sent) if one != other)
            dropped = sum(end["files"][0]["dropped_samples"] for end in node.events("end"))
            self.assertGreater(dropped, 0)
            self.assertEqual(dropped, differ)
            self.assertEqual(sum(event["bytes"] for event in node.events("audio_dropped")),
                             2 * dropped)


def received(url):
    """The number of datagrams that the receiver has taken."""
    text = urllib.request.urlopen(url).read().decode()
    return float(re.search(r"^quorvane_node_received_packets_total (\S+)", text, re.M).group(1))


class NobodyReads(unittest.TestCase):
    """What the receiver writes is not read: that delays no packet."""

    def wait_until(self, condition, seconds=30):
        end = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.02)

    def starts(self, node, calls):
        for call in range(calls):
            datagram = bytearray(golden("call_1_start"))
            datagram[28:32] = struct.pack(">I", call)
            node.send(bytes(datagram))
            if call % 50 == 49:
                time.sleep(0.005)

    def metrics_url(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            return "127.0.0.1:%d" % free.getsockname()[1]

    def test_lines_into_a_full_pipe_are_dropped_and_counted(self):
        metrics = self.metrics_url()
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as free:
                free.bind(("127.0.0.1", 0))
                address = free.getsockname()
            process = subprocess.Popen(
                [NODE, "--listen", "%s:%d" % address, "--output", home, "--metrics", metrics],
                stdout=subprocess.PIPE, text=True)
            self.addCleanup(process.kill)
            process.stdout.readline()
            sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.addCleanup(sender.close)
            url = "http://" + metrics + "/metrics"

            def no_line_is_lost():
                text = urllib.request.urlopen(url).read().decode()
                return "\nquorvane_node_lost_lines_total 0\n" in text

            # Lines that are reported at the same moment are taken together if none wait before them.
            # The calls therefore come in several portions.
            calls = 0
            while no_line_is_lost():
                self.assertLess(calls, 40_000)
                for call in range(calls, calls + 2000):
                    datagram = bytearray(golden("call_1_start"))
                    datagram[28:32] = struct.pack(">I", call)
                    sender.sendto(bytes(datagram), address)
                    if call % 50 == 49:
                        time.sleep(0.005)
                calls += 2000
                self.wait_until(lambda: received(url) == calls)
            process.send_signal(signal.SIGTERM)
            text, _ = process.communicate(timeout=30)
            self.assertEqual(process.returncode, 0)
            self.assertRegex(text, r"lines lost +[\d,]+: nothing read this output\n")
            self.assertRegex(text, f"summary .*{calls:,} (calls|packets)")

    def test_lines_of_a_program_without_standard_descriptors_reach_no_file(self):
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            command = [NODE, "--listen", "127.0.0.1:0", "--output", home + "/wav",
                       "--events", home + "/events", "--idle-exit", "0.2"]
            closed = "exec \"$@\" <&- >&- 2>&-"
            self.assertEqual(subprocess.run(["sh", "-c", closed, "sh", *command]).returncode, 0)
            lines = pathlib.Path(home, "events").read_text().splitlines()
            self.assertEqual([json.loads(line)["event"] for line in lines], ["listening"])

    def test_events_into_a_named_pipe_wait_for_a_reader_and_beyond_the_bound_are_counted(self):
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            pipe = home + "/events"
            os.mkfifo(pipe)
            with Node("--events", pipe) as node:  # It starts without a reader.
                node.wait_for("events not written +" + pipe + ": no program reads it")
                self.starts(node, 4000)
                node.send_call()
                node.wait_for(UUID + "  end ", seconds=90)
                with concurrent.futures.ThreadPoolExecutor() as beside:
                    lines = beside.submit(lambda: pathlib.Path(pipe).read_text().splitlines())
                    node.wait_for(r"events are written again +[\d,]+ lost", seconds=90)
                    self.assertEqual(node.stop(), 1)
                    events = [json.loads(line) for line in lines.result()]
                self.assertEqual(events[0]["event"], "listening")
                losses = [event["events"] for event in events if event["event"] == "events_lost"]
                self.assertGreater(sum(losses), 0)
                # A start, two of "running" and an end for each call; eight of the golden call.
                self.assertEqual(len(events) - len(losses) + sum(losses), 1 + 4000 * 4 + 8)

    def test_named_pipe_that_nobody_ever_reads_delays_no_end(self):
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            os.mkfifo(home + "/events")
            with Node("--events", home + "/events") as node:
                node.send_call()
                node.wait_for(UUID + "  end ")
                self.assertEqual(node.stop(), 1)
                self.assertRegex(node.text(), r"events lost: \d+")

    def test_samples_are_loaded_beside_the_packets(self):
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            with wave.open(home + "/beep.wav", "wb") as file:
                file.setparams((1, 2, 8000, 0, "NONE", ""))
                generator = random.Random(1)
                file.writeframes(bytes(generator.randrange(256) for _ in range(32000)))
            with Node("--samples", home, "--events", "-") as node:
                os.mkfifo(home + "/slow.wav")  # Whoever reads it waits for a writer.
                node.process.send_signal(signal.SIGHUP)
                time.sleep(0.2)
                node.process.send_signal(signal.SIGHUP)
                for call in range(1, 6):
                    node.talk((call,), 10)
                    node.end((call,))
                self.assertNotIn("opened again", node.text())
                for count in (1, 2):  # The second request came during the first reading.
                    with open(home + "/slow.wav", "wb"):
                        pass
                    node.wait_for("(?s)(opened again.*){%d}" % count)
                self.assertIn("sample refused", node.text())
                self.assertEqual(node.stop(), 0)


class NodeEndToEnd(unittest.TestCase):
    def test_files_are_named_by_the_pattern(self):
        with Node("--name", "{reference}_{date}_{uuid}", "--stereo", "--timeline", "--rate",
                  "8000", "--calls", "1") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            today = time.strftime("%Y-%m-%d", time.gmtime())
            stem = f"a84b4c76e66710@192.0.2.7_{today}_{UUID}"
            self.assertEqual({path.name for path in node.folder.iterdir()},
                             {stem + rest for rest in ("-originator.wav", "-terminator.wav",
                                                       ".wav", ".svg")})

    def test_side_whose_rate_changes_goes_on_in_another_file(self):
        with Node("--events", "-", "--stereo", "--calls", "1", "--timeline") as node:
            node.send(golden("call_1_start"))
            for both in zip(side_of_two_rates(), side_of_two_rates(terminator=True)):
                node.send(*both)
            node.send(timed(golden("call_7_terminate"), 4100000))
            self.assertEqual(node.exit_code(), 0)
            change, = node.events("rate_change")
            self.assertEqual((change["call_side"], change["position"], change["old_sample_rate"],
                              change["new_sample_rate"]), ("originator", 16000, 8000, 16000))
            self.assertEqual(set(change), listed_event_fields()["rate_change"])
            end, = node.events("end")
            self.assertEqual([pathlib.Path(file["path"]).name for file in end["files"]],
                             [UUID + "-originator.wav", UUID + "-originator-part2.wav",
                              UUID + "-terminator.wav", UUID + ".wav"])
            self.assertEqual(end["sides"]["originator"]["pauses"], 0)
            expected = {"-originator.wav": (8000, range(1, 101), 160),
                        "-originator-part2.wav": (16000, range(101, 201), 320),
                        "-terminator.wav": (8000, range(1, 201), 160)}
            for name, (rate, numbers, count) in expected.items():
                path = node.folder / (UUID + name)
                with wave.open(str(path)) as file:
                    self.assertEqual(file.getframerate(), rate)
                self.assertEqual(samples(path), [n for n in numbers for _ in range(count)])
            with wave.open(str(node.folder / (UUID + ".wav"))) as file:
                self.assertEqual((file.getframerate(), file.getnframes()), (16000, 64000))
                frames = array.array("h", file.readframes(64000))
            for second in (0.5, 1.5, 2.5, 3.5):  # Both sides count their frames of 20 ms.
                left, right = frames[int(32000 * second):][:2]
                self.assertLess(abs(left - right), 3)

    def test_golden_call_becomes_two_files(self):
        with Node("--calls", "1", "--events", "-") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            wave_one = [0, 100, 200, 100, 0, -100, -200, -100]
            self.assertEqual(samples(node.folder / f"{UUID}-originator.wav"), 2 * wave_one)
            self.assertEqual(samples(node.folder / f"{UUID}-terminator.wav"),
                             8 * [0] + 4 * [1000, -1000])
            self.assertEqual(re.findall(UUID + "  ([a-z]+)  ", node.text()),
                             ["start", "running", "running", "control", "running", "running",
                              "terminate", "end"])
            self.assertEqual(node.events("end")[0]["reason"], "terminated")

    def test_stereo_file_and_timeline(self):
        with Node("--calls", "1", "--stereo", "--no-sides", "--timeline") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            self.assertEqual(sorted(p.name for p in node.folder.iterdir()),
                             [f"{UUID}.svg", f"{UUID}.wav"])
            left_right = samples(node.folder / f"{UUID}.wav")
            self.assertEqual(left_right[1::2], 8 * [0] + 4 * [1000, -1000])
            self.assertIn("terminate</text>", (node.folder / f"{UUID}.svg").read_text())

    def test_only_allowed_senders_are_heard_and_a_call_belongs_to_its_address(self):
        def send_from(address, port, *names):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                sender.bind((address, 0))
                for name in names:
                    sender.sendto(golden(name), ("127.0.0.1", port))

        with Node("--allow", "127.0.0.1", "--allow", "127.0.2.0/24", "--events", "-") as node:
            port = node.address[1]
            send_from("127.0.0.1", port, "call_1_start", "call_2_read")
            send_from("127.0.0.3", port, "call_4_read")
            send_from("127.0.2.9", port, "call_4_read", "call_7_terminate")
            send_from("127.0.0.1", port, "call_7_terminate")
            node.wait_for('"event":"end"')
            self.assertEqual(node.stop(), 0)
            end = node.events("end")[0]
            self.assertEqual(end["reason"], "terminated")
            self.assertEqual(end["foreign_packets"], 2)
            self.assertEqual(end["sides"]["originator"]["packets"], 1)
            self.assertRegex(end["source"], r"^127\.0\.0\.1:\d+$")
            foreign = node.events("foreign")[0]
            self.assertRegex(foreign["foreign_source"], r"^127\.0\.2\.9:\d+$")
            self.assertEqual([event["packets"] for event in node.events("not_allowed")], [1])
            self.assertEqual(sorted(counted_in_summary(node.text(), "not used").values()), [1, 2])

    def test_reference_in_utf_8_is_shown_in_the_lines_and_the_timeline(self):
        reference = '日本 <&"\u202e\x9b\uffff'.encode() + b"\xff"
        shown = '日本 <&\\"' + "".join(rf"\x{b:02x}" for b in reference[10:])
        start = golden("call_1_start")[:80] + struct.pack("<H", len(reference) + 1)
        with Node("--calls", "1", "--timeline") as node:
            node.send(start + reference + b"\0", golden("call_7_terminate"))
            self.assertEqual(node.exit_code(), 0, node.text())
            self.assertIn(f'"{shown}"', node.text())
            texts = xml.etree.ElementTree.parse(node.folder / f"{UUID}.svg").getroot().itertext()
            self.assertIn(f'"{shown}"', "".join(texts))

    def test_events_carry_every_field_of_the_packets_under_its_documented_name(self):
        documented = json.loads((GOLDEN / "golden.json").read_text())
        with Node("--calls", "1", "--events", "-", "--packets", "--quiet") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            events = node.events()
            self.assertEqual([e["event"] for e in events],
                             ["listening", "start", "running", "running", "data", "data",
                              "data", "data", "control", "running", "running",
                              "terminate", "end"])
            packets = [e for e in events[1:] if e["event"] != "running"]
            for event, name in zip(packets, CALL):
                fields = {key: value for key, value in documented[name].items() if key != "audio"}
                self.assertEqual({key: event.get(key) for key in fields}, fields)

    def test_events_have_the_fields_that_the_document_lists(self):
        with Node("--calls", "1", "--events", "-", "--packets", "--rate", "8000") as node:
            node.folder.rmdir()
            node.send(b"malformed", golden("call_1_start"), golden("call_6_control"))
            node.send(*(data(UUID_END, number) for number in (1, 2, 3, 6, 7, 8, 9, 10)))
            time.sleep(0.5)
            node.send(data(UUID_END, 4))
            later = data(UUID_END, 11)
            node.send(later[:32] + (3600000000 + 9000000).to_bytes(8, "little") + later[40:])
            node.send(golden("call_7_terminate"))
            self.assertEqual(node.exit_code(), 1, node.text())
            listed = listed_event_fields()
            seen = {event["event"]: set(event) for event in node.events()}
            self.assertEqual(set(listed) - set(seen),
                             {"overflow", "events_lost", "not_allowed", "foreign",
                              "terminate_refused", "leftover", "activity", "sample",
                              "analysis_skipped", "rate_change", "audio_dropped", "removed",
                              "nats_lost", "listen"})
            for kind, fields in seen.items():
                self.assertEqual(fields, listed[kind], kind)
            self.assertEqual(set(node.events("end")[0]["sides"]["originator"]), LISTED_SIDE)

    def test_lost_packet_is_silence_and_a_gap(self):
        with Node("--calls", "1", "--events", "-") as node:
            node.send(*(golden(name) for name in CALL if name != "call_2_read"))
            self.assertEqual(node.exit_code(), 0)
            self.assertEqual(samples(node.folder / f"{UUID}-originator.wav")[:8], 8 * [0])
            gap, = node.events("gap")
            self.assertEqual((gap["call_side"], gap["lost_packets"], gap["filled_samples"]),
                             ("originator", 1, 8))

    def test_malformed_datagrams_are_counted_with_their_reason(self):
        with Node("--events", "-") as node:
            malformed = sorted(GOLDEN.glob("malformed_*.hex"))
            node.send(*(golden(path.stem) for path in malformed))
            node.send_call()
            node.wait_for('"event":"end"')
            self.assertEqual(node.stop(), 0)
            counts = counted_in_summary(node.text(), "malformed")
            self.assertEqual(sum(counts.values()), len(malformed))
            reasons = {event["reason"] for event in node.events("malformed")}
            self.assertEqual(len(counts), len(reasons))
            self.assertIn("bad magic", reasons)

    def test_signals_close_the_files(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with Node("--events", "-") as node:
                node.send(*(golden(name) for name in CALL[:5]))
                node.wait_for('"event":"start"')
                self.assertEqual(node.stop(number), 0)
                self.assertEqual(len(samples(node.folder / f"{UUID}-originator.wav")), 16)
                self.assertEqual([end["reason"] for end in node.events("end")], ["shutdown"])

    def test_hangup_opens_the_events_file_again_and_recordings_go_on(self):
        with tempfile.TemporaryDirectory() as home:
            path, moved = pathlib.Path(home, "events"), pathlib.Path(home, "events.1")
            with Node("--events", str(path)) as node:
                node.send(*map(golden, CALL[:3]))
                wait_for_lines(path, 4)
                path.rename(moved)
                node.process.send_signal(signal.SIGHUP)
                node.wait_for(f"opened again .*{path}\n")
                self.assertEqual(path.read_text(), "")
                node.send(*map(golden, CALL[3:]))
                node.wait_for("  end  ")
                self.assertEqual(node.stop(), 0, node.text())
                self.assertEqual(len(samples(node.folder / f"{UUID}-originator.wav")), 16)
            kinds = [[json.loads(line)["event"] for line in file.read_text().splitlines()]
                     for file in (moved, path)]
            self.assertEqual(kinds, [["listening", "start", "running", "running"],
                                     ["control", "running", "running", "terminate", "end"]])

    def test_moved_events_file_is_noticed_without_a_signal(self):
        with tempfile.TemporaryDirectory() as home:
            path = pathlib.Path(home, "events")
            with Node("--events", str(path)) as node:
                wait_for_lines(path, 1)
                path.rename(path.with_suffix(".1"))
                node.send_call()
                node.wait_for(f"events go to a new file .*{path}")
                self.assertEqual(node.stop(), 0, node.text())
            kinds = [json.loads(line)["event"] for line in path.read_text().splitlines()]
            self.assertEqual(kinds, ["start", "running", "running",
                                     "control", "running", "running", "terminate", "end"])

    def test_closed_terminal_ends_the_program_with_its_files_complete(self):
        for ignored, ends in ((signal.SIG_DFL, True), (signal.SIG_IGN, False)):
            ours, theirs = os.openpty()

            def take_terminal():
                os.setsid()
                fcntl.ioctl(theirs, termios.TIOCSCTTY, 0)
                signal.signal(signal.SIGHUP, ignored)

            with Node(before=take_terminal) as node:
                os.close(theirs)
                node.send(*map(golden, CALL[:5]))
                node.wait_for("  start  ")
                os.close(ours)
                if not ends:  # As nohup wants it.
                    node.wait_for("asked to read again")
                    node.process.terminate()
                self.assertEqual(node.exit_code(), 0, node.text())
                self.assertEqual("asked to end" not in node.text(), ends)
                self.assertEqual(len(samples(node.folder / f"{UUID}-originator.wav")), 16)

    def test_files_of_a_killed_run_are_repaired_and_reported_at_the_next_start(self):
        with Node("--block", "1", "--rate", "8000") as node:
            node.talk([1], 20)
            path = node.folder / (uuid_of(1) + "-originator.wav")
            while not path.exists() or path.stat().st_size < 5000:
                time.sleep(0.02)
            node.stop(signal.SIGKILL)
            # As if the node had been killed after it wrote the audio and before it counted it in
            # the header.
            with open(path, "r+b") as file:
                for place, size in ((4, 320 + 36), (40, 320)):
                    file.seek(place)
                    file.write(struct.pack("<I", size))
            with Node("--events", "-", folder=node.folder) as next_run:
                next_run.wait_for("repaired +1 ")
                next_run.wait_for('"event":"leftover"')
                (event,) = next_run.events("leftover")
                audio = samples(node.folder / path.name)
                self.assertEqual((event["path"], event["samples"], event["error"]),
                                 (str(node.folder / path.name), len(audio), ""))
                self.assertEqual(event["recovered_samples"], len(audio) - 160)
                self.assertEqual(event["sample_rate"], 8000)
                self.assertGreater(len(audio), 2000)

    def test_killed_at_any_of_200_moments_it_leaves_files_that_can_be_played(self):
        choice = random.Random(20)
        moments = [choice.random() for _ in range(200)]
        with concurrent.futures.ThreadPoolExecutor(8) as killers:
            audio = sum(killers.map(killed_run, moments))
        self.assertGreater(audio, 0)

    def test_command_runs_after_each_call_with_its_files(self):
        with Node("--calls", "1", "--on-end", "touch -d 2001-06-01") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            for path in node.folder.iterdir():
                self.assertEqual(time.gmtime(path.stat().st_mtime).tm_year, 2001, path)
        with Node("--calls", "1", "--on-end", "false") as node:
            node.send_call()
            self.assertEqual(node.exit_code(), 1, node.text())
            self.assertRegex(node.text(), f"command failed +false .*{UUID}.* 1\n")

    def test_terminate_that_never_comes_times_out(self):
        with Node("--calls", "1", "--call-timeout", "0.5", "--events", "-") as node:
            node.send(*(golden(name) for name in CALL[:3]))
            self.assertEqual(node.exit_code(), 0)
            self.assertEqual([end["reason"] for end in node.events("end")], ["timed_out"])

    def test_idle_exit_without_the_calls_is_an_error(self):
        with Node("--calls", "1", "--idle-exit", "0.3") as node:
            self.assertEqual(node.exit_code(), 1)

    def test_port_in_use_is_reported(self):
        with Node() as node:
            second = subprocess.run([NODE, "--listen", "127.0.0.1:%d" % node.address[1],
                                     "--output", str(node.folder)],
                                    capture_output=True, text=True, timeout=20)
            self.assertEqual(second.returncode, 3)
            self.assertIn("Address already in use", second.stderr)

    def test_metrics_port_in_use_is_reported(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            with tempfile.TemporaryDirectory() as folder:
                second = subprocess.run([NODE, "--listen", "127.0.0.1:0", "--metrics", str(port),
                                         "--output", folder],
                                        capture_output=True, text=True, timeout=20)
        self.assertEqual(second.returncode, 3)
        self.assertRegex(second.stderr, f"^quorvane-node: .*127.0.0.1:{port}.*\n$")

    def test_unusable_folder_and_command_line_are_reported(self):
        bad = subprocess.run([NODE, "--listen", "127.0.0.1:0", "--output", "/dev/null/x"],
                             capture_output=True, text=True, timeout=20)
        self.assertEqual(bad.returncode, 3)
        self.assertRegex(bad.stderr, "^quorvane-node: .*/dev/null/x: Not a directory\n$")
        for option in (["--listen", "nowhere"], ["--rate", "1"], ["--unknown"]):
            bad = subprocess.run([NODE, *option], capture_output=True, text=True, timeout=20)
            self.assertEqual(bad.returncode, 2)
        self.assertEqual(subprocess.run([NODE, "--help"], stdout=subprocess.DEVNULL).returncode, 0)

    def test_call_reference_reaches_neither_paths_nor_the_terminal(self):
        reference = b"../../../tmp/x\x1b[2J"
        start = bytearray(golden("call_1_start")[:82]) + reference + b"\0"
        start[80:82] = len(reference + b"\0").to_bytes(2, "little")
        with Node("--calls", "1", "--stereo", "--timeline") as node:
            node.send(bytes(start), *map(golden, CALL[1:]))
            self.assertEqual(node.exit_code(), 0, node.text())
            self.assertNotIn("\x1b", node.text())
            self.assertTrue(all(p.name.startswith(UUID) for p in node.folder.iterdir()))
            self.assertEqual(sorted(p.name for p in pathlib.Path(node.home.name).iterdir()),
                             ["output", "wav"])

    def test_metrics_are_served(self):
        with Node("--metrics", "0") as node:
            url = node.wait_for(r"http://\S+").group(0)
            node.send_call()
            node.wait_for("  end  ")
            time.sleep(1.2)
            text = urllib.request.urlopen(url, timeout=5).read().decode()
            self.assertIn('quorvane_node_packets_total{type="data"} 4', text)
            self.assertIn("quorvane_node_calls_ended_total 1", text)

    def test_service_manager_hears_when_the_receiver_is_ready_reloads_and_stops(self):
        with tempfile.TemporaryDirectory() as home, \
                socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.settimeout(20)
            manager.bind(home + "/notify")
            os.environ["NOTIFY_SOCKET"] = home + "/notify"
            self.addCleanup(os.environ.pop, "NOTIFY_SOCKET")
            with Node() as node:
                self.assertEqual(manager.recv(100), b"READY=1")
                node.process.send_signal(signal.SIGHUP)
                self.assertRegex(manager.recv(100), rb"^RELOADING=1\nMONOTONIC_USEC=\d+$")
                self.assertEqual(manager.recv(100), b"READY=1")
                self.assertEqual(node.stop(), 0, node.text())
                self.assertEqual(manager.recv(100), b"STOPPING=1")


class RoomRunsOut(unittest.TestCase):
    """Of the disk, of files that may be open or written, or their folder is gone."""

    def test_full_disk_is_reported_and_the_receiver_goes_on(self):
        with Node("--block", "1", limit=(resource.RLIMIT_FSIZE, (2000, 2000))) as node:
            node.send(golden("call_1_start"))
            audio = golden("call_2_read")
            for number in range(1, 200):
                offset = (number - 1) * 8
                node.send(audio[:40] + number.to_bytes(4, "little") +
                          offset.to_bytes(4, "little") + audio[48:])
            node.send(golden("call_7_terminate"))
            node.wait_for("file error +.*File too large")
            node.wait_for("  end  ")
            self.assertEqual(node.stop(), 1)

    @unittest.skipUnless(may_mount(), "no file system can be mounted here")
    def test_disk_that_is_really_full_costs_no_other_call(self):
        with Node("--block", "1", "--timeline", "--events", "-", disk="200k") as node:
            node.talk([1], 800)
            node.wait_for(uuid_of(1) + "  file error .*: No space left on device")
            node.talk([2], 20)
            node.end([2])
            self.assertRegex(node.text(), uuid_of(2) + "  file error .*: No space left on device")
            picture = f"{uuid_of(2)}.svg"
            self.assertRegex(node.text(), picture + ": No space left on device")
            self.assertFalse((node.inside(2).parent / picture).exists())
            node.inside(1).unlink()
            node.talk([3], 20)
            node.end([1, 3])
            self.assertEqual(samples(node.inside(3)),
                             sum((audio(3, number) for number in range(1, 21)), []))
            self.assertEqual(node.stop(), 1)
            ends = {event["call_uuid"]: event for event in node.events("end")}
            self.assertEqual([ends[uuid_of(call)]["sides"]["originator"]["packets"]
                              for call in (1, 2)], [800, 20])
            errors = [ends[uuid_of(call)]["files"][0]["error"] for call in (1, 2, 3)]
            self.assertEqual(errors, 2 * ["No space left on device"] + [""])
            failed = node.events("file_error")
            self.assertEqual({pathlib.Path(event["path"]).name: event["error"] for event in failed
                              if event["call_uuid"] == uuid_of(2)},
                             {picture: "No space left on device",
                              f"{uuid_of(2)}-originator.wav": "No space left on device"})
            self.assertRegex(node.text(), f"not written: {len(failed)} ")

    def test_events_that_find_no_room_are_written_when_there_is_some(self):
        with tempfile.TemporaryDirectory() as home:
            path = pathlib.Path(home) / "events"
            most = resource.getrlimit(resource.RLIMIT_FSIZE)[1]
            limit = (resource.RLIMIT_FSIZE, (8000, most))
            with Node("--events", str(path), "--packets", limit=limit) as node:
                node.talk([1, 2], 20)
                node.wait_for("events not written +.*/events: File too large")
                resource.prlimit(node.process.pid, resource.RLIMIT_FSIZE,
                                 (most, most))
                node.wait_for("events are written again +0 ")
                node.talk([3], 20)
                node.end([1, 2, 3])
                self.assertEqual(node.stop(), 1, node.text())
            whole, cut = [], []
            for line in path.read_text().splitlines():
                (whole if line.endswith("}") else cut).append(line)
            self.assertEqual(len(cut), 1)
            seen = [(event["call_uuid"], event["sequence_number"])
                    for event in map(json.loads, whole) if event["event"] == "data"]
            self.assertEqual(sorted(seen), [(uuid_of(call), number) for call in (1, 2, 3)
                                            for number in range(1, 21)])

    def test_events_that_are_lost_at_the_end_are_counted_and_make_a_failure(self):
        with tempfile.TemporaryDirectory() as home:
            limit = (resource.RLIMIT_FSIZE, (1000, 1000))
            with Node("--events", home + "/events", "--quiet", "--no-sides", "--stereo",
                      limit=limit) as node:
                node.send(*(of_call(call, golden("call_1_start")) for call in range(10)))
                self.assertEqual(node.stop(), 1, node.text())
                self.assertRegex(node.text(), "events not written +.*: File too large")
                # At most one of the starts found room, and none of the ends. Each start also starts
                # the audio activity on both sides.
                lost = int(re.search(r"events lost: (\d+) ", node.text()).group(1))
                written = (pathlib.Path(home) / "events").read_text().count("\n") - 1
                self.assertEqual(written + lost, 40)

    def test_folder_that_comes_back_is_used_again(self):
        with Node("--block", "1") as node:
            node.talk([1], 20)
            node.wait_for(uuid_of(1) + "  start ")
            shutil.rmtree(node.folder)
            node.talk([2], 20)
            node.end([1, 2])
            node.wait_for(uuid_of(2) + "  file error .*: No such file or directory")
            node.folder.mkdir()
            node.talk([3], 20)
            node.end([3])
            self.assertEqual(len(samples(node.folder / f"{uuid_of(3)}-originator.wav")), 3200)
            self.assertEqual(node.stop(), 1)

    def test_folder_removed_in_the_midst_of_calls_is_reported_call_by_call(self):
        with Node("--block", "1", "--events", "-") as node:
            node.talk([1, 2], 20)
            node.wait_for(uuid_of(2) + "  start ")
            shutil.rmtree(node.folder)
            node.talk([1], 20)
            node.end([1, 2])
            self.assertEqual(node.stop(), 1)
            for call in (1, 2):
                self.assertRegex(node.text(), uuid_of(call) +
                                 "  file error .*-originator.wav: ")
            failed = node.events("file_error")
            self.assertEqual(sorted(event["call_uuid"] for event in failed),
                             [uuid_of(1), uuid_of(2)])
            self.assertNotIn("", [event["error"] for event in failed])
            self.assertNotRegex(node.text(), "  file  ")

    @needs_no_descriptor_of_its_own
    def test_more_calls_than_files_may_be_open_lose_nothing(self):
        calls = range(1, 31)
        with Node("--block", "1", limit=(resource.RLIMIT_NOFILE, (16, 16))) as node:
            node.talk(calls, 40)
            node.end(calls)
            self.assertEqual(node.stop(), 0, node.text())
            for call in calls:
                self.assertEqual(samples(node.folder / f"{uuid_of(call)}-originator.wav"),
                                 sum((audio(call, number) for number in range(1, 41)), []))

    @needs_no_descriptor_of_its_own
    def test_no_file_that_may_be_opened_is_reported_call_by_call(self):
        with Node("--block", "1", "--events", "-",
                  limit=(resource.RLIMIT_NOFILE, (9, 9))) as node:
            node.talk([1, 2], 40)
            node.end([1, 2])
            self.assertEqual(node.stop(), 1)
            self.assertEqual({event["call_uuid"]: event["error"]
                              for event in node.events("file_error")},
                             dict.fromkeys((uuid_of(1), uuid_of(2)), "Too many open files"))
            self.assertEqual([end["sides"]["originator"]["packets"]
                              for end in node.events("end")], [40, 40])

    @needs_no_descriptor_of_its_own
    def test_limit_too_low_for_the_receiver_itself_is_reported(self):
        for limit in (6, 8):
            bad = subprocess.run(
                [NODE, "--listen", "127.0.0.1:0", "--output", "/tmp"], capture_output=True,
                text=True, timeout=20, preexec_fn=lambda: resource.setrlimit(
                    resource.RLIMIT_NOFILE, (limit, limit)))
            self.assertIn(bad.returncode, (1, 3))
            self.assertIn("Too many open files", bad.stderr)

    def test_vanished_folder_is_reported(self):
        with Node() as node:
            node.folder.rmdir()
            node.send_call()
            node.wait_for("file error +.*No such file or directory")
            self.assertEqual(node.stop(), 1)

    def test_calls_beyond_the_limit_of_files_are_reported_but_not_written(self):
        with Node("--max-files", "7", "--timeline", "--events", "-", "--metrics", "0") as node:
            url = node.wait_for(r"http://\S+").group(0)
            for call in (1, 2, 3, 4):
                node.talk([call], 2)
                node.end([call])
            sent = 4 * (1 + 2 + 1)
            seen = counters_after(url, sent)
            self.assertEqual(node.stop(signal.SIGINT), 0, node.text())
            # Each call may have three files and writes two. A third call would fit, a fourth would
            # not.
            written = {f"{uuid_of(call)}{kind}" for call in (1, 2, 3)
                       for kind in ("-originator.wav", ".svg")}
            self.assertEqual({path.name for path in node.folder.iterdir()}, written)
            ends = {end["call_uuid"]: end for end in node.events("end")}
            self.assertEqual([len(ends[uuid_of(call)]["files"]) for call in (1, 2, 3, 4)],
                             [1, 1, 1, 0])
            self.assertEqual(ends[uuid_of(4)]["sides"]["originator"]["packets"], 2)
            self.assertEqual(node.text().count("--max-files"), 1)
            self.assertRegex(node.text(), "not written: 1 ")
            self.assertEqual(seen["calls_not_written_total"], 1)


class Floods(unittest.TestCase):
    def test_random_and_mutated_datagrams_are_survived(self):
        with Node("--max-calls", "100", "--quiet", "--timeline", "--stereo") as node:
            choice = random.Random(4711)
            packets = [golden(name) for name in CALL]
            for number in range(20000):
                datagram = bytearray(choice.choice(packets))
                for _ in range(choice.randrange(4)):
                    datagram[choice.randrange(4, len(datagram))] = choice.randrange(256)
                if choice.random() < 0.1:
                    datagram = bytearray(choice.randbytes(choice.randrange(1400)))
                node.send(bytes(datagram))
                if number % 200 == 0:
                    time.sleep(0.002)
            self.assertIsNone(node.process.poll(), node.text())
            self.assertEqual(node.stop(), 0, node.text())
            size = sum(p.stat().st_size for p in node.folder.iterdir())
            self.assertLess(size, 500_000_000)

    def test_flood_is_accounted_for_and_harms_no_orderly_call(self):
        """Random datagrams, mutated ones, and those of more than 200,000 calls."""
        scale = 10 if watched_by_a_sanitizer() else 1
        noise = random_and_mutated_datagrams(2000 // scale)
        start, audio, terminate = (golden(name) for name in (CALL[0], CALL[1], CALL[6]))
        with tempfile.TemporaryDirectory() as home, Node(
                "--quiet", "--metrics", "0", "--max-calls", "100", "--linger", "0",
                "--max-silence", "1", "--max-files", "400", "--packets",
                "--events", f"{home}/events") as node:
            url = node.wait_for(r"http://\S+").group(0)
            flood, bystander = Flood(node), Bystander(node)
            self.addCleanup(flood.socket.close)
            self.addCleanup(bystander.end)
            for part in range(10):
                calls = of_distinct_calls([start, audio, terminate], part * 6000, 6000 // scale)
                flood.send(mixed(calls, noise))
                if scale > 1:  # Calls whose files wait for the slow writer count for the limit.
                    wait_for_files(url, flood.sent)
            # These calls never end, so the limit of calls is soon reached.
            for part in range(10, 20):
                calls = of_distinct_calls([(start, audio)[part % 2]], part * 15000,
                                          15000 // scale)
                flood.send(mixed(calls, noise))
            bystander.end()
            sent = flood.sent + bystander.sent
            time.sleep(2)  # By then every terminate packet in doubt is believed or refused.
            seen = counters_after(url, sent)
            memory_kib = int(re.search(r"VmHWM:\s+(\d+)", pathlib.Path(
                f"/proc/{node.process.pid}/status").read_text()).group(1))
            self.assertEqual(node.stop(signal.SIGINT), 0, node.text())
            events = pathlib.Path(home, "events").read_text()
            self.assertLess(memory_kib, 700_000 if watched_by_a_sanitizer() else 50_000)
            self.check_accounts(seen, sent, events, node.text())
            self.assertGreater(seen.by_label("unused_packets_total")["too_many_calls"],
                               100_000 // scale)
            files = self.check_files(node, events)
            # Room is kept for both sides of each of the 100 calls that may exist.
            self.assertLessEqual(len(files), 400)
            self.assertGreater(len(files), 400 - 2 * 100)
            self.assertGreater(seen["calls_not_written_total"], 0)
            self.assertEqual(samples(node.folder / f"{uuid_of(1)}-originator.wav"),
                             bystander.audio())

    def check_accounts(self, seen, sent, events, summary):
        """Every datagram was counted, and once: as malformed, as not used, or as used, which
        is what made an event. Those data packets that bring nothing new make one, too."""
        self.assertEqual(seen["socket_dropped_packets_total"], 0)
        self.assertEqual(seen["received_packets_total"], sent)
        self.assertEqual(seen["packets_total"] + seen["malformed_packets_total"], sent)
        with_event = ("duplicate", "late", "implausible")
        unused = seen.by_label("unused_packets_total")
        used = seen["packets_total"] - sum(unused.values())
        told = sum(events.count('{"event":"%s"' % kind)
                   for kind in ("start", "control", "terminate", "data"))
        self.assertEqual(used, told - sum(unused[reason] for reason in with_event))
        for what, name in (("not used", "unused"), ("malformed", "malformed")):
            counts = seen.by_label(name + "_packets_total").values()
            self.assertEqual(sorted(counted_in_summary(summary, what).values()),
                             sorted(filter(None, counts)))

    def check_files(self, node, events):
        """The folder holds the files that the end events name, and nothing else."""
        ends = [json.loads(line) for line in events.splitlines() if '{"event":"end"' in line]
        files = [file for end in ends for file in end["files"]]
        self.assertEqual({file["error"] for file in files}, {""})
        self.assertEqual(sorted(file["path"] for file in files),
                         sorted(map(str, node.folder.iterdir())))
        return files

    def test_what_a_full_socket_cost_is_accounted_for(self):
        with Node("--quiet", "--metrics", "0", "--receive-buffer", "1") as node:
            url = node.wait_for(r"http://\S+").group(0)
            flood = Flood(node)
            self.addCleanup(flood.socket.close)
            node.process.send_signal(signal.SIGSTOP)
            flood.send_at_once(20_000 * [golden(CALL[1])])
            node.process.send_signal(signal.SIGCONT)
            seen = counters_after(url, flood.sent)
            self.assertEqual(node.stop(signal.SIGINT), 0, node.text())
            self.assertEqual(seen.came(), 20_000)
            self.assertGreater(seen["socket_dropped_packets_total"], 0)
            self.assertEqual(list(counted_in_summary(node.text(), "lost in the socket").values()),
                             [seen["socket_dropped_packets_total"]])


if __name__ == "__main__":
    if not may_mount():
        print("The test of a full disk is skipped: no file system can be mounted here.")
    unittest.main(argv=[sys.argv[0], *OTHER_ARGUMENTS], verbosity=1)
