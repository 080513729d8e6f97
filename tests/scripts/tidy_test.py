#!/usr/bin/env python3
"""Tests when scripts/tidy.py considers a file unchanged."""
import importlib.util
import pathlib
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "tidy.py"


class KeyTest(unittest.TestCase):
    def setUp(self):
        specification = importlib.util.spec_from_file_location("tidy", SCRIPT)
        self.tidy = importlib.util.module_from_spec(specification)
        specification.loader.exec_module(self.tidy)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.tidy.ROOT = self.root
        self.tidy.INCLUDE_FOLDERS = (self.root, self.root / "include")
        self.write("module/unit.cpp", '#include "module/unit.h"\n#include <string>\n')
        self.write("module/unit.h", '#include <quorvane/packet.h>\n#  include "beside.h"\n')
        self.write("module/beside.h", "")
        self.write("include/quorvane/packet.h", '#include "quorvane/packet.h"  // Itself.\n')
        self.write("module/other.h", "")
        self.before = self.key()

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def key(self, arguments=(), environment="same", command="c++ -c unit.cpp"):
        path = self.root / "module/unit.cpp"
        return self.tidy.key_of(path, list(arguments), environment, {path: command},
                                self.tidy.Includes())

    def test_a_file_that_did_not_change_keeps_its_key(self):
        self.assertEqual(self.key(), self.before)

    def test_a_file_that_it_does_not_include_is_of_no_account(self):
        self.write("module/other.h", "// changed\n")
        self.assertEqual(self.key(), self.before)

    def test_each_file_that_it_includes_counts_however_deep(self):
        for name in ("module/unit.cpp", "module/unit.h", "module/beside.h",
                     "include/quorvane/packet.h"):
            before = self.key()
            with (self.root / name).open("a") as file:
                file.write("// changed\n")
            self.assertNotEqual(self.key(), before, name)

    def test_a_header_that_comes_to_be_counts(self):
        self.write("module/unit.h", '#include "module/new.h"\n')
        before = self.key()
        self.write("module/new.h", "")
        self.assertNotEqual(self.key(), before)

    def test_checks_compile_command_and_environment_count(self):
        self.assertNotEqual(self.key(arguments=["--checks=-*"]), self.before)
        self.assertNotEqual(self.key(command="c++ -O2 -c unit.cpp"), self.before)
        self.assertNotEqual(self.key(environment="other versions"), self.before)


if __name__ == "__main__":
    unittest.main()
