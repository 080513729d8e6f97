#!/usr/bin/env python3
"""Simulates a fleet of media nodes behind the balancer of examples/fleet.

Calls arrive at random (Poisson) and last at random (exponentially distributed). Nodes fail at
random; with --upgrade each node is also drained, restarted and added again, one after the other.
The script prints the load of each node, the calls that were split over two nodes, and the audio
that was lost. Equal seeds give equal results. docs/scaling.md explains the figures.
"""
import argparse
import bisect
import pathlib
import random
import sys
import typing

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "examples" / "fleet"))
import buckets  # noqa: E402  The maps are those that the balancer gets.

# Of a call with both sides at 8 kHz in frames of 20 ms: docs/operations.md, "The network".
PACKETS_PER_SECOND = 100
MBIT_PER_SECOND = 0.333
# Highest share of a core that was measured per packet: docs/performance.md, "The receiver".
CORES_PER_PACKET = 0.86 / 200_000
# A node writes a side's audio in blocks of 32 KiB, which is 2 s at 8 kHz.
BLOCK_S = 2.048


class Call(typing.NamedTuple):
    begin: float  # Seconds, like all times here.
    end: float
    bucket: int


class Change(typing.NamedTuple):
    """From this time on the balancer has this plan."""

    time: float
    plan: buckets.Plan


class Outage(typing.NamedTuple):
    """A node is dead from `begin` until `end`."""

    node: str
    begin: float
    end: float


class Part(typing.NamedTuple):
    """The piece of a call whose packets go to one node."""

    node: str
    begin: float
    end: float


def parts_of(call, changes):
    """The parts of a call. `changes` is in the order of time; the first is the initial plan."""
    at = bisect.bisect_right(changes, call.begin, key=lambda change: change.time) - 1
    plan = changes[max(at, 0)].plan
    # The balancer remembers a call that begins in a bucket on its way to another node.
    moved = call.bucket in plan.next
    node = plan.next[call.bucket] if moved else plan.buckets[call.bucket]
    parts, begin = [], call.begin
    for time, plan in changes[max(at, 0) + 1:]:
        if time >= call.end:
            break
        moved = moved and bool(plan.next)
        to = plan.next.get(call.bucket) if moved else None
        to = to or plan.buckets[call.bucket]
        if to != node:
            parts.append(Part(node, begin, time))
            node, begin = to, time
    return [*parts, Part(node, begin, call.end)]


def audio_lost(part, outages, block=BLOCK_S):
    """Seconds of a part that no file holds: what was sent to a dead node, and what a node had not
    written when it died, which is less than a block.
    """
    lost = 0
    for outage in outages:
        if outage.node != part.node or outage.end <= part.begin or outage.begin >= part.end:
            continue
        lost += min(part.end, outage.end) - max(part.begin, outage.begin)
        if outage.begin > part.begin:
            lost += (outage.begin - part.begin) % block
    return lost


class Result:
    """What happened to calls: the load of the nodes, the calls split, the audio lost."""

    def __init__(self):
        self.calls = self.split = self.split_by_failure = self.calls_with_loss = 0
        self.call_seconds = self.lost_seconds = 0.0
        self.loads = {}  # By node: (time, +1 or -1) of each part.

    def add(self, parts, outages):
        self.calls += 1
        self.call_seconds += parts[-1].end - parts[0].begin
        self.split += len(parts) > 1
        lost = sum(audio_lost(part, outages) for part in parts)
        self.lost_seconds += lost
        self.calls_with_loss += lost > 0
        self.split_by_failure += lost > 0 and len(parts) > 1
        for part in parts:
            self.loads.setdefault(part.node, []).extend([(part.begin, 1), (part.end, -1)])

    def load_of(self, node, until):
        """Mean and highest number of calls of a node from 0 until a time."""
        now = highest = 0
        total, last = 0.0, 0.0
        for time, change in sorted(self.loads.get(node, [])):
            if time > until:
                break
            total += now * (max(time, 0) - last)
            last = max(time, 0)
            now += change
            highest = max(highest, now)
        return (total + now * (until - last)) / until, highest


class Fleet:
    """The operator of the balancer: keeps the plan, and makes a list of changes and outages."""

    def __init__(self, weights, bucket_count):
        self.weights, self.bucket_count = dict(weights), bucket_count
        self.alive = dict(weights)
        self.plan = buckets.planned(self.alive, buckets.Plan({}, {}), False, bucket_count)
        self.changes = [Change(float("-inf"), self.plan)]
        self.outages = []

    def apply(self, time, new_calls):
        if any(self.alive.values()):
            self.plan = buckets.planned(self.alive, self.plan, new_calls, self.bucket_count)
            self.changes.append(Change(time, self.plan))


def actions_of(options, chance, nodes):
    """What happens to the nodes: (time, what, node), in the order of time."""
    actions = []
    if options.upgrade:
        time = 0.0
        for node in nodes:
            actions += [(time, "drain", node), (time + options.deadline, "finish", node),
                        (time + options.deadline + options.restart, "add", node)]
            time += 2 * options.deadline + options.restart
            actions.append((time, "finish", node))
    for node in nodes if options.failures_per_year else []:
        time = chance.expovariate(options.failures_per_year / (365 * 24 * 3600))
        while time < options.hours * 3600:
            actions += [(time, "die", node), (time + options.detect, "remove", node),
                        (time + options.detect + options.repair, "return", node),
                        (time + options.detect + options.repair + options.deadline, "finish", node)]
            time += options.detect + options.repair + chance.expovariate(
                options.failures_per_year / (365 * 24 * 3600))
    return sorted(actions, key=lambda action: action[0])  # One change ends before the next begins.


def operate(fleet, actions, detect, repair):
    """Does what an operator does by docs/scaling.md when these things happen."""
    drained = set()
    for time, what, node in actions:
        if what == "die":
            fleet.outages.append(Outage(node, time, time + detect + repair))
        elif what == "remove":
            fleet.alive.pop(node)
            fleet.apply(time, new_calls=True)
        elif what in ("drain", "add", "return"):
            drained.discard(node)
            if what == "drain":
                drained.add(node)
            if node in fleet.alive or what == "return":
                fleet.alive[node] = 0 if node in drained else fleet.weights[node]
            fleet.apply(time, new_calls=True)
        else:
            fleet.apply(time, new_calls=False)


def calls_of(options, chance, concurrent):
    """Calls in the steady state from time 0 on, in the order of their beginnings."""
    duration = options.duration
    until = options.hours * 3600
    # The calls at time 0. The rest of an exponentially distributed duration is distributed so,
    # too, and so is what has passed of it.
    time = 0.0
    rate = concurrent / duration
    for _ in range(round(concurrent)):
        yield Call(-chance.expovariate(1 / duration), chance.expovariate(1 / duration),
                   chance.randrange(options.buckets))
    while True:
        time += chance.expovariate(rate)
        if time >= until:
            return
        yield Call(time, time + chance.expovariate(1 / duration),
                   chance.randrange(options.buckets))


def simulate(options):
    """Returns the fleet, with what was done to it, and the result."""
    chance = random.Random(options.seed)
    names = [f"node{n + 1:0{len(str(options.nodes))}}" for n in range(options.nodes)]
    fleet = Fleet(dict.fromkeys(names, 1), options.buckets)
    operate(fleet, actions_of(options, chance, names), options.detect, options.repair)
    result = Result()
    for call in calls_of(options, chance, options.switches * options.calls):
        result.add(parts_of(call, fleet.changes), fleet.outages)
    return fleet, result


def show(options, fleet, result):
    until = options.hours * 3600
    print("node      buckets  calls: mean   most   packets/s  Mbit/s  cores")
    for node in fleet.weights:
        mean, most = result.load_of(node, until)
        held = sum(1 for name in fleet.changes[0].plan.buckets.values() if name == node)
        packets = most * PACKETS_PER_SECOND
        print(f"{node:10}{held:7}{mean:13.0f}{most:7}{packets:12,}"
              f"{most * MBIT_PER_SECOND:8.0f}{packets * CORES_PER_PACKET:7.2f}")
    per_million = 1e6 * result.lost_seconds / result.call_seconds
    print(f"calls          {result.calls:,}, {result.call_seconds / 3600:,.0f} hours")
    print(f"failures       {len(fleet.outages)} of nodes; {len(fleet.changes) - 1} changes of the "
          "maps")
    print(f"calls split    {result.split:,}: {result.split_by_failure:,} by failures, "
          f"{result.split - result.split_by_failure:,} by drains and additions")
    print(f"audio lost     {result.lost_seconds:,.0f} s of {result.calls_with_loss:,} calls: "
          f"{per_million:.2f} s per million seconds")


def positive(kind):
    def read(text):
        value = kind(text)
        if not 0 < value < 1e9:
            raise argparse.ArgumentTypeError(f"'{text}' is not above 0 and below 1e9")
        return value
    read.__name__ = "number"
    return read


def not_negative(text):
    value = float(text)
    if not 0 <= value < 1e9:
        raise argparse.ArgumentTypeError(f"'{text}' is below 0, or not below 1e9")
    return value


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)

    def option(name, kind, default, text):
        parser.add_argument(f"--{name}", type=kind, default=default, metavar="N",
                            help=f"{text} (%(default)s)")

    option("switches", positive(int), 4, "switches")
    option("calls", positive(int), 1000, "mean number of calls at once per switch")
    option("duration", positive(float), 180, "mean duration of a call in seconds")
    option("nodes", positive(int), 4, "media nodes, all of weight 1")
    option("buckets", positive(int), buckets.BUCKETS, "buckets of the balancer")
    option("hours", positive(float), 1, "duration of the simulation")
    option("failures-per-year", not_negative, 12, "failures of each node per year")
    option("detect", not_negative, 5, "seconds from a failure until the maps are changed")
    option("repair", not_negative, 600, "seconds until a failed node is added again")
    parser.add_argument("--upgrade", action="store_true", help="upgrade all nodes in turn")
    option("deadline", positive(float), 600, "seconds until present calls move, too")
    option("restart", not_negative, 10, "seconds that a restart takes with --upgrade")
    option("seed", int, 1, "seed of all that is random")
    options = parser.parse_args()
    try:
        show(options, *simulate(options))
    except buckets.Mistake as mistake:
        sys.exit(f"simulate_fleet.py: {mistake}")


if __name__ == "__main__":
    main()
