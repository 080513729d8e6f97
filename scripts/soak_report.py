"""Judges a soak: what the samples of the process and the events of the media node say.

Usage: soak_report.py FOLDER CALLS
"""

import collections
import json
import pathlib
import sys

# Growth over the whole steady part that is still no growth. How many calls there are at once
# wavers with their random lengths.
ALLOWED_KIB = 2048
ALLOWED_CALLS = 10
WARM_UP = 1 / 3  # The first calls bring the number of calls at once up to its level.


def slope(points):
    """Of the straight line that fits the points best, y per x."""
    n = len(points)
    mean_x = sum(x for x, _ in points) / n
    mean_y = sum(y for _, y in points) / n
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / spread if spread else 0.0


def judge_samples(path):
    rows = [tuple(map(int, line.split())) for line in path.read_text().splitlines()]
    # While calls come and go at their usual number: not at first, and not at the end.
    steady = [row for row in rows if rows[-1][0] * WARM_UP < row[0] < rows[-1][0] - 32]
    if len(steady) < 10:
        print("the run is too short to fit a slope")
        return False
    hours = (steady[-1][0] - steady[0][0]) / 3600
    good = True
    for name, column, allowed in (("resident KiB", 1, ALLOWED_KIB), ("descriptors", 2, 1),
                                  ("threads", 3, 1), ("registry", 4, ALLOWED_CALLS)):
        values = [row[column] for row in steady]
        per_hour = slope([(row[0] / 3600, row[column]) for row in steady])
        fine = per_hour * hours <= allowed
        good &= fine
        print(f"{name:13} {min(values)} to {max(values)}, slope {per_hour:+.1f} an hour"
              f" over {hours * 60:.0f} minutes{'' if fine else ': GROWS'}")
    return good


def judge_events(path, calls):
    events = collections.Counter()
    reasons = collections.Counter()
    lost = gaps = 0
    for line in path.open():
        event = json.loads(line)
        events[event["event"]] += 1
        if event["event"] == "end":
            reasons[event["reason"]] += 1
            for side in event.get("sides", {}).values():
                lost += side["lost_packets"]
                gaps += side["gaps"]
    print(f"calls         {calls} placed, {events['start']} start packets, {reasons['terminated']} terminated,"
          f" {events['control']} control packets")
    print(f"audio         {gaps} gaps, {lost} packets lost, {events['malformed']} malformed,"
          f" {events['overflow']} overflows of the receiver")
    return (events["start"] == reasons["terminated"] == calls and events["end"] == calls
            and gaps == lost == events["malformed"] == 0)


def main():
    folder, calls = pathlib.Path(sys.argv[1]), int(sys.argv[2])
    flat = judge_samples(folder / "samples.txt")
    whole = judge_events(folder / "events.jsonl", calls)
    print("flat and whole" if flat and whole else "NOT flat or NOT whole")
    sys.exit(0 if flat and whole else 1)


if __name__ == "__main__":
    main()
