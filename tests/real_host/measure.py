#!/usr/bin/env python3
"""Measures the processor time of bridged SIP calls in the host, with and without the tap.

There are two private hosts. One places and answers the calls; the other one is measured and
bridges them without transcoding. Prints the processor time per call of the measured host as a
share of one core, the median of the rounds.
"""

import argparse
import contextlib
import os
import pathlib
import shutil
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from harness.audio import KnownSound  # noqa: E402
from harness.find_host import find_installation  # noqa: E402
from harness.host import Host  # noqa: E402
from harness.host_files import extension  # noqa: E402
from harness.media_node import MediaNode  # noqa: E402

CODECS = ("PCMU", "PCMA", "G722", "OPUS@48000h", "L16@16000h@20i")


def processor_seconds(pid: int) -> float:
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def through(name: str, ends_port: int, *applications) -> str:
    """An extension that bridges to the other host in the codec that the caller offered."""
    return extension(name, "answer", *applications,
                     "set absolute_codec_string=${ep_codec_string}",
                     f"bridge sofia/suite/far@127.0.0.1:{ends_port}")


class Bench:
    """The two hosts and the calls through them."""

    def __init__(self, arguments, folder: pathlib.Path):
        installation = find_installation() or sys.exit("no FreeSWITCH is installed")
        self.node = MediaNode()
        play = f"endless_playback {KnownSound(folder / 'sound.wav', seed=1, seconds=60).path}"
        self.ends = Host(installation, folder / "ends", arguments.module, arguments.relocated,
                         extension("far", "answer", play) + extension("near", play))
        port = self.ends.ports.sip
        self.middle = Host(installation, folder / "middle", arguments.module, arguments.relocated,
                           through("plain", port) + through("tapped", port, "quorvane")
                           + through("recorded", port,
                                     f"record_session {folder}/rec-${{uuid}}.wav"))
        if self.middle.ports.rtp_first == self.ends.ports.rtp_first:
            raise SystemExit("both hosts chose the same RTP ports; run it again")
        self.middle.write_module_configuration(media_node=self.node.address, log_level="ERROR")

    @contextlib.contextmanager
    def running(self):
        try:
            self.ends.start()
            self.middle.start()
            self.middle.load_module()
            for host in (self.ends, self.middle):
                host.api("fsctl loglevel err")
            yield
        finally:
            self.ends.close()
            self.middle.close()
            self.node.close()

    def cost(self, codec: str, extension_name: str, calls: int, seconds: float) -> float:
        """The share of a core, in percent, that the measured host uses for one call."""
        target = f"sofia/suite/{extension_name}@127.0.0.1:{self.middle.ports.sip}"
        for _ in range(calls):
            self.ends.originate(f"{{absolute_codec_string={codec}}}{target} near XML scenarios")
        time.sleep(1.5)
        self.check_codec(codec, calls)
        before, begin = processor_seconds(self.middle.pid), time.monotonic()
        time.sleep(seconds)
        used, passed = processor_seconds(self.middle.pid) - before, time.monotonic() - begin
        self.ends.hang_up_everything()
        self.middle.hang_up_everything()
        self.node.forget()
        return 100 * used / passed / calls

    def check_codec(self, codec: str, calls: int) -> None:
        """Checks that all legs of the measured host use the codec: transcoding would cost, too."""
        name = codec.partition("@")[0].lower()
        shown = self.middle.api("show channels").lower().count(f",{name},")
        if shown < 2 * calls:
            raise SystemExit(f"{codec}: only {shown} of {4 * calls} codec entries are {name}")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module", type=pathlib.Path, required=True, help="mod_quorvane.so")
    parser.add_argument("--relocated", type=pathlib.Path, required=True,
                        help="the module that reads its configuration under the current folder")
    parser.add_argument("--calls", type=int, default=20,
                        help="calls at a time (%(default)s)")
    parser.add_argument("--seconds", type=float, default=6,
                        help="length of the calls (%(default)s)")
    parser.add_argument("--rounds", type=int, default=3, help="rounds (%(default)s)")
    parser.add_argument("--codecs", nargs="*", default=CODECS, metavar="CODEC")
    parser.add_argument("--kinds", nargs="*", default=["plain", "tapped", "recorded"],
                        metavar="KIND", help="of plain, tapped, recorded (all)")
    arguments = parser.parse_args()
    arguments.module = arguments.module.resolve()
    arguments.relocated = arguments.relocated.resolve()
    folder = pathlib.Path(tempfile.mkdtemp(prefix="quorvane-measure-"))
    bench = Bench(arguments, folder)
    try:
        with bench.running():
            print(f"{arguments.calls} calls, {arguments.seconds} s, {arguments.rounds} rounds; "
                  "percent of a core for one bridged call")
            print(f"{'codec':16}" + "".join(f"{kind:>22}" for kind in arguments.kinds))
            for codec in arguments.codecs:
                rounds = [[bench.cost(codec, kind, arguments.calls, arguments.seconds)
                           for kind in arguments.kinds] for _ in range(arguments.rounds)]
                cells = [f"{statistics.median(row):.2f} ({min(row):.2f}-{max(row):.2f})"
                         for row in zip(*rounds)]
                print(f"{codec:16}" + "".join(f"{cell:>22}" for cell in cells), flush=True)
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
