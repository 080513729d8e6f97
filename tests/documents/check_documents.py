#!/usr/bin/env python3
"""Checks all documents (*.md): every relative link leads to a file, every anchor to a heading of
that file, and docs/README.md links to every document in docs/.
"""

import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LINK = re.compile(r"\]\(([^)\s]+)\)")
CODE = re.compile(r"^```.*?^```$|`[^`\n]*`", re.DOTALL | re.MULTILINE)


def documents():
    """The documents, without those in hidden folders and in builds."""
    def is_source(path):
        return not any(part.startswith((".", "build")) for part in path.relative_to(ROOT).parts)
    return sorted(path for path in ROOT.rglob("*.md") if is_source(path))


def anchor_of(heading):
    """The anchor that the usual hosts of repositories give to a heading."""
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def anchors_of(text):
    """The anchors of a document; headings with the same text are numbered."""
    found = set()
    for heading in re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```$", "", text, flags=re.S | re.M),
                              re.MULTILINE):
        anchor, number = anchor_of(heading), 0
        while anchor in found:
            number += 1
            anchor = f"{anchor_of(heading)}-{number}"
        found.add(anchor)
    return found


def links_of(text):
    """The targets of the links of a document that lead into the repository."""
    return [link for link in LINK.findall(CODE.sub("", text)) if "://" not in link]


def broken_links(document):
    broken = []
    for link in links_of(document.read_text(encoding="utf-8")):
        path, _, anchor = link.partition("#")
        target = document.parent / path if path else document
        if not target.exists():
            broken.append(f"{link}: no such file")
        elif anchor and anchor not in anchors_of(target.read_text(encoding="utf-8")):
            broken.append(f"{link}: no such heading")
    return broken


class TheDocuments(unittest.TestCase):
    def test_have_links_that_lead_somewhere(self):
        self.assertGreater(len(documents()), 10)
        for document in documents():
            with self.subTest(str(document.relative_to(ROOT))):
                self.assertEqual(broken_links(document), [])

    def test_are_all_in_the_index(self):
        index = ROOT / "docs" / "README.md"
        linked = {link.partition("#")[0] for link in links_of(index.read_text(encoding="utf-8"))}
        missing = [path.name for path in (ROOT / "docs").glob("*.md")
                   if path != index and path.name not in linked]
        self.assertEqual(missing, [])


class TheReadingOfADocument(unittest.TestCase):
    def test_finds_the_anchors_of_headings(self):
        text = "# One `two`, three: four\n\n```\n# no heading\n```\n\n## Same\n\n## Same\n"
        self.assertEqual(anchors_of(text), {"one-two-three-four", "same", "same-1"})

    def test_finds_links_but_not_those_in_code(self):
        text = "[a](x.md#y) `[b](z)` [`c`](#d) [e](https://example.com)\n```\n[f](g)\n```\n"
        self.assertEqual(links_of(text), ["x.md#y", "#d"])


if __name__ == "__main__":
    sys.exit(unittest.main())
