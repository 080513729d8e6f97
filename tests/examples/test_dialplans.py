#!/usr/bin/env python3
"""Checks the dialplan samples: they are well-formed, have the structure that the host expects,
and set only channel variables that the module reads.

Exits with 77, which CTest counts as skipped, if xmllint is missing.
"""

import ipaddress
import pathlib
import re
import shutil
import subprocess
import sys
import unittest
import xml.etree.ElementTree

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "examples"
SAMPLES = sorted((FOLDER / "dialplan").glob("*.xml"))
VARIABLES = {"quorvane_media_node", "quorvane_report_node", "quorvane_rule_id", "quorvane_record",
             "quorvane_detection", "quorvane_audio_activity", "quorvane_call_id_ref"}
FEATURES = {"quorvane_detection", "quorvane_audio_activity"}
FEATURE_TEXT = r"true|enabled|inactive|(orig|term)(::(true|enabled|active|false|inactive))?"


def actions(sample):
    return xml.etree.ElementTree.parse(sample).getroot().findall("extension/condition/action")


def variables(sample):
    """The channel variables that a sample sets, with their values."""
    settings = [action.get("data").removeprefix("nolocal:").split("=", 1) for action in
                actions(sample) if action.get("application") in ("set", "export")]
    return dict(settings)


class Dialplans(unittest.TestCase):
    def test_there_are_samples(self):
        self.assertGreaterEqual(len(SAMPLES), 6)

    def test_samples_are_well_formed(self):
        for sample in SAMPLES:
            with self.subTest(sample.name):
                result = subprocess.run(["xmllint", "--noout", "--nonet", sample],
                                        capture_output=True, text=True, check=False)
                self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_samples_have_the_structure_of_a_dialplan(self):
        for sample in SAMPLES:
            with self.subTest(sample.name):
                root = xml.etree.ElementTree.parse(sample).getroot()
                self.assertEqual(root.tag, "include")
                for extension in root:
                    self.assertEqual(extension.tag, "extension")
                    self.assertTrue(extension.get("name").startswith("quorvane_"))
                    for condition in extension:
                        self.assertEqual(condition.tag, "condition")
                        re.compile(condition.get("expression", ""))

    def test_every_sample_runs_the_application_after_setting_its_variables(self):
        for sample in SAMPLES:
            with self.subTest(sample.name):
                runs = [index for index, action in enumerate(actions(sample))
                        if action.get("application") == "quorvane"
                        or action.get("data", "").endswith("execute_on_answer=quorvane")]
                settings = [index for index, action in enumerate(actions(sample))
                            if "quorvane_" in action.get("data", "")]
                self.assertEqual(len(runs), 1)
                self.assertTrue(all(index < runs[0] for index in settings))

    def test_samples_set_no_variable_that_the_module_does_not_read(self):
        used = set()
        for sample in SAMPLES:
            with self.subTest(sample.name):
                names = {name for name in variables(sample) if name.startswith("quorvane_")}
                self.assertLessEqual(names, VARIABLES)
                used |= names
        self.assertEqual(used, VARIABLES)

    def test_values_are_of_the_form_that_the_module_takes(self):
        for sample in SAMPLES:
            with self.subTest(sample.name):
                for name, value in variables(sample).items():
                    if name == "quorvane_rule_id":
                        self.assertRegex(value, r"^\d+$")
                    elif name in FEATURES:
                        self.assertRegex(value, f"^({FEATURE_TEXT})$")
                    elif name.endswith("_node"):
                        address, port = value.split(":")
                        self.assertTrue(ipaddress.IPv4Address(address) and 0 < int(port) < 65536)
                    elif name == "quorvane_call_id_ref":
                        self.assertIn(value, variables(sample))

    def test_features_come_with_a_rule_id(self):
        for sample in SAMPLES:
            with self.subTest(sample.name):
                if FEATURES & set(variables(sample)):
                    self.assertIn("quorvane_rule_id", variables(sample))

    def test_readme_names_every_sample(self):
        readme = (FOLDER / "README.md").read_text(encoding="utf-8")
        named = re.findall(r"\]\(dialplan/(\w+\.xml)\)", readme)
        self.assertEqual(sorted(named), [sample.name for sample in SAMPLES])


if __name__ == "__main__":
    if not shutil.which("xmllint"):
        print("skipped: xmllint is not installed (Debian: apt-get install libxml2-utils)")
        sys.exit(77)
    unittest.main()
