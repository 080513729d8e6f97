#!/usr/bin/env python3
"""Runs calls of random length with API traffic in a real FreeSWITCH for some minutes.

The host, in folders of its own, places the calls; quorvane-node receives them. The resources of
the host's process are written to FOLDER/samples.txt, the receiver's events to FOLDER/events.jsonl;
scripts/soak_report.py judges both. The last line printed is the number of calls that were tapped.
"""

import argparse
import pathlib
import random
import re
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "scripts")]

from harness.audio import KnownSound  # noqa: E402
from harness.find_host import find_installation  # noqa: E402
from harness.host import Host  # noqa: E402
from harness.host_files import extension  # noqa: E402
from harness.suite import eventually  # noqa: E402
from soak_samples import PERIOD_S, Samples  # noqa: E402

CALLERS = 6
LONGEST_CALL_S = 12
COMMANDS = ("features", "audio_activity stop both", "audio_activity start", "detection start")
VARIABLES = ("loopback_bowout=false,quorvane_rule_id=1,quorvane_audio_activity=true,"
             "quorvane_detection=inactive,sip_call_id=soak")


class Receiver:
    """quorvane-node, writing events only."""

    def __init__(self, program: pathlib.Path, folder: pathlib.Path):
        self.process = subprocess.Popen(
            [program, "--listen", "127.0.0.1:0", "--output", folder, "--no-sides", "--quiet",
             "--events", folder / "events.jsonl"], stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        self.address = re.search(r"127\.0\.0\.1:\d+", line).group()

    def close(self) -> None:
        self.process.terminate()
        self.process.wait(10)


class Calls:
    """Places calls on several threads, on each one after the other, until it is stopped."""

    def __init__(self, host: Host):
        self.host = host
        self.tapped = self.untapped = self.refused = 0
        self.stopping = threading.Event()
        self.lock = threading.Lock()
        self.threads = [threading.Thread(target=self.run, args=(seed,)) for seed in range(CALLERS)]
        for thread in self.threads:
            thread.start()

    def run(self, seed: int) -> None:
        generator = random.Random(seed)
        connection = self.host.new_connection()
        while not self.stopping.is_set():
            answer = connection.api(f"originate {{{VARIABLES}}}loopback/far/scenarios "
                                    "tap XML scenarios").strip()
            if answer.startswith("+OK "):
                self.live(connection, answer[4:], generator)
            else:
                self.count("refused")
        connection.close()

    def count(self, what: str) -> None:
        with self.lock:
            setattr(self, what, getattr(self, what) + 1)

    def live(self, connection, uuid: str, generator) -> None:
        tapped = eventually(
            lambda: len(connection.api(f"quorvane {uuid} features").strip()) == len("RRSSAA"))
        self.count("tapped" if tapped else "untapped")
        for command in COMMANDS:
            connection.api(f"quorvane {uuid} {command}")
            time.sleep(0.1)
        self.stopping.wait(generator.uniform(0, LONGEST_CALL_S))
        connection.api(f"uuid_kill {uuid}")

    def stop(self) -> None:
        self.stopping.set()
        for thread in self.threads:
            thread.join()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module", type=pathlib.Path, required=True, help="mod_quorvane.so")
    parser.add_argument("--relocated", type=pathlib.Path, required=True,
                        help="the module that reads its configuration under the current folder")
    parser.add_argument("--node", type=pathlib.Path, required=True, help="quorvane-node")
    parser.add_argument("--minutes", type=float, required=True, help="length of the run")
    parser.add_argument("folder", type=pathlib.Path, help="folder of the samples and events")
    arguments = parser.parse_args()
    installation = find_installation() or sys.exit("no FreeSWITCH is installed")
    folder = arguments.folder.resolve()
    folder.mkdir(parents=True, exist_ok=True)
    sounds = [KnownSound(folder / f"{name}.wav", seed, seconds=25).path
              for seed, name in enumerate(("far", "near"))]
    receiver = Receiver(arguments.node.resolve(), folder)
    host = Host(installation, folder / "host", arguments.module.resolve(),
                arguments.relocated.resolve(),
                extension("far", "answer", f"endless_playback {sounds[0]}")
                + extension("tap", "answer", "quorvane", f"endless_playback {sounds[1]}"))
    host.write_module_configuration(media_node=receiver.address, log_level="ERROR")
    try:
        host.start()
        host.load_module()
        host.api("fsctl loglevel err")
        calls = Calls(host)
        samples = Samples(folder / "samples.txt", host.pid, host.module)
        end = time.monotonic() + arguments.minutes * 60
        while time.monotonic() < end:
            samples.take()
            time.sleep(PERIOD_S)
        calls.stop()
        host.hang_up_everything()
        time.sleep(1)
        left = samples.registered()
        samples.close()
        print("unload:", host.unload_module(), "- refused by the host:", calls.refused,
              "- ended before they were tapped:", calls.untapped, "- left in the registry:", left)
        if left:
            sys.exit("soak: there are calls in the registry without a channel")
    finally:
        host.close()
        receiver.close()
    print(calls.tapped)


if __name__ == "__main__":
    main()
