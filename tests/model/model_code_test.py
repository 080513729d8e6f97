"""Checks that the model follows the code: each "code:" comment of model/context.pml names a file,
a function and pieces of its text, which the function must contain in this order."""

import pathlib
import re
import sys
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
MODEL = PROJECT / "model" / "context.pml"


def claims(text):
    """Yields (file, function, pieces) of each comment."""
    for comment in re.findall(r"/\*(.*?)\*/", text, re.DOTALL):
        flat = re.sub(r"\s*\n \*\s*", " ", comment)
        for claim in flat.split("code: ")[1:]:
            place, pieces = claim.split(": ", 1)
            file, function = place.split(" ", 1)
            yield file, function, [piece.strip() for piece in pieces.split(";")]


def without_comments_and_texts(source):
    source = re.sub(r'"(?:[^"\\]|\\.)*"', '""', source)
    return re.sub(r"//[^\n]*", "", source)


def end_of_block(source, start):
    depth = 0
    for index in range(start, len(source)):
        depth += {"{": 1, "}": -1}.get(source[index], 0)
        if depth == 0:
            return index
    return len(source)


def bodies(source, function):
    """Yields the body of each definition of `function`, overloads included."""
    name = r"(?<![\w~])" + re.escape(function.split("::")[-1])
    for match in re.finditer(name + r"\s*\(", source):
        start = re.match(r"[^;{}]*\{", source[match.end():])
        if start:
            opening = match.end() + start.end() - 1
            yield source[opening:end_of_block(source, opening)]


def stand_in_order(pieces, body):
    position = 0
    for piece in pieces:
        position = body.find(piece, position)
        if position < 0:
            return False
        position += len(piece)
    return True


class ModelCodeTest(unittest.TestCase):

    def test_every_function_of_the_model_stands_in_the_code_as_the_model_has_it(self):
        all_claims = list(claims(MODEL.read_text()))
        self.assertGreater(len(all_claims), 15)
        for file, function, pieces in all_claims:
            with self.subTest(file=file, function=function):
                source = without_comments_and_texts((PROJECT / file).read_text())
                found = list(bodies(source, function))
                self.assertTrue(found, "no such function")
                self.assertTrue(any(stand_in_order(pieces, body) for body in found),
                                f"not in this order: {pieces}")

    def test_every_function_of_the_model_has_a_claim(self):
        text = MODEL.read_text()
        module = text[text.index("==== the module ="):text.index("==== the host =")]
        for comment, name in re.findall(r"(/\*(?:[^*]|\*(?!/))*\*/)?\s*inline (\w+)\(", module):
            if name != "leave":
                self.assertIn("code: ", comment, name)

    def test_a_changed_order_is_noticed(self):
        self.assertTrue(stand_in_order(["lock", "erase"], "{ lock(); erase(); "))
        self.assertFalse(stand_in_order(["lock", "erase"], "{ erase(); lock(); "))

    def test_a_comment_in_the_code_does_not_count(self):
        body, = bodies(without_comments_and_texts("void f() { // erase\n lock(); }"), "f")
        self.assertFalse(stand_in_order(["erase"], body))


if __name__ == "__main__":
    sys.exit(unittest.main())
