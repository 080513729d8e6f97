"""Runs quorvane-node as a process and looks at the files that it leaves beside and in place of its
WAV files.

usage: files_test.py QUORVANE_NODE GOLDEN_FOLDER
"""
import calendar
import hashlib
import json
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from end_to_end_test import (CALL, DOCUMENT, LISTED_SIDE, NODE, UUID, Node, golden, ipv4, pcap,
                             udp)


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


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=1)
