#!/usr/bin/env python3
"""Checks docs/protocol.md against the golden datagrams.

Its tables must decode every datagram to the fields of golden.json, its Python examples must print
what it says they print, its hex dump must be the golden call, and its table of refusals must name
existing files.
"""

import contextlib
import io
import json
import pathlib
import re
import sys
import unittest
import uuid

ROOT = pathlib.Path(__file__).resolve().parents[2]
DATA = ROOT / "tests" / "data"
DOCUMENT = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
GOLDEN = json.loads((DATA / "golden.json").read_text(encoding="utf-8"))
TYPES = {0x81: "start", 0x82: "terminate", 0x83: "data", 0x84: "control"}
FORMS = {
    "packet_type": lambda value: TYPES[value],
    "call_key": lambda value: f"0x{value:016x}",
    "call_uuid": lambda raw: str(uuid.UUID(bytes=raw)),
    "rule_id": str,
    "report_node_address": lambda value: ".".join(str(byte) for byte in value.to_bytes(4, "big")),
}


def from_hex(text):
    return bytes.fromhex("".join(line.split("#")[0] for line in text.splitlines()))


def datagram(name):
    return from_hex((DATA / f"{name}.hex").read_text(encoding="utf-8"))


def section(title):
    return DOCUMENT.split(f"\n## {title}\n")[1].split("\n## ")[0]


def rows(text):
    """The rows of a section's tables, as lists of cells."""
    lines = [line for line in text.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]


def fields(title):
    """Offset, width, type, byte order and name of each field of a packet's table."""
    table = [row for row in rows(section(title)) if len(row) == 7 and row[0].isdigit()]
    return [(int(row[0]), row[1], row[2], row[3], row[4].strip("`")) for row in table]


def decode_field(raw, kind, order):
    endian = "big" if order == "BE" else "little"
    if kind == "features":
        return {"supported": raw[0], "active": raw[1]}
    if kind == "text":
        return raw[:-1].decode("utf-8")
    if kind == "i16":
        pairs = range(0, len(raw), 2)
        return [int.from_bytes(raw[at : at + 2], endian, signed=True) for at in pairs]
    if kind == "bytes":
        return raw
    return int.from_bytes(raw, endian, signed=kind.startswith("i"))


def decode(data):
    """Decodes a datagram using only the document's tables."""
    title = TYPES[data[4]].capitalize() + " packet"
    values = {}
    for offset, width, kind, order, name in fields("Common header") + fields(title):
        count = {"L": values.get("call_reference_length"), "2N": 2 * values.get("sample_count", 0)}
        size = count[width] if width in count else int(width)
        value = decode_field(data[offset : offset + size], kind, order)
        values[name] = FORMS.get(name, lambda plain: plain)(value)
    return values


class Document(unittest.TestCase):
    maxDiff = None

    def test_tables_decode_every_golden_datagram(self):
        well_formed = [name for name in GOLDEN if "malformed" not in GOLDEN[name]]
        self.assertGreater(len(well_formed), 15)
        for name in well_formed:
            with self.subTest(name):
                self.assertEqual(decode(datagram(name)), GOLDEN[name])

    def test_golden_json_names_every_file(self):
        self.assertEqual(sorted(GOLDEN), sorted(path.stem for path in DATA.glob("*.hex")))

    def test_python_examples_print_what_is_shown(self):
        examples = re.findall(r"```python\n(.*?)```\n\nprints\n\n```text\n(.*?)```", DOCUMENT, re.S)
        self.assertEqual(len(examples), DOCUMENT.count("```python"))
        for code, shown in examples:
            printed = io.StringIO()
            with contextlib.redirect_stdout(printed):
                exec(code, {})  # Runs the document's code as a reader would.
            self.assertEqual(printed.getvalue(), shown)

    def test_hex_dump_is_the_golden_call(self):
        dump = re.findall(r"```hex\n(.*?)```", DOCUMENT, re.S)
        self.assertEqual(len(dump), 1)
        packets = [text for text in dump[0].split("\n\n") if text.strip()]
        names = sorted(name for name in GOLDEN if name.startswith("call_"))
        self.assertEqual([from_hex(text) for text in packets], [datagram(name) for name in names])

    def test_lengths_are_those_of_the_table(self):
        bounds = {row[0]: row[3] for row in rows(section("In short")) if row[0] in TYPES.values()}
        for name, expected in GOLDEN.items():
            if "malformed" in expected:
                continue
            # The text is like "82 + L, 83 to 1376" or "42".
            bound = bounds[expected["packet_type"]].split(",")[-1].split(" to ")
            with self.subTest(name):
                self.assertLessEqual(len(datagram(name)), int(bound[-1]))
                self.assertGreaterEqual(len(datagram(name)), int(bound[0]))

    def test_reasons_for_refusal_are_those_of_the_golden_datagrams(self):
        table = {row[0]: re.findall(r"`(malformed_\w+)`", row[2])
                 for row in rows(section("What to refuse")) if "malformed_" in row[2]}
        self.assertEqual(set(table), {entry["malformed"] for entry in GOLDEN.values()
                                      if "malformed" in entry})
        for reason, names in table.items():
            for name in names:
                self.assertEqual(GOLDEN[name]["malformed"], reason, name)

    def test_every_name_of_a_field_is_in_a_table(self):
        titles = ["Common header"] + [kind.capitalize() + " packet" for kind in TYPES.values()]
        documented = {field[4] for title in titles for field in fields(title)}
        used = {name for entry in GOLDEN.values() if "malformed" not in entry for name in entry}
        self.assertEqual(used, documented)


if __name__ == "__main__":
    sys.exit(unittest.main())
