#!/usr/bin/env python3
"""Tests host/check/interface_check.cpp: it covers all of host/include/switch.h, and any
difference between the headers is a compiler error.
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / "host" / "check" / "interface_check.cpp"
HEADER = ROOT / "host" / "include" / "switch.h"
PARSER = argparse.ArgumentParser(description=__doc__)
PARSER.add_argument("compiler", metavar="COMPILER", nargs="?", default="c++")
PARSER.add_argument("real_headers", metavar="REAL_INCLUDE_FOLDER", nargs="?", type=pathlib.Path,
                    help="the host's own headers; their tests are skipped without it")
ARGUMENTS = PARSER.parse_args()
COMPILER, REAL_HEADERS = ARGUMENTS.compiler, ARGUMENTS.real_headers

# Macros of our header that the host does not have.
OWN_MACROS = {"QUORVANE_SWITCH_EVENT_ALL", "QUORVANE_CF_MEDIA_SET"}
# The slots of our codec record have this type; in the host each slot has a type of its own.
OWN_TYPES = {"switch_codec_slot_t"}


def compile_check(include, *definitions):
    """The compiler's messages for the check with the headers in INCLUDE; "" if it succeeds."""
    run = subprocess.run(
        [COMPILER, "-std=c++17", "-fsyntax-only", "-isystem", str(include), *definitions,
         str(CHECK)],
        capture_output=True, text=True, check=False)
    return run.stderr if run.returncode else ""


def declarations():
    """The header without comments, and with macros of several lines on one."""
    text = re.sub(r"//[^\n]*", "", HEADER.read_text(encoding="utf-8"))
    return text.replace("\\\n", " ")


def records():
    """Pairs of a record's type and its field."""
    pattern = r"struct (\w+) \{(.*?)\}( \w+)?;"
    for tag, body, alias in re.findall(pattern, declarations(), re.DOTALL):
        for field in filter(None, map(str.strip, body.split(";"))):
            yield alias.strip() or f"{tag}_t", re.search(r"(\w+)$", field).group(1)


def enumerators():
    for body in re.findall(r"typedef enum \{(.*?)\}", declarations(), re.DOTALL):
        yield from re.findall(r"(\w+)\s*(?:=[^,]*)?(?:,|$)", body.strip())


def functions():
    plain = "\n".join(line for line in declarations().splitlines() if not line.startswith("#"))
    return re.findall(r"SWITCH_DECLARE\([^)]*\)\s*(\w+)\(", plain)


def types():
    text = re.sub(r"\{[^{}]*\}", "", declarations())
    for name in re.findall(r"^typedef [^;]*?(\w+);", text, re.MULTILINE):
        yield name
    for name in re.findall(r"^typedef [^;]*?\(\*(\w+)\)", text, re.MULTILINE):
        yield name


def macros():
    return re.findall(r"^#define (\w+)", declarations(), re.MULTILINE)


class Completeness(unittest.TestCase):
    def setUp(self):
        self.facts = CHECK.read_text(encoding="utf-8")

    def expect(self, pattern, names, at_least):
        names = list(names)
        self.assertGreaterEqual(len(names), at_least)
        missing = [name for name in names if not re.search(pattern(name), self.facts)]
        self.assertEqual(missing, [], "to be added to host/check/interface_check.cpp")

    def test_every_enumerator_is_checked(self):
        self.expect(lambda name: rf"VALUE\({name},", enumerators(), 100)

    def test_every_field_is_checked(self):
        self.expect(lambda pair: rf"(FIELD|POINTER)\({pair[0]},\s+{pair[1]},", records(), 100)

    def test_every_record_has_its_size_checked(self):
        self.expect(lambda name: rf"SIZE\({name},", {record for record, _ in records()}, 11)

    def test_every_function_is_checked(self):
        self.expect(lambda name: rf"FUNCTION\({name},", functions(), 25)

    def test_every_type_is_checked(self):
        self.expect(lambda name: rf"(TYPE|SIZE)\({name},", set(types()) - OWN_TYPES, 40)

    def test_every_macro_is_checked(self):
        self.expect(lambda name: rf"\b{name}\b", set(macros()) - OWN_MACROS, 8)


class ChangedHeaders(unittest.TestCase):
    """Compiles the check with changed copies of the headers."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def change(self, file, before, after):
        text = file.read_text(encoding="utf-8", errors="surrogateescape")
        self.assertEqual(text.count(before), 1, f"{before} in {file}")
        file.write_text(text.replace(before, after), encoding="utf-8", errors="surrogateescape")


class Differences(ChangedHeaders):
    """The check finds each change of our header."""

    def changed(self, before, after):
        copy = self.folder / "switch.h"
        shutil.copy(HEADER, copy)
        self.change(copy, before, after)
        return compile_check(self.folder)

    def test_the_header_as_it_is_has_none(self):
        self.assertEqual(compile_check(HEADER.parent), "")

    def test_value(self):
        said = self.changed("SWITCH_STATUS_TERM = 21", "SWITCH_STATUS_TERM = 22")
        self.assertIn("SWITCH_STATUS_TERM is not 21", said)

    def test_order_of_fields(self):
        said = self.changed("uint32_t datalen;\n    uint32_t buflen;",
                            "uint32_t buflen;\n    uint32_t datalen;")
        self.assertIn("switch_frame_t.datalen lies elsewhere", said)

    def test_type_of_a_field(self):
        said = self.changed("uint32_t rate;", "int32_t rate;")
        self.assertIn("switch_frame_t.rate is of another type", said)

    def test_size(self):
        said = self.changed("switch_time_t hold_accum;\n    struct switch_channel_timetable* next;",
                            "switch_time_t hold_accum;\n    struct switch_channel_timetable* next;"
                            "\n    int more;")
        self.assertIn("switch_channel_timetable_t has another size", said)

    def test_parameter(self):
        said = self.changed("char** str, switch_bool_t encode", "char** str, int encode")
        self.assertIn("switch_event_serialize is declared otherwise", said)

    def test_result(self):
        said = self.changed("SWITCH_DECLARE(int)\nswitch_channel_test_ready",
                            "SWITCH_DECLARE(unsigned)\nswitch_channel_test_ready")
        self.assertIn("switch_channel_test_ready is declared otherwise", said)

    def test_callback(self):
        said = self.changed("typedef void (*switch_event_callback_t)",
                            "typedef int (*switch_event_callback_t)")
        self.assertIn("switch_event_callback_t is another type", said)

    def test_value_that_moves_between_releases(self):
        said = compile_check(HEADER.parent, "-DQUORVANE_SWITCH_EVENT_ALL=92",
                             "-DQUORVANE_EXPECTED_EVENT_ALL=93",
                             "-DQUORVANE_EXPECTED_CF_MEDIA_SET=55")
        self.assertIn("SWITCH_EVENT_ALL is not 93", said)


@unittest.skipUnless(REAL_HEADERS, "no FreeSWITCH is installed")
class RealHeaders(ChangedHeaders):
    """The check finds each change of a copy of the host's own headers."""

    def changed(self, file, before, after):
        copy = self.folder / "include"
        shutil.copytree(REAL_HEADERS, copy)
        self.change(copy / file, before, after)
        return compile_check(copy)

    def test_the_real_headers_have_none(self):
        self.assertEqual(compile_check(REAL_HEADERS), "")

    def test_real_field(self):
        said = self.changed("switch_frame.h", "uint32_t datalen;", "uint64_t datalen;")
        self.assertIn("switch_frame_t.buflen lies elsewhere", said)

    def test_real_enumerator(self):
        said = self.changed("switch_types.h", "\tSMBF_PRUNE = (1 << 9),",
                            "\tSMBF_PRUNE = (1 << 28),")
        self.assertIn("SMBF_PRUNE is not 1 << 9", said)

    def test_real_value_that_moves_between_releases(self):
        said = compile_check(REAL_HEADERS, "-DQUORVANE_EXPECTED_EVENT_ALL=1",
                             "-DQUORVANE_EXPECTED_CF_MEDIA_SET=55")
        self.assertIn("SWITCH_EVENT_ALL is not 1,", said)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
