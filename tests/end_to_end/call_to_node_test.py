"""Runs quorvane-call and quorvane-node as processes: calls go through the built module and end
as WAV files. Further arguments go to unittest.
"""
import argparse
import array
import json
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import uuid
import wave

PROGRAMS = argparse.ArgumentParser(description=__doc__)
PROGRAMS.add_argument("call", metavar="QUORVANE_CALL")
PROGRAMS.add_argument("node", metavar="QUORVANE_NODE")
PROGRAMS.add_argument("module", metavar="MODULE")
ARGUMENTS, OTHER_ARGUMENTS = PROGRAMS.parse_known_args()
CALL, NODE, MODULE = ARGUMENTS.call, ARGUMENTS.node, ARGUMENTS.module
PATIENCE = 60  # Seconds. Every program here ends by itself much earlier.


def noise(count, seed):
    """Random samples, which any mistake would change."""
    chooser = random.Random(seed)
    return array.array("h", (chooser.randint(-32768, 32767) for _ in range(count)))


def write_wav(path, samples, rate, channels=1, width=2):
    with wave.open(str(path), "wb") as file:
        file.setnchannels(channels)
        file.setsampwidth(width)
        file.setframerate(rate)
        file.writeframes(bytes(samples))
    return str(path)


def read_wav(path):
    with wave.open(str(path)) as file:
        return file.getframerate(), array.array("h", file.readframes(file.getnframes()))


class Node:
    """A receiver that ends after the given number of calls."""

    def __init__(self, folder, calls, *options):
        self.wavs = folder / "received"
        self.output = folder / "node.log"
        self.event_file = folder / "events.jsonl"
        with open(self.output, "w") as out:
            self.process = subprocess.Popen(
                [NODE, "--listen", "127.0.0.1:0", "--output", str(self.wavs), "--calls",
                 str(calls), "--idle-exit", str(PATIENCE), "--events", str(self.event_file),
                 *options], stdout=out, stderr=subprocess.STDOUT)
        self.address = self.wait_for("listening")["address"]

    def events(self):
        """The events so far."""
        text = self.event_file.read_text() if self.event_file.exists() else ""
        return [json.loads(line) for line in text.splitlines(True) if line.endswith("\n")]

    def wait_for(self, name):
        """The first event of this name."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            found = named(self.events(), name)
            if found:
                return found[0]
            time.sleep(0.02)
        raise AssertionError(f"no event {name}: {self.output.read_text()}")

    def finish(self):
        """Waits until it has ended by itself; returns its events."""
        code = self.process.wait(PATIENCE)
        if code != 0:
            raise AssertionError(f"quorvane-node ended with {code}:\n{self.output.read_text()}")
        return self.events()

    def side(self, call, side):
        return read_wav(self.wavs / f"{call}-{side}.wav")

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


def named(events, name):
    return [event for event in events if event["event"] == name]


def packets_in(events):
    """The packets of all kinds that the calls consisted of."""
    data = sum(side["packets"] for end in named(events, "end") for side in end["sides"].values())
    return data + sum(len(named(events, kind)) for kind in ("start", "control", "terminate"))


class EndToEnd(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="quorvane-end-to-end-"))
        self.addCleanup(shutil.rmtree, self.folder)

    def node(self, calls=1, *options):
        node = Node(self.folder, calls, *options)
        self.addCleanup(node.kill)
        return node

    def wav(self, name, samples, rate, **form):
        return write_wav(self.folder / name, samples, rate, **form)

    def call(self, *options, module=MODULE):
        return subprocess.run([CALL, "--module", module, *options], capture_output=True,
                              text=True, errors="surrogateescape", timeout=PATIENCE)

    def call_well(self, *options):
        done = self.call(*options)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def figures(self, *options, code=0):
        path = self.folder / "figures.json"
        done = self.call("--json", str(path), *options)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return json.loads(path.read_text())

    def refused(self, code, *options, **named):
        done = self.call(*options, **named)
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return done.stderr


class Audio(EndToEnd):
    def expect_same(self, rate, read_count, write_count, *options,
                    sides=("originator", "terminator")):
        spoken = noise(read_count, 1), noise(write_count, 2)
        node = self.node(1, "--rate", str(rate))
        call = str(uuid.uuid4())
        self.call_well("--media-node", node.address, "--uuid", call,
                       "--read", self.wav("read.wav", spoken[0], rate),
                       "--write", self.wav("write.wav", spoken[1], rate), *options)
        events = node.finish()
        for samples, side in zip(spoken, sides):
            got_rate, got = node.side(call, side)
            self.assertEqual(got, samples, f"{side} of a call at {rate} Hz\n{events}")
            self.assertEqual(got_rate, rate)
        self.assertEqual(named(events, "gap"), [])

    def test_narrow_band(self):
        self.expect_same(8000, 8123, 7001)

    def test_wide_band(self):
        self.expect_same(16000, 12345, 16001)

    def test_frames_that_are_split(self):
        self.expect_same(48000, 33333, 47999)

    def test_longer_frames_at_a_rate_that_gives_no_whole_number_of_samples(self):
        self.expect_same(22050, 20001, 23456, "--frame-ms", "30")

    def test_a_last_frame_of_a_single_sample(self):
        self.expect_same(8000, 160 * 30 + 1, 160 * 30)

    def test_an_outbound_call_has_the_sides_the_other_way(self):
        self.expect_same(8000, 6000, 5000, "--direction", "outbound",
                         sides=("terminator", "originator"))

    def test_frames_as_fast_as_they_go(self):
        self.expect_same(8000, 20001, 30003, "--free-running")

    def test_the_relocated_module(self):
        self.expect_same(8000, 4001, 3999, "--config-place", "relocated")

    def test_several_calls_at_once(self):
        spoken = noise(8000, 3), noise(8008, 4)
        node = self.node(12)
        figures = self.figures(
            "--media-node", node.address, "--calls", "12", "--rate", "50", "--set",
            "sip_call_id=call {n}", "--read", self.wav("read.wav", spoken[0], 8000), "--write",
            self.wav("write.wav", spoken[1], 8000))
        events = node.finish()
        starts = {event["call_uuid"]: event for event in named(events, "start")}
        self.assertEqual(len(starts), 12)
        for call in starts:
            self.assertEqual(node.side(call, "originator")[1], spoken[0])
            self.assertEqual(node.side(call, "terminator")[1], spoken[1])
        self.assertEqual({event["call_reference"] for event in starts.values()},
                         {f"call {number}" for number in range(1, 13)})
        self.assertEqual(figures["calls"]["most_at_once"], 12)
        self.assertEqual(packets_in(events), figures["data_packets_expected"] + 24)

    def test_the_expected_packets_arrive(self):
        node = self.node()
        figures = self.figures("--media-node", node.address, "--sample-rate", "48000",
                               "--frame-ms", "40", "--duration", "0.4")
        self.assertEqual(figures["data_packets_expected"], 2 * 10 * 3)  # 3,840 bytes a frame
        self.assertEqual(packets_in(node.finish()), 62)


class Commands(EndToEnd):
    def test_features_change_while_the_call_runs(self):
        node = self.node()
        said = self.call_well(
            "--media-node", node.address, "--duration", "1", "--set", "quorvane_rule_id=7",
            "--set", "quorvane_audio_activity=true", "--set", "quorvane_record=yes",
            "--api", "0.7 quorvane {uuid} features",
            "--api", "0.3 quorvane {uuid} audio_activity stop both")
        self.assertRegex(said, r"< audio_activity: control packet .*\+OK, audio_activity: updated: "
                               r"old = 204, new = 192\n(.*\n)*.*< RR--aa\n")
        events = node.finish()
        start, = named(events, "start")
        self.assertEqual(start["rule_id"], "7")
        self.assertEqual(start["features"], {"supported": 0xCC, "active": 0xCC})
        control, = named(events, "control")
        self.assertEqual(control["features_in_effect"], {"supported": 0xCC, "active": 0xC0})
        self.assertEqual(len(named(events, "terminate")), 1)

    def test_a_command_before_the_application_is_in_the_start_packet(self):
        node = self.node()
        said = self.call_well(
            "--media-node", node.address, "--duration", "0.3", "--tap-after", "0.3",
            "--api", "0.1 quorvane {uuid} detection start orig")
        self.assertRegex(said, r"< detection: app context added, id: \d+\+OK, detection: updated")
        start, = named(node.finish(), "start")
        self.assertEqual(start["features"], {"supported": 0x10, "active": 0x10})

    def test_a_refused_command_fails_the_run(self):
        figures = self.figures("--duration", "0.2", "--api", "0.1 quorvane {uuid} dance", code=1)
        self.assertEqual(figures["commands"]["failed"], 1)
        self.assertIn('-ERR, unknown command "dance"!',
                      figures["commands"]["first_failed"]["answer"])

    def test_a_refused_command_of_many_calls_is_named(self):
        path = self.folder / "figures.json"
        done = self.call("--calls", "12", "--duration", "0.3", "--json", str(path),
                         "--api", "0.1 quorvane {uuid} d\udcffnce")  # A byte that is no UTF-8.
        self.assertEqual(done.returncode, 1)
        self.assertIn("d\udcffnce'", done.stdout)
        commands = json.loads(path.read_text())["commands"]
        self.assertEqual(commands["failed"], 12)
        self.assertEqual(commands["first_failed"]["command"][-5:], "d\ufffdnce")

    def test_a_command_after_the_end_is_reported(self):
        figures = self.figures("--duration", "0.2", "--api", "5 quorvane version", code=1)
        self.assertEqual(figures["commands"]["missed"], 1)


class Network(EndToEnd):
    """What the driver's network does to the packets, against what the node reports."""

    UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"

    def impaired(self, *options, code=0):
        """A call of two tones of 4 s through such a network: figures and the node's end event."""
        node = self.node(1, "--rate", "8000", "--reorder-wait", "2", "--call-timeout", "20")
        figures = self.figures("--media-node", node.address, "--uuid", self.UUID, "--duration",
                               "4", *options, code=code)
        return figures["network"], named(node.finish(), "end")[0]["sides"].values(), node

    def sum(self, sides, name):
        return sum(side[name] for side in sides)

    def test_what_is_lost_is_what_is_reported(self):
        network, sides, node = self.impaired("--lose", "10", "--seed", "7")
        self.assertGreater(network["lost_data"], 20)
        self.assertLess(network["lost_data"], 70)
        # What is lost at the very end of a side leaves no gap.
        behind = 400 - self.sum(sides, "packets") - self.sum(sides, "lost_packets")
        self.assertLess(behind, 5)
        self.assertEqual(self.sum(sides, "lost_packets") + behind, network["lost_data"])
        self.assertEqual(self.sum(sides, "packets"), 400 - network["lost_data"])

    def test_same_seed_loses_the_same_packets_and_another_seed_others(self):
        lost = []
        for seed in ("3", "3", "4"):
            _, _, node = self.impaired("--lose", "10", "--seed", seed)
            gaps = [(gap["call_side"], gap["sequence_number"], gap["lost_packets"])
                    for gap in named(node.events(), "gap")]
            lost.append(sorted(gaps))
            node.event_file.unlink()
        self.assertEqual(lost[0], lost[1])
        self.assertNotEqual(lost[0], lost[2])

    def test_what_is_duplicated_is_what_is_reported(self):
        network, sides, _ = self.impaired("--duplicate", "20")
        self.assertGreater(network["duplicated"], 40)
        self.assertEqual(network["lost"], 0)
        duplicated = self.sum(sides, "duplicated_packets")
        self.assertLessEqual(abs(duplicated - network["duplicated"]), 3)  # Start and terminate.
        self.assertEqual(self.sum(sides, "lost_packets"), 0)

    def test_reordered_and_delayed_packets_are_put_in_order(self):
        network, sides, node = self.impaired("--reorder", "5", "--delay", "10-60")
        self.assertGreater(network["reordered"], 50)
        self.assertGreater(self.sum(sides, "reordered_packets"), 50)
        self.assertEqual(self.sum(sides, "lost_packets"), 0)
        self.assertEqual(self.sum(sides, "samples"), 64_000)

    def test_network_that_loses_everything_is_no_sign_that_nobody_listens(self):
        node = self.node(1)
        network = self.figures("--media-node", node.address, "--duration", "0.5", "--lose",
                               "100")["network"]
        self.assertEqual(network["lost"], network["datagrams"])
        self.assertEqual(named(node.events(), "start"), [])

    def test_check_tells_whether_somebody_listens(self):
        _, sides, _ = self.impaired("--check")
        self.assertEqual(self.sum(sides, "packets"), 400)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as free:
            free.bind(("127.0.0.1", 0))
            address = "%s:%d" % free.getsockname()
        done = self.call("--media-node", address, "--duration", "0.5", "--check")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, f"Problem .*{address}")


class Trouble(EndToEnd):
    def test_without_a_media_node_the_call_is_as_usual(self):
        figures = self.figures("--media-node", "127.0.0.1:9", "--duration", "0.2")
        self.assertEqual(figures["calls"]["tapped"], 1)

    def test_a_media_bug_that_the_host_refuses(self):
        figures = self.figures("--duration", "0.2", "--fault", "bug-refused", code=1)
        self.assertEqual((figures["calls"]["begun"], figures["calls"]["tapped"]), (1, 0))

    def test_a_call_whose_end_the_module_does_not_hear_of_does_not_keep_it(self):
        figures = self.figures("--duration", "0.2", "--fault", "bug-refused", "--fault",
                               "hide-header:Unique-ID", code=1)
        self.assertEqual(figures["calls"]["tapped"], 0)
        self.assertIs(figures["module"]["gone_from_memory"], True)

    def test_a_fault_for_a_while(self):
        commands = self.figures("--duration", "0.4", "--fault", "session-not-found@0.1-0.2",
                                "--api", "0.15 quorvane {uuid} features",
                                "--api", "0.3 quorvane {uuid} features", code=1)["commands"]
        self.assertEqual((commands["run"], commands["failed"]), (2, 1))
        self.assertEqual(commands["first_failed"]["answer"], "")

    def test_split_frames_are_shown_from_the_log(self):
        said = self.call_well("--sample-rate", "48000", "--duration", "0.1", "--show-log",
                              "WARNING")
        self.assertIn("[WARNING] media_transfer.cpp:", said)

    def test_an_interrupted_run_hangs_up_in_order(self):
        node = self.node()
        path = self.folder / "figures.json"
        process = subprocess.Popen(
            [CALL, "--module", MODULE, "--media-node", node.address, "--duration", "600",
             "--quiet", "--json", str(path)], stdout=subprocess.DEVNULL)
        node.wait_for("start")
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(PATIENCE), 1)
        figures = json.loads(path.read_text())
        self.assertEqual(figures["calls"]["cut"], 1)
        left = ("frames_altered", "read_locks_held", "bugs_attached", "bindings_alive")
        self.assertEqual([figures["host"][name] for name in left], [0, 0, 0, 0])
        self.assertEqual(len(named(node.finish(), "terminate")), 1)


class WrongUse(EndToEnd):
    def test_a_missing_file(self):
        self.assertRegex(self.refused(2, "--read", "/none/caller.wav"),
                         "^quorvane-call: .*/none/caller.wav.*: No such file or directory\n$")

    def test_a_stereo_file(self):
        path = self.wav("stereo.wav", noise(100, 1), 8000, channels=2)
        self.assertIn(path, self.refused(2, "--read", path))

    def test_two_sample_rates(self):
        read, write = (self.wav(f"{rate}.wav", noise(100, 1), rate) for rate in (8000, 16000))
        said = self.refused(2, "--read", read, "--write", write)
        for name in ("8000.wav", "16000.wav"):
            self.assertIn(name, said)

    def test_a_missing_configuration_file(self):
        self.assertRegex(self.refused(2, "--config", "/none/some.conf"),
                         "^quorvane-call: .*/none/some.conf.*: No such file or directory\n$")

    def test_figures_that_cannot_be_written(self):
        self.assertRegex(self.refused(2, "--json", "/none/figures.json"),
                         "^quorvane-call: .*/none/figures.json.*: No such file or directory\n$")

    def test_an_unknown_option(self):
        self.assertIn("--loud", self.refused(2, "--loud"))

    def test_a_missing_module(self):
        self.assertRegex(self.refused(3, module="/none/mod_quorvane.so"),
                         "^quorvane-call: .*/none/mod_quorvane.so.*: "
                         "No such file or directory\n$")

    def test_a_file_that_is_no_module(self):
        path = self.folder / "mod_quorvane.so"
        path.write_text("hello")
        for_relocated = self.folder / "relocated"
        for_relocated.mkdir()
        (for_relocated / "mod_quorvane.so").write_text("hello")
        said = self.refused(3, module=str(path))
        self.assertRegex(said, "mod_quorvane.so .*: file too short")

    def test_a_configuration_that_the_module_refuses(self):
        path = self.folder / "some.conf"
        path.write_text("log_level=LOUD\n")
        done = self.call("--config", str(path))
        self.assertEqual(done.returncode, 3, done.stdout + done.stderr)
        self.assertIn("mod_quorvane", done.stderr)
        self.assertIn("[ERR] conf_configuration.cpp:", done.stdout)

    def test_a_port_in_use(self):
        node = self.node()
        done = subprocess.run([NODE, "--listen", node.address, "--output", str(self.folder)],
                              capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, 3)
        self.assertIn(f"{node.address}: Address already in use", done.stderr)

    def test_an_output_folder_that_is_a_file(self):
        path = self.folder / "file"
        path.write_text("")
        done = subprocess.run([NODE, "--listen", "127.0.0.1:0", "--output", str(path)],
                              capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, 3)
        self.assertIn(str(path), done.stderr)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *OTHER_ARGUMENTS], verbosity=2)
