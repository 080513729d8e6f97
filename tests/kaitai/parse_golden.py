#!/usr/bin/env python3
"""Parses every golden datagram with a parser generated from docs/quorvane.ksy. Each field must
have the value in golden.json, and each malformed datagram must be refused.
"""

import argparse
import importlib
import ipaddress
import json
import pathlib
import subprocess
import sys
import uuid

DATA = pathlib.Path(__file__).resolve().parents[1] / "data"
GOLDEN = json.loads((DATA / "golden.json").read_text(encoding="utf-8"))
TYPES = {0x81: "start", 0x82: "terminate", 0x83: "data", 0x84: "control"}
HEADER = ("magic", "packet_type", "protocol_version", "leg_word", "call_key", "call_uuid",
          "send_time")
BODIES = {
    "start": ("created_time", "configured_time", "configured_clock", "rule_id",
              "report_node_address", "report_node_port", "call_reference_length",
              "call_reference"),
    "data": ("sequence_number", "sample_offset", "sample_count", "audio"),
    "control": (), "terminate": ()}
FLAGS = {"start": ("is_outbound", "has_report_node", "has_rule_id"),
         "data": ("is_terminator", "is_write_leg")}
RUNNING = [f"{feature}_{side}" for feature in ("audio_activity", "sample_detection", "recording")
           for side in ("originator", "terminator")]
# The active features in the order of RUNNING, from the bit table of docs/protocol.md.
RUNNING_IN = {"start_outbound_full": [1, 1, 0, 0, 1, 1], "control_detection": [1, 1, 1, 0, 1, 1],
              "call_6_control": [0, 0, 0, 0, 1, 1]}
FLAG_BITS = {"start": (0x0001, 0x4000, 0x8000), "data": (0x0001, 0x8000)}
FORMS = {  # From the parser's values to those of golden.json.
    "packet_type": TYPES.get, "call_key": "0x{:016x}".format, "rule_id": str,
    "call_uuid": lambda raw: str(uuid.UUID(hex=raw)),
    "report_node_address": lambda raw: str(ipaddress.IPv4Address(raw)),
    "call_reference": lambda raw: bytes.fromhex(raw).decode("utf-8", "surrogateescape")}


def datagram(name):
    text = (DATA / f"{name}.hex").read_text(encoding="utf-8")
    return bytes.fromhex("".join(line.split("#")[0] for line in text.splitlines()))


def parse_in_python(folder, datagrams):
    """The fields of each datagram from the generated Python parser; None if it refuses it."""
    sys.path.insert(0, folder)
    quorvane = importlib.import_module("quorvane").Quorvane
    return [plain_fields(quorvane, bytes_) for bytes_ in datagrams]


def plain_fields(quorvane, bytes_):
    try:
        packet = quorvane.from_bytes(bytes_)
    except Exception as error:  # The types of exceptions differ between runtime versions.
        if isinstance(error, (AttributeError, NameError, TypeError)):
            raise  # These types are faults of the parser.
        return None
    kind = TYPES[packet.packet_type.value]
    values = {name: getattr(packet, name) for name in HEADER}
    values.update({name: getattr(packet.body, name) for name in BODIES[kind]})
    values["packet_type"] = packet.packet_type.value
    for name in ("call_uuid", "call_reference"):
        if name in values:
            values[name] = values[name].hex()
    if kind in FLAGS:
        values["flags"] = [int(getattr(packet.body, name)) for name in FLAGS[kind]]
    if hasattr(packet.body, "features"):
        features = packet.body.features
        values["features"] = {"supported": features.supported, "active": features.active}
        values["running"] = [int(getattr(features, name)) for name in RUNNING]
    return values


def parse_in_cpp(program, datagrams):
    lines = "".join(bytes_.hex() + "\n" for bytes_ in datagrams)
    result = subprocess.run([program], input=lines, capture_output=True, text=True, check=True)
    return [json.loads(line) for line in result.stdout.splitlines()]


def differences(name, expected, values):
    """The faults of a parsed datagram, one text each."""
    if "malformed" in expected:
        return [] if values is None else [f"{name}: parsed, although malformed"]
    if values is None:
        return [f"{name}: refused"]
    running = values.pop("running", None)
    flags = values.pop("flags", None)
    forms = {field: FORMS.get(field, lambda raw: raw)(raw) for field, raw in values.items()}
    found = [f"{name}: {field} is {forms.get(field)!r}, not {value!r}"
             for field, value in expected.items() if forms.get(field) != value]
    bits = FLAG_BITS.get(expected["packet_type"])
    if bits and flags != [int(expected["leg_word"] & bit != 0) for bit in bits]:
        found.append(f"{name}: flags are {flags}")
    if name in RUNNING_IN and running != RUNNING_IN[name]:
        found.append(f"{name}: running features are {running}")
    return found


def not_utf8():
    """A start packet whose call reference is legal, but is not UTF-8."""
    packet = bytearray(datagram("call_1_start"))
    packet[82:84] = b"\xff\xc3"
    reference = "\udcff\udcc3" + GOLDEN["call_1_start"]["call_reference"][2:]
    return bytes(packet), {**GOLDEN["call_1_start"], "call_reference": reference}


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("parser", metavar="PARSER", type=pathlib.Path,
                           help="the folder of the Python parser, or the program with the C++ "
                                "parser, built from cpp/parse_golden.cpp")
    parser = arguments.parse_args().parser
    parse = parse_in_python if parser.is_dir() else parse_in_cpp
    cases = {name: (datagram(name), fields) for name, fields in GOLDEN.items()}
    cases["call reference that is no UTF-8"] = not_utf8()
    parsed = parse(str(parser), [bytes_ for bytes_, _ in cases.values()])
    failed = 0
    for (name, (_, expected)), values in zip(cases.items(), parsed, strict=True):
        found = differences(name, expected, values)
        failed += bool(found)
        for text in found:
            print(text, file=sys.stderr)
    print(f"{len(cases) - failed} passed, {failed} failed")
    return 0 if failed == 0 and len(cases) > 30 else 1


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
