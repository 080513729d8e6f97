#!/usr/bin/env python3
"""Compiles quorvane/media_packet_c.h and the examples in C with the C compiler `cc`, and checks that
each constant of media_packet.h is also there, and in the test that compares the two headers.

Without `cc` the test is skipped.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADER = ROOT / "include" / "quorvane" / "media_packet_c.h"
CPP_HEADER = ROOT / "include" / "quorvane" / "media_packet.h"
COMPARISON = ROOT / "tests" / "quorvane" / "media_packet_c_agreement_test.cpp"
EXAMPLE = ROOT / "examples" / "receiver.c"
EXAMPLES_DOCUMENT = ROOT / "examples" / "README.md"
WARNINGS = ["-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-pedantic", "-Werror"]


def complaints(standard, source):
    """What the compiler says about the C source."""
    command = ["cc", f"-std={standard}", *WARNINGS, "-I", ROOT / "include", "-fsyntax-only"]
    return subprocess.run([*command, source], capture_output=True, text=True, timeout=60,
                          check=False).stderr


def cpp_constants():
    """The names of the constants and of the values of enumerations that the wire format has."""
    text = CPP_HEADER.read_text(encoding="utf-8")
    names = re.findall(r"^constexpr [\w:]+ ([A-Z0-9_]+) =", text, re.MULTILINE)
    for enumeration in ("PacketType", "DecodeResult"):
        body = re.search(rf"enum class {enumeration}\b[^{{]*{{(.*?)}}", text, re.S).group(1)
        names += re.findall(r"^\s+(\w+)\b.*,$", body, re.MULTILINE)
    return names


class TheHeader(unittest.TestCase):
    def test_compiles_alone_without_a_warning(self):
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, "alone.c")
            source.write_text("#include <quorvane/media_packet_c.h>\n", encoding="utf-8")
            for standard in ("c99", "c11"):
                with self.subTest(standard):
                    self.assertEqual(complaints(standard, source), "")

    def test_has_every_constant_of_the_other_header(self):
        text = HEADER.read_text(encoding="utf-8")
        compared = COMPARISON.read_text(encoding="utf-8")
        self.assertGreater(len(cpp_constants()), 50)
        for name in cpp_constants():
            with self.subTest(name):
                self.assertTrue(re.search(rf"\bQUORVANE_{name}\b", text))
                self.assertTrue(re.search(
                    rf"^static_assert\([^;]*\bQUORVANE_{name}\b[^;]*::{name}\b", compared, re.M))


class TheExamples(unittest.TestCase):
    def test_the_program_compiles_without_a_warning(self):
        self.assertEqual(complaints("c99", EXAMPLE), "")

    def test_the_smallest_receiver_compiles_without_a_warning(self):
        text = EXAMPLES_DOCUMENT.read_text(encoding="utf-8")
        block = re.search(r"^    #include .*?^    }\n\n", text, re.MULTILINE | re.DOTALL).group()
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, "smallest.c")
            source.write_text(textwrap.dedent(block), encoding="utf-8")
            self.assertEqual(complaints("c99", source), "")


if __name__ == "__main__":
    if not shutil.which("cc"):
        print("skipped: no C compiler here (cc)")
        sys.exit(77)
    sys.exit(unittest.main())
