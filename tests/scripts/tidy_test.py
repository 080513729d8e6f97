#!/usr/bin/env python3
"""Tests when scripts/tidy.py considers a file unchanged, and how it checks files together."""
import importlib.util
import json
import pathlib
import shutil
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "tidy.py"


class TidyTest(unittest.TestCase):
    def setUp(self):
        specification = importlib.util.spec_from_file_location("tidy", SCRIPT)
        self.tidy = importlib.util.module_from_spec(specification)
        specification.loader.exec_module(self.tidy)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.tidy.ROOT = self.root
        self.tidy.INCLUDE_FOLDERS = (self.root, self.root / "include")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return path


class KeyTest(TidyTest):
    def setUp(self):
        super().setUp()
        self.write("module/unit.cpp", '#include "module/unit.h"\n#include <string>\n')
        self.write("module/unit.h", '#include <quorvane/packet.h>\n#  include "beside.h"\n')
        self.write("module/beside.h", "")
        self.write("include/quorvane/packet.h", '#include "quorvane/packet.h"  // Itself.\n')
        self.write("module/other.h", "")
        self.before = self.key()

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


class GroupsTest(TidyTest):
    def groups(self, compiled=(), **texts):
        """The groups of these files; `compiled` has options of compilation other than the usual."""
        files = [self.write(f"node/{name}.cpp", text) for name, text in texts.items()]
        options = {path: ("c++",) for path in files}
        options.update((self.root / f"node/{name}.cpp", how) for name, how in compiled)
        groups = self.tidy.groups_of(files, {path: how for path, how in options.items() if how})
        self.assertCountEqual([path for group in groups for path in group], files)
        return [[path.stem for path in group] for group in groups]

    def test_the_files_of_a_folder_are_a_group(self):
        self.assertEqual(self.groups(a="", b="", c=""), [["a", "b", "c"]])

    def test_a_file_that_takes_a_name_is_the_last_of_its_group(self):
        self.assertEqual(self.groups(a="using std::swap;\n", b="", c=""), [["b", "c", "a"]])

    def test_two_files_that_take_names_are_in_different_groups(self):
        taken = "using std::swap;\n"
        self.assertEqual(self.groups(a=taken, b="", c=taken, d="", e="", f=""),
                         [["b", "e", "a"], ["d", "f", "c"]])

    def test_names_within_functions_and_whole_namespaces_do_not_matter(self):
        self.assertEqual(
            self.groups(a="void f() {\n    using std::swap;\n}\n", b="using namespace qv;\n", c=""),
            [["a", "b", "c"]])

    def test_a_file_that_is_compiled_in_another_way_is_not_in_the_group(self):
        self.assertEqual(self.groups(a="", b="", c="", d="", compiled=[("a", ("c++", "-DX"))]),
                         [["b", "c", "d"], ["a"]])

    def test_a_file_that_this_build_leaves_out_is_checked_by_itself(self):
        self.assertEqual(self.groups(a="", b="", c="", d="", compiled=[("a", None)]),
                         [["b", "c", "d"], ["a"]])

    def test_few_files_are_checked_by_themselves(self):
        self.assertEqual(self.groups(a="", b=""), [["a"], ["b"]])


@unittest.skipUnless(shutil.which("clang-tidy"), "clang-tidy is not installed")
class CheckTest(TidyTest):
    CLEAN = "int {0}(int value) {{\n    return value + 1;\n}}\n"

    def findings(self, **texts):
        """The names of the files that are not clean."""
        self.tidy.BUILD = self.root / "build"
        self.write(".clang-tidy", "Checks: '-*,misc-unused-parameters'\nWarningsAsErrors: '*'\n")
        files = [self.write(f"node/{name}.cpp", text) for name, text in texts.items()]
        self.write("build/compile_commands.json", json.dumps(
            [{"directory": str(self.tidy.BUILD), "file": str(path),
              "command": f"c++ -o {path.stem}.o -c {path}"} for path in files]))
        said = self.tidy.check_group(files, self.tidy.options_of_files())
        return [path.stem for path, findings in said.items() if findings]

    def test_clean_files_are_clean_together(self):
        self.assertEqual(self.findings(a=self.CLEAN.format("a"), b=self.CLEAN.format("b")), [])

    def test_a_finding_is_that_of_one_file(self):
        unused = "int b(int value) {\n    return 1;\n}\n"
        self.assertEqual(self.findings(a=self.CLEAN.format("a"), b=unused), ["b"])

    def test_clean_files_that_do_not_compile_together_are_clean(self):
        same = "static " + self.CLEAN.format("same")
        self.assertEqual(self.findings(a=same + "int a() {\n    return same(1);\n}\n",
                                       b=same + "int b() {\n    return same(2);\n}\n"), [])


if __name__ == "__main__":
    unittest.main()
