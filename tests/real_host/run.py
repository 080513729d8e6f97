#!/usr/bin/env python3
"""Runs calls through the module in a real FreeSWITCH, on loopback, in folders of its own.

Exit status: 0 all scenarios passed, 1 some failed, 2 the suite could not start, 77 skipped
because there is no FreeSWITCH. The environment variable FREESWITCH_PREFIX names the installation
to use. FREESWITCH_PREFIXES names several, separated by colons; the module is built for each.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import scenarios  # noqa: E402,F401
from harness import own_network  # noqa: E402
from harness.find_host import (  # noqa: E402
    NoInstallation, find_installation, named_installations)
from harness.module_build import SOURCES, BuildFailed, Module, build_module  # noqa: E402
from harness.sanitizer import KINDS, Sanitizer  # noqa: E402
from harness.suite import SCENARIOS, Skipped, Suite  # noqa: E402

BEGUN_IN_VAIN_STATUS = 2
SKIPPED_STATUS = 77


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module", type=pathlib.Path,
                        help="mod_quorvane.so; without it, and for the hosts of "
                             "FREESWITCH_PREFIXES, the suite builds one for each host")
    parser.add_argument("--relocated", type=pathlib.Path,
                        help="the module that reads its configuration under the current folder")
    parser.add_argument("--sanitize", choices=sorted(KINDS),
                        help="build the module for this sanitizer of g++ and watch its reports")
    parser.add_argument("--builds", type=pathlib.Path, default=SOURCES / "build/real_host",
                        metavar="FOLDER", help="where modules are built (%(default)s)")
    parser.add_argument("--node", type=pathlib.Path, help="quorvane-node")
    parser.add_argument("--only", action="append", metavar="WORDS",
                        help="run only scenarios whose sentence contains this; may be repeated")
    parser.add_argument("--keep", action="store_true", help="keep the folder of logs")
    parser.add_argument("--not-for-real-host", action="store_true",
                        help="the module was built with the embedded host's headers")
    return parser.parse_args()


def sentence(function) -> str:
    return function.__name__.replace("_", " ")


def chosen_scenarios(only) -> list:
    return [function for function in SCENARIOS
            if not only or any(words in sentence(function) for words in only)]


def run_one(function, suite) -> tuple:
    """The verdict (ok, skipped, FAILED) and its reason."""
    try:
        function(suite)
        return "ok", ""
    except Skipped as reason:
        return "skipped", str(reason)
    except Exception as fault:  # Whatever it is, the next scenario has to run.
        where = traceback.extract_tb(fault.__traceback__)[-1]
        return "FAILED", f"{fault or type(fault).__name__} ({where.name}, line {where.lineno})"


def hang_up_everything(suite) -> str:
    """Ends all calls. Returns what was wrong with the host, or an empty text."""
    try:
        if suite.host.is_running():
            suite.host.hang_up_everything()
    except OSError:
        return find_out_why_it_does_not_answer(suite)
    return ""


def find_out_why_it_does_not_answer(suite) -> str:
    """The host is about to end, or one command of it does not return, or it answers no more."""
    if suite.host.is_running() and suite.host.answers():
        suite.host.write_stacks()
        try:
            suite.host.reconnect()
            suite.host.hang_up_everything()
            return "a command of the host did not return; the host answers others"
        except OSError:
            suite.host.close()
            return "a command of the host did not return; its calls do not end; it was killed"
    try:
        suite.host.wait_for_end(20)
    except subprocess.TimeoutExpired:  # It was killed.
        return "the host answered no more and was killed"
    return ""


def clean_up_after(suite) -> str:
    """Prepares for the next scenario: the host runs without calls and the module is loaded.
    Returns what was wrong with the host, or an empty text."""
    fault = hang_up_everything(suite)
    if not suite.host.is_running():
        suite.host.close()
        suite.host = suite.make_host("again")
        suite.host.start()
    if "-ERR" in suite.host.quorvane("version"):
        suite.host.write_module_configuration(media_node=suite.node.address, log_level="DEBUG")
        suite.host.load_module()
    suite.node.forget()
    return fault


def run_all(suite, chosen: list) -> dict:
    counts = {"ok": 0, "skipped": 0, "FAILED": 0}
    for function in chosen:
        fault = clean_up_after(suite)
        if fault:
            counts["FAILED"] += 1
            print(f"{'FAILED':18}{fault}", flush=True)
        begin = time.monotonic()
        verdict, reason = run_one(function, suite)
        if verdict == "ok" and not suite.host.is_running():
            verdict, reason = "FAILED", "the host is gone"
        report = suite.reports.take_new()
        if report:
            verdict, reason = "FAILED", f"{report}; {reason}" if reason else report
        counts[verdict] += 1
        print(f"{verdict:8}{time.monotonic() - begin:6.1f} s  {sentence(function)}"
              + (f"\n{'':18}{reason}" if reason else ""), flush=True)
    return counts


def last_words(suite) -> bool:
    """Checks at the end of the shared host: its exit status, all datagrams, all reports."""
    fault = clean_up_after(suite)
    status = suite.host.stop()
    report = suite.reports.take_new()
    print(f"the host ended with status {status}, "
          f"{len(suite.node.malformed)} malformed datagrams were received"
          + (f", the sanitizer reported {report}" if report else "")
          + (f", {fault}" if fault else ""))
    return status == 0 and not (suite.node.malformed or report or fault)


def test_host(installation, module: Module, arguments) -> tuple:
    """Runs the scenarios in one host; returns whether all passed, and the line with the result."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="quorvane-real-host-"))
    suite = Suite(installation, folder, module,
                  Sanitizer(arguments.sanitize) if arguments.sanitize else None)
    suite.node_program = arguments.node.resolve() if arguments.node else None
    good = False
    try:
        suite.host.start()
        version = suite.host.api("version").strip()
        print(f"host: {installation.program}, {version}\n"
              f"module: {suite.host.module}, configuration in a private "
              f"{'/etc' if suite.host.module == module.shipped else 'folder'}"
              + (f", {arguments.sanitize} sanitizer" if arguments.sanitize else ""), flush=True)
        counts = run_all(suite, chosen_scenarios(arguments.only))
        good = last_words(suite) and counts["FAILED"] == 0
        result = ", ".join(f"{count} {verdict}" for verdict, count in counts.items())
    finally:
        suite.close()
        if good and not arguments.keep:
            shutil.rmtree(folder)
        else:
            print(f"logs are kept in {folder}")
    print(result)
    return good, f"{version.split(' (')[0]}: {result}"


def installations() -> list:
    return named_installations() or [found for found in [find_installation()] if found]


def module_for(installation, arguments) -> Module:
    """The module that was given, or a module built for this host."""
    given = arguments.module and arguments.relocated and not arguments.sanitize
    if given and not os.environ.get("FREESWITCH_PREFIXES"):
        return Module(arguments.module.resolve(), arguments.relocated.resolve())
    return build_module(installation,
                        Sanitizer(arguments.sanitize) if arguments.sanitize else None,
                        arguments.builds.resolve())


def main() -> int:
    arguments = parse_arguments()
    if arguments.not_for_real_host and not os.environ.get("FREESWITCH_PREFIXES"):
        print("SKIPPED: the module was not built with the headers of the installed FreeSWITCH")
        return SKIPPED_STATUS
    try:
        hosts = installations()
        if not hosts:
            print("SKIPPED: no FreeSWITCH is installed (PATH, pkg-config, FREESWITCH_PREFIX)")
            return SKIPPED_STATUS
        own_network.enter()
        modules = [module_for(host, arguments) for host in hosts]
    except (NoInstallation, BuildFailed) as fault:
        print(f"run.py: {fault}", file=sys.stderr)
        return BEGUN_IN_VAIN_STATUS
    results = [test_host(host, module, arguments) for host, module in zip(hosts, modules)]
    if len(results) > 1:
        print("\n".join(line for _, line in results))
    return 0 if all(good for good, _ in results) else 1


if __name__ == "__main__":
    sys.exit(main())
