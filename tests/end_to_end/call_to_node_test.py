"""Runs quorvane-call and quorvane-node as processes: calls go through the built module and end
as WAV files.

usage: call_to_node_test.py QUORVANE_CALL QUORVANE_NODE MODULE [unittest options]
"""
import array
import json
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import uuid
import wave

CALL, NODE, MODULE = sys.argv[1:4]
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
        with open(self.output, "w") as out:
            self.process = subprocess.Popen(
                [NODE, "--listen", "127.0.0.1:0", "--output", str(self.wavs), "--calls",
                 str(calls), "--idle-exit", str(PATIENCE), *options],
                stdout=out, stderr=subprocess.STDOUT)
        self.address = self.wait_for_address()

    def wait_for_address(self):
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            found = re.search(r"listening on (127\.0\.0\.1:\d+)", self.output.read_text())
            if found:
                return found.group(1)
            time.sleep(0.02)
        raise AssertionError("no address: " + self.output.read_text())

    def finish(self):
        """Waits until it has ended by itself; returns its lines."""
        code = self.process.wait(PATIENCE)
        text = self.output.read_text()
        if code != 0:
            raise AssertionError(f"quorvane-node ended with {code}:\n{text}")
        return text

    def side(self, call, side):
        return read_wav(self.wavs / f"{call}-{side}.wav")

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


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

    def figures(self, *options):
        path = self.folder / "figures.json"
        self.call_well("--json", str(path), *options)
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
        lines = node.finish()
        for samples, side in zip(spoken, sides):
            got_rate, got = node.side(call, side)
            self.assertEqual(got, samples, f"{side} of a call at {rate} Hz\n{lines}")
            self.assertEqual(got_rate, rate)
        self.assertIn(" 0 gaps", lines)
        return lines

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
        lines = node.finish()
        calls = set(re.findall(r"([0-9a-f-]{36})  start ", lines))
        self.assertEqual(len(calls), 12)
        for call in calls:
            self.assertEqual(node.side(call, "originator")[1], spoken[0])
            self.assertEqual(node.side(call, "terminator")[1], spoken[1])
        for number in range(1, 13):
            self.assertIn(f'reference "call {number}"', lines)
        self.assertEqual(figures["calls"]["most_at_once"], 12)
        self.assertIn(f"{figures['data_packets_expected'] + 24:,} packets", lines)

    def test_the_expected_packets_arrive(self):
        node = self.node()
        figures = self.figures("--media-node", node.address, "--sample-rate", "48000",
                               "--frame-ms", "40", "--duration", "0.4")
        self.assertEqual(figures["data_packets_expected"], 2 * 10 * 3)  # 3,840 bytes a frame
        self.assertIn(" 62 packets", node.finish())


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
        lines = node.finish()
        self.assertRegex(lines, r" start .*rule 7, audio activity on both; recording on both")
        self.assertRegex(lines, r" control +audio activity off both; recording on both")
        self.assertRegex(lines, r" terminate ")

    def test_a_command_before_the_application_is_in_the_start_packet(self):
        node = self.node()
        said = self.call_well(
            "--media-node", node.address, "--duration", "0.3", "--tap-after", "0.3",
            "--api", "0.1 quorvane {uuid} detection start orig")
        self.assertRegex(said, r"< detection: app context added, id: \d+\+OK, detection: updated")
        self.assertRegex(node.finish(), r" start .*, detection on originator")

    def test_a_refused_command_fails_the_run(self):
        done = self.call("--duration", "0.2", "--api", "0.1 quorvane {uuid} dance")
        self.assertEqual(done.returncode, 1)
        self.assertIn('< -ERR, unknown command "dance"!', done.stdout)
        self.assertIn("Problem   1 API command failed", done.stdout)

    def test_a_refused_command_of_many_calls_is_named(self):
        path = self.folder / "figures.json"
        done = self.call("--calls", "12", "--duration", "0.3", "--json", str(path),
                         "--api", "0.1 quorvane {uuid} d\udcffnce")  # A byte that is no UTF-8.
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, r"Problem   12 API commands failed; the first, of call \d+: "
                                      r"'quorvane [-0-9a-f]{36} d\udcffnce' was answered '-ERR, ")
        first = json.loads(path.read_text())["commands"]["first_failed"]
        self.assertEqual(first["command"][-5:], "d\ufffdnce")

    def test_a_command_after_the_end_is_reported(self):
        done = self.call("--duration", "0.2", "--api", "5 quorvane version")
        self.assertEqual(done.returncode, 1)
        self.assertIn("Problem   1 API command too late for the call", done.stdout)


class Trouble(EndToEnd):
    def test_without_a_media_node_the_call_is_as_usual(self):
        self.assertIn("1 call, 1 tapped", self.call_well("--media-node", "127.0.0.1:9",
                                                         "--duration", "0.2"))

    def test_a_media_bug_that_the_host_refuses(self):
        done = self.call("--duration", "0.2", "--fault", "bug-refused")
        self.assertEqual(done.returncode, 1)
        self.assertIn("NOT tapped", done.stdout)
        self.assertIn("Problem   1 call not tapped", done.stdout)

    def test_a_call_whose_end_the_module_does_not_hear_of_does_not_keep_it(self):
        path = self.folder / "figures.json"
        done = self.call("--duration", "0.2", "--fault", "bug-refused", "--fault",
                         "hide-header:Unique-ID", "--json", str(path))
        self.assertEqual(done.returncode, 1)
        self.assertIn("Problem   1 call not tapped", done.stdout)
        self.assertNotIn("stayed in memory", done.stdout)
        figures = json.loads(path.read_text())
        self.assertIs(figures["module"]["gone_from_memory"], True)

    def test_a_fault_for_a_while(self):
        done = self.call("--duration", "0.4", "--fault", "session-not-found@0.1-0.2", "--api",
                         "0.15 quorvane {uuid} features", "--api", "0.3 quorvane {uuid} features")
        self.assertRegex(done.stdout, r"fault session-not-found on\n(.*\n)*.*< \(no answer\)\n"
                                      r"(.*\n)*.*fault session-not-found off\n(.*\n)*.*< ------\n")

    def test_split_frames_are_shown_from_the_log(self):
        said = self.call_well("--sample-rate", "48000", "--duration", "0.1", "--show-log",
                              "WARNING")
        self.assertIn("[WARNING] media_transfer.cpp:", said)

    def test_an_interrupted_run_hangs_up_in_order(self):
        node = self.node()
        process = subprocess.Popen(
            [CALL, "--module", MODULE, "--media-node", node.address, "--duration", "600"],
            stdout=subprocess.PIPE, text=True)
        for line in process.stdout:
            if line.endswith("  tapped\n"):
                break
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        said = process.stdout.read()
        process.stdout.close()
        self.assertEqual(process.wait(PATIENCE), 1)
        self.assertIn("Problem   1 call cut short by a signal", said)
        self.assertIn("no frame altered; no lock, media bug, event binding or call left", said)
        self.assertRegex(node.finish(), r" terminate ")


class WrongUse(EndToEnd):
    def test_a_missing_file(self):
        self.assertEqual(self.refused(2, "--read", "/none/caller.wav"),
                         "quorvane-call: /none/caller.wav: No such file or directory\n")

    def test_a_stereo_file(self):
        path = self.wav("stereo.wav", noise(100, 1), 8000, channels=2)
        self.assertEqual(self.refused(2, "--read", path),
                         f"quorvane-call: {path}: has 2 channels;"
                         " a side of a call has one (mono)\n")

    def test_two_sample_rates(self):
        read, write = (self.wav(f"{rate}.wav", noise(100, 1), rate) for rate in (8000, 16000))
        self.assertIn("a call has one sample rate: 8000.wav has 8000 Hz, 16000.wav has 16000 Hz",
                      self.refused(2, "--read", read, "--write", write))

    def test_a_missing_configuration_file(self):
        self.assertEqual(self.refused(2, "--config", "/none/some.conf"),
                         "quorvane-call: /none/some.conf: No such file or directory\n")

    def test_figures_that_cannot_be_written(self):
        self.assertEqual(self.refused(2, "--json", "/none/figures.json"),
                         "quorvane-call: /none/figures.json: No such file or directory\n")

    def test_an_unknown_option(self):
        self.assertIn("--loud", self.refused(2, "--loud"))

    def test_a_missing_module(self):
        self.assertEqual(self.refused(3, module="/none/mod_quorvane.so"),
                         "quorvane-call: the module /none/mod_quorvane.so cannot be read: "
                         "No such file or directory\n")

    def test_a_file_that_is_no_module(self):
        path = self.folder / "mod_quorvane.so"
        path.write_text("hello")
        for_relocated = self.folder / "relocated"
        for_relocated.mkdir()
        (for_relocated / "mod_quorvane.so").write_text("hello")
        said = self.refused(3, module=str(path))
        self.assertIn("mod_quorvane.so could not be loaded: ", said)
        self.assertIn("file too short", said)

    def test_a_configuration_that_the_module_refuses(self):
        path = self.folder / "some.conf"
        path.write_text("log_level=LOUD\n")
        done = self.call("--config", str(path))
        self.assertEqual(done.returncode, 3, done.stdout + done.stderr)
        self.assertIn("could not be loaded", done.stderr)
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
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]], verbosity=2)
