#!/usr/bin/env python3
"""Calls through the module in a real FreeSWITCH, on loopback, in folders of its own.

Exit status: 0 all scenarios passed, 1 some failed, 77 skipped because there is no FreeSWITCH.
The environment variable FREESWITCH_PREFIX names the installation to use.
"""

import argparse
import pathlib
import shutil
import sys
import tempfile
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import scenarios  # noqa: E402,F401
from harness import own_network  # noqa: E402
from harness.find_host import find_installation  # noqa: E402
from harness.suite import SCENARIOS, Skipped, Suite  # noqa: E402

SKIPPED_STATUS = 77


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module", type=pathlib.Path, required=True, help="mod_quorvane.so")
    parser.add_argument("--relocated", type=pathlib.Path, required=True,
                        help="the module that reads its configuration under the current folder")
    parser.add_argument("--node", type=pathlib.Path, help="quorvane-node")
    parser.add_argument("--only", default="", metavar="WORDS",
                        help="run only scenarios whose sentence contains this")
    parser.add_argument("--keep", action="store_true", help="keep the folder of logs")
    parser.add_argument("--not-for-real-host", action="store_true",
                        help="the module was built with the embedded host's headers")
    return parser.parse_args()


def sentence(function) -> str:
    return function.__name__.replace("_", " ")


def run_one(function, suite) -> tuple:
    """The verdict (ok, skipped, FAILED) and its reason."""
    try:
        function(suite)
        return "ok", ""
    except Skipped as reason:
        return "skipped", str(reason)
    except Exception as fault:  # whatever it is, the next scenario has its turn
        where = traceback.extract_tb(fault.__traceback__)[-1]
        return "FAILED", f"{fault or type(fault).__name__} ({where.name}, line {where.lineno})"


def clean_up_after(suite) -> None:
    """The next scenario finds the host running, without calls, the module loaded."""
    if not suite.host.is_running():
        suite.host.close()
        suite.host = suite.make_host("again")
        suite.host.start()
    suite.host.hang_up_everything()
    if "-ERR" in suite.host.quorvane("version"):
        suite.host.write_module_configuration(media_node=suite.node.address, log_level="DEBUG")
        suite.host.load_module()
    suite.node.forget()


def run_all(suite, chosen: list) -> dict:
    counts = {"ok": 0, "skipped": 0, "FAILED": 0}
    for function in chosen:
        clean_up_after(suite)
        begin = time.monotonic()
        verdict, reason = run_one(function, suite)
        if verdict == "ok" and not suite.host.is_running():
            verdict, reason = "FAILED", "the host is gone"
        counts[verdict] += 1
        print(f"{verdict:8}{time.monotonic() - begin:6.1f} s  {sentence(function)}"
              + (f"\n{'':18}{reason}" if reason else ""), flush=True)
    return counts


def last_words(suite) -> dict:
    """What only the end of the shared host shows: its exit status and all datagrams."""
    clean_up_after(suite)
    status = suite.host.stop()
    print(f"the host ended with status {status}, "
          f"{len(suite.node.malformed)} malformed datagrams were received")
    return status == 0 and not suite.node.malformed


def main() -> int:
    arguments = parse_arguments()
    installation = find_installation()
    if installation is None:
        print("SKIPPED: no FreeSWITCH is installed (PATH, pkg-config, FREESWITCH_PREFIX)")
        return SKIPPED_STATUS
    if arguments.not_for_real_host:
        print("SKIPPED: the module was not built with the headers of the installed FreeSWITCH")
        return SKIPPED_STATUS
    own_network.enter()
    folder = pathlib.Path(tempfile.mkdtemp(prefix="quorvane-real-host-"))
    suite = Suite(installation, folder, arguments.module.resolve(), arguments.relocated.resolve())
    suite.node_program = arguments.node.resolve() if arguments.node else None
    good = False
    try:
        suite.host.start()
        print(f"host: {installation.program}, {suite.host.api('version').strip()}\n"
              f"module: {suite.host.module.name} from "
              f"{suite.host.module.parent.name}, configuration in a private "
              f"{'/etc' if suite.host.module == arguments.module.resolve() else 'folder'}")
        counts = run_all(suite, [f for f in SCENARIOS if arguments.only in sentence(f)])
        good = last_words(suite) and counts["FAILED"] == 0
        print(", ".join(f"{count} {verdict}" for verdict, count in counts.items()))
    finally:
        suite.close()
        if good and not arguments.keep:
            shutil.rmtree(folder)
        else:
            print(f"logs are kept in {folder}")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
