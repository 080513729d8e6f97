"""Judges a soak: what the samples of the process and the events of the media node say.

Usage: soak_report.py FOLDER CALLS (--bytes-a-call BYTES | --wavers-by KIB) --registry CALLS

FOLDER holds samples.txt of soak_samples.py and events.jsonl of quorvane-node; CALLS were placed.
Growth is that of the straight line that fits the samples best, over the steady part of the run.

--bytes-a-call  resident memory may grow by that for each call that ended in the steady part
--wavers-by     instead, of a process whose own memory wavers by that much, calls or no calls
--registry      the registry may grow by so many calls: how many there are at once wavers with
                their random lengths

Exit code 0: all is well; 1: something grows or is missing; 3: all calls are whole, but the run
was too short to tell whether anything grows.
"""

import argparse
import collections
import datetime
import json
import pathlib
import sys
import typing

# Calls come and go at their usual number, and the process has the memory that so many take,
# neither at first nor at the end.
WARM_UP = 1 / 3
WARM_UP_S = 180
LAST_CALLS_S = 32
STEADY_S = 300
# Resident memory of a process that does not grow goes up and down by a page. What is allowed must
# be far more, or chance would decide.
PAGE_KIB = 4
PAGES_ALLOWED = 8

GOOD, BAD, TOO_SHORT = 0, 1, 3


class Bounds(typing.NamedTuple):
    """Growth over the whole steady part that is still no growth."""

    bytes_a_call: typing.Optional[int]
    wavers_by_kib: typing.Optional[int]
    registry: int

    def memory_kib(self, ended):
        return self.wavers_by_kib if self.bytes_a_call is None else self.bytes_a_call * ended / 1024


class Sample(typing.NamedTuple):
    seconds: int
    resident_kib: int
    descriptors: int
    threads: int
    registry: int


def growth(points):
    """Of the straight line that fits the points best, from the first to the last."""
    n = len(points)
    mean_x = sum(x for x, _ in points) / n
    mean_y = sum(y for _, y in points) / n
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    return slope * (points[-1][0] - points[0][0])


def steady_part(samples):
    """Empty when the run was too short to have one."""
    if not samples:
        return []
    last = samples[-1].seconds
    begin = max(last * WARM_UP, WARM_UP_S)
    steady = [sample for sample in samples if begin < sample.seconds < last - LAST_CALLS_S]
    long_enough = steady and steady[-1].seconds - steady[0].seconds >= STEADY_S
    return steady if long_enough else []


def ended_between(events, begin, end):
    """How many calls ended between these seconds after the first call's start, which is when
    the samples begin, give or take a second."""
    moments = {"start": [], "end": []}
    for event in events:
        if event["event"] in moments:
            time = datetime.datetime.fromisoformat(event["time"].replace("Z", "+00:00"))
            moments[event["event"]].append(time.timestamp())
    if not moments["start"]:
        return 0
    first = min(moments["start"])
    return sum(begin <= moment - first <= end for moment in moments["end"])


def judge_figure(name, steady, column, allowed):
    values = [getattr(sample, column) for sample in steady]
    grown = growth([(sample.seconds, getattr(sample, column)) for sample in steady])
    seconds = steady[-1].seconds - steady[0].seconds
    fine = grown <= allowed
    print(f"{name:13} {min(values)} to {max(values)}, slope {grown * 3600 / seconds:+.1f} an hour:"
          f" {grown:+.1f}, at most {allowed:.0f}{'' if fine else ': GROWS'}")
    return fine, grown


def judge_memory(steady, ended, bounds):
    fine, grown = judge_figure("resident KiB", steady, "resident_kib", bounds.memory_kib(ended))
    if bounds.bytes_a_call is not None:
        print(f"              {grown * 1024 / ended:+.1f} bytes for each of {ended} calls that"
              f" ended, at most {bounds.bytes_a_call}")
    else:
        hidden = bounds.wavers_by_kib * 1024 / max(ended, 1)
        print(f"              the switch's own memory wavers: {hidden:.0f} bytes for each of {ended}"
              " calls that ended could hide in it;\n              only the registry and the"
              " matched starts and ends speak for the module")
    return fine


def judge_samples(samples, events, bounds):
    """GOOD, BAD or TOO_SHORT."""
    steady = steady_part(samples)
    if not steady:
        print(f"growth        not judged: after {WARM_UP_S} s of warming up, or a third of the run,"
              f" there must be {STEADY_S} s before the last calls end")
        return TOO_SHORT
    ended = ended_between(events, steady[0].seconds, steady[-1].seconds)
    if bounds.memory_kib(ended) < PAGE_KIB * PAGES_ALLOWED:
        print(f"growth        not judged: {ended} calls ended in the steady part, too few for their"
              f" memory to stand out")
        return TOO_SHORT
    print(f"steady part   {(steady[-1].seconds - steady[0].seconds) / 60:.0f} minutes, in which"
          f" {ended} calls ended; growth in it:")
    good = [judge_memory(steady, ended, bounds)]
    for name, column, allowed in (("descriptors", "descriptors", 1), ("threads", "threads", 1),
                                  ("registry", "registry", bounds.registry)):
        good.append(judge_figure(name, steady, column, allowed)[0])
    return GOOD if all(good) else BAD


def judge_events(events, calls):
    """GOOD or BAD."""
    kinds = collections.Counter(event["event"] for event in events)
    ends = [event for event in events if event["event"] == "end"]
    terminated = sum(event["reason"] == "terminated" for event in ends)
    sides = [side for event in ends for side in event.get("sides", {}).values()]
    lost = sum(side["lost_packets"] for side in sides)
    gaps = sum(side["gaps"] for side in sides)
    print(f"calls         {calls} placed, {kinds['start']} start packets, {terminated} terminated,"
          f" {kinds['control']} control packets")
    print(f"audio         {gaps} gaps, {lost} packets lost, {kinds['malformed']} malformed,"
          f" {kinds['overflow']} overflows of the receiver")
    whole = (kinds["start"] == terminated == kinds["end"] == calls
             and gaps == lost == kinds["malformed"] == 0)
    return GOOD if whole else BAD


def judge(samples, events, calls, bounds):
    growing = judge_samples(samples, events, bounds)
    whole = judge_events(events, calls)
    if BAD in (growing, whole):
        flat = {GOOD: "flat", BAD: "NOT flat", TOO_SHORT: "too short to tell whether flat"}[growing]
        print(f"{flat}, {'whole' if whole == GOOD else 'NOT whole'}")
        return BAD
    print("flat and whole" if growing == GOOD else "whole, but TOO SHORT to tell whether flat")
    return growing


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("calls", type=int)
    memory = parser.add_mutually_exclusive_group(required=True)
    memory.add_argument("--bytes-a-call", type=int)
    memory.add_argument("--wavers-by", type=int, metavar="KIB")
    parser.add_argument("--registry", type=int, metavar="CALLS", required=True)
    options = parser.parse_args()
    samples = [Sample(*map(int, line.split()))
               for line in (options.folder / "samples.txt").read_text().splitlines()]
    events = [json.loads(line) for line in (options.folder / "events.jsonl").open()]
    bounds = Bounds(options.bytes_a_call, options.wavers_by, options.registry)
    sys.exit(judge(samples, events, options.calls, bounds))


if __name__ == "__main__":
    main()
