#!/usr/bin/env python3
"""Tests how scripts/test_results.py counts what ctest reports."""
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
sys.dont_write_bytecode = True
import test_results  # noqa: E402

RESULTS = """<?xml version="1.0" encoding="UTF-8"?>
<testsuite>
    <testcase name="good" status="run"><system-out>fine</system-out></testcase>
    <testcase name="bad" status="fail"><failure message=""/></testcase>
    <testcase name="left_out" status="notrun">
        <skipped message="SKIP_RETURN_CODE=77"/>
        <system-out>skipped: there is no network</system-out>
    </testcase>
    <testcase name="missing" status="notrun">
        <skipped message="Unable to find executable"/>
        <system-out>Unable to find executable: missing</system-out>
    </testcase>
</testsuite>
"""


class TestResultsTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        pathlib.Path(folder.name, "dev-results.xml").write_text(RESULTS)
        self.outcomes = {name: (status, about) for status, name, about
                         in test_results.outcomes("dev", folder.name)}

    def test_a_passed_test_is_passed(self):
        self.assertEqual(self.outcomes["good"][0], "passed")

    def test_a_failed_test_comes_with_the_command_that_runs_it_again(self):
        self.assertEqual(self.outcomes["bad"], ("failed", "ctest --preset dev -R '^bad$'"))

    def test_a_skipped_test_comes_with_its_reason(self):
        self.assertEqual(self.outcomes["left_out"], ("skipped", "there is no network"))

    def test_a_test_that_could_not_be_started_is_failed(self):
        self.assertEqual(self.outcomes["missing"], ("failed", "ctest --preset dev -R '^missing$'"))


if __name__ == "__main__":
    unittest.main()
