#!/usr/bin/env python3
"""Tests what run_cases.py reports about cases that fail, crash, hang or are skipped."""
import argparse
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

RUN_CASES = pathlib.Path(__file__).resolve().parent.parent / "run_cases.py"
PROGRAM = None


class RunCasesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            results = pathlib.Path(folder, "deeper", "results.json")
            cls.outcome = subprocess.run(
                [sys.executable, RUN_CASES, "--timeout", "2", "--results", results, PROGRAM],
                capture_output=True, text=True, timeout=60, check=False)
            cls.cases = {case["name"]: case for case in json.loads(results.read_text())}

    def status(self, name):
        return self.cases[name]["status"]

    def test_each_case_has_its_own_outcome(self):
        self.assertEqual({name: case["status"] for name, case in self.cases.items()}, {
            "Good.Passes": "passed",
            "Good.IsSkipped": "skipped",
            "Good.ComesLast": "passed",
            "Bad.Fails": "failed",
            "Bad.EndsTheProgram": "failed",
            "Bad.IsAborted": "failed",
            "Bad.NeverEnds": "failed",
            "AtExit.LeavesSomethingThatFails": "passed",
            "after the last case": "failed",
            "Some/Values.AreSmall/0": "passed",
            "Some/Values.AreSmall/1": "failed",
        })

    def test_a_failed_case_keeps_what_it_printed(self):
        self.assertIn("a message of the case", self.cases["Bad.Fails"]["text"])
        self.assertIn("a message of the case", self.outcome.stdout)

    def test_a_skipped_case_keeps_its_reason(self):
        self.assertIn("there is nothing to test with", self.cases["Good.IsSkipped"]["text"])

    def test_a_case_that_ends_the_program_is_named_with_the_way_it_did(self):
        self.assertIn("exit code 5", self.cases["Bad.EndsTheProgram"]["text"])
        self.assertIn("SIGABRT", self.cases["Bad.IsAborted"]["text"])
        self.assertIn("did not end within 2.0 s", self.cases["Bad.NeverEnds"]["text"])

    def test_a_program_that_fails_behind_its_cases_has_failed(self):
        self.assertIn("exit code 7", self.cases["after the last case"]["text"])

    def test_the_output_has_the_command_that_runs_a_failed_case_again(self):
        self.assertIn("FAILED   Bad.Fails\n", self.outcome.stdout)
        command = self.cases["Bad.Fails"]["command"]
        self.assertIn(f"         {command}\n", self.outcome.stdout)
        again = subprocess.run(command, shell=True, cwd=RUN_CASES.parent.parent, timeout=60,
                               capture_output=True, text=True, check=False)
        self.assertEqual(again.returncode, 1)
        self.assertIn("1 FAILED TEST", again.stdout)

    def test_the_last_line_counts_and_the_exit_code_tells(self):
        self.assertEqual(self.outcome.stdout.splitlines()[-1], "4 passed, 6 failed, 1 skipped")
        self.assertEqual(self.outcome.returncode, 1)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", metavar="PROGRAM", help="that of misbehaving_cases.cpp")
    arguments, others = parser.parse_known_args()
    PROGRAM = arguments.program
    unittest.main(argv=[sys.argv[0], *others])
