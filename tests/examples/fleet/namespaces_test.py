#!/usr/bin/env python3
"""Runs a small fleet in network namespaces of its own: two switches, a balancer with
examples/fleet/quorvane.nft, and three media nodes.

    namespaces_test.py QUORVANE_CALL QUORVANE_NODE MODULE

The calls go through the built module. While they run, one node is drained, upgraded and added
again, and another one is killed. A run in which the kernel took long to change the maps is
repeated. Exit code 77: nftables or namespaces cannot be used here, or the kernel took long in
every run, and the comparison with the simulation was left out.
"""
import argparse
import atexit
import json
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import typing
import unittest
import uuid
import wave

ROOT = pathlib.Path(__file__).resolve().parents[3]
FLEET = ROOT / "examples" / "fleet"
sys.path[:0] = [str(FLEET), str(ROOT / "scripts")]
sys.dont_write_bytecode = True
import buckets  # noqa: E402
import simulate_fleet  # noqa: E402

SKIPPED = 77
INCONCLUSIVE = 78  # Of the inner process: nothing failed, and the comparison was left out.
RUNS = 3  # At most.
PATIENCE = 60  # Seconds. Every program here ends by itself much earlier.
INSIDE = "--inside"  # The argument of the process that has a network of its own.

MEDIA_ADDRESS, MEDIA_PORT = "192.0.2.10", 40000  # As in quorvane.nft.
ONE, TWO, THREE = "192.0.2.11", "192.0.2.12", "192.0.2.13"
SWITCHES = ("198.51.100.11", "198.51.100.12")
BALANCER = "203.0.113.1"

RATE, FRAME_MS = 8000, 60  # Of the calls.
MARGIN = 0.1  # Seconds from the sending of a packet until the balancer has it, at most.
CALLS_PER_SECOND = 20  # Of each switch.
# Seconds. If a change of the maps takes longer, it is not known well enough which packets came
# after it.
LONGEST_CHANGE = 0.25


# ---- The network --------------------------------------------------------------------

def run(*command, check=True, text=None):
    """Runs a command; its output is in the error if it fails."""
    done = subprocess.run(command, input=text, capture_output=True, text=True, timeout=PATIENCE)
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stdout}{done.stderr}".strip())
    return done


def inside(space, *command):
    return ("ip", "netns", "exec", space, *command)


def add_machine(space, address):
    """Adds a namespace whose only neighbour is the balancer."""
    run("ip", "netns", "add", space)
    link = f"to_{space}"
    run("ip", "link", "add", link, "netns", "balancer", "type", "veth", "peer", "eth0", "netns",
        space)
    for command in (
            f"address add {address}/32 dev eth0", "link set lo up", "link set eth0 up",
            f"route add {BALANCER} dev eth0", f"route add default via {BALANCER}"):
        run("ip", "-n", space, *command.split())
    for command in (f"link set {link} up", f"address add {BALANCER}/32 dev {link}",
                    f"route add {address} dev {link}"):
        run("ip", "-n", "balancer", *command.split())


def build_network():
    run("ip", "netns", "add", "balancer")
    run("ip", "-n", "balancer", "link", "set", "lo", "up")
    run(*inside("balancer", "sh", "-c", "echo 1 >/proc/sys/net/ipv4/ip_forward"))
    for number, address in enumerate(SWITCHES, 1):
        add_machine(f"switch{number}", address)
    for number, address in enumerate((ONE, TWO, THREE), 1):
        add_machine(f"node{number}", address)


# ---- The balancer -------------------------------------------------------------------

def present_maps():
    return run(*inside("balancer", "nft", "list", "table", "ip", "quorvane")).stdout


def change_to(*arguments):
    """The transaction that changes the maps as docs/scaling.md says."""
    return run(sys.executable, str(FLEET / "buckets.py"), *arguments, "--present", "-",
               text=present_maps()).stdout


# What leaves the balancer.
WATCH = """table ip watch {
    counter sent_out { }
    counter marked_out { }
    chain leaving {
        type filter hook postrouting priority 0;
        udp dport 40000 counter name sent_out
        udp dport 40000 meta mark != 0 counter name marked_out
    }
}
"""


def counted(name, table="quorvane"):
    text = run(*inside("balancer", "nft", "list", "counter", "ip", table, name)).stdout
    return int(text.split("packets")[1].split()[0])


# ---- Nodes and switches -------------------------------------------------------------

class Node:
    """A media node in its namespace."""

    def __init__(self, folder, number, name):
        self.address = (ONE, TWO, THREE)[number - 1]
        self.folder = folder / name
        self.folder.mkdir()
        self.event_file = self.folder / "events.jsonl"
        with open(self.folder / "log", "w") as log:
            # A call that is cut here is seldom older than the usual --max-silence.
            self.process = subprocess.Popen(
                inside(f"node{number}", PROGRAMS.node, "--listen", f"{self.address}:{MEDIA_PORT}",
                       "--output", str(self.folder), "--events", str(self.event_file),
                       "--max-silence", "0.1", "--quiet"),
                stdout=log, stderr=subprocess.STDOUT)
        atexit.register(self.process.kill)
        self.wait_for(lambda: self.events("listening"))

    def wait_for(self, condition):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            if time.monotonic() > deadline or self.process.poll() is not None:
                raise AssertionError(f"waited in vain: {(self.folder / 'log').read_text()}")
            time.sleep(0.02)

    def events(self, *names):
        text = self.event_file.read_text() if self.event_file.exists() else ""
        events = [json.loads(line) for line in text.splitlines(True) if line.endswith("\n")]
        return [event for event in events if event["event"] in names]

    def stop(self):
        # A node waits for late packets of a call for a moment: --linger.
        self.wait_for(lambda: {event["call_uuid"] for event in self.events("terminate")} <=
                      {event["call_uuid"] for event in self.events("end")})
        self.process.terminate()
        if self.process.wait(PATIENCE) != 0:
            raise AssertionError((self.folder / "log").read_text())

    def kill(self):
        """Kills the program; returns the moment."""
        moment = time.monotonic()
        self.process.kill()
        self.process.wait(PATIENCE)
        return moment


def switch(number, folder, *arguments):
    """Starts calls of a switch; returns the process and the file of its lines."""
    path = folder / f"calls-{len(list(folder.glob('calls-*')))}"
    with open(path, "w") as out:
        process = subprocess.Popen(
            inside(f"switch{number}", PROGRAMS.call, "--module", PROGRAMS.module, "--media-node",
                   f"{MEDIA_ADDRESS}:{MEDIA_PORT}", "--frame-ms", str(FRAME_MS), "--quiet",
                   "--json", f"{path}.json", *arguments), stdout=out, stderr=subprocess.STDOUT)
    atexit.register(process.kill)
    return process, path


def hang_up(process, path):
    """Hangs up all calls of a switch; returns its figures."""
    process.send_signal(signal.SIGINT)
    if process.wait(PATIENCE) != 1:  # 1: calls were cut short.
        raise AssertionError(path.read_text())
    return json.loads(pathlib.Path(f"{path}.json").read_text())


def empty_calls(uuids):
    """Calls that consist of a start and a terminate packet."""
    for call_uuid in uuids:
        identity = struct.pack("<Q16sq", buckets.call_key(call_uuid), call_uuid.bytes, 1)
        yield struct.pack("<IBBH", 0x00FF00FF, 0x81, 1, 0) + identity + struct.pack(
            "<QQqQ4s2s2sHc", 0, 1, 1, 0, bytes(4), bytes(2), bytes(2), 1, b"\0")
        yield struct.pack("<IBBH", 0x00FF00FF, 0x82, 1, 0) + identity


def send_from_switch(number, datagrams):
    """Sends datagrams from one socket, as the module does."""
    program = ("import socket, sys, time\n"
               "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
               "for n, line in enumerate(sys.stdin):\n"
               f"    s.sendto(bytes.fromhex(line), ('{MEDIA_ADDRESS}', {MEDIA_PORT}))\n"
               "    if n % 50 == 0: time.sleep(0.002)\n")
    run(*inside(f"switch{number}", sys.executable, "-c", program),
        text="\n".join(datagram.hex() for datagram in datagrams))


def sent_at(event):
    """When a packet was sent, by the clock that all namespaces share. A busy node may be late."""
    return event["send_time"] / 1e6


# ---- What happened ------------------------------------------------------------------

class Part(typing.NamedTuple):
    """What one node received of a call."""

    node: Node
    start: dict  # Events; None where there was none.
    terminate: dict
    end: dict

    def sides(self):
        """Where each side begins and ends here, in samples of the call."""
        if self.end:
            return {name: (side["joined_at"], side["joined_at"] + side["samples"])
                    for name, side in self.end["sides"].items()}
        return {name: (0, self.samples_of_file(name)) for name in ("originator", "terminator")}

    def samples_of_file(self, side):
        """The samples that a killed node has written."""
        path = self.node.folder / f"{self.start['call_uuid']}-{side}.wav"
        if not path.exists():
            return 0
        with wave.open(str(path)) as file:
            return file.getnframes()

    def lost_packets(self):
        return sum(side["lost_packets"] for side in self.end["sides"].values())


class Fleet:
    """One run: what was done, and what the nodes wrote about it."""

    def __init__(self, folder):
        self.folder = folder
        self.changes = []  # Of the maps: from before, until after, and the plan.
        self.nodes = [Node(folder, number, f"node{number}") for number in (1, 2, 3)]
        self.change(change_to(f"{ONE}=2", TWO, THREE))
        # Calls without audio, which only show where they go.
        self.empty = [uuid.UUID(int=n * 0x9E3779B97F4A7C15F39CC0605CEDC835 % 2**128)
                      for n in range(1, 2001)]
        for number in (1, 2):
            send_from_switch(number, empty_calls(self.empty[number - 1::2]))
        self.operate()
        for node in self.nodes:
            if node.process.poll() is None:
                node.stop()
        self.calls = self.read_calls()

    def change(self, script):
        # Only the command itself is measured, not how long it takes to enter the namespace.
        command = ("import subprocess, time; before = time.monotonic(); "
                   "subprocess.run(['nft', '-f', '-'], check=True); "
                   "print(before, time.monotonic())")
        moments = run(*inside("balancer", sys.executable, "-c", command), text=script).stdout
        before, after = (float(moment) for moment in moments.split())
        path = self.folder / "maps"
        path.write_text(present_maps())
        self.changes.append((before, after, buckets.read_plan(str(path))))

    def operate(self):
        """The calls, and what the operator does while they run."""
        runs = [switch(number, self.folder, "--calls", "10000", "--rate", str(CALLS_PER_SECOND),
                       "--concurrent", "100", "--duration", "1.5-6", "--seed", str(number))
                for number in (1, 2)]
        self.long_call = self.call_that_moves()
        runs.append(switch(1, self.folder, "--duration", str(PATIENCE), "--uuid", self.long_call))
        self.nodes[2].wait_for(lambda: any(event["call_uuid"] == self.long_call
                                           for event in self.nodes[2].events("start")))
        time.sleep(2)
        # Node 3 is drained: from now on it gets no new calls. At the deadline it loses those that
        # still run. It is upgraded, which is a restart here, and added again.
        self.change(change_to(f"{ONE}=3", TWO, f"{THREE}=0", "--new-calls"))
        time.sleep(2)
        self.change(change_to(f"{ONE}=3", TWO, f"{THREE}=0"))
        self.nodes[2].stop()
        self.nodes.append(Node(self.folder, 3, "node3-upgraded"))
        # Node 2 is killed. Until the maps change, its packets are lost.
        without_two = change_to(f"{ONE}=3", THREE)
        time.sleep(1)
        self.kill_time = self.nodes[1].kill()
        time.sleep(0.5)
        self.change(without_two)
        time.sleep(1)
        self.hang_up_time = time.monotonic()
        figures = [hang_up(*one) for one in runs]
        self.tapped = sum(one["calls"]["tapped"] for one in figures)
        # On a busy machine the switches send late.
        self.lateness = max(one["lateness"]["max_s"] for one in figures)

    def call_that_moves(self):
        """The UUID of a call that begins on node 3."""
        first_plan = self.changes[0][2]
        uuids = (uuid.UUID(int=number) for number in range(1000))
        return str(next(call_uuid for call_uuid in uuids
                        if first_plan.buckets[bucket_of(call_uuid)] == THREE))

    def read_calls(self):
        """The parts of each call with audio by its UUID, in the order of time."""
        calls = {}
        for node in self.nodes:
            found = {}
            for event in node.events("start", "terminate", "end"):
                found.setdefault(event["call_uuid"], {})[event["event"]] = event
            for call_uuid, events in found.items():
                if uuid.UUID(call_uuid) not in self.empty:
                    calls.setdefault(call_uuid, []).append(
                        Part(node, *(events.get(name) for name in ("start", "terminate", "end"))))
        for parts in calls.values():
            parts.sort(key=lambda part: part.start is None)
        return calls

    def simulated(self, parts):
        """The same call for the simulation: its parts there, or None if a moment is not known or
        too close to a change of the maps.
        """
        first, last = parts[0], parts[-1]
        if first.start is None:
            return None
        begin = sent_at(first.start)
        end = sent_at(last.terminate) if last.terminate else self.changes[-1][0]
        if any(before - MARGIN < moment < after + MARGIN
               for before, after, _ in self.changes for moment in (begin, end)):
            return None
        bucket = bucket_of(uuid.UUID(first.start["call_uuid"]))
        changes = [simulate_fleet.Change(after, plan) for _, after, plan in self.changes]
        return simulate_fleet.parts_of(simulate_fleet.Call(begin, end, bucket), changes)


def bucket_of(call_uuid):
    return buckets.bucket_of(buckets.call_key(call_uuid))


# ---- The tests ----------------------------------------------------------------------

class SmallFleet(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        build_network()
        run(*inside("balancer", "nft", "-f", str(FLEET / "quorvane.nft")))
        run(*inside("balancer", "nft", "-f", "-"), text=WATCH)
        cls.fleet = Fleet(pathlib.Path(cls.folder.name))
        cls.longest_change = max(after - before for before, after, _ in cls.fleet.changes)

    def needs_short_changes(self):
        if self.longest_change > LONGEST_CHANGE:
            self.skipTest(f"a change of the maps took {self.longest_change:.2f} s")

    def split(self):
        """The calls with more than one part."""
        return {call_uuid: parts for call_uuid, parts in self.fleet.calls.items()
                if len(parts) > 1}

    def killed(self):
        """The calls that node 2 had begun and not completed when it was killed."""
        return {call_uuid: parts for call_uuid, parts in self.fleet.calls.items()
                if parts[0].node is self.fleet.nodes[1] and not parts[0].end}

    def assert_whole(self, part):
        self.assertIsNotNone(part.start)
        self.assertEqual(part.end["reason"], "terminated")
        self.assertEqual(part.lost_packets(), 0)
        sides = part.sides().values()
        self.assertEqual({begin for begin, _ in sides} - {0}, set())
        if sent_at(part.terminate) < self.fleet.hang_up_time:
            # Nothing is missing behind the last packet: both sides have the same frames.
            self.assertEqual(len(sides), 2)
            self.assertEqual(len({end for _, end in sides}), 1)

    def test_packets_leave_without_a_mark(self):
        self.assertGreater(counted("sent_out", "watch"), 10_000)
        self.assertEqual(counted("marked_out", "watch"), 0)

    def test_every_call_goes_to_the_node_of_its_bucket(self):
        plan = self.fleet.changes[0][2]
        places = {}
        for node in self.fleet.nodes[:3]:
            for event in node.events("end"):
                places.setdefault(uuid.UUID(event["call_uuid"]), []).append(node.address)
        for call_uuid in self.fleet.empty:
            self.assertEqual(places[call_uuid], [plan.buckets[bucket_of(call_uuid)]])
        self.assertEqual((counted("no_node"), counted("not_a_packet")), (0, 0))

    def test_shares_of_calls_are_those_of_the_weights(self):
        for node, share in zip(self.fleet.nodes, (0.5, 0.25, 0.25)):
            calls = sum(1 for event in node.events("start")
                        if uuid.UUID(event["call_uuid"]) in self.fleet.empty)
            print(f"{node.folder.name}: {calls / len(self.fleet.empty):.1%} of the calls, weight "
                  f"{share:.0%}")
            self.assertAlmostEqual(calls / len(self.fleet.empty), share, delta=0.03)

    def test_every_call_that_was_not_moved_is_whole_on_one_node(self):
        # A short call may have had all its packets lost after the kill.
        self.assertLessEqual(len(self.fleet.calls), self.fleet.tapped)
        self.assertGreater(len(self.fleet.calls), 0.97 * self.fleet.tapped)
        # A call that moves behind its last audio has only its terminate packet elsewhere.
        drained = {call_uuid for call_uuid, parts in self.fleet.calls.items()
                   if parts[0].node is self.fleet.nodes[2] and not parts[0].terminate}
        moved = {*self.split(), *self.killed(), *drained}
        whole = [parts for call_uuid, parts in self.fleet.calls.items() if call_uuid not in moved
                 and parts[0].start is not None]
        print(f"{len(whole)} of {len(self.fleet.calls)} calls whole on one node")
        self.assertGreater(len(whole), 50)
        for parts in whole:
            self.assertEqual(len(parts), 1)
            self.assert_whole(parts[0])

    def test_a_drained_node_gets_no_new_calls(self):
        drained_from = self.fleet.changes[1][1]
        for event in self.fleet.nodes[2].events("start"):
            self.assertLess(sent_at(event), drained_from + MARGIN)

    def test_a_drained_node_keeps_calls_that_end_before_the_deadline(self):
        drain, deadline = self.fleet.changes[1][1], self.fleet.changes[2][0]
        kept = [part for parts in self.fleet.calls.values() for part in parts
                if part.node is self.fleet.nodes[2] and part.terminate
                and drain < sent_at(part.terminate) < deadline]
        print(f"{len(kept)} calls ended on the drained node before the deadline")
        self.assertGreater(len(kept), 0)
        for part in kept:
            self.assert_whole(part)
            self.assertEqual(len(self.fleet.calls[part.start["call_uuid"]]), 1)

    def test_calls_that_outlast_the_deadline_go_on_elsewhere_without_loss(self):
        cut = {call_uuid: parts for call_uuid, parts in self.split().items()
               if parts[0].node is self.fleet.nodes[2]}
        print(f"{len(cut)} calls moved from the drained node at the deadline")
        self.assertIn(self.fleet.long_call, cut)
        for first, second in cut.values():
            self.assertFalse(second.end["start_seen"])
            self.assertEqual(first.lost_packets() + second.lost_packets(), 0)
            for side, (_, end) in first.sides().items():
                self.assertEqual(second.sides()[side][0], end)

    def test_calls_of_a_killed_node_go_on_elsewhere(self):
        going_on = {call_uuid: parts for call_uuid, parts in self.killed().items()
                    if len(parts) > 1}
        print(f"{len(self.killed())} calls on the killed node, {len(going_on)} went on")
        self.assertGreater(len(going_on), 3)
        for first, second in going_on.values():
            self.assertIs(second.node, self.fleet.nodes[3])
            self.assertFalse(second.end["start_seen"])
            self.assertEqual(second.end["reason"], "terminated")
            self.assertEqual(second.lost_packets(), 0)

    def test_nobody_elses_call_loses_a_packet(self):
        plan = self.fleet.changes[2][2]  # The one in effect when the node is killed.
        others = [part for call_uuid, parts in self.fleet.calls.items() for part in parts
                  if plan.buckets[bucket_of(uuid.UUID(call_uuid))] != TWO]
        self.assertGreater(len(others), 50)
        for part in others:
            self.assertEqual(part.lost_packets(), 0, part)

    def test_the_simulation_moves_the_same_calls_to_the_same_nodes(self):
        self.needs_short_changes()
        compared = split = 0
        for parts in self.fleet.calls.values():
            simulated = self.fleet.simulated(parts)
            if simulated:
                self.assertEqual([part.node for part in simulated],
                                 [part.node.address for part in parts])
                compared += 1
                split += len(parts) > 1
        print(f"{compared} calls as in the simulation, {split} of them split")
        self.assertGreater(compared, 50)
        self.assertGreater(split, 3)

    def test_the_simulation_loses_as_much_audio(self):
        self.needs_short_changes()
        outage = simulate_fleet.Outage(TWO, self.fleet.kill_time, self.fleet.changes[-1][1])
        lost = expected = calls = 0
        for parts in self.killed().values():
            simulated = self.fleet.simulated(parts)
            if simulated and len(parts) == 2:
                calls += 1
                expected += simulate_fleet.audio_lost(simulated[0], [outage])
                begins = parts[1].sides()
                lost += sum(begins[side][0] - end
                            for side, (_, end) in parts[0].sides().items()) / 2 / RATE
        late = calls * self.fleet.lateness  # By so much less may have been sent at the end.
        print(f"audio lost by {calls} calls: {lost:.2f} s, {expected:.2f} s in the simulation, sent "
              f"up to {self.fleet.lateness:.3f} s late")
        self.assertGreater(lost, 0)
        self.assertAlmostEqual(lost, expected, delta=0.1 * expected + late)


# ---- A network of its own -----------------------------------------------------------

def unusable():
    """Why the test cannot run here; None if it can."""
    for program, package in (("ip", "iproute2"), ("nft", "nftables"), ("unshare", "util-linux")):
        if not shutil.which(program):
            return f"there is no '{program}' (package {package})"
    probe = subprocess.run([*OWN_NETWORK, sys.executable, __file__, "--probe"],
                           capture_output=True, text=True, timeout=PATIENCE)
    return (probe.stdout + probe.stderr).strip() or None if probe.returncode else None


def prepare():
    """Makes room for the names of namespaces, in a view of the file system of its own."""
    run("mount", "-t", "tmpfs", "tmpfs", "/run")


# Of the kernel. The shipped rules are no part of the probe: a fault in them must fail the test.
WHAT_THE_RULES_NEED = """
table ip probe {
    map nodes { type mark : ipv4_addr; }
    set seen { typeof @th,128,64; size 10; flags dynamic, timeout; timeout 1m; }
    counter none { }
    chain balance { type filter hook prerouting priority raw; policy accept; }
    chain call {
        notrack
        meta mark set jhash @th,128,64 mod 64 seed 1
        @th,96,8 0x81 add @seen { @th,128,64 }
        ip daddr set meta mark map @nodes accept
        counter name none drop
    }
}
"""


def probe():
    """Tries everything that may be forbidden."""
    try:
        prepare()
        build_network()
        run(*inside("balancer", "nft", "-f", "-"), text=WHAT_THE_RULES_NEED)
    except RuntimeError as error:
        sys.exit(f"namespaces or nftables cannot be used: {error}")


ARGUMENTS = argparse.ArgumentParser(
    description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
ARGUMENTS.add_argument("call", metavar="QUORVANE_CALL")
ARGUMENTS.add_argument("node", metavar="QUORVANE_NODE")
ARGUMENTS.add_argument("module", metavar="MODULE")

if __name__ == "__main__":
    OWN_NETWORK = ["unshare", "--net", "--mount"]
    OWN_NETWORK += [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    if sys.argv[1:] == ["--probe"]:
        sys.exit(probe())
    INNER = sys.argv[1:2] == [INSIDE]
    PROGRAMS, OTHERS = ARGUMENTS.parse_known_args(sys.argv[2 if INNER else 1:])
    if INNER:
        prepare()
        RESULT = unittest.main(argv=[sys.argv[0], *OTHERS], verbosity=2, exit=False).result
        sys.exit(1 if not RESULT.wasSuccessful() else INCONCLUSIVE if RESULT.skipped else 0)
    REASON = unusable()
    if REASON:
        print(f"skipped: {REASON}")
        sys.exit(SKIPPED)
    for _ in range(RUNS):
        RESULT = subprocess.run([*OWN_NETWORK, sys.executable, __file__, INSIDE,
                                 *sys.argv[1:]]).returncode
        if RESULT != INCONCLUSIVE:
            sys.exit(RESULT)
    print("skipped: the comparison with the simulation, for in each of "
          f"{RUNS} runs a change of the maps took long")
    sys.exit(SKIPPED)
