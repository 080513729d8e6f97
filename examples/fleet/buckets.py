#!/usr/bin/env python3
"""Prints the maps of quorvane.nft for a list of media nodes and their weights.

Needs only Python 3.10. As few calls as possible change their node: a bucket stays where it is as
long as the weights allow. The output is one transaction for nft:

    nft list table ip quorvane > present
    buckets.py 192.0.2.11 192.0.2.12=2 --present present | nft -f -

A node with weight 0 gives its buckets away, which drains it. So does a node that is in the present
map and not in the list: it is taken for dead. docs/scaling.md describes all changes step by step.
"""
import argparse
import ipaddress
import pathlib
import re
import sys
import typing
import uuid

BUCKETS = 64  # `mod` in quorvane.nft.
SEED = 0x71766E31  # `seed` in quorvane.nft.

MASK = 0xFFFFFFFF
ELEMENT = re.compile(r"(0x[0-9a-fA-F]+|\d+)\s*:\s*(\d+\.\d+\.\d+\.\d+)")


class Mistake(Exception):
    """Something that the user has to mend; its text names it."""


class Plan(typing.NamedTuple):
    """The contents of the two maps, node by bucket."""

    buckets: dict  # Every bucket.
    next: dict  # Buckets whose new calls go to another node already.


def call_key(call_uuid):
    """The key of a call: the CRC-64 (ECMA-182) of the 16 bytes of its UUID."""
    key = 0
    for byte in call_uuid.bytes:
        key ^= byte << 56
        for _ in range(8):
            key = ((key << 1) ^ (0x42F0E1EBA9EA3693 if key >> 63 else 0)) & 0xFFFFFFFFFFFFFFFF
    return key


def bucket_of(key):
    """The bucket of a call key: what `jhash @th,128,64 mod 64` computes on x86 and ARM."""
    def rotated(value, bits):
        return (value << bits | value >> 32 - bits) & MASK

    start = (0xDEADBEEF + 8 + SEED) & MASK  # 8: the bytes of a key.
    a, b, c = (start + key) & MASK, (start + (key >> 32)) & MASK, start
    c = ((c ^ b) - rotated(b, 14)) & MASK
    a = ((a ^ c) - rotated(c, 11)) & MASK
    b = ((b ^ a) - rotated(a, 25)) & MASK
    c = ((c ^ b) - rotated(b, 16)) & MASK
    a = ((a ^ c) - rotated(c, 4)) & MASK
    b = ((b ^ a) - rotated(a, 14)) & MASK
    c = ((c ^ b) - rotated(b, 24)) & MASK
    return c * BUCKETS >> 32


def shares(weights, held, buckets=BUCKETS):
    """How many buckets each node is to have.

    These are the exact shares, rounded down or up. Nodes that already hold more than their share
    rounded down are rounded up first, because that saves a move; then those with the largest
    remainder.
    """
    total = sum(weights.values())
    result = {node: buckets * weight // total for node, weight in weights.items()}
    remainder = {node: buckets * weight % total for node, weight in weights.items()}
    first = sorted((node for node in weights if remainder[node]),
                   key=lambda node: (held.get(node, 0) <= result[node], -remainder[node]))
    for node in first[:buckets - sum(result.values())]:
        result[node] += 1
    empty = [node for node, weight in weights.items() if weight and not result[node]]
    if empty:
        raise Mistake(f"node {empty[0]}: its weight {weights[empty[0]]} of {total} is too small "
                      f"for a bucket of {buckets}")
    return result


def assigned(weights, present, buckets=BUCKETS):
    """Node by bucket for these weights, with as few differences from `present` as possible."""
    held = {}
    for node in present.values():
        held[node] = held.get(node, 0) + 1
    wanted = shares(weights, held, buckets)
    result, free = {}, []
    for bucket in range(buckets):
        node = present.get(bucket)
        if wanted.get(node, 0) > 0:
            wanted[node] -= 1
            result[bucket] = node
        else:
            free.append(bucket)
    receivers = [node for node, count in wanted.items() for _ in range(count)]
    result.update(zip(free, receivers))
    return result


def planned(weights, present, new_calls, buckets=BUCKETS):
    """The plan that follows on the plan `present`.

    With `new_calls` the buckets of nodes that live stay where they are, and only `next` changes.
    A bucket that is moving already goes on to the same node if that node still has a share.
    """
    target = assigned(weights, {**present.buckets, **present.next}, buckets)
    if not new_calls:
        return Plan(target, {})
    stays = {bucket: present.buckets[bucket] if present.buckets.get(bucket) in weights else node
             for bucket, node in target.items()}
    return Plan(stays, {bucket: node for bucket, node in target.items() if node != stays[bucket]})


def elements_of(text, name):
    """The elements of a map in the output of `nft list`."""
    found = re.search(r"map " + name + r" \{(.*?)\}", text, re.DOTALL)
    if not found:
        raise Mistake(f"there is no map '{name}'; expected is the output of "
                      "'nft list table ip quorvane'")
    elements = {}
    for number, node in ELEMENT.findall(found.group(1)):
        bucket = int(number, 0)
        if bucket >= BUCKETS:
            raise Mistake(f"map '{name}': bucket {bucket} is not one of 0 to {BUCKETS - 1}")
        if bucket in elements:
            raise Mistake(f"map '{name}': bucket {bucket} is there twice")
        elements[bucket] = node
    return elements


def plan_of(text):
    """The plan in the output of `nft list`."""
    plan = Plan(elements_of(text, "buckets"), elements_of(text, "next"))
    if text.count("{") != text.count("}"):  # The rest did not fit on the disk.
        raise Mistake("the output of 'nft list table ip quorvane' is cut")
    return plan


def read_plan(path):
    """The present plan, from a file or, for `-`, from the standard input."""
    try:
        text = sys.stdin.read() if path == "-" else pathlib.Path(path).read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        raise Mistake(f"{path}: {getattr(error, 'strerror', None) or error}") from None
    try:
        return plan_of(text)
    except Mistake as mistake:
        raise Mistake(f"{path}: {mistake}") from None


def read_nodes(texts):
    """Weight by address."""
    weights = {}
    for text in texts:
        address, _, weight = text.partition("=")
        try:
            node = ipaddress.IPv4Address(address)
        except ValueError:
            raise Mistake(f"node '{text}': '{address}' is no IPv4 address") from None
        if node.is_unspecified or node.is_loopback or node.is_link_local or node.is_multicast or \
                node == ipaddress.IPv4Address(MASK):
            raise Mistake(f"node '{text}': '{address}' is no address of another machine")
        node = str(node)
        if "=" in text and not re.fullmatch(r"\d{1,9}", weight, re.ASCII):
            raise Mistake(f"node '{text}': the weight '{weight}' is no whole number from 0 to "
                          "999999999")
        if node in weights:
            raise Mistake(f"node {node} is given twice")
        weights[node] = int(weight) if "=" in text else 1
    if not sum(weights.values()):
        raise Mistake("no node has a weight above 0")
    if sum(1 for weight in weights.values() if weight) > BUCKETS:
        raise Mistake(f"there are more nodes than the {BUCKETS} buckets")
    return weights


def report_lines(weights, before, after):
    """What the plan means for each node."""
    target = {**after.buckets, **after.next}
    for node in sorted({*before.buckets.values(), *target.values(), *weights},
                       key=ipaddress.IPv4Address):
        weight = weights.get(node)
        now = sum(1 for name in before.buckets.values() if name == node)
        then = sum(1 for name in target.values() if name == node)
        said = "not in the list" if weight is None else f"weight {weight}"
        yield f"# {node:15}  {said:15}  buckets {now:2} -> {then:2}  {then / BUCKETS:6.1%}"
    at_once = sum(1 for bucket, node in after.buckets.items()
                  if before.buckets.get(bucket, node) != node)
    yield f"# {at_once} of {BUCKETS} buckets move with their present calls, " \
          f"{len(after.next)} with new calls only"


def script(plan):
    """The transaction that brings the maps of the balancer to this plan."""
    def lines(name, elements):
        yield f"flush map ip quorvane {name}"
        if elements:
            text = ", ".join(f"{bucket} : {node}" for bucket, node in sorted(elements.items()))
            yield f"add element ip quorvane {name} {{ {text} }}"

    yield from lines("buckets", plan.buckets)
    yield from lines("next", plan.next)
    if not plan.next:
        yield "flush set ip quorvane moved"


def places(uuids, plan):
    """Where the balancer sends the calls with these UUIDs."""
    for text in uuids:
        try:
            bucket = bucket_of(call_key(uuid.UUID(text)))
        except ValueError:
            raise Mistake(f"'{text}' is no UUID") from None
        to = plan.buckets.get(bucket, "no node")
        if bucket in plan.next:
            to += f", or {plan.next[bucket]} if it began after the bucket began to move"
        yield f"{text}  bucket {bucket}  {to}"


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("nodes", nargs="*", metavar="ADDRESS[=WEIGHT]",
                        help="a media node; its weight is 1 unless given")
    parser.add_argument("--present", metavar="FILE",
                        help="the present maps, as 'nft list table ip quorvane' prints them; "
                             "'-' is the standard input. Without it, all buckets are new")
    parser.add_argument("--new-calls", action="store_true",
                        help="move only new calls; present calls stay where they are, except those "
                             "of nodes that are not in the list")
    parser.add_argument("--where", metavar="UUID", action="append", default=[],
                        help="print the node of this call by the present maps and change nothing; "
                             "may be repeated")
    options = parser.parse_args()
    try:
        if options.new_calls and options.present is None:
            raise Mistake("--new-calls needs the present maps: --present")
        before = read_plan(options.present) if options.present is not None else Plan({}, {})
        if options.where:
            if options.nodes or options.present is None:
                raise Mistake("--where needs --present and no nodes")
            print(*places(options.where, before), sep="\n")
            return
        weights = read_nodes(options.nodes)
        after = planned(weights, before, options.new_calls)
    except Mistake as mistake:
        sys.exit(f"buckets.py: {mistake}")
    print(*report_lines(weights, before, after), *script(after), sep="\n")


if __name__ == "__main__":
    main()
