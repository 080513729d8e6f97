#!/usr/bin/env python3
"""Tests the script of examples/fleet that prints the maps of the balancer."""

import itertools
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import uuid

FLEET = pathlib.Path(__file__).resolve().parents[3] / "examples" / "fleet"
sys.path.insert(0, str(FLEET))
import buckets  # noqa: E402

# Key and bucket, as seen in the kernel with quorvane.nft.
KERNEL = ((0x34EC6CA7460833A0, 58),
          (0x0000000000000000, 63),
          (0x0000000000000001, 5),
          (0xFFFFFFFFFFFFFFFF, 27),
          (0x0123456789ABCDEF, 47))

A, B, C, D = "192.0.2.11", "192.0.2.12", "192.0.2.13", "192.0.2.14"
# As nft 1.0.6 prints it.
LISTED = """table ip quorvane {
	map buckets {
		type mark : ipv4_addr
		elements = { %s }
	}

	map next {
		type mark : ipv4_addr
		%s
	}
}
"""


def listed(plan):
    def elements(nodes):
        return ",\n\t\t\t     ".join(f"0x{bucket:08x} : {node}" for bucket, node in nodes.items())

    return LISTED % (elements(plan.buckets),
                     f"elements = {{ {elements(plan.next)} }}" if plan.next else "")


def run(*arguments, present=None):
    return subprocess.run([sys.executable, str(FLEET / "buckets.py"), *arguments], input=present,
                          capture_output=True, text=True, timeout=60)


def counts(nodes):
    return {node: list(nodes.values()).count(node) for node in set(nodes.values())}


def moves(before, after):
    return sum(1 for bucket, node in after.items() if before[bucket] != node)


def fresh(weights):
    return buckets.planned(weights, buckets.Plan({}, {}), False)


class TheBucketOfACall(unittest.TestCase):
    def test_comes_from_the_key_of_the_protocol_document(self):
        key = buckets.call_key(uuid.UUID("3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"))
        self.assertEqual(key, 0x34EC6CA7460833A0)

    def test_is_the_one_of_the_kernel(self):
        for key, bucket in KERNEL:
            self.assertEqual(buckets.bucket_of(key), bucket)

    def test_needs_the_numbers_of_the_rule_set(self):
        rules = (FLEET / "quorvane.nft").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r"mod (\d+) seed (\w+)", rules),
                         [(str(buckets.BUCKETS), f"0x{buckets.SEED:x}")])


class AMap(unittest.TestCase):
    def test_gives_each_node_its_share(self):
        self.assertEqual(counts(fresh({A: 1, B: 2, C: 1}).buckets), {A: 16, B: 32, C: 16})
        self.assertEqual(sorted(counts(fresh({A: 1, B: 1, C: 1}).buckets).values()), [21, 21, 22])
        self.assertEqual(counts(fresh({A: 1, B: 0}).buckets), {A: 64})

    def test_moves_nothing_without_need(self):
        before = fresh({A: 1, B: 1, C: 1})
        self.assertEqual(buckets.planned({C: 5, A: 5, B: 5}, before, False), before)

    def test_with_a_further_node_moves_only_its_buckets(self):
        before = fresh({A: 1, B: 1, C: 1})
        after = buckets.planned({A: 1, B: 1, C: 1, D: 1}, before, False)
        self.assertEqual(counts(after.buckets), {A: 16, B: 16, C: 16, D: 16})
        self.assertEqual(moves(before.buckets, after.buckets), 16)

    def test_without_a_node_moves_only_its_buckets(self):
        before = fresh({A: 1, B: 1, C: 2})
        for weights in ({A: 1, C: 2}, {A: 1, B: 0, C: 2}):
            after = buckets.planned(weights, before, False)
            self.assertEqual(moves(before.buckets, after.buckets), 16)
            self.assertNotIn(B, after.buckets.values())

    def test_moves_as_few_buckets_as_any_rounding_of_the_shares_allows(self):
        size = 5
        for old, new in itertools.product(itertools.product(range(3), repeat=3), repeat=2):
            if not any(old) or not any(new):
                continue
            try:
                before = buckets.assigned(dict(zip((A, B, C), old)), {}, size)
                after = buckets.assigned(dict(zip((A, B, C), new)), before, size)
            except buckets.Mistake:
                continue
            exact = {node: size * weight / sum(new) for node, weight in zip((A, B, C), new)}
            held, has = counts(before), counts(after)
            for node, share in exact.items():
                self.assertLess(abs(has.get(node, 0) - share), 1)
            fewest = min(
                sum(max(0, wanted - held.get(node, 0)) for node, wanted in zip(exact, rounding))
                for rounding in itertools.product(range(size + 1), repeat=3)
                if sum(rounding) == size
                and all(abs(a - b) < 1 for a, b in zip(rounding, exact.values())))
            self.assertEqual(moves(before, after), fewest, (old, new))


class AChangeForNewCalls(unittest.TestCase):
    def test_leaves_present_calls_where_they_are(self):
        before = fresh({A: 1, B: 1})
        during = buckets.planned({A: 1, B: 0}, before, True)
        self.assertEqual(during.buckets, before.buckets)
        self.assertEqual(during.next, {bucket: A for bucket in range(32, 64)})

    def test_ends_at_the_same_map_as_a_change_at_once(self):
        before = fresh({A: 1, B: 2, C: 3})
        weights = {A: 3, B: 1, C: 0, D: 1}
        during = buckets.planned(weights, before, True)
        self.assertEqual(buckets.planned(weights, during, False),
                         buckets.planned(weights, before, False))

    def test_moves_the_buckets_of_a_node_that_is_gone_at_once(self):
        during = buckets.planned({A: 1, B: 0, C: 1}, fresh({A: 1, B: 1, C: 1}), True)
        gone = buckets.planned({A: 1, B: 0}, during, True)
        self.assertNotIn(C, [*gone.buckets.values(), *gone.next.values()])
        for bucket, node in during.buckets.items():
            if node != C:
                self.assertEqual(gone.buckets[bucket], node)

    def test_can_be_taken_back(self):
        before = fresh({A: 1, B: 1})
        during = buckets.planned({A: 1, B: 0}, before, True)
        back = buckets.planned({A: 1, B: 1}, during, True)
        self.assertEqual(back.buckets, before.buckets)
        self.assertEqual(counts({**back.buckets, **back.next}), {A: 32, B: 32})


class TheScript(unittest.TestCase):
    def printed(self, *arguments, present=None):
        done = run(*arguments, present=present)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def refused(self, *arguments, present=None):
        done = run(*arguments, present=present)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertTrue(done.stderr.startswith("buckets.py: "), done.stderr)
        return done.stderr.removeprefix("buckets.py: ").rstrip("\n")

    def test_prints_a_transaction(self):
        lines = self.printed(f"{A}=3", B).splitlines()
        self.assertEqual(lines[:3], [
            "# 192.0.2.11       weight 3         buckets  0 -> 48   75.0%",
            "# 192.0.2.12       weight 1         buckets  0 -> 16   25.0%",
            "# 0 of 64 buckets move with their present calls, 0 with new calls only"])
        self.assertEqual(lines[3], "flush map ip quorvane buckets")
        self.assertTrue(lines[4].startswith(
            "add element ip quorvane buckets { 0 : 192.0.2.11, 1 : 192.0.2.11, "))
        self.assertTrue(lines[4].endswith(" 62 : 192.0.2.12, 63 : 192.0.2.12 }"))
        self.assertEqual(lines[5:], ["flush map ip quorvane next", "flush set ip quorvane moved"])

    def test_keeps_the_moved_calls_while_buckets_move(self):
        present = listed(fresh({A: 1, B: 1}))
        text = self.printed(A, f"{B}=0", "--new-calls", "--present", "-", present=present)
        self.assertIn("# 0 of 64 buckets move with their present calls, 32 with new calls only",
                      text)
        self.assertIn("add element ip quorvane next { 32 : 192.0.2.11, ", text)
        self.assertNotIn("moved", text)

    def test_reads_the_maps_from_a_file(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "present"
            path.write_text(listed(fresh({A: 1, B: 1})), encoding="utf-8")
            self.assertIn("16 of 64 buckets move",
                          self.printed(f"{A}=3", B, "--present", str(path)))

    def test_says_where_calls_are(self):
        before = fresh({A: 1, B: 1})
        present = listed(buckets.planned({A: 1, B: 0}, before, True))
        uuids = ("3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37", "00000000-0000-0000-0000-00000000003d")
        said = self.printed("--where", uuids[0], "--where", uuids[1], "--present", "-",
                            present=present).splitlines()
        self.assertEqual(said[0], f"{uuids[0]}  bucket 58  {B}, or {A} if it began after the "
                                  "bucket began to move")
        self.assertEqual(said[1], f"{uuids[1]}  bucket 21  {A}")

    def refused_map(self, text):
        with self.assertRaises(buckets.Mistake) as caught:
            buckets.plan_of(text)
        return str(caught.exception)

    def test_names_what_is_wrong_with_a_node(self):
        self.assertEqual(self.refused("1.2.3"), "node '1.2.3': '1.2.3' is no IPv4 address")
        self.assertEqual(self.refused("::1"), "node '::1': '::1' is no IPv4 address")
        for address in ("0.0.0.0", "127.0.0.1", "224.0.0.1", "255.255.255.255", "169.254.0.1"):
            self.assertEqual(self.refused(address),
                             f"node '{address}': '{address}' is no address of another machine")
        for weight in ("", "-1", "1.5", "x", "1000000000", "²"):
            self.assertEqual(self.refused(f"{A}={weight}"), f"node '{A}={weight}': the weight "
                             f"'{weight}' is no whole number from 0 to 999999999")
        self.assertEqual(self.refused(A, f"{A}=2"), f"node {A} is given twice")

    def test_names_what_is_wrong_with_all_nodes(self):
        self.assertEqual(self.refused(), "no node has a weight above 0")
        self.assertEqual(self.refused(f"{A}=0"), "no node has a weight above 0")
        self.assertEqual(self.refused(A, f"{B}=1000"),
                         f"node {A}: its weight 1 of 1001 is too small for a bucket of 64")
        self.assertEqual(self.refused(*(f"192.0.2.{n}" for n in range(65))),
                         "there are more nodes than the 64 buckets")

    def test_names_what_is_wrong_with_the_present_maps(self):
        self.assertEqual(self.refused(A, "--present", "/none"),
                         "/none: No such file or directory")
        self.assertEqual(self.refused(A, "--present", "-", present="hello"),
                         "-: there is no map 'buckets'; expected is the output of "
                         "'nft list table ip quorvane'")
        self.assertEqual(self.refused(A, "--present", "-",
                                      present=LISTED % (f"0x00000040 : {A}", "")),
                         "-: map 'buckets': bucket 64 is not one of 0 to 63")
        whole = listed(fresh({A: 1, B: 1}))
        for length in range(len(whole.rstrip())):
            self.assertRegex(self.refused_map(whole[:length]), "no map|is cut")
        self.assertRegex(self.refused_map(whole.replace("7 : ", "6 : ", 1)), "bucket 6 is there twice")
        self.assertEqual(self.refused(A, "--new-calls"),
                         "--new-calls needs the present maps: --present")
        self.assertEqual(self.refused("--where", "x"), "--where needs --present and no nodes")
        present = listed(fresh({A: 1}))
        self.assertEqual(self.refused("--where", "x", "--present", "-", present=present),
                         "'x' is no UUID")


if __name__ == "__main__":
    unittest.main()
