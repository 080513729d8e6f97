#!/usr/bin/env python3
"""Runs the example receivers over loopback with the golden datagrams and with send_call.py.

    test_receivers.py PROGRAM [QUORVANE_CALL MODULE]

PROGRAM is the program built from examples/receiver.cpp. The receiver in C is compiled with the
command of the README; without the compiler `cc` its tests are skipped. With the call driver and the
module, the receivers also get calls that went through the module.
"""

import json
import pathlib
import random
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import wave

ROOT = pathlib.Path(__file__).resolve().parents[2]
DATA = ROOT / "tests" / "data"
GOLDEN = json.loads((DATA / "golden.json").read_text(encoding="utf-8"))
CALL = sorted(name for name in GOLDEN if name.startswith("call_"))
UUID = GOLDEN["call_1_start"]["call_uuid"]
KEY = GOLDEN["call_1_start"]["call_key"]
WAVE_SAMPLES = [0, 100, 200, 100, 0, -100, -200, -100]
README = (ROOT / "examples" / "README.md").read_text(encoding="utf-8")
PROGRAM = None  # The receiver in C++, set by main().
CALL_DRIVER = None  # quorvane-call and its option for the module.


def datagram(name):
    text = (DATA / f"{name}.hex").read_text(encoding="utf-8")
    return bytes.fromhex("".join(line.split("#")[0] for line in text.splitlines()))


def data(sequence_number, sample_offset, samples):
    """A data packet of the golden call's read leg."""
    audio = b"".join(sample.to_bytes(2, "little", signed=True) for sample in samples)
    packet = bytearray(datagram("call_2_read"))[:50]
    packet[40:44] = sequence_number.to_bytes(4, "little")
    packet[44:48] = sample_offset.to_bytes(4, "little")
    packet[48:50] = len(samples).to_bytes(2, "little")
    return bytes(packet) + audio


def start_of_tap(number):
    """The start packet of the golden call's first, second... tap."""
    packet = bytearray(datagram("call_1_start"))
    packet[56:64] = (3600000000 + number * 1000000).to_bytes(8, "little")
    return bytes(packet)


def damaged(chance):
    """A golden datagram with some bytes changed, and sometimes cut short."""
    packet = bytearray(datagram(chance.choice(sorted(set(GOLDEN) - {"malformed_empty"}))))
    for _ in range(chance.randrange(8)):
        packet[chance.randrange(len(packet))] = chance.randrange(256)
    return bytes(packet[: chance.randrange(1, len(packet))] if chance.random() < 0.3 else packet)


def samples_of(path):
    with wave.open(str(path), "rb") as file:
        assert (file.getnchannels(), file.getsampwidth(), file.getframerate()) == (1, 2, 8000)
        raw = file.readframes(file.getnframes())
    return [int.from_bytes(raw[at : at + 2], "little", signed=True) for at in range(0, len(raw), 2)]


def readme_command(pattern):
    """A command as it is in the README."""
    return next(line.strip() for line in README.splitlines() if re.match(" {4,}" + pattern, line))


class ReceiverTest(unittest.TestCase):
    maxDiff = None

    def start(self, command):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        command = [part.replace("FOLDER", folder.name) for part in command]
        self.process = subprocess.Popen(command, cwd=ROOT, stdout=subprocess.PIPE, text=True,
                                        errors="replace")
        self.addCleanup(self.process.stdout.close)
        self.addCleanup(self.process.wait)
        self.addCleanup(self.process.kill)
        self.port = int(re.search(r"127\.0\.0\.1:(\d+)", self.process.stdout.readline()).group(1))

    def send(self, *payloads):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            for payload in payloads:
                sock.sendto(payload, ("127.0.0.1", self.port))

    def lines(self, count):
        return [self.process.stdout.readline().rstrip("\n") for _ in range(count)]

    def stop(self, with_signal=signal.SIGINT):
        self.process.send_signal(with_signal)
        output, _ = self.process.communicate(timeout=20)
        self.assertEqual(self.process.returncode, 0)
        return output.splitlines()


    def send_damaged(self, count):
        """Sends them in batches that fit into the socket's buffer. After each batch comes a
        malformed datagram, whose refusal shows that the receiver has read the batch."""
        chance = random.Random(1)
        for size in range(1, 1 + count // 20):
            self.send(*[damaged(chance) for _ in range(20)], bytes(size))
            while not re.search(rf"too short .*\b{size}\b", self.lines(1)[0]):
                self.assertIsNone(self.process.poll())


    def place_calls(self, *options):
        """Places calls of one second through the module, 50 frames per side."""
        if not CALL_DRIVER:
            self.skipTest("no call driver given")
        names = []
        for name, level in (("read", 1000), ("write", -2000)):
            names += [f"--{name}", str(self.folder / f"{name}-source.wav")]
            with wave.open(names[-1], "wb") as file:
                file.setparams((1, 2, 8000, 0, "NONE", ""))
                file.writeframes(b"".join((level + at % 100).to_bytes(2, "little", signed=True)
                                          for at in range(8000)))
        subprocess.run([*CALL_DRIVER, "--media-node", f"127.0.0.1:{self.port}", *names, *options],
                       check=True, stdout=subprocess.DEVNULL, timeout=60)


class PythonReceiver(ReceiverTest):
    def setUp(self):
        self.start([sys.executable, "examples/receiver.py", "--listen", "127.0.0.1:0",
                    "--output", "FOLDER"])

    def event(self, line):
        """An event without its time, which differs in every run."""
        event = json.loads(line)
        self.assertRegex(event.pop("time"), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        return event

    def events(self, count):
        return [self.event(line) for line in self.lines(count)]

    def end(self):
        """Interrupts the receiver; returns the remaining events."""
        return [self.event(line) for line in self.stop()]

    def written_samples(self, end, side="originator"):
        """The samples of a side's file, which the `end` event names."""
        path = next(file["path"] for file in end["files"] if side in file["path"])
        return samples_of(path)

    def test_call_becomes_two_files_and_the_documents_fields(self):
        self.send(*[datagram(name) for name in CALL])
        events = self.events(3)
        for event, name in zip(events, ("call_1_start", "call_6_control", "call_7_terminate")):
            self.assertEqual(event, {"event": GOLDEN[name]["packet_type"], **GOLDEN[name]})
        self.assertEqual(self.events(1), [{
            "event": "end", "call_key": KEY, "call_uuid": UUID, "reason": "terminated",
            "start_seen": True, "control_packets": 1,
            "sides": {
                "originator": {"leg": 0, "sample_rate": 8000, "packets": 2, "samples": 16,
                               "lost_packets": 0},
                "terminator": {"leg": 1, "sample_rate": 8000, "packets": 2, "samples": 16,
                               "lost_packets": 0}},
            "files": [{"path": str(self.folder / f"{UUID}-originator.wav"), "error": ""},
                      {"path": str(self.folder / f"{UUID}-terminator.wav"), "error": ""}]}])
        self.assertEqual(samples_of(self.folder / f"{UUID}-originator.wav"), WAVE_SAMPLES * 2)
        self.assertEqual(samples_of(self.folder / f"{UUID}-terminator.wav"),
                         [0] * 8 + [1000, -1000] * 4)

    def test_gap_is_reported_and_becomes_silence(self):
        self.send(data(1, 0, [1, 2]), data(4, 6, [7, 8]))
        self.assertEqual(self.events(1), [{
            "event": "gap", "call_key": KEY, "call_uuid": UUID, "call_side": "originator",
            "leg": 0, "sequence_number": 2, "sample_offset": 2, "lost_packets": 2,
            "missing_samples": 4}])
        end = self.end()[0]
        side = end["sides"]["originator"]
        self.assertEqual((side["packets"], side["lost_packets"]), (2, 2))
        self.assertEqual(self.written_samples(end), [1, 2, 0, 0, 0, 0, 7, 8])

    def test_late_packet_is_put_at_its_place_and_a_copy_is_dropped(self):
        self.send(data(1, 0, [1, 2]), data(3, 4, [5, 6]), data(2, 2, [3, 4]), data(2, 2, [9, 9]))
        gap, dropped = self.events(2)
        self.assertEqual(gap["event"], "gap")
        self.assertEqual(dropped, {
            "event": "dropped", "call_key": KEY, "call_uuid": UUID, "call_side": "originator",
            "leg": 0, "sequence_number": 2, "sample_offset": 2, "sample_count": 2,
            "reason": "duplicate data packet"})
        end = self.end()[0]
        side = end["sides"]["originator"]
        self.assertEqual((side["packets"], side["lost_packets"]), (3, 0))
        self.assertEqual(self.written_samples(end), [1, 2, 3, 4, 5, 6])

    def test_call_is_joined_in_its_middle_and_counters_wrap(self):
        self.send(datagram("data_before_wrap"), datagram("data_after_wrap"))
        self.assertEqual(self.written_samples(self.end_after_packets()), WAVE_SAMPLES * 2)

    def end_after_packets(self):
        """The `end` event. First a malformed datagram shows that all before it were read."""
        self.send(b"end")
        self.assertEqual(self.events(1)[0]["event"], "malformed")
        events = self.end()
        self.assertEqual([event["event"] for event in events], ["end"])
        self.assertEqual(events[0]["reason"], "shutdown")
        return events[0]

    def test_termination_closes_the_files(self):
        self.send(data(1, 0, [1, 2]), b"end")
        self.events(1)
        end = self.event(self.stop(signal.SIGTERM)[0])
        self.assertEqual(self.written_samples(end), [1, 2])

    def test_packet_without_samples_is_counted(self):
        self.send(data(1, 0, [1, 2]), data(2, 2, []), data(3, 2, [3]))
        side = self.end_after_packets()["sides"]["originator"]
        self.assertEqual((side["packets"], side["samples"]), (3, 3))

    def test_offset_beyond_belief_is_dropped(self):
        self.send(data(1, 0, [1, 2]), data(2, 0x7FFFFFF0, [3]))
        dropped = self.events(1)[0]
        self.assertEqual((dropped["event"], dropped["reason"]),
                         ("dropped", "implausible sample offset"))
        self.assertEqual(self.end()[0]["sides"]["originator"]["samples"], 2)

    def test_second_tap_on_a_call_gets_files_of_its_own(self):
        self.send(start_of_tap(1), data(1, 0, [1]), start_of_tap(2), data(1, 0, [2]))
        events = self.events(3)
        self.assertEqual([event["event"] for event in events], ["start", "end", "start"])
        self.assertEqual(events[1]["reason"], "replaced")
        self.end_after_packets()
        self.assertEqual(samples_of(self.folder / f"{UUID}-originator.wav"), [1])
        self.assertEqual(samples_of(self.folder / f"{UUID}-2-originator.wav"), [2])

    def test_fifty_taps_on_a_call_get_files_of_their_own(self):
        for number in range(1, 51):
            self.send(start_of_tap(number), data(1, 0, [number]))
            self.events(1 if number == 1 else 2)
        self.end_after_packets()
        self.assertEqual(samples_of(self.folder / f"{UUID}-50-originator.wav"), [50])
        self.assertEqual(len(list(self.folder.glob("*.wav"))), 50)

    def test_sides_of_a_tap_share_their_number(self):
        (self.folder / f"{UUID}-terminator.wav").touch()
        self.send(data(1, 0, [1]))
        self.end_after_packets()
        self.assertEqual(samples_of(self.folder / f"{UUID}-2-originator.wav"), [1])

    def test_file_that_cannot_be_written_ends_its_call_alone(self):
        other = bytearray(data(1, 0, [7]))
        other[16:32] = bytes(range(16))
        self.send(start_of_tap(1), data(1, 0, [1]), bytes(other), b"end")
        self.events(2)
        (self.folder / f"{UUID}-originator.wav").symlink_to("/nowhere/at/all")
        self.send(datagram("call_7_terminate"))
        terminate, failed, end = self.events(3)
        self.assertEqual(terminate["event"], "terminate")
        path = str(self.folder / f"{UUID}-originator.wav")
        self.assertEqual(failed, {"event": "file_error", "call_key": KEY, "call_uuid": UUID,
                                  "path": path, "error": "No such file or directory"})
        self.assertEqual(end["files"], [{"path": path, "error": "No such file or directory"}])
        self.assertEqual(self.written_samples(self.end_after_packets()), [7])

    def test_vanished_folder_is_reported_and_the_receiver_goes_on(self):
        self.send(start_of_tap(1), data(1, 0, [1]), start_of_tap(2))
        self.events(3)
        for path in self.folder.iterdir():
            path.unlink()
        self.folder.rmdir()
        self.addCleanup(self.folder.mkdir)
        self.send(data(1, 0, [2]), start_of_tap(3))
        self.assertEqual([event["event"] for event in self.events(3)],
                         ["file_error", "end", "start"])

    def test_malformed_datagrams_are_refused_with_the_documents_reason(self):
        for name in GOLDEN:
            if "malformed" in GOLDEN[name]:
                with self.subTest(name):
                    self.send(datagram(name))
                    self.assertEqual(self.events(1)[0], {
                        "event": "malformed", "reason": GOLDEN[name]["malformed"],
                        "size": len(datagram(name))})
        self.assertEqual(self.end(), [])

    def test_damaged_datagrams_do_no_harm(self):
        self.send_damaged(200)
        self.assertEqual({event["event"] for event in self.end()}, {"end"})

    def test_calls_through_the_module_come_out_sample_by_sample(self):
        self.place_calls("--calls", "3", "--api", "0.2 quorvane {uuid} audio_activity stop both",
                         "--set", "quorvane_audio_activity=true", "--set", "quorvane_rule_id=7")
        events = self.events(12)
        kinds = sorted(event["event"] for event in events)
        self.assertEqual(kinds, ["control"] * 3 + ["end"] * 3 + ["start"] * 3 +
                         ["terminate"] * 3)
        for call in (event for event in events if event["event"] == "end"):
            for name, level in (("originator", 1000), ("terminator", -2000)):
                side = call["sides"][name]
                self.assertEqual((side["packets"], side["lost_packets"]), (50, 0))
                self.assertEqual(self.written_samples(call, name),
                                 [level + at % 100 for at in range(8000)])
        starts = [event for event in events if event["event"] == "start"]
        self.assertEqual({event["call_reference"] for event in starts},
                         {event["call_uuid"] + "@quorvane-call" for event in starts})

    def test_commands_of_the_readme_do_what_it_says(self):
        self.stop()
        receive = readme_command("python3 examples/receiver.py")
        self.start(shlex.split(receive.replace(":5090", ":0").replace(" calls ", " FOLDER ")))
        send = readme_command("python3 examples/send_call.py")
        subprocess.run(shlex.split(send.replace(":5090", f":{self.port}")), cwd=ROOT, check=True,
                       stdout=subprocess.DEVNULL, timeout=30)
        events = [self.event(line) for line in self.process.communicate(timeout=20)[0].splitlines()]
        self.assertEqual([event["event"] for event in events],
                         ["start", "gap", "control", "terminate", "end"])
        self.assertEqual((events[1]["lost_packets"], events[1]["missing_samples"]), (2, 320))
        sides = events[4]["sides"]
        self.assertEqual([sides[side]["samples"] for side in ("originator", "terminator")],
                         [16000, 16000])
        lost = self.written_samples(events[4])[19 * 160 : 21 * 160]
        self.assertEqual(lost, [0] * 320)

    def refusal(self, *options):
        result = subprocess.run([sys.executable, "examples/receiver.py", *options], cwd=ROOT,
                                capture_output=True, text=True, timeout=10, check=False)
        self.assertNotEqual(result.returncode, 0)
        return result.stderr.splitlines()[-1]

    def test_mistakes_are_named(self):
        self.assertEqual(self.refusal("--listen", f"127.0.0.1:{self.port}"),
                         f"cannot listen on 127.0.0.1:{self.port}: Address already in use")
        for text in ("localhost", "127.0.0.1:99999", "127.0.0.1:-1"):
            self.assertEqual(
                self.refusal("--listen", text),
                f"receiver.py: error: argument --listen: '{text}' is no address and port")
        self.assertEqual(self.refusal("--listen", "127.0.0.1:0", "--output", "README.md"),
                         "cannot write to folder README.md: File exists")


class PrintsPackets:
    """Cases of the receivers that print lines for people."""

    def test_control_characters_of_a_reference_do_not_reach_the_terminal(self):
        start = bytearray(datagram("call_1_start"))
        start[82:84] = b"\x1b\n"
        self.send(bytes(start))
        self.assertIn("reference=??4b4c76e66710@192.0.2.7 ", self.lines(1)[0])

    def test_malformed_datagrams_are_refused_with_the_documents_reason(self):
        for name in GOLDEN:
            if "malformed" in GOLDEN[name]:
                with self.subTest(name):
                    self.send(datagram(name))
                    self.assertEqual(self.lines(1), [
                        f"refused: {GOLDEN[name]['malformed']} ({len(datagram(name))} bytes)"])


class CppReceiver(PrintsPackets, ReceiverTest):
    def setUp(self):
        if not PROGRAM:
            self.skipTest("no program given")
        self.start([PROGRAM, "127.0.0.1", "0"])

    def test_call_is_reported_line_by_line(self):
        self.send(*[datagram(name) for name in CALL])
        self.assertEqual(self.lines(4), [
            f"{UUID} start: inbound reference=a84b4c76e66710@192.0.2.7 features=cccc",
            f"{UUID} control: features=ccc0",
            f"{UUID} end: originator packets=2 samples=16 lost_packets=0 peak=200",
            f"{UUID} end: terminator packets=2 samples=16 lost_packets=0 peak=1000"])
        self.assertEqual(self.stop(), [])

    def test_call_through_the_module_is_reported(self):
        call = "0d1f7c5e-2b64-4c39-8f0a-6f2d9f3b1a77"
        self.place_calls("--uuid", call)
        self.assertEqual(self.lines(3), [
            f"{call} start: inbound reference={call}@quorvane-call features=0000",
            f"{call} end: originator packets=50 samples=8000 lost_packets=0 peak=1099",
            f"{call} end: terminator packets=50 samples=8000 lost_packets=0 peak=2000"])

    def test_gap_and_late_packet_are_reported(self):
        self.send(data(1, 0, [1, 2]), data(3, 4, [5, 6]), data(2, 2, [3, 4]))
        self.assertEqual(self.lines(2), [
            f"{UUID} gap: originator lost_packets=1 missing_samples=2",
            f"{UUID} late or copied: originator sequence number 2"])
        self.assertEqual(self.stop(signal.SIGTERM), [
            f"{UUID} end: originator packets=2 samples=4 lost_packets=1 peak=6",
            f"{UUID} end: terminator packets=0 samples=0 lost_packets=0 peak=0"])

    def test_data_behind_the_terminate_packet_belongs_to_the_call(self):
        self.send(data(1, 0, [1]), datagram("call_7_terminate"), data(2, 1, [2]),
                  datagram("call_7_terminate"))
        self.assertEqual(self.lines(2), [
            f"{UUID} end: originator packets=2 samples=2 lost_packets=0 peak=2",
            f"{UUID} end: terminator packets=0 samples=0 lost_packets=0 peak=0"])
        self.assertEqual(self.stop(), [])

    def test_terminate_packet_of_an_unknown_call_is_not_reported(self):
        self.send(datagram("call_7_terminate"), datagram("call_7_terminate"), b"end")
        self.assertEqual(self.lines(1), ["refused: too short for its packet type (3 bytes)"])
        self.assertEqual(self.stop(), [])

    def test_counters_wrap_without_a_gap(self):
        self.send(datagram("data_before_wrap"), datagram("data_after_wrap"), b"end")
        self.assertEqual(self.lines(1), ["refused: too short for its packet type (3 bytes)"])

    def test_second_tap_counts_from_the_beginning(self):
        self.send(start_of_tap(1), data(1, 0, [1]), data(2, 1, [1]), start_of_tap(2),
                  data(1, 0, [2]), datagram("call_7_terminate"))
        told = self.lines(6)
        self.assertEqual([told[1], told[4]], [
            f"{UUID} end: originator packets=2 samples=2 lost_packets=0 peak=1",
            f"{UUID} end: originator packets=1 samples=1 lost_packets=0 peak=2"])

    def test_damaged_datagrams_do_no_harm(self):
        self.send_damaged(600)
        self.stop()

    def test_address_in_use_is_named(self):
        result = subprocess.run([PROGRAM, "127.0.0.1", str(self.port)], capture_output=True,
                                text=True, timeout=10, check=False)
        self.assertEqual((result.returncode, result.stderr), (
            1, f"cannot listen on 127.0.0.1:{self.port}: Address already in use\n"))

    def test_command_of_the_readme_compiles_it(self):
        command = readme_command(r"g\+\+ ").replace("-o receiver", f"-o {self.folder}/receiver")
        subprocess.run(shlex.split(command), cwd=ROOT, check=True, timeout=60)
        result = subprocess.run([self.folder / "receiver"], capture_output=True, text=True,
                                timeout=10, check=False)
        self.assertIn("usage: ", result.stderr)

    def test_address_that_is_none_is_named(self):
        result = subprocess.run([PROGRAM, "localhost", "5090"], capture_output=True, text=True,
                                timeout=10, check=False)
        self.assertEqual((result.returncode, result.stderr),
                         (1, "not an IPv4 address: localhost\n"))

    def test_port_that_is_none_is_named(self):
        for port in ("65536", "-1", "5090x", ""):
            result = subprocess.run([PROGRAM, "127.0.0.1", port], capture_output=True, text=True,
                                    timeout=10, check=False)
            self.assertEqual((result.returncode, result.stderr), (1, f"not a port: {port}\n"))


class CReceiver(PrintsPackets, ReceiverTest):
    @classmethod
    def setUpClass(cls):
        if not shutil.which("cc"):
            raise unittest.SkipTest("no C compiler here (cc)")
        build = tempfile.TemporaryDirectory()
        cls.addClassCleanup(build.cleanup)
        cls.program = build.name + "/receiver"
        command = readme_command("cc ").replace("-o receiver", f"-o {cls.program}")
        subprocess.run(shlex.split(command), cwd=ROOT, check=True, timeout=60)

    def setUp(self):
        self.start([self.program, "127.0.0.1", "0"])

    def rest(self):
        """Ends the receiver; returns the lines that were not read yet."""
        self.process.terminate()
        return self.process.communicate(timeout=20)[0].splitlines()

    def failure(self, *arguments):
        result = subprocess.run([self.program, *arguments], capture_output=True, text=True,
                                timeout=10, check=False)
        return result.returncode, result.stderr

    def test_call_is_reported_line_by_line(self):
        self.send(*[datagram(name) for name in CALL])
        self.assertEqual(self.lines(7), [
            f"{UUID} start: inbound reference=a84b4c76e66710@192.0.2.7 features=cccc",
            f"{UUID} data: originator sequence_number=1 sample_offset=0 sample_count=8",
            f"{UUID} data: terminator sequence_number=1 sample_offset=0 sample_count=8",
            f"{UUID} data: originator sequence_number=2 sample_offset=8 sample_count=8",
            f"{UUID} data: terminator sequence_number=2 sample_offset=8 sample_count=8",
            f"{UUID} control: features=ccc0",
            f"{UUID} terminate"])
        self.assertEqual(self.rest(), [])

    def test_call_through_the_module_is_reported(self):
        call = "0d1f7c5e-2b64-4c39-8f0a-6f2d9f3b1a77"
        self.place_calls("--uuid", call)
        told = self.lines(102)
        self.assertEqual([told[0], told[-1]], [
            f"{call} start: inbound reference={call}@quorvane-call features=0000",
            f"{call} terminate"])
        for side in ("originator", "terminator"):
            self.assertEqual([line for line in told if f" data: {side} " in line], [
                f"{call} data: {side} sequence_number={at + 1} sample_offset={160 * at} "
                "sample_count=160" for at in range(50)])

    def test_damaged_datagrams_do_no_harm(self):
        self.send_damaged(600)
        self.assertIsNone(self.process.poll())

    def test_mistakes_are_named(self):
        for port in ("65536", "-1", "5090x", "", "99999999999999999999"):
            self.assertEqual(self.failure("127.0.0.1", port), (1, f"not a port: {port}\n"))
        self.assertEqual(self.failure("localhost", "5090"),
                         (1, "not an IPv4 address: localhost\n"))
        self.assertEqual(self.failure("127.0.0.1", str(self.port)), (
            1, f"cannot listen on 127.0.0.1:{self.port}: Address already in use\n"))
        self.assertEqual(self.failure("127.0.0.1"), (2, f"usage: {self.program} ADDRESS PORT\n"))


class Sender(unittest.TestCase):
    def test_key_is_that_of_the_document(self):
        sys.path.insert(0, str(ROOT / "examples"))
        import send_call  # The example is a program; only this test imports it.
        uuid_bytes = bytes.fromhex(UUID.replace("-", ""))
        key = f"0x{send_call.call_key(uuid_bytes):016x}"
        self.assertEqual(key, GOLDEN["call_1_start"]["call_key"])

    def refusal(self, *options):
        result = subprocess.run([sys.executable, "examples/send_call.py", *options], cwd=ROOT,
                                capture_output=True, text=True, timeout=20, check=False)
        self.assertNotEqual(result.returncode, 0)
        return result.stderr.splitlines()[-1]

    def test_receiver_that_is_not_there_is_named(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.bind(("127.0.0.1", 0))
            address = "%s:%d" % sock.getsockname()
        self.assertEqual(self.refusal("--to", address, "--seconds", "0.5"),
                         f"cannot send to {address}: Connection refused")

    def test_address_that_is_none_is_named(self):
        self.assertEqual(self.refusal("--to", "127.0.0.1"),
                         "send_call.py: error: argument --to: '127.0.0.1' is no address and port")


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1) if len(sys.argv) > 1 and not sys.argv[1].startswith("-") else None
    if len(sys.argv) > 2 and not sys.argv[1].startswith("-"):
        CALL_DRIVER = [sys.argv.pop(1), "--module", sys.argv.pop(1)]
    sys.dont_write_bytecode = True
    unittest.main()
