"""Checks that scripts/model.sh accepts only the results that its configurations state."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = PROJECT / "scripts" / "model.sh"
SKIPPED = 77


def run(*arguments, **environment):
    return subprocess.run([SCRIPT, *arguments], env={**os.environ, **environment},
                          capture_output=True, text=True, check=False)


def run_configuration(text):
    with tempfile.NamedTemporaryFile("w", suffix=".txt") as file:
        file.write(text)
        file.flush()
        return run("--configurations", file.name)


@unittest.skipUnless(shutil.which("spin"), "spin is not installed")
class ModelScriptTest(unittest.TestCase):

    def test_a_rule_that_holds_passes(self):
        outcome = run_configuration("calm  holds  -DCALLS=1\n")
        self.assertEqual(outcome.returncode, 0, outcome.stdout)

    def test_a_fault_that_is_expected_passes(self):
        outcome = run_configuration(
            "bad  freed-memory  -DSTRAYS=1 -DWRONG_DELETE_IN_DESTROY_HANDLER\n")
        self.assertEqual(outcome.returncode, 0, outcome.stdout)

    def test_a_fault_fails_where_none_is_expected(self):
        outcome = run_configuration(
            "bad  holds  -DSTRAYS=1 -DWRONG_DELETE_IN_DESTROY_HANDLER\n")
        self.assertEqual(outcome.returncode, 1)
        self.assertIn("FAILED bad", outcome.stdout)
        self.assertIn("freed-memory", outcome.stdout)

    def test_a_fault_that_is_not_found_fails(self):
        outcome = run_configuration("calm  freed-memory  -DCALLS=1\n")
        self.assertEqual(outcome.returncode, 1)
        self.assertIn("FAILED calm", outcome.stdout)

    def test_another_fault_than_the_expected_one_fails(self):
        outcome = run_configuration("bad  freed-memory  -DCOMMANDS=1 -DWRONG_LOCK_ORDER\n")
        self.assertEqual(outcome.returncode, 1)
        self.assertIn("deadlock", outcome.stdout)

    def test_a_model_that_does_not_compile_is_an_error(self):
        outcome = run_configuration("odd  holds  -DCALLS=nonsense\n")
        self.assertEqual(outcome.returncode, 1)
        self.assertIn("odd could not be run", outcome.stderr)

    def test_the_trail_ends_with_the_step_that_breaks_the_rule(self):
        outcome = run("--trail", "delete_in_handler")
        self.assertEqual(outcome.returncode, 0, outcome.stderr)
        self.assertIn("delete_in_handler: freed-memory", outcome.stdout)
        self.assertIn("not_freed = 0", outcome.stdout)


class ModelScriptWithoutSpinTest(unittest.TestCase):

    def test_an_unknown_name_is_refused_and_named(self):
        outcome = run("no_such_name")
        self.assertEqual(outcome.returncode, 2)
        self.assertIn("'no_such_name'", outcome.stderr)

    def test_a_file_that_cannot_be_read_is_named(self):
        outcome = run("--configurations", "/no/such/file")
        self.assertEqual(outcome.returncode, 2)
        self.assertIn("'/no/such/file'", outcome.stderr)

    def test_without_spin_it_says_so_and_is_skipped(self):
        with tempfile.TemporaryDirectory() as folder:
            for tool in ("bash", "sed", "awk", "wc", "tr", "dirname", "env"):
                os.symlink(shutil.which(tool), os.path.join(folder, tool))
            outcome = run("one_call", PATH=folder)
        self.assertEqual(outcome.returncode, SKIPPED)
        self.assertIn("spin is not installed", outcome.stdout)


if __name__ == "__main__":
    sys.exit(unittest.main())
