"""What quorvane-node hears in calls whose sound is known: activity, samples, recordings."""
import array
import heapq
import itertools
import json
import math
import pathlib
import random
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import wave

from end_to_end_test import (NODE, Node, golden, listed_event_fields, of_call, samples,
                             uuid_of)

LISTENER = pathlib.Path(__file__).resolve().parents[2] / "examples" / "report_listener.py"
RATE = 8000
FRAME = 160
# The bits of the features: originator, terminator.
ACTIVITY, DETECTION, RECORDING = (0x04, 0x08), (0x10, 0x20), (0x40, 0x80)
ALL_FEATURES = 0xFC
ORIGINATOR, TERMINATOR = 0, 1
PATIENCE = 60  # Seconds.


def silence(seconds):
    return [0] * round(seconds * RATE)


def buzz(seconds, seed=1, amplitude=6000):
    """Syllables of a voice without words, others for each seed."""
    choice = random.Random(seed)
    sound = []
    while len(sound) < seconds * RATE:
        pitch, high = choice.uniform(90, 220), choice.uniform(900, 2800)
        low, length = choice.uniform(300, 800), choice.uniform(0.08, 0.2)
        glide = choice.uniform(-0.3, 0.3)
        for i in range(round(length * RATE)):
            t = i / RATE
            turn = 2 * math.pi * t * (1 + glide * t / length)
            voice = sum(math.sin(turn * pitch * n) / n for n in (1, 2, 3))
            formants = math.sin(turn * low) + 0.6 * math.sin(turn * high)
            shape = math.sin(math.pi * min(1, (t + 0.01) / length)) + 0.1
            sound.append(round(amplitude * shape * (0.5 * voice + formants) / 4))
    return sound[:round(seconds * RATE)]


def write_wav(path, sound, rate=RATE, channels=1):
    with wave.open(str(path), "wb") as file:
        file.setnchannels(channels)
        file.setsampwidth(2)
        file.setframerate(rate)
        file.writeframes(array.array("h", sound).tobytes())


class SentCall:
    """A call whose datagrams are sent faster than real time, with the send times of real time:
    a frame is sent when its last sample has been spoken."""

    def __init__(self, node, number, supported=ALL_FEATURES, active=0, report_node=None):
        self.node, self.number = node, number
        self.time = 1_000_000
        self.sent = [0, 0]  # Packets of each side,
        self.spoken = [0, 0]  # and their samples.
        start = bytearray(self.timed(golden("call_1_start")))
        start[78:80] = bytes([supported, active])
        flags, = struct.unpack_from("<H", start, 6)
        struct.pack_into("<H", start, 6, flags & ~0x4000 | (0x4000 if report_node else 0))
        if report_node:
            start[72:76] = bytes(map(int, report_node[0].split(".")))
            start[76:78] = struct.pack(">H", report_node[1])
        self.send(start)

    def timed(self, datagram):
        datagram = bytearray(of_call(self.number, datagram))
        struct.pack_into("<q", datagram, 32, self.time)
        return bytes(datagram)

    def send(self, datagram):
        self.node.send(bytes(datagram))

    def data(self, side, sound):
        self.sent[side] += 1
        head = self.timed(golden(("call_2_read", "call_3_write")[side]))[:40]
        fixed = struct.pack("<IIH", self.sent[side], self.spoken[side], len(sound))
        self.spoken[side] += len(sound)
        return head + fixed + struct.pack(f"<{len(sound)}h", *sound)

    def speak(self, *sounds):
        """The sounds of the sides at once, in frames of 20 ms."""
        for begin in range(0, max(map(len, sounds)), FRAME):
            self.time += 20_000
            for side, sound in enumerate(sounds):
                frame = sound[begin:begin + FRAME]
                if frame:
                    self.send(self.data(side, frame))

    def datagrams(self, side, sound, lengths):
        """The sound in frames of these lengths in turn, each with its send time."""
        begun, said = self.time, 0
        made = []
        for length in itertools.cycle(lengths):
            if said == len(sound):
                self.time = begun
                return made
            frame = sound[said:said + length]
            said += len(frame)
            self.time = begun + said * 1_000_000 // RATE
            made.append((self.time, self.data(side, frame)))

    def switch(self, supported, active):
        control = bytearray(self.timed(golden("call_6_control")))
        control[40:42] = bytes([supported, active])
        self.send(control)

    def end(self):
        self.send(self.timed(golden("call_7_terminate")))
        uuid = uuid_of(self.number)
        self.node.wait_for(uuid + "  end ")
        if self.node.events():  # They are written after the lines.
            self.node.wait_for(f'"event":"end".*{uuid}|{uuid}.*"event":"end"')


def in_disorder(datagrams, choice):
    """Loses some, one or three in a row; doubles some; lets some be overtaken by up to five."""
    arrivals = []
    for number, datagram in enumerate(datagrams):
        copies = 2 if choice.random() < 0.05 else 1
        for _ in range(copies):
            late = choice.uniform(1, 5) if choice.random() < 0.1 else 0
            arrivals.append((number + late, datagram))
    lost = set()
    while len(lost) < len(datagrams) // 30:
        first = choice.randrange(1, len(datagrams) - 3)
        lost.update(datagrams[first:first + choice.choice((1, 3))])
    return [datagram for _, datagram in sorted(arrivals) if datagram not in lost]


def events_of(node, kind, number, side="originator"):
    """Those events of a side; they have the fields that the document lists."""
    found = [event for event in node.events(kind)
             if event["call_uuid"] == uuid_of(number) and event["call_side"] == side]
    for event in found:
        if set(event) != listed_event_fields()[kind]:
            raise AssertionError(f"fields of {event}")
    return found


class Hearing(unittest.TestCase):
    def near(self, position, expected, milliseconds=50):
        self.assertLessEqual(abs(position - expected), milliseconds * RATE // 1000,
                             f"{position}, not {expected}")

    def test_activity_is_heard_where_the_call_asks_for_it(self):
        with Node("--rate", str(RATE), "--events", "-") as node:
            call = SentCall(node, 1, active=ACTIVITY[ORIGINATOR])
            sound = silence(1) + buzz(1.5) + silence(1)
            call.speak(sound, sound)
            call.end()
            began, ended = events_of(node, "activity", 1)
            self.assertEqual([began["active"], ended["active"]], [True, False])
            self.near(began["position"], 1 * RATE)
            self.near(ended["position"], 2.5 * RATE)
            self.assertGreaterEqual(began["noticed"], began["position"])
            self.assertEqual(events_of(node, "activity", 1, "terminator"), [])
            kinds = [event["event"] for event in node.events()]
            self.assertLess(kinds.index("activity"), kinds.index("end"))
            self.assertRegex(node.text(),
                             uuid_of(1) + r"  activity +originator.* (1\.0|0\.9)\d\d s")

    def test_activity_runs_from_one_control_packet_to_the_other(self):
        with Node("--rate", str(RATE), "--events", "-") as node:
            call = SentCall(node, 1)
            call.speak(buzz(1, 1))
            call.switch(ACTIVITY[ORIGINATOR], ACTIVITY[ORIGINATOR])
            call.speak(buzz(1, 2))
            call.switch(ACTIVITY[ORIGINATOR], 0)
            call.speak(buzz(1, 3))
            call.end()
            changes = events_of(node, "running", 1)
            self.assertEqual([(change["audio_activity"], change["position"])
                              for change in changes], [(True, RATE), (False, 2 * RATE)])
            began, ended = events_of(node, "activity", 1)
            self.assertGreaterEqual(began["position"], RATE)
            self.near(began["position"], RATE)
            self.assertLessEqual(ended["position"], 2 * RATE)
            self.near(ended["position"], 2 * RATE)

    def test_activity_ends_in_a_pause_of_the_sender(self):
        with Node("--rate", str(RATE), "--events", "-") as node:
            call = SentCall(node, 1, active=ACTIVITY[ORIGINATOR])
            call.speak(buzz(1, 1))
            call.time += 2_000_000
            call.speak(buzz(1, 2))
            call.end()
            self.assertEqual([event["samples"] for event in node.events("pause")], [2 * RATE])
            changes = events_of(node, "activity", 1)
            self.assertEqual([change["active"] for change in changes], [True, False, True, False])
            for change, expected in zip(changes, (0, RATE, RATE, 2 * RATE)):
                self.near(change["position"], expected)

    def test_sample_is_recognised_where_it_begins(self):
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            write_wav(folder / "greeting.wav", buzz(2, 42))
            write_wav(folder / "other.wav", buzz(2, 43))
            write_wav(folder / "short.wav", buzz(0.2, 44))
            write_wav(folder / "wide.wav", buzz(2, 45), channels=2)
            (folder / "noise.wav").write_bytes(b"RIFF")
            with Node("--rate", str(RATE), "--events", "-", "--samples", str(folder)) as node:
                for name in ("short.wav", "wide.wav", "noise.wav"):
                    node.wait_for(f'sample refused +"{name}": ')
                node.wait_for("  samples +2 ")
                call = SentCall(node, 1, active=DETECTION[TERMINATOR])
                sound = buzz(2, 3) + buzz(2, 42, amplitude=3000) + buzz(1, 4)
                call.speak(sound, sound)
                call.end()
                self.assertEqual(events_of(node, "sample", 1), [])
                found, = events_of(node, "sample", 1, "terminator")
                self.assertEqual(found["sample"], "greeting")
                self.near(found["position"], 2 * RATE)
                self.assertGreater(found["score"], 0.3)
                self.assertLessEqual(found["score"], 1)
                self.assertEqual(node.events("activity"), [])

    def test_odd_frames_in_disorder_are_heard_once_and_in_their_places(self):
        # Frames of 7 ms, of about 4 ms, and of another length each time.
        calls = {1: ((56,), (33,)), 2: ((33,), (56,)), 3: ((1, 247, 33, 160, 80, 7), (661, 5))}
        sounds = (silence(1) + buzz(2, 42) + silence(1) + buzz(2, 43) + silence(1),
                  silence(1.5) + buzz(2, 43) + silence(1))
        places = ([("greeting", 1), ("notice", 4)], [("notice", 1.5)])
        choice = random.Random(11)
        with tempfile.TemporaryDirectory() as folder:
            write_wav(pathlib.Path(folder) / "greeting.wav", buzz(2, 42))
            write_wav(pathlib.Path(folder) / "notice.wav", buzz(2, 43))
            for options in ((), ("--rate", str(RATE))):
                with Node("--events", "-", "--samples", folder, *options) as node:
                    for number, lengths in calls.items():
                        call = SentCall(node, number, active=ALL_FEATURES)
                        sides = [call.datagrams(side, sounds[side], lengths[side])
                                 for side in (ORIGINATOR, TERMINATOR)]
                        for datagram in in_disorder([each for _, each in heapq.merge(*sides)],
                                                    choice):
                            call.send(datagram)
                        call.time += len(sounds[ORIGINATOR]) * 1_000_000 // RATE
                        call.end()
                        self.check_heard(node, number, places)

    def test_sample_is_recognised_after_the_rate_has_changed(self):
        greeting = buzz(2, 42)
        wide = [value for pair in zip(greeting, greeting[1:] + [0])
                for value in (pair[0], sum(pair) // 2)]
        with tempfile.TemporaryDirectory() as folder:
            write_wav(pathlib.Path(folder) / "greeting.wav", greeting)
            with Node("--events", "-", "--samples", folder) as node:
                call = SentCall(node, 1, active=ACTIVITY[ORIGINATOR] | DETECTION[ORIGINATOR])
                call.speak(greeting + silence(3))
                sound = 2 * silence(2) + wide + 2 * silence(1)
                for begin in range(0, len(sound), 2 * FRAME):
                    call.time += 20_000
                    call.send(call.data(ORIGINATOR, sound[begin:begin + 2 * FRAME]))
                call.end()
                change, = node.events("rate_change")
                self.assertEqual((change["position"], change["new_sample_rate"]), (5 * RATE, 2 * RATE))
                first, again = events_of(node, "sample", 1)
                self.near(first["position"], 0)
                self.near(again["position"], 5 * RATE + 2 * 2 * RATE, 2 * 50)
                changes = events_of(node, "activity", 1)
                self.assertEqual([each["active"] for each in changes], [True, False, True, False])
                for each, second in zip(changes[2:], (2, 4)):
                    self.near(each["position"], 5 * RATE + second * 2 * RATE, 2 * 50)

    def check_heard(self, node, number, places):
        """That each side has exactly these samples of two seconds, and nothing else."""
        end, = [event for event in node.events("end") if event["call_uuid"] == uuid_of(number)]
        for side, expected in zip(("originator", "terminator"), places):
            for count in ("lost_packets", "reordered_packets", "duplicated_packets"):
                self.assertGreater(end["sides"][side][count], 0, (number, side))
            found = events_of(node, "sample", number, side)
            self.assertEqual([each["sample"] for each in found], [name for name, _ in expected])
            for each, (_, second) in zip(found, expected):
                self.near(each["position"], second * RATE)
            changes = events_of(node, "activity", number, side)
            self.assertEqual([each["active"] for each in changes], len(expected) * [True, False])
            seconds = [second for _, begin in expected for second in (begin, begin + 2)]
            for each, second in zip(changes, seconds):
                self.near(each["position"], second * RATE)

    def test_folder_of_samples_is_read_again_when_the_node_is_asked_to(self):
        with tempfile.TemporaryDirectory() as folder:
            write_wav(pathlib.Path(folder) / "old.wav", buzz(2, 41))
            with Node("--rate", str(RATE), "--events", "-", "--samples", folder) as node:
                call = SentCall(node, 1, active=DETECTION[ORIGINATOR])
                call.speak(buzz(1, 3))
                write_wav(pathlib.Path(folder) / "new.wav", buzz(2, 42))
                node.process.send_signal(signal.SIGHUP)
                node.wait_for("  samples +2 ")
                # What receives takes the new samples a moment later.
                end = time.monotonic() + PATIENCE
                while not events_of(node, "sample", 1):
                    self.assertLess(time.monotonic(), end)
                    call.speak(buzz(2, 42))
                    time.sleep(0.1)
                call.end()
                found = events_of(node, "sample", 1)[0]
                self.assertEqual(found["sample"], "new")
                self.near(found["position"] % (2 * RATE), RATE)

    def test_folder_without_a_usable_sample_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            write_wav(pathlib.Path(folder) / "short.wav", buzz(0.2, 44))
            for samples_folder, reason in ((folder, folder),
                                           (folder + "/none", "No such file or directory")):
                bad = subprocess.run([NODE, "--listen", "127.0.0.1:0", "--output", folder,
                                      "--samples", samples_folder],
                                     capture_output=True, text=True, timeout=20)
                self.assertEqual(bad.returncode, 3)
                self.assertIn(reason, bad.stderr)

    def test_options_that_make_no_sense_are_refused(self):
        for option, value in (("--record", "some"), ("--activity-level", "3"),
                              ("--activity-level", "nan"), ("--activity-hang-over", "-1"),
                              ("--activity-minimum", "10001"), ("--samples", "")):
            bad = subprocess.run([NODE, option, value], capture_output=True, text=True, timeout=20)
            self.assertEqual(bad.returncode, 2, option)
            self.assertIn(option, bad.stderr)

    def test_side_is_recorded_where_the_call_asks_for_it(self):
        with Node("--rate", str(RATE), "--events", "-", "--record", "requested") as node:
            call = SentCall(node, 1)
            sound = buzz(3)
            call.speak(sound[:RATE], sound[:RATE])
            call.switch(RECORDING[ORIGINATOR], RECORDING[ORIGINATOR])
            call.speak(sound[RATE:2 * RATE], sound[RATE:2 * RATE])
            call.switch(RECORDING[ORIGINATOR], 0)
            call.speak(sound[2 * RATE:], sound[2 * RATE:])
            call.end()
            recorded = samples(node.folder / f"{uuid_of(1)}-originator.wav")
            self.assertEqual(recorded, silence(1) + sound[RATE:2 * RATE] + silence(1))
            self.assertFalse((node.folder / f"{uuid_of(1)}-terminator.wav").exists())

    def test_control_packet_acts_on_audio_that_is_held_when_it_comes(self):
        with Node("--rate", str(RATE), "--record", "requested", "--reorder-wait", "5") as node:
            call = SentCall(node, 1, active=RECORDING[ORIGINATOR])
            sound = buzz(0.1)
            for number in range(5):
                call.time += 20_000
                frame = call.data(ORIGINATOR, sound[number * FRAME:][:FRAME])
                if number == 0:
                    first = frame
                else:
                    call.send(frame)  # Waits for the first.
                if number == 2:
                    call.switch(RECORDING[ORIGINATOR], 0)
            call.send(first)
            call.end()
            recorded = samples(node.folder / f"{uuid_of(1)}-originator.wav")
            self.assertEqual(recorded, sound[:3 * FRAME] + 2 * FRAME * [0])

    def test_nothing_is_recorded_when_that_is_asked_for(self):
        with Node("--rate", str(RATE), "--record", "none") as node:
            call = SentCall(node, 1, active=RECORDING[ORIGINATOR])
            call.speak(buzz(0.5))
            call.end()
            self.assertEqual(list(node.folder.iterdir()), [])


class Reports(unittest.TestCase):
    """What the report node of a call gets."""

    def setUp(self):
        self.receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.receiver.close)
        self.receiver.bind(("127.0.0.1", 0))
        self.address = self.receiver.getsockname()

    def reports(self):
        """What came by now, each in one datagram; the time is checked and taken out."""
        self.receiver.setblocking(False)
        found = []
        while True:
            try:
                datagram = self.receiver.recv(65536)
            except BlockingIOError:
                return found
            self.assertLessEqual(len(datagram), 1200)
            found.append(json.loads(datagram))
            self.assertRegex(found[-1].pop("time"), r"^\d{4}-\d\d-\d\dT[\d:.]+Z$")

    def heard_call(self, *options, report_node=None):
        """A call with a sample; returns the events of the kinds that are reported, and the text."""
        with tempfile.TemporaryDirectory() as folder:
            write_wav(pathlib.Path(folder) / "greeting.wav", buzz(2, 42))
            with Node("--rate", str(RATE), "--events", "-", "--samples", folder,
                      *options) as node:
                call = SentCall(node, 1, active=ACTIVITY[ORIGINATOR] | DETECTION[ORIGINATOR],
                                report_node=report_node or self.address)
                call.speak(silence(1) + buzz(2, 42) + silence(1), silence(4))
                call.end()
                self.assertEqual(node.stop(), 0)
                kinds = ("start", "activity", "sample", "end")
                events = [event for event in node.events() if event["event"] in kinds]
                for event in events:
                    del event["time"]
                return events, node.text()

    def test_report_node_gets_the_events_of_its_call(self):
        events, text = self.heard_call("--reports")
        reports = self.reports()
        self.assertEqual([report["event"] for report in reports],
                         ["start", "activity", "sample", "activity", "end"])
        end, reported_end = events.pop(), reports.pop()
        self.assertEqual(reports, events)
        for name in reported_end.pop("shortened", []):
            del end[name]
        self.assertEqual(reported_end, end)
        self.assertRegex(text, r"reports sent: 5\n")

    def test_nothing_is_reported_unless_asked_for(self):
        self.heard_call()
        self.assertEqual(self.reports(), [])

    def test_report_node_outside_the_networks_gets_nothing(self):
        _, text = self.heard_call("--reports", "--report-to", "192.0.2.0/24")
        self.assertEqual(self.reports(), [])
        self.assertRegex(text, r"reports not sent: 5 ")
        self.assertRegex(text, r"report node not allowed .*127\.0\.0\.1:%d" % self.address[1])

    def test_report_node_in_one_of_the_networks_gets_reports(self):
        self.heard_call("--reports", "--report-to", "192.0.2.0/24", "--report-to", "127.0.0.1")
        self.assertEqual(len(self.reports()), 5)

    def test_example_prints_the_reports(self):
        self.receiver.close()
        listener = subprocess.Popen(
            [sys.executable, LISTENER, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE,
            text=True)
        self.addCleanup(listener.stdout.close)
        self.addCleanup(listener.wait)
        self.addCleanup(listener.kill)
        port = int(listener.stdout.readline().rpartition(":")[2])
        self.heard_call("--reports", report_node=("127.0.0.1", port))
        lines = [listener.stdout.readline().rstrip("\n").split(uuid_of(1) + "  ")[1]
                 for _ in range(5)]
        self.assertRegex(lines[0], "^begins, reference '")
        self.assertRegex(lines[1], r"^activity begins at (1\.0|0\.9)\d\d s of the originator$")
        self.assertRegex(lines[2], r"^sample 'greeting' at (1\.0|0\.9)\d\d s of the originator, ")
        self.assertRegex(lines[3], r"^activity ends at (3\.0|2\.9)\d\d s of the originator$")
        self.assertEqual(lines[4],
                         "ends: terminated, originator 4.0 s, terminator 4.0 s")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            for datagram in (b"\x1b[2J", b"[1]", b'{"event":"\\u001b[2J"}', b"\xff", b"",
                             b'{"time":"\\u001b[2J","call_uuid":[],"event":"end","reason":"x"}',
                             100_000 * b"["[:1]):
                stranger.sendto(datagram[:60_000], ("127.0.0.1", port))
                line = listener.stdout.readline().rstrip("\n")
                self.assertTrue(line.isprintable(), repr(line))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=1)
