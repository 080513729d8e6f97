#!/usr/bin/env python3
"""Tests the report of a soak test with synthetic runs: one without a fault, and runs with one
fault each."""

import bisect
import contextlib
import datetime
import io
import json
import pathlib
import random
import subprocess
import sys
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
sys.path.insert(0, str(SCRIPTS))

import soak_report  # noqa: E402
from soak_report import BAD, GOOD, TOO_SHORT, Bounds, Sample  # noqa: E402

EMBEDDED = Bounds(bytes_a_call=64, wavers_by_kib=None, registry=10)
REAL = Bounds(bytes_a_call=None, wavers_by_kib=2048, registry=3)
BEGIN = datetime.datetime(2026, 1, 2, 3, 4, 5, 678901)


class Run:
    """Calls of 1 to 30 seconds, and the resources of the process that has them."""

    def __init__(self, minutes=20, calls_a_second=3, leak_bytes=0, kept=0.0):
        generator = random.Random(1)
        begins = [i / calls_a_second for i in range(minutes * 60 * calls_a_second)]
        ends = [begin + generator.uniform(1, 30) for begin in begins]
        sorted_ends = sorted(ends)
        self.calls = len(begins)
        self.events = [self.event(begin, event="start") for begin in begins]
        self.events += [self.event(end, event="end", reason="terminated", sides={
            side: {"lost_packets": 0, "gaps": 0} for side in ("originator", "terminator")})
                        for end in ends]
        self.samples = []
        most = 0
        for second in range(0, int(max(ends)), 2):
            over = bisect.bisect(sorted_ends, second)
            up = bisect.bisect(begins, second) - over
            most = max(most, up)
            pages = (6_600_000 + 20_000 * most + leak_bytes * over) // 4096
            self.samples.append(Sample(second, pages * 4 + generator.choice((-4, 0)), 5, 4,
                                       up + int(kept * over)))

    @staticmethod
    def event(seconds, **fields):
        time = BEGIN + datetime.timedelta(seconds=seconds)
        return {"time": time.isoformat(timespec="microseconds") + "Z", **fields}

    def first(self, kind):
        return next(event for event in self.events if event["event"] == kind)

    def with_column(self, column, value_of):
        self.samples = [sample._replace(**{column: value_of(sample)}) for sample in self.samples]

    def verdict(self, bounds=EMBEDDED):
        self.said = io.StringIO()
        with contextlib.redirect_stdout(self.said):
            return soak_report.judge(self.samples, self.events, self.calls, bounds)


class Memory(unittest.TestCase):
    def test_what_does_not_grow_passes(self):
        run = Run()
        self.assertEqual(run.verdict(), GOOD)
        self.assertTrue(run.said.getvalue().endswith("\nflat and whole\n"))
        self.assertNotIn("GROWS", run.said.getvalue())

    def test_a_leak_of_a_context_for_each_call_fails(self):
        for leak_bytes in (400, 800):
            run = Run(leak_bytes=leak_bytes)
            self.assertEqual(run.verdict(), BAD)
            self.assertRegex(run.said.getvalue(), r"(?m)^resident KiB .*: GROWS$")
            self.assertEqual(run.said.getvalue().count("GROWS"), 1)

    def test_the_bound_is_one_for_each_call_that_ended(self):
        self.assertEqual(Run(leak_bytes=48).verdict(), GOOD)
        self.assertEqual(Run(leak_bytes=80).verdict(), BAD)
        self.assertEqual(Run(minutes=40, leak_bytes=48).verdict(), GOOD)
        self.assertEqual(Run(minutes=40, leak_bytes=80).verdict(), BAD)

    def test_what_comes_down_passes(self):
        run = Run()
        run.with_column("resident_kib", lambda sample: 9000 - sample.seconds)
        self.assertEqual(run.verdict(), GOOD)

    def test_of_a_process_that_wavers_the_report_says_what_it_does_not_tell(self):
        run = Run(leak_bytes=400)
        self.assertEqual(run.verdict(REAL._replace(registry=10)), GOOD)
        self.assertIn("only the registry and the matched starts and ends speak for the module",
                      " ".join(run.said.getvalue().split()))

    def test_a_process_that_grows_by_more_than_it_wavers_fails(self):
        run = Run()
        run.with_column("resident_kib", lambda sample: 60000 + 4 * sample.seconds)
        self.assertEqual(run.verdict(REAL._replace(registry=10)), BAD)


class OtherFigures(unittest.TestCase):
    def test_a_registry_that_keeps_one_call_of_a_hundred_fails(self):
        run = Run(kept=0.01)
        self.assertEqual(run.verdict(), BAD)
        self.assertRegex(run.said.getvalue(), r"(?m)^registry .*: GROWS$")
        self.assertEqual(run.said.getvalue().count("GROWS"), 1)

    def test_so_does_one_of_a_switch_with_fewer_calls(self):
        run = Run(calls_a_second=1)
        run.with_column("registry", lambda sample: 6 + sample.seconds // 100)
        self.assertEqual(run.verdict(REAL), BAD)
        run.with_column("registry", lambda sample: 5 + sample.seconds % 3)
        self.assertEqual(run.verdict(REAL), GOOD)

    def test_descriptors_and_threads_that_are_left_open_fail(self):
        for column in ("descriptors", "threads"):
            run = Run()
            run.with_column(column, lambda sample: 5 + sample.seconds // 400)
            self.assertEqual(run.verdict(), BAD)
            self.assertRegex(run.said.getvalue(), rf"(?m)^{column} .*: GROWS$")


class Calls(unittest.TestCase):
    def assert_not_whole(self, run):
        self.assertEqual(run.verdict(), BAD)
        self.assertTrue(run.said.getvalue().endswith("\nflat, NOT whole\n"))

    def test_a_call_without_its_terminate_packet_fails(self):
        run = Run()
        run.first("end")["reason"] = "timeout"
        self.assert_not_whole(run)

    def test_a_call_without_an_end_fails(self):
        run = Run()
        run.events.remove(run.first("end"))
        self.assert_not_whole(run)

    def test_a_call_without_its_start_packet_fails(self):
        run = Run()
        run.events.remove(run.first("start"))
        self.assert_not_whole(run)

    def test_a_call_that_was_not_placed_fails(self):
        run = Run()
        run.calls += 1
        self.assert_not_whole(run)

    def test_gaps_and_lost_packets_fail(self):
        for figure in ("gaps", "lost_packets"):
            run = Run()
            run.first("end")["sides"]["terminator"][figure] = 1
            self.assert_not_whole(run)

    def test_a_malformed_packet_fails(self):
        run = Run()
        run.events.append(run.event(60, event="malformed"))
        self.assert_not_whole(run)


class TooShort(unittest.TestCase):
    def test_a_run_that_still_warms_up_is_not_judged_whether_it_leaks_or_not(self):
        for minutes in (1, 2, 5):
            for leak_bytes in (0, 400):
                for bounds in (EMBEDDED, REAL):
                    run = Run(minutes=minutes, leak_bytes=leak_bytes)
                    self.assertEqual(run.verdict(bounds), TOO_SHORT)
                    self.assertTrue(run.said.getvalue().endswith(
                        "\nwhole, but TOO SHORT to tell whether flat\n"))

    def test_a_run_with_too_few_calls_is_not_judged(self):
        run = Run(minutes=9, calls_a_second=1)
        self.assertEqual(run.verdict(), TOO_SHORT)
        self.assertIn("too few for their memory to stand out", run.said.getvalue())

    def test_nine_minutes_are_enough(self):
        self.assertEqual(Run(minutes=9).verdict(), GOOD)
        self.assertEqual(Run(minutes=9, leak_bytes=400).verdict(), BAD)

    def test_a_call_that_is_missing_fails_in_a_short_run_too(self):
        run = Run(minutes=2)
        run.events.remove(run.first("end"))
        self.assertEqual(run.verdict(), BAD)

    def test_no_samples_at_all_are_too_short(self):
        run = Run()
        run.samples = []
        self.assertEqual(run.verdict(), TOO_SHORT)


class CommandLine(unittest.TestCase):
    def outcome(self, run, *options):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "samples.txt").write_text(
                "".join(" ".join(map(str, sample)) + "\n" for sample in run.samples))
            (folder / "events.jsonl").write_text(
                "".join(json.dumps(event) + "\n" for event in run.events))
            return subprocess.run(
                [sys.executable, SCRIPTS / "soak_report.py", folder, str(run.calls), *options],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False).returncode

    def test_the_exit_code_is_the_verdict(self):
        bounds = ("--bytes-a-call", "64", "--registry", "10")
        self.assertEqual(self.outcome(Run(), *bounds), 0)
        self.assertEqual(self.outcome(Run(leak_bytes=400), *bounds), 1)
        self.assertEqual(self.outcome(Run(minutes=2), *bounds), 3)
        self.assertEqual(self.outcome(Run(), "--wavers-by", "2048", "--registry", "10"), 0)

    def test_there_is_no_verdict_without_bounds(self):
        self.assertEqual(self.outcome(Run(minutes=1), "--registry", "10"), 2)
        self.assertEqual(self.outcome(Run(minutes=1), "--bytes-a-call", "64"), 2)


if __name__ == "__main__":
    unittest.main()
