#!/usr/bin/env python3
"""Checks docs/design.md against the sources: its picture of layers against their includes.

Each line of the picture is a folder and, after an arrow, the folders that it includes. A folder
may include only folders below it, the picture must have every folder with C++ sources, and each
arrow must have at least one include.

Comments about deliberate oddities point to a row of a table there. The row has to exist.

The tests are checked too: each has to be in the namespace of its unit, or in qv::tests. Each unit
has a test file at its own place below tests/, or stands in units_without_test.txt with the test that
checks it instead.
"""

import os
import re
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
INCLUDE_PATHS = ("", "include/", "host/include/")
ALL_BELOW = "all"


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def picture_of(document):
    """The folders of the picture from top to bottom, each with the folders that it includes."""
    section = document.split("\n## Layers\n", 1)[1].split("\n## ", 1)[0]
    drawing = section.split("```")[1]
    rows = {}
    for line in drawing.strip().splitlines():
        folder, _, included = line.partition("──▶")
        rows[folder.split()[0].rstrip("/")] = [name.rstrip("/") for name in included.split()]
    return rows


def sources():
    found = []
    for folder, folders, files in os.walk(ROOT):
        folders[:] = [name for name in folders if not name.startswith((".", "build"))]
        found += [os.path.relpath(os.path.join(folder, name), ROOT)
                  for name in files if name.endswith((".h", ".cpp"))]
    return sorted(found)


def arrows_of(files):
    """(including file, included file) for every include of a file of the project."""
    known = set(files)
    for path in files:
        for name in re.findall(r'^#include [<"]([^>"]+)[>"]', read(path), re.MULTILINE):
            for base in INCLUDE_PATHS:
                if base + name in known:
                    yield path, base + name
                    break


def layer_of(path, rows):
    """The row of the innermost folder that contains the file, or None."""
    folder = os.path.dirname(path)
    while folder and folder not in rows:
        folder = os.path.dirname(folder)
    return folder or None


def complaints(rows, files, arrows):
    order = list(rows)
    said = []
    for folder, included in rows.items():
        for name in included:
            if name == ALL_BELOW:
                continue
            if name not in rows:
                said.append(f"{folder}/ is drawn to include {name}/, which the picture lacks")
            elif order.index(name) <= order.index(folder):
                said.append(f"the arrow from {folder}/ to {name}/ points upward")
    for path in files:
        if layer_of(path, rows) is None:
            said.append(f"the picture lacks the folder of {path}")
    drawn = set()
    for path, included in arrows:
        here, there = layer_of(path, rows), layer_of(included, rows)
        if here is None or there is None or here == there:
            continue
        drawn.add((here, there))
        below = order.index(there) > order.index(here)
        if there not in rows[here] and not (ALL_BELOW in rows[here] and below):
            said.append(f"{path} includes {included}: no arrow from {here}/ to {there}/")
    for folder, included in rows.items():
        for name in included:
            if name != ALL_BELOW and (folder, name) not in drawn:
                said.append(f"nothing in {folder}/ includes {name}/, as the picture has it")
    return said


class TheSources(unittest.TestCase):
    def test_include_what_the_picture_says(self):
        files = sources()
        rows = picture_of(read("docs/design.md"))
        self.assertEqual(complaints(rows, files, arrows_of(files)), [])


def oddities_of(document):
    """The rows of the table of oddities, by their first cell."""
    section = document.split("\n## Odd on purpose\n", 1)[1].split("\n## ", 1)[0]
    return {cell.strip() for cell in re.findall(r"^\|([^|]+)\|", section, re.MULTILINE)}


def oddities_pointed_at(source):
    """The rows that the comments of a source point to."""
    text = re.sub(r"\s*\n\s*//\s*", " ", source)
    return re.findall(r"docs/design\.md, Odd on purpose: ([^.;]+)[.;]", text)


class TheComments(unittest.TestCase):
    def test_point_to_rows_that_the_document_has(self):
        rows = oddities_of(read("docs/design.md"))
        pointers = [(path, row) for path in sources() for row in oddities_pointed_at(read(path))]
        self.assertGreater(len(pointers), 0)
        self.assertEqual([pointer for pointer in pointers if pointer[1] not in rows], [])

    def test_call_nothing_intended_without_a_row(self):
        self.assertEqual([path for path in sources() if "Intended." in read(path)], [])

    def test_are_read_across_line_ends(self):
        source = "    // x. See docs/design.md, Odd on\n    // purpose: option\n    // files.\n"
        self.assertEqual(oddities_pointed_at(source), ["option files"])


def namespaces_of(source):
    return set(re.findall(r"^namespace (qv[\w:]*) \{", source, re.MULTILINE))


def namespaces_allowed(test, files):
    """Those of the unit's header, or of its folder if the test has no single unit."""
    folder, name = os.path.split(os.path.relpath(test, "tests"))
    folders = (folder, os.path.join("include", folder))
    units = [path for path in files if os.path.dirname(path) in folders]
    header = name.replace("_test.cpp", ".h")
    own = [path for path in units if os.path.basename(path) == header]
    return {"qv::tests"}.union(*(namespaces_of(read(path)) for path in own or units))


class TheTests(unittest.TestCase):
    TESTS = [path for path in sources() if re.match(r"tests/.*_test\.cpp$", path)]

    def test_are_in_the_namespace_of_their_unit(self):
        files = sources()
        opened = {path: namespaces_of(read(path)) for path in self.TESTS}
        self.assertGreater(len(opened), 0)
        self.assertEqual([path for path, names in opened.items()
                          if len(names) != 1 or names - namespaces_allowed(path, files)], [])

    def test_have_names_in_camel_case(self):
        names = [(path, name) for path in self.TESTS for pair in
                 re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", read(path), re.MULTILINE)
                 for name in pair]
        self.assertGreater(len(names), 0)
        self.assertEqual([(path, name) for path, name in names
                          if not re.fullmatch(r"[A-Z][A-Za-z0-9]*", name)], [])

    def test_need_no_names_of_a_whole_namespace(self):
        self.assertEqual([path for path in self.TESTS
                          if re.search(r"^\s*using namespace qv", read(path), re.MULTILINE)], [])


UNITS = re.compile(r"(host|module|node|quorvane_lib|tools)/.*\.cpp$")


def substitutes_of(document):
    """The tests that stand in for a test of the unit itself, by unit."""
    lines = [line for line in document.splitlines() if line and not line.startswith("#")]
    return dict(re.fullmatch(r"(\S+): (\S+), \S.*", line).groups() for line in lines)


def units_without_test(files, substitutes):
    return [path for path in files if UNITS.match(path) and path not in substitutes
            and f"tests/{path[:-len('.cpp')]}_test.cpp" not in files]


class TheUnits(unittest.TestCase):
    SUBSTITUTES = substitutes_of(read("tests/layers/units_without_test.txt"))

    def test_have_a_test_or_a_reason(self):
        self.assertEqual(units_without_test(sources(), self.SUBSTITUTES), [])

    def test_of_the_list_exist_and_so_do_their_tests(self):
        listed = [path for pair in self.SUBSTITUTES.items() for path in pair]
        self.assertEqual([path for path in listed
                          if not os.path.exists(os.path.join(ROOT, path))], [])

    def test_of_the_list_have_no_test_of_their_own(self):
        self.assertEqual([path for path in self.SUBSTITUTES
                          if path not in units_without_test(sources(), {})], [])

    def test_without_either_are_found(self):
        files = ["node/a.cpp", "node/b/c.cpp", "tests/node/a_test.cpp", "tests/node/c_test.cpp"]
        self.assertEqual(units_without_test(files, {}), ["node/b/c.cpp"])
        self.assertEqual(units_without_test(files, {"node/b/c.cpp": "tests/x.py"}), [])


class ThePicture(unittest.TestCase):
    ROWS = {"top": ["middle"], "middle": ["bottom"], "bottom": []}
    FILES = ["top/a.cpp", "middle/b.h", "bottom/deep/c.h"]
    ARROWS = [("top/a.cpp", "middle/b.h"), ("middle/b.h", "bottom/deep/c.h")]

    def test_is_read_from_the_document(self):
        document = ("x\n## Layers\n\n```\n top/   ──▶ low/ other/\n low/\n```\n\n"
                    "## Next\n```\n no/\n```\n")
        self.assertEqual(picture_of(document), {"top": ["low", "other"], "low": []})

    def test_is_right_when_all_arrows_are_drawn(self):
        self.assertEqual(complaints(self.ROWS, self.FILES, self.ARROWS), [])

    def test_must_have_every_folder(self):
        said = complaints(self.ROWS, self.FILES + ["new/d.cpp"], self.ARROWS)
        self.assertEqual(said, ["the picture lacks the folder of new/d.cpp"])

    def test_must_have_every_arrow(self):
        said = complaints(self.ROWS, self.FILES, self.ARROWS + [("bottom/deep/c.h", "top/a.cpp")])
        self.assertEqual(
            said, ["bottom/deep/c.h includes top/a.cpp: no arrow from bottom/ to top/"])

    def test_must_not_have_an_arrow_that_no_source_draws(self):
        said = complaints(self.ROWS, self.FILES, self.ARROWS[:1])
        self.assertEqual(said, ["nothing in middle/ includes bottom/, as the picture has it"])

    def test_must_not_have_an_arrow_upward(self):
        rows = {"top": ["middle"], "middle": ["bottom"], "bottom": ["middle"]}
        said = complaints(rows, self.FILES, self.ARROWS + [("bottom/deep/c.h", "middle/b.h")])
        self.assertEqual(said, ["the arrow from bottom/ to middle/ points upward"])

    def test_all_means_only_what_stands_below(self):
        rows = {"top": ["middle"], "middle": [ALL_BELOW], "bottom": []}
        self.assertEqual(complaints(rows, self.FILES, self.ARROWS), [])
        said = complaints(rows, self.FILES, self.ARROWS + [("middle/b.h", "top/a.cpp")])
        self.assertEqual(said, ["middle/b.h includes top/a.cpp: no arrow from middle/ to top/"])


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=1))
