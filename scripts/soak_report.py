"""Judges a soak test by the samples of the process and the events of the media node.

Usage: soak_report.py FOLDER CALLS (--bytes-a-call BYTES | --wavers-by KIB) --registry CALLS

FOLDER has samples.txt of soak_samples.py and events.jsonl of quorvane-node. CALLS is the number
of calls that were placed. Growth is that of the straight line that fits the samples best, over the
steady part of the run.

--bytes-a-call  resident memory may grow by BYTES for each call that ended in the steady part
--wavers-by     resident memory may grow by KIB in total, for a process whose own memory varies by
                that much even without calls
--registry      the registry may grow by CALLS calls, because the number of simultaneous calls
                varies with their random lengths

Exit code 0: all is well; 1: something grows or is missing; 3: all calls are complete, but the run
was too short to judge growth.
"""

import argparse
import collections
import datetime
import json
import pathlib
import sys
import typing

# The beginning and the end of a run are left out: the number of calls and the memory that they
# take are not yet, or no longer, at their usual level.
WARM_UP = 1 / 3
WARM_UP_S = 180
LAST_CALLS_S = 32
STEADY_S = 300
# The resident memory of a process that does not grow still goes up and down by a page. The limit
# must be far above that, or chance would decide.
PAGE_KIB = 4
PAGES_ALLOWED = 8

GOOD, BAD, TOO_SHORT = 0, 1, 3


class Bounds(typing.NamedTuple):
    """The limits of growth over the whole steady part."""

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
    """The growth of the best fitting straight line from the first to the last point."""
    n = len(points)
    mean_x = sum(x for x, _ in points) / n
    mean_y = sum(y for _, y in points) / n
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    return slope * (points[-1][0] - points[0][0])


def steady_part(samples):
    """The samples of the steady part; empty if the run was too short to have one."""
    if not samples:
        return []
    last = samples[-1].seconds
    begin = max(last * WARM_UP, WARM_UP_S)
    steady = [sample for sample in samples if begin < sample.seconds < last - LAST_CALLS_S]
    long_enough = steady and steady[-1].seconds - steady[0].seconds >= STEADY_S
    return steady if long_enough else []


def ended_between(events, begin, end):
    """The number of calls that ended between `begin` and `end`, in seconds after the first call's
    start. The samples start within a second of that."""
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
        print(f"              the switch's own memory wavers: {hidden:.0f} bytes for each of"
              f" {ended} calls that ended could hide in it;\n"
              "              only the registry and the matched starts and ends speak for"
              " the module")
    return fine


def judge_samples(samples, events, bounds):
    """Returns GOOD, BAD or TOO_SHORT."""
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
    """Returns GOOD or BAD."""
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
    parser.add_argument("folder", type=pathlib.Path, help="folder of the samples and events")
    parser.add_argument("calls", type=int, help="number of calls that were placed")
    memory = parser.add_mutually_exclusive_group(required=True)
    memory.add_argument("--bytes-a-call", type=int, metavar="BYTES",
                        help="growth of resident memory allowed per call that ended")
    memory.add_argument("--wavers-by", type=int, metavar="KIB",
                        help="growth of resident memory allowed in all")
    parser.add_argument("--registry", type=int, metavar="CALLS", required=True,
                        help="growth allowed of the calls in the module's registry")
    options = parser.parse_args()
    samples = [Sample(*map(int, line.split()))
               for line in (options.folder / "samples.txt").read_text().splitlines()]
    events = [json.loads(line) for line in (options.folder / "events.jsonl").open()]
    bounds = Bounds(options.bytes_a_call, options.wavers_by, options.registry)
    sys.exit(judge(samples, events, options.calls, bounds))


if __name__ == "__main__":
    main()
