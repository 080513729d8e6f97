"""Runs quorvane-node as a process and looks at the files that it leaves beside and in place of its
WAV files.

usage: files_test.py QUORVANE_NODE GOLDEN_FOLDER
"""
import calendar
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import wave

from end_to_end_test import (CALL, DOCUMENT, LISTED_SIDE, NODE, OTHER_ARGUMENTS, UUID, UUID_END,
                             Counters, Node, audio, data, golden, ipv4, listed_event_fields,
                             may_mount, of_call, pcap, samples, udp, uuid_of)


def described_files(folder):
    """The sidecar of the golden call, after a look at its files."""
    sidecar = json.loads((folder / (UUID + ".json")).read_text())
    for file in sidecar["files"]:
        contents = (folder / file["name"]).read_bytes()
        assert hashlib.sha256(contents).hexdigest() == file["sha256"], file
    return sidecar


def documented_fields():
    """The fields of a sidecar and of its sides by the tables of the document."""
    section = DOCUMENT.split("\n## Sidecar\n")[1].split("\n## ")[0]
    tables = [part.split("\n\n")[0] for part in section.split("|---|---|")[1:]]
    return [{field.strip("` ") for row in table.strip().splitlines()
             for field in row.split("|")[1].split(",")} for table in tables]


class Sidecar(unittest.TestCase):
    def test_call_and_its_files_are_described(self):
        with Node("--sidecar", "--stereo", "--events", "-", "--calls", "1") as node:
            before = time.time()
            node.send_call()
            self.assertEqual(node.exit_code(), 0, node.text())
            sidecar = described_files(node.folder)
            whole, of_side = documented_fields()
            self.assertEqual(set(sidecar), whole)
            self.assertEqual(set(sidecar["sides"]["originator"]),
                             of_side | LISTED_SIDE)
            self.assertEqual([file["name"] for file in sidecar["files"]],
                             [UUID + end for end in ("-originator.wav", "-terminator.wav", ".wav")])
            self.assertEqual([file["channels"] for file in sidecar["files"]], [1, 1, 2])
            self.assertEqual({file["samples"] for file in sidecar["files"]}, {16})
            begin = time.strptime(sidecar["begin"][:19] + "Z", "%Y-%m-%dT%H:%M:%SZ")
            self.assertLess(abs(calendar.timegm(begin) - before), 60)
            end, = node.events("end")
            self.assertEqual(end["sidecar"], f"{node.folder}/{UUID}.json")
            self.assertEqual([file["sha256"] for file in end["files"]],
                             [file["sha256"] for file in sidecar["files"]])

    def test_capture_gives_the_times_of_the_capture(self):
        capture = pcap(101, [ipv4(udp(golden(name))) for name in CALL])
        with tempfile.TemporaryDirectory(prefix="quorvane-node-") as home:
            done = subprocess.run([NODE, "--read", "-", "--output", home, "--sidecar"],
                                  input=capture, capture_output=True, timeout=30)
            self.assertEqual(done.returncode, 0, done.stdout)
            sidecar = described_files(pathlib.Path(home))
            self.assertEqual((sidecar["begin"], sidecar["end"]),
                             ("2023-11-14T22:13:20.000Z", "2023-11-14T22:13:20.120Z"))

    def test_killed_run_leaves_no_half_sidecar_and_the_next_one_no_hidden_file(self):
        with Node("--sidecar") as node:
            node.send(*map(golden, CALL[:3]))
            node.wait_for("originator")
            hidden = node.folder / ".quorvane-node-new-killed.json"
            hidden.write_text("{")
            node.process.kill()
            node.process.wait()
            self.assertEqual(list(node.folder.glob(UUID + "*.json")), [])
            with Node("--sidecar", "--calls", "1", folder=node.folder) as after:
                after.send_call()
                self.assertEqual(after.exit_code(), 0, after.text())
                self.assertFalse(hidden.exists())
                self.assertEqual(len(list(node.folder.glob(UUID + "*.json"))), 1)


def decoded(path):
    """The samples of a FLAC or Opus file, and its rate and channels."""
    with tempfile.NamedTemporaryFile(suffix=".wav") as plain:
        subprocess.run(["sndfile-convert", "-pcm16", str(path), plain.name], check=True,
                       capture_output=True)
        with wave.open(plain.name) as file:
            return samples(plain.name), file.getframerate(), file.getnchannels()


class Formats(unittest.TestCase):
    def test_flac_files_have_the_samples_of_the_wav_files(self):
        with Node("--stereo", "--rate", "8000", "--calls", "1") as plain:
            plain.send_call()
            self.assertEqual(plain.exit_code(), 0, plain.text())
            with Node("--stereo", "--rate", "8000", "--calls", "1", "--format", "flac",
                      "--sidecar", "--events", "-") as node:
                node.send_call()
                self.assertEqual(node.exit_code(), 0, node.text())
                names = [UUID + end for end in ("-originator", "-terminator", "")]
                self.assertEqual({path.name for path in node.folder.iterdir()},
                                 {name + ".flac" for name in names} | {UUID + ".json"})
                for name, channels in zip(names, (1, 1, 2)):
                    self.assertEqual(decoded(node.folder / (name + ".flac")),
                                     (samples(plain.folder / (name + ".wav")), 8000, channels))
                described_files(node.folder)
                end, = node.events("end")
                self.assertEqual([file["path"] for file in end["files"]],
                                 [f"{node.folder}/{name}.flac" for name in names])
                self.assertIn(f"{node.folder}/{UUID}-originator.flac", node.text())

    def test_opus_has_a_rate_that_it_knows(self):
        with Node("--rate", "11025", "--calls", "1", "--format", "opus", "--events",
                  "-") as node:
            node.send(golden("call_1_start"), *(data(UUID_END, n) for n in range(1, 101)),
                      golden("call_7_terminate"))
            self.assertEqual(node.exit_code(), 0, node.text())
            file, = node.events("end")[0]["files"]
            self.assertEqual((file["sample_rate"], file["resampled_from"], file["samples"]),
                             (12000, 11025, 17414))
            heard, rate, channels = decoded(file["path"])
            self.assertEqual((len(heard), rate, channels), (17414, 12000, 1))

    def test_files_of_a_killed_run_are_wav_files(self):
        with Node("--format", "flac", "--block", "1", "--rate", "8000") as node:
            node.send(golden("call_1_start"), *(data(UUID_END, n) for n in range(1, 51)))
            node.wait_for("start")
            time.sleep(0.3)
            (node.folder / f".quorvane-node-new-{UUID}-originator.flac").write_text("fLaC")
            node.process.kill()
            node.process.wait()
            with Node("--calls", "1", "--format", "flac", folder=node.folder) as after:
                self.assertIn("repaired", after.wait_for("repaired.*").group(0))
                after.send_call()
                self.assertEqual(after.exit_code(), 0, after.text())
                self.assertEqual({path.name for path in node.folder.iterdir()},
                                 {UUID + "-originator.wav", UUID + "-2-originator.flac",
                                  UUID + "-2-terminator.flac"})
                whole = sum((audio(UUID_END, n) for n in range(1, 51)), [])
                heard = samples(node.folder / (UUID + "-originator.wav"))
                self.assertEqual(heard, whole[:len(heard)])
                self.assertGreaterEqual(len(heard), len(whole) - 512 - 160)

    @unittest.skipUnless(may_mount(), "no file system can be mounted here")
    def test_file_without_room_for_its_conversion_stays_a_wav_file(self):
        noise = random.Random(1)
        with Node("--format", "flac", "--rate", "8000", "--calls", "1", "--events", "-",
                  disk="200k") as node:
            node.send(golden("call_1_start"))
            for number in range(1, 401):
                loud = struct.pack("<160h", *(noise.randrange(-30000, 30000) for _ in range(160)))
                node.send(data(UUID_END, number)[:50] + loud)
                if number % 50 == 0:
                    time.sleep(0.05)
            node.send(golden("call_7_terminate"))
            self.assertEqual(node.exit_code(), 1, node.text())
            file, = node.events("end")[0]["files"]
            self.assertEqual((file["error"], file["samples"]), ("", 64000))
            self.assertTrue(file["path"].endswith("-originator.wav"))
            self.assertNotEqual(file["not_converted"], "")
            self.assertRegex(node.text(), "not converted +.*; it is still a WAV file")


class KilledWhileItFinishesFiles:
    """A receiver that is killed at a random moment after its calls have ended, while their files
    are converted and described; and the run after it."""

    CALLS = (1, 2, 3)
    PACKETS = 250

    def __init__(self, seed):
        self.choice = random.Random(seed)
        self.ending = self.choice.choice([".flac", ".opus"])
        options = ["--format", self.ending[1:], "--sidecar", "--stereo", "--timeline", "--rate",
                   "8000", "--block", "1"] + self.choice.choice([[], ["--sync", "1"]])
        with Node(*options) as node:
            self.folder = node.folder
            node.talk(self.CALLS, self.PACKETS)
            node.send(*(of_call(call, golden("call_7_terminate")) for call in self.CALLS))
            self.wait_for_the_moment()
            node.process.kill()
            node.process.wait()
            self.seen = self.check()
            uncounted = {str(path) for path in self.folder.glob("*.wav")
                         if path.stat().st_size != 44 + 2 * len(samples(path))}
            with Node(*options, "--events", "-", folder=self.folder) as after:
                after.wait_for("listening")
                assert after.stop() == 0, after.text()
                told = {event["path"] for event in after.events("leftover")}
                assert uncounted <= told, uncounted - told
            self.check()
            for path in self.folder.iterdir():
                assert not path.name.startswith("."), f"{path} was left behind"
                assert path.suffix != ".wav" or \
                    path.stat().st_size == 44 + 2 * len(samples(path)), path

    def stems(self):
        return [(uuid_of(call) + side, call, channels) for call in self.CALLS
                for side, channels in (("-originator", 1), ("", 2))]

    def wait_for_the_moment(self):
        """Until all files are there, and then for a random time or a random step of the work."""
        def until(condition):
            end = time.monotonic() + 30
            while not condition([path.name for path in self.folder.iterdir()]):
                assert time.monotonic() < end, list(self.folder.iterdir())
        until(lambda names: all(stem + ".wav" in names or stem + self.ending in names
                                for stem, _, _ in self.stems()))
        step = self.choice.choice(["", ".quorvane-node-new-", self.ending, ".json"])
        if step == "":
            time.sleep(0.4 * self.choice.random())
        else:
            count = 1 if step.startswith(".q") else self.choice.randrange(1, 4)
            until(lambda names: count <= sum(step in name for name in names) or
                  all(uuid_of(call) + ".json" in names for call in self.CALLS))
            time.sleep(0.005 * self.choice.random())

    def check(self):
        """Every call has whole files. Returns the endings that the files have."""
        seen = []
        for stem, call, channels in self.stems():
            whole = sum((audio(call, number) for number in range(1, self.PACKETS + 1)), [])
            wav, other = (self.folder / (stem + ending) for ending in (".wav", self.ending))
            assert wav.exists() or other.exists(), f"{stem} is gone"
            if wav.exists():
                heard = samples(wav)[::channels]
                assert heard == whole[:len(heard)], wav
                assert heard == whole or not other.exists(), f"{wav}: {len(heard)} samples"
            if other.exists():
                heard, rate, _ = decoded(other)
                assert (len(heard) // channels, rate) == (len(whole), 8000), other
                assert self.ending == ".opus" or heard[::channels] == whole, other
            seen.append("+".join(path.suffix for path in (wav, other) if path.exists()))
        for path in self.folder.glob("*.json"):
            for file in json.loads(path.read_text())["files"]:
                contents = (self.folder / file["name"]).read_bytes()
                assert hashlib.sha256(contents).hexdigest() == file["sha256"], file
            seen.append(".json")
        return seen


class Killed(unittest.TestCase):
    """Environment variable QUORVANE_KILLS: how often; then the result is shown."""

    def test_while_it_finishes_files_no_call_is_lost(self):
        kills = int(os.environ.get("QUORVANE_KILLS", "4"))
        seen = collections.Counter()
        with concurrent.futures.ThreadPoolExecutor(2) as killers:
            for killed in killers.map(KilledWhileItFinishesFiles, range(kills)):
                seen.update(killed.seen)
        if "QUORVANE_KILLS" in os.environ:
            print(f"{kills} kills met", dict(seen))


class Keep(unittest.TestCase):
    def test_old_calls_are_removed_and_reported(self):
        with Node("--stereo", "--sidecar", "--timeline", "--calls", "1") as made:
            made.send_call()
            self.assertEqual(made.exit_code(), 0, made.text())
            old = sorted(path.name for path in made.folder.iterdir())
            (made.folder / "notes.wav").write_text("not a call")
            for path in made.folder.iterdir():
                os.utime(path, (0, time.time() - 40 * 86400))
            (made.folder / (uuid_of(9) + "-originator.wav")).write_text("of today")
            with Node("--keep", "30d", "--events", "-", "--metrics", "0",
                      folder=made.folder) as node:
                node.wait_for('"removed"')
                removed, = node.events("removed")
                self.assertEqual(set(removed), listed_event_fields()["removed"])
                self.assertEqual((removed["name"], removed["files"], removed["reason"]),
                                 (UUID, old, "age"))
                node.wait_for("removed +the files of 1 call, ")
                url = node.wait_for(r"http://\S+").group(0)
                end = time.monotonic() + 30
                while Counters(url)["removed_calls_total"] != 1 and time.monotonic() < end:
                    time.sleep(0.1)
                self.assertEqual(Counters(url)["removed_calls_total"], 1)
                self.assertEqual({path.name for path in made.folder.iterdir()},
                                 {"notes.wav", uuid_of(9) + "-originator.wav"})
                node.send_call()  # Its names are free again.
                node.wait_for("  end ")
                self.assertEqual(node.stop(), 0, node.text())
                self.assertTrue((made.folder / f"{UUID}-originator.wav").exists())

    def test_bad_limit_is_refused(self):
        done = subprocess.run([NODE, "--keep", "30"], capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 2)
        self.assertIn("'30' is neither a number of days, such as 30d", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *OTHER_ARGUMENTS], verbosity=1)
