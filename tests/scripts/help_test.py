#!/usr/bin/env python3
"""Tests that --help of every script prints its description, exits with 0, and does nothing else."""

import concurrent.futures
import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = sorted([*ROOT.glob("scripts/*.sh"), *ROOT.glob("bench/*.sh")])
PROGRAMS = sorted(path for folder in ("scripts", "examples", "tests")
                  for path in ROOT.glob(f"{folder}/**/*.py")
                  if '__name__ == "__main__"' in path.read_text(encoding="utf-8"))


def help_of(*command):
    return subprocess.run([*command, "--help"], capture_output=True, text=True, timeout=60,
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

    def test_of_a_python_program_is_its_usage(self):
        self.assertGreater(len(PROGRAMS), 25)
        with concurrent.futures.ThreadPoolExecutor(4) as runs:
            helps = runs.map(lambda program: help_of(sys.executable, program), PROGRAMS)
        for program, shown in zip(PROGRAMS, helps):
            with self.subTest(program.name):
                self.assertEqual((shown.returncode, shown.stderr), (0, ""))
                self.assertIn(f"usage: {program.name}", shown.stdout)


if __name__ == "__main__":
    sys.exit(unittest.main())
