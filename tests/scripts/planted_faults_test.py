#!/usr/bin/env python3
"""Tests that the faults of scripts/planted_faults.py fit the sources of today.

Finding the faults takes minutes and is not part of the tests.
"""

import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
import planted_faults  # noqa: E402


class PlantedFaults(unittest.TestCase):
    def test_every_fault_can_be_planted(self):
        done = subprocess.run([ROOT / "scripts" / "planted_faults.py", "--check"],
                              capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_every_fault_changes_its_file(self):
        for fault in planted_faults.FAULTS:
            with self.subTest(fault.name):
                intact = (ROOT / fault.file).read_text(encoding="utf-8")
                self.assertNotEqual(planted_faults.faulty(fault, ROOT), intact)

    def test_a_line_that_is_gone_is_an_error_that_names_it(self):
        gone = planted_faults.Fault("old_fault", "module/media_transfer.cpp", "no such line", "")
        with self.assertRaisesRegex(planted_faults.Stale, "old_fault.*0 times.*no such line"):
            planted_faults.faulty(gone, ROOT)

    def test_a_line_that_stands_twice_is_an_error(self):
        twice = planted_faults.Fault("vague_fault", "module/media_transfer.cpp", "packet.", "")
        with self.assertRaises(planted_faults.Stale):
            planted_faults.faulty(twice, ROOT)

    def test_a_file_that_is_gone_is_an_error(self):
        gone = planted_faults.Fault("old_fault", "module/gone.cpp", "x", "y")
        with self.assertRaisesRegex(planted_faults.Stale, "module/gone.cpp"):
            planted_faults.faulty(gone, ROOT)


if __name__ == "__main__":
    sys.exit(unittest.main())
