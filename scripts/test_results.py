#!/usr/bin/env python3
"""Counts the results of a run of ctest, case by case, for scripts/test.sh.

Reads build/PRESET-results.xml and, for the programs whose cases are reported one by one, their
results in build/PRESET/cases. Prints lines of fields separated by tabs: "failed", the name, the
command that runs just that again; "skipped", the name, the reason; at the end "counts" and the
numbers of passed, failed and skipped cases.
"""
import argparse
import json
import pathlib
import xml.etree.ElementTree


def reason(text):
    """The reason that a skipped test printed: its last line, without the word "skipped"."""
    lines = [line.strip() for line in (text or "").splitlines() if line.strip()]
    last = lines[-1] if lines else "no reason is given"
    head, _, tail = last.partition(": ")
    return tail if head.lower() == "skipped" else last


def was_skipped(test):
    """Whether a test that did not run to its end was skipped. Others could not be started."""
    skipped = test.find("skipped")
    return skipped is not None and skipped.get("message", "").startswith("SKIP_")


def outcomes(preset, build):
    """Yields status, name, command or reason for each case."""
    tree = xml.etree.ElementTree.parse(f"{build}/{preset}-results.xml")
    for test in tree.getroot().iter("testcase"):
        name, status = test.get("name"), test.get("status")
        cases = pathlib.Path(build, preset, "cases", name + ".json")
        again = f"ctest --preset {preset} -R '^{name}$'"
        if cases.is_file():
            results = json.loads(cases.read_text())
            for case in results:
                about = case["command"] if case["status"] != "skipped" else reason(case["text"])
                yield case["status"], f"{name}: {case['name']}", about
            if status == "fail" and not any(case["status"] == "failed" for case in results):
                yield "failed", name, again
        elif status == "run":
            yield "passed", name, again
        elif status == "notrun" and was_skipped(test):
            yield "skipped", name, reason(test.findtext("system-out"))
        else:
            yield "failed", name, again


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("preset", metavar="PRESET")
    preset, counts = parser.parse_args().preset, {"passed": 0, "failed": 0, "skipped": 0}
    for status, name, about in outcomes(preset, "build"):
        counts[status] += 1
        if status != "passed":
            print(status, f"{preset}: {name}", about, sep="\t")
    print("counts", *counts.values(), sep="\t")


if __name__ == "__main__":
    main()
