#!/usr/bin/env python3
"""Tests the simulation of a fleet. A real fleet is compared with it in tests/examples/fleet."""

import math
import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "scripts" / "simulate_fleet.py"
sys.path.insert(0, str(SCRIPT.parent))
from simulate_fleet import (BLOCK_S, Call, Change, Outage, Part, audio_lost, buckets,  # noqa: E402
                            parts_of)

START = float("-inf")


def plan(here, elsewhere=()):
    """A plan with one bucket."""
    return buckets.Plan({0: here}, {0: elsewhere} if elsewhere else {})


def run(*arguments):
    return subprocess.run([sys.executable, str(SCRIPT), *arguments], capture_output=True,
                          text=True, timeout=60)


class ACall(unittest.TestCase):
    drained = [Change(START, plan("a")), Change(10, plan("a", "b")), Change(20, plan("b"))]

    def test_stays_on_its_node(self):
        self.assertEqual(parts_of(Call(1, 9, 0), self.drained), [Part("a", 1, 9)])

    def test_stays_on_a_node_that_is_drained_until_the_deadline(self):
        self.assertEqual(parts_of(Call(9, 19, 0), self.drained), [Part("a", 9, 19)])
        self.assertEqual(parts_of(Call(9, 25, 0), self.drained),
                         [Part("a", 9, 20), Part("b", 20, 25)])

    def test_that_begins_during_a_drain_is_on_the_other_node_and_stays_there(self):
        self.assertEqual(parts_of(Call(11, 25, 0), self.drained), [Part("b", 11, 25)])

    def test_moves_back_when_the_drain_is_taken_back(self):
        changes = [*self.drained[:2], Change(15, plan("a"))]
        self.assertEqual(parts_of(Call(11, 25, 0), changes), [Part("b", 11, 15), Part("a", 15, 25)])
        self.assertEqual(parts_of(Call(9, 25, 0), changes), [Part("a", 9, 25)])


class LostAudio(unittest.TestCase):
    def test_is_what_a_dead_node_was_sent_and_had_not_written(self):
        outage = Outage("a", 10, 15)
        self.assertEqual(audio_lost(Part("a", 9, 30), [outage]), 5 + 1)
        self.assertAlmostEqual(audio_lost(Part("a", 7, 12), [outage]), 2 + 3 - BLOCK_S)
        self.assertEqual(audio_lost(Part("a", 11, 14), [outage]), 3)

    def test_is_none_elsewhere_and_at_other_times(self):
        outage = Outage("a", 10, 15)
        for part in (Part("b", 9, 30), Part("a", 1, 10), Part("a", 15, 20)):
            self.assertEqual(audio_lost(part, [outage]), 0)


class TheScript(unittest.TestCase):
    small = ("--switches", "2", "--calls", "200", "--hours", "1")

    def figures(self, *arguments):
        """The words of the lines of results, by their first words."""
        done = run(*self.small, *arguments)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return {line[:15].strip(): line[15:].replace(",", "").replace(":", "").split()
                for line in done.stdout.splitlines()}

    def test_gives_equal_results_for_equal_seeds(self):
        first, second, third = (run(*self.small, "--seed", seed).stdout for seed in "112")
        self.assertEqual(first, second)
        self.assertNotEqual(first, third)

    def test_draws_as_many_calls_as_fit_the_mean(self):
        # 400 at the beginning, and 3600 s with 400 / 180 s calls per second.
        expected = 400 + 3600 * 400 / 180
        calls = float(self.figures("--failures-per-year", "0")["calls"][0])
        self.assertAlmostEqual(calls, expected, delta=5 * math.sqrt(expected))

    def test_splits_those_calls_that_outlast_the_deadline(self):
        # Each node is emptied and filled again, with 100 calls each time; exp(-300 / 180) of them
        # last longer than 300 s.
        expected = 8 * 100 * math.exp(-300 / 180)
        figures = self.figures("--upgrade", "--deadline", "300", "--failures-per-year", "0")
        self.assertAlmostEqual(float(figures["calls split"][0]), expected,
                               delta=5 * math.sqrt(expected))
        self.assertEqual(figures["audio lost"][0], "0")

    def test_loses_audio_of_the_calls_of_a_failed_node(self):
        # A quarter of 400 calls misses 5 s, and a second on average that was not written.
        figures = self.figures("--failures-per-year", "2000")
        self.assertEqual(figures["failures"][0], "1")
        self.assertAlmostEqual(float(figures["audio lost"][0]), 100 * 6, delta=150)

    def test_names_what_is_wrong(self):
        for arguments, words in ((("--nodes", "0"), "'0' is not above 0"),
                                 (("--hours", "nan"), "'nan' is not above 0"),
                                 (("--detect", "-1"), "'-1' is below 0"),
                                 (("--nodes", "65"), "too small for a bucket of 64")):
            done = run(*arguments)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(words, done.stderr)


if __name__ == "__main__":
    unittest.main()
