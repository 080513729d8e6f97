#!/usr/bin/env python3
"""Tests that --help of every script prints its description, exits with 0, and does nothing else."""

import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = sorted([*ROOT.glob("scripts/*.sh"), *ROOT.glob("bench/*.sh")])


def help_of(script):
    return subprocess.run([script, "--help"], capture_output=True, text=True, timeout=60,
                          check=False)


def description_of(script):
    """The lines of the comment that the script begins with."""
    lines = script.read_text(encoding="utf-8").splitlines()[1:]
    end = next(at for at, line in enumerate(lines) if not line.startswith("#"))
    return [line[1:].removeprefix(" ") for line in lines[:end]]


class TheHelpOfEveryScript(unittest.TestCase):
    def test_is_its_description(self):
        self.assertGreater(len(SCRIPTS), 8)
        for script in SCRIPTS:
            with self.subTest(script.name):
                shown = help_of(script)
                self.assertEqual(shown.returncode, 0, shown.stderr)
                self.assertEqual(shown.stdout.splitlines(), description_of(script))
                self.assertIn(f"{script.relative_to(ROOT)}", shown.stdout)


if __name__ == "__main__":
    sys.exit(unittest.main())
